// What quillet-queue asks the print server, through libcups: its queues and
// their attributes, a queue's PPD, its configuration and log files, jobs.
// libcups talks to the server that CUPS_SERVER names, else the default one.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

// IPP printer states.
constexpr int QueueIdle = 3;
constexpr int QueueProcessing = 4;
constexpr int QueueStopped = 5;

// A queue as the print server reports it.
struct ServerQueue {
    QString name;
    QString deviceUri;
    // The queue's operation policy (printer-op-policy); empty when the
    // server gives none, which means its DefaultPolicy.
    QString opPolicy;
    int state = 0;
    bool acceptingJobs = false;
    QString stateMessage;
};

// Asks for one queue. Returns false with *error empty when the server has no
// such queue, and with *error set when it could not be asked.
bool fetchQueue(const QString& name, ServerQueue* queue, QString* error);

// Every queue of the server; false with *error set when it could not be asked.
bool fetchQueues(QList<ServerQueue>* queues, QString* error);

// Copies the queue's PPD into a new temporary file whose name it returns
// (the caller removes it); empty when the queue has none.
QString fetchQueuePpd(const QString& name);

// Reads one of the server's files by its resource ("/admin/conf/cupsd.conf",
// "/admin/log/error_log"); false with *error set when it cannot.
bool fetchServerFile(const QString& resource, QByteArray* content, QString* error);

// Replaces one of the server's files ("/admin/conf/cupsd.conf"); the server
// restarts with it. False with *error set when it refused.
bool putServerFile(const QString& resource, const QByteArray& content, QString* error);

// Waits until the server answers again after a restart, at most timeoutMs.
bool waitForServer(int timeoutMs);

// Prints a file on a queue; returns the job id, or 0 with *error set.
int printFile(const QString& queue, const QString& file, const QString& title, QString* error);

// The IPP state of a job (3 pending ... 9 completed); 0 when unknown.
int jobState(const QString& queue, int id);
