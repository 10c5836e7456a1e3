// A stand-in network printer for the print queue tests: listens on a free
// port of 127.0.0.1 and saves every connection's data as one job file.
#pragma once

#include <QString>
#include <QStringList>

#include <atomic>
#include <thread>

class StandInPrinter
{
  public:
    // Jobs are saved as <folder>/job-<n>.prn; the printer stops by itself
    // after lifetimeMs.
    StandInPrinter(const QString& folder, int lifetimeMs);
    ~StandInPrinter();

    StandInPrinter(const StandInPrinter&) = delete;
    StandInPrinter& operator=(const StandInPrinter&) = delete;

    // Keeps every connection open after the job's data ended, as a printer
    // does while it prints (until stop()); the job is saved at once.
    void holdConnectionsOpen() { m_holdOpen = true; }

    // Starts listening; false with *error set when no port could be had.
    bool start(QString* error);

    // Stops listening and waits for the listener to end.
    void stop();

    // The port it listens on.
    int port() const { return m_port; }

    // The device URI of the printer for CUPS's socket backend.
    QString socketUri() const;

    // The saved jobs, in the order they arrived.
    QStringList jobs() const;

  private:
    void serve();
    void saveJob(const QByteArray& data);

    QString m_folder;
    int m_lifetimeMs;
    int m_listener = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    bool m_holdOpen = false;
    std::atomic<int> m_saved{0};
    std::thread m_thread;
};
