// Tests of the marker blocks of a run: which texts change from page to page,
// and that the blocks a run makes once and copies are, page after page, the
// very bytes that drawing every page afresh writes.
#include "fonts/fonts.h"
#include "marker/marker.h"
#include "settings/variables.h"
#include "support/testsupport.h"

#include <QBuffer>
#include <QTest>

namespace {

// The per-page keys for a page. The catalogue stays uninitialised, so every
// character is encoded alike: the values differ in length from page to page
// for a stale text to show.
void setPage(int page)
{
    Variables& variables = Variables::instance();
    variables.insert(QStringLiteral("CURRENT_PAGE"), QString::number(page));
    variables.insert(QStringLiteral("CURRENT_PAGE_CONTINUOUS"), QString(page, QLatin1Char('9')));
    // A page code on every third page only: a string of it alone is blank on
    // the others.
    variables.insert(QStringLiteral("PAGE_CODE"), page % 3 == 0 ? QString(page, QLatin1Char('K')) : QString());
}

QByteArray freshMarker(int page, bool lastPage)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().drawMarker(buffer, page, lastPage);
    return buffer.data();
}

QByteArray freshFonarik(int count)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Marker::instance().drawFonarik(buffer, count);
    return buffer.data();
}

} // namespace

class TestMarkerBlocks : public QObject
{
    Q_OBJECT

  private slots:
    void init();
    void changesPerPage_data();
    void changesPerPage();
    void blocksAreFreshDrawings_data();
    void blocksAreFreshDrawings();
};

void TestMarkerBlocks::init()
{
    Variables::instance().clear();
    Marker::instance().reset();
    Fonts::instance().reset();
}

void TestMarkerBlocks::changesPerPage_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("changes");

    QTest::newRow("plain text") << QStringLiteral("CONFIDENTIAL") << false;
    QTest::newRow("a job variable") << QStringLiteral("User {job-originating-user-name}") << false;
    QTest::newRow("the page") << QStringLiteral("Page {CURRENT_PAGE} of {NUM_PAGES}") << true;
    QTest::newRow("the continuous page") << QStringLiteral("{CURRENT_PAGE_CONTINUOUS}") << true;
    QTest::newRow("the page code") << QStringLiteral("code {PAGE_CODE}") << true;
    QTest::newRow("square brackets name the page too") << QStringLiteral("[CURRENT_PAGE]") << true;
    QTest::newRow("a site script") << QStringLiteral("{SCRIPT:/bin/echo label}") << true;
    QTest::newRow("the user directory") << QStringLiteral("{FREEIPA:mail}") << true;
    QTest::newRow("the page inside a script's command") << QStringLiteral("{SCRIPT:/bin/echo {CURRENT_PAGE}}") << true;
    QTest::newRow("a name with a blank is another key") << QStringLiteral("{ CURRENT_PAGE}") << false;
    QTest::newRow("nested brackets make one longer name") << QStringLiteral("{CURRENT_{X}PAGE}") << false;
    QTest::newRow("after a stray closing bracket nothing is a reference")
        << QStringLiteral("} {CURRENT_PAGE}") << false;
    QTest::newRow("an unclosed reference is dropped") << QStringLiteral("Page {CURRENT_PAGE") << false;
    QTest::newRow("a lower-case name is another key") << QStringLiteral("{current_page}") << false;
}

void TestMarkerBlocks::changesPerPage()
{
    QFETCH(QString, text);
    QFETCH(bool, changes);
    QCOMPARE(Marker::instance().changesPerPage(text), changes);
}

