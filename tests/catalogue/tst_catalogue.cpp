// The default font catalogue as built for installation: glyph list, charset
// file and base fonts must fit together, and the committed glyph list must be
// what its generator makes from the fonts and the public glyph list.
#include "support/testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QMap>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

const char* const sansFonts[] = {"NimbusSans-Regular", "NimbusSans-Bold", "NimbusSans-Italic",
                                 "NimbusSans-BoldItalic"};

struct CharsetLine {
    uint first = 0;
    uint last = 0;
    QString direction;
    QString width;
    QStringList fonts;
    QByteArray text;
};

QString sourceCatalogueDir()
{
    return QStringLiteral(QUILLET_SOURCE_DIR "/catalogue");
}

QString shippedGlyphList()
{
    return catalogueDir() + QStringLiteral("/data/psglyphs");
}

QString shippedCharsets()
{
    return catalogueDir() + QStringLiteral("/charsets/utf-8");
}

QString shippedFont(const QString& name)
{
    return catalogueDir() + QStringLiteral("/fonts/") + name;
}

QString hex4(uint code)
{
    return QStringLiteral("%1").arg(code, 4, 16, QLatin1Char('0'));
}

// Reads a glyph list the way the program does: split at single spaces, the
// first field hexadecimal, the second the name; a later line of the same
// code replaces an earlier one.
QHash<uint, QByteArray> parseGlyphList(const QByteArray& bytes)
{
    QHash<uint, QByteArray> names;
    for (const QByteArray& line : bytes.split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() < 2)
            continue;
        bool ok = false;
        const uint code = fields.at(0).toUInt(&ok, 16);
        names.insert(ok ? code : 0, fields.at(1).simplified());
    }
    return names;
}

// Reads the charset lines the way the program does; returns false and sets
// error for a file that the program would reject or stop reading early.
bool parseCharsets(const QByteArray& bytes, QList<CharsetLine>* lines, QString* error)
{
    if (!bytes.startsWith("charset utf8\n")) {
        *error = QStringLiteral("first line is not \"charset utf8\"");
        return false;
    }
    QList<QByteArray> rawLines = bytes.mid(int(qstrlen("charset utf8\n"))).split('\n');
    if (!rawLines.isEmpty() && rawLines.last().isEmpty())
        rawLines.removeLast();
    for (const QByteArray& raw : rawLines) {
        if (raw.isEmpty() || raw.startsWith('#'))
            continue;
        const QStringList fields = QString::fromLatin1(raw).simplified().split(QLatin1Char(' '));
        if (fields.size() < 5) {
            *error = QStringLiteral("line with fewer than 5 fields: \"%1\"").arg(QString::fromLatin1(raw));
            return false;
        }
        CharsetLine line;
        bool firstOk = false;
        bool lastOk = false;
        line.first = fields.at(0).toUInt(&firstOk, 16);
        line.last = fields.at(1).toUInt(&lastOk, 16);
        if (!firstOk || !lastOk) {
            *error = QStringLiteral("bad range in \"%1\"").arg(QString::fromLatin1(raw));
            return false;
        }
        line.direction = fields.at(2);
        line.width = fields.at(3);
        line.fonts = fields.mid(4);
        line.text = raw;
        lines->append(line);
    }
    return true;
}

QList<CharsetLine> shippedCharsetLines()
{
    QList<CharsetLine> lines;
    QString error;
    parseCharsets(readFile(shippedCharsets()), &lines, &error);
    return lines;
}

