// Tests of the marker block that ends every page: the common variables
// section, the measuring and painting of the strings at the six named
// positions and at coordinate positions, the choice of strings and
// orientation per page and the fonarik block. Everything is compared byte
// for byte with the PostScript that the printer receives.
//
// The font catalogue stays uninitialised here, so every character of a
// marker text is encoded as 0000: a text of n characters shows up as a hex
// string of n times "0000". Strings are told apart by their length and by
// their font size, which the font selection line carries.
#include "fonts/fonts.h"
#include "marker/marker.h"
#include "settings/variables.h"
#include "support/messagerecorder.h"
#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QBuffer>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

namespace {

// --- The fixed lines of a marker block ----------------------------------------

const QByteArray Header = "% Common variables:\n";
const QByteArray Rotate = "90 rotate\n";
const QByteArray ClipBox = "initclip newpath clippath pathbbox closepath\n";
const QByteArray PageBox = "/pageT exch def /pageR exch def /pageB exch def /pageL exch def\n";

const QByteArray TopStart = "/TopPos pageT markerTopShift sub def\n";
const QByteArray TopAdvance = "/TopPos TopPos tPart sub bPart sub markerStringInterval sub def\n";
const QByteArray BottomStart = "/BottomPos pageB markerBottomShift add def\n";
const QByteArray BottomAdvance = "/BottomPos BottomPos tPart add bPart add markerStringInterval add def\n";

const QByteArray Show = "show\n";

// The five placement definitions with the given tokens.
QByteArray definitions(const QByteArray& top, const QByteArray& bottom, const QByteArray& left,
                       const QByteArray& right, const QByteArray& interval)
{
    return "/markerTopShift " + top + " def\n" + "/markerBottomShift " + bottom + " def\n" + "/markerLeftShift "
        + left + " def\n" + "/markerRightShift " + right + " def\n" + "/markerStringInterval " + interval
        + " def\n";
}

const QByteArray ZeroDefinitions = definitions("0", "0", "0", "0", "0");

// The whole common variables section.
QByteArray commonSection(bool landscape, const QByteArray& definitionLines = ZeroDefinitions)
{
    return Header + (landscape ? Rotate : QByteArray()) + ClipBox + PageBox + definitionLines;
}

// The hex string of an n-character text with the uninitialised catalogue.
QByteArray codes(int characters)
{
    return '<' + QByteArray("0000").repeated(characters) + '>';
}

const char* const FontNames[] = {"Marker-Normal", "Marker-Bold", "Marker-Italic", "Marker-BoldItalic"};

// Font selection and outline measurement of one string.
QByteArray measured(int style, const QByteArray& size, int characters)
{
    return "/" + QByteArray(FontNames[style]) + " findfont " + size + " scalefont setfont\n"
        + "newpath 0 0 moveto " + codes(characters) + " dup true charpath closepath pathbbox\n"
        + "/tPart exch def /rPart exch def neg /bPart exch def /lPart exch def\n";
}

// The two underline procedures for a font and size.
QByteArray underlineProcs(int style, const QByteArray& size)
{
    return expectedUnderlineProcedures(FontNames[style], size);
}

// What the six named positions write around each string.
struct Snippets
{
    bool top;
    QByteArray box;
    QByteArray text;
    QByteArray underline;
};

const Snippets PositionSnippets[6] = {
    // top-left
    {true, "1 setgray pageL markerLeftShift add\nTopPos tPart sub bPart sub\nrPart lPart add tPart bPart add rectfill\n",
     "0 setgray pageL markerLeftShift add lPart add\nTopPos tPart sub moveto ",
     "newpath font-underline-thickness setlinewidth pageL markerLeftShift add TopPos tPart sub bPart sub "
     "font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
    // top-center
    {true,
     "1 setgray pageR pageL add 2 div rPart lPart add 2 div sub TopPos tPart sub bPart sub\nrPart lPart add tPart "
     "bPart add rectfill\n",
     "0 setgray pageR pageL add 2 div rPart 2 div sub\nTopPos tPart sub moveto ",
     "newpath font-underline-thickness setlinewidth pageR pageL add 2 div rPart 2 div sub TopPos tPart sub bPart "
     "sub font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
    // top-right
    {true,
     "1 setgray pageR markerRightShift sub rPart sub\nlPart sub TopPos tPart sub bPart sub\nrPart lPart add tPart "
     "bPart add rectfill\n",
     "0 setgray pageR markerRightShift sub rPart sub\nTopPos tPart sub moveto ",
     "newpath font-underline-thickness setlinewidth pageR markerRightShift sub rPart sub TopPos tPart sub bPart "
     "sub font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
    // bottom-left
    {false, "1 setgray pageL markerLeftShift add BottomPos rPart lPart add tPart bPart add rectfill\n",
     "0 setgray pageL markerLeftShift add lPart add\nBottomPos bPart add moveto ",
     "newpath font-underline-thickness setlinewidth pageL markerLeftShift add BottomPos font-underline-pos add "
     "moveto rPart 0 rlineto closepath stroke\n"},
    // bottom-center
    {false,
     "1 setgray pageL pageR add 2 div rPart lPart add 2 div sub BottomPos rPart lPart add tPart bPart add "
     "rectfill\n",
     "0 setgray pageL pageR add 2 div rPart lPart add 2 div sub BottomPos bPart add moveto ",
     "newpath font-underline-thickness setlinewidth pageR pageL add 2 div rPart 2 div sub BottomPos "
     "font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
    // bottom-right
    {false,
     "1 setgray pageR markerRightShift sub rPart sub\nlPart sub BottomPos\nrPart lPart add tPart bPart add "
     "rectfill\n",
     "0 setgray pageR markerRightShift sub rPart sub\nBottomPos bPart add moveto ",
     "newpath font-underline-thickness setlinewidth pageR markerRightShift sub rPart sub BottomPos "
     "font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
};

const char* const PositionNames[6] = {"top-left",    "top-center",    "top-right",
                                      "bottom-left", "bottom-center", "bottom-right"};

// Everything one visible string writes at a position, advance included.
QByteArray paintedString(int position, int style, const QByteArray& size, int characters, bool underline)
{
    const Snippets& snippets = PositionSnippets[position];
    QByteArray result = measured(style, size, characters) + snippets.box + snippets.text + Show;
    if (underline)
        result += underlineProcs(style, size) + snippets.underline;
    return result + (snippets.top ? TopAdvance : BottomAdvance);
}

QByteArray stackStart(int position)
{
    return PositionSnippets[position].top ? TopStart : BottomStart;
}

// A string record as the template reader builds it. Records that are not
// expanded at load time carry their text in `text`; expanded ones in
// `expandedText`.
MarkerStringPtr makeString(const QString& text, int style = 0, float size = 12.0f, bool underline = false)
{
    MarkerStringPtr string(new MarkerString);
    string->text = text;
    string->fontStyle = style;
    string->fontSize = size;
    string->underline = underline;
    return string;
}

MarkerStringPtr makeExpanded(const QString& shown, float size = 12.0f)
{
    MarkerStringPtr string(new MarkerString);
    string->expandedText = shown;
    string->expanded = true;
    string->fontSize = size;
    return string;
}

void drawNamed(QIODevice& out, int position, const MarkerStringList& strings)
{
    const Marker& marker = Marker::instance();
    switch (position) {
    case 0: marker.drawTopLeft(out, strings); break;
    case 1: marker.drawTopCenter(out, strings); break;
    case 2: marker.drawTopRight(out, strings); break;
    case 3: marker.drawBottomLeft(out, strings); break;
    case 4: marker.drawBottomCenter(out, strings); break;
    case 5: marker.drawBottomRight(out, strings); break;
    }
}

QByteArray namedOutput(int position, const MarkerStringList& strings)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    drawNamed(buffer, position, strings);
    return buffer.data();
}

QByteArray commonVariablesOutput(bool fonarik, bool landscape)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().writeCommonVariables(buffer, fonarik, landscape);
    return buffer.data();
}

QByteArray markerOutput(int page, bool lastPage)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().drawMarker(buffer, page, lastPage);
    return buffer.data();
}

QByteArray pageOutput(const MarkerPositionMap& map, bool fonarik = false, bool landscape = false)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().drawPage(buffer, map, fonarik, landscape);
    return buffer.data();
}

QByteArray fonarikOutput(int count)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().drawFonarik(buffer, count);
    return buffer.data();
}

// The font sizes of the font selection lines, in the order written.
QStringList selectedSizes(const QByteArray& output)
{
    static const QRegularExpression selection(QStringLiteral("^/Marker-\\S+ findfont (\\S+) scalefont setfont$"),
                                              QRegularExpression::MultilineOption);
    QStringList sizes;
    auto it = selection.globalMatch(QString::fromLatin1(output));
    while (it.hasNext())
        sizes.append(it.next().captured(1));
    return sizes;
}

// A device that records every write as one chunk.
class ChunkDevice : public QIODevice
{
public:
    QList<QByteArray> chunks;

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(const char* data, qint64 length) override
    {
        chunks.append(QByteArray(data, int(length)));
        return length;
    }
};

#define COMPARE_BYTES(actual, expected)                                                                        \
    do {                                                                                                       \
        const QByteArray actualBytes_ = (actual);                                                              \
        const QByteArray expectedBytes_ = (expected);                                                          \
        QVERIFY2(actualBytes_ == expectedBytes_,                                                               \
                 qPrintable(firstDifference(actualBytes_, expectedBytes_)));                                   \
    } while (false)

} // namespace

