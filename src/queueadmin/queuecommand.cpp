// quillet-queue: the check of a marked queue and the commands built on it.
#include "queueadmin/queuecommand.h"

#include "app/printerror.h"
#include "app/startup.h"
#include "backend/deviceuri.h"
#include "backend/jobvariables.h"
#include "common/auditrecord.h"
#include "common/filename.h"
#include "backend/printeroutput.h"
#include "backend/printersetup.h"
#include "backend/queuesettings.h"
#include "common/paths.h"
#include "pagecode/pagecodekey.h"
#include "pagecode/pagecoder.h"
#include "queueadmin/cupsclient.h"
#include "backend/serverpolicy.h"
#include "queueadmin/shippedfiles.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>
#include <QThread>

#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

const char SafeOutputKey[] = "MarkerSafeOutput";
const char LabelKey[] = "LABEL_NAME";
const char PageCodeString[] = "{PAGE_CODE}";
const char ServerConfiguration[] = "/admin/conf/cupsd.conf";
const char ServerLog[] = "/admin/log/error_log";

// How long "test" waits for its job, and how long the server may take to
// come back after its configuration changed.
constexpr int TestJobMs = 180000;
constexpr int ServerRestartMs = 30000;

QString queueText(const char* text)
{
    return QCoreApplication::translate("queue", text);
}

