// The queue that quillet-queue create makes, printed to from the network: a
// private print server that also listens on 127.0.0.1, as the print server
// of a site's workstations listens on its network, and that holds a login
// account of its own (it exists only in the server's mount namespace; the
// machine's /etc/passwd, /etc/group and /etc/shadow are only read). On the
// marked queue a client that claims a name without a password, or gives a
// wrong one, gets no job; the account with its password gets its job
// printed under its own name, which the marks show without "(unverified)"
// and the audit record gives as authenticated. On a queue made with plain
// lpadmin, under the server's default policy, a claimed name prints, and the
// marks and the record say that nobody checked it.
#include "../backend/printserver.h"
#include "../backend/sheetcheck.h"
#include "../backend/standinprinter.h"

#include "backend/serverpolicy.h"
#include "common/auditrecord.h"
#include "support/testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <crypt.h>
#include <cups/cups.h>
#include <memory>
#include <pwd.h>
#include <sys/stat.h>
#include <thread>

namespace
{

// How long the stand-in printer listens.
constexpr int PrinterLifetimeMs = 600000;
// How long a job of a few pages may take to be marked and sent.
constexpr int JobTimeoutMs = 180000;
// How long cupsd may take to log a request it has answered.
constexpr int AccessLogMs = 20000;
// How often the print server saves changed queues to printers.conf, and how
// long a test waits for that.
const char SaveInterval[] = "DirtyCleanInterval 10";
constexpr int SavedQueuesMs = 30000;

// The account that exists in the print server's namespace only, and its
// password.
const char AccountName[] = "printclerk";
const char AccountPassword[] = "Ink-and-quill-42";
// A name that anyone may claim.
const char ClaimedName[] = "boss";

// The queue that quillet-queue create makes, and one made by hand with the
// server's default policy.
const char MarkedQueue[] = "guarded";
const char OpenQueue[] = "open";
const char Label[] = "NETWORK_CHECK";
const QStringList LabelWords{QStringLiteral("NETWORK"), QStringLiteral("CHECK")};

// The pages of the document that every job prints.
constexpr int DocumentPages = 3;

// The machine's account files, which the test must leave as they were.
const QStringList AccountFiles{QStringLiteral("/etc/passwd"), QStringLiteral("/etc/group"),
                               QStringLiteral("/etc/shadow")};

// A file's content and the facts that a write would change.
struct FileState {
    QByteArray content;
    qint64 inode = -1;
    qint64 size = -1;
    qint64 modified = -1;
    qint64 changed = -1;

