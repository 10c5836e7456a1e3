// The scan of the input document: where its prolog and first page begin,
// where each page ends, and which marker fonts it already carries.
//
// Lines are examined as raw bytes, exactly as they stand in the file. Line
// positions are 0-based line indexes.
#include "document/quillet.h"

#include "document/insertions.h"
#include "document/linereader.h"

#include "common/paths.h"
#include "common/trace.h"
#include "fonts/fonts.h"
#include "settings/variables.h"

#include <QCoreApplication>
#include <QFile>
#include <QIODevice>
#include <QStringList>

#include <algorithm>

namespace {

const char BeginProlog[] = "%%BeginProlog";
const char PageComment[] = "%%Page:";
const char PageTrailer[] = "%%PageTrailer";
const char Trailer[] = "%%Trailer";
const char EndOfFile[] = "%%EOF";
const char BeginFontResource[] = "%%BeginResource: font ";
const char EndResource[] = "%%EndResource\n";
const char FontsFolder[] = "/fonts/";
const char BeginDocument[] = "%%BeginDocument";
const char EndDocument[] = "%%EndDocument";
// What a classic run leaves in a document: its showpage redefinition after
// the prolog line, and the line that shows each page after its marker block.
const char ClassicRedefinition[] = "/showpagereal /showpage load def\n";
const char ClassicShowPage[] = "showpagereal\n";
// The first bytes of the lines above: DSC comments and the marks of earlier
// runs begin with "%".
const char ScannedFirstBytes[] = "%";
const char SafeScannedFirstBytes[] = "%/s";

// The position of a line in a list, or -1.
int indexOf(const QList<QByteArray>& lines, std::string_view line)
{
    for (int i = 0; i < lines.size(); ++i) {
        if (std::string_view(lines.at(i).constData(), size_t(lines.at(i).size())) == line)
            return i;
    }
    return -1;
}

} // namespace

bool filesMatch(LineReader& document, QIODevice& fontFile, qint64& lineCounter)
{
    LineReader font(fontFile);
    for (;;) {
        const std::string_view fontLine = font.readLine();
        if (fontLine.empty())
            return true;
        const std::string_view documentLine = document.readLine();
        ++lineCounter;
        if (documentLine != fontLine) {
            // The trace shows each line up to its first NUL byte.
            const QByteArray shownDocumentLine(documentLine.data(), int(documentLine.size()));
            const QByteArray shownFontLine(fontLine.data(), int(fontLine.size()));
            trace(QStringLiteral("filesMatch: mismatch at line %1: line1='%2', line2='%3'")
                      .arg(lineCounter)
                      .arg(QString::fromLatin1(shownDocumentLine.constData()),
                           QString::fromLatin1(shownFontLine.constData())));
            return false;
        }
    }
}

