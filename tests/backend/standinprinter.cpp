// The stand-in network printer: one thread, one connection at a time.
#include "standinprinter.h"

#include <QDir>
#include <QFile>

#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

// How long the listener waits in one poll, so that it sees a stop request.
constexpr int PollMs = 100;
// A connection that sends nothing for this long is taken as finished.
constexpr int IdleMs = 10000;

} // namespace

StandInPrinter::StandInPrinter(const QString& folder, int lifetimeMs)
    : m_folder(folder), m_lifetimeMs(lifetimeMs)
{
    QDir().mkpath(folder);
}

StandInPrinter::~StandInPrinter()
{
    stop();
}

bool StandInPrinter::start(QString* error)
{
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (m_listener < 0 || bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_listener, 8) != 0 ||
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        *error = QStringLiteral("the stand-in printer cannot listen on 127.0.0.1");
        return false;
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { serve(); });
    return true;
}

void StandInPrinter::stop()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
    if (m_listener >= 0)
        close(m_listener);
    m_listener = -1;
}

QString StandInPrinter::socketUri() const
{
    return QStringLiteral("socket://127.0.0.1:%1").arg(m_port);
}

QStringList StandInPrinter::jobs() const
{
    QStringList files;
    for (int n = 1; n <= m_saved; ++n)
        files.append(m_folder + QStringLiteral("/job-%1.prn").arg(n));
    return files;
}

void StandInPrinter::serve()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_lifetimeMs);
    while (!m_stop && std::chrono::steady_clock::now() < deadline) {
        pollfd listening = {m_listener, POLLIN, 0};
        if (poll(&listening, 1, PollMs) <= 0)
            continue;
        const int connection = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0)
            continue;
        QByteArray data;
        int idle = 0;
        while (!m_stop && idle < IdleMs) {
            pollfd reading = {connection, POLLIN, 0};
            if (poll(&reading, 1, PollMs) <= 0) {
                idle += PollMs;
                continue;
            }
            idle = 0;
            char buffer[65536];
            const ssize_t got = read(connection, buffer, sizeof buffer);
            if (got == 0 && m_holdOpen && !data.isEmpty()) {
                saveJob(data);
                data.clear();
                while (!m_stop && std::chrono::steady_clock::now() < deadline)
                    poll(nullptr, 0, PollMs);
            }
            if (got <= 0)
                break;
            data.append(buffer, int(got));
        }
        close(connection);
        saveJob(data);
    }
}

void StandInPrinter::saveJob(const QByteArray& data)
{
    // A connection without data (a probe) is not a job.
    if (data.isEmpty())
        return;
    const int number = m_saved + 1;
    QFile file(m_folder + QStringLiteral("/job-%1.prn").arg(number));
    if (file.open(QIODevice::WriteOnly) && file.write(data) == data.size()) {
        file.close();
        m_saved = number;
    }
}
