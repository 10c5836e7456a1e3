// The marker fonts as a PostScript interpreter sees them: a document made of
// the font resources of the default catalogue and pages that select a marker
// font and show encoded text is rendered by Ghostscript. The test proves that
// it renders without error, that every letter paints ink (a glyph name the
// font lacks would still extract as text but paint nothing), that the text
// comes back out of a PDF made from it, and what the underline procedures do
// on the marker fonts: without print-safe output the composite fonts have no
// FontInfo and Ghostscript stops; with "MarkerSafeOutput=1" the procedures
// give the base fonts' own metrics and paint a line just below the text.
//
// The default catalogue is copied into the CUPS data directory of the test's
// sandbox (see fontsandbox.h) and read by the real Fonts::initialize.
#include "fontsandbox.h"

#include "fonts/fonts.h"
#include "settings/variables.h"
#include "support/messagerecorder.h"
#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QDir>
#include <QMap>
#include <QTemporaryDir>
#include <QTest>

namespace {

// Page geometry at the rendering resolution of 72 dpi: one pixel per point.
const int PageWidth = 612;
const int PageHeight = 792;
const int Baseline = 400;    // y of the text's baseline, in points from the bottom
const int TextSize = 48;     // font size of the text
const int MinLetterInk = 40; // dark pixels that even a thin letter paints at this size

const QString Text = QString::fromUtf8("Hello Привет");

struct Page
{
    int style = 0;
    QString text; // null: a page with nothing on it
    int size = TextSize;
};

// The font resources of the default catalogue for all four marker styles,
// classic or print-safe ("MarkerSafeOutput=1" in the store while they are
// written; the store is left empty again).
QByteArray fontResources(bool safeOutput = false)
{
    if (safeOutput)
        Variables::instance().insert(QStringLiteral("MarkerSafeOutput"), QStringLiteral("1"));
    QByteArray data;
    QBuffer buffer(&data);
    buffer.open(QIODevice::WriteOnly);
    Fonts::instance().writeFontResources(buffer);
    Variables::instance().clear();
    return data;
}

// "%!PS", the resources, the selection of a marker font and the underline
// procedures for it, then `body`.
QByteArray underlineDocument(const QByteArray& resources, int style, float size, const QByteArray& body)
{
    QByteArray ps = "%!PS\n" + resources;
    QBuffer buffer(&ps);
    buffer.open(QIODevice::WriteOnly | QIODevice::Append);
    Fonts::instance().setFont(buffer, style, size);
    Fonts::instance().writeUnderlineProcs(buffer);
    buffer.close();
    return ps + body;
}

// Runs Ghostscript on a file without output pages; what it printed.
RunResult interpret(const QString& file)
{
    return runProgram(QStringLiteral("gs"), {"-q", "-dSAFER", "-dBATCH", "-dNOPAUSE", "-sDEVICE=nullpage", file});
}

// "%!PS", the font resources, then one page per entry.
QByteArray document(const QByteArray& resources, const QList<Page>& pages)
{
    QByteArray ps = "%!PS\n" + resources;
    for (const Page& page : pages) {
        if (!page.text.isNull()) {
            QBuffer buffer(&ps);
            buffer.open(QIODevice::WriteOnly | QIODevice::Append);
            Fonts::instance().setFont(buffer, page.style, page.size);
            buffer.close();
            ps += "72 " + QByteArray::number(Baseline) + " moveto " +
                  Fonts::instance().encodeString(page.text).toLatin1() + " show\n";
        }
        ps += "showpage\n";
    }
    return ps;
}

// Dark pixels of a binary PGM image in the band around the text's baseline,
// or -1 when the file is not a PGM image of a whole page.
int inkInTextBand(const QByteArray& pgm)
{
    // Header: "P5", width, height, maximum value, each after white space.
    QList<QByteArray> fields;
    int pos = 0;
    while (fields.size() < 4 && pos < pgm.size()) {
        while (pos < pgm.size() && QChar::isSpace(uchar(pgm.at(pos))))
            ++pos;
        if (pos < pgm.size() && pgm.at(pos) == '#') {
            while (pos < pgm.size() && pgm.at(pos) != '\n')
                ++pos;
            continue;
        }
        const int start = pos;
        while (pos < pgm.size() && !QChar::isSpace(uchar(pgm.at(pos))))
            ++pos;
        fields << pgm.mid(start, pos - start);
    }
    ++pos; // the single white space byte before the pixels
    if (fields.size() != 4 || fields.at(0) != "P5" || fields.at(1).toInt() != PageWidth ||
        fields.at(2).toInt() != PageHeight || fields.at(3).toInt() != 255 ||
        pgm.size() - pos != PageWidth * PageHeight)
        return -1;

    const int top = PageHeight - Baseline - TextSize - 12;
    const int bottom = PageHeight - Baseline + TextSize / 2;
    int ink = 0;
    for (int row = top; row < bottom; ++row) {
        const char* pixels = pgm.constData() + pos + row * PageWidth;
        for (int column = 0; column < PageWidth; ++column)
            ink += uchar(pixels[column]) < 128;
    }
    return ink;
}

} // namespace

