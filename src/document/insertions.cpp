// Insertion lines are PostScript comments that no page description acts on.
// A replaced line's record holds the original's bytes as they stood,
// "\r" and NUL bytes included; an original without a final "\n" (the last
// line of a file) gets a record of its own kind.
#include "document/insertions.h"

#include "document/linereader.h"

#include <QCoreApplication>
#include <QIODevice>
#include <QString>

namespace {

const char BeginLine[] = "%quillet-insertion-begin\n";
const char EndLine[] = "%quillet-insertion-end\n";
const char ReplacedLine[] = "%quillet-replaced: ";
const char ReplacedLastLine[] = "%quillet-replaced-unended: ";

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

Status drop(LineReader& input, QIODevice& output, const QString& inputName)
{
    const Status writeFailure = Status::failure(
        QCoreApplication::translate("Quillet", "Can not write the copy of input file %1 without its earlier marks")
            .arg(inputName));
    bool inside = false;
    for (std::string_view line = input.readLine(); !line.empty(); line = input.readLine()) {
        if (inside) {
            inside = line != EndLine;
            continue;
        }
        if (line == BeginLine) {
            inside = true;
            continue;
        }
        const std::string_view original = recordedOriginal(line);
        if (!original.empty()) {
            // The record stands for the line after it.
            input.readLine();
            line = original;
        }
        if (!writeAll(output, line))
            return writeFailure;
    }
    if (inside)
        return Status::failure(
            QCoreApplication::translate("Quillet", "Input file %1 holds an earlier mark without its end").arg(inputName));
    return Status();
}

} // namespace Insertions
