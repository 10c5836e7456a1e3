// quillet-verify and the page codes of real jobs, through the real
// executables: codes read back from printed output, key problems that refuse
// a job, making keys, the command line and the print server's audit lines.
#include "common/auditrecord.h"
#include "common/paths.h"
#include "pagecode/pagecodekey.h"
#include "support/pagecodetools.h"
#include "support/postscripttools.h"
#include "support/testsupport.h"
#include "verify/auditlog.h"

#include <QDate>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace
{

// Where the site keeps its key in these tests, and the definitions naming it.
const char KeyPath[] = "/etc/cups/quillet/page-code.key";
const QByteArray KeyDefinitions = "MarkerPageCodeKey=/etc/cups/quillet/page-code.key\n";
// enscript's listings print through Ghostscript only with the print-safe output.
const QByteArray SafeOutput = "MarkerSafeOutput=1\n";
const QByteArray CodeTemplate = "any:normal:10::bottom-left:PAGE-CODE {PAGE_CODE}\n"
                                "any:normal:10::top-center:Page {CURRENT_PAGE}\n";
const QByteArray PlainTemplate = "any:normal:10::top-center:Page {CURRENT_PAGE}\n";
const qint64 JobId = 4711;

QString verifyExecutable()
{
    return QStringLiteral(QUILLET_VERIFY_EXECUTABLE);
}

QString describe(const RunResult& result)
{
    return QStringLiteral("exit %1%2\nstdout: %3\nstderr: %4")
        .arg(result.exitCode)
        .arg(result.crashed ? QStringLiteral(" (crashed)") : QString())
        .arg(QString::fromLocal8Bit(result.standardOutput.left(2000)),
             QString::fromLocal8Bit(result.standardError.left(2000)));
}

QStringList jobArguments(bool duplex)
{
    QStringList arguments;
    if (duplex)
        arguments << QStringLiteral("--duplex");
    return arguments << QStringLiteral("input.ps") << QStringLiteral("marker.tmpl")
                     << QStringLiteral("job.vars") << QStringLiteral("output.ps");
}

QByteArray jobVariables(int copy)
{
    return "job-id=" + QByteArray::number(JobId) +
           "\njob-originating-user-name=ivanov\ncopies=3\nCURRENT_COPY=" + QByteArray::number(copy) + '\n';
}

// A tree with the default catalogue, the definitions naming the key, a site
// key made by quillet-verify itself and a job of the given document.
bool prepareKeyedJob(FixtureTree& tree, const QString& document, QString* error)
{
    tree.installCatalogue();
    tree.write(QStringLiteral("etc-cups/marker.defs"), SafeOutput + KeyDefinitions);
    tree.write(QStringLiteral("job/marker.tmpl"), CodeTemplate);
    tree.copy(document, QStringLiteral("job/input.ps"));
    QDir().mkpath(tree.path(QStringLiteral("etc-cups/quillet")));
    const RunResult made =
        tree.runInSandbox(verifyExecutable(), {QStringLiteral("--new-key"), QLatin1String(KeyPath)});
    if (made.exitCode != 0 || made.crashed) {
        *error = describe(made);
        return false;
    }
    return true;
}

} // namespace

class TestVerify : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();

    void codesReadBackFromPrintedPages_data();
    void codesReadBackFromPrintedPages();
    void keyWithoutCodeOnTemplateChangesNothing_data();
    void keyWithoutCodeOnTemplateChangesNothing();
    void keyProblemsRefuseTheJob_data();
    void keyProblemsRefuseTheJob();

    void newKeyIsPrivateAndNeverReplaces();
    void usageErrors_data();
    void usageErrors();
    void verdictsAndExitStatus_data();
    void verdictsAndExitStatus();
    void keyOfOneJobChecksThatJobOnly();
    void auditLinesOfTheJobArePrinted();
    void auditLinesAreChosenByJobAndLevel_data();
    void auditLinesAreChosenByJobAndLevel();

  private:
    QTemporaryDir m_work;
    QString m_listing; // a three-page enscript listing
};