Q_DECLARE_METATYPE(Page)

class TestFontRendering : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void rendersWithoutError();
    void letterPaintsInk_data();
    void letterPaintsInk();
    void paintsNoInk_data();
    void paintsNoInk();
    void inkGrowsWithText();
    void textComesBackFromPdf_data();
    void textComesBackFromPdf();
    void underlineStopsWithoutSafeOutput_data();
    void underlineStopsWithoutSafeOutput();
    void underlineProceduresMeasureMarkerFonts_data();
    void underlineProceduresMeasureMarkerFonts();
    void underlinePaintsBelowText_data();
    void underlinePaintsBelowText();

private:
    int ink(int style, const QString& text) const;

    QTemporaryDir m_dir;
    QByteArray m_resources;
    QByteArray m_safeResources;
    QList<Page> m_pages;
    RunResult m_render;
    QList<int> m_ink;
};

void TestFontRendering::initTestCase()
{
    if (!haveProgram(QStringLiteral("gs")))
        QSKIP("Ghostscript (gs) is not installed");
    QVERIFY(m_dir.isValid());

    FontSandbox::clearCatalogue();
    FontSandbox::installDefaultCatalogue();
    {
        MessageRecorder recorder;
        QVERIFY(Fonts::instance().initialize(QStringLiteral("utf-8")));
        QCOMPARE(recorder.messages(),
                 QStringList{"warning: bool Fonts::initialize(const QString&) \"utf-8\""});
    }
    Fonts::instance().setMarkerStyles({0, 1, 2, 3});
    QVERIFY(!Variables::instance().contains(QStringLiteral("MarkerSafeOutput")));
    {
        MessageRecorder recorder;
        m_resources = fontResources();
        m_safeResources = fontResources(true);
        QCOMPARE(recorder.messages(), QStringList{});
    }
    QVERIFY(m_safeResources != m_resources);

    // Pages: nothing; each letter alone; controls; growing texts; all styles.
    m_pages << Page{0, QString()};
    for (const QChar letter : Text)
        m_pages << Page{0, QString(letter)};
    m_pages << Page{0, QString(QChar(0x0001))} << Page{0, QStringLiteral("Hello")}
            << Page{0, QString::fromUtf8("Привет")};
    for (int style = 0; style < Fonts::StyleCount; ++style)
        m_pages << Page{style, Text};

    const QString input = m_dir.filePath(QStringLiteral("letters.ps"));
    QVERIFY(writeFile(input, document(m_resources, m_pages)));
    m_render = runProgram(QStringLiteral("gs"),
                          {"-dSAFER", "-dBATCH", "-dNOPAUSE", "-sPAPERSIZE=letter", "-dFIXEDMEDIA", "-r72",
                           "-sDEVICE=pgmraw",
                           "-sOutputFile=" + m_dir.filePath(QStringLiteral("page-%03d.pgm")), input});
    for (int i = 0; i < m_pages.size(); ++i)
        m_ink << inkInTextBand(
            readFile(m_dir.filePath(QStringLiteral("page-%1.pgm").arg(i + 1, 3, 10, QLatin1Char('0')))));
}

int TestFontRendering::ink(int style, const QString& text) const
{
    for (int i = 0; i < m_pages.size(); ++i) {
        if (m_pages.at(i).style == style && m_pages.at(i).text == text &&
            m_pages.at(i).text.isNull() == text.isNull())
            return m_ink.value(i, -1);
    }
    return -1;
}

void TestFontRendering::rendersWithoutError()
{
    const QByteArray output = m_render.standardOutput + m_render.standardError;
    QVERIFY2(!m_render.crashed && m_render.exitCode == 0, output.constData());
    QVERIFY2(!output.toLower().contains("error"), output.constData());
    // The marker fonts use the embedded base fonts: Ghostscript loads none of
    // its own ("Loading NimbusSans-Regular font from ...") and substitutes none.
    QVERIFY2(!output.contains("Loading "), output.constData());
    QVERIFY2(!output.toLower().contains("substitut"), output.constData());
    QVERIFY2(!output.contains("Can't find"), output.constData());
    QCOMPARE(QDir(m_dir.path()).entryList({QStringLiteral("page-*.pgm")}).size(), m_pages.size());
    QVERIFY2(!m_ink.contains(-1), "a page image is not a whole-page PGM");
}

