// Running an outside program with a time limit and an output limit.
#include "common/boundedprocess.h"

#include <QElapsedTimer>
#include <QFile>

#include <algorithm>
#include <iterator>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace
{

// How long one wait for output lasts before the program's state is looked
// at again; once its output has ended, the program is about to end too and
// is looked at more often, so that a quick program costs no extra wait.
constexpr int PollStepMs = 50;
constexpr int EndedOutputStepMs = 1;
constexpr int ReadChunk = 65536;

// Reads what the pipe holds now into the output, up to the limit. Returns
// false at the end of the output (every writer closed the pipe).
bool readAvailable(int descriptor, BoundedRun& run, int outputLimit)
{
    char buffer[ReadChunk];
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
        if (count > 0) {
            const int room = outputLimit - run.output.size();
            run.output.append(buffer, std::min(int(count), room));
            if (run.output.size() >= outputLimit) {
                run.outputCut = true;
                return true;
            }
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        return count != 0;
    }
}

// Whether the program has ended; it is left unreaped, so that its process
// id, which is also its group's id, cannot be taken by another process yet.
bool hasEnded(pid_t pid)
{
    siginfo_t info{};
    while (::waitid(P_PID, id_t(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        if (errno != EINTR)
            return true;
    }
    return info.si_pid == pid;
}

// The process group of the program that runs now, for the signal handler.
volatile sig_atomic_t runningGroup = 0;

// Signals that end quillet (the print server cancels a job with SIGTERM).
constexpr int EndingSignals[] = {SIGTERM, SIGINT, SIGHUP};

// Ends the running program's group with quillet, so that a cancelled job
// leaves no site program behind, then ends quillet as the signal would have.
void endWithGroup(int signalNumber)
{
    if (runningGroup > 0)
        ::kill(-pid_t(runningGroup), SIGKILL);
    ::signal(signalNumber, SIG_DFL);
    ::raise(signalNumber);
}

// Installs endWithGroup for the ending signals while one program runs and
// puts the earlier handlers back afterwards.
class GroupGuard
{
  public:
    explicit GroupGuard(pid_t group)
    {
        runningGroup = group;
        struct sigaction action {};
        action.sa_handler = endWithGroup;
        sigemptyset(&action.sa_mask);
        for (int i = 0; i < int(std::size(EndingSignals)); ++i)
            ::sigaction(EndingSignals[i], &action, &m_previous[i]);
    }
    ~GroupGuard()
    {
        for (int i = 0; i < int(std::size(EndingSignals)); ++i)
            ::sigaction(EndingSignals[i], &m_previous[i], nullptr);
        runningGroup = 0;
    }
    GroupGuard(const GroupGuard&) = delete;
    GroupGuard& operator=(const GroupGuard&) = delete;

  private:
    struct sigaction m_previous[std::size(EndingSignals)];
};

} // namespace

BoundedRun runBounded(const QString& program, const QStringList& arguments, int timeoutMs, int outputLimit)
{
    BoundedRun run;

    // Everything the child needs is made before it is started.
    const QByteArray file = QFile::encodeName(program);
    QList<QByteArray> words{file};
    for (const QString& argument : arguments)
        words.append(QFile::encodeName(argument));
    std::vector<char*> argv;
    for (QByteArray& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0)
        return run;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t noSignals;
    sigemptyset(&noSignals);
    posix_spawnattr_setsigmask(&attributes, &noSignals);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);

    // The ending signals wait while the program is started, so that a job
    // cancelled in that moment still finds its group to end.
    sigset_t ending, previousMask;
    sigemptyset(&ending);
    for (const int signalNumber : EndingSignals)
        sigaddset(&ending, signalNumber);
    ::sigprocmask(SIG_BLOCK, &ending, &previousMask);
    pid_t pid = -1;
    const int spawned = ::posix_spawnp(&pid, file.constData(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(pipe[1]);
    if (spawned != 0) {
        ::sigprocmask(SIG_SETMASK, &previousMask, nullptr);
        ::close(pipe[0]);
        return run;
    }
    run.started = true;
    const GroupGuard guard(pid);
    ::sigprocmask(SIG_SETMASK, &previousMask, nullptr);
    ::fcntl(pipe[0], F_SETFL, ::fcntl(pipe[0], F_GETFL) | O_NONBLOCK);

    // Read while the program runs; a grandchild that keeps the pipe open
    // does not keep the run going once the program itself has ended.
    QElapsedTimer timer;
    timer.start();
    bool open = true;
    for (;;) {
        if (hasEnded(pid)) {
            if (open)
                readAvailable(pipe[0], run, outputLimit);
            break;
        }
        const qint64 remaining = timeoutMs - timer.elapsed();
        if (remaining <= 0) {
            run.timedOut = true;
            break;
        }
        pollfd watch{pipe[0], POLLIN, 0};
        const int step = int(std::min<qint64>(remaining, open ? PollStepMs : EndedOutputStepMs));
        if (::poll(&watch, open ? 1 : 0, step) > 0)
            open = readAvailable(pipe[0], run, outputLimit);
        if (run.outputCut)
            break;
    }

    // End whatever is left of the group, the program first among them if it
    // still runs, then reap the program.
    ::kill(-pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    ::close(pipe[0]);
    return run;
}