    bool operator==(const FileState& other) const
    {
        return content == other.content && inode == other.inode && size == other.size &&
               modified == other.modified && changed == other.changed;
    }
};

FileState fileState(const QString& path)
{
    FileState state;
    struct stat status {
    };
    if (stat(QFile::encodeName(path).constData(), &status) == 0) {
        state.inode = qint64(status.st_ino);
        state.size = qint64(status.st_size);
        state.modified = qint64(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
        state.changed = qint64(status.st_ctim.tv_sec) * 1000000000 + status.st_ctim.tv_nsec;
    }
    state.content = readFile(path);
    return state;
}

// A SHA-512 crypt(3) hash of the password with a fresh salt, as
// /etc/shadow holds it; empty on failure.
QByteArray passwordHash(const QByteArray& password)
{
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    if (!crypt_gensalt_rn("$6$", 0, nullptr, 0, salt, sizeof(salt)))
        return QByteArray();
    auto data = std::make_unique<crypt_data>();
    const char* hash = crypt_r(password.constData(), salt, data.get());
    if (!hash || hash[0] != '$')
        return QByteArray();
    return QByteArray(hash);
}

QString describe(const RunResult& run)
{
    return QStringLiteral("exit %1\nstdout: %2\nstderr: %3")
        .arg(run.exitCode)
        .arg(QString::fromLocal8Bit(run.standardOutput), QString::fromLocal8Bit(run.standardError));
}

// What a client that prints from the network was told.
struct Submission {
    // Whether the server took the job, and its id.
    bool accepted = false;
    int job = 0;
    // The server's answer (or the client's reason for giving up).
    QString answer;
    // How often the server asked the client for a password.
    int passwordRequests = 0;
};

// The password a client gives: the one it knows, once; asked again (the
// server refused it), or with none to give, it gives up, as a person at the
// password prompt would.
struct PasswordAnswer {
    QByteArray password;
    int requests = 0;
};

const char* answerPassword(const char*, http_t*, const char*, const char*, void* data)
{
    auto* answer = static_cast<PasswordAnswer*>(data);
    ++answer->requests;
    if (answer->password.isEmpty() || answer->requests > 1)
        return nullptr;
    return answer->password.constData();
}

// Prints a file with a Print-Job request to the server at 127.0.0.1:port,
// as a workstation's program linked with libcups does: it logs in as
// `login` when the server asks for a password (giving `password`, none when
// empty), and names `requestingName` as the requesting user. The client runs
// in a thread of its own, so that its user, its password callback and its
// last error are its own.
Submission printWithLibrary(int port, const QString& queue, const QString& login,
                            const QString& requestingName, const QByteArray& password, bool encrypted,
                            const QString& file)
{
    Submission submission;
    PasswordAnswer answer{password, 0};
    std::thread client([&] {
        cupsSetUser(login.toUtf8().constData());
        cupsSetPasswordCB2(answerPassword, &answer);
        http_t* http = httpConnect2("127.0.0.1", port, nullptr, AF_INET,
                                    encrypted ? HTTP_ENCRYPTION_REQUIRED : HTTP_ENCRYPTION_IF_REQUESTED, 1,
                                    30000, nullptr);
        if (!http) {
            submission.answer = QStringLiteral("cannot connect to 127.0.0.1:%1").arg(port);
            return;
        }
        const QByteArray resource = "/printers/" + queue.toUtf8();
        const QByteArray uri = "ipp://127.0.0.1:" + QByteArray::number(port) + resource;
        ipp_t* request = ippNewRequest(IPP_OP_PRINT_JOB);
        ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, uri.constData());
        ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", nullptr,
                     requestingName.toUtf8().constData());
        ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_NAME, "job-name", nullptr, "network job");
        ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_MIMETYPE, "document-format", nullptr,
                     "application/postscript");
        ipp_t* response =
            cupsDoFileRequest(http, request, resource.constData(), QFile::encodeName(file).constData());
        const ipp_status_t status = cupsLastError();
        submission.answer = QStringLiteral("%1 (%2)").arg(QLatin1String(ippErrorString(status)),
                                                          QString::fromUtf8(cupsLastErrorString()));
        if (response && status <= IPP_STATUS_OK_EVENTS_COMPLETE) {
            ipp_attribute_t* id = ippFindAttribute(response, "job-id", IPP_TAG_INTEGER);
            submission.job = id ? ippGetInteger(id, 0) : 0;
            submission.accepted = submission.job > 0;
        }
        ippDelete(response);
        httpClose(http);
    });
    client.join();
    submission.passwordRequests = answer.requests;
    return submission;
}

// One HTTP request of the access log.
struct AccessLine {
    QString user; // "-" when the request carried no credentials that the server took
    int status = 0;
    QString operation;
};

// The job submissions (Print-Job, Create-Job) to a queue in the access log.
QList<AccessLine> jobSubmissions(const QByteArray& log, const QString& queue)
{
    const QRegularExpression pattern(
        QStringLiteral("^\\S+ - (\\S+) \\[[^\\]]*\\] \"POST /printers/%1 HTTP/1\\.1\" "
                       "(\\d+) \\S+ (Print-Job|Create-Job)( |$)")
            .arg(QRegularExpression::escape(queue)));
    QList<AccessLine> lines;
    for (const QByteArray& line : log.split('\n')) {
        const QRegularExpressionMatch match = pattern.match(QString::fromUtf8(line));
        if (match.hasMatch())
            lines.append({match.captured(1), match.captured(2).toInt(), match.captured(3)});
    }
    return lines;
}

QString describe(const QList<AccessLine>& lines)
{
    QStringList text;
    for (const AccessLine& line : lines)
        text << QStringLiteral("%1 %2 by %3").arg(line.operation).arg(line.status).arg(line.user);
    return text.join(QStringLiteral("; "));
}

} // namespace

class TestQueuePolicy : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void cleanupTestCase();
    void accountLivesInTheServerOnly();
    void networkClientPrints_data();
    void networkClientPrints();
    void policyChangedJustBeforeTheJobCounts();

  private:
    // Runs quillet-queue in the print server's mount namespace against it.
    RunResult queueCommand(const QStringList& arguments) const;
    // Prints with lp from 127.0.0.1 as the unprivileged user "nobody",
    // claiming `name` with -U; lp has no terminal to ask for a password on.
    RunResult printWithLp(const QString& queue, const QString& name) const;
    // The machine's account files as they are now.
    QList<FileState> accountFileStates() const;

    QTemporaryDir m_work;
    PrintServer m_server;
    std::unique_ptr<StandInPrinter> m_printer;
    qint64 m_serverPid = 0;
    QString m_document;
    QList<FileState> m_accountFilesBefore;
};