void TestVerify::initTestCase()
{
    QVERIFY2(QFileInfo(verifyExecutable()).isExecutable(), qPrintable(verifyExecutable()));
    for (const char* program : {"enscript", "gs", "ps2pdf", "pdftotext"})
        QVERIFY2(haveProgram(QLatin1String(program)),
                 qPrintable(QStringLiteral("%1 is not installed").arg(program)));
    QVERIFY(m_work.isValid());

    QByteArray text;
    for (int line = 1; line <= 150; ++line)
        text += "Line " + QByteArray::number(line) + " of the shift report.\n";
    QVERIFY(writeFile(m_work.filePath(QStringLiteral("report.txt")), text));
    m_listing = m_work.filePath(QStringLiteral("report.ps"));
    QString error;
    QVERIFY2(runTool(m_work.path(), QStringLiteral("enscript"),
                     {QStringLiteral("-q"), QStringLiteral("--media=A4"), QStringLiteral("-p"), m_listing,
                      QStringLiteral("report.txt")},
                     &error),
             qPrintable(error));
    QCOMPARE(readFile(m_listing).count("\n%%Page: "), 3);
}

void TestVerify::codesReadBackFromPrintedPages_data()
{
    addSimplexAndDuplexRows();
}

// Three copies of an enscript listing are marked with the code on every page
// (in duplex on the inserted back pages), printed through Ghostscript into
// PDF and read back as text; quillet-verify, with the key the definitions
// name, traces every code to its job, page and copy.
void TestVerify::codesReadBackFromPrintedPages()
{
    QFETCH(bool, duplex);
    FixtureTree tree;
    QString error;
    QVERIFY2(prepareKeyedJob(tree, m_listing, &error), qPrintable(error));

    const QDate firstDay = QDate::currentDate();
    QStringList codes;
    QList<QPair<int, int>> expected; // page and copy of each code
    for (int copy = 1; copy <= 3; ++copy) {
        tree.write(QStringLiteral("job/job.vars"), jobVariables(copy));
        const RunResult run = tree.runQuillet(jobArguments(duplex));
        QVERIFY2(run.exitCode == 0 && !run.crashed, qPrintable(describe(run)));
        const QString output = tree.path(QStringLiteral("job/output.ps"));
        QCOMPARE(ghostscriptErrors(output), QString());
        const QString pdf = tree.path(QStringLiteral("job/copy%1.pdf").arg(copy));
        QVERIFY2(convertToPdf(output, pdf, &error), qPrintable(error));
        const QStringList pages = pdfPageTexts(pdf);
        QCOMPARE(pages.size(), duplex ? 6 : 3);
        for (int sheet = 0; sheet < pages.size(); ++sheet) {
            const QString code = printedPageCode(pages.at(sheet), QStringLiteral("PAGE-CODE"));
            // In duplex the document's own pages carry no marker; the back
            // page after each carries that page's code.
            if (duplex && sheet % 2 == 0) {
                QVERIFY2(code.isEmpty(), qPrintable(pages.at(sheet)));
                continue;
            }
            QVERIFY2(!code.isEmpty(), qPrintable(pages.at(sheet)));
            codes << code;
            expected << qMakePair(duplex ? sheet / 2 + 1 : sheet + 1, copy);
        }
    }
    const QDate lastDay = QDate::currentDate();
    QCOMPARE(codes.size(), 9);
    QCOMPARE(QSet<QString>(codes.begin(), codes.end()).size(), 9);

    // Without --key: the key file that the definitions name.
    const RunResult check = tree.runInSandbox(verifyExecutable(), codes);
    QVERIFY2(check.exitCode == 0 && !check.crashed, qPrintable(describe(check)));
    const QList<Verdict> answers = verdicts(check.standardOutput);
    QCOMPARE(answers.size(), codes.size());
    for (int i = 0; i < codes.size(); ++i) {
        const Verdict& answer = answers.at(i);
        QVERIFY2(answer.authentic, qPrintable(codes.at(i)));
        QCOMPARE(answer.job, JobId);
        QCOMPARE(answer.page, expected.at(i).first);
        QCOMPARE(answer.copy, expected.at(i).second);
        QVERIFY(answer.date == firstDay || answer.date == lastDay);
    }

    // Another site's key turns every one of them down.
    QVERIFY(PageCodeKey::generate().saveNew(tree.path(QStringLiteral("job/other.key")), &error));
    const RunResult other = tree.runInSandbox(verifyExecutable(), QStringList{"--key", "other.key"} + codes);
    QCOMPARE(other.exitCode, 1);
    for (const Verdict& answer : verdicts(other.standardOutput))
        QVERIFY(!answer.authentic);
    QCOMPARE(verdicts(other.standardOutput).size(), codes.size());
}

