// Rendering, text extraction and comparison helpers for PostScript tests.
#include "support/postscripttools.h"

#include "support/testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <cmath>

namespace {

// Reads the next header token of a PGM file, skipping white space and
// comments; moves pos past it.
QByteArray pgmToken(const QByteArray& bytes, int& pos)
{
    while (pos < bytes.size()) {
        const char c = bytes.at(pos);
        if (c == '#') {
            while (pos < bytes.size() && bytes.at(pos) != '\n')
                ++pos;
        } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            ++pos;
        } else {
            break;
        }
    }
    const int start = pos;
    while (pos < bytes.size() && !QByteArray(" \t\r\n").contains(bytes.at(pos)))
        ++pos;
    return bytes.mid(start, pos - start);
}

QString describe(const RunResult& result)
{
    return QStringLiteral("exit status %1%2\n%3%4")
        .arg(result.exitCode)
        .arg(result.crashed ? QStringLiteral(" (did not finish normally)") : QString())
        .arg(QString::fromLocal8Bit(result.standardOutput), QString::fromLocal8Bit(result.standardError));
}

} // namespace

GrayPage parsePgm(const QByteArray& bytes)
{
    int pos = 0;
    if (pgmToken(bytes, pos) != "P5")
        return GrayPage();
    bool okWidth = false, okHeight = false, okMax = false;
    const int width = pgmToken(bytes, pos).toInt(&okWidth);
    const int height = pgmToken(bytes, pos).toInt(&okHeight);
    const int maxValue = pgmToken(bytes, pos).toInt(&okMax);
    ++pos; // the single white space character after the header
    if (!okWidth || !okHeight || !okMax || maxValue != 255 || width <= 0 || height <= 0
        || bytes.size() - pos < qint64(width) * height)
        return GrayPage();
    GrayPage page;
    page.width = width;
    page.height = height;
    page.pixels = bytes.mid(pos, width * height);
    return page;
}

QList<GrayPage> renderPages(const QString& file, int resolution, QString* error)
{
    QList<GrayPage> pages;
    QTemporaryDir dir;
    const RunResult result = runProgram(QStringLiteral("gs"),
        {QStringLiteral("-q"), QStringLiteral("-dSAFER"), QStringLiteral("-dBATCH"), QStringLiteral("-dNOPAUSE"),
         QStringLiteral("-sDEVICE=pgmraw"), QStringLiteral("-r%1").arg(resolution),
         QStringLiteral("-sOutputFile=%1").arg(dir.filePath(QStringLiteral("page-%05d.pgm"))), file});
    const QStringList names = QDir(dir.path()).entryList({QStringLiteral("page-*.pgm")}, QDir::Files, QDir::Name);
    for (const QString& name : names)
        pages.append(parsePgm(readFile(dir.filePath(name))));
    if (error) {
        error->clear();
        const bool printedError = result.standardOutput.contains("Error") || result.standardError.contains("Error");
        if (result.exitCode != 0 || result.crashed || printedError)
            *error = describe(result);
    }
    return pages;
}

QString ghostscriptErrors(const QString& file)
{
    const RunResult result = runProgram(QStringLiteral("gs"),
        {QStringLiteral("-q"), QStringLiteral("-dSAFER"), QStringLiteral("-dBATCH"), QStringLiteral("-dNOPAUSE"),
         QStringLiteral("-sDEVICE=nullpage"), file});
    const bool printedError = result.standardOutput.contains("Error") || result.standardError.contains("Error");
    if (result.exitCode != 0 || result.crashed || printedError)
        return describe(result);
    return QString();
}

bool convertToPdf(const QString& postscript, const QString& pdf, QString* error)
{
    const RunResult result = runProgram(QStringLiteral("ps2pdf"), {postscript, pdf});
    const bool ok = result.exitCode == 0 && !result.crashed && !readFile(pdf).isEmpty();
    if (!ok && error)
        *error = describe(result);
    return ok;
}

