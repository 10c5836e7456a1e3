// The filter streams: its memory stays flat whatever the document's size.
// quillet runs under /usr/bin/time, which reports the peak resident set size
// of the run, once on a one-page document and once on a document of about
// 50 MB and 5000 pages.
#include "support/testsupport.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>

namespace {

using Measured = MeasuredRun;

// The bounds of a run on the large document. Built with the sanitizers
// (QUILLET_SANITIZE), the allocator keeps up to 256 MB of freed memory in
// quarantine before reusing it, adds shadow memory and runs several times
// slower: the bounds then leave room for that, and nothing else changes.
#ifdef QUILLET_SANITIZED
constexpr qint64 AllowedGrowthKilobytes = 320 * 1024;
constexpr qint64 SanitizerKilobytes = 320 * 1024;
constexpr qint64 AllowedMilliseconds = 120000;
#else
constexpr qint64 AllowedGrowthKilobytes = 4 * 1024;
constexpr qint64 SanitizerKilobytes = 0;
constexpr qint64 AllowedMilliseconds = 20000;
#endif

// A document of the given number of pages, each about 10 KB of comment lines.
bool writeDocument(const QString& path, int pages)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    file.write("%!PS-Adobe-3.0\n%%Pages: " + QByteArray::number(pages) + "\n%%EndComments\n%%BeginProlog\n"
               "%%EndProlog\n");
    const QByteArray body = QByteArray("% ").append(QByteArray(76, 'x')).append('\n').repeated(128);
    for (int page = 1; page <= pages; ++page) {
        const QByteArray n = QByteArray::number(page);
        file.write("%%Page: " + n + ' ' + n + '\n');
        file.write(body);
        file.write("showpage\n%%PageTrailer\n");
    }
    file.write("%%Trailer\n%%EOF\n");
    return true;
}

Measured runMeasured(const FixtureTree& tree, const QString& input, const QString& output)
{
    return measureQuillet(tree, {input, QStringLiteral("template"), QStringLiteral("vars"), output});
}

} // namespace

class TestDocumentStreaming : public QObject
{
    Q_OBJECT

private slots:
    void memoryStaysFlat();
};

void TestDocumentStreaming::memoryStaysFlat()
{
    if (!haveTimeProgram())
        QSKIP("/usr/bin/time (package time) is needed to measure the peak memory");

    const int pages = 5000;
    FixtureTree tree;
    tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("job/template"), "any:normal:10::top-left:{CURRENT_PAGE}/{NUM_PAGES}\n");
    tree.write(QStringLiteral("job/vars"), "copies=1\n");
    QVERIFY(writeDocument(tree.path(QStringLiteral("job/small.ps")), 1));
    QVERIFY(writeDocument(tree.path(QStringLiteral("job/large.ps")), pages));
    const qint64 documentKilobytes = QFileInfo(tree.path(QStringLiteral("job/large.ps"))).size() / 1024;
    QVERIFY(documentKilobytes > 45 * 1024);

    const Measured small = runMeasured(tree, QStringLiteral("small.ps"), QStringLiteral("small-out.ps"));
    QCOMPARE(small.run.exitCode, 0);
    QVERIFY2(small.peakKilobytes > 0, small.run.standardError.constData());
    const Measured large = runMeasured(tree, QStringLiteral("large.ps"), QStringLiteral("large-out.ps"));
    QCOMPARE(large.run.exitCode, 0);
    QVERIFY2(large.peakKilobytes > 0, large.run.standardError.constData());
    qInfo("document %lld KB; peak memory %lld KB for one page, %lld KB for %d pages; %lld ms",
          documentKilobytes, small.peakKilobytes, large.peakKilobytes, pages, large.milliseconds);

    // The whole document went through: every page has its marker.
    QVERIFY(tree.read(QStringLiteral("job/vars")).contains("\nNUM_PAGES=5000\n"));
    const QByteArray output = tree.read(QStringLiteral("job/large-out.ps"));
    QCOMPARE(output.count("% Common variables:\n"), pages);
    QVERIFY(output.endsWith("showpagereal\n%%Trailer\n%%EOF\n"));

    // Memory does not grow with the document.
    QVERIFY2(large.peakKilobytes - small.peakKilobytes < AllowedGrowthKilobytes,
             qPrintable(QStringLiteral("peak grew by %1 KB").arg(large.peakKilobytes - small.peakKilobytes)));
    QVERIFY(large.peakKilobytes < documentKilobytes / 3 + SanitizerKilobytes);
    QVERIFY2(large.milliseconds < AllowedMilliseconds, qPrintable(QString::number(large.milliseconds)));
}

QTEST_GUILESS_MAIN(TestDocumentStreaming)
#include "tst_documentstreaming.moc"