namespace {

// Print-safe page ends, when some pages have a "%%PageTrailer" line: each page
// ends on the last of its own, else just before the next page, and the last
// page just before the trailer line or with the file's last line.
QList<qint64> pageEndsOfEachPage(const QList<qint64>& pageStartLines, const QList<qint64>& pageTrailerLines,
                                 qint64 trailerLine, qint64 lastLine)
{
    QList<qint64> ends;
    for (int page = 0; page < pageStartLines.size(); ++page) {
        const bool last = page + 1 == pageStartLines.size();
        // The page runs from its "%%Page:" line to the line before the next
        // page's (or before the trailer line, or to the end).
        qint64 end = lastLine;
        if (!last)
            end = pageStartLines.at(page + 1);
        else if (trailerLine != -1)
            end = trailerLine - 1;
        // Both lists are in line order: the page's last trailer line is the
        // last one up to its end, if that stands inside the page.
        const auto after = std::upper_bound(pageTrailerLines.cbegin(), pageTrailerLines.cend(), end);
        qint64 pageEnd = end;
        if (after != pageTrailerLines.cbegin() && *(after - 1) > pageStartLines.at(page) + 1)
            pageEnd = *(after - 1);
        ends.append(pageEnd);
    }
    return ends;
}

// Print-safe, on a document that a classic run marked: the classic marker
// block of a page may stand after the page's end (after its "%%PageTrailer",
// before the next page). The page then ends after the block's
// "showpagereal", so that the earlier marks stay on their page, under the
// new ones.
void endPagesAfterClassicMarks(QList<qint64>& pageEnds, const QList<qint64>& pageStartLines,
                               const QList<qint64>& classicShowPages, qint64 lastLine)
{
    for (int page = 0; page < pageEnds.size() && page < pageStartLines.size(); ++page) {
        // The next page's "%%Page:" line, or past the last line.
        const qint64 limit = page + 1 < pageStartLines.size() ? pageStartLines.at(page + 1) + 1 : lastLine + 1;
        const auto show = std::lower_bound(classicShowPages.cbegin(), classicShowPages.cend(), pageEnds.at(page));
        if (show != classicShowPages.cend() && *show + 1 <= limit && *show + 1 <= lastLine)
            pageEnds[page] = *show + 1;
    }
}

// One pass over the document. Embedded documents whose opening line is in
// ignoredBegins are not taken as such; the opening lines of those never
// closed are left in unclosedBegins.
Status scanLines(LineReader& input, DocumentModel& model, const QList<qint64>& ignoredBegins,
                 QList<qint64>& unclosedBegins)
{
    model = DocumentModel();

    // The resource lines that introduce a marker base font in the document.
    const QStringList requiredFonts = Fonts::instance().requiredFonts();
    QList<QByteArray> resourceLines;
    for (const QString& font : requiredFonts)
        resourceLines.append(BeginFontResource + font.toLocal8Bit() + '\n');
    trace(QStringLiteral("Required Fonts: %1").arg(requiredFonts.join(QStringLiteral(", "))));

    QList<qint64> pageStartLines;
    qint64 trailerLine = -1;
    QStringList identicalFonts;
    QStringList conflictingFonts;

    // With print-safe output, documents embedded in this one (EPS figures
    // between "%%BeginDocument" and "%%EndDocument", nested ones counted) are
    // copied but not examined: their page and trailer comments are their own.
    // Only a prolog before the first page is the document's; the trailer is
    // the last "%%Trailer" (else "%%EOF") after the last page; every page
    // gets an end; and the line positions stay exact after a font resource
    // that differs from the catalogue's.
    const bool safeOutput = Variables::instance().safeOutput();
    QList<qint64> openBegins;
    qint64 lastTrailer = -1;
    qint64 lastEndOfFile = -1;
    bool classicMarks = false;
    Insertions::ClassicBackPageWatch classicBackPages;
    QList<qint64> classicShowPages;

    // Every line that the scan acts on begins with one of these bytes; the
    // others are only counted.
    static const ByteSet scannedFirstBytes(ScannedFirstBytes);
    static const ByteSet safeScannedFirstBytes(SafeScannedFirstBytes);
    const ByteSet& firstBytes = safeOutput ? safeScannedFirstBytes : scannedFirstBytes;

    qint64 counter = 0;
    for (;;) {
        qint64 skipped = 0;
        const std::string_view line = input.readLineBeginningWith(firstBytes, skipped);
        counter += skipped;
        if (skipped > 0)
            classicBackPages.see({});
        if (line.empty())
            break;
        if (safeOutput) {
            if (classicBackPages.see(line) || Insertions::isMarkOfEarlierRun(line))
                model.earlierMarks = true;
            if (line == ClassicRedefinition)
                classicMarks = true;
            else if (line == ClassicShowPage)
                classicShowPages.append(counter);
            if (startsWith(line, BeginDocument) && !ignoredBegins.contains(counter))
                openBegins.append(counter);
            else if (!openBegins.isEmpty() && startsWith(line, EndDocument))
                openBegins.removeLast();
            if (!openBegins.isEmpty() || startsWith(line, EndDocument)) {
                ++counter;
                continue;
            }
        }
        if (model.prologLine == 0 && startsWith(line, BeginProlog) && !(safeOutput && !pageStartLines.isEmpty()))
            model.prologLine = counter;

        if (startsWith(line, PageComment)) {
            pageStartLines.append(counter - 1);
            if (model.firstPageLine == 0)
                model.firstPageLine = counter - 1;
            lastTrailer = -1;
            lastEndOfFile = -1;
        } else if (startsWith(line, PageTrailer)) {
            model.pageEndLines.append(counter);
        } else if (startsWith(line, Trailer) || startsWith(line, EndOfFile)) {
            if (trailerLine == -1)
                trailerLine = counter;
            (startsWith(line, Trailer) ? lastTrailer : lastEndOfFile) = counter;
        } else if (startsWith(line, BeginFontResource) && indexOf(resourceLines, line) != -1) {
            // A marker base font in the document: compare it with the
            // catalogue's file. The lines read move the counter themselves.
            const QString font = requiredFonts.at(indexOf(resourceLines, line));
            trace(QStringLiteral("Line %1 matches font resource line. Font name is %2").arg(counter).arg(font));
            QFile fontFile(QLatin1String(CupsDataDir) + QLatin1String(FontsFolder) + font);
            if (!fontFile.open(QIODevice::ReadOnly))
                return Status::failure(
                    QCoreApplication::translate("Quillet", "Can not open marker font file %1")
                        .arg(fontFile.fileName()));
            const bool contentMatches = filesMatch(input, fontFile, counter);
            fontFile.close();

            bool identical = false;
            if (contentMatches) {
                trace(QStringLiteral("Resource content matches font file content"));
                const bool emptyLine = input.readLine() == "\n";
                const bool endLine = input.readLine() == EndResource;
                counter += 3;
                identical = emptyLine && endLine;
            } else if (safeOutput) {
                ++counter; // the "%%BeginResource:" line itself
            }
            if (identical) {
                if (!identicalFonts.contains(font))
                    identicalFonts.append(font);
            } else {
                trace(QStringLiteral("Document font %1 doesn't match system one").arg(font));
                identicalFonts.removeAll(font);
                if (!conflictingFonts.contains(font))
                    conflictingFonts.append(font);
            }
            continue;
        }
        ++counter;
    }
    if (input.failed())
        return readingFailure(input);
    unclosedBegins = openBegins;

    // Print-safe: pages without any "%%PageTrailer" keep the rule below (with
    // the document's own trailer); otherwise, or when the only trailer lines
    // stand before the last page, every page ends by itself.
    if (safeOutput) {
        const bool anyTrailer = trailerLine != -1;
        trailerLine = lastTrailer != -1 ? lastTrailer : lastEndOfFile;
        const bool endsAtTrailer = model.pageEndLines.isEmpty() && trailerLine != -1;
        if (!pageStartLines.isEmpty() && !endsAtTrailer && (anyTrailer || !model.pageEndLines.isEmpty()))
            model.pageEndLines = pageEndsOfEachPage(pageStartLines, model.pageEndLines, trailerLine, counter - 1);
        if (classicMarks)
            endPagesAfterClassicMarks(model.pageEndLines, pageStartLines, classicShowPages, counter - 1);
    }

    // Without "%%PageTrailer" lines the pages end where the next one starts;
    // a single page keeps the trailer line, several pages end before it.
    if (model.pageEndLines.isEmpty() && trailerLine != -1) {
        if (pageStartLines.size() < 2) {
            model.pageEndLines.append(trailerLine);
        } else {
            model.pageEndLines = pageStartLines.mid(1);
            model.pageEndLines.append(trailerLine - 1);
        }
    }

    Fonts& fonts = Fonts::instance();
    fonts.setIdenticalDocumentFonts(identicalFonts);
    fonts.setConflictingDocumentFonts(conflictingFonts);
    trace(QStringLiteral("Renamed fonts: %1").arg(conflictingFonts.join(QStringLiteral(", "))));
    return Status();
}

} // namespace

Status readingFailure(const LineReader& reader)
{
    if (reader.failure() == LineReader::Failure::LongLine)
        return Status::failure(
            QCoreApplication::translate("Quillet", "The document has a line longer than %1 bytes, which cannot be read")
                .arg(MaxLineSize));
    return Status::failure(QCoreApplication::translate("Quillet", "The document cannot be read to its end"));
}

Status Quillet::scanDocument(QIODevice& input, DocumentModel& model)
{
    // With print-safe output an embedded document that is never closed would
    // swallow every later page: the scan is made again with its opening line
    // taken as an ordinary line.
    QList<qint64> unclosedBegins;
    LineReader reader(input);
    Status status = scanLines(reader, model, {}, unclosedBegins);
    if (status.ok() && !unclosedBegins.isEmpty() && input.seek(0)) {
        LineReader again(input);
        status = scanLines(again, model, unclosedBegins, unclosedBegins);
    }
    return status;
}
