// The font catalogue: reading the glyph list and the charset file, every
// warning with its exact text, the return values, the file fallback, and the
// tables that the resource writer and the string encoder use.
//
// Each case writes its own catalogue into the CUPS data directory of the
// test's sandbox (see fontsandbox.h) and calls the real Fonts::initialize.
#include "fontsandbox.h"

#include "common/paths.h"
#include "fonts/fonts.h"
#include "settings/variables.h"
#include "support/messagerecorder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTest>

namespace {

const QByteArray Header = "charset utf8\n";
const QByteArray SimpleGlyphs = "0041 A\n0042 B\n";

struct InitializeResult
{
    bool result = false;
    QStringList messages;
};

// Calls Fonts::initialize and records what it sent to the logging facility.
InitializeResult initializeCatalogue(const QString& charset)
{
    MessageRecorder recorder;
    InitializeResult run;
    run.result = Fonts::instance().initialize(charset);
    run.messages = recorder.messages();
    return run;
}

// The warning line that opens every initialize call.
QString initializeLine(const QString& charset)
{
    return QStringLiteral("warning: bool Fonts::initialize(const QString&) \"%1\"").arg(charset);
}

QStringList warnings(const QStringList& texts)
{
    QStringList lines;
    for (const QString& text : texts)
        lines << QStringLiteral("warning: ") + text;
    return lines;
}

void writeCatalogue(const QByteArray& glyphs, const QByteArray& charsetFile,
                    const QString& charset = QStringLiteral("utf-8"))
{
    FontSandbox::writeCatalogueFile(QStringLiteral("data/psglyphs"), glyphs);
    FontSandbox::writeCatalogueFile(QStringLiteral("charsets/") + charset, charsetFile);
}

// A message list as one text, so that a failed comparison shows both lists.
QString messageText(const QStringList& messages)
{
    return QLatin1Char('[') + messages.join(QStringLiteral("] [")) + QLatin1Char(']');
}

QString hex4(int value)
{
    return QStringLiteral("%1").arg(value, 4, 16, QLatin1Char('0'));
}

// Every glyph name the catalogue holds, as "code name" lines in code order.
QStringList glyphNameTable()
{
    QStringList table;
    for (int code = 0; code < Fonts::CodeCount; ++code) {
        const QByteArray name = Fonts::instance().glyphName(code);
        if (!name.isNull())
            table << hex4(code) + QLatin1Char(' ') + QString::fromLatin1(name);
    }
    return table;
}

int nonZeroGlyphOfCode()
{
    int count = 0;
    for (int p = 0; p < Fonts::CodeCount; ++p)
        count += Fonts::instance().glyphOfCode(p) != 0;
    return count;
}

int nonZeroCodeOfGlyph()
{
    int count = 0;
    for (int code = 0; code < Fonts::CodeCount; ++code)
        count += Fonts::instance().codeOfGlyph(code) != 0;
    return count;
}

// The four style fonts of every accepted charset, "normal bold italic bold-italic".
QStringList fontTable()
{
    QStringList table;
    for (int i = 0; i < Fonts::instance().charsetCount(); ++i) {
        QStringList names;
        for (int style = 0; style < Fonts::StyleCount; ++style)
            names << Fonts::instance().fontName(i, style);
        table << names.join(QLatin1Char(' '));
    }
    return table;
}

} // namespace

class TestFontCatalogue : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void glyphList_data();
    void glyphList();

    void charsetHeader_data();
    void charsetHeader();

    void descriptionLines_data();
    void descriptionLines();
    void directionAndWidthWords();
    void rejectedLineDirectionLandsInNextSlot();

    void catalogueFiles_data();
    void catalogueFiles();

    void codesOfTwoCharsets();
    void laterCharsetWinsSharedCodePoint();
    void spanLongerThan256();
    void startAfterEndMapsNothing();
    void codesBeyondTableAreNotWrapped();
    void readingStopsAt256Charsets_data();
    void readingStopsAt256Charsets();

    void fontsForStyleAndUniqueFonts();
    void fontsForStyleWithoutCharsets();
    void fontNamesCompareExactly();
    void manyFontNamesOnOneLine_data();
    void manyFontNamesOnOneLine();

    void catalogueRefusal_data();
    void catalogueRefusal();

    void secondInitializeAddsToTables();
    void resetEmptiesCatalogue();
};

void TestFontCatalogue::init()
{
    FontSandbox::clearCatalogue();
}

// --- Glyph list -----------------------------------------------------------------

