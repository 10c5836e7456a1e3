// Golden files: the complete output and variables file of small jobs.
//
// Every folder under golden/ is one case:
//   input.ps            the job's document
//   template            the marker template
//   variables           the job's variables file
//   marker.defs         the site's marker definitions (DATE and TIME fixed)
//   arguments           optional: extra command-line options, one a line
//   expected.ps         the output, byte for byte
//   expected.variables  the variables file after the run, byte for byte
// All cases use the tiny fixture catalogue of data/catalogue. On a mismatch
// the actual files are written to golden-actual/<case>/ in the build tree.
#include "support/testsupport.h"

#include <QDir>
#include <QTest>

namespace {

QString goldenDir()
{
    return testsSourceDir() + QStringLiteral("/document/golden");
}

QString actualDir(const QString& name)
{
    return QStringLiteral(QUILLET_BINARY_DIR) + QStringLiteral("/golden-actual/") + name;
}

int countPages(const QByteArray& document)
{
    int pages = 0;
    for (const QByteArray& line : document.split('\n')) {
        if (line.startsWith("%%Page:"))
            ++pages;
    }
    return pages;
}

} // namespace

class TestGolden : public QObject
{
    Q_OBJECT

private slots:
    void output_data();
    void output();
};

void TestGolden::output_data()
{
    QTest::addColumn<QString>("name");

    const QStringList cases = QDir(goldenDir()).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    QVERIFY2(cases.size() >= 2, qPrintable(goldenDir()));
    for (const QString& name : cases)
        QTest::newRow(qPrintable(name)) << name;
}

void TestGolden::output()
{
    QFETCH(QString, name);
    const QString folder = goldenDir() + QLatin1Char('/') + name + QLatin1Char('/');

    FixtureTree tree;
    tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
    tree.copy(folder + QStringLiteral("marker.defs"), QStringLiteral("etc-cups/marker.defs"));
    for (const char* file : {"input.ps", "template", "variables"})
        tree.copy(folder + QLatin1String(file), QStringLiteral("job/") + QLatin1String(file));

    QStringList arguments;
    for (const QByteArray& option : readFile(folder + QStringLiteral("arguments")).split('\n')) {
        if (!option.isEmpty())
            arguments << QString::fromLocal8Bit(option);
    }
    arguments << QStringLiteral("input.ps") << QStringLiteral("template") << QStringLiteral("variables")
              << QStringLiteral("output.ps");
    const RunResult run = tree.runQuillet(arguments);
    QVERIFY(!run.crashed);
    QCOMPARE(run.exitCode, 0);

    const QByteArray output = tree.read(QStringLiteral("job/output.ps"));
    const QByteArray variables = tree.read(QStringLiteral("job/variables"));
    const QByteArray expectedOutput = readFile(folder + QStringLiteral("expected.ps"));
    const QByteArray expectedVariables = readFile(folder + QStringLiteral("expected.variables"));
    if (output != expectedOutput || variables != expectedVariables) {
        writeFile(actualDir(name) + QStringLiteral("/expected.ps"), output);
        writeFile(actualDir(name) + QStringLiteral("/expected.variables"), variables);
        qInfo("actual files written to %s", qPrintable(actualDir(name)));
    }
    QVERIFY2(!expectedOutput.isEmpty() && !expectedVariables.isEmpty(), "the case has no expected files");
    QVERIFY2(output == expectedOutput,
             qPrintable(QStringLiteral("output: ") + firstDifference(output, expectedOutput)));
    QVERIFY2(variables == expectedVariables,
             qPrintable(QStringLiteral("variables: ") + firstDifference(variables, expectedVariables)));

    // The output is a PostScript program that an interpreter runs to its end,
    // showing one page per "%%Page:" comment.
    if (!haveProgram(QStringLiteral("gs")))
        QSKIP("Ghostscript is needed to run the output");
    const RunResult rendered =
        runProgram(QStringLiteral("gs"), {QStringLiteral("-q"), QStringLiteral("-dNOPAUSE"), QStringLiteral("-dBATCH"),
                                          QStringLiteral("-dSAFER"), QStringLiteral("-sDEVICE=bbox"),
                                          tree.path(QStringLiteral("job/output.ps"))});
    QVERIFY2(rendered.exitCode == 0, rendered.standardOutput.constData());
    QCOMPARE(rendered.standardError.count("%%BoundingBox:"), countPages(output));
}

QTEST_GUILESS_MAIN(TestGolden)
#include "tst_golden.moc"
