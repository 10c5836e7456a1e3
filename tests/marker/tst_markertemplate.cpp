// Tests of the marker template reader: field and keyword rules, positions,
// page types, load-time expansion, font styles and the reader's warnings.
#include "marker/marker.h"
#include "settings/variables.h"
#include "support/messagerecorder.h"
#include "support/testsupport.h"

#include <QTest>
#include <QTextCodec>

#include <memory>

namespace {

// All strings of the model, one entry per string, as "pagetype|position".
QStringList placements()
{
    QStringList result;
    const auto& strings = Marker::instance().strings();
    for (auto page = strings.cbegin(); page != strings.cend(); ++page) {
        for (auto position = page.value().cbegin(); position != page.value().cend(); ++position) {
            for (int i = 0; i < position.value().size(); ++i)
                result.append(QStringLiteral("%1|%2").arg(page.key()).arg(position.key()));
        }
    }
    return result;
}

MarkerStringList stringsAt(int pageType, const QString& position)
{
    return Marker::instance().strings().value(pageType).value(position);
}

// The shown text of each string at a place: the expanded text for strings
// expanded at load time, the template text otherwise.
QStringList textsAt(int pageType, const QString& position)
{
    QStringList texts;
    for (const MarkerStringPtr& string : stringsAt(pageType, position))
        texts.append(string->expanded ? string->expandedText : string->text);
    return texts;
}

QSet<int> styleSet(std::initializer_list<int> styles)
{
    return QSet<int>(styles);
}

// A one-page document that the filter accepts.
const QByteArray onePageDocument = "%!PS-Adobe-3.0\n"
                                   "%%Pages: 1\n"
                                   "%%EndComments\n"
                                   "%%Page: 1 1\n"
                                   "newpath 100 100 moveto 200 200 lineto stroke\n"
                                   "showpage\n"
                                   "%%PageTrailer\n"
                                   "%%Trailer\n"
                                   "%%EOF\n";

} // namespace

class TestMarkerTemplate : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void stringFields_data();
    void stringFields();
    void fontStyleWords_data();
    void fontStyleWords();
    void fontSizes_data();
    void fontSizes();
    void fontSizesNoInterpreterReads_data();
    void fontSizesNoInterpreterReads();
    void underlineField_data();
    void underlineField();
    void pageTypes_data();
    void pageTypes();
    void positions_data();
    void positions();
    void braceProtection_data();
    void braceProtection();
    void whitespace_data();
    void whitespace();
    void keywords_data();
    void keywords();
    void defaultsWithoutKeywords();
    void loadTimeExpansion_data();
    void loadTimeExpansion();
    void stringCountIsBounded_data();
    void stringCountIsBounded();
    void expandedPiecesCopyAttributes();
    void expansionUsesStoreAtReadTime();
    void replaceUnderscoreAppliesFromItsLineOn();
    void templateOrderPerPosition();
    void secondReadAddsStringsButResetsStyles();
    void fontStylesInUse_data();
    void fontStylesInUse();
    void storeCharsetOverride_data();
    void storeCharsetOverride();
    void charsetOutsideCharsetsFolder_data();
    void charsetOutsideCharsetsFolder();
    void warnings_data();
    void warnings();
    void warningOnStandardErrorOfRun();

private:
    // Messages sent to the logging facility while a test case runs.
    std::unique_ptr<MessageRecorder> m_messages;
};

void TestMarkerTemplate::initTestCase()
{
    // Warnings carry the offending text in the local 8-bit encoding.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}

void TestMarkerTemplate::init()
{
    Variables::instance().clear();
    Marker::instance().reset();
    m_messages.reset(new MessageRecorder);
}

void TestMarkerTemplate::cleanup()
{
    m_messages.reset();
}

// --- Marker string lines -----------------------------------------------------

void TestMarkerTemplate::stringFields_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<int>("pageType");
    QTest::addColumn<QString>("position");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("fontStyle");
    QTest::addColumn<float>("fontSize");
    QTest::addColumn<bool>("underline");
    QTest::addColumn<QString>("extra");

    QTest::newRow("seven fields: type, style, size, underline, extra, position, text")
        << QByteArray("first:bold:10:underline:x:top-left:Page 1") << 0 << "top-left" << "Page 1" << 1 << 10.0f
        << true << "x";
    QTest::newRow("six fields: type, style, size, extra, position, text")
        << QByteArray("last:italic:9:ex:top-right:Hello") << 1 << "top-right" << "Hello" << 2 << 9.0f << false << "ex";
    QTest::newRow("six fields never read the fourth field as underline")
        << QByteArray("any:normal:14:underline:bottom-left:T") << 2 << "bottom-left" << "T" << 0 << 14.0f << false
        << "underline";
    QTest::newRow("seven fields with empty underline and empty extra")
        << QByteArray("fonarik:bolditalic:11:::bottom-center:T") << 3 << "bottom-center" << "T" << 3 << 11.0f
        << false << "";
    QTest::newRow("extra kept verbatim, inner blanks included")
        << QByteArray("any:normal:12::some extra words:top-center:T") << 2 << "top-center" << "T" << 0 << 12.0f
        << false << "some extra words";
    QTest::newRow("empty text is a string too")
        << QByteArray("any:normal:12::x:top-left:") << 2 << "top-left" << "" << 0 << 12.0f << false << "x";
    QTest::newRow("equals sign in a string line does not make it a keyword")
        << QByteArray("any:normal:12::x:top-left:a=b=c") << 2 << "top-left" << "a=b=c" << 0 << 12.0f << false << "x";
    QTest::newRow("text decoded as UTF-8")
        << QByteArray("any:normal:12::x:top-left:\xd0\xa1\xd0\xb5\xd0\xba\xd1\x80\xd0\xb5\xd1\x82\xd0\xbd\xd0\xbe")
        << 2 << "top-left" << QString::fromUtf8("Секретно") << 0 << 12.0f << false << "x";
    QTest::newRow("braced-only text is kept as written")
        << QByteArray("any:normal:12::x:top-left:Page {CURRENT_PAGE} of {NUM_PAGES}") << 2 << "top-left"
        << "Page {CURRENT_PAGE} of {NUM_PAGES}" << 0 << 12.0f << false << "x";
    QTest::newRow("only an opening square bracket: not expanded")
        << QByteArray("any:normal:12::x:top-left:[DATE") << 2 << "top-left" << "[DATE" << 0 << 12.0f << false << "x";
    QTest::newRow("only a closing square bracket: not expanded")
        << QByteArray("any:normal:12::x:top-left:DATE]") << 2 << "top-left" << "DATE]" << 0 << 12.0f << false << "x";
}

