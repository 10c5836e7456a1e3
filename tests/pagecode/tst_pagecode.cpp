// Page codes in process: the notation, what wraps, known answers of the
// documented scheme, forgeries, keys and key files, and the run's coder.
#include "pagecode/pagecode.h"
#include "pagecode/pagecodekey.h"
#include "pagecode/pagecoder.h"
#include "settings/variables.h"
#include "support/testsupport.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

Q_DECLARE_METATYPE(PageCodeReading)

namespace
{

// The key of the known answers: bytes 0, 1, ..., 31.
QByteArray countingSecret()
{
    QByteArray secret;
    for (int i = 0; i < PageCodeKey::SecretSize; ++i)
        secret.append(char(i));
    return secret;
}

PageCodeKey countingKey()
{
    return PageCodeKey::site(countingSecret());
}

PageCodeKey otherKey()
{
    return PageCodeKey::site(QByteArray(PageCodeKey::SecretSize, '\x5a'));
}

// The code a site key's holder makes for the fields.
QString siteCode(const PageCodeKey& site, const PageCodeFields& fields)
{
    PageCodeKey jobKey;
    if (!site.forJob(fields.job, &jobKey))
        return QString();
    return PageCode::make(jobKey.secret(), fields);
}

PageCodeFields fields(qint64 job, qint64 page, qint64 copy, const QDate& date)
{
    return PageCodeFields::wrap(job, page, copy, date);
}

const QByteArray SiteKeyText = "site 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";

} // namespace

class TestPageCode : public QObject
{
    Q_OBJECT

  private slots:
    void knownAnswers_data();
    void knownAnswers();
    void derivationKnownAnswers_data();
    void derivationKnownAnswers();
    void notation();
    void fieldsWrap_data();
    void fieldsWrap();
    void typedFormsAreAccepted_data();
    void typedFormsAreAccepted();
    void malformedCodesAreNotAuthentic_data();
    void malformedCodesAreNotAuthentic();
    void everySingleCharacterChangeFails_data();
    void everySingleCharacterChangeFails();
    void anotherKeyFails();
    void codeOfOnePageDoesNotPassAsAnother();
    void jobKeyMakesTheSiteKeysCodes();
    void jobKeyChecksItsOwnJobOnly();
    void keyFileTextRoundTrips();
    void keyFilesAreParsed_data();
    void keyFilesAreParsed();
    void coderSetUp_data();
    void coderSetUp();
    void coderMakesEachPagesCode();

  private:
    QTemporaryDir m_dir;
};

// Codes computed by an independent implementation of the scheme that
// pagecode.h documents, so that any other program (the print queue's
// backend) can rely on that description.
void TestPageCode::knownAnswers_data()
{
    QTest::addColumn<qint64>("job");
    QTest::addColumn<qint64>("page");
    QTest::addColumn<qint64>("copy");
    QTest::addColumn<QDate>("date");
    QTest::addColumn<QString>("code");

    QTest::newRow("job 1234, page 2, copy 3")
        << 1234LL << 2LL << 3LL << QDate(2026, 11, 23) << "HV32-RJU4-QE6J-VKVP-3N98-RBJE";
    QTest::newRow("every field at its largest")
        << 16777215LL << 65535LL << 1023LL << QDate(2068, 11, 8) << "CDT6-WEMS-2C7W-5DFK-DRYA-A3TU";
    QTest::newRow("job 0 on the first day")
        << 0LL << 1LL << 1LL << QDate(2024, 1, 1) << "AEAS-MW8W-WKRF-U9UP-TXSE-MQA7";
}

void TestPageCode::knownAnswers()
{
    QFETCH(qint64, job);
    QFETCH(qint64, page);
    QFETCH(qint64, copy);
    QFETCH(QDate, date);
    QFETCH(QString, code);

    QCOMPARE(siteCode(countingKey(), fields(job, page, copy, date)), code);
    PageCodeFields read;
    QCOMPARE(countingKey().read(code, &read), PageCodeReading::Authentic);
    QCOMPARE(read, fields(job, page, copy, date));
}

