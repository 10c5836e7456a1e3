// The bubblewrap command line of one sandboxed step and its resource bounds.
#include "sandbox/jobsandbox.h"

#include "common/paths.h"

#include <QFile>
#include <QFileInfo>

#include <climits>
#include <unistd.h>

namespace
{

// Top-level folders that merged-/usr systems keep as links into /usr and
// older ones as folders of their own.
const char* const RootFolders[] = {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"};

// What the programs of a step need of /etc and /var: the dynamic linker's
// cache, fonts and paper settings of the interpreter, time zone, and the
// account names that a site program may look up. Missing ones are skipped.
const char* const SystemFiles[] = {
    "/etc/ld.so.cache", "/etc/ld.so.conf",    "/etc/ld.so.conf.d",    "/etc/alternatives",    "/etc/fonts",
    "/etc/ghostscript", "/etc/papersize",     "/etc/paperspecs",      "/etc/localtime",       "/etc/passwd",
    "/etc/group",       "/etc/nsswitch.conf", "/var/lib/ghostscript", "/var/cache/fontconfig"};

// What directory look-ups need besides the network: name resolution, the
// Kerberos and FreeIPA client configuration and the host's keytab (readable
// only when the marking runs as root), and certificates.
const char* const NetworkFiles[] = {"/etc/resolv.conf",     "/etc/hosts",     "/etc/host.conf",
                                    "/etc/gai.conf",        "/etc/krb5.conf", "/etc/krb5.conf.d",
                                    "/etc/krb5.keytab",     "/etc/ipa",       "/etc/ssl",
                                    "/etc/ca-certificates", "/etc/pki"};

QByteArray encoded(const QString& path)
{
    return QFile::encodeName(path);
}

} // namespace

bool applyResourceLimits(const ResourceLimits& limits)
{
    const struct {
        int resource;
        rlim_t value;
    } bounds[] = {{RLIMIT_CPU, limits.cpuSeconds},
#ifndef QUILLET_SANITIZED
                  {RLIMIT_AS, limits.memoryBytes},
#endif
                  {RLIMIT_FSIZE, limits.fileBytes}};
    for (const auto& bound : bounds) {
        if (bound.value == 0)
            continue;
        const rlimit limit = {bound.value, bound.value};
        if (setrlimit(bound.resource, &limit) != 0)
            return false;
    }
    return true;
}

QString sandboxInput(const QString& name)
{
    return QLatin1String(SandboxInputFolder) + QLatin1Char('/') + name;
}

QString sandboxOutput(const QString& name)
{
    return QLatin1String(SandboxOutputFolder) + QLatin1Char('/') + name;
}

QList<QByteArray> sandboxCommand(const SandboxSpec& spec, const QList<QByteArray>& command)
{
    QList<QByteArray> arguments{QByteArray(BubblewrapPath)};
    // New namespaces of every kind (the network's only when look-ups are
    // off), no capabilities, no further namespaces inside, no terminal to
    // push input into, and an end with the backend.
    arguments << "--unshare-all";
    if (spec.network)
        arguments << "--share-net";
    arguments << "--die-with-parent"
              << "--new-session"
              << "--cap-drop"
              << "ALL"
              << "--disable-userns"
              << "--unshare-user";

    // The system, read-only.
    arguments << "--ro-bind"
              << "/usr"
              << "/usr";
    for (const char* folder : RootFolders) {
        char target[PATH_MAX];
        const ssize_t length = readlink(folder, target, sizeof target);
        if (length > 0 && size_t(length) < sizeof target)
            arguments << "--symlink" << QByteArray(target, int(length)) << folder;
        else if (QFileInfo(QLatin1String(folder)).isDir())
            arguments << "--ro-bind" << folder << folder;
    }
    for (const char* file : SystemFiles)
        arguments << "--ro-bind-try" << file << file;
    if (spec.network) {
        for (const char* file : NetworkFiles)
            arguments << "--ro-bind-try" << file << file;
    }
    arguments << "--proc"
              << "/proc"
              << "--dev"
              << "/dev"
              << "--tmpfs"
              << "/tmp";
    // After the private /tmp, which would hide what is bound below it.
    for (const QString& path : spec.systemPaths)
        arguments << "--ro-bind-try" << encoded(path) << encoded(path);

    // The job: its inputs read-only, its own folder to write.
    arguments << "--dir" << SandboxInputFolder;
    for (const auto& input : spec.inputFiles)
        arguments << "--ro-bind" << encoded(input.first) << encoded(sandboxInput(input.second));
    arguments << "--bind" << encoded(spec.outputFolder) << SandboxOutputFolder << "--chdir"
              << SandboxOutputFolder;

    arguments << "--";
    arguments << command;
    return arguments;
}
