// The seed corpora of the fuzz targets, replayed in the normal suite: every
// seed (crashes found by fuzzing among them) runs through its target once,
// inside a sandbox whose CUPS data directory is a scratch folder, and must
// end normally.
#include "support/testsupport.h"

#include "fuzz/fuzzsupport.h"

#include <QDir>
#include <QTest>
#include <QUuid>

class TestFuzzCorpora : public QObject
{
    Q_OBJECT

  private slots:
    void seedRunsThroughItsTarget_data();
    void seedRunsThroughItsTarget();
};

void TestFuzzCorpora::seedRunsThroughItsTarget_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("seed");

    const QDir corpora(QStringLiteral(QUILLET_FUZZ_CORPUS_DIR));
    for (const char* name : {"variables", "template", "catalogue", "document"}) {
        const QString target = QLatin1String(name);
        const QDir corpus(corpora.filePath(target));
        const QStringList seeds = corpus.entryList(QDir::Files, QDir::Name);
        QVERIFY2(!seeds.isEmpty(), qPrintable(corpus.path()));
        for (const QString& seed : seeds)
            QTest::newRow(qPrintable(target + QLatin1Char('/') + seed)) << target << corpus.filePath(seed);
    }
}

void TestFuzzCorpora::seedRunsThroughItsTarget()
{
    QFETCH(QString, target);
    QFETCH(QString, seed);

    FixtureTree tree;
    const QByteArray token = QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
    tree.write(QStringLiteral("share-cups/") + QLatin1String(Fuzz::TokenFile), token);
    const RunResult result = tree.runInSandbox(
        QStringLiteral(QUILLET_FUZZ_REPLAY_DIR "/replay_") + target, {seed},
        {QLatin1String(Fuzz::TokenVariable) + QLatin1Char('=') + QString::fromLatin1(token)});

    QVERIFY2(!result.crashed && result.exitCode == 0,
             qPrintable(QStringLiteral("exit %1%2\n%3")
                            .arg(result.exitCode)
                            .arg(result.crashed ? QStringLiteral(" (crashed)") : QString())
                            .arg(QString::fromLocal8Bit(result.standardError.right(4000)))));
    QVERIFY2(result.standardError.endsWith("Ran 1 inputs\n"), result.standardError.right(2000).constData());
}

QTEST_GUILESS_MAIN(TestFuzzCorpora)
#include "tst_fuzzcorpora.moc"