// The glyph names in a Type 1 font's CharStrings dictionary, read from the
// disassembled program. Empty when the font cannot be read.
QSet<QByteArray> charStringNames(const QString& fontFile, QString* error)
{
    const RunResult run = runProgram(QStringLiteral("t1disasm"), {fontFile});
    if (run.crashed || run.exitCode != 0) {
        *error = QStringLiteral("t1disasm failed on %1: %2")
                     .arg(fontFile, QString::fromLocal8Bit(run.standardError));
        return {};
    }
    QSet<QByteArray> names;
    bool inside = false;
    static const QRegularExpression entry(QStringLiteral("^/(\\S+) \\{$"));
    for (const QByteArray& line : run.standardOutput.split('\n')) {
        if (!inside) {
            inside = line.contains("/CharStrings");
            continue;
        }
        const QRegularExpressionMatch match = entry.match(QString::fromLatin1(line));
        if (match.hasMatch())
            names.insert(match.captured(1).toLatin1());
    }
    if (names.isEmpty())
        *error = QStringLiteral("no CharStrings entries found in %1").arg(fontFile);
    return names;
}

// charStringNames for the shipped fonts, each disassembled once per run.
QSet<QByteArray> shippedFontGlyphs(const QString& font, QString* error)
{
    static QHash<QString, QSet<QByteArray>> cache;
    const auto found = cache.constFind(font);
    if (found != cache.constEnd())
        return found.value();
    const QSet<QByteArray> names = charStringNames(shippedFont(font), error);
    if (!names.isEmpty())
        cache.insert(font, names);
    return names;
}

// The value of "/FontName /X def" in a font program's clear text.
QByteArray declaredFontName(const QByteArray& program)
{
    static const QRegularExpression pattern(QStringLiteral("/FontName\\s*/([^\\s/\\[\\]{}()<>%]+)\\s+def"));
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(program.left(8192)));
    return match.hasMatch() ? match.captured(1).toLatin1() : QByteArray();
}

RunResult runGenerator(const QString& charsets, const QString& fontDir)
{
    return runProgram(QStringLiteral("sh"),
                      {sourceCatalogueDir() + QStringLiteral("/make-psglyphs.sh"), charsets, fontDir});
}

QString joinCodes(const QList<uint>& codes)
{
    QStringList texts;
    for (uint code : codes)
        texts << hex4(code);
    return texts.join(QLatin1Char(' '));
}

} // namespace

class TestCatalogue : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();

    void charsetFileIsWellFormed();
    void charsetLinesStayInsideTheirCodes_data();
    void charsetLinesStayInsideTheirCodes();
    void requiredBlocksAreCovered_data();
    void requiredBlocksAreCovered();

    void glyphListIsWellFormed();
    void shippedGlyphListIsTheCommittedOne();
    void everyCoveredCodePointHasAnEntry_data();
    void everyCoveredCodePointHasAnEntry();
    void mappedGlyphsExistInFont_data();
    void mappedGlyphsExistInFont();
    void chosenGlyphNames_data();
    void chosenGlyphNames();

    void charsetFontsAreShipped();
    void fontNameEqualsFileName_data();
    void fontNameEqualsFileName();
    void fontIsPlainTextPfa_data();
    void fontIsPlainTextPfa();
    void ghostscriptLoadsFont_data();
    void ghostscriptLoadsFont();

    void generatorReproducesCommittedGlyphList();
    void generatorCoversAddedRanges_data();
    void generatorCoversAddedRanges();
    void generatorUsesOnlyNamesAllFontsCarry();
};

void TestCatalogue::initTestCase()
{
    for (const char* program : {"t1disasm", "t1asm", "gs", "sh", "awk"}) {
        if (!haveProgram(QLatin1String(program)))
            QFAIL(qPrintable(QStringLiteral("%1 is needed (scripts/install-dependencies.sh --tests)")
                                 .arg(QLatin1String(program))));
    }
    QVERIFY2(QFileInfo(shippedGlyphList()).isFile(), qPrintable(shippedGlyphList()));
    QVERIFY2(QFileInfo(shippedCharsets()).isFile(), qPrintable(shippedCharsets()));
}