class TestMarkerDrawing : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    // Common variables section
    void commonVariables_data();
    void commonVariables();
    void definitionsWrittenInOneWrite();
    void definitionsOutsidePostScriptSyntax_data();
    void definitionsOutsidePostScriptSyntax();
    void definitionsReadByGhostscript_data();
    void definitionsReadByGhostscript();
    void definitionsReadAfreshOnEveryCall();

    // Measuring and painting at the named positions
    void measureString_data();
    void measureString();
    void measureNothingForEmptyPointer();
    void topLeftSequence();
    void namedPosition_data();
    void namedPosition();
    void centreOriginsDifferBetweenTopAndBottom();
    void stacking_data();
    void stacking();
    void expandedPiecesStackInPieceOrder();
    void blankStrings_data();
    void blankStrings();
    void blankStringDoesNotAdvance();
    void emptySequenceWritesNothing();
    void underlineNamesTheFontJustSelected();
    void perPageExpansion();
    void loadTimeExpansionKeptOnEveryPage();

    // Coordinate positions
    void drawAtOffset_data();
    void drawAtOffset();
    void coordinatesNoInterpreterReads_data();
    void coordinatesNoInterpreterReads();
    void coordinatesReadByGhostscript_data();
    void coordinatesReadByGhostscript();

    // Per-page emission
    void orientation_data();
    void orientation();
    void regularBlockUsesRegularKeys();
    void stringsForPage_data();
    void stringsForPage();
    void templateWithoutStrings();
    void sixPositionsInFixedOrder();
    void completeBlockMatchesGolden();
    void coordinatePositionsAfterNamedOnesInKeyOrder();
    void coordinatePositionsMustBeginWithBrace();
    void fonarikSelection_data();
    void fonarikSelection();
    void fonarikBlock_data();
    void fonarikBlock();
};

void TestMarkerDrawing::initTestCase()
{
    // The tests rely on the uninitialised catalogue's encoding.
    Fonts::instance().reset();
    QCOMPARE(Fonts::instance().encodeString(QStringLiteral("Ab\u0416")), QStringLiteral("<000000000000>"));
}

void TestMarkerDrawing::init()
{
    Variables::instance().clear();
    Marker::instance().reset();
    Fonts::instance().reset();
}

// --- Common variables section --------------------------------------------------

