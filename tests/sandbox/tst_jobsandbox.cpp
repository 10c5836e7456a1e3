// The job's sandbox, run for real: a shell inside it, as the print server's
// unprivileged account, tries what a hostile document or site program would
// try, and the test checks what it could do.
#include "backend/childprocess.h"
#include "common/paths.h"
#include "sandbox/jobsandbox.h"
#include "support/testsupport.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

// The account the marking runs as on a print server.
const char MarkingAccount[] = "lp";

// A TCP listener on the loopback address of the test's own network, closed
// with the object; port() is 0 when it could not be made.
class LoopbackListener
{
  public:
    LoopbackListener()
    {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(m_fd, 4) != 0 || getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            return;
        m_port = ntohs(address.sin_port);
    }
    ~LoopbackListener()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    int port() const { return m_port; }

  private:
    int m_fd = -1;
    int m_port = 0;
};

struct ShellRun {
    int status = -1;
    int signal = 0;
    QByteArray output;
};

} // namespace

class TestJobSandbox : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void confinesTheStep_data();
    void confinesTheStep();
    void boundsTheStep_data();
    void boundsTheStep();

  private:
    // Runs a shell command in a sandbox made to `spec` as the marking
    // account; what it prints comes back.
    ShellRun runShell(SandboxSpec spec, const QByteArray& script, const ResourceLimits& limits = {});

    QTemporaryDir m_dir;
    uid_t m_uid = 0;
    gid_t m_gid = 0;
    // The step's folder, an input file, and a file of another job.
    QString m_step;
    QString m_input;
    QString m_otherJob;
};

void TestJobSandbox::initTestCase()
{
    if (!QFileInfo(QLatin1String(BubblewrapPath)).isExecutable())
        QSKIP("bubblewrap is not installed");
    const passwd* account = getpwnam(MarkingAccount);
    QVERIFY(account);
    m_uid = account->pw_uid;
    m_gid = account->pw_gid;
    QVERIFY(QFile::setPermissions(m_dir.path(), QFile::permissions(m_dir.path()) | QFile::ExeOther));
    m_step = m_dir.filePath(QStringLiteral("step"));
    m_input = m_dir.filePath(QStringLiteral("template"));
    m_otherJob = m_dir.filePath(QStringLiteral("other-job.key"));
    QVERIFY(QDir().mkpath(m_step));
    QVERIFY(chown(QFile::encodeName(m_step).constData(), m_uid, m_gid) == 0);
    QVERIFY(writeFile(m_input, "any:bold:12::label:top-center:{LABEL_NAME}\n"));
    QVERIFY(chown(QFile::encodeName(m_input).constData(), m_uid, m_gid) == 0);
    // Another job's key, owned by the same account: only the sandbox keeps
    // it out of reach.
    QVERIFY(writeFile(m_otherJob, "job 99 secret\n"));
    QVERIFY(chown(QFile::encodeName(m_otherJob).constData(), m_uid, m_gid) == 0);
}

ShellRun TestJobSandbox::runShell(SandboxSpec spec, const QByteArray& script, const ResourceLimits& limits)
{
    spec.outputFolder = m_step;
    spec.inputFiles << qMakePair(m_input, QStringLiteral("marker.tmpl"));
    ChildCommand command;
    command.program = BubblewrapPath;
    command.arguments = sandboxCommand(spec, {"/bin/sh", "-c", script});
    command.environment << "PATH=/usr/bin:/bin";
    command.changeAccount = true;
    command.uid = m_uid;
    command.gid = m_gid;
    command.limits = limits;
    const QByteArray output = QFile::encodeName(m_dir.filePath(QStringLiteral("output")));
    command.standardOutputFile = output;
    command.standardErrorFile = QFile::encodeName(m_dir.filePath(QStringLiteral("errors")));
    const ChildResult result = runChild(command);
    ShellRun run;
    run.status = result.started ? result.exitStatus : -1;
    run.signal = result.signal;
    run.output = readFile(QFile::decodeName(output)).trimmed();
    return run;
}

