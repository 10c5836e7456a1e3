// The sheets of a printed stream, read back with Ghostscript and Poppler.
#include "sheetcheck.h"

#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace
{

// Gray levels below this count as ink.
constexpr int InkThreshold = 128;
// A word of the marks must leave at least this many dark pixels.
constexpr int MinimumWordInk = 3;
// How far a word's height may be from its point size: pdftotext measures
// the font's ascent to descent, which differs from font to font.
constexpr double SmallestHeight = 0.6;
constexpr double LargestHeight = 1.6;
// The document's own drawing on a sheet, in dark pixels at 72 dpi.
constexpr int MinimumContentInk = 150;
// Room around a line of marks that the content check leaves out, points.
constexpr double MarkBand = 6;

QString unescapeXml(QString text)
{
    text.replace(QStringLiteral("&lt;"), QStringLiteral("<"));
    text.replace(QStringLiteral("&gt;"), QStringLiteral(">"));
    text.replace(QStringLiteral("&quot;"), QStringLiteral("\""));
    text.replace(QStringLiteral("&#39;"), QStringLiteral("'"));
    text.replace(QStringLiteral("&apos;"), QStringLiteral("'"));
    text.replace(QStringLiteral("&amp;"), QStringLiteral("&"));
    return text;
}

// Pages and word boxes from `pdftotext -bbox` output.
QList<Sheet> parseBoxes(const QString& html)
{
    static const QRegularExpression element(
        QStringLiteral("<page width=\"([0-9.]+)\" height=\"([0-9.]+)\">|"
                       "<word xMin=\"([-0-9.]+)\" yMin=\"([-0-9.]+)\" xMax=\"([-0-9.]+)\" "
                       "yMax=\"([-0-9.]+)\">([^<]*)</word>"));
    QList<Sheet> sheets;
    for (auto it = element.globalMatch(html); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        if (!match.captured(1).isEmpty()) {
            Sheet sheet;
            sheet.width = match.captured(1).toDouble();
            sheet.height = match.captured(2).toDouble();
            sheets.append(sheet);
        } else if (!sheets.isEmpty()) {
            const double left = match.captured(3).toDouble();
            const double top = match.captured(4).toDouble();
            sheets.last().words.append(
                {unescapeXml(match.captured(7)),
                 QRectF(left, top, match.captured(5).toDouble() - left, match.captured(6).toDouble() - top)});
        }
    }
    return sheets;
}

QString describeBox(const QRectF& box)
{
    return QStringLiteral("(%1,%2 %3x%4 pt)")
        .arg(box.left(), 0, 'f', 1)
        .arg(box.top(), 0, 'f', 1)
        .arg(box.width(), 0, 'f', 1)
        .arg(box.height(), 0, 'f', 1);
}

// What is wrong with a line of marks found at `boxes` (empty when nothing):
// its words must read left to right on one line, stand upright at about
// their point size, lie within the sheet and leave ink.
QStringList lineProblems(const Sheet& sheet, const QString& what, const QStringList& words,
                         const QList<QRectF>& boxes, double size)
{
    QStringList problems;
    const QRectF page(-0.5, -0.5, sheet.width + 1, sheet.height + 1);
    for (int i = 0; i < boxes.size(); ++i) {
        const QRectF& box = boxes.at(i);
        const QString name = QStringLiteral("%1 word \"%2\" %3").arg(what, words.at(i), describeBox(box));
        if (box.height() < SmallestHeight * size || box.height() > LargestHeight * size)
            problems << QStringLiteral("%1 is not %2 pt high upright text").arg(name).arg(size);
        if (words.at(i).size() > 1 && box.width() <= box.height() * 0.5)
            problems << QStringLiteral("%1 does not read across the sheet").arg(name);
        if (!page.contains(box))
            problems << QStringLiteral("%1 lies outside the %2x%3 pt sheet").arg(name).arg(sheet.width).arg(sheet.height);
        if (sheet.inkWithin(box) < MinimumWordInk)
            problems << QStringLiteral("%1 leaves no ink on the sheet").arg(name);
        if (i > 0) {
            const QRectF& before = boxes.at(i - 1);
            if (box.left() < before.right() - 0.5)
                problems << QStringLiteral("%1 does not follow \"%2\" from left to right").arg(name, words.at(i - 1));
            if (std::abs(box.center().y() - before.center().y()) > 0.3 * size)
                problems << QStringLiteral("%1 is not on the line of \"%2\"").arg(name, words.at(i - 1));
        }
    }
    return problems;
}

// The problems of one printed side that should carry the marks of page
// `page`; *marks receives the boxes of the lines of marks found.
QStringList sideProblems(const Sheet& sheet, const MarkExpectation& expected, int page, QList<QRectF>* marks)
{
    QStringList problems;
    const QList<QRectF> label = findWords(sheet, expected.labelWords);
    if (label.isEmpty())
        problems << QStringLiteral("no label \"%1\"").arg(expected.labelWords.join(QLatin1Char(' ')));
    else
        problems << lineProblems(sheet, QStringLiteral("label"), expected.labelWords, label, expected.labelSize);
    const QStringList pageWords = {QStringLiteral("Page"), QString::number(page), QStringLiteral("of"),
                                   QString::number(expected.pages)};
    const QList<QRectF> pageLine = findWords(sheet, pageWords);
    if (pageLine.isEmpty())
        problems << QStringLiteral("no \"%1\"").arg(pageWords.join(QLatin1Char(' ')));
    else
        problems << lineProblems(sheet, QStringLiteral("page number"), pageWords, pageLine, expected.pageLineSize);
    const QString text = sheet.text();
    for (const QString& required : expected.required) {
        if (!text.contains(required))
            problems << QStringLiteral("no \"%1\"").arg(required);
    }
    *marks << label << pageLine;
    return problems;
}

QString shortText(const QString& text)
{
    const QString simple = text.simplified();
    return simple.size() > 400 ? simple.left(200) + QStringLiteral(" ... ") + simple.right(200) : simple;
}

} // namespace

