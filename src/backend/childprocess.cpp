// Starting, waiting for and ending the backend's child processes.
#include "backend/childprocess.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace
{

volatile sig_atomic_t cancelled = 0;

// How often a running child is looked at when the kernel cannot tell when
// it ends, and how long an ended child may take to exit after SIGTERM.
constexpr long PollNanoseconds = 20L * 1000 * 1000;
constexpr int GracePolls = 250;
// The longest wait for a child between looks at the job's cancellation.
// SIGTERM cuts the wait short; this only bounds the case where it came just
// before the wait began.
constexpr int CancelCheckMs = 100;

void onTerminate(int)
{
    cancelled = 1;
}

void waitAMoment()
{
    const timespec interval = {0, PollNanoseconds};
    nanosleep(&interval, nullptr);
}

// The child's standard error, read through a pipe and handed on line by
// line.
class ErrorLines
{
  public:
    explicit ErrorLines(const std::function<void(const QByteArray&)>& receiver) : m_receiver(receiver) {}
    ~ErrorLines()
    {
        for (int fd : m_pipe) {
            if (fd >= 0)
                close(fd);
        }
    }

    bool wanted() const { return bool(m_receiver); }
    bool open() { return pipe2(m_pipe, O_CLOEXEC) == 0; }
    // The child's end; the parent closes it once the child has it.
    int writeEnd() const { return m_pipe[1]; }
    void closeWriteEnd()
    {
        close(m_pipe[1]);
        m_pipe[1] = -1;
        fcntl(m_pipe[0], F_SETFL, O_NONBLOCK);
    }
    int readEnd() const { return m_pipe[0]; }

    // Hands on the complete lines that have come; at the end, the rest too.
    // False once the pipe has ended (no writer is left).
    bool readAvailable(bool atEnd)
    {
        char buffer[4096];
        bool open = true;
        for (;;) {
            const ssize_t got = read(m_pipe[0], buffer, sizeof buffer);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0) {
                open = got < 0 && errno == EAGAIN;
                break;
            }
            m_pending.append(buffer, int(got));
        }
        for (int end = m_pending.indexOf('\n'); end >= 0; end = m_pending.indexOf('\n')) {
            m_receiver(m_pending.left(end));
            m_pending.remove(0, end + 1);
        }
        if (atEnd && !m_pending.isEmpty()) {
            m_receiver(m_pending);
            m_pending.clear();
        }
        return open;
    }

  private:
    std::function<void(const QByteArray&)> m_receiver;
    int m_pipe[2] = {-1, -1};
    QByteArray m_pending;
};

// Waits until the child may have ended or written to the pipe `output`
// (-1 for none): on its process descriptor, which becomes readable the
// moment it exits, else a short while.
void waitForChild(int pidFd, int output)
{
    pollfd entries[2];
    nfds_t count = 0;
    if (pidFd >= 0)
        entries[count++] = {pidFd, POLLIN, 0};
    if (output >= 0)
        entries[count++] = {output, POLLIN, 0};
    if (pidFd < 0 && output < 0) {
        waitAMoment();
        return;
    }
    poll(entries, count, pidFd >= 0 ? CancelCheckMs : int(PollNanoseconds / 1000000));
}

std::vector<char*> pointers(QList<QByteArray>& strings)
{
    std::vector<char*> result;
    for (QByteArray& string : strings)
        result.push_back(string.data());
    result.push_back(nullptr);
    return result;
}

// In the child: reports errno through the pipe and leaves.
[[noreturn]] void failChild(int reportFd)
{
    const int error = errno;
    [[maybe_unused]] ssize_t written = write(reportFd, &error, sizeof error);
    _exit(127);
}

bool redirect(const QByteArray& file, int target)
{
    if (file.isEmpty())
        return true;
    const int fd = open(file.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    return dup2(fd, target) == target;
}

// Waits for a child that may already have ended; true when it has.
bool reap(pid_t pid, int* status, int polls)
{
    for (int i = 0; i < polls; ++i) {
        const pid_t done = waitpid(pid, status, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR))
            return true;
        waitAMoment();
    }
    return false;
}

} // namespace

