// Failed runs, end to end: a write that fails (a full filesystem, /dev/full),
// an input that is not a regular file or that is also named as a file to
// write, and every other failure after start-up. Each must end with status 1
// and a clear message; with print-safe output ("MarkerSafeOutput=1") the
// output and the variables file are replaced only when the run succeeds.
//
// Full filesystems are tiny tmpfs mounts made inside the sandbox's private
// mount namespace; they vanish with it, so the shell that runs quillet there
// leaves a listing of the mount and a copy of the variables file in job/.
#include "documentlines.h"

#include "support/testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTest>

namespace {

const QByteArray JobVariables = "copies=1\nCURRENT_COPY=1\n";
const QByteArray SafeVariables = "copies=1\nCURRENT_COPY=1\nMarkerSafeOutput=1\n";
const QByteArray JobTemplate = "any:normal:12::top-left:Page {CURRENT_PAGE}\n";
// What stands in the output file before the run.
const QByteArray OldOutput = "an earlier job's output\n";

const QStringList Quiet = {QStringLiteral("QT_LOGGING_RULES=*.warning=false")};

// A document of `pages` pages closed by "%%PageTrailer" lines.
QByteArray pagedDocument(int pages)
{
    QByteArrayList content = {"%!PS-Adobe-3.0", "%%Pages: (atend)", "%%EndComments", "%%BeginProlog",
                              "%%EndProlog"};
    for (int page = 1; page <= pages; ++page) {
        const QByteArray n = QByteArray::number(page);
        content << "%%Page: " + n + ' ' + n << "(content " + n + ") pop" << "showpage" << "%%PageTrailer";
    }
    content << "%%Trailer" << "%%EOF";
    return lines(content);
}

QString describe(const RunResult& run)
{
    return QStringLiteral("exit %1%2: %3")
        .arg(run.exitCode)
        .arg(run.crashed ? QStringLiteral(" (crashed)") : QString())
        .arg(QString::fromLocal8Bit(run.standardError));
}

// A tree with the tiny catalogue and a job: in.ps, template, vars.
void prepare(FixtureTree& tree, const QByteArray& document, const QByteArray& variables)
{
    tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("job/in.ps"), document);
    tree.write(QStringLiteral("job/template"), JobTemplate);
    tree.write(QStringLiteral("job/vars"), variables);
}

// Runs a shell script in job/ inside the sandbox; "$@" in it is the quillet
// command with the arguments.
RunResult runScript(const FixtureTree& tree, const QString& script, const QStringList& arguments,
                    const QStringList& environment = {})
{
    return tree.runInSandbox(QStringLiteral("/bin/sh"),
                             QStringList{QStringLiteral("-c"), script, QStringLiteral("sh"), quilletExecutable()}
                                 + arguments,
                             Quiet + environment);
}

// Mounts a tmpfs of 64 KiB on job/small, runs quillet, and leaves the
// mount's listing in job/listing and its variables file (if any) in
// job/vars.after. With fill, the variables file moves to the mount first and
// a filler takes all the space left.
const char FullFilesystemScript[] =
    "mkdir -p small && mount -t tmpfs -o size=64k tmpfs small || exit 97\n"
    "if [ \"$FILL\" = 1 ]; then cp vars small/vars && { dd if=/dev/zero of=small/filler bs=4096 2>/dev/null; true; }; fi\n"
    "\"$@\"; status=$?\n"
    "ls -A small > listing\n"
    "[ ! -e small/vars ] || cp small/vars vars.after\n"
    "exit $status\n";

} // namespace

class TestOutputFailures : public QObject
{
    Q_OBJECT

private slots:
    void writeFailures_data();
    void writeFailures();

    void inputMustBeARegularFileOfItsOwn_data();
    void inputMustBeARegularFileOfItsOwn();

    void newMessagesAreTranslated_data();
    void newMessagesAreTranslated();

    void failedSafeRunLeavesBothFiles_data();
    void failedSafeRunLeavesBothFiles();
    void successfulSafeRunReplacesBothFiles();
};

