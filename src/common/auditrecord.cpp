// Audit records as JSON lines.
#include "common/auditrecord.h"

#include "common/filename.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <cerrno>
#include <cstring>

namespace
{

// The fields' names in the log.
const char TimeField[] = "time";
const char JobField[] = "job";
const char UserField[] = "user";
const char AuthenticatedField[] = "user-authenticated";
const char QueueField[] = "queue";
const char LabelField[] = "label";
const char PagesField[] = "pages";
const char CopiesField[] = "copies";
const char SheetsField[] = "sheets-sent";
const char FormatField[] = "format";
const char OutcomeField[] = "outcome";
const char ReasonField[] = "reason";
const char KeyField[] = "page-code-key";

} // namespace

QByteArray auditJsonLine(const AuditRecord& record)
{
    QJsonObject object;
    object.insert(QLatin1String(TimeField), record.time.toUTC().toString(Qt::ISODateWithMs));
    object.insert(QLatin1String(JobField), double(record.job));
    object.insert(QLatin1String(UserField), record.user);
    object.insert(QLatin1String(AuthenticatedField), record.userAuthenticated);
    object.insert(QLatin1String(QueueField), record.queue);
    object.insert(QLatin1String(LabelField), record.label);
    object.insert(QLatin1String(PagesField), double(record.pages));
    object.insert(QLatin1String(CopiesField), record.copies);
    object.insert(QLatin1String(SheetsField), double(record.sheetsSent));
    object.insert(QLatin1String(FormatField), record.format);
    object.insert(QLatin1String(OutcomeField), record.outcome);
    object.insert(QLatin1String(ReasonField), record.reason);
    object.insert(QLatin1String(KeyField), record.pageCodeKey);
    // Compact JSON escapes every control character, line feeds included, so
    // a record is always one line.
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

bool readAuditJsonLine(const QByteArray& line, AuditRecord* record)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(line.trimmed(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return false;
    const QJsonObject object = document.object();
    const auto text = [&object](const char* name, QString* value) {
        const QJsonValue field = object.value(QLatin1String(name));
        *value = field.toString();
        return field.isString();
    };
    const auto number = [&object](const char* name, qint64* value) {
        const QJsonValue field = object.value(QLatin1String(name));
        *value = qint64(field.toDouble(-1));
        return field.isDouble() && *value >= 0 && double(*value) == field.toDouble();
    };
    QString time;
    qint64 copies = 0;
    const QJsonValue authenticated = object.value(QLatin1String(AuthenticatedField));
    const bool whole = text(TimeField, &time) && number(JobField, &record->job) &&
                       text(UserField, &record->user) && authenticated.isBool() &&
                       text(QueueField, &record->queue) && text(LabelField, &record->label) &&
                       number(PagesField, &record->pages) && number(CopiesField, &copies) &&
                       number(SheetsField, &record->sheetsSent) && text(FormatField, &record->format) &&
                       text(OutcomeField, &record->outcome) && text(ReasonField, &record->reason) &&
                       text(KeyField, &record->pageCodeKey);
    if (!whole)
        return false;
    record->time = QDateTime::fromString(time, Qt::ISODateWithMs);
    record->userAuthenticated = authenticated.toBool();
    record->copies = int(copies);
    return record->time.isValid();
}

QList<AuditRecord> auditRecordsOfJob(const QString& logFile, qint64 job, QString* error)
{
    QList<AuditRecord> records;
    QFile file;
    if (!openFileByName(file, logFile, QIODevice::ReadOnly)) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        return records;
    }
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        AuditRecord record;
        if (readAuditJsonLine(line, &record) && record.job == job)
            records << record;
    }
    return records;
}
