// Insertion lines are PostScript comments that no page description acts on.
// A replaced line's record holds the original's bytes as they stood,
// "\r" and NUL bytes included; an original without a final "\n" (the last
// line of a file) gets a record of its own kind.
#include "document/insertions.h"

#include "document/linereader.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QFileDevice>
#include <QIODevice>
#include <QList>
#include <QString>

namespace {

const char BeginLine[] = "%quillet-insertion-begin\n";
const char EndLine[] = "%quillet-insertion-end\n";
// - -  Around the marker fonts: allocates them in global VM (QuilletGlobal
// and QuilletEndGlobal come with the page guard, in the output writer).
const char GlobalVmBegin[] = "QuilletGlobal\n";
const char GlobalVmEnd[] = "QuilletEndGlobal\n";
const char ReplacedLine[] = "%quillet-replaced: ";
const char ReplacedLastLine[] = "%quillet-replaced-unended: ";

// A back page that a classic duplex run inserted: its page label, the
// bounding box of the document page before it when that had one, an empty
// page setup, then a marker block, shown by "showpage" and closed by the
// page trailer.
const char PageComment[] = "%%Page:";
const char PageBoundingBox[] = "%%PageBoundingBox:";
const char PageSetupBegin[] = "%%BeginPageSetup\n";
const char PageSetupEnd[] = "%%EndPageSetup\n";
const char BlockStart[] = "% Common variables:\n";
const char ShowPage[] = "showpage\n";
const char PageTrailer[] = "%%PageTrailer\n";

// The lines that begin a classic back page, without the bounding box.
QList<QByteArray> withoutBoundingBox(const QList<QByteArray>& head)
{
    QList<QByteArray> lines = head;
    if (lines.size() > 1 && lines.at(1).startsWith(PageBoundingBox))
        lines.removeAt(1);
    return lines;
}

// Whether the lines read so far may still be the head of a classic back page.
bool couldOpenClassicBackPage(const QList<QByteArray>& head)
{
    const QList<QByteArray> lines = withoutBoundingBox(head);
    const QByteArray expected[] = {PageSetupBegin, PageSetupEnd, BlockStart};
    for (int i = 1; i < lines.size() && i <= 3; ++i) {
        if (lines.at(i) != expected[i - 1])
            return false;
    }
    return lines.size() <= 4;
}

bool opensClassicBackPage(const QList<QByteArray>& head)
{
    const QList<QByteArray> lines = withoutBoundingBox(head);
    return lines.size() == 4 && couldOpenClassicBackPage(head);
}

QByteArray copyOf(std::string_view line)
{
    return QByteArray(line.data(), int(line.size()));
}

// The input's lines, with lines read ahead put back in front. A line is a
// view that stays valid until the next call.
class LookAhead
{
  public:
    explicit LookAhead(LineReader& input) : m_input(input) {}

    std::string_view next()
    {
        if (m_ahead.isEmpty())
            return m_input.readLine();
        m_current = m_ahead.takeFirst();
        return std::string_view(m_current.constData(), size_t(m_current.size()));
    }

    void putBack(const QList<QByteArray>& lines) { m_ahead = lines + m_ahead; }

  private:
    LineReader& m_input;
    QList<QByteArray> m_ahead;
    QByteArray m_current;
};

bool writeAll(QIODevice& output, std::string_view bytes)
{
    return output.write(bytes.data(), qint64(bytes.size())) == qint64(bytes.size());
}

// The original line in a record, or an empty view for any other line.
std::string_view recordedOriginal(std::string_view line)
{
    if (startsWith(line, ReplacedLine))
        return line.substr(sizeof(ReplacedLine) - 1);
    if (startsWith(line, ReplacedLastLine) && line.back() == '\n') {
        line.remove_prefix(sizeof(ReplacedLastLine) - 1);
        line.remove_suffix(1);
        return line;
    }
    return {};
}

} // namespace

namespace Insertions {

void begin(QIODevice& output)
{
    output.write(BeginLine);
}

void end(QIODevice& output)
{
    output.write(EndLine);
}

void beginMarkerFonts(QIODevice& output)
{
    begin(output);
    output.write(GlobalVmBegin);
}

void endMarkerFonts(QIODevice& output)
{
    output.write(GlobalVmEnd);
    end(output);
}

bool isBegin(const QByteArray& line)
{
    return line == BeginLine;
}

bool opensMarkerFonts(const QByteArray& line, const QByteArray& next)
{
    return isBegin(line) && next == GlobalVmBegin;
}

bool isEnd(const QByteArray& line)
{
    return line == EndLine;
}

void recordReplaced(QIODevice& output, std::string_view original)
{
    const bool ended = !original.empty() && original.back() == '\n';
    output.write(ended ? ReplacedLine : ReplacedLastLine);
    output.write(original.data(), qint64(original.size()));
    if (!ended)
        output.write("\n");
}

bool isMarkOfEarlierRun(std::string_view line)
{
    return line == BeginLine || startsWith(line, ReplacedLine) || startsWith(line, ReplacedLastLine);
}

bool ClassicBackPageWatch::see(std::string_view line)
{
    const bool opens = m_afterSetup && line == BlockStart;
    m_afterSetup = line == PageSetupEnd;
    return opens;
}

Status drop(LineReader& input, QFileDevice& output, const QString& inputName)
{
    const Status writeFailure = Status::failure(
        QCoreApplication::translate("Quillet", "Can not write the copy of input file %1 without its earlier marks")
            .arg(inputName));
    const Status unended = Status::failure(
        QCoreApplication::translate("Quillet", "Input file %1 holds an earlier mark without its end").arg(inputName));
    LookAhead lines(input);
    // The lines read after a page label to tell a classic back page.
    QList<QByteArray> head;
    for (std::string_view line = lines.next(); !line.empty(); line = lines.next()) {
        if (line == BeginLine) {
            // Everything up to the end line goes.
            do
                line = lines.next();
            while (!line.empty() && line != EndLine);
            if (line.empty())
                return unended;
            continue;
        }
        if (startsWith(line, PageComment)) {
            // Only a page label is followed by what may be a classic back
            // page; the lines read to tell are kept.
            head = {copyOf(line)};
            while (!opensClassicBackPage(head) && couldOpenClassicBackPage(head)) {
                const std::string_view more = lines.next();
                if (more.empty())
                    break;
                head.append(copyOf(more));
            }
            if (opensClassicBackPage(head)) {
                // The back page goes, up to its "showpage" and page trailer.
                bool afterShowPage = false;
                for (line = lines.next(); !line.empty() && !(afterShowPage && line == PageTrailer); line = lines.next())
                    afterShowPage = line == ShowPage;
                if (line.empty())
                    return unended;
                continue;
            }
            lines.putBack(head.mid(1));
            line = std::string_view(head.first().constData(), size_t(head.first().size()));
        }
        const std::string_view original = recordedOriginal(line);
        if (!writeAll(output, original.empty() ? line : original))
            return writeFailure;
        // A record stands for the line after it.
        if (!original.empty())
            lines.next();
    }
    if (!output.flush() || !output.seek(0))
        return writeFailure;
    return Status();
}

} // namespace Insertions
