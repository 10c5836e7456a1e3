// The outcome of an operation that can end the run: success, or the message
// that main prints before it ends with status 1.
#pragma once

#include <QString>

// Success, or a failure holding its message, already translated. Operations
// return it instead of ending the process, so that only main prints and
// chooses the exit status, and a failed run is cleaned up on its way back.
class [[nodiscard]] Status
{
  public:
    // A success.
    Status() = default;

    // A failure whose message goes to standard error as it is.
    static Status failure(const QString& message)
    {
        Status status;
        status.m_failed = true;
        status.m_message = message;
        return status;
    }

    // Whether the operation succeeded.
    bool ok() const { return !m_failed; }

    // The failure's message; empty on success.
    QString message() const { return m_message; }

  private:
    bool m_failed = false;
    QString m_message;
};