void TestMarkerTemplate::stringFields()
{
    QFETCH(QByteArray, line);
    QFETCH(int, pageType);
    QFETCH(QString, position);
    QFETCH(QString, text);
    QFETCH(int, fontStyle);
    QFETCH(float, fontSize);
    QFETCH(bool, underline);
    QFETCH(QString, extra);

    Variables::instance().insert(QStringLiteral("DATE"), QStringLiteral("01.02.2024"));
    readMarkerTemplate(line + '\n');

    QCOMPARE(m_messages->texts(QtWarningMsg), QStringList());
    QCOMPARE(placements(), QStringList{QStringLiteral("%1|%2").arg(pageType).arg(position)});
    const MarkerStringPtr string = stringsAt(pageType, position).value(0);
    QVERIFY(string);
    QCOMPARE(string->text, text);
    QCOMPARE(string->expandedText, QString());
    QCOMPARE(string->expanded, false);
    QCOMPARE(string->fontStyle, fontStyle);
    QCOMPARE(string->fontSize, fontSize);
    QCOMPARE(string->underline, underline);
    QCOMPARE(string->extra, extra);
}

void TestMarkerTemplate::fontStyleWords_data()
{
    QTest::addColumn<QString>("word");
    QTest::addColumn<int>("style");

    QTest::newRow("normal is 0") << "normal" << 0;
    QTest::newRow("bold is 1") << "bold" << 1;
    QTest::newRow("italic is 2") << "italic" << 2;
    QTest::newRow("bolditalic is 3") << "bolditalic" << 3;
    QTest::newRow("style words are case-sensitive: Bold is 0") << "Bold" << 0;
    QTest::newRow("unknown word is 0") << "heavy" << 0;
    QTest::newRow("two words are not one style: bold italic is 0") << "bold italic" << 0;
    QTest::newRow("empty style is 0") << "" << 0;
}

void TestMarkerTemplate::fontStyleWords()
{
    QFETCH(QString, word);
    QFETCH(int, style);

    readMarkerTemplate(QStringLiteral("any:%1:12::x:top-left:T\n").arg(word).toUtf8());

    const MarkerStringPtr string = stringsAt(2, QStringLiteral("top-left")).value(0);
    QVERIFY(string);
    QCOMPARE(string->fontStyle, style);
    QCOMPARE(Marker::instance().fontStyles(), styleSet({style}));
    QCOMPARE(m_messages->texts(QtWarningMsg), QStringList());
}

void TestMarkerTemplate::fontSizes_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<float>("size");

    QTest::newRow("whole number") << "10" << 10.0f;
    QTest::newRow("dot is the decimal point") << "10.5" << 10.5f;
    QTest::newRow("small positive size kept") << "0.25" << 0.25f;
    QTest::newRow("comma is not a decimal point: 12.0") << "10,5" << 12.0f;
    QTest::newRow("zero gives 12.0") << "0" << 12.0f;
    QTest::newRow("negative gives 12.0") << "-3" << 12.0f;
    QTest::newRow("unreadable gives 12.0") << "big" << 12.0f;
    QTest::newRow("number with a unit is unreadable: 12.0") << "10pt" << 12.0f;
    QTest::newRow("empty gives 12.0") << "" << 12.0f;
}

void TestMarkerTemplate::fontSizes()
{
    QFETCH(QString, field);
    QFETCH(float, size);

    readMarkerTemplate(QStringLiteral("any:normal:%1::x:top-left:T\n").arg(field).toUtf8());

    const MarkerStringPtr string = stringsAt(2, QStringLiteral("top-left")).value(0);
    QVERIFY(string);
    QCOMPARE(string->fontSize, size);
}

// A size that converts but that no interpreter could read back gives 12 and
// a warning; a size that never converted still gives 12 silently.
void TestMarkerTemplate::fontSizesNoInterpreterReads_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<QStringList>("warnings");

    const auto refused = [](const char* field) {
        return QStringList{QStringLiteral("Font size '%1' is not a PostScript number, 12 is used!")
                               .arg(QLatin1String(field))};
    };
    QTest::newRow("inf") << "inf" << refused("inf");
    QTest::newRow("+inf") << "+inf" << refused("+inf");
    QTest::newRow("INF") << "INF" << refused("INF");
    QTest::newRow("below the smallest PostScript real: 1e-40") << "1e-40" << refused("1e-40");
    QTest::newRow("-inf is not positive: silent") << "-inf" << QStringList{};
    QTest::newRow("nan is not positive: silent") << "nan" << QStringList{};
    QTest::newRow("beyond single precision never converted: silent") << "1e40" << QStringList{};
}

