// A file that the document filter writes: the output or the variables file.
#pragma once

#include <QBuffer>
#include <QByteArray>
#include <QFile>
#include <QString>

#include <condition_variable>
#include <mutex>
#include <thread>

// Writes one file of the run. Replaced as a whole, it is written to a
// temporary file beside it that commit() renames over it, so that a run that
// fails before leaves it as it was (the temporary file goes with this object);
// otherwise it is written in place. A special file such as /dev/full or a pipe
// cannot be replaced by renaming and is always written in place. A replaced
// file keeps the permissions of the one it replaces; a new one gets those
// that the umask leaves of 0666.
//
// Nothing is forced to the disk: the files are the print path's working
// files, which the print server makes again should the machine stop.
//
// What is written collects in memory and goes to the file in large writes,
// each one checked: by spill() once a mebibyte has gathered, and by flush().
// A spilled mebibyte is written by a thread of the object's own while the
// next one gathers; everything else waits for that write to end first.
class TargetFile
{
public:
    // Names the file; replaceWhole asks for the replacement by renaming.
    TargetFile(const QString& name, bool replaceWhole);
    // Removes the temporary file of a replacement that was not committed.
    ~TargetFile();

    TargetFile(const TargetFile&) = delete;
    TargetFile& operator=(const TargetFile&) = delete;

    // Opens the file (or its temporary file) for writing; false on failure.
    bool open(QIODevice::OpenMode mode);

    // The device to write to, once open: the collecting buffer.
    QIODevice& device();

    // Hands what has collected to the writing thread when it is a mebibyte
    // or more.
    void spill()
    {
        if (m_pending.size() >= SpillSize)
            writeInBackground();
    }

    // Appends the rest of an open file: what has collected goes out first,
    // then the file's bytes, copied by the kernel from file to file where
    // the two allow it, else read and written in pieces. A failure counts
    // as a failed write.
    void append(QFile& source);

    // Writes out what is buffered; false when any write so far failed.
    bool flush();

    // Ends the writing: closes the file and, when it is replaced as a whole,
    // renames the temporary file over it. False when anything failed, in
    // which case a file replaced as a whole is left as it was.
    bool commit();

private:
    static constexpr int SpillSize = 1 << 20;

    // Once the writing thread is done, writes the collected bytes to the
    // file and empties the buffer; a write that fails is remembered, and
    // nothing more goes to the file after it.
    void writePending();
    // Hands the collected bytes to the writing thread and empties the buffer.
    void writeInBackground();
    // Waits until the writing thread has written what it was handed.
    void waitForWriting();
    // The writing thread: writes each buffer it is handed.
    void writeHandedBuffers();
    // Appends the rest of a file through the buffer.
    void appendByPieces(QFile& source);

    bool m_replaceWhole;
    QByteArray m_name;          // the file's name, encoded for the system
    QByteArray m_temporaryName; // a replacement's temporary file, until renamed
    QFile m_file;               // the file written: the named or the temporary one
    QByteArray m_pending;
    QBuffer m_buffer;
    bool m_writeFailed = false; // also set by the writing thread, while it writes

    std::thread m_writer;               // started by the first spill
    std::mutex m_mutex;                 // guards the three members below
    std::condition_variable m_changed;
    QByteArray m_handed;                // the bytes the writing thread writes
    bool m_writing = false;             // true from hand-over to written
    bool m_closing = false;             // asks the writing thread to end
};
