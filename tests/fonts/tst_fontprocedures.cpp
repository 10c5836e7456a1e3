// The font pieces of the marker block: font selection lines, the underline
// procedures of the current font, the two-byte hexadecimal encoding of marker
// text and the supplied-resources comment.
//
// Cases that encode text read a catalogue written into the CUPS data
// directory of the test's sandbox (see fontsandbox.h).
#include "fontsandbox.h"

#include "fonts/fonts.h"
#include "support/messagerecorder.h"
#include "support/testsupport.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QTest>

#include <limits>

namespace {

const QByteArray LatinAndCyrillic = "0000 00FF ltor single Sans\n0400 04FF ltor single Sans\n";

// Writes a catalogue of the charset lines and reads it.
bool loadCatalogue(const QByteArray& lines)
{
    FontSandbox::writeCatalogueFile(QStringLiteral("data/psglyphs"), "0041 A\n");
    FontSandbox::writeCatalogueFile(QStringLiteral("charsets/utf-8"), "charset utf8\n" + lines);
    MessageRecorder recorder;
    return Fonts::instance().initialize(QStringLiteral("utf-8")) &&
           recorder.messages() == QStringList{"warning: bool Fonts::initialize(const QString&) \"utf-8\""};
}

// What a Fonts writer puts into a device.
template <typename Write> QByteArray written(Write write)
{
    QByteArray data;
    QBuffer buffer(&data);
    buffer.open(QIODevice::WriteOnly);
    write(buffer);
    return data;
}


} // namespace

class TestFontProcedures : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void setFont_data();
    void setFont();
    void setFontSizeNoInterpreterReads_data();
    void setFontSizeNoInterpreterReads();
    void underlineProcs_data();
    void underlineProcs();

    void encodeString_data();
    void encodeString();
    void writeString_data();
    void writeString();

    void suppliedResources_data();
    void suppliedResources();
    void suppliedResourcesWithoutFonts();
};

void TestFontProcedures::init()
{
    FontSandbox::clearCatalogue();
}

// --- Font selection -----------------------------------------------------------

void TestFontProcedures::setFont_data()
{
    QTest::addColumn<int>("style");
    QTest::addColumn<float>("size");
    QTest::addColumn<QByteArray>("line");

    QTest::newRow("bold at 9 points")
        << 1 << 9.0f << QByteArray("/Marker-Bold findfont 9 scalefont setfont\n");
    QTest::newRow("a whole size has no decimal point")
        << 0 << 12.0f << QByteArray("/Marker-Normal findfont 12 scalefont setfont\n");
    QTest::newRow("a half-point size")
        << 2 << 10.5f << QByteArray("/Marker-Italic findfont 10.5 scalefont setfont\n");
    QTest::newRow("a tiny size is written with an exponent")
        << 3 << 0.0000125f << QByteArray("/Marker-BoldItalic findfont 1.25e-05 scalefont setfont\n");
    QTest::newRow("at most six significant digits")
        << 0 << 7.123456f << QByteArray("/Marker-Normal findfont 7.12346 scalefont setfont\n");
    QTest::newRow("a size of seven digits is written with an exponent")
        << 1 << 1234567.0f << QByteArray("/Marker-Bold findfont 1.23457e+06 scalefont setfont\n");
    QTest::newRow("size zero") << 0 << 0.0f << QByteArray("/Marker-Normal findfont 0 scalefont setfont\n");
}

void TestFontProcedures::setFont()
{
    QFETCH(int, style);
    QFETCH(float, size);
    QFETCH(QByteArray, line);
    QCOMPARE(written([&](QIODevice& out) { Fonts::instance().setFont(out, style, size); }), line);
    QCOMPARE(Fonts::instance().currentStyle(), style);
    QCOMPARE(Fonts::instance().currentSize(), size);
}