void TestVerify::keyWithoutCodeOnTemplateChangesNothing_data()
{
    addSimplexAndDuplexRows();
}

// The key alone adds nothing to the output: only a template that shows
// {PAGE_CODE} does. (The golden cases prove the output without the setting.)
void TestVerify::keyWithoutCodeOnTemplateChangesNothing()
{
    QFETCH(bool, duplex);
    FixtureTree keyed;
    QString error;
    QVERIFY2(prepareKeyedJob(keyed, m_listing, &error), qPrintable(error));
    keyed.write(QStringLiteral("job/marker.tmpl"), PlainTemplate);
    keyed.write(QStringLiteral("job/job.vars"), jobVariables(1));
    const RunResult withKey = keyed.runQuillet(jobArguments(duplex));
    QVERIFY2(withKey.exitCode == 0 && !withKey.crashed, qPrintable(describe(withKey)));

    FixtureTree plain;
    plain.installCatalogue();
    plain.write(QStringLiteral("etc-cups/marker.defs"), SafeOutput);
    plain.write(QStringLiteral("job/marker.tmpl"), PlainTemplate);
    plain.write(QStringLiteral("job/job.vars"), jobVariables(1));
    plain.copy(m_listing, QStringLiteral("job/input.ps"));
    const RunResult without = plain.runQuillet(jobArguments(duplex));
    QVERIFY2(without.exitCode == 0 && !without.crashed, qPrintable(describe(without)));

    const QByteArray a = keyed.read(QStringLiteral("job/output.ps"));
    const QByteArray b = plain.read(QStringLiteral("job/output.ps"));
    QVERIFY(!a.isEmpty());
    QVERIFY2(a == b, qPrintable(firstDifference(a, b)));
}

void TestVerify::keyProblemsRefuseTheJob_data()
{
    // Each row starts from a keyed job and changes one thing.
    QTest::addColumn<QByteArray>("definitions");
    QTest::addColumn<QByteArray>("variables");
    QTest::addColumn<QByteArray>("keyText"); // replaces the key file; empty: left as made
    QTest::addColumn<bool>("keyIsFolder");
    QTest::addColumn<QByteArray>("message");

    const QByteArray vars = jobVariables(1);
    QTest::newRow("key file missing")
        << QByteArray("MarkerPageCodeKey=/etc/cups/quillet/missing.key\n") << vars << QByteArray() << false
        << QByteArray("Page-code key file /etc/cups/quillet/missing.key doesn't exist\n");
    QTest::newRow("key file unreadable (a folder)")
        << KeyDefinitions << vars << QByteArray() << true
        << QByteArray("Can not read page-code key file /etc/cups/quillet/page-code.key\n");
    QTest::newRow("key file holds no key")
        << KeyDefinitions << vars << QByteArray("secret\n") << false
        << QByteArray(
               "Page-code key file /etc/cups/quillet/page-code.key is not a key: its key line is neither "
               "\"site SECRET\" nor \"job ID SECRET\"\n");
    QTest::newRow("key of another job")
        << KeyDefinitions << vars << QByteArray("job 12 " + QByteArray(64, 'a') + '\n') << false
        << QByteArray("Page-code key file /etc/cups/quillet/page-code.key holds the key of job 12, not of "
                      "job 4711\n");
    QTest::newRow("job without a number")
        << KeyDefinitions << QByteArray("copies=1\nCURRENT_COPY=1\n") << QByteArray() << false
        << QByteArray("Page codes need the job's number, but job-id is \"\"\n");
}

