// The private print server of the print queue tests.
#include "printserver.h"

#include "common/paths.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QThread>

#include <arpa/inet.h>
#include <cups/cups.h>
#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

const char CupsFilesConf[] = "ServerRoot @ROOT@/etc\n"
                             "ServerBin @ROOT@/bin\n"
                             "DataDir @ROOT@/data\n"
                             "DocumentRoot @ROOT@/data/doc-root\n"
                             "RequestRoot @ROOT@/spool\n"
                             "TempDir @ROOT@/spool/tmp\n"
                             "CacheDir @ROOT@/cache\n"
                             "StateDir @ROOT@/state\n"
                             "ServerKeychain @ROOT@/etc/ssl\n"
                             "AccessLog @ROOT@/log/access_log\n"
                             "ErrorLog @ROOT@/log/error_log\n"
                             "PageLog @ROOT@/log/page_log\n"
                             "Printcap @ROOT@/state/printcap\n"
                             "User lp\n"
                             "Group lp\n"
                             "SystemGroup root\n"
                             "FileDevice No\n";

// No authentication by default: the server is reachable through its private
// socket, and on request on a port of 127.0.0.1 (the @LISTEN@ line), which
// only this machine reaches. The page log format is the one the README recommends: the job's
// total impressions and its last state message.
const char CupsdConf[] =
    "LogLevel debug\n"
    "MaxLogSize 0\n"
    "PageLogFormat %p %u %j %P %C %{job-impressions-completed} %{job-printer-state-message}\n"
    "Listen @ROOT@/cups.sock\n"
    "@LISTEN@"
    "Browsing No\n"
    "BrowseLocalProtocols none\n"
    "DefaultAuthType None\n"
    "JobPrivateAccess all\n"
    "JobPrivateValues none\n"
    "PreserveJobHistory Yes\n"
    "<Location />\n  Order allow,deny\n  Allow all\n</Location>\n"
    "<Policy default>\n  JobPrivateAccess all\n  JobPrivateValues none\n"
    "  <Limit All>\n    Order deny,allow\n  </Limit>\n</Policy>\n";

// An empty community name turns off the SNMP probes of CUPS's network
// backends, which would cost seconds per job on a printer without SNMP.
const char SnmpConf[] = "Community\n";

// How long cupsd may take to open its socket.
constexpr int StartMs = 20000;

// The processes whose parent is `parent`, from /proc.
QList<int> childProcesses(qint64 parent)
{
    QList<int> children;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        const int pid = entry.toInt();
        if (pid <= 0)
            continue;
        // "pid (name) state ppid ...": the name may hold blanks and brackets.
        const QByteArray stat = readFile(QStringLiteral("/proc/%1/stat").arg(pid));
        const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 1 && fields.at(1).toLongLong() == parent)
            children.append(pid);
    }
    return children;
}

bool isFinal(int state)
{
    return state >= JobCanceled;
}

// A port of 127.0.0.1 that nothing listens on now; 0 when none could be had.
int freeLoopbackPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof(address);
    int port = 0;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

// Whether something accepts connections on the port of 127.0.0.1.
bool acceptsConnections(int port)
{
    http_t* http =
        httpConnect2("127.0.0.1", port, nullptr, AF_INET, HTTP_ENCRYPTION_IF_REQUESTED, 1, 1000, nullptr);
    if (!http)
        return false;
    httpClose(http);
    return true;
}

// The numbers of a colon-separated account file's field (user or group ids).
QSet<qint64> numbersIn(const QByteArray& file, int field)
{
    QSet<qint64> numbers;
    for (const QByteArray& line : file.split('\n')) {
        bool number = false;
        const qint64 value = line.split(':').value(field).toLongLong(&number);
        if (number)
            numbers.insert(value);
    }
    return numbers;
}

bool hasEntry(const QByteArray& file, const QByteArray& name)
{
    return file.startsWith(name + ':') || file.contains('\n' + name + ':');
}

} // namespace

PrintServer::PrintServer()
{
    // The unprivileged printing user and the server's own account must get
    // through the temporary folder.
    chmod(QFile::encodeName(m_dir.path()).constData(), 0755);
}

PrintServer::~PrintServer()
{
    stop();
}

bool PrintServer::available()
{
    return QFileInfo::exists(QStringLiteral("/usr/sbin/cupsd")) && haveProgram(QStringLiteral("lp")) &&
           haveProgram(QStringLiteral("lpadmin")) &&
           QFileInfo::exists(QStringLiteral("/usr/lib/cups/backend/socket")) &&
           QFileInfo::exists(QStringLiteral("/usr/lib/cups/filter/pstops"));
}

void PrintServer::listenOnLoopback()
{
    m_loopback = true;
}

