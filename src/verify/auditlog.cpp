// The audit lines that the print server's log keeps about a job.
#include "verify/auditlog.h"

#include <QFile>

QStringList auditLines(const QString& logFile, qint64 jobId)
{
    QStringList lines;
    QFile file(logFile);
    if (!file.open(QIODevice::ReadOnly))
        return lines;
    const QByteArray job = "[Job " + QByteArray::number(jobId) + ']';
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        if (line.contains(job) && (line.startsWith("N ") || line.contains("NOTICE:")))
            lines << QString::fromLocal8Bit(line).trimmed();
    }
    return lines;
}
