// Documents made by real tools while a test runs.
#pragma once

#include <QList>
#include <QString>

struct RealDocument
{
    QString key;   // short name, for row names and file names
    QString label; // what made it
    QString file;  // the PostScript file
};

// Makes the corpus in a folder: a manual page and a report with a table and
// a drawing typeset with groff (-Tps, A4), the report turned into PDF with
// ps2pdf and back into PostScript with pdftops and with pdftocairo, and the
// manual page rewritten by Ghostscript's ps2write device. The manual page is
// the installed ls(1) when there is one, else one of the tests' own. On a
// tool's failure the list is empty and error says why.
QList<RealDocument> makeRealDocuments(const QString& folder, QString* error);