void TestFontRendering::letterPaintsInk_data()
{
    QTest::addColumn<QString>("letter");
    QString seen;
    for (const QChar letter : Text) {
        if (letter == QLatin1Char(' ') || seen.contains(letter))
            continue;
        seen += letter;
        QTest::addRow("%s (U+%04X) paints ink", QString(letter).toUtf8().constData(), letter.unicode())
            << QString(letter);
    }
}

void TestFontRendering::letterPaintsInk()
{
    QFETCH(QString, letter);
    const int painted = ink(0, letter);
    QVERIFY2(painted >= MinLetterInk, qPrintable(QStringLiteral("%1 dark pixels").arg(painted)));
}

void TestFontRendering::paintsNoInk_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("a page with nothing shown") << QString();
    QTest::newRow("a blank") << QStringLiteral(" ");
    QTest::newRow("a character whose glyph the font lacks") << QString(QChar(0x0001));
}

void TestFontRendering::paintsNoInk()
{
    QFETCH(QString, text);
    QCOMPARE(ink(0, text), 0);
}

void TestFontRendering::inkGrowsWithText()
{
    const int latin = ink(0, QStringLiteral("Hello"));
    const int cyrillic = ink(0, QString::fromUtf8("Привет"));
    const int whole = ink(0, Text);
    QVERIFY2(latin >= 5 * MinLetterInk, qPrintable(QString::number(latin)));
    QVERIFY2(cyrillic >= 6 * MinLetterInk, qPrintable(QString::number(cyrillic)));
    QVERIFY2(whole > latin && whole > cyrillic,
             qPrintable(QStringLiteral("%1 %2 %3").arg(whole).arg(latin).arg(cyrillic)));
    // The whole text paints about what its two words paint alone.
    QVERIFY2(whole >= (latin + cyrillic) * 9 / 10 && whole <= (latin + cyrillic) * 11 / 10,
             qPrintable(QStringLiteral("%1 against %2 + %3").arg(whole).arg(latin).arg(cyrillic)));
    // The letters alone add up to about the same.
    int letters = 0;
    for (const QChar letter : Text)
        letters += ink(0, QString(letter));
    QVERIFY2(whole >= letters * 9 / 10 && whole <= letters * 11 / 10,
             qPrintable(QStringLiteral("%1 against %2").arg(whole).arg(letters)));
    // Every marker style paints the text.
    for (int style = 1; style < Fonts::StyleCount; ++style)
        QVERIFY2(ink(style, Text) >= whole / 2,
                 qPrintable(QStringLiteral("style %1: %2").arg(style).arg(ink(style, Text))));
}

void TestFontRendering::textComesBackFromPdf_data()
{
    QTest::addColumn<QList<Page>>("pages");
    QTest::addColumn<QString>("text");
    QTest::newRow("Latin and Cyrillic in the normal marker font") << QList<Page>{Page{0, Text}} << Text;
    const QString words = QString::fromUtf8("Для служебного пользования");
    QList<Page> styles;
    QString all;
    for (int style = 0; style < Fonts::StyleCount; ++style) {
        styles << Page{style, words, 14};
        all += words + QLatin1Char(' ');
    }
    QTest::newRow("Cyrillic words on four pages, one per marker font") << styles << all.trimmed();
}

void TestFontRendering::textComesBackFromPdf()
{
    QFETCH(QList<Page>, pages);
    QFETCH(QString, text);
    QVERIFY2(haveProgram(QStringLiteral("ps2pdf")), "ps2pdf is missing");
    QVERIFY2(haveProgram(QStringLiteral("pdftotext")), "pdftotext is missing");
    const QString input = m_dir.filePath(QStringLiteral("text.ps"));
    const QString pdf = m_dir.filePath(QStringLiteral("text.pdf"));
    QVERIFY(writeFile(input, document(m_resources, pages)));

    const RunResult convert = runProgram(QStringLiteral("ps2pdf"), {input, pdf});
    const QByteArray messages = convert.standardOutput + convert.standardError;
    QVERIFY2(!convert.crashed && convert.exitCode == 0, messages.constData());
    QVERIFY2(!messages.toLower().contains("error"), messages.constData());
    const RunResult extract = runProgram(QStringLiteral("pdftotext"), {"-enc", "UTF-8", pdf, "-"});
    QVERIFY2(!extract.crashed && extract.exitCode == 0, extract.standardError.constData());
    QCOMPARE(QString::fromUtf8(extract.standardOutput).simplified(), text);
}

