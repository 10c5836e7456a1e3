// The simulated driverless printer of the end-to-end tests.
#include "simulatedprinter.h"

#include "support/testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QThread>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

const char PrinterProgram[] = "/usr/sbin/ippeveprinter";

// How long a printer may take to answer after it was started, and how often
// to try another port when the chosen one was taken in the meantime.
constexpr int StartMs = 20000;
constexpr int PortAttempts = 5;
// How long one ipptool request may wait for the printer.
constexpr int RequestSeconds = 5;

// ippeveprinter runs its print command once per document, with the kept
// file as the argument, after the whole document has arrived: the command
// lists it, so that the harness sees complete documents only, in the order
// the printer finished them. Without a command ippeveprinter would pretend
// to print for seconds per job.
const char RecordCommand[] = "#!/bin/sh\n"
                             "printf '%s\\n' \"$1\" >>'@LIST@'\n";
// The end of the command of a printer whose every print fails: ippeveprinter
// then aborts the job.
const char FailedPrint[] = "exit 1\n";

// The readiness probe: any answer but an error means the printer is up.
const char ReadyTest[] = "{\n"
                         "  NAME \"Printer answers\"\n"
                         "  OPERATION Get-Printer-Attributes\n"
                         "  GROUP operation-attributes-tag\n"
                         "  ATTR charset attributes-charset utf-8\n"
                         "  ATTR naturalLanguage attributes-natural-language en\n"
                         "  ATTR uri printer-uri $uri\n"
                         "  ATTR keyword requested-attributes printer-state\n"
                         "  STATUS successful-ok\n"
                         "}\n";

// Everything the printer says about itself, with no expectations beyond
// success: printers made from an attribute file may lack attributes that
// ipptool's own get-printer-attributes.test expects.
const char AttributesTest[] = "{\n"
                              "  NAME \"Printer attributes\"\n"
                              "  OPERATION Get-Printer-Attributes\n"
                              "  GROUP operation-attributes-tag\n"
                              "  ATTR charset attributes-charset utf-8\n"
                              "  ATTR naturalLanguage attributes-natural-language en\n"
                              "  ATTR uri printer-uri $uri\n"
                              "  ATTR keyword requested-attributes all,media-col-database\n"
                              "  STATUS successful-ok\n"
                              "}\n";

// The attributes of ippeveprinter's built-in printer that describe the
// device: an attribute file must bring them along. Everything else
// (operations, document formats, states, URIs) ippeveprinter adds itself,
// and a second copy of those would make its answers invalid.
const char* const DeviceAttributes[] = {"color-supported",
                                        "copies-default",
                                        "copies-supported",
                                        "finishings-col-database",
                                        "finishings-col-default",
                                        "finishings-col-ready",
                                        "finishings-col-supported",
                                        "finishings-default",
                                        "finishings-ready",
                                        "finishings-supported",
                                        "media-bottom-margin-supported",
                                        "media-col-database",
                                        "media-col-default",
                                        "media-col-ready",
                                        "media-default",
                                        "media-left-margin-supported",
                                        "media-ready",
                                        "media-right-margin-supported",
                                        "media-size-supported",
                                        "media-source-supported",
                                        "media-supported",
                                        "media-top-margin-supported",
                                        "media-type-supported",
                                        "orientation-requested-default",
                                        "orientation-requested-supported",
                                        "output-bin-default",
                                        "output-bin-supported",
                                        "page-ranges-supported",
                                        "pages-per-minute",
                                        "print-color-mode-default",
                                        "print-color-mode-supported",
                                        "print-content-optimize-default",
                                        "print-content-optimize-supported",
                                        "print-quality-default",
                                        "print-quality-supported",
                                        "print-rendering-intent-default",
                                        "print-rendering-intent-supported",
                                        "printer-device-id",
                                        "printer-input-tray",
                                        "printer-make-and-model",
                                        "printer-resolution-default",
                                        "printer-resolution-supported",
                                        "printer-supply",
                                        "printer-supply-description",
                                        "pwg-raster-document-resolution-supported",
                                        "pwg-raster-document-sheet-back",
                                        "pwg-raster-document-type-supported",
                                        "sides-default",
                                        "sides-supported",
                                        "urf-supported"};

