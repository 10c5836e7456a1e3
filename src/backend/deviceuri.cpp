// Splitting the queue's device URI into the real device.
#include "backend/deviceuri.h"

#include <QRegularExpression>

RealDevice realDevice(const QString& deviceUri)
{
    RealDevice device;
    const QString prefix = QLatin1String(BackendScheme) + QLatin1Char(':');
    if (!deviceUri.startsWith(prefix)) {
        device.error = QStringLiteral("the device URI \"%1\" does not start with \"%2\"")
                           .arg(uriForMessages(deviceUri), prefix);
        return device;
    }
    device.uri = deviceUri.mid(prefix.size());
    static const QRegularExpression schemePattern(QStringLiteral("^([A-Za-z][A-Za-z0-9+.-]*):"));
    const QRegularExpressionMatch match = schemePattern.match(device.uri);
    if (!match.hasMatch()) {
        device.error = QStringLiteral("the device URI \"%1\" names no real printer after \"%2\" "
                                      "(expected for example %2socket://printer:9100)")
                           .arg(uriForMessages(deviceUri), prefix);
        return device;
    }
    device.scheme = match.captured(1);
    if (device.scheme.compare(QLatin1String(BackendScheme), Qt::CaseInsensitive) == 0)
        device.error = QStringLiteral("the device URI \"%1\" wraps \"%2\" in itself")
                           .arg(uriForMessages(deviceUri), prefix);
    return device;
}

QString uriForMessages(const QString& uri)
{
    static const QRegularExpression userInfo(QStringLiteral("//[^/@]*@"));
    QString clean = uri;
    clean.replace(userInfo, QStringLiteral("//"));
    return clean;
}