void PrintServer::addAccount(const QString& name, const QByteArray& passwordHash)
{
    m_accounts.append({name, passwordHash});
}

bool PrintServer::writeAccountFiles(QStringList* binds, QString* error) const
{
    const QString folder = m_dir.filePath(QStringLiteral("accounts"));
    QDir().mkpath(folder);
    chmod(QFile::encodeName(folder).constData(), 0755);
    // Read only: what the namespace shows is a copy.
    QByteArray passwd = readFile(QStringLiteral("/etc/passwd"));
    QByteArray group = readFile(QStringLiteral("/etc/group"));
    QByteArray shadow = readFile(QStringLiteral("/etc/shadow"));
    if (passwd.isEmpty() || group.isEmpty() || shadow.isEmpty()) {
        *error = QStringLiteral("cannot read /etc/passwd, /etc/group or /etc/shadow");
        return false;
    }
    for (QByteArray* file : {&passwd, &group, &shadow}) {
        if (!file->endsWith('\n'))
            *file += '\n';
    }
    // An id that no account and no group of the machine has.
    const QSet<qint64> taken = numbersIn(passwd, 2) + numbersIn(passwd, 3) + numbersIn(group, 2);
    qint64 id = 50000;
    // The day of the last password change, in days since 1970: today, so
    // that the account is neither expired nor due for a new password.
    const qint64 today = QDateTime::currentSecsSinceEpoch() / 86400;
    for (const Account& account : m_accounts) {
        const QByteArray name = account.name.toUtf8();
        if (name.isEmpty() || name.contains(':') || name.contains('\n') ||
            account.passwordHash.contains(':') || account.passwordHash.contains('\n') ||
            hasEntry(passwd, name) || hasEntry(group, name) || hasEntry(shadow, name)) {
            *error = QStringLiteral("cannot add the account %1 beside the machine's own").arg(account.name);
            return false;
        }
        while (taken.contains(id))
            ++id;
        const QByteArray number = QByteArray::number(id++);
        passwd +=
            name + ":x:" + number + ':' + number + ":Print test account:/nonexistent:/usr/sbin/nologin\n";
        group += name + ":x:" + number + ":\n";
        shadow += name + ':' + account.passwordHash + ':' + QByteArray::number(today) + ":0:99999:7:::\n";
    }
    const struct {
        const char* file;
        const QByteArray* content;
        mode_t mode;
    } copies[] = {{"passwd", &passwd, 0644}, {"group", &group, 0644}, {"shadow", &shadow, 0600}};
    for (const auto& copy : copies) {
        const QString path = folder + QLatin1Char('/') + QLatin1String(copy.file);
        if (!writeFile(path, *copy.content) || chmod(QFile::encodeName(path).constData(), copy.mode) != 0) {
            *error = QStringLiteral("cannot write %1").arg(path);
            return false;
        }
        *binds << QStringLiteral("--bind") << path << QStringLiteral("/etc/") + QLatin1String(copy.file);
    }
    return true;
}

QString PrintServer::serverRoot() const
{
    return m_dir.filePath(QStringLiteral("etc"));
}

QString PrintServer::writeConfig(const QString& relative, const QByteArray& content) const
{
    const QString path = serverRoot() + QLatin1Char('/') + relative;
    writeFile(path, content);
    chmod(QFile::encodeName(path).constData(), 0600);
    chmod(QFile::encodeName(QFileInfo(path).path()).constData(), 0700);
    return path;
}

void PrintServer::writeSiteDefinitions(const QByteArray& lines) const
{
    const QByteArray shipped = m_tree.read(QStringLiteral("share-cups/quillet/marker.defs"));
    m_tree.write(QStringLiteral("etc-cups/marker.defs"), shipped + '\n' + lines);
}

void PrintServer::writeOwnSiteDefinitions(const QByteArray& content) const
{
    m_tree.write(QStringLiteral("etc-cups/marker.defs"), content);
}

QString PrintServer::errorLogFile() const
{
    return m_dir.filePath(QStringLiteral("log/error_log"));
}

QString PrintServer::writeJobFile(const QString& name, const QByteArray& content) const
{
    const QString path = m_dir.filePath(QStringLiteral("documents/") + name);
    writeFile(path, content);
    chmod(QFile::encodeName(QFileInfo(path).path()).constData(), 0755);
    chmod(QFile::encodeName(path).constData(), 0644);
    return path;
}

