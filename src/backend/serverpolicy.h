// The operation policies of the print server's cupsd.conf: whether a queue's
// policy takes jobs from users who did not authenticate, and the policy that
// quillet-queue gives marked queues.
#pragma once

#include <QByteArray>
#include <QString>

// The policy that quillet-queue gives the queues it makes.
inline constexpr char MarkedQueuePolicy[] = "quillet";

// What the configuration says about submitting jobs under one policy.
struct SubmissionRule {
    // The policy's name as it applies (the server's DefaultPolicy for an
    // empty name).
    QString policy;
    // Whether cupsd.conf has a <Policy> block of that name.
    bool found = false;
    // Whether a user who did not authenticate may submit a job (Create-Job
    // or Print-Job): no <Limit> covers the operation, it requires nobody
    // (no Require line), or it asks for no authentication (AuthType None,
    // or Default with DefaultAuthType None) while any valid user will do.
    bool anonymous = true;
};

// Reads cupsd.conf for the rule of `policy` (empty: the server's default).
SubmissionRule submissionRule(const QByteArray& cupsdConf, const QString& policy);

// The operation policy of a queue in printers.conf (its OpPolicy line);
// empty when it names none, which means the server's DefaultPolicy.
QString queueOpPolicy(const QByteArray& printersConf, const QString& queue);

// The operation policy that the running print server applies to a queue
// (its printer-op-policy), asked over IPP of the server that CUPS_SERVER
// names (else the local one). printers.conf is saved up to half a minute
// after a change, so the running server is the one to ask. *asked is false,
// and the result empty, when the server did not say.
QString runningQueueOpPolicy(const QString& queue, bool* asked);

// Whether cupsd.conf holds a <Policy> block of that name.
bool hasPolicy(const QByteArray& cupsdConf, const QString& policy);

// cupsd.conf with the marked queues' policy added at its end: a job is taken
// only from an authenticated user, and a job's own operations from its owner
// and the administrators. It authenticates with the server's DefaultAuthType,
// or Basic when that is None.
QByteArray withMarkedQueuePolicy(const QByteArray& cupsdConf);
