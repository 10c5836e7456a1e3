// Helpers for tests that look at PostScript the way a printer would: render
// pages with Ghostscript, convert to PDF and read the text back with Poppler,
// compare page rasters, and line up a document with a copy that had lines
// inserted into it.
#pragma once

#include <QByteArray>
#include <QList>
#include <QRect>
#include <QString>
#include <QStringList>

#include <functional>

// One rendered page: 8-bit gray levels, 0 black and 255 white, row by row
// from the top of the page.
struct GrayPage
{
    int width = 0;
    int height = 0;
    QByteArray pixels;

    bool isNull() const { return width <= 0 || height <= 0; }
    int at(int x, int y) const { return static_cast<unsigned char>(pixels.at(y * width + x)); }
};

// Parses a binary PGM image (P5, maxval 255); a null page when it is not one.
GrayPage parsePgm(const QByteArray& bytes);

// Renders every page of a PostScript or PDF file with Ghostscript (-dSAFER,
// pgmraw device) at the given resolution in dots per inch. On failure the
// pages rendered so far are returned and *error (when given) receives what
// Ghostscript printed; it is left empty when the run was clean.
QList<GrayPage> renderPages(const QString& file, int resolution, QString* error = nullptr);

// Interprets a file with Ghostscript without keeping any output and returns
// the error report it printed (exit status included), or an empty string
// when the file ran to its end cleanly.
QString ghostscriptErrors(const QString& file);

// Converts PostScript to PDF with ps2pdf. Returns false and fills *error
// (when given) when the conversion fails.
bool convertToPdf(const QString& postscript, const QString& pdf, QString* error = nullptr);

// Number of pages of a PDF file as pdfinfo reports it; -1 when unknown.
int pdfPageCount(const QString& pdf);

// Text of every page of a PDF file (pdftotext -layout), one entry per page.
QStringList pdfPageTexts(const QString& pdf);

// Points (1/72 inch) to whole pixels at a resolution, rounded up.
int pointsToPixels(double points, int resolution);

// Number of pixels whose gray levels differ by more than tolerance between
// two pages of the same size, counting only rows from topBand down to
// height - bottomBand (bands in pixels; 0 compares the whole page).
// Returns -1 when the pages differ in size.
qint64 differingPixels(const GrayPage& a, const GrayPage& b, int topBand, int bottomBand, int tolerance = 0);

// The same count within an area of the pages (clipped to the page).
qint64 differingPixels(const GrayPage& a, const GrayPage& b, const QRect& area, int tolerance = 0);

// The smallest rectangle holding every pixel that differs by more than
// tolerance; a null rectangle when the pages are equal or differ in size.
QRect differenceBounds(const GrayPage& a, const GrayPage& b, int tolerance = 0);

// Number of pixels that are darker than threshold on the original page and
// not on the changed one: ink that something painted over. -1 when the pages
// differ in size.
qint64 erasedPixels(const GrayPage& original, const GrayPage& changed, int threshold = 128);

// Number of pixels darker than threshold within an area (clipped to the page).
qint64 inkPixels(const GrayPage& page, const QRect& area, int threshold = 128);

// The smallest rectangle holding every pixel darker than threshold; a null
// rectangle on a blank page.
QRect inkBounds(const GrayPage& page, int threshold = 128);

// A file's lines, each with its line feed (the last one without, when the
// file does not end in one).
QList<QByteArray> splitLines(const QByteArray& bytes);

// Result of lining up an original list of lines with a changed one that is
// supposed to be the original with lines inserted.
struct LineAlignment
{
    // Index in the original of the first line that was not found in order
    // in the changed list; -1 when every original line was found.
    int missingLine = -1;
    // For every original line, the index of the changed line matched to it
    // (as far as the matching got).
    QList<int> positions;
};

// Finds the original's lines in the changed list, in order, each at the
// first place after the previous match where `same` holds (exact equality
// when no predicate is given).
LineAlignment alignLines(const QList<QByteArray>& original, const QList<QByteArray>& changed,
                         const std::function<bool(const QByteArray&, const QByteArray&)>& same = {});
