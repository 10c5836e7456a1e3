// Reads a document's lines in large blocks and hands them out as views.
#include "document/linereader.h"

#include <QFileDevice>
#include <QIODevice>

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace
{

const int BlockSize = 1 << 20;

// The number of "\n" bytes from begin to end. They are summed 64 bytes at a
// time in a byte, a loop that compilers turn into vector code.
qint64 countLineEnds(const char* begin, const char* end)
{
    qint64 count = 0;
    const char* at = begin;
    for (; end - at >= 64; at += 64) {
        unsigned char inPiece = 0;
        for (int i = 0; i < 64; ++i)
            inPiece += at[i] == '\n';
        count += inPiece;
    }
    for (; at < end; ++at)
        count += *at == '\n';
    return count;
}

// The last "\n" from begin to end, or nullptr.
const char* lastLineEnd(const char* begin, const char* end)
{
    return static_cast<const char*>(::memrchr(begin, '\n', size_t(end - begin)));
}

} // namespace

ByteSet::ByteSet(std::string_view bytes)
{
    for (const char c : bytes)
        m_members[static_cast<unsigned char>(c)] = true;
    if (std::count(m_members.cbegin(), m_members.cend(), true) == 1)
        m_onlyMember = static_cast<unsigned char>(bytes.front());
}

const char* ByteSet::findLineStart(const char* begin, const char* end) const
{
    if (m_onlyMember != -1) {
        // The byte itself is searched for: in a document it begins far fewer
        // places than lines do.
        for (const char* at = begin + 1; at < end; ++at) {
            at = static_cast<const char*>(std::memchr(at, m_onlyMember, size_t(end - at)));
            if (!at)
                return nullptr;
            if (at[-1] == '\n')
                return at;
        }
        return nullptr;
    }
    const char* at = begin;
#if defined(__SSE2__) && !defined(QUILLET_PORTABLE_LINE_SEARCH)
    // Sixteen bytes at a time: the line ends among them are taken from a
    // bit mask, so that the search does not stop at every line.
    const __m128i newlines = _mm_set1_epi8('\n');
    for (; end - at >= 16; at += 16) {
        const __m128i piece = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        for (unsigned ends = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(piece, newlines))); ends; ends &= ends - 1) {
            const char* next = at + __builtin_ctz(ends) + 1;
            if (next == end)
                return nullptr;
            if (contains(*next))
                return next;
        }
    }
#endif
    while (at < end) {
        const char* newline = static_cast<const char*>(std::memchr(at, '\n', size_t(end - at)));
        if (!newline || newline + 1 == end)
            return nullptr;
        at = newline + 1;
        if (contains(*at))
            return at;
    }
    return nullptr;
}

LineReader::LineReader(QIODevice& device, int maxLineSize) : m_device(device), m_maxLineSize(maxLineSize)
{
    // Not filled in: the memory is touched only as far as the input reaches.
    m_block.resize(qMin(BlockSize, maxLineSize));
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
    if (m_end == m_block.size()) {
        // One line fills the block.
        if (m_block.size() >= m_maxLineSize) {
            // Longer than the reader holds, unless the input ends here.
            char next = 0;
            if (m_device.read(&next, 1) > 0)
                m_failure = Failure::LongLine;
            m_deviceAtEnd = true;
            return false;
        }
        m_block.resize(int(qMin(2 * qint64(m_block.size()), qint64(m_maxLineSize))));
    }
    const qint64 got = m_device.read(m_block.data() + m_end, m_block.size() - m_end);
    if (got <= 0) {
        // A file says whether it ended or failed; other devices only end.
        const auto* file = qobject_cast<const QFileDevice*>(&m_device);
        if (got < 0 && file && file->error() != QFileDevice::NoError)
            m_failure = Failure::ReadError;
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
    // Pieces of 64 bytes that hold fewer line ends than are still wanted are
    // passed over by counting; the run then ends at the last line end counted.
    const char* counted = lineEnd;
    while (taken < count && end - counted >= 64) {
        const qint64 inPiece = countLineEnds(counted, counted + 64);
        if (taken + inPiece >= count)
            break;
        taken += inPiece;
        counted += 64;
    }
    if (const char* last = lastLineEnd(lineEnd, counted))
        lineEnd = last + 1;
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
    for (;;) {
        if (m_start == m_end && !fill())
            return {};
        const char* data = m_block.constData();
        const char* begin = data + m_start;
        const char* end = data + m_end;
        const char* found = firstBytes.contains(*begin) ? begin : firstBytes.findLineStart(begin, end);
        if (found) {
            skipped += countLineEnds(begin, found);
            m_start = int(found - data);
            return readLine();
        }
        // None in the block: its whole lines are passed over, then the line
        // that goes on beyond it, or is the last one.
        if (const char* last = lastLineEnd(begin, end)) {
            skipped += countLineEnds(begin, last + 1);
            m_start = int(last + 1 - data);
        }
        if (m_start < m_end && !passLine(skipped))
            return {};
    }
}

bool LineReader::passLine(qint64& skipped)
{
    for (;;) {
        const int searched = m_end - m_start;
        if (!fill()) {
            m_start = m_end;
            ++skipped;
            return false;
        }
        const char* data = m_block.constData();
        const char* newline =
            static_cast<const char*>(std::memchr(data + m_start + searched, '\n', size_t(m_end - m_start - searched)));
        if (newline) {
            m_start = int(newline + 1 - data);
            ++skipped;
            return true;
        }
    }
}

bool LineReader::atEnd()
{
    return m_start == m_end && !fill();
}
