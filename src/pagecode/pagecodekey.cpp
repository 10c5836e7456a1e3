// Page-code keys: random site keys, job key derivation and the key file.
#include "pagecode/pagecodekey.h"

#include "common/filename.h"

#include <QCoreApplication>
#include <QFile>
#include <QMessageAuthenticationCode>
#include <QRandomGenerator>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

const char SiteWord[] = "site";
const char JobWord[] = "job";
const char FileHeader[] = "# quillet page-code key: whoever can read this file can make page codes.\n";
// Text authenticated under the site secret to derive a job secret; the job
// id in decimal follows it.
const char JobContext[] = "quillet page code job ";

QString keyText(const char* text)
{
    return QCoreApplication::translate("PageCode", text);
}

// A secret spelled as exactly SecretSize bytes of hexadecimal digits.
bool parseSecret(const QByteArray& hex, QByteArray* secret)
{
    if (hex.size() != 2 * PageCodeKey::SecretSize)
        return false;
    for (const char c : hex) {
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return false;
    }
    *secret = QByteArray::fromHex(hex);
    return secret->size() == PageCodeKey::SecretSize;
}

} // namespace

PageCodeKey PageCodeKey::generate()
{
    QByteArray secret(SecretSize, '\0');
    QRandomGenerator::system()->generate(secret.begin(), secret.end());
    return site(secret);
}

PageCodeKey PageCodeKey::site(const QByteArray& secret)
{
    PageCodeKey key;
    key.m_kind = Kind::Site;
    key.m_secret = secret;
    return key;
}

QByteArray PageCodeKey::deriveJobSecret(const QByteArray& siteSecret, quint32 jobField)
{
    return QMessageAuthenticationCode::hash(QByteArray(JobContext) + QByteArray::number(jobField), siteSecret,
                                            QCryptographicHash::Sha256);
}

bool PageCodeKey::parse(const QByteArray& text, PageCodeKey* key, QString* error)
{
    for (const QByteArray& raw : text.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.isEmpty() || line.startsWith('#'))
            continue;

        const QList<QByteArray> words = line.simplified().split(' ');
        PageCodeKey parsed;
        bool ok = false;
        if (words.size() == 2 && words.at(0) == SiteWord) {
            ok = parseSecret(words.at(1), &parsed.m_secret);
        } else if (words.size() == 3 && words.at(0) == JobWord) {
            parsed.m_kind = Kind::Job;
            const qulonglong job = words.at(1).toULongLong(&ok, 10);
            ok = ok && job == PageCodeFields::wrap(qint64(job), 0, 0, QDate()).job &&
                 parseSecret(words.at(2), &parsed.m_secret);
            parsed.m_job = quint32(job);
        } else {
            *error = keyText(QT_TRANSLATE_NOOP(
                "PageCode", "its key line is neither \"site SECRET\" nor \"job ID SECRET\""));
            return false;
        }
        if (!ok) {
            *error = keyText(QT_TRANSLATE_NOOP(
                "PageCode", "the secret must be 64 hexadecimal digits and a job id a number below 16777216"));
            return false;
        }
        *key = parsed;
        return true;
    }
    *error = keyText(QT_TRANSLATE_NOOP("PageCode", "it holds no key line"));
    return false;
}

bool PageCodeKey::load(const QString& path, PageCodeKey* key, QString* error)
{
    if (!fileNameExists(path)) {
        *error = keyText(QT_TRANSLATE_NOOP("PageCode", "Page-code key file %1 doesn't exist")).arg(path);
        return false;
    }
    QFile file;
    if (!openFileByName(file, path, QIODevice::ReadOnly)) {
        *error = keyText(QT_TRANSLATE_NOOP("PageCode", "Can not read page-code key file %1")).arg(path);
        return false;
    }
    QString why;
    if (!parse(file.readAll(), key, &why)) {
        *error =
            keyText(QT_TRANSLATE_NOOP("PageCode", "Page-code key file %1 is not a key: %2")).arg(path, why);
        return false;
    }
    return true;
}

bool PageCodeKey::saveNew(const QString& path, QString* error) const
{
    // O_EXCL refuses any existing name, a dangling link included; the mode
    // is set again after creation because the umask may have narrowed it.
    const QByteArray name = encodeFileName(path);
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        const int cause = errno;
        *error =
            cause == EEXIST
                ? keyText(QT_TRANSLATE_NOOP("PageCode", "Key file %1 already exists; it is not replaced"))
                      .arg(path)
                : keyText(QT_TRANSLATE_NOOP("PageCode", "Can not create key file %1: %2"))
                      .arg(path, QString::fromLocal8Bit(std::strerror(cause)));
        return false;
    }
    const QByteArray text = toText();
    bool ok = ::fchmod(fd, 0600) == 0;
    for (qint64 written = 0; ok && written < text.size();) {
        const ssize_t n = ::write(fd, text.constData() + written, size_t(text.size() - written));
        ok = n > 0;
        written += n;
    }
    ok = ::fsync(fd) == 0 && ok;
    const int cause = errno;
    ok = ::close(fd) == 0 && ok;
    if (!ok) {
        ::unlink(name.constData());
        *error = keyText(QT_TRANSLATE_NOOP("PageCode", "Can not create key file %1: %2"))
                     .arg(path, QString::fromLocal8Bit(std::strerror(cause)));
    }
    return ok;
}

QByteArray PageCodeKey::toText() const
{
    const QByteArray line =
        m_kind == Kind::Site ? QByteArray(SiteWord) + ' ' + m_secret.toHex()
                             : QByteArray(JobWord) + ' ' + QByteArray::number(m_job) + ' ' + m_secret.toHex();
    return FileHeader + line + '\n';
}

bool PageCodeKey::forJob(qint64 jobId, PageCodeKey* jobKey) const
{
    const quint32 field = PageCodeFields::wrap(jobId, 0, 0, QDate()).job;
    if (m_kind == Kind::Job) {
        if (field != m_job)
            return false;
        *jobKey = *this;
        return true;
    }
    jobKey->m_kind = Kind::Job;
    jobKey->m_job = field;
    jobKey->m_secret = deriveJobSecret(m_secret, field);
    return true;
}

PageCodeReading PageCodeKey::read(const QString& typed, PageCodeFields* fields) const
{
    quint64 mac = 0;
    quint64 data = 0;
    PageCodeReading why = PageCodeReading::NotAuthentic;
    if (!PageCode::decompose(typed, &mac, &data, &why))
        return why;
    const PageCodeFields said = PageCode::unpackFields(data);
    PageCodeKey jobKey;
    if (!forJob(said.job, &jobKey) || PageCode::authenticator(jobKey.secret(), data) != mac)
        return PageCodeReading::NotAuthentic;
    *fields = said;
    return PageCodeReading::Authentic;
}

QString PageCodeKey::identity() const
{
    const QByteArray hash = QCryptographicHash::hash(QByteArrayLiteral("quillet key identity\n") + m_secret,
                                                     QCryptographicHash::Sha256);
    return QString::fromLatin1(hash.toHex().left(16));
}
