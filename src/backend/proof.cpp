// Counting the sheets of the proof, image by image. The images are read from
// a regular file.
#include "backend/proof.h"

#include "common/paths.h"

#include <QFile>
#include <QIODevice>

namespace
{

// Sheets are drawn at this resolution: enough for Ghostscript to run every
// drawing operator as it would for a printer, small enough to cost little.
const char ProofResolution[] = "-r20";

// The line of pdfinfo's report that gives the page count.
const char PagesLine[] = "Pages:";

bool isSpace(char c)
{
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

// Reads one header number of a PBM image: whitespace and comments ("#" to
// the end of the line, which Ghostscript writes), then decimal digits. -1
// when there is none.
qint64 readNumber(QIODevice& input)
{
    char c = 0;
    for (;;) {
        if (!input.getChar(&c))
            return -1;
        if (c == '#') {
            do {
                if (!input.getChar(&c))
                    return -1;
            } while (c != '\n');
        } else if (!isSpace(c)) {
            break;
        }
    }
    qint64 value = -1;
    while (c >= '0' && c <= '9') {
        value = (value < 0 ? 0 : value * 10) + (c - '0');
        if (value > (qint64(1) << 24))
            return -1;
        if (!input.getChar(&c))
            return -1;
    }
    // The one whitespace byte that ends the number belongs to the header.
    return isSpace(c) ? value : -1;
}

} // namespace

QList<QByteArray> proofCommand(const QString& sheets)
{
    // "-_" reads standard input in blocks ("-" would read it byte by byte).
    return {GhostscriptPath,
            "-q",
            "-dSAFER",
            "-dBATCH",
            "-dNOPAUSE",
            "-sDEVICE=pbmraw",
            ProofResolution,
            "-sOutputFile=" + QFile::encodeName(sheets),
            "-_"};
}

QList<QByteArray> pdfPageCountCommand(const QString& pdf)
{
    return {PdfinfoPath, QFile::encodeName(pdf)};
}

qint64 pdfPageCount(const QByteArray& report)
{
    qint64 pages = -1;
    for (const QByteArray& line : report.split('\n')) {
        if (!line.startsWith(PagesLine))
            continue;
        bool ok = false;
        const qint64 value = line.mid(int(qstrlen(PagesLine))).trimmed().toLongLong(&ok, 10);
        if (!ok || value < 0 || pages >= 0)
            return -1;
        pages = value;
    }
    return pages;
}

qint64 countProofSheets(QIODevice& sheets)
{
    qint64 count = 0;
    for (;;) {
        char magic[2];
        const qint64 got = sheets.read(magic, 2);
        if (got == 0)
            return count;
        if (got != 2 || magic[0] != 'P' || magic[1] != '4')
            return -1;
        const qint64 width = readNumber(sheets);
        const qint64 height = readNumber(sheets);
        if (width <= 0 || height <= 0)
            return -1;
        const qint64 rows = (width + 7) / 8 * height;
        if (sheets.size() - sheets.pos() < rows)
            return -1;
        if (!sheets.seek(sheets.pos() + rows))
            return -1;
        ++count;
    }
}