void TestPageCode::derivationKnownAnswers_data()
{
    QTest::addColumn<quint32>("job");
    QTest::addColumn<QByteArray>("secret");

    QTest::newRow("job 1234") << 1234u
                              << QByteArray(
                                     "5ad9329568f99b58012289264a1633b12082d239f67f60f687050e2ac305cf09");
    QTest::newRow("job 0") << 0u
                           << QByteArray("ac185ac83d721aacc5246044efc32b060595be4b35ff4bc4221a31dd6f5ae94c");
}

void TestPageCode::derivationKnownAnswers()
{
    QFETCH(quint32, job);
    QFETCH(QByteArray, secret);

    QCOMPARE(PageCodeKey::deriveJobSecret(countingSecret(), job).toHex(), secret);
    PageCodeKey jobKey;
    QVERIFY(countingKey().forJob(job, &jobKey));
    QCOMPARE(jobKey.kind(), PageCodeKey::Kind::Job);
    QCOMPARE(jobKey.job(), job);
    QCOMPARE(jobKey.secret().toHex(), secret);
    // A job id past the field's width derives the key of the field's value.
    QVERIFY(countingKey().forJob(qint64(job) + 16777216, &jobKey));
    QCOMPARE(jobKey.secret().toHex(), secret);
}

void TestPageCode::notation()
{
    const QRegularExpression shape(QStringLiteral("^[2-9A-HJKMNP-Z]{4}(-[2-9A-HJKMNP-Z]{4}){5}$"));
    QCOMPARE(QString::fromLatin1(PageCode::Alphabet).size(), 31);
    for (const char ambiguous : {'0', '1', 'O', 'I', 'L'})
        QVERIFY2(!QByteArray(PageCode::Alphabet).contains(ambiguous), &ambiguous);

    // The same inputs give the same code; each code has the grouped shape.
    for (qint64 page = 1; page <= 50; ++page) {
        const PageCodeFields f = fields(77, page, 2, QDate(2025, 3, 4));
        const QString code = siteCode(countingKey(), f);
        QVERIFY2(shape.match(code).hasMatch(), qPrintable(code));
        QCOMPARE(siteCode(countingKey(), f), code);
        QCOMPARE(QString(code).remove(QLatin1Char('-')).size(), PageCode::Length);
    }
    // The notation holds the whole number range: the largest authenticator
    // and data number come back as they went in.
    quint64 mac = 0;
    quint64 data = 0;
    PageCodeReading why = PageCodeReading::Authentic;
    const quint64 largestMac = (quint64(1) << 54) - 1;
    QVERIFY(PageCode::decompose(PageCode::compose(largestMac, ~quint64(0)), &mac, &data, &why));
    QCOMPARE(mac, largestMac);
    QCOMPARE(data, ~quint64(0));
    QVERIFY(PageCode::decompose(PageCode::compose(0, 0), &mac, &data, &why));
    QCOMPARE(mac, quint64(0));
    QCOMPARE(data, quint64(0));
}

void TestPageCode::fieldsWrap_data()
{
    QTest::addColumn<qint64>("job");
    QTest::addColumn<qint64>("page");
    QTest::addColumn<qint64>("copy");
    QTest::addColumn<QDate>("date");
    QTest::addColumn<quint32>("readJob");
    QTest::addColumn<quint32>("readPage");
    QTest::addColumn<quint32>("readCopy");
    QTest::addColumn<QDate>("readDate");

    const QDate day(2026, 5, 17);
    QTest::newRow("values within their widths are kept")
        << 987654LL << 321LL << 7LL << day << 987654u << 321u << 7u << day;
    QTest::newRow("job ids past 16777215 wrap")
        << 16777216LL + 42 << 1LL << 1LL << day << 42u << 1u << 1u << day;
    QTest::newRow("pages past 65535 wrap") << 5LL << 65536LL + 3 << 1LL << day << 5u << 3u << 1u << day;
    QTest::newRow("copies past 1023 wrap") << 5LL << 1LL << 1024LL << day << 5u << 1u << 0u << day;
    QTest::newRow("copy 0 means no copy was named") << 5LL << 1LL << 0LL << day << 5u << 1u << 0u << day;
    QTest::newRow("the last day of the range")
        << 5LL << 1LL << 1LL << QDate(2068, 11, 8) << 5u << 1u << 1u << QDate(2068, 11, 8);
    QTest::newRow("days after the range wrap to its start")
        << 5LL << 1LL << 1LL << QDate(2068, 11, 9) << 5u << 1u << 1u << QDate(2024, 1, 1);
    QTest::newRow("days before the range wrap to its end")
        << 5LL << 1LL << 1LL << QDate(2023, 12, 31) << 5u << 1u << 1u << QDate(2068, 11, 8);
}

