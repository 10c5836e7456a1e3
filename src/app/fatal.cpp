// Error reporting on standard error.
#include "app/fatal.h"

#include <cstdio>
#include <cstdlib>

void printError(const QString& message)
{
    QByteArray bytes = message.toLocal8Bit();
    if (!bytes.endsWith('\n'))
        bytes.append('\n');
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
}

void fatal(const QString& message)
{
    printError(message);
    std::exit(1);
}
