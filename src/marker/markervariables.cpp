// Expansion of variable references in marker texts: values from the store,
// from a site script ("SCRIPT:") and from the user directory ("FREEIPA:").
#include "marker/marker.h"

#include "settings/variables.h"

#include <QMap>
#include <QProcess>
#include <QStringList>

namespace {

// How long a site script or the directory client may run.
constexpr int ProgramWaitMs = 4000;

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

// Ends a program that outlived its wait. Left running, it would be killed
// by the process object's destructor with a warning on standard error.
void stopProgram(QProcess& process)
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
    }
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

    QProcess process;
    const QString program = words.takeFirst();
    process.start(program, words, QIODevice::ReadOnly);
    process.waitForFinished(ProgramWaitMs);
    const QByteArray output = process.readAllStandardOutput();
    stopProgram(process);
    return QString::fromLocal8Bit(output).trimmed();
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
    QProcess::execute(QStringLiteral("kinit"), {QStringLiteral("-kt"), QStringLiteral("/etc/krb5.keytab")});

    QProcess ipa;
    ipa.start(QStringLiteral("ipa"),
              {QStringLiteral("user-show"), user, QStringLiteral("--raw"), QStringLiteral("--all")},
              QIODevice::ReadOnly);
    ipa.waitForFinished(ProgramWaitMs);

    // Entries are "key: value" lines; headings and values that hold ": "
    // themselves give other than two pieces and are passed over.
    QMap<QString, QString> entries;
    for (QByteArray raw = ipa.readLine(); !raw.isEmpty(); raw = ipa.readLine()) {
        const QStringList pieces = QString::fromUtf8(raw).trimmed().split(QStringLiteral(": "), Qt::SkipEmptyParts);
        if (pieces.size() == 2)
            entries.insert(pieces.at(0).trimmed(), pieces.at(1).trimmed());
    }
    stopProgram(ipa);
    return entries.value(attribute);
}
