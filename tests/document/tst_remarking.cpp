// Marking a document that quillet marked before, on documents made by real
// tools while the test runs. Print-safe output delimits everything that a
// run adds, so a later run takes it out and marks the original: marking the
// marked document gives, byte for byte, the mark of the original with the
// later run's template and mode. A document marked in classic mode carries
// no such lines; marked again, every page still prints once, with the new
// marks (on top of the earlier ones; a classic duplex run's back pages are
// taken out).
#include "support/postscripttools.h"
#include "support/realdocuments.h"
#include "support/testsupport.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QByteArray Placement = "MarkerTopShift=8\nMarkerBottomShift=8\nMarkerLeftShift=40\nMarkerRightShift=40\n";
const QByteArray SafeDefinitions = Placement + "MarkerSafeOutput=1\n";
const QByteArray ClassicDefinitions = Placement + "MarkerSafeOutput=0\n";
const QByteArray StampDefinitions = SafeDefinitions + "MarkerAccountingStamp=1\n";
const QByteArray Variables = "job-originating-user-name=alice\ncopies=1\nCURRENT_COPY=1\n";

// Two templates that differ in every string, style and position.
const QByteArray FirstTemplate = "any:bold:12::top-center:FIRSTMARK\n"
                                 "any:normal:10::bottom-right:First {CURRENT_PAGE} of {NUM_PAGES}\n";
const QByteArray SecondTemplate = "any:normal:10::top-left:SECONDMARK {CURRENT_PAGE}/{NUM_PAGES}\n"
                                  "any:bold:10:underline:bottom-center:Copy {CURRENT_COPY} for "
                                  "{job-originating-user-name}\n";

// The first template with an accounting stamp.
const QByteArray StampTemplate = FirstTemplate + "fonarik:normal:10::bottom-left:STAMP {copies} for {job-originating-user-name}\n";

struct Mark
{
    QByteArray markerTemplate;
    bool duplex;
};

QByteArray describe(const RunResult& run)
{
    return "exit status " + QByteArray::number(run.exitCode) + ": " + run.standardError.right(2000);
}

} // namespace

class TestRemarking : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void markedAgainIsMarkOfOriginal_data();
    void markedAgainIsMarkOfOriginal();
    void stampedMarkedAgainIsMarkOfOriginal_data();
    void stampedMarkedAgainIsMarkOfOriginal();
    void threeRunsInARow_data();
    void threeRunsInARow();
    void classicMarkMarkedAgainPrintsEveryPageOnce_data();
    void classicMarkMarkedAgainPrintsEveryPageOnce();
    void noTemporaryFileIsRefused();
    void unendedInsertionIsRefused_data();
    void unendedInsertionIsRefused();

  private:
    // Marks input (below the fixture root) into output with the given
    // definitions; the variables are written afresh for every run.
    RunResult mark(const FixtureTree& tree, const QString& input, const Mark& how, const QString& output,
                   const QByteArray& definitions = SafeDefinitions) const;
    // A tree with the catalogue and the document as job/original.ps.
    void prepare(FixtureTree& tree, const QString& document) const;

    QTemporaryDir m_work;
    QList<RealDocument> m_documents;
};

RunResult TestRemarking::mark(const FixtureTree& tree, const QString& input, const Mark& how, const QString& output,
                              const QByteArray& definitions) const
{
    tree.write(QStringLiteral("etc-cups/marker.defs"), definitions);
    tree.write(QStringLiteral("job/marker.tmpl"), how.markerTemplate);
    tree.write(QStringLiteral("job/job.vars"), Variables);
    QStringList arguments = {input, QStringLiteral("marker.tmpl"), QStringLiteral("job.vars"), output};
    if (how.duplex)
        arguments << QStringLiteral("--duplex");
    return tree.runQuillet(arguments);
}

void TestRemarking::prepare(FixtureTree& tree, const QString& document) const
{
    tree.copy(catalogueDir(), QStringLiteral("share-cups"));
    for (const RealDocument& real : m_documents) {
        if (real.key == document)
            tree.copy(real.file, QStringLiteral("job/original.ps"));
    }
}

