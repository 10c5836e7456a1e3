// The marker font resources: base font programs, encoding vectors,
// re-encoded base fonts and composite marker fonts, written into a buffer
// from catalogues that the tests write. Whole outputs are compared with the
// golden files under golden/; single rules are checked on their own.
//
// Each case writes its catalogue into the CUPS data directory of the test's
// sandbox (see fontsandbox.h). Cases that need fresh processes (repeatable
// substitute names, the same output on every run) start copies of this binary
// as helpers inside the same sandbox.
#include "fontsandbox.h"

#include "fonts/fonts.h"
#include "support/messagerecorder.h"
#include "support/testsupport.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QRegularExpression>
#include <QTest>

#include <cstdio>

namespace {

const QStringList SerifFonts{"Serif-Regular", "Serif-Bold", "Serif-Italic", "Serif-BoldItalic"};
const QStringList CyrillicFonts{"Cyr-Regular", "Cyr-Bold", "Cyr-Italic", "Cyr-BoldItalic"};

// A small text that stands in for a font program: its name occurs in the
// first comment, in DSC and plain comments (twice on one line) and in code.
QByteArray standInFont(const QString& name)
{
    const QByteArray n = name.toLatin1();
    return "%!PS-AdobeFont-1.0: " + n + " 001.000\n%%Title: " + n + "\n% " + n +
           " stands in for a font program; " + n + " occurs twice on this line.\n11 dict begin\n/FontName /" +
           n + " def\ncurrentdict end\n";
}

QByteArray charsetLine(const QByteArray& span, const QStringList& fonts)
{
    return span + " ltor single " + fonts.join(QLatin1Char(' ')).toLatin1() + '\n';
}

// Writes the small glyph list, a charset file of the lines and a stand-in
// program for every font the lines name.
void writeCatalogue(const QByteArray& lines, const QByteArray& glyphs = QByteArray())
{
    if (glyphs.isNull())
        FontSandbox::installDataFile(QStringLiteral("glyphs-small"), QStringLiteral("data/psglyphs"));
    else
        FontSandbox::writeCatalogueFile(QStringLiteral("data/psglyphs"), glyphs);
    FontSandbox::writeCatalogueFile(QStringLiteral("charsets/utf-8"), "charset utf8\n" + lines);
    for (const QByteArray& line : lines.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        for (int i = 4; i < fields.size(); ++i)
            FontSandbox::writeCatalogueFile(QStringLiteral("fonts/") + QString::fromLatin1(fields.at(i)),
                                            standInFont(QString::fromLatin1(fields.at(i))));
    }
}

// Reads the catalogue and sets the marker styles. False when the catalogue
// does not load cleanly: initialize fails or warns beyond its opening line.
bool loadCatalogue(const QList<int>& styles)
{
    MessageRecorder recorder;
    if (!Fonts::instance().initialize(QStringLiteral("utf-8")))
        return false;
    if (recorder.messages() != QStringList{"warning: bool Fonts::initialize(const QString&) \"utf-8\""})
        return false;
    Fonts::instance().setMarkerStyles(QSet<int>(styles.begin(), styles.end()));
    return true;
}

struct Resources
{
    QByteArray output;
    QStringList messages;
};

Resources writeResources()
{
    Resources resources;
    QBuffer buffer(&resources.output);
    buffer.open(QIODevice::WriteOnly);
    MessageRecorder recorder;
    Fonts::instance().writeFontResources(buffer);
    resources.messages = recorder.messages();
    return resources;
}

// The names of the embedded font resources, in order.
QStringList embeddedFonts(const QByteArray& output)
{
    QStringList names;
    QRegularExpression begin(QStringLiteral("^%%BeginResource: font (.*)$"),
                             QRegularExpression::MultilineOption);
    auto it = begin.globalMatch(QString::fromLatin1(output));
    while (it.hasNext())
        names << it.next().captured(1);
    return names;
}

// The text of one embedded font resource, between its BeginResource line and
// "\n%%EndResource\n".
QByteArray embeddedProgram(const QByteArray& output, const QString& font)
{
    const QByteArray begin = "%%BeginResource: font " + font.toLatin1() + '\n';
    const int start = output.indexOf(begin);
    if (start < 0)
        return QByteArray();
    const int end = output.indexOf("\n%%EndResource\n", start);
    return output.mid(start + begin.size(), end - start - begin.size());
}

// The 32 lines of encoding vector i.
QList<QByteArray> encodingLines(const QByteArray& output, int i)
{
    const QByteArray begin = "/markerEncoding" + QByteArray::number(i, 16) + " [\n";
    const int start = output.indexOf(begin);
    if (start < 0)
        return {};
    const int end = output.indexOf("] def\n", start);
    QList<QByteArray> lines = output.mid(start + begin.size(), end - start - begin.size()).split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

QList<int> toStyles(const QString& text)
{
    QList<int> styles;
    for (const QString& style : text.split(QLatin1Char(','), Qt::SkipEmptyParts))
        styles << style.toInt();
    return styles;
}

QStringList toList(const QString& text)
{
    return text.split(QLatin1Char(','), Qt::SkipEmptyParts);
}

// Helper process: reads the catalogue already in the sandbox and writes the
// font resources to standard output.
//   --fonts-helper STYLES CONFLICTING IDENTICAL   (comma-separated lists)
int writeResourcesHelper(const QStringList& arguments)
{
    if (arguments.size() != 3)
        return 2;
    Fonts::instance().initialize(QStringLiteral("utf-8"));
    const QList<int> styles = toStyles(arguments.at(0));
    Fonts::instance().setMarkerStyles(QSet<int>(styles.begin(), styles.end()));
    Fonts::instance().setConflictingDocumentFonts(toList(arguments.at(1)));
    Fonts::instance().setIdenticalDocumentFonts(toList(arguments.at(2)));
    QByteArray output;
    QBuffer buffer(&output);
    buffer.open(QIODevice::WriteOnly);
    Fonts::instance().writeFontResources(buffer);
    std::fwrite(output.constData(), 1, size_t(output.size()), stdout);
    return 0;
}

// The output of writeResourcesHelper in a fresh process.
QByteArray resourcesOfNewProcess(const QString& styles, const QString& conflicting, const QString& identical)
{
    const FontSandbox::HelperResult run = FontSandbox::runHelper({styles, conflicting, identical});
    if (run.exitCode != 0)
        qWarning("helper failed (%d): %s", run.exitCode, run.standardError.constData());
    return run.exitCode == 0 ? run.standardOutput : QByteArray();
}

} // namespace

class TestFontResources : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void golden_data();
    void golden();
    void styleSetSelectsMarkerFonts();
    void seventeenCharsetsBreakCompositeArrays();
    void noCharsetsGiveEmptyArrays();