void TestOutputFailures::writeFailures_data()
{
    QTest::addColumn<bool>("safe");
    QTest::addColumn<bool>("fill");
    QTest::addColumn<QString>("variablesFile");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QByteArray>("message");

    const QString small = QStringLiteral("small/out.ps");
    const QByteArray outputFull = "Can not write output file small/out.ps\n";
    const QByteArray devFull = "Can not write output file /dev/full\n";
    const QByteArray variablesFull = "Can not write variables file small/vars\n";

    for (const bool safe : {false, true}) {
        const char* mode = safe ? "print-safe" : "classic";
        QTest::addRow("%s: output on a full filesystem", mode)
            << safe << false << QStringLiteral("vars") << small << outputFull;
        QTest::addRow("%s: output on /dev/full", mode)
            << safe << false << QStringLiteral("vars") << QStringLiteral("/dev/full") << devFull;
        QTest::addRow("%s: variables file on a full filesystem", mode)
            << safe << true << QStringLiteral("small/vars") << QStringLiteral("out.ps") << variablesFull;
    }
}

void TestOutputFailures::writeFailures()
{
    QFETCH(bool, safe);
    QFETCH(bool, fill);
    QFETCH(QString, variablesFile);
    QFETCH(QString, output);
    QFETCH(QByteArray, message);

    // 300 pages: far more output than the 64 KiB of the mount.
    FixtureTree tree;
    const QByteArray variables = safe ? SafeVariables : JobVariables;
    prepare(tree, pagedDocument(300), variables);
    // Site definitions with a long value: the rewritten variables file needs
    // more room than the one it replaces frees when it is emptied.
    tree.write(QStringLiteral("etc-cups/marker.defs"),
               tree.read(QStringLiteral("share-cups/quillet/marker.defs")) + "PADDING=" + QByteArray(16384, 'x')
                   + '\n');
    const RunResult run = runScript(tree, QString::fromLatin1(FullFilesystemScript),
                                    {QStringLiteral("in.ps"), QStringLiteral("template"), variablesFile, output},
                                    {fill ? QStringLiteral("FILL=1") : QStringLiteral("FILL=0")});

    QVERIFY2(run.exitCode != 97, "the tmpfs could not be mounted");
    QVERIFY2(!run.crashed, qPrintable(describe(run)));
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.standardError, message);

    const QByteArrayList listing = tree.read(QStringLiteral("job/listing")).split('\n');
    if (safe) {
        // Nothing was replaced and no temporary file is left behind.
        QByteArrayList expected = {QByteArray()};
        if (variablesFile.startsWith(QLatin1String("small/")))
            expected = QByteArrayList{"filler", "vars", QByteArray()};
        QCOMPARE(listing, expected);
        QCOMPARE(variablesFile.startsWith(QLatin1String("small/")) ? tree.read(QStringLiteral("job/vars.after"))
                                                                   : tree.read(QStringLiteral("job/vars")),
                 variables);
        QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
    }
}

