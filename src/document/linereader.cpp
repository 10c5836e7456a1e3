// Reads a document's lines in large blocks and hands them out as views.
#include "document/linereader.h"

#include <QIODevice>

#include <cstring>

namespace
{

const int BlockSize = 1 << 20;

} // namespace

LineReader::LineReader(QIODevice& device) : m_device(device)
{
    // Not filled in: the memory is touched only as far as the input reaches.
    m_block.resize(BlockSize);
}

bool LineReader::fill()
{
    if (m_deviceAtEnd)
        return false;
    const int unread = m_end - m_start;
    if (m_start > 0) {
        std::memmove(m_block.data(), m_block.constData() + m_start, size_t(unread));
        m_start = 0;
        m_end = unread;
    }
    if (m_end == m_block.size())
        m_block.resize(2 * m_block.size());
    const qint64 got = m_device.read(m_block.data() + m_end, m_block.size() - m_end);
    if (got <= 0) {
        m_deviceAtEnd = true;
        return false;
    }
    m_end += int(got);
    return true;
}

std::string_view LineReader::readLine()
{
    qint64 taken = 0;
    return readLines(1, taken);
}

std::string_view LineReader::readLines(qint64 count, qint64& taken)
{
    taken = 0;
    if (count <= 0)
        return {};
    // Room for at least one whole line: read until its end stands in the block.
    int searched = m_start;
    const char* newline = nullptr;
    for (;;) {
        newline = static_cast<const char*>(
            std::memchr(m_block.constData() + searched, '\n', size_t(m_end - searched)));
        if (newline)
            break;
        const int unread = m_end - m_start;
        if (!fill()) {
            // The last line, without a final newline.
            const std::string_view rest(m_block.constData() + m_start, size_t(unread));
            m_start = m_end;
            taken = unread > 0 ? 1 : 0;
            return rest;
        }
        searched = m_start + unread;
    }
    const char* begin = m_block.constData() + m_start;
    const char* end = m_block.constData() + m_end;
    const char* lineEnd = newline + 1;
    taken = 1;
    while (taken < count) {
        newline = static_cast<const char*>(std::memchr(lineEnd, '\n', size_t(end - lineEnd)));
        if (!newline)
            break;
        lineEnd = newline + 1;
        ++taken;
    }
    m_start = int(lineEnd - m_block.constData());
    return std::string_view(begin, size_t(lineEnd - begin));
}

std::string_view LineReader::readLineBeginningWith(const ByteSet& firstBytes, qint64& skipped)
{
    skipped = 0;
    // The current line holds no newline before searched.
    int searched = m_start;
    for (;;) {
        if (m_start == m_end) {
            if (!fill())
                return {};
            searched = m_start;
        }
        if (searched == m_start && firstBytes.contains(m_block.constData()[m_start]))
            return readLine();
        const char* data = m_block.constData();
        const char* newline = static_cast<const char*>(std::memchr(data + searched, '\n', size_t(m_end - searched)));
        if (newline) {
            m_start = int(newline + 1 - data);
            searched = m_start;
            ++skipped;
            continue;
        }
        // The line goes on beyond the block, or is the last one.
        const int searchedOfLine = m_end - m_start;
        if (!fill()) {
            m_start = m_end;
            ++skipped;
            return {};
        }
        searched = m_start + searchedOfLine;
    }
}

bool LineReader::atEnd()
{
    return m_start == m_end && !fill();
}
