// The output writer: copies the input line by line, adding the showpage
// redefinition, the page size request, the marker fonts and the marker block
// of every page (simplex), or an inserted back page carrying the marker after
// every page (duplex).
#include "document/quillet.h"

#include "app/fatal.h"
#include "common/trace.h"
#include "fonts/fonts.h"
#include "marker/marker.h"
#include "pagecode/pagecoder.h"
#include "settings/variables.h"

#include <QCoreApplication>
#include <QFile>

namespace {

// - -  Keeps the real showpage and disables the document's own (simplex).
const char RedefineShowpage[] = "/showpagereal /showpage load def\n/showpage {} def\n";
// - -  Asks for the job's paper size.
const char PageSizeRequest[] = "<< /PageSize [ %1 %2 ] /ImagingBBox null >> setpagedevice\n";
// - -  Shows the page with the marker painted over it (simplex).
const char ShowPageReal[] = "showpagereal\n";

// The inserted back page of duplex mode.
const char PageLabel[] = "%%Page: %1 %1\n";
const char PageSetup[] = "%%BeginPageSetup\n%%EndPageSetup\n";
const char BackPageEnd[] = "showpage\n%%PageTrailer\n";

const char PageComment[] = "%%Page:";
const char PagesComment[] = "%%Pages:";
const char PageBoundingBox[] = "%%PageBoundingBox:";

QString quilletText(const char* text)
{
    return QCoreApplication::translate("Quillet", text);
}

// Reads a base-10 integer; text that is not one counts as 0.
qint64 number(const QString& text)
{
    bool ok = false;
    const qint64 value = text.toLongLong(&ok, 10);
    return ok ? value : 0;
}

QByteArray pageLabel(qint64 number)
{
    return QString::fromLatin1(PageLabel).arg(number).toLatin1();
}

// Copies count lines; keeps the first "%%PageBoundingBox:" line met when asked.
void copyPageLines(QIODevice& input, QIODevice& output, qint64 count, QByteArray* boundingBox)
{
    for (qint64 i = 0; i < count; ++i) {
        const QByteArray line = input.readLine();
        output.write(line);
        if (boundingBox && boundingBox->isNull() && line.startsWith(PageBoundingBox))
            *boundingBox = line;
    }
}

} // namespace

void copyLines(QIODevice& input, QIODevice& output, qint64 count)
{
    copyPageLines(input, output, count, nullptr);
}

void copyRest(QIODevice& input, QIODevice& output, qint64 pageCount)
{
    const QByteArray pages = QString::fromLatin1("%1 %2\n").arg(QLatin1String(PagesComment)).arg(pageCount).toLatin1();
    for (QByteArray line = input.readLine(); !line.isEmpty(); line = input.readLine())
        output.write(pageCount >= 0 && line.startsWith(PagesComment) ? pages : line);
}

void Quillet::process(const QString& input, const QString& templateFile, const QString& variablesFile,
                      const QString& output, bool duplex)
{
    // The input is read as raw bytes, without end-of-line translation, so
    // that every byte of it reaches the output unchanged.
    QFile in(input);
    if (!in.open(QIODevice::ReadOnly))
        fatal(quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not open input file %1")).arg(input));
    QFile templateDevice(templateFile);
    if (!templateDevice.open(QIODevice::ReadOnly))
        fatal(quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not open template file %1")).arg(templateFile));
    QFile variablesDevice(variablesFile);
    if (!variablesDevice.open(QIODevice::WriteOnly | QIODevice::Truncate))
        fatal(quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not open variables file %1")).arg(variablesFile));
    QFile out(output);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Text))
        fatal(quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not open output file %1 for writing")).arg(output));

    DocumentModel model;
    if (!scanDocument(in, model))
        fatal(quilletText(QT_TRANSLATE_NOOP("Quillet", "No pages was found in file %1")).arg(input));
    const qint64 pageCount = model.pageEndLines.size();
    trace(QStringLiteral("Page count: %1").arg(pageCount));

    // Publish the page counts and hand the store back to the print path.
    Variables& variables = Variables::instance();
    const qint64 copies = number(variables.contains(QStringLiteral("copies"))
                                     ? variables.value(QStringLiteral("copies"))
                                     : QStringLiteral("1"));
    variables.insert(QStringLiteral("NUM_PAGES"), QString::number(pageCount));
    variables.insert(QStringLiteral("NUM_PAGES_CONTINUOUS"), QString::number(pageCount * copies));
    variables.write(variablesDevice);
    variablesDevice.close();

    in.seek(0);

    // The head: up to the prolog, the showpage redefinition and page size,
    // the rest of the head, the marker fonts, then the first "%%Page:" line.
    copyLines(in, out, model.prologLine + 1);
    const qint64 currentCopy = number(variables.value(QStringLiteral("CURRENT_COPY")));
    const QString pageFormat = variables.value(QStringLiteral("PAGE_FORMAT"));
    if (!duplex)
        out.write(RedefineShowpage);
    if (!pageFormat.isEmpty() && pageFormat != QLatin1String("A4"))
        out.write(QString::fromLatin1(PageSizeRequest)
                      .arg(variables.value(QStringLiteral("DEVICEWIDTH")),
                           variables.value(QStringLiteral("DEVICEHEIGHT")))
                      .toLatin1());
    copyLines(in, out, model.firstPageLine - model.prologLine);
    Fonts::instance().writeFontResources(out);
    copyLines(in, out, 1);

    const Marker& marker = Marker::instance();
    qint64 previousEnd = model.firstPageLine;
    for (qint64 page = 1; page <= pageCount; ++page) {
        const qint64 pageEnd = model.pageEndLines.at(int(page - 1));
        trace(QStringLiteral("Copying page: %1").arg(page));
        QByteArray boundingBox;
        copyPageLines(in, out, pageEnd - previousEnd - 1, duplex ? &boundingBox : nullptr);

        variables.insert(QStringLiteral("CURRENT_PAGE"), QString::number(page));
        variables.insert(QStringLiteral("CURRENT_PAGE_CONTINUOUS"),
                         QString::number((currentCopy - 1) * pageCount + page));
        if (PageCoder::instance().isOn())
            variables.insert(QStringLiteral("PAGE_CODE"), PageCoder::instance().code(page));

        if (!duplex) {
            marker.drawMarker(out, int(page), page == pageCount);
            out.write(ShowPageReal);
            copyLines(in, out, 1);
        } else {
            // A back page carrying the marker of this page; the document's
            // following page is renumbered after it.
            out.write(pageLabel(2 * page));
            out.write(boundingBox);
            out.write(PageSetup);
            marker.drawMarker(out, int(page), page == pageCount);
            out.write(BackPageEnd);
            const QByteArray next = in.readLine();
            out.write(next.startsWith(PageComment) ? pageLabel(2 * page + 1) : next);
        }
        previousEnd = pageEnd;
    }
    copyRest(in, out, duplex ? 2 * pageCount : -1);

    in.close();
    out.close();
}