void TestPageCode::fieldsWrap()
{
    QFETCH(qint64, job);
    QFETCH(qint64, page);
    QFETCH(qint64, copy);
    QFETCH(QDate, date);
    QFETCH(quint32, readJob);
    QFETCH(quint32, readPage);
    QFETCH(quint32, readCopy);
    QFETCH(QDate, readDate);

    PageCodeFields read;
    QCOMPARE(countingKey().read(siteCode(countingKey(), fields(job, page, copy, date)), &read),
             PageCodeReading::Authentic);
    QCOMPARE(read.job, readJob);
    QCOMPARE(read.page, readPage);
    QCOMPARE(read.copy, readCopy);
    QCOMPARE(read.date, readDate);
}

void TestPageCode::typedFormsAreAccepted_data()
{
    QTest::addColumn<QString>("typed");

    const QString code = siteCode(countingKey(), fields(31337, 12, 2, QDate(2027, 2, 1)));
    QTest::newRow("as printed") << code;
    QTest::newRow("lower case") << code.toLower();
    QTest::newRow("without separators") << QString(code).remove(QLatin1Char('-'));
    QTest::newRow("lower case without separators") << QString(code).remove(QLatin1Char('-')).toLower();
    QTest::newRow("blanks instead of separators")
        << QString(code).replace(QLatin1Char('-'), QLatin1Char(' '));
    QTest::newRow("surrounding blanks") << QStringLiteral("  ") + code + QStringLiteral("\n");
}

void TestPageCode::typedFormsAreAccepted()
{
    QFETCH(QString, typed);
    PageCodeFields read;
    QCOMPARE(countingKey().read(typed, &read), PageCodeReading::Authentic);
    QCOMPARE(read, fields(31337, 12, 2, QDate(2027, 2, 1)));
}

void TestPageCode::malformedCodesAreNotAuthentic_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<PageCodeReading>("reading");

    const QString code = siteCode(countingKey(), fields(4, 4, 4, QDate(2026, 4, 4)));
    const QString plain = QString(code).remove(QLatin1Char('-'));
    QTest::newRow("empty") << QString() << PageCodeReading::WrongLength;
    QTest::newRow("separators only") << QStringLiteral("----") << PageCodeReading::WrongLength;
    QTest::newRow("one character short") << plain.left(23) << PageCodeReading::WrongLength;
    QTest::newRow("one character too many") << plain + QLatin1Char('A') << PageCodeReading::WrongLength;
    QTest::newRow("a group left out") << code.mid(5) << PageCodeReading::WrongLength;
    QTest::newRow("zero for a letter") << QStringLiteral("0") + plain.mid(1) << PageCodeReading::BadCharacter;
    QTest::newRow("letter O") << QStringLiteral("O") + plain.mid(1) << PageCodeReading::BadCharacter;
    QTest::newRow("digit one") << plain.left(23) + QLatin1Char('1') << PageCodeReading::BadCharacter;
    QTest::newRow("letter I") << plain.left(10) + QLatin1Char('I') + plain.mid(11)
                              << PageCodeReading::BadCharacter;
    QTest::newRow("letter l") << plain.left(10) + QLatin1Char('l') + plain.mid(11)
                              << PageCodeReading::BadCharacter;
    QTest::newRow("punctuation") << plain.left(12) + QLatin1Char('.') + plain.mid(13)
                                 << PageCodeReading::BadCharacter;
    QTest::newRow("a letter outside ASCII")
        << plain.left(12) + QChar(0x0410) + plain.mid(13) << PageCodeReading::BadCharacter;
    QTest::newRow("largest spelling") << QString(24, QLatin1Char('Z')) << PageCodeReading::OutOfRange;
    QTest::newRow("smallest spelling") << QString(24, QLatin1Char('2')) << PageCodeReading::NotAuthentic;
}

