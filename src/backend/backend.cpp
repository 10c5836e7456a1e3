// The backend's run: check the job and the queue, mark every copy as the
// marking account, then hand one stream of marked copies to the real backend.
// Every refusal sends nothing to the device.
#include "backend/backend.h"

#include "backend/childprocess.h"
#include "backend/deviceuri.h"
#include "backend/jobvariables.h"
#include "backend/pagesize.h"
#include "backend/postscriptjob.h"
#include "backend/queuesettings.h"
#include "common/paths.h"
#include "pagecode/pagecodekey.h"
#include "pagecode/pagecoder.h"
#include "settings/definitionsfile.h"
#include "settings/variables.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// The line that "lpinfo -v" shows for this backend.
const char DeviceListing[] = "network quillet \"Unknown\" \"Security marking (quillet:<printer URI>)\"\n";

const char UsageText[] = "Usage: %s job-id user title copies options [file]\n";

// Exit statuses of the print server's backend interface.
constexpr int BackendOk = 0;
constexpr int BackendFailed = 1;

// How many bytes are looked at to tell PostScript from other data.
constexpr int HeadSize = 16;

QString environmentValue(const char* name)
{
    return QString::fromLocal8Bit(qgetenv(name));
}

// One line of text for the print server's log: no line breaks, no quotes.
QString logText(const QString& text)
{
    QString clean = cleanValue(text).simplified();
    clean.replace(QLatin1Char('"'), QLatin1Char('\''));
    return clean;
}

void message(const QString& line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
}

// The job's private folders, removed when the run ends: a folder only root
// may list (mode 0711) for what the backend keeps to itself (the received
// document, quillet's messages, the stream), and in it a folder owned by the
// marking account (mode 0700) for what quillet reads and writes. The backend
// writes into and reads from the marking folder without following links.
class WorkFolder
{
  public:
    ~WorkFolder()
    {
        if (!m_path.isEmpty())
            QDir(m_path).removeRecursively();
    }

    // Creates the folders below `parent`; false with errno set on failure.
    bool create(const QString& parent, uid_t uid, gid_t gid)
    {
        QByteArray pattern = QFile::encodeName(parent) + "/quillet-XXXXXX";
        if (!mkdtemp(pattern.data()))
            return false;
        m_path = QFile::decodeName(pattern);
        const QByteArray marking = pattern + "/marking";
        return chmod(pattern.constData(), 0711) == 0 && mkdir(marking.constData(), 0700) == 0 &&
               chown(marking.constData(), uid, gid) == 0;
    }

    // A file of the backend's own.
    QString file(const QString& name) const { return m_path + QLatin1Char('/') + name; }
    // A file of the marking folder.
    QString marking(const QString& name) const { return m_path + QStringLiteral("/marking/") + name; }
    QString markingPath() const { return m_path + QStringLiteral("/marking"); }

  private:
    QString m_path;
};

// Opens a regular file of the marking folder for reading, without following
// a link that the marking account may have put in its place.
bool openMarkingFile(QFile& file, const QString& path)
{
    const int fd = open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        if (fd >= 0)
            close(fd);
        return false;
    }
    return file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
}

// The site's page-code key file as the marker definitions name it (the
// file quillet reads them from); empty when they name none or cannot be read,
// and quillet then refuses the job itself.
QString definedPageCodeKey()
{
    QFile definitions(markerDefinitionsFile());
    if (!definitions.open(QIODevice::ReadOnly))
        return QString();
    Variables& store = Variables::instance();
    store.clear();
    store.read(definitions);
    return store.value(QLatin1String(PageCoder::KeySetting));
}

// One job from the backend's arguments and environment to its exit status.
class JobRun
{
  public:
    JobRun(int argc, char* argv[]);

    // Marks and sends the job; returns the backend's exit status.
    int execute();

  private:
    int refuse(const QString& reason);
    int cancelled();
    void audit(const QString& outcome) const;

    bool resolveAccount(QString* error);
    bool receiveDocument(const QString& target, QString* error);
    // Creates a file in the marking folder, owned by the marking account.
    bool createForMarking(QFile& file, const QString& path);
    bool writeForMarking(const QString& path, const QByteArray& content);
    bool handOverPageCodeKey(QString* error);
    bool markCopy(int copy, QString* error);
    bool buildStream(QString* error);
    ChildCommand realBackendCommand(const QString& program, int input) const;