void TestMarkerDrawing::commonVariables_data()
{
    QTest::addColumn<QStringList>("variables");
    QTest::addColumn<bool>("fonarik");
    QTest::addColumn<bool>("landscape");
    QTest::addColumn<QByteArray>("expected");

    const QStringList fonarikA4P = {"A4:P:FonarikTopShift=1", "A4:P:FonarikBottomShift=2",
                                    "A4:P:FonarikLeftShift=3", "A4:P:FonarikRightShift=4",
                                    "A4:P:FonarikStringInterval=5"};
    const QStringList fonarikA4L = {"A4:L:FonarikTopShift=11", "A4:L:FonarikBottomShift=12",
                                    "A4:L:FonarikLeftShift=13", "A4:L:FonarikRightShift=14",
                                    "A4:L:FonarikStringInterval=15"};
    const QStringList fonarikA3P = {"A3:P:FonarikTopShift=21", "A3:P:FonarikBottomShift=22",
                                    "A3:P:FonarikLeftShift=23", "A3:P:FonarikRightShift=24",
                                    "A3:P:FonarikStringInterval=25"};
    const QStringList fonarikA3L = {"A3:L:FonarikTopShift=31", "A3:L:FonarikBottomShift=32",
                                    "A3:L:FonarikLeftShift=33", "A3:L:FonarikRightShift=34",
                                    "A3:L:FonarikStringInterval=35"};
    const QStringList regular = {"MarkerTopShift=41", "MarkerBottomShift=42", "MarkerLeftShift=43",
                                 "MarkerRightShift=44", "MarkerStringInterval=45"};

    QTest::newRow("no definitions, portrait: header, clip box, page box and five 0 tokens")
        << QStringList() << false << false << (Header + ClipBox + PageBox + ZeroDefinitions);
    QTest::newRow("a number is copied as written: 12.5")
        << QStringList{"MarkerTopShift=12.5"} << false << false
        << commonSection(false, definitions("12.5", "0", "0", "0", "0"));
    QTest::newRow("a value that is no number gives 0: abc")
        << QStringList{"MarkerTopShift=abc"} << false << false << commonSection(false);
    QTest::newRow("an empty value gives 0") << QStringList{"MarkerTopShift="} << false << false
                                            << commonSection(false);
    QTest::newRow("a number with surrounding blanks is copied with its blanks")
        << QStringList{"MarkerTopShift= 12.5 "} << false << false
        << commonSection(false, definitions(" 12.5 ", "0", "0", "0", "0"));
    QTest::newRow("a value beyond single precision gives 0: 1e40")
        << QStringList{"MarkerTopShift=1e40"} << false << false << commonSection(false);
    QTest::newRow("the value's own text is written, not the converted number: 014 and 1e2")
        << QStringList{"MarkerTopShift=014", "MarkerBottomShift=1e2"} << false << false
        << commonSection(false, definitions("014", "1e2", "0", "0", "0"));
    QTest::newRow("a decimal comma does not convert: 12,5 gives 0")
        << QStringList{"MarkerTopShift=12,5"} << false << false << commonSection(false);
    QTest::newRow("a negative shift is passed on")
        << QStringList{"MarkerLeftShift=-7.25"} << false << false
        << commonSection(false, definitions("0", "0", "-7.25", "0", "0"));
    QTest::newRow("each key fills its own name, in the fixed order")
        << regular << false << false << commonSection(false, definitions("41", "42", "43", "44", "45"));
    QTest::newRow("landscape: 90 rotate comes second, before the clip box line")
        << QStringList() << false << true << (Header + Rotate + ClipBox + PageBox + ZeroDefinitions);
    QTest::newRow("regular keys ignore paper format and orientation")
        << (regular + QStringList{"PAGE_FORMAT=a3"}) << false << true
        << commonSection(true, definitions("41", "42", "43", "44", "45"));
    QTest::newRow("regular markers never read the fonarik keys")
        << fonarikA4P << false << false << commonSection(false);
    QTest::newRow("fonarik, PAGE_FORMAT absent: A4:P: keys")
        << (fonarikA4P + fonarikA4L + fonarikA3P) << true << false
        << commonSection(false, definitions("1", "2", "3", "4", "5"));
    QTest::newRow("fonarik, PAGE_FORMAT empty: A4:P: keys")
        << (fonarikA4P + fonarikA4L + QStringList{"PAGE_FORMAT="}) << true << false
        << commonSection(false, definitions("1", "2", "3", "4", "5"));
    QTest::newRow("fonarik landscape, PAGE_FORMAT absent: A4:L: keys")
        << (fonarikA4P + fonarikA4L) << true << true << commonSection(true, definitions("11", "12", "13", "14", "15"));
    QTest::newRow("fonarik landscape, PAGE_FORMAT empty: A4:L: keys")
        << (fonarikA4P + fonarikA4L + QStringList{"PAGE_FORMAT="}) << true << true
        << commonSection(true, definitions("11", "12", "13", "14", "15"));
    QTest::newRow("fonarik, PAGE_FORMAT a3: upper-cased A3:P: keys")
        << (fonarikA4P + fonarikA3P + fonarikA3L + QStringList{"PAGE_FORMAT=a3", "a3:P:FonarikTopShift=99"})
        << true << false << commonSection(false, definitions("21", "22", "23", "24", "25"));
    QTest::newRow("fonarik landscape, PAGE_FORMAT a3: A3:L: keys")
        << (fonarikA4L + fonarikA3P + fonarikA3L + QStringList{"PAGE_FORMAT=a3"}) << true << true
        << commonSection(true, definitions("31", "32", "33", "34", "35"));
    QTest::newRow("fonarik landscape, PAGE_FORMAT letter: LETTER:L: keys")
        << QStringList{"PAGE_FORMAT=letter", "LETTER:L:FonarikTopShift=7", "A4:L:FonarikTopShift=8"} << true
        << true << commonSection(true, definitions("7", "0", "0", "0", "0"));
    QTest::newRow("fonarik: MarkerTopShift and its siblings are not read")
        << regular << true << false << commonSection(false);
    QTest::newRow("fonarik values follow the same number rule")
        << QStringList{"A4:P:FonarikTopShift=abc", "A4:P:FonarikBottomShift= 3 ", "A4:P:FonarikLeftShift=1e40"}
        << true << false << commonSection(false, definitions("0", " 3 ", "0", "0", "0"));
}

void TestMarkerDrawing::commonVariables()
{
    QFETCH(QStringList, variables);
    QFETCH(bool, fonarik);
    QFETCH(bool, landscape);
    QFETCH(QByteArray, expected);

    setVariables(variables);
    COMPARE_BYTES(commonVariablesOutput(fonarik, landscape), expected);
}

// Only numbers in PostScript's own syntax reach the output; a value that
// converts but that an interpreter could not read gives 0 and a warning.
void TestMarkerDrawing::definitionsOutsidePostScriptSyntax_data()
{
    QTest::addColumn<QStringList>("variables");
    QTest::addColumn<bool>("fonarik");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<QStringList>("warnings");

    const auto refused = [](const QString& value, const QString& key) {
        return QStringLiteral("Value '%1' of %2 is not a PostScript number, 0 is used!").arg(value, key);
    };
    const QString digits400 = QStringLiteral("1.") + QString(398, QLatin1Char('0'));
    for (const char* word : {"nan", "NaN", "inf", "+inf", "-inf", "INF", " inf "}) {
        const QString value = QLatin1String(word);
        QTest::addRow("MarkerTopShift=%s gives 0", word)
            << QStringList{QStringLiteral("MarkerTopShift=") + value} << false << commonSection(false)
            << QStringList{refused(value, QStringLiteral("MarkerTopShift"))};
    }
    QTest::newRow("a number of 400 digits gives 0")
        << QStringList{QStringLiteral("MarkerStringInterval=") + digits400} << false << commonSection(false)
        << QStringList{refused(digits400, QStringLiteral("MarkerStringInterval"))};
    QTest::newRow("a number too small for a PostScript real gives 0: 1e-40")
        << QStringList{"MarkerLeftShift=1e-40"} << false << commonSection(false)
        << QStringList{refused(QStringLiteral("1e-40"), QStringLiteral("MarkerLeftShift"))};
    QTest::newRow("each refused key warns, the others are copied")
        << QStringList{"MarkerTopShift=inf", "MarkerBottomShift=14", "MarkerRightShift=nan"} << false
        << commonSection(false, definitions("0", "14", "0", "0", "0"))
        << QStringList{refused(QStringLiteral("inf"), QStringLiteral("MarkerTopShift")),
                       refused(QStringLiteral("nan"), QStringLiteral("MarkerRightShift"))};
    QTest::newRow("fonarik keys follow the same rule")
        << QStringList{"A4:P:FonarikTopShift=-inf", "A4:P:FonarikBottomShift=3"} << true
        << commonSection(false, definitions("0", "3", "0", "0", "0"))
        << QStringList{refused(QStringLiteral("-inf"), QStringLiteral("A4:P:FonarikTopShift"))};
    QTest::newRow("valid forms are copied without a word: 1., .5, +2, 1E6, 32 characters")
        << QStringList{"MarkerTopShift=1.", "MarkerBottomShift=.5", "MarkerLeftShift=+2",
                       "MarkerRightShift=1E6", "MarkerStringInterval=1.000000000000000000000000000000"}
        << false
        << commonSection(false, definitions("1.", ".5", "+2", "1E6", "1.000000000000000000000000000000"))
        << QStringList{};
    QTest::newRow("values that never converted still give 0 silently: abc, 1e40, empty")
        << QStringList{"MarkerTopShift=abc", "MarkerBottomShift=1e40", "MarkerLeftShift="} << false
        << commonSection(false) << QStringList{};
}

void TestMarkerDrawing::definitionsOutsidePostScriptSyntax()
{
    QFETCH(QStringList, variables);
    QFETCH(bool, fonarik);
    QFETCH(QByteArray, expected);
    QFETCH(QStringList, warnings);

    setVariables(variables);
    MessageRecorder recorder;
    COMPARE_BYTES(commonVariablesOutput(fonarik, false), expected);
    QCOMPARE(recorder.texts(QtWarningMsg), warnings);
}

// The same values, as a printer sees them: Ghostscript reads the section
// and computes with every definition without an error.
void TestMarkerDrawing::definitionsReadByGhostscript_data()
{
    definitionsOutsidePostScriptSyntax_data();
}