void TestPageCode::malformedCodesAreNotAuthentic()
{
    QFETCH(QString, typed);
    QFETCH(PageCodeReading, reading);
    PageCodeFields read;
    QCOMPARE(countingKey().read(typed, &read), reading);
}

void TestPageCode::everySingleCharacterChangeFails_data()
{
    QTest::addColumn<int>("position");
    for (int position = 0; position < PageCode::Length; ++position)
        QTest::newRow(qPrintable(QStringLiteral("character %1").arg(position + 1))) << position;
}

void TestPageCode::everySingleCharacterChangeFails()
{
    QFETCH(int, position);
    const QString plain =
        siteCode(countingKey(), fields(2718, 28, 3, QDate(2026, 11, 23))).remove(QLatin1Char('-'));
    PageCodeFields read;
    QCOMPARE(countingKey().read(plain, &read), PageCodeReading::Authentic);

    int tried = 0;
    for (const char c : QByteArray(PageCode::Alphabet)) {
        if (plain.at(position) == QLatin1Char(c))
            continue;
        QString changed = plain;
        changed[position] = QLatin1Char(c);
        const PageCodeReading reading = countingKey().read(changed, &read);
        QVERIFY2(reading == PageCodeReading::NotAuthentic || reading == PageCodeReading::OutOfRange,
                 qPrintable(changed));
        ++tried;
    }
    QCOMPARE(tried, 30);
}

void TestPageCode::anotherKeyFails()
{
    for (qint64 page = 1; page <= 20; ++page) {
        const QString code = siteCode(otherKey(), fields(500, page, 1, QDate(2026, 1, 2)));
        PageCodeFields read;
        QCOMPARE(otherKey().read(code, &read), PageCodeReading::Authentic);
        QCOMPARE(countingKey().read(code, &read), PageCodeReading::NotAuthentic);
        QCOMPARE(PageCodeKey::generate().read(code, &read), PageCodeReading::NotAuthentic);
    }
}

void TestPageCode::codeOfOnePageDoesNotPassAsAnother()
{
    const QString second = siteCode(countingKey(), fields(900, 2, 1, QDate(2026, 6, 1)));
    const QString third = siteCode(countingKey(), fields(900, 3, 1, QDate(2026, 6, 1)));
    QVERIFY(second != third);

    // Read as it is, the second page's code says page 2.
    PageCodeFields read;
    QCOMPARE(countingKey().read(second, &read), PageCodeReading::Authentic);
    QCOMPARE(read.page, 2u);

    // Its authenticator with the third page's data is turned down.
    quint64 mac = 0;
    quint64 data = 0;
    PageCodeReading why = PageCodeReading::Authentic;
    QVERIFY(PageCode::decompose(second, &mac, &data, &why));
    const QString claimed =
        PageCode::compose(mac, PageCode::packFields(fields(900, 3, 1, QDate(2026, 6, 1))));
    QCOMPARE(countingKey().read(claimed, &read), PageCodeReading::NotAuthentic);
}

