// The scan of the input document: where its prolog and first page begin,
// where each page ends, and which marker fonts it already carries.
//
// Lines are examined as raw bytes, exactly as they stand in the file. Line
// positions are 0-based line indexes.
#include "document/quillet.h"

#include "common/paths.h"
#include "common/trace.h"
#include "fonts/fonts.h"
#include "settings/variables.h"

#include <QCoreApplication>
#include <QFile>
#include <QIODevice>
#include <QStringList>

namespace {

const char BeginProlog[] = "%%BeginProlog";
const char PageComment[] = "%%Page:";
const char PageTrailer[] = "%%PageTrailer";
const char Trailer[] = "%%Trailer";
const char EndOfFile[] = "%%EOF";
const char BeginFontResource[] = "%%BeginResource: font ";
const char EndResource[] = "%%EndResource\n";
const char FontsFolder[] = "/fonts/";
const char BeginDocument[] = "%%BeginDocument";
const char EndDocument[] = "%%EndDocument";

} // namespace

bool filesMatch(QIODevice& document, QIODevice& fontFile, qint64& lineCounter)
{
    for (;;) {
        const QByteArray fontLine = fontFile.readLine();
        if (fontLine.isEmpty())
            return true;
        const QByteArray documentLine = document.readLine();
        ++lineCounter;
        if (documentLine != fontLine) {
            trace(QStringLiteral("filesMatch: mismatch at line %1: line1='%2', line2='%3'")
                      .arg(lineCounter)
                      .arg(QString::fromLatin1(documentLine.constData()), QString::fromLatin1(fontLine.constData())));
            return false;
        }
    }
}

Status Quillet::scanDocument(QIODevice& input, DocumentModel& model)
{
    model = DocumentModel();

    // The resource lines that introduce a marker base font in the document.
    const QStringList requiredFonts = Fonts::instance().requiredFonts();
    QList<QByteArray> resourceLines;
    for (const QString& font : requiredFonts)
        resourceLines.append(BeginFontResource + font.toLocal8Bit() + '\n');
    trace(QStringLiteral("Required Fonts: %1").arg(requiredFonts.join(QStringLiteral(", "))));

    QList<qint64> pageStartLines;
    qint64 trailerLine = -1;
    QStringList identicalFonts;
    QStringList conflictingFonts;

    // With print-safe output, documents embedded in this one (EPS figures
    // between "%%BeginDocument" and "%%EndDocument", nested ones counted) are
    // copied but not examined: their page and trailer comments are their own.
    const bool skipEmbedded = Variables::instance().safeOutput();
    int embeddedDepth = 0;

    qint64 counter = 0;
    while (!input.atEnd()) {
        const QByteArray line = input.readLine();
        if (skipEmbedded) {
            if (line.startsWith(BeginDocument))
                ++embeddedDepth;
            else if (embeddedDepth > 0 && line.startsWith(EndDocument))
                --embeddedDepth;
            if (embeddedDepth > 0 || line.startsWith(EndDocument)) {
                ++counter;
                continue;
            }
        }
        if (model.prologLine == 0 && line.startsWith(BeginProlog))
            model.prologLine = counter;

        if (line.startsWith(PageComment)) {
            pageStartLines.append(counter - 1);
            if (model.firstPageLine == 0)
                model.firstPageLine = counter - 1;
        } else if (line.startsWith(PageTrailer)) {
            model.pageEndLines.append(counter);
        } else if (trailerLine == -1 && (line.startsWith(Trailer) || line.startsWith(EndOfFile))) {
            trailerLine = counter;
        } else if (line.startsWith(BeginFontResource) && resourceLines.contains(line)) {
            // A marker base font in the document: compare it with the
            // catalogue's file. The lines read move the counter themselves.
            const QString font = requiredFonts.at(resourceLines.indexOf(line));
            trace(QStringLiteral("Line %1 matches font resource line. Font name is %2").arg(counter).arg(font));
            QFile fontFile(QLatin1String(CupsDataDir) + QLatin1String(FontsFolder) + font);
            if (!fontFile.open(QIODevice::ReadOnly))
                return Status::failure(
                    QCoreApplication::translate("Quillet", "Can not open marker font file %1")
                        .arg(fontFile.fileName()));
            const bool contentMatches = filesMatch(input, fontFile, counter);
            fontFile.close();

            bool identical = false;
            if (contentMatches) {
                trace(QStringLiteral("Resource content matches font file content"));
                const bool emptyLine = input.readLine() == "\n";
                const bool endLine = input.readLine() == EndResource;
                counter += 3;
                identical = emptyLine && endLine;
            }
            if (identical) {
                if (!identicalFonts.contains(font))
                    identicalFonts.append(font);
            } else {
                trace(QStringLiteral("Document font %1 doesn't match system one").arg(font));
                identicalFonts.removeAll(font);
                if (!conflictingFonts.contains(font))
                    conflictingFonts.append(font);
            }
            continue;
        }
        ++counter;
    }

    // Without "%%PageTrailer" lines the pages end where the next one starts;
    // a single page keeps the trailer line, several pages end before it.
    if (model.pageEndLines.isEmpty() && trailerLine != -1) {
        if (pageStartLines.size() < 2) {
            model.pageEndLines.append(trailerLine);
        } else {
            model.pageEndLines = pageStartLines.mid(1);
            model.pageEndLines.append(trailerLine - 1);
        }
    }

    Fonts& fonts = Fonts::instance();
    fonts.setIdenticalDocumentFonts(identicalFonts);
    fonts.setConflictingDocumentFonts(conflictingFonts);
    trace(QStringLiteral("Renamed fonts: %1").arg(conflictingFonts.join(QStringLiteral(", "))));
    return Status();
}