void printOut(const QString& text)
{
    // File names in the text are written as the bytes they were given as.
    const QByteArray bytes = encodeFileName(text) + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

// An argument that is not a file name (a command, a queue name, a device
// URI, a label), as text: bytes that the locale's encoding cannot read are
// replacement characters, as QCoreApplication::arguments() gives them.
QString argumentText(const QString& argument)
{
    return QString::fromLocal8Bit(encodeFileName(argument));
}

int usageError(const QString& message)
{
    printError(message);
    printError(queueText(QT_TRANSLATE_NOOP("queue", "Try \"quillet-queue --help\".")));
    return QueueCommandUsage;
}

QString serverRoot()
{
    return qEnvironmentVariableIsSet("CUPS_SERVERROOT") ? qEnvironmentVariable("CUPS_SERVERROOT")
                                                        : QLatin1String(CupsServerRoot);
}

QString queueFolder(const QString& root)
{
    return root + QLatin1Char('/') + QLatin1String(QueueConfigFolder);
}

QString siteDefinitionsFile()
{
    return QLatin1String(CupsServerRoot) + QStringLiteral("/marker.defs");
}

// The name is taken byte for byte (see common/filename.h): a template given
// on the command line may have any name the file system takes.
QByteArray readAll(const QString& path, bool* ok = nullptr)
{
    QFile file;
    const bool opened = openFileByName(file, path, QIODevice::ReadOnly);
    if (ok)
        *ok = opened;
    return opened ? file.readAll() : QByteArray();
}

// A queue name that the print server takes and that names files of the
// configuration folder only.
bool isQueueName(const QString& name)
{
    if (name.isEmpty() || name.size() > 127 || name.startsWith(QLatin1Char('.')))
        return false;
    for (const QChar c : name) {
        if (c.unicode() <= 0x20 || c.unicode() == 0x7f || c == QLatin1Char('/') || c == QLatin1Char('\\') ||
            c == QLatin1Char('#') || c == QLatin1Char('\'') || c == QLatin1Char('"'))
            return false;
    }
    return true;
}

// The page-code key that the definitions name: missing, unreadable, not a
// site key, or open to others than root.
QList<SetupProblem> pageCodeKeyProblems(const DefinitionsState& definitions)
{
    QList<SetupProblem> problems;
    const QString key = lastValue(definitions.values, QLatin1String(PageCoder::KeySetting));
    if (key.isEmpty())
        return problems;
    if (!QFileInfo::exists(key)) {
        problems.append(
            {queueText(QT_TRANSLATE_NOOP("queue", "the page-code key %1 that %2 names does not exist: "
                                                  "every job would be refused"))
                 .arg(key, definitions.file),
             queueText(QT_TRANSLATE_NOOP("queue", "make it as root with quillet-verify --new-key %1"))
                 .arg(key)});
        return problems;
    }
    PageCodeKey loaded;
    QString error;
    if (!PageCodeKey::load(key, &loaded, &error) || loaded.kind() != PageCodeKey::Kind::Site) {
        if (error.isEmpty())
            error = queueText(QT_TRANSLATE_NOOP("queue", "it is the key of one job, not the site's key"));
        problems.append(
            {queueText(QT_TRANSLATE_NOOP("queue",
                                         "the page-code key %1 cannot be read as the site's key (%2): "
                                         "every job would be refused"))
                 .arg(key, error),
             queueText(QT_TRANSLATE_NOOP("queue",
                                         "point %1 in %2 at the site's key file, or make a new key with "
                                         "quillet-verify --new-key FILE"))
                 .arg(QLatin1String(PageCoder::KeySetting), definitions.file)});
        return problems;
    }
    struct stat status {
    };
    if (stat(QFile::encodeName(key).constData(), &status) == 0 &&
        (status.st_uid != 0 || (status.st_mode & 077) != 0))
        problems.append(
            {queueText(QT_TRANSLATE_NOOP("queue",
                                         "the page-code key %1 is open to others than root (owner %2, "
                                         "mode %3): whoever reads it can make codes of any job"))
                 .arg(key)
                 .arg(status.st_uid)
                 .arg(QStringLiteral("%1").arg(status.st_mode & 07777, 4, 8, QLatin1Char('0'))),
             queueText(QT_TRANSLATE_NOOP("queue", "chown root:root %1 && chmod 0600 %1")).arg(key)});
    return problems;
}

// The back-page setting needs a PPD with two-sided printing.
QList<SetupProblem> backPageProblems(const QString& queue)
{
    QList<SetupProblem> problems;
    const QString ppd = fetchQueuePpd(queue);
    const PrinterSetup setup = printerSetup(ppd, QByteArray(), true);
    if (!ppd.isEmpty())
        QFile::remove(ppd);
    if (!setup.error.isEmpty())
        problems.append(
            {setup.error, queueText(QT_TRANSLATE_NOOP("queue", "give the queue a PPD with two-sided "
                                                               "printing (lpadmin -p %1 -P %2), or "
                                                               "remove %3=1 from its variables"))
                              .arg(queue, QLatin1String(ShippedPpd), QLatin1String(DuplexSetting))});
    return problems;
}

// How long a printer may take to say what it accepts.
constexpr int PrinterQueryTimeoutMs = 10000;

// A driverless printer is asked what it accepts, as the backend asks it for
// every job: one that does not answer, or that takes nothing quillet sends,
// would have every job refused.
QList<SetupProblem> printerProblems(const ServerQueue& queue, const QueueSettings& settings)
{
    const RealDevice device = realDevice(queue.deviceUri);
    if (!device.error.isEmpty() || !canAskPrinter(device.scheme))
        return {};
    const PrinterCapabilities printer = askPrinter(device.uri, PrinterQueryTimeoutMs);
    const bool automatic = settings.outputFormat == QLatin1String("auto") || settings.outputFormat.isEmpty();
    if (!printer.error.isEmpty()) {
        if (!automatic)
            return {};
        return {
            {queueText(QT_TRANSLATE_NOOP("queue", "%1 at %2, so the backend cannot choose what to send it"))
                 .arg(printer.error, uriForMessages(device.uri)),
             queueText(QT_TRANSLATE_NOOP("queue", "switch the printer on and check that %1 reaches it, or "
                                                  "name its format with %2 in the queue's variables"))
                 .arg(uriForMessages(device.uri), QLatin1String(OutputFormatSetting))}};
    }
    const OutputPlan plan = planOutput(settings.outputFormat, true, printer, settings.duplexBackPages);
    if (plan.error.isEmpty())
        return {};
    return {
        {plan.error,
         queueText(QT_TRANSLATE_NOOP("queue", "point the queue at a printer that takes PostScript, PDF, PWG "
                                              "raster or Apple raster (lpadmin -p %1 -v quillet:URI), or "
                                              "correct %2 in its variables"))
             .arg(queue.name, QLatin1String(OutputFormatSetting))}};
}

// The backend refuses every job whose audit record it cannot write.
QList<SetupProblem> auditLogProblems(const DefinitionsState& definitions)
{
    const QString named = lastValue(definitions.values, QLatin1String(AuditLogSetting));
    const QString file = named.isEmpty() ? QLatin1String(QuilletAuditLog) : named;
    // As the backend will: the file when it is there, else the folder it
    // goes into, else the folder that the backend makes it in.
    const QFileInfo log(file);
    const QFileInfo folder(log.path());
    const auto writable = [](const QString& path) {
        return access(QFile::encodeName(path).constData(), W_OK) == 0;
    };
    const bool ok = log.exists()      ? log.isFile() && !log.isSymLink() && writable(file)
                    : folder.exists() ? folder.isDir() && writable(folder.filePath())
                                      : writable(folder.path());
    if (ok)
        return {};
    return {
        {queueText(QT_TRANSLATE_NOOP("queue", "the audit log %1 cannot be written, so every job is refused"))
             .arg(file),
         queueText(QT_TRANSLATE_NOOP("queue", "run quillet-queue as root, and make %1 a folder that root "
                                              "may write to (install -d -m 700 %1)"))
             .arg(folder.filePath())}};
}

// Who may submit jobs to the queue, from its operation policy.
QList<SetupProblem> policyProblems(const ServerQueue& queue)
{
    QList<SetupProblem> problems;
    QByteArray conf;
    QString error;
    if (!fetchServerFile(QLatin1String(ServerConfiguration), &conf, &error)) {
        problems.append(
            {queueText(QT_TRANSLATE_NOOP("queue",
                                         "the print server's configuration cannot be read to check who "
                                         "may print on the queue (%1)"))
                 .arg(error),
             queueText(QT_TRANSLATE_NOOP("queue", "run quillet-queue as root on the print server"))});
        return problems;
    }
    const SubmissionRule rule = submissionRule(conf, queue.opPolicy);
    if (rule.anonymous)
        problems.append(
            {queueText(QT_TRANSLATE_NOOP("queue",
                                         "the queue takes jobs from users who did not authenticate "
                                         "(operation policy %1): its marks and audit lines could not "
                                         "name who printed"))
                 .arg(rule.policy),
             queueText(QT_TRANSLATE_NOOP("queue",
                                         "run quillet-queue create %1 again, which gives it the policy "
                                         "%2 that requires a valid user, or require one in the policy's "
                                         "<Limit Create-Job Print-Job> in cupsd.conf"))
                 .arg(queue.name, QLatin1String(MarkedQueuePolicy))});
    return problems;
}

QString stateText(const ServerQueue& queue)
{
    const QString state = queue.state == QueueIdle         ? queueText(QT_TRANSLATE_NOOP("queue", "idle"))
                          : queue.state == QueueProcessing ? queueText(QT_TRANSLATE_NOOP("queue", "printing"))
                                                           : queueText(QT_TRANSLATE_NOOP("queue", "stopped"));
    const QString accepting = queue.acceptingJobs ? queueText(QT_TRANSLATE_NOOP("queue", "accepting jobs"))
                                                  : queueText(QT_TRANSLATE_NOOP("queue", "rejecting jobs"));
    QString text = state + QStringLiteral(", ") + accepting;
    if (!queue.stateMessage.isEmpty())
        text += QStringLiteral(" (%1)").arg(queue.stateMessage);
    return text;
}

QString labelOf(const QueueSettings& settings, const DefinitionsState& definitions)
{
    const QString label = securityLabel(settings.variables);
    return label.isEmpty() ? securityLabel(definitions.values) : label;
}

int check(const QString& queue)
{
    const QueueCheck result = checkQueue(serverRoot(), queue);
    if (!result.error.isEmpty()) {
        printError(queueText(QT_TRANSLATE_NOOP("queue", "Can not ask the print server about %1: %2"))
                       .arg(queue, result.error));
        return QueueCommandFailed;
    }
    for (const SetupProblem& problem : result.problems)
        printOut(queueText(QT_TRANSLATE_NOOP("queue", "%1: %2; fix: %3"))
                     .arg(queue, problem.problem, problem.fix));
    if (!result.problems.isEmpty())
        return QueueCommandFailed;
    printOut(queueText(QT_TRANSLATE_NOOP("queue", "%1: ready: its jobs are marked with the label \"%2\""))
                 .arg(queue, result.label));
    return QueueCommandOk;
}

int list()
{
    QList<ServerQueue> queues;
    QString error;
    if (!fetchQueues(&queues, &error)) {
        printError(queueText(QT_TRANSLATE_NOOP("queue", "Can not ask the print server for its queues: %1"))
                       .arg(error));
        return QueueCommandFailed;
    }
    const QString root = serverRoot();
    const DefinitionsState definitions = readDefinitions();
    const QString prefix = QLatin1String(BackendScheme) + QLatin1Char(':');
    for (const ServerQueue& queue : queues) {
        if (!queue.deviceUri.startsWith(prefix))
            continue;
        const QueueSettings settings = readQueueSettings(root, queue.name);
        const QString label = labelOf(settings, definitions);
        printOut(queueText(QT_TRANSLATE_NOOP("queue", "%1: label \"%2\", %3"))
                     .arg(queue.name, label, stateText(queue)));
    }
    return QueueCommandOk;
}

// The files that "create" writes: owner root and the given mode, written
// whole or not at all.
class ConfigWriter
{
  public:
    // Writes the file unless it already holds `content`; sets owner and mode
    // either way. Prints what it did; false with a message on failure.
    bool write(const QString& path, const QByteArray& content, mode_t mode)
    {
        bool existed = false;
        const QByteArray current = readAll(path, &existed);
        if (!existed || current != content) {
            QSaveFile file(path);
            if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size() || !file.commit()) {
                printError(queueText(QT_TRANSLATE_NOOP("queue", "Can not write %1: %2"))
                               .arg(path, file.errorString()));
                return false;
            }
            printOut(existed ? queueText(QT_TRANSLATE_NOOP("queue", "updated %1")).arg(path)
                             : queueText(QT_TRANSLATE_NOOP("queue", "wrote %1")).arg(path));
        } else {
            printOut(queueText(QT_TRANSLATE_NOOP("queue", "kept %1, which is already right")).arg(path));
        }
        return own(path, mode);
    }

    // Owner root, group root, the given mode.
    bool own(const QString& path, mode_t mode)
    {
        const QByteArray name = QFile::encodeName(path);
        if (chown(name.constData(), 0, 0) != 0 || chmod(name.constData(), mode) != 0) {
            printError(queueText(QT_TRANSLATE_NOOP("queue", "Can not give %1 owner root and mode %2"))
                           .arg(path, QString::number(mode, 8)));
            return false;
        }
        return true;
    }
};