void TestMarkerDrawing::definitionsReadByGhostscript()
{
    QFETCH(QStringList, variables);
    QFETCH(bool, fonarik);
    if (!haveProgram(QStringLiteral("gs")))
        QSKIP("Ghostscript (gs) is needed");

    setVariables(variables);
    MessageRecorder recorder;
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("section.ps"));
    QVERIFY(writeFile(file, "%!PS\n" + commonVariablesOutput(fonarik, false) +
                                "markerTopShift markerBottomShift markerLeftShift markerRightShift "
                                "markerStringInterval add add add add 1 add pop\n"));
    const QString errors = ghostscriptErrors(file);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
}

void TestMarkerDrawing::definitionsWrittenInOneWrite()
{
    setVariables({"MarkerTopShift=1", "MarkerStringInterval=5"});
    ChunkDevice device;
    QVERIFY(device.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    Marker::instance().writeCommonVariables(device, false, false);

    QVERIFY(!device.chunks.isEmpty());
    QCOMPARE(device.chunks.last(), definitions("1", "0", "0", "0", "5"));
    QCOMPARE(device.chunks.join(), commonSection(false, definitions("1", "0", "0", "0", "5")));
}

void TestMarkerDrawing::definitionsReadAfreshOnEveryCall()
{
    setVariables({"MarkerTopShift=10"});
    COMPARE_BYTES(commonVariablesOutput(false, false), commonSection(false, definitions("10", "0", "0", "0", "0")));
    setVariables({"MarkerTopShift=20"});
    COMPARE_BYTES(commonVariablesOutput(false, false), commonSection(false, definitions("20", "0", "0", "0", "0")));
}

// --- Measuring and painting at the named positions -----------------------------

void TestMarkerDrawing::measureString_data()
{
    QTest::addColumn<int>("style");
    QTest::addColumn<float>("size");
    QTest::addColumn<QString>("shown");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("normal 12: font line, moveto, hex string, charpath box, four parts")
        << 0 << 12.0f << "abc" << measured(0, "12", 3);
    QTest::newRow("bold 9 selects Marker-Bold") << 1 << 9.0f << "x" << measured(1, "9", 1);
    QTest::newRow("italic 10.5 keeps the fraction") << 2 << 10.5f << "xy" << measured(2, "10.5", 2);
    QTest::newRow("bolditalic 7.5 selects Marker-BoldItalic") << 3 << 7.5f << "x" << measured(3, "7.5", 1);
    QTest::newRow("empty shown text measures an empty hex string") << 0 << 12.0f << "" << measured(0, "12", 0);
}

void TestMarkerDrawing::measureString()
{
    QFETCH(int, style);
    QFETCH(float, size);
    QFETCH(QString, shown);
    QFETCH(QByteArray, expected);

    // The shown text is the expanded one, not the template text.
    MarkerStringPtr string = makeString(QStringLiteral("template text"), style, size);
    string->expandedText = shown;

    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().measureString(buffer, string);
    COMPARE_BYTES(buffer.data(), expected);
    QCOMPARE(Fonts::instance().currentStyle(), style);
    QCOMPARE(Fonts::instance().currentSize(), size);
}

void TestMarkerDrawing::measureNothingForEmptyPointer()
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().measureString(buffer, MarkerStringPtr());
    QCOMPARE(buffer.data(), QByteArray());
}

void TestMarkerDrawing::topLeftSequence()
{
    // One string at top-left, written out piece by piece.
    const QByteArray expected = "/TopPos pageT markerTopShift sub def\n"
                                "/Marker-Normal findfont 12 scalefont setfont\n"
                                "newpath 0 0 moveto <00000000> dup true charpath closepath pathbbox\n"
                                "/tPart exch def /rPart exch def neg /bPart exch def /lPart exch def\n"
                                "1 setgray pageL markerLeftShift add\n"
                                "TopPos tPart sub bPart sub\n"
                                "rPart lPart add tPart bPart add rectfill\n"
                                "0 setgray pageL markerLeftShift add lPart add\n"
                                "TopPos tPart sub moveto show\n"
                                "/TopPos TopPos tPart sub bPart sub markerStringInterval sub def\n";
    COMPARE_BYTES(namedOutput(0, {makeString(QStringLiteral("Hi"))}), expected);
}

void TestMarkerDrawing::namedPosition_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<bool>("underline");

    for (int position = 0; position < 6; ++position) {
        const QByteArray name = PositionNames[position];
        QTest::newRow(name + ": stack start, measurement, box, text, show, advance") << position << false;
        QTest::newRow(name + " underlined: procedures and underline between show and advance") << position << true;
    }
}

void TestMarkerDrawing::namedPosition()
{
    QFETCH(int, position);
    QFETCH(bool, underline);

    const QByteArray expected = stackStart(position) + paintedString(position, 2, "11", 3, underline);
    COMPARE_BYTES(namedOutput(position, {makeString(QStringLiteral("abc"), 2, 11.0f, underline)}), expected);
}

void TestMarkerDrawing::centreOriginsDifferBetweenTopAndBottom()
{
    // top-center starts the text at m - rPart/2, bottom-center at m - w/2;
    // both underlines start at m - rPart/2.
    const QByteArray top = namedOutput(1, {makeString(QStringLiteral("a"), 0, 12.0f, true)});
    const QByteArray bottom = namedOutput(4, {makeString(QStringLiteral("a"), 0, 12.0f, true)});

    QVERIFY(top.contains("0 setgray pageR pageL add 2 div rPart 2 div sub\nTopPos tPart sub moveto show\n"));
    QVERIFY(!top.contains("0 setgray pageL pageR add 2 div rPart lPart add 2 div sub"));
    QVERIFY(bottom.contains(
        "0 setgray pageL pageR add 2 div rPart lPart add 2 div sub BottomPos bPart add moveto show\n"));
    QVERIFY(!bottom.contains("0 setgray pageR pageL add 2 div rPart 2 div sub"));
    QVERIFY(top.contains("newpath font-underline-thickness setlinewidth pageR pageL add 2 div rPart 2 div sub "
                         "TopPos tPart sub bPart sub font-underline-pos add moveto"));
    QVERIFY(bottom.contains("newpath font-underline-thickness setlinewidth pageR pageL add 2 div rPart 2 div sub "
                            "BottomPos font-underline-pos add moveto"));
}

void TestMarkerDrawing::stacking_data()
{
    QTest::addColumn<int>("position");

    QTest::newRow("top-left: A then B, each advancing TopPos") << 0;
    QTest::newRow("top-center: A then B") << 1;
    QTest::newRow("top-right: A then B") << 2;
    QTest::newRow("bottom-left: B painted first at the bottom, A above it") << 3;
    QTest::newRow("bottom-center: B first, then A") << 4;
    QTest::newRow("bottom-right: B first, then A") << 5;
}

void TestMarkerDrawing::stacking()
{
    QFETCH(int, position);

    // A: one character at size 10; B: two characters at size 11.
    const MarkerStringList strings = {makeString(QStringLiteral("A"), 0, 10.0f),
                                      makeString(QStringLiteral("BB"), 0, 11.0f)};
    const QByteArray a = paintedString(position, 0, "10", 1, false);
    const QByteArray b = paintedString(position, 0, "11", 2, false);
    const QByteArray expected = stackStart(position) + (PositionSnippets[position].top ? a + b : b + a);
    COMPARE_BYTES(namedOutput(position, strings), expected);
}