void TestFontCatalogue::glyphList_data()
{
    QTest::addColumn<QByteArray>("glyphs");
    QTest::addColumn<QStringList>("table");

    QTest::newRow("a line names the glyph of its hexadecimal code")
        << QByteArray("0041 A\n0042 B\n") << QStringList{"0041 A", "0042 B"};
    QTest::newRow("lower-case hexadecimal digits are read")
        << QByteArray("00e9 eacute\n") << QStringList{"00e9 eacute"};
    QTest::newRow("a later line replaces the earlier name of its code")
        << QByteArray("0041 A\n0042 B\n0041 Aalt\n") << QStringList{"0041 Aalt", "0042 B"};
    QTest::newRow("a code that is not hexadecimal lands on code point 0")
        << QByteArray("zz41 A\n0042 B\n") << QStringList{"0000 A", "0042 B"};
    QTest::newRow("there is no comment syntax: a # line lands on code point 0")
        << QByteArray("# glyphs\n0042 B\n") << QStringList{"0000 glyphs", "0042 B"};
    QTest::newRow("a leading blank makes an empty code field: the line lands on code point 0")
        << QByteArray(" 0041 A\n") << QStringList{"0000 0041"};
    QTest::newRow("fields after the name are ignored") << QByteArray("0041 A B C\n") << QStringList{"0041 A"};
    QTest::newRow("white space around the name is removed")
        << QByteArray("0041 A\t\r\n") << QStringList{"0041 A"};
    QTest::newRow("white space runs inside the name field are collapsed")
        << QByteArray("0041 A\t\tB\n") << QStringList{"0041 A B"};
    QTest::newRow("a last line without line feed is read")
        << QByteArray("0041 A\n0042 B") << QStringList{"0041 A", "0042 B"};
    QTest::newRow("the highest code FFFF is kept")
        << QByteArray("ffff lastglyph\n") << QStringList{"ffff lastglyph"};
    QTest::newRow("a line without a name changes nothing")
        << QByteArray("0041 A\n0042\n0043 C\n") << QStringList{"0041 A", "0043 C"};
    QTest::newRow("a line with a tab instead of a blank has one field and changes nothing")
        << QByteArray("0041\tA\n0043 C\n") << QStringList{"0043 C"};
    QTest::newRow("an empty line changes nothing")
        << QByteArray("0041 A\n\n\n0043 C\n") << QStringList{"0041 A", "0043 C"};
    QTest::newRow("a code above FFFF changes nothing, not even the code it would wrap to")
        << QByteArray("0041 A\n10041 X\n1ffff Y\n10000000041 Z\n") << QStringList{"0041 A"};
    QTest::newRow("a code of fewer than four digits is read")
        << QByteArray("41 A\n7 seven\n") << QStringList{"0007 seven", "0041 A"};
    QTest::newRow("a code with a 0x prefix is read as hexadecimal")
        << QByteArray("0x41 A\n0X0042 B\n") << QStringList{"0041 A", "0042 B"};
    QTest::newRow("a code with a sign is read with it: a negative one changes nothing")
        << QByteArray("+41 A\n-42 B\n") << QStringList{"0041 A"};
    QTest::newRow("a code of more than four digits is read whole")
        << QByteArray("00041 A\n0000ffff B\n") << QStringList{"0041 A", "ffff B"};
    QTest::newRow("a name of white space only is an empty name")
        << QByteArray("0041 \t\n0042 B\n") << QStringList{"0041 ", "0042 B"};
    QTest::newRow("bytes beyond ASCII in a name are kept")
        << QByteArray("0041 A\xe9\xff\n") << QStringList{"0041 A\u00e9\u00ff"};
    QTest::newRow("a name that ends the file without line feed after white space")
        << QByteArray("0041 A\r") << QStringList{"0041 A"};
    QTest::newRow("an empty file gives no names") << QByteArray() << QStringList{};
}

void TestFontCatalogue::glyphList()
{
    QFETCH(QByteArray, glyphs);
    QFETCH(QStringList, table);
    writeCatalogue(glyphs, Header + "0000 00FF ltor single Sans\n");

    const InitializeResult run = initializeCatalogue(QStringLiteral("utf-8"));
    QVERIFY(run.result);
    QCOMPARE(messageText(run.messages), messageText(QStringList{initializeLine(QStringLiteral("utf-8"))}));
    QCOMPARE(glyphNameTable(), table);
}

// --- Charset file header ------------------------------------------------------

void TestFontCatalogue::charsetHeader_data()
{
    QTest::addColumn<QByteArray>("charsetFile");
    QTest::addColumn<bool>("accepted");

    const QByteArray line = "0000 00FF ltor single Sans\n";
    QTest::newRow("the exact header line is accepted") << Header + line << true;
    QTest::newRow("a header without line feed in a one-line file is bad")
        << QByteArray("charset utf8") << false;
    QTest::newRow("a header ending in CR LF is bad") << "charset utf8\r\n" + line << false;
    QTest::newRow("the header is case-sensitive") << "Charset utf8\n" + line << false;
    QTest::newRow("a blank after the header is bad") << "charset utf8 \n" + line << false;
    QTest::newRow("a leading blank before the header is bad") << " charset utf8\n" + line << false;
    QTest::newRow("another charset word is bad") << "charset utf-8\n" + line << false;
    QTest::newRow("a comment before the header is bad") << "# fonts\n" + Header + line << false;
    QTest::newRow("an empty first line is bad") << "\n" + Header + line << false;
    QTest::newRow("an empty file is bad") << QByteArray() << false;
}

