// The audit records that the print queue's audit log keeps about a job.
#include "verify/auditlog.h"

#include "common/auditrecord.h"
#include "common/paths.h"
#include "settings/definitionsfile.h"
#include "settings/variables.h"

#include <QFile>

QStringList auditLines(const QString& logFile, qint64 jobId)
{
    QStringList lines;
    QString error;
    for (const AuditRecord& record : auditRecordsOfJob(logFile, jobId, &error))
        lines << QString::fromUtf8(auditJsonLine(record)).trimmed();
    return lines;
}

QString definedAuditLog()
{
    QFile definitions(markerDefinitionsFile());
    if (definitions.open(QIODevice::ReadOnly)) {
        Variables& store = Variables::instance();
        store.read(definitions);
        const QString named = store.value(QLatin1String(AuditLogSetting));
        if (!named.isEmpty())
            return named;
    }
    return QLatin1String(QuilletAuditLog);
}