int pdfPageCount(const QString& pdf)
{
    const RunResult result = runProgram(QStringLiteral("pdfinfo"), {pdf});
    if (result.exitCode != 0 || result.crashed)
        return -1;
    const QRegularExpression pages(QStringLiteral("^Pages:\\s+(\\d+)\\s*$"), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = pages.match(QString::fromLocal8Bit(result.standardOutput));
    return match.hasMatch() ? match.captured(1).toInt() : -1;
}

QStringList pdfPageTexts(const QString& pdf)
{
    const RunResult result = runProgram(QStringLiteral("pdftotext"),
                                        {QStringLiteral("-layout"), QStringLiteral("-enc"), QStringLiteral("UTF-8"),
                                         pdf, QStringLiteral("-")});
    if (result.exitCode != 0 || result.crashed)
        return QStringList();
    // Every page, the last one included, ends in a form feed.
    QStringList pages = QString::fromUtf8(result.standardOutput).split(QLatin1Char('\f'));
    if (!pages.isEmpty() && pages.last().trimmed().isEmpty())
        pages.removeLast();
    return pages;
}

int pointsToPixels(double points, int resolution)
{
    return int(std::ceil(points * resolution / 72.0));
}

qint64 differingPixels(const GrayPage& a, const GrayPage& b, int topBand, int bottomBand, int tolerance)
{
    const int top = qMax(0, topBand);
    return differingPixels(a, b, QRect(0, top, a.width, a.height - qMax(0, bottomBand) - top), tolerance);
}

qint64 differingPixels(const GrayPage& a, const GrayPage& b, const QRect& area, int tolerance)
{
    if (a.width != b.width || a.height != b.height)
        return -1;
    const QRect clipped = area.intersected(QRect(0, 0, a.width, a.height));
    qint64 count = 0;
    for (int y = clipped.top(); y <= clipped.bottom(); ++y)
        for (int x = clipped.left(); x <= clipped.right(); ++x)
            if (std::abs(a.at(x, y) - b.at(x, y)) > tolerance)
                ++count;
    return count;
}

QRect differenceBounds(const GrayPage& a, const GrayPage& b, int tolerance)
{
    QRect bounds;
    if (a.width != b.width || a.height != b.height)
        return bounds;
    for (int y = 0; y < a.height; ++y)
        for (int x = 0; x < a.width; ++x)
            if (std::abs(a.at(x, y) - b.at(x, y)) > tolerance)
                bounds |= QRect(x, y, 1, 1);
    return bounds;
}

qint64 erasedPixels(const GrayPage& original, const GrayPage& changed, int threshold)
{
    if (original.width != changed.width || original.height != changed.height)
        return -1;
    qint64 count = 0;
    for (int i = 0; i < original.pixels.size(); ++i)
        if (static_cast<unsigned char>(original.pixels.at(i)) < threshold
            && static_cast<unsigned char>(changed.pixels.at(i)) >= threshold)
            ++count;
    return count;
}

qint64 inkPixels(const GrayPage& page, const QRect& area, int threshold)
{
    const QRect clipped = area.intersected(QRect(0, 0, page.width, page.height));
    qint64 count = 0;
    for (int y = clipped.top(); y <= clipped.bottom(); ++y)
        for (int x = clipped.left(); x <= clipped.right(); ++x)
            if (page.at(x, y) < threshold)
                ++count;
    return count;
}

QRect inkBounds(const GrayPage& page, int threshold)
{
    QRect bounds;
    for (int y = 0; y < page.height; ++y)
        for (int x = 0; x < page.width; ++x)
            if (page.at(x, y) < threshold)
                bounds |= QRect(x, y, 1, 1);
    return bounds;
}

QList<QByteArray> splitLines(const QByteArray& bytes)
{
    QList<QByteArray> lines;
    int start = 0;
    while (start < bytes.size()) {
        const int end = bytes.indexOf('\n', start);
        if (end < 0) {
            lines.append(bytes.mid(start));
            break;
        }
        lines.append(bytes.mid(start, end - start + 1));
        start = end + 1;
    }
    return lines;
}

LineAlignment alignLines(const QList<QByteArray>& original, const QList<QByteArray>& changed,
                         const std::function<bool(const QByteArray&, const QByteArray&)>& same)
{
    LineAlignment alignment;
    int next = 0;
    for (int i = 0; i < original.size(); ++i) {
        int found = -1;
        for (int j = next; j < changed.size(); ++j) {
            if (same ? same(original.at(i), changed.at(j)) : original.at(i) == changed.at(j)) {
                found = j;
                break;
            }
        }
        if (found < 0) {
            alignment.missingLine = i;
            return alignment;
        }
        alignment.positions.append(found);
        next = found + 1;
    }
    return alignment;
}