void TestPageCode::jobKeyMakesTheSiteKeysCodes()
{
    PageCodeKey jobKey;
    QVERIFY(countingKey().forJob(1234, &jobKey));
    // What a marking run makes with the derived key is what a run with the
    // site key makes, and the site key verifies it.
    const QString code = PageCode::make(jobKey.secret(), fields(1234, 2, 3, QDate(2026, 11, 23)));
    QCOMPARE(code, QStringLiteral("HV32-RJU4-QE6J-VKVP-3N98-RBJE"));
    PageCodeFields read;
    QCOMPARE(countingKey().read(code, &read), PageCodeReading::Authentic);
    QCOMPARE(jobKey.read(code, &read), PageCodeReading::Authentic);

    // The job key used for another job's fields makes codes that fail.
    const QString forged = PageCode::make(jobKey.secret(), fields(1235, 2, 3, QDate(2026, 11, 23)));
    QCOMPARE(countingKey().read(forged, &read), PageCodeReading::NotAuthentic);
    // And the site secret used directly, without deriving, is no key of codes.
    const QString underSite = PageCode::make(countingSecret(), fields(1234, 2, 3, QDate(2026, 11, 23)));
    QCOMPARE(countingKey().read(underSite, &read), PageCodeReading::NotAuthentic);
}

void TestPageCode::jobKeyChecksItsOwnJobOnly()
{
    PageCodeKey jobKey;
    QVERIFY(countingKey().forJob(10, &jobKey));
    PageCodeKey same;
    QVERIFY(jobKey.forJob(10, &same));
    QCOMPARE(same.secret(), jobKey.secret());
    QVERIFY(!jobKey.forJob(11, &same));

    PageCodeFields read;
    QCOMPARE(jobKey.read(siteCode(countingKey(), fields(11, 1, 1, QDate(2026, 1, 1))), &read),
             PageCodeReading::NotAuthentic);
}

void TestPageCode::keyFileTextRoundTrips()
{
    PageCodeKey parsed;
    QString error;
    const PageCodeKey site = PageCodeKey::generate();
    QCOMPARE(site.secret().size(), PageCodeKey::SecretSize);
    QVERIFY(site.secret() != PageCodeKey::generate().secret());
    QVERIFY2(PageCodeKey::parse(site.toText(), &parsed, &error), qPrintable(error));
    QCOMPARE(parsed.kind(), PageCodeKey::Kind::Site);
    QCOMPARE(parsed.secret(), site.secret());

    PageCodeKey jobKey;
    QVERIFY(site.forJob(777, &jobKey));
    QVERIFY2(PageCodeKey::parse(jobKey.toText(), &parsed, &error), qPrintable(error));
    QCOMPARE(parsed.kind(), PageCodeKey::Kind::Job);
    QCOMPARE(parsed.job(), 777u);
    QCOMPARE(parsed.secret(), jobKey.secret());
}

void TestPageCode::keyFilesAreParsed_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<QString>("error");

    const QByteArray hex = countingSecret().toHex();
    const QString notAKeyLine =
        QStringLiteral("its key line is neither \"site SECRET\" nor \"job ID SECRET\"");
    const QString badValue =
        QStringLiteral("the secret must be 64 hexadecimal digits and a job id a number below 16777216");
    QTest::newRow("site key") << SiteKeyText << true << QString();
    QTest::newRow("comments, blank lines and blanks around") << "# a comment\n\n   site   " + hex + "  \r\n"
                                                             << true << QString();
    QTest::newRow("upper-case digits") << "site " + hex.toUpper() + '\n' << true << QString();
    QTest::newRow("job key") << "job 1234 " + hex + '\n' << true << QString();
    QTest::newRow("empty file") << QByteArray() << false << QStringLiteral("it holds no key line");
    QTest::newRow("comments only") << QByteArray("# site\n\n") << false
                                   << QStringLiteral("it holds no key line");
    QTest::newRow("unknown kind") << "master " + hex << false << notAKeyLine;
    QTest::newRow("secret missing") << QByteArray("site\n") << false << notAKeyLine;
    QTest::newRow("secret too short") << "site " + hex.left(62) << false << badValue;
    QTest::newRow("secret too long") << "site " + hex + "00" << false << badValue;
    QTest::newRow("not hexadecimal") << "site " + hex.left(63) + 'g' << false << badValue;
    QTest::newRow("job id not a number") << "job twelve " + hex << false << badValue;
    QTest::newRow("job id too large for a code") << "job 16777216 " + hex << false << badValue;
    QTest::newRow("raw random bytes") << QByteArray("\x01\xff\x80 \x02", 5) << false << notAKeyLine;
}

