// Expansion of variable references in marker texts: values from the store,
// from a site script ("SCRIPT:") and from the user directory ("FREEIPA:").
#include "marker/marker.h"

#include "common/boundedprocess.h"
#include "settings/variables.h"

#include <QMap>
#include <QProcess>
#include <QStringList>

namespace {

// How long each outside program (a site script, kinit, the directory
// client) may run, and how much of its standard output is kept, unless the
// definitions say otherwise: keys, defaults and the largest values allowed.
const char ProgramTimeoutKey[] = "MarkerProgramTimeout";
constexpr int DefaultProgramTimeoutMs = 4000;
constexpr int MaxProgramTimeoutMs = 60000;
const char ProgramOutputLimitKey[] = "MarkerProgramOutputLimit";
constexpr int DefaultProgramOutputLimit = 65536;
constexpr int MaxProgramOutputLimit = 16 * 1024 * 1024;

// A limit from the store: a whole number from 1 to the largest value
// allowed, or the default (with a warning when the key holds anything else).
int programLimit(const char* key, int defaultValue, int maxValue)
{
    const Variables& variables = Variables::instance();
    if (!variables.contains(QLatin1String(key)))
        return defaultValue;
    const QString text = variables.value(QLatin1String(key));
    bool ok = false;
    const int value = text.trimmed().toInt(&ok, 10);
    if (ok && value >= 1 && value <= maxValue)
        return value;
    qWarning("Value '%s' of %s is not a whole number from 1 to %d, %d is used!",
             text.toLocal8Bit().constData(), key, maxValue, defaultValue);
    return defaultValue;
}

// Runs an outside program within the limits of the definitions.
BoundedRun runProgram(const QString& program, const QStringList& arguments)
{
    return runBounded(program, arguments,
                      programLimit(ProgramTimeoutKey, DefaultProgramTimeoutMs, MaxProgramTimeoutMs),
                      programLimit(ProgramOutputLimitKey, DefaultProgramOutputLimit, MaxProgramOutputLimit));
}

// Variables holding security labels; "replace_underscore" applies to them only.
const QStringList& securityLabelVariables()
{
    static const QStringList names = {
        QStringLiteral("LEVEL_NAME"),    QStringLiteral("LABEL_NAME"),
        QStringLiteral("LABEL_NAME_FULL"), QStringLiteral("ILEVEL_NAME"),
        QStringLiteral("CATEGORY_NAME"), QStringLiteral("mac-job-mac-level-name"),
        QStringLiteral("LEV_NAME"),      QStringLiteral("ILEV_NAME"),
        QStringLiteral("CAT_NAME")};
    return names;
}

bool isOpening(QChar c)
{
    return c == QLatin1Char('[') || c == QLatin1Char('{');
}

bool isClosing(QChar c)
{
    return c == QLatin1Char(']') || c == QLatin1Char('}');
}

} // namespace

QString Marker::expandVariables(const QString& text) const
{
    static const QLatin1String scriptPrefix("SCRIPT:");
    static const QLatin1String directoryPrefix("FREEIPA:");

    // One pass with a depth counter: only the outermost brackets delimit a
    // reference. A stray closing bracket makes the depth negative, and from
    // then on the rest of the text is copied as it stands.
    QString result;
    QString name;
    int depth = 0;
    for (const QChar c : text) {
        if (isOpening(c)) {
            if (++depth == 1) {
                name.clear();
                continue;
            }
        } else if (isClosing(c)) {
            if (--depth == 0) {
                if (name.startsWith(scriptPrefix)) {
                    result += runScript(name.mid(scriptPrefix.size()).trimmed());
                } else if (name.startsWith(directoryPrefix)) {
                    result += directoryAttribute(name.mid(directoryPrefix.size()).trimmed());
                } else {
                    QString value = Variables::instance().value(name);
                    if (m_replaceUnderscore && securityLabelVariables().contains(name))
                        value.replace(QLatin1Char('_'), QLatin1Char(' '));
                    result += value;
                }
                continue;
            }
        }
        if (depth >= 1)
            name += c;
        else
            result += c;
    }
    return result;
}

QString Marker::runScript(const QString& command) const
{
    // A braced reference in the command hands a value to the script.
    const QString expanded = command.contains(QLatin1Char('{')) && command.contains(QLatin1Char('}'))
        ? expandVariables(command)
        : command;
    QStringList words = QProcess::splitCommand(expanded);
    if (words.isEmpty())
        return QString();

    // What the program wrote before it ended or ran out of time or room.
    const QString program = words.takeFirst();
    return QString::fromLocal8Bit(runProgram(program, words).output).trimmed();
}

QString Marker::directoryAttribute(const QString& attribute) const
{
    QString user = Variables::instance().value(QStringLiteral("job-originating-user-name"));
    if (user.isEmpty())
        return QString();
    const int at = user.indexOf(QLatin1Char('@'));
    if (at >= 0)
        user.truncate(at);

    // A ticket from the host's keytab first; the directory client needs it.
    // It is waited for within the same limits as the look-up itself.
    runProgram(QStringLiteral("kinit"), {QStringLiteral("-kt"), QStringLiteral("/etc/krb5.keytab")});

    const QByteArray listing =
        runProgram(QStringLiteral("ipa"),
                   {QStringLiteral("user-show"), user, QStringLiteral("--raw"), QStringLiteral("--all")})
            .output;

    // Entries are "key: value" lines; headings and values that hold ": "
    // themselves give other than two pieces and are passed over.
    QMap<QString, QString> entries;
    for (const QByteArray& raw : listing.split('\n')) {
        const QStringList pieces = QString::fromUtf8(raw).trimmed().split(QStringLiteral(": "), Qt::SkipEmptyParts);
        if (pieces.size() == 2)
            entries.insert(pieces.at(0).trimmed(), pieces.at(1).trimmed());
    }
    return entries.value(attribute);
}
