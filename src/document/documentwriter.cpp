// The output writer: copies the input line by line, adding the showpage
// redefinition, the page size request, the marker fonts and the marker block
// of every page (simplex), or an inserted back page carrying the marker after
// every page (duplex).
#include "document/quillet.h"

#include "common/filename.h"
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

// Print-safe output puts its definitions right after the document's first
// line, before any of the document's code, and binds its procedures there:
// what they call is the interpreter's own, whatever the document defines
// later. The real showpage is kept under a name of its own, which a showpage
// redefinition that an earlier classic run left in the document cannot
// reach.
const char KeepShowPage[] = "/QuilletShowPage /showpage load def\n";
// - -  Print-safe simplex: the device shows a page only when the marker
// block marked it, whatever route the document takes to show it (the real
// showpage from systemdict or bound early, copypage). EndPage is called as
// "count reason EndPage bool"; reason 2 (device deactivation) shows nothing.
const char PageGuard[] = "userdict /QuilletPageMarked false put\n"
                         "<< /EndPage { exch pop 2 ne { //userdict /QuilletPageMarked 2 copy known "
                         "{ 2 copy get 3 1 roll //false put } { pop pop //false } ifelse } { //false } ifelse } bind "
                         ">> setpagedevice\n";
// - -  Print-safe duplex: every document page must be followed by its marked
// back page before another page is shown. An unmarked page is shown only
// when the page before it was a marked one (or it is the first), and none
// once the last back page is out. What the guard knows lives in global VM,
// which no restore of the document takes back: whether the front is out
// (QuilletFrontShown), the front's paper (QuilletFrontSize, for its back
// page) and whether the job's pages are all out (QuilletJobDone).
const char DuplexPageGuard[] =
    "userdict /QuilletPageMarked false put\n"
    "//globaldict /QuilletFrontShown //false put\n"
    "//globaldict /QuilletJobDone //false put\n"
    "<< /EndPage { exch pop 2 ne //globaldict /QuilletJobDone get not and "
    "{ //userdict /QuilletPageMarked 2 copy known { get } { pop pop //false } ifelse "
    "{ //userdict /QuilletPageMarked //false put //globaldict /QuilletFrontShown //false put //true } "
    "{ //globaldict /QuilletFrontShown get "
    "{ //false } { //globaldict /QuilletFrontShown //true put //globaldict /QuilletFrontSize currentglobal "
    "//true setglobal currentpagedevice /PageSize get aload pop 2 array astore exch setglobal put //true } "
    "ifelse } ifelse } { //false } ifelse } bind "
    ">> setpagedevice\n"
    "/QuilletDuplexGuard currentpagedevice /EndPage get def\n";
// Print-safe duplex, around a back page:
//   - QuilletBackPageStart -  Shows the front when the document has not
//     shown it yet (a page that an EPS figure shows only after its
//     trailer's restore), keeps the document's graphics state, then puts
//     the back page on the front's paper (a page that set its size inside
//     its own save and restore, as ps2write writes them, has restored the
//     device's own paper by now). What the front did is known only while
//     the guard is the device's EndPage (a document may set its own).
//   - QuilletBackPageEnd -  After the back page is shown: returns to the
//     document's graphics state, so that its next page draws as it would
//     have without the back page (showpage would have reset it).
//   - QuilletJobEnd -  After the last back page: the guard shows no more
//     pages.
const char DuplexBackPageProcedures[] =
    "/QuilletBackPageStart { currentpagedevice /EndPage get //QuilletDuplexGuard eq "
    "{ //globaldict /QuilletFrontShown get not { //QuilletShowPage } if gsave "
    "//globaldict /QuilletFrontSize 2 copy known { get dup aload pop currentpagedevice /PageSize get aload pop "
    "3 -1 roll ne 3 1 roll ne or { 1 dict dup /PageSize 4 -1 roll put setpagedevice } { pop } ifelse } "
    "{ pop pop } ifelse } { gsave } ifelse } bind def\n"
    "/QuilletBackPageEnd { grestore } bind def\n"
    "/QuilletJobEnd { //globaldict /QuilletJobDone //true put } bind def\n";