void TestPageCode::keyFilesAreParsed()
{
    QFETCH(QByteArray, text);
    QFETCH(bool, valid);
    QFETCH(QString, error);

    PageCodeKey key;
    QString why;
    QCOMPARE(PageCodeKey::parse(text, &key, &why), valid);
    QCOMPARE(why, error);
    if (valid)
        QCOMPARE(key.secret(), countingSecret());
}

void TestPageCode::coderSetUp_data()
{
    // "@DIR@" stands for a scratch folder that holds key.site (a site key),
    // key.job (the key of job 1234), key.bad (no key) and key.dir (a folder).
    QTest::addColumn<QByteArray>("store");
    QTest::addColumn<bool>("on");
    QTest::addColumn<QString>("error");

    QTest::newRow("no setting: off") << QByteArray("job-id=1\n") << false << QString();
    QTest::newRow("empty setting: off") << QByteArray("job-id=1\nMarkerPageCodeKey=\n") << false << QString();
    QTest::newRow("site key") << QByteArray("job-id=1234\nMarkerPageCodeKey=@DIR@/key.site\n") << true
                              << QString();
    QTest::newRow("key of this job") << QByteArray("job-id=1234\nMarkerPageCodeKey=@DIR@/key.job\n") << true
                                     << QString();
    QTest::newRow("key of another job")
        << QByteArray("job-id=1235\nMarkerPageCodeKey=@DIR@/key.job\n") << false
        << QStringLiteral("Page-code key file @DIR@/key.job holds the key of job 1234, not of job 1235");
    QTest::newRow("missing key file") << QByteArray("job-id=1\nMarkerPageCodeKey=@DIR@/nothing\n") << false
                                      << QStringLiteral("Page-code key file @DIR@/nothing doesn't exist");
    QTest::newRow("unreadable key file") << QByteArray("job-id=1\nMarkerPageCodeKey=@DIR@/key.dir\n") << false
                                         << QStringLiteral("Can not read page-code key file @DIR@/key.dir");
    QTest::newRow("not a key") << QByteArray("job-id=1\nMarkerPageCodeKey=@DIR@/key.bad\n") << false
                               << QStringLiteral(
                                      "Page-code key file @DIR@/key.bad is not a key: it holds no key line");
    QTest::newRow("job key handed to the run stands in for an unreadable site key")
        << QByteArray("job-id=1234\nMarkerPageCodeKey=@DIR@/key.dir\nMarkerPageCodeJobKey=@DIR@/key.job\n")
        << true << QString();
    QTest::newRow("job key handed to the run, of another job")
        << QByteArray("job-id=1235\nMarkerPageCodeKey=@DIR@/key.site\nMarkerPageCodeJobKey=@DIR@/key.job\n")
        << false
        << QStringLiteral("Page-code key file @DIR@/key.job holds the key of job 1234, not of job 1235");
    QTest::newRow("job key handed to the run, missing")
        << QByteArray("job-id=1234\nMarkerPageCodeKey=@DIR@/key.site\nMarkerPageCodeJobKey=@DIR@/nothing\n")
        << false << QStringLiteral("Page-code key file @DIR@/nothing doesn't exist");
    QTest::newRow("job key alone does not turn codes on")
        << QByteArray("job-id=1234\nMarkerPageCodeJobKey=@DIR@/key.job\n") << false << QString();
    QTest::newRow("no job id") << QByteArray("MarkerPageCodeKey=@DIR@/key.site\n") << false
                               << QStringLiteral("Page codes need the job's number, but job-id is \"\"");
    QTest::newRow("job id not a number")
        << QByteArray("job-id=12a\nMarkerPageCodeKey=@DIR@/key.site\n") << false
        << QStringLiteral("Page codes need the job's number, but job-id is \"12a\"");
    QTest::newRow("negative job id") << QByteArray("job-id=-3\nMarkerPageCodeKey=@DIR@/key.site\n") << false
                                     << QStringLiteral(
                                            "Page codes need the job's number, but job-id is \"-3\"");
}

