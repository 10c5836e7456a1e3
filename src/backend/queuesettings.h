// A print queue's marking configuration: its template, the administrator's
// variables and the backend's settings, read from the print server's folder.
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

// Ordered "key=value" pairs, as they stand in a file or on a job.
using KeyValueList = QList<QPair<QString, QString>>;

// Names of the backend's settings in the queue's variables file. They are
// read by the backend and not passed on as variables.
inline constexpr char JobOptionsSetting[] = "MarkerJobOptions";
inline constexpr char DuplexSetting[] = "MarkerDuplexBackPages";
inline constexpr char MarkingUserSetting[] = "MarkerUser";
inline constexpr char TrustedInterpreterSetting[] = "MarkerTrustedInterpreter";
inline constexpr char DirectoryLookupsSetting[] = "MarkerDirectoryLookups";
inline constexpr char SandboxFoldersSetting[] = "MarkerSandboxFolders";
inline constexpr char CpuSecondsSetting[] = "MarkerJobCpuSeconds";
inline constexpr char MemorySetting[] = "MarkerJobMemoryMB";
inline constexpr char OutputSetting[] = "MarkerJobOutputMB";
inline constexpr char PageLimitSetting[] = "MarkerJobPageLimit";
inline constexpr char OutputFormatSetting[] = "MarkerOutputFormat";
inline constexpr char UnverifiedUserSetting[] = "MarkerUnverifiedUser";

// Folder below the print server's configuration folder that holds the
// queues' templates and variables.
inline constexpr char QueueConfigFolder[] = "quillet";

// What the backend knows about one queue.
struct QueueSettings {
    // The template file to mark with ("<queue>.tmpl", else "default.tmpl");
    // empty when the queue has none.
    QString templateFile;
    // The variables file that was read ("<queue>.vars", else
    // "default.vars"); empty when there is none.
    QString variablesFile;
    // The administrator's variables, settings left out, in file order.
    KeyValueList variables;
    // Job options a user may pass into the variables (MarkerJobOptions).
    QStringList jobOptions;
    // Marks with back pages (MarkerDuplexBackPages=1).
    bool duplexBackPages = false;
    // Account that runs the marking (MarkerUser); empty for the print
    // server's own unprivileged user.
    QString markingUser;
    // Runs the user's document through the trusted interpreter before it is
    // marked (MarkerTrustedInterpreter, on unless set to 0).
    bool trustedInterpreter = true;
    // Lets the job's sandbox reach the network and the directory clients'
    // configuration (MarkerDirectoryLookups=1), for FREEIPA: strings.
    bool directoryLookups = false;
    // Folders of site programs that the job's sandbox shows read-only
    // (MarkerSandboxFolders, comma-separated absolute paths).
    QStringList sandboxFolders;
    // Bounds of every process of a job's sandbox: CPU seconds, memory and
    // the size of any file it writes, in MB (MarkerJobCpuSeconds,
    // MarkerJobMemoryMB, MarkerJobOutputMB).
    int cpuSeconds = 300;
    int memoryMB = 2048;
    int outputMB = 2048;
    // The most pages a job may print, its pages times its copies
    // (MarkerJobPageLimit).
    int pageLimit = 10000;
    // The format the printer is sent (MarkerOutputFormat): "auto" (asks a
    // driverless printer, PostScript for others), "postscript", "pdf",
    // "pwg-raster", "urf" or "pcl".
    QString outputFormat = QStringLiteral("auto");
    // What a job from a user whom the print server did not make authenticate
    // gets (MarkerUnverifiedUser): marked with the name followed by
    // "(unverified)", or refused (MarkerUnverifiedUser=refuse).
    bool refuseUnverifiedUser = false;
    // Why the configuration cannot be used; empty when it can.
    QString error;
};

// Reads "key=value" lines: blank lines and lines starting with "#" are
// skipped, the key runs to the first "=", both sides are trimmed.
KeyValueList parseKeyValueLines(const QByteArray& bytes);

// The value of a key among the pairs, the last occurrence counting (as in
// quillet's store); empty when the key is absent.
QString lastValue(const KeyValueList& pairs, const QString& key);

// Reads the configuration of a queue from <serverRoot>/quillet/. A queue
// name that could leave that folder, a variables file that exists but cannot
// be read, and a template that exists but cannot be read set `error`; a
// missing template leaves templateFile empty.
QueueSettings readQueueSettings(const QString& serverRoot, const QString& queue);

// The print server's unprivileged account, from the "User" and "Group"
// lines of <serverRoot>/cups-files.conf ("lp" and "lp" when absent).
struct ServerAccount {
    QString user = QStringLiteral("lp");
    QString group = QStringLiteral("lp");
};
ServerAccount readServerAccount(const QString& serverRoot);