void TestJobSandbox::confinesTheStep_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<bool>("network");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("reads its input") << QByteArray("head -c 3 /job/in/marker.tmpl") << false
                                     << QByteArray("any");
    QTest::newRow("runs as the marking account")
        << QByteArray("id -u") << false << QByteArray::number(getpwnam(MarkingAccount)->pw_uid);
    QTest::newRow("writes its own folder")
        << QByteArray("echo made > /job/out/made && cat /job/out/made") << false << QByteArray("made");
    QTest::newRow("cannot change its input")
        << QByteArray("echo x >> /job/in/marker.tmpl 2>/dev/null && echo changed || echo refused") << false
        << QByteArray("refused");
    QTest::newRow("cannot write the system")
        << QByteArray("touch /usr/bin/planted 2>/dev/null && echo planted || echo refused") << false
        << QByteArray("refused");
    QTest::newRow("sees no other job's files")
        << QByteArray("cat @OTHER@ 2>/dev/null || echo unseen") << false << QByteArray("unseen");
    QTest::newRow("sees no print server configuration")
        << QByteArray("ls /etc/cups/quillet /var/spool/cups 2>/dev/null || echo unseen") << false
        << QByteArray("unseen");
    QTest::newRow("sees no process of the machine")
        << QByteArray("test -e /proc/@PID@ && echo seen || echo unseen") << false << QByteArray("unseen");
    QTest::newRow("reaches no network")
        << QByteArray("(echo x > /dev/tcp/127.0.0.1/@PORT@) 2>/dev/null && echo reached || echo unreached")
        << false << QByteArray("unreached");
    QTest::newRow("reaches the network with directory look-ups")
        << QByteArray("(echo x > /dev/tcp/127.0.0.1/@PORT@) 2>/dev/null && echo reached || echo unreached")
        << true << QByteArray("reached");
}

void TestJobSandbox::confinesTheStep()
{
    QFETCH(QByteArray, script);
    QFETCH(bool, network);
    QFETCH(QByteArray, expected);
    LoopbackListener listener;
    QVERIFY(listener.port() > 0);
    script.replace("@OTHER@", QFile::encodeName(m_otherJob))
        .replace("@PID@", QByteArray::number(getpid()))
        .replace("@PORT@", QByteArray::number(listener.port()));
    SandboxSpec spec;
    spec.network = network;
    // bash for /dev/tcp: the shell runs it.
    const ShellRun run = runShell(spec, "exec bash -c '" + script + "'");
    QCOMPARE(run.output, expected);
    QCOMPARE(run.status, 0);
}

void TestJobSandbox::boundsTheStep_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<int>("cpuSeconds");
    QTest::addColumn<int>("fileMegabytes");
    // Whether the step as a whole fails: a process over its CPU time is
    // killed, and the shell dies with it.
    QTest::addColumn<bool>("fails");
    QTest::newRow("a file beyond the output bound")
        << QByteArray("head -c 3000000 /dev/zero > /job/out/big; echo wrote") << 0 << 1 << false;
    QTest::newRow("CPU time beyond its bound") << QByteArray("while :; do :; done") << 1 << 0 << true;
}

void TestJobSandbox::boundsTheStep()
{
    QFETCH(QByteArray, script);
    QFETCH(int, cpuSeconds);
    QFETCH(int, fileMegabytes);
    QFETCH(bool, fails);
    ResourceLimits limits;
    limits.cpuSeconds = rlim_t(cpuSeconds);
    limits.fileBytes = rlim_t(fileMegabytes) << 20;
    const ShellRun run = runShell(SandboxSpec(), script, limits);
    if (fileMegabytes > 0) {
        // The writer was stopped at the bound: the file holds no more.
        QVERIFY(QFileInfo(m_step + QStringLiteral("/big")).size() <= qint64(fileMegabytes) << 20);
        QVERIFY(QFileInfo(m_step + QStringLiteral("/big")).size() < 3000000);
    }
    QCOMPARE(run.status != 0, fails);
}

QTEST_GUILESS_MAIN(TestJobSandbox)
#include "tst_jobsandbox.moc"
