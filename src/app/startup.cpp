// Start-up of the filter: everything runs in a fixed order, and the first
// failure, of start-up or of the document filter, comes back here as a value:
// its message is printed and the run ends with status 1.
#include "app/startup.h"

#include "app/printerror.h"
#include "common/filename.h"
#include "common/paths.h"
#include "common/regularfile.h"
#include "common/status.h"
#include "document/quillet.h"
#include "fonts/fonts.h"
#include "marker/marker.h"
#include "pagecode/pagecoder.h"
#include "settings/definitionsfile.h"
#include "settings/variables.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDate>
#include <QFile>
#include <QLibraryInfo>
#include <QLocale>
#include <QTime>
#include <QTranslator>

namespace {

// Translates a start-up text; QT_TRANSLATE_NOOP at the call sites marks the
// texts for the translation tools under the context "main".
QString mainText(const char* text)
{
    return QCoreApplication::translate("main", text);
}

// Fills the store: the variables file, then the run's date and time, then the
// marker definitions file, each replacing earlier keys of the same name.
// Opens a file that start-up reads. A FIFO or device is refused before it is
// read, so that it cannot block the run; name is the file as reported.
Status openStartupFile(QFile& file, const char* notRegularText, const char* unreadableText, const QString& name)
{
    switch (openRegularFile(file)) {
    case RegularFileOpen::Opened:
        return Status();
    case RegularFileOpen::NotRegular:
        return Status::failure(mainText(notRegularText).arg(name));
    default:
        return Status::failure(mainText(unreadableText).arg(name));
    }
}

Status loadVariables(const QString& variablesFile)
{
    Variables& variables = Variables::instance();

    QFile file(variablesFile);
    if (const Status status = openStartupFile(file, QT_TRANSLATE_NOOP("main", "Variables file %1 is not a regular file"),
                                              QT_TRANSLATE_NOOP("main", "Can not read marker variables file %1"),
                                              variablesFile);
        !status.ok())
        return status;
    variables.read(file);
    variables.insert(QStringLiteral("DATE"), QDate::currentDate().toString(QStringLiteral("dd.MM.yyyy")));
    variables.insert(QStringLiteral("TIME"), QTime::currentTime().toString(QStringLiteral("hh:mm:ss")));
    file.close();

    file.setFileName(markerDefinitionsFile());
    if (!file.exists())
        return Status::failure(
            mainText(QT_TRANSLATE_NOOP("main", "Can not find marker definition file %1")).arg(file.fileName()));
    if (const Status status =
            openStartupFile(file, QT_TRANSLATE_NOOP("main", "Marker definition file %1 is not a regular file"),
                            QT_TRANSLATE_NOOP("main", "Can not read marker definition file %1"), file.fileName());
        !status.ok())
        return status;
    variables.read(file);
    file.close();
    return Status();
}

Status loadTemplate(const QString& templateFile)
{
    QFile file(templateFile);
    if (const Status status =
            openStartupFile(file, QT_TRANSLATE_NOOP("main", "Marker template file %1 is not a regular file"),
                            QT_TRANSLATE_NOOP("main", "Can not read marker format file %1"), templateFile);
        !status.ok())
        return status;
    Marker::instance().readTemplate(file);
    file.close();
    return Status();
}

// Checks that the three files to read exist, in the order of the arguments.
// Page codes: the key named by the definitions, if any, is read once here.
Status setUpPageCodes()
{
    const QString error = PageCoder::instance().setUp(Variables::instance());
    return error.isEmpty() ? Status() : Status::failure(error);
}

Status checkFilesExist(const QString& input, const QString& templateFile, const QString& variablesFile)
{
    if (!fileNameExists(input))
        return Status::failure(mainText(QT_TRANSLATE_NOOP("main", "Input file %1 doesn't exist")).arg(input));
    if (!fileNameExists(templateFile))
        return Status::failure(
            mainText(QT_TRANSLATE_NOOP("main", "Marker template file %1 doesn't exist")).arg(templateFile));
    if (!fileNameExists(variablesFile))
        return Status::failure(
            mainText(QT_TRANSLATE_NOOP("main", "Variables file %1 doesn't exist")).arg(variablesFile));
    return Status();
}

// Everything after the command line, in its fixed order; stops at the first
// failure and returns it.
Status run(const QString& input, const QString& templateFile, const QString& variablesFile,
           const QString& output, bool duplex)
{
    Status status = checkFilesExist(input, templateFile, variablesFile);
    if (status.ok())
        status = loadVariables(variablesFile);
    if (status.ok())
        status = setUpPageCodes();
    if (status.ok())
        status = loadTemplate(templateFile);
    if (!status.ok())
        return status;

    Fonts& fonts = Fonts::instance();
    fonts.initialize(Marker::instance().charset());
    fonts.setMarkerStyles(Marker::instance().fontStyles());
    const QString catalogueRefusal = fonts.catalogueRefusal();
    if (!catalogueRefusal.isEmpty())
        return Status::failure(catalogueRefusal);

    return Quillet().process(input, templateFile, variablesFile, output, duplex);
}

// Installs a translator for the system locale from "<baseName>_<locale>" in
// the directory; nothing happens when there is none.
void loadTranslation(QCoreApplication& application, const QString& baseName, const QString& directory)
{
    auto* translator = new QTranslator(&application);
    if (!translator->load(QLocale::system(), baseName, QStringLiteral("_"), directory, QString())
        || !application.installTranslator(translator))
        delete translator;
}

} // namespace

