// Renders a page that ends with a marker block through Ghostscript and checks
// where the strings come out. The page is written by tst_markerpage_writer
// inside the sandbox (the font catalogue bound onto the CUPS data
// directory): font resources, page content, the block of drawMarker and
// showpage. ps2pdf turns it into PDF, and pdftotext -bbox reports a box per
// word in points, measured from the page's top-left corner. Underlined
// strings are looked at in Ghostscript's raster of the page.
#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QCoreApplication>
#include <QHash>
#include <QRectF>
#include <QRegularExpression>
#include <QTest>

namespace {

// Placement definitions of the page, in points; all different, so that a
// shift applied on the wrong side shows.
constexpr double TopShift = 40;
constexpr double BottomShift = 30;
constexpr double LeftShift = 50;
constexpr double RightShift = 60;
constexpr double Interval = 10;

// A4 portrait, as the page content requests.
constexpr double PageWidth = 595;
constexpr double PageHeight = 842;

// Word boxes follow the glyph outlines to a fraction of a point; this
// leaves room for side bearings and the rounding of the PDF text.
constexpr double Tolerance = 2.0;

const QByteArray Definitions = "MarkerTopShift=40\n"
                               "MarkerBottomShift=30\n"
                               "MarkerLeftShift=50\n"
                               "MarkerRightShift=60\n"
                               "MarkerStringInterval=10\n";

// Strings at all six named positions, three of them stacked, one in bold,
// one in Cyrillic (second charset), and two coordinate positions.
const QByteArray Template = "any:normal:12::top-left:ALPHA\n"
                            "any:normal:12::top-left:BRAVO\n"
                            "any:normal:12::top-center:CHARLIE\n"
                            "any:bold:12::top-right:DELTA\n"
                            "any:normal:12::bottom-left:ECHO\n"
                            "any:normal:12::bottom-left:\xd0\x96\xd0\xa3\xd0\x9a\n"
                            "any:normal:12::bottom-center:FOXTROT\n"
                            "any:normal:12::bottom-right:GOLF\n"
                            "any:normal:12::bottom-right:HOTEL\n"
                            "any:normal:12::{100;200}:INDIA\n"
                            "any:normal:12::{50mm;100mm}:JULIET\n";

} // namespace

class TestMarkerPage : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void rendersWithoutError();
    void namedPositions_data();
    void namedPositions();
    void stackedStrings_data();
    void stackedStrings();
    void coordinatePositions_data();
    void coordinatePositions();
    void pageContentKept();
    void underlinedStringStopsWithoutSafeOutput();
    void underlinedStringPaintsLineWithSafeOutput();

private:
    // Writes a page with the template in the sandbox (the placement
    // definitions and any extra ones in the store) and converts it to PDF;
    // returns false (with a failure recorded) when the page cannot be
    // written.
    bool render(const QByteArray& markerTemplate, const QString& name, RunResult& ps2pdf, QString& pdf,
                const QByteArray& extraDefinitions = {});

    FixtureTree m_tree;
    RunResult m_writer;
    RunResult m_ps2pdf;
    QSizeF m_pageSize;
    QStringList m_wordList;         // every word found, in page order
    QHash<QString, QRectF> m_words; // word -> box, y downwards from the top
};

void TestMarkerPage::initTestCase()
{
    if (!haveProgram(QStringLiteral("gs")))
        QSKIP("Ghostscript (gs) is not installed");
    QVERIFY2(haveProgram(QStringLiteral("ps2pdf")), "ps2pdf is missing");
    QVERIFY2(haveProgram(QStringLiteral("pdftotext")), "pdftotext is missing");

    m_tree.installCatalogue();
    QString pdf;
    if (!render(Template, QStringLiteral("page"), m_ps2pdf, pdf))
        return;

    const RunResult text = runProgram(QStringLiteral("pdftotext"), {QStringLiteral("-bbox"), pdf, QStringLiteral("-")});
    QVERIFY2(!text.crashed && text.exitCode == 0, text.standardError.constData());
    const QString html = QString::fromUtf8(text.standardOutput);

    static const QRegularExpression page(QStringLiteral("<page width=\"([0-9.]+)\" height=\"([0-9.]+)\">"));
    const QRegularExpressionMatch pageMatch = page.match(html);
    QVERIFY2(pageMatch.hasMatch(), qPrintable(html));
    m_pageSize = QSizeF(pageMatch.captured(1).toDouble(), pageMatch.captured(2).toDouble());

    static const QRegularExpression word(QStringLiteral(
        "<word xMin=\"([0-9.]+)\" yMin=\"([0-9.]+)\" xMax=\"([0-9.]+)\" yMax=\"([0-9.]+)\">([^<]*)</word>"));
    auto it = word.globalMatch(html);
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        const double xMin = match.captured(1).toDouble();
        const double yMin = match.captured(2).toDouble();
        m_wordList.append(match.captured(5));
        m_words.insert(match.captured(5),
                       QRectF(xMin, yMin, match.captured(3).toDouble() - xMin, match.captured(4).toDouble() - yMin));
    }
}

