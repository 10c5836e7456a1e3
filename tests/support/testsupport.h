// Shared helpers of the tests: fixture trees shaped like the print server's
// folders, runs of the real quillet executable inside them, and file helpers.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// What a finished process left behind.
struct RunResult {
    int exitCode = -1;
    bool crashed = false;
    QByteArray standardOutput;
    QByteArray standardError;
};

// A private folder holding stand-ins for the print server's folders:
//   etc-cups/      bound onto the CUPS configuration directory
//   share-cups/    bound onto the CUPS data directory
//   translations/  bound onto the program's translations directory
//   job/           the job's own files (input, template, variables, output)
// Each starts empty; the test writes what the case needs.
class FixtureTree
{
  public:
    FixtureTree();

    QString root() const { return m_dir.path(); }
    QString etcCups() const { return path(QStringLiteral("etc-cups")); }
    QString shareCups() const { return path(QStringLiteral("share-cups")); }
    QString translations() const { return path(QStringLiteral("translations")); }
    QString job() const { return path(QStringLiteral("job")); }
    // The folder that stands for the audit log's folder in the sandbox.
    QString auditLogFolder() const { return path(QStringLiteral("audit-log")); }

    // Absolute path of a file or folder below the root.
    QString path(const QString& relative) const;

    // Writes a file below the root, creating its folders; returns its path.
    QString write(const QString& relative, const QByteArray& content) const;

    // Copies a file or a whole folder into the tree; returns the new path.
    QString copy(const QString& source, const QString& relative) const;

    // Reads a file below the root (empty when it cannot be read).
    QByteArray read(const QString& relative) const;

    // Whether a file or folder exists below the root.
    bool exists(const QString& relative) const;

    // Copies the default font catalogue (catalogueDir(), shipped marker
    // definitions included) into share-cups/; returns share-cups/.
    QString installCatalogue() const;

    // Runs the built quillet with the arguments inside the sandbox, the three
    // stand-in folders bound onto the real paths. Extra environment entries
    // ("NAME=value") are added to the process environment.
    RunResult runQuillet(const QStringList& arguments, const QStringList& environment = {}) const;

    // Runs any command inside the same sandbox, waiting at most timeoutMs.
    RunResult runInSandbox(const QString& program, const QStringList& arguments,
                           const QStringList& environment = {}, int timeoutMs = 120000) const;

    // Binds a folder below the root onto another system folder too (for
    // example a stand-in for the print server's log folder) in later runs.
    void bind(const QString& relative, const QString& target);

  private:
    QTemporaryDir m_dir;
    QStringList m_binds; // pairs of source and target
};

// A run of the quillet executable under /usr/bin/time -v (package time),
// with the peak resident set size that it reported (-1 when it did not).
struct MeasuredRun {
    RunResult run;
    qint64 peakKilobytes = -1;
    qint64 milliseconds = 0;
};

// Whether /usr/bin/time is there to measure runs.
bool haveTimeProgram();

// Runs the built quillet with the arguments inside the tree's sandbox (as
// FixtureTree::runQuillet does) under /usr/bin/time -v.
MeasuredRun measureQuillet(const FixtureTree& tree, const QStringList& arguments);

// Runs a program to its end (at most timeoutMs) and returns what it left.
RunResult runProgram(const QString& program, const QStringList& arguments,
                     const QStringList& environment = {}, const QString& workingDirectory = {},
                     int timeoutMs = 120000);

// Reads a whole file; empty when it cannot be read.
QByteArray readFile(const QString& path);

// Writes a whole file, creating its folders; false on failure.
bool writeFile(const QString& path, const QByteArray& content);

// The quillet executable under test and the tests' source folder.
QString quilletExecutable();

// Puts a copy of the built quillet into `folder` under its installed file
// name, for a folder bound onto its installed folder: a copy, not a link,
// so that the print queue's per-job sandbox, which shows the system's
// folders and nothing of the build tree, runs it too. False on failure.
bool installQuilletCopy(const QString& folder);
QString testsSourceDir();

// The default font catalogue built for installation, shaped like the CUPS
// data directory (data/psglyphs, charsets/utf-8, fonts/..., quillet/marker.defs).
QString catalogueDir();

// The tiny fixture catalogue of the document tests (tests/document/data/
// catalogue): one charset covering 0000-00FF, two stand-in fonts, and marker
// definitions that fix DATE and TIME.
QString tinyCatalogueDir();

// A small DSC-structured PostScript document of the given number of pages:
// header, prolog, one "%%Page:" section per page ending in "%%PageTrailer",
// then "%%Trailer" and "%%EOF".
QByteArray minimalDocument(int pages = 1);

// A script for "sh -c SCRIPT PROGRAM" that runs PROGRAM with these
// arguments byte for byte, whatever bytes they hold (printf makes each from
// octal escapes), so that names that are not valid text reach it as they are.
QByteArray execWithBytesScript(const QList<QByteArray>& arguments);

// Writes a file through the bytes of its name, which need not be text in
// any encoding.
bool writeRaw(const QByteArray& path, const QByteArray& content);

// The pairs of "key=value" lines, as the filter writes the variables file.
// Each line is split at its first "="; lines without one are left out.
QMap<QString, QString> parseKeyValues(const QByteArray& bytes);

// A readable description of the first difference between two byte strings,
// for failure messages of byte-exact comparisons.
QString firstDifference(const QByteArray& actual, const QByteArray& expected);

// Whether the process with this id has ended (it is gone, or a zombie that
// nobody has reaped yet), waiting up to waitMs for it to go.
bool processEnded(qint64 pid, int waitMs = 3000);

// Whether a program is found on the search path.
bool haveProgram(const QString& name);

// Runs a tool in a working directory; with a stdoutFile its standard output
// must not be empty and is written to that file. On failure returns false and
// sets *error to a description (command, exit status, standard error); on
// success leaves *error as it was.
bool runTool(const QString& workingDirectory, const QString& program, const QStringList& arguments,
             QString* error, const QString& stdoutFile = {});

// Reads a marker template from memory into Marker::instance().
void readMarkerTemplate(const QByteArray& content);

// Inserts "key=value" pairs into Variables::instance().
void setVariables(const QStringList& pairs);

// The underline position and thickness procedures that the filter writes for
// marker font `font` at `size`, spelled out as the expected output.
QByteArray expectedUnderlineProcedures(const QByteArray& font, const QByteArray& size);

// Adds a "duplex" column with the rows "simplex" (false) and "duplex" (true).
void addSimplexAndDuplexRows();
