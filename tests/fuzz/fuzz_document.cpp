// libFuzzer target: the document scan on a buffer, then a whole run of the
// document filter on the input (simplex and duplex, classic and print-safe
// output), with the small fixture catalogue and a fixed template.
#include "fuzzsupport.h"

#include "document/quillet.h"
#include "fonts/fonts.h"
#include "marker/marker.h"
#include "settings/variables.h"

#include <QBuffer>
#include <QFile>

namespace
{

const char Template[] = "first:bold:14::top-center:Sheet {CURRENT_PAGE} of {NUM_PAGES}\n"
                        "any:normal:10:underline::top-center:Sheet {CURRENT_PAGE}\n"
                        "any:normal:8::bottom-left:[DATE] [TIME]\n"
                        "last:normal:10::bottom-center:END\n"
                        "any:normal:9::{20;30}:at 20 30\n";
const char JobVariables[] =
    "copies=2\nCURRENT_COPY=2\nPAGE_FORMAT=Letter\nDEVICEWIDTH=612\nDEVICEHEIGHT=792\n"
    "LANDSCAPE=0,1\n";
const char Definitions[] =
    "MarkerTopShift=10\nMarkerBottomShift=12\nMarkerLeftShift=20\nMarkerRightShift=22\n"
    "MarkerStringInterval=3\nDATE=01.02.2024\nTIME=10:20:30\n";

// Fills the singletons as start-up does: variables, definitions (with or
// without print-safe output), template, catalogue.
void startUp(bool safeOutput)
{
    Fuzz::resetSingletons();
    Variables& variables = Variables::instance();
    for (const QByteArray& text : {QByteArray(JobVariables), QByteArray(Definitions)}) {
        QBuffer buffer;
        buffer.setData(text);
        buffer.open(QIODevice::ReadOnly);
        variables.read(buffer);
    }
    if (safeOutput)
        variables.insert(QStringLiteral("MarkerSafeOutput"), QStringLiteral("1"));
    QBuffer templateDevice;
    templateDevice.setData(Template);
    templateDevice.open(QIODevice::ReadOnly);
    Marker::instance().readTemplate(templateDevice);
    Fonts& fonts = Fonts::instance();
    fonts.initialize(Marker::instance().charset());
    fonts.setMarkerStyles(Marker::instance().fontStyles());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::initialize();
    Fuzz::installTinyCatalogue();
    Fuzz::writeDataFile(QStringLiteral("job/template"), Template);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray document = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
    Fuzz::writeDataFile(QStringLiteral("job/input.ps"), document);

    for (const bool safeOutput : {false, true}) {
        startUp(safeOutput);

        // The scan alone, on a buffer. A failed scan would end a run of the
        // filter with its message, so the whole run is tried only after a
        // scan that succeeded.
        QBuffer buffer;
        buffer.setData(document);
        buffer.open(QIODevice::ReadOnly);
        DocumentModel model;
        if (!Quillet().scanDocument(buffer, model).ok())
            return 0;

        for (const bool duplex : {false, true}) {
            startUp(safeOutput);
            Fuzz::writeDataFile(QStringLiteral("job/variables"), QByteArray());
            // Failing with a message is an outcome like any other here; only
            // a crash, a leak or a sanitizer report is a finding.
            const Status status = Quillet().process(Fuzz::dataPath(QStringLiteral("job/input.ps")),
                              Fuzz::dataPath(QStringLiteral("job/template")),
                              Fuzz::dataPath(QStringLiteral("job/variables")),
                              Fuzz::dataPath(QStringLiteral("job/output.ps")), duplex);
            Q_UNUSED(status)
        }
    }
    return 0;
}
