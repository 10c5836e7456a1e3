// Tests of the line reader: whatever the device hands over per read, and
// wherever the lines fall against the reader's blocks, the lines, runs of
// lines and lines picked by their first byte are exactly those of a plain
// split of the bytes at "\n".
#include "document/linereader.h"

#include <QBuffer>
#include <QFile>
#include <QList>
#include <QTemporaryFile>
#include <QTest>

#include <fcntl.h>

#include <memory>

namespace {

// A device that hands over at most a few bytes per read, as a pipe may.
class TrickleDevice : public QIODevice
{
  public:
    TrickleDevice(const QByteArray& bytes, qint64 piece) : m_bytes(bytes), m_piece(piece) {}

    bool isSequential() const override { return true; }

  protected:
    qint64 readData(char* data, qint64 maxSize) override
    {
        const qint64 size = qMin(qMin(maxSize, m_piece), qint64(m_bytes.size()) - m_position);
        if (size <= 0)
            return m_position < m_bytes.size() ? 0 : -1;
        memcpy(data, m_bytes.constData() + m_position, size_t(size));
        m_position += size;
        return size;
    }
    qint64 writeData(const char*, qint64) override { return -1; }

  private:
    QByteArray m_bytes;
    qint64 m_piece;
    qint64 m_position = 0;
};

// The lines of a text: each ends with its "\n", the last one may lack it.
QList<QByteArray> splitLines(const QByteArray& bytes)
{
    QList<QByteArray> lines;
    int start = 0;
    while (start < bytes.size()) {
        const int newline = bytes.indexOf('\n', start);
        const int end = newline == -1 ? bytes.size() : newline + 1;
        lines.append(bytes.mid(start, end - start));
        start = end;
    }
    return lines;
}

QByteArray toBytes(std::string_view view)
{
    return QByteArray(view.data(), int(view.size()));
}

const int Mebibyte = 1 << 20;

} // namespace

class TestLineReader : public QObject
{
    Q_OBJECT

  private slots:
    void readLine_data();
    void readLine();
    void readLines_data();
    void readLines();
    void readLineBeginningWith_data();
    void readLineBeginningWith();
    void lineLongerThanTheReaderFails_data();
    void lineLongerThanTheReaderFails();
    void readErrorFails();
};

// The inputs, each read from a buffer (whole blocks per read) and from a
// device that hands over 7 bytes per read; with sets of first bytes, each
// of those again with every set.
void addInputs(const QList<QByteArray>& firstByteSets = {})
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<qint64>("piece");
    if (!firstByteSets.isEmpty())
        QTest::addColumn<QByteArray>("firstByteSet");

    QByteArray longLines;
    longLines += "%first\n";
    longLines += QByteArray(Mebibyte - 3, 'x') + '\n'; // ends just before the first block's end
    longLines += "%across the block boundary\n";
    longLines += QByteArray(3 * Mebibyte, 'y') + '\n'; // longer than a block
    longLines += "%after\nbody\n";

    QByteArray shortLines;
    for (int i = 0; i < 60000; ++i)
        shortLines += (i % 7 == 0 ? "%%Page: " : "body ") + QByteArray::number(i) + '\n';

    // Lines of many lengths, beginning with bytes of the sets below and others.
    QByteArray mixedLines;
    const QByteArray firsts("%x\0ab\n", 6);
    for (int i = 0; i < 20000; ++i)
        mixedLines += firsts.at(i * 7 % firsts.size()) + QByteArray(i * 13 % 90, 'm') + '\n';

    const QList<QPair<const char*, QByteArray>> inputs = {
        {"empty", QByteArray()},
        {"one newline", QByteArray("\n")},
        {"no final newline", QByteArray("%a\nb\n%c")},
        {"last line without newline, not picked", QByteArray("%a\nb\nc")},
        {"empty lines", QByteArray("\n\n%x\n\n")},
        {"CR and CR LF", QByteArray("%a\r\nb\rc\r\n%d\r")},
        {"NUL bytes", QByteArray("%a\0b\n\0%c\n%\0\n", 12)},
        {"lines around and beyond a block", longLines},
        {"many short lines", shortLines},
        {"mixed lines", mixedLines},
    };
    for (const auto& input : inputs) {
        for (const qint64 piece : {0, 7}) {
            const char* reads = piece == 0 ? "whole blocks" : "7 bytes a read";
            if (firstByteSets.isEmpty()) {
                QTest::addRow("%s, %s", input.first, reads) << input.second << piece;
                continue;
            }
            for (const QByteArray& set : firstByteSets)
                QTest::addRow("%s, %s, first bytes %s", input.first, reads, set.toHex().constData())
                    << input.second << piece << set;
        }
    }
}

