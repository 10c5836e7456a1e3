// File names kept byte for byte through text: every byte string comes back
// from its text unchanged, and names that the locale's encoding reads are
// the text it reads.
#include "common/filename.h"

#include <QFile>
#include <QTest>
#include <QTextCodec>

class TestFileName : public QObject
{
    Q_OBJECT

  private slots:
    void roundTrip_data();
    void roundTrip();
    void everyByteComesBack();
};

void TestFileName::roundTrip_data()
{
    QTest::addColumn<QByteArray>("codec");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("readable"); // the locale's encoding reads it whole

    for (const QByteArray& codec : {QByteArray("UTF-8"), QByteArray("ISO-8859-1")}) {
        const auto row = [&codec](const char* name) {
            return &QTest::newRow(
                qPrintable(QStringLiteral("%1, %2").arg(QLatin1String(codec), QLatin1String(name))));
        };
        *row("empty") << codec << QByteArray() << true;
        *row("ASCII with blanks and line feeds") << codec << QByteArray("a b\nc\n") << true;
        *row("Cyrillic in UTF-8") << codec << QByteArray("\xd0\xb4\xd0\xbe\xd0\xba") << true;
        *row("beyond the BMP in UTF-8") << codec << QByteArray("x\xf0\x9f\x96\xa8y") << true;
        *row("invalid UTF-8") << codec << QByteArray("\xff\xfe") << (codec != "UTF-8");
        *row("Latin-1") << codec << QByteArray("r\xe9sum\xe9") << (codec != "UTF-8");
        *row("cut sequence") << codec << QByteArray("\xd0\xb4\xd0") << (codec != "UTF-8");
        *row("encoded surrogate") << codec << QByteArray("\xed\xb2\x80") << (codec != "UTF-8");
        *row("replacement character itself") << codec << QByteArray("\xef\xbf\xbd") << true;
    }
}

void TestFileName::roundTrip()
{
    QFETCH(QByteArray, codec);
    QFETCH(QByteArray, bytes);
    QFETCH(bool, readable);

    QTextCodec* saved = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName(codec));
    const QString text = decodeFileName(bytes);
    const QByteArray back = encodeFileName(text);
    const QString local = QString::fromLocal8Bit(bytes);
    QTextCodec::setCodecForLocale(saved);

    QCOMPARE(back, bytes);
    // A name the encoding reads is exactly the text it reads, so messages
    // and everything else see what they saw before.
    QCOMPARE(text == local, readable);
}

// All 255 bytes that a name may hold, one at a time and all together, under
// the UTF-8 encoding that leaves most of them unread.
void TestFileName::everyByteComesBack()
{
    QTextCodec* saved = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QByteArray all;
    for (int byte = 1; byte < 256; ++byte) {
        const QByteArray one(1, char(byte));
        all += one;
        QCOMPARE(encodeFileName(decodeFileName(one)), one);
    }
    QCOMPARE(encodeFileName(decodeFileName(all)), all);
    QCOMPARE(encodeFileName(decodeFileName(all + all)), all + all);
    QTextCodec::setCodecForLocale(saved);
}

QTEST_GUILESS_MAIN(TestFileName)
#include "tst_filename.moc"