RunResult TestQueuePolicy::queueCommand(const QStringList& arguments) const
{
    return m_server.runInServerNamespace(QStringList{QStringLiteral(QUILLET_QUEUE_EXECUTABLE)} + arguments,
                                         {QStringLiteral("LC_ALL=C"), QStringLiteral("LANG=C")},
                                         m_work.path());
}

RunResult TestQueuePolicy::printWithLp(const QString& queue, const QString& name) const
{
    // setsid: no controlling terminal, whatever the test runs under, so
    // that a password prompt gets no answer instead of waiting for one.
    return runProgram(QStringLiteral("runuser"),
                      {QStringLiteral("-u"), QStringLiteral("nobody"), QStringLiteral("--"),
                       QStringLiteral("setsid"), QStringLiteral("-w"), QStringLiteral("lp"),
                       QStringLiteral("-h"), QStringLiteral("127.0.0.1:%1").arg(m_server.networkPort()),
                       QStringLiteral("-U"), name, QStringLiteral("-d"), queue, QStringLiteral("-t"),
                       QStringLiteral("network job"), m_document},
                      {}, m_work.path());
}

QList<FileState> TestQueuePolicy::accountFileStates() const
{
    QList<FileState> states;
    for (const QString& file : AccountFiles)
        states.append(fileState(file));
    return states;
}

void TestQueuePolicy::initTestCase()
{
    if (!PrintServer::available())
        QSKIP("cupsd, the CUPS client programs, pstops or the socket backend are not installed");
    for (const char* tool : {"nsenter", "runuser", "setsid", "ps2pdf", "pdftotext"}) {
        if (!haveProgram(QLatin1String(tool)))
            QSKIP(qPrintable(QStringLiteral("%1 is needed").arg(QLatin1String(tool))));
    }
    if (!QFileInfo::exists(QStringLiteral("/etc/pam.d/cups")))
        QSKIP("cupsd checks passwords through PAM's service cups, which /etc/pam.d/cups sets up");
    QVERIFY(m_work.isValid());

    // The account is the server's own: the machine has no such user.
    QVERIFY2(!getpwnam(AccountName), "the machine has an account of the test account's name");
    m_accountFilesBefore = accountFileStates();
    for (const FileState& state : qAsConst(m_accountFilesBefore))
        QVERIFY(!state.content.isEmpty());

    const QByteArray hash = passwordHash(AccountPassword);
    QVERIFY2(hash.startsWith("$6$"), "crypt(3) made no SHA-512 hash");
    m_server.listenOnLoopback();
    m_server.addServerDirective(SaveInterval);
    m_server.addAccount(QLatin1String(AccountName), hash);
    QString error;
    QVERIFY2(m_server.start(QStringLiteral(QUILLET_BACKEND), &error), qPrintable(error));
    QVERIFY(m_server.networkPort() > 0);
    m_serverPid = m_server.serverProcessId();
    QVERIFY2(m_serverPid > 0, "the private cupsd was not found");

    m_printer =
        std::make_unique<StandInPrinter>(m_work.filePath(QStringLiteral("printer")), PrinterLifetimeMs);
    QVERIFY2(m_printer->start(&error), qPrintable(error));

    // The marked queue, as an administrator makes it.
    const RunResult created =
        queueCommand({QStringLiteral("create"), QLatin1String(MarkedQueue), m_printer->socketUri(),
                      QStringLiteral("--label"), QLatin1String(Label)});
    QVERIFY2(created.exitCode == 0, qPrintable(describe(created)));
    // The private server takes no password (DefaultAuthType None) until
    // create makes it take one.
    QVERIFY2(created.standardOutput.contains("set DefaultAuthType Basic in place of None"),
             qPrintable(describe(created)));
    // create restarts the server when it changes cupsd.conf.
    m_serverPid = m_server.serverProcessId();
    QVERIFY2(m_serverPid > 0, "the private cupsd was not found after create");

    // The queue of the README's hand-made recipe: the shipped queue
    // template, a label, and lpadmin with the server's default policy.
    m_server.writeConfig(QStringLiteral("quillet/%1.tmpl").arg(QLatin1String(OpenQueue)),
                         readFile(QStringLiteral(QUILLET_SOURCE_DIR "/examples/queue.tmpl")));
    m_server.writeConfig(QStringLiteral("quillet/%1.vars").arg(QLatin1String(OpenQueue)),
                         QByteArray("LABEL_NAME=") + Label + '\n');
    const RunResult added = m_server.admin(
        QStringLiteral("lpadmin"), {QStringLiteral("-p"), QLatin1String(OpenQueue), QStringLiteral("-E"),
                                    QStringLiteral("-v"), QStringLiteral("quillet:") + m_printer->socketUri(),
                                    QStringLiteral("-m"), QStringLiteral("drv:///sample.drv/generic.ppd")});
    QVERIFY2(added.exitCode == 0, qPrintable(describe(added)));

    m_document = m_server.writeJobFile(QStringLiteral("document.ps"),
                                       readFile(QStringLiteral(QUILLET_SOURCE_DIR "/examples/document.ps")));
}

