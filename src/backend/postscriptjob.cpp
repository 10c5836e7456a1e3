// PostScript handling of the backend: job check, copy count, stream of copies.
#include "backend/postscriptjob.h"

#include "document/insertions.h"

#include <QByteArray>
#include <QIODevice>

namespace
{

// The comments around pstops's copy request, and the request for one copy
// in the same form: "n/languagelevel ..." sets /NumCopies on level 2
// printers and /#copies on level 1 printers.
const char NumCopiesFeatureBegin[] = "%RBIBeginNonPPDFeature: *NumCopies";
const char NumCopiesFeatureEnd[] = "%RBIEndNonPPDFeature";
const char NumCopiesComment[] = "%RBINumCopies:";
const char OneCopyFeatureBegin[] = "%RBIBeginNonPPDFeature: *NumCopies 1\n";
const char OneCopyComment[] = "%RBINumCopies: 1\n";
// - -  Asks the printer for one copy of every page.
const char OneCopyRequest[] = "1/languagelevel where{pop languagelevel 2 ge}{false}ifelse\n"
                              "{1 dict begin/NumCopies exch def currentdict end setpagedevice}\n"
                              "{userdict/#copies 3 -1 roll put}ifelse\n";

// - -  Starts an encapsulated copy: keeps the interpreter's state.
const char CopyBegin[] = "userdict /quilletCopyState save put\n";
// - -  Ends an encapsulated copy: drops what the copy left on the operand
// and dictionary stacks, then returns to the state kept by CopyBegin.
const char CopyEnd[] = "\nclear { countdictstack 3 le { exit } if end } loop\n"
                       "userdict /quilletCopyState get restore\n";

const qint64 BlockSize = 1 << 16;

bool copyRest(QIODevice& input, QIODevice& output)
{
    for (;;) {
        const QByteArray block = input.read(BlockSize);
        if (block.isEmpty())
            return input.atEnd();
        if (output.write(block) != block.size())
            return false;
    }
}

// Copies lines up to and including the marker fonts' insertion (the whole
// copy when it has none), leaving that insertion out when it is the same as
// *markerFonts, else keeping it there for the next copies.
bool copyUpToMarkerFonts(QIODevice& copy, QIODevice& stream, QByteArray* markerFonts)
{
    // Lines are read into one buffer; a line longer than it comes in pieces,
    // of which only the first starts a line. Only after an insertion's begin
    // line is the next line read on its own, to tell the fonts' insertion.
    QByteArray buffer(int(BlockSize), Qt::Uninitialized);
    bool atLineStart = true;
    for (;;) {
        const qint64 got = copy.readLine(buffer.data(), BlockSize);
        if (got <= 0)
            return copy.atEnd();
        const QByteArray piece = QByteArray::fromRawData(buffer.constData(), int(got));
        const bool begins = atLineStart && Insertions::isBegin(piece);
        atLineStart = piece.endsWith('\n');
        if (!begins) {
            if (stream.write(piece) != piece.size())
                return false;
            continue;
        }
        const QByteArray next = copy.readLine();
        if (!Insertions::opensMarkerFonts(piece, next)) {
            // Another insertion, whose first line begins none.
            atLineStart = next.endsWith('\n');
            const QByteArray lines = piece + next;
            if (stream.write(lines) != lines.size())
                return false;
            continue;
        }
        QByteArray fonts = piece + next;
        // A later copy's fonts, the same as the first copy's, are passed
        // over whole.
        if (!markerFonts->isEmpty() && markerFonts->startsWith(fonts)) {
            const qint64 rest = markerFonts->size() - fonts.size();
            if (copy.peek(rest) == markerFonts->mid(fonts.size()))
                return copy.skip(rest) == rest;
        }
        // The insertion up to its end line, read into the buffer.
        atLineStart = next.endsWith('\n');
        for (bool ended = false; !ended;) {
            const qint64 more = copy.readLine(buffer.data(), BlockSize);
            if (more <= 0)
                return false; // an insertion without its end
            const QByteArray line = QByteArray::fromRawData(buffer.constData(), int(more));
            fonts += line;
            ended = atLineStart && Insertions::isEnd(line);
            atLineStart = line.endsWith('\n');
        }
        if (markerFonts->isEmpty())
            *markerFonts = fonts;
        else if (fonts == *markerFonts)
            return true;
        return stream.write(fonts) == fonts.size();
    }
}

} // namespace

bool looksLikePostScript(const QByteArray& head)
{
    const QByteArray rest = head.startsWith('\004') ? head.mid(1) : head;
    return rest.startsWith("%!");
}

bool copyAsOneCopy(QIODevice& input, QIODevice& output, int* streamCopies)
{
    *streamCopies = -1;
    bool inCopyRequest = false;
    for (;;) {
        const QByteArray line = input.readLine();
        if (line.isEmpty())
            return input.atEnd();
        QByteArray written = line;
        if (line.startsWith(NumCopiesFeatureBegin)) {
            inCopyRequest = true;
            written = QByteArray(OneCopyFeatureBegin) + OneCopyRequest;
        } else if (inCopyRequest) {
            if (!line.startsWith(NumCopiesFeatureEnd))
                continue;
            inCopyRequest = false;
        } else if (line.startsWith(NumCopiesComment)) {
            if (*streamCopies < 0)
                *streamCopies = line.mid(int(qstrlen(NumCopiesComment))).trimmed().toInt();
            written = OneCopyComment;
        }
        if (output.write(written) != written.size())
            return false;
    }
}

bool appendMarkedCopy(QIODevice& copy, QIODevice& stream, QByteArray* markerFonts)
{
    const QByteArray firstLine = copy.readLine();
    if (firstLine.isEmpty())
        return false;
    if (stream.write(firstLine) != firstLine.size())
        return false;
    if (!firstLine.endsWith('\n') && !stream.putChar('\n'))
        return false;
    const QByteArray begin(CopyBegin);
    if (stream.write(begin) != begin.size() || !copyUpToMarkerFonts(copy, stream, markerFonts))
        return false;
    const QByteArray end(CopyEnd);
    return copyRest(copy, stream) && stream.write(end) == end.size();
}