void TestMarkerBlocks::blocksAreFreshDrawings_data()
{
    QTest::addColumn<QByteArray>("templateText");
    QTest::addColumn<QStringList>("variables");

    const QByteArray pages = "first:bold:14::title:top-center:First {CURRENT_PAGE} of {NUM_PAGES}\n"
                             "any:normal:10::page:top-left:Page {CURRENT_PAGE}\n"
                             "any:bold:9:underline:user:top-right:{job-originating-user-name}\n"
                             "any:normal:8::copy:bottom-right:{CURRENT_PAGE_CONTINUOUS}/{NUM_PAGES_CONTINUOUS}\n"
                             "any:normal:8::copy:bottom-right:copy {CURRENT_COPY}\n"
                             "any:normal:8::code:bottom-left:{PAGE_CODE}\n"
                             "any:normal:8::blank:bottom-left:{UNSET}\n"
                             "last:normal:10::end:bottom-center:Last page {CURRENT_PAGE}\n"
                             "fonarik:bold:12::stamp:top-center:{copies} copies of {NUM_PAGES}\n"
                             "fonarik_gt_5:bold:12:underline:stamp:top-center:Many copies\n";
    const QByteArray placed = "replace_underscore=1\n"
                              "any:normal:9:underline:label:{20;30}:[LABEL_NAME]^second line\n"
                              "any:bold:11:underline:sheet:{15mm;250mm}:Sheet {CURRENT_PAGE_CONTINUOUS} of {NUM_PAGES}\n"
                              "any:normal:7::date:{100.5;700}:[DATE] {CURRENT_PAGE_CONTINUOUS}\n"
                              "any:normal:12::latin:bottom-center:\xc3\x9c" "n\xc3\xaf" "c\xc3\xb6" "d\xc3\xa9 {LABEL_NAME}\n"
                              "first:bold:12:underline:label:bottom-left:{LABEL_NAME}\n";
    const QByteArray script = "any:normal:10::script:top-left:{SCRIPT:/bin/echo page {CURRENT_PAGE_CONTINUOUS}}\n"
                              "any:normal:10::fixed:top-right:{SCRIPT:/bin/echo fixed}\n"
                              "any:bold:10:underline:user:bottom-right:[job-originating-user-name]\n";
    const QStringList job = {"job-originating-user-name=ivanov", "LABEL_NAME=SECRET_STAFF_ONLY", "NUM_PAGES=7",
                             "NUM_PAGES_CONTINUOUS=14", "CURRENT_COPY=2", "copies=2", "DATE=24.11.2026",
                             "MarkerTopShift=8", "MarkerStringInterval=2", "A4:P:FonarikTopShift=14"};

    for (const bool safe : {false, true}) {
        QStringList variables = job;
        variables << QStringLiteral("MarkerSafeOutput=%1").arg(safe ? 1 : 0);
        const char* mode = safe ? "print-safe" : "classic";
        QTest::addRow("page numbers, %s", mode) << pages << (variables + QStringList{"LANDSCAPE=0"});
        QTest::addRow("coordinates, landscape per page, %s", mode)
            << placed << (variables + QStringList{"LANDSCAPE=0,1,1,0"});
        QTest::addRow("site scripts, %s", mode) << script << (variables + QStringList{"LANDSCAPE=1"});
    }
}

void TestMarkerBlocks::blocksAreFreshDrawings()
{
    QFETCH(QByteArray, templateText);
    QFETCH(QStringList, variables);
    setVariables(variables);
    readMarkerTemplate(templateText);

    const int pageCount = 7;
    MarkerBlocks blocks(Marker::instance());
    for (int page = 1; page <= pageCount; ++page) {
        setPage(page);
        const bool last = page == pageCount;
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        blocks.drawMarker(buffer, page, last);
        const QByteArray fresh = freshMarker(page, last);
        QVERIFY(!fresh.isEmpty());
        QVERIFY2(buffer.data() == fresh, qPrintable(QStringLiteral("page %1 differs").arg(page)));
    }
    for (const int count : {1, 9}) {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        blocks.drawFonarik(buffer, count);
        QCOMPARE(buffer.data(), freshFonarik(count));
    }
}

QTEST_GUILESS_MAIN(TestMarkerBlocks)
#include "tst_markerblocks.moc"
