// The job's paper size from the PPD and the job's options.
#include "backend/pagesize.h"

#include <QMap>
#include <QRegularExpression>

#include <cups/cups.h>

namespace
{

struct PpdSizes {
    QString defaultName;
    // Size name -> "width height" in points, as the PPD gives them.
    QMap<QString, QPair<QString, QString>> dimensions;
};

PpdSizes readPpdSizes(const QByteArray& ppd)
{
    static const QRegularExpression defaultLine(QStringLiteral("^\\*DefaultPageSize:\\s*(\\S+)"));
    static const QRegularExpression dimensionLine(
        QStringLiteral("^\\*PaperDimension\\s+([^/:\\s]+)[^:]*:\\s*\"\\s*([0-9.]+)\\s+([0-9.]+)\\s*\""));
    PpdSizes sizes;
    for (const QByteArray& rawLine : ppd.split('\n')) {
        const QString line = QString::fromLatin1(rawLine).trimmed();
        QRegularExpressionMatch match = defaultLine.match(line);
        if (match.hasMatch()) {
            sizes.defaultName = match.captured(1);
            continue;
        }
        match = dimensionLine.match(line);
        if (match.hasMatch())
            sizes.dimensions.insert(match.captured(1), {match.captured(2), match.captured(3)});
    }
    return sizes;
}

// The PPD's spelling of a size name (PPD names compare without case).
QString ppdName(const PpdSizes& sizes, const QString& name)
{
    for (auto it = sizes.dimensions.cbegin(); it != sizes.dimensions.cend(); ++it) {
        if (it.key().compare(name, Qt::CaseInsensitive) == 0)
            return it.key();
    }
    return QString();
}

QString points(int hundredthsOfMillimetre)
{
    return QString::number(qRound(hundredthsOfMillimetre * 72.0 / 2540.0));
}

// Resolves one requested name against the PPD, then against the PWG table.
bool resolve(const PpdSizes& sizes, const QString& requested, PaperSize* size)
{
    QString name = ppdName(sizes, requested);
    if (!name.isEmpty()) {
        const auto dimension = sizes.dimensions.value(name);
        *size = {name, dimension.first, dimension.second};
        return true;
    }
    const QByteArray bytes = requested.toUtf8();
    pwg_media_t* media = pwgMediaForPWG(bytes.constData());
    if (!media)
        media = pwgMediaForPPD(bytes.constData());
    if (!media || !media->ppd)
        return false;
    name = ppdName(sizes, QString::fromLatin1(media->ppd));
    if (!name.isEmpty()) {
        const auto dimension = sizes.dimensions.value(name);
        *size = {name, dimension.first, dimension.second};
    } else {
        *size = {QString::fromLatin1(media->ppd), points(media->width), points(media->length)};
    }
    return true;
}

QString optionValue(const KeyValueList& options, const QString& name)
{
    for (const auto& pair : options) {
        if (pair.first.compare(name, Qt::CaseInsensitive) == 0)
            return pair.second;
    }
    return QString();
}

} // namespace

PaperSize jobPaperSize(const QByteArray& ppd, const KeyValueList& options)
{
    const PpdSizes sizes = readPpdSizes(ppd);
    PaperSize size;
    const QString pageSize = optionValue(options, QStringLiteral("PageSize"));
    if (!pageSize.isEmpty() && resolve(sizes, pageSize, &size))
        return size;
    for (const QString& entry :
         optionValue(options, QStringLiteral("media")).split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        if (resolve(sizes, entry.trimmed(), &size))
            return size;
    }
    if (!sizes.defaultName.isEmpty() && resolve(sizes, sizes.defaultName, &size))
        return size;
    return {sizes.defaultName, QString(), QString()};
}
