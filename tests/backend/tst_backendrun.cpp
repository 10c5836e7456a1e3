// The backend run directly, as the print server runs it, inside the sandbox:
// what the real backend gets, a failing real backend, a job cancelled while
// it is marked, and the work folder removed on every exit.
#include "common/auditrecord.h"
#include "sheetcheck.h"
#include "common/paths.h"
#include "pagecode/pagecodekey.h"
#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QtTest>

#include <sys/stat.h>

namespace
{

// A stand-in for a real backend: keeps its arguments, its device URI and the
// stream, and ends with FAKE_STATUS; with FAKE_WAIT it first waits that many
// seconds, as a printer that is slow to take the job.
const char FakeBackend[] = "#!/bin/sh\n"
                           ": > \"$FAKE_OUT/started\"\n"
                           "[ -z \"$FAKE_WAIT\" ] || /bin/sleep \"$FAKE_WAIT\"\n"
                           "printf '%s\\n' \"$@\" > \"$FAKE_OUT/args\"\n"
                           "printf '%s\\n' \"$DEVICE_URI\" > \"$FAKE_OUT/uri\"\n"
                           "cat > \"$FAKE_OUT/data\"\n"
                           "exit \"${FAKE_STATUS:-0}\"\n";

const char Template[] = "any:normal:9::user:top-left:User {job-originating-user-name}\n"
                        "any:normal:9::copy:top-right:Copy {CURRENT_COPY} of {copies}\n";

// A marker string whose site program outlives the test's patience: the
// marking is still running when the job is cancelled.
const char SlowTemplate[] = "any:normal:9::slow:top-left:{SCRIPT:/bin/sleep 47.25}\n";
const char SlowProgram[] = "sleep\00047.25";
// The real backend's wait when the job is cancelled while it is being sent.
const char SlowDeviceWait[] = "48.75";
const char SlowDevice[] = "sleep\00048.75";

// A printer description with A4 paper and two-sided printing, as a queue's
// PPD offers it.
const char TwoSidedPpd[] = "*PPD-Adobe: \"4.3\"\n"
                           "*FormatVersion: \"4.3\"\n"
                           "*FileVersion: \"1.0\"\n"
                           "*LanguageVersion: English\n"
                           "*LanguageEncoding: ISOLatin1\n"
                           "*PCFileName: \"TWOSIDED.PPD\"\n"
                           "*Manufacturer: \"Test\"\n"
                           "*Product: \"(Two-Sided)\"\n"
                           "*ModelName: \"Two-Sided Test Printer\"\n"
                           "*NickName: \"Two-Sided Test Printer\"\n"
                           "*PSVersion: \"(3010.000) 0\"\n"
                           "*LanguageLevel: \"3\"\n"
                           "*OpenUI *PageSize/Media Size: PickOne\n"
                           "*OrderDependency: 10 AnySetup *PageSize\n"
                           "*DefaultPageSize: A4\n"
                           "*PageSize A4/A4: \"<</PageSize[595 842]/ImagingBBox null>>setpagedevice\"\n"
                           "*CloseUI: *PageSize\n"
                           "*DefaultImageableArea: A4\n"
                           "*ImageableArea A4: \"18 36 577 806\"\n"
                           "*DefaultPaperDimension: A4\n"
                           "*PaperDimension A4: \"595 842\"\n"
                           "@DUPLEX@";
const char DuplexOption[] =
    "*OpenUI *Duplex/2-Sided Printing: PickOne\n"
    "*OrderDependency: 10 AnySetup *Duplex\n"
    "*DefaultDuplex: None\n"
    "*Duplex None/Off: \"<</Duplex false>>setpagedevice\"\n"
    "*Duplex DuplexNoTumble/Long Edge: \"<</Duplex true/Tumble false>>setpagedevice\"\n"
    "*Duplex DuplexTumble/Short Edge: \"<</Duplex true/Tumble true>>setpagedevice\"\n"
    "*CloseUI: *Duplex\n";
// An installable duplexer that the queue says is not there.
const char MissingDuplexer[] = "*OpenGroup: InstallableOptions/Installable Options\n"
                               "*OpenUI *Option1/Duplexer: Boolean\n"
                               "*DefaultOption1: False\n"
                               "*Option1 False/Not Installed: \"\"\n"
                               "*Option1 True/Installed: \"\"\n"
                               "*CloseUI: *Option1\n"
                               "*CloseGroup: InstallableOptions\n"
                               "*UIConstraints: *Duplex *Option1 False\n"
                               "*UIConstraints: *Option1 False *Duplex\n";
const char LongEdgeCode[] = "<</Duplex true/Tumble false>>setpagedevice";

// The print server's side of one backend run.
class BackendRig
{
  public:
    BackendRig()
    {
        chmod(QFile::encodeName(m_dir.path()).constData(), 0755);
        for (const char* folder : {"etc/quillet", "bin/backend", "tmp", "out", "quillet-bin"})
            QDir(m_dir.path()).mkpath(QLatin1String(folder));
        writeFile(m_dir.filePath("etc/cups-files.conf"), "User lp\nGroup lp\n");
        writeFile(m_dir.filePath("bin/backend/fake"), FakeBackend);
        chmod(QFile::encodeName(m_dir.filePath("bin/backend/fake")).constData(), 0700);
        installQuilletCopy(m_dir.filePath("quillet-bin"));
        m_tree.installCatalogue();
        setVariables("# The queue's variables: none but the settings a test adds.\n");
        writeFile(m_dir.filePath("job.ps"), minimalDocument(2));
    }