bool TestMarkerPage::render(const QByteArray& markerTemplate, const QString& name, RunResult& ps2pdf, QString& pdf,
                            const QByteArray& extraDefinitions)
{
    const QString templateFile = m_tree.write(QStringLiteral("job/%1.template").arg(name), markerTemplate);
    const QString definitionsFile =
        m_tree.write(QStringLiteral("job/%1.definitions").arg(name), Definitions + extraDefinitions);
    const QString document = m_tree.path(QStringLiteral("job/%1.ps").arg(name));
    pdf = m_tree.path(QStringLiteral("job/%1.pdf").arg(name));
    const QString writer = QCoreApplication::applicationDirPath() + QStringLiteral("/tst_markerpage_writer");

    const RunResult written = m_tree.runInSandbox(writer, {templateFile, definitionsFile, document});
    [&] {
        QVERIFY2(!written.crashed && written.exitCode == 0, written.standardError.constData());
        QVERIFY(readFile(document).contains("% Common variables:\n"));
    }();
    if (QTest::currentTestFailed())
        return false;

    ps2pdf = runProgram(QStringLiteral("ps2pdf"), {document, pdf});
    return true;
}

void TestMarkerPage::rendersWithoutError()
{
    QVERIFY2(!m_ps2pdf.crashed && m_ps2pdf.exitCode == 0,
             (m_ps2pdf.standardOutput + m_ps2pdf.standardError).constData());
    QVERIFY2(!m_ps2pdf.standardOutput.contains("Error") && !m_ps2pdf.standardError.contains("Error"),
             (m_ps2pdf.standardOutput + m_ps2pdf.standardError).constData());
    QCOMPARE(m_pageSize, QSizeF(PageWidth, PageHeight));
    // Every marker string and the page's own word come out as text, each once.
    QStringList words = m_wordList;
    words.sort();
    QCOMPARE(words, (QStringList{"ALPHA", "BODYTEXT", "BRAVO", "CHARLIE", "DELTA", "ECHO", "FOXTROT", "GOLF",
                                 "HOTEL", "INDIA", "JULIET", QString::fromUtf8("\xd0\x96\xd0\xa3\xd0\x9a")}));
}

void TestMarkerPage::namedPositions_data()
{
    QTest::addColumn<QString>("word");
    QTest::addColumn<QString>("horizontal"); // left edge, centre or right edge of the word
    QTest::addColumn<double>("x");
    QTest::addColumn<QString>("vertical"); // top or bottom edge of the word
    QTest::addColumn<double>("y");

    const double centre = PageWidth / 2;
    const double right = PageWidth - RightShift;
    const double bottom = PageHeight - BottomShift;

    QTest::newRow("top-left: left shift from the left edge, top shift below the top")
        << "ALPHA" << "left" << LeftShift << "top" << TopShift;
    QTest::newRow("top-center: centred, top shift below the top") << "CHARLIE" << "centre" << centre << "top"
                                                                 << TopShift;
    QTest::newRow("top-right: right shift from the right edge, top shift below the top")
        << "DELTA" << "right" << right << "top" << TopShift;
    QTest::newRow("bottom-left: left shift from the left edge, bottom shift above the bottom")
        << QString::fromUtf8("\xd0\x96\xd0\xa3\xd0\x9a") << "left" << LeftShift << "bottom" << bottom;
    QTest::newRow("bottom-center: centred, bottom shift above the bottom") << "FOXTROT" << "centre" << centre
                                                                          << "bottom" << bottom;
    QTest::newRow("bottom-right: right shift from the right edge, bottom shift above the bottom")
        << "HOTEL" << "right" << right << "bottom" << bottom;
}