void installCancelHandler()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onTerminate;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool cancelRequested()
{
    return cancelled != 0;
}

ChildResult runChild(const ChildCommand& command)
{
    ChildResult result;
    QList<QByteArray> arguments = command.arguments;
    QList<QByteArray> environment = command.environment;
    std::vector<char*> argv = pointers(arguments);
    std::vector<char*> envp = pointers(environment);

    ErrorLines errorLines(command.errorLines);
    if (errorLines.wanted() && !errorLines.open()) {
        result.error = QString::fromLocal8Bit(std::strerror(errno));
        return result;
    }
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        result.error = QString::fromLocal8Bit(std::strerror(errno));
        return result;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        result.error = QString::fromLocal8Bit(std::strerror(errno));
        close(report[0]);
        close(report[1]);
        return result;
    }
    if (pid == 0) {
        // The child: only async-signal-safe calls from here on.
        signal(SIGTERM, SIG_DFL);
        signal(SIGPIPE, SIG_DFL);
        setpgid(0, 0);
        const int input = command.standardInput >= 0 ? command.standardInput : open("/dev/null", O_RDONLY);
        if (input < 0 || dup2(input, 0) != 0)
            failChild(report[1]);
        if (!redirect(command.standardOutputFile, 1) ||
            !(errorLines.wanted() ? dup2(errorLines.writeEnd(), 2) == 2
                                  : redirect(command.standardErrorFile, 2)))
            failChild(report[1]);
        // Descriptors 3 and 4 are the print server's channels; the report
        // pipe closes itself on exec.
        for (int fd = 3; fd < 1024; ++fd) {
            if (fd != report[1] && (!command.keepChannels || fd > 4))
                close(fd);
        }
        if (command.changeAccount) {
            const gid_t gid = command.gid;
            if (setgroups(1, &gid) != 0 || setgid(command.gid) != 0 || setuid(command.uid) != 0)
                failChild(report[1]);
            if (command.uid != 0 && setuid(0) == 0) {
                errno = EPERM;
                failChild(report[1]);
            }
        }
        if (!applyResourceLimits(command.limits))
            failChild(report[1]);
        // After the change of account, which clears it.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(127);
        execve(command.program.constData(), argv.data(), envp.data());
        failChild(report[1]);
    }

    close(report[1]);
    if (errorLines.wanted())
        errorLines.closeWriteEnd();
    int output = errorLines.wanted() ? errorLines.readEnd() : -1;
    int childError = 0;
    ssize_t got;
    do {
        got = read(report[0], &childError, sizeof childError);
    } while (got < 0 && errno == EINTR);
    close(report[0]);

    // A descriptor of the child that tells when it ends (Linux 5.3 on).
    const int pidFd = int(syscall(SYS_pidfd_open, pid, 0));
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid)
            break;
        if (done < 0 && errno != EINTR) {
            result.error = QString::fromLocal8Bit(std::strerror(errno));
            if (pidFd >= 0)
                close(pidFd);
            return result;
        }
        if (cancelRequested()) {
            result.cancelled = true;
            kill(-pid, SIGTERM);
            if (!reap(pid, &status, GracePolls)) {
                kill(-pid, SIGKILL);
                reap(pid, &status, GracePolls);
            }
            break;
        }
        waitForChild(pidFd, output);
        if (output >= 0 && !errorLines.readAvailable(false))
            output = -1;
    }
    // What the child wrote last; a process that it left behind holding the
    // pipe is not waited for.
    if (errorLines.wanted())
        errorLines.readAvailable(true);
    if (pidFd >= 0)
        close(pidFd);
    if (got == sizeof childError) {
        result.error = QString::fromLocal8Bit(std::strerror(childError));
        return result;
    }
    result.started = true;
    if (WIFEXITED(status))
        result.exitStatus = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}