    void setTemplate(const QByteArray& content) const
    {
        writeFile(m_dir.filePath("etc/quillet/q.tmpl"), content);
    }
    // A file of the print server's configuration folder (cupsd.conf, ...).
    void setServerFile(const char* name, const QByteArray& content) const
    {
        writeFile(m_dir.filePath(QStringLiteral("etc/") + QLatin1String(name)), content);
    }
    void setVariables(const QByteArray& content) const
    {
        writeFile(m_dir.filePath("etc/quillet/q.vars"), content);
    }
    // The site's marker definitions: the shipped ones followed by `lines`.
    void setDefinitions(const QByteArray& lines) const
    {
        m_tree.write(QStringLiteral("etc-cups/marker.defs"),
                     m_tree.read(QStringLiteral("share-cups/quillet/marker.defs")) + '\n' + lines);
    }
    // The site's marker definitions file with exactly `content`.
    void setOwnDefinitions(const QByteArray& content) const
    {
        m_tree.write(QStringLiteral("etc-cups/marker.defs"), content);
    }
    // The queue's PPD: one-sided, two-sided, or two-sided with the duplexer
    // marked as not installed.
    enum class Sides { One, Two, TwoWithoutDuplexer };
    void setPpd(Sides sides)
    {
        m_ppd = m_dir.filePath("queue.ppd");
        const QByteArray duplex = sides == Sides::One   ? QByteArray()
                                  : sides == Sides::Two ? QByteArray(DuplexOption)
                                                        : QByteArray(DuplexOption) + MissingDuplexer;
        writeFile(m_ppd, QByteArray(TwoSidedPpd).replace("@DUPLEX@", duplex));
    }
    QString path(const QString& relative) const { return m_dir.filePath(relative); }
    // Gives the backend's temporary folder only `size` of space (as mount's
    // size=, "8m").
    void limitTemporarySpace(const QString& size) { m_temporarySpace = size; }

    // The sandbox command line that runs `program` with quillet and its
    // catalogue at their installed paths.
    QStringList sandboxArguments(const QStringList& command) const
    {
        // The backend's temporary folder with only so much space.
        const QStringList space =
            m_temporarySpace.isEmpty()
                ? QStringList()
                : QStringList{QStringLiteral("--tmpfs"), m_temporarySpace, m_dir.filePath("tmp")};
        return space +
               QStringList{QStringLiteral("--bind"),
                           m_tree.shareCups(),
                           QLatin1String(CupsDataDir),
                           QStringLiteral("--bind"),
                           m_tree.etcCups(),
                           QLatin1String(CupsServerRoot),
                           QStringLiteral("--bind"),
                           m_dir.filePath("quillet-bin"),
                           QFileInfo(QLatin1String(QuilletExecutablePath)).path(),
                           QStringLiteral("--bind"),
                           m_tree.auditLogFolder(),
                           QFileInfo(QLatin1String(QuilletAuditLog)).path(),
                           QStringLiteral("--")} +
               command;
    }

    // The environment that the print server gives a backend.
    QStringList environment(int fakeStatus = 0) const
    {
        return {QStringLiteral("DEVICE_URI=quillet:fake://printer"),
                QStringLiteral("PRINTER=q"),
                QStringLiteral("CUPS_SERVERROOT=") + m_dir.filePath("etc"),
                QStringLiteral("CUPS_SERVERBIN=") + m_dir.filePath("bin"),
                QStringLiteral("TMPDIR=") + m_dir.filePath("tmp"),
                QStringLiteral("FAKE_OUT=") + m_dir.filePath("out"),
                QStringLiteral("FAKE_STATUS=%1").arg(fakeStatus),
                QStringLiteral("PPD=") + m_ppd};
    }

    RunResult run(const QStringList& arguments, int fakeStatus = 0) const
    {
        return runProgram(QStringLiteral(QUILLET_SANDBOX),
                          sandboxArguments(QStringList{QStringLiteral(QUILLET_BACKEND)} + arguments),
                          environment(fakeStatus));
    }

    // The records of the backend's audit log.
    QList<AuditRecord> auditRecords() const
    {
        QList<AuditRecord> records;
        const QString file =
            m_tree.auditLogFolder() + QLatin1Char('/') + QFileInfo(QLatin1String(QuilletAuditLog)).fileName();
        for (const QByteArray& line : readFile(file).split('\n')) {
            AuditRecord record;
            if (!line.isEmpty() && readAuditJsonLine(line, &record))
                records << record;
        }
        return records;
    }

    // What is left in the backend's temporary folder.
    QStringList leftovers() const
    {
        return QDir(m_dir.filePath("tmp")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }

  private:
    QTemporaryDir m_dir;
    FixtureTree m_tree;
    QString m_ppd;
    QString m_temporarySpace;
};

QStringList jobArguments(const QString& file, const QString& copies = QStringLiteral("2"))
{
    return {QStringLiteral("7"),
            QStringLiteral("ivanov"),
            QStringLiteral("report"),
            copies,
            QStringLiteral("finishings=3"),
            file};
}

// Whether a process with this command line (arguments joined by NUL) runs.
bool processRunning(const QByteArray& commandLine)
{
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        if (entry.toInt() > 0 &&
            readFile(QStringLiteral("/proc/%1/cmdline").arg(entry)).contains(commandLine))
            return true;
    }
    return false;
}

} // namespace

class TestBackendRun : public QObject
{
    Q_OBJECT

  private slots:
    void realBackendGetsOneStreamOfMarkedCopies();
    void realBackendFailureIsPassedOn();
    void refusedJobLeavesNothing();
    void quilletFailureRefusesJob();
    void interpreterRendersOrRefuses_data();
    void interpreterRendersOrRefuses();
    void setUpThatCannotMarkIsRefused_data();
    void setUpThatCannotMarkIsRefused();
    void backPagesAlwaysPrintTwoSided_data();
    void backPagesAlwaysPrintTwoSided();
    void markingRunsAsServerUser_data();
    void markingRunsAsServerUser();
    void cancelledJobLeavesNothing_data();
    void cancelledJobLeavesNothing();
    void wrongCommandLine();
    void siteProgramGetsEachValueWhole();
    void auditRecordAndTheUsersName_data();
    void auditRecordAndTheUsersName();
    void siteKeyProblemsRefuseTheJob_data();
    void siteKeyProblemsRefuseTheJob();
    void copiesCostOneMarkedCopy_data();
    void copiesCostOneMarkedCopy();
    void pagesTimesCopiesAreLimited_data();
    void pagesTimesCopiesAreLimited();
    void pdfForThePrinterIsProven_data();
    void pdfForThePrinterIsProven();
    void titleReachesTheRealBackendOnOneLine();
};

