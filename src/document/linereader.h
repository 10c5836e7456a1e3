// Reads a document's lines in large blocks and hands them out as views.
#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <array>
#include <string_view>

class QIODevice;

// Whether a line begins with the given text.
inline bool startsWith(std::string_view line, std::string_view prefix)
{
    return line.substr(0, prefix.size()) == prefix;
}

// A set of byte values.
class ByteSet
{
  public:
    explicit ByteSet(std::string_view bytes);
    bool contains(char c) const { return m_members[static_cast<unsigned char>(c)]; }

    // The first line that begins after begin and before end with a byte of
    // the set, or nullptr; begin is the start of a line.
    const char* findLineStart(const char* begin, const char* end) const;

  private:
    std::array<bool, 256> m_members{};
    int m_onlyMember = -1; // the byte value when the set has one member
};

// The longest line that a line reader holds by default: a gibibyte.
inline constexpr int MaxLineSize = 1 << 30;

// Splits what a device holds into lines: each ends with its "\n", the last
// one may lack it. Only "\n" ends a line; CR and NUL bytes are line content.
// The device is read from its current position in blocks of a mebibyte; a
// line longer than that grows the block until it fits, up to the longest
// line the reader holds. A longer line, or a file that reports a read error,
// ends the reading there as if the input ended, and failure() tells why. A
// view stays valid until the next call that reads.
class LineReader
{
  public:
    explicit LineReader(QIODevice& device, int maxLineSize = MaxLineSize);

    // Why the reading ended before the input did, if it did.
    enum class Failure { None, LongLine, ReadError };
    Failure failure() const { return m_failure; }
    bool failed() const { return m_failure != Failure::None; }

    // The next line, or an empty view at the end of the input.
    std::string_view readLine();

    // Up to count whole lines that stand together in the block, as one view;
    // taken is set to their number, 0 only at the end of the input.
    std::string_view readLines(qint64 count, qint64& taken);

    // Passes over the lines whose first byte is not in the set and returns
    // the next line whose first byte is, or an empty view at the end of the
    // input; skipped is set to the number of lines passed over.
    std::string_view readLineBeginningWith(const ByteSet& firstBytes, qint64& skipped);

    // Whether every line has been read.
    bool atEnd();

  private:
    // Keeps the unread bytes and reads more after them; false when the
    // device has nothing more.
    bool fill();

    // Passes over the line at the block's start, which has no "\n" in the
    // block; false when the input ends first.
    bool passLine(qint64& skipped);

    QIODevice& m_device;
    int m_maxLineSize;
    QByteArray m_block;
    int m_start = 0;
    int m_end = 0;
    bool m_deviceAtEnd = false;
    Failure m_failure = Failure::None;
};
