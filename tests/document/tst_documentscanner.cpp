// The document scanner: prolog, first page and page end positions, and the
// marker font resources that a document already carries.
//
// Page structure is scanned in process from a memory buffer; with the font
// catalogue empty no font is required, so no resource is examined. Resource
// cases need the catalogue's font files under the CUPS data directory, so they
// run the scanner in the sandbox through the scanprobe helper, or run quillet
// itself.
#include "documentlines.h"

#include "document/quillet.h"
#include "fonts/fonts.h"
#include "marker/marker.h"
#include "settings/variables.h"
#include "support/testsupport.h"

#include <QBuffer>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QTest>

#include <fcntl.h>

namespace {

using Positions = QList<qint64>;

int lineCount(const QByteArray& text)
{
    return text.count('\n');
}

QByteArray tinyFont(const char* name)
{
    return readFile(tinyCatalogueDir() + QStringLiteral("/fonts/") + QLatin1String(name));
}

// Each expected name either equals an actual one or, ending in "#", stands
// for that name followed by decimal digits (a font embedded under a new name).
bool namesMatch(QStringList actual, const QStringList& expected)
{
    if (actual.size() != expected.size())
        return false;
    for (const QString& want : expected) {
        int found = -1;
        for (int i = 0; i < actual.size() && found < 0; ++i) {
            if (want.endsWith(QLatin1Char('#'))) {
                const QRegularExpression renamed(QLatin1Char('^') + QRegularExpression::escape(want.chopped(1))
                                                 + QStringLiteral("[0-9]+$"));
                if (renamed.match(actual.at(i)).hasMatch())
                    found = i;
            } else if (actual.at(i) == want) {
                found = i;
            }
        }
        if (found < 0)
            return false;
        actual.removeAt(found);
    }
    return true;
}

QStringList names(const QString& list)
{
    return list.split(QLatin1Char(','), Qt::SkipEmptyParts);
}

Positions positions(const QString& list)
{
    Positions result;
    for (const QString& item : names(list))
        result.append(item.toLongLong());
    return result;
}

// Runs quillet with warnings of the logging facility switched off, so that
// standard error holds only what the program reports itself.
RunResult runQuietly(const FixtureTree& tree, const QStringList& arguments)
{
    return tree.runQuillet(arguments, {QStringLiteral("QT_LOGGING_RULES=*.warning=false")});
}

// The model of one scan, for comparisons.
struct ScanResult
{
    qint64 prologLine = -1;
    qint64 firstPageLine = -1;
    Positions pageEndLines;

    bool operator==(const ScanResult& other) const
    {
        return prologLine == other.prologLine && firstPageLine == other.firstPageLine
            && pageEndLines == other.pageEndLines;
    }
};

char* toString(const ScanResult& result)
{
    QStringList ends;
    for (qint64 end : result.pageEndLines)
        ends << QString::number(end);
    return qstrdup(qPrintable(QStringLiteral("prolog %1, first page %2, page ends [%3]")
                                  .arg(result.prologLine)
                                  .arg(result.firstPageLine)
                                  .arg(ends.join(QLatin1Char(',')))));
}

} // namespace

Q_DECLARE_METATYPE(ScanResult)

class TestDocumentScanner : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void pageStructure_data();
    void pageStructure();
    void modelIsEmptiedAndInputLeftAtEnd();

    void documentFontResources_data();
    void documentFontResources();
    void missingFontFileIsFatal();
    void unreadableDocumentIsFatal();
    void refilteredDocumentCarriesEachFontOnce_data();
    void refilteredDocumentCarriesEachFontOnce();

    void safePageStructure_data();
    void safePageStructure();
    void safeResourcePositionsStayExact_data();
    void safeResourcePositionsStayExact();
};

void TestDocumentScanner::init()
{
    Variables::instance().clear();
    Marker::instance().reset();
    Fonts::instance().reset();
}

void TestDocumentScanner::cleanup()
{
    init();
}

