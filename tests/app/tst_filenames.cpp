// File names through the real executables: a name is whatever bytes the file
// system takes, not text in the locale's encoding. Names with bytes that are
// not UTF-8, Latin-1 letters, blanks and line feeds must work for every file
// argument of quillet and quillet-verify, under a UTF-8 locale and under C.
//
// The names are handed over byte for byte: a shell inside the sandbox builds
// each one with printf from octal escapes, so that no conversion of the test
// itself stands between the bytes and the program.
#include "common/auditrecord.h"
#include "pagecode/pagecode.h"
#include "pagecode/pagecodekey.h"
#include "support/pagecodetools.h"
#include "support/testsupport.h"

#include <QDate>
#include <QFile>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

const QByteArray JobTemplate = "any:normal:12::bottom-center:Page {CURRENT_PAGE} of {NUM_PAGES}\n";
const QByteArray JobVariables = "job-originating-user-name=alice\ncopies=1\n";
// Fixed date and time, so that two runs give the same output.
const QByteArray Definitions = "DATE=01.02.2024\nTIME=10:20:30\n";
const qint64 JobId = 4711;

QString describe(const RunResult& result)
{
    return QStringLiteral("exit %1%2\nstdout: %3\nstderr: %4")
        .arg(result.exitCode)
        .arg(result.crashed ? QStringLiteral(" (crashed)") : QString())
        .arg(QString::fromLatin1(result.standardOutput.left(2000)),
             QString::fromLatin1(result.standardError.left(2000)));
}

// A file below the tree's job folder, by the bytes of its name.
QByteArray jobPath(const FixtureTree& tree, const QByteArray& name)
{
    return QFile::encodeName(tree.job()) + '/' + name;
}

QByteArray readRaw(const QByteArray& path)
{
    QByteArray content;
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return content;
    char buffer[65536];
    for (ssize_t got = ::read(fd, buffer, sizeof buffer); got > 0; got = ::read(fd, buffer, sizeof buffer))
        content.append(buffer, int(got));
    ::close(fd);
    return content;
}

bool existsRaw(const QByteArray& path)
{
    struct stat status;
    return ::lstat(path.constData(), &status) == 0;
}

// Runs the program in the tree's sandbox, in job/, with these arguments byte
// for byte and the locale's language set to `lang`.
RunResult runWithBytes(const FixtureTree& tree, const QString& program, const QList<QByteArray>& arguments,
                       const QString& lang)
{
    const QByteArray script = execWithBytesScript(arguments);
    return tree.runInSandbox(QStringLiteral("/bin/sh"),
                             {QStringLiteral("-c"), QString::fromLatin1(script), program},
                             {QStringLiteral("LANG=") + lang, QStringLiteral("LC_ALL=")});
}

// Rows of names: each row gives its bytes to every file of the run, with a
// suffix of its own per file, so that two files never share a name.
void addNameRows()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QString>("lang");

    const QList<QPair<const char*, QByteArray>> names = {
        {"ASCII", QByteArray("plain-job")},
        {"invalid UTF-8", QByteArray("\xff\xfe")},
        {"Latin-1 letters", QByteArray("r\xe9sum\xe9 \xc4rger")},
        {"blanks", QByteArray("two  words ")},
        {"line feeds", QByteArray("line\nbreak\n")},
        {"UTF-8 Cyrillic", QByteArray("\xd0\xb4\xd0\xbe\xd0\xba")},
        {"UTF-8 beyond the BMP", QByteArray("\xf0\x9f\x96\xa8")},
        {"cut UTF-8 sequence", QByteArray("\xd0\xb4\xd0")},
        {"bytes that read as surrogates", QByteArray("\xed\xb2\x80")},
        {"everything", QByteArray("a-\xff x\n\xe9\xd0\xb4 \"'\\$(id)")},
    };
    for (const QString& lang : {QStringLiteral("C.UTF-8"), QStringLiteral("C")}) {
        for (const auto& name : names)
            QTest::newRow(qPrintable(QStringLiteral("%1, LANG=%2").arg(QLatin1String(name.first), lang)))
                << name.second << lang;
    }
}

} // namespace

class TestFileNames : public QObject
{
    Q_OBJECT

  private slots:
    void quilletFiles_data();
    void quilletFiles();
    void quilletMessageShowsTheName_data();
    void quilletMessageShowsTheName();
    void verifyFiles_data();
    void verifyFiles();
};

void TestFileNames::quilletFiles_data()
{
    addNameRows();
}