// With the setting on, a job that cannot get its codes is refused before
// anything is written: no output, the variables file as it was.
void TestVerify::keyProblemsRefuseTheJob()
{
    QFETCH(QByteArray, definitions);
    QFETCH(QByteArray, variables);
    QFETCH(QByteArray, keyText);
    QFETCH(bool, keyIsFolder);
    QFETCH(QByteArray, message);

    FixtureTree tree;
    QString error;
    QVERIFY2(prepareKeyedJob(tree, m_listing, &error), qPrintable(error));
    tree.write(QStringLiteral("etc-cups/marker.defs"), definitions);
    tree.write(QStringLiteral("job/job.vars"), variables);
    const QString keyFile = tree.path(QStringLiteral("etc-cups/quillet/page-code.key"));
    if (!keyText.isEmpty())
        QVERIFY(writeFile(keyFile, keyText));
    if (keyIsFolder) {
        QVERIFY(QFile::remove(keyFile));
        QVERIFY(QDir().mkpath(keyFile));
    }

    const RunResult run = tree.runQuillet(jobArguments(false));
    QVERIFY2(!run.crashed, qPrintable(describe(run)));
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.standardOutput, QByteArray());
    QVERIFY2(run.standardError == message, qPrintable(firstDifference(run.standardError, message)));
    QVERIFY(!tree.exists(QStringLiteral("job/output.ps")));
    QCOMPARE(tree.read(QStringLiteral("job/job.vars")), variables);
}

void TestVerify::newKeyIsPrivateAndNeverReplaces()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString first = dir.filePath(QStringLiteral("first.key"));
    const QString second = dir.filePath(QStringLiteral("second.key"));

    // Even under a umask that lets everyone read new files.
    const RunResult made =
        runProgram(QStringLiteral("/bin/sh"),
                   {QStringLiteral("-c"), QStringLiteral("umask 000; exec \"$0\" --new-key \"$1\""),
                    verifyExecutable(), first});
    QVERIFY2(made.exitCode == 0 && !made.crashed, qPrintable(describe(made)));
    QCOMPARE(made.standardOutput, "New page-code key written to " + first.toLocal8Bit() + '\n');
    QCOMPARE(made.standardError, QByteArray());
    struct stat info = {};
    QCOMPARE(::stat(QFile::encodeName(first).constData(), &info), 0);
    QCOMPARE(info.st_mode & 07777, mode_t(0600));
    QVERIFY(S_ISREG(info.st_mode));

    PageCodeKey key;
    QString error;
    QVERIFY2(PageCodeKey::load(first, &key, &error), qPrintable(error));
    QCOMPARE(key.kind(), PageCodeKey::Kind::Site);

    // A second key is another key.
    QCOMPARE(runProgram(verifyExecutable(), {QStringLiteral("--new-key"), second}).exitCode, 0);
    PageCodeKey other;
    QVERIFY2(PageCodeKey::load(second, &other, &error), qPrintable(error));
    QVERIFY(other.secret() != key.secret());

    // An existing file, and a link pointing nowhere, are left as they are.
    const QByteArray before = readFile(first);
    const RunResult again = runProgram(verifyExecutable(), {QStringLiteral("--new-key"), first});
    QCOMPARE(again.exitCode, 1);
    QCOMPARE(again.standardOutput, QByteArray());
    QCOMPARE(again.standardError,
             "Key file " + first.toLocal8Bit() + " already exists; it is not replaced\n");
    QCOMPARE(readFile(first), before);

    const QString link = dir.filePath(QStringLiteral("link.key"));
    const QString target = dir.filePath(QStringLiteral("elsewhere.key"));
    QVERIFY(QFile::link(target, link));
    const RunResult throughLink = runProgram(verifyExecutable(), {QStringLiteral("--new-key"), link});
    QCOMPARE(throughLink.exitCode, 1);
    QVERIFY(!QFileInfo::exists(target));

    // A folder that does not exist: a message, no key.
    const RunResult nowhere = runProgram(
        verifyExecutable(), {QStringLiteral("--new-key"), dir.filePath(QStringLiteral("no/such.key"))});
    QCOMPARE(nowhere.exitCode, 1);
    QVERIFY2(nowhere.standardError.startsWith("Can not create key file "), qPrintable(describe(nowhere)));
}