void TestFontCatalogue::charsetHeader()
{
    QFETCH(QByteArray, charsetFile);
    QFETCH(bool, accepted);
    writeCatalogue(SimpleGlyphs, charsetFile);

    const InitializeResult run = initializeCatalogue(QStringLiteral("utf-8"));
    // A bad header is not a failure of initialize: it returns true with no charsets.
    QVERIFY(run.result);
    QStringList expected{initializeLine(QStringLiteral("utf-8"))};
    if (!accepted)
        expected << QStringLiteral("warning: Bad/Empty charset file %1 !")
                        .arg(FontSandbox::cataloguePath(QStringLiteral("charsets/utf-8")));
    QCOMPARE(messageText(run.messages), messageText(expected));
    QCOMPARE(Fonts::instance().charsetCount(), accepted ? 1 : 0);
    QCOMPARE(Fonts::instance().uniqueFonts(), accepted ? QStringList{"Sans"} : QStringList{});
    QCOMPARE(Fonts::instance().glyphOfCode(0x41), quint16(accepted ? 0x41 : 0));
}

// --- Font description lines ---------------------------------------------------

void TestFontCatalogue::descriptionLines_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QStringList>("uniqueFonts");
    QTest::addColumn<QStringList>("fonts");

    const QByteArray next = "0400 04FF ltor single Next\n";

    QTest::newRow("comment lines are skipped")
        << QByteArray("# first last direction width fonts\n0000 00FF ltor single A\n#\n") << true
        << QStringList{} << QStringList{"A"} << QStringList{"A A A A"};
    QTest::newRow("empty lines are skipped")
        << QByteArray("\n\n0000 00FF ltor single A\n\n0400 04FF ltor single B\n\n") << true << QStringList{}
        << QStringList{"A", "B"} << QStringList{"A A A A", "B B B B"};
    QTest::newRow("a last line without line feed is read")
        << QByteArray("0000 00FF ltor single A") << true << QStringList{} << QStringList{"A"}
        << QStringList{"A A A A"};
    QTest::newRow("white space around and between fields is collapsed")
        << QByteArray("  0000\t00FF   ltor single  A\tB  \r\n") << true << QStringList{}
        << QStringList{"A", "B"} << QStringList{"A B A A"};

    QTest::newRow("a line of blanks ends reading with Bad font description line")
        << "0000 00FF ltor single A\n   \n" + next << false << warnings({"Bad font description line:    \n"})
        << QStringList{"A"} << QStringList{"A A A A"};
    QTest::newRow("a # after a blank is no comment: the line is a bad description line")
        << " # comment\n" + next << false << warnings({"Bad font description line:  # comment\n"})
        << QStringList{} << QStringList{};
    QTest::newRow("fewer than five fields is a bad description line quoted as read")
        << "0000 00FF ltor single\n" + next << false
        << warnings({"Bad font description line: 0000 00FF ltor single\n"}) << QStringList{} << QStringList{};
    QTest::newRow("a short last line without line feed is quoted without one")
        << QByteArray("0000 00FF ltor single A\n0400 04FF") << false
        << warnings({"Bad font description line: 0400 04FF"}) << QStringList{"A"} << QStringList{"A A A A"};
    QTest::newRow("a start that is not hexadecimal is a bad start value")
        << "0000 00FF ltor single A\n04G0 04FF ltor single B\n" + next << false
        << warnings({"Bad start value!"}) << QStringList{"A"} << QStringList{"A A A A"};
    QTest::newRow("an end that is not hexadecimal is a bad end value")
        << "0000 00FF ltor single A\n0400 end ltor single B\n" + next << false << warnings({"Bad end value!"})
        << QStringList{"A"} << QStringList{"A A A A"};
    QTest::newRow("an unknown direction word is a wrong text direction")
        << "0000 00FF up single A\n" + next << false << warnings({"Wrong text direction: up"})
        << QStringList{} << QStringList{};
    QTest::newRow("LTOR is rejected: direction words are case-sensitive")
        << "0000 00FF LTOR single A\n" + next << false << warnings({"Wrong text direction: LTOR"})
        << QStringList{} << QStringList{};
    QTest::newRow("Single is rejected: width words are case-sensitive")
        << "0000 00FF ltor Single A\n" + next << false << warnings({"Wrong text width Single"})
        << QStringList{} << QStringList{};
    QTest::newRow("an unknown width word is a wrong text width")
        << "0000 00FF ltor single A\n0400 04FF rtol triple B\n" + next << false
        << warnings({"Wrong text width triple"}) << QStringList{"A"} << QStringList{"A A A A"};

    QTest::newRow("one font name serves all four styles")
        << QByteArray("0000 00FF ltor single Courier\n") << true << QStringList{} << QStringList{"Courier"}
        << QStringList{"Courier Courier Courier Courier"};
    QTest::newRow("two names: italic and bold-italic take the first")
        << QByteArray("0000 00FF ltor single A B\n") << true << QStringList{} << QStringList{"A", "B"}
        << QStringList{"A B A A"};
    QTest::newRow("three names: bold-italic takes the first")
        << QByteArray("0000 00FF ltor single A B C\n") << true << QStringList{} << QStringList{"A", "B", "C"}
        << QStringList{"A B C A"};
    QTest::newRow("four names give one font per style")
        << QByteArray("0000 00FF ltor single A B C D\n") << true << QStringList{}
        << QStringList{"A", "B", "C", "D"} << QStringList{"A B C D"};
    QTest::newRow("a fifth name is a unique font of no style")
        << QByteArray("0000 00FF ltor single A B C D E\n") << true << QStringList{}
        << QStringList{"A", "B", "C", "D", "E"} << QStringList{"A B C D"};
    QTest::newRow("unique fonts hold each name once in order of first appearance")
        << QByteArray("0000 00FF ltor single B A\n0100 01FF ltor single A C\n0200 02FF ltor single C B D\n")
        << true << QStringList{} << QStringList{"B", "A", "C", "D"}
        << QStringList{"B A B B", "A C A A", "C B D C"};
}

