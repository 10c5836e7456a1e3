// The output writer: copies the input line by line, adding the showpage
// redefinition, the page size request, the marker fonts and the marker block
// of every page (simplex), or an inserted back page carrying the marker after
// every page (duplex).
#include "document/quillet.h"

#include "common/trace.h"
#include "fonts/fonts.h"
#include "marker/marker.h"
#include "pagecode/pagecoder.h"
#include "settings/variables.h"

#include "document/insertions.h"
#include "document/linereader.h"
#include "document/targetfile.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryFile>

#include <sys/stat.h>

#include <limits>

namespace {

// - -  Keeps the real showpage and disables the document's own (simplex).
const char RedefineShowpage[] = "/showpagereal /showpage load def\n/showpage {} def\n";
// - -  Print-safe simplex: the device shows a page only when the marker
// block marked it, whatever route the document takes to show it (the real
// showpage from systemdict or bound early, copypage). EndPage is called as
// "count reason EndPage bool"; reason 2 (device deactivation) shows nothing.
const char PageGuard[] = "userdict /QuilletPageMarked false put\n"
                         "<< /EndPage { exch pop 2 ne { userdict /QuilletPageMarked 2 copy known "
                         "{ 2 copy get 3 1 roll false put } { pop pop false } ifelse } { false } ifelse } "
                         ">> setpagedevice\n";
// - -  Print-safe duplex: every document page must be followed by its marked
// back page before another page is shown. An unmarked page is shown only
// when the page before it was a marked one (or it is the first).
const char DuplexPageGuard[] =
    "userdict /QuilletPageMarked false put\n"
    "userdict /QuilletFrontShown false put\n"
    "<< /EndPage { exch pop 2 ne { userdict /QuilletPageMarked 2 copy known { get } { pop pop false } ifelse "
    "{ userdict /QuilletPageMarked false put userdict /QuilletFrontShown false put true } "
    "{ userdict /QuilletFrontShown 2 copy known { get } { pop pop false } ifelse "
    "{ false } { userdict /QuilletFrontShown true put true } ifelse } ifelse } { false } ifelse } "
    ">> setpagedevice\n";
// - -  Marks the page for the guard, right before it is shown.
const char MarkPage[] = "userdict /QuilletPageMarked true put\n";
// - -  Print-safe: keeps the real showpage under a name of its own, which a
// showpage redefinition that an earlier classic run left in the document
// cannot reach; the marked pages are shown through it.
const char KeepShowPage[] = "/QuilletShowPage /showpage load def\n";
const char ShowPageKept[] = "QuilletShowPage\n";
// - -  Asks for the job's paper size.
const char PageSizeRequest[] = "<< /PageSize [ %1 %2 ] /ImagingBBox null >> setpagedevice\n";
// - -  Shows the page with the marker painted over it (simplex).
const char ShowPageReal[] = "showpagereal\n";

// The inserted back page of duplex mode.
const char PageLabel[] = "%%Page: %1 %1\n";
const char PageSetup[] = "%%BeginPageSetup\n%%EndPageSetup\n";
const char BackPageEnd[] = "showpage\n%%PageTrailer\n";
const char KeptBackPageEnd[] = "QuilletShowPage\n%%PageTrailer\n";

const char PageComment[] = "%%Page:";
const char PagesComment[] = "%%Pages:";
const char AtEnd[] = "(atend)";
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

// Whether the page numbers of a copy, (copy - 1) x pages + page for every
// page, fit in 64 bits.
bool copyNumbersFit(qint64 copy, qint64 pages)
{
    qint64 before = 0;
    qint64 product = 0;
    qint64 last = 0;
    return !__builtin_sub_overflow(copy, 1, &before) && !__builtin_mul_overflow(before, pages, &product)
        && !__builtin_add_overflow(product, pages, &last);
}

// Whether a paper dimension is a plain positive number of points, in a form
// that PostScript reads: digits with an optional fraction, no sign, exponent
// or unit, and no more digits than any paper needs.
bool isPaperSize(const QString& text)
{
    static const QRegularExpression plainNumber(QStringLiteral("^[0-9]{1,6}(\\.[0-9]{1,6})?$"));
    return plainNumber.match(text).hasMatch() && text.toDouble() > 0;
}

// Whether two names lead to the same file (hard and symbolic links included).
bool sameFile(const QString& first, const QString& second)
{
    struct stat a;
    struct stat b;
    return ::stat(QFile::encodeName(first).constData(), &a) == 0
        && ::stat(QFile::encodeName(second).constData(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

QByteArray pageLabel(qint64 number)
{
    return QString::fromLatin1(PageLabel).arg(number).toLatin1();
}

// Writes a line (or a run of lines) to the output.
void write(TargetFile& output, std::string_view lines)
{
    output.device().write(lines.data(), qint64(lines.size()));
    output.spill();
}

// The first line of a run of lines that begins with a prefix, or an empty view.
std::string_view firstLineWith(std::string_view lines, std::string_view prefix)
{
    for (std::size_t at = lines.find(prefix); at != std::string_view::npos; at = lines.find(prefix, at + 1)) {
        if (at == 0 || lines[at - 1] == '\n') {
            const std::size_t newline = lines.find('\n', at);
            return lines.substr(at, newline == std::string_view::npos ? newline : newline + 1 - at);
        }
    }
    return {};
}

// Copies count lines, in runs that stand together in the input's block; keeps
// the first "%%PageBoundingBox:" line met when asked.
void copyRuns(LineReader& input, TargetFile& output, qint64 count, QByteArray* boundingBox = nullptr)
{
    qint64 taken = 0;
    for (; count > 0; count -= taken) {
        const std::string_view lines = input.readLines(count, taken);
        if (taken == 0)
            return;
        write(output, lines);
        if (boundingBox && boundingBox->isNull()) {
            const std::string_view line = firstLineWith(lines, PageBoundingBox);
            if (!line.empty())
                *boundingBox = QByteArray(line.data(), int(line.size()));
        }
    }
}

QByteArray pagesLine(qint64 pageCount)
{
    return QString::fromLatin1("%1 %2\n").arg(QLatin1String(PagesComment)).arg(pageCount).toLatin1();
}

// Copies count lines of the head. With a page count of 0 or more, a
// "%%Pages:" line that gives a number is rewritten with it, after a record of
// the original.
void copyHead(LineReader& input, TargetFile& output, qint64 count, qint64 pageCount)
{
    if (pageCount < 0) {
        copyRuns(input, output, count);
        return;
    }
    const QByteArray pages = pagesLine(pageCount);
    for (qint64 i = 0; i < count; ++i) {
        const std::string_view line = input.readLine();
        if (line.empty())
            return;
        if (startsWith(line, PagesComment) && line.find(AtEnd) == std::string_view::npos) {
            Insertions::recordReplaced(output.device(), line);
            write(output, std::string_view(pages.constData(), size_t(pages.size())));
        } else {
            write(output, line);
        }
    }
}

} // namespace

void copyLines(LineReader& input, TargetFile& output, qint64 count)
{
    copyRuns(input, output, count);
}

void copyRest(LineReader& input, TargetFile& output, qint64 pageCount, bool recordReplaced)
{
    const QByteArray pages = pagesLine(pageCount);
    const std::string_view newLine(pages.constData(), size_t(pages.size()));
    for (std::string_view line = input.readLine(); !line.empty(); line = input.readLine()) {
        const bool replaced = pageCount >= 0 && startsWith(line, PagesComment);
        if (replaced && recordReplaced)
            Insertions::recordReplaced(output.device(), line);
        write(output, replaced ? newLine : line);
    }
}

Status Quillet::process(const QString& input, const QString& templateFile, const QString& variablesFile,
                        const QString& output, bool duplex)
{
    Variables& variables = Variables::instance();
    const bool safeOutput = variables.safeOutput();

    // The input is read twice, so it must be a regular file; a folder fails
    // to open below. It is read as raw bytes, without end-of-line
    // translation, so that every byte of it reaches the output unchanged.
    const QFileInfo inputInfo(input);
    if (inputInfo.exists() && !inputInfo.isFile() && !inputInfo.isDir())
        return Status::failure(
            quilletText(QT_TRANSLATE_NOOP("Quillet", "Input file %1 is not a regular file")).arg(input));
    QFile in(input);
    if (!in.open(QIODevice::ReadOnly))
        return Status::failure(
            quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not open input file %1")).arg(input));
    QFile templateDevice(templateFile);
    if (!templateDevice.open(QIODevice::ReadOnly))
        return Status::failure(
            quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not open template file %1")).arg(templateFile));
    // Writing a file that is the input would destroy the document.
    for (const QString& written : {variablesFile, output}) {
        if (sameFile(input, written))
            return Status::failure(
                quilletText(QT_TRANSLATE_NOOP("Quillet", "Input file %1 and %2 are the same file"))
                    .arg(input, written));
    }

    // With print-safe output both files are replaced only when the whole run
    // succeeds; until then they are written beside the originals, and the
    // temporary files go away with these objects on any failure.
    TargetFile variablesTarget(variablesFile, safeOutput);
    if (!variablesTarget.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return Status::failure(
            quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not open variables file %1")).arg(variablesFile));
    TargetFile outputTarget(output, safeOutput);
    if (!outputTarget.open(QIODevice::WriteOnly | QIODevice::Text))
        return Status::failure(
            quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not open output file %1 for writing")).arg(output));
    QIODevice& out = outputTarget.device();
    const Status variablesWriteFailure = Status::failure(
        quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not write variables file %1")).arg(variablesFile));
    const Status outputWriteFailure = Status::failure(
        quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not write output file %1")).arg(output));

    DocumentModel model;
    const Status scanned = scanDocument(in, model);
    if (!scanned.ok())
        return scanned;
    // A document that an earlier print-safe run marked: its marks go first,
    // and the original is marked as if it came here unmarked.
    QTemporaryFile original;
    QIODevice* source = &in;
    if (model.earlierMarks) {
        if (!original.open())
            return Status::failure(
                quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not create a temporary file for input file %1"))
                    .arg(input));
        in.seek(0);
        LineReader marked(in);
        const Status dropped = Insertions::drop(marked, original, input);
        if (!dropped.ok())
            return dropped;
        source = &original;
        const Status rescanned = scanDocument(original, model);
        if (!rescanned.ok())
            return rescanned;
    }
    if (model.pageEndLines.isEmpty())
        return Status::failure(
            quilletText(QT_TRANSLATE_NOOP("Quillet", "No pages was found in file %1")).arg(input));
    const qint64 pageCount = model.pageEndLines.size();
    trace(QStringLiteral("Page count: %1").arg(pageCount));

    // Publish the page counts and hand the store back to the print path.
    const qint64 copies = number(variables.contains(QStringLiteral("copies"))
                                     ? variables.value(QStringLiteral("copies"))
                                     : QStringLiteral("1"));
    qint64 continuousCount = 0;
    if (__builtin_mul_overflow(pageCount, copies, &continuousCount)) {
        qWarning("Value of '%s' is out of range; it counts as 0", "copies");
        continuousCount = 0;
    }
    variables.insert(QStringLiteral("NUM_PAGES"), QString::number(pageCount));
    variables.insert(QStringLiteral("NUM_PAGES_CONTINUOUS"), QString::number(continuousCount));
    variables.write(variablesTarget.device());
    if (safeOutput ? !variablesTarget.flush() : !variablesTarget.commit())
        return variablesWriteFailure;

    source->seek(0);
    LineReader reader(*source);

    // The head: up to the prolog, the showpage redefinition and page size,
    // the rest of the head, the marker fonts, then the first "%%Page:" line.
    // The accounting stamp ends every copy: in simplex on a page of its own,
    // which the head's and the trailer's page counts include; in duplex on
    // the last back page.
    const bool stamp = variables.accountingStamp();
    const qint64 outputPages = stamp && !duplex ? pageCount + 1 : -1;
    const int stampCount = int(qBound(qint64(0), copies, qint64(std::numeric_limits<int>::max())));
    copyHead(reader, outputTarget, model.prologLine + 1, outputPages);
    qint64 currentCopy = number(variables.value(QStringLiteral("CURRENT_COPY")));
    if (!copyNumbersFit(currentCopy, pageCount)) {
        qWarning("Value of '%s' is out of range; it counts as 0", "CURRENT_COPY");
        currentCopy = 0;
    }
    const QString pageFormat = variables.value(QStringLiteral("PAGE_FORMAT"));
    if (safeOutput) {
        Insertions::begin(out);
        out.write(KeepShowPage);
    }
    if (!duplex)
        out.write(RedefineShowpage);
    if (safeOutput)
        out.write(duplex ? DuplexPageGuard : PageGuard);
    if (!pageFormat.isEmpty() && pageFormat != QLatin1String("A4")) {
        const QString width = variables.value(QStringLiteral("DEVICEWIDTH"));
        const QString height = variables.value(QStringLiteral("DEVICEHEIGHT"));
        if (!safeOutput || (isPaperSize(width) && isPaperSize(height)))
            out.write(QString::fromLatin1(PageSizeRequest).arg(width, height).toLatin1());
        else
            qWarning("Page size '%s' x '%s' is not a pair of positive numbers; no page size is requested",
                     qPrintable(width), qPrintable(height));
    }
    if (safeOutput)
        Insertions::end(out);
    copyHead(reader, outputTarget, model.firstPageLine - model.prologLine, outputPages);
    if (safeOutput)
        Insertions::begin(out);
    Fonts::instance().writeFontResources(out, [&outputTarget](QFile& file) { outputTarget.append(file); });
    if (safeOutput)
        Insertions::end(out);
    copyLines(reader, outputTarget, 1);

    MarkerBlocks marker(Marker::instance());
    qint64 previousEnd = model.firstPageLine;
    for (qint64 page = 1; page <= pageCount; ++page) {
        const qint64 pageEnd = model.pageEndLines.at(int(page - 1));
        trace(QStringLiteral("Copying page: %1").arg(page));
        QByteArray boundingBox;
        copyRuns(reader, outputTarget, pageEnd - previousEnd - 1, duplex ? &boundingBox : nullptr);

        variables.insert(QLatin1String(PageKeys::CurrentPage), QString::number(page));
        variables.insert(QLatin1String(PageKeys::CurrentPageContinuous),
                         QString::number((currentCopy - 1) * pageCount + page));
        if (PageCoder::instance().isOn())
            variables.insert(QLatin1String(PageKeys::PageCode), PageCoder::instance().code(page));

        if (safeOutput)
            Insertions::begin(out);
        if (!duplex) {
            marker.drawMarker(out, int(page), page == pageCount);
            if (safeOutput) {
                out.write(MarkPage);
                out.write(ShowPageKept);
                Insertions::end(out);
            } else {
                out.write(ShowPageReal);
            }
            copyLines(reader, outputTarget, 1);
        } else {
            // A back page carrying the marker of this page; the document's
            // following page is renumbered after it.
            out.write(pageLabel(2 * page));
            out.write(boundingBox);
            out.write(PageSetup);
            marker.drawMarker(out, int(page), page == pageCount);
            if (stamp && page == pageCount)
                marker.drawFonarik(out, stampCount);
            if (safeOutput) {
                out.write(MarkPage);
                out.write(KeptBackPageEnd);
                Insertions::end(out);
            } else {
                out.write(BackPageEnd);
            }
            const std::string_view next = reader.readLine();
            if (startsWith(next, PageComment)) {
                if (safeOutput)
                    Insertions::recordReplaced(out, next);
                out.write(pageLabel(2 * page + 1));
            } else {
                out.write(next.data(), qint64(next.size()));
            }
        }
        outputTarget.spill();
        previousEnd = pageEnd;
    }
    if (stamp && !duplex) {
        Insertions::begin(out);
        out.write(pageLabel(pageCount + 1));
        out.write(PageSetup);
        marker.drawFonarik(out, stampCount);
        out.write(MarkPage);
        out.write(KeptBackPageEnd);
        Insertions::end(out);
    }
    copyRest(reader, outputTarget, duplex ? 2 * pageCount : outputPages, safeOutput);
    in.close();

    // Every byte is out before anything replaces the originals.
    if (!outputTarget.flush())
        return outputWriteFailure;
    if (safeOutput && !variablesTarget.commit())
        return variablesWriteFailure;
    if (!outputTarget.commit())
        return outputWriteFailure;
    return Status();
}