void TestCatalogue::charsetFileIsWellFormed()
{
    const QByteArray bytes = readFile(shippedCharsets());
    QList<CharsetLine> lines;
    QString error;
    QVERIFY2(parseCharsets(bytes, &lines, &error), qPrintable(error));
    QVERIFY(!lines.isEmpty());
    QVERIFY(lines.size() <= 256);
    for (const CharsetLine& line : lines) {
        const QString text = QString::fromLatin1(line.text);
        QCOMPARE(line.direction, QStringLiteral("ltor"));
        QCOMPARE(line.width, QStringLiteral("single"));
        // Exactly one font per style, so that no name is left over and no
        // style falls back to the first.
        QVERIFY2(line.fonts.size() == 4, qPrintable(text));
        // Written as the program splits it: single spaces, nothing trailing.
        QVERIFY2(line.text == line.text.simplified(), qPrintable(text));
    }
}

void TestCatalogue::charsetLinesStayInsideTheirCodes_data()
{
    QTest::addColumn<uint>("first");
    QTest::addColumn<uint>("last");
    for (const CharsetLine& line : shippedCharsetLines())
        QTest::newRow(qPrintable(hex4(line.first) + QLatin1Char('-') + hex4(line.last)))
            << line.first << line.last;
}

void TestCatalogue::charsetLinesStayInsideTheirCodes()
{
    QFETCH(uint, first);
    QFETCH(uint, last);
    QVERIFY(first <= last);
    QVERIFY(last <= 0xFFFF);
    // Position codes run from 0 to last - first inside the charset's own
    // 256 codes.
    QVERIFY2(last - first < 256, qPrintable(QStringLiteral("%1 code points").arg(last - first + 1)));
    // No other line covers any of these code points: a later line would take
    // them over and leave holes in this charset's encoding.
    for (const CharsetLine& other : shippedCharsetLines()) {
        if (other.first == first && other.last == last)
            continue;
        QVERIFY2(other.last < first || other.first > last,
                 qPrintable(QStringLiteral("overlaps %1").arg(QString::fromLatin1(other.text))));
    }
}

void TestCatalogue::requiredBlocksAreCovered_data()
{
    QTest::addColumn<uint>("first");
    QTest::addColumn<uint>("last");
    // Index the block's first code point must have (its line's position in
    // the file), or -1 when any line will do.
    QTest::addColumn<int>("index");

    QTest::newRow("Latin-1 as charset 0") << 0x0000u << 0x00FFu << 0;
    QTest::newRow("Cyrillic as charset 1") << 0x0400u << 0x04FFu << 1;
    QTest::newRow("Latin Extended-A") << 0x0100u << 0x017Fu << -1;
    QTest::newRow("General Punctuation") << 0x2000u << 0x206Fu << -1;
    QTest::newRow("euro sign") << 0x20ACu << 0x20ACu << -1;
    QTest::newRow("numero sign") << 0x2116u << 0x2116u << -1;
}

void TestCatalogue::requiredBlocksAreCovered()
{
    QFETCH(uint, first);
    QFETCH(uint, last);
    QFETCH(int, index);

    const QList<CharsetLine> lines = shippedCharsetLines();
    QList<uint> uncovered;
    for (uint code = first; code <= last; ++code) {
        bool covered = false;
        for (const CharsetLine& line : lines)
            covered = covered || (code >= line.first && code <= line.last);
        if (!covered)
            uncovered << code;
    }
    QVERIFY2(uncovered.isEmpty(), qPrintable(QStringLiteral("not covered: ") + joinCodes(uncovered)));

    if (index >= 0) {
        QVERIFY(index < lines.size());
        QCOMPARE(lines.at(index).first, first);
        QCOMPARE(lines.at(index).last, last);
    }
    // Every line that touches the block draws it in the four sans-serif styles.
    QStringList expectedFonts;
    for (const char* font : sansFonts)
        expectedFonts << QLatin1String(font);
    for (const CharsetLine& line : lines) {
        if (line.last >= first && line.first <= last)
            QCOMPARE(line.fonts, expectedFonts);
    }
}