QString Sheet::text() const
{
    QStringList texts;
    for (const SheetWord& word : words)
        texts << word.text;
    return texts.join(QLatin1Char(' '));
}

int Sheet::inkWithin(const QRectF& box) const
{
    const QRect area = box.toAlignedRect().intersected(QRect(0, 0, rasterWidth, rasterHeight));
    int count = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x)
            count += ink.at(y * rasterWidth + x);
    }
    return count;
}

int Sheet::inkOutside(const QList<QRectF>& boxes) const
{
    QList<QRect> areas;
    for (const QRectF& box : boxes)
        areas << box.toAlignedRect();
    int count = 0;
    for (int y = 0; y < rasterHeight; ++y) {
        for (int x = 0; x < rasterWidth; ++x) {
            if (!ink.at(y * rasterWidth + x))
                continue;
            const QPoint point(x, y);
            if (std::none_of(areas.cbegin(), areas.cend(), [&point](const QRect& area) { return area.contains(point); }))
                ++count;
        }
    }
    return count;
}

QList<Sheet> readSheets(const QString& stream, const QString& workFolder, QString* error)
{
    error->clear();
    const QString errors = ghostscriptErrors(stream);
    if (!errors.isEmpty())
        *error = QStringLiteral("the printer's interpreter stops on the stream: ") + errors.left(600);

    // Poppler reads the sheets as they are on the paper: no page is turned
    // to follow its text.
    const QString pdf = QDir(workFolder).filePath(QFileInfo(stream).fileName() + QStringLiteral(".pdf"));
    const RunResult converted =
        runProgram(QStringLiteral("ps2pdf"), {QStringLiteral("-dAutoRotatePages=/None"), stream, pdf});
    QList<Sheet> sheets;
    if (converted.exitCode == 0) {
        const RunResult boxes = runProgram(QStringLiteral("pdftotext"),
                                           {QStringLiteral("-bbox"), QStringLiteral("-enc"), QStringLiteral("UTF-8"),
                                            pdf, QStringLiteral("-")});
        sheets = parseBoxes(QString::fromUtf8(boxes.standardOutput));
    } else if (error->isEmpty()) {
        *error = QStringLiteral("ps2pdf cannot read the stream: ") +
                 QString::fromLocal8Bit(converted.standardError).left(600);
    }

    // The ink of every sheet as the printer's interpreter puts it down.
    QString renderError;
    const QList<GrayPage> rasters = renderPages(stream, 72, &renderError);
    if (rasters.size() != sheets.size() && error->isEmpty())
        *error = QStringLiteral("Ghostscript prints %1 sheets, the PDF of the stream has %2")
                     .arg(rasters.size())
                     .arg(sheets.size());
    for (int i = 0; i < qMin(rasters.size(), sheets.size()); ++i) {
        const GrayPage& raster = rasters.at(i);
        Sheet& sheet = sheets[i];
        sheet.rasterWidth = raster.width;
        sheet.rasterHeight = raster.height;
        sheet.ink.resize(raster.pixels.size());
        for (int p = 0; p < raster.pixels.size(); ++p)
            sheet.ink[p] = static_cast<unsigned char>(raster.pixels.at(p)) < InkThreshold ? 1 : 0;
    }
    return sheets;
}