void TestMarkerDrawing::expandedPiecesStackInPieceOrder()
{
    // "[A]^[B]" becomes two strings in piece order; at a bottom position the
    // second piece is painted first, so the pieces read top to bottom.
    setVariables({"A=x", "B=yyy"});
    readMarkerTemplate("any:normal:9::bottom-left:[A]^[B]\nany:normal:9::top-left:[A]^[B]\n");
    const MarkerPositionMap any = Marker::instance().strings().value(2);
    QCOMPARE(any.value(QStringLiteral("bottom-left")).size(), 2);

    COMPARE_BYTES(namedOutput(3, any.value(QStringLiteral("bottom-left"))),
                  BottomStart + paintedString(3, 0, "9", 3, false) + paintedString(3, 0, "9", 1, false));
    COMPARE_BYTES(namedOutput(0, any.value(QStringLiteral("top-left"))),
                  TopStart + paintedString(0, 0, "9", 1, false) + paintedString(0, 0, "9", 3, false));
}

void TestMarkerDrawing::blankStrings_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<QString>("text");  // template text of a string expanded per page
    QTest::addColumn<QString>("shown"); // text of a string expanded at load time

    QTest::newRow("blank text at top-left: only the stack start") << 0 << "   " << "   ";
    QTest::newRow("empty text at top-right: only the stack start") << 2 << "" << "";
    QTest::newRow("blank text at bottom-center: only the stack start") << 4 << " " << " ";
    QTest::newRow("tabs and line feeds count as blank") << 5 << "\t\n " << "\n\t";
    QTest::newRow("a reference to an absent key expands to nothing") << 1 << " {ABSENT} " << "";
}

void TestMarkerDrawing::blankStrings()
{
    QFETCH(int, position);
    QFETCH(QString, text);
    QFETCH(QString, shown);

    COMPARE_BYTES(namedOutput(position, {makeString(text, 1, 14.0f, true)}), stackStart(position));
    // A record expanded at load time to a blank text is skipped the same way.
    COMPARE_BYTES(namedOutput(position, {makeExpanded(shown)}), stackStart(position));
    // An empty pointer is skipped too.
    COMPARE_BYTES(namedOutput(position, {MarkerStringPtr()}), stackStart(position));
}

void TestMarkerDrawing::blankStringDoesNotAdvance()
{
    const MarkerStringList strings = {makeString(QStringLiteral("A"), 0, 10.0f), makeString(QStringLiteral("  ")),
                                      MarkerStringPtr(), makeString(QStringLiteral("BB"), 0, 11.0f)};
    COMPARE_BYTES(namedOutput(0, strings),
                  TopStart + paintedString(0, 0, "10", 1, false) + paintedString(0, 0, "11", 2, false));
    COMPARE_BYTES(namedOutput(3, strings),
                  BottomStart + paintedString(3, 0, "11", 2, false) + paintedString(3, 0, "10", 1, false));
}

void TestMarkerDrawing::emptySequenceWritesNothing()
{
    for (int position = 0; position < 6; ++position)
        QCOMPARE(namedOutput(position, {}), QByteArray());

    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().drawAtOffset(buffer, QStringLiteral("{12;30}"), {});
    QCOMPARE(buffer.data(), QByteArray());
}

void TestMarkerDrawing::underlineNamesTheFontJustSelected()
{
    // Two underlined strings in different fonts: each underline refers to
    // the font that its own measurement selected. A string without underline
    // writes neither procedures nor underline.
    const MarkerStringList strings = {makeString(QStringLiteral("a"), 3, 7.5f, true),
                                      makeString(QStringLiteral("b"), 1, 9.0f, false),
                                      makeString(QStringLiteral("c"), 0, 20.0f, true)};
    const QByteArray output = namedOutput(0, strings);
    COMPARE_BYTES(output, TopStart + paintedString(0, 3, "7.5", 1, true) + paintedString(0, 1, "9", 1, false)
                              + paintedString(0, 0, "20", 1, true));
    QCOMPARE(output.count("/font-underline-pos {"), 2);
    QVERIFY(output.contains("/font-underline-pos {\n  /Marker-BoldItalic findfont 7.5 scalefont\n"));
    QVERIFY(output.contains("/font-underline-thickness {\n  /Marker-Normal findfont 20 scalefont\n"));
}

void TestMarkerDrawing::perPageExpansion()
{
    // A string that uses braces only stays unexpanded and is expanded from
    // the store every time a page is drawn.
    readMarkerTemplate("any:normal:12::top-left:P{CURRENT_PAGE}\n");
    const MarkerStringList strings = Marker::instance().strings().value(2).value(QStringLiteral("top-left"));
    QCOMPARE(strings.size(), 1);
    QVERIFY(!strings.first()->expanded);

    setVariables({"CURRENT_PAGE=7"});
    COMPARE_BYTES(markerOutput(1, false), commonSection(false) + TopStart + paintedString(0, 0, "12", 2, false));
    QCOMPARE(strings.first()->expandedText, QStringLiteral("P7"));

    setVariables({"CURRENT_PAGE=1234"});
    COMPARE_BYTES(markerOutput(2, false), commonSection(false) + TopStart + paintedString(0, 0, "12", 5, false));
    QCOMPARE(strings.first()->expandedText, QStringLiteral("P1234"));

    // The template text itself is kept for the next page.
    QCOMPARE(strings.first()->text, QStringLiteral("P{CURRENT_PAGE}"));
}

void TestMarkerDrawing::loadTimeExpansionKeptOnEveryPage()
{
    setVariables({"CURRENT_PAGE=3"});
    readMarkerTemplate("any:normal:12::top-left:P[CURRENT_PAGE]\n");
    const MarkerStringList strings = Marker::instance().strings().value(2).value(QStringLiteral("top-left"));
    QCOMPARE(strings.size(), 1);
    QVERIFY(strings.first()->expanded);

    setVariables({"CURRENT_PAGE=4567"});
    COMPARE_BYTES(markerOutput(2, false), commonSection(false) + TopStart + paintedString(0, 0, "12", 2, false));
    QCOMPARE(strings.first()->expandedText, QStringLiteral("P3"));

    // A record marked as expanded is not expanded again even when its
    // template text holds a reference.
    MarkerStringPtr fixed = makeExpanded(QStringLiteral("fixed"));
    fixed->text = QStringLiteral("{CURRENT_PAGE}");
    COMPARE_BYTES(namedOutput(0, {fixed}), TopStart + paintedString(0, 0, "12", 5, false));
    QCOMPARE(fixed->expandedText, QStringLiteral("fixed"));
}

// --- Coordinate positions --------------------------------------------------------