void TestBackendRun::realBackendGetsOneStreamOfMarkedCopies()
{
    BackendRig rig;
    rig.setTemplate(Template);
    const RunResult run = rig.run(jobArguments(rig.path("job.ps")));
    QVERIFY2(run.exitCode == 0, run.standardError.constData());

    // As the print server would start it: the real URI in DEVICE_URI, one
    // copy, the job's options, the stream on standard input. (A script does
    // not see its argv[0].)
    QCOMPARE(readFile(rig.path("out/args")), QByteArray("7\nivanov\nreport\n1\nfinishings=3\n"));
    QCOMPARE(readFile(rig.path("out/uri")), QByteArray("fake://printer\n"));
    // The audit log holds the job's one record; the client's name is not
    // verified here (no print server made the user authenticate).
    const QList<AuditRecord> records = rig.auditRecords();
    QCOMPARE(records.size(), 1);
    QCOMPARE(records.first().job, qint64(7));
    QCOMPARE(records.first().user, QStringLiteral("ivanov"));
    QVERIFY(!records.first().userAuthenticated);
    QCOMPARE(records.first().queue, QStringLiteral("q"));
    QCOMPARE(records.first().copies, 2);
    QCOMPARE(records.first().sheetsSent, qint64(4));
    QCOMPARE(records.first().format, QStringLiteral("postscript"));
    QCOMPARE(records.first().outcome, QLatin1String(AuditSent));
    const QByteArray stream = readFile(rig.path("out/data"));
    QVERIFY(stream.startsWith("%!PS-Adobe-3.0\n"));
    QCOMPARE(stream.count("%%Page: "), 4);
    QCOMPARE(stream.count("userdict /quilletCopyState save put\n"), 2);
    QVERIFY(run.standardError.contains("\nPAGE: total 4\n"));
    QVERIFY(run.standardError.contains("ATTR: job-impressions=4\n"));
    QVERIFY2(
        run.standardError.contains("NOTICE: quillet audit: job=7 user=\"ivanov\" queue=q label=\"\" pages=2 "
                                   "copies=2 sent=4 outcome=marked-and-sent\n"),
        run.standardError.constData());
    QCOMPARE(rig.leftovers(), QStringList());
}

void TestBackendRun::realBackendFailureIsPassedOn()
{
    BackendRig rig;
    rig.setTemplate(Template);
    // CUPS_BACKEND_STOP from the real backend stays CUPS_BACKEND_STOP.
    const RunResult run = rig.run(jobArguments(rig.path("job.ps")), 4);
    QCOMPARE(run.exitCode, 4);
    QVERIFY2(run.standardError.contains("outcome=device-failed status=4\n"), run.standardError.constData());
    QVERIFY(!run.standardError.contains("PAGE: total 4"));
    QCOMPARE(rig.leftovers(), QStringList());
}