void TestFontRendering::underlineStopsWithoutSafeOutput_data()
{
    QTest::addColumn<int>("style");
    for (int style = 0; style < Fonts::StyleCount; ++style)
        QTest::addRow("%s", markerFontNames[style]) << style;
}

void TestFontRendering::underlineStopsWithoutSafeOutput()
{
    // The classic composite marker fonts have no FontInfo; the underline
    // procedures look it up and Ghostscript stops.
    QFETCH(int, style);
    const QString input = m_dir.filePath(QStringLiteral("underline-classic-%1.ps").arg(style));
    QVERIFY(writeFile(input, underlineDocument(m_resources, style, 12, "font-underline-pos ==\n")));
    const RunResult run = interpret(input);
    const QByteArray output = run.standardOutput + run.standardError;
    QVERIFY2(!run.crashed && run.exitCode != 0, output.constData());
    QVERIFY2(output.contains("Error: /undefined in --get--"), output.constData());
    QVERIFY2(output.contains("FontInfo"), output.constData());
}

void TestFontRendering::underlineProceduresMeasureMarkerFonts_data()
{
    QTest::addColumn<int>("style");
    for (int style = 0; style < Fonts::StyleCount; ++style)
        QTest::addRow("%s: position and thickness of its base font at the size", markerFontNames[style])
            << style;
}

void TestFontRendering::underlineProceduresMeasureMarkerFonts()
{
    // With print-safe output, after a marker font is selected, the two
    // underline procedures must run on it and give what the charset-0 base
    // font's own metrics give at the same size. The document defines no
    // "px": the metrics must come from the font.
    QFETCH(int, style);
    const QByteArray base = Fonts::instance().fontName(0, style).toLatin1();
    QByteArray body = "font-underline-pos == font-underline-thickness ==\n";
    for (const char* key : {"UnderlinePosition", "UnderlineThickness"})
        body += "/" + base + " findfont 12 scalefont dup /FontInfo get /" + key +
                " get 0 exch 3 2 roll /FontMatrix get transform exch pop ==\n";
    const QString input = m_dir.filePath(QStringLiteral("underline-%1.ps").arg(style));
    QVERIFY(writeFile(input, underlineDocument(m_safeResources, style, 12, body)));

    const RunResult run = interpret(input);
    const QByteArray output = run.standardOutput + run.standardError;
    QVERIFY2(!run.crashed && run.exitCode == 0 && !output.contains("Error"), output.constData());
    const QList<QByteArray> values = run.standardOutput.simplified().split(' ');
    QCOMPARE(values.size(), 4);
    bool ok[4];
    const double position = values.at(0).toDouble(&ok[0]);
    const double thickness = values.at(1).toDouble(&ok[1]);
    const double basePosition = values.at(2).toDouble(&ok[2]);
    const double baseThickness = values.at(3).toDouble(&ok[3]);
    QVERIFY2(ok[0] && ok[1] && ok[2] && ok[3], run.standardOutput.constData());
    QVERIFY2(basePosition < 0 && basePosition > -12 && baseThickness > 0 && baseThickness < 12,
             run.standardOutput.constData());
    // The interpreter computes in single precision: equal to a thousandth of a point.
    QVERIFY2(qAbs(position - basePosition) < 1e-3, run.standardOutput.constData());
    QVERIFY2(qAbs(thickness - baseThickness) < 1e-3, run.standardOutput.constData());
}

void TestFontRendering::underlinePaintsBelowText_data()
{
    QTest::addColumn<int>("style");
    for (int style = 0; style < Fonts::StyleCount; ++style)
        QTest::addRow("%s", markerFontNames[style]) << style;
}

