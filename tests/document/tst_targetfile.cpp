// Tests of the files that the document filter writes: what is written and
// what is appended from other files arrives in order, whether the kernel
// copies the appended file or it goes through the buffer, in place or
// replaced as a whole, and while spilled buffers are still being written; a file that cannot be written fails the run, and a
// replacement that is not committed leaves nothing behind.
#include "document/targetfile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/resource.h>
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

// Set in the process that a test starts to run its limited part.
const char LimitedRunVariable[] = "TARGETFILE_TEST_LIMITED_RUN";

// The process's virtual memory size in bytes.
rlim_t virtualMemorySize()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (QByteArray line = status.readLine(); !line.isEmpty(); line = status.readLine()) {
        if (line.startsWith("VmSize:"))
            return rlim_t(line.mid(7).trimmed().split(' ').value(0).toULongLong()) << 10;
    }
    return 0;
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
    void spillsArriveInOrder_data();
    void spillsArriveInOrder();
    void spilledWriteToFullDeviceFails();
    void spillWithoutThreadIsWrittenAtOnce();
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

void TestTargetFile::spillsArriveInOrder_data()
{
    QTest::addColumn<bool>("replaceWhole");
    QTest::addColumn<int>("pieceSize");
    QTest::addColumn<int>("appendEvery");
    for (const bool replace : {false, true}) {
        const char* mode = replace ? "replaced" : "in place";
        QTest::addRow("%s, pieces just under a spill", mode) << replace << (1 << 20) - 1 << 0;
        QTest::addRow("%s, pieces of 300 KB", mode) << replace << 300000 << 0;
        QTest::addRow("%s, a file appended after every third piece", mode) << replace << 700000 << 3;
        QTest::addRow("%s, pieces larger than two spills", mode) << replace << (5 << 20) / 2 << 2;
    }
}

// Spilled buffers are written while the next ones gather: whatever the sizes,
// and with files appended between them, the bytes arrive in the order given.
void TestTargetFile::spillsArriveInOrder()
{
    QFETCH(bool, replaceWhole);
    QFETCH(int, pieceSize);
    QFETCH(int, appendEvery);

    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    const QString sourceName = folder.filePath(QStringLiteral("source"));
    const QByteArray appended = pattern(100000, 'A');
    QVERIFY(writeFile(sourceName, appended));
    const QString targetName = folder.filePath(QStringLiteral("target"));

    QByteArray expected;
    {
        TargetFile target(targetName, replaceWhole);
        QVERIFY(target.open(QIODevice::WriteOnly | QIODevice::Truncate));
        for (int piece = 0; piece < 12; ++piece) {
            const QByteArray bytes = pattern(pieceSize, char('a' + piece));
            target.device().write(bytes);
            target.spill();
            expected += bytes;
            if (appendEvery > 0 && piece % appendEvery == appendEvery - 1) {
                QFile source(sourceName);
                QVERIFY(source.open(QIODevice::ReadOnly));
                target.append(source);
                expected += appended;
            }
        }
        target.device().write("tail\n");
        expected += "tail\n";
        QVERIFY(target.commit());
    }
    QCOMPARE(readFile(targetName).size(), expected.size());
    QVERIFY(readFile(targetName) == expected);
}

// A write that fails while the next buffer gathers fails the flush and the
// commit, and nothing written after it is lost silently.
void TestTargetFile::spilledWriteToFullDeviceFails()
{
    if (!QFile::exists(QStringLiteral("/dev/full")))
        QSKIP("this system has no /dev/full");
    TargetFile target(QStringLiteral("/dev/full"), true);
    QVERIFY(target.open(QIODevice::WriteOnly));
    for (int piece = 0; piece < 5; ++piece) {
        target.device().write(pattern(1 << 20, 'a'));
        target.spill();
    }
    QVERIFY(!target.flush());
    target.device().write("more\n");
    target.spill();
    QVERIFY(!target.commit());
}

// Under a memory limit that leaves no room for the writing thread's stack, the
// spilled buffers are written at once, and all of them arrive. The limited
// part runs in a process of its own, started afresh, where no thread has run
// whose stack could be used again.
void TestTargetFile::spillWithoutThreadIsWrittenAtOnce()
{
#ifdef QUILLET_SANITIZED
    QSKIP("the sanitizers' allocator cannot run under a memory limit");
#endif
    const QByteArray piece = pattern(1 << 20, 'a');
    const QString limitedTarget = qEnvironmentVariable(LimitedRunVariable);
    if (limitedTarget.isEmpty()) {
        QTemporaryDir folder;
        QVERIFY(folder.isValid());
        const QString targetName = folder.filePath(QStringLiteral("target"));
        QProcess run;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QLatin1String(LimitedRunVariable), targetName);
        run.setProcessEnvironment(environment);
        run.setProcessChannelMode(QProcess::ForwardedChannels);
        run.start(QCoreApplication::applicationFilePath(), {QStringLiteral("spillWithoutThreadIsWrittenAtOnce")});
        QVERIFY(run.waitForFinished(60000));
        QCOMPARE(run.exitStatus(), QProcess::NormalExit);
        QCOMPARE(run.exitCode(), 0);
        QVERIFY(readFile(targetName) == piece + piece + piece);
        return;
    }
    TargetFile target(limitedTarget, false);
    QVERIFY(target.open(QIODevice::WriteOnly));
    // Room for the buffers, not for a thread's stack.
    const rlimit limit = {virtualMemorySize() + (4 << 20), RLIM_INFINITY};
    QCOMPARE(::setrlimit(RLIMIT_AS, &limit), 0);
    for (int i = 0; i < 3; ++i) {
        target.device().write(piece);
        target.spill();
    }
    QVERIFY(target.commit());
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