// The formats that ippeveprinter accepts from a printer made from an
// attribute file, whatever the file says.
const QStringList AttributeFileFormats = {QStringLiteral("image/pwg-raster"), QStringLiteral("image/urf")};

// The QProcess that starts the namespace helper: the helper is killed when
// the test process ends, even by a crash, and its namespaces with it, so that
// no printer outlives the test.
class NamespaceProcess : public QProcess
{
  protected:
    void setupChildProcess() override { prctl(PR_SET_PDEATHSIG, SIGKILL); }
};

// A port of 127.0.0.1 that nobody listens on right now. ippeveprinter binds
// it moments later; start() tries another one if someone took it meanwhile.
int freePort()
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0)
        return 0;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    close(listener);
    return port;
}

// Whether a socket can listen on ::1. ippeveprinter 2.4.2 opens a listener
// on each loopback address and gives up when either fails, so without IPv6
// on the loopback interface it cannot run.
bool haveIpv6Loopback()
{
    const int listener = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0)
        return false;
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool bound = bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(listener);
    return bound;
}

// The parent of a process, from /proc; 0 when it is gone.
qint64 parentOf(qint64 pid)
{
    // "pid (name) state ppid ...": the name may hold blanks and brackets.
    const QByteArray stat = readFile(QStringLiteral("/proc/%1/stat").arg(pid));
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    return fields.size() > 1 ? fields.at(1).toLongLong() : 0;
}

// The processes below `root` (not itself), from /proc.
QList<qint64> descendants(qint64 root)
{
    QMap<qint64, qint64> parents;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        const qint64 pid = entry.toLongLong();
        const qint64 parent = pid > 0 ? parentOf(pid) : 0;
        if (parent > 0)
            parents.insert(pid, parent);
    }
    QList<qint64> found;
    QList<qint64> queue{root};
    while (!queue.isEmpty()) {
        const qint64 parent = queue.takeFirst();
        for (auto it = parents.cbegin(); it != parents.cend(); ++it) {
            if (it.value() == parent && !found.contains(it.key())) {
                found.append(it.key());
                queue.append(it.key());
            }
        }
    }
    return found;
}

// The name of the attribute that an attribute file's "ATTR tag name ..."
// line defines; empty for other lines.
QByteArray definedName(const QByteArray& line)
{
    const QList<QByteArray> words = line.simplified().split(' ');
    return words.size() >= 3 && words.at(0) == "ATTR" ? words.at(2) : QByteArray();
}

} // namespace

SimulatedPrinter::SimulatedPrinter() = default;

SimulatedPrinter::~SimulatedPrinter()
{
    stop();
}

bool SimulatedPrinter::available()
{
    return geteuid() == 0 && QFileInfo(QLatin1String(PrinterProgram)).isExecutable() &&
           haveProgram(QStringLiteral("ipptool")) && haveProgram(QStringLiteral("unshare")) &&
           haveProgram(QStringLiteral("dbus-daemon")) && haveProgram(QStringLiteral("dbus-send")) &&
           QFileInfo(QStringLiteral("/usr/sbin/avahi-daemon")).isExecutable() && haveIpv6Loopback();
}

QString SimulatedPrinter::folderPath(const QString& name) const
{
    return m_dir ? m_dir->filePath(name) : QString();
}