void TestRemarking::initTestCase()
{
    for (const char* program : {"groff", "gs", "ps2pdf", "pdftotext", "pdftops", "pdftocairo", "gzip"})
        QVERIFY2(haveProgram(QLatin1String(program)), qPrintable(QStringLiteral("%1 is not installed").arg(program)));
    QVERIFY(m_work.isValid());
    QString error;
    m_documents = makeRealDocuments(m_work.path(), &error);
    QVERIFY2(!m_documents.isEmpty(), qPrintable(error));
}

void TestRemarking::markedAgainIsMarkOfOriginal_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<bool>("firstDuplex");
    QTest::addColumn<bool>("secondDuplex");
    for (const RealDocument& document : qAsConst(m_documents)) {
        for (const bool first : {false, true}) {
            for (const bool second : {false, true})
                QTest::addRow("%s, %s then %s", qPrintable(document.label), first ? "duplex" : "simplex",
                              second ? "duplex" : "simplex")
                    << document.key << first << second;
        }
    }
}

void TestRemarking::markedAgainIsMarkOfOriginal()
{
    QFETCH(QString, document);
    QFETCH(bool, firstDuplex);
    QFETCH(bool, secondDuplex);
    FixtureTree tree;
    prepare(tree, document);

    const Mark first{FirstTemplate, firstDuplex};
    const Mark second{SecondTemplate, secondDuplex};
    RunResult run = mark(tree, QStringLiteral("original.ps"), first, QStringLiteral("once.ps"));
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    run = mark(tree, QStringLiteral("once.ps"), second, QStringLiteral("twice.ps"));
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    const QByteArray twiceVariables = tree.read(QStringLiteral("job/job.vars"));
    run = mark(tree, QStringLiteral("original.ps"), second, QStringLiteral("direct.ps"));
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    const QByteArray directVariables = tree.read(QStringLiteral("job/job.vars"));

    const QByteArray once = tree.read(QStringLiteral("job/once.ps"));
    const QByteArray twice = tree.read(QStringLiteral("job/twice.ps"));
    const QByteArray direct = tree.read(QStringLiteral("job/direct.ps"));
    QVERIFY(once != direct);
    QVERIFY2(twice == direct, qPrintable(firstDifference(twice, direct)));
    // The page counts are the original document's.
    const QMap<QString, QString> counts = parseKeyValues(twiceVariables);
    const QMap<QString, QString> directCounts = parseKeyValues(directVariables);
    for (const char* key : {"NUM_PAGES", "NUM_PAGES_CONTINUOUS"})
        QCOMPARE(counts.value(QLatin1String(key)), directCounts.value(QLatin1String(key)));
}

void TestRemarking::stampedMarkedAgainIsMarkOfOriginal_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<bool>("firstDuplex");
    QTest::addColumn<bool>("secondStamp");
    for (const RealDocument& document : qAsConst(m_documents)) {
        for (const bool duplex : {false, true}) {
            for (const bool stamp : {false, true})
                QTest::addRow("%s, stamped in %s, then %s", qPrintable(document.label), duplex ? "duplex" : "simplex",
                              stamp ? "stamped again" : "without the stamp")
                    << document.key << duplex << stamp;
        }
    }
}