void TestMarkerTemplate::fontSizesNoInterpreterReads()
{
    QFETCH(QString, field);
    QFETCH(QStringList, warnings);

    readMarkerTemplate(QStringLiteral("any:normal:%1::x:top-left:T\n").arg(field).toUtf8());

    const MarkerStringPtr string = stringsAt(2, QStringLiteral("top-left")).value(0);
    QVERIFY(string);
    QCOMPARE(string->fontSize, 12.0f);
    QCOMPARE(m_messages->texts(QtWarningMsg), warnings);
}

void TestMarkerTemplate::underlineField_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<bool>("underline");

    QTest::newRow("exactly underline turns it on") << "underline" << true;
    QTest::newRow("Underline with capital is off") << "Underline" << false;
    QTest::newRow("underlined is off") << "underlined" << false;
    QTest::newRow("yes is off") << "yes" << false;
    QTest::newRow("1 is off") << "1" << false;
    QTest::newRow("empty is off") << "" << false;
}

void TestMarkerTemplate::underlineField()
{
    QFETCH(QString, field);
    QFETCH(bool, underline);

    readMarkerTemplate(QStringLiteral("any:normal:12:%1:x:top-left:T\n").arg(field).toUtf8());

    const MarkerStringPtr string = stringsAt(2, QStringLiteral("top-left")).value(0);
    QVERIFY(string);
    QCOMPARE(string->underline, underline);
    QCOMPARE(string->extra, QStringLiteral("x"));
}

void TestMarkerTemplate::pageTypes_data()
{
    QTest::addColumn<QString>("word");
    QTest::addColumn<int>("pageType");

    QTest::newRow("first is 0") << "first" << 0;
    QTest::newRow("last is 1") << "last" << 1;
    QTest::newRow("any is 2") << "any" << 2;
    QTest::newRow("fonarik is 3") << "fonarik" << 3;
    QTest::newRow("fonarik_gt_5 is 4") << "fonarik_gt_5" << 4;
}

void TestMarkerTemplate::pageTypes()
{
    QFETCH(QString, word);
    QFETCH(int, pageType);

    readMarkerTemplate(QStringLiteral("%1:normal:12::x:top-left:T\n").arg(word).toUtf8());

    QCOMPARE(m_messages->texts(QtWarningMsg), QStringList());
    QCOMPARE(placements(), QStringList{QStringLiteral("%1|top-left").arg(pageType)});
}

void TestMarkerTemplate::positions_data()
{
    QTest::addColumn<QString>("position");

    QTest::newRow("top-left") << "top-left";
    QTest::newRow("top-center") << "top-center";
    QTest::newRow("top-right") << "top-right";
    QTest::newRow("bottom-left") << "bottom-left";
    QTest::newRow("bottom-center") << "bottom-center";
    QTest::newRow("bottom-right") << "bottom-right";
    QTest::newRow("two bare numbers") << "{20;30}";
    QTest::newRow("bare numbers with dots and commas") << "{1,5;2.75}";
    QTest::newRow("two numbers in millimetres") << "{10mm;12mm}";
    QTest::newRow("millimetres with decimals") << "{10.5mm;0,5mm}";
    QTest::newRow("match anywhere, stored as written") << "x{1;2}y";
    QTest::newRow("millimetre match anywhere, stored as written") << "at {10mm;12mm} please";
    QTest::newRow("one good match among other braces") << "{a;b}{3;4}";
}

void TestMarkerTemplate::positions()
{
    QFETCH(QString, position);

    readMarkerTemplate(QStringLiteral("first:normal:12::x:%1:T\n").arg(position).toUtf8());

    QCOMPARE(m_messages->texts(QtWarningMsg), QStringList());
    QCOMPARE(placements(), QStringList{QStringLiteral("0|%1").arg(position)});
    QCOMPARE(textsAt(0, position), QStringList{QStringLiteral("T")});
}

void TestMarkerTemplate::braceProtection_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("position");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("fontStyle");

    QTest::newRow("colon inside braces does not split the text")
        << QByteArray("any:normal:12::top-left:{FREEIPA:cn}") << "top-left" << "{FREEIPA:cn}" << 0;
    QTest::newRow("several braced colons in one text")
        << QByteArray("any:bold:12::top-left:{SCRIPT:/bin/a:b} and {FREEIPA:cn}") << "top-left"
        << "{SCRIPT:/bin/a:b} and {FREEIPA:cn}" << 1;
    QTest::newRow("braces protect in any field, not only the text")
        << QByteArray("any:{bold:x}:12::top-left:T") << "top-left" << "T" << 0;
    QTest::newRow("an unclosed brace protects to the end of the line")
        << QByteArray("any:normal:12::top-left:{open:x:y") << "top-left" << "{open:x:y" << 0;
    QTest::newRow("a closing brace before any opening one changes nothing")
        << QByteArray("any:normal:12::top-left:a}b") << "top-left" << "a}b" << 0;
    QTest::newRow("braced coordinates hold no colon and split normally")
        << QByteArray("any:normal:12::{5mm;6mm}:{CURRENT_PAGE}") << "{5mm;6mm}" << "{CURRENT_PAGE}" << 0;
}

