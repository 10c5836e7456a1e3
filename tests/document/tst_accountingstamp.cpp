// The accounting stamp: with "MarkerAccountingStamp=1" (and print-safe
// output) every copy ends with the template's "fonarik" strings, or its
// "fonarik_gt_5" strings when the copy count is above the boundary, on a
// page of its own in simplex and on the last back page in duplex. The
// output is rendered by Ghostscript and read back as text.
#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QTest>

namespace {

const int Pages = 3;
const QByteArray Variables = "job-originating-user-name=carol\nCURRENT_COPY=2\nLABEL=SECRET\n";
const QByteArray MarkLines = "any:normal:10::top-left:{LABEL} Page {CURRENT_PAGE} of {NUM_PAGES}\n";
const QByteArray StampLines =
    "fonarik:normal:10::bottom-left:FEW {copies} copies, copy {CURRENT_COPY}, user {job-originating-user-name}\n"
    "fonarik_gt_5:bold:10::bottom-left:MANY {copies} copies, copy {CURRENT_COPY}, user {job-originating-user-name}\n";

struct Marked
{
    RunResult run;
    QByteArray output;
    QByteArray variables;
    QStringList pageTexts;
    QString error;
};

Marked mark(const QByteArray& definitions, const QByteArray& markerTemplate, int copies, bool duplex)
{
    FixtureTree tree;
    tree.copy(catalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("etc-cups/marker.defs"),
               readFile(catalogueDir() + QStringLiteral("/quillet/marker.defs")) + definitions);
    tree.write(QStringLiteral("job/in.ps"), minimalDocument(Pages));
    tree.write(QStringLiteral("job/marker.tmpl"), markerTemplate);
    tree.write(QStringLiteral("job/job.vars"), Variables + "copies=" + QByteArray::number(copies) + '\n');
    QStringList arguments = {QStringLiteral("in.ps"), QStringLiteral("marker.tmpl"), QStringLiteral("job.vars"),
                             QStringLiteral("out.ps")};
    if (duplex)
        arguments << QStringLiteral("--duplex");
    Marked marked;
    marked.run = tree.runQuillet(arguments);
    marked.output = tree.read(QStringLiteral("job/out.ps"));
    marked.variables = tree.read(QStringLiteral("job/job.vars"));
    if (marked.run.exitCode != 0)
        return marked;
    marked.error = ghostscriptErrors(tree.path(QStringLiteral("job/out.ps")));
    const QString pdf = tree.path(QStringLiteral("job/out.pdf"));
    if (convertToPdf(tree.path(QStringLiteral("job/out.ps")), pdf, &marked.error))
        marked.pageTexts = pdfPageTexts(pdf);
    return marked;
}

QStringList pagesComments(const QByteArray& output)
{
    QStringList found;
    for (const QByteArray& line : output.split('\n')) {
        if (line.startsWith("%%Pages:"))
            found.append(QString::fromLatin1(line));
    }
    return found;
}

} // namespace

class TestAccountingStamp : public QObject
{
    Q_OBJECT

  private slots:
    void stampEndsTheCopy_data();
    void stampEndsTheCopy();
    void offUnlessBothKeysSayOne_data();
    void offUnlessBothKeysSayOne();
};

void TestAccountingStamp::stampEndsTheCopy_data()
{
    QTest::addColumn<int>("copies");
    QTest::addColumn<int>("boundary"); // 0: the template does not set it
    QTest::addColumn<bool>("duplex");
    QTest::addColumn<bool>("many");
    for (const bool duplex : {false, true}) {
        const char* mode = duplex ? "duplex" : "simplex";
        // The default boundary is 3.
        for (const int copies : {1, 3, 5, 7})
            QTest::addRow("%d copies, default boundary, %s", copies, mode) << copies << 0 << duplex << (copies > 3);
        // A boundary of 6: five copies are still few.
        for (const int copies : {5, 7})
            QTest::addRow("%d copies, boundary 6, %s", copies, mode) << copies << 6 << duplex << (copies > 6);
    }
}