void TestVerify::usageErrors_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("message"); // first line of standard error

    QTest::newRow("nothing to do") << QStringList()
                                   << QByteArray("Give the codes to check, or --new-key FILE");
    QTest::newRow("unknown option") << QStringList{"--bogus", "AAAA"}
                                    << QByteArray("Unknown option 'bogus'.");
    QTest::newRow("--key without a file")
        << QStringList{"--key"} << QByteArray("Missing value after '--key'.");
    QTest::newRow("--key with an empty name")
        << QStringList{"--key", "", "AAAA"} << QByteArray("--key takes one file name, once");
    QTest::newRow("--key twice") << QStringList{"--key", "a", "--key", "b", "AAAA"}
                                 << QByteArray("--key takes one file name, once");
    QTest::newRow("--key but no codes")
        << QStringList{"--key", "a.key"} << QByteArray("Give the codes to check, or --new-key FILE");
    QTest::newRow("--new-key with codes") << QStringList{"--new-key", "n.key", "AAAA"}
                                          << QByteArray("--new-key takes one file and nothing else");
    QTest::newRow("--new-key with --key") << QStringList{"--new-key", "n.key", "--key", "a.key"}
                                          << QByteArray("--new-key takes one file and nothing else");
    QTest::newRow("--log twice") << QStringList{"--log", "a", "--log", "b", "AAAA"}
                                 << QByteArray("--log takes one file name, once");
    QTest::newRow("--new-key with --log") << QStringList{"--new-key", "n.key", "--log", "error_log"}
                                          << QByteArray("--new-key takes one file and nothing else");
    QTest::newRow("--new-key twice") << QStringList{"--new-key", "n.key", "--new-key", "m.key"}
                                     << QByteArray("--new-key takes one file and nothing else");
}

void TestVerify::usageErrors()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, message);

    FixtureTree tree;
    const RunResult run = tree.runInSandbox(verifyExecutable(), arguments);
    QVERIFY2(!run.crashed, qPrintable(describe(run)));
    QCOMPARE(run.exitCode, 2);
    QCOMPARE(run.standardOutput, QByteArray());
    QCOMPARE(run.standardError, message + "\nTry \"quillet-verify --help\".\n");
    QVERIFY(!tree.exists(QStringLiteral("job/n.key")));
    QVERIFY(!tree.exists(QStringLiteral("job/m.key")));
}

void TestVerify::verdictsAndExitStatus_data()
{
    // "@CODE@" is an authentic code of job 1234, page 2, copy 3 under the key
    // of the documented known answer, which job/site.key holds and the
    // definitions name as /etc/cups/quillet/site.key.
    QTest::addColumn<QByteArray>("definitions");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("errors");

    const QByteArray defs = "MarkerPageCodeKey=/etc/cups/quillet/site.key\n";
    const QByteArray said = ": authentic: job 1234, page 2, copy 3, marked on 2026-11-23\n";
    QTest::newRow("authentic") << defs << QStringList{"--key", "site.key", "@CODE@"} << 0 << "@CODE@" + said
                               << QByteArray();
    QTest::newRow("lower case without separators")
        << defs << QStringList{"--key", "site.key", "@code@"} << 0 << "@code@" + said << QByteArray();
    QTest::newRow("a mistyped code among good ones")
        << defs << QStringList{"--key", "site.key", "@CODE@", "HV32-RJU4-QE6J-VKVP-3N98-RBJ", "@CODE@"} << 1
        << "@CODE@" + said +
               "HV32-RJU4-QE6J-VKVP-3N98-RBJ: NOT authentic (a code has 24 characters besides \"-\")\n" +
               "@CODE@" + said
        << QByteArray();
    QTest::newRow("a forged code") << defs
                                   << QStringList{"--key", "site.key", "HV32-RJU4-QE6J-VKVP-3N98-RBJF"} << 1
                                   << QByteArray("HV32-RJU4-QE6J-VKVP-3N98-RBJF: NOT authentic\n")
                                   << QByteArray();
    QTest::newRow("key from the site definitions")
        << defs << QStringList{"@CODE@"} << 0 << "@CODE@" + said << QByteArray();
    QTest::newRow("key from the shipped definitions")
        << QByteArray() << QStringList{"@CODE@"} << 0 << "@CODE@" + said << QByteArray();
    QTest::newRow("missing key file")
        << defs << QStringList{"--key", "nothing.key", "@CODE@"} << 1 << QByteArray()
        << QByteArray("Page-code key file nothing.key doesn't exist\n");
    QTest::newRow("no definitions at all")
        << QByteArray("@NONE@") << QStringList{"@CODE@"} << 1 << QByteArray()
        << QByteArray("Can not read marker definition file /usr/share/cups/quillet/marker.defs\n");
    QTest::newRow("definitions without the setting")
        << QByteArray("MarkerTopShift=10\n") << QStringList{"@CODE@"} << 1 << QByteArray()
        << QByteArray(
               "No page-code key: /etc/cups/marker.defs does not set MarkerPageCodeKey; give --key FILE\n");
}

