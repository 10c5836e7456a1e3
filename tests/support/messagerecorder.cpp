// A recorder of the messages sent to the logging facility.
#include "support/messagerecorder.h"

#include <QMutex>
#include <QMutexLocker>

namespace {

QMutex recorderMutex;
MessageRecorder* activeRecorder = nullptr;

} // namespace

MessageRecorder::MessageRecorder()
{
    QMutexLocker lock(&recorderMutex);
    m_outer = activeRecorder;
    activeRecorder = this;
    m_previous = qInstallMessageHandler(record);
    m_recording = true;
}

MessageRecorder::~MessageRecorder()
{
    stop();
}

void MessageRecorder::stop()
{
    QMutexLocker lock(&recorderMutex);
    if (!m_recording)
        return;
    m_recording = false;
    qInstallMessageHandler(m_previous);
    activeRecorder = m_outer;
}

void MessageRecorder::record(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    QMutexLocker lock(&recorderMutex);
    if (activeRecorder)
        activeRecorder->m_messages.append({type, text});
}

QStringList MessageRecorder::messages() const
{
    static const char* const names[] = {"debug", "warning", "critical", "fatal", "info"};
    QMutexLocker lock(&recorderMutex);
    QStringList lines;
    for (const Message& message : m_messages)
        lines << QLatin1String(names[message.type]) + QLatin1String(": ") + message.text;
    return lines;
}

QStringList MessageRecorder::texts() const
{
    QMutexLocker lock(&recorderMutex);
    QStringList lines;
    for (const Message& message : m_messages)
        lines << message.text;
    return lines;
}

QStringList MessageRecorder::texts(QtMsgType type) const
{
    QMutexLocker lock(&recorderMutex);
    QStringList lines;
    for (const Message& message : m_messages) {
        if (message.type == type)
            lines << message.text;
    }
    return lines;
}

int MessageRecorder::countOtherThan(QtMsgType type) const
{
    QMutexLocker lock(&recorderMutex);
    int count = 0;
    for (const Message& message : m_messages) {
        if (message.type != type)
            ++count;
    }
    return count;
}
