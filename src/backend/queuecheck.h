// Set-ups that cannot mark: a queue whose configuration would print pages
// without their marks, or with marks that say nothing, refuses every job.
#pragma once

#include "backend/queuesettings.h"

#include <QByteArray>
#include <QList>
#include <QString>

// What the backend knows of the marker definitions that quillet will read.
struct DefinitionsState {
    // The file quillet reads; empty when there is none.
    QString file;
    // Its "key=value" pairs.
    KeyValueList values;
};

// Reads the definitions that quillet will read (the site's file, else the
// shipped one).
DefinitionsState readDefinitions();

// One reason why a queue cannot mark a job, and what the administrator does
// about it.
struct SetupProblem {
    QString problem;
    QString fix;
};

// Every reason why the queue cannot mark a job, in the order they are
// checked; empty when it can. Checked: the queue has a template and a
// variables file, the definitions turn on print-safe output, the template
// holds something, and every security-label key that the template prints is
// set by the queue's variables or the definitions. A missing file is one
// problem: what depends on it is not checked. `queueFolder` and `queue` name
// the files in messages. The texts are translated in the "queuecheck"
// context when the program has a translator (the backend has none).
QList<SetupProblem> markingSetupProblems(const QString& queueFolder, const QString& queue,
                                         const QueueSettings& settings, const QByteArray& templateText,
                                         const DefinitionsState& definitions);

// The first of markingSetupProblems(), without its fix; empty when the queue
// can mark.
QString markingSetupProblem(const QString& queueFolder, const QString& queue, const QueueSettings& settings,
                            const QByteArray& templateText, const DefinitionsState& definitions);