// "key=value" lines with one key set: its first line replaced, later ones
// dropped, or a line added at the end. An empty value drops the key.
QByteArray withKey(const QByteArray& text, const QString& key, const QString& value)
{
    QList<QByteArray> lines = text.split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    QList<QByteArray> result;
    bool set = false;
    for (const QByteArray& line : lines) {
        const KeyValueList pair = parseKeyValueLines(line);
        if (!pair.isEmpty() && pair.first().first == key) {
            if (!set && !value.isEmpty())
                result.append((key + QLatin1Char('=') + value).toUtf8());
            set = true;
            continue;
        }
        result.append(line);
    }
    if (!set && !value.isEmpty())
        result.append((key + QLatin1Char('=') + value).toUtf8());
    QByteArray joined = result.join('\n');
    if (!joined.isEmpty())
        joined += '\n';
    return joined;
}

// The page types of the template whose pages would not show `text`. A page
// shows the strings of one type only: page 1 its "first" strings, the last
// page of a longer document its "last" strings, and only when there are none
// the "any" strings. So a string that every page must show needs a line of
// each type that the template has; a type it lacks gets none, so that no page
// shows that string alone.
QList<QByteArray> pageTypesWithout(const QByteArray& templateText, const QByteArray& text)
{
    QList<QByteArray> missing;
    const QList<QByteArray> lines = templateText.split('\n');
    for (const QByteArray& type : {QByteArray("first"), QByteArray("last"), QByteArray("any")}) {
        bool used = false;
        bool shown = false;
        for (const QByteArray& line : lines) {
            if (line.simplified().startsWith(type + ':')) {
                used = true;
                shown = shown || line.contains(text);
            }
        }
        if (used && !shown)
            missing << type;
    }
    return missing;
}

