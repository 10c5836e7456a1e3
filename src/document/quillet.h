// The document filter: scans the input's page structure and writes the marked output.
#pragma once

#include "common/status.h"

#include <QList>
#include <QString>
#include <QtGlobal>

class LineReader;
class QIODevice;
class TargetFile;

// Line positions (0-based line indexes) of the input document.
struct DocumentModel
{
    qint64 prologLine = 0;    // the first "%%BeginProlog" line; 0 when none
    qint64 firstPageLine = 0; // the line before the first "%%Page:"; 0 when none
    QList<qint64> pageEndLines; // the last line of every page, in page order
    bool earlierMarks = false;  // print-safe: lines that an earlier run added
};

class Quillet
{
public:
  // Runs the whole filter on the four files. Returns the first failure,
  // which ends the run.
  Status process(const QString& input, const QString& templateFile, const QString& variablesFile,
                 const QString& output, bool duplex);

  // Scans the input from its start into the model and tells the font
  // catalogue which marker fonts the document already carries; leaves the
  // input at its end. A document without pages leaves the model's page
  // ends empty; the failures are a marker font file that cannot be opened
  // and a document that cannot be read to its end (readingFailure()).
  Status scanDocument(QIODevice& input, DocumentModel& model);
};

// Compares the next lines of the document with every line of the font file,
// advancing the line counter for each document line read. True when the font
// file's lines all match.
bool filesMatch(LineReader& document, QIODevice& fontFile, qint64& lineCounter);

// The failure of a document that a line reader could not read to its end
// (LineReader::failed()).
Status readingFailure(const LineReader& reader);

// Copies count lines unchanged; nothing when count is 0 or less.
void copyLines(LineReader& input, TargetFile& output, qint64 count);

// Copies the rest of the input. With a page count of 0 or more, "%%Pages:"
// lines are rewritten with it, each after a record of the original when
// asked; -1 leaves them as they are.
void copyRest(LineReader& input, TargetFile& output, qint64 pageCount, bool recordReplaced);
