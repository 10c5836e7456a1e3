// Helpers for tests that look at the raster pages a printer would receive:
// decode each page of a PWG raster or Apple raster file into an 8-bit gray
// PGM image, and read text off such an image with tesseract.
#pragma once

#include <QList>
#include <QString>

// One decoded page: its PGM file and what the page header said about it.
struct RasterPageImage {
    QString file;
    int width = 0;
    int height = 0;
    int xResolution = 0;
    int yResolution = 0;
};

// Decodes every page of a PWG raster ("RaS2") or Apple raster ("UNIRAST")
// file into folder/page-001.pgm, page-002.pgm, ... as binary PGM (P5,
// 0 black and 255 white, the resolution in a comment line). Gray, black,
// RGB and CMYK pages of 1 to 16 bits per colour are converted to gray
// levels. On malformed data the pages decoded so far are returned and
// *error (when given) says what was wrong; it is left empty otherwise.
//
// Apple raster does not tell black from gray: its colour space 0 is used
// for both. Pages of one bit per pixel are taken as black (1 is ink, as
// Ghostscript writes them), others as gray (0 is black).
QList<RasterPageImage> decodeRasterPages(const QString& rasterFile, const QString& folder,
                                         QString* error = nullptr);

// The text that tesseract (English) reads on a page image, at the resolution
// that decodeRasterPages wrote into it. An empty string and *error (when
// given) filled when tesseract could not run.
QString ocrText(const QString& pgmFile, QString* error = nullptr);