void TestOutputFailures::inputMustBeARegularFileOfItsOwn_data()
{
    QTest::addColumn<bool>("safe");
    QTest::addColumn<QString>("script");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("message");

    const QString plain = QStringLiteral("exec \"$@\"");
    const QStringList job = {QStringLiteral("in.ps"), QStringLiteral("template"), QStringLiteral("vars")};

    for (const bool safe : {false, true}) {
        const char* mode = safe ? "print-safe" : "classic";
        QTest::addRow("%s: input from a pipe", mode)
            << safe << QStringLiteral("cat in.ps | \"$@\"")
            << QStringList{QStringLiteral("/dev/stdin"), QStringLiteral("template"), QStringLiteral("vars"),
                           QStringLiteral("out.ps")}
            << QByteArray("Input file /dev/stdin is not a regular file\n");
        // Nobody writes into the FIFO: opening it would wait for ever.
        QTest::addRow("%s: input is a FIFO", mode)
            << safe << QStringLiteral("mkfifo fifo && exec \"$@\"")
            << QStringList{QStringLiteral("fifo"), QStringLiteral("template"), QStringLiteral("vars"),
                           QStringLiteral("out.ps")}
            << QByteArray("Input file fifo is not a regular file\n");
        QTest::addRow("%s: output is the input", mode)
            << safe << plain << (job + QStringList{QStringLiteral("in.ps")})
            << QByteArray("Input file in.ps and in.ps are the same file\n");
        QTest::addRow("%s: output is a hard link to the input", mode)
            << safe << QStringLiteral("ln in.ps link.ps && exec \"$@\"")
            << (job + QStringList{QStringLiteral("link.ps")})
            << QByteArray("Input file in.ps and link.ps are the same file\n");
        QTest::addRow("%s: output is a symbolic link to the input", mode)
            << safe << QStringLiteral("ln -s in.ps link.ps && exec \"$@\"")
            << (job + QStringList{QStringLiteral("link.ps")})
            << QByteArray("Input file in.ps and link.ps are the same file\n");
        QTest::addRow("%s: variables file is the input", mode)
            << safe << plain
            << QStringList{QStringLiteral("in.ps"), QStringLiteral("template"), QStringLiteral("./in.ps"),
                           QStringLiteral("out.ps")}
            << QByteArray("Input file in.ps and ./in.ps are the same file\n");
    }
}

void TestOutputFailures::inputMustBeARegularFileOfItsOwn()
{
    QFETCH(bool, safe);
    QFETCH(QString, script);
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, message);

    FixtureTree tree;
    const QByteArray document = pagedDocument(2);
    const QByteArray variables = safe ? SafeVariables : JobVariables;
    prepare(tree, document, variables);
    // The run must end on its own well before the test's patience does.
    QElapsedTimer timer;
    timer.start();
    const RunResult run = runScript(tree, script, arguments);

    QVERIFY2(!run.crashed, qPrintable(describe(run)));
    QVERIFY(timer.elapsed() < 60000);
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.standardError, message);
    // The input is whole, and nothing was written.
    QCOMPARE(tree.read(QStringLiteral("job/in.ps")), document);
    QCOMPARE(tree.read(QStringLiteral("job/vars")), variables);
    QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
}

void TestOutputFailures::newMessagesAreTranslated_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("expected");

    const QStringList job = {QStringLiteral("in.ps"), QStringLiteral("template"), QStringLiteral("vars")};
    QTest::newRow("a write that fails")
        << QStringLiteral("exec \"$@\"") << (job + QStringList{QStringLiteral("/dev/full")})
        << QStringLiteral("Не удаётся записать выходной файл /dev/full\n");
    QTest::newRow("the output is the input")
        << QStringLiteral("exec \"$@\"") << (job + QStringList{QStringLiteral("in.ps")})
        << QStringLiteral("Входной файл in.ps и in.ps — один и тот же файл\n");
    QTest::newRow("input from a pipe")
        << QStringLiteral("cat in.ps | \"$@\"")
        << QStringList{QStringLiteral("/dev/stdin"), QStringLiteral("template"), QStringLiteral("vars"),
                       QStringLiteral("out.ps")}
        << QStringLiteral("Входной файл /dev/stdin не является обычным файлом\n");
}

// The Russian catalogue built with the program carries the new messages.
void TestOutputFailures::newMessagesAreTranslated()
{
    QFETCH(QString, script);
    QFETCH(QStringList, arguments);
    QFETCH(QString, expected);

    FixtureTree tree;
    prepare(tree, pagedDocument(1), JobVariables);
    tree.copy(QStringLiteral(QUILLET_BINARY_DIR "/translations/quillet_ru.qm"),
              QStringLiteral("translations/quillet_ru.qm"));
    const RunResult run = runScript(tree, script, arguments,
                                    {QStringLiteral("LANG=ru_RU.UTF-8"), QStringLiteral("LC_ALL="),
                                     QStringLiteral("LC_MESSAGES="), QStringLiteral("LANGUAGE=")});
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(QString::fromUtf8(run.standardError), expected);
}