void TestMarkerTemplate::braceProtection()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, position);
    QFETCH(QString, text);
    QFETCH(int, fontStyle);

    readMarkerTemplate(line + '\n');

    QCOMPARE(m_messages->texts(QtWarningMsg), QStringList());
    QCOMPARE(placements(), QStringList{QStringLiteral("2|%1").arg(position)});
    const MarkerStringPtr string = stringsAt(2, position).value(0);
    QVERIFY(string);
    QCOMPARE(string->text, text);
    QCOMPARE(string->expanded, false);
    QCOMPARE(string->fontStyle, fontStyle);
}

void TestMarkerTemplate::whitespace_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("text");

    QTest::newRow("inner run of blanks becomes one blank, ends trimmed")
        << QByteArray("   first:bold:12::top-left:A   B   \n") << "A B";
    QTest::newRow("tabs count as whitespace") << QByteArray("\tfirst:bold:12::top-left:A\t\t B\t\n") << "A B";
    QTest::newRow("carriage return of CRLF lines removed") << QByteArray("first:bold:12::top-left:A B\r\n") << "A B";
    QTest::newRow("blank and whitespace-only lines skipped silently")
        << QByteArray("\n   \n\t\nfirst:bold:12::top-left:A\n\n") << "A";
    QTest::newRow("last line without line feed is read") << QByteArray("\nfirst:bold:12::top-left:A") << "A";
}

void TestMarkerTemplate::whitespace()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, text);

    readMarkerTemplate(content);

    QCOMPARE(m_messages->texts(QtWarningMsg), QStringList());
    QCOMPARE(placements(), QStringList{QStringLiteral("0|top-left")});
    QCOMPARE(textsAt(0, QStringLiteral("top-left")), QStringList{text});
}

// --- Keyword lines -------------------------------------------------------------

void TestMarkerTemplate::keywords_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("charset");
    QTest::addColumn<bool>("replaceUnderscore");
    QTest::addColumn<int>("fonarikBoundary");

    const QString utf8 = QStringLiteral("utf-8");

    QTest::newRow("charset sets the charset") << QByteArray("charset=koi8-r\n") << "koi8-r" << false << 3;
    QTest::newRow("keywords are case-insensitive: CHARSET") << QByteArray("CHARSET=koi8-r\n") << "koi8-r" << false << 3;
    QTest::newRow("keyword is a prefix: charset_name= is charset")
        << QByteArray("charset_name=cp1251\n") << "cp1251" << false << 3;
    QTest::newRow("value ends at the second equals sign") << QByteArray("charset=a=b\n") << "a" << false << 3;
    QTest::newRow("charset value untrimmed, leading blank kept")
        << QByteArray("charset = koi8-r\n") << " koi8-r" << false << 3;
    QTest::newRow("empty charset value") << QByteArray("charset=\n") << "" << false << 3;
    QTest::newRow("later charset line wins") << QByteArray("charset=a\ncharset=b\n") << "b" << false << 3;

    QTest::newRow("replace_underscore=1 sets the flag") << QByteArray("replace_underscore=1\n") << utf8 << true << 3;
    QTest::newRow("replace_underscore value trimmed") << QByteArray("replace_underscore= 1 \n") << utf8 << true << 3;
    QTest::newRow("REPLACE_UNDERSCORE is the same keyword")
        << QByteArray("REPLACE_UNDERSCORE=1\n") << utf8 << true << 3;
    QTest::newRow("replace_underscore=true is false") << QByteArray("replace_underscore=true\n") << utf8 << false << 3;
    QTest::newRow("replace_underscore=01 is false") << QByteArray("replace_underscore=01\n") << utf8 << false << 3;
    QTest::newRow("replace_underscore other than 1 clears an earlier 1")
        << QByteArray("replace_underscore=1\nreplace_underscore=yes\n") << utf8 << false << 3;
    QTest::newRow("replace_underscore value ends at second equals sign")
        << QByteArray("replace_underscore=1=0\n") << utf8 << true << 3;

    QTest::newRow("positive fonarik_boundary sets it") << QByteArray("fonarik_boundary=5\n") << utf8 << false << 5;
    QTest::newRow("fonarik_boundary value trimmed") << QByteArray("fonarik_boundary = 7 \n") << utf8 << false << 7;
    QTest::newRow("Fonarik_Boundary is the same keyword") << QByteArray("Fonarik_Boundary=9\n") << utf8 << false << 9;
    QTest::newRow("fonarik_boundary=0 keeps the default") << QByteArray("fonarik_boundary=0\n") << utf8 << false << 3;
    QTest::newRow("fonarik_boundary=x keeps the default") << QByteArray("fonarik_boundary=x\n") << utf8 << false << 3;
    QTest::newRow("negative fonarik_boundary keeps the default")
        << QByteArray("fonarik_boundary=-4\n") << utf8 << false << 3;
    QTest::newRow("fonarik_boundary is decimal: 0x10 keeps the default")
        << QByteArray("fonarik_boundary=0x10\n") << utf8 << false << 3;
    QTest::newRow("fonarik_boundary=0 keeps an earlier value")
        << QByteArray("fonarik_boundary=5\nfonarik_boundary=0\n") << utf8 << false << 5;
    QTest::newRow("fonarik_boundary=x keeps an earlier value")
        << QByteArray("fonarik_boundary=5\nfonarik_boundary=x\n") << utf8 << false << 5;
    QTest::newRow("later positive fonarik_boundary replaces an earlier one")
        << QByteArray("fonarik_boundary=5\nfonarik_boundary=8\n") << utf8 << false << 8;

    QTest::newRow("all three keywords together")
        << QByteArray("  charset=cp1251\nreplace_underscore=1\nfonarik_boundary=6  \n") << "cp1251" << true << 6;
}