void TestCatalogue::glyphListIsWellFormed()
{
    const QByteArray bytes = readFile(shippedGlyphList());
    QVERIFY(!bytes.isEmpty());
    QVERIFY2(bytes.endsWith('\n'), "last line has no line feed");
    // "xxxx name": the reader has no comment syntax, so every line must be
    // an entry; codes ascending and each once.
    static const QRegularExpression entry(QStringLiteral("^[0-9a-fA-F]{4} [!-~]+$"));
    QList<QByteArray> lines = bytes.split('\n');
    lines.removeLast();
    int previous = -1;
    int number = 0;
    for (const QByteArray& line : lines) {
        ++number;
        const QString text = QString::fromLatin1(line);
        QVERIFY2(entry.match(text).hasMatch(),
                 qPrintable(QStringLiteral("line %1: \"%2\"").arg(number).arg(text)));
        const int code = text.left(4).toInt(nullptr, 16);
        QVERIFY2(code > previous, qPrintable(QStringLiteral("line %1: code not ascending").arg(number)));
        previous = code;
    }
}

void TestCatalogue::shippedGlyphListIsTheCommittedOne()
{
    const QByteArray committed = readFile(sourceCatalogueDir() + QStringLiteral("/psglyphs"));
    const QByteArray shipped = readFile(shippedGlyphList());
    QVERIFY(!committed.isEmpty());
    QVERIFY2(shipped == committed, qPrintable(firstDifference(shipped, committed)));
}

void TestCatalogue::everyCoveredCodePointHasAnEntry_data()
{
    QTest::addColumn<uint>("first");
    QTest::addColumn<uint>("last");
    for (const CharsetLine& line : shippedCharsetLines())
        QTest::newRow(qPrintable(hex4(line.first) + QLatin1Char('-') + hex4(line.last)))
            << line.first << line.last;
}

void TestCatalogue::everyCoveredCodePointHasAnEntry()
{
    QFETCH(uint, first);
    QFETCH(uint, last);
    const QHash<uint, QByteArray> names = parseGlyphList(readFile(shippedGlyphList()));
    QList<uint> missing;
    for (uint code = first; code <= last; ++code) {
        if (names.value(code).isEmpty())
            missing << code;
    }
    QVERIFY2(missing.isEmpty(), qPrintable(QStringLiteral("no entry for ") + joinCodes(missing)));
}

void TestCatalogue::mappedGlyphsExistInFont_data()
{
    QTest::addColumn<uint>("first");
    QTest::addColumn<uint>("last");
    QTest::addColumn<QString>("font");
    for (const CharsetLine& line : shippedCharsetLines()) {
        for (const QString& font : line.fonts) {
            QTest::newRow(
                qPrintable(hex4(line.first) + QLatin1Char('-') + hex4(line.last) + QLatin1Char(' ') + font))
                << line.first << line.last << font;
        }
    }
}

void TestCatalogue::mappedGlyphsExistInFont()
{
    QFETCH(uint, first);
    QFETCH(uint, last);
    QFETCH(QString, font);

    QString error;
    const QSet<QByteArray> glyphs = shippedFontGlyphs(font, &error);
    QVERIFY2(!glyphs.isEmpty(), qPrintable(error));
    const QHash<uint, QByteArray> names = parseGlyphList(readFile(shippedGlyphList()));
    QStringList absent;
    for (uint code = first; code <= last; ++code) {
        const QByteArray name = names.value(code);
        if (!glyphs.contains(name))
            absent << hex4(code) + QLatin1Char(' ') + QString::fromLatin1(name);
    }
    QVERIFY2(absent.isEmpty(),
             qPrintable(QStringLiteral("not in the font: ") + absent.join(QStringLiteral(", "))));
}

