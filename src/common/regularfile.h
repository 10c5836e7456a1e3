// Opening a file that must be a regular file: a FIFO, a device or a socket
// named where a file is expected is refused instead of being waited on.
#pragma once

class QFile;

// What opening a file for reading came to.
enum class RegularFileOpen {
    Opened,     // the file is open for reading
    NotRegular, // it exists but is a FIFO, a device or a socket; nothing was opened
    Failed      // it could not be opened (missing, unreadable, a folder)
};

// Opens the file named by `file` read-only, without ever blocking on a FIFO
// that has no writer, and keeps it open only when it is a regular file.
RegularFileOpen openRegularFile(QFile& file);