void TestVerify::verdictsAndExitStatus()
{
    QFETCH(QByteArray, definitions);
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, output);
    QFETCH(QByteArray, errors);

    QByteArray secret;
    for (int i = 0; i < PageCodeKey::SecretSize; ++i)
        secret.append(char(i));
    const QByteArray keyText = PageCodeKey::site(secret).toText();
    FixtureTree tree;
    tree.write(QStringLiteral("job/site.key"), keyText);
    tree.write(QStringLiteral("etc-cups/quillet/site.key"), keyText);
    // No site definitions: the shipped ones name the key; "@NONE@": neither.
    if (definitions == "@NONE@")
        QVERIFY(!tree.exists(QStringLiteral("share-cups/quillet/marker.defs")));
    else if (definitions.isEmpty())
        tree.write(QStringLiteral("share-cups/quillet/marker.defs"),
                   "MarkerPageCodeKey=/etc/cups/quillet/site.key\n");
    else
        tree.write(QStringLiteral("etc-cups/marker.defs"), definitions);

    const QString code = QStringLiteral("HV32-RJU4-QE6J-VKVP-3N98-RBJE");
    const QString lower = QString(code).remove(QLatin1Char('-')).toLower();
    arguments.replaceInStrings(QStringLiteral("@CODE@"), code);
    arguments.replaceInStrings(QStringLiteral("@code@"), lower);
    output.replace("@CODE@", code.toLatin1()).replace("@code@", lower.toLatin1());

    const RunResult run = tree.runInSandbox(verifyExecutable(), arguments);
    QVERIFY2(!run.crashed, qPrintable(describe(run)));
    QCOMPARE(run.exitCode, exitCode);
    QCOMPARE(run.standardOutput, output);
    QCOMPARE(run.standardError, errors);
}

// A key handed to the marking run of one job checks that job's codes only;
// the site key checks them all.
void TestVerify::keyOfOneJobChecksThatJobOnly()
{
    const PageCodeKey site = PageCodeKey::generate();
    PageCodeKey job7;
    QVERIFY(site.forJob(7, &job7));
    FixtureTree tree;
    tree.write(QStringLiteral("job/site.key"), site.toText());
    tree.write(QStringLiteral("job/job7.key"), job7.toText());
    const QString code7 = PageCode::make(job7.secret(), PageCodeFields::wrap(7, 1, 1, QDate(2026, 3, 3)));
    PageCodeKey job8;
    QVERIFY(site.forJob(8, &job8));
    const QString code8 = PageCode::make(job8.secret(), PageCodeFields::wrap(8, 1, 1, QDate(2026, 3, 3)));

    const RunResult bySite = tree.runInSandbox(
        verifyExecutable(), {QStringLiteral("--key"), QStringLiteral("site.key"), code7, code8});
    QVERIFY2(bySite.exitCode == 0, qPrintable(describe(bySite)));
    const RunResult byJob = tree.runInSandbox(
        verifyExecutable(), {QStringLiteral("--key"), QStringLiteral("job7.key"), code7, code8});
    QCOMPARE(byJob.exitCode, 1);
    const QList<Verdict> answers = verdicts(byJob.standardOutput);
    QCOMPARE(answers.size(), 2);
    QVERIFY(answers.at(0).authentic);
    QVERIFY(!answers.at(1).authentic);
}