    QList<QByteArray> m_argv;
    JobFacts m_job;
    QString m_queue;
    RealDevice m_device;
    QueueSettings m_settings;
    ServerAccount m_server;
    uid_t m_uid = 0;
    gid_t m_gid = 0;
    QString m_account;
    WorkFolder m_folder;
    QString m_label;
    qint64 m_pages = 0;
    // Whether quillet added the accounting stamp's page to every copy.
    bool m_stampPage = false;
    qint64 m_sent = 0;
};

JobRun::JobRun(int argc, char* argv[])
{
    for (int i = 0; i < argc; ++i)
        m_argv.append(QByteArray(argv[i]));
    m_job.jobId = QString::fromUtf8(m_argv.at(1));
    m_job.user = QString::fromUtf8(m_argv.at(2));
    m_job.title = QString::fromUtf8(m_argv.at(3));
    m_job.copies = qMax(1, m_argv.at(4).toInt());
    m_job.options = parseJobOptions(m_argv.at(5));
    m_queue = environmentValue("PRINTER");
    m_job.printer = m_queue;
}

void JobRun::audit(const QString& outcome) const
{
    message(
        QStringLiteral("NOTICE: quillet audit: job=%1 user=\"%2\" queue=%3 label=\"%4\" pages=%5 copies=%6 "
                       "sent=%7 outcome=%8")
            .arg(logText(m_job.jobId), logText(m_job.user), logText(m_queue), logText(m_label))
            .arg(m_pages)
            .arg(m_job.copies)
            .arg(m_sent)
            .arg(outcome));
}

int JobRun::refuse(const QString& reason)
{
    m_sent = 0;
    message(QStringLiteral("ERROR: quillet: job %1 on %2 refused, nothing printed: %3")
                .arg(logText(m_job.jobId), logText(m_queue), logText(reason)));
    // Nothing was sent. The print server only ever raises a job's page
    // count, so what the filters counted before stays in the page log; the
    // ERROR line above becomes the job's state message that says why.
    message(QStringLiteral("ATTR: job-impressions=0"));
    message(QStringLiteral("PAGE: total 0"));
    audit(QStringLiteral("refused reason=\"%1\"").arg(logText(reason)));
    return RefusedJobStatus;
}

int JobRun::cancelled()
{
    m_sent = 0;
    message(QStringLiteral("INFO: quillet: job %1 cancelled").arg(logText(m_job.jobId)));
    audit(QStringLiteral("cancelled"));
    return RefusedJobStatus;
}

bool JobRun::resolveAccount(QString* error)
{
    m_account = m_settings.markingUser.isEmpty() ? m_server.user : m_settings.markingUser;
    const QByteArray name = m_account.toLocal8Bit();
    const passwd* entry = getpwnam(name.constData());
    if (!entry) {
        *error = QStringLiteral("the marking account \"%1\" does not exist").arg(m_account);
        return false;
    }
    m_uid = entry->pw_uid;
    m_gid = entry->pw_gid;
    return true;
}