    void requiredFonts_data();
    void requiredFonts();

    void identicalFontIsNotEmbedded();
    void fontInBothListsCountsAsIdentical();
    void conflictingFontIsEmbeddedUnderNewName();
    void substituteNameRepeatsInNewProcess();
    void substituteNameAvoidsIdenticalFonts();
    void sameOutputOnEveryRun();

    void unreadableFontFile_data();
    void unreadableFontFile();

    void encodingSlotNames();
    void encodingLineHoldsEightNamesWithoutBlanks();
};

void TestFontResources::init()
{
    FontSandbox::clearCatalogue();
}

// --- Whole outputs ------------------------------------------------------------

void TestFontResources::golden_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<QList<int>>("styles");
    QTest::addColumn<QString>("golden");

    QTest::newRow("one charset and the normal style")
        << charsetLine("0000 00FF", SerifFonts) << QList<int>{0} << "resources-one-charset-normal.ps";
    QTest::newRow("two charsets and the normal and bold-italic styles")
        << charsetLine("0000 00FF", SerifFonts) + charsetLine("0400 04FF", CyrillicFonts) << QList<int>{3, 0}
        << "resources-two-charsets-normal-bolditalic.ps";
    QByteArray seventeen = charsetLine("0000 00FF", SerifFonts);
    for (int j = 1; j <= 16; ++j) {
        const QByteArray first = QByteArray::number(0x100 * j, 16).rightJustified(4, '0');
        const QByteArray last = QByteArray::number(0x100 * j + 0xF, 16).rightJustified(4, '0');
        seventeen += charsetLine(first + ' ' + last, SerifFonts);
    }
    QTest::newRow("17 charsets and the normal style")
        << seventeen << QList<int>{0} << "resources-17-charsets-normal.ps";
}