void TestDocumentScanner::pageStructure_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<qint64>("prologLine");
    QTest::addColumn<qint64>("firstPageLine");
    QTest::addColumn<Positions>("pageEndLines");

    QTest::newRow("pages ending in %%PageTrailer end on those lines; %%Trailer has no influence")
        << lines({"%!PS-Adobe-3.0",  // 0
                  "%%Pages: 2",      // 1
                  "%%BeginProlog",   // 2
                  "%%EndProlog",     // 3
                  "%%Page: 1 1",     // 4
                  "a",               // 5
                  "%%PageTrailer",   // 6
                  "%%Page: 2 2",     // 7
                  "b",               // 8
                  "%%PageTrailer",   // 9
                  "%%Trailer",       // 10
                  "%%EOF"})          // 11
        << qint64(2) << qint64(3) << Positions{6, 9};

    QTest::newRow("three pages without %%PageTrailer end at the next page starts and one line before %%Trailer")
        << lines({"%!PS-Adobe-3.0",  // 0
                  "%%BeginProlog",   // 1
                  "%%EndProlog",     // 2
                  "%%Page: 1 1",     // 3
                  "a",               // 4
                  "%%Page: 2 2",     // 5
                  "b",               // 6
                  "%%Page: 3 3",     // 7
                  "c",               // 8
                  "%%Trailer",       // 9
                  "%%EOF"})          // 10
        << qint64(1) << qint64(2) << Positions{4, 6, 8};

    QTest::newRow("one page without %%PageTrailer ends on the %%Trailer line itself")
        << lines({"%!PS-Adobe-3.0", "%%EndComments", "%%Page: 1 1", "a", "%%Trailer", "%%EOF"})
        << qint64(0) << qint64(1) << Positions{4};

    QTest::newRow("no %%Page: line: one page ending on %%Trailer, firstPageLine stays 0")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "a", "%%Trailer", "%%EOF"})
        << qint64(1) << qint64(0) << Positions{4};

    QTest::newRow("no %%Page: line: one page ending on %%EOF")
        << lines({"%!PS-Adobe-3.0", "a", "b", "%%EOF"}) << qint64(0) << qint64(0) << Positions{3};

    QTest::newRow("only the first of %%EOF and %%Trailer counts")
        << lines({"%!PS-Adobe-3.0", "%%EndComments", "%%Page: 1 1", "a", "%%Page: 2 2", "b", "%%EOF", "%%Trailer",
                  "x"})
        << qint64(0) << qint64(1) << Positions{3, 5};

    QTest::newRow("a second %%Trailer does not move the trailer")
        << lines({"%!PS-Adobe-3.0", "%%EndComments", "%%Page: 1 1", "a", "%%Trailer", "b", "%%Trailer"})
        << qint64(0) << qint64(1) << Positions{4};

    QTest::newRow("%%PageTrailer is a page end and never the trailer")
        << lines({"%!PS-Adobe-3.0", "%%EndComments", "%%Page: 1 1", "a", "%%Page: 2 2", "b", "%%PageTrailer",
                  "c", "%%Trailer"})
        << qint64(0) << qint64(1) << Positions{6};

    QTest::newRow("%%Trailer is recognised as a prefix")
        << lines({"%!PS-Adobe-3.0", "%%EndComments", "%%Page: 1 1", "a", "%%TrailerX", "%%EOF"})
        << qint64(0) << qint64(1) << Positions{4};

    QTest::newRow("comments count only at the very start of a line")
        << lines({"%!PS-Adobe-3.0", " %%BeginProlog", "%%EndComments", " %%Page: 1 1", "%%Page: 1 1", "a",
                  " %%PageTrailer", " %%Trailer", "x %%EOF", "%%EOF"})
        << qint64(0) << qint64(3) << Positions{9};

    QTest::newRow("no page end information gives no pages")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "a", "showpage"})
        << qint64(1) << qint64(2) << Positions{};

    QTest::newRow("an empty document gives no pages") << QByteArray() << qint64(0) << qint64(0) << Positions{};

    QTest::newRow("%%BeginProlog on the first line reads as no prolog")
        << lines({"%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "a", "%%PageTrailer"})
        << qint64(0) << qint64(1) << Positions{4};

    QTest::newRow("only the first %%BeginProlog counts")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%BeginProlog", "%%Page: 1 1",
                  "%%PageTrailer"})
        << qint64(1) << qint64(3) << Positions{5};

    QTest::newRow("a first %%Page: on line 1 records 0, which a later %%Page: line replaces")
        << lines({"%!PS-Adobe-3.0", "%%Page: 1 1", "a", "%%Page: 2 2", "b", "%%Trailer"})
        << qint64(0) << qint64(2) << Positions{2, 4};

    QTest::newRow("a %%Page: on line 0 records -1")
        << lines({"%%Page: 1 1", "a", "%%Page: 2 2", "b", "%%Trailer"})
        << qint64(0) << qint64(-1) << Positions{1, 3};

    QTest::newRow("CR LF lines are recognised by how they start")
        << crlfLines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "a", "%%Page: 2 2", "b",
                      "%%Page: 3 3", "c", "%%Trailer", "%%EOF"})
        << qint64(1) << qint64(2) << Positions{4, 6, 8};

    QTest::newRow("a lone CR does not end a line")
        << QByteArray("%!PS-Adobe-3.0\n%%BeginProlog\r%%Page: 1 1\n%%Page: 2 2\na\r%%PageTrailer\n%%PageTrailer\n")
        << qint64(1) << qint64(1) << Positions{4};

    QTest::newRow("NUL bytes stay inside their line")
        << bytes("%!PS-Adobe-3.0\n%%Page: 1 1\0\n\0%%PageTrailer\n\0\0\0\n%%PageTrailer\n")
        << qint64(0) << qint64(0) << Positions{4};

    QTest::newRow("a last line without line feed still counts")
        << QByteArray("%!PS-Adobe-3.0\n%%EndComments\n%%Page: 1 1\na\n%%EOF")
        << qint64(0) << qint64(1) << Positions{4};

    QTest::newRow("font resources are not examined when no marker font is required")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%BeginResource: font TinySans", "junk", "%%EndResource",
                  "%%EndProlog", "%%Page: 1 1", "a", "%%PageTrailer"})
        << qint64(1) << qint64(5) << Positions{8};
}

