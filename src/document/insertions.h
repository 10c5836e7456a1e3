// What print-safe output adds to a document, marked so that a later run finds
// it: every insertion stands between a begin and an end line, and every line
// that the writer replaced is preceded by a record of the original. A run on
// a document that an earlier run marked this way drops all of it first and
// marks the original document.
#pragma once

#include "common/status.h"

#include <string_view>

class LineReader;
class QFileDevice;
class QByteArray;
class QIODevice;

namespace Insertions {

// Opens and closes an insertion.
void begin(QIODevice& output);
void end(QIODevice& output);

// Opens and closes the insertion of the marker fonts. What it defines goes
// to global VM, which no restore takes back: a stream that joins several
// marked copies of one document, each in a save and restore of its own,
// needs the fonts of the first copy only.
void beginMarkerFonts(QIODevice& output);
void endMarkerFonts(QIODevice& output);

// Whether a line begins an insertion, whether two lines open the insertion
// of the marker fonts, and whether a line ends an insertion.
bool isBegin(const QByteArray& line);
bool opensMarkerFonts(const QByteArray& line, const QByteArray& next);
bool isEnd(const QByteArray& line);

// Records the original of a line that the next line written replaces.
void recordReplaced(QIODevice& output, std::string_view original);

// Whether a line belongs to what an earlier run added: a begin line or a
// record of a replaced line.
bool isMarkOfEarlierRun(std::string_view line);

// Follows a document line by line and tells where a back page that a
// classic duplex run inserted opens its marker block.
class ClassicBackPageWatch
{
  public:
    bool see(std::string_view line);

  private:
    bool m_afterSetup = false;
};

// Copies the input to the output without the earlier runs' insertions, with
// every replaced line put back, and without the back pages of classic duplex
// runs, and leaves the output flushed at its start. Fails on an insertion or
// back page that never ends and on an output that cannot be written; the
// file name is for the message.
Status drop(LineReader& input, QFileDevice& output, const QString& inputName);

} // namespace Insertions