void TestFontResources::golden()
{
    QFETCH(QByteArray, lines);
    QFETCH(QList<int>, styles);
    QFETCH(QString, golden);
    writeCatalogue(lines);
    QVERIFY(loadCatalogue(styles));

    const Resources resources = writeResources();
    QCOMPARE(resources.messages, QStringList{});
    const QByteArray expected = FontSandbox::testFile(QStringLiteral("golden/") + golden);
    QVERIFY2(resources.output == expected, qPrintable(firstDifference(resources.output, expected)));
}

void TestFontResources::styleSetSelectsMarkerFonts()
{
    writeCatalogue(charsetLine("0000 00FF", SerifFonts) + charsetLine("0400 04FF", CyrillicFonts));
    QVERIFY(loadCatalogue({0, 3}));
    const QByteArray output = writeResources().output;

    // Encodings for every charset, whatever the styles.
    QCOMPARE(encodingLines(output, 0).size(), 32);
    QCOMPARE(encodingLines(output, 1).size(), 32);
    QCOMPARE(output.count("/markerEncoding"), 2);
    // Re-encoded fonts and composite fonts for the two styles only.
    for (const char* defined :
         {"/Marker-Normal0 exch definefont", "/Marker-Normal1 exch definefont",
          "/Marker-BoldItalic0 exch definefont", "/Marker-BoldItalic1 exch definefont",
          "/Marker-Normal exch definefont pop", "/Marker-BoldItalic exch definefont pop"})
        QVERIFY2(output.contains(defined), defined);
    QVERIFY(!output.contains("Marker-Bold0"));
    QVERIFY(!output.contains("Marker-Italic"));
    QVERIFY(!output.contains("/Marker-Bold "));
    QCOMPARE(output.count("definefont pop"), 2);
    QCOMPARE(output.count(" findfont\n"), 4);
    // The bold-italic fonts are looked up by their own names.
    QVERIFY(output.contains("/Serif-BoldItalic findfont\n"));
    QVERIFY(output.contains("/Cyr-BoldItalic findfont\n"));
    QCOMPARE(embeddedFonts(output),
             (QStringList{"Cyr-BoldItalic", "Cyr-Regular", "Serif-BoldItalic", "Serif-Regular"}));
}

void TestFontResources::seventeenCharsetsBreakCompositeArrays()
{
    QByteArray lines;
    for (int i = 0; i < 17; ++i) {
        const QByteArray point = QByteArray::number(0x1000 + i, 16);
        lines += point + ' ' + point + " ltor single Serif-Regular\n";
    }
    writeCatalogue(lines);
    QVERIFY(loadCatalogue({1}));
    const QByteArray output = writeResources().output;

    const QByteArray composite = "% Create composite font\n"
                                 "8 dict begin\n"
                                 "/FontType 0 def/FontMatrix[1.0 0 0 1.0 0 0]def/FMapType 2 def /Encoding[\n"
                                 "0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15\n"
                                 "16]def/FDepVector[\n"
                                 "Marker-Bold0 Marker-Bold1 Marker-Bold2 Marker-Bold3\n"
                                 "Marker-Bold4 Marker-Bold5 Marker-Bold6 Marker-Bold7\n"
                                 "Marker-Bold8 Marker-Bold9 Marker-Bolda Marker-Boldb\n"
                                 "Marker-Boldc Marker-Boldd Marker-Bolde Marker-Boldf\n"
                                 "Marker-Bold10]def currentdict end\n"
                                 "/Marker-Bold exch definefont pop\n";
    QVERIFY2(output.endsWith(composite),
             qPrintable(firstDifference(output.mid(output.indexOf("% Create")), composite)));
    QVERIFY(output.contains("/markerEncoding10 [\n"));
    QVERIFY(output.contains("  /Encoding markerEncoding10 def\n"));
    QVERIFY(output.contains("/Marker-Bold10 exch definefont /Marker-Bold10 exch def\n"));
}

void TestFontResources::noCharsetsGiveEmptyArrays()
{
    writeCatalogue("# no charsets\n");
    QVERIFY(loadCatalogue({0}));
    const Resources resources = writeResources();
    QCOMPARE(resources.messages, QStringList{});
    const QByteArray expected = "% Character encodings\n"
                                "% Reencode base fonts\n"
                                "% Create composite font\n"
                                "8 dict begin\n"
                                "/FontType 0 def/FontMatrix[1.0 0 0 1.0 0 0]def/FMapType 2 def /Encoding[\n"
                                "]def/FDepVector[\n"
                                "]def currentdict end\n"
                                "/Marker-Normal exch definefont pop\n";
    QVERIFY2(resources.output == expected, qPrintable(firstDifference(resources.output, expected)));
}