// The stamp's page or its block on the last back page is an insertion like
// the others.
void TestRemarking::stampedMarkedAgainIsMarkOfOriginal()
{
    QFETCH(QString, document);
    QFETCH(bool, firstDuplex);
    QFETCH(bool, secondStamp);
    FixtureTree tree;
    prepare(tree, document);

    const QByteArray secondDefinitions = secondStamp ? StampDefinitions : SafeDefinitions;
    const Mark second{secondStamp ? StampTemplate : SecondTemplate, false};
    RunResult run = mark(tree, QStringLiteral("original.ps"), {StampTemplate, firstDuplex}, QStringLiteral("once.ps"),
                         StampDefinitions);
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    // A marker block on every page, and the stamp's.
    const int pages = parseKeyValues(tree.read(QStringLiteral("job/job.vars"))).value(QStringLiteral("NUM_PAGES")).toInt();
    QCOMPARE(tree.read(QStringLiteral("job/once.ps")).count("% Common variables:\n"), pages + 1);
    run = mark(tree, QStringLiteral("once.ps"), second, QStringLiteral("twice.ps"), secondDefinitions);
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    run = mark(tree, QStringLiteral("original.ps"), second, QStringLiteral("direct.ps"), secondDefinitions);
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    const QByteArray twice = tree.read(QStringLiteral("job/twice.ps"));
    const QByteArray direct = tree.read(QStringLiteral("job/direct.ps"));
    QVERIFY2(twice == direct, qPrintable(firstDifference(twice, direct)));
}

void TestRemarking::threeRunsInARow_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<QList<bool>>("duplex");
    for (const RealDocument& document : qAsConst(m_documents)) {
        QTest::addRow("%s, simplex three times", qPrintable(document.label)) << document.key
                                                                             << QList<bool>{false, false, false};
        QTest::addRow("%s, duplex, simplex, duplex", qPrintable(document.label))
            << document.key << QList<bool>{true, false, true};
        QTest::addRow("%s, simplex, duplex, simplex", qPrintable(document.label))
            << document.key << QList<bool>{false, true, false};
    }
}

void TestRemarking::threeRunsInARow()
{
    QFETCH(QString, document);
    QFETCH(QList<bool>, duplex);
    FixtureTree tree;
    prepare(tree, document);

    // The templates take turns; each run marks the one before's output.
    QString input = QStringLiteral("original.ps");
    for (int i = 0; i < duplex.size(); ++i) {
        const QString output = QStringLiteral("run%1.ps").arg(i + 1);
        const RunResult run = mark(tree, input, {i % 2 ? SecondTemplate : FirstTemplate, duplex.at(i)}, output);
        QVERIFY2(run.exitCode == 0, describe(run).constData());
        input = output;
    }
    const Mark last{duplex.size() % 2 ? FirstTemplate : SecondTemplate, duplex.last()};
    const RunResult run = mark(tree, QStringLiteral("original.ps"), last, QStringLiteral("direct.ps"));
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    const QByteArray remarked = tree.read(QStringLiteral("job/") + input);
    const QByteArray direct = tree.read(QStringLiteral("job/direct.ps"));
    QVERIFY2(remarked == direct, qPrintable(firstDifference(remarked, direct)));
}

void TestRemarking::classicMarkMarkedAgainPrintsEveryPageOnce_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<bool>("firstDuplex");
    QTest::addColumn<bool>("duplex");
    for (const RealDocument& document : qAsConst(m_documents)) {
        for (const bool first : {false, true}) {
            for (const bool second : {false, true})
                QTest::addRow("%s, classic %s, then print-safe %s", qPrintable(document.label),
                              first ? "duplex" : "simplex", second ? "duplex" : "simplex")
                    << document.key << first << second;
        }
    }
}

