// quillet-verify: reads each code against the site's key and says what it
// names; or makes a new site key.
#include "verify/verifycommand.h"

#include "app/printerror.h"
#include "app/startup.h"
#include "common/filename.h"
#include "common/paths.h"
#include "pagecode/pagecodekey.h"
#include "pagecode/pagecoder.h"
#include "settings/definitionsfile.h"
#include "settings/variables.h"
#include "verify/auditlog.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>

#include <cstdio>

namespace
{

QString verifyText(const char* text)
{
    return QCoreApplication::translate("verify", text);
}

void printOut(const QString& text)
{
    // File names in the text are written as the bytes they were given as.
    const QByteArray bytes = encodeFileName(text) + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
}

int usageError(const QString& message)
{
    printError(message);
    printError(verifyText(QT_TRANSLATE_NOOP("verify", "Try \"quillet-verify --help\".")));
    return VerifyUsageError;
}

// The key file that the marker definitions name, as quillet reads them; an
// empty text, with a message printed, when there is none.
QString definedKeyFile()
{
    const QString definitions = markerDefinitionsFile();
    QFile file(definitions);
    if (!file.open(QIODevice::ReadOnly)) {
        printError(verifyText(QT_TRANSLATE_NOOP("verify", "Can not read marker definition file %1"))
                       .arg(definitions));
        return QString();
    }
    Variables::instance().read(file);
    const QString keyFile = Variables::instance().value(QLatin1String(PageCoder::KeySetting));
    if (keyFile.isEmpty())
        printError(
            verifyText(QT_TRANSLATE_NOOP("verify", "No page-code key: %1 does not set %2; give --key FILE"))
                .arg(definitions, QLatin1String(PageCoder::KeySetting)));
    return keyFile;
}

// Why a code that is not authentic was turned down, or an empty text.
QString reason(PageCodeReading reading)
{
    switch (reading) {
    case PageCodeReading::WrongLength:
        return verifyText(QT_TRANSLATE_NOOP("verify", "a code has 24 characters besides \"-\""));
    case PageCodeReading::BadCharacter:
        return verifyText(QT_TRANSLATE_NOOP("verify", "it holds a character that codes never use"));
    case PageCodeReading::OutOfRange:
        return verifyText(QT_TRANSLATE_NOOP("verify", "no code is spelled like this"));
    case PageCodeReading::Authentic:
    case PageCodeReading::NotAuthentic:
        break;
    }
    return QString();
}

int makeKey(const QString& path)
{
    QString error;
    if (!PageCodeKey::generate().saveNew(path, &error)) {
        printError(error);
        return VerifyNotAuthentic;
    }
    printOut(verifyText(QT_TRANSLATE_NOOP("verify", "New page-code key written to %1")).arg(path));
    return VerifyAllAuthentic;
}

int checkCodes(const PageCodeKey& key, const QStringList& codes, const QString& logFile)
{
    int status = VerifyAllAuthentic;
    for (const QString& code : codes) {
        PageCodeFields fields;
        const PageCodeReading reading = key.read(code, &fields);
        if (reading != PageCodeReading::Authentic) {
            const QString why = reason(reading);
            printOut(why.isEmpty()
                         ? verifyText(QT_TRANSLATE_NOOP("verify", "%1: NOT authentic")).arg(code)
                         : verifyText(QT_TRANSLATE_NOOP("verify", "%1: NOT authentic (%2)")).arg(code, why));
            status = VerifyNotAuthentic;
            continue;
        }
        printOut(
            verifyText(QT_TRANSLATE_NOOP("verify", "%1: authentic: job %2, page %3, copy %4, marked on %5"))
                .arg(code)
                .arg(fields.job)
                .arg(fields.page)
                .arg(fields.copy)
                .arg(fields.date.toString(Qt::ISODate)));
        for (const QString& line : auditLines(logFile, fields.job))
            printOut(QStringLiteral("  ") + line);
    }
    return status;
}

} // namespace

int verifyMain(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("nimbrel"));
    QCoreApplication::setApplicationName(QStringLiteral("quillet-verify"));
    QCoreApplication::setApplicationVersion(QStringLiteral("29.29"));

    loadTranslations(application);

    QCommandLineParser parser;
    parser.setApplicationDescription(verifyText(
        QT_TRANSLATE_NOOP("verify", "Checks the page codes that quillet prints, or makes a new key")));
    parser.addPositionalArgument(
        QStringLiteral("<code>"),
        verifyText(QT_TRANSLATE_NOOP("verify", "Page code as printed; any case, \"-\" optional")),
        QStringLiteral("<code>..."));
    const QCommandLineOption keyOption(
        QStringLiteral("key"),
        verifyText(QT_TRANSLATE_NOOP(
            "verify", "Key file to check with (default: the one the marker definitions name)")),
        QStringLiteral("file"));
    parser.addOption(keyOption);
    const QCommandLineOption newKeyOption(
        QStringLiteral("new-key"),
        verifyText(QT_TRANSLATE_NOOP("verify", "Write a new random site key to a new file of mode 0600")),
        QStringLiteral("file"));
    parser.addOption(newKeyOption);
    const QCommandLineOption logOption(
        QStringLiteral("log"),
        verifyText(QT_TRANSLATE_NOOP("verify", "Audit log to look up the jobs' records in (default: the one "
                                               "the marker definitions name, else %1)"))
            .arg(QLatin1String(QuilletAuditLog)),
        QStringLiteral("file"));
    parser.addOption(logOption);
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();

    // The arguments as bytes: QCoreApplication::arguments() loses the bytes
    // of a file name that the locale's encoding cannot read.
    if (!parser.parse(decodedArguments(argc, argv)))
        return usageError(parser.errorText());
    if (parser.isSet(helpOption) || parser.isSet(QStringLiteral("help-all")))
        parser.showHelp(0);
    if (parser.isSet(versionOption))
        parser.showVersion();

    const QStringList codes = parser.positionalArguments();
    if (parser.isSet(newKeyOption)) {
        if (!codes.isEmpty() || parser.isSet(keyOption) || parser.isSet(logOption) ||
            parser.values(newKeyOption).size() != 1)
            return usageError(
                verifyText(QT_TRANSLATE_NOOP("verify", "--new-key takes one file and nothing else")));
        return makeKey(parser.value(newKeyOption));
    }
    if (codes.isEmpty())
        return usageError(
            verifyText(QT_TRANSLATE_NOOP("verify", "Give the codes to check, or --new-key FILE")));
    if (parser.values(keyOption).size() > 1 || (parser.isSet(keyOption) && parser.value(keyOption).isEmpty()))
        return usageError(verifyText(QT_TRANSLATE_NOOP("verify", "--key takes one file name, once")));
    if (parser.values(logOption).size() > 1 || (parser.isSet(logOption) && parser.value(logOption).isEmpty()))
        return usageError(verifyText(QT_TRANSLATE_NOOP("verify", "--log takes one file name, once")));

    const QString keyFile = parser.isSet(keyOption) ? parser.value(keyOption) : definedKeyFile();
    if (keyFile.isEmpty())
        return VerifyNotAuthentic;
    PageCodeKey key;
    QString error;
    if (!PageCodeKey::load(keyFile, &key, &error)) {
        printError(error);
        return VerifyNotAuthentic;
    }
    return checkCodes(key, codes, parser.isSet(logOption) ? parser.value(logOption) : definedAuditLog());
}
