// Counting the pages of what Ghostscript made of a marked stream for the
// printer: PWG raster, Apple raster or PCL XL. Before the first byte goes to
// the printer the backend compares the count with the pages it expects; a
// document that does not hold exactly what it claims is not counted at all.
//
// Every counter reads the device once from its position to its end in small
// blocks (never a whole page or document in memory), takes time in
// proportion to the bytes it reads, and returns -1 when the data is not a
// well-formed document of its kind: wrong signature, a page cut short or
// whose lines overrun, bytes after the end, a count in a header that the
// pages do not match, sizes no printer has, or a read error.
//
// A page that the document asks the printer to print several times counts
// as many times: the count is of the pages that come out of the printer.
#pragma once

#include <QByteArray>
#include <QtGlobal>

class QIODevice;

enum class ConvertedFormat { Unknown, Pdf, PwgRaster, AppleRaster, PclXl };

// The kind of document from its first bytes. PCL XL that Ghostscript writes
// starts with a PJL job header, so `head` should hold the first kilobyte.
ConvertedFormat convertedFormatOf(const QByteArray& head);

// PWG raster: "RaS2", then per page a 1796-byte header and its lines.
qint64 countPwgRasterPages(QIODevice& data);

// Apple raster: "UNIRAST\0", the page count, then per page a 32-byte header
// and its lines. A page count of 0 in the file means "not given".
qint64 countAppleRasterPages(QIODevice& data);

// PCL XL: an optional PJL job header, the stream header line, then one
// session of binary tokens; the pages are the BeginPage...EndPage pairs.
qint64 countPclXlPages(QIODevice& data);