// --- Required fonts -----------------------------------------------------------

void TestFontResources::requiredFonts_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<QList<int>>("styles");
    QTest::addColumn<QStringList>("required");

    const QByteArray two = charsetLine("0000 00FF", SerifFonts) + charsetLine("0400 04FF", CyrillicFonts);
    QTest::newRow("one style: its font of every charset")
        << two << QList<int>{0} << QStringList{"Serif-Regular", "Cyr-Regular"};
    QTest::newRow("two styles: style by style, each font once")
        << two << QList<int>{3, 0}
        << QStringList{"Serif-Regular", "Cyr-Regular", "Serif-BoldItalic", "Cyr-BoldItalic"};
    QTest::newRow("a font shared by all styles is required once")
        << QByteArray("0000 00FF ltor single Mono\n") << QList<int>{0, 1, 2, 3} << QStringList{"Mono"};
    QTest::newRow("no styles: no fonts") << two << QList<int>{} << QStringList{};
}

void TestFontResources::requiredFonts()
{
    QFETCH(QByteArray, lines);
    QFETCH(QList<int>, styles);
    QFETCH(QStringList, required);
    writeCatalogue(lines);
    QVERIFY(loadCatalogue(styles));
    QCOMPARE(Fonts::instance().markerStyles(), QSet<int>(styles.begin(), styles.end()));
    QCOMPARE(Fonts::instance().requiredFonts(), required);
}

// --- Fonts the document carries -----------------------------------------------

void TestFontResources::identicalFontIsNotEmbedded()
{
    writeCatalogue(charsetLine("0000 00FF", SerifFonts) + charsetLine("0400 04FF", CyrillicFonts));
    QVERIFY(loadCatalogue({0}));
    Fonts::instance().setIdenticalDocumentFonts({QStringLiteral("Serif-Regular")});
    const Resources resources = writeResources();

    QCOMPARE(resources.messages, QStringList{});
    QCOMPARE(embeddedFonts(resources.output), QStringList{"Cyr-Regular"});
    QVERIFY(resources.output.contains("/Serif-Regular findfont\n"));
    QVERIFY(resources.output.contains("/Cyr-Regular findfont\n"));
    // The required fonts stay as they were.
    QCOMPARE(Fonts::instance().requiredFonts(), (QStringList{"Serif-Regular", "Cyr-Regular"}));
}

void TestFontResources::fontInBothListsCountsAsIdentical()
{
    writeCatalogue(charsetLine("0000 00FF", SerifFonts) + charsetLine("0400 04FF", CyrillicFonts));
    QVERIFY(loadCatalogue({0}));
    Fonts::instance().setIdenticalDocumentFonts({QStringLiteral("Serif-Regular")});
    Fonts::instance().setConflictingDocumentFonts({QStringLiteral("Serif-Regular")});
    const Resources resources = writeResources();

    QCOMPARE(resources.messages, QStringList{});
    QCOMPARE(embeddedFonts(resources.output), QStringList{"Cyr-Regular"});
    QVERIFY(resources.output.contains("/Serif-Regular findfont\n"));
    QVERIFY(!resources.output.contains("Serif-Regular1"));
}

void TestFontResources::conflictingFontIsEmbeddedUnderNewName()
{
    writeCatalogue(charsetLine("0000 00FF", SerifFonts) + charsetLine("0400 04FF", CyrillicFonts));
    QVERIFY(loadCatalogue({0}));
    Fonts::instance().setConflictingDocumentFonts({QStringLiteral("Serif-Regular")});
    const Resources resources = writeResources();
    QCOMPARE(resources.messages, QStringList{});

    const QStringList embedded = embeddedFonts(resources.output);
    QCOMPARE(embedded.size(), 2);
    QCOMPARE(embedded.at(0), QStringLiteral("Cyr-Regular"));
    const QString newName = embedded.at(1);
    QVERIFY2(QRegularExpression(QStringLiteral("^Serif-Regular[0-9]+$")).match(newName).hasMatch(),
             qPrintable(newName));

    // Every occurrence in the program text is renamed, comments included.
    const QByteArray program = embeddedProgram(resources.output, newName);
    QByteArray expected = standInFont(QStringLiteral("Serif-Regular"));
    expected.replace("Serif-Regular", newName.toLatin1());
    QCOMPARE(program, expected);
    QCOMPARE(program.count(newName.toLatin1()), 5);
    // The other font is copied unchanged, and the re-encoding uses the new name.
    QCOMPARE(embeddedProgram(resources.output, QStringLiteral("Cyr-Regular")),
             standInFont(QStringLiteral("Cyr-Regular")));
    QVERIFY(resources.output.contains("/" + newName.toLatin1() + " findfont\n"));
    // The old name is left nowhere but inside the new one.
    QCOMPARE(resources.output.count("Serif-Regular"), resources.output.count(newName.toLatin1()));
}

