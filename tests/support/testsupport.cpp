// Shared helpers of the tests.
#include "support/testsupport.h"

#include "common/paths.h"
#include "marker/marker.h"
#include "settings/variables.h"

#include <QBuffer>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>
#include <QThread>

#include <fcntl.h>
#include <unistd.h>

FixtureTree::FixtureTree()
{
    for (const char* folder : {"etc-cups", "share-cups", "translations", "job", "audit-log"})
        QDir(m_dir.path()).mkpath(QLatin1String(folder));
}

QString FixtureTree::path(const QString& relative) const
{
    return m_dir.filePath(relative);
}

QString FixtureTree::write(const QString& relative, const QByteArray& content) const
{
    const QString file = path(relative);
    writeFile(file, content);
    return file;
}

QString FixtureTree::copy(const QString& source, const QString& relative) const
{
    const QString target = path(relative);
    const QFileInfo info(source);
    if (info.isDir()) {
        QDirIterator it(source, QDir::Files | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString file = it.next();
            writeFile(target + QLatin1Char('/') + QDir(source).relativeFilePath(file), readFile(file));
        }
    } else {
        writeFile(target, readFile(source));
    }
    return target;
}

QByteArray FixtureTree::read(const QString& relative) const
{
    return readFile(path(relative));
}

bool FixtureTree::exists(const QString& relative) const
{
    return QFileInfo::exists(path(relative));
}

QString FixtureTree::installCatalogue() const
{
    return copy(catalogueDir(), QStringLiteral("share-cups"));
}

RunResult FixtureTree::runInSandbox(const QString& program, const QStringList& arguments,
                                    const QStringList& environment, int timeoutMs) const
{
    QStringList sandboxArguments = QStringList()
                                   << QStringLiteral("--bind") << etcCups() << QLatin1String(CupsServerRoot)
                                   << QStringLiteral("--bind") << shareCups() << QLatin1String(CupsDataDir)
                                   << QStringLiteral("--bind") << translations()
                                   << QLatin1String(TranslationsDir) << QStringLiteral("--bind")
                                   << auditLogFolder() << QFileInfo(QLatin1String(QuilletAuditLog)).path();
    for (int i = 0; i + 1 < m_binds.size(); i += 2)
        sandboxArguments << QStringLiteral("--bind") << m_binds.at(i) << m_binds.at(i + 1);
    sandboxArguments << QStringLiteral("--") << program << arguments;
    return runProgram(QStringLiteral(QUILLET_SANDBOX), sandboxArguments, environment, job(), timeoutMs);
}

void FixtureTree::bind(const QString& relative, const QString& target)
{
    QDir().mkpath(path(relative));
    m_binds << path(relative) << target;
}

RunResult FixtureTree::runQuillet(const QStringList& arguments, const QStringList& environment) const
{
    return runInSandbox(quilletExecutable(), arguments, environment);
}

namespace
{
const char TimeProgram[] = "/usr/bin/time";
}

bool haveTimeProgram()
{
    return QFile::exists(QLatin1String(TimeProgram));
}

MeasuredRun measureQuillet(const FixtureTree& tree, const QStringList& arguments)
{
    MeasuredRun measured;
    QElapsedTimer timer;
    timer.start();
    measured.run = tree.runInSandbox(QLatin1String(TimeProgram),
                                     QStringList{QStringLiteral("-v"), quilletExecutable()} + arguments);
    measured.milliseconds = timer.elapsed();
    const QRegularExpression peak(QStringLiteral("Maximum resident set size \\(kbytes\\): (\\d+)"));
    const QRegularExpressionMatch match = peak.match(QString::fromLocal8Bit(measured.run.standardError));
    if (match.hasMatch())
        measured.peakKilobytes = match.captured(1).toLongLong();
    return measured;
}

RunResult runProgram(const QString& program, const QStringList& arguments, const QStringList& environment,
                     const QString& workingDirectory, int timeoutMs)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString& entry : environment) {
        const int equals = entry.indexOf(QLatin1Char('='));
        env.insert(entry.left(equals), entry.mid(equals + 1));
    }
    process.setProcessEnvironment(env);
    if (!workingDirectory.isEmpty())
        process.setWorkingDirectory(workingDirectory);
    process.start(program, arguments);
    RunResult result;
    if (!process.waitForStarted(timeoutMs)) {
        result.crashed = true;
        result.standardError = process.errorString().toLocal8Bit();
        return result;
    }
    process.closeWriteChannel();
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        result.crashed = true;
    }
    result.standardOutput = process.readAllStandardOutput();
    result.standardError = process.readAllStandardError();
    result.exitCode = process.exitCode();
    result.crashed = result.crashed || process.exitStatus() != QProcess::NormalExit;
    return result;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(content) == content.size();
}

QString quilletExecutable()
{
    return QStringLiteral(QUILLET_EXECUTABLE);
}

bool installQuilletCopy(const QString& folder)
{
    const QString target =
        folder + QLatin1Char('/') + QFileInfo(QLatin1String(QuilletExecutablePath)).fileName();
    QFile::remove(target);
    return QFile::copy(quilletExecutable(), target) &&
           QFile::setPermissions(target, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                             QFileDevice::ExeOwner | QFileDevice::ReadGroup |
                                             QFileDevice::ExeGroup | QFileDevice::ReadOther |
                                             QFileDevice::ExeOther);
}

QString testsSourceDir()
{
    return QStringLiteral(QUILLET_TESTS_DIR);
}

QString catalogueDir()
{
    return QStringLiteral(QUILLET_CATALOGUE_DIR);
}

QString tinyCatalogueDir()
{
    return testsSourceDir() + QStringLiteral("/document/data/catalogue");
}

