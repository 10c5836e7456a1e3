// Shared set-up of the libFuzzer targets.
#include "fuzzsupport.h"

#include "common/paths.h"
#include "fonts/fonts.h"
#include "marker/marker.h"
#include "settings/variables.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

void discardMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

bool contains(const uint8_t* data, size_t size, const char* needle)
{
    const size_t length = std::strlen(needle);
    for (size_t i = 0; i + length <= size; ++i) {
        if (std::memcmp(data + i, needle, length) == 0)
            return true;
    }
    return false;
}

// The fixture catalogue of the document tests, copied file by file.
const char* const TinyCatalogueFiles[] = {"data/psglyphs", "charsets/utf-8", "fonts/TinySans",
                                          "fonts/TinySans-Bold"};

} // namespace

namespace Fuzz
{

void initialize()
{
    const QByteArray token = qgetenv(TokenVariable);
    QFile tokenFile(dataPath(QLatin1String(TokenFile)));
    if (token.isEmpty() || !tokenFile.open(QIODevice::ReadOnly) || tokenFile.readAll() != token) {
        std::fprintf(stderr,
                     "%s is not this run's scratch folder (%s and %s/%s differ): run the fuzzers "
                     "through scripts/fuzz.sh\n",
                     CupsDataDir, TokenVariable, CupsDataDir, TokenFile);
        std::exit(2);
    }
    qInstallMessageHandler(discardMessage);

    // An empty folder as the whole search path: programs are found by name
    // only, so a reference that slips past runsPrograms() starts nothing.
    static QTemporaryDir emptyFolder;
    qputenv("PATH", emptyFolder.path().toLocal8Bit());
}

void resetSingletons()
{
    Variables::instance().clear();
    Marker::instance().reset();
    Fonts::instance().reset();
}

QString dataPath(const QString& relative)
{
    return QLatin1String(CupsDataDir) + QLatin1Char('/') + relative;
}

void writeDataFile(const QString& relative, const QByteArray& content)
{
    const QString path = dataPath(relative);
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size()) {
        std::fprintf(stderr, "Can not write %s\n", qPrintable(path));
        std::abort();
    }
}

void installTinyCatalogue()
{
    for (const char* relative : TinyCatalogueFiles) {
        QFile source(QStringLiteral(QUILLET_TINY_CATALOGUE "/") + QLatin1String(relative));
        if (!source.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "Can not read %s\n", qPrintable(source.fileName()));
            std::abort();
        }
        writeDataFile(QLatin1String(relative), source.readAll());
    }
}

bool runsPrograms(const uint8_t* data, size_t size)
{
    return contains(data, size, "SCRIPT:") || contains(data, size, "FREEIPA:");
}

} // namespace Fuzz