void TestFontResources::substituteNameRepeatsInNewProcess()
{
    writeCatalogue(charsetLine("0000 00FF", SerifFonts));
    const QByteArray first =
        resourcesOfNewProcess(QStringLiteral("0"), QStringLiteral("Serif-Regular"), QString());
    const QByteArray second =
        resourcesOfNewProcess(QStringLiteral("0"), QStringLiteral("Serif-Regular"), QString());
    const QStringList firstNames = embeddedFonts(first);
    QCOMPARE(firstNames.size(), 1);
    QVERIFY2(QRegularExpression(QStringLiteral("^Serif-Regular[0-9]+$")).match(firstNames.at(0)).hasMatch(),
             qPrintable(firstNames.at(0)));
    QCOMPARE(embeddedFonts(second), firstNames);
    QVERIFY2(first == second, qPrintable(firstDifference(second, first)));
}

void TestFontResources::substituteNameAvoidsIdenticalFonts()
{
    // A fresh process draws the same first name every time; when that name is
    // among the identical fonts the next one is drawn, and so on.
    writeCatalogue(charsetLine("0000 00FF", SerifFonts));
    const QRegularExpression renamed(QStringLiteral("^Serif-Regular[0-9]+$"));
    QStringList taken;
    for (int round = 0; round < 3; ++round) {
        const QStringList names = embeddedFonts(resourcesOfNewProcess(
            QStringLiteral("0"), QStringLiteral("Serif-Regular"), taken.join(QLatin1Char(','))));
        QCOMPARE(names.size(), 1);
        QVERIFY2(renamed.match(names.at(0)).hasMatch(), qPrintable(names.at(0)));
        QVERIFY2(!taken.contains(names.at(0)), qPrintable(names.at(0) + QStringLiteral(" was excluded")));
        taken << names.at(0);
    }
}

void TestFontResources::sameOutputOnEveryRun()
{
    // Styles and fonts are iterated in a fixed order, so that separate runs
    // (whose hash orders differ) write the same bytes.
    writeCatalogue(charsetLine("0000 00FF", SerifFonts) + charsetLine("0400 04FF", CyrillicFonts) +
                   charsetLine("0100 017F", {"Ext-A", "Ext-B", "Ext-C", "Ext-D"}));
    const QByteArray first = resourcesOfNewProcess(QStringLiteral("3,1,0,2"), QString(), QString());
    QVERIFY(!first.isEmpty());
    for (int run = 0; run < 4; ++run) {
        const QByteArray again = resourcesOfNewProcess(QStringLiteral("2,0,1,3"), QString(), QString());
        QVERIFY2(again == first, qPrintable(firstDifference(again, first)));
    }
    QCOMPARE(embeddedFonts(first).size(), 12);
    QVERIFY(first.indexOf("/Marker-Normal exch definefont pop") <
            first.indexOf("/Marker-Bold exch definefont pop"));
    QVERIFY(first.indexOf("/Marker-Bold exch definefont pop") <
            first.indexOf("/Marker-Italic exch definefont pop"));
    QVERIFY(first.indexOf("/Marker-Italic exch definefont pop") <
            first.indexOf("/Marker-BoldItalic exch definefont pop"));
}

// --- Font files that cannot be read -------------------------------------------

void TestFontResources::unreadableFontFile_data()
{
    QTest::addColumn<bool>("folder");
    QTest::addColumn<bool>("conflicting");
    QTest::newRow("a missing font file") << false << false;
    QTest::newRow("a folder in place of the font file") << true << false;
    QTest::newRow("a missing conflicting font keeps its own name") << false << true;
}

