// Start-up of the filter: everything runs in a fixed order, and every failure
// before the document filter ends the run with a message and status 1.
#include "app/startup.h"

#include "app/fatal.h"
#include "common/paths.h"
#include "common/regularfile.h"
#include "document/quillet.h"
#include "fonts/fonts.h"
#include "marker/marker.h"
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
void loadVariables(const QString& variablesFile)
{
    Variables& variables = Variables::instance();

    QFile file(variablesFile);
    const RegularFileOpen variablesOpen = openRegularFile(file);
    if (variablesOpen == RegularFileOpen::NotRegular)
        fatal(mainText(QT_TRANSLATE_NOOP("main", "Variables file %1 is not a regular file"))
                  .arg(variablesFile));
    if (variablesOpen != RegularFileOpen::Opened)
        fatal(mainText(QT_TRANSLATE_NOOP("main", "Can not read marker variables file %1")).arg(variablesFile));
    variables.read(file);
    variables.insert(QStringLiteral("DATE"), QDate::currentDate().toString(QStringLiteral("dd.MM.yyyy")));
    variables.insert(QStringLiteral("TIME"), QTime::currentTime().toString(QStringLiteral("hh:mm:ss")));
    file.close();

    // The site's file in the configuration directory wins over the shipped
    // one; only the shipped one lives in the program's own subdirectory.
    file.setFileName(QLatin1String(CupsServerRoot) + QLatin1String("/marker.defs"));
    if (!file.exists()) {
        file.setFileName(QLatin1String(CupsDataDir) + QLatin1String("/quillet/marker.defs"));
        if (!file.exists())
            fatal(mainText(QT_TRANSLATE_NOOP("main", "Can not find marker definition file %1")).arg(file.fileName()));
    }
    const RegularFileOpen definitionsOpen = openRegularFile(file);
    if (definitionsOpen == RegularFileOpen::NotRegular)
        fatal(mainText(QT_TRANSLATE_NOOP("main", "Marker definition file %1 is not a regular file"))
                  .arg(file.fileName()));
    if (definitionsOpen != RegularFileOpen::Opened)
        fatal(mainText(QT_TRANSLATE_NOOP("main", "Can not read marker definition file %1")).arg(file.fileName()));
    variables.read(file);
    file.close();
}

void loadTemplate(const QString& templateFile)
{
    QFile file(templateFile);
    const RegularFileOpen templateOpen = openRegularFile(file);
    if (templateOpen == RegularFileOpen::NotRegular)
        fatal(mainText(QT_TRANSLATE_NOOP("main", "Marker template file %1 is not a regular file"))
                  .arg(templateFile));
    if (templateOpen != RegularFileOpen::Opened)
        fatal(mainText(QT_TRANSLATE_NOOP("main", "Can not read marker format file %1")).arg(templateFile));
    Marker::instance().readTemplate(file);
    file.close();
}

} // namespace

void loadTranslation(QCoreApplication& application, const QString& baseName, const QString& directory)
{
    auto* translator = new QTranslator(&application);
    if (!translator->load(QLocale::system(), baseName, QStringLiteral("_"), directory, QString())
        || !application.installTranslator(translator))
        delete translator;
}

int quilletMain(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("nimbrel"));
    QCoreApplication::setApplicationName(QStringLiteral("quillet"));
    QCoreApplication::setApplicationVersion(QStringLiteral("29.29"));

    loadTranslation(application, QStringLiteral("qtbase"), QLibraryInfo::location(QLibraryInfo::TranslationsPath));
    loadTranslation(application, QStringLiteral("quillet"), QLatin1String(TranslationsDir));

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
    parser.process(application);

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

    if (!QFile::exists(input))
        fatal(mainText(QT_TRANSLATE_NOOP("main", "Input file %1 doesn't exist")).arg(input));
    if (!QFile::exists(templateFile))
        fatal(mainText(QT_TRANSLATE_NOOP("main", "Marker template file %1 doesn't exist")).arg(templateFile));
    if (!QFile::exists(variablesFile))
        fatal(mainText(QT_TRANSLATE_NOOP("main", "Variables file %1 doesn't exist")).arg(variablesFile));

    loadVariables(variablesFile);
    loadTemplate(templateFile);

    Fonts& fonts = Fonts::instance();
    fonts.initialize(Marker::instance().charset());
    fonts.setMarkerStyles(Marker::instance().fontStyles());
    const QString catalogueRefusal = fonts.catalogueRefusal();
    if (!catalogueRefusal.isEmpty())
        fatal(catalogueRefusal);

    Quillet().process(input, templateFile, variablesFile, output, parser.isSet(duplexOption));
    return 0;
}
