// Opening a file that must be a regular file.
#include "common/regularfile.h"

#include "common/filename.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

RegularFileOpen openRegularFile(QFile& file)
{
    // O_NONBLOCK: opening a FIFO for reading returns at once instead of
    // waiting for a writer. The type is then told from the open descriptor,
    // so the file looked at is the file read.
    const int descriptor =
        ::open(encodeFileName(file.fileName()).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return RegularFileOpen::Failed;
    struct stat status;
    if (::fstat(descriptor, &status) != 0 || S_ISDIR(status.st_mode)) {
        ::close(descriptor);
        return RegularFileOpen::Failed;
    }
    if (!S_ISREG(status.st_mode)) {
        ::close(descriptor);
        return RegularFileOpen::NotRegular;
    }
    ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
    if (!file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(descriptor);
        return RegularFileOpen::Failed;
    }
    return RegularFileOpen::Opened;
}
