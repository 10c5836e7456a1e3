// One job's audit record: what the print queue's backend writes for every
// job, whatever ended it, as one JSON object on a line of its own audit log
// (and to syslog), and what quillet-verify reads back. Every value a user
// chose (the name, the title, a reason quoting a file) stays inside a JSON
// string, so no user text can pose as a record or as a field of one.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

// The marker definitions' key that names another audit log.
inline constexpr char AuditLogSetting[] = "MarkerAuditLog";

// Outcomes of a job.
inline constexpr char AuditSent[] = "sent";
inline constexpr char AuditRefused[] = "refused";
inline constexpr char AuditCancelledBeforeSending[] = "cancelled-before-sending";
inline constexpr char AuditCancelledWhileSending[] = "cancelled-while-sending";
inline constexpr char AuditCancelledAfterSending[] = "cancelled-after-sending";
inline constexpr char AuditDeviceFailed[] = "device-failed";

struct AuditRecord {
    QDateTime time;
    // The print server's job id.
    qint64 job = 0;
    QString user;
    // Whether the print server required the user to authenticate to submit
    // the job (the queue's policy); otherwise the name is the one the client
    // claimed.
    bool userAuthenticated = false;
    QString queue;
    QString label;
    // Pages of one copy, copies, and the sheets whose data reached the real
    // backend.
    qint64 pages = 0;
    int copies = 0;
    qint64 sheetsSent = 0;
    // What the printer was sent: postscript, pdf, pwg-raster, urf, pcl.
    QString format;
    // One of the outcomes above, and why (refusals, failures).
    QString outcome;
    QString reason;
    // The identity of the site's page-code key; empty when codes are off.
    QString pageCodeKey;
};

// The record as one line of JSON, ending in a line feed.
QByteArray auditJsonLine(const AuditRecord& record);

// Reads one line of the log; false when it is not a whole record (not a
// JSON object, or a field missing or of the wrong type).
bool readAuditJsonLine(const QByteArray& line, AuditRecord* record);

// The records of a job in an audit log, in file order. Lines that are not
// records are passed over. Empty when the file cannot be read (*error set).
QList<AuditRecord> auditRecordsOfJob(const QString& logFile, qint64 job, QString* error);