void TestDocumentScanner::pageStructure()
{
    QFETCH(QByteArray, document);
    QFETCH(qint64, prologLine);
    QFETCH(qint64, firstPageLine);
    QFETCH(Positions, pageEndLines);

    QBuffer input(&document);
    QVERIFY(input.open(QIODevice::ReadOnly));
    DocumentModel model;
    QVERIFY(Quillet().scanDocument(input, model).ok());
    const bool result = !model.pageEndLines.isEmpty();

    QCOMPARE(model.prologLine, prologLine);
    QCOMPARE(model.firstPageLine, firstPageLine);
    QCOMPARE(model.pageEndLines, pageEndLines);
    QCOMPARE(result, !pageEndLines.isEmpty());
    QVERIFY(input.atEnd());
}

void TestDocumentScanner::modelIsEmptiedAndInputLeftAtEnd()
{
    QByteArray document = lines({"%!PS-Adobe-3.0", "a", "b"});
    QBuffer input(&document);
    QVERIFY(input.open(QIODevice::ReadOnly));
    DocumentModel model;
    model.prologLine = 7;
    model.firstPageLine = 8;
    model.pageEndLines = {9, 10};

    QVERIFY(Quillet().scanDocument(input, model).ok());
    QCOMPARE(model.prologLine, qint64(0));
    QCOMPARE(model.firstPageLine, qint64(0));
    QVERIFY(model.pageEndLines.isEmpty());
    QVERIFY(input.atEnd());
}

