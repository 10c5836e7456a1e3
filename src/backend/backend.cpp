// The backend's run, stage by stage: configure (the device, the queue, its
// set-up checks and what the printer takes), receive the job, check it,
// normalise it with the trusted interpreter, mark every copy into the stream,
// convert the stream for a printer without PostScript, prove what would be sent,
// send it to the real backend; every stage ends in the audit line. Each step of the
// job's untrusted work runs in a sandbox of its own. Every refusal sends
// nothing to the device.
#include "backend/backend.h"

#include "backend/childprocess.h"
#include "backend/deviceuri.h"
#include "backend/jobvariables.h"
#include "backend/pagesize.h"
#include "backend/postscriptjob.h"
#include "backend/printeroutput.h"
#include "backend/printersetup.h"
#include "backend/proof.h"
#include "backend/queuecheck.h"
#include "backend/queuesettings.h"
#include "backend/serverpolicy.h"
#include "common/auditrecord.h"
#include "common/paths.h"
#include "pagecode/pagecodekey.h"
#include "pagecode/pagecoder.h"
#include "settings/variables.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cups/ipp.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
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
// document, the marked stream, the steps' messages), and in it, under names
// that cannot be guessed, one folder per sandboxed step, owned by the marking
// account (mode 0700): what the step writes. The backend reads from a step's
// folder without following links.
class WorkFolder
{
  public:
    ~WorkFolder()
    {
        if (!m_path.isEmpty())
            QDir(m_path).removeRecursively();
    }

    // Creates the folder below `parent`; false with errno set on failure.
    bool create(const QString& parent)
    {
        QByteArray pattern = QFile::encodeName(parent) + "/quillet-XXXXXX";
        if (!mkdtemp(pattern.data()))
            return false;
        m_path = QFile::decodeName(pattern);
        return chmod(pattern.constData(), 0711) == 0;
    }

    // Creates the folder of one step, owned by the marking account; empty
    // with errno set on failure.
    QString createStep(const QString& name, uid_t uid, gid_t gid) const
    {
        QByteArray pattern = QFile::encodeName(file(name)) + "-XXXXXX";
        if (!mkdtemp(pattern.data()) || chown(pattern.constData(), uid, gid) != 0)
            return QString();
        return QFile::decodeName(pattern);
    }

    // A file of the backend's own.
    QString file(const QString& name) const { return m_path + QLatin1Char('/') + name; }

  private:
    QString m_path;
};

// Opens a regular file that a sandboxed step wrote, without following a
// link that the step may have put in its place.
bool openStepFile(QFile& file, const QString& path)
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

// The trusted interpreter's two programs: Ghostscript renders the user's
// PostScript (standard input) into a PDF of flat pages, each page in its own
// geometry (no turning of pages by their text); Cairo writes those pages as
// PostScript of its own making, keeping each page's size.
QList<QByteArray> renderToPdfCommand(const QString& pdf)
{
    // "-_" reads standard input in blocks ("-" would read it byte by byte).
    return {GhostscriptPath,
            "-q",
            "-dSAFER",
            "-dBATCH",
            "-dNOPAUSE",
            "-dAutoRotatePages=/None",
            "-sDEVICE=pdfwrite",
            "-sOutputFile=" + QFile::encodeName(pdf),
            "-_"};
}

QList<QByteArray> pagesToPostScriptCommand(const QString& pdf, const QString& postscript)
{
    return {PdftocairoPath, "-ps", "-origpagesizes", QFile::encodeName(pdf), QFile::encodeName(postscript)};
}

// How long the printer may take to say what it accepts.
constexpr int PrinterQueryTimeoutMs = 30000;

// The start of the stream sent to the printer, before the printer's set-up
// code and the marked copies.
const char StreamHeader[] = "%!PS-Adobe-3.0\n";

// One job from the backend's arguments and environment to its exit status.
class JobRun
{
  public:
    JobRun(int argc, char* argv[]);

    // Marks and sends the job; returns the backend's exit status.
    int execute();

  private:
    // The stages of a job, in order. Each returns false with *error set
    // (or on cancellation); nothing reaches the device before send().
    bool configure(QString* error);
    bool receive(QString* error);
    bool check(QString* error);
    bool normalise(QString* error);
    bool mark(QString* error);
    bool convert(QString* error);
    bool prove(QString* error);
    int send();

    int stopped(const QString& error);
    int refuse(const QString& reason);
    int cancelled();
    // The audit of every ending: `outcome` is one of the Audit* outcomes,
    // `detail` its reason.
    void audit(const char* outcome, const QString& detail = QString()) const;
    bool openAuditLog(QString* error);

