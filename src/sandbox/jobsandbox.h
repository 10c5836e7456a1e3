// One job, one sandbox: every step of a job's untrusted work runs confined
// by bubblewrap. A step sees the system's programs and libraries read-only,
// the files the backend hands it read-only, one folder of its own to write,
// and nothing else of the machine: no other job's files, processes or keys,
// no network unless the queue allows it for directory look-ups.
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

#include <sys/resource.h>

// Where a step finds what it is given and where it writes, inside its sandbox.
inline constexpr char SandboxInputFolder[] = "/job/in";
inline constexpr char SandboxOutputFolder[] = "/job/out";

// Bounds of one step's processes, applied with setrlimit before the sandbox
// starts; 0 leaves a bound out.
struct ResourceLimits {
    // CPU seconds of each process.
    rlim_t cpuSeconds = 0;
    // Address space of each process, in bytes.
    rlim_t memoryBytes = 0;
    // Size of any one file a process writes, in bytes.
    rlim_t fileBytes = 0;
};

// Applies the limits to the calling process; only async-signal-safe calls,
// so that a child may call it between fork and exec. False when one could
// not be set.
bool applyResourceLimits(const ResourceLimits& limits);

// What one step is given.
struct SandboxSpec {
    // The step's own folder on the host, seen read-write as SandboxOutputFolder.
    QString outputFolder;
    // Files on the host, each seen read-only as SandboxInputFolder/<name>.
    QList<QPair<QString, QString>> inputFiles;
    // Files or folders of the system made visible read-only at their own
    // paths (the site's marker definitions, a site program's folder).
    QStringList systemPaths;
    // Shares the host's network and its name-service and Kerberos
    // configuration (directory look-ups of the marker's strings).
    bool network = false;
};

// The path of an input file as the step sees it.
QString sandboxInput(const QString& name);
// The path of a file of the step's own folder as the step sees it.
QString sandboxOutput(const QString& name);

// The whole argument vector that runs `command` (its own argument vector,
// program first) in a sandbox made to `spec`, bubblewrap first.
QList<QByteArray> sandboxCommand(const SandboxSpec& spec, const QList<QByteArray>& command);
