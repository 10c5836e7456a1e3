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

// Makes, in a folder, documents of three patterns of real print jobs that
// draw and show their pages in ways the marks must survive:
//   "vm-save": a one-page notice typeset with groff and made an EPS figure
//     by Ghostscript's eps2write, wrapped as figures sent to a printer are:
//     the VM saved right after the header, before the prolog, and restored
//     in the trailer, followed by the showpage that prints the figure;
//   "ps2write-letter": a report typeset with groff on Letter paper and
//     rewritten by ps2write, which sets every page's size inside a save and
//     restore around the page's showpage;
//   "scaled-page-end": an enscript listing whose every page ends in a
//     coordinate system a thousand times smaller (a line added before each
//     page's showpage).
// On a tool's failure the list is empty and error says why.
QList<RealDocument> makePrintSafePatterns(const QString& folder, QString* error);
