// The checks of a queue's set-up before a job is marked.
#include "backend/queuecheck.h"

#include "backend/jobvariables.h"
#include "settings/definitionsfile.h"

#include <QCoreApplication>
#include <QFile>

namespace
{

const char SafeOutputKey[] = "MarkerSafeOutput";

// Whether the template refers to a variable, per page ({KEY}) or once ([KEY]).
bool templatePrints(const QByteArray& templateText, const QString& key)
{
    const QByteArray name = key.toUtf8();
    return templateText.contains('{' + name + '}') || templateText.contains('[' + name + ']');
}

// Whether the template has a line other than blanks and comments.
bool hasContent(const QByteArray& templateText)
{
    for (const QByteArray& line : templateText.split('\n')) {
        const QByteArray text = line.trimmed();
        if (!text.isEmpty() && !text.startsWith('#'))
            return true;
    }
    return false;
}

// A message or fix of the checks, translated when the program has a
// translator.
QString checkText(const char* text)
{
    return QCoreApplication::translate("queuecheck", text);
}

} // namespace

DefinitionsState readDefinitions()
{
    DefinitionsState state;
    QFile file(markerDefinitionsFile());
    if (!file.open(QIODevice::ReadOnly))
        return state;
    state.file = file.fileName();
    state.values = parseKeyValueLines(file.readAll());
    return state;
}

QList<SetupProblem> markingSetupProblems(const QString& queueFolder, const QString& queue,
                                         const QueueSettings& settings, const QByteArray& templateText,
                                         const DefinitionsState& definitions)
{
    QList<SetupProblem> problems;
    if (settings.templateFile.isEmpty())
        problems.append(
            {checkText(
                 QT_TRANSLATE_NOOP("queuecheck", "the queue has no template (%1/%2.tmpl or default.tmpl)"))
                 .arg(queueFolder, queue),
             checkText(QT_TRANSLATE_NOOP("queuecheck", "put the marker template into %1/%2.tmpl "
                                                       "(owner root, mode 0600), or run "
                                                       "quillet-queue create %2 DEVICE-URI --label LABEL"))
                 .arg(queueFolder, queue)});
    if (settings.variablesFile.isEmpty())
        problems.append(
            {checkText(QT_TRANSLATE_NOOP("queuecheck",
                                         "the queue has no variables file (%1/%2.vars or default.vars): "
                                         "its label would be empty"))
                 .arg(queueFolder, queue),
             checkText(QT_TRANSLATE_NOOP("queuecheck",
                                         "write the label into %1/%2.vars "
                                         "(LABEL_NAME=..., owner root, mode 0600), or "
                                         "run quillet-queue create %2 DEVICE-URI --label LABEL"))
                 .arg(queueFolder, queue)});
    if (definitions.file.isEmpty())
        problems.append(
            {checkText(QT_TRANSLATE_NOOP("queuecheck", "there is no marker definitions file (%1)"))
                 .arg(markerDefinitionsFile()),
             checkText(
                 QT_TRANSLATE_NOOP("queuecheck", "install quillet again, which ships the definitions"))});
    else if (lastValue(definitions.values, QLatin1String(SafeOutputKey)) != QLatin1String("1"))
        problems.append(
            {checkText(QT_TRANSLATE_NOOP(
                           "queuecheck",
                           "the marker definitions %1 do not set %2=1 (print-safe output); "
                           "a site file replaces the shipped one, so it must hold every shipped line"))
                 .arg(definitions.file, QLatin1String(SafeOutputKey)),
             checkText(QT_TRANSLATE_NOOP("queuecheck",
                                         "make %1 a copy of the shipped definitions followed by "
                                         "the site's own lines, none of which sets %2 again "
                                         "(quillet-queue create does so)"))
                 .arg(definitions.file, QLatin1String(SafeOutputKey))});
    if (settings.templateFile.isEmpty())
        return problems;
    if (!hasContent(templateText)) {
        problems.append(
            {checkText(QT_TRANSLATE_NOOP("queuecheck", "the template %1 holds no marker strings"))
                 .arg(settings.templateFile),
             checkText(QT_TRANSLATE_NOOP("queuecheck",
                                         "write the marks into %1, or run quillet-queue create %2 "
                                         "DEVICE-URI --label LABEL --template FILE"))
                 .arg(settings.templateFile, queue)});
        return problems;
    }
    if (settings.variablesFile.isEmpty())
        return problems;
    for (const QString& key : securityLabelKeys()) {
        if (templatePrints(templateText, key) && lastValue(settings.variables, key).isEmpty() &&
            lastValue(definitions.values, key).isEmpty())
            problems.append(
                {checkText(QT_TRANSLATE_NOOP("queuecheck",
                                             "the template %1 prints %2, which neither %3 nor the marker "
                                             "definitions set"))
                     .arg(settings.templateFile, key, settings.variablesFile),
                 checkText(QT_TRANSLATE_NOOP("queuecheck", "add the line %1=VALUE to %2"))
                     .arg(key, settings.variablesFile)});
    }
    return problems;
}

QString markingSetupProblem(const QString& queueFolder, const QString& queue, const QueueSettings& settings,
                            const QByteArray& templateText, const DefinitionsState& definitions)
{
    const QList<SetupProblem> problems =
        markingSetupProblems(queueFolder, queue, settings, templateText, definitions);
    return problems.isEmpty() ? QString() : problems.first().problem;
}