    bool resolveAccount(QString* error);
    bool verifyUser(const QString& serverRoot, QString* error);
    bool choosePrinterOutput(QString* error);
    // Creates a file of the backend's folder owned by the marking account,
    // for a step to read.
    bool createForMarking(QFile& file, const QString& path);
    bool writeForMarking(const QString& path, const QByteArray& content);
    bool handOverPageCodeKey(QString* error);
    // Runs one program in a sandbox of this job as the marking account, its
    // standard input from `input` (-1 for none) and its standard error into
    // the file `messages`, whose lines go to the log as DEBUG lines. False
    // when it could not run or failed; *error then names it by `name` and
    // holds its first message.
    bool runSandboxed(const QString& name, const SandboxSpec& spec, const QList<QByteArray>& program,
                      int input, const QString& messages, QString* error);
    SandboxSpec sandboxSpec(const QString& stepFolder) const;
    bool markCopy(int copy, QString* error);
    bool checkPageLimit(QString* error) const;
    bool openStream(QFile& stream, QString* error);
    bool joinCopy(int copy, QFile& stream, QString* error);
    qint64 sheetsPerCopy() const;
    ChildCommand realBackendCommand(const QString& program, int input);
    bool printerAbortedJob() const;

    QList<QByteArray> m_argv;
    JobFacts m_job;
    QString m_queue;
    RealDevice m_device;
    QString m_realBackend;
    QueueSettings m_settings;
    QByteArray m_template;
    DefinitionsState m_definitions;
    PrinterSetup m_printerSetup;
    OutputPlan m_output;
    // What send() hands to the real backend: the marked stream, or its
    // conversion for the printer.
    QString m_printFile;
    ServerAccount m_server;
    uid_t m_uid = 0;
    gid_t m_gid = 0;
    QString m_account;
    WorkFolder m_folder;
    // The document that quillet marks, and the step folder of the marking.
    QString m_flatDocument;
    QString m_markingFolder;
    // The marker fonts' insertion of the first copy, which the stream
    // carries once.
    QByteArray m_markerFonts;
    QString m_label;
    qint64 m_pages = 0;
    // Whether quillet added the accounting stamp's page to every copy.
    bool m_stampPage = false;
    qint64 m_sent = 0;
    // The audit log, open for appending from the start of the job.
    int m_auditLog = -1;
    int m_deviceStatus = 0;
    bool m_userAuthenticated = false;
    QString m_auditLogFile;
    QString m_pageCodeKeyIdentity;
    // The job's number at a driverless printer, as the ipp backend said.
    int m_printerJob = 0;
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

int JobRun::execute()
{
    // A job's whole path: each stage runs only when the ones before it
    // succeeded, nothing reaches the device before send(), and every ending
    // (sent, refused, cancelled, device failure) writes the audit line.
    QString error;
    const bool ready = configure(&error) && receive(&error) && check(&error) && normalise(&error) &&
                       mark(&error) && convert(&error) && prove(&error);
    return ready ? send() : stopped(error);
}

// Every ending of a job writes its audit: a line in the print server's log,
// and one JSON record in the audit log and to syslog (facility lpr), written
// whatever the print server's log level.
void JobRun::audit(const char* outcome, const QString& detail) const
{
    const QString name = QLatin1String(outcome);
    QString ending = name;
    if (name == QLatin1String(AuditSent))
        ending = QStringLiteral("marked-and-sent");
    else if (name == QLatin1String(AuditRefused))
        ending = QStringLiteral("refused reason=\"%1\"").arg(logText(detail));
    else if (name == QLatin1String(AuditDeviceFailed))
        ending += QStringLiteral(" status=%1").arg(m_deviceStatus);
    message(
        QStringLiteral("NOTICE: quillet audit: job=%1 user=\"%2\" queue=%3 label=\"%4\" pages=%5 copies=%6 "
                       "sent=%7 outcome=%8")
            .arg(logText(m_job.jobId), logText(m_job.user), logText(m_queue), logText(m_label))
            .arg(m_pages)
            .arg(m_job.copies)
            .arg(m_sent)
            .arg(ending));

    AuditRecord record;
    record.time = QDateTime::currentDateTimeUtc();
    record.job = m_job.jobId.toLongLong();
    record.user = m_job.user;
    record.userAuthenticated = m_userAuthenticated;
    record.queue = m_queue;
    record.label = m_label;
    record.pages = m_pages;
    record.copies = m_job.copies;
    record.sheetsSent = m_sent;
    record.format = formatName(m_output.format);
    record.outcome = name;
    record.reason = detail;
    record.pageCodeKey = m_pageCodeKeyIdentity;
    const QByteArray line = auditJsonLine(record);
    if (m_auditLog >= 0 && write(m_auditLog, line.constData(), size_t(line.size())) != line.size())
        message(QStringLiteral("ERROR: quillet: cannot write the audit record to %1: %2")
                    .arg(m_auditLogFile, QString::fromLocal8Bit(std::strerror(errno))));
    openlog("quillet", LOG_PID, LOG_LPR);
    syslog(LOG_NOTICE, "%s", line.trimmed().constData());
    closelog();
}

// The audit log is opened before anything of the job is done: a job whose
// record could not be written is not printed. The folder is made root's
// alone; the file is opened without following a link.
bool JobRun::openAuditLog(QString* error)
{
    const QString named = lastValue(m_definitions.values, QLatin1String(AuditLogSetting));
    m_auditLogFile = named.isEmpty() ? QLatin1String(QuilletAuditLog) : named;
    const QByteArray path = QFile::encodeName(m_auditLogFile);
    const QByteArray folder = QFile::encodeName(QFileInfo(m_auditLogFile).path());
    if (mkdir(folder.constData(), 0700) != 0 && errno != EEXIST) {
        *error = QStringLiteral("cannot make the audit log's folder %1: %2")
                     .arg(QFile::decodeName(folder), QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    m_auditLog = open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    struct stat info;
    if (m_auditLog < 0 || fstat(m_auditLog, &info) != 0 || !S_ISREG(info.st_mode)) {
        *error = QStringLiteral("cannot write the audit log %1: %2")
                     .arg(m_auditLogFile, QString::fromLocal8Bit(std::strerror(errno)));
        if (m_auditLog >= 0)
            close(m_auditLog);
        m_auditLog = -1;
        return false;
    }
    return true;
}

int JobRun::stopped(const QString& error)
{
    return cancelRequested() ? cancelled() : refuse(error);
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
    audit(AuditRefused, reason);
    return RefusedJobStatus;
}

int JobRun::cancelled()
{
    m_sent = 0;
    message(QStringLiteral("INFO: quillet: job %1 cancelled").arg(logText(m_job.jobId)));
    audit(AuditCancelledBeforeSending);
    return RefusedJobStatus;
}

// The audit log, the device, the queue's configuration, the set-up checks,
// the marking account and the job's folder.
bool JobRun::configure(QString* error)
{
    // The audit log first: every later ending has its record.
    m_definitions = readDefinitions();
    if (!openAuditLog(error))
        return false;
    const QByteArray deviceUri =
        qEnvironmentVariableIsSet("DEVICE_URI") ? qgetenv("DEVICE_URI") : m_argv.at(0);
    m_device = realDevice(QString::fromUtf8(deviceUri));
    if (!m_device.error.isEmpty()) {
        *error = m_device.error;
        return false;
    }
    const QString serverRoot = qEnvironmentVariableIsSet("CUPS_SERVERROOT")
                                   ? environmentValue("CUPS_SERVERROOT")
                                   : QLatin1String(CupsServerRoot);
    const QString serverBin = qEnvironmentVariableIsSet("CUPS_SERVERBIN") ? environmentValue("CUPS_SERVERBIN")
                                                                          : QLatin1String(CupsServerBin);
    m_realBackend = serverBin + QStringLiteral("/backend/") + m_device.scheme;
    if (!QFileInfo(m_realBackend).isExecutable()) {
        *error = QStringLiteral("the device URI names the scheme \"%1\", for which there is no backend %2")
                     .arg(m_device.scheme, m_realBackend);
        return false;
    }

    m_server = readServerAccount(serverRoot);
    m_settings = readQueueSettings(serverRoot, m_queue);
    if (!verifyUser(serverRoot, error))
        return false;
    m_label = securityLabel(m_settings.variables);
    const QString queueFolder = serverRoot + QLatin1Char('/') + QLatin1String(QueueConfigFolder);
    if (!m_settings.error.isEmpty()) {
        *error = m_settings.error;
        return false;
    }
    if (m_settings.templateFile.isEmpty()) {
        *error = QStringLiteral("the queue has no template (%1/%2.tmpl or default.tmpl)")
                     .arg(queueFolder, m_queue);
        return false;
    }
    QFile templateFile(m_settings.templateFile);
    if (!templateFile.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read the template %1").arg(m_settings.templateFile);
        return false;
    }
    m_template = templateFile.readAll();
    *error = markingSetupProblem(queueFolder, m_queue, m_settings, m_template, m_definitions);
    if (!error->isEmpty())
        return false;
    m_printerSetup = printerSetup(environmentValue("PPD"), m_argv.at(5), m_settings.duplexBackPages);
    if (!m_printerSetup.error.isEmpty()) {
        *error = m_printerSetup.error;
        return false;
    }
    if (!choosePrinterOutput(error))
        return false;

    if (!resolveAccount(error))
        return false;
    const QString temporary =
        qEnvironmentVariableIsSet("TMPDIR") ? environmentValue("TMPDIR") : QStringLiteral("/tmp");
    if (!m_folder.create(temporary)) {
        *error = QStringLiteral("cannot make a work folder in %1: %2")
                     .arg(temporary, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    return true;
}

// The document as the print server's filters left it.
bool JobRun::receive(QString* error)
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
    QFile output(m_folder.file(QStringLiteral("job.data")));
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
    ok = ok && output.flush();
    if (!ok)
        *error = QStringLiteral("cannot receive the job's document");
    return ok;
}

// The document must be PostScript; the print server's copy request is taken
// back to one copy, and copies that the filters repeated are refused.
bool JobRun::check(QString* error)
{
    QFile document(m_folder.file(QStringLiteral("job.data")));
    if (!document.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read the received document");
        return false;
    }
    if (!looksLikePostScript(document.peek(HeadSize))) {
        *error = QStringLiteral("the document is not PostScript (raw or binary data cannot be marked)");
        return false;
    }
    QFile oneCopy;
    int streamCopies = -1;
    if (!createForMarking(oneCopy, m_folder.file(QStringLiteral("document.ps"))) ||
        !copyAsOneCopy(document, oneCopy, &streamCopies) || !oneCopy.flush()) {
        *error = QStringLiteral("cannot prepare the document for marking");
        return false;
    }
    // pstops repeats the pages itself for collated copies on a printer
    // without a Collate option, and for PPDs with manual copies; those
    // copies could not be numbered.
    if (streamCopies == 1 && m_job.copies > 1) {
        *error = QStringLiteral("the print server's filters repeated the %1 copies in the document "
                                "(collated copies on a printer without a Collate option): "
                                "print with -o collate=false or give the queue a PPD with a Collate option")
                     .arg(m_job.copies);
        return false;
    }

    const QString ppdFile = environmentValue("PPD");
    QFile ppd(ppdFile);
    const PaperSize paper = jobPaperSize(
        !ppdFile.isEmpty() && ppd.open(QIODevice::ReadOnly) ? ppd.readAll() : QByteArray(), m_job.options);
    m_job.pageFormat = paper.name;
    m_job.deviceWidth = paper.width;
    m_job.deviceHeight = paper.height;
    // Rendered pages carry their orientation in their own geometry: the
    // marks then stand upright on the sheet.
    m_job.landscape = !m_settings.trustedInterpreter && isLandscape(m_job.options);
    return true;
}

// The trusted interpreter: the user's program runs once, in the job's
// sandbox, and what is marked is the flat pages it drew, written anew. No
// code of the document reaches quillet or the printer.
bool JobRun::normalise(QString* error)
{
    if (!m_settings.trustedInterpreter) {
        m_flatDocument = m_folder.file(QStringLiteral("document.ps"));
        return true;
    }
    const QString step = m_folder.createStep(QStringLiteral("render"), m_uid, m_gid);
    if (step.isEmpty()) {
        *error = QStringLiteral("cannot make the folder of the document's rendering");
        return false;
    }
    const int document = open(QFile::encodeName(m_folder.file(QStringLiteral("document.ps"))).constData(),
                              O_RDONLY | O_CLOEXEC);
    if (document < 0) {
        *error = QStringLiteral("cannot read the document for rendering");
        return false;
    }
    const QString pdf = sandboxOutput(QStringLiteral("pages.pdf"));
    const bool rendered =
        runSandboxed(QStringLiteral("the interpreter"), sandboxSpec(step), renderToPdfCommand(pdf), document,
                     m_folder.file(QStringLiteral("render.err")), error);
    close(document);
    if (!rendered) {
        if (!error->isEmpty())
            error->prepend(QStringLiteral("the document cannot be rendered: "));
        return false;
    }
    if (!runSandboxed(QStringLiteral("the page writer"), sandboxSpec(step),
                      pagesToPostScriptCommand(pdf, sandboxOutput(QStringLiteral("pages.ps"))), -1,
                      m_folder.file(QStringLiteral("pages.err")), error))
        return false;
    m_flatDocument = step + QStringLiteral("/pages.ps");
    QFile flat;
    if (!openStepFile(flat, m_flatDocument) || flat.size() == 0) {
        *error = QStringLiteral("the document's rendering left no pages");
        return false;
    }
    return true;
}

// Every copy is marked, in the job's sandbox, before the first byte goes
// out, and joined to the stream as soon as it is marked: the job's folder
// holds the stream and one marked copy at a time.
bool JobRun::mark(QString* error)
{
    m_markingFolder = m_folder.createStep(QStringLiteral("marking"), m_uid, m_gid);
    if (m_markingFolder.isEmpty()) {
        *error = QStringLiteral("cannot make the marking folder");
        return false;
    }
    if (!writeForMarking(m_folder.file(QStringLiteral("marker.tmpl")), m_template)) {
        *error = QStringLiteral("cannot copy the template for marking");
        return false;
    }
    if (!handOverPageCodeKey(error))
        return false;
    QFile stream;
    if (!openStream(stream, error))
        return false;
    for (int copy = 1; copy <= m_job.copies; ++copy) {
        if (!markCopy(copy, error) || (copy == 1 && !checkPageLimit(error)) || !joinCopy(copy, stream, error))
            return false;
    }
    if (!stream.flush()) {
        *error = QStringLiteral("cannot write the marked stream");
        return false;
    }
    return true;
}

// For a printer that takes no PostScript, the stream written in the printer's
// format by Ghostscript in
// the job's sandbox (a PostScript error in the stream stops it). Pages are
// fitted inside the printer's margins as flat pages: the marks measure the
// page they are drawn on, so the stream is first written as a PDF, whose
// pages are then fitted, marks and all.
bool JobRun::convert(QString* error)
{
    m_printFile = m_folder.file(QStringLiteral("stream.ps"));
    if (m_output.format == OutputFormat::PostScript)
        return true;
    const QString step = m_folder.createStep(QStringLiteral("convert"), m_uid, m_gid);
    QFile stream;
    if (step.isEmpty() || !openStepFile(stream, m_printFile)) {
        *error = QStringLiteral("cannot prepare the conversion of the marked stream");
        return false;
    }
    QString input; // standard input: the stream
    if (fitsInsideMargins(m_output)) {
        OutputPlan flat;
        flat.format = OutputFormat::Pdf;
        input = sandboxOutput(QStringLiteral("pages.pdf"));
        if (!runSandboxed(QStringLiteral("the converter"), sandboxSpec(step),
                          conversionCommand(flat, input, {}), stream.handle(),
                          m_folder.file(QStringLiteral("pages.err")), error)) {
            error->prepend(QStringLiteral("the marked stream cannot be written as pdf: "));
            return false;
        }
    }
    if (!runSandboxed(QStringLiteral("the converter"), sandboxSpec(step),
                      conversionCommand(m_output, sandboxOutput(QStringLiteral("print.data")), input),
                      stream.handle(), m_folder.file(QStringLiteral("convert.err")), error)) {
        error->prepend(
            QStringLiteral("the marked stream cannot be written as %1: ").arg(formatName(m_output.format)));
        return false;
    }
    m_printFile = step + QStringLiteral("/print.data");
    return true;
}

// Before the first byte: what would be sent prints on the server without an
// error and shows exactly the sheets that the marked copies hold. PostScript
// runs in Ghostscript, which draws every sheet at a low resolution. A PDF
// came out of Ghostscript runs over the whole stream, which stop at its
// first error; Poppler counts its pages. A raster or PCL XL is read page by
// page.
bool JobRun::prove(QString* error)
{
    const bool postscript = m_output.format == OutputFormat::PostScript;
    const QString what =
        postscript ? QStringLiteral("the marked stream")
                   : QStringLiteral("the %1 written for the printer").arg(formatName(m_output.format));
    QFile data;
    if (!openStepFile(data, m_printFile)) {
        *error = QStringLiteral("cannot read %1 for its proof").arg(what);
        return false;
    }
    qint64 sheets = -1;
    if (postscript || m_output.format == OutputFormat::Pdf) {
        const QString step = m_folder.createStep(QStringLiteral("proof"), m_uid, m_gid);
        SandboxSpec spec = sandboxSpec(step);
        QList<QByteArray> command;
        int input = -1;
        if (postscript) {
            command = proofCommand(sandboxOutput(QStringLiteral("sheets.pbm")));
            input = data.handle();
        } else {
            spec.inputFiles << qMakePair(m_printFile, QStringLiteral("print.pdf"));
            command = pdfPageCountCommand(sandboxInput(QStringLiteral("print.pdf")));
        }
        const QString messages = m_folder.file(QStringLiteral("proof.err"));
        QString failure;
        if (step.isEmpty() ||
            !runSandboxed(QStringLiteral("the proof"), spec, command, input, messages, &failure)) {
            *error = QStringLiteral("%1 does not print cleanly (%2)").arg(what, failure);
            return false;
        }
        QFile result;
        if (postscript) {
            sheets =
                openStepFile(result, step + QStringLiteral("/sheets.pbm")) ? countProofSheets(result) : -1;
        } else {
            // The report on standard output, in the backend's own folder.
            result.setFileName(messages + QStringLiteral(".out"));
            sheets = result.open(QIODevice::ReadOnly) ? pdfPageCount(result.read(1 << 16)) : -1;
        }
    } else {
        sheets = countConvertedPages(m_output.format, data);
    }
    const qint64 expected = sheetsPerCopy() * m_job.copies;
    if (sheets < 0) {
        *error = QStringLiteral("the proof of %1 left no sheets that can be counted").arg(what);
        return false;
    }
    if (sheets != expected) {
        *error = QStringLiteral("%1 shows %2 sheets where its marked copies hold %3")
                     .arg(what)
                     .arg(sheets)
                     .arg(expected);
        return false;
    }
    if (!postscript)
        message(QStringLiteral(
                    "INFO: quillet: job %1 goes to the printer as %2, inside margins of %3 %4 %5 %6 points")
                    .arg(logText(m_job.jobId), formatName(m_output.format))
                    .arg(m_output.margins.at(0), 0, 'f', 1)
                    .arg(m_output.margins.at(1), 0, 'f', 1)
                    .arg(m_output.margins.at(2), 0, 'f', 1)
                    .arg(m_output.margins.at(3), 0, 'f', 1));
    return true;
}

int JobRun::send()
{
    QFile printData;
    if (!openStepFile(printData, m_printFile))
        return refuse(QStringLiteral("cannot read the marked stream"));
    const ChildResult result = runChild(realBackendCommand(m_realBackend, printData.handle()));
    // The real backend read the data through this descriptor: where it
    // stopped tells how much of the job it took.
    const qint64 handedOver = lseek(printData.handle(), 0, SEEK_CUR);
    const qint64 size = printData.size();
    printData.close();
    if (!result.started)
        return refuse(QStringLiteral("cannot run the backend %1: %2").arg(m_realBackend, result.error));
    const QString taken = QStringLiteral("%1 of %2 bytes handed to the backend %3")
                              .arg(qMax<qint64>(handedOver, 0))
                              .arg(size)
                              .arg(m_device.scheme);
    if (result.cancelled) {
        message(QStringLiteral("INFO: quillet: job %1 cancelled").arg(logText(m_job.jobId)));
        if (handedOver <= 0) {
            audit(AuditCancelledBeforeSending, taken);
        } else if (handedOver < size) {
            audit(AuditCancelledWhileSending, taken);
        } else {
            // Everything went to the printer's backend: the printer may
            // well print it all.
            m_sent = sheetsPerCopy() * m_job.copies;
            audit(AuditCancelledAfterSending, taken);
        }
        return RefusedJobStatus;
    }
    if (result.exitStatus == BackendOk && printerAbortedJob()) {
        m_deviceStatus = RefusedJobStatus;
        message(
            QStringLiteral("ERROR: quillet: the printer took job %1 as its job %2 and then did not print it")
                .arg(logText(m_job.jobId))
                .arg(m_printerJob));
        audit(AuditDeviceFailed, QStringLiteral("the printer ended its job %1 without printing it; %2")
                                     .arg(m_printerJob)
                                     .arg(taken));
        return m_deviceStatus;
    }
    if (result.exitStatus != BackendOk) {
        m_deviceStatus = result.exitStatus > 0 ? result.exitStatus : BackendFailed;
        audit(AuditDeviceFailed, QStringLiteral("the backend %1 ended with status %2; %3")
                                     .arg(m_device.scheme)
                                     .arg(m_deviceStatus)
                                     .arg(taken));
        return m_deviceStatus;
    }
    m_sent = sheetsPerCopy() * m_job.copies;
    message(QStringLiteral("ATTR: job-impressions=%1").arg(m_sent));
    message(QStringLiteral("PAGE: total %1").arg(m_sent));
    audit(AuditSent);
    return BackendOk;
}

// A driverless printer may take a job and then abort it, while CUPS's ipp
// backend still ends as if it had printed: the printer is asked how the job
// that the backend named ended. A printer that does not say counts as having
// printed it.
bool JobRun::printerAbortedJob() const
{
    if (m_printerJob <= 0)
        return false;
    const int state = printerJobState(m_device.uri, m_printerJob, PrinterQueryTimeoutMs);
    return state == IPP_JSTATE_CANCELED || state == IPP_JSTATE_ABORTED;
}

qint64 JobRun::sheetsPerCopy() const
{
    return m_settings.duplexBackPages ? 2 * m_pages : m_pages + (m_stampPage ? 1 : 0);
}

// What the printer is sent: a driverless printer is asked what it takes.
bool JobRun::choosePrinterOutput(QString* error)
{
    const QString setting = m_settings.outputFormat;
    const bool automatic = setting == QLatin1String("auto") || setting.isEmpty();
    PrinterCapabilities printer;
    bool asked = false;
    if (canAskPrinter(m_device.scheme)) {
        printer = askPrinter(m_device.uri, PrinterQueryTimeoutMs);
        asked = printer.error.isEmpty();
        if (!asked && automatic) {
            *error = QStringLiteral("%1 at %2, so the format to send cannot be chosen")
                         .arg(printer.error, uriForMessages(m_device.uri));
            return false;
        }
        if (!asked)
            message(QStringLiteral("WARNING: quillet: %1; sending %2 as the queue says")
                        .arg(logText(printer.error), setting));
    }
    m_output = planOutput(setting, asked, printer, m_settings.duplexBackPages);
    *error = m_output.error;
    return error->isEmpty();
}

// The name on the job is verified when the queue's policy made the user
// authenticate to submit it; otherwise the client chose it. An unverified
// name is marked as such, or the job refused, as the queue says.
bool JobRun::verifyUser(const QString& serverRoot, QString* error)
{
    QByteArray cupsdConf;
    QFile cupsd(serverRoot + QStringLiteral("/cupsd.conf"));
    if (cupsd.open(QIODevice::ReadOnly))
        cupsdConf = cupsd.readAll();
    // Under the print server, the queue's policy is the one it applies now;
    // a server that does not say leaves the name unverified. Run by hand,
    // the backend reads printers.conf.
    bool known = true;
    QString policy;
    if (qEnvironmentVariableIsSet("CUPS_SERVER")) {
        policy = runningQueueOpPolicy(m_queue, &known);
    } else {
        QFile printers(serverRoot + QStringLiteral("/printers.conf"));
        policy = queueOpPolicy(printers.open(QIODevice::ReadOnly) ? printers.readAll() : QByteArray(), m_queue);
    }
    if (!known)
        message(QStringLiteral("WARNING: quillet: the print server does not tell the policy of queue %1; "
                               "the user's name counts as not verified")
                    .arg(logText(m_queue)));
    m_userAuthenticated = known && !cupsdConf.isEmpty() && !submissionRule(cupsdConf, policy).anonymous;
    m_job.userVerified = m_userAuthenticated;
    if (!m_userAuthenticated && m_settings.refuseUnverifiedUser) {
        *error =
            QStringLiteral("the queue takes jobs from users who did not authenticate, so the name \"%1\" "
                           "is not verified, and %2=refuse")
                .arg(m_job.user, QLatin1String(UnverifiedUserSetting));
        return false;
    }
    return true;
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

bool JobRun::createForMarking(QFile& file, const QString& path)
{
    // A new file only, readable by the marking account alone.
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
// job alone, and the variables name it as the sandbox shows it.
bool JobRun::handOverPageCodeKey(QString* error)
{
    const QString siteKeyFile = lastValue(m_definitions.values, QLatin1String(PageCoder::KeySetting));
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
    m_pageCodeKeyIdentity = site.identity();
    site.forJob(id, &jobKey); // a site key derives the key of every job
    if (!writeForMarking(m_folder.file(QStringLiteral("page-code.key")), jobKey.toText())) {
        *error = QStringLiteral("cannot write the job's page-code key for marking");
        return false;
    }
    m_job.pageCodeKeyFile = sandboxInput(QStringLiteral("page-code.key"));
    return true;
}

SandboxSpec JobRun::sandboxSpec(const QString& stepFolder) const
{
    SandboxSpec spec;
    spec.outputFolder = stepFolder;
    spec.network = m_settings.directoryLookups;
    spec.systemPaths = m_settings.sandboxFolders;
    if (!m_definitions.file.isEmpty())
        spec.systemPaths << m_definitions.file;
    return spec;
}

bool JobRun::runSandboxed(const QString& name, const SandboxSpec& spec, const QList<QByteArray>& program,
                          int input, const QString& messages, QString* error)
{
    ChildCommand command;
    command.program = BubblewrapPath;
    command.arguments = sandboxCommand(spec, program);
    const QByteArray home = QFile::encodeName(QLatin1String(SandboxOutputFolder));
    command.environment << "PATH=/usr/local/bin:/usr/bin:/bin"
                        << "LANG=" + qgetenv("LANG") << "LC_CTYPE=C.UTF-8"
                        << "HOME=" + home << "TMPDIR=/tmp"
                        << "KRB5CCNAME=FILE:" + home + "/krb5cc"
                        << "USER=" + m_account.toLocal8Bit() << "LOGNAME=" + m_account.toLocal8Bit();
    command.changeAccount = true;
    command.uid = m_uid;
    command.gid = m_gid;
    command.standardInput = input;
    command.standardOutputFile = QFile::encodeName(messages + QStringLiteral(".out"));
    command.standardErrorFile = QFile::encodeName(messages);
    command.limits.cpuSeconds = rlim_t(m_settings.cpuSeconds);
    command.limits.memoryBytes = rlim_t(m_settings.memoryMB) << 20;
    command.limits.fileBytes = rlim_t(m_settings.outputMB) << 20;

    const ChildResult result = runChild(command);
    QStringList lines;
    QFile errorFile(messages);
    if (errorFile.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : errorFile.read(1 << 20).split('\n')) {
            const QString text = logText(QString::fromUtf8(line));
            if (text.isEmpty())
                continue;
            lines << text;
            message(QStringLiteral("DEBUG: quillet: %1").arg(text));
        }
    }
    // Why it stopped: quillet's message that ends its run is its last line
    // (warnings come before it); Ghostscript names its error on the first
    // line and dumps its stacks after it.
    const bool quillet = program.value(0) == QByteArray(QuilletExecutablePath);
    const QString why = lines.isEmpty() ? QString() : quillet ? lines.last() : lines.first();
    if (result.cancelled)
        return false;
    if (!result.started) {
        *error =
            QStringLiteral("cannot run the sandbox %1: %2").arg(QLatin1String(BubblewrapPath), result.error);
        return false;
    }
    if (result.exitStatus != 0) {
        *error =
            result.signal
                ? QStringLiteral("%1 was ended by signal %2").arg(name).arg(result.signal)
                : QStringLiteral("%1 failed with status %2: %3").arg(name).arg(result.exitStatus).arg(why);
        return false;
    }
    return true;
}

bool JobRun::markCopy(int copy, QString* error)
{
    const QString number = QString::number(copy);
    const QString variables = QStringLiteral("copy-%1.vars").arg(number);
    const QString output = QStringLiteral("copy-%1.ps").arg(number);
    if (!writeForMarking(m_markingFolder + QLatin1Char('/') + variables,
                         jobVariables(m_job, m_settings, copy))) {
        *error = QStringLiteral("cannot write the variables of copy %1").arg(copy);
        return false;
    }

    SandboxSpec spec = sandboxSpec(m_markingFolder);
    spec.inputFiles << qMakePair(m_flatDocument, QStringLiteral("document.ps"))
                    << qMakePair(m_folder.file(QStringLiteral("marker.tmpl")), QStringLiteral("marker.tmpl"));
    if (!m_job.pageCodeKeyFile.isEmpty())
        spec.inputFiles << qMakePair(m_folder.file(QStringLiteral("page-code.key")),
                                     QStringLiteral("page-code.key"));
    QList<QByteArray> quillet{QuilletExecutablePath};
    if (m_settings.duplexBackPages)
        quillet << "--duplex";
    quillet << QFile::encodeName(sandboxInput(QStringLiteral("document.ps")))
            << QFile::encodeName(sandboxInput(QStringLiteral("marker.tmpl")))
            << QFile::encodeName(sandboxOutput(variables)) << QFile::encodeName(sandboxOutput(output));
    if (!runSandboxed(QStringLiteral("quillet"), spec, quillet, -1,
                      m_folder.file(QStringLiteral("copy-%1.err").arg(number)), error))
        return false;

    QFile used;
    const KeyValueList values = openStepFile(used, m_markingFolder + QLatin1Char('/') + variables)
                                    ? parseKeyValueLines(used.readAll())
                                    : KeyValueList();
    QFile marked;
    const bool haveOutput =
        openStepFile(marked, m_markingFolder + QLatin1Char('/') + output) && marked.size() > 0;
    const qint64 pages = lastValue(values, QStringLiteral("NUM_PAGES")).toLongLong();
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
    } else if (pages != m_pages) {
        *error = QStringLiteral("copy %1 has %2 pages where copy 1 has %3").arg(copy).arg(pages).arg(m_pages);
        return false;
    }
    return true;
}

// A job may print no more pages than the queue allows, its pages times its
// copies: the first copy's pages tell, before the other copies are marked.
bool JobRun::checkPageLimit(QString* error) const
{
    const qint64 pages = sheetsPerCopy() * m_job.copies;
    if (pages <= m_settings.pageLimit)
        return true;
    *error = QStringLiteral("the job would print %1 pages (%2 copies of %3), more than the queue's limit of "
                            "%4 (%5)")
                 .arg(pages)
                 .arg(m_job.copies)
                 .arg(sheetsPerCopy())
                 .arg(m_settings.pageLimit)
                 .arg(QLatin1String(PageLimitSetting));
    return false;
}

// The stream starts with a header and the printer's set-up code from the
// queue's PPD for the job's options (two-sided on back-page queues); the
// marked copies follow.
bool JobRun::openStream(QFile& stream, QString* error)
{
    stream.setFileName(m_folder.file(QStringLiteral("stream.ps")));
    if (!stream.open(QIODevice::WriteOnly | QIODevice::Truncate) || stream.write(StreamHeader) < 0 ||
        stream.write(m_printerSetup.code) != m_printerSetup.code.size()) {
        *error = QStringLiteral("cannot write the marked stream");
        return false;
    }
    return true;
}

// Appends a marked copy to the stream (the marker fonts once for all copies)
// and removes the copy's files.
bool JobRun::joinCopy(int copy, QFile& stream, QString* error)
{
    const QString base = m_markingFolder + QStringLiteral("/copy-%1").arg(copy);
    QFile marked;
    const bool joined = openStepFile(marked, base + QStringLiteral(".ps")) &&
                        appendMarkedCopy(marked, stream, &m_markerFonts);
    marked.close();
    QFile::remove(base + QStringLiteral(".ps"));
    QFile::remove(base + QStringLiteral(".vars"));
    if (!joined)
        *error = QStringLiteral("cannot join marked copy %1 to the stream").arg(copy);
    return joined;
}

ChildCommand JobRun::realBackendCommand(const QString& program, int input)
{
    ChildCommand command;
    command.program = QFile::encodeName(program);
    // As the print server starts backends: the URI first, one copy (every
    // copy is in the stream), the document on standard input.
    // The options lose those that would make the printer change the pages
    // (ranges, n-up, scaling, copies); back-page queues print two-sided.
    // The title without control characters: no line of the real backend's
    // messages is the user's.
    QByteArray title = m_argv.at(3);
    std::replace_if(
        title.begin(), title.end(), [](char c) { return (c >= 0 && c < ' ') || c == 0x7f; }, ' ');
    command.arguments << QFile::encodeName(uriForMessages(m_device.uri)) << m_argv.at(1) << m_argv.at(2)
                      << title << "1" << printerJobOptions(m_argv.at(5), m_settings.duplexBackPages);
    // The environment tells the real backend what the data is, so that a
    // driverless printer is told the format it gets.
    const QList<QByteArray> replaced{"DEVICE_URI=", "CONTENT_TYPE=", "FINAL_CONTENT_TYPE="};
    for (char** entry = environ; *entry; ++entry) {
        const QByteArray variable(*entry);
        if (std::none_of(replaced.begin(), replaced.end(),
                         [&](const QByteArray& name) { return variable.startsWith(name); }))
            command.environment << variable;
    }
    const QByteArray type = mediaType(m_output.format);
    command.environment << "DEVICE_URI=" + m_device.uri.toUtf8() << "CONTENT_TYPE=" + type
                        << "FINAL_CONTENT_TYPE=" + type;
    command.standardInput = input;
    command.keepChannels = true;
    // The ipp backend's messages go on to the print server as they come;
    // the one that names the printer's job is kept.
    m_printerJob = 0;
    if (canAskPrinter(m_device.scheme)) {
        command.errorLines = [this](const QByteArray& line) {
            const QByteArray text = line + '\n';
            std::fwrite(text.constData(), 1, size_t(text.size()), stderr);
            std::fflush(stderr);
            if (m_printerJob == 0)
                m_printerJob = acceptedPrinterJob(line);
        };
    }

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