QList<QRectF> findWords(const Sheet& sheet, const QStringList& words, int from)
{
    if (words.isEmpty())
        return {};
    for (int start = from; start + words.size() <= sheet.words.size(); ++start) {
        QList<QRectF> boxes;
        for (int i = 0; i < words.size() && sheet.words.at(start + i).text == words.at(i); ++i)
            boxes << sheet.words.at(start + i).box;
        if (boxes.size() == words.size())
            return boxes;
    }
    return {};
}

QStringList markedSheetProblems(const QList<Sheet>& sheets, const MarkExpectation& expected)
{
    QStringList problems;
    const int sides = qMax(1, expected.sides);
    MarkExpectation job = expected;
    if (expected.otherPages > 0 && sheets.size() == expected.otherPages * expected.copies * sides)
        job.pages = expected.otherPages;
    const int expectedSheets = job.pages * job.copies * sides;
    if (sheets.size() != expectedSheets)
        problems << QStringLiteral("%1 sheets reached the printer, the job prints %2 (%3 pages x %4 copies x %5 sides)")
                        .arg(sheets.size())
                        .arg(expectedSheets)
                        .arg(job.pages)
                        .arg(job.copies)
                        .arg(sides);

    // Every physical sheet: one of its sides carries the marks of its page.
    for (int first = 0; first < sheets.size(); first += sides) {
        const int physical = first / sides;
        const int page = physical % qMax(1, job.pages) + 1;
        QStringList best;
        QList<QRectF> marks;
        bool marked = false;
        for (int side = first; side < qMin(first + sides, sheets.size()); ++side) {
            QList<QRectF> found;
            const QStringList sideFaults = sideProblems(sheets.at(side), job, page, &found);
            if (sideFaults.isEmpty()) {
                marked = true;
                marks = found;
                break;
            }
            if (best.isEmpty() || sideFaults.size() < best.size())
                best = sideFaults;
        }
        const QString where = sides > 1 ? QStringLiteral("sheet %1 (sides %2-%3)").arg(physical + 1).arg(first + 1).arg(first + sides)
                                        : QStringLiteral("sheet %1").arg(physical + 1);
        if (!marked) {
            QStringList texts;
            for (int side = first; side < qMin(first + sides, sheets.size()); ++side)
                texts << shortText(sheets.at(side).text());
            problems << QStringLiteral("%1 is not marked: %2; its text: [%3]")
                            .arg(where, best.join(QStringLiteral("; ")), texts.join(QStringLiteral("] [")));
        }
        // The document itself is on the sheet, not only the marks.
        if (expected.content) {
            int content = 0;
            for (int side = first; side < qMin(first + sides, sheets.size()); ++side) {
                const Sheet& sheet = sheets.at(side);
                QList<QRectF> bands;
                for (const QRectF& box : qAsConst(marks))
                    bands << QRectF(0, box.top() - MarkBand, sheet.width, box.height() + 2 * MarkBand);
                content += sheet.inkOutside(bands);
            }
            if (content < MinimumContentInk)
                problems << QStringLiteral("%1 holds only the marks: %2 dark pixels of the document")
                                .arg(where)
                                .arg(content);
        }
    }
    for (int index = 0; index < sheets.size(); ++index) {
        const QString text = sheets.at(index).text();
        for (const QString& forbidden : expected.forbidden) {
            if (text.contains(forbidden))
                problems << QStringLiteral("side %1 shows \"%2\": %3").arg(index + 1).arg(forbidden, shortText(text));
        }
    }
    return problems;
}