void TestDocumentScanner::documentFontResources_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("styles");
    QTest::addColumn<QString>("emptiedFont"); // a catalogue font file made empty for the case
    QTest::addColumn<qint64>("prologLine");
    QTest::addColumn<qint64>("firstPageLine");
    QTest::addColumn<Positions>("pageEndLines");
    QTest::addColumn<QStringList>("embedded");
    QTest::addColumn<QStringList>("findfont");

    const QByteArray font = tinyFont("TinySans");
    const QByteArray boldFont = tinyFont("TinySans-Bold");
    QVERIFY(lineCount(font) > 5 && font.endsWith('\n'));

    // The head ends with "%%BeginProlog" on line 2; the resources follow on
    // line 3; then the prolog's end and two pages closed by "%%PageTrailer".
    const QByteArray head = lines({"%!PS-Adobe-3.0", "%%Pages: 2", "%%BeginProlog"});
    const QByteArray tail =
        lines({"%%EndProlog", "%%Page: 1 1", "a", "%%PageTrailer", "%%Page: 2 2", "b", "%%PageTrailer", "%%EOF"});
    const QByteArray identical = "%%BeginResource: font TinySans\n" + font + "\n%%EndResource\n";
    const QByteArray identicalBold = "%%BeginResource: font TinySans-Bold\n" + boldFont + "\n%%EndResource\n";
    const QByteArray different = lines({"%%BeginResource: font TinySans", "/TinySans 1 def", "%%EndResource"});
    const QByteArray differentBold =
        lines({"%%BeginResource: font TinySans-Bold", "/TinySans-Bold 1 def", "%%EndResource"});

    // Positions of the head/tail document with the resources in between;
    // lowered by one for every resource whose content did not match.
    auto add = [&](const char* rule, const QByteArray& resources, const QString& styles, const QString& emptied,
                   int lowered, const QStringList& embedded, const QStringList& findfont) {
        const qint64 r = lineCount(resources);
        QTest::newRow(rule) << head + resources + tail << styles << emptied << qint64(2) << qint64(3 + r - lowered)
                            << Positions{6 + r - lowered, 9 + r - lowered} << embedded << findfont;
    };

    const QString both = QStringLiteral("0,1");
    add("no resource: both fonts embedded", QByteArray(), both, QString(), 0,
        {"TinySans", "TinySans-Bold"}, {"TinySans", "TinySans-Bold"});
    add("an identical font is not embedded again and keeps its name; positions stay exact", identical, both,
        QString(), 0, {"TinySans-Bold"}, {"TinySans", "TinySans-Bold"});
    add("two identical fonts: neither is embedded", identical + identicalBold, both, QString(), 0, {},
        {"TinySans", "TinySans-Bold"});
    add("a font with other content is embedded under a new name; later positions are one lower", different, both,
        QString(), 1, {"TinySans#", "TinySans-Bold"}, {"TinySans#", "TinySans-Bold"});
    add("two non-matching resources lower later positions by two", different + differentBold, both, QString(), 2,
        {"TinySans#", "TinySans-Bold#"}, {"TinySans#", "TinySans-Bold#"});
    add("an identical copy followed by another content counts as conflicting", identical + different, both,
        QString(), 1, {"TinySans#", "TinySans-Bold"}, {"TinySans#", "TinySans-Bold"});
    add("equal body without the empty line counts as conflicting; positions stay exact",
        "%%BeginResource: font TinySans\n" + font + "%%EndResource\n% after\n", both, QString(), 0,
        {"TinySans#", "TinySans-Bold"}, {"TinySans#", "TinySans-Bold"});
    add("equal body with another closing line counts as conflicting",
        "%%BeginResource: font TinySans\n" + font + "\n%%EndResource \n", both, QString(), 0,
        {"TinySans#", "TinySans-Bold"}, {"TinySans#", "TinySans-Bold"});
    add("a body longer than the font file counts as conflicting",
        "%%BeginResource: font TinySans\n" + font + "extra\n\n%%EndResource\n", both, QString(), 0,
        {"TinySans#", "TinySans-Bold"}, {"TinySans#", "TinySans-Bold"});
    add("an empty font file matches at once, then needs the empty line and %%EndResource",
        lines({"%%BeginResource: font TinySans", "", "%%EndResource"}), both, QStringLiteral("TinySans"), 0,
        {"TinySans-Bold"}, {"TinySans", "TinySans-Bold"});
    add("an empty font file with %%EndResource straight after counts as conflicting",
        lines({"%%BeginResource: font TinySans", "%%EndResource", "% after"}), both, QStringLiteral("TinySans"),
        0, {"TinySans#", "TinySans-Bold"}, {"TinySans#", "TinySans-Bold"});
    add("a resource line ending in CR LF is not examined",
        crlfLines({"%%BeginResource: font TinySans", "/TinySans 1 def", "%%EndResource"}), both, QString(), 0,
        {"TinySans", "TinySans-Bold"}, {"TinySans", "TinySans-Bold"});
    add("a resource of a catalogue font that no used style needs is not examined", differentBold,
        QStringLiteral("0"), QString(), 0, {"TinySans"}, {"TinySans"});
    add("a resource of a font outside the catalogue is not examined",
        lines({"%%BeginResource: font Other", "x", "%%EndResource"}), both, QString(), 0,
        {"TinySans", "TinySans-Bold"}, {"TinySans", "TinySans-Bold"});
    add("a longer font name is another font",
        lines({"%%BeginResource: font TinySansX", "x", "%%EndResource"}), both, QString(), 0,
        {"TinySans", "TinySans-Bold"}, {"TinySans", "TinySans-Bold"});

    QTest::newRow("a non-matching resource before the prolog lowers the prolog position too")
        << lines({"%!PS-Adobe-3.0", "%%BeginResource: font TinySans", "x", "%%EndResource", "%%BeginProlog",
                  "%%EndProlog", "%%Page: 1 1", "a", "%%PageTrailer"})
        << both << QString() << qint64(3) << qint64(4) << Positions{7} << QStringList{"TinySans#", "TinySans-Bold"}
        << QStringList{"TinySans#", "TinySans-Bold"};

    QTest::newRow("a document ending inside a resource whose lines so far match counts as conflicting")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "a", "%%PageTrailer",
                  "%%BeginResource: font TinySans"})
               + font.left(font.indexOf('\n', font.indexOf('\n') + 1) + 1)
        << both << QString() << qint64(1) << qint64(2) << Positions{5} << QStringList{"TinySans#", "TinySans-Bold"}
        << QStringList{"TinySans#", "TinySans-Bold"};
}