bool PrintServer::start(const QString& backend, QString* error)
{
    const QString root = m_dir.path();
    for (const char* folder : {"etc/ppd", "etc/ssl", "etc/quillet", "bin/backend", "data", "spool/tmp",
                               "cache", "state", "log", "quillet-bin", "documents"})
        QDir(root).mkpath(QLatin1String(folder));
    if (m_loopback && (m_networkPort = freeLoopbackPort()) == 0) {
        *error = QStringLiteral("no free port on 127.0.0.1");
        return false;
    }
    const QByteArray listen =
        m_loopback ? "Listen 127.0.0.1:" + QByteArray::number(m_networkPort) + '\n' : QByteArray();
    auto fill = [&root, &listen](const char* text) {
        return QByteArray(text).replace("@ROOT@", QFile::encodeName(root)).replace("@LISTEN@", listen);
    };
    writeFile(root + QStringLiteral("/etc/cups-files.conf"), fill(CupsFilesConf));
    writeFile(root + QStringLiteral("/etc/cupsd.conf"), fill(CupsdConf) + m_directives);
    writeFile(root + QStringLiteral("/etc/snmp.conf"), SnmpConf);
    chmod(QFile::encodeName(root + QStringLiteral("/etc/quillet")).constData(), 0700);

    // The program folder: the system's filters, daemons and backends, and
    // the backend under test, owned by root with mode 0700 as installed.
    const QString system = QStringLiteral("/usr/lib/cups");
    for (const QString& entry : QDir(system).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (entry != QLatin1String("backend"))
            QFile::link(system + QLatin1Char('/') + entry, root + QStringLiteral("/bin/") + entry);
    }
    for (const QString& entry :
         QDir(system + QStringLiteral("/backend")).entryList(QDir::Files | QDir::System)) {
        if (entry != QLatin1String("quillet"))
            QFile::link(system + QStringLiteral("/backend/") + entry,
                        root + QStringLiteral("/bin/backend/") + entry);
    }
    const QString installedBackend = root + QStringLiteral("/bin/backend/quillet");
    if (!QFile::copy(backend, installedBackend)) {
        *error = QStringLiteral("cannot copy %1").arg(backend);
        return false;
    }
    chmod(QFile::encodeName(installedBackend).constData(), 0700);

    // quillet at its installed path and the shipped catalogue in the data
    // folder, inside the server's mount namespace only.
    const QString quilletDir = QFileInfo(QLatin1String(QuilletExecutablePath)).path();
    if (!installQuilletCopy(root + QStringLiteral("/quillet-bin"))) {
        *error = QStringLiteral("cannot copy quillet into the server's program folder");
        return false;
    }
    m_tree.installCatalogue();

    QStringList accountBinds;
    if (!m_accounts.isEmpty() && !writeAccountFiles(&accountBinds, error))
        return false;

    m_cupsd.setProgram(QStringLiteral(QUILLET_SANDBOX));
    m_cupsd.setArguments({QStringLiteral("--bind"),
                          QLatin1String(CupsDataDir),
                          root + QStringLiteral("/data"),
                          QStringLiteral("--bind"),
                          m_tree.shareCups(),
                          QLatin1String(CupsDataDir),
                          QStringLiteral("--bind"),
                          m_tree.etcCups(),
                          QLatin1String(CupsServerRoot),
                          QStringLiteral("--bind"),
                          root + QStringLiteral("/quillet-bin"),
                          quilletDir,
                          QStringLiteral("--bind"),
                          m_tree.auditLogFolder(),
                          QFileInfo(QLatin1String(QuilletAuditLog)).path(),
                          QStringLiteral("--"),
                          QStringLiteral("/usr/sbin/cupsd"),
                          QStringLiteral("-f"),
                          QStringLiteral("-c"),
                          root + QStringLiteral("/etc/cupsd.conf"),
                          QStringLiteral("-s"),
                          root + QStringLiteral("/etc/cups-files.conf")});
    // The account files' copies stand over the real ones in the server's
    // namespace only.
    if (!accountBinds.isEmpty())
        m_cupsd.setArguments(accountBinds + m_cupsd.arguments());
    m_cupsd.setProcessChannelMode(QProcess::MergedChannels);
    m_cupsd.start();
    if (!m_cupsd.waitForStarted()) {
        *error = QStringLiteral("cannot start cupsd in the sandbox");
        return false;
    }
    QElapsedTimer timer;
    timer.start();
    const QString socket = root + QStringLiteral("/cups.sock");
    while (timer.elapsed() < StartMs) {
        if (QFileInfo::exists(socket) &&
            admin(QStringLiteral("lpstat"), {QStringLiteral("-r")}).exitCode == 0 &&
            (!m_loopback || acceptsConnections(m_networkPort))) {
            cupsSetServer(QFile::encodeName(socket).constData());
            return true;
        }
        if (m_cupsd.state() == QProcess::NotRunning)
            break;
        QThread::msleep(100);
    }
    *error =
        QStringLiteral("cupsd did not start: %1 %2")
            .arg(QString::fromLocal8Bit(m_cupsd.readAll()), QString::fromLocal8Bit(errorLog().right(3000)));
    return false;
}