void TestQueuePolicy::cleanupTestCase()
{
    m_server.stop();
    if (m_printer)
        m_printer->stop();
    // The machine's account files, after the server and its namespace are
    // gone, are what they were before it started.
    if (!m_accountFilesBefore.isEmpty()) {
        const QList<FileState> after = accountFileStates();
        for (int i = 0; i < AccountFiles.size(); ++i)
            QVERIFY2(after.at(i) == m_accountFilesBefore.at(i), qPrintable(AccountFiles.at(i)));
    }
}

// The account is in the files that the print server sees, and nowhere on
// the machine: its account files are as they were, to the byte and to the
// time they last changed.
void TestQueuePolicy::accountLivesInTheServerOnly()
{
    const QByteArray entry = QByteArray("\n") + AccountName + ':';
    for (const QString& file : AccountFiles) {
        const QByteArray inside = readFile(QStringLiteral("/proc/%1/root%2").arg(m_serverPid).arg(file));
        QVERIFY2(inside.contains(entry), qPrintable(QStringLiteral("%1 as the server sees it").arg(file)));
    }
    const QList<FileState> now = accountFileStates();
    for (int i = 0; i < AccountFiles.size(); ++i) {
        QVERIFY2(now.at(i) == m_accountFilesBefore.at(i), qPrintable(AccountFiles.at(i)));
        QVERIFY2(!now.at(i).content.contains(entry), qPrintable(AccountFiles.at(i)));
    }
    QVERIFY(!getpwnam(AccountName));
}

void TestQueuePolicy::networkClientPrints_data()
{
    QTest::addColumn<bool>("lp");                // else a program linked with libcups
    QTest::addColumn<QString>("queue");          // marked by create, or made by hand
    QTest::addColumn<QString>("login");          // the name the client logs in with
    QTest::addColumn<QString>("requestingName"); // the name the request claims
    QTest::addColumn<QByteArray>("password");    // empty: none
    QTest::addColumn<bool>("encrypted");
    QTest::addColumn<bool>("printed");
    QTest::addColumn<QString>("shownName"); // on the sheets and in the record
    QTest::addColumn<bool>("authenticated");

    const QString marked = QLatin1String(MarkedQueue);
    const QString open = QLatin1String(OpenQueue);
    const QString account = QLatin1String(AccountName);
    const QString claimed = QLatin1String(ClaimedName);
    const QByteArray right = AccountPassword;
    const QByteArray wrong = QByteArray(AccountPassword) + 'x';

    QTest::newRow("marked queue: lp -U claims a name, no password")
        << true << marked << claimed << claimed << QByteArray() << false << false << QString() << false;
    QTest::newRow("marked queue: a client claims a name, no password")
        << false << marked << claimed << claimed << QByteArray() << false << false << QString() << false;
    QTest::newRow("marked queue: the account's name without its password")
        << false << marked << account << account << QByteArray() << false << false << QString() << false;
    QTest::newRow("marked queue: the account with a wrong password")
        << false << marked << account << account << wrong << false << false << QString() << false;
    QTest::newRow("marked queue: the account with its password")
        << false << marked << account << account << right << false << true << account << true;
    QTest::newRow("marked queue: the account with its password, encrypted")
        << false << marked << account << account << right << true << true << account << true;
    QTest::newRow("marked queue: the account with its password, the request naming another user")
        << false << marked << account << claimed << right << false << true << account << true;
    QTest::newRow("default policy: lp -U claims a name, no password")
        << true << open << claimed << claimed << QByteArray() << false << true << claimed << false;
    QTest::newRow("default policy: a client claims a name, no password")
        << false << open << claimed << claimed << QByteArray() << false << true << claimed << false;
}