bool SimulatedPrinter::start(const QStringList& formats, bool twoSided, QString* error,
                             const QByteArray& extraAttributes)
{
    stop();
    if (formats.isEmpty()) {
        *error = QStringLiteral("a simulated printer needs at least one document format");
        return false;
    }
    if (extraAttributes.isEmpty()) {
        QStringList arguments{QStringLiteral("-f"), formats.join(QLatin1Char(','))};
        if (twoSided)
            arguments.append(QStringLiteral("-2"));
        return launch(arguments, error);
    }

    for (const QString& format : formats) {
        if (!AttributeFileFormats.contains(format)) {
            *error = QStringLiteral("a printer made from attributes accepts only %1, not %2")
                         .arg(AttributeFileFormats.join(QStringLiteral(", ")), format);
            return false;
        }
    }
    QByteArray attributes;
    if (!builtInAttributes(formats, twoSided, extraAttributes, &attributes, error))
        return false;
    attributes += extraAttributes;
    if (!attributes.endsWith('\n'))
        attributes += '\n';
    // The file goes next to the printer's own folder, which launch() makes.
    QTemporaryDir attributeDir;
    const QString file = attributeDir.filePath(QStringLiteral("printer.conf"));
    if (!writeFile(file, attributes)) {
        *error = QStringLiteral("cannot write %1").arg(file);
        return false;
    }
    if (!launch({QStringLiteral("-a"), file}, error))
        return false;
    // ippeveprinter has read the file; keep a copy with the printer for
    // anyone who wants to see what it was told.
    QFile::copy(file, folderPath(QStringLiteral("printer.conf")));
    return true;
}

bool SimulatedPrinter::builtInAttributes(const QStringList& formats, bool twoSided,
                                         const QByteArray& replaced, QByteArray* attributes, QString* error)
{
    QSet<QByteArray> replacedNames;
    for (const QByteArray& line : replaced.split('\n')) {
        const QByteArray name = definedName(line);
        if (!name.isEmpty())
            replacedNames.insert(name);
    }
    QSet<QByteArray> kept;
    for (const char* name : DeviceAttributes)
        kept.insert(name);

    SimulatedPrinter builtIn;
    if (!builtIn.start(formats, twoSided, error))
        return false;
    // ipptool writes what it received as an attribute file: an "ATTR" line
    // per attribute, collections continued on indented lines and "}".
    const QString file = builtIn.folderPath(QStringLiteral("built-in.conf"));
    const RunResult run =
        runProgram(QStringLiteral("ipptool"),
                   {QStringLiteral("-T"), QString::number(RequestSeconds), QStringLiteral("--ippserver"),
                    file, builtIn.uri(), builtIn.folderPath(QStringLiteral("attributes.test"))});
    if (run.exitCode != 0) {
        *error = QStringLiteral("ipptool could not read the built-in printer's attributes: %1")
                     .arg(QString::fromLocal8Bit(run.standardOutput + run.standardError));
        return false;
    }
    bool keep = false;
    for (const QByteArray& line : readFile(file).split('\n')) {
        if (line.startsWith("ATTR ")) {
            const QByteArray name = definedName(line);
            keep = kept.contains(name) && !replacedNames.contains(name);
        }
        if (keep)
            *attributes += line + '\n';
    }
    if (attributes->isEmpty()) {
        *error = QStringLiteral("the built-in printer described no device");
        return false;
    }
    return true;
}