void TestDocumentScanner::documentFontResources()
{
    QFETCH(QByteArray, document);
    QFETCH(QString, styles);
    QFETCH(QString, emptiedFont);
    QFETCH(qint64, prologLine);
    QFETCH(qint64, firstPageLine);
    QFETCH(Positions, pageEndLines);
    QFETCH(QStringList, embedded);
    QFETCH(QStringList, findfont);

    FixtureTree tree;
    tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
    if (!emptiedFont.isEmpty())
        tree.write(QStringLiteral("share-cups/fonts/") + emptiedFont, QByteArray());
    tree.write(QStringLiteral("job/document.ps"), document);

    const RunResult run = tree.runInSandbox(QStringLiteral(SCANPROBE), {QStringLiteral("document.ps"), styles});
    QVERIFY2(!run.crashed && run.exitCode == 0, run.standardError.constData());
    QMap<QString, QString> found;
    for (const QByteArray& line : run.standardOutput.split('\n')) {
        const int equals = line.indexOf('=');
        if (equals > 0)
            found.insert(QString::fromLatin1(line.left(equals)), QString::fromLatin1(line.mid(equals + 1)));
    }

    QCOMPARE(found.value(QStringLiteral("prolog")).toLongLong(), prologLine);
    QCOMPARE(found.value(QStringLiteral("firstPage")).toLongLong(), firstPageLine);
    QCOMPARE(positions(found.value(QStringLiteral("pageEnds"))), pageEndLines);
    QCOMPARE(found.value(QStringLiteral("result")), QStringLiteral("1"));
    QCOMPARE(found.value(QStringLiteral("atEnd")), QStringLiteral("1"));

    const QStringList actualEmbedded = names(found.value(QStringLiteral("embedded")));
    const QStringList actualFindfont = names(found.value(QStringLiteral("findfont")));
    QVERIFY2(namesMatch(actualEmbedded, embedded), qPrintable(actualEmbedded.join(QLatin1Char(','))));
    QVERIFY2(namesMatch(actualFindfont, findfont), qPrintable(actualFindfont.join(QLatin1Char(','))));
    // A font embedded under a new name is used under that same name.
    for (const QString& name : actualEmbedded)
        QVERIFY2(actualFindfont.contains(name), qPrintable(name));
}

void TestDocumentScanner::missingFontFileIsFatal()
{
    FixtureTree tree;
    tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
    QVERIFY(QFile::remove(tree.path(QStringLiteral("share-cups/fonts/TinySans"))));
    tree.write(QStringLiteral("job/in.ps"),
               lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%BeginResource: font TinySans", "x", "%%EndResource",
                      "%%EndProlog", "%%Page: 1 1", "a", "%%PageTrailer", "%%EOF"}));
    tree.write(QStringLiteral("job/template"), "any:normal:12::top-left:x\n");
    tree.write(QStringLiteral("job/vars"), "copies=1\n");

    const RunResult run = runQuietly(tree, {"in.ps", "template", "vars", "out.ps"});
    QVERIFY(!run.crashed);
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.standardError, QByteArray("Can not open marker font file /usr/share/cups/fonts/TinySans\n"));
    QCOMPARE(run.standardOutput, QByteArray());
    // Both files were opened for writing before the scan.
    QVERIFY(QFileInfo::exists(tree.path(QStringLiteral("job/out.ps"))));
    QCOMPARE(tree.read(QStringLiteral("job/out.ps")), QByteArray());
    QCOMPARE(tree.read(QStringLiteral("job/vars")), QByteArray());
}

