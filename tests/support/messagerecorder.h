// A recorder of the messages that the code under test sends to the logging
// facility (qDebug, qWarning, ...).
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// Records every message sent to the logging facility while it lives, with
// its type, in the order they came. Installs its own handler and restores the
// previous one on stop() or destruction, whichever comes first. Recorders may
// nest: the inner one records until it stops, then the outer one again.
class MessageRecorder
{
public:
    struct Message
    {
        QtMsgType type;
        QString text;
    };

    MessageRecorder();
    ~MessageRecorder();
    MessageRecorder(const MessageRecorder&) = delete;
    MessageRecorder& operator=(const MessageRecorder&) = delete;

    // Restores the previous handler now; later messages are not recorded.
    void stop();

    // Every message as "warning: text", "debug: text" ...
    QStringList messages() const;
    // The texts of every message, whatever its type.
    QStringList texts() const;
    // The texts of the messages of one type.
    QStringList texts(QtMsgType type) const;
    // How many messages of another type than `type` there were.
    int countOtherThan(QtMsgType type) const;

private:
    static void record(QtMsgType type, const QMessageLogContext& context, const QString& text);

    QList<Message> m_messages;
    QtMessageHandler m_previous = nullptr;
    MessageRecorder* m_outer = nullptr;
    bool m_recording = false;
};
