// The proof of a marked stream: before the first byte goes to the printer,
// Ghostscript runs the whole stream on the server and draws every sheet it
// shows, at a low resolution, as one-bit images one after the other; the
// backend counts them.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

class QIODevice;

// The command that runs the stream (standard input) and writes the sheets to
// `sheets`.
QList<QByteArray> proofCommand(const QString& sheets);

// The command that tells about the PDF `pdf` on its standard output, its
// page count among it.
QList<QByteArray> pdfPageCountCommand(const QString& pdf);

// The page count in what that command printed: the one "Pages:" line with a
// whole number; -1 when there is none, or more than one.
qint64 pdfPageCount(const QByteArray& report);

// The number of sheets in what the proof wrote: a run of binary PBM images
// ("P4", width, height, then the rows). -1 when the data is not such a run
// (cut short, or something else). `sheets` is a regular file.
qint64 countProofSheets(QIODevice& sheets);