// A document whose reading fails (here a folder, which the system lets open
// but not read) is not taken for one that ends there.
void TestDocumentScanner::unreadableDocumentIsFatal()
{
    const int folder = ::open("/", O_RDONLY | O_CLOEXEC);
    QVERIFY(folder != -1);
    QFile input;
    QVERIFY(input.open(folder, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle));
    DocumentModel model;
    const Status scanned = Quillet().scanDocument(input, model);
    QVERIFY(!scanned.ok());
    QCOMPARE(scanned.message(), QStringLiteral("The document cannot be read to its end"));
}

// With print-safe output the page structure follows the document's own
// pages: a prolog that an embedded figure brings after the first page, an
// embedded document that is never closed, end-of-file comments inside a page
// and pages that lack the "%%PageTrailer" that others have. Each row gives
// the classic model (kept as it is) and the print-safe one.
void TestDocumentScanner::safePageStructure_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<ScanResult>("classic");
    QTest::addColumn<ScanResult>("safe");

    QTest::newRow("no prolog section: a figure's prolog on page 2 is not the document's")
        << lines({"%!PS-Adobe-3.0",            // 0
                  "%%Pages: 2",                // 1
                  "%%EndComments",             // 2
                  "%%Page: 1 1",               // 3
                  "(one) pop showpage",        // 4
                  "%%PageTrailer",             // 5
                  "%%Page: 2 2",               // 6
                  "%!PS-Adobe-3.0 EPSF-3.0",   // 7
                  "%%BeginProlog",             // 8
                  "%%EndProlog",               // 9
                  "showpage",                  // 10
                  "%%PageTrailer",             // 11
                  "%%EOF"})                    // 12
        << ScanResult{8, 2, {5, 11}} << ScanResult{0, 2, {5, 11}};
    QTest::newRow("a prolog before the first page still counts")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "showpage", "%%PageTrailer",
                  "%%BeginProlog", "%%EOF"})
        << ScanResult{1, 2, {5}} << ScanResult{1, 2, {5}};
    QTest::newRow("an embedded document that is never closed does not swallow the pages")
        << lines({"%!PS-Adobe-3.0",               // 0
                  "%%BeginProlog",                // 1
                  "%%EndProlog",                  // 2
                  "%%Page: 1 1",                  // 3
                  "%%BeginDocument: figure.eps",  // 4
                  "%!PS-Adobe-3.0 EPSF-3.0",      // 5
                  "showpage",                     // 6
                  "%%PageTrailer",                // 7
                  "%%Page: 2 2",                  // 8
                  "showpage",                     // 9
                  "%%PageTrailer",                // 10
                  "%%Trailer",                    // 11
                  "%%EOF"})                       // 12
        << ScanResult{1, 2, {7, 10}} << ScanResult{1, 2, {7, 10}};
    QTest::newRow("an unclosed embedded document around a closed one: the closed one is still skipped")
        << lines({"%!PS-Adobe-3.0",               // 0
                  "%%BeginProlog",                // 1
                  "%%EndProlog",                  // 2
                  "%%Page: 1 1",                  // 3
                  "%%BeginDocument: outer.eps",   // 4
                  "%%BeginDocument: inner.ps",    // 5
                  "%%Page: 1 1",                  // 6
                  "%%PageTrailer",                // 7
                  "%%EndDocument",                // 8
                  "showpage",                     // 9
                  "%%PageTrailer",                // 10
                  "%%Page: 2 2",                  // 11
                  "showpage",                     // 12
                  "%%PageTrailer",                // 13
                  "%%EOF"})                       // 14
        << ScanResult{1, 2, {7, 10, 13}} << ScanResult{1, 2, {10, 13}};
    QTest::newRow("end-of-file comments of a figure pasted into page 1 do not end the document")
        << lines({"%!PS-Adobe-3.0",           // 0
                  "%%BeginProlog",            // 1
                  "%%EndProlog",              // 2
                  "%%Page: 1 1",              // 3
                  "%!PS-Adobe-3.0 EPSF-3.0",  // 4
                  "%%Trailer",                // 5
                  "%%EOF",                    // 6
                  "showpage",                 // 7
                  "%%Page: 2 2",              // 8
                  "showpage",                 // 9
                  "%%Page: 3 3",              // 10
                  "showpage",                 // 11
                  "%%Trailer",                // 12
                  "%%EOF"})                   // 13
        << ScanResult{1, 2, {7, 9, 4}} << ScanResult{1, 2, {7, 9, 11}};
    QTest::newRow("a figure's %%EOF in the last page: the document's own %%Trailer ends it")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "showpage", "%%Page: 2 2",
                  "%!PS-Adobe-3.0 EPSF-3.0", "%%EOF", "showpage", "%%Trailer", "%%EOF"})
        << ScanResult{1, 2, {4, 6}} << ScanResult{1, 2, {4, 8}};
    QTest::newRow("a figure's %%EOF on page 1 and no trailer after the last page: the file's end ends it")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "%%EOF", "showpage",
                  "%%Page: 2 2", "showpage"})
        << ScanResult{1, 2, {5, 3}} << ScanResult{1, 2, {5, 7}};
    QTest::newRow("a page without %%PageTrailer among pages with one still ends")
        << lines({"%!PS-Adobe-3.0",  // 0
                  "%%BeginProlog",   // 1
                  "%%EndProlog",     // 2
                  "%%Page: 1 1",     // 3
                  "showpage",        // 4
                  "%%PageTrailer",   // 5
                  "%%Page: 2 2",     // 6
                  "showpage",        // 7
                  "%%Page: 3 3",     // 8
                  "showpage",        // 9
                  "%%PageTrailer",   // 10
                  "%%Trailer",       // 11
                  "%%EOF"})          // 12
        << ScanResult{1, 2, {5, 10}} << ScanResult{1, 2, {5, 7, 10}};
    QTest::newRow("a last page without %%PageTrailer ends before the trailer")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "showpage", "%%PageTrailer",
                  "%%Page: 2 2", "showpage", "%%Trailer", "%%EOF"})
        << ScanResult{1, 2, {5}} << ScanResult{1, 2, {5, 7}};
    QTest::newRow("a last page without %%PageTrailer or trailer ends with the file")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "showpage", "%%PageTrailer",
                  "%%Page: 2 2", "showpage"})
        << ScanResult{1, 2, {5}} << ScanResult{1, 2, {5, 7}};
    QTest::newRow("a well-formed document is scanned alike")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "showpage", "%%Page: 2 2",
                  "showpage", "%%Trailer", "%%EOF"})
        << ScanResult{1, 2, {4, 6}} << ScanResult{1, 2, {4, 6}};
    QTest::newRow("a single page without %%PageTrailer keeps its trailer line")
        << lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "showpage", "%%Trailer",
                  "%%EOF"})
        << ScanResult{1, 2, {5}} << ScanResult{1, 2, {5}};
}

