// Printing the message of a failed run on standard error.
#pragma once

#include <QString>

// Writes the message to standard error in the local 8-bit encoding, adding a
// line feed unless it already ends with one.
void printError(const QString& message);
