// Support of the font tests: the sandboxed run and catalogue files.
#include "fontsandbox.h"

#include "common/paths.h"
#include "fonts/fonts.h"
#include "support/testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QUuid>

#include <cstdio>

namespace {

const char TokenVariable[] = "QUILLET_FONT_SANDBOX_TOKEN";
const char TokenFile[] = ".font-sandbox-token";
const char HelperOption[] = "--fonts-helper";

QString tokenPath()
{
    return QLatin1String(CupsDataDir) + QLatin1Char('/') + QLatin1String(TokenFile);
}

// Whether this process runs in its own sandbox: the token of the environment
// is the one in the CUPS data directory.
bool insideSandbox()
{
    const QByteArray token = qgetenv(TokenVariable);
    return !token.isEmpty() && readFile(tokenPath()) == token;
}

// Starts the binary again inside the sandbox and returns its exit status.
int runInSandbox(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir scratch;
    if (!scratch.isValid()) {
        std::fprintf(stderr, "Can not create the scratch catalogue folder\n");
        return 1;
    }
    const QByteArray token = QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
    if (!writeFile(scratch.filePath(QLatin1String(TokenFile)), token)) {
        std::fprintf(stderr, "Can not write the sandbox token\n");
        return 1;
    }
    qputenv(TokenVariable, token);

    QStringList arguments{QStringLiteral("--bind"), scratch.path(), QLatin1String(CupsDataDir),
                          QStringLiteral("--"), QCoreApplication::applicationFilePath()};
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    const int status = QProcess::execute(QStringLiteral(QUILLET_SANDBOX), arguments);
    if (status < 0) {
        std::fprintf(stderr, "The sandboxed test run did not finish (%d)\n", status);
        return 1;
    }
    return status;
}

} // namespace

namespace FontSandbox {

int main(int argc, char* argv[], const std::function<int(int, char**)>& tests,
         const std::function<int(const QStringList&)>& helper)
{
    if (!qEnvironmentVariableIsEmpty(TokenVariable)) {
        if (!insideSandbox()) {
            std::fprintf(stderr, "%s is set but %s is not this run's scratch folder; nothing is touched\n",
                         TokenVariable, CupsDataDir);
            return 1;
        }
        if (helper && argc > 1 && qstrcmp(argv[1], HelperOption) == 0) {
            QCoreApplication app(argc, argv);
            return helper(QCoreApplication::arguments().mid(2));
        }
        return tests(argc, argv);
    }
    return runInSandbox(argc, argv);
}

HelperResult runHelper(const QStringList& arguments)
{
    if (!insideSandbox())
        qFatal("Helpers run inside the sandbox only");
    const RunResult run = runProgram(QCoreApplication::applicationFilePath(),
                                     QStringList{QLatin1String(HelperOption)} + arguments);
    HelperResult result;
    result.exitCode = run.crashed ? -1 : run.exitCode;
    result.standardOutput = run.standardOutput;
    result.standardError = run.standardError;
    return result;
}

QString cataloguePath(const QString& relative)
{
    return QLatin1String(CupsDataDir) + QLatin1Char('/') + relative;
}

void clearCatalogue()
{
    // Never empty a folder that is not this run's scratch folder.
    if (!insideSandbox())
        qFatal("The font tests must run inside their sandbox");
    const QDir dir{QString::fromLatin1(CupsDataDir)};
    for (const QFileInfo& entry : dir.entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden)) {
        if (entry.fileName() == QLatin1String(TokenFile))
            continue;
        if (entry.isDir() && !entry.isSymLink())
            QDir(entry.filePath()).removeRecursively();
        else
            QFile::remove(entry.filePath());
    }
    Fonts::instance().reset();
}

void writeCatalogueFile(const QString& relative, const QByteArray& content)
{
    if (!insideSandbox())
        qFatal("The font tests must run inside their sandbox");
    if (!writeFile(cataloguePath(relative), content))
        qFatal("Can not write %s", qPrintable(cataloguePath(relative)));
}

void makeCatalogueFolder(const QString& relative)
{
    if (!insideSandbox())
        qFatal("The font tests must run inside their sandbox");
    QDir().mkpath(cataloguePath(relative));
}

void installDefaultCatalogue()
{
    const QDir source(catalogueDir());
    for (const char* file :
         {"data/psglyphs", "charsets/utf-8", "fonts/NimbusSans-Regular", "fonts/NimbusSans-Bold",
          "fonts/NimbusSans-Italic", "fonts/NimbusSans-BoldItalic"}) {
        const QByteArray content = readFile(source.filePath(QLatin1String(file)));
        if (content.isEmpty())
            qFatal("The default catalogue lacks %s", file);
        writeCatalogueFile(QLatin1String(file), content);
    }
}

void installDataFile(const QString& dataFile, const QString& relative)
{
    writeCatalogueFile(relative, testFile(QStringLiteral("data/") + dataFile));
}

QString testFilePath(const QString& relative)
{
    return QStringLiteral(QUILLET_FONTS_TEST_DIR "/") + relative;
}

QByteArray testFile(const QString& relative)
{
    const QString path = testFilePath(relative);
    if (!QFileInfo::exists(path))
        qFatal("Missing test file %s", qPrintable(path));
    return readFile(path);
}

} // namespace FontSandbox
