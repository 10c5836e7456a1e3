// Reading page codes from page texts and quillet-verify's answers.
#include "support/pagecodetools.h"

#include <QRegularExpression>

QList<Verdict> verdicts(const QByteArray& output)
{
    static const QRegularExpression authentic(QStringLiteral(
        "^\\S+: authentic: job (\\d+), page (\\d+), copy (\\d+), marked on (\\d{4}-\\d\\d-\\d\\d)$"));
    QList<Verdict> result;
    for (const QString& line : QString::fromLocal8Bit(output).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (line.startsWith(QLatin1Char(' ')))
            continue; // an audit line of the code before
        Verdict verdict;
        const QRegularExpressionMatch match = authentic.match(line);
        if (match.hasMatch()) {
            verdict.authentic = true;
            verdict.job = match.captured(1).toLongLong();
            verdict.page = match.captured(2).toInt();
            verdict.copy = match.captured(3).toInt();
            verdict.date = QDate::fromString(match.captured(4), Qt::ISODate);
        }
        result << verdict;
    }
    return result;
}

QStringList verifyAuditLines(const QByteArray& output)
{
    QStringList lines;
    for (const QString& line : QString::fromLocal8Bit(output).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (line.startsWith(QLatin1String("  ")))
            lines << line.mid(2);
    }
    return lines;
}

QString printedPageCode(const QString& pageText, const QString& caption)
{
    const QRegularExpression printed(QRegularExpression::escape(caption) +
                                     QStringLiteral(" +([2-9A-Z]{4}(?:-[2-9A-Z]{4}){5})"));
    return printed.match(pageText).captured(1);
}