// A size that no interpreter reads (infinite, not a number, beyond or below
// the range of PostScript reals) is replaced by 12 with a warning.
void TestFontProcedures::setFontSizeNoInterpreterReads_data()
{
    QTest::addColumn<float>("size");
    QTest::addColumn<QString>("text");

    QTest::newRow("infinite") << std::numeric_limits<float>::infinity() << "inf";
    QTest::newRow("negative infinite") << -std::numeric_limits<float>::infinity() << "-inf";
    QTest::newRow("not a number") << std::numeric_limits<float>::quiet_NaN() << "nan";
    QTest::newRow("below the smallest PostScript real") << 1e-40f << "9.99995e-41";
}

void TestFontProcedures::setFontSizeNoInterpreterReads()
{
    QFETCH(float, size);
    QFETCH(QString, text);

    MessageRecorder recorder;
    QCOMPARE(written([&](QIODevice& out) { Fonts::instance().setFont(out, 1, size); }),
             QByteArray("/Marker-Bold findfont 12 scalefont setfont\n"));
    QCOMPARE(Fonts::instance().currentSize(), 12.0f);
    QCOMPARE(recorder.texts(QtWarningMsg),
             QStringList{QStringLiteral("Font size '%1' is not a PostScript number, 12 is used!").arg(text)});
}

void TestFontProcedures::underlineProcs_data()
{
    QTest::addColumn<QList<int>>("styles");
    QTest::addColumn<QList<float>>("sizes");
    QTest::addColumn<QByteArray>("procs");

    QTest::newRow("bold-italic at 7.5 points")
        << QList<int>{3} << QList<float>{7.5f} << expectedUnderlineProcedures("Marker-BoldItalic", "7.5");
    QTest::newRow("the procedures follow the last font selected")
        << QList<int>{3, 1} << QList<float>{7.5f, 9.0f} << expectedUnderlineProcedures("Marker-Bold", "9");
    QTest::newRow("a tiny size is written with an exponent")
        << QList<int>{2} << QList<float>{0.0000125f} << expectedUnderlineProcedures("Marker-Italic", "1.25e-05");
    QTest::newRow("before any selection: the normal font at size 0")
        << QList<int>{} << QList<float>{} << expectedUnderlineProcedures("Marker-Normal", "0");
}

void TestFontProcedures::underlineProcs()
{
    QFETCH(QList<int>, styles);
    QFETCH(QList<float>, sizes);
    QFETCH(QByteArray, procs);
    for (int i = 0; i < styles.size(); ++i)
        written([&](QIODevice& out) { Fonts::instance().setFont(out, styles.at(i), sizes.at(i)); });
    QCOMPARE(written([](QIODevice& out) { Fonts::instance().writeUnderlineProcs(out); }), procs);
}

// --- Marker text --------------------------------------------------------------

void TestFontProcedures::encodeString_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("encoded");

    QTest::newRow("A is charset 0 position 41, Zhe charset 1 position 16")
        << LatinAndCyrillic << QString::fromUtf8("AЖ") << "<00410116>";
    QTest::newRow("an empty text gives an empty string") << LatinAndCyrillic << QString() << "<>";
    QTest::newRow("hexadecimal digits are lower case")
        << LatinAndCyrillic << QString::fromUtf8("éя") << "<00e9014f>";
    QTest::newRow("a character no charset covers is 0000")
        << LatinAndCyrillic << QString::fromUtf8("A中B") << "<004100000042>";
    QTest::newRow("a character beyond U+FFFF is one 0000")
        << LatinAndCyrillic << QString::fromUtf8("😀") << "<0000>";
    QTest::newRow("a character beyond U+FFFF is 0000 even where its low 16 bits are covered")
        << LatinAndCyrillic + "F600 F6FF ltor single Private\n"
        << QString::fromUtf8("\xef\x98\x80😀") << "<02000000>";
    QTest::newRow("a surrogate pair between letters is one 0000")
        << LatinAndCyrillic << QString::fromUtf8("A😀B") << "<004100000042>";
    QTest::newRow("a later charset wins a shared code point")
        << LatinAndCyrillic + "0041 0041 ltor single Other\n"
        << QStringLiteral("AB") << "<02000042>";
    QTest::newRow("direction and width play no part")
        << QByteArray("0000 00FF rtol double Sans\n0400 04FF ltor double Sans\n") << QString::fromUtf8("AЖ")
        << "<00410116>";
    QByteArray many;
    for (int i = 0; i < 26; ++i)
        many += "E000 E000 ltor single Filler\n";
    many += "4E00 4EFF ltor single Han\n";
    QTest::newRow("a charset index of two hexadecimal digits") << many << QString::fromUtf8("中") << "<1a2d>";
    QTest::newRow("without charsets every character is 0000")
        << QByteArray("# none\n") << QStringLiteral("Ab") << "<00000000>";
}

