// quillet-queue: checks that a print queue marks its jobs as intended, lists
// the marked queues, makes a marked queue and prints a test page on it.
#pragma once

#include "backend/queuecheck.h"

#include <QList>
#include <QString>

// Exit status of quillet-queue.
enum QueueCommandStatus {
    QueueCommandOk = 0,     // the queue is right, or the command did what it was asked
    QueueCommandFailed = 1, // the queue has problems, or the command failed
    QueueCommandUsage = 2,  // the command line is wrong
};

// What the check of one queue found.
struct QueueCheck {
    // The label that its jobs are marked with (empty when none).
    QString label;
    // Every problem with its fix, empty when a job would be marked as
    // intended.
    QList<SetupProblem> problems;
    // Why the print server could not be asked; the problems are then not
    // complete.
    QString error;
};

// Checks a queue on the print server that libcups reaches, with its files in
// <serverRoot>/quillet and the marker definitions that quillet reads.
QueueCheck checkQueue(const QString& serverRoot, const QString& queue);

// Runs the whole program and returns its exit status; main() only calls this.
int queueMain(int argc, char* argv[]);
