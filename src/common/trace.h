// The debug trace sink shared by all subsystems.
#pragma once

#include <QString>

// Takes one fully composed trace message and discards it. Trace messages are
// still composed at every call site so that the sink can be turned into a real
// log without touching the callers.
void trace(const QString& message);
