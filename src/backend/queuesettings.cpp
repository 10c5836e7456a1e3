// Reading a queue's marking configuration and the print server's account.
#include "backend/queuesettings.h"

#include "backend/printeroutput.h"
#include "pagecode/pagecoder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace
{

// Reads a whole file; false when it exists but cannot be read.
bool readWhole(const QString& path, QByteArray* content)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    *content = file.readAll();
    return file.error() == QFileDevice::NoError;
}

// The queue's own file, else the folder's default file; empty when neither exists.
QString queueFile(const QString& folder, const QString& queue, const QString& suffix)
{
    const QString own = folder + QLatin1Char('/') + queue + suffix;
    if (QFileInfo::exists(own))
        return own;
    const QString fallback = folder + QStringLiteral("/default") + suffix;
    return QFileInfo::exists(fallback) ? fallback : QString();
}

bool isSafeQueueName(const QString& queue)
{
    return !queue.isEmpty() && !queue.contains(QLatin1Char('/')) && !queue.startsWith(QLatin1Char('.'));
}

} // namespace

KeyValueList parseKeyValueLines(const QByteArray& bytes)
{
    KeyValueList pairs;
    for (const QByteArray& rawLine : bytes.split('\n')) {
        const QString line = QString::fromUtf8(rawLine).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0)
            continue;
        pairs.append({line.left(equals).trimmed(), line.mid(equals + 1).trimmed()});
    }
    return pairs;
}

QString lastValue(const KeyValueList& pairs, const QString& key)
{
    QString value;
    for (const auto& pair : pairs) {
        if (pair.first == key)
            value = pair.second;
    }
    return value;
}

QueueSettings readQueueSettings(const QString& serverRoot, const QString& queue)
{
    QueueSettings settings;
    if (!isSafeQueueName(queue)) {
        settings.error = QStringLiteral("the queue name \"%1\" cannot name a configuration file").arg(queue);
        return settings;
    }
    const QString folder = serverRoot + QLatin1Char('/') + QLatin1String(QueueConfigFolder);

    settings.variablesFile = queueFile(folder, queue, QStringLiteral(".vars"));
    if (!settings.variablesFile.isEmpty()) {
        QByteArray content;
        if (!readWhole(settings.variablesFile, &content)) {
            settings.error = QStringLiteral("cannot read %1").arg(settings.variablesFile);
            return settings;
        }
        for (const auto& pair : parseKeyValueLines(content)) {
            if (pair.first == QLatin1String(JobOptionsSetting)) {
                for (const QString& name : pair.second.split(QLatin1Char(','), Qt::SkipEmptyParts))
                    settings.jobOptions.append(name.trimmed());
            } else if (pair.first == QLatin1String(DuplexSetting)) {
                settings.duplexBackPages = pair.second == QLatin1String("1");
            } else if (pair.first == QLatin1String(MarkingUserSetting)) {
                settings.markingUser = pair.second;
            } else if (pair.first == QLatin1String(TrustedInterpreterSetting)) {
                settings.trustedInterpreter = pair.second != QLatin1String("0");
            } else if (pair.first == QLatin1String(DirectoryLookupsSetting)) {
                settings.directoryLookups = pair.second == QLatin1String("1");
            } else if (pair.first == QLatin1String(SandboxFoldersSetting)) {
                for (const QString& folder : pair.second.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
                    const QString path = QDir::cleanPath(folder.trimmed());
                    if (!path.startsWith(QLatin1Char('/'))) {
                        settings.error = QStringLiteral("%1: %2 names \"%3\", which is not an absolute path")
                                             .arg(settings.variablesFile, pair.first, folder.trimmed());
                        return settings;
                    }
                    settings.sandboxFolders.append(path);
                }
            } else if (pair.first == QLatin1String(CpuSecondsSetting) ||
                       pair.first == QLatin1String(MemorySetting) ||
                       pair.first == QLatin1String(OutputSetting) ||
                       pair.first == QLatin1String(PageLimitSetting)) {
                bool ok = false;
                const int value = pair.second.toInt(&ok);
                if (!ok || value <= 0 || value > 1000000) {
                    settings.error =
                        QStringLiteral("%1: %2 must be a whole number from 1 to 1000000, not \"%3\"")
                            .arg(settings.variablesFile, pair.first, pair.second);
                    return settings;
                }
                int& bound = pair.first == QLatin1String(CpuSecondsSetting) ? settings.cpuSeconds
                             : pair.first == QLatin1String(MemorySetting)   ? settings.memoryMB
                             : pair.first == QLatin1String(OutputSetting)   ? settings.outputMB
                                                                            : settings.pageLimit;
                bound = value;
            } else if (pair.first == QLatin1String(UnverifiedUserSetting)) {
                if (pair.second != QLatin1String("mark") && pair.second != QLatin1String("refuse")) {
                    settings.error = QStringLiteral("%1: %2 must be mark or refuse, not \"%3\"")
                                         .arg(settings.variablesFile, pair.first, pair.second);
                    return settings;
                }
                settings.refuseUnverifiedUser = pair.second == QLatin1String("refuse");
            } else if (pair.first == QLatin1String(OutputFormatSetting)) {
                if (!isOutputFormatSetting(pair.second)) {
                    settings.error =
                        QStringLiteral("%1: %2 must be auto, postscript, pdf, pwg-raster, urf or pcl, "
                                       "not \"%3\"")
                            .arg(settings.variablesFile, pair.first, pair.second);
                    return settings;
                }
                settings.outputFormat = pair.second;
            } else if (pair.first == QLatin1String(PageCoder::KeySetting) ||
                       pair.first == QLatin1String(PageCoder::JobKeySetting)) {
                // The marking account must never be pointed at the site key,
                // and the job key is the backend's own.
                settings.error =
                    QStringLiteral("%1 must not set %2: the page-code key is named in the marker definitions")
                        .arg(settings.variablesFile, pair.first);
                return settings;
            } else {
                settings.variables.append(pair);
            }
        }
    }

    settings.templateFile = queueFile(folder, queue, QStringLiteral(".tmpl"));
    if (!settings.templateFile.isEmpty()) {
        QFile file(settings.templateFile);
        if (!file.open(QIODevice::ReadOnly))
            settings.error = QStringLiteral("cannot read the template %1").arg(settings.templateFile);
    }
    return settings;
}

ServerAccount readServerAccount(const QString& serverRoot)
{
    ServerAccount account;
    QByteArray content;
    if (!readWhole(serverRoot + QStringLiteral("/cups-files.conf"), &content))
        return account;
    for (const QByteArray& rawLine : content.split('\n')) {
        const QStringList words = QString::fromUtf8(rawLine).simplified().split(QLatin1Char(' '));
        if (words.size() != 2)
            continue;
        if (words.at(0).compare(QLatin1String("User"), Qt::CaseInsensitive) == 0)
            account.user = words.at(1);
        else if (words.at(0).compare(QLatin1String("Group"), Qt::CaseInsensitive) == 0)
            account.group = words.at(1);
    }
    return account;
}