void TestOutputFailures::failedSafeRunLeavesBothFiles_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<bool>("removeFont");
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<bool>("duplex");

    const QByteArray pageless = lines({"%!PS-Adobe-3.0", "%%Page: 1 1", "showpage"});
    const QByteArray carriesFont = lines({"%!PS-Adobe-3.0", "%%BeginResource: font TinySans", "x", "%%EndResource",
                                          "%%Page: 1 1", "showpage", "%%PageTrailer", "%%EOF"});
    for (const bool duplex : {false, true}) {
        const char* mode = duplex ? "duplex" : "simplex";
        QTest::addRow("%s: a document without page ends", mode)
            << pageless << false << QByteArray("No pages was found in file in.ps\n") << duplex;
        // With print-safe output the catalogue check at start-up refuses a
        // marker font without its file before the document is read.
        QTest::addRow("%s: a missing marker font file", mode)
            << carriesFont << true
            << QByteArray("Can not read marker font file /usr/share/cups/fonts/TinySans: the marker would not print\n")
            << duplex;
    }
}

// The classic run empties the variables file and the output in these cases
// (tst_documentwriter shows it); the print-safe run leaves both as they were.
void TestOutputFailures::failedSafeRunLeavesBothFiles()
{
    QFETCH(QByteArray, document);
    QFETCH(bool, removeFont);
    QFETCH(QByteArray, message);
    QFETCH(bool, duplex);

    FixtureTree tree;
    prepare(tree, document, SafeVariables);
    tree.write(QStringLiteral("job/out.ps"), OldOutput);
    if (removeFont)
        QVERIFY(QFile::remove(tree.path(QStringLiteral("share-cups/fonts/TinySans"))));
    QStringList arguments = {QStringLiteral("in.ps"), QStringLiteral("template"), QStringLiteral("vars"),
                             QStringLiteral("out.ps")};
    if (duplex)
        arguments.prepend(QStringLiteral("--duplex"));
    const RunResult run = tree.runQuillet(arguments, Quiet);

    QVERIFY2(!run.crashed, qPrintable(describe(run)));
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.standardError, message);
    QCOMPARE(tree.read(QStringLiteral("job/vars")), SafeVariables);
    QCOMPARE(tree.read(QStringLiteral("job/out.ps")), OldOutput);
    // No temporary file is left beside them.
    QCOMPARE(QDir(tree.job()).entryList(QDir::Files | QDir::Hidden, QDir::Name),
             (QStringList{QStringLiteral("in.ps"), QStringLiteral("out.ps"), QStringLiteral("template"),
                          QStringLiteral("vars")}));
}

void TestOutputFailures::successfulSafeRunReplacesBothFiles()
{
    FixtureTree tree;
    prepare(tree, pagedDocument(2), SafeVariables);
    tree.write(QStringLiteral("job/out.ps"), OldOutput);
    // The replaced files keep the permissions of the ones they replace.
    QVERIFY(QFile::setPermissions(tree.path(QStringLiteral("job/out.ps")),
                                  QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup));
    const RunResult run = tree.runQuillet(
        {QStringLiteral("in.ps"), QStringLiteral("template"), QStringLiteral("vars"), QStringLiteral("out.ps")},
        Quiet);

    QVERIFY2(run.exitCode == 0 && !run.crashed, qPrintable(describe(run)));
    QVERIFY(tree.read(QStringLiteral("job/out.ps")).startsWith("%!PS-Adobe-3.0\n"));
    QCOMPARE(parseKeyValues(tree.read(QStringLiteral("job/vars"))).value(QStringLiteral("NUM_PAGES")),
             QStringLiteral("2"));
    QCOMPARE(QFileInfo(tree.path(QStringLiteral("job/out.ps"))).permissions()
                 & (QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther),
             QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup);
    QCOMPARE(QDir(tree.job()).entryList(QDir::Files | QDir::Hidden, QDir::Name),
             (QStringList{QStringLiteral("in.ps"), QStringLiteral("out.ps"), QStringLiteral("template"),
                          QStringLiteral("vars")}));
}

QTEST_GUILESS_MAIN(TestOutputFailures)
#include "tst_outputfailures.moc"