std::unique_ptr<QIODevice> openDevice(const QByteArray& input, qint64 piece, QByteArray& storage)
{
    std::unique_ptr<QIODevice> device;
    if (piece == 0) {
        storage = input;
        auto* buffer = new QBuffer(&storage);
        device.reset(buffer);
    } else {
        device.reset(new TrickleDevice(input, piece));
    }
    device->open(QIODevice::ReadOnly);
    return device;
}

void TestLineReader::readLine_data()
{
    addInputs();
}

void TestLineReader::readLine()
{
    QFETCH(QByteArray, input);
    QFETCH(qint64, piece);
    QByteArray storage;
    const auto device = openDevice(input, piece, storage);
    LineReader reader(*device);

    QList<QByteArray> lines;
    while (!reader.atEnd())
        lines.append(toBytes(reader.readLine()));
    QCOMPARE(lines, splitLines(input));
    QVERIFY(reader.readLine().empty());
}

void TestLineReader::readLines_data()
{
    addInputs();
}

void TestLineReader::readLines()
{
    QFETCH(QByteArray, input);
    QFETCH(qint64, piece);
    QByteArray storage;
    const auto device = openDevice(input, piece, storage);
    LineReader reader(*device);

    // Runs of up to 5 lines: each run holds whole lines, as many as taken says.
    const QList<QByteArray> expected = splitLines(input);
    int next = 0;
    for (;;) {
        qint64 taken = 0;
        const QByteArray run = toBytes(reader.readLines(5, taken));
        if (taken == 0) {
            QVERIFY(run.isEmpty());
            break;
        }
        QVERIFY(taken <= 5);
        QVERIFY(next + taken <= expected.size());
        QByteArray lines;
        for (int i = 0; i < taken; ++i)
            lines += expected.at(next + i);
        QCOMPARE(run, lines);
        next += int(taken);
    }
    QCOMPARE(next, expected.size());
}

void TestLineReader::readLineBeginningWith_data()
{
    // One byte, searched for by itself; several, searched for line by line.
    addInputs({QByteArray("%"), QByteArray("%\0", 2), QByteArray("xb")});
}

void TestLineReader::readLineBeginningWith()
{
    QFETCH(QByteArray, input);
    QFETCH(qint64, piece);
    QByteArray storage;
    const auto device = openDevice(input, piece, storage);
    LineReader reader(*device);

    // The lines that begin with a byte of the set, each with the number of
    // lines passed over before it; then the lines passed over at the end.
    QFETCH(QByteArray, firstByteSet);
    const ByteSet firstBytes(std::string_view(firstByteSet.constData(), size_t(firstByteSet.size())));
    QList<QPair<qint64, QByteArray>> expected;
    qint64 passed = 0;
    for (const QByteArray& line : splitLines(input)) {
        if (firstByteSet.contains(line.at(0))) {
            expected.append({passed, line});
            passed = 0;
        } else {
            ++passed;
        }
    }

    QList<QPair<qint64, QByteArray>> picked;
    for (;;) {
        qint64 skipped = -1;
        const QByteArray line = toBytes(reader.readLineBeginningWith(firstBytes, skipped));
        if (line.isEmpty()) {
            QCOMPARE(skipped, passed);
            break;
        }
        picked.append({skipped, line});
    }
    QCOMPARE(picked, expected);
    QVERIFY(reader.atEnd());
}

