// The key/value store and its "key=value" file format.
#include "settings/variables.h"

#include "common/trace.h"

#include <QIODevice>

Variables& Variables::instance()
{
    static Variables* store = new Variables;
    return *store;
}

void Variables::read(QIODevice& device)
{
    while (!device.atEnd()) {
        const QByteArray raw = device.readLine();
        const QString line = QString::fromLocal8Bit(raw).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;

        // The key runs up to the first "=", which must not be the first character.
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0) {
            trace(QStringLiteral("Incorrect line %1. Line should look like 'key=value")
                      .arg(QString::fromLatin1(raw)));
            continue;
        }
        const QString key = line.left(equals);
        const QString value = line.mid(equals + 1);
        trace(QStringLiteral("Key: %1, value: %2").arg(key, value));
        m_values.insert(key, value);
    }
}

void Variables::write(QIODevice& device) const
{
    // The value goes into whatever placeholder is lowest after the key was
    // substituted, so a key holding "%1" or "%2" receives the value there.
    for (auto it = m_values.cbegin(); it != m_values.cend(); ++it)
        device.write(QStringLiteral("%1=%2\n").arg(it.key()).arg(it.value()).toLocal8Bit());
}

QString Variables::value(const QString& key) const
{
    return m_values.value(key);
}

bool Variables::contains(const QString& key) const
{
    return m_values.contains(key);
}

void Variables::insert(const QString& key, const QString& value)
{
    m_values.insert(key, value);
}

void Variables::clear()
{
    m_values.clear();
}

bool Variables::safeOutput() const
{
    return value(QStringLiteral("MarkerSafeOutput")) == QLatin1String("1");
}

bool Variables::accountingStamp() const
{
    return safeOutput() && value(QStringLiteral("MarkerAccountingStamp")) == QLatin1String("1");
}

bool Variables::scriptWholeValues() const
{
    return value(QLatin1String(ScriptWholeValuesKey)) == QLatin1String("1");
}
