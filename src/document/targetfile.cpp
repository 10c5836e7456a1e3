// A file that the document filter writes: in place, or replaced as a whole.
#include "document/targetfile.h"

#include "common/filename.h"

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <sys/stat.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

// The most bytes one kernel copy is asked for.
const size_t KernelCopyPiece = 1 << 30;

// Whether a failed kernel copy only says that these two files cannot be
// copied that way, so that reading and writing them can.
bool kernelCopyRefused(int error)
{
    return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == EBADF;
}

// Whether a file can be replaced by a new one under its name: it is a
// regular file, or there is none yet (a device or a folder is written in
// place, or not at all).
bool replaceable(const QByteArray& name)
{
    struct stat status;
    return ::stat(name.constData(), &status) != 0 || S_ISREG(status.st_mode);
}

} // namespace

TargetFile::TargetFile(const QString& name, bool replaceWhole)
    : m_replaceWhole(replaceWhole && replaceable(encodeFileName(name))), m_name(encodeFileName(name)),
      m_file(name)
{
    // Room for a full spill and the largest usual write after it; the
    // reservation keeps the memory when the buffer is emptied.
    m_pending.reserve(2 * SpillSize);
    m_buffer.setBuffer(&m_pending);
}

TargetFile::~TargetFile()
{
    if (m_writer.joinable()) {
        waitForWriting();
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_closing = true;
        }
        m_changed.notify_all();
        m_writer.join();
    }
    m_file.close();
    if (!m_temporaryName.isEmpty())
        ::unlink(m_temporaryName.constData());
}

bool TargetFile::open(QIODevice::OpenMode mode)
{
    if (!m_replaceWhole) {
        if (!openFileByName(m_file, m_file.fileName(), mode))
            return false;
    } else {
        // Made beside the file under a name of its own, with permissions for
        // the owner only until it has those of the file it replaces.
        QByteArray name = m_name + ".XXXXXX";
        const int descriptor = ::mkostemp(name.data(), O_CLOEXEC);
        if (descriptor == -1)
            return false;
        m_temporaryName = name;
        if (!m_file.open(descriptor, mode, QFileDevice::AutoCloseHandle)) {
            ::close(descriptor);
            return false;
        }
        mode_t permissions = 0;
        struct stat existing;
        if (::stat(m_name.constData(), &existing) == 0) {
            permissions = existing.st_mode & 07777;
        } else {
            const mode_t mask = ::umask(0);
            ::umask(mask);
            permissions = 0666 & ~mask;
        }
        if (::fchmod(descriptor, permissions) != 0)
            return false;
    }
    return m_buffer.open(QIODevice::WriteOnly);
}

QIODevice& TargetFile::device()
{
    return m_buffer;
}

void TargetFile::writePending()
{
    waitForWriting();
    if (!m_writeFailed && !m_pending.isEmpty())
        m_writeFailed = m_file.write(m_pending) != m_pending.size();
    m_pending.resize(0);
    m_buffer.seek(0);
}

void TargetFile::writeInBackground()
{
    waitForWriting();
    if (m_writeFailed) {
        m_pending.resize(0);
        m_buffer.seek(0);
        return;
    }
    if (!m_writer.joinable()) {
        try {
            m_writer = std::thread(&TargetFile::writeHandedBuffers, this);
        } catch (const std::system_error&) {
            // No thread to be had (a tight memory limit): written here.
            writePending();
            return;
        }
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_handed.swap(m_pending);
        m_writing = true;
    }
    m_changed.notify_all();
    // The buffer goes on in the storage of the bytes written before.
    m_pending.resize(0);
    m_pending.reserve(2 * SpillSize);
    m_buffer.seek(0);
}

void TargetFile::waitForWriting()
{
    if (!m_writer.joinable())
        return;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_writing; });
}

void TargetFile::writeHandedBuffers()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_writing || m_closing; });
        if (!m_writing)
            return;
        lock.unlock();
        // The other thread leaves the file and the failure flag alone until
        // this write has ended.
        if (m_file.write(m_handed) != m_handed.size())
            m_writeFailed = true;
        lock.lock();
        m_writing = false;
        m_changed.notify_all();
    }
}

void TargetFile::append(QFile& source)
{
    writePending();
    if (m_writeFailed)
        return;
    // Nothing may stay in the file's own buffer: the copy writes after it.
    if (!m_file.flush()) {
        m_writeFailed = true;
        return;
    }
    bool copied = false;
    for (;;) {
        const ssize_t size =
            ::copy_file_range(source.handle(), nullptr, m_file.handle(), nullptr, KernelCopyPiece, 0);
        if (size > 0) {
            copied = true;
            continue;
        }
        if (size == 0)
            return;
        if (errno == EINTR)
            continue;
        if (copied || !kernelCopyRefused(errno)) {
            m_writeFailed = true;
            return;
        }
        break;
    }
    appendByPieces(source);
}

void TargetFile::appendByPieces(QFile& source)
{
    QByteArray piece(1 << 16, Qt::Uninitialized);
    for (qint64 size = source.read(piece.data(), piece.size()); size > 0;
         size = source.read(piece.data(), piece.size())) {
        m_buffer.write(piece.constData(), size);
        spill();
    }
    if (source.error() != QFileDevice::NoError)
        m_writeFailed = true;
}

bool TargetFile::flush()
{
    writePending();
    return !m_writeFailed && m_file.flush() && m_file.error() == QFileDevice::NoError;
}

bool TargetFile::commit()
{
    const bool written = flush();
    m_file.close();
    if (!written || m_file.error() != QFileDevice::NoError)
        return false;
    if (!m_replaceWhole)
        return true;
    if (std::rename(m_temporaryName.constData(), m_name.constData()) != 0)
        return false;
    m_temporaryName.clear();
    return true;
}