void TestAccountingStamp::stampEndsTheCopy()
{
    QFETCH(int, copies);
    QFETCH(int, boundary);
    QFETCH(bool, duplex);
    QFETCH(bool, many);
    QByteArray markerTemplate = MarkLines + StampLines;
    if (boundary > 0)
        markerTemplate.prepend("fonarik_boundary=" + QByteArray::number(boundary) + '\n');
    const Marked marked = mark("MarkerAccountingStamp=1\n", markerTemplate, copies, duplex);
    QVERIFY2(marked.run.exitCode == 0, marked.run.standardError.constData());
    QVERIFY2(marked.error.isEmpty(), qPrintable(marked.error));

    // Simplex: the document's pages and the stamp's; duplex: every page and
    // its back page, the stamp on the last one.
    const int sheets = duplex ? 2 * Pages : Pages + 1;
    QCOMPARE(marked.pageTexts.size(), sheets);
    const QString stamp = QStringLiteral("%1 %2 copies, copy 2, user carol")
                              .arg(many ? QStringLiteral("MANY") : QStringLiteral("FEW"))
                              .arg(copies);
    const QString otherType = many ? QStringLiteral("FEW ") : QStringLiteral("MANY ");
    for (int sheet = 0; sheet < sheets; ++sheet) {
        const QString text = marked.pageTexts.at(sheet).simplified();
        const bool last = sheet == sheets - 1;
        QVERIFY2(text.contains(stamp) == last, qPrintable(text));
        QVERIFY2(!text.contains(otherType), qPrintable(text));
    }
    // The marks still count the document's pages; in duplex the last back
    // page has its own marks beside the stamp.
    QVERIFY2(marked.pageTexts.last().contains(QStringLiteral("SECRET Page %1 of %1").arg(Pages)) == duplex,
             qPrintable(marked.pageTexts.last()));
    QVERIFY(marked.variables.contains("\nNUM_PAGES=" + QByteArray::number(Pages) + '\n'));
    // Simplex: the page count comments include the stamp's page. (Duplex
    // adds no page for it.)
    if (!duplex) {
        const QStringList comments = pagesComments(marked.output);
        QVERIFY(!comments.isEmpty());
        for (const QString& line : comments)
            QCOMPARE(line, QStringLiteral("%%Pages: %1").arg(Pages + 1));
    }
}

void TestAccountingStamp::offUnlessBothKeysSayOne_data()
{
    QTest::addColumn<QByteArray>("definitions");
    QTest::addColumn<bool>("duplex");
    for (const bool duplex : {false, true}) {
        const char* mode = duplex ? "duplex" : "simplex";
        QTest::addRow("stamp key 0, %s", mode) << QByteArray("MarkerAccountingStamp=0\n") << duplex;
        QTest::addRow("stamp key yes, %s", mode) << QByteArray("MarkerAccountingStamp=yes\n") << duplex;
        QTest::addRow("stamp on, print-safe output off, %s", mode)
            << QByteArray("MarkerAccountingStamp=1\nMarkerSafeOutput=0\n") << duplex;
    }
}

// Without the stamp the output is the one of the same job without the key,
// byte for byte.
void TestAccountingStamp::offUnlessBothKeysSayOne()
{
    QFETCH(QByteArray, definitions);
    QFETCH(bool, duplex);
    const QByteArray markerTemplate = MarkLines + StampLines;
    const QByteArray safeOff = definitions.contains("MarkerSafeOutput=0") ? "MarkerSafeOutput=0\n" : "";
    const Marked without = mark(safeOff, markerTemplate, 3, duplex);
    const Marked with = mark(definitions, markerTemplate, 3, duplex);
    QVERIFY2(without.run.exitCode == 0 && with.run.exitCode == 0, with.run.standardError.constData());
    QVERIFY2(with.output == without.output, qPrintable(firstDifference(with.output, without.output)));
    QCOMPARE(with.pageTexts.size(), duplex ? 2 * Pages : Pages);
    for (const QString& text : with.pageTexts)
        QVERIFY2(!text.contains(QStringLiteral("FEW ")), qPrintable(text));
}

QTEST_GUILESS_MAIN(TestAccountingStamp)
#include "tst_accountingstamp.moc"