// The audit log, bound onto its installed place, holds the job's record;
// quillet-verify prints it under the code's verdict.
void TestVerify::auditLinesOfTheJobArePrinted()
{
    const PageCodeKey site = PageCodeKey::generate();
    FixtureTree tree;
    tree.write(QStringLiteral("job/site.key"), site.toText());
    const QString logName = QFileInfo(QLatin1String(QuilletAuditLog)).fileName();
    tree.copy(testsSourceDir() + QStringLiteral("/verify/data/audit.log"),
              QStringLiteral("audit-log/") + logName);

    PageCodeKey jobKey;
    QVERIFY(site.forJob(JobId, &jobKey));
    const QString code =
        PageCode::make(jobKey.secret(), PageCodeFields::wrap(JobId, 3, 2, QDate(2026, 11, 23)));
    const QByteArray verdict =
        code.toLatin1() + ": authentic: job 4711, page 3, copy 2, marked on 2026-11-23\n";
    const QStringList records =
        auditLines(testsSourceDir() + QStringLiteral("/verify/data/audit.log"), JobId);
    QCOMPARE(records.size(), 1);
    const QByteArray expected = verdict + "  " + records.first().toUtf8() + '\n';
    const RunResult run =
        tree.runInSandbox(verifyExecutable(), {QStringLiteral("--key"), QStringLiteral("site.key"), code});
    QVERIFY2(run.exitCode == 0 && !run.crashed, qPrintable(describe(run)));
    QCOMPARE(run.standardOutput, expected);

    // Another log, a copy or a rotated one, named with --log.
    tree.copy(testsSourceDir() + QStringLiteral("/verify/data/audit.log"), QStringLiteral("job/audit.log.1"));
    const RunResult named =
        tree.runInSandbox(verifyExecutable(), {QStringLiteral("--key"), QStringLiteral("site.key"),
                                               QStringLiteral("--log"), QStringLiteral("audit.log.1"), code});
    QVERIFY2(named.exitCode == 0 && !named.crashed, qPrintable(describe(named)));
    QCOMPARE(named.standardOutput, expected);

    // The marker definitions may name the log.
    QVERIFY(QFile::rename(tree.path(QStringLiteral("audit-log/") + logName),
                          tree.path(QStringLiteral("audit-log/site-audit.log"))));
    tree.installCatalogue();
    tree.write(QStringLiteral("etc-cups/marker.defs"),
               tree.read(QStringLiteral("share-cups/quillet/marker.defs")) + "\nMarkerAuditLog=" +
                   QFile::encodeName(QFileInfo(QLatin1String(QuilletAuditLog)).path()) + "/site-audit.log\n");
    const RunResult defined =
        tree.runInSandbox(verifyExecutable(), {QStringLiteral("--key"), QStringLiteral("site.key"), code});
    QVERIFY2(defined.exitCode == 0 && !defined.crashed, qPrintable(describe(defined)));
    QCOMPARE(defined.standardOutput, expected);

    // Without a log the verdict stands alone.
    QVERIFY(QFile::remove(tree.path(QStringLiteral("audit-log/site-audit.log"))));
    const RunResult noLog =
        tree.runInSandbox(verifyExecutable(), {QStringLiteral("--key"), QStringLiteral("site.key"), code});
    QCOMPARE(noLog.exitCode, 0);
    QCOMPARE(noLog.standardOutput, verdict);
}

void TestVerify::auditLinesAreChosenByJobAndLevel_data()
{
    QTest::addColumn<qint64>("job");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("outcome");

    // The fixture holds records as the backend writes them, and lines that
    // try to pass for a record of job 4711: an old print-server-log line, a
    // user name holding a whole record, an object lacking fields, a job id
    // given as text.
    QTest::newRow("the job's one record, whatever other lines claim it") << 4711LL << 1 << "ivanov"
                                                                         << "sent";
    QTest::newRow("another day's job") << 47LL << 1 << "petrov"
                                       << "sent";
    QTest::newRow("a refusal whose reason holds quotes") << 4712LL << 1 << "ivanov"
                                                         << "refused";
    QTest::newRow("a user name holding a record stays a name")
        << 12LL << 1 << QStringLiteral("mallory\"}\n{") << "refused";
    QTest::newRow("a job id that is the start of another") << 471LL << 0 << QString() << QString();
    QTest::newRow("a job the log never saw") << 5LL << 0 << QString() << QString();
}

void TestVerify::auditLinesAreChosenByJobAndLevel()
{
    QFETCH(qint64, job);
    QFETCH(int, count);
    QFETCH(QString, user);
    QFETCH(QString, outcome);

    const QStringList lines = auditLines(testsSourceDir() + QStringLiteral("/verify/data/audit.log"), job);
    QCOMPARE(lines.size(), count);
    if (count > 0) {
        AuditRecord record;
        QVERIFY(readAuditJsonLine(lines.first().toUtf8(), &record));
        QCOMPARE(record.job, job);
        QVERIFY2(record.user.startsWith(user), qPrintable(record.user));
        QCOMPARE(record.outcome, outcome);
    }
    QCOMPARE(auditLines(testsSourceDir() + QStringLiteral("/verify/data/no-such-log"), job), QStringList());
}

QTEST_GUILESS_MAIN(TestVerify)
#include "tst_verify.moc"