void TestMarkerPage::namedPositions()
{
    QFETCH(QString, word);
    QFETCH(QString, horizontal);
    QFETCH(double, x);
    QFETCH(QString, vertical);
    QFETCH(double, y);

    QVERIFY2(m_words.contains(word), qPrintable(QStringList(m_words.keys()).join(QLatin1Char(' '))));
    const QRectF box = m_words.value(word);
    const double actualX = horizontal == QLatin1String("left") ? box.left()
        : horizontal == QLatin1String("right")                ? box.right()
                                                              : box.center().x();
    const double actualY = vertical == QLatin1String("top") ? box.top() : box.bottom();
    QVERIFY2(qAbs(actualX - x) <= Tolerance,
             qPrintable(QStringLiteral("%1 edge at %2, expected %3").arg(horizontal).arg(actualX).arg(x)));
    QVERIFY2(qAbs(actualY - y) <= Tolerance,
             qPrintable(QStringLiteral("%1 edge at %2, expected %3").arg(vertical).arg(actualY).arg(y)));
}

void TestMarkerPage::stackedStrings_data()
{
    QTest::addColumn<QString>("upper"); // first in template order
    QTest::addColumn<QString>("lower");
    QTest::addColumn<bool>("rightAligned");

    QTest::newRow("top-left: the first string on top, the second one interval below") << "ALPHA" << "BRAVO"
                                                                                      << false;
    QTest::newRow("bottom-left: the first string on top, one interval above the second")
        << "ECHO" << QString::fromUtf8("\xd0\x96\xd0\xa3\xd0\x9a") << false;
    QTest::newRow("bottom-right: the first string on top, one interval above the second") << "GOLF" << "HOTEL"
                                                                                         << true;
}

void TestMarkerPage::stackedStrings()
{
    QFETCH(QString, upper);
    QFETCH(QString, lower);
    QFETCH(bool, rightAligned);

    QVERIFY(m_words.contains(upper));
    QVERIFY(m_words.contains(lower));
    const QRectF first = m_words.value(upper);
    const QRectF second = m_words.value(lower);

    const double gap = second.top() - first.bottom();
    QVERIFY2(qAbs(gap - Interval) <= Tolerance,
             qPrintable(QStringLiteral("gap %1 between %2 and %3, expected %4").arg(gap).arg(upper, lower).arg(Interval)));
    if (rightAligned)
        QVERIFY(qAbs(first.right() - second.right()) <= Tolerance);
    else
        QVERIFY(qAbs(first.left() - second.left()) <= Tolerance);
}

void TestMarkerPage::coordinatePositions_data()
{
    QTest::addColumn<QString>("word");
    QTest::addColumn<double>("x");
    QTest::addColumn<double>("y");

    QTest::newRow("{100;200}: 100 right of the left edge, 200 below the top") << "INDIA" << 100.0 << 200.0;
    QTest::newRow("{50mm;100mm}: the millimetres divided by 0.376") << "JULIET" << 50 / 0.376 << 100 / 0.376;
}

void TestMarkerPage::coordinatePositions()
{
    QFETCH(QString, word);
    QFETCH(double, x);
    QFETCH(double, y);

    QVERIFY(m_words.contains(word));
    const QRectF box = m_words.value(word);
    QVERIFY2(qAbs(box.left() - x) <= Tolerance, qPrintable(QStringLiteral("left edge at %1").arg(box.left())));
    QVERIFY2(qAbs(box.top() - y) <= Tolerance, qPrintable(QStringLiteral("top edge at %1").arg(box.top())));
}

void TestMarkerPage::pageContentKept()
{
    // The page's own word, shown before the marker block, is still there.
    QVERIFY(m_words.contains(QStringLiteral("BODYTEXT")));
    QVERIFY(qAbs(m_words.value(QStringLiteral("BODYTEXT")).left() - 250) <= Tolerance);
}

void TestMarkerPage::underlinedStringStopsWithoutSafeOutput()
{
    // The underline procedures read the FontInfo dictionary of the composite
    // marker font, which the classic font resources do not give it: the
    // interpreter stops with "undefined in --get--".
    RunResult ps2pdf;
    QString pdf;
    QVERIFY(render("any:normal:12:underline::top-left:ALPHA\n", QStringLiteral("underlined-classic"), ps2pdf, pdf));
    const QByteArray messages = ps2pdf.standardOutput + ps2pdf.standardError;
    QVERIFY2(!ps2pdf.crashed && ps2pdf.exitCode != 0, messages.constData());
    QVERIFY2(messages.contains("/undefined in --get--"), messages.constData());
}

