// Printing the message of a failed run on standard error.
#include "app/printerror.h"

#include "common/filename.h"

#include <cstdio>

void printError(const QString& message)
{
    // A file name in the message is written as the bytes it was given as.
    QByteArray bytes = encodeFileName(message);
    if (!bytes.endsWith('\n'))
        bytes.append('\n');
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
}
