// Building the variables of one copy of a job.
#include "backend/jobvariables.h"

#include "pagecode/pagecoder.h"
#include "settings/variables.h"

#include <cups/cups.h>

const QStringList& reservedVariableKeys()
{
    static const QStringList keys = {QStringLiteral("job-originating-user-name"),
                                     QStringLiteral("job-id"),
                                     QStringLiteral("job-name"),
                                     QStringLiteral("printer-name"),
                                     QStringLiteral("copies"),
                                     QStringLiteral("CURRENT_COPY"),
                                     QStringLiteral("PAGE_FORMAT"),
                                     QStringLiteral("DEVICEWIDTH"),
                                     QStringLiteral("DEVICEHEIGHT"),
                                     QStringLiteral("LANDSCAPE"),
                                     QStringLiteral("DATE"),
                                     QStringLiteral("TIME"),
                                     QStringLiteral("NUM_PAGES"),
                                     QStringLiteral("NUM_PAGES_CONTINUOUS"),
                                     QLatin1String(PageKeys::CurrentPage),
                                     QLatin1String(PageKeys::CurrentPageContinuous),
                                     QLatin1String(PageKeys::PageCode),
                                     QLatin1String(PageCoder::KeySetting),
                                     QLatin1String(PageCoder::JobKeySetting),
                                     QLatin1String(ScriptWholeValuesKey)};
    return keys;
}

QString cleanValue(const QString& value)
{
    QString clean = value;
    clean.remove(QLatin1Char('\n'));
    clean.remove(QLatin1Char('\r'));
    clean.remove(QChar(0));
    return clean;
}

KeyValueList parseJobOptions(const QByteArray& options)
{
    cups_option_t* parsed = nullptr;
    const int count = cupsParseOptions(options.constData(), 0, &parsed);
    KeyValueList pairs;
    for (int i = 0; i < count; ++i)
        pairs.append({QString::fromUtf8(parsed[i].name), QString::fromUtf8(parsed[i].value)});
    cupsFreeOptions(count, parsed);
    return pairs;
}

bool isLandscape(const KeyValueList& options)
{
    for (const auto& pair : options) {
        if (pair.first == QLatin1String("landscape"))
            return pair.second.isEmpty() || pair.second == QLatin1String("true") ||
                   pair.second == QLatin1String("on") || pair.second == QLatin1String("yes");
        if (pair.first == QLatin1String("orientation-requested"))
            return pair.second == QLatin1String("4") || pair.second == QLatin1String("5");
    }
    return false;
}

QByteArray jobVariables(const JobFacts& job, const QueueSettings& queue, int copy)
{
    KeyValueList lines = {
        {QStringLiteral("job-originating-user-name"),
         job.userVerified ? job.user : job.user + QLatin1String(UnverifiedUserMark)},
        {QStringLiteral("job-id"), job.jobId},
        {QStringLiteral("job-name"), job.title},
        {QStringLiteral("printer-name"), job.printer},
        {QStringLiteral("copies"), QString::number(job.copies)},
        {QStringLiteral("CURRENT_COPY"), QString::number(copy)},
        {QStringLiteral("PAGE_FORMAT"), job.pageFormat},
        {QStringLiteral("DEVICEWIDTH"), job.deviceWidth},
        {QStringLiteral("DEVICEHEIGHT"), job.deviceHeight},
        {QStringLiteral("LANDSCAPE"), job.landscape ? QStringLiteral("1") : QStringLiteral("0")},
    };
    for (const auto& option : job.options) {
        if (queue.jobOptions.contains(option.first) && !reservedVariableKeys().contains(option.first))
            lines.append(option);
    }
    lines += queue.variables;
    // On a print queue the job's values (its title above all, which the
    // printing user chooses) reach a site program as one argument each,
    // whatever the files say.
    lines.append({QLatin1String(ScriptWholeValuesKey), QStringLiteral("1")});
    if (!job.pageCodeKeyFile.isEmpty())
        lines.append({QLatin1String(PageCoder::JobKeySetting), job.pageCodeKeyFile});

    QByteArray bytes;
    for (const auto& pair : lines) {
        const QString key = cleanValue(pair.first);
        if (key.isEmpty() || key.contains(QLatin1Char('=')))
            continue;
        bytes += key.toUtf8() + '=' + cleanValue(pair.second).toUtf8() + '\n';
    }
    return bytes;
}

const QStringList& securityLabelKeys()
{
    static const QStringList keys{QStringLiteral("LABEL_NAME"), QStringLiteral("LABEL_NAME_FULL"),
                                  QStringLiteral("LEVEL_NAME"), QStringLiteral("mac-job-mac-level-name")};
    return keys;
}

QString securityLabel(const KeyValueList& variables)
{
    for (const QString& key : securityLabelKeys()) {
        const QString value = lastValue(variables, key);
        if (!value.isEmpty())
            return value;
    }
    return QString();
}