// Options of "create".
struct CreateRequest {
    QString queue;
    QString deviceUri;
    QString label;
    QString templateFile;
    bool backPages = false;
    bool pageCodes = false;
};

// The queue's template: the one given, else the one it has, else the
// shipped one; with page codes, a line that prints them for each page type
// whose pages would show none.
bool writeTemplate(ConfigWriter& writer, const CreateRequest& request, const QString& folder,
                   QByteArray* text)
{
    const QString target = folder + QLatin1Char('/') + request.queue + QStringLiteral(".tmpl");
    QString source = request.templateFile;
    if (source.isEmpty())
        source = QFileInfo::exists(target) ? target : QLatin1String(ShippedTemplate);
    bool ok = false;
    *text = readAll(source, &ok);
    if (!ok) {
        printError(queueText(QT_TRANSLATE_NOOP("queue", "Can not read the template %1")).arg(source));
        return false;
    }
    const QList<QByteArray> uncoded =
        request.pageCodes ? pageTypesWithout(*text, PageCodeString) : QList<QByteArray>();
    if (!uncoded.isEmpty() && !text->endsWith('\n'))
        *text += '\n';
    for (const QByteArray& type : uncoded)
        *text += type + QByteArray(":normal:7::code:bottom-left:") + PageCodeString + '\n';
    return writer.write(target, *text, 0600);
}

// The queue's variables: the label in LABEL_NAME and in every other label
// key that the template prints and nothing sets yet; the back-page setting.
bool writeVariables(ConfigWriter& writer, const CreateRequest& request, const QString& folder,
                    const QByteArray& templateText, const DefinitionsState& definitions)
{
    const QString target = folder + QLatin1Char('/') + request.queue + QStringLiteral(".vars");
    QByteArray text = readAll(target);
    text = withKey(text, QLatin1String(LabelKey), request.label);
    const KeyValueList current = parseKeyValueLines(text);
    for (const QString& key : securityLabelKeys()) {
        const QByteArray name = key.toUtf8();
        const bool printed =
            templateText.contains('{' + name + '}') || templateText.contains('[' + name + ']');
        if (printed && lastValue(current, key).isEmpty() && lastValue(definitions.values, key).isEmpty())
            text = withKey(text, key, request.label);
    }
    text = withKey(text, QLatin1String(DuplexSetting), request.backPages ? QStringLiteral("1") : QString());
    return writer.write(target, text, 0600);
}

