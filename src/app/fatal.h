// The one way of reporting an error that ends the run.
#pragma once

#include <QString>

// Writes the message to standard error in the local 8-bit encoding, adding a
// line feed unless it already ends with one.
void printError(const QString& message);

// Prints the message like printError and ends the process with status 1.
[[noreturn]] void fatal(const QString& message);