void TestFontRendering::underlinePaintsBelowText()
{
    // With print-safe output, a text in a marker font and a line drawn the
    // way the marker block underlines (from the text's origin, offset by
    // font-underline-pos, stroked font-underline-thickness wide). Page 1
    // shows the text alone, page 2 the text and the line: what differs is
    // the line. It must lie just below the baseline, where the procedures
    // say, as thick as they say, and run unbroken under the whole text.
    QFETCH(int, style);
    const int resolution = 144;
    const double scale = resolution / 72.0;
    const QByteArray text = Fonts::instance().encodeString(QStringLiteral("Hello")).toLatin1();
    const QByteArray setup = "<< /PageSize [" + QByteArray::number(PageWidth) + ' ' + QByteArray::number(PageHeight) +
                             "] >> setpagedevice\n"
                             "font-underline-pos == font-underline-thickness == 72 0 moveto " + text +
                             " stringwidth pop ==\n";
    const QByteArray show = "72 " + QByteArray::number(Baseline) + " moveto " + text + " show\n";
    const QByteArray underline = "newpath font-underline-thickness setlinewidth 72 " + QByteArray::number(Baseline) +
                                 " font-underline-pos add moveto " + text + " stringwidth pop 0 rlineto stroke\n";
    const QString input = m_dir.filePath(QStringLiteral("underline-ink-%1.ps").arg(style));
    QVERIFY(writeFile(input, underlineDocument(m_safeResources, style, TextSize,
                                               setup + show + "showpage\n" + show + underline + "showpage\n")));

    const QString pages = m_dir.filePath(QStringLiteral("underline-ink-%1-%d.pgm").arg(style));
    const auto pageFile = [&](int page) {
        return m_dir.filePath(QStringLiteral("underline-ink-%1-%2.pgm").arg(style).arg(page));
    };
    const RunResult run = runProgram(QStringLiteral("gs"),
                                     {"-q", "-dSAFER", "-dBATCH", "-dNOPAUSE", "-sDEVICE=pgmraw",
                                      "-r" + QString::number(resolution), "-sOutputFile=" + pages, input});
    const QByteArray output = run.standardOutput + run.standardError;
    QVERIFY2(!run.crashed && run.exitCode == 0 && !output.contains("Error"), output.constData());
    const QList<QByteArray> values = run.standardOutput.simplified().split(' ');
    QCOMPARE(values.size(), 3);
    const double position = values.at(0).toDouble();
    const double thickness = values.at(1).toDouble();
    const double width = values.at(2).toDouble();
    // Sensible metrics for a text face: a little below the baseline, thin.
    QVERIFY2(position < -0.05 * TextSize && position > -0.25 * TextSize, output.constData());
    QVERIFY2(thickness > 0.02 * TextSize && thickness < 0.1 * TextSize, output.constData());
    QVERIFY2(width > TextSize, output.constData());

    const GrayPage textOnly = parsePgm(readFile(pageFile(1)));
    const GrayPage underlined = parsePgm(readFile(pageFile(2)));
    QVERIFY(!textOnly.isNull() && !underlined.isNull());
    const QRect textInk = inkBounds(textOnly);
    const QRect line = differenceBounds(underlined, textOnly);
    QVERIFY(!textInk.isNull());
    QVERIFY2(!line.isNull(), "the underline paints nothing");
    const QString geometry = QStringLiteral("text x %1..%2 y %3..%4, line x %5..%6 y %7..%8; procedures: %9")
                                 .arg(textInk.left()).arg(textInk.right()).arg(textInk.top()).arg(textInk.bottom())
                                 .arg(line.left()).arg(line.right()).arg(line.top()).arg(line.bottom())
                                 .arg(QString::fromLatin1(run.standardOutput.simplified()));

    // Rows from the top of the page; the baseline's row and the line's
    // middle and thickness as the procedures give them.
    const double baselineRow = (PageHeight - Baseline) * scale;
    const double middle = (PageHeight - Baseline - position) * scale;
    QVERIFY2(qAbs(textInk.bottom() - baselineRow) <= 0.02 * TextSize * scale + 1, qPrintable(geometry));
    QVERIFY2(line.top() > textInk.bottom(), qPrintable(geometry));
    QVERIFY2(qAbs((line.top() + line.bottom() + 1) / 2.0 - middle) <= 1.5, qPrintable(geometry));
    // Ghostscript paints every pixel that the stroke touches: up to two rows more.
    QVERIFY2(line.height() >= thickness * scale - 1 && line.height() <= thickness * scale + 2, qPrintable(geometry));
    // From the text's origin to its advance width, unbroken.
    QVERIFY2(qAbs(line.left() - 72 * scale) <= 1.5 && qAbs(line.right() + 1 - (72 + width) * scale) <= 1.5,
             qPrintable(geometry));
    int longest = 0;
    for (int row = line.top(); row <= line.bottom(); ++row) {
        int run = 0;
        for (int x = line.left(); x <= line.right(); ++x) {
            run = underlined.at(x, row) < 128 ? run + 1 : 0;
            longest = qMax(longest, run);
        }
    }
    QVERIFY2(longest >= line.width() - 1, qPrintable(geometry + QStringLiteral(", longest run %1").arg(longest)));
}

QUILLET_FONTS_TEST_MAIN(TestFontRendering)

#include "tst_fontrendering.moc"