void TestLineReader::lineLongerThanTheReaderFails_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<qint64>("piece");
    QTest::addColumn<int>("linesBefore"); // the lines read whole before the long one
    QTest::addColumn<bool>("failed");

    const int limit = 4096;
    const QByteArray first = "%first\n";
    const QByteArray last = "%last\n";
    const struct {
        const char* name;
        QByteArray input;
        int linesBefore;
        bool failed;
    } inputs[] = {
        {"a line as long as the limit", first + QByteArray(limit - 1, 'x') + '\n' + last, 3, false},
        {"a line one byte longer", first + QByteArray(limit, 'x') + '\n' + last, 1, true},
        {"a line far longer", first + QByteArray(20 * limit, 'x') + '\n' + last, 1, true},
        {"a last line as long as the limit, without newline", first + QByteArray(limit, 'x'), 2, false},
        {"a last line one byte longer, without newline", first + QByteArray(limit + 1, 'x'), 1, true},
    };
    for (const auto& input : inputs) {
        for (const qint64 piece : {0, 7})
            QTest::addRow("%s, %s", input.name, piece == 0 ? "whole blocks" : "7 bytes a read")
                << input.input << piece << input.linesBefore << input.failed;
    }
}

// With a limit of 4096 bytes: a longer line ends the reading, which says it
// failed, whether lines are read one by one or picked by their first byte;
// lines up to the limit are read whole.
void TestLineReader::lineLongerThanTheReaderFails()
{
    QFETCH(QByteArray, input);
    QFETCH(qint64, piece);
    QFETCH(int, linesBefore);
    QFETCH(bool, failed);
    const int limit = 4096;
    const QList<QByteArray> expected = splitLines(input).mid(0, linesBefore);

    QByteArray storage;
    auto device = openDevice(input, piece, storage);
    LineReader lines(*device, limit);
    QList<QByteArray> read;
    for (std::string_view line = lines.readLine(); !line.empty(); line = lines.readLine())
        read.append(toBytes(line));
    QCOMPARE(read.mid(0, linesBefore), expected);
    QCOMPARE(lines.failure(), failed ? LineReader::Failure::LongLine : LineReader::Failure::None);
    if (!failed)
        QCOMPARE(read, splitLines(input));

    device = openDevice(input, piece, storage);
    LineReader picked(*device, limit);
    const ByteSet firstBytes("%");
    qint64 skipped = 0;
    QCOMPARE(toBytes(picked.readLineBeginningWith(firstBytes, skipped)), expected.first());
    const QByteArray second = toBytes(picked.readLineBeginningWith(firstBytes, skipped));
    QCOMPARE(picked.failed(), failed);
    if (!failed)
        QCOMPARE(second, input.endsWith("%last\n") ? QByteArray("%last\n") : QByteArray());
}

// A file that fails to read (a folder, which opens but cannot be read) ends
// the reading with a read error; a file read to its end does not.
void TestLineReader::readErrorFails()
{
    const int folder = ::open("/", O_RDONLY | O_CLOEXEC);
    QVERIFY(folder != -1);
    QFile unreadable;
    QVERIFY(unreadable.open(folder, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle));
    LineReader failing(unreadable);
    QVERIFY(failing.readLine().empty());
    QCOMPARE(failing.failure(), LineReader::Failure::ReadError);

    QTemporaryFile file;
    QVERIFY(file.open());
    QCOMPARE(file.write("%a\nb\n"), qint64(5));
    QVERIFY(file.seek(0));
    LineReader whole(file);
    QCOMPARE(toBytes(whole.readLine()), QByteArray("%a\n"));
    QCOMPARE(toBytes(whole.readLine()), QByteArray("b\n"));
    QVERIFY(whole.readLine().empty());
    QCOMPARE(whole.failure(), LineReader::Failure::None);
}

QTEST_GUILESS_MAIN(TestLineReader)
#include "tst_linereader.moc"