// quillet marks a job whose four files have the row's name, and its output
// and variables file are those of the same job under plain names; with
// classic output and with print-safe output, which writes beside the files
// and renames.
void TestFileNames::quilletFiles()
{
    QFETCH(QByteArray, name);
    QFETCH(QString, lang);

    for (const bool safeOutput : {false, true}) {
        FixtureTree tree;
        tree.installCatalogue();
        tree.write(QStringLiteral("etc-cups/marker.defs"),
                   Definitions + (safeOutput ? "MarkerSafeOutput=1\n" : "MarkerTopShift=8\n"));
        const QByteArray document = minimalDocument(2);
        const QList<QByteArray> plain = {"in.ps", "marker.tmpl", "job.vars", "out.ps"};
        const QList<QByteArray> named = {name + ".ps", name + ".tmpl", name + ".vars", name + ".out"};
        for (const QList<QByteArray>& files : {plain, named}) {
            QVERIFY(writeRaw(jobPath(tree, files.at(0)), document));
            QVERIFY(writeRaw(jobPath(tree, files.at(1)), JobTemplate));
            QVERIFY(writeRaw(jobPath(tree, files.at(2)), JobVariables));
        }

        const RunResult reference = runWithBytes(tree, quilletExecutable(), plain, lang);
        QVERIFY2(reference.exitCode == 0 && !reference.crashed, qPrintable(describe(reference)));
        const RunResult result = runWithBytes(tree, quilletExecutable(), named, lang);
        QVERIFY2(result.exitCode == 0 && !result.crashed, qPrintable(describe(result)));
        // What it warns about is what it warns about under plain names.
        QCOMPARE(result.standardError, reference.standardError);

        QVERIFY(existsRaw(jobPath(tree, named.at(3))));
        const QByteArray output = readRaw(jobPath(tree, named.at(3)));
        const QByteArray expected = readRaw(jobPath(tree, plain.at(3)));
        QVERIFY(!expected.isEmpty());
        QVERIFY2(output == expected, qPrintable(firstDifference(output, expected)));
        const QByteArray variables = readRaw(jobPath(tree, named.at(2)));
        QCOMPARE(variables, readRaw(jobPath(tree, plain.at(2))));
        QCOMPARE(parseKeyValues(variables).value(QStringLiteral("NUM_PAGES")), QStringLiteral("2"));
        // The input is left as it was, and nothing else was made.
        QCOMPARE(readRaw(jobPath(tree, named.at(0))), document);
        QCOMPARE(runProgram(QStringLiteral("/bin/sh"),
                            {QStringLiteral("-c"),
                             QStringLiteral("find . -mindepth 1 -maxdepth 1 -printf x | wc -c")},
                            {}, tree.job())
                     .standardOutput.trimmed(),
                 QByteArray("8"));
    }
}

// A name that does not exist is reported as given, byte for byte.
void TestFileNames::quilletMessageShowsTheName_data()
{
    addNameRows();
}

void TestFileNames::quilletMessageShowsTheName()
{
    QFETCH(QByteArray, name);
    QFETCH(QString, lang);

    FixtureTree tree;
    tree.installCatalogue();
    QVERIFY(writeRaw(jobPath(tree, "marker.tmpl"), JobTemplate));
    QVERIFY(writeRaw(jobPath(tree, "job.vars"), JobVariables));
    const RunResult result =
        runWithBytes(tree, quilletExecutable(), {name + ".ps", "marker.tmpl", "job.vars", "out.ps"}, lang);
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.standardError, "Input file " + name + ".ps doesn't exist\n");
}

void TestFileNames::verifyFiles_data()
{
    addNameRows();
}

// quillet-verify makes a key under the row's name, checks a code with it and
// finds the job's record in an audit log of such a name.
void TestFileNames::verifyFiles()
{
    QFETCH(QByteArray, name);
    QFETCH(QString, lang);

    FixtureTree tree;
    const QByteArray keyName = name + ".key";
    const QByteArray logName = name + ".log";
    const RunResult made =
        runWithBytes(tree, QStringLiteral(QUILLET_VERIFY_EXECUTABLE), {"--new-key", keyName}, lang);
    QVERIFY2(made.exitCode == 0 && !made.crashed, qPrintable(describe(made)));
    QCOMPARE(made.standardOutput, "New page-code key written to " + keyName + '\n');
    QVERIFY(existsRaw(jobPath(tree, keyName)));

    PageCodeKey siteKey;
    QString why;
    QVERIFY2(PageCodeKey::parse(readRaw(jobPath(tree, keyName)), &siteKey, &why), qPrintable(why));
    PageCodeKey jobKey;
    QVERIFY(siteKey.forJob(JobId, &jobKey));
    const QDate today = QDate::currentDate();
    const QString code = PageCode::make(jobKey.secret(), PageCodeFields::wrap(JobId, 3, 2, today));

    AuditRecord record;
    record.time = QDateTime::currentDateTimeUtc();
    record.job = JobId;
    record.user = QStringLiteral("ivanov");
    record.queue = QStringLiteral("marked");
    record.pages = 3;
    record.copies = 2;
    record.format = QStringLiteral("postscript");
    record.outcome = QStringLiteral("printed");
    QVERIFY(writeRaw(jobPath(tree, logName), auditJsonLine(record)));

    const RunResult checked = runWithBytes(tree, QStringLiteral(QUILLET_VERIFY_EXECUTABLE),
                                           {"--key", keyName, "--log", logName, code.toLatin1()}, lang);
    QVERIFY2(checked.exitCode == 0 && !checked.crashed, qPrintable(describe(checked)));
    const QList<Verdict> answers = verdicts(checked.standardOutput);
    QCOMPARE(answers.size(), 1);
    QVERIFY(answers.at(0).authentic);
    QCOMPARE(answers.at(0).job, JobId);
    QCOMPARE(answers.at(0).page, 3);
    QCOMPARE(verifyAuditLines(checked.standardOutput).size(), 1);
}

QTEST_GUILESS_MAIN(TestFileNames)
#include "tst_filenames.moc"