bool SimulatedPrinter::launch(const QStringList& printerArguments, QString* error)
{
    m_dir = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/quillet-printer-XXXXXX"));
    if (!m_dir->isValid()) {
        *error = QStringLiteral("cannot make a temporary folder for the printer");
        return false;
    }
    const QString spool = folderPath(QStringLiteral("spool"));
    QDir().mkpath(spool);
    QDir().mkpath(folderPath(QStringLiteral("namespace")));
    const QString command = folderPath(QStringLiteral("record"));
    writeFile(command, QByteArray(RecordCommand)
                               .replace("@LIST@", QFile::encodeName(folderPath(QStringLiteral("received")))) +
                           (m_printFails ? QByteArray(FailedPrint) : QByteArray()));
    chmod(QFile::encodeName(command).constData(), 0755);
    writeFile(folderPath(QStringLiteral("ready.test")), ReadyTest);
    writeFile(folderPath(QStringLiteral("attributes.test")), AttributesTest);

    const QString helper =
        QFileInfo(QStringLiteral(QUILLET_SANDBOX)).dir().filePath(QStringLiteral("private-avahi"));
    QString lastLog;
    for (int attempt = 0; attempt < PortAttempts; ++attempt) {
        m_port = freePort();
        if (m_port == 0) {
            *error = QStringLiteral("no free port on 127.0.0.1");
            return false;
        }
        // -n localhost: ippeveprinter listens on both loopback addresses,
        //    127.0.0.1 and ::1, and refuses to start unless it can open both.
        // -r off: no service announcements; the bus and avahi-daemon are only
        //    there because ippeveprinter will not start without them.
        // -K: certificates, should it make any, stay in the printer's folder.
        // -k -d: every accepted document is kept in the spool folder as
        //    <job id>-<job name>.<format's extension>.
        const QStringList arguments = QStringList{folderPath(QStringLiteral("namespace")),
                                                  QStringLiteral("--"),
                                                  QLatin1String(PrinterProgram),
                                                  QStringLiteral("-v"),
                                                  QStringLiteral("-r"),
                                                  QStringLiteral("off"),
                                                  QStringLiteral("-n"),
                                                  QStringLiteral("localhost"),
                                                  QStringLiteral("-p"),
                                                  QString::number(m_port),
                                                  QStringLiteral("-c"),
                                                  command,
                                                  QStringLiteral("-k"),
                                                  QStringLiteral("-d"),
                                                  spool,
                                                  QStringLiteral("-K"),
                                                  folderPath(QStringLiteral("ssl"))} +
                                      printerArguments + QStringList{QStringLiteral("quillet-simulated")};
        m_process = std::make_unique<NamespaceProcess>();
        m_process->setProgram(helper);
        m_process->setArguments(arguments);
        m_process->setProcessChannelMode(QProcess::MergedChannels);
        m_process->setStandardOutputFile(folderPath(QStringLiteral("ippeveprinter.log")));
        m_process->start();
        if (!m_process->waitForStarted()) {
            *error = QStringLiteral("cannot run %1").arg(helper);
            return false;
        }

        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < StartMs && m_process->state() == QProcess::Running) {
            const RunResult probe =
                runProgram(QStringLiteral("ipptool"),
                           {QStringLiteral("-q"), QStringLiteral("-T"), QString::number(RequestSeconds),
                            uri(), folderPath(QStringLiteral("ready.test"))});
            if (probe.exitCode == 0)
                return true;
            QThread::msleep(50);
        }
        lastLog = log();
        const bool portTaken = m_process->state() == QProcess::NotRunning &&
                               lastLog.contains(QStringLiteral("Unable to create IPv"));
        stopProcesses();
        if (!portTaken)
            break;
    }
    *error =
        QStringLiteral("ippeveprinter did not answer on %1: %2\nD-Bus: %3\navahi-daemon: %4")
            .arg(uri(), lastLog,
                 QString::fromLocal8Bit(readFile(folderPath(QStringLiteral("namespace/dbus.log")))),
                 QString::fromLocal8Bit(readFile(folderPath(QStringLiteral("namespace/avahi-daemon.log")))));
    return false;
}

void SimulatedPrinter::stopProcesses()
{
    if (!m_process)
        return;
    if (m_process->state() != QProcess::NotRunning) {
        // The helper is unshare by now, and its only child the namespace's
        // first process, ippeveprinter. Killing that one makes the kernel
        // kill the rest of the namespace, and unshare reaps it and ends.
        // Killing unshare first would do too (its child gets SIGKILL when it
        // dies), but would leave ippeveprinter for the system to reap.
        const qint64 helper = m_process->processId();
        const QList<qint64> started = descendants(helper);
        for (const qint64 pid : started) {
            if (parentOf(pid) == helper)
                ::kill(pid_t(pid), SIGKILL);
        }
        if (!m_process->waitForFinished(5000)) {
            m_process->kill();
            m_process->waitForFinished();
        }
        // Wait for each, so that nothing outlives stop().
        for (const qint64 pid : started)
            processEnded(pid, 5000);
    }
    m_process.reset();
}

void SimulatedPrinter::stop()
{
    stopProcesses();
    m_dir.reset();
    m_port = 0;
}