// On a print queue a title the user chose reaches a site program as one
// argument, whatever blanks, quotes and dashes it holds.
void TestBackendRun::siteProgramGetsEachValueWhole()
{
    BackendRig rig;
    const QString site = rig.path("site");
    QVERIFY(QDir().mkpath(site));
    QVERIFY(writeFile(site + QStringLiteral("/args"), "#!/bin/sh\necho \"$# arguments, first: $1\"\n"));
    QVERIFY(QFile::setPermissions(site + QStringLiteral("/args"),
                                  QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther));
    QVERIFY(QFile::setPermissions(rig.path("site"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                        QFile::ReadOther | QFile::ExeOther));
    rig.setTemplate("any:normal:9::args:top-left:{SCRIPT:" + QFile::encodeName(site) + "/args {job-name}}\n");
    rig.setVariables("MarkerSandboxFolders=" + QFile::encodeName(site) + "\nMarkerScriptWholeValues=0\n");
    QStringList arguments = jobArguments(rig.path("job.ps"), QStringLiteral("1"));
    arguments[2] = QStringLiteral("Q3 plan -x \"two words\" 'quoted'");
    const RunResult run = rig.run(arguments);
    QVERIFY2(run.exitCode == 0, run.standardError.constData());
    QString error;
    QTemporaryDir work;
    const QList<Sheet> sheets = readSheets(rig.path("out/data"), work.path(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QVERIFY(!sheets.isEmpty());
    const QString text = sheets.first().text().simplified();
    QVERIFY2(text.contains(QStringLiteral("1 arguments, first: Q3 plan -x \"two words\" 'quoted'")),
             qPrintable(text));
}

// Who is on the paper and in the record: a name that the print server made
// the user prove, or a claimed one, marked as such or refused; and a job
// whose audit record cannot be written is not printed.
void TestBackendRun::auditRecordAndTheUsersName_data()
{
    QTest::addColumn<QByteArray>("cupsdConf");
    QTest::addColumn<QByteArray>("printersConf");
    QTest::addColumn<QByteArray>("variables");
    QTest::addColumn<QByteArray>("definitions");
    QTest::addColumn<QString>("outcome");
    QTest::addColumn<bool>("authenticated");
    QTest::addColumn<QString>("reason"); // a part of it

    const QByteArray open = "<Policy default>\n  <Limit All>\n    Order deny,allow\n  </Limit>\n</Policy>\n";
    const QByteArray closed = "DefaultAuthType Basic\n<Policy default>\n  <Limit All>\n    Order deny,allow\n"
                              "  </Limit>\n</Policy>\n<Policy marked>\n  <Limit Create-Job Print-Job>\n"
                              "    AuthType Default\n    Require valid-user\n  </Limit>\n  <Limit All>\n"
                              "    Order deny,allow\n  </Limit>\n</Policy>\n";
    const QByteArray queueUnderMarked = "<Printer q>\nOpPolicy marked\n</Printer>\n";
    const QByteArray otherUnderMarked =
        "<Printer other>\nOpPolicy marked\n</Printer>\n<Printer q>\n</Printer>\n";

    QTest::newRow("no server configuration: the name is claimed")
        << QByteArray() << QByteArray() << QByteArray() << QByteArray() << QString(AuditSent) << false
        << QString();
    QTest::newRow("a policy that lets anyone print: claimed")
        << open << queueUnderMarked << QByteArray() << QByteArray() << QString(AuditSent) << false
        << QString();
    QTest::newRow("the queue's policy requires a valid user: verified")
        << closed << queueUnderMarked << QByteArray() << QByteArray() << QString(AuditSent) << true
        << QString();
    QTest::newRow("another queue's policy does not count")
        << closed << otherUnderMarked << QByteArray() << QByteArray() << QString(AuditSent) << false
        << QString();
    QTest::newRow("a claimed name refused by the queue's setting")
        << open << queueUnderMarked << QByteArray("MarkerUnverifiedUser=refuse\n") << QByteArray()
        << QString(AuditRefused) << false
        << QStringLiteral("is not verified, and MarkerUnverifiedUser=refuse");
    QTest::newRow("a verified name on a queue that refuses claimed ones")
        << closed << queueUnderMarked << QByteArray("MarkerUnverifiedUser=refuse\n") << QByteArray()
        << QString(AuditSent) << true << QString();
    QTest::newRow("an unknown value of the setting")
        << open << queueUnderMarked << QByteArray("MarkerUnverifiedUser=sometimes\n") << QByteArray()
        << QString(AuditRefused) << false << QStringLiteral("must be mark or refuse");
}

void TestBackendRun::auditRecordAndTheUsersName()
{
    QFETCH(QByteArray, cupsdConf);
    QFETCH(QByteArray, printersConf);
    QFETCH(QByteArray, variables);
    QFETCH(QByteArray, definitions);
    QFETCH(QString, outcome);
    QFETCH(bool, authenticated);
    QFETCH(QString, reason);

    BackendRig rig;
    rig.setTemplate(Template);
    if (!cupsdConf.isEmpty())
        rig.setServerFile("cupsd.conf", cupsdConf);
    if (!printersConf.isEmpty())
        rig.setServerFile("printers.conf", printersConf);
    rig.setVariables(variables);
    if (!definitions.isEmpty())
        rig.setDefinitions(definitions);
    const RunResult run = rig.run(jobArguments(rig.path("job.ps")));
    QCOMPARE(run.exitCode, outcome == QLatin1String(AuditSent) ? 0 : 5); // 5: the job is cancelled
    const QList<AuditRecord> records = rig.auditRecords();
    QCOMPARE(records.size(), 1);
    const AuditRecord& record = records.first();
    QCOMPARE(record.outcome, outcome);
    QCOMPARE(record.userAuthenticated, authenticated);
    QCOMPARE(record.user, QStringLiteral("ivanov"));
    QVERIFY2(record.reason.contains(reason), qPrintable(record.reason));
    QVERIFY(qAbs(record.time.secsTo(QDateTime::currentDateTimeUtc())) < 600);
    if (outcome != QLatin1String(AuditSent))
        return;
    // The marks name the user as the print server knows them.
    QString error;
    QTemporaryDir work;
    const QList<Sheet> sheets = readSheets(rig.path("out/data"), work.path(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QVERIFY(!sheets.isEmpty());
    const QString text = sheets.first().text().simplified();
    QVERIFY2(text.contains(QStringLiteral("User ivanov")), qPrintable(text));
    QCOMPARE(text.contains(QStringLiteral("User ivanov (unverified)")), !authenticated);
}

void TestBackendRun::refusedJobLeavesNothing()
{
    BackendRig rig;
    rig.setTemplate(Template);
    writeFile(rig.path("job.pcl"), "\033E\033&l0O binary");
    const RunResult run = rig.run(jobArguments(rig.path("job.pcl")));
    QCOMPARE(run.exitCode, 5);
    QVERIFY2(run.standardError.startsWith(
                 "ERROR: quillet: job 7 on q refused, nothing printed: the document is not "
                 "PostScript"),
             run.standardError.constData());
    QVERIFY(!QFileInfo::exists(rig.path("out/data")));
    QCOMPARE(rig.leftovers(), QStringList());
}

void TestBackendRun::quilletFailureRefusesJob()
{
    BackendRig rig;
    rig.setTemplate(Template);
    // PostScript without a single DSC page, handed to quillet as it is
    // (the trusted interpreter off): quillet stops with status 1.
    rig.setVariables("MarkerTrustedInterpreter=0\n");
    writeFile(rig.path("nopages.ps"),
              "%!PS\n/Helvetica findfont 12 scalefont setfont 72 72 moveto (x) show showpage\n");
    const RunResult run = rig.run(jobArguments(rig.path("nopages.ps")));
    QCOMPARE(run.exitCode, 5);
    QVERIFY2(
        run.standardError.contains("ERROR: quillet: job 7 on q refused, nothing printed: quillet failed with "
                                   "status 1: "),
        run.standardError.constData());
    QVERIFY(run.standardError.contains("outcome=refused reason="));
    // The reason is quillet's own message that stopped it, not a warning
    // it printed on the way.
    const QList<AuditRecord> records = rig.auditRecords();
    QCOMPARE(records.size(), 1);
    QVERIFY2(records.first().reason.contains(QStringLiteral("No pages")), qPrintable(records.first().reason));
    QVERIFY2(!records.first().reason.contains(QStringLiteral("Fonts::initialize")),
             qPrintable(records.first().reason));
    QVERIFY(!QFileInfo::exists(rig.path("out/data")));
    QCOMPARE(rig.leftovers(), QStringList());
}

void TestBackendRun::interpreterRendersOrRefuses_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("pages");
    QTest::addColumn<QByteArray>("reason");
    // Pages are what the program shows, whatever its comments say.
    QTest::newRow("no page comments, two pages shown")
        << QByteArray("%!PS\n/Helvetica findfont 12 scalefont setfont\n"
                      "72 72 moveto (one) show showpage 72 72 moveto (two) show showpage\n")
        << 0 << 2 << QByteArray();
    QTest::newRow("comments claim one page, three shown")
        << QByteArray("%!PS-Adobe-3.0\n%%Pages: 1\n%%EndComments\n%%Page: 1 1\n"
                      "showpage showpage showpage\n%%PageTrailer\n%%EOF\n")
        << 0 << 3 << QByteArray();
    QTest::newRow("a PostScript error")
        << QByteArray(
               "%!PS\n/Helvetica findfont 12 scalefont setfont 72 72 moveto (x) show\nnosuchoperator\n")
        << 5 << 0 << QByteArray("the document cannot be rendered: the interpreter failed with status 1");
    // The interpreter's PDF of a program that shows nothing holds one empty
    // page: it prints, marked.
    QTest::newRow("nothing shown") << QByteArray("%!PS\n1 2 add pop\n") << 0 << 1 << QByteArray();
}

void TestBackendRun::interpreterRendersOrRefuses()
{
    QFETCH(QByteArray, document);
    QFETCH(int, status);
    QFETCH(int, pages);
    QFETCH(QByteArray, reason);
    BackendRig rig;
    rig.setTemplate(Template);
    writeFile(rig.path("document.ps"), document);
    const RunResult run = rig.run(jobArguments(rig.path("document.ps"), QStringLiteral("1")));
    QVERIFY2(run.exitCode == status, run.standardError.constData());
    if (status == 0) {
        QVERIFY2(
            run.standardError.contains(
                QStringLiteral("pages=%1 copies=1 sent=%1 outcome=marked-and-sent\n").arg(pages).toUtf8()),
            run.standardError.constData());
        const QByteArray stream = readFile(rig.path("out/data"));
        QCOMPARE(stream.count("%%Page: "), pages);
        // What reached the printer is the interpreter's rendering, not the
        // document's own program.
        QVERIFY(!stream.contains("nosuchoperator") && !stream.contains("showpage showpage"));
    } else {
        QVERIFY2(run.standardError.contains("refused, nothing printed: " + reason),
                 run.standardError.constData());
        QVERIFY(!QFileInfo::exists(rig.path("out/data")));
    }
    QCOMPARE(rig.leftovers(), QStringList());
}

void TestBackendRun::setUpThatCannotMarkIsRefused_data()
{
    QTest::addColumn<QByteArray>("definitions"); // empty: the shipped ones
    QTest::addColumn<QByteArray>("variables");   // empty: no variables file
    QTest::addColumn<QByteArray>("queueTemplate");
    QTest::addColumn<int>("ppd"); // 0 none, 1 one-sided, 2 two-sided, 3 two-sided without its duplexer
    QTest::addColumn<QByteArray>("reason");
    const QByteArray vars = "MarkerJobOptions=project\n";
    QTest::newRow("site definitions of one line")
        << QByteArray("MarkerPageCodeKey=/etc/cups/quillet/page-code.key\n") << vars << QByteArray(Template)
        << 2 << QByteArray("do not set MarkerSafeOutput=1 (print-safe output)");
    QTest::newRow("site definitions that turn print-safe output off")
        << QByteArray("MarkerSafeOutput=0\n") << vars << QByteArray(Template) << 2
        << QByteArray("do not set MarkerSafeOutput=1");
    QTest::newRow("no variables file") << QByteArray() << QByteArray() << QByteArray(Template) << 2
                                       << QByteArray("the queue has no variables file");
    QTest::newRow("empty template") << QByteArray() << vars << QByteArray() << 2
                                    << QByteArray("holds no marker strings");
    QTest::newRow("template of comments and blanks")
        << QByteArray() << vars << QByteArray("# marks to come\n\n   \n") << 2
        << QByteArray("holds no marker strings");
    QTest::newRow("label that nothing sets")
        << QByteArray() << vars << QByteArray("any:bold:12::label:top-center:{LABEL_NAME}\n") << 2
        << QByteArray("prints LABEL_NAME, which neither");
    QTest::newRow("label read once that nothing sets")
        << QByteArray() << vars << QByteArray("any:bold:12::label:top-center:[mac-job-mac-level-name]\n") << 2
        << QByteArray("prints mac-job-mac-level-name, which neither");
    QTest::newRow("back pages without a printer description")
        << QByteArray() << QByteArray("MarkerDuplexBackPages=1\n") << QByteArray(Template) << 0
        << QByteArray("no printer description (PPD)");
    QTest::newRow("back pages on a one-sided printer")
        << QByteArray() << QByteArray("MarkerDuplexBackPages=1\n") << QByteArray(Template) << 1
        << QByteArray("has no Duplex option with DuplexNoTumble");
    QTest::newRow("back pages, duplexer not installed")
        << QByteArray() << QByteArray("MarkerDuplexBackPages=1\n") << QByteArray(Template) << 3
        << QByteArray("say the printer has no duplexer");
}

void TestBackendRun::setUpThatCannotMarkIsRefused()
{
    QFETCH(QByteArray, definitions);
    QFETCH(QByteArray, variables);
    QFETCH(QByteArray, queueTemplate);
    QFETCH(int, ppd);
    QFETCH(QByteArray, reason);
    BackendRig rig;
    rig.setTemplate(queueTemplate);
    if (!definitions.isEmpty())
        rig.setOwnDefinitions(definitions);
    if (variables.isEmpty())
        QVERIFY(QFile::remove(rig.path("etc/quillet/q.vars")));
    else
        rig.setVariables(variables);
    if (ppd > 0)
        rig.setPpd(ppd == 1   ? BackendRig::Sides::One
                   : ppd == 2 ? BackendRig::Sides::Two
                              : BackendRig::Sides::TwoWithoutDuplexer);
    const RunResult run = rig.run(jobArguments(rig.path("job.ps")));
    QVERIFY2(run.exitCode == 5, run.standardError.constData());
    QVERIFY2(run.standardError.startsWith("ERROR: quillet: job 7 on q refused, nothing printed: "),
             run.standardError.constData());
    QVERIFY2(run.standardError.left(run.standardError.indexOf('\n')).contains(reason),
             run.standardError.constData());
    QVERIFY(run.standardError.contains("outcome=refused reason="));
    QVERIFY(!QFileInfo::exists(rig.path("out/started")));
    QCOMPARE(rig.leftovers(), QStringList());
}

void TestBackendRun::backPagesAlwaysPrintTwoSided_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<int>("pages");
    QTest::newRow("one-page job") << QStringLiteral("finishings=3") << 1;
    QTest::newRow("one-sided asked for") << QStringLiteral("sides=one-sided") << 2;
    QTest::newRow("short edge asked for") << QStringLiteral("sides=two-sided-short-edge") << 2;
}

void TestBackendRun::backPagesAlwaysPrintTwoSided()
{
    QFETCH(QString, options);
    QFETCH(int, pages);
    BackendRig rig;
    rig.setTemplate(Template);
    rig.setVariables("MarkerDuplexBackPages=1\n");
    rig.setPpd(BackendRig::Sides::Two);
    writeFile(rig.path("pages.ps"), minimalDocument(pages));
    QStringList arguments = jobArguments(rig.path("pages.ps"), QStringLiteral("1"));
    arguments[4] = options;
    const RunResult run = rig.run(arguments);
    QVERIFY2(run.exitCode == 0, run.standardError.constData());
    const QByteArray stream = readFile(rig.path("out/data"));
    // The printer's own code for the long edge, before the first copy, and
    // no request that turns two-sided printing off again.
    const int longEdge = stream.indexOf(LongEdgeCode);
    QVERIFY2(longEdge > 0 && longEdge < stream.indexOf("userdict /quilletCopyState save put"),
             stream.left(2000));
    QVERIFY(!stream.contains("/Duplex false") && !stream.contains("/Tumble true"));
    QCOMPARE(stream.count("\n%%Page: "), 2 * pages);
    QVERIFY2(
        run.standardError.contains(QStringLiteral("sent=%1 outcome=marked-and-sent").arg(2 * pages).toUtf8()),
        run.standardError.constData());
}

void TestBackendRun::markingRunsAsServerUser_data()
{
    QTest::addColumn<QByteArray>("variables");
    QTest::addColumn<QString>("account");
    QTest::newRow("the print server's user") << QByteArray() << QStringLiteral("lp");
    QTest::newRow("MarkerUser=root") << QByteArray("MarkerUser=root\n") << QStringLiteral("root");
}

void TestBackendRun::markingRunsAsServerUser()
{
    QFETCH(QByteArray, variables);
    QFETCH(QString, account);
    if (!haveProgram(QStringLiteral("ps2pdf")) || !haveProgram(QStringLiteral("pdftotext")))
        QSKIP("ps2pdf and pdftotext are needed");
    BackendRig rig;
    // A site program in the template prints the account it runs as.
    rig.setTemplate("any:normal:9::who:top-left:Marked by {SCRIPT:/usr/bin/id -un}\n");
    rig.setVariables(variables);
    const RunResult run = rig.run(jobArguments(rig.path("job.ps"), QStringLiteral("1")));
    QVERIFY2(run.exitCode == 0, run.standardError.constData());
    const QString pdf = rig.path("out/data.pdf");
    QVERIFY(convertToPdf(rig.path("out/data"), pdf));
    const QStringList pages = pdfPageTexts(pdf);
    QCOMPARE(pages.size(), 2);
    for (const QString& page : pages)
        QVERIFY2(page.simplified().contains(QStringLiteral("Marked by ") + account), qPrintable(page));
}

void TestBackendRun::cancelledJobLeavesNothing_data()
{
    QTest::addColumn<QByteArray>("templateText");
    QTest::addColumn<QString>("deviceWait");
    QTest::addColumn<QByteArray>("slowProgram");
    QTest::newRow("while it is marked")
        << QByteArray(SlowTemplate) << QString() << QByteArray(SlowProgram, sizeof SlowProgram - 1);
    QTest::newRow("while it is sent") << QByteArray(Template) << QString::fromLatin1(SlowDeviceWait)
                                      << QByteArray(SlowDevice, sizeof SlowDevice - 1);
}

void TestBackendRun::cancelledJobLeavesNothing()
{
    QFETCH(QByteArray, templateText);
    QFETCH(QString, deviceWait);
    QFETCH(QByteArray, slowProgram);
    BackendRig rig;
    rig.setTemplate(templateText);
    // The print server cancels the job a second after it started, or, while
    // it is sent, once the real backend has started (rendering and proof
    // come first), within ten seconds.
    const QString script = QStringLiteral("\"$0\" \"$@\" & pid=$!; sleep 1; i=0; "
                                          "while [ -n \"$FAKE_WAIT\" ] && [ $i -lt 200 ] && [ ! -e "
                                          "\"$FAKE_OUT/started\" ]; do sleep 0.05; i=$((i+1)); done; "
                                          "kill -TERM $pid; wait $pid; echo status=$?");
    QStringList command = {QStringLiteral("/bin/sh"), QStringLiteral("-c"), script,
                           QStringLiteral(QUILLET_BACKEND)};
    command += jobArguments(rig.path("job.ps"), QStringLiteral("1"));
    QElapsedTimer timer;
    timer.start();
    const RunResult run = runProgram(QStringLiteral(QUILLET_SANDBOX), rig.sandboxArguments(command),
                                     rig.environment() << QStringLiteral("FAKE_WAIT=") + deviceWait);
    // Ended at once, not after the site program's or the device's wait of
    // over 47 seconds.
    QVERIFY2(timer.elapsed() < 20000, qPrintable(QString::number(timer.elapsed())));
    QVERIFY2(run.standardOutput.contains("status=5\n"), run.standardOutput + run.standardError);
    QVERIFY2(run.standardError.contains("outcome=cancelled-before-sending\n"), run.standardError.constData());
    const QList<AuditRecord> records = rig.auditRecords();
    QCOMPARE(records.size(), 1);
    QCOMPARE(records.first().outcome, QLatin1String(AuditCancelledBeforeSending));
    QCOMPARE(records.first().sheetsSent, qint64(0));
    QVERIFY(!QFileInfo::exists(rig.path("out/data")));
    // Cancelled while sending: the real backend had started.
    QCOMPARE(QFileInfo::exists(rig.path("out/started")), !deviceWait.isEmpty());
    QCOMPARE(rig.leftovers(), QStringList());
    QVERIFY(!processRunning(slowProgram));
}

void TestBackendRun::wrongCommandLine()
{
    BackendRig rig;
    const RunResult run = rig.run({QStringLiteral("7"), QStringLiteral("ivanov")});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.standardError.contains("Usage: "), run.standardError.constData());
}

void TestBackendRun::siteKeyProblemsRefuseTheJob_data()
{
    QTest::addColumn<QString>("keyFile"); // below the rig's folder
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("reason");
    PageCodeKey jobKey;
    QVERIFY(PageCodeKey::generate().forJob(7, &jobKey));
    QTest::newRow("missing") << QStringLiteral("etc/quillet/missing.key") << QByteArray()
                             << QByteArray("missing.key doesn't exist");
    QTest::newRow("unreadable") << QStringLiteral("etc/quillet/folder.key") << QByteArray()
                                << QByteArray("Can not read page-code key file");
    QTest::newRow("not a key") << QStringLiteral("etc/quillet/text.key") << QByteArray("site xyz\n")
                               << QByteArray("is not a key");
    QTest::newRow("the job's own key instead of the site key")
        << QStringLiteral("etc/quillet/job.key") << jobKey.toText()
        << QByteArray("holds the key of job 7, not the site key");
}

// With page codes on, a site key that cannot be used refuses the job: no
// page goes out without its code.
void TestBackendRun::siteKeyProblemsRefuseTheJob()
{
    QFETCH(QString, keyFile);
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, reason);
    BackendRig rig;
    rig.setTemplate("any:normal:9::code:bottom-left:{PAGE_CODE}\n");
    if (keyFile.contains(QLatin1String("folder")))
        QVERIFY(QDir().mkpath(rig.path(keyFile)));
    else if (!content.isEmpty())
        QVERIFY(writeFile(rig.path(keyFile), content));
    rig.setDefinitions("MarkerPageCodeKey=" + QFile::encodeName(rig.path(keyFile)) + '\n');
    const RunResult run = rig.run(jobArguments(rig.path("job.ps")));
    QCOMPARE(run.exitCode, 5);
    QVERIFY2(run.standardError.startsWith("ERROR: quillet: job 7 on q refused, nothing printed: "),
             run.standardError.constData());
    QVERIFY2(run.standardError.left(run.standardError.indexOf('\n')).contains(reason),
             run.standardError.constData());
    QVERIFY(run.standardError.contains("outcome=refused reason="));
    QVERIFY(!QFileInfo::exists(rig.path("out/data")));
    QCOMPARE(rig.leftovers(), QStringList());
}

// The marker fonts' insertion in a marked copy or stream.
const char MarkerFontsOpening[] = "%quillet-insertion-begin\nQuilletGlobal\n";

void TestBackendRun::copiesCostOneMarkedCopy_data()
{
    QTest::addColumn<int>("copies");
    QTest::newRow("1 copy") << 1;
    QTest::newRow("10 copies") << 10;
    QTest::newRow("100 copies") << 100;
}

// A one-page job prints its copies with the backend's temporary folder
// holding little more than one marked copy (the marker fonts alone are
// about 440 KB a copy), and the data sent carries the marker fonts once.
void TestBackendRun::copiesCostOneMarkedCopy()
{
    QFETCH(int, copies);
    BackendRig rig;
    rig.setTemplate(QByteArray(Template) +
                    "any:bold:12::label:top-center:Kestrel Restricted\n"
                    "any:normal:9::page:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n");
    writeFile(rig.path("one.ps"), minimalDocument(1));
    // 3 MB: the stream of 100 copies and one marked copy beside it; a copy
    // of its own per marked copy would need 45 MB for 100.
    rig.limitTemporarySpace(QStringLiteral("3m"));
    const RunResult run = rig.run(jobArguments(rig.path("one.ps"), QString::number(copies)));
    QVERIFY2(run.exitCode == 0, run.standardError.right(3000).constData());

    const QByteArray stream = readFile(rig.path("out/data"));
    QCOMPARE(stream.count(MarkerFontsOpening), 1);
    const int fontsStart = stream.indexOf(MarkerFontsOpening);
    const int fontsEnd = stream.indexOf("%quillet-insertion-end\n", fontsStart);
    QVERIFY(fontsEnd > fontsStart);
    const qint64 fonts = fontsEnd - fontsStart;
    QVERIFY2(fonts > 100000, qPrintable(QString::number(fonts)));
    // What each copy adds besides the fonts: its page and its marks.
    const qint64 perCopy = (stream.size() - fonts) / copies;
    qInfo("%d copies: %lld bytes sent, %lld of them the marker fonts, %lld per copy", copies,
          qint64(stream.size()), fonts, perCopy);
    QVERIFY2(perCopy < 30000, qPrintable(QString::number(perCopy)));

    // Every sheet is marked, with its own copy's number.
    QTemporaryDir work;
    QString error;
    const QList<Sheet> sheets = readSheets(rig.path("out/data"), work.path(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    MarkExpectation marks;
    marks.labelWords = QStringList{QStringLiteral("Kestrel"), QStringLiteral("Restricted")};
    marks.pages = 1;
    marks.copies = copies;
    const QStringList problems = markedSheetProblems(sheets, marks);
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join(QLatin1Char('\n'))));
    for (int copy = 1; copy <= copies; ++copy) {
        const QString expected = QStringLiteral("Copy %1 of %2").arg(copy).arg(copies);
        QVERIFY2(sheets.at(copy - 1).text().contains(expected), qPrintable(sheets.at(copy - 1).text()));
    }
    QCOMPARE(rig.auditRecords().value(0).sheetsSent, qint64(copies));
    QCOMPARE(rig.leftovers(), QStringList());
}

void TestBackendRun::pagesTimesCopiesAreLimited_data()
{
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<int>("copies");
    QTest::addColumn<bool>("printed");
    QTest::addColumn<QByteArray>("message");
    // The job's document has two pages.
    QTest::newRow("under the default limit") << QByteArray() << 3 << true << QByteArray();
    QTest::newRow("over the default limit")
        << QByteArray() << 9999 << false
        << QByteArray("the job would print 19998 pages (9999 copies of 2), more than the queue's limit of "
                      "10000 (MarkerJobPageLimit)");
    QTest::newRow("at the queue's limit")
        << QByteArray("MarkerJobPageLimit=6\n") << 3 << true << QByteArray();
    QTest::newRow("over the queue's limit")
        << QByteArray("MarkerJobPageLimit=5\n") << 3 << false
        << QByteArray("the job would print 6 pages (3 copies of 2), more than the queue's limit of 5 "
                      "(MarkerJobPageLimit)");
    QTest::newRow("limit that is not a number")
        << QByteArray("MarkerJobPageLimit=many\n") << 1 << false
        << QByteArray("MarkerJobPageLimit must be a whole number from 1 to 1000000, not 'many'");
}

// A job whose pages times copies exceed the queue's limit is refused before
// anything is sent, and before its other copies are marked.
void TestBackendRun::pagesTimesCopiesAreLimited()
{
    QFETCH(QByteArray, setting);
    QFETCH(int, copies);
    QFETCH(bool, printed);
    QFETCH(QByteArray, message);
    BackendRig rig;
    rig.setTemplate(Template);
    rig.setVariables(setting);
    QElapsedTimer timer;
    timer.start();
    const RunResult run = rig.run(jobArguments(rig.path("job.ps"), QString::number(copies)));
    QCOMPARE(run.exitCode == 0, printed);
    QCOMPARE(QFileInfo::exists(rig.path("out/data")), printed);
    QVERIFY2(run.standardError.contains(message), run.standardError.right(3000).constData());
    const QList<AuditRecord> records = rig.auditRecords();
    QCOMPARE(records.size(), 1);
    QCOMPARE(records.first().outcome, QLatin1String(printed ? AuditSent : AuditRefused));
    QCOMPARE(records.first().sheetsSent, qint64(printed ? 2 * copies : 0));
    // 9,999 copies are not marked first: the refusal takes seconds.
    QVERIFY2(timer.elapsed() < 60000, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(rig.leftovers(), QStringList());
}

void TestBackendRun::pdfForThePrinterIsProven_data()
{
    QTest::addColumn<QByteArray>("variables");
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<int>("sentPages");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("two pages, two copies")
        << QByteArray("MarkerOutputFormat=pdf\n") << minimalDocument(2) << 4 << QByteArray();
    // Without the trusted interpreter the document's own code runs while
    // the stream is written as PDF: its error stops the job.
    QByteArray failing = minimalDocument(2);
    failing.replace("%%Page: 2 2\n", "%%Page: 2 2\nnosuchoperator\n");
    QTest::newRow("an error on the second page")
        << QByteArray("MarkerOutputFormat=pdf\nMarkerTrustedInterpreter=0\n") << failing << 0
        << QByteArray("the marked stream cannot be written as pdf: the converter failed with status 1");
}

// A printer that takes PDF gets a PDF of every marked sheet, which Ghostscript
// wrote from the whole stream without an error and whose pages Poppler
// counted; otherwise nothing.
void TestBackendRun::pdfForThePrinterIsProven()
{
    QFETCH(QByteArray, variables);
    QFETCH(QByteArray, document);
    QFETCH(int, sentPages);
    QFETCH(QByteArray, message);
    BackendRig rig;
    rig.setTemplate(Template);
    rig.setVariables(variables);
    writeFile(rig.path("document.ps"), document);
    const RunResult run = rig.run(jobArguments(rig.path("document.ps")));
    QVERIFY2(run.standardError.contains(message), run.standardError.right(3000).constData());
    QCOMPARE(run.exitCode == 0, sentPages > 0);
    QCOMPARE(QFileInfo::exists(rig.path("out/data")), sentPages > 0);
    if (sentPages > 0) {
        QVERIFY(readFile(rig.path("out/data")).startsWith("%PDF-"));
        const RunResult info = runProgram(QStringLiteral("pdfinfo"), {rig.path("out/data")});
        QVERIFY2(info.standardOutput.contains(QByteArray("\nPages:           ") +
                                              QByteArray::number(sentPages) + '\n'),
                 info.standardOutput.constData());
    }
    const QList<AuditRecord> records = rig.auditRecords();
    QCOMPARE(records.size(), 1);
    QCOMPARE(records.first().format, QStringLiteral("pdf"));
    QCOMPARE(records.first().sheetsSent, qint64(sentPages));
    QCOMPARE(rig.leftovers(), QStringList());
}

// The real backend writes the title into its messages: a title with line
// breaks and other control characters reaches it as one line of text.
void TestBackendRun::titleReachesTheRealBackendOnOneLine()
{
    BackendRig rig;
    rig.setTemplate(Template);
    QStringList arguments = jobArguments(rig.path("job.ps"));
    arguments[2] = QStringLiteral("report\nDEBUG: Print job accepted - job ID 1.\r\tend\x7f");
    const RunResult run = rig.run(arguments);
    QVERIFY2(run.exitCode == 0, run.standardError.constData());
    QCOMPARE(readFile(rig.path("out/args")),
             QByteArray("7\nivanov\nreport DEBUG: Print job accepted - job ID 1.  end \n1\nfinishings=3\n"));
}

QTEST_GUILESS_MAIN(TestBackendRun)
#include "tst_backendrun.moc"
