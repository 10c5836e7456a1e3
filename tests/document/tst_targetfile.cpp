// Tests of the files that the document filter writes: what is written and
// what is appended from other files arrives in order, whether the kernel
// copies the appended file or it goes through the buffer, in place or
// replaced as a whole; a file that cannot be written fails the run, and a
// replacement that is not committed leaves nothing behind.
#include "document/targetfile.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray pattern(int size, char seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char(seed + i % 53);
    return bytes;
}

bool writeFile(const QString& name, const QByteArray& bytes)
{
    QFile file(name);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString& name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

} // namespace

class TestTargetFile : public QObject
{
    Q_OBJECT

  private slots:
    void appendKeepsOrder_data();
    void appendKeepsOrder();
    void appendToPipeGoesThroughBuffer();
    void appendToFullDeviceFails();
    void uncommittedReplacementLeavesNothing();
};

void TestTargetFile::appendKeepsOrder_data()
{
    QTest::addColumn<bool>("replaceWhole");
    QTest::addColumn<int>("headSize");
    QTest::addColumn<int>("sourceSize");

    for (const bool replace : {false, true}) {
        const char* mode = replace ? "replaced" : "in place";
        QTest::addRow("%s, small head, small file", mode) << replace << 10 << 100;
        QTest::addRow("%s, empty head, empty file", mode) << replace << 0 << 0;
        QTest::addRow("%s, head larger than a spill, large file", mode) << replace << (3 << 20) / 2 << (5 << 20);
    }
}

void TestTargetFile::appendKeepsOrder()
{
    QFETCH(bool, replaceWhole);
    QFETCH(int, headSize);
    QFETCH(int, sourceSize);

    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString sourceName = folder.filePath(QStringLiteral("source"));
    const QByteArray head = pattern(headSize, 'a');
    const QByteArray middle = pattern(sourceSize, 'A');
    QVERIFY(writeFile(sourceName, middle));
    const QString targetName = folder.filePath(QStringLiteral("target"));
    QVERIFY(writeFile(targetName, "old content"));

    {
        TargetFile target(targetName, replaceWhole);
        QVERIFY(target.open(QIODevice::WriteOnly | QIODevice::Truncate));
        target.device().write(head);
        target.spill();
        QFile source(sourceName);
        QVERIFY(source.open(QIODevice::ReadOnly));
        target.append(source);
        target.device().write("tail\n");
        // A replaced file is untouched until the commit.
        if (replaceWhole)
            QCOMPARE(readFile(targetName), QByteArray("old content"));
        QVERIFY(target.commit());
    }
    QCOMPARE(readFile(targetName), head + middle + "tail\n");
    QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden, QDir::Name),
             (QStringList{QStringLiteral("source"), QStringLiteral("target")}));
}

void TestTargetFile::appendToPipeGoesThroughBuffer()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString sourceName = folder.filePath(QStringLiteral("source"));
    const QByteArray middle = pattern(20000, 'A'); // all of it fits in the pipe
    QVERIFY(writeFile(sourceName, middle));
    const QString fifo = folder.filePath(QStringLiteral("fifo"));
    QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    // The reading end is open first, so that opening the writing end does not block.
    const int reader = ::open(QFile::encodeName(fifo).constData(), O_RDONLY | O_NONBLOCK);
    QVERIFY(reader != -1);

    {
        // A pipe is written in place even when a replacement is asked for.
        TargetFile target(fifo, true);
        QVERIFY(target.open(QIODevice::WriteOnly));
        target.device().write("head\n");
        QFile source(sourceName);
        QVERIFY(source.open(QIODevice::ReadOnly));
        target.append(source);
        target.device().write("tail\n");
        QVERIFY(target.commit());
    }
    QByteArray received;
    char piece[4096];
    for (ssize_t size = ::read(reader, piece, sizeof piece); size > 0; size = ::read(reader, piece, sizeof piece))
        received.append(piece, int(size));
    ::close(reader);
    QCOMPARE(received, "head\n" + middle + "tail\n");
}

void TestTargetFile::appendToFullDeviceFails()
{
    if (!QFile::exists(QStringLiteral("/dev/full")))
        QSKIP("this system has no /dev/full");
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString sourceName = folder.filePath(QStringLiteral("source"));
    QVERIFY(writeFile(sourceName, pattern(1000, 'A')));

    TargetFile target(QStringLiteral("/dev/full"), true);
    QVERIFY(target.open(QIODevice::WriteOnly));
    QFile source(sourceName);
    QVERIFY(source.open(QIODevice::ReadOnly));
    target.append(source);
    QVERIFY(!target.flush());
    QVERIFY(!target.commit());
}

void TestTargetFile::uncommittedReplacementLeavesNothing()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString targetName = folder.filePath(QStringLiteral("target"));
    QVERIFY(writeFile(targetName, "old content"));
    {
        TargetFile target(targetName, true);
        QVERIFY(target.open(QIODevice::WriteOnly));
        target.device().write(pattern(3 << 20, 'a'));
        target.spill();
        QVERIFY(target.flush());
    }
    QCOMPARE(readFile(targetName), QByteArray("old content"));
    QCOMPARE(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("target")});
}

QTEST_GUILESS_MAIN(TestTargetFile)
#include "tst_targetfile.moc"