void TestDocumentScanner::safePageStructure()
{
    QFETCH(QByteArray, document);
    QFETCH(ScanResult, classic);
    QFETCH(ScanResult, safe);

    for (const bool safeOutput : {false, true}) {
        Variables::instance().insert(QStringLiteral("MarkerSafeOutput"),
                                     safeOutput ? QStringLiteral("1") : QStringLiteral("0"));
        QBuffer input(&document);
        QVERIFY(input.open(QIODevice::ReadOnly));
        DocumentModel model;
        QVERIFY(Quillet().scanDocument(input, model).ok());
        QVERIFY(input.atEnd());
        const ScanResult found{model.prologLine, model.firstPageLine, model.pageEndLines};
        QCOMPARE(found, safeOutput ? safe : classic);
    }
}

// With print-safe output a marker font resource whose content differs from
// the catalogue's keeps the later positions exact, however many there are.
void TestDocumentScanner::safeResourcePositionsStayExact_data()
{
    QTest::addColumn<int>("resources");

    QTest::newRow("one non-matching resource") << 1;
    QTest::newRow("two non-matching resources") << 2;
    QTest::newRow("forty non-matching resources") << 40;
}

void TestDocumentScanner::safeResourcePositionsStayExact()
{
    QFETCH(int, resources);

    QByteArrayList content = {"%!PS-Adobe-3.0", "%%BeginProlog"};
    for (int i = 0; i < resources; ++i)
        content << "%%BeginResource: font TinySans" << "/TinySans " + QByteArray::number(i) + " def"
                << "%%EndResource";
    content << "%%EndProlog" << "%%Page: 1 1" << "a" << "%%PageTrailer" << "%%Page: 2 2" << "b" << "%%PageTrailer"
            << "%%EOF";
    const qint64 r = 3 * resources;

    FixtureTree tree;
    tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("job/document.ps"), lines(content));
    for (const bool safeOutput : {false, true}) {
        QStringList arguments = {QStringLiteral("document.ps"), QStringLiteral("0")};
        if (safeOutput)
            arguments << QStringLiteral("safe");
        const RunResult run = tree.runInSandbox(QStringLiteral(SCANPROBE), arguments);
        QVERIFY2(!run.crashed && run.exitCode == 0, run.standardError.constData());
        QMap<QString, QString> found;
        for (const QByteArray& line : run.standardOutput.split('\n')) {
            const int equals = line.indexOf('=');
            if (equals > 0)
                found.insert(QString::fromLatin1(line.left(equals)), QString::fromLatin1(line.mid(equals + 1)));
        }
        // Classic: each such resource lowers later positions by one.
        const qint64 lowered = safeOutput ? 0 : resources;
        QCOMPARE(found.value(QStringLiteral("firstPage")).toLongLong(), 2 + r - lowered);
        QCOMPARE(positions(found.value(QStringLiteral("pageEnds"))), (Positions{5 + r - lowered, 8 + r - lowered}));
    }
}