void TestMarkerDrawing::drawAtOffset_data()
{
    QTest::addColumn<QString>("position");
    QTest::addColumn<QByteArray>("top");  // expected markerTopShift token, empty when nothing is written
    QTest::addColumn<QByteArray>("left"); // expected markerLeftShift token

    QTest::newRow("millimetres {10mm;20mm} are divided by 0.376") << "{10mm;20mm}" << QByteArray("53.1915")
                                                                   << QByteArray("26.5957");
    QTest::newRow("millimetres {0.376mm;0.752mm} give exactly 1 and 2")
        << "{0.376mm;0.752mm}" << QByteArray("2") << QByteArray("1");
    QTest::newRow("millimetres keep six significant digits: {1000mm;0mm}")
        << "{1000mm;0mm}" << QByteArray("0") << QByteArray("2659.57");
    QTest::newRow("units {12;30}: y is the second number, x the first") << "{12;30}" << QByteArray("30")
                                                                        << QByteArray("12");
    QTest::newRow("units with decimals {1.5;2.25}") << "{1.5;2.25}" << QByteArray("2.25") << QByteArray("1.5");
    QTest::newRow("a comma group does not convert: {1,5;2} gives x 0, y 2") << "{1,5;2}" << QByteArray("2")
                                                                            << QByteArray("0");
    QTest::newRow("a comma group in millimetres gives 0: {3mm;1,5mm}")
        << "{3mm;1,5mm}" << QByteArray("0") << QByteArray("7.97872");
    QTest::newRow("the pattern may match inside the text: {1;2}tail") << "{1;2}tail" << QByteArray("2")
                                                                      << QByteArray("1");
    QTest::newRow("the pattern is not anchored: x{1;2}y") << "x{1;2}y" << QByteArray("2") << QByteArray("1");
    QTest::newRow("mixed units match neither pattern: {10;20mm}") << "{10;20mm}" << QByteArray() << QByteArray();
    QTest::newRow("no braces: 10;20") << "10;20" << QByteArray() << QByteArray();
    QTest::newRow("letters do not match: {a;b}") << "{a;b}" << QByteArray() << QByteArray();
    QTest::newRow("a named position is no coordinate: top-left") << "top-left" << QByteArray() << QByteArray();
}

void TestMarkerDrawing::drawAtOffset()
{
    QFETCH(QString, position);
    QFETCH(QByteArray, top);
    QFETCH(QByteArray, left);

    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().drawAtOffset(buffer, position,
                                    {makeString(QStringLiteral("ab"), 0, 10.0f), makeString(QStringLiteral("c"))});

    // The strings are stacked exactly as at top-left.
    const QByteArray expected = top.isEmpty()
        ? QByteArray()
        : "/markerTopShift " + top + " def\n/markerLeftShift " + left + " def\n" + TopStart
            + paintedString(0, 0, "10", 2, false) + paintedString(0, 0, "12", 1, false);
    COMPARE_BYTES(buffer.data(), expected);
}

// A coordinate that converts to a value no interpreter reads (beyond the
// range of PostScript reals, or infinite) is placed at 0 with a warning.
void TestMarkerDrawing::coordinatesNoInterpreterReads_data()
{
    QTest::addColumn<QString>("position");
    QTest::addColumn<QByteArray>("top");
    QTest::addColumn<QByteArray>("left");
    QTest::addColumn<QStringList>("warnings");

    const QString digits400 = QString(400, QLatin1Char('9'));
    const QString digits60 = QString(60, QLatin1Char('9'));
    const QString tiny = QStringLiteral("0.") + QString(50, QLatin1Char('0')) + QLatin1Char('1');
    const auto refused = [](const QString& group, const QString& position) {
        return QStringLiteral("Coordinate '%1' of position '%2' is not a PostScript number, 0 is used!")
            .arg(group, position);
    };
    QString position = QStringLiteral("{%1;5}").arg(digits400);
    QTest::newRow("400 digits for x: x is 0")
        << position << QByteArray("5") << QByteArray("0") << QStringList{refused(digits400, position)};
    position = QStringLiteral("{5;%1}").arg(digits60);
    QTest::newRow("60 digits for y, beyond single precision: y is 0")
        << position << QByteArray("0") << QByteArray("5") << QStringList{refused(digits60, position)};
    position = QStringLiteral("{1mm;%1mm}").arg(digits400);
    QTest::newRow("400 digits in millimetres: y is 0")
        << position << QByteArray("0") << QByteArray("2.65957") << QStringList{refused(digits400, position)};
    position = QStringLiteral("{%1;2}").arg(tiny);
    QTest::newRow("a value below the smallest PostScript real: x is 0")
        << position << QByteArray("2") << QByteArray("0") << QStringList{refused(tiny, position)};
    QTest::newRow("a group that does not convert stays a silent 0")
        << "{1,5;2}" << QByteArray("2") << QByteArray("0") << QStringList{};
}

void TestMarkerDrawing::coordinatesNoInterpreterReads()
{
    QFETCH(QString, position);
    QFETCH(QByteArray, top);
    QFETCH(QByteArray, left);
    QFETCH(QStringList, warnings);

    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    MessageRecorder recorder;
    Marker::instance().drawAtOffset(buffer, position, {makeString(QStringLiteral("c"))});
    COMPARE_BYTES(buffer.data(), "/markerTopShift " + top + " def\n/markerLeftShift " + left + " def\n" +
                                     TopStart + paintedString(0, 0, "12", 1, false));
    QCOMPARE(recorder.texts(QtWarningMsg), warnings);
}

void TestMarkerDrawing::coordinatesReadByGhostscript_data()
{
    coordinatesNoInterpreterReads_data();
}

void TestMarkerDrawing::coordinatesReadByGhostscript()
{
    QFETCH(QString, position);
    if (!haveProgram(QStringLiteral("gs")))
        QSKIP("Ghostscript (gs) is needed");

    // Only the two definitions; the strings need the marker fonts.
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    MessageRecorder recorder;
    Marker::instance().drawAtOffset(buffer, position, {makeString(QStringLiteral("c"))});
    const QByteArray output = buffer.data();
    const int definitionsEnd = output.indexOf(TopStart);
    QVERIFY(definitionsEnd > 0);
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("position.ps"));
    QVERIFY(writeFile(file, "%!PS\n" + output.left(definitionsEnd) +
                                "markerTopShift markerLeftShift add 1 add pop\n"));
    const QString errors = ghostscriptErrors(file);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
}

// --- Per-page emission -------------------------------------------------------------

void TestMarkerDrawing::orientation_data()
{
    QTest::addColumn<bool>("present");
    QTest::addColumn<QString>("value");
    QTest::addColumn<int>("page");
    QTest::addColumn<bool>("lastPage");
    QTest::addColumn<bool>("landscape");

    QTest::newRow("LANDSCAPE absent: portrait") << false << "" << 1 << false << false;
    QTest::newRow("LANDSCAPE empty: portrait") << true << "" << 1 << false << false;
    QTest::newRow("0,1,0 page 1: portrait") << true << "0,1,0" << 1 << false << false;
    QTest::newRow("0,1,0 page 2: landscape") << true << "0,1,0" << 2 << false << true;
    QTest::newRow("0,1,0 page 3: portrait") << true << "0,1,0" << 3 << true << false;
    QTest::newRow("0,1,0 page 4 takes the first element: portrait") << true << "0,1,0" << 4 << false << false;
    QTest::newRow("1 page 1: landscape") << true << "1" << 1 << false << true;
    QTest::newRow("1 page 2 takes the first element: landscape") << true << "1" << 2 << false << true;
    QTest::newRow("1 page 9 takes the first element: landscape") << true << "1" << 9 << true << true;
    QTest::newRow(",,1 drops empty parts, page 1: landscape") << true << ",,1" << 1 << false << true;
    QTest::newRow(",,1 drops empty parts, page 3: landscape") << true << ",,1" << 3 << false << true;
    QTest::newRow("\" 1\" is not \"1\": portrait") << true << " 1" << 1 << false << false;
    QTest::newRow("\"1 \" is not \"1\": portrait") << true << "1 ,1" << 1 << false << false;
    QTest::newRow("0,1 page 3 takes the first element, not the last: portrait")
        << true << "0,1" << 3 << false << false;
    QTest::newRow("1,0 page 3 takes the first element: landscape") << true << "1,0" << 3 << false << true;
    QTest::newRow("1,0 page 2: portrait") << true << "1,0" << 2 << false << false;
    QTest::newRow("the last-page flag plays no part: 0,1 page 2 last") << true << "0,1" << 2 << true << true;
    QTest::newRow("page 0 is portrait whatever the list") << true << "1" << 0 << false << false;
    QTest::newRow("a negative page is portrait") << true << "1" << -1 << false << false;
}

