// The audit lines that the print server's log keeps about a job.
#include "verify/auditlog.h"

#include <QFile>

namespace
{

// What the print queue's backend writes at the start of its audit line.
const char AuditMark[] = "quillet audit: ";

// A log line as the backend wrote it: the print server's log puts a
// backslash before every quote and apostrophe of a message.
QByteArray unescaped(const QByteArray& line)
{
    QByteArray text;
    for (int i = 0; i < line.size(); ++i) {
        const char next = i + 1 < line.size() ? line.at(i + 1) : '\0';
        if (line.at(i) == '\\' && (next == '"' || next == '\''))
            ++i;
        text += line.at(i);
    }
    return text;
}

} // namespace

QStringList auditLines(const QString& logFile, qint64 jobId)
{
    QStringList lines;
    QFile file(logFile);
    if (!file.open(QIODevice::ReadOnly))
        return lines;
    // The print server writes a backend's "NOTICE:" line at level "N", with
    // the job's tag in front.
    const QByteArray job = "] [Job " + QByteArray::number(jobId) + "] ";
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        const int tag = line.indexOf(job);
        if (!line.startsWith("N [") || tag < 0 || !line.mid(tag + job.size()).startsWith(AuditMark))
            continue;
        lines << QString::fromUtf8(unescaped(line)).trimmed();
    }
    return lines;
}
