// The key/value store: reading "key=value" lines, lookups, writing in key
// order and reading back what was written.
#include "settings/variables.h"
#include "support/testsupport.h"

#include <QBuffer>
#include <QTemporaryFile>
#include <QTest>
#include <QTextCodec>

namespace {

// Reads the bytes into the store through an in-memory device.
void readBytes(const QByteArray& bytes)
{
    QByteArray data = bytes;
    QBuffer buffer(&data);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    Variables::instance().read(buffer);
}

// Everything the store holds, as written by write().
QByteArray writtenBytes()
{
    QByteArray data;
    QBuffer buffer(&data);
    buffer.open(QIODevice::WriteOnly);
    Variables::instance().write(buffer);
    buffer.close();
    return data;
}

} // namespace

class TestVariables : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void instanceIsOneStore();
    void readingRules_data();
    void readingRules();
    void emptyValueAndMissingKeyDifferOnlyInContains();
    void laterReadReplacesEarlierKeys();
    void insertAddsAndReplaces();
    void readDecodesLocal8Bit_data();
    void readDecodesLocal8Bit();

    void writingRules_data();
    void writingRules();
    void emptyStoreWritesNothing();
    void writeEncodesLocal8Bit();

    void readBackOfWrittenFile();
    void readBackIsLossy_data();
    void readBackIsLossy();

private:
    QTextCodec* m_localCodec = nullptr;
};

void TestVariables::init()
{
    Variables::instance().clear();
    m_localCodec = QTextCodec::codecForLocale();
}

void TestVariables::cleanup()
{
    QTextCodec::setCodecForLocale(m_localCodec);
    Variables::instance().clear();
}

void TestVariables::instanceIsOneStore()
{
    Variables::instance().insert(QStringLiteral("A"), QStringLiteral("1"));
    QCOMPARE(&Variables::instance(), &Variables::instance());
    QCOMPARE(Variables::instance().value(QStringLiteral("A")), QStringLiteral("1"));
}

void TestVariables::readingRules_data()
{
    QTest::addColumn<QByteArray>("input");
    // Alternating key and value of every pair the store must hold afterwards,
    // in key order; nothing else may be in it.
    QTest::addColumn<QStringList>("pairs");

    const auto p = [](std::initializer_list<const char*> list) {
        QStringList result;
        for (const char* s : list)
            result << QString::fromUtf8(s);
        return result;
    };

    QTest::newRow("plain pair") << QByteArray("A=1\n") << p({"A", "1"});
    QTest::newRow("blanks around the line are trimmed") << QByteArray("   A=1   \n") << p({"A", "1"});
    QTest::newRow("tabs and carriage return around the line are trimmed") << QByteArray("\tA=1\t\r\n") << p({"A", "1"});
    QTest::newRow("lines ending in CR LF lose the CR") << QByteArray("A=1\r\nB=2\r\n") << p({"A", "1", "B", "2"});
    QTest::newRow("last line without line feed is read") << QByteArray("A=1\nB=2") << p({"A", "1", "B", "2"});
    QTest::newRow("empty and blank lines are skipped") << QByteArray("\n   \n\t\nA=1\n\n") << p({"A", "1"});
    QTest::newRow("line starting with # is a comment") << QByteArray("#A=1\nB=2\n") << p({"B", "2"});
    QTest::newRow("blanks before # still make a comment") << QByteArray("  # note\n  #C=3\nB=2\n") << p({"B", "2"});
    QTest::newRow("# inside the key belongs to the key") << QByteArray("a#b=1\n") << p({"a#b", "1"});
    QTest::newRow("# inside the value belongs to the value") << QByteArray("A=1 # not a comment\n")
                                                             << p({"A", "1 # not a comment"});
    QTest::newRow("line starting with = has no key and is skipped") << QByteArray("=value\nB=2\n") << p({"B", "2"});
    QTest::newRow("= after leading blanks has no key and is skipped") << QByteArray("   =value\n") << p({});
    QTest::newRow("line of a lone = is skipped") << QByteArray("=\n") << p({});
    QTest::newRow("line without = is skipped") << QByteArray("novalue\nB=2\n") << p({"B", "2"});
    QTest::newRow("bad lines do not stop the read") << QByteArray("novalue\n=x\nA=1\nbad\nB=2\n")
                                                     << p({"A", "1", "B", "2"});
    QTest::newRow("KEY= gives an empty value") << QByteArray("KEY=\n") << p({"KEY", ""});
    QTest::newRow("blanks next to = stay in key and value") << QByteArray("a = b\n") << p({"a ", " b"});
    QTest::newRow("inner blanks of key and value are kept") << QByteArray("my key=some  value\n")
                                                            << p({"my key", "some  value"});
    QTest::newRow("only the first = separates key and value") << QByteArray("x=1=2\n") << p({"x", "1=2"});
    QTest::newRow("value may be a lone =") << QByteArray("x==\n") << p({"x", "="});
    QTest::newRow("later line replaces earlier value of the key") << QByteArray("A=1\nA=2\n") << p({"A", "2"});
    QTest::newRow("keys are case-sensitive") << QByteArray("a=1\nA=2\n") << p({"A", "2", "a", "1"});
    QTest::newRow("empty device gives an empty store") << QByteArray() << p({});
    QTest::newRow("device of blanks and comments gives an empty store") << QByteArray("\n# a\n   \n") << p({});
}

