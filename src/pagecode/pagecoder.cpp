// The page codes of one marking run.
#include "pagecode/pagecoder.h"

#include "pagecode/pagecodekey.h"
#include "settings/variables.h"

#include <QCoreApplication>

namespace
{

QString coderText(const char* text)
{
    return QCoreApplication::translate("PageCode", text);
}

} // namespace

const char PageCoder::KeySetting[] = "MarkerPageCodeKey";
const char PageCoder::JobKeySetting[] = "MarkerPageCodeJobKey";

PageCoder& PageCoder::instance()
{
    static PageCoder* coder = new PageCoder;
    return *coder;
}

QString PageCoder::setUp(const Variables& variables)
{
    reset();
    if (variables.value(QLatin1String(KeySetting)).isEmpty())
        return QString();
    // The definitions turn codes on; a job key handed to this run stands in
    // for the site key.
    const QString jobKeyFile = variables.value(QLatin1String(JobKeySetting));
    const QString keyFile = jobKeyFile.isEmpty() ? variables.value(QLatin1String(KeySetting)) : jobKeyFile;

    PageCodeKey key;
    QString error;
    if (!PageCodeKey::load(keyFile, &key, &error))
        return error;

    // A code names the job, so the job must have a number.
    bool ok = false;
    const QString jobText = variables.value(QStringLiteral("job-id"));
    const qint64 job = jobText.toLongLong(&ok, 10);
    if (!ok || job < 0)
        return coderText(
                   QT_TRANSLATE_NOOP("PageCode", "Page codes need the job's number, but job-id is \"%1\""))
            .arg(jobText);
    PageCodeKey jobKey;
    if (!key.forJob(job, &jobKey))
        return coderText(QT_TRANSLATE_NOOP("PageCode",
                                           "Page-code key file %1 holds the key of job %2, not of job %3"))
            .arg(keyFile)
            .arg(key.job())
            .arg(job);

    // The copy as the writer counts it: a missing or bad value is copy 0.
    m_copy = variables.value(QStringLiteral("CURRENT_COPY")).toLongLong(&ok, 10);
    if (!ok)
        m_copy = 0;
    m_date = QDate::fromString(variables.value(QStringLiteral("DATE")), QStringLiteral("dd.MM.yyyy"));
    if (!m_date.isValid())
        m_date = QDate::currentDate();
    m_job = job;
    m_jobSecret = jobKey.secret();
    m_on = true;
    return QString();
}

QString PageCoder::code(qint64 page) const
{
    return PageCode::make(m_jobSecret, PageCodeFields::wrap(m_job, page, m_copy, m_date));
}

void PageCoder::reset()
{
    *this = PageCoder();
}
