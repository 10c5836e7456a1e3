// A file that the document filter writes: the output or the variables file.
#pragma once

#include <QFile>
#include <QSaveFile>
#include <QString>

// Writes one file of the run. Replaced as a whole, it is written to a
// temporary file beside it that commit() renames over it, so that a run that
// fails before leaves it as it was (the temporary file goes with this object);
// otherwise it is written in place. A special file such as /dev/full or a pipe
// cannot be replaced by renaming and is always written in place.
class TargetFile
{
public:
    // Names the file; replaceWhole asks for the replacement by renaming.
    TargetFile(const QString& name, bool replaceWhole);

    // Opens the file (or its temporary file) for writing; false on failure.
    bool open(QIODevice::OpenMode mode);

    // The device to write to, once open.
    QIODevice& device();

    // Writes out what is buffered; false when any write so far failed.
    bool flush();

    // Ends the writing: closes the file and, when it is replaced as a whole,
    // renames the temporary file over it. False when anything failed, in
    // which case a file replaced as a whole is left as it was.
    bool commit();

private:
    bool m_replaceWhole;
    QFile m_file;
    QSaveFile m_saveFile;
};
