// The queue's PPD through libcups: marking options and emitting their code.
#include "backend/printersetup.h"

#include <QFile>

#include <cups/ppd.h>

// The PPD functions are the interface of PostScript queues in this CUPS
// release; their deprecation notes point at the driverless interfaces.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

#include <cstdlib>

namespace
{

// The PPD option and choice of two-sided printing along the long edge, the
// back side of a portrait sheet turned as a book's page.
const char DuplexOption[] = "Duplex";
const char LongEdgeChoice[] = "DuplexNoTumble";

// Appends the code of the marked options of one section of the job.
void appendSection(ppd_file_t* ppd, ppd_section_t section, QByteArray* code)
{
    char* text = ppdEmitString(ppd, section, 0.0);
    if (text) {
        code->append(text);
        std::free(text);
    }
}

} // namespace

PrinterSetup printerSetup(const QString& ppdFile, const QByteArray& options, bool twoSided)
{
    PrinterSetup setup;
    ppd_file_t* ppd = ppdFile.isEmpty() ? nullptr : ppdOpenFile(QFile::encodeName(ppdFile).constData());
    if (!ppd) {
        if (twoSided)
            setup.error = QStringLiteral("the queue prints back pages, which needs two-sided printing, "
                                         "but it has no printer description (PPD) that offers it");
        return setup;
    }
    // Whether the printer can print two-sided is the queue's matter, not the
    // job's: it is asked before the job's options (which could claim a
    // duplexer among the installable options) are marked.
    ppdMarkDefaults(ppd);
    if (twoSided) {
        ppd_option_t* duplex = ppdFindOption(ppd, DuplexOption);
        if (!duplex || !ppdFindChoice(duplex, LongEdgeChoice))
            setup.error = QStringLiteral("the queue prints back pages, which needs two-sided printing, "
                                         "but its printer description (PPD) has no %1 option with %2")
                              .arg(QLatin1String(DuplexOption), QLatin1String(LongEdgeChoice));
        else if (ppdInstallableConflict(ppd, DuplexOption, LongEdgeChoice))
            setup.error = QStringLiteral("the queue prints back pages, which needs two-sided printing, "
                                         "but its installable options say the printer has no duplexer "
                                         "(set them with lpadmin -p <queue> -o <option>=<value>)");
    }
    cups_option_t* parsed = nullptr;
    const int count = cupsParseOptions(options.constData(), 0, &parsed);
    cupsMarkOptions(ppd, count, parsed);
    cupsFreeOptions(count, parsed);
    if (twoSided && setup.error.isEmpty())
        ppdMarkOption(ppd, DuplexOption, LongEdgeChoice);
    if (setup.error.isEmpty()) {
        appendSection(ppd, PPD_ORDER_PROLOG, &setup.code);
        appendSection(ppd, PPD_ORDER_DOCUMENT, &setup.code);
        appendSection(ppd, PPD_ORDER_ANY, &setup.code);
    }
    ppdClose(ppd);
    return setup;
}
