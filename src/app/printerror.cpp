// Printing the message of a failed run on standard error.
#include "app/printerror.h"

#include <cstdio>

void printError(const QString& message)
{
    QByteArray bytes = message.toLocal8Bit();
    if (!bytes.endsWith('\n'))
        bytes.append('\n');
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
}