bool JobRun::receiveDocument(const QString& target, QString* error)
{
    int input = 0;
    if (m_argv.size() == 7) {
        input = open(m_argv.at(6).constData(), O_RDONLY | O_CLOEXEC);
        if (input < 0) {
            *error = QStringLiteral("cannot read the job's file: %1")
                         .arg(QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
    }
    QFile output(target);
    bool ok = output.open(QIODevice::WriteOnly | QIODevice::Truncate);
    char buffer[65536];
    while (ok) {
        const ssize_t got = read(input, buffer, sizeof buffer);
        if (got == 0)
            break;
        if (got < 0) {
            if (errno == EINTR && !cancelRequested())
                continue;
            ok = false;
            break;
        }
        ok = output.write(buffer, got) == got;
    }
    if (input != 0)
        close(input);
    if (!ok && !cancelRequested())
        *error = QStringLiteral("cannot receive the job's document");
    return ok && output.flush();
}

bool JobRun::createForMarking(QFile& file, const QString& path)
{
    // A new file only: nothing the marking account left there is followed.
    const int fd =
        open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    if (fchown(fd, m_uid, m_gid) != 0) {
        close(fd);
        return false;
    }
    return file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle);
}

bool JobRun::writeForMarking(const QString& path, const QByteArray& content)
{
    QFile file;
    return createForMarking(file, path) && file.write(content) == content.size() && file.flush();
}

// The site key stays with root: the marking account gets a key file of this
// job alone in its folder, and the variables name it.
bool JobRun::handOverPageCodeKey(QString* error)
{
    const QString siteKeyFile = definedPageCodeKey();
    if (siteKeyFile.isEmpty())
        return true;
    PageCodeKey site;
    if (!PageCodeKey::load(siteKeyFile, &site, error))
        return false;
    if (site.kind() != PageCodeKey::Kind::Site) {
        *error = QStringLiteral("the page-code key file %1 holds the key of job %2, not the site key")
                     .arg(siteKeyFile)
                     .arg(site.job());
        return false;
    }
    bool ok = false;
    const qint64 id = m_job.jobId.toLongLong(&ok, 10);
    PageCodeKey jobKey;
    if (!ok || id < 0) {
        *error =
            QStringLiteral("page codes need the job's number, but the job id is \"%1\"").arg(m_job.jobId);
        return false;
    }
    site.forJob(id, &jobKey); // a site key derives the key of every job
    const QString path = m_folder.marking(QStringLiteral("page-code.key"));
    if (!writeForMarking(path, jobKey.toText())) {
        *error = QStringLiteral("cannot write the job's page-code key for marking");
        return false;
    }
    m_job.pageCodeKeyFile = path;
    return true;
}

bool JobRun::markCopy(int copy, QString* error)
{
    const QString number = QString::number(copy);
    const QString variables = m_folder.marking(QStringLiteral("copy-%1.vars").arg(number));
    const QString output = m_folder.marking(QStringLiteral("copy-%1.ps").arg(number));
    const QString errors = m_folder.file(QStringLiteral("copy-%1.err").arg(number));
    if (!writeForMarking(variables, jobVariables(m_job, m_settings, copy))) {
        *error = QStringLiteral("cannot write the variables of copy %1").arg(copy);
        return false;
    }

    ChildCommand command;
    command.program = QFile::encodeName(QLatin1String(QuilletExecutablePath));
    command.arguments << command.program;
    if (m_settings.duplexBackPages)
        command.arguments << "--duplex";
    command.arguments << QFile::encodeName(m_folder.marking(QStringLiteral("document.ps")))
                      << QFile::encodeName(m_folder.marking(QStringLiteral("marker.tmpl")))
                      << QFile::encodeName(variables) << QFile::encodeName(output);
    const QByteArray home = QFile::encodeName(m_folder.markingPath());
    command.environment << "PATH=" + qgetenv("PATH") << "LANG=" + qgetenv("LANG") << "LC_CTYPE=C.UTF-8"
                        << "HOME=" + home << "TMPDIR=" + home << "KRB5CCNAME=FILE:" + home + "/krb5cc"
                        << "USER=" + m_account.toLocal8Bit() << "LOGNAME=" + m_account.toLocal8Bit();
    command.changeAccount = true;
    command.uid = m_uid;
    command.gid = m_gid;
    command.standardOutputFile = QFile::encodeName(m_folder.file(QStringLiteral("quillet.out")));
    command.standardErrorFile = QFile::encodeName(errors);

    const ChildResult result = runChild(command);
    QString firstError;
    QFile errorFile(errors);
    if (errorFile.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : errorFile.readAll().split('\n')) {
            const QString text = logText(QString::fromUtf8(line));
            if (text.isEmpty())
                continue;
            if (firstError.isEmpty())
                firstError = text;
            message(QStringLiteral("DEBUG: quillet: %1").arg(text));
        }
    }
    if (result.cancelled)
        return false;
    if (!result.started) {
        *error = QStringLiteral("cannot run %1: %2").arg(QLatin1String(QuilletExecutablePath), result.error);
        return false;
    }
    if (result.exitStatus != 0) {
        *error =
            result.signal
                ? QStringLiteral("quillet was ended by signal %1").arg(result.signal)
                : QStringLiteral("quillet failed with status %1: %2").arg(result.exitStatus).arg(firstError);
        return false;
    }

    QFile used;
    const KeyValueList values =
        openMarkingFile(used, variables) ? parseKeyValueLines(used.readAll()) : KeyValueList();
    QFile marked;
    const bool haveOutput = openMarkingFile(marked, output) && marked.size() > 0;
    qint64 pages = 0;
    for (const auto& pair : values) {
        if (pair.first == QLatin1String("NUM_PAGES"))
            pages = pair.second.toLongLong();
    }
    if (pages <= 0 || !haveOutput) {
        *error = QStringLiteral("quillet left no marked pages for copy %1").arg(copy);
        return false;
    }
    if (copy == 1) {
        m_pages = pages;
        m_label = securityLabel(values);
        // The variables quillet used tell whether it stamped the copy; in
        // simplex the stamp is a page of its own.
        Variables& store = Variables::instance();
        store.clear();
        for (const auto& pair : values)
            store.insert(pair.first, pair.second);
        m_stampPage = store.accountingStamp() && !m_settings.duplexBackPages;
    }
    return true;
}

