// Expansion of variable references in marker texts: values from the store,
// from a site script ("SCRIPT:") and from the user directory ("FREEIPA:").
#include "marker/marker.h"

#include "common/boundedprocess.h"
#include "settings/variables.h"

#include <QMap>
#include <QProcess>
#include <QStringList>

#include <algorithm>
#include <iterator>

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

// Walks the references of a text in one pass with a depth counter: only the
// outermost brackets delimit a reference, and everything between them is its
// name. plain(run) gets the text outside references in runs, reference(name)
// each name. A stray closing bracket makes the depth negative, and from then
// on the rest of the text is one plain run; a text that ends inside a
// reference drops it.
template <typename Plain, typename Reference>
void walkReferences(QStringView text, Plain plain, Reference reference)
{
    qsizetype plainStart = 0;
    qsizetype nameStart = 0;
    int depth = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (isOpening(c)) {
            if (++depth == 1) {
                plain(text.mid(plainStart, i - plainStart));
                nameStart = i + 1;
            }
        } else if (isClosing(c)) {
            if (--depth == 0) {
                reference(text.mid(nameStart, i - nameStart));
                plainStart = i + 1;
            }
        }
    }
    if (depth <= 0)
        plain(text.mid(plainStart));
}

const QLatin1String ScriptPrefix("SCRIPT:");
const QLatin1String DirectoryPrefix("FREEIPA:");

} // namespace

QString Marker::expandVariables(const QString& text) const
{
    return expandReferences(text, 0);
}

bool Marker::changesPerPage(const QString& text) const
{
    bool changes = false;
    walkReferences(
        text, [](QStringView) {},
        [&changes](QStringView name) {
            changes = changes || name.startsWith(ScriptPrefix) || name.startsWith(DirectoryPrefix)
                || std::any_of(std::cbegin(PageKeys::All), std::cend(PageKeys::All),
                               [name](const char* key) { return name == QLatin1String(key); });
        });
    return changes;
}

// The expansion works on views of the text: a reference's name, and a
// command within it, are never copied, so nested references cost no more
// memory than the text itself whatever their depth. scriptDepth counts the
// SCRIPT: references that the text lies in.
QString Marker::expandReferences(QStringView text, int scriptDepth) const
{
    QString result;
    walkReferences(
        text, [&result](QStringView run) { result += run; },
        [&](QStringView name) { result += resolveReference(name, scriptDepth); });
    return result;
}

QString Marker::resolveReference(QStringView name, int scriptDepth) const
{
    if (name.startsWith(ScriptPrefix))
        return runScriptAt(name.mid(ScriptPrefix.size()).trimmed(), scriptDepth + 1);
    if (name.startsWith(DirectoryPrefix))
        return directoryAttribute(name.mid(DirectoryPrefix.size()).trimmed().toString());
    const QString key = name.toString();
    QString value = Variables::instance().value(key);
    if (m_replaceUnderscore && securityLabelVariables().contains(key))
        value.replace(QLatin1Char('_'), QLatin1Char(' '));
    return value;
}

// The words of a command split as QProcess::splitCommand splits them (blanks
// part words, double quotes group them, three in a row stand for one quote),
// except that the value of a reference goes into its word as it is: blanks,
// quotes and brackets in a value are data, never read as syntax. The values
// come from the job (its title is whatever the printing user typed), so
// splitting them would let a user add options to the site's program. A
// reference makes a word even when its value is empty, so that the program
// finds its arguments where the template puts them.
QStringList Marker::scriptArguments(QStringView command, int scriptDepth) const
{
    QStringList words;
    QString word;
    bool valueInWord = false;
    int quotes = 0; // double quotes in a row, not yet taken as syntax
    bool quoted = false;
    const auto takeQuotes = [&] {
        if (quotes == 1)
            quoted = !quoted;
        quotes = 0;
    };
    const auto endWord = [&] {
        if (!word.isEmpty() || valueInWord)
            words << word;
        word.clear();
        valueInWord = false;
    };
    walkReferences(
        command,
        [&](QStringView run) {
            for (const QChar c : run) {
                if (c == QLatin1Char('"')) {
                    if (++quotes == 3) {
                        quotes = 0;
                        word += c;
                    }
                    continue;
                }
                takeQuotes();
                if (!quoted && c.isSpace())
                    endWord();
                else
                    word += c;
            }
        },
        [&](QStringView name) {
            takeQuotes();
            word += resolveReference(name, scriptDepth);
            valueInWord = true;
        });
    endWord();
    return words;
}

QString Marker::runScript(const QString& command) const
{
    return runScriptAt(command, 1);
}

QString Marker::runScriptAt(QStringView command, int scriptDepth) const
{
    // Each nested reference runs a program of its own; the nesting is
    // bounded so that neither the programs nor the recursion can pile up.
    if (scriptDepth > MaxScriptNesting) {
        qWarning("Script reference nested deeper than %d levels is not run!", MaxScriptNesting);
        return QString();
    }

    // A braced reference in the command hands a value to the script: by
    // default the command is expanded and then split, so a value with blanks
    // gives several arguments; MarkerScriptWholeValues=1 gives each value as
    // one argument.
    const bool braced = command.contains(QLatin1Char('{')) && command.contains(QLatin1Char('}'));
    QStringList words;
    if (braced && Variables::instance().scriptWholeValues())
        words = scriptArguments(command, scriptDepth);
    else
        words = QProcess::splitCommand(braced ? expandReferences(command, scriptDepth) : command.toString());
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
