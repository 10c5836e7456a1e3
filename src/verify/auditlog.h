// The audit records that the print queue's audit log keeps about a job.
#pragma once

#include <QString>
#include <QStringList>

// The records of a job in an audit log (one JSON object per line, as the
// print queue's backend writes them), in file order, each as its line
// without the line end. Lines that are not whole records are passed over:
// every value a user chose sits inside a JSON string, so no such text can
// make a record of its own. Empty when the file cannot be read.
QStringList auditLines(const QString& logFile, qint64 jobId);

// The audit log that the marker definitions name (MarkerAuditLog), else the
// installed one.
QString definedAuditLog();
