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

// Waits until the child may have ended: on its process descriptor, which
// becomes readable the moment it exits, else a short while.
void waitForChild(int pidFd)
{
    if (pidFd < 0) {
        waitAMoment();
        return;
    }
    pollfd entry = {pidFd, POLLIN, 0};
    poll(&entry, 1, CancelCheckMs);
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
        if (!redirect(command.standardOutputFile, 1) || !redirect(command.standardErrorFile, 2))
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
        waitForChild(pidFd);
    }
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
