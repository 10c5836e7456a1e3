// Page-code keys: the site's secret key, keys derived from it for one job,
// and their key files.
#pragma once

#include "pagecode/pagecode.h"

#include <QByteArray>
#include <QString>

// A page-code key. A site key is the secret the site keeps (made by
// "quillet-verify --new-key"); a job key is derived from it for one job id and
// lets its holder make the codes of that job only. Codes are always made
// under the job key, whichever of the two a marking run holds, so every code
// verifies from the site key alone.
//
// Key file format, text: lines starting with "#" and blank lines are skipped;
// the first other line is
//   site <64 hexadecimal digits>
// or
//   job <job id as a code stores it> <64 hexadecimal digits>
class PageCodeKey
{
  public:
    enum class Kind { Site, Job };

    // Number of bytes of every secret.
    static constexpr int SecretSize = 32;

    // A new site key from the operating system's random source.
    static PageCodeKey generate();

    // A site key with the given secret (SecretSize bytes).
    static PageCodeKey site(const QByteArray& secret);

    // The secret of one job under a site secret:
    //   HMAC-SHA-256(site secret, "quillet page code job " + job id in decimal)
    // where the job id is the code's job field (the id reduced to 24 bits).
    static QByteArray deriveJobSecret(const QByteArray& siteSecret, quint32 jobField);

    // Reads a key file's text. On failure returns false and sets *error to
    // why (without the file's name).
    static bool parse(const QByteArray& text, PageCodeKey* key, QString* error);

    // Reads a key file. On failure returns false and sets *error to a
    // message naming the file.
    static bool load(const QString& path, PageCodeKey* key, QString* error);

    // Writes the key as a new file of mode 0600. An existing file (or link)
    // of that name is never replaced: returns false and sets *error then, and
    // on every other failure.
    bool saveNew(const QString& path, QString* error) const;

    // The key file's text.
    QByteArray toText() const;

    Kind kind() const { return m_kind; }
    const QByteArray& secret() const { return m_secret; }
    // The job a job key belongs to (its code field); 0 for a site key.
    quint32 job() const { return m_job; }

    // A name for the key that does not give it away (16 hex digits of a
    // hash of the secret), for audit records.
    QString identity() const;

    // The job key of one job id (reduced to the code's field): derived from a
    // site key; a job key answers itself for its own job. Returns false for a
    // job key of another job.
    bool forJob(qint64 jobId, PageCodeKey* jobKey) const;

    // Reads a typed code and checks it against this key; on Authentic,
    // *fields receives what the code says.
    PageCodeReading read(const QString& typed, PageCodeFields* fields) const;

  private:
    Kind m_kind = Kind::Site;
    quint32 m_job = 0;
    QByteArray m_secret;
};