void TestFontResources::unreadableFontFile()
{
    QFETCH(bool, folder);
    QFETCH(bool, conflicting);
    writeCatalogue(charsetLine("0000 00FF", SerifFonts) + charsetLine("0400 04FF", CyrillicFonts));
    QVERIFY(loadCatalogue({0}));
    const QByteArray complete = writeResources().output;

    const QString file = FontSandbox::cataloguePath(QStringLiteral("fonts/Cyr-Regular"));
    QVERIFY(QFile::remove(file));
    if (folder)
        FontSandbox::makeCatalogueFolder(QStringLiteral("fonts/Cyr-Regular"));
    if (conflicting)
        Fonts::instance().setConflictingDocumentFonts({QStringLiteral("Cyr-Regular")});
    const Resources resources = writeResources();

    QCOMPARE(resources.messages, QStringList{QStringLiteral("warning: Can not read font file ") + file});
    // Everything else is written as before; the re-encoding still names the font.
    QByteArray expected = complete;
    const QByteArray resource = "%%BeginResource: font Cyr-Regular\n" +
                                standInFont(QStringLiteral("Cyr-Regular")) + "\n%%EndResource\n";
    QVERIFY(expected.contains(resource));
    expected.replace(resource, QByteArray());
    QVERIFY2(resources.output == expected, qPrintable(firstDifference(resources.output, expected)));
    QVERIFY(resources.output.contains("/Cyr-Regular findfont\n"));
}

// --- Encoding vectors ---------------------------------------------------------

void TestFontResources::encodingSlotNames()
{
    writeCatalogue(charsetLine("0000 00FF", {"Serif-Regular"}) + charsetLine("0100 01FF", {"Serif-Regular"}) +
                       charsetLine("2000 20FF", {"Serif-Regular"}) +
                       charsetLine("0100 0101", {"Serif-Regular"}),
                   "0041 A\n0101 Amacron\n");
    QVERIFY(loadCatalogue({0}));
    const QByteArray output = writeResources().output;

    const QList<QByteArray> latin = encodingLines(output, 0);
    QCOMPARE(latin.size(), 32);
    QCOMPARE(latin.at(8), QByteArray("/.notdef/A/.notdef/.notdef/.notdef/.notdef/.notdef/.notdef"));
    QCOMPARE(latin.at(31), QByteArray("/.notdef/.notdef/.notdef/.notdef/.notdef/.notdef/.notdef/.notdef"));
    const QList<QByteArray> extended = encodingLines(output, 1);
    QCOMPARE(extended.size(), 32);
    QCOMPARE(extended.at(0), QByteArray("/uni0100/Amacron/uni0102/uni0103/uni0104/uni0105/uni0106/uni0107"));
    QCOMPARE(extended.at(31), QByteArray("/uni01f8/uni01f9/uni01fa/uni01fb/uni01fc/uni01fd/uni01fe/uni01ff"));
    const QList<QByteArray> punctuation = encodingLines(output, 2);
    QCOMPARE(punctuation.size(), 32);
    QCOMPARE(punctuation.at(21),
             QByteArray("/uni20a8/uni20a9/uni20aa/uni20ab/uni20ac/uni20ad/uni20ae/uni20af"));
    // Positions past a short span hold code point 0, which has no name here.
    const QList<QByteArray> shortSpan = encodingLines(output, 3);
    QCOMPARE(shortSpan.size(), 32);
    QCOMPARE(shortSpan.at(0), QByteArray("/uni0100/Amacron/.notdef/.notdef/.notdef/.notdef/.notdef/.notdef"));
    QCOMPARE(shortSpan.at(1), QByteArray("/.notdef/.notdef/.notdef/.notdef/.notdef/.notdef/.notdef/.notdef"));
}

void TestFontResources::encodingLineHoldsEightNamesWithoutBlanks()
{
    writeCatalogue(charsetLine("0000 00FF", SerifFonts));
    QVERIFY(loadCatalogue({0}));
    const QByteArray output = writeResources().output;
    const QList<QByteArray> lines = encodingLines(output, 0);
    QCOMPARE(lines.size(), 32);
    QCOMPARE(lines.at(4),
             QByteArray("/space/exclam/quotedbl/numbersign/dollar/percent/ampersand/quotesingle"));
    const QRegularExpression eightNames(QStringLiteral("^(/[^/\\s]+){8}$"));
    for (const QByteArray& line : lines)
        QVERIFY2(eightNames.match(QString::fromLatin1(line)).hasMatch(), line.constData());
}

QUILLET_FONTS_TEST_MAIN_WITH_HELPER(TestFontResources, writeResourcesHelper)

#include "tst_fontresources.moc"