void TestMarkerTemplate::keywords()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, charset);
    QFETCH(bool, replaceUnderscore);
    QFETCH(int, fonarikBoundary);

    readMarkerTemplate(content);

    QCOMPARE(m_messages->texts(QtWarningMsg), QStringList());
    QCOMPARE(m_messages->countOtherThan(QtWarningMsg), 0);
    QCOMPARE(Marker::instance().charset(), charset);
    QCOMPARE(Marker::instance().replaceUnderscore(), replaceUnderscore);
    QCOMPARE(Marker::instance().fonarikBoundary(), fonarikBoundary);
    QCOMPARE(placements(), QStringList());
    QCOMPARE(Marker::instance().fontStyles(), QSet<int>());
}

void TestMarkerTemplate::defaultsWithoutKeywords()
{
    readMarkerTemplate("any:normal:12::x:top-left:T\n");

    QCOMPARE(Marker::instance().charset(), QStringLiteral("utf-8"));
    QCOMPARE(Marker::instance().replaceUnderscore(), false);
    QCOMPARE(Marker::instance().fonarikBoundary(), 3);
}

// --- Load-time expansion ---------------------------------------------------------

void TestMarkerTemplate::loadTimeExpansion_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QStringList>("pieces");

    QTest::newRow("square-bracketed reference expanded at load time")
        << QByteArray("[DATE]") << QStringList{QStringLiteral("01.02.2024")};
    QTest::newRow("caret splits into strings in piece order")
        << QByteArray("[A]^[B]") << QStringList{QStringLiteral("alpha"), QStringLiteral("beta")};
    QTest::newRow("empty pieces are kept")
        << QByteArray("^[A]^^x^")
        << QStringList{QString(), QStringLiteral("alpha"), QString(), QStringLiteral("x"), QString()};
    QTest::newRow("caret inside a value splits too")
        << QByteArray("[SPLIT]") << QStringList{QStringLiteral("one"), QStringLiteral("two")};
    QTest::newRow("braced reference beside a square-bracketed one expanded at load time")
        << QByteArray("{CURRENT_PAGE} of [A]") << QStringList{QStringLiteral("7 of alpha")};
    QTest::newRow("mixed brackets [A} count as square brackets")
        << QByteArray("[A}+{B]") << QStringList{QStringLiteral("alpha+beta")};
    QTest::newRow("brackets in any order trigger expansion")
        << QByteArray("]x[") << QStringList{QStringLiteral("]x[")};
    QTest::newRow("absent key expands to empty text") << QByteArray("<[MISSING]>") << QStringList{QStringLiteral("<>")};
    QTest::newRow("braced script reference with square brackets runs at load time")
        << QByteArray("[A] {SCRIPT:/bin/echo hi}") << QStringList{QStringLiteral("alpha hi")};
}

// A template holds at most 4096 strings, pieces of "^"-split texts counted
// one by one; what lies beyond is ignored with one warning.
void TestMarkerTemplate::stringCountIsBounded_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("kept");
    QTest::addColumn<bool>("warned");

    const QByteArray line = "any:normal:12::top-left:x\n";
    QTest::newRow("4096 string lines: all kept") << line.repeated(4096) << 4096 << false;
    QTest::newRow("5000 string lines: 4096 kept") << line.repeated(5000) << 4096 << true;
    QTest::newRow("a text of 4096 pieces: all kept")
        << "any:normal:12::top-left:[A]" + QByteArray("^").repeated(4095) + '\n'
        << 4096 << false;
    QTest::newRow("a text of a million pieces: 4096 kept")
        << "any:normal:12::top-left:[A]" + QByteArray("x^").repeated(1000000) + '\n'
        << 4096 << true;
    QTest::newRow("lines after the bound are ignored, whatever their position")
        << line.repeated(4096) + "any:normal:12::bottom-left:y\n"
        << 4096 << true;
}

void TestMarkerTemplate::stringCountIsBounded()
{
    QFETCH(QByteArray, content);
    QFETCH(int, kept);
    QFETCH(bool, warned);

    readMarkerTemplate(content);

    QCOMPARE(stringsAt(2, QStringLiteral("top-left")).size(), kept);
    QCOMPARE(stringsAt(2, QStringLiteral("bottom-left")).size(), 0);
    QCOMPARE(m_messages->texts(QtWarningMsg),
             warned ? QStringList{QStringLiteral(
                          "Template holds more than 4096 marker strings, the rest is ignored!")}
                    : QStringList{});
}

void TestMarkerTemplate::loadTimeExpansion()
{
    QFETCH(QByteArray, text);
    QFETCH(QStringList, pieces);

    Variables& variables = Variables::instance();
    variables.insert(QStringLiteral("DATE"), QStringLiteral("01.02.2024"));
    variables.insert(QStringLiteral("A"), QStringLiteral("alpha"));
    variables.insert(QStringLiteral("B"), QStringLiteral("beta"));
    variables.insert(QStringLiteral("SPLIT"), QStringLiteral("one^two"));
    variables.insert(QStringLiteral("CURRENT_PAGE"), QStringLiteral("7"));

    readMarkerTemplate("any:normal:0:x:bottom-right:" + text + '\n');

    QCOMPARE(m_messages->texts(QtWarningMsg), QStringList());
    QCOMPARE(textsAt(2, QStringLiteral("bottom-right")), pieces);
    for (const MarkerStringPtr& string : stringsAt(2, QStringLiteral("bottom-right"))) {
        QCOMPARE(string->expanded, true);
        QCOMPARE(string->text, QString());
    }
}