void TestPageCode::coderSetUp()
{
    QFETCH(QByteArray, store);
    QFETCH(bool, on);
    QFETCH(QString, error);

    QVERIFY(m_dir.isValid());
    const QDir dir(m_dir.path());
    QVERIFY(writeFile(dir.filePath(QStringLiteral("key.site")), SiteKeyText));
    PageCodeKey jobKey;
    QVERIFY(countingKey().forJob(1234, &jobKey));
    QVERIFY(writeFile(dir.filePath(QStringLiteral("key.job")), jobKey.toText()));
    QVERIFY(writeFile(dir.filePath(QStringLiteral("key.bad")), "# nothing here\n"));
    QVERIFY(dir.mkpath(QStringLiteral("key.dir")));

    Variables& variables = Variables::instance();
    variables.clear();
    QBuffer buffer;
    buffer.setData(QByteArray(store).replace("@DIR@", m_dir.path().toLocal8Bit()));
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    variables.read(buffer);

    PageCoder& coder = PageCoder::instance();
    QCOMPARE(coder.setUp(variables), QString(error).replace(QStringLiteral("@DIR@"), m_dir.path()));
    QCOMPARE(coder.isOn(), on);
    coder.reset();
    QVERIFY(!coder.isOn());
}

void TestPageCode::coderMakesEachPagesCode()
{
    QVERIFY(m_dir.isValid());
    const QString keyFile = QDir(m_dir.path()).filePath(QStringLiteral("coder.key"));
    QVERIFY(writeFile(keyFile, SiteKeyText));

    Variables& variables = Variables::instance();
    variables.clear();
    variables.insert(QStringLiteral("MarkerPageCodeKey"), keyFile);
    variables.insert(QStringLiteral("job-id"), QStringLiteral("1234"));
    variables.insert(QStringLiteral("CURRENT_COPY"), QStringLiteral("3"));
    variables.insert(QStringLiteral("DATE"), QStringLiteral("23.11.2026"));

    PageCoder& coder = PageCoder::instance();
    QCOMPARE(coder.setUp(variables), QString());
    QVERIFY(coder.isOn());
    QCOMPARE(coder.code(2), QStringLiteral("HV32-RJU4-QE6J-VKVP-3N98-RBJE"));
    PageCodeFields read;
    QCOMPARE(countingKey().read(coder.code(7), &read), PageCodeReading::Authentic);
    QCOMPARE(read, fields(1234, 7, 3, QDate(2026, 11, 23)));

    // A DATE that is not a day in dd.MM.yyyy form gives way to today.
    variables.insert(QStringLiteral("DATE"), QStringLiteral("fixed date"));
    QCOMPARE(coder.setUp(variables), QString());
    QCOMPARE(countingKey().read(coder.code(1), &read), PageCodeReading::Authentic);
    QCOMPARE(read.date, PageCodeFields::wrap(0, 0, 0, QDate::currentDate()).date);

    // The job's own key, handed to the run, makes the very codes of the site
    // key, which the run then never reads.
    PageCodeKey jobKey;
    QVERIFY(countingKey().forJob(1234, &jobKey));
    const QString jobKeyFile = QDir(m_dir.path()).filePath(QStringLiteral("coder-job.key"));
    QVERIFY(writeFile(jobKeyFile, jobKey.toText()));
    variables.insert(QStringLiteral("MarkerPageCodeKey"),
                     QDir(m_dir.path()).filePath(QStringLiteral("absent")));
    variables.insert(QStringLiteral("MarkerPageCodeJobKey"), jobKeyFile);
    variables.insert(QStringLiteral("DATE"), QStringLiteral("23.11.2026"));
    QCOMPARE(coder.setUp(variables), QString());
    QCOMPARE(coder.code(2), QStringLiteral("HV32-RJU4-QE6J-VKVP-3N98-RBJE"));
    coder.reset();
}

QTEST_GUILESS_MAIN(TestPageCode)
#include "tst_pagecode.moc"
