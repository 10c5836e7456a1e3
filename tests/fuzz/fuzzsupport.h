// Shared set-up of the libFuzzer targets: the private CUPS data directory they
// may write into, fresh singletons per input and a quiet message handler.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>

namespace Fuzz
{

// Environment variable and file that prove the CUPS data directory is this
// run's own scratch folder (bound there by tests/support/sandbox): the target
// writes catalogue files into it only when both hold the same token.
inline constexpr char TokenVariable[] = "QUILLET_FUZZ_TOKEN";
inline constexpr char TokenFile[] = ".fuzz-token";

// Checks the sandbox token (ends the process with a message when it does not
// match, before any file is touched), silences Qt's messages and empties the
// search path, so that a site program named by an input cannot be found.
void initialize();

// Gives the three process-wide singletons (store, marker model, font
// catalogue) the state of first use.
void resetSingletons();

// Absolute path below the CUPS data directory.
QString dataPath(const QString& relative);

// Writes a file below the CUPS data directory, creating its folders.
void writeDataFile(const QString& relative, const QByteArray& content);

// Writes the small fixture catalogue (glyph list, one charset, two fonts)
// into the CUPS data directory.
void installTinyCatalogue();

// Whether the input holds a reference that runs a program (a site script or
// the directory client). Such inputs are passed over: a fuzzer must not run
// whatever command its mutations spell.
bool runsPrograms(const uint8_t* data, size_t size);

} // namespace Fuzz