void TestMarkerDrawing::orientation()
{
    QFETCH(bool, present);
    QFETCH(QString, value);
    QFETCH(int, page);
    QFETCH(bool, lastPage);
    QFETCH(bool, landscape);

    if (present)
        Variables::instance().insert(QStringLiteral("LANDSCAPE"), value);
    readMarkerTemplate("any:normal:12::top-left:ab\n");
    COMPARE_BYTES(markerOutput(page, lastPage),
                  commonSection(landscape) + TopStart + paintedString(0, 0, "12", 2, false));
}

void TestMarkerDrawing::regularBlockUsesRegularKeys()
{
    setVariables({"LANDSCAPE=1", "PAGE_FORMAT=a3", "MarkerTopShift=14", "A3:L:FonarikTopShift=99",
                  "A4:L:FonarikTopShift=98"});
    COMPARE_BYTES(markerOutput(1, false), commonSection(true, definitions("14", "0", "0", "0", "0")));
}

void TestMarkerDrawing::stringsForPage_data()
{
    QTest::addColumn<QByteArray>("templateText");
    QTest::addColumn<int>("page");
    QTest::addColumn<bool>("lastPage");
    QTest::addColumn<QStringList>("expected"); // "position=text" in map order

    // Sizes tell the page types apart in the painted block: first 11,
    // last 13, any 12.5.
    const QByteArray firstAndAny = "first:normal:11::top-left:F1\n"
                                   "any:normal:12.5::top-left:A1\n"
                                   "any:normal:12.5::bottom-left:A2\n";
    const QByteArray lastAndAny = "last:normal:13::bottom-right:L1\n"
                                  "any:normal:12.5::top-left:A1\n";
    const QByteArray allThree = "first:normal:11::top-left:F1\n"
                                "last:normal:13::top-left:L1\n"
                                "any:normal:12.5::top-left:A1\n";

    QTest::newRow("first and any, page 1: only the first strings")
        << firstAndAny << 1 << false << QStringList{"top-left=F1"};
    QTest::newRow("first and any, page 2: the any strings") << firstAndAny << 2 << false
                                                            << QStringList{"bottom-left=A2", "top-left=A1"};
    QTest::newRow("first and any, last page 3: the any strings") << firstAndAny << 3 << true
                                                                 << QStringList{"bottom-left=A2", "top-left=A1"};
    QTest::newRow("last and any, page 1 of 3: the any strings") << lastAndAny << 1 << false
                                                                << QStringList{"top-left=A1"};
    QTest::newRow("last and any, page 2 of 3: the any strings") << lastAndAny << 2 << false
                                                                << QStringList{"top-left=A1"};
    QTest::newRow("last and any, page 3 of 3: only the last strings")
        << lastAndAny << 3 << true << QStringList{"bottom-right=L1"};
    QTest::newRow("last and any, one-page document: the any strings")
        << lastAndAny << 1 << true << QStringList{"top-left=A1"};
    QTest::newRow("first, last and any, one-page document: the first strings")
        << allThree << 1 << true << QStringList{"top-left=F1"};
    QTest::newRow("only first, page 2: nothing") << QByteArray("first:normal:11::top-left:F1\n") << 2 << false
                                                 << QStringList();
    QTest::newRow("only last, page 1: nothing") << QByteArray("last:normal:13::top-left:L1\n") << 1 << true
                                                << QStringList();
    QTest::newRow("only any, page 1: the any strings") << QByteArray("any:normal:12.5::top-left:A1\n") << 1 << false
                                                       << QStringList{"top-left=A1"};
    QTest::newRow("fonarik strings are never page strings")
        << QByteArray("fonarik:normal:9::top-left:X\nfonarik_gt_5:normal:9::top-left:Y\n") << 1 << false
        << QStringList();
}

void TestMarkerDrawing::stringsForPage()
{
    QFETCH(QByteArray, templateText);
    QFETCH(int, page);
    QFETCH(bool, lastPage);
    QFETCH(QStringList, expected);

    readMarkerTemplate(templateText);
    const MarkerPositionMap map = Marker::instance().stringsForPage(page, lastPage);
    QStringList entries;
    QStringList sizes;
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        for (const MarkerStringPtr& string : it.value()) {
            entries.append(it.key() + QLatin1Char('=') + string->text);
            sizes.append(QString::number(double(string->fontSize)));
        }
    }
    QCOMPARE(entries, expected);

    // drawMarker paints exactly the selected strings (bottom positions come
    // after top ones, so compare as sets of sizes per count).
    QStringList painted = selectedSizes(markerOutput(page, lastPage));
    painted.sort();
    sizes.sort();
    QCOMPARE(painted, sizes);
}

void TestMarkerDrawing::templateWithoutStrings()
{
    setVariables({"MarkerTopShift=14"});
    COMPARE_BYTES(markerOutput(1, true), commonSection(false, definitions("14", "0", "0", "0", "0")));
    COMPARE_BYTES(markerOutput(2, false), commonSection(false, definitions("14", "0", "0", "0", "0")));
}

void TestMarkerDrawing::sixPositionsInFixedOrder()
{
    // The map's own key order (bottom-center first) is not the painting order.
    MarkerPositionMap map;
    for (int position = 0; position < 6; ++position)
        map.insert(QLatin1String(PositionNames[position]), {makeString(QStringLiteral("x"), 0, float(position + 1))});

    QByteArray expected = commonSection(false);
    for (int position = 0; position < 6; ++position)
        expected += stackStart(position) + paintedString(position, 0, QByteArray::number(position + 1), 1, false);
    const QByteArray output = pageOutput(map);
    COMPARE_BYTES(output, expected);
    QCOMPARE(selectedSizes(output), (QStringList{"1", "2", "3", "4", "5", "6"}));
}

void TestMarkerDrawing::completeBlockMatchesGolden()
{
    // A landscape page with definitions, strings at all six positions (some
    // stacked, some underlined, several styles) and one coordinate position.
    setVariables({"MarkerTopShift=14", "MarkerBottomShift=16", "MarkerLeftShift=28", "MarkerRightShift=30",
                  "MarkerStringInterval=2"});
    MarkerPositionMap map;
    map.insert(QStringLiteral("top-left"),
               {makeString(QStringLiteral("ab"), 0, 12.0f), makeString(QStringLiteral("cde"), 1, 10.0f, true)});
    map.insert(QStringLiteral("top-center"), {makeString(QStringLiteral("f"), 2, 9.5f)});
    map.insert(QStringLiteral("top-right"), {makeString(QStringLiteral("gh"), 3, 8.0f)});
    map.insert(QStringLiteral("bottom-left"),
               {makeString(QStringLiteral("ij"), 0, 11.0f), makeString(QStringLiteral("k"), 0, 7.0f, true)});
    map.insert(QStringLiteral("bottom-center"), {makeString(QStringLiteral("lmn"), 1, 12.0f, true)});
    map.insert(QStringLiteral("bottom-right"), {makeString(QStringLiteral("o"), 0, 6.0f)});
    map.insert(QStringLiteral("{20;30}"), {makeString(QStringLiteral("pq"), 0, 12.0f)});

    const QByteArray golden = readFile(testsSourceDir() + QStringLiteral("/marker/golden/page-block-landscape.ps"));
    QVERIFY(!golden.isEmpty());
    COMPARE_BYTES(pageOutput(map, false, true), golden);
}

