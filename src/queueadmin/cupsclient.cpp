// The print server as libcups shows it.
#include "queueadmin/cupsclient.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryFile>
#include <QThread>

#include <cups/cups.h>
#include <cups/ppd.h>

// A queue's PPD is what PostScript queues of this CUPS release are made
// with; the deprecation note of cupsGetPPD3 points at driverless queues.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace
{

// What quillet-queue wants to know of a queue.
const char* const QueueAttributes[] = {
    "printer-name",         "device-uri", "printer-op-policy", "printer-state", "printer-is-accepting-jobs",
    "printer-state-message"};

QString lastError()
{
    return QString::fromUtf8(cupsLastErrorString());
}

ipp_t* newQueueRequest(ipp_op_t operation)
{
    ipp_t* request = ippNewRequest(operation);
    ippAddStrings(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes",
                  int(sizeof QueueAttributes / sizeof QueueAttributes[0]), nullptr, QueueAttributes);
    return request;
}

QString text(ipp_attribute_t* attribute)
{
    return QString::fromUtf8(ippGetString(attribute, 0, nullptr));
}

// Reads the attributes of one printer group of a response, from `attribute`
// on; returns the first attribute after the group.
ipp_attribute_t* readQueue(ipp_t* response, ipp_attribute_t* attribute, ServerQueue* queue)
{
    for (; attribute && ippGetGroupTag(attribute) == IPP_TAG_PRINTER;
         attribute = ippNextAttribute(response)) {
        const QByteArray name = ippGetName(attribute);
        if (name == "printer-name")
            queue->name = text(attribute);
        else if (name == "device-uri")
            queue->deviceUri = text(attribute);
        else if (name == "printer-op-policy")
            queue->opPolicy = text(attribute);
        else if (name == "printer-state")
            queue->state = ippGetInteger(attribute, 0);
        else if (name == "printer-is-accepting-jobs")
            queue->acceptingJobs = ippGetBoolean(attribute, 0) != 0;
        else if (name == "printer-state-message")
            queue->stateMessage = text(attribute);
    }
    return attribute;
}

} // namespace

bool fetchQueue(const QString& name, ServerQueue* queue, QString* error)
{
    char uri[HTTP_MAX_URI];
    httpAssembleURIf(HTTP_URI_CODING_ALL, uri, sizeof uri, "ipp", nullptr, "localhost", 0, "/printers/%s",
                     name.toUtf8().constData());
    ipp_t* request = newQueueRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, uri);
    ipp_t* response = cupsDoRequest(CUPS_HTTP_DEFAULT, request, "/");
    const ipp_status_t status = cupsLastError();
    bool found = false;
    error->clear();
    if (status == IPP_STATUS_ERROR_NOT_FOUND) {
        found = false;
    } else if (!response || status > IPP_STATUS_OK_EVENTS_COMPLETE) {
        *error = lastError();
    } else {
        ipp_attribute_t* attribute = ippFirstAttribute(response);
        while (attribute && ippGetGroupTag(attribute) != IPP_TAG_PRINTER)
            attribute = ippNextAttribute(response);
        *queue = ServerQueue();
        readQueue(response, attribute, queue);
        found = !queue->name.isEmpty();
    }
    ippDelete(response);
    return found;
}

bool fetchQueues(QList<ServerQueue>* queues, QString* error)
{
    ipp_t* response = cupsDoRequest(CUPS_HTTP_DEFAULT, newQueueRequest(IPP_OP_CUPS_GET_PRINTERS), "/");
    const ipp_status_t status = cupsLastError();
    queues->clear();
    // A server without queues answers "not found".
    if (status == IPP_STATUS_ERROR_NOT_FOUND) {
        ippDelete(response);
        return true;
    }
    if (!response || status > IPP_STATUS_OK_EVENTS_COMPLETE) {
        *error = lastError();
        ippDelete(response);
        return false;
    }
    ipp_attribute_t* attribute = ippFirstAttribute(response);
    while (attribute) {
        if (ippGetGroupTag(attribute) != IPP_TAG_PRINTER) {
            attribute = ippNextAttribute(response);
            continue;
        }
        ServerQueue queue;
        attribute = readQueue(response, attribute, &queue);
        if (!queue.name.isEmpty())
            queues->append(queue);
    }
    ippDelete(response);
    return true;
}

QString fetchQueuePpd(const QString& name)
{
    char file[1024] = "";
    time_t modified = 0;
    if (cupsGetPPD3(CUPS_HTTP_DEFAULT, name.toUtf8().constData(), &modified, file, sizeof file) !=
        HTTP_STATUS_OK)
        return QString();
    return QFile::decodeName(file);
}

bool fetchServerFile(const QString& resource, QByteArray* content, QString* error)
{
    QTemporaryFile file;
    if (!file.open()) {
        *error = file.errorString();
        return false;
    }
    const http_status_t status = cupsGetFd(CUPS_HTTP_DEFAULT, resource.toUtf8().constData(), file.handle());
    if (status != HTTP_STATUS_OK) {
        *error = QStringLiteral("%1: %2").arg(resource, QString::fromUtf8(httpStatus(status)));
        return false;
    }
    file.seek(0);
    *content = file.readAll();
    return true;
}

bool putServerFile(const QString& resource, const QByteArray& content, QString* error)
{
    QTemporaryFile file;
    if (!file.open() || file.write(content) != content.size() || !file.flush()) {
        *error = file.errorString();
        return false;
    }
    file.seek(0);
    const http_status_t status = cupsPutFd(CUPS_HTTP_DEFAULT, resource.toUtf8().constData(), file.handle());
    if (status != HTTP_STATUS_OK && status != HTTP_STATUS_CREATED) {
        *error = QStringLiteral("%1: %2").arg(resource, QString::fromUtf8(httpStatus(status)));
        return false;
    }
    return true;
}

bool waitForServer(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    // The server first finishes the request that restarted it; a new
    // connection then reaches the restarted server.
    QThread::msleep(500);
    while (timer.elapsed() < timeoutMs) {
        http_t* http =
            httpConnect2(cupsServer(), ippPort(), nullptr, AF_UNSPEC, cupsEncryption(), 1, 1000, nullptr);
        if (http) {
            ipp_t* response = cupsDoRequest(http, ippNewRequest(IPP_OP_CUPS_GET_DEFAULT), "/");
            const ipp_status_t status = cupsLastError();
            ippDelete(response);
            httpClose(http);
            if (status <= IPP_STATUS_OK_EVENTS_COMPLETE || status == IPP_STATUS_ERROR_NOT_FOUND)
                return true;
        }
        QThread::msleep(250);
    }
    return false;
}

int printFile(const QString& queue, const QString& file, const QString& title, QString* error)
{
    const int id =
        cupsPrintFile2(CUPS_HTTP_DEFAULT, queue.toUtf8().constData(), QFile::encodeName(file).constData(),
                       title.toUtf8().constData(), 0, nullptr);
    if (id <= 0)
        *error = lastError();
    return id;
}

int jobState(const QString& queue, int id)
{
    cups_job_t* jobs = nullptr;
    const int count =
        cupsGetJobs2(CUPS_HTTP_DEFAULT, &jobs, queue.toUtf8().constData(), 0, CUPS_WHICHJOBS_ALL);
    int state = 0;
    for (int i = 0; i < count; ++i) {
        if (jobs[i].id == id)
            state = int(jobs[i].state);
    }
    cupsFreeJobs(count, jobs);
    return state;
}