// The site's definitions with print-safe output on and, with page codes, the
// key named; the key made when it is missing.
bool writeDefinitionsAndKey(ConfigWriter& writer, const CreateRequest& request, const QString& folder)
{
    const DefinitionsState definitions = readDefinitions();
    const bool safe = lastValue(definitions.values, QLatin1String(SafeOutputKey)) == QLatin1String("1");
    QString key = lastValue(definitions.values, QLatin1String(PageCoder::KeySetting));
    const bool nameKey = request.pageCodes && key.isEmpty();
    if (nameKey)
        key = folder + QStringLiteral("/page-code.key");

    if (!safe || nameKey) {
        const QString site = siteDefinitionsFile();
        bool shippedOk = false;
        const QByteArray shipped = readAll(QLatin1String(ShippedDefinitions), &shippedOk);
        if (!shippedOk) {
            printError(queueText(QT_TRANSLATE_NOOP("queue", "Can not read the shipped definitions %1"))
                           .arg(QLatin1String(ShippedDefinitions)));
            return false;
        }
        bool siteExists = false;
        QByteArray text = readAll(site, &siteExists);
        if (!siteExists) {
            // A site's file replaces the shipped one: it starts as its copy.
            text = shipped;
        } else if (!safe) {
            // The site's file lost the shipped lines: they come first again,
            // then the site's own lines without the setting that turned
            // print-safe output off. The file as it was stays beside it.
            const QString saved = site + QStringLiteral(".before-quillet-queue");
            if (!writer.write(saved, text, 0600))
                return false;
            text = shipped + "\n# The site's own lines (quillet-queue create):\n" +
                   withKey(text, QLatin1String(SafeOutputKey), QString());
        }
        if (lastValue(parseKeyValueLines(text), QLatin1String(SafeOutputKey)) != QLatin1String("1"))
            text = withKey(text, QLatin1String(SafeOutputKey), QStringLiteral("1"));
        if (nameKey)
            text = withKey(text, QLatin1String(PageCoder::KeySetting), key);
        // quillet reads the definitions as the marking account.
        if (!writer.write(site, text, 0644))
            return false;
    }

    if (!request.pageCodes)
        return true;
    if (!QFileInfo::exists(key)) {
        QString error;
        if (!PageCodeKey::generate().saveNew(key, &error)) {
            printError(error);
            return false;
        }
        printOut(queueText(QT_TRANSLATE_NOOP("queue", "made the page-code key %1")).arg(key));
    } else {
        PageCodeKey existing;
        QString error;
        if (!PageCodeKey::load(key, &existing, &error) || existing.kind() != PageCodeKey::Kind::Site) {
            printError(
                queueText(QT_TRANSLATE_NOOP("queue", "The page-code key %1 is not a site key, and it is "
                                                     "not replaced: %2"))
                    .arg(key, error));
            return false;
        }
        printOut(queueText(QT_TRANSLATE_NOOP("queue", "kept the page-code key %1")).arg(key));
    }
    return writer.own(key, 0600);
}

// Whether a line of cupsd.conf outside every block sets DefaultAuthType None.
// cupsd takes a password (Basic) only where the <Location> of the request,
// or else the server's DefaultAuthType, names Basic, whatever a policy's
// <Limit> asks for. Under None it answers every password with "Basic
// authentication is not enabled": only local users, whom it knows by their
// socket, could then submit a job under the marked queues' policy, and the
// users of other machines could never print there.
bool isDefaultAuthTypeNone(const QByteArray& line, int depth)
{
    const QStringList words =
        QString::fromUtf8(line).simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
    return depth == 0 && words.size() == 2 &&
           words.at(0).compare(QLatin1String("DefaultAuthType"), Qt::CaseInsensitive) == 0 &&
           words.at(1).compare(QLatin1String("None"), Qt::CaseInsensitive) == 0;
}

// cupsd.conf with DefaultAuthType Basic where it says None; unchanged when
// it does not.
QByteArray withPasswordsTaken(const QByteArray& conf)
{
    QList<QByteArray> lines = conf.split('\n');
    int depth = 0;
    for (QByteArray& line : lines) {
        const QByteArray text = line.trimmed();
        if (text.startsWith("</"))
            depth = qMax(0, depth - 1);
        else if (text.startsWith('<'))
            ++depth;
        else if (isDefaultAuthTypeNone(text, depth))
            line = "DefaultAuthType Basic";
    }
    return lines.join('\n');
}

