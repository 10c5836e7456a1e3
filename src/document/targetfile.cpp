// A file that the document filter writes: in place, or replaced as a whole.
#include "document/targetfile.h"

#include <QFileInfo>

#include <cstdio>
#include <sys/stat.h>

TargetFile::TargetFile(const QString& name, bool replaceWhole)
    : m_replaceWhole(replaceWhole && (!QFileInfo::exists(name) || QFileInfo(name).isFile())),
      m_name(name),
      m_file(name),
      m_temporaryFile(name + QStringLiteral(".XXXXXX"))
{
    // Room for a full spill and the largest usual write after it; the
    // reservation keeps the memory when the buffer is emptied.
    m_pending.reserve(2 * SpillSize);
    m_buffer.setBuffer(&m_pending);
}

bool TargetFile::open(QIODevice::OpenMode mode)
{
    if (!m_replaceWhole) {
        if (!m_file.open(mode))
            return false;
    } else {
        // Made with permissions for the owner only, until it has its own.
        if (!m_temporaryFile.open())
            return false;
        mode_t permissions = 0;
        struct stat existing;
        if (::stat(QFile::encodeName(m_name).constData(), &existing) == 0) {
            permissions = existing.st_mode & 07777;
        } else {
            const mode_t mask = ::umask(0);
            ::umask(mask);
            permissions = 0666 & ~mask;
        }
        if (::fchmod(m_temporaryFile.handle(), permissions) != 0)
            return false;
    }
    return m_buffer.open(QIODevice::WriteOnly);
}

QIODevice& TargetFile::device()
{
    return m_buffer;
}

QFileDevice& TargetFile::file()
{
    if (m_replaceWhole)
        return m_temporaryFile;
    return m_file;
}

void TargetFile::writePending()
{
    if (!m_writeFailed && !m_pending.isEmpty())
        m_writeFailed = file().write(m_pending) != m_pending.size();
    m_pending.resize(0);
    m_buffer.seek(0);
}

bool TargetFile::flush()
{
    writePending();
    return !m_writeFailed && file().flush() && file().error() == QFileDevice::NoError;
}

bool TargetFile::commit()
{
    if (m_replaceWhole) {
        const bool written = flush();
        m_temporaryFile.close();
        if (!written || m_temporaryFile.error() != QFileDevice::NoError)
            return false;
        if (std::rename(QFile::encodeName(m_temporaryFile.fileName()).constData(),
                        QFile::encodeName(m_name).constData())
            != 0)
            return false;
        m_temporaryFile.setAutoRemove(false);
        return true;
    }
    const bool written = flush();
    m_file.close();
    return written && m_file.error() == QFileDevice::NoError;
}
