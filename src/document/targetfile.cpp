// A file that the document filter writes: in place, or replaced as a whole.
#include "document/targetfile.h"

#include <QFileInfo>

TargetFile::TargetFile(const QString& name, bool replaceWhole)
    : m_replaceWhole(replaceWhole && (!QFileInfo::exists(name) || QFileInfo(name).isFile())),
      m_file(name),
      m_saveFile(name)
{
}

bool TargetFile::open(QIODevice::OpenMode mode)
{
    return m_replaceWhole ? m_saveFile.open(mode) : m_file.open(mode);
}

QIODevice& TargetFile::device()
{
    if (m_replaceWhole)
        return m_saveFile;
    return m_file;
}

bool TargetFile::flush()
{
    QFileDevice& file = m_replaceWhole ? static_cast<QFileDevice&>(m_saveFile) : m_file;
    return file.flush() && file.error() == QFileDevice::NoError;
}

bool TargetFile::commit()
{
    if (m_replaceWhole)
        return m_saveFile.commit();
    const bool written = flush();
    m_file.close();
    return written && m_file.error() == QFileDevice::NoError;
}