QString SimulatedPrinter::uri() const
{
    return m_port ? QStringLiteral("ipp://127.0.0.1:%1/ipp/print").arg(m_port) : QString();
}

QStringList SimulatedPrinter::receivedDocuments() const
{
    if (!m_dir)
        return {};
    QStringList documents;
    for (const QByteArray& line : readFile(folderPath(QStringLiteral("received"))).split('\n')) {
        if (!line.isEmpty())
            documents.append(QFile::decodeName(line));
    }
    return documents;
}

bool SimulatedPrinter::waitForDocuments(int count, int timeoutMs) const
{
    QElapsedTimer timer;
    timer.start();
    while (receivedDocuments().size() < count) {
        if (timer.elapsed() >= timeoutMs)
            return false;
        QThread::msleep(50);
    }
    return true;
}

QString SimulatedPrinter::log() const
{
    return QString::fromLocal8Bit(readFile(folderPath(QStringLiteral("ippeveprinter.log"))));
}

QList<qint64> SimulatedPrinter::processIds() const
{
    if (!m_process || m_process->state() == QProcess::NotRunning)
        return {};
    return QList<qint64>{m_process->processId()} + descendants(m_process->processId());
}

QMap<QString, QString> SimulatedPrinter::printerAttributes(QString* error) const
{
    QMap<QString, QString> attributes;
    const RunResult run =
        runProgram(QStringLiteral("ipptool"),
                   {QStringLiteral("-t"), QStringLiteral("-v"), QStringLiteral("-T"),
                    QString::number(RequestSeconds), uri(), folderPath(QStringLiteral("attributes.test"))});
    const QString output = QString::fromLocal8Bit(run.standardOutput);
    if (run.exitCode != 0) {
        *error = QStringLiteral("Get-Printer-Attributes failed: %1 %2")
                     .arg(output, QString::fromLocal8Bit(run.standardError));
        return attributes;
    }
    // The request's attributes come first; the printer's follow the line
    // "RECEIVED: n bytes in response", one per line: "name (syntax) = value".
    static const QRegularExpression attribute(QStringLiteral("^\\s+([a-z0-9-]+) \\([^)]*\\) = (.*)$"));
    const QStringList lines = output.split(QLatin1Char('\n'));
    bool response = false;
    for (const QString& line : lines) {
        if (line.trimmed().startsWith(QLatin1String("RECEIVED:"))) {
            response = true;
            continue;
        }
        const QRegularExpressionMatch match = attribute.match(line);
        if (response && match.hasMatch())
            attributes.insert(match.captured(1), match.captured(2));
    }
    if (attributes.isEmpty())
        *error = QStringLiteral("no attributes in ipptool's output: %1").arg(output);
    return attributes;
}

bool SimulatedPrinter::printFile(const QString& path, const QString& format, QString* error) const
{
    // ipptool's own print-job.test sends the file with Print-Job as the
    // document-format in $filetype.
    const RunResult run =
        runProgram(QStringLiteral("ipptool"),
                   {QStringLiteral("-t"), QStringLiteral("-T"), QString::number(RequestSeconds),
                    QStringLiteral("-f"), path, QStringLiteral("-d"), QStringLiteral("filetype=") + format,
                    uri(), QStringLiteral("print-job.test")});
    if (run.exitCode != 0) {
        *error = QStringLiteral("Print-Job of %1 as %2 failed: %3 %4")
                     .arg(path, format, QString::fromLocal8Bit(run.standardOutput),
                          QString::fromLocal8Bit(run.standardError));
        return false;
    }
    return true;
}

QStringList SimulatedPrinter::splitValues(const QString& text)
{
    QStringList values;
    QString current;
    int depth = 0;
    for (const QChar c : text) {
        if (c == QLatin1Char('{'))
            ++depth;
        else if (c == QLatin1Char('}'))
            --depth;
        if (c == QLatin1Char(',') && depth == 0) {
            values.append(current);
            current.clear();
        } else {
            current.append(c);
        }
    }
    if (!current.isEmpty() || !values.isEmpty())
        values.append(current);
    return values;
}
