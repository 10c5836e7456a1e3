// Child processes of the backend: quillet and the real backend, each run
// under the account it needs, ended with the backend when the job is cancelled.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include "sandbox/jobsandbox.h"

#include <sys/types.h>

#include <functional>

// One program to run.
struct ChildCommand {
    QByteArray program;
    // The whole argument vector, argv[0] included.
    QList<QByteArray> arguments;
    // The whole environment ("NAME=value").
    QList<QByteArray> environment;
    // Run as this account instead of the backend's own (root).
    bool changeAccount = false;
    uid_t uid = 0;
    gid_t gid = 0;
    // Standard input: an open descriptor, or -1 for /dev/null.
    int standardInput = -1;
    // Files for standard output and error; empty to keep the backend's.
    QByteArray standardOutputFile;
    QByteArray standardErrorFile;
    // When set, receives every line that the child writes to standard error
    // (its line feed removed) as it comes, instead of standardErrorFile.
    std::function<void(const QByteArray& line)> errorLines;
    // Keep descriptors 3 and 4 (the print server's back and side channels);
    // every other descriptor above 2 is closed.
    bool keepChannels = false;
    // Bounds of the child's CPU time, memory and file sizes.
    ResourceLimits limits;
};

// How a child ended.
struct ChildResult {
    // False when the program could not be started; `error` says why.
    bool started = false;
    // The job was cancelled (SIGTERM) while the child ran; it was ended.
    bool cancelled = false;
    // Exit status, or -1 when the child was ended by a signal.
    int exitStatus = -1;
    int signal = 0;
    QString error;
};

// Catches SIGTERM (the print server cancelling the job) so that the backend
// can end its child and remove its files, and ignores SIGPIPE.
void installCancelHandler();

// Whether SIGTERM has arrived.
bool cancelRequested();

// Runs a program to its end. The child gets its own process group, which is
// sent SIGTERM (then SIGKILL after a grace period) when the job is
// cancelled, and SIGTERM if the backend itself dies first.
ChildResult runChild(const ChildCommand& command);