void TestMarkerTemplate::expandedPiecesCopyAttributes()
{
    Variables::instance().insert(QStringLiteral("A"), QStringLiteral("alpha"));

    readMarkerTemplate("last:bolditalic:8.5:underline:ex:{3mm;4mm}:[A]^two^\n");

    const MarkerStringList strings = stringsAt(1, QStringLiteral("{3mm;4mm}"));
    QCOMPARE(strings.size(), 3);
    const QStringList expected{QStringLiteral("alpha"), QStringLiteral("two"), QString()};
    for (int i = 0; i < strings.size(); ++i) {
        const MarkerStringPtr& string = strings.at(i);
        QCOMPARE(string->text, QString());
        QCOMPARE(string->expandedText, expected.at(i));
        QCOMPARE(string->expanded, true);
        QCOMPARE(string->fontStyle, 3);
        QCOMPARE(string->fontSize, 8.5f);
        QCOMPARE(string->underline, true);
        QCOMPARE(string->extra, QStringLiteral("ex"));
    }
    // Every piece is a record of its own.
    QVERIFY(strings.at(0).data() != strings.at(1).data());
    QVERIFY(strings.at(1).data() != strings.at(2).data());
}

void TestMarkerTemplate::expansionUsesStoreAtReadTime()
{
    Variables& variables = Variables::instance();
    variables.insert(QStringLiteral("A"), QStringLiteral("before"));
    variables.insert(QStringLiteral("B"), QStringLiteral("before"));

    readMarkerTemplate("any:normal:12::top-left:[A]\nany:normal:12::top-right:{B}\n");
    variables.insert(QStringLiteral("A"), QStringLiteral("after"));
    variables.insert(QStringLiteral("B"), QStringLiteral("after"));

    QCOMPARE(textsAt(2, QStringLiteral("top-left")), QStringList{QStringLiteral("before")});
    // The braced-only string still holds its reference for per-page expansion.
    QCOMPARE(textsAt(2, QStringLiteral("top-right")), QStringList{QStringLiteral("{B}")});
    QCOMPARE(Marker::instance().expandVariables(stringsAt(2, QStringLiteral("top-right")).value(0)->text),
             QStringLiteral("after"));
}

void TestMarkerTemplate::replaceUnderscoreAppliesFromItsLineOn()
{
    Variables::instance().insert(QStringLiteral("LABEL_NAME"), QStringLiteral("TOP_SECRET"));

    readMarkerTemplate("any:normal:12::top-left:[LABEL_NAME]\n"
                 "replace_underscore=1\n"
                 "any:normal:12::top-right:[LABEL_NAME]\n");

    QCOMPARE(textsAt(2, QStringLiteral("top-left")), QStringList{QStringLiteral("TOP_SECRET")});
    QCOMPARE(textsAt(2, QStringLiteral("top-right")), QStringList{QStringLiteral("TOP SECRET")});
}

void TestMarkerTemplate::templateOrderPerPosition()
{
    Variables& variables = Variables::instance();
    variables.insert(QStringLiteral("A"), QStringLiteral("alpha"));
    variables.insert(QStringLiteral("B"), QStringLiteral("beta"));

    readMarkerTemplate("any:normal:12::top-left:T1\n"
                 "any:normal:12::bottom-left:other\n"
                 "any:normal:12::top-left:[A]^[B]\n"
                 "first:normal:12::top-left:first page only\n"
                 "any:normal:12::top-left:T3\n"
                 "any:normal:12::top-left:T1\n");

    QCOMPARE(textsAt(2, QStringLiteral("top-left")),
             (QStringList{QStringLiteral("T1"), QStringLiteral("alpha"), QStringLiteral("beta"), QStringLiteral("T3"),
                          QStringLiteral("T1")}));
    QCOMPARE(textsAt(2, QStringLiteral("bottom-left")), QStringList{QStringLiteral("other")});
    QCOMPARE(textsAt(0, QStringLiteral("top-left")), QStringList{QStringLiteral("first page only")});
}

void TestMarkerTemplate::secondReadAddsStringsButResetsStyles()
{
    readMarkerTemplate("any:bold:12::top-left:one\n");
    QCOMPARE(Marker::instance().fontStyles(), styleSet({1}));

    readMarkerTemplate("any:italic:12::top-left:two\n");

    QCOMPARE(textsAt(2, QStringLiteral("top-left")), (QStringList{QStringLiteral("one"), QStringLiteral("two")}));
    QCOMPARE(Marker::instance().fontStyles(), styleSet({2}));
}

void TestMarkerTemplate::fontStylesInUse_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QList<int>>("styles");

    QTest::newRow("styles of accepted lines") << QByteArray("any:bold:12::top-left:a\nlast:italic:12::top-left:b\n"
                                                            "first:bold:12::top-left:c\n")
                                              << QList<int>{1, 2};
    QTest::newRow("style of a line with an unknown page type still counts")
        << QByteArray("Any:bolditalic:12::top-left:x\n") << QList<int>{3};
    QTest::newRow("style of a line with an unknown position still counts")
        << QByteArray("any:italic:12::nowhere:x\n") << QList<int>{2};
    QTest::newRow("square-bracketed colon: rejected line still records normal")
        << QByteArray("any:normal:12::top-left:[FREEIPA:cn]\n") << QList<int>{0};
    QTest::newRow("unknown style word records normal") << QByteArray("any:heavy:12::top-left:x\n") << QList<int>{0};
    QTest::newRow("a line with a wrong field count records nothing")
        << QByteArray("any:bold:12:top-left\n") << QList<int>{};
    QTest::newRow("keyword lines record nothing") << QByteArray("charset=koi8-r\nfonarik_boundary=4\n")
                                                  << QList<int>{};
}