const char BackPageStart[] = "QuilletBackPageStart\n";
const char BackPageDone[] = "QuilletBackPageEnd\n";
const char JobEnd[] = "QuilletJobEnd\n";
// What print-safe output defines for the whole job lives in global VM, which
// no restore of the document takes back (a document may save the VM before
// its first page and restore it in its trailer, after its last).
//   - QuilletGlobal bool  Allocates what follows in global VM; leaves the
//     previous allocation mode.
//   bool QuilletEndGlobal -  Returns to that mode.
const char GlobalVmProcedures[] = "/QuilletGlobal { currentglobal //true setglobal } bind def\n"
                                  "/QuilletEndGlobal { setglobal } bind def\n";
// - QuilletShowMarkedPage -  Marks the page for the guard and shows it with
// the real showpage.
const char ShowMarkedPageProcedure[] =
    "/QuilletShowMarkedPage { //userdict /QuilletPageMarked //true put //QuilletShowPage } bind def\n";
const char ShowMarkedPage[] = "QuilletShowMarkedPage\n";
// Print-safe simplex: a page's marker block is kept from the page's start
// until the page is shown. The document's own showpage draws it and shows the
// page wherever it stands, so a page shown inside a save and restore of its
// own (ps2write sets each page's size so) keeps its content, its paper and
// its marks; the page's end shows the page only when the document has not.
// The block waits in global VM, which no restore of the document takes back:
// marks once shown are not shown again, and a restore cannot drop them.
//   bool proc QuilletPageStart -  Keeps the page's block (made in global VM,
//     see QuilletGlobal); returns to the allocation mode.
//   - QuilletShowPending -  Draws the kept block, if any, and shows the page;
//     the document's showpage from now on.
const char PendingMarksProcedures[] =
    "//globaldict /QuilletPageMarks //null put\n"
    "/QuilletPageStart { //globaldict /QuilletPageMarks 3 -1 roll put setglobal } bind def\n"
    "/QuilletShowPending { //globaldict /QuilletPageMarks get dup //null eq { pop } "
    "{ //globaldict /QuilletPageMarks //null put exec //QuilletShowMarkedPage exec } ifelse } bind def\n"
    "/showpage /QuilletShowPending load def\n";
// - -  Opens and closes the procedure of a page's block (simplex).
const char PendingMarksBegin[] = "QuilletGlobal {\n";
const char PendingMarksEnd[] = "} QuilletPageStart\n";
const char ShowPending[] = "QuilletShowPending\n";
// - -  A save that is never restored, made after the guard and the page size
// request: a grestoreall or restore of the document goes back at most to it,
// so the guard stays in the device. (Ghostscript runs a job inside a save of
// its own, to which grestoreall would otherwise return.)
const char KeepDeviceState[] = "save pop\n";
// - -  Asks for the job's paper size.
const char PageSizeRequest[] = "<< /PageSize [ %1 %2 ] /ImagingBBox null >> setpagedevice\n";
// - -  Shows the page with the marker painted over it (simplex).
const char ShowPageReal[] = "showpagereal\n";