// A job from the network: on the marked queue only a user who gave the
// right password gets one, and its sheets and record name that user as
// authenticated; under the default policy the claimed name prints, marked
// as unverified.
void TestQueuePolicy::networkClientPrints()
{
    QFETCH(bool, lp);
    QFETCH(QString, queue);
    QFETCH(QString, login);
    QFETCH(QString, requestingName);
    QFETCH(QByteArray, password);
    QFETCH(bool, encrypted);
    QFETCH(bool, printed);
    QFETCH(QString, shownName);
    QFETCH(bool, authenticated);

    const int serverJobsBefore = m_server.jobs().size();
    const int printerJobsBefore = m_printer->jobs().size();
    const QByteArray auditBefore = readFile(m_server.auditLogFile());
    const int accessBefore = m_server.accessLog().size();
    const int errorBefore = m_server.errorLog().size();

    Submission submission;
    if (lp) {
        const RunResult run = printWithLp(queue, login);
        submission.answer = describe(run);
        // "request id is <queue>-<id> (1 file(s))"
        submission.job = QString::fromLocal8Bit(run.standardOutput)
                             .section(QLatin1Char(' '), 3, 3)
                             .section(QLatin1Char('-'), -1)
                             .toInt();
        submission.accepted = run.exitCode == 0 && submission.job > 0;
    } else {
        submission = printWithLibrary(m_server.networkPort(), queue, login, requestingName, password,
                                      encrypted, m_document);
    }
    // cupsd writes a request's line to its access log after it has answered
    // it: the line of the last answer may come a moment after the client
    // has it (seen under the sanitizers).
    QList<AccessLine> submissions = jobSubmissions(m_server.accessLog().mid(accessBefore), queue);
    QElapsedTimer logging;
    logging.start();
    while ((submissions.isEmpty() || (submission.accepted && submissions.last().status != 200)) &&
           logging.elapsed() < AccessLogMs) {
        QThread::msleep(50);
        submissions = jobSubmissions(m_server.accessLog().mid(accessBefore), queue);
    }
    const QByteArray serverLog = m_server.errorLog().mid(errorBefore);

    if (!printed) {
        QVERIFY2(!submission.accepted, qPrintable(submission.answer));
        QCOMPARE(submission.job, 0);
        // The server asked for credentials and took none: every submission
        // was answered 401 Unauthorized.
        QVERIFY2(!submissions.isEmpty(), qPrintable(describe(submissions)));
        for (const AccessLine& line : submissions)
            QVERIFY2(line.status == 401 && line.user == QLatin1String("-"),
                     qPrintable(describe(submissions)));
        if (!lp)
            QVERIFY2(submission.passwordRequests >= 1, qPrintable(submission.answer));
        // A password that was given was checked, and failed.
        if (!password.isEmpty())
            QVERIFY2(serverLog.contains("pam_authenticate() returned 7 (Authentication failure)"),
                     serverLog.right(3000).constData());
        // No job, nothing at the printer, no record.
        QCOMPARE(m_server.jobs().size(), serverJobsBefore);
        QCOMPARE(m_printer->jobs().size(), printerJobsBefore);
        QCOMPARE(readFile(m_server.auditLogFile()), auditBefore);
        return;
    }

    QVERIFY2(submission.accepted, qPrintable(submission.answer));
    // The server took the job from the user it authenticated, or from
    // nobody it knows of.
    QVERIFY2(!submissions.isEmpty() && submissions.last().status == 200, qPrintable(describe(submissions)));
    QCOMPARE(submissions.last().user, authenticated ? login : QStringLiteral("-"));
    if (authenticated)
        QCOMPARE(submission.passwordRequests, 1);
    else if (!lp)
        QCOMPARE(submission.passwordRequests, 0);

    const int job = submission.job;
    QVERIFY2(m_server.waitForJobs({job}, JobTimeoutMs), m_server.errorLog().right(4000).constData());
    QVERIFY2(m_server.jobState(job) == JobCompleted,
             qPrintable(m_server.jobLogLines(job).join(QLatin1Char('\n'))));
    QCOMPARE(m_printer->jobs().size(), printerJobsBefore + 1);

    // Every sheet names the user; "(unverified)" stands beside the name
    // exactly when nobody checked it.
    QString error;
    const QList<Sheet> sheets = readSheets(m_printer->jobs().last(), m_work.path(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QCOMPARE(sheets.size(), DocumentPages);
    for (int index = 0; index < sheets.size(); ++index) {
        const Sheet& sheet = sheets.at(index);
        const QString where = QStringLiteral("sheet %1: %2").arg(index + 1).arg(sheet.text());
        QVERIFY2(!findWords(sheet, LabelWords).isEmpty(), qPrintable(where));
        QVERIFY2(!findWords(sheet, {QStringLiteral("User"), shownName}).isEmpty(), qPrintable(where));
        if (authenticated)
            QVERIFY2(!sheet.text().contains(QStringLiteral("unverified")), qPrintable(where));
        else
            QVERIFY2(!findWords(sheet, {QStringLiteral("User"), shownName, QStringLiteral("(unverified)")})
                          .isEmpty(),
                     qPrintable(where));
        if (requestingName != shownName)
            QVERIFY2(!sheet.text().contains(requestingName), qPrintable(where));
    }

    const QList<AuditRecord> records = auditRecordsOfJob(m_server.auditLogFile(), job, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QCOMPARE(records.size(), 1);
    const AuditRecord& record = records.first();
    QCOMPARE(record.user, shownName);
    QCOMPARE(record.userAuthenticated, authenticated);
    QCOMPARE(record.queue, queue);
    QCOMPARE(record.outcome, QLatin1String(AuditSent));
    QCOMPARE(record.pages, qint64(DocumentPages));
    QCOMPARE(record.sheetsSent, qint64(DocumentPages));
}

// The print server saves printers.conf up to half a minute after a queue
// changes: a job right after the marked queue is given the default policy
// is judged by the policy the server applies, and its claimed name is
// marked unverified.
void TestQueuePolicy::policyChangedJustBeforeTheJobCounts()
{
    const QString marked = QLatin1String(MarkedQueue);
    // First the file names the marked queue's own policy (the server saves
    // it within DirtyCleanInterval, set to a few seconds here).
    const QString printersFile = m_server.serverRoot() + QStringLiteral("/printers.conf");
    QElapsedTimer saving;
    saving.start();
    while (saving.elapsed() < SavedQueuesMs &&
           queueOpPolicy(readFile(printersFile), marked) != QLatin1String(MarkedQueuePolicy))
        QThread::msleep(100);
    const QByteArray printersConf = readFile(printersFile);
    QVERIFY2(queueOpPolicy(printersConf, marked) == QLatin1String(MarkedQueuePolicy),
             printersConf.constData());
    const RunResult opened =
        m_server.admin(QStringLiteral("lpadmin"), {QStringLiteral("-p"), marked, QStringLiteral("-o"),
                                                   QStringLiteral("printer-op-policy=default")});
    QVERIFY2(opened.exitCode == 0, qPrintable(describe(opened)));
    // The job follows at once, while the file still names the marked
    // queue's policy.

    const int printerJobsBefore = m_printer->jobs().size();
    const RunResult run = printWithLp(marked, QLatin1String(ClaimedName));
    const int job = QString::fromLocal8Bit(run.standardOutput)
                        .section(QLatin1Char(' '), 3, 3)
                        .section(QLatin1Char('-'), -1)
                        .toInt();
    QVERIFY2(run.exitCode == 0 && job > 0, qPrintable(describe(run)));
    QVERIFY2(m_server.waitForJobs({job}, JobTimeoutMs), m_server.errorLog().right(4000).constData());
    QCOMPARE(m_printer->jobs().size(), printerJobsBefore + 1);
    QString error;
    const QList<Sheet> sheets = readSheets(m_printer->jobs().last(), m_work.path(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QVERIFY(!sheets.isEmpty());
    for (const Sheet& sheet : sheets)
        QVERIFY2(!findWords(sheet, {QStringLiteral("User"), QLatin1String(ClaimedName),
                                    QStringLiteral("(unverified)")})
                      .isEmpty(),
                 qPrintable(sheet.text()));
    const QList<AuditRecord> records = auditRecordsOfJob(m_server.auditLogFile(), job, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QCOMPARE(records.size(), 1);
    QCOMPARE(records.first().user, QLatin1String(ClaimedName));
    QVERIFY(!records.first().userAuthenticated);

    const RunResult closed = m_server.admin(
        QStringLiteral("lpadmin"), {QStringLiteral("-p"), marked, QStringLiteral("-o"),
                                    QStringLiteral("printer-op-policy=") + QLatin1String(MarkedQueuePolicy)});
    QVERIFY2(closed.exitCode == 0, qPrintable(describe(closed)));
}

QTEST_GUILESS_MAIN(TestQueuePolicy)
#include "tst_queuepolicy.moc"
