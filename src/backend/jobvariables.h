// The variables file that quillet gets for one copy of a job.
#pragma once

#include "backend/queuesettings.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

// What the print server says about a job, as the backend collects it.
struct JobFacts {
    QString jobId;
    // The user who submitted the job (the backend's second argument), and
    // whether the print server made them authenticate to do so.
    QString user;
    bool userVerified = true;
    QString title;
    QString printer;
    int copies = 1;
    // PAGE_FORMAT, DEVICEWIDTH and DEVICEHEIGHT.
    QString pageFormat;
    QString deviceWidth;
    QString deviceHeight;
    bool landscape = false;
    // The job's options (the backend's fifth argument), in order.
    KeyValueList options;
    // The key file of this job's page codes, derived by the backend from
    // the site key; empty when the site makes no page codes.
    QString pageCodeKeyFile;
};

// What the marks add to a user name that the print server did not verify.
inline constexpr char UnverifiedUserMark[] = " (unverified)";

// Keys that the backend or quillet itself sets: a job option never
// supplies them, whatever MarkerJobOptions says.
const QStringList& reservedVariableKeys();

// A value as it may stand in a variables file: line breaks and NUL bytes
// removed.
QString cleanValue(const QString& value);

// Parses the backend's options argument ("name=value name2 ...") the way
// the print server writes it.
KeyValueList parseJobOptions(const QByteArray& options);

// Whether the job asks for a landscape page ("landscape", or
// "orientation-requested" 4 or 5).
bool isLandscape(const KeyValueList& options);

// The "key=value" lines (UTF-8) for copy `copy` (1..copies): the backend's
// own keys, then the job options that the queue allows, then the queue's
// variables, so that a later line wins in quillet's store; last, when the
// job has one, the job's page-code key file (MarkerPageCodeJobKey).
QByteArray jobVariables(const JobFacts& job, const QueueSettings& queue, int copy);

// The keys that hold a job's security label, in the order in which the
// audit line takes the first non-empty one.
const QStringList& securityLabelKeys();

// The security label of a job as it will be marked: the first non-empty of
// LABEL_NAME, LABEL_NAME_FULL, LEVEL_NAME and mac-job-mac-level-name among
// the pairs (the last occurrence of a key counting).
QString securityLabel(const KeyValueList& variables);