void TestMarkerTemplate::fontStylesInUse()
{
    QFETCH(QByteArray, content);
    QFETCH(QList<int>, styles);

    readMarkerTemplate(content);

    QCOMPARE(Marker::instance().fontStyles(), QSet<int>(styles.cbegin(), styles.cend()));
}

void TestMarkerTemplate::storeCharsetOverride_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("inStore");
    QTest::addColumn<QString>("storeValue");
    QTest::addColumn<QString>("charset");

    QTest::newRow("mac-marker-font wins over a charset line")
        << QByteArray("charset=koi8-r\n") << true << "cp1251" << "cp1251";
    QTest::newRow("mac-marker-font wins even when empty") << QByteArray("charset=koi8-r\n") << true << "" << "";
    QTest::newRow("mac-marker-font replaces the default") << QByteArray("") << true << "cp866" << "cp866";
    QTest::newRow("without mac-marker-font the charset line counts")
        << QByteArray("charset=koi8-r\n") << false << "" << "koi8-r";
}

void TestMarkerTemplate::storeCharsetOverride()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, inStore);
    QFETCH(QString, storeValue);
    QFETCH(QString, charset);

    if (inStore)
        Variables::instance().insert(QStringLiteral("mac-marker-font"), storeValue);

    readMarkerTemplate(content);

    QCOMPARE(Marker::instance().charset(), charset);
}

// A charset name is a file name inside the charsets folder: a name that
// would lead out of it is refused with a warning and the default "utf-8".
void TestMarkerTemplate::charsetOutsideCharsetsFolder_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("inStore");
    QTest::addColumn<QString>("storeValue");
    QTest::addColumn<QStringList>("warnings");

    const auto refused = [](const char* name) {
        return QStringList{
            QStringLiteral("Charset name '%1' is not a file of the charsets folder, utf-8 is used!")
                .arg(QLatin1String(name))};
    };
    QTest::newRow("charset line: parent folders")
        << QByteArray("charset=../../../etc/passwd\n") << false << "" << refused("../../../etc/passwd");
    QTest::newRow("charset line: absolute path")
        << QByteArray("charset=/etc/passwd\n") << false << "" << refused("/etc/passwd");
    QTest::newRow("charset line: subfolder")
        << QByteArray("charset=sub/koi8-r\n") << false << "" << refused("sub/koi8-r");
    QTest::newRow("charset line: the parent folder itself")
        << QByteArray("charset=..\n") << false << "" << refused("..");
    QTest::newRow("charset line: two dots inside a name")
        << QByteArray("charset=koi8..r\n") << false << "" << refused("koi8..r");
    QTest::newRow("charset line refused after a good one: the default, not the earlier name")
        << QByteArray("charset=koi8-r\ncharset=../koi8-r\n") << false << "" << refused("../koi8-r");
    QTest::newRow("mac-marker-font: parent folders")
        << QByteArray("") << true << "../../fonts/NimbusSans-Regular"
        << refused("../../fonts/NimbusSans-Regular");
    QTest::newRow("mac-marker-font: absolute path")
        << QByteArray("") << true << "/dev/zero" << refused("/dev/zero");
    QTest::newRow("mac-marker-font refused: the default, not the template's charset line")
        << QByteArray("charset=koi8-r\n") << true << "../koi8-r" << refused("../koi8-r");
    QTest::newRow("mac-marker-font refused after a refused charset line")
        << QByteArray("charset=/a\n") << true << "/b" << (refused("/a") + refused("/b"));
}

void TestMarkerTemplate::charsetOutsideCharsetsFolder()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, inStore);
    QFETCH(QString, storeValue);
    QFETCH(QStringList, warnings);

    if (inStore)
        Variables::instance().insert(QStringLiteral("mac-marker-font"), storeValue);

    readMarkerTemplate(content);

    QCOMPARE(Marker::instance().charset(), QStringLiteral("utf-8"));
    QCOMPARE(m_messages->texts(QtWarningMsg), warnings);
}

// --- Warnings ------------------------------------------------------------------