void TestFontCatalogue::descriptionLines()
{
    QFETCH(QByteArray, lines);
    QFETCH(bool, result);
    QFETCH(QStringList, messages);
    QFETCH(QStringList, uniqueFonts);
    QFETCH(QStringList, fonts);
    writeCatalogue(SimpleGlyphs, Header + lines);

    const InitializeResult run = initializeCatalogue(QStringLiteral("utf-8"));
    QCOMPARE(run.result, result);
    QCOMPARE(messageText(run.messages),
             messageText(QStringList{initializeLine(QStringLiteral("utf-8"))} + messages));
    QCOMPARE(Fonts::instance().charsetCount(), fonts.size());
    QCOMPARE(Fonts::instance().uniqueFonts(), uniqueFonts);
    QCOMPARE(fontTable(), fonts);
    // Lines after a rejected one are never read: "Next" would be the last font.
    QVERIFY(!Fonts::instance().uniqueFonts().contains(QStringLiteral("Next")));
}

void TestFontCatalogue::directionAndWidthWords()
{
    writeCatalogue(SimpleGlyphs, Header + "0000 00FF ltor single A\n0100 01FF rtol double B\n"
                                          "0200 02FF rtol single C\n0300 03FF ltor double D\n");
    const InitializeResult run = initializeCatalogue(QStringLiteral("utf-8"));
    QVERIFY(run.result);
    QCOMPARE(Fonts::instance().charsetCount(), 4);
    const QList<int> directions{Fonts::instance().charsetDirection(0), Fonts::instance().charsetDirection(1),
                                Fonts::instance().charsetDirection(2), Fonts::instance().charsetDirection(3)};
    const QList<int> widths{Fonts::instance().charsetWidth(0), Fonts::instance().charsetWidth(1),
                            Fonts::instance().charsetWidth(2), Fonts::instance().charsetWidth(3)};
    QCOMPARE(directions, (QList<int>{0, 1, 1, 0}));
    QCOMPARE(widths, (QList<int>{0, 1, 0, 1}));
}

void TestFontCatalogue::rejectedLineDirectionLandsInNextSlot()
{
    // The direction is stored before the width is checked; the rejected line
    // is not counted, so its direction sits in the slot the next accepted
    // line would use, and the accepted slot keeps its own.
    writeCatalogue(SimpleGlyphs, Header + "0000 00FF ltor single A\n0100 01FF rtol Single B\n");
    const InitializeResult run = initializeCatalogue(QStringLiteral("utf-8"));
    QVERIFY(!run.result);
    QCOMPARE(messageText(run.messages), messageText(QStringList{initializeLine(QStringLiteral("utf-8"))} +
                                                    warnings({"Wrong text width Single"})));
    QCOMPARE(Fonts::instance().charsetCount(), 1);
    QCOMPARE(Fonts::instance().charsetDirection(0), 0);
    QCOMPARE(Fonts::instance().charsetDirection(1), 1);
    QCOMPARE(Fonts::instance().charsetWidth(1), 0);
    QCOMPARE(Fonts::instance().fontName(1, 0), QString());
    QCOMPARE(Fonts::instance().glyphOfCode(0x100), quint16(0));
}

// --- Which files are read -----------------------------------------------------

void TestFontCatalogue::catalogueFiles_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("charset");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QStringList>("uniqueFonts");

    const QStringList all{"psglyphs", "utf-8", "koi8-r"};
    QTest::newRow("the named charset file is read")
        << all << "koi8-r" << true << QStringList{} << QStringList{"FromKoi8r"};
    QTest::newRow("utf-8 is read when named")
        << all << "utf-8" << true << QStringList{} << QStringList{"FromUtf8"};
    QTest::newRow("a missing charset falls back to utf-8 after a warning naming it")
        << QStringList{"psglyphs", "utf-8"} << "koi8-r" << true
        << warnings({"Can not open koi8-r charset file!"}) << QStringList{"FromUtf8"};
    QTest::newRow("an empty charset name falls back to utf-8")
        << all << "" << true << warnings({"Can not open  charset file!"}) << QStringList{"FromUtf8"};
    QTest::newRow("neither the named nor the utf-8 charset file: false")
        << QStringList{"psglyphs"} << "koi8-r" << false
        << warnings({"Can not open koi8-r charset file!", "Can not open utf-8 charset file!"})
        << QStringList{};
    QTest::newRow("a missing utf-8 named itself warns twice: false")
        << QStringList{"psglyphs", "koi8-r"} << "utf-8" << false
        << warnings({"Can not open utf-8 charset file!", "Can not open utf-8 charset file!"})
        << QStringList{};
    QTest::newRow("a name leading out of the charsets folder is not opened: utf-8")
        << all << "../koi8-r" << true << warnings({"Can not open ../koi8-r charset file!"})
        << QStringList{"FromUtf8"};
    QTest::newRow("a name through a subfolder and back out is not opened: utf-8")
        << all << "x/../../koi8-r" << true << warnings({"Can not open x/../../koi8-r charset file!"})
        << QStringList{"FromUtf8"};
    QTest::newRow("a missing glyph list returns false before the charset file is opened")
        << QStringList{"utf-8", "koi8-r"} << "utf-8" << false << warnings({"Can not open glyphs file!"})
        << QStringList{};
    QTest::newRow("a missing glyph list returns false before the fallback is tried")
        << QStringList{"utf-8"} << "koi8-r" << false << warnings({"Can not open glyphs file!"})
        << QStringList{};
}

