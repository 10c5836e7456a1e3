// Support of the font tests: a private CUPS data directory for every font
// test binary and catalogue files written into it.
//
// The font catalogue is read from fixed paths under the CUPS data directory,
// exactly as in production. So that no test ever reads or writes the host's
// directory, every font test binary runs inside a private mount namespace:
//
//   1. Started normally (by CTest or by hand), main() makes a scratch folder,
//      drops a random token file into it and starts the same binary again,
//      with the same arguments, through tests/support/sandbox, the scratch
//      folder bound onto the CUPS data directory and the token in the
//      environment.
//   2. The second run finds the token both in its environment and in the CUPS
//      data directory, so it knows the directory is its own scratch folder.
//      Only then does it run the test cases, which write each case's
//      catalogue straight into the CUPS data directory and call the real
//      Fonts::initialize. A token that does not match stops the run before
//      any file is touched.
//
// Child processes started by a test (a second copy of the binary, gs) inherit
// the namespace and the token, and see the same catalogue.
//
// Use QUILLET_FONTS_TEST_MAIN(TestClass) in place of QTEST_GUILESS_MAIN, or
// QUILLET_FONTS_TEST_MAIN_WITH_HELPER(TestClass, helper) for a binary whose
// tests need fresh processes (see FontSandbox::main).
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <functional>

namespace FontSandbox {

// Runs `tests` inside the sandbox (see above); returns the exit status. A
// binary that gives a `helper` can start copies of itself inside the same
// sandbox with helperArguments(...): such a copy runs `helper` with those
// arguments instead of the tests, as a fresh process.
int main(int argc, char* argv[], const std::function<int(int, char**)>& tests,
         const std::function<int(const QStringList&)>& helper = {});

// Runs a copy of this binary as a helper (see main) and returns what it left.
struct HelperResult
{
    int exitCode = -1;
    QByteArray standardOutput;
    QByteArray standardError;
};
HelperResult runHelper(const QStringList& arguments);

// Absolute path below the CUPS data directory.
QString cataloguePath(const QString& relative);

// Empties the CUPS data directory (the scratch folder) and gives Fonts a
// fresh, empty catalogue.
void clearCatalogue();

// Writes one catalogue file below the CUPS data directory, creating folders.
void writeCatalogueFile(const QString& relative, const QByteArray& content);

// Creates an empty folder below the CUPS data directory.
void makeCatalogueFolder(const QString& relative);

// Copies the default catalogue of the build tree into the CUPS data directory.
void installDefaultCatalogue();

// Copies a file of tests/fonts/data into the CUPS data directory.
void installDataFile(const QString& dataFile, const QString& relative);

// Contents of a file of tests/fonts (data/..., golden/...).
QByteArray testFile(const QString& relative);
QString testFilePath(const QString& relative);

} // namespace FontSandbox

#define QUILLET_FONTS_TEST_MAIN_WITH_HELPER(TestObject, helper)                                              \
    int main(int argc, char* argv[])                                                                         \
    {                                                                                                        \
        return FontSandbox::main(                                                                            \
            argc, argv,                                                                                      \
            [](int count, char** arguments) {                                                                \
                QCoreApplication app(count, arguments);                                                      \
                TestObject test;                                                                             \
                QTEST_SET_MAIN_SOURCE_PATH                                                                   \
                return QTest::qExec(&test, count, arguments);                                                \
            },                                                                                               \
            helper);                                                                                         \
    }

#define QUILLET_FONTS_TEST_MAIN(TestObject) QUILLET_FONTS_TEST_MAIN_WITH_HELPER(TestObject, nullptr)