// The inserted back page of duplex mode.
const char PageLabel[] = "%%Page: %1 %1\n";
const char PageSetup[] = "%%BeginPageSetup\n%%EndPageSetup\n";
const char BackPageEnd[] = "showpage\n%%PageTrailer\n";
const char PageTrailer[] = "%%PageTrailer\n";

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
    return ::stat(encodeFileName(first).constData(), &a) == 0 &&
           ::stat(encodeFileName(second).constData(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

// Whether a document's first line is one comment that the interpreter ends
// at the line's own end: a carriage return or form feed inside it would end
// the comment there, and the code after it would run before anything that
// print-safe output puts after the line. A final carriage return before the
// line feed is a line end like any other.
bool isWholeCommentLine(std::string_view line)
{
    if (!startsWith(line, "%") || line.back() != '\n')
        return false;
    line.remove_suffix(startsWith(line.substr(line.size() - 2), "\r\n") ? 2 : 1);
    return line.find_first_of("\r\f") == std::string_view::npos;
}

// With print-safe output, a template that would leave a page of the document
// without marks is refused: one that held more strings than are drawn, or
// one that paints nothing on page 1, on the last page or on a page between
// them (each stands for the pages of its kind).
Status checkMarksOnEveryPage(const QString& templateFile, qint64 pageCount)
{
    const Marker& marker = Marker::instance();
    if (marker.stringsDropped())
        return Status::failure(
            quilletText(QT_TRANSLATE_NOOP("Quillet", "Marker template %1 holds more than %2 marker strings"))
                .arg(templateFile)
                .arg(Marker::MaxMarkerStrings));
    const int pages = int(qMin(pageCount, qint64(std::numeric_limits<int>::max())));
    QList<int> kinds = {1};
    if (pages > 2)
        kinds.append(2);
    if (pages > 1)
        kinds.append(pages);
    for (const int page : qAsConst(kinds)) {
        if (marker.paintedStrings(marker.pageTypeFor(page, page == pages)) == 0)
            return Status::failure(
                quilletText(QT_TRANSLATE_NOOP("Quillet", "Marker template %1 draws nothing on page %2 of %3"))
                    .arg(templateFile)
                    .arg(page)
                    .arg(pageCount));
    }
    return Status();
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
    struct stat inputStatus;
    if (::stat(encodeFileName(input).constData(), &inputStatus) == 0 && !S_ISREG(inputStatus.st_mode) &&
        !S_ISDIR(inputStatus.st_mode))
        return Status::failure(
            quilletText(QT_TRANSLATE_NOOP("Quillet", "Input file %1 is not a regular file")).arg(input));
    QFile in;
    if (!openFileByName(in, input, QIODevice::ReadOnly))
        return Status::failure(
            quilletText(QT_TRANSLATE_NOOP("Quillet", "Can not open input file %1")).arg(input));
    QFile templateDevice;
    if (!openFileByName(templateDevice, templateFile, QIODevice::ReadOnly))
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
    if (safeOutput) {
        const Status marked = checkMarksOnEveryPage(templateFile, pageCount);
        if (!marked.ok())
            return marked;
        source->seek(0);
        if (!isWholeCommentLine(LineReader(*source).readLine()))
            return Status::failure(
                quilletText(QT_TRANSLATE_NOOP("Quillet",
                                              "The first line of input file %1 is not a comment that ends at its line feed"))
                    .arg(input));
    }

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

    // The head: up to the insertion point, the showpage redefinition and
    // page size, the rest of the head, the marker fonts, then the first
    // "%%Page:" line. Classic output inserts after the prolog line; print-safe
    // output right after the first line, before any of the document's code,
    // where nothing (a string, a procedure) can be open, and keeps what it
    // sets there beyond the document's own saves.
    // The accounting stamp ends every copy: in simplex on a page of its own,
    // which the head's and the trailer's page counts include; in duplex on
    // the last back page.
    const bool stamp = variables.accountingStamp();
    const qint64 outputPages = stamp && !duplex ? pageCount + 1 : -1;
    const int stampCount = int(qBound(qint64(0), copies, qint64(std::numeric_limits<int>::max())));
    const qint64 insertionLine = safeOutput ? 0 : model.prologLine;
    copyHead(reader, outputTarget, insertionLine + 1, outputPages);
    qint64 currentCopy = number(variables.value(QStringLiteral("CURRENT_COPY")));
    if (!copyNumbersFit(currentCopy, pageCount)) {
        qWarning("Value of '%s' is out of range; it counts as 0", "CURRENT_COPY");
        currentCopy = 0;
    }
    const QString pageFormat = variables.value(QStringLiteral("PAGE_FORMAT"));
    if (safeOutput) {
        Insertions::begin(out);
        out.write(KeepShowPage);
        out.write(duplex ? DuplexPageGuard : PageGuard);
        Marker::writeBlockProcedures(out);
        out.write(GlobalVmProcedures);
        out.write(ShowMarkedPageProcedure);
        out.write(duplex ? DuplexBackPageProcedures : PendingMarksProcedures);
    } else if (!duplex) {
        out.write(RedefineShowpage);
    }
    if (!pageFormat.isEmpty() && pageFormat != QLatin1String("A4")) {
        const QString width = variables.value(QStringLiteral("DEVICEWIDTH"));
        const QString height = variables.value(QStringLiteral("DEVICEHEIGHT"));
        if (!safeOutput || (isPaperSize(width) && isPaperSize(height)))
            out.write(QString::fromLatin1(PageSizeRequest).arg(width, height).toLatin1());
        else
            qWarning("Page size '%s' x '%s' is not a pair of positive numbers; no page size is requested",
                     qPrintable(width), qPrintable(height));
    }
    if (safeOutput) {
        out.write(KeepDeviceState);
        Insertions::end(out);
    }
    copyHead(reader, outputTarget, model.firstPageLine - insertionLine, outputPages);
    if (safeOutput)
        Insertions::beginMarkerFonts(out);
    Fonts::instance().writeFontResources(out, [&outputTarget](QFile& file) { outputTarget.append(file); });
    if (safeOutput)
        Insertions::endMarkerFonts(out);
    copyLines(reader, outputTarget, 1);

    MarkerBlocks marker(Marker::instance());
    qint64 previousEnd = model.firstPageLine;
    for (qint64 page = 1; page <= pageCount; ++page) {
        const qint64 pageEnd = model.pageEndLines.at(int(page - 1));
        trace(QStringLiteral("Copying page: %1").arg(page));
        variables.insert(QLatin1String(PageKeys::CurrentPage), QString::number(page));
        variables.insert(QLatin1String(PageKeys::CurrentPageContinuous),
                         QString::number((currentCopy - 1) * pageCount + page));
        if (PageCoder::instance().isOn())
            variables.insert(QLatin1String(PageKeys::PageCode), PageCoder::instance().code(page));

        // Print-safe simplex: the page's block waits from its start for the
        // page to be shown.
        if (safeOutput && !duplex) {
            Insertions::begin(out);
            out.write(PendingMarksBegin);
            marker.drawMarker(out, int(page), page == pageCount);
            out.write(PendingMarksEnd);
            Insertions::end(out);
        }
        QByteArray boundingBox;
        copyRuns(reader, outputTarget, pageEnd - previousEnd - 1, duplex ? &boundingBox : nullptr);

        if (!duplex) {
            if (safeOutput) {
                Insertions::begin(out);
                out.write(ShowPending);
                Insertions::end(out);
            } else {
                marker.drawMarker(out, int(page), page == pageCount);
                out.write(ShowPageReal);
            }
            copyLines(reader, outputTarget, 1);
        } else {
            // A back page carrying the marker of this page; the document's
            // following page is renumbered after it.
            if (safeOutput)
                Insertions::begin(out);
            out.write(pageLabel(2 * page));
            out.write(boundingBox);
            out.write(PageSetup);
            if (safeOutput)
                out.write(BackPageStart);
            marker.drawMarker(out, int(page), page == pageCount);
            if (stamp && page == pageCount)
                marker.drawFonarik(out, stampCount);
            if (safeOutput) {
                out.write(ShowMarkedPage);
                out.write(BackPageDone);
                if (page == pageCount)
                    out.write(JobEnd);
                out.write(PageTrailer);
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
        out.write(ShowMarkedPage);
        out.write(PageTrailer);
        Insertions::end(out);
    }
    copyRest(reader, outputTarget, duplex ? 2 * pageCount : outputPages, safeOutput);
    in.close();
    if (reader.failed())
        return readingFailure(reader);

    // Every byte is out before anything replaces the originals.
    if (!outputTarget.flush())
        return outputWriteFailure;
    if (safeOutput && !variablesTarget.commit())
        return variablesWriteFailure;
    if (!outputTarget.commit())
        return outputWriteFailure;
    return Status();
}