void TestCatalogue::chosenGlyphNames_data()
{
    QTest::addColumn<uint>("code");
    QTest::addColumn<QByteArray>("name");

    QTest::newRow("letter A") << 0x0041u << QByteArray("A");
    QTest::newRow("e acute") << 0x00E9u << QByteArray("eacute");
    // The fonts' own names win over the public list's first choice.
    QTest::newRow("Cyrillic Zhe: the fonts' afii name") << 0x0416u << QByteArray("afii10024");
    QTest::newRow("Cyrillic io: the fonts' afii name") << 0x0451u << QByteArray("afii10071");
    QTest::newRow("no-break space: the fonts' uni name") << 0x00A0u << QByteArray("uni00A0");
    QTest::newRow("Cyrillic Shha: the fonts' uni name") << 0x04BAu << QByteArray("uni04BA");
    QTest::newRow("G dot above: the fonts' name") << 0x0120u << QByteArray("Gdotaccent");
    QTest::newRow("euro sign") << 0x20ACu << QByteArray("Euro");
    QTest::newRow("en dash") << 0x2013u << QByteArray("endash");
    // Code points the fonts lack.
    QTest::newRow("NUL prints nothing") << 0x0000u << QByteArray(".notdef");
    QTest::newRow("control character prints nothing") << 0x0007u << QByteArray(".notdef");
    QTest::newRow("C1 control prints nothing") << 0x0085u << QByteArray(".notdef");
    QTest::newRow("Cyrillic Omega: lacking") << 0x0460u << QByteArray(".notdef");
    QTest::newRow("em space: a blank") << 0x2003u << QByteArray("space");
    QTest::newRow("non-breaking hyphen: a hyphen") << 0x2011u << QByteArray("hyphen");
    QTest::newRow("figure dash: an en dash") << 0x2012u << QByteArray("endash");
    QTest::newRow("ruble sign: lacking") << 0x20BDu << QByteArray(".notdef");
    QTest::newRow("numero sign") << 0x2116u << QByteArray("afii61352");
    QTest::newRow("Kelvin sign: the letter K") << 0x212Au << QByteArray("K");
}

void TestCatalogue::chosenGlyphNames()
{
    QFETCH(uint, code);
    QFETCH(QByteArray, name);
    const QHash<uint, QByteArray> names = parseGlyphList(readFile(shippedGlyphList()));
    QCOMPARE(names.value(code), name);
}

void TestCatalogue::charsetFontsAreShipped()
{
    QStringList missing;
    for (const CharsetLine& line : shippedCharsetLines()) {
        for (const QString& font : line.fonts) {
            if (!QFileInfo(shippedFont(font)).isFile() && !missing.contains(font))
                missing << font;
        }
    }
    QVERIFY2(missing.isEmpty(),
             qPrintable(QStringLiteral("not under fonts/: ") + missing.join(QStringLiteral(", "))));
}

void TestCatalogue::fontNameEqualsFileName_data()
{
    QTest::addColumn<QString>("file");
    const QFileInfoList files =
        QDir(catalogueDir() + QStringLiteral("/fonts")).entryInfoList(QDir::Files, QDir::Name);
    QVERIFY(files.size() >= 4);
    for (const QFileInfo& info : files)
        QTest::newRow(qPrintable(info.fileName())) << info.filePath();
}

void TestCatalogue::fontNameEqualsFileName()
{
    QFETCH(QString, file);
    const QByteArray program = readFile(file);
    QVERIFY(!program.isEmpty());
    QCOMPARE(QString::fromLatin1(declaredFontName(program)), QFileInfo(file).fileName());
}

void TestCatalogue::fontIsPlainTextPfa_data()
{
    fontNameEqualsFileName_data();
}

void TestCatalogue::fontIsPlainTextPfa()
{
    QFETCH(QString, file);
    const QByteArray program = readFile(file);
    QVERIFY2(program.startsWith("%!PS-AdobeFont-1.") || program.startsWith("%!FontType1"),
             qPrintable(QString::fromLatin1(program.left(40))));
    // The program is copied into print jobs line by line: text only, no
    // PFB segment headers or other control bytes.
    for (int i = 0; i < program.size(); ++i) {
        const uchar byte = uchar(program.at(i));
        const bool text = (byte >= 0x20 && byte < 0x7F) || byte == '\n' || byte == '\r' || byte == '\t';
        QVERIFY2(
            text,
            qPrintable(QStringLiteral("byte 0x%1 at offset %2").arg(byte, 2, 16, QLatin1Char('0')).arg(i)));
    }
    // The zero-filled trailer stays plain zeros, followed by cleartomark.
    QVERIFY(program.contains(QByteArray(64, '0')));
    QVERIFY(program.trimmed().endsWith("cleartomark"));
}