void TestFontCatalogue::catalogueFiles()
{
    QFETCH(QStringList, files);
    QFETCH(QString, charset);
    QFETCH(bool, result);
    QFETCH(QStringList, messages);
    QFETCH(QStringList, uniqueFonts);

    if (files.contains(QStringLiteral("psglyphs")))
        FontSandbox::writeCatalogueFile(QStringLiteral("data/psglyphs"), SimpleGlyphs);
    FontSandbox::makeCatalogueFolder(QStringLiteral("charsets"));
    if (files.contains(QStringLiteral("utf-8")))
        FontSandbox::writeCatalogueFile(QStringLiteral("charsets/utf-8"),
                                        Header + "0000 00FF ltor single FromUtf8\n");
    if (files.contains(QStringLiteral("koi8-r")))
        FontSandbox::writeCatalogueFile(QStringLiteral("charsets/koi8-r"),
                                        Header + "0000 00FF ltor single FromKoi8r\n");
    // The same charset outside the charsets folder, where a name with a path
    // in it would find it.
    if (files.contains(QStringLiteral("koi8-r")))
        FontSandbox::writeCatalogueFile(QStringLiteral("koi8-r"), Header + "0000 00FF ltor single Outside\n");

    const InitializeResult run = initializeCatalogue(charset);
    QCOMPARE(run.result, result);
    QCOMPARE(messageText(run.messages), messageText(QStringList{initializeLine(charset)} + messages));
    QCOMPARE(Fonts::instance().uniqueFonts(), uniqueFonts);
    QCOMPARE(Fonts::instance().charsetCount(), uniqueFonts.size());
}

// --- Two-byte codes -----------------------------------------------------------

void TestFontCatalogue::codesOfTwoCharsets()
{
    writeCatalogue(SimpleGlyphs, Header + "0000 00FF ltor single A\n0400 04FF ltor single B\n");
    QVERIFY(initializeCatalogue(QStringLiteral("utf-8")).result);
    const Fonts& fonts = Fonts::instance();
    QCOMPARE(fonts.glyphOfCode(0x41), quint16(0x0041));
    QCOMPARE(fonts.glyphOfCode(0xFF), quint16(0x00FF));
    QCOMPARE(fonts.glyphOfCode(0x400), quint16(0x0100));
    QCOMPARE(fonts.glyphOfCode(0x416), quint16(0x0116));
    QCOMPARE(fonts.glyphOfCode(0x4FF), quint16(0x01FF));
    QCOMPARE(fonts.glyphOfCode(0x3FF), quint16(0));
    QCOMPARE(fonts.glyphOfCode(0x500), quint16(0));
    QCOMPARE(fonts.codeOfGlyph(0x0041), quint16(0x41));
    QCOMPARE(fonts.codeOfGlyph(0x0116), quint16(0x416));
    QCOMPARE(fonts.codeOfGlyph(0x0200), quint16(0));
    // Every code point of both spans is mapped, and nothing else (U+0000 maps
    // to code 0, which reads like "unmapped").
    QCOMPARE(nonZeroGlyphOfCode(), 255 + 256);
    QCOMPARE(nonZeroCodeOfGlyph(), 255 + 256);
}

void TestFontCatalogue::laterCharsetWinsSharedCodePoint()
{
    writeCatalogue(SimpleGlyphs, Header + "0000 00FF ltor single A\n0041 0042 ltor single B\n");
    QVERIFY(initializeCatalogue(QStringLiteral("utf-8")).result);
    const Fonts& fonts = Fonts::instance();
    QCOMPARE(fonts.glyphOfCode(0x41), quint16(0x0100));
    QCOMPARE(fonts.glyphOfCode(0x42), quint16(0x0101));
    QCOMPARE(fonts.glyphOfCode(0x43), quint16(0x0043));
    // The inverse table keeps both codes: position 0x41 of charset 0 still
    // names U+0041.
    QCOMPARE(fonts.codeOfGlyph(0x0041), quint16(0x41));
    QCOMPARE(fonts.codeOfGlyph(0x0100), quint16(0x41));
    QCOMPARE(fonts.codeOfGlyph(0x0101), quint16(0x42));
}