void loadTranslations(QCoreApplication& application)
{
    if (QLocale::system().language() == QLocale::C)
        return;
    loadTranslation(application, QStringLiteral("qtbase"), QLibraryInfo::location(QLibraryInfo::TranslationsPath));
    loadTranslation(application, QStringLiteral("quillet"), QLatin1String(TranslationsDir));
}

int quilletMain(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("nimbrel"));
    QCoreApplication::setApplicationName(QStringLiteral("quillet"));
    QCoreApplication::setApplicationVersion(QStringLiteral("29.29"));

    loadTranslations(application);

    QCommandLineParser parser;
    parser.setApplicationDescription(mainText(QT_TRANSLATE_NOOP("main", "PostScript file Marker Filter")));
    parser.addPositionalArgument(QStringLiteral("<input>"), mainText(QT_TRANSLATE_NOOP("main", "Input PostScript file name")), QString());
    parser.addPositionalArgument(QStringLiteral("<template>"), mainText(QT_TRANSLATE_NOOP("main", "Template file name marker")), QString());
    parser.addPositionalArgument(QStringLiteral("<variables>"), mainText(QT_TRANSLATE_NOOP("main", "File name with marker variable values")),
                                 QString());
    parser.addPositionalArgument(QStringLiteral("<output>"), mainText(QT_TRANSLATE_NOOP("main", "Output PostScript file name")), QString());
    const QCommandLineOption duplexOption(QStringLiteral("duplex"), mainText(QT_TRANSLATE_NOOP("main", "Enable duplex mode")));
    parser.addOption(duplexOption);
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();
    // The arguments as bytes: a file name need not be text in the locale's
    // encoding, and the one that QCoreApplication::arguments() decodes
    // loses what it cannot read.
    parser.process(decodedArguments(argc, argv));

    if (parser.isSet(helpOption) || parser.isSet(versionOption))
        return 0;

    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() != 4) {
        printError(parser.helpText());
        return 1;
    }
    const QString& input = arguments.at(0);
    const QString& templateFile = arguments.at(1);
    const QString& variablesFile = arguments.at(2);
    const QString& output = arguments.at(3);

    const Status status = run(input, templateFile, variablesFile, output, parser.isSet(duplexOption));
    if (!status.ok()) {
        printError(status.message());
        return 1;
    }
    return 0;
}
