// The checks of a queue's set-up before a job is marked.
#include "backend/queuecheck.h"

#include "backend/jobvariables.h"
#include "settings/definitionsfile.h"

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

QString markingSetupProblem(const QString& queueFolder, const QString& queue, const QueueSettings& settings,
                            const QByteArray& templateText, const DefinitionsState& definitions)
{
    if (settings.variablesFile.isEmpty())
        return QStringLiteral("the queue has no variables file (%1/%2.vars or default.vars): "
                              "its label would be empty")
            .arg(queueFolder, queue);
    if (definitions.file.isEmpty())
        return QStringLiteral("there is no marker definitions file (%1)").arg(markerDefinitionsFile());
    if (lastValue(definitions.values, QLatin1String(SafeOutputKey)) != QLatin1String("1"))
        return QStringLiteral("the marker definitions %1 do not set %2=1 (print-safe output); "
                              "a site file replaces the shipped one, so it must hold every shipped line")
            .arg(definitions.file, QLatin1String(SafeOutputKey));
    if (!hasContent(templateText))
        return QStringLiteral("the template %1 holds no marker strings").arg(settings.templateFile);
    for (const QString& key : securityLabelKeys()) {
        if (templatePrints(templateText, key) && lastValue(settings.variables, key).isEmpty() &&
            lastValue(definitions.values, key).isEmpty())
            return QStringLiteral(
                       "the template %1 prints %2, which neither %3 nor the marker definitions set")
                .arg(settings.templateFile, key, settings.variablesFile);
    }
    return QString();
}