void TestDocumentScanner::refilteredDocumentCarriesEachFontOnce_data()
{
    QTest::addColumn<bool>("safeOutput");
    QTest::newRow("classic") << false;
    QTest::newRow("print-safe") << true;
}

void TestDocumentScanner::refilteredDocumentCarriesEachFontOnce()
{
    QFETCH(bool, safeOutput);
    FixtureTree tree;
    tree.copy(catalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("job/in.ps"), lines({"%!PS-Adobe-3.0", "%%Pages: 2", "%%EndComments", "%%BeginProlog",
                                                    "%%EndProlog", "%%Page: 1 1", "showpage", "%%PageTrailer",
                                                    "%%Page: 2 2", "showpage", "%%PageTrailer", "%%Trailer",
                                                    "%%EOF"}));
    tree.write(QStringLiteral("job/template"),
               "any:normal:12::top-left:Page {CURRENT_PAGE}\nany:bold:12::bottom-right:Label\n");
    // The shipped definitions with the mode of the row.
    tree.write(QStringLiteral("etc-cups/marker.defs"),
               readFile(catalogueDir() + QStringLiteral("/quillet/marker.defs"))
                   .replace("MarkerSafeOutput=1\n", safeOutput ? "MarkerSafeOutput=1\n" : "MarkerSafeOutput=0\n"));
    tree.write(QStringLiteral("job/vars"), "copies=1\n");

    const RunResult first = runQuietly(tree, {"in.ps", "template", "vars", "once.ps"});
    QCOMPARE(first.exitCode, 0);
    const RunResult second = runQuietly(tree, {"once.ps", "template", "vars", "twice.ps"});
    QCOMPARE(second.exitCode, 0);

    const QByteArray once = tree.read(QStringLiteral("job/once.ps"));
    const QByteArray twice = tree.read(QStringLiteral("job/twice.ps"));
    auto resourceLines = [](const QByteArray& document) {
        QByteArrayList found;
        for (const QByteArray& line : document.split('\n')) {
            if (line.startsWith("%%BeginResource: font "))
                found.append(line);
        }
        return found;
    };
    const QByteArrayList expected = {"%%BeginResource: font NimbusSans-Bold",
                                     "%%BeginResource: font NimbusSans-Regular"};
    QByteArrayList onceResources = resourceLines(once);
    std::sort(onceResources.begin(), onceResources.end());
    QCOMPARE(onceResources, expected);
    QByteArrayList twiceResources = resourceLines(twice);
    std::sort(twiceResources.begin(), twiceResources.end());
    QCOMPARE(twiceResources, expected);

    // The fonts of the first pass reach the second output unchanged, once.
    for (const char* name : {"NimbusSans-Regular", "NimbusSans-Bold"}) {
        const QByteArray block = "%%BeginResource: font " + QByteArray(name) + '\n'
                                 + readFile(catalogueDir() + QStringLiteral("/fonts/") + QLatin1String(name))
                                 + "\n%%EndResource\n";
        QCOMPARE(once.count(block), 1);
        QCOMPARE(twice.count(block), 1);
    }
    if (safeOutput) {
        // Print-safe: the second pass drops what the first added and marks
        // the original document again.
        QCOMPARE(twice, once);
    } else {
        // The second pass builds its marker fonts on the carried ones, by name.
        QCOMPARE(twice.count("\n/NimbusSans-Regular findfont\n"), 2 * once.count("\n/NimbusSans-Regular findfont\n"));
    }
}

QTEST_GUILESS_MAIN(TestDocumentScanner)
#include "tst_documentscanner.moc"