void TestCatalogue::ghostscriptLoadsFont_data()
{
    fontNameEqualsFileName_data();
}

void TestCatalogue::ghostscriptLoadsFont()
{
    QFETCH(QString, file);
    const QString name = QFileInfo(file).fileName();
    // Ghostscript has fonts of these names of its own; asking FontDirectory
    // before and after running the file shows that the file itself defined
    // the font. Showing a Latin and a Cyrillic glyph makes it decrypt and
    // run charstrings.
    const QString program = QStringLiteral("FontDirectory /%1 known =only ( ) print "
                                           "(%2) run "
                                           "FontDirectory /%1 known =only ( ) print "
                                           "/%1 findfont dup /FontName get =only ( ) print "
                                           "12 scalefont setfont 0 0 moveto (A) show /afii10024 glyphshow "
                                           "currentpoint pop 0 gt =only")
                                .arg(name, file);
    const RunResult run = runProgram(
        QStringLiteral("gs"), {QStringLiteral("-q"), QStringLiteral("-dNODISPLAY"), QStringLiteral("-dSAFER"),
                               QStringLiteral("-dBATCH"), QStringLiteral("-dNOPAUSE"),
                               QStringLiteral("--permit-file-read=") + file, QStringLiteral("-c"), program});
    const QString output = QString::fromLocal8Bit(run.standardOutput + run.standardError);
    QVERIFY2(!run.crashed && run.exitCode == 0, qPrintable(output));
    QVERIFY2(!output.contains(QStringLiteral("Error")), qPrintable(output));
    QCOMPARE(QString::fromLocal8Bit(run.standardOutput).trimmed(),
             QStringLiteral("false true %1 true").arg(name));
}

void TestCatalogue::generatorReproducesCommittedGlyphList()
{
    const RunResult run = runGenerator(sourceCatalogueDir() + QStringLiteral("/charsets-utf-8"),
                                       catalogueDir() + QStringLiteral("/fonts"));
    QVERIFY2(!run.crashed && run.exitCode == 0, run.standardError.constData());
    const QByteArray committed = readFile(sourceCatalogueDir() + QStringLiteral("/psglyphs"));
    QVERIFY(!committed.isEmpty());
    QVERIFY2(
        run.standardOutput == committed,
        qPrintable(QStringLiteral("catalogue/psglyphs is stale (rebuild target quillet_update_psglyphs): ") +
                   firstDifference(run.standardOutput, committed)));
}

void TestCatalogue::generatorCoversAddedRanges_data()
{
    QTest::addColumn<uint>("first");
    QTest::addColumn<uint>("last");
    QTest::addColumn<bool>("fontsHaveSome");

    // The fonts carry Greek; they carry no Hebrew at all.
    QTest::newRow("Greek") << 0x0370u << 0x03FFu << true;
    QTest::newRow("Hebrew") << 0x0590u << 0x05FFu << false;
    QTest::newRow("Arrows") << 0x2190u << 0x21FFu << true;
}

