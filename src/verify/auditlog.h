// The audit lines that the print server's log keeps about a job.
#pragma once

#include <QString>
#include <QStringList>

// Returns the audit lines of a job in a log file, in file order, without
// their line ends: notice lines (starting with "N " or holding "NOTICE:")
// that name the job as "[Job <id>]". Empty when the file cannot be read.
QStringList auditLines(const QString& logFile, qint64 jobId);