// The marked queues' policy in cupsd.conf, and a server that takes the
// password it asks for; the server restarts when either changes.
bool ensurePolicy()
{
    QByteArray conf;
    QString error;
    if (!fetchServerFile(QLatin1String(ServerConfiguration), &conf, &error)) {
        printError(queueText(QT_TRANSLATE_NOOP("queue", "Can not read the print server's configuration: %1"))
                       .arg(error));
        return false;
    }
    const bool hadPolicy = hasPolicy(conf, QLatin1String(MarkedQueuePolicy));
    if (hadPolicy)
        printOut(queueText(QT_TRANSLATE_NOOP("queue", "kept the policy %1 of the server's cupsd.conf"))
                     .arg(QLatin1String(MarkedQueuePolicy)));
    const QByteArray takingPasswords = withPasswordsTaken(conf);
    const bool tookPasswords = takingPasswords == conf;
    if (hadPolicy && tookPasswords)
        return true;
    const QByteArray changed = hadPolicy ? takingPasswords : withMarkedQueuePolicy(takingPasswords);
    if (!putServerFile(QLatin1String(ServerConfiguration), changed, &error)) {
        printError(
            queueText(QT_TRANSLATE_NOOP("queue", "Can not change the print server's configuration: %1"))
                .arg(error));
        return false;
    }
    if (!waitForServer(ServerRestartMs)) {
        printError(queueText(QT_TRANSLATE_NOOP("queue", "The print server did not come back after its "
                                                        "configuration changed")));
        return false;
    }
    if (!tookPasswords)
        printOut(
            queueText(QT_TRANSLATE_NOOP("queue", "set DefaultAuthType Basic in place of None in the server's "
                                                 "cupsd.conf, so that users of other machines can give "
                                                 "their password (under None the server takes none); the "
                                                 "server restarted")));
    if (!hadPolicy)
        printOut(queueText(QT_TRANSLATE_NOOP("queue",
                                             "added the policy %1 to the server's cupsd.conf (jobs only from "
                                             "authenticated users); the server restarted"))
                     .arg(QLatin1String(MarkedQueuePolicy)));
    return true;
}

bool runLpadmin(const CreateRequest& request)
{
    const QStringList arguments{QStringLiteral("-p"),
                                request.queue,
                                QStringLiteral("-E"),
                                QStringLiteral("-v"),
                                QLatin1String(BackendScheme) + QLatin1Char(':') + request.deviceUri,
                                QStringLiteral("-P"),
                                QLatin1String(ShippedPpd),
                                QStringLiteral("-o"),
                                QStringLiteral("printer-op-policy=") + QLatin1String(MarkedQueuePolicy)};
    QProcess lpadmin;
    lpadmin.start(QStringLiteral("lpadmin"), arguments);
    const bool ran = lpadmin.waitForFinished(120000);
    if (!ran || lpadmin.exitStatus() != QProcess::NormalExit || lpadmin.exitCode() != 0) {
        printError(queueText(QT_TRANSLATE_NOOP("queue", "lpadmin %1 failed: %2"))
                       .arg(arguments.join(QLatin1Char(' ')),
                            ran ? QString::fromLocal8Bit(lpadmin.readAllStandardError()).trimmed()
                                : lpadmin.errorString()));
        return false;
    }
    printOut(queueText(QT_TRANSLATE_NOOP("queue", "ran lpadmin %1")).arg(arguments.join(QLatin1Char(' '))));
    return true;
}

int create(const CreateRequest& request)
{
    if (geteuid() != 0) {
        printError(queueText(QT_TRANSLATE_NOOP("queue", "quillet-queue create must run as root")));
        return QueueCommandFailed;
    }
    const RealDevice device = realDevice(QLatin1String(BackendScheme) + QLatin1Char(':') + request.deviceUri);
    if (!device.error.isEmpty())
        return usageError(device.error);

    const QString root = serverRoot();
    const QString folder = queueFolder(root);
    ConfigWriter writer;
    if (!QDir().mkpath(folder)) {
        printError(queueText(QT_TRANSLATE_NOOP("queue", "Can not make the folder %1")).arg(folder));
        return QueueCommandFailed;
    }
    QByteArray templateText;
    if (!writer.own(folder, 0700) || !writeDefinitionsAndKey(writer, request, folder) ||
        !writeTemplate(writer, request, folder, &templateText) ||
        !writeVariables(writer, request, folder, templateText, readDefinitions()) || !ensurePolicy() ||
        !runLpadmin(request))
        return QueueCommandFailed;
    return check(request.queue);
}

