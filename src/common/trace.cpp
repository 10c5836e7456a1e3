// The debug trace sink: accepts composed messages and prints nothing.
#include "common/trace.h"

void trace(const QString& message)
{
    Q_UNUSED(message);
}
