// The PostScript side of the backend: recognising a PostScript job, taking
// the print server's copy request back to one copy, and joining the marked
// copies into the one stream that goes to the printer.
#pragma once

#include <QByteArray>

class QIODevice;

// Whether a document starts as PostScript: "%!" at the start, after an
// optional end-of-job byte (Ctrl-D).
bool looksLikePostScript(const QByteArray& head);

// Copies a PostScript document, replacing the copy count of the print
// server's "*NumCopies" request (pstops asks the printer for the job's
// copies) by a request for one copy. *streamCopies receives the count of
// pstops's "%RBINumCopies:" comment, the copies it left for the printer
// to make (1 when pstops repeated the pages itself), or -1 when the
// document has no such comment. Returns false on a read or write error.
bool copyAsOneCopy(QIODevice& input, QIODevice& output, int* streamCopies);

// Appends one marked copy to the stream: its first line ("%!..."), the
// start of an encapsulated copy, the rest of it and the end of the
// encapsulated copy, so that what one copy defines (quillet's showpage
// redefinition among it) is gone when the next copy starts. The marker fonts
// are the exception: they live in global VM, which the copy's end leaves
// alone. The first copy's fonts insertion is kept in *markerFonts, and a
// later copy's insertion that is the same is left out. Returns false on a
// read or write error.
bool appendMarkedCopy(QIODevice& copy, QIODevice& stream, QByteArray* markerFonts);