void TestMarkerTemplate::warnings_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("one field: incorrect format")
        << QByteArray("hello\n") << QStringList{QStringLiteral("Incorrect marker format string 'hello'!")};
    QTest::newRow("five fields: incorrect format")
        << QByteArray("any:normal:12:top-left:T\n")
        << QStringList{QStringLiteral("Incorrect marker format string 'any:normal:12:top-left:T'!")};
    QTest::newRow("eight fields: incorrect format")
        << QByteArray("any:normal:12:underline:x:top-left:a:b\n")
        << QStringList{QStringLiteral("Incorrect marker format string 'any:normal:12:underline:x:top-left:a:b'!")};
    QTest::newRow("incorrect format names the whole simplified line")
        << QByteArray("  any:normal:12:   x   :top-left:a:b:c  \n")
        << QStringList{QStringLiteral("Incorrect marker format string 'any:normal:12: x :top-left:a:b:c'!")};
    QTest::newRow("keyword without equals sign is a string line")
        << QByteArray("charset koi8-r\n") << QStringList{QStringLiteral("Incorrect marker format string 'charset koi8-r'!")};
    QTest::newRow("braces do not nest: the inner closing brace ends protection")
        << QByteArray("first:bold:12:underline:e:top-left:{{A}:B}\n")
        << QStringList{QStringLiteral("Incorrect marker format string 'first:bold:12:underline:e:top-left:{{A}:B}'!")};
    QTest::newRow("page types are case-sensitive")
        << QByteArray("Any:normal:12::top-left:x\n") << QStringList{QStringLiteral("Unknown page type 'Any'!")};
    QTest::newRow("unknown page type word")
        << QByteArray("every:normal:12::top-left:x\n") << QStringList{QStringLiteral("Unknown page type 'every'!")};
    QTest::newRow("blank around the page type is part of it")
        << QByteArray("any :normal:12::top-left:x\n") << QStringList{QStringLiteral("Unknown page type 'any '!")};
    QTest::newRow("page type checked before position: one warning")
        << QByteArray("Any:normal:12::nowhere:x\n") << QStringList{QStringLiteral("Unknown page type 'Any'!")};
    QTest::newRow("square brackets do not protect a colon")
        << QByteArray("any:normal:12::top-left:[FREEIPA:cn]\n")
        << QStringList{QStringLiteral("Unknown position '[FREEIPA'!")};
    QTest::newRow("position words are case-sensitive")
        << QByteArray("any:normal:12::Top-Left:x\n") << QStringList{QStringLiteral("Unknown position 'Top-Left'!")};
    QTest::newRow("unknown position word")
        << QByteArray("any:normal:12::middle:x\n") << QStringList{QStringLiteral("Unknown position 'middle'!")};
    QTest::newRow("coordinates mixing units match neither pattern")
        << QByteArray("any:normal:12::{1mm;2}:x\n") << QStringList{QStringLiteral("Unknown position '{1mm;2}'!")};
    QTest::newRow("coordinates must be digits, dots or commas")
        << QByteArray("any:normal:12::{-1;2}:x\n") << QStringList{QStringLiteral("Unknown position '{-1;2}'!")};
    QTest::newRow("blanks inside coordinates match no pattern")
        << QByteArray("any:normal:12::{1 ; 2}:x\n") << QStringList{QStringLiteral("Unknown position '{1 ; 2}'!")};
    QTest::newRow("coordinates need braces")
        << QByteArray("any:normal:12::1;2:x\n") << QStringList{QStringLiteral("Unknown position '1;2'!")};
    QTest::newRow("nested braces split: position names the piece")
        << QByteArray("any:normal:12::top-left:{{A}:B}\n") << QStringList{QStringLiteral("Unknown position '{{A}'!")};
    QTest::newRow("non-ASCII text in a warning")
        << QByteArray("any:normal:12::\xd0\xb2\xd0\xb5\xd1\x80\xd1\x85:x\n")
        << QStringList{QString::fromUtf8("Unknown position 'верх'!")};
    QTest::newRow("each bad line warns and reading goes on")
        << QByteArray("bad\nany:normal:12::top-left:ok\nAny:normal:12::top-left:x\nany:normal:12::up:x\n")
        << QStringList{QStringLiteral("Incorrect marker format string 'bad'!"),
                       QStringLiteral("Unknown page type 'Any'!"), QStringLiteral("Unknown position 'up'!")};
    QTest::newRow("good lines, keywords and blank lines warn nothing")
        << QByteArray("charset=utf-8\n\nany:normal:12::top-left:ok\n") << QStringList{};
}

void TestMarkerTemplate::warnings()
{
    QFETCH(QByteArray, content);
    QFETCH(QStringList, expected);

    readMarkerTemplate(content);

    QCOMPARE(m_messages->texts(QtWarningMsg), expected);
    QCOMPARE(m_messages->countOtherThan(QtWarningMsg), 0);
    // Rejected lines leave no string behind; only "ok" lines are kept.
    for (const QString& placement : placements())
        QCOMPARE(placement, QStringLiteral("2|top-left"));
    for (const QString& text : textsAt(2, QStringLiteral("top-left")))
        QCOMPARE(text, QStringLiteral("ok"));
}

void TestMarkerTemplate::warningOnStandardErrorOfRun()
{
    m_messages->stop(); // this case checks the child's stream only

    FixtureTree tree;
    tree.copy(catalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("job/in.ps"), onePageDocument);
    tree.write(QStringLiteral("job/marker.tpl"), "any:normal:12::top-left:Page {CURRENT_PAGE}\n"
                                                 "Any:normal:12::top-left:lost\n");
    tree.write(QStringLiteral("job/vars"), "job-originating-user-name=jdoe\n");

    const RunResult result = tree.runQuillet(
        {QStringLiteral("in.ps"), QStringLiteral("marker.tpl"), QStringLiteral("vars"), QStringLiteral("out.ps")});

    QVERIFY2(!result.crashed, result.standardError.constData());
    QCOMPARE(result.exitCode, 0);
    const QList<QByteArray> lines = result.standardError.split('\n');
    QVERIFY2(lines.contains("Unknown page type 'Any'!"), result.standardError.constData());
    QCOMPARE(lines.count("Unknown page type 'Any'!"), 1);
    // The good line was still used.
    const QByteArray output = tree.read(QStringLiteral("job/out.ps"));
    QVERIFY(!output.isEmpty());
    QVERIFY(output.startsWith("%!PS-Adobe-3.0"));
}

QTEST_GUILESS_MAIN(TestMarkerTemplate)
#include "tst_markertemplate.moc"