void TestFontCatalogue::spanLongerThan256()
{
    // A span runs on into the next charset's codes; a later charset then
    // takes those codes over in the inverse table.
    writeCatalogue(SimpleGlyphs, Header + "0000 01FF ltor single A\n0400 0401 ltor single B\n");
    QVERIFY(initializeCatalogue(QStringLiteral("utf-8")).result);
    const Fonts& fonts = Fonts::instance();
    QCOMPARE(fonts.charsetCount(), 2);
    QCOMPARE(fonts.glyphOfCode(0x1FF), quint16(0x01FF));
    QCOMPARE(fonts.glyphOfCode(0x100), quint16(0x0100));
    QCOMPARE(fonts.glyphOfCode(0x400), quint16(0x0100));
    QCOMPARE(fonts.glyphOfCode(0x401), quint16(0x0101));
    QCOMPARE(fonts.codeOfGlyph(0x0100), quint16(0x400));
    QCOMPARE(fonts.codeOfGlyph(0x0101), quint16(0x401));
    QCOMPARE(fonts.codeOfGlyph(0x0102), quint16(0x102));
    QCOMPARE(fonts.codeOfGlyph(0x01FF), quint16(0x1FF));
}

void TestFontCatalogue::startAfterEndMapsNothing()
{
    writeCatalogue(SimpleGlyphs, Header + "0100 00FF ltor single A\n0041 0041 ltor single B\n");
    const InitializeResult run = initializeCatalogue(QStringLiteral("utf-8"));
    QVERIFY(run.result);
    QCOMPARE(messageText(run.messages), messageText(QStringList{initializeLine(QStringLiteral("utf-8"))}));
    QCOMPARE(Fonts::instance().charsetCount(), 2);
    QCOMPARE(fontTable(), (QStringList{"A A A A", "B B B B"}));
    QCOMPARE(Fonts::instance().glyphOfCode(0x41), quint16(0x0100));
    QCOMPARE(nonZeroGlyphOfCode(), 1);
    QCOMPARE(nonZeroCodeOfGlyph(), 1);
}

void TestFontCatalogue::codesBeyondTableAreNotWrapped()
{
    // Charset 255 spans 0x300 code points; its codes end at FFFF. The code
    // points past that must not wrap around onto the codes of charset 0.
    QByteArray lines = "0000 00FF ltor single First\n";
    for (int i = 1; i < 255; ++i)
        lines += "E000 E000 ltor single Filler\n";
    lines += "1000 12FF ltor single Last\n";
    writeCatalogue(SimpleGlyphs, Header + lines);
    QVERIFY(initializeCatalogue(QStringLiteral("utf-8")).result);
    const Fonts& fonts = Fonts::instance();
    QCOMPARE(fonts.charsetCount(), 256);
    QCOMPARE(fonts.glyphOfCode(0x1000), quint16(0xFF00));
    QCOMPARE(fonts.glyphOfCode(0x10FF), quint16(0xFFFF));
    QCOMPARE(fonts.codeOfGlyph(0xFFFF), quint16(0x10FF));
    for (int code = 0; code < 0x100; ++code)
        QCOMPARE(fonts.codeOfGlyph(code), quint16(code));
    for (int p = 0; p < 0x100; ++p)
        QCOMPARE(fonts.glyphOfCode(p), quint16(p));
    // Nor may they be written past the end of the code table.
    for (int i = 0; i < Fonts::MaxCharsets; ++i) {
        QCOMPARE(fonts.charsetWidth(i), 0);
        QCOMPARE(fonts.charsetDirection(i), 0);
    }
    QCOMPARE(fonts.fontName(0, 0), QStringLiteral("First"));
}

void TestFontCatalogue::readingStopsAt256Charsets_data()
{
    QTest::addColumn<QByteArray>("line257");
    QTest::newRow("a 257th line that would be rejected is never read")
        << QByteArray("2000 2000 LTOR single Never\n");
    QTest::newRow("a 257th good line is never read") << QByteArray("2000 2000 ltor single Never\n");
    QTest::newRow("a 257th line of blanks is never read") << QByteArray("    \n");
}

void TestFontCatalogue::readingStopsAt256Charsets()
{
    QFETCH(QByteArray, line257);
    QByteArray lines;
    for (int i = 0; i < 256; ++i) {
        const QByteArray point = QByteArray::number(0x1000 + i, 16);
        lines += point + ' ' + point + " ltor single F" + QByteArray::number(i) + '\n';
    }
    writeCatalogue(SimpleGlyphs, Header + lines + line257);

    const InitializeResult run = initializeCatalogue(QStringLiteral("utf-8"));
    QVERIFY(run.result);
    QCOMPARE(messageText(run.messages), messageText(QStringList{initializeLine(QStringLiteral("utf-8"))}));
    const Fonts& fonts = Fonts::instance();
    QCOMPARE(fonts.charsetCount(), 256);
    QCOMPARE(fonts.uniqueFonts().size(), 256);
    QCOMPARE(fonts.uniqueFonts().last(), QStringLiteral("F255"));
    QCOMPARE(fonts.fontName(255, 3), QStringLiteral("F255"));
    QCOMPARE(fonts.glyphOfCode(0x10FF), quint16(0xFF00));
    QCOMPARE(fonts.codeOfGlyph(0xFF00), quint16(0x10FF));
    QCOMPARE(fonts.glyphOfCode(0x2000), quint16(0));
}

// --- Fonts per style ----------------------------------------------------------

