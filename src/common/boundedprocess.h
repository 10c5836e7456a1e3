// Running an outside program with a time limit and an output limit, in a
// process group of its own that is ended as a whole.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// What a bounded run of a program left.
struct BoundedRun {
    bool started = false;   // the program could be started
    bool timedOut = false;  // it was still running when its time was up
    bool outputCut = false; // it wrote more than the output limit
    QByteArray output;      // its standard output, at most the output limit
};

// Starts the program (found through the search path when it holds no "/")
// with the arguments in a new process group, standard input and standard
// error on /dev/null, and reads its standard output while it runs. The run
// ends when the program has ended, when timeoutMs have passed or when it has
// written outputLimit bytes, whichever comes first; then every process left
// in its group (a shell's children, a program's helpers) is killed and the
// program is reaped, so that nothing it started outlives the call. Processes
// that left the group on their own (setsid) are beyond reach.
BoundedRun runBounded(const QString& program, const QStringList& arguments, int timeoutMs, int outputLimit);
