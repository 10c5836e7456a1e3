// Set-ups that cannot mark: a queue whose configuration would print pages
// without their marks, or with marks that say nothing, refuses every job.
#pragma once

#include "backend/queuesettings.h"

#include <QByteArray>
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

// Why the queue cannot mark a job; empty when it can. Checked: the queue has
// a variables file, the definitions turn on print-safe output, the template
// holds something, and every security-label key that the template prints is
// set by the queue's variables or the definitions.
// `queueFolder` and `queue` name the files in messages.
QString markingSetupProblem(const QString& queueFolder, const QString& queue, const QueueSettings& settings,
                            const QByteArray& templateText, const DefinitionsState& definitions);