bool JobRun::buildStream(QString* error)
{
    QFile stream(m_folder.file(QStringLiteral("stream.ps")));
    if (!stream.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        *error = QStringLiteral("cannot write the marked stream");
        return false;
    }
    for (int copy = 1; copy <= m_job.copies; ++copy) {
        QFile marked;
        if (!openMarkingFile(marked, m_folder.marking(QStringLiteral("copy-%1.ps").arg(copy))) ||
            !appendMarkedCopy(marked, stream)) {
            *error = QStringLiteral("cannot join marked copy %1 to the stream").arg(copy);
            return false;
        }
    }
    if (!stream.flush()) {
        *error = QStringLiteral("cannot write the marked stream");
        return false;
    }
    return true;
}

ChildCommand JobRun::realBackendCommand(const QString& program, int input) const
{
    ChildCommand command;
    command.program = QFile::encodeName(program);
    // As the print server starts backends: the URI first, one copy (every
    // copy is in the stream), the document on standard input.
    command.arguments << QFile::encodeName(uriForMessages(m_device.uri)) << m_argv.at(1) << m_argv.at(2)
                      << m_argv.at(3) << "1" << m_argv.at(5);
    const QByteArray deviceVariable = "DEVICE_URI=";
    for (char** entry = environ; *entry; ++entry) {
        if (!QByteArray(*entry).startsWith(deviceVariable))
            command.environment << QByteArray(*entry);
    }
    command.environment << deviceVariable + m_device.uri.toUtf8();
    command.standardInput = input;
    command.keepChannels = true;

    // The print server runs a backend as root only when others may not
    // read and execute it; otherwise as its own unprivileged account.
    struct stat info;
    if (stat(command.program.constData(), &info) == 0 &&
        (info.st_mode & (S_IROTH | S_IXOTH)) == (S_IROTH | S_IXOTH)) {
        const passwd* entry = getpwnam(m_server.user.toLocal8Bit().constData());
        if (entry) {
            command.changeAccount = true;
            command.uid = entry->pw_uid;
            command.gid = entry->pw_gid;
        }
    }
    return command;
}