void TestCatalogue::generatorCoversAddedRanges()
{
    QFETCH(uint, first);
    QFETCH(uint, last);
    QFETCH(bool, fontsHaveSome);

    // A site adds a charset line: the generator must give each of its code
    // points a name that the fonts carry, falling back to .notdef.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QByteArray charsets = readFile(shippedCharsets());
    QVERIFY(!charsets.isEmpty());
    QByteArray line = hex4(first).toLatin1() + ' ' + hex4(last).toLatin1() + " ltor single";
    for (const char* font : sansFonts)
        line += QByteArray(" ") + font;
    charsets += line + '\n';
    const QString charsetFile = dir.filePath(QStringLiteral("utf-8"));
    QVERIFY(writeFile(charsetFile, charsets));

    const RunResult run = runGenerator(charsetFile, catalogueDir() + QStringLiteral("/fonts"));
    QVERIFY2(!run.crashed && run.exitCode == 0, run.standardError.constData());
    const QHash<uint, QByteArray> names = parseGlyphList(run.standardOutput);

    QString error;
    const QSet<QByteArray> glyphs = shippedFontGlyphs(QLatin1String(sansFonts[0]), &error);
    QVERIFY2(!glyphs.isEmpty(), qPrintable(error));
    QStringList absent;
    int real = 0;
    for (uint code = first; code <= last; ++code) {
        const QByteArray name = names.value(code);
        if (!glyphs.contains(name))
            absent << hex4(code) + QLatin1Char(' ') + QString::fromLatin1(name);
        else if (name != ".notdef")
            ++real;
    }
    QVERIFY2(absent.isEmpty(),
             qPrintable(QStringLiteral("not in the font: ") + absent.join(QStringLiteral(", "))));
    QCOMPARE(real > 0, fontsHaveSome);
}

void TestCatalogue::generatorUsesOnlyNamesAllFontsCarry()
{
    // A second font lacking the glyphs "A" and "afii10024": the generator
    // must stop using those names for U+0041 and U+0416, and keep every
    // other entry of the covered ranges as before.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const RunResult disasm =
        runProgram(QStringLiteral("t1disasm"), {shippedFont(QStringLiteral("NimbusSans-Bold"))});
    QVERIFY2(!disasm.crashed && disasm.exitCode == 0, disasm.standardError.constData());
    QByteArray text = disasm.standardOutput;
    for (const QByteArray& glyph : {QByteArray("A"), QByteArray("afii10024")}) {
        const int start = text.indexOf("\n/" + glyph + " {\n");
        QVERIFY2(start >= 0, glyph.constData());
        const int end = text.indexOf("}ND\n", start);
        QVERIFY(end > start);
        text.remove(start + 1, end + 4 - (start + 1));
    }
    const QString disassembled = dir.filePath(QStringLiteral("font.txt"));
    QVERIFY(writeFile(disassembled, text));
    const QString fontDir = dir.filePath(QStringLiteral("fonts"));
    QVERIFY(QDir().mkpath(fontDir));
    const RunResult assemble = runProgram(
        QStringLiteral("t1asm"), {QStringLiteral("-a"), disassembled, fontDir + QStringLiteral("/Reduced")});
    QVERIFY2(!assemble.crashed && assemble.exitCode == 0, assemble.standardError.constData());
    QVERIFY(writeFile(fontDir + QStringLiteral("/NimbusSans-Regular"),
                      readFile(shippedFont(QStringLiteral("NimbusSans-Regular")))));

    const QByteArray charsets = "charset utf8\n"
                                "0000 00FF ltor single NimbusSans-Regular Reduced\n"
                                "0400 04FF ltor single NimbusSans-Regular Reduced\n";
    const QString charsetFile = dir.filePath(QStringLiteral("utf-8"));
    QVERIFY(writeFile(charsetFile, charsets));

    const RunResult run = runGenerator(charsetFile, fontDir);
    QVERIFY2(!run.crashed && run.exitCode == 0, run.standardError.constData());
    const QHash<uint, QByteArray> reduced = parseGlyphList(run.standardOutput);
    const QHash<uint, QByteArray> shipped = parseGlyphList(readFile(shippedGlyphList()));

    QCOMPARE(reduced.value(0x0041), QByteArray(".notdef"));
    QCOMPARE(reduced.value(0x0416), QByteArray(".notdef"));
    QList<uint> changed;
    for (uint code = 0; code <= 0x04FF; ++code) {
        if ((code > 0xFF && code < 0x400) || code == 0x0041 || code == 0x0416)
            continue;
        if (reduced.value(code) != shipped.value(code))
            changed << code;
    }
    QVERIFY2(changed.isEmpty(), qPrintable(QStringLiteral("changed: ") + joinCodes(changed)));
}

QTEST_GUILESS_MAIN(TestCatalogue)
#include "tst_catalogue.moc"