void TestMarkerDrawing::coordinatePositionsAfterNamedOnesInKeyOrder()
{
    MarkerPositionMap map;
    map.insert(QStringLiteral("{5;5}"), {makeString(QStringLiteral("a"), 0, 8.0f)});
    map.insert(QStringLiteral("{10;10}"), {makeString(QStringLiteral("a"), 0, 7.0f)});
    map.insert(QStringLiteral("top-left"), {makeString(QStringLiteral("a"), 0, 1.0f)});
    map.insert(QStringLiteral("bottom-right"), {makeString(QStringLiteral("a"), 0, 6.0f)});

    const QByteArray expected = commonSection(false) + TopStart + paintedString(0, 0, "1", 1, false)
        + BottomStart + paintedString(5, 0, "6", 1, false)
        + "/markerTopShift 10 def\n/markerLeftShift 10 def\n" + TopStart + paintedString(0, 0, "7", 1, false)
        + "/markerTopShift 5 def\n/markerLeftShift 5 def\n" + TopStart + paintedString(0, 0, "8", 1, false);
    COMPARE_BYTES(pageOutput(map), expected);
}

void TestMarkerDrawing::coordinatePositionsMustBeginWithBrace()
{
    // Both keys are accepted by the template reader; only the one that
    // begins with "{" is painted.
    readMarkerTemplate("any:normal:9::x{1;2}y:hidden\nany:normal:8::{1;2}tail:shown\n");
    const MarkerPositionMap any = Marker::instance().strings().value(2);
    QVERIFY(any.contains(QStringLiteral("x{1;2}y")));
    QVERIFY(any.contains(QStringLiteral("{1;2}tail")));

    COMPARE_BYTES(markerOutput(1, true), commonSection(false) + "/markerTopShift 2 def\n/markerLeftShift 1 def\n"
                                             + TopStart + paintedString(0, 0, "8", 5, false));

    // Nor is any other key outside the six names painted.
    MarkerPositionMap map;
    map.insert(QStringLiteral("x{1;2}y"), {makeString(QStringLiteral("a"))});
    map.insert(QStringLiteral("Top-Left"), {makeString(QStringLiteral("a"))});
    COMPARE_BYTES(pageOutput(map), commonSection(false));
}

void TestMarkerDrawing::fonarikSelection_data()
{
    QTest::addColumn<QByteArray>("templateText");
    QTest::addColumn<int>("count");
    QTest::addColumn<QStringList>("sizes"); // 9: fonarik, 10: fonarik_gt_5

    const QByteArray both = "fonarik:normal:9::top-left:F\n"
                            "fonarik_gt_5:normal:10::top-left:G\n"
                            "any:normal:11::top-left:A\n"
                            "first:normal:12::top-left:B\n";

    QTest::newRow("default boundary 3, count 4: fonarik_gt_5 strings") << both << 4 << QStringList{"10"};
    QTest::newRow("default boundary 3, count 3: fonarik strings") << both << 3 << QStringList{"9"};
    QTest::newRow("default boundary 3, count 0: fonarik strings") << both << 0 << QStringList{"9"};
    QTest::newRow("boundary 5, count 5: fonarik strings")
        << ("fonarik_boundary=5\n" + both) << 5 << QStringList{"9"};
    QTest::newRow("boundary 5, count 6: fonarik_gt_5 strings")
        << ("fonarik_boundary=5\n" + both) << 6 << QStringList{"10"};
    QTest::newRow("no fallback to fonarik_gt_5 when fonarik is empty")
        << QByteArray("fonarik_gt_5:normal:10::top-left:G\n") << 1 << QStringList();
    QTest::newRow("no fallback to fonarik when fonarik_gt_5 is empty")
        << QByteArray("fonarik:normal:9::top-left:F\n") << 10 << QStringList();
}

void TestMarkerDrawing::fonarikSelection()
{
    QFETCH(QByteArray, templateText);
    QFETCH(int, count);
    QFETCH(QStringList, sizes);

    readMarkerTemplate(templateText);
    QCOMPARE(selectedSizes(fonarikOutput(count)), sizes);

    QStringList selected;
    const MarkerPositionMap map = Marker::instance().fonarikStrings(count);
    for (const MarkerStringList& list : map)
        for (const MarkerStringPtr& string : list)
            selected.append(QString::number(double(string->fontSize)));
    QCOMPARE(selected, sizes);
}

void TestMarkerDrawing::fonarikBlock_data()
{
    QTest::addColumn<QStringList>("variables");
    QTest::addColumn<QByteArray>("expected");

    const QStringList keys = {"A4:P:FonarikTopShift=21", "A4:P:FonarikBottomShift=22", "A4:P:FonarikLeftShift=23",
                              "A4:P:FonarikRightShift=24", "A4:P:FonarikStringInterval=25",
                              "A4:L:FonarikTopShift=31", "MarkerTopShift=99", "MarkerStringInterval=98"};
    const QByteArray portrait = definitions("21", "22", "23", "24", "25");
    const QByteArray landscape = definitions("31", "0", "0", "0", "0");

    QTest::newRow("fonarik keys A4:P: are used, MarkerTopShift is not")
        << keys << commonSection(false, portrait);
    QTest::newRow("LANDSCAPE beginning with 1 turns the block and reads A4:L:")
        << (keys + QStringList{"LANDSCAPE=1,0"}) << commonSection(true, landscape);
    QTest::newRow("LANDSCAPE 10 begins with 1: landscape") << (keys + QStringList{"LANDSCAPE=10"})
                                                           << commonSection(true, landscape);
    QTest::newRow("LANDSCAPE 0,1 is portrait for the fonarik block")
        << (keys + QStringList{"LANDSCAPE=0,1"}) << commonSection(false, portrait);
    QTest::newRow("LANDSCAPE \" 1\" is portrait") << (keys + QStringList{"LANDSCAPE= 1"})
                                                << commonSection(false, portrait);
    QTest::newRow("PAGE_FORMAT letter landscape reads LETTER:L:")
        << QStringList{"LANDSCAPE=1", "PAGE_FORMAT=letter", "LETTER:L:FonarikLeftShift=5", "A4:L:FonarikLeftShift=6"}
        << commonSection(true, definitions("0", "0", "5", "0", "0"));
}

void TestMarkerDrawing::fonarikBlock()
{
    QFETCH(QStringList, variables);
    QFETCH(QByteArray, expected);

    setVariables(variables);
    // Only regular strings in the template: the fonarik block paints none
    // of them.
    readMarkerTemplate("any:normal:12::top-left:A\nfirst:normal:12::top-left:B\n");
    COMPARE_BYTES(fonarikOutput(4), expected);
    COMPARE_BYTES(fonarikOutput(1), expected);
}

QTEST_GUILESS_MAIN(TestMarkerDrawing)
#include "tst_markerdrawing.moc"