// Prints the shipped test page and shows the job's audit line.
int test(const QString& queue)
{
    ServerQueue facts;
    QString error;
    if (!fetchQueue(queue, &facts, &error)) {
        printError(error.isEmpty()
                       ? queueText(QT_TRANSLATE_NOOP("queue", "The print server has no queue %1")).arg(queue)
                       : queueText(QT_TRANSLATE_NOOP("queue", "Can not ask the print server about %1: %2"))
                             .arg(queue, error));
        return QueueCommandFailed;
    }
    const int job =
        printFile(queue, QLatin1String(ShippedTestPage), QStringLiteral("quillet-queue test page"), &error);
    if (job <= 0) {
        printError(
            queueText(QT_TRANSLATE_NOOP("queue", "Can not print the test page on %1: %2")).arg(queue, error));
        return QueueCommandFailed;
    }
    printOut(queueText(QT_TRANSLATE_NOOP("queue", "printed the test page %1 as job %2-%3"))
                 .arg(QLatin1String(ShippedTestPage), queue)
                 .arg(job));

    QElapsedTimer timer;
    timer.start();
    int state = 0;
    while ((state = jobState(queue, job)) < 7 && timer.elapsed() < TestJobMs)
        QThread::msleep(250);
    if (state < 7) {
        printError(queueText(QT_TRANSLATE_NOOP("queue", "Job %1-%2 has not finished after %3 seconds"))
                       .arg(queue)
                       .arg(job)
                       .arg(TestJobMs / 1000));
        return QueueCommandFailed;
    }

    // The audit line is written when the backend ends, just before the job
    // is done; the log may lag a little behind the job's state.
    const QByteArray tag = QStringLiteral("[Job %1] ").arg(job).toUtf8();
    QStringList lines;
    for (int attempt = 0; attempt < 20 && lines.isEmpty(); ++attempt) {
        if (attempt > 0)
            QThread::msleep(250);
        QByteArray log;
        if (!fetchServerFile(QLatin1String(ServerLog), &log, &error))
            log = readAll(QLatin1String(CupsErrorLog));
        for (const QByteArray& line : log.split('\n')) {
            if (line.contains(tag) && line.contains("] quillet audit: "))
                lines.append(QString::fromUtf8(line).replace(QStringLiteral("\\\""), QStringLiteral("\"")));
        }
    }
    if (lines.isEmpty()) {
        printOut(
            queueText(QT_TRANSLATE_NOOP("queue", "job %1-%2 left no audit line in the print server's log: "
                                                 "the log keeps them with LogLevel notice or more verbose "
                                                 "in cupsd.conf, or the queue does not run quillet"))
                .arg(queue)
                .arg(job));
        return QueueCommandFailed;
    }
    for (const QString& line : lines)
        printOut(line);
    const bool marked = state == 9 && lines.last().contains(QStringLiteral("outcome=marked-and-sent"));
    return marked ? QueueCommandOk : QueueCommandFailed;
}

} // namespace

QueueCheck checkQueue(const QString& root, const QString& queue)
{
    QueueCheck result;
    ServerQueue facts;
    const bool exists = fetchQueue(queue, &facts, &result.error);
    if (!result.error.isEmpty())
        return result;
    if (!exists) {
        result.problems.append(
            {queueText(QT_TRANSLATE_NOOP("queue", "the print server has no queue %1")).arg(queue),
             queueText(
                 QT_TRANSLATE_NOOP("queue", "make it with quillet-queue create %1 DEVICE-URI --label LABEL"))
                 .arg(queue)});
    } else {
        const QString prefix = QLatin1String(BackendScheme) + QLatin1Char(':');
        if (!facts.deviceUri.startsWith(prefix))
            result.problems.append(
                {queueText(QT_TRANSLATE_NOOP("queue",
                                             "the queue's device URI %1 does not start with %2, so its "
                                             "jobs are printed without marks"))
                     .arg(uriForMessages(facts.deviceUri), prefix),
                 queueText(QT_TRANSLATE_NOOP("queue", "lpadmin -p %1 -v %2%3"))
                     .arg(queue, prefix, uriForMessages(facts.deviceUri))});
        result.problems += policyProblems(facts);
    }

    const QString folder = queueFolder(root);
    const QueueSettings settings = readQueueSettings(root, queue);
    const DefinitionsState definitions = readDefinitions();
    result.label = labelOf(settings, definitions);
    if (!settings.error.isEmpty()) {
        result.problems.append(
            {settings.error,
             queueText(QT_TRANSLATE_NOOP("queue", "correct the queue's files in %1")).arg(folder)});
        return result;
    }
    QByteArray templateText;
    if (!settings.templateFile.isEmpty())
        templateText = readAll(settings.templateFile);
    result.problems += markingSetupProblems(folder, queue, settings, templateText, definitions);
    if (exists && settings.duplexBackPages)
        result.problems += backPageProblems(queue);
    if (exists)
        result.problems += printerProblems(facts, settings);
    result.problems += auditLogProblems(definitions);
    result.problems += pageCodeKeyProblems(definitions);
    return result;
}