void TestFontProcedures::encodeString()
{
    QFETCH(QByteArray, lines);
    QFETCH(QString, text);
    QFETCH(QString, encoded);
    QVERIFY(loadCatalogue(lines));
    QCOMPARE(Fonts::instance().encodeString(text), encoded);
}

void TestFontProcedures::writeString_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("Latin and Cyrillic letters") << QString::fromUtf8("AЖ") << QByteArray("<00410116>");
    QTest::newRow("an empty text") << QString() << QByteArray("<>");
    QTest::newRow("a character beyond U+FFFF") << QString::fromUtf8("😀é") << QByteArray("<000000e9>");
    // U+FFFD is charset 2 here, so that its code shows.
    QTest::newRow("a lone high surrogate is U+FFFD")
        << (QString(QChar(0xD800)) + QLatin1Char('A')) << QByteArray("<02000041>");
    QTest::newRow("a lone low surrogate is U+FFFD") << QString(QChar(0xDC00)) << QByteArray("<0200>");
    // Written in pieces of 4096 characters: the same bytes across the seams.
    QTest::newRow("a long text, a surrogate pair across a piece boundary")
        << (QString(4095, QLatin1Char('A')) + QString::fromUtf8("😀") + QString(5000, QLatin1Char('B')))
        << "<" + QByteArray("0041").repeated(4095) + "0000" + QByteArray("0042").repeated(5000) + ">";
}

void TestFontProcedures::writeString()
{
    QFETCH(QString, text);
    QFETCH(QByteArray, bytes);
    QVERIFY(loadCatalogue(LatinAndCyrillic + "FFFD FFFD ltor single Replacement\n"));
    QCOMPARE(written([&](QIODevice& out) { Fonts::instance().writeString(out, text); }), bytes);
    QCOMPARE(bytes, Fonts::instance().encodeString(text).toLatin1());
}

// --- Supplied resources -------------------------------------------------------

void TestFontProcedures::suppliedResources_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<QByteArray>("comment");

    QTest::newRow("one font gives a single line without continuation")
        << LatinAndCyrillic << QByteArray("%%DocumentSuppliedResources: font Sans\n");
    QTest::newRow("further fonts follow as continuation lines in order of first appearance")
        << QByteArray("0000 00FF ltor single B A\n0400 04FF ltor single C A D E F\n")
        << QByteArray("%%DocumentSuppliedResources: font B\n%%+font A\n%%+font C\n%%+font D\n%%+font E\n"
                      "%%+font F\n");
    QTest::newRow("names are written as UTF-8 of the Latin-1 charset file")
        << QByteArray("0000 00FF ltor single Caf\xe9\n")
        << QByteArray("%%DocumentSuppliedResources: font Caf\xc3\xa9\n");
}

void TestFontProcedures::suppliedResources()
{
    QFETCH(QByteArray, lines);
    QFETCH(QByteArray, comment);
    QVERIFY(loadCatalogue(lines));
    QCOMPARE(written([](QIODevice& out) { Fonts::instance().writeSuppliedResources(out); }), comment);
}

void TestFontProcedures::suppliedResourcesWithoutFonts()
{
    // No caller reaches this case; either nothing or an empty first line will do.
    QVERIFY(loadCatalogue("# none\n"));
    const QByteArray comment = written([](QIODevice& out) { Fonts::instance().writeSuppliedResources(out); });
    QVERIFY2(comment.isEmpty() || comment == "%%DocumentSuppliedResources: font \n", comment.constData());
}

QUILLET_FONTS_TEST_MAIN(TestFontProcedures)

#include "tst_fontprocedures.moc"
