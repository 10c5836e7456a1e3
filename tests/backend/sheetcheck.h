// Reads back what a printer received the way a reader of the sheets would:
// Ghostscript runs the stream as the printer's interpreter would, Poppler
// gives the words and their boxes on every sheet, and a raster of every
// sheet tells whether the words left ink. MarkedSheets then says whether
// every sheet carries its marks upright, readable and complete.
#pragma once

#include <QList>
#include <QRectF>
#include <QString>
#include <QStringList>

// One word that pdftotext found, its box in points from the sheet's top left.
struct SheetWord {
    QString text;
    QRectF box;
};

// One sheet of the stream as the printer would put it out.
struct Sheet {
    double width = 0;
    double height = 0;
    QList<SheetWord> words;
    // Ink of the sheet at 72 dots per inch (one pixel per point), rows from
    // the top: 1 for a dark pixel, 0 for paper.
    int rasterWidth = 0;
    int rasterHeight = 0;
    QByteArray ink;

    QString text() const;
    // Dark pixels within a box (points), clipped to the sheet.
    int inkWithin(const QRectF& box) const;
    // Dark pixels outside every one of the boxes.
    int inkOutside(const QList<QRectF>& boxes) const;
};

// The sheets of a PostScript stream: *error says what went wrong when the
// interpreter stopped with an error or the stream could not be read back
// (the sheets read so far are still returned).
QList<Sheet> readSheets(const QString& stream, const QString& workFolder, QString* error);

// What every sheet of a printed job must show.
struct MarkExpectation {
    // The label, word by word, and its size in points.
    QStringList labelWords;
    double labelSize = 12;
    // The size of the "Page i of N" line.
    double pageLineSize = 9;
    // Pages of one copy (the N of "Page i of N"), copies, and printed
    // sides per document page (2 on a queue with back pages: the marks
    // stand on one side of every physical sheet).
    int pages = 1;
    int copies = 1;
    int sides = 1;
    // Another page count that the job may print as (0: none): the pages
    // that an interpreter shows, where a document shows more than its page
    // comments say. The sheets and every "of N" must then agree on it.
    int otherPages = 0;
    // Whether the document's own drawing must be on every sheet besides
    // the marks (dark pixels away from every marker word).
    bool content = false;
    // Texts that no sheet may hold (words of another job's label, lines of
    // a file the document must not read, ...).
    QStringList forbidden;
    // Further text that every marked side must hold (a probe's report).
    QStringList required;
};

// Every problem found in the stream's sheets, one line each; empty when
// every sheet carries its marks upright and readable and the stream prints
// exactly pages x copies x sides sheets.
QStringList markedSheetProblems(const QList<Sheet>& sheets, const MarkExpectation& expected);

// The boxes of a run of words in reading order (the first run at or after
// `from` whose words equal `words`); empty when the sheet holds none.
QList<QRectF> findWords(const Sheet& sheet, const QStringList& words, int from = 0);