int queueMain(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("nimbrel"));
    QCoreApplication::setApplicationName(QStringLiteral("quillet-queue"));
    QCoreApplication::setApplicationVersion(QStringLiteral("29.29"));

    loadTranslations(application);

    QCommandLineParser parser;
    parser.setApplicationDescription(queueText(QT_TRANSLATE_NOOP(
        "queue", "Checks, lists, makes and tests print queues that mark their jobs with quillet.\n\n"
                 "  check QUEUE     tell whether a job on the queue would be marked as intended\n"
                 "  list            the marked queues with their label and state\n"
                 "  create QUEUE DEVICE-URI --label LABEL [--template FILE] [--back-pages] [--page-codes]\n"
                 "                  make the queue and its files, or make them right\n"
                 "  test QUEUE      print a test page and show its audit line")));
    parser.addPositionalArgument(QStringLiteral("command"),
                                 queueText(QT_TRANSLATE_NOOP("queue", "check, list, create or test")));
    const QCommandLineOption labelOption(
        QStringLiteral("label"),
        queueText(QT_TRANSLATE_NOOP("queue", "The security label of the queue's jobs")),
        QStringLiteral("label"));
    const QCommandLineOption templateOption(
        QStringLiteral("template"),
        queueText(QT_TRANSLATE_NOOP("queue",
                                    "Marker template to copy (default: the queue's own, else the shipped "
                                    "example)")),
        QStringLiteral("file"));
    const QCommandLineOption backPagesOption(
        QStringLiteral("back-pages"),
        queueText(QT_TRANSLATE_NOOP("queue", "Mark on a back page after every page (two-sided printing)")));
    const QCommandLineOption pageCodesOption(
        QStringLiteral("page-codes"),
        queueText(
            QT_TRANSLATE_NOOP("queue", "Print page codes: the site key is made and named when missing")));
    parser.addOptions({labelOption, templateOption, backPagesOption, pageCodesOption});
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();

    // The arguments as bytes: QCoreApplication::arguments() loses the bytes
    // of a file name that the locale's encoding cannot read. Only --template
    // is a file; the other values are text (see argumentText()).
    if (!parser.parse(decodedArguments(argc, argv)))
        return usageError(parser.errorText());
    if (parser.isSet(helpOption))
        parser.showHelp(0);
    if (parser.isSet(versionOption))
        parser.showVersion();

    QStringList arguments = parser.positionalArguments();
    for (QString& argument : arguments)
        argument = argumentText(argument);
    const QString command = arguments.value(0);
    const bool createOptions = parser.isSet(labelOption) || parser.isSet(templateOption) ||
                               parser.isSet(backPagesOption) || parser.isSet(pageCodesOption);
    if (command != QLatin1String("create") && createOptions)
        return usageError(
            queueText(QT_TRANSLATE_NOOP("queue", "--label, --template, --back-pages and --page-codes "
                                                 "belong to create")));
    if (command == QLatin1String("list")) {
        if (arguments.size() != 1)
            return usageError(queueText(QT_TRANSLATE_NOOP("queue", "list takes no arguments")));
        return list();
    }
    if (command == QLatin1String("check") || command == QLatin1String("test")) {
        if (arguments.size() != 2)
            return usageError(queueText(QT_TRANSLATE_NOOP("queue", "%1 takes one queue name")).arg(command));
        if (!isQueueName(arguments.at(1)))
            return usageError(
                queueText(QT_TRANSLATE_NOOP("queue", "\"%1\" is not a queue name")).arg(arguments.at(1)));
        return command == QLatin1String("check") ? check(arguments.at(1)) : test(arguments.at(1));
    }
    if (command == QLatin1String("create")) {
        if (arguments.size() != 3)
            return usageError(
                queueText(QT_TRANSLATE_NOOP("queue", "create takes a queue name and a device URI")));
        CreateRequest request;
        request.queue = arguments.at(1);
        request.deviceUri = arguments.at(2);
        request.label = argumentText(parser.value(labelOption)).trimmed();
        request.templateFile = parser.value(templateOption);
        request.backPages = parser.isSet(backPagesOption);
        request.pageCodes = parser.isSet(pageCodesOption);
        if (!isQueueName(request.queue))
            return usageError(
                queueText(QT_TRANSLATE_NOOP("queue", "\"%1\" is not a queue name")).arg(request.queue));
        if (request.label.isEmpty() || parser.values(labelOption).size() != 1 ||
            request.label.contains(QLatin1Char('\n')) || request.label.contains(QLatin1Char('\r')) ||
            request.label.contains(QChar(0)))
            return usageError(
                queueText(QT_TRANSLATE_NOOP("queue", "create needs one --label LABEL on one line")));
        if (parser.values(templateOption).size() > 1 ||
            (parser.isSet(templateOption) && request.templateFile.isEmpty()))
            return usageError(queueText(QT_TRANSLATE_NOOP("queue", "--template takes one file name, once")));
        return create(request);
    }
    return usageError(
        command.isEmpty()
            ? queueText(QT_TRANSLATE_NOOP("queue", "Give a command: check, list, create or test"))
            : queueText(QT_TRANSLATE_NOOP("queue", "Unknown command \"%1\"")).arg(command));
}