void TestFontCatalogue::fontsForStyleAndUniqueFonts()
{
    writeCatalogue(SimpleGlyphs, Header + "0000 00FF ltor single A B\n"
                                          "0100 01FF ltor single C\n"
                                          "0200 02FF ltor single A D E F G\n"
                                          "0300 03FF ltor single C\n");
    QVERIFY(initializeCatalogue(QStringLiteral("utf-8")).result);
    const Fonts& fonts = Fonts::instance();
    QCOMPARE(fonts.fontsForStyle(0), (QStringList{"A", "C"}));
    QCOMPARE(fonts.fontsForStyle(1), (QStringList{"B", "C", "D"}));
    QCOMPARE(fonts.fontsForStyle(2), (QStringList{"A", "C", "E"}));
    QCOMPARE(fonts.fontsForStyle(3), (QStringList{"A", "C", "F"}));
    QCOMPARE(fonts.uniqueFonts(), (QStringList{"A", "B", "C", "D", "E", "F", "G"}));
    QCOMPARE(fonts.fontsForStyle(4), QStringList{});
    QCOMPARE(fonts.fontsForStyle(-1), QStringList{});
}

void TestFontCatalogue::fontsForStyleWithoutCharsets()
{
    writeCatalogue(SimpleGlyphs, Header + "# no charsets\n");
    const InitializeResult run = initializeCatalogue(QStringLiteral("utf-8"));
    QVERIFY(run.result);
    QCOMPARE(messageText(run.messages), messageText(QStringList{initializeLine(QStringLiteral("utf-8"))}));
    QCOMPARE(Fonts::instance().charsetCount(), 0);
    for (int style = 0; style < Fonts::StyleCount; ++style)
        QCOMPARE(Fonts::instance().fontsForStyle(style), QStringList{});
    QCOMPARE(Fonts::instance().uniqueFonts(), QStringList{});
}

void TestFontCatalogue::fontNamesCompareExactly()
{
    writeCatalogue(SimpleGlyphs, Header + "0000 00FF ltor single Sans\n0100 01FF ltor single sans\n"
                                          "0200 02FF ltor single Sans\n");
    QVERIFY(initializeCatalogue(QStringLiteral("utf-8")).result);
    QCOMPARE(Fonts::instance().fontsForStyle(0), (QStringList{"Sans", "sans"}));
    QCOMPARE(Fonts::instance().uniqueFonts(), (QStringList{"Sans", "sans"}));
}

// A charset line may name any number of fonts; each name is looked up among
// the names met so far, and that look-up must not grow with their number.
void TestFontCatalogue::manyFontNamesOnOneLine_data()
{
    QTest::addColumn<int>("names");
    QTest::addColumn<int>("distinct");

    QTest::newRow("100,000 distinct names") << 100000 << 100000;
    QTest::newRow("100,000 names, 7 distinct") << 100000 << 7;
}

void TestFontCatalogue::manyFontNamesOnOneLine()
{
    QFETCH(int, names);
    QFETCH(int, distinct);

    QByteArray line = "0000 00FF ltor single";
    QStringList expected;
    for (int i = 0; i < names; ++i) {
        const QByteArray name = "Font" + QByteArray::number(i % distinct);
        line += ' ' + name;
        if (i < distinct)
            expected << QString::fromLatin1(name);
    }
    writeCatalogue(SimpleGlyphs, Header + line + '\n');

    QElapsedTimer timer;
    timer.start();
    const InitializeResult run = initializeCatalogue(QStringLiteral("utf-8"));
    const qint64 elapsed = timer.elapsed();

    QVERIFY(run.result);
    QCOMPARE(Fonts::instance().uniqueFonts(), expected);
    QCOMPARE(Fonts::instance().fontName(0, 3), QStringLiteral("Font%1").arg(3 % distinct));
    // Linear work takes a few tens of milliseconds; a search through every
    // earlier name per name took many seconds.
    QVERIFY2(elapsed < 2000, qPrintable(QStringLiteral("%1 ms").arg(elapsed)));
}

// With print-safe output a catalogue that cannot draw the marker is refused
// with a message; without it the same catalogue gives warnings only.
void TestFontCatalogue::catalogueRefusal_data()
{
    QTest::addColumn<bool>("safeOutput");
    QTest::addColumn<QString>("glyphList");   // file, missing, folder, empty
    QTest::addColumn<QString>("charsetFile"); // file, missing, folder, bad header, no charsets, bad line
    QTest::addColumn<QString>("boldFont");    // file, missing, folder
    QTest::addColumn<QString>("refusal");

    const QString data = QLatin1String(CupsDataDir);
    const QString glyphs = data + QStringLiteral("/data/psglyphs");
    const QString charsets = data + QStringLiteral("/charsets/utf-8");
    const QString bold = Fonts::fontFilePath(QStringLiteral("SansBold"));
    const QString suffix = QStringLiteral(": the marker would not print");
    const struct {
        const char* name;
        const char* glyphList;
        const char* charsetFile;
        const char* boldFont;
        QString refusal;
    } cases[] = {
        {"a complete catalogue", "file", "file", "file", QString()},
        {"no glyph list", "missing", "file", "file", "Can not read glyph list " + glyphs + suffix},
        {"a folder for the glyph list", "folder", "file", "file",
         "Can not read glyph list " + glyphs + suffix},
        {"an empty glyph list", "empty", "file", "file",
         "Glyph list " + glyphs + " names no glyphs" + suffix},
        {"no charset file", "file", "missing", "file", "Can not read charset file " + charsets + suffix},
        {"a folder for the charset file", "file", "folder", "file",
         "Can not read charset file " + charsets + suffix},
        {"a charset file without its header", "file", "bad header", "file",
         "Charset file " + charsets + " describes no charsets" + suffix},
        {"a charset file without charsets", "file", "no charsets", "file",
         "Charset file " + charsets + " describes no charsets" + suffix},
        {"a charset file with a bad line", "file", "bad line", "file",
         "Charset file " + charsets + " has a bad line" + suffix},
        {"no file for a base font in use", "file", "file", "missing",
         "Can not read marker font file " + bold + suffix},
        {"a folder for a base font in use", "file", "file", "folder",
         "Can not read marker font file " + bold + suffix},
    };
    for (const auto& row : cases) {
        QTest::addRow("print-safe: %s", row.name)
            << true << row.glyphList << row.charsetFile << row.boldFont << row.refusal;
        QTest::addRow("classic: %s", row.name)
            << false << row.glyphList << row.charsetFile << row.boldFont << QString();
    }
}

