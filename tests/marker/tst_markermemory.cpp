// Memory of a run is bounded by its template: at most about ten times the
// template's size beyond what a run with a one-line template takes, whatever
// the shape of the template (references nested deep, long texts, texts split
// into many strings). quillet runs under /usr/bin/time, which reports the
// peak resident set size.
#include "support/testsupport.h"

#include <QTest>

namespace
{

// The bound: ten times the template, plus a fixed allowance. Built with the
// sanitizers, the allocator adds a redzone to every block, shadow memory and
// a quarantine of up to 256 MB of freed memory: the bound leaves room for
// that and still catches memory that grows faster than the template.
#ifdef QUILLET_SANITIZED
constexpr qint64 TemplateFactor = 100;
constexpr qint64 FixedKilobytes = 288 * 1024;
#else
constexpr qint64 TemplateFactor = 10;
constexpr qint64 FixedKilobytes = 4 * 1024;
#endif

const QByteArray StringLine = "any:normal:12::top-left:";

QByteArray nestedScripts(int depth)
{
    return StringLine + QByteArray("{SCRIPT:").repeated(depth) + QByteArray("}").repeated(depth) + '\n';
}

} // namespace

class TestMarkerMemory : public QObject
{
    Q_OBJECT

  private slots:
    void memoryBoundedByTemplate_data();
    void memoryBoundedByTemplate();
};

void TestMarkerMemory::memoryBoundedByTemplate_data()
{
    QTest::addColumn<QByteArray>("markerTemplate");

    QTest::newRow("SCRIPT references nested 6000 deep: a 54 KB line") << nestedScripts(6000);
    QTest::newRow("SCRIPT references nested 110,000 deep: a 1 MB line") << nestedScripts(110000);
    QTest::newRow("a 4 MB text") << StringLine + QByteArray(4 * 1024 * 1024, 'x') + '\n';
    QTest::newRow("a 4 MB text expanded at load time into a million strings")
        << StringLine + "[A]" + QByteArray("xy^").repeated(1400000) + '\n';
    QTest::newRow("brackets nested 500,000 deep")
        << StringLine + QByteArray(500000, '[') + QByteArray(500000, ']') + '\n';
    QTest::newRow("160,000 string lines") << (StringLine + "x\n").repeated(160000);
}

void TestMarkerMemory::memoryBoundedByTemplate()
{
    QFETCH(QByteArray, markerTemplate);
    if (!haveTimeProgram())
        QSKIP("/usr/bin/time (package time) is needed to measure the peak memory");

    FixtureTree tree;
    tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("job/in.ps"), minimalDocument(1));
    tree.write(QStringLiteral("job/vars"), "copies=1\nA=a\n");
    tree.write(QStringLiteral("job/small.tpl"), StringLine + "x\n");
    tree.write(QStringLiteral("job/large.tpl"), markerTemplate);
    const qint64 templateKilobytes = markerTemplate.size() / 1024;

    const MeasuredRun small = measureQuillet(tree, {QStringLiteral("in.ps"), QStringLiteral("small.tpl"),
                                                    QStringLiteral("vars"), QStringLiteral("small.ps")});
    QVERIFY2(small.run.exitCode == 0 && small.peakKilobytes > 0, small.run.standardError.constData());
    const MeasuredRun large = measureQuillet(tree, {QStringLiteral("in.ps"), QStringLiteral("large.tpl"),
                                                    QStringLiteral("vars"), QStringLiteral("large.ps")});
    QVERIFY2(!large.run.crashed && large.run.exitCode == 0 && large.peakKilobytes > 0,
             large.run.standardError.right(2000).constData());
    qInfo("template %lld KB; peak memory %lld KB, %lld KB with a one-line template; %lld ms",
          templateKilobytes, large.peakKilobytes, small.peakKilobytes, large.milliseconds);

    // The page was marked.
    QCOMPARE(tree.read(QStringLiteral("job/large.ps")).count("% Common variables:\n"), 1);
    const qint64 bound = small.peakKilobytes + TemplateFactor * templateKilobytes + FixedKilobytes;
    QVERIFY2(large.peakKilobytes <= bound,
             qPrintable(QStringLiteral("peak %1 KB, bound %2 KB").arg(large.peakKilobytes).arg(bound)));
}

QTEST_GUILESS_MAIN(TestMarkerMemory)
#include "tst_markermemory.moc"