void TestVariables::readingRules()
{
    QFETCH(QByteArray, input);
    QFETCH(QStringList, pairs);

    readBytes(input);
    Variables& variables = Variables::instance();

    QByteArray expectedDump;
    for (int i = 0; i + 1 < pairs.size(); i += 2) {
        QVERIFY2(variables.contains(pairs.at(i)), qPrintable(pairs.at(i)));
        QCOMPARE(variables.value(pairs.at(i)), pairs.at(i + 1));
        expectedDump += (pairs.at(i) + QLatin1Char('=') + pairs.at(i + 1) + QLatin1Char('\n')).toUtf8();
    }
    // No other key got into the store.
    QCOMPARE(writtenBytes(), expectedDump);
}

void TestVariables::emptyValueAndMissingKeyDifferOnlyInContains()
{
    readBytes("KEY=\n");
    Variables& variables = Variables::instance();
    QVERIFY(variables.value(QStringLiteral("KEY")).isEmpty());
    QVERIFY(variables.value(QStringLiteral("MISSING")).isEmpty());
    QCOMPARE(variables.value(QStringLiteral("KEY")), variables.value(QStringLiteral("MISSING")));
    QVERIFY(variables.contains(QStringLiteral("KEY")));
    QVERIFY(!variables.contains(QStringLiteral("MISSING")));
}

void TestVariables::laterReadReplacesEarlierKeys()
{
    // A second file read into the same store keeps the keys that it does not
    // mention and replaces those that it does, also those set by insert.
    readBytes("A=1\nB=2\n");
    Variables::instance().insert(QStringLiteral("DATE"), QStringLiteral("01.02.2003"));
    readBytes("B=3\nDATE=defined\n");
    QCOMPARE(writtenBytes(), QByteArray("A=1\nB=3\nDATE=defined\n"));
}

void TestVariables::insertAddsAndReplaces()
{
    Variables& variables = Variables::instance();
    readBytes("A=1\n");
    variables.insert(QStringLiteral("A"), QStringLiteral("2"));
    variables.insert(QStringLiteral("B"), QString());
    QCOMPARE(variables.value(QStringLiteral("A")), QStringLiteral("2"));
    QVERIFY(variables.contains(QStringLiteral("B")));
    QCOMPARE(writtenBytes(), QByteArray("A=2\nB=\n"));
}

void TestVariables::readDecodesLocal8Bit_data()
{
    QTest::addColumn<QByteArray>("codec");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");

    QTest::newRow("KOI8-R bytes are decoded as KOI8-R")
        << QByteArray("KOI8-R") << QByteArray("\xf0\xd2\xc9\xd7\xc5\xd4=\xf0\xd2\xc9\xd7\xc5\xd4\n")
        << QString::fromUtf8("Привет") << QString::fromUtf8("Привет");
    QTest::newRow("UTF-8 bytes are decoded as UTF-8")
        << QByteArray("UTF-8") << QByteArray("name=\xd0\x96\xc3\xa9\n") << QStringLiteral("name")
        << QString::fromUtf8("Жé");
    QTest::newRow("ISO-8859-1 bytes are decoded as ISO-8859-1")
        << QByteArray("ISO-8859-1") << QByteArray("n\xe4me=\xe9t\xe9\n") << QString::fromUtf8("näme")
        << QString::fromUtf8("été");
}

void TestVariables::readDecodesLocal8Bit()
{
    QFETCH(QByteArray, codec);
    QFETCH(QByteArray, input);
    QFETCH(QString, key);
    QFETCH(QString, value);

    QTextCodec* textCodec = QTextCodec::codecForName(codec);
    QVERIFY(textCodec);
    QTextCodec::setCodecForLocale(textCodec);

    readBytes(input);
    QVERIFY(Variables::instance().contains(key));
    QCOMPARE(Variables::instance().value(key), value);
}