void TestFontCatalogue::catalogueRefusal()
{
    QFETCH(bool, safeOutput);
    QFETCH(QString, glyphList);
    QFETCH(QString, charsetFile);
    QFETCH(QString, boldFont);
    QFETCH(QString, refusal);

    const auto place = [](const QString& kind, const QString& relative, const QByteArray& content) {
        if (kind == QLatin1String("folder"))
            FontSandbox::makeCatalogueFolder(relative);
        else if (kind != QLatin1String("missing"))
            FontSandbox::writeCatalogueFile(relative, content);
    };
    place(glyphList, QStringLiteral("data/psglyphs"),
          glyphList == QLatin1String("empty") ? QByteArray() : SimpleGlyphs);
    QByteArray charsets = Header + "0000 00FF ltor single Sans SansBold\n";
    if (charsetFile == QLatin1String("bad header"))
        charsets = "charset utf-8\n0000 00FF ltor single Sans SansBold\n";
    else if (charsetFile == QLatin1String("no charsets"))
        charsets = Header + "# nothing here\n";
    else if (charsetFile == QLatin1String("bad line"))
        charsets += "0100 01FF sideways single Sans\n";
    FontSandbox::makeCatalogueFolder(QStringLiteral("charsets"));
    place(charsetFile, QStringLiteral("charsets/utf-8"), charsets);
    FontSandbox::writeCatalogueFile(QStringLiteral("fonts/Sans"), "%!PS-AdobeFont-1.0: Sans\n");
    place(boldFont, QStringLiteral("fonts/SansBold"), "%!PS-AdobeFont-1.0: SansBold\n");

    Variables::instance().clear();
    if (safeOutput)
        Variables::instance().insert(QStringLiteral("MarkerSafeOutput"), QStringLiteral("1"));
    initializeCatalogue(QStringLiteral("utf-8"));
    Fonts::instance().setMarkerStyles({0, 1});

    QCOMPARE(Fonts::instance().catalogueRefusal(), refusal);
    Variables::instance().clear();
}

// --- Repeated calls -----------------------------------------------------------

void TestFontCatalogue::secondInitializeAddsToTables()
{
    writeCatalogue("0041 A\n", Header + "0000 00FF ltor single First\n");
    QVERIFY(initializeCatalogue(QStringLiteral("utf-8")).result);
    writeCatalogue("0042 B\n", Header + "0100 01FF ltor single Second\n");
    QVERIFY(initializeCatalogue(QStringLiteral("utf-8")).result);

    const Fonts& fonts = Fonts::instance();
    QCOMPARE(glyphNameTable(), (QStringList{"0041 A", "0042 B"}));
    QCOMPARE(fonts.charsetCount(), 1);
    QCOMPARE(fonts.fontName(0, 0), QStringLiteral("Second"));
    QCOMPARE(fonts.uniqueFonts(), (QStringList{"First", "Second"}));
    QCOMPARE(fonts.glyphOfCode(0x41), quint16(0x41));
    QCOMPARE(fonts.glyphOfCode(0x141), quint16(0x41));
}

void TestFontCatalogue::resetEmptiesCatalogue()
{
    writeCatalogue(SimpleGlyphs, Header + "0000 00FF rtol double A B\n");
    QVERIFY(initializeCatalogue(QStringLiteral("utf-8")).result);
    QVERIFY(!glyphNameTable().isEmpty());
    Fonts::instance().reset();

    const Fonts& fonts = Fonts::instance();
    QCOMPARE(glyphNameTable(), QStringList{});
    QCOMPARE(fonts.charsetCount(), 0);
    QCOMPARE(fonts.uniqueFonts(), QStringList{});
    QCOMPARE(fonts.fontName(0, 0), QString());
    QCOMPARE(fonts.charsetDirection(0), 0);
    QCOMPARE(fonts.charsetWidth(0), 0);
    QCOMPARE(nonZeroGlyphOfCode(), 0);
    QCOMPARE(nonZeroCodeOfGlyph(), 0);
}

QUILLET_FONTS_TEST_MAIN(TestFontCatalogue)

#include "tst_fontcatalogue.moc"