void TestMarkerPage::underlinedStringPaintsLineWithSafeOutput()
{
    // With "MarkerSafeOutput=1" the page converts without error and the
    // string reads as before. The same page without the underline flag
    // shows where the string's ink is; what the underline adds is a thin
    // line just below it (ALPHA has no descender: just below the baseline),
    // running unbroken under the whole string.
    const int resolution = 144;
    const double pixelsPerPoint = resolution / 72.0;
    const QByteArray safeOutput = "MarkerSafeOutput=1\n";
    RunResult ps2pdf;
    QString pdf;
    QVERIFY(render("any:normal:12:underline::top-left:ALPHA\n", QStringLiteral("underlined"), ps2pdf, pdf, safeOutput));
    const QByteArray messages = ps2pdf.standardOutput + ps2pdf.standardError;
    QVERIFY2(!ps2pdf.crashed && ps2pdf.exitCode == 0 && !messages.contains("Error"), messages.constData());
    const RunResult text = runProgram(QStringLiteral("pdftotext"), {pdf, QStringLiteral("-")});
    QCOMPARE(QString::fromUtf8(text.standardOutput).simplified(), QStringLiteral("ALPHA BODYTEXT"));

    RunResult plainPdf;
    QString plain;
    QVERIFY(render("any:normal:12::top-left:ALPHA\n", QStringLiteral("plain"), plainPdf, plain, safeOutput));
    QString error;
    const QList<GrayPage> underlined = renderPages(m_tree.path(QStringLiteral("job/underlined.ps")), resolution, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    const QList<GrayPage> withoutLine = renderPages(m_tree.path(QStringLiteral("job/plain.ps")), resolution, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QCOMPARE(underlined.size(), 1);
    QCOMPARE(withoutLine.size(), 1);

    // The string's ink: the only ink in the top 100 points of the page.
    const GrayPage& page = underlined.first();
    const int band = int(100 * pixelsPerPoint);
    QRect word;
    for (int y = 0; y < band; ++y)
        for (int x = 0; x < page.width; ++x)
            if (withoutLine.first().at(x, y) < 128)
                word |= QRect(x, y, 1, 1);
    QVERIFY(!word.isNull());
    QVERIFY2(qAbs(word.left() - LeftShift * pixelsPerPoint) <= Tolerance * pixelsPerPoint,
             qPrintable(QStringLiteral("ALPHA starts at pixel %1").arg(word.left())));

    const QRect line = differenceBounds(page, withoutLine.first());
    const QString geometry = QStringLiteral("ALPHA x %1..%2 y %3..%4, underline x %5..%6 y %7..%8")
                                 .arg(word.left()).arg(word.right()).arg(word.top()).arg(word.bottom())
                                 .arg(line.left()).arg(line.right()).arg(line.top()).arg(line.bottom());
    QVERIFY2(!line.isNull(), "the underline paints nothing");
    // Just below the baseline, with a clear row between: within a quarter
    // of the font size.
    QVERIFY2(line.top() > word.bottom() + 1 && line.top() - word.bottom() <= 12 * 0.25 * pixelsPerPoint,
             qPrintable(geometry));
    // Thin: at most about a tenth of the font size.
    QVERIFY2(line.height() <= 12 * 0.1 * pixelsPerPoint + 1, qPrintable(geometry));
    // About as wide as the string.
    QVERIFY2(qAbs(line.left() - word.left()) <= Tolerance * pixelsPerPoint, qPrintable(geometry));
    QVERIFY2(qAbs(line.right() - word.right()) <= Tolerance * pixelsPerPoint, qPrintable(geometry));
    int longest = 0;
    for (int y = line.top(); y <= line.bottom(); ++y) {
        int run = 0;
        for (int x = line.left(); x <= line.right(); ++x) {
            run = page.at(x, y) < 128 ? run + 1 : 0;
            longest = qMax(longest, run);
        }
    }
    QVERIFY2(longest >= word.width() * 9 / 10, qPrintable(geometry + QStringLiteral(", longest run %1").arg(longest)));
}

QTEST_GUILESS_MAIN(TestMarkerPage)
#include "tst_markerpage.moc"