void TestVariables::writingRules_data()
{
    QTest::addColumn<QStringList>("pairs"); // alternating key and value, in insertion order
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("pairs are written in key order")
        << QStringList{"B", "2", "A", "1"} << QByteArray("A=1\nB=2\n");
    QTest::newRow("key order is case-sensitive code unit order")
        << QStringList{"a", "1", "_", "2", "Z", "3", "B", "4"} << QByteArray("B=4\nZ=3\n_=2\na=1\n");
    QTest::newRow("key order is not numeric")
        << QStringList{"A2", "x", "A10", "y"} << QByteArray("A10=y\nA2=x\n");
    QTest::newRow("empty value is written as key=")
        << QStringList{"KEY", ""} << QByteArray("KEY=\n");
    QTest::newRow("blanks of key and value are written as they are")
        << QStringList{"a ", " b"} << QByteArray("a = b\n");
    QTest::newRow("= inside the value is written as it is")
        << QStringList{"x", "1=2"} << QByteArray("x=1=2\n");
    QTest::newRow("placeholder in the value is written as it is")
        << QStringList{"K", "50%1 %2"} << QByteArray("K=50%1 %2\n");
    QTest::newRow("%1 in the key receives the value")
        << QStringList{"a%1b", "v"} << QByteArray("avb=%2\n");
    QTest::newRow("every %1 in the key receives the value")
        << QStringList{"%1-%1", "v"} << QByteArray("v-v=%2\n");
    QTest::newRow("%2 in the key takes the value in both places")
        << QStringList{"k%2", "v"} << QByteArray("kv=v\n");
    QTest::newRow("%3 in the key is left while %2 is lower")
        << QStringList{"k%3", "v"} << QByteArray("k%3=v\n");
    QTest::newRow("later insert of a key replaces its value")
        << QStringList{"A", "1", "A", "2"} << QByteArray("A=2\n");
}

void TestVariables::writingRules()
{
    QFETCH(QStringList, pairs);
    QFETCH(QByteArray, expected);

    for (int i = 0; i + 1 < pairs.size(); i += 2)
        Variables::instance().insert(pairs.at(i), pairs.at(i + 1));
    const QByteArray actual = writtenBytes();
    QVERIFY2(actual == expected, qPrintable(firstDifference(actual, expected)));
}

void TestVariables::emptyStoreWritesNothing()
{
    QByteArray data("previous");
    QBuffer buffer(&data);
    QVERIFY(buffer.open(QIODevice::ReadWrite));
    buffer.seek(data.size());
    Variables::instance().write(buffer);
    QCOMPARE(buffer.pos(), qint64(8));
    QCOMPARE(data, QByteArray("previous"));
}

void TestVariables::writeEncodesLocal8Bit()
{
    QTextCodec* koi8r = QTextCodec::codecForName("KOI8-R");
    QVERIFY(koi8r);
    QTextCodec::setCodecForLocale(koi8r);
    Variables::instance().insert(QString::fromUtf8("Привет"), QString::fromUtf8("мир"));
    QCOMPARE(writtenBytes(), QByteArray("\xf0\xd2\xc9\xd7\xc5\xd4=\xcd\xc9\xd2\n"));
}

void TestVariables::readBackOfWrittenFile()
{
    Variables& variables = Variables::instance();
    readBytes("job-originating-user-name=alice\nMarkerTopShift=14\ntitle=Quarterly report\nEMPTY=\nx=1=2\n");
    variables.insert(QStringLiteral("NUM_PAGES"), QStringLiteral("3"));
    const QByteArray before = writtenBytes();

    QTemporaryFile file;
    QVERIFY(file.open());
    variables.write(file);
    file.close();

    variables.clear();
    QVERIFY(!variables.contains(QStringLiteral("NUM_PAGES")));
    QVERIFY(file.open());
    variables.read(file);
    file.close();

    QCOMPARE(writtenBytes(), before);
    QCOMPARE(variables.value(QStringLiteral("title")), QStringLiteral("Quarterly report"));
    QCOMPARE(variables.value(QStringLiteral("x")), QStringLiteral("1=2"));
    QVERIFY(variables.contains(QStringLiteral("EMPTY")));
}

void TestVariables::readBackIsLossy_data()
{
    QTest::addColumn<QStringList>("pairs"); // alternating key and value stored before writing
    QTest::addColumn<QByteArray>("readBack"); // the store after writing and reading back

    QTest::newRow("key and value lose surrounding blanks")
        << QStringList{" a ", " b "} << QByteArray("a = b\n");
    QTest::newRow("value holding a line feed splits into two pairs")
        << QStringList{"A", "1\nB=2"} << QByteArray("A=1\nB=2\n");
    QTest::newRow("key starting with # comes back as a comment")
        << QStringList{"#A", "1", "B", "2"} << QByteArray("B=2\n");
}

void TestVariables::readBackIsLossy()
{
    QFETCH(QStringList, pairs);
    QFETCH(QByteArray, readBack);

    for (int i = 0; i + 1 < pairs.size(); i += 2)
        Variables::instance().insert(pairs.at(i), pairs.at(i + 1));
    QTemporaryFile file;
    QVERIFY(file.open());
    Variables::instance().write(file);
    file.close();

    Variables::instance().clear();
    QVERIFY(file.open());
    Variables::instance().read(file);
    QCOMPARE(writtenBytes(), readBack);
}

QTEST_APPLESS_MAIN(TestVariables)
#include "tst_variables.moc"
