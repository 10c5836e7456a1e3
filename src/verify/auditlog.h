// The audit lines that the print server's log keeps about a job.
#pragma once

#include <QString>
#include <QStringList>

// Returns the audit lines of a job in a print server's log file, in file
// order, without their line ends: the lines at notice level ("N [...]") whose
// message, after the job's tag "[Job <id>]", is the print queue backend's
// "quillet audit: ..." line. The log's escapes (\" and \') are undone.
// Empty when the file cannot be read.
QStringList auditLines(const QString& logFile, qint64 jobId);