namespace
{

// A shell command that sets `variable` to exactly these bytes (a trailing
// "x" keeps line feeds at the end from the command substitution).
QByteArray shellAssignment(const QByteArray& variable, const QByteArray& bytes)
{
    QByteArray format;
    for (const char c : bytes)
        format += '\\' + QByteArray::number(uchar(c), 8).rightJustified(3, '0');
    return variable + "=$(printf '" + format + "x'); " + variable + "=${" + variable + "%x}; ";
}

} // namespace

QByteArray execWithBytesScript(const QList<QByteArray>& arguments)
{
    QByteArray script;
    QByteArray words;
    for (int i = 0; i < arguments.size(); ++i) {
        const QByteArray variable = "a" + QByteArray::number(i);
        script += shellAssignment(variable, arguments.at(i));
        words += " \"$" + variable + '"';
    }
    return script + "exec \"$0\"" + words;
}

bool writeRaw(const QByteArray& path, const QByteArray& content)
{
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const bool written = ::write(fd, content.constData(), size_t(content.size())) == content.size();
    return ::close(fd) == 0 && written;
}

QByteArray minimalDocument(int pages)
{
    QByteArray document = "%!PS-Adobe-3.0\n%%Pages: " + QByteArray::number(pages) +
                          "\n%%EndComments\n%%BeginProlog\n%%EndProlog\n";
    for (int page = 1; page <= pages; ++page) {
        const QByteArray number = QByteArray::number(page);
        document += "%%Page: " + number + ' ' + number +
                    "\nnewpath 72 72 moveto 144 144 lineto stroke\n"
                    "showpage\n%%PageTrailer\n";
    }
    return document + "%%Trailer\n%%EOF\n";
}

QMap<QString, QString> parseKeyValues(const QByteArray& bytes)
{
    QMap<QString, QString> pairs;
    for (const QByteArray& line : bytes.split('\n')) {
        const int equals = line.indexOf('=');
        if (equals >= 0)
            pairs.insert(QString::fromLocal8Bit(line.left(equals)),
                         QString::fromLocal8Bit(line.mid(equals + 1)));
    }
    return pairs;
}

QString firstDifference(const QByteArray& actual, const QByteArray& expected)
{
    const QList<QByteArray> a = actual.split('\n');
    const QList<QByteArray> e = expected.split('\n');
    for (int i = 0; i < qMax(a.size(), e.size()); ++i) {
        const QByteArray left = i < a.size() ? a.at(i) : QByteArray("<end of output>");
        const QByteArray right = i < e.size() ? e.at(i) : QByteArray("<end of expected>");
        if (left != right)
            return QStringLiteral("first difference at line %1:\n  actual:   %2\n  expected: %3")
                .arg(i + 1)
                .arg(QString::fromLatin1(left.left(300)), QString::fromLatin1(right.left(300)));
    }
    return QStringLiteral("no difference");
}

bool processEnded(qint64 pid, int waitMs)
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        // /proc/<pid>/stat: "pid (name) state ..."; the name may hold blanks.
        const QByteArray stat = readFile(QStringLiteral("/proc/%1/stat").arg(pid));
        const int nameEnd = stat.lastIndexOf(')');
        if (stat.isEmpty() || (nameEnd > 0 && stat.mid(nameEnd + 2, 1) == "Z"))
            return true;
        if (timer.elapsed() > waitMs)
            return false;
        QThread::msleep(20);
    }
}

bool haveProgram(const QString& name)
{
    return !QStandardPaths::findExecutable(name).isEmpty();
}

bool runTool(const QString& workingDirectory, const QString& program, const QStringList& arguments,
             QString* error, const QString& stdoutFile)
{
    const RunResult result = runProgram(program, arguments, {}, workingDirectory);
    if (result.exitCode != 0 || result.crashed ||
        (!stdoutFile.isEmpty() &&
         (result.standardOutput.isEmpty() || !writeFile(stdoutFile, result.standardOutput)))) {
        *error = QStringLiteral("%1 %2 failed (exit status %3): %4")
                     .arg(program, arguments.join(QLatin1Char(' ')))
                     .arg(result.exitCode)
                     .arg(QString::fromLocal8Bit(result.standardError));
        return false;
    }
    return true;
}

void readMarkerTemplate(const QByteArray& content)
{
    QBuffer buffer;
    buffer.setData(content);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    Marker::instance().readTemplate(buffer);
}

void setVariables(const QStringList& pairs)
{
    for (const QString& pair : pairs) {
        const int equals = pair.indexOf(QLatin1Char('='));
        Variables::instance().insert(pair.left(equals), pair.mid(equals + 1));
    }
}

QByteArray expectedUnderlineProcedures(const QByteArray& font, const QByteArray& size)
{
    return "/font-underline-pos {\n"
           "  /" +
           font + " findfont " + size +
           " scalefont\n"
           "  dup /FontInfo get\n"
           "  dup /UnderlinePosition known { /UnderlinePosition get } { pop 2 px } ifelse\n"
           "  0 exch\n"
           "  3 2 roll /FontMatrix get transform\n"
           "  exch pop\n"
           "} def\n"
           "/font-underline-thickness {\n"
           "  /" +
           font + " findfont " + size +
           " scalefont\n"
           "  dup /FontInfo get\n"
           "  dup /UnderlineThickness known { /UnderlineThickness get } { pop 1 px } ifelse\n"
           "  0 exch\n"
           "  3 2 roll /FontMatrix get transform\n"
           "  exch pop\n"
           "} def\n";
}

void addSimplexAndDuplexRows()
{
    QTest::addColumn<bool>("duplex");
    QTest::newRow("simplex") << false;
    QTest::newRow("duplex") << true;
}
