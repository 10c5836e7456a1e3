// A private CUPS print server for the print queue tests: its own server
// root, program folder, spool and logs, listening on a Unix socket in a
// temporary folder (and, on request, on a free port of 127.0.0.1), run inside
// the sandbox so that quillet and its catalogue stand at their installed
// paths. The machine's own print server and its /etc/cups are never used.
#pragma once

#include "support/testsupport.h"

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// IPP job states of finished jobs.
constexpr int JobCanceled = 7;
constexpr int JobAborted = 8;
constexpr int JobCompleted = 9;

// A job as the print server reports it.
struct ServerJob {
    int id = 0;
    QString queue;
    // IPP job state: 3 pending ... 7 canceled, 8 aborted, 9 completed.
    int state = 0;
};

class PrintServer
{
  public:
    PrintServer();
    ~PrintServer();

    // Whether cupsd and the client programs are installed.
    static bool available();

    // Before start(): the server also listens on a free port of 127.0.0.1,
    // where clients reach it as the workstations of a network would.
    void listenOnLoopback();

    // Before start(): one more line of cupsd.conf ("DirtyCleanInterval 5").
    void addServerDirective(const QByteArray& line) { m_directives += line + '\n'; }

    // The port of 127.0.0.1 that the server listens on; 0 when it does not.
    int networkPort() const { return m_networkPort; }

    // Before start(): a login account that exists only in the server's mount
    // namespace. Copies of the machine's /etc/passwd, /etc/group and
    // /etc/shadow with one more line each (the account, its own group, and
    // `passwordHash` as crypt(3) makes it) are bound over the real files
    // there, so that cupsd's PAM checks the account's password; the
    // machine's own files are only read.
    void addAccount(const QString& name, const QByteArray& passwordHash);

    // Writes the configuration and starts cupsd with the given quillet
    // backend in its program folder; false with *error set on failure.
    bool start(const QString& backend, QString* error);

    // Stops cupsd (SIGTERM) and waits for it.
    void stop();

    // The server root (the backend's configuration folder is quillet/ in it).
    QString serverRoot() const;

    // Writes a file below the server root (owner root, not readable by others).
    QString writeConfig(const QString& relative, const QByteArray& content) const;

    // Writes the site's marker definitions (/etc/cups/marker.defs as the
    // server, the backend and quillet see it): the shipped definitions
    // followed by `lines`. Call it after start().
    void writeSiteDefinitions(const QByteArray& lines) const;

    // Writes the site's marker definitions file with exactly `content`, as
    // an administrator who made it from scratch would leave it.
    void writeOwnSiteDefinitions(const QByteArray& content) const;

    // The backend's audit log, as the server's namespace shows it at its
    // installed path.
    QString auditLogFile() const;

    // The print server's log file.
    QString errorLogFile() const;

    // A file for a print job, readable by the unprivileged user who prints it.
    QString writeJobFile(const QString& name, const QByteArray& content) const;

    // Runs a CUPS client program as root against this server.
    RunResult admin(const QString& program, const QStringList& arguments) const;

    // Runs a command as root inside the server's mount namespace (where the
    // stand-in folders are the system's, as the backend sees them), told
    // this server and its configuration folder as CUPS's own commands are
    // (CUPS_SERVER, CUPS_SERVERROOT), with `environment` besides, in
    // `workFolder`.
    RunResult runInServerNamespace(const QStringList& command, const QStringList& environment,
                                   const QString& workFolder) const;

    // Runs lp as the unprivileged user "nobody"; returns the job id or 0
    // (with *error set).
    int print(const QStringList& arguments, QString* error) const;

    // The server's jobs, all states.
    QList<ServerJob> jobs() const;

    // Waits until the jobs are all in a final state (canceled, aborted or
    // completed); false on time-out.
    bool waitForJobs(const QList<int>& ids, int timeoutMs) const;

    // The state of one job (0 when unknown).
    int jobState(int id) const;

    // The process id of cupsd (0 when it is not running); its mount
    // namespace is the one the server sees.
    qint64 serverProcessId() const;

    QByteArray errorLog() const;
    // The print server's access log: one line per HTTP request, with its
    // status and IPP operation.
    QByteArray accessLog() const;
    // The log's lines about one job.
    QStringList jobLogLines(int id) const;
    QByteArray pageLog() const;

  private:
    struct Account {
        QString name;
        QByteArray passwordHash;
    };
    // Writes the copies of the account files; the sandbox's binds of them
    // over the real ones.
    bool writeAccountFiles(QStringList* binds, QString* error) const;

    QTemporaryDir m_dir;
    bool m_loopback = false;
    QByteArray m_directives;
    int m_networkPort = 0;
    QList<Account> m_accounts;
    QProcess m_cupsd;
    FixtureTree m_tree;
};