// Ghostscript shows every page of the document once (and in duplex its back
// page), each with the second run's marks; after a classic simplex run on top
// of its marks, after a classic duplex run without its back pages.
void TestRemarking::classicMarkMarkedAgainPrintsEveryPageOnce()
{
    QFETCH(QString, document);
    QFETCH(bool, firstDuplex);
    QFETCH(bool, duplex);
    FixtureTree tree;
    prepare(tree, document);
    const QString original = tree.path(QStringLiteral("job/original.ps"));
    const QString originalPdf = tree.path(QStringLiteral("job/original.pdf"));
    QString error;
    QVERIFY2(convertToPdf(original, originalPdf, &error), qPrintable(error));
    const int pages = pdfPageCount(originalPdf);
    QVERIFY(pages >= 2);

    RunResult run = mark(tree, QStringLiteral("original.ps"), {FirstTemplate, firstDuplex},
                         QStringLiteral("classic.ps"), ClassicDefinitions);
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    run = mark(tree, QStringLiteral("classic.ps"), {SecondTemplate, duplex}, QStringLiteral("again.ps"));
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    QCOMPARE(parseKeyValues(tree.read(QStringLiteral("job/job.vars"))).value(QStringLiteral("NUM_PAGES")),
             QString::number(pages));

    const QString again = tree.path(QStringLiteral("job/again.ps"));
    const QString errors = ghostscriptErrors(again);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    const QString againPdf = tree.path(QStringLiteral("job/again.pdf"));
    QVERIFY2(convertToPdf(again, againPdf, &error), qPrintable(error));
    const QStringList texts = pdfPageTexts(againPdf);
    QCOMPARE(texts.size(), duplex ? 2 * pages : pages);
    for (int page = 1; page <= pages; ++page) {
        const QString front = texts.at(duplex ? 2 * page - 2 : page - 1);
        const QString second = QStringLiteral("SECONDMARK %1/%2").arg(page).arg(pages);
        QVERIFY2(front.contains(QStringLiteral("First %1 of %2").arg(page).arg(pages)) == !firstDuplex,
                 qPrintable(front));
        QVERIFY2(front.contains(QStringLiteral("FIRSTMARK")) == !firstDuplex, qPrintable(front));
        const QString withNewMarks = duplex ? texts.at(2 * page - 1) : front;
        QVERIFY2(withNewMarks.contains(second), qPrintable(withNewMarks));
        QVERIFY2(!withNewMarks.contains(QStringLiteral("FIRSTMARK")) || !duplex, qPrintable(withNewMarks));
    }
}

void TestRemarking::unendedInsertionIsRefused_data()
{
    QTest::addColumn<QByteArray>("mark");
    QTest::newRow("an insertion without its end line") << QByteArray("%quillet-insertion-begin\n");
    QTest::newRow("a classic back page without its showpage and trailer")
        << QByteArray("%%Page: 2 2\n%%BeginPageSetup\n%%EndPageSetup\n% Common variables:\n");
}

// An earlier mark that never ends would swallow the rest of the document:
// the job is refused and nothing is written.
void TestRemarking::unendedInsertionIsRefused()
{
    QFETCH(QByteArray, mark);
    FixtureTree tree;
    tree.copy(catalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("job/original.ps"),
               "%!PS-Adobe-3.0\n%%Pages: 2\n%%EndComments\n%%BeginProlog\n%%EndProlog\n"
               "%%Page: 1 1\nshowpage\n%%PageTrailer\n" + mark +
                   "%%Page: 2 2\nshowpage\n%%Trailer\n%%EOF\n");
    const RunResult run =
        this->mark(tree, QStringLiteral("original.ps"), {FirstTemplate, false}, QStringLiteral("out.ps"));
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.standardError.contains("Input file original.ps holds an earlier mark without its end"),
             run.standardError.constData());
    QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("job/out.ps"))));
}

// The marks are taken out into a temporary file: where none can be made (the
// temporary folder is /proc) the job is refused, not printed with the
// earlier marks.
void TestRemarking::noTemporaryFileIsRefused()
{
    FixtureTree tree;
    prepare(tree, m_documents.first().key);
    RunResult run = mark(tree, QStringLiteral("original.ps"), {FirstTemplate, false}, QStringLiteral("once.ps"));
    QVERIFY2(run.exitCode == 0, describe(run).constData());
    tree.write(QStringLiteral("job/job.vars"), Variables);
    run = tree.runQuillet({QStringLiteral("once.ps"), QStringLiteral("marker.tmpl"), QStringLiteral("job.vars"),
                           QStringLiteral("twice.ps")},
                          {QStringLiteral("TMPDIR=/proc")});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.standardError.contains("Can not create a temporary file for input file once.ps"),
             run.standardError.constData());
    QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("job/twice.ps"))));
}

QTEST_GUILESS_MAIN(TestRemarking)
#include "tst_remarking.moc"
