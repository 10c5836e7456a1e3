// A file that the document filter writes: in place, or replaced as a whole.
#include "document/targetfile.h"

#include <QFileInfo>

TargetFile::TargetFile(const QString& name, bool replaceWhole)
    : m_replaceWhole(replaceWhole && (!QFileInfo::exists(name) || QFileInfo(name).isFile())),
      m_file(name),
      m_saveFile(name)
{
    // Room for a full spill and the largest usual write after it; the
    // reservation keeps the memory when the buffer is emptied.
    m_pending.reserve(2 * SpillSize);
    m_buffer.setBuffer(&m_pending);
}

bool TargetFile::open(QIODevice::OpenMode mode)
{
    if (!(m_replaceWhole ? m_saveFile.open(mode) : m_file.open(mode)))
        return false;
    return m_buffer.open(QIODevice::WriteOnly);
}

QIODevice& TargetFile::device()
{
    return m_buffer;
}

QFileDevice& TargetFile::file()
{
    if (m_replaceWhole)
        return m_saveFile;
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
    if (m_replaceWhole)
        return flush() && m_saveFile.commit();
    const bool written = flush();
    m_file.close();
    return written && m_file.error() == QFileDevice::NoError;
}