void PrintServer::stop()
{
    if (m_cupsd.state() == QProcess::NotRunning)
        return;
    // The sandbox runs cupsd as its child (unshare and the inner shell
    // exec it), so cupsd is the child of the started process.
    for (const int pid : childProcesses(m_cupsd.processId()))
        ::kill(pid, SIGTERM);
    if (!m_cupsd.waitForFinished(15000)) {
        m_cupsd.kill();
        m_cupsd.waitForFinished();
    }
}

RunResult PrintServer::admin(const QString& program, const QStringList& arguments) const
{
    return runProgram(program, arguments,
                      {QStringLiteral("CUPS_SERVER=") + m_dir.filePath(QStringLiteral("cups.sock"))});
}

RunResult PrintServer::runInServerNamespace(const QStringList& command, const QStringList& environment,
                                            const QString& workFolder) const
{
    return runProgram(
        QStringLiteral("nsenter"),
        QStringList{QStringLiteral("-t"), QString::number(serverProcessId()), QStringLiteral("-m"),
                    QStringLiteral("--")} +
            command,
        QStringList{QStringLiteral("CUPS_SERVER=") + m_dir.filePath(QStringLiteral("cups.sock")),
                    QStringLiteral("CUPS_SERVERROOT=") + serverRoot()} +
            environment,
        workFolder, 300000);
}

int PrintServer::print(const QStringList& arguments, QString* error) const
{
    const RunResult run =
        runProgram(QStringLiteral("runuser"),
                   QStringList{QStringLiteral("-u"), QStringLiteral("nobody"), QStringLiteral("--"),
                               QStringLiteral("env"),
                               QStringLiteral("CUPS_SERVER=") + m_dir.filePath(QStringLiteral("cups.sock")),
                               QStringLiteral("lp")} +
                       arguments,
                   {}, m_dir.path());
    // "request id is <queue>-<id> (1 file(s))"
    const QString output = QString::fromLocal8Bit(run.standardOutput);
    const int id = output.section(QLatin1Char(' '), 3, 3).section(QLatin1Char('-'), -1).toInt();
    if (run.exitCode != 0 || id <= 0)
        *error =
            QStringLiteral("lp %1 failed: %2 %3")
                .arg(arguments.join(QLatin1Char(' ')), output, QString::fromLocal8Bit(run.standardError));
    return run.exitCode == 0 ? id : 0;
}

QList<ServerJob> PrintServer::jobs() const
{
    QList<ServerJob> list;
    cups_job_t* jobs = nullptr;
    const int count = cupsGetJobs2(CUPS_HTTP_DEFAULT, &jobs, nullptr, 0, CUPS_WHICHJOBS_ALL);
    for (int i = 0; i < count; ++i)
        list.append({jobs[i].id, QString::fromUtf8(jobs[i].dest), int(jobs[i].state)});
    cupsFreeJobs(count, jobs);
    return list;
}

int PrintServer::jobState(int id) const
{
    for (const ServerJob& job : jobs()) {
        if (job.id == id)
            return job.state;
    }
    return 0;
}

bool PrintServer::waitForJobs(const QList<int>& ids, int timeoutMs) const
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        bool done = true;
        for (int id : ids)
            done = done && isFinal(jobState(id));
        if (done)
            return true;
        QThread::msleep(200);
    }
    return false;
}

QByteArray PrintServer::errorLog() const
{
    return readFile(errorLogFile());
}

qint64 PrintServer::serverProcessId() const
{
    if (m_cupsd.state() == QProcess::NotRunning)
        return 0;
    for (const int pid : childProcesses(m_cupsd.processId())) {
        if (readFile(QStringLiteral("/proc/%1/cmdline").arg(pid)).startsWith("/usr/sbin/cupsd\0"))
            return pid;
    }
    return 0;
}

QByteArray PrintServer::accessLog() const
{
    return readFile(m_dir.filePath(QStringLiteral("log/access_log")));
}

QByteArray PrintServer::pageLog() const
{
    return readFile(m_dir.filePath(QStringLiteral("log/page_log")));
}

QStringList PrintServer::jobLogLines(int id) const
{
    QStringList lines;
    const QString tag = QStringLiteral("[Job %1] ").arg(id);
    for (const QByteArray& line : errorLog().split('\n')) {
        const QString text = QString::fromUtf8(line);
        if (text.contains(tag))
            lines.append(text);
    }
    return lines;
}

QString PrintServer::auditLogFile() const
{
    return m_tree.auditLogFolder() + QLatin1Char('/') + QFileInfo(QLatin1String(QuilletAuditLog)).fileName();
}