int JobRun::execute()
{
    const QByteArray deviceUri =
        qEnvironmentVariableIsSet("DEVICE_URI") ? qgetenv("DEVICE_URI") : m_argv.at(0);
    m_device = realDevice(QString::fromUtf8(deviceUri));
    if (!m_device.error.isEmpty())
        return refuse(m_device.error);

    const QString serverRoot = qEnvironmentVariableIsSet("CUPS_SERVERROOT")
                                   ? environmentValue("CUPS_SERVERROOT")
                                   : QLatin1String(CupsServerRoot);
    const QString serverBin = qEnvironmentVariableIsSet("CUPS_SERVERBIN") ? environmentValue("CUPS_SERVERBIN")
                                                                          : QLatin1String(CupsServerBin);
    const QString realBackend = serverBin + QStringLiteral("/backend/") + m_device.scheme;
    if (!QFileInfo(realBackend).isExecutable())
        return refuse(
            QStringLiteral("the device URI names the scheme \"%1\", for which there is no backend %2")
                .arg(m_device.scheme, realBackend));

    m_server = readServerAccount(serverRoot);
    m_settings = readQueueSettings(serverRoot, m_queue);
    m_label = securityLabel(m_settings.variables);
    if (!m_settings.error.isEmpty())
        return refuse(m_settings.error);
    if (m_settings.templateFile.isEmpty())
        return refuse(QStringLiteral("the queue has no template (%1/%2/%3.tmpl or default.tmpl)")
                          .arg(serverRoot, QLatin1String(QueueConfigFolder), m_queue));

    QString error;
    if (!resolveAccount(&error))
        return refuse(error);
    const QString temporary =
        qEnvironmentVariableIsSet("TMPDIR") ? environmentValue("TMPDIR") : QStringLiteral("/tmp");
    if (!m_folder.create(temporary, m_uid, m_gid))
        return refuse(QStringLiteral("cannot make a work folder in %1: %2")
                          .arg(temporary, QString::fromLocal8Bit(std::strerror(errno))));

    // The document as the print server's filters left it.
    const QString received = m_folder.file(QStringLiteral("job.data"));
    if (!receiveDocument(received, &error))
        return cancelRequested() ? cancelled() : refuse(error);
    QFile document(received);
    if (!document.open(QIODevice::ReadOnly))
        return refuse(QStringLiteral("cannot read the received document"));
    if (!looksLikePostScript(document.peek(HeadSize)))
        return refuse(QStringLiteral("the document is not PostScript (raw or binary data cannot be marked)"));
    QFile oneCopy;
    int streamCopies = -1;
    if (!createForMarking(oneCopy, m_folder.marking(QStringLiteral("document.ps"))) ||
        !copyAsOneCopy(document, oneCopy, &streamCopies) || !oneCopy.flush())
        return refuse(QStringLiteral("cannot prepare the document for marking"));
    oneCopy.close();
    document.close();
    // pstops repeats the pages itself for collated copies on a printer
    // without a Collate option, and for PPDs with manual copies; those
    // copies could not be numbered.
    if (streamCopies == 1 && m_job.copies > 1)
        return refuse(
            QStringLiteral("the print server's filters repeated the %1 copies in the document "
                           "(collated copies on a printer without a Collate option): "
                           "print with -o collate=false or give the queue a PPD with a Collate option")
                .arg(m_job.copies));

    QFile templateFile(m_settings.templateFile);
    if (!templateFile.open(QIODevice::ReadOnly))
        return refuse(QStringLiteral("cannot read the template %1").arg(m_settings.templateFile));
    if (!writeForMarking(m_folder.marking(QStringLiteral("marker.tmpl")), templateFile.readAll()))
        return refuse(QStringLiteral("cannot copy the template for marking"));
    if (!handOverPageCodeKey(&error))
        return refuse(error);

    QFile ppd(environmentValue("PPD"));
    const PaperSize paper =
        jobPaperSize(ppd.open(QIODevice::ReadOnly) ? ppd.readAll() : QByteArray(), m_job.options);
    m_job.pageFormat = paper.name;
    m_job.deviceWidth = paper.width;
    m_job.deviceHeight = paper.height;
    m_job.landscape = isLandscape(m_job.options);

    // Every copy is marked before the first byte goes out.
    for (int copy = 1; copy <= m_job.copies; ++copy) {
        if (!markCopy(copy, &error))
            return cancelRequested() ? cancelled() : refuse(error);
    }
    if (!buildStream(&error))
        return refuse(error);
    if (cancelRequested())
        return cancelled();

    const int stream =
        open(QFile::encodeName(m_folder.file(QStringLiteral("stream.ps"))).constData(), O_RDONLY | O_CLOEXEC);
    if (stream < 0)
        return refuse(QStringLiteral("cannot read the marked stream"));
    const qint64 pagesPerCopy = m_settings.duplexBackPages ? 2 * m_pages : m_pages + (m_stampPage ? 1 : 0);
    const ChildResult result = runChild(realBackendCommand(realBackend, stream));
    close(stream);
    if (result.cancelled)
        return cancelled();
    if (!result.started)
        return refuse(QStringLiteral("cannot run the backend %1: %2").arg(realBackend, result.error));
    if (result.exitStatus != BackendOk) {
        const int status = result.exitStatus > 0 ? result.exitStatus : BackendFailed;
        audit(QStringLiteral("device-failed status=%1").arg(status));
        return status;
    }
    m_sent = pagesPerCopy * m_job.copies;
    message(QStringLiteral("ATTR: job-impressions=%1").arg(m_sent));
    message(QStringLiteral("PAGE: total %1").arg(m_sent));
    audit(QStringLiteral("marked-and-sent"));
    return BackendOk;
}

} // namespace

int backendMain(int argc, char* argv[])
{
    if (argc == 1) {
        std::fputs(DeviceListing, stdout);
        return BackendOk;
    }
    if (argc < 6 || argc > 7) {
        std::fprintf(stderr, UsageText, argv[0]);
        return BackendFailed;
    }
    installCancelHandler();
    return JobRun(argc, argv).execute();
}
