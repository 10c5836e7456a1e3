// Counting the pages of the converted document, format by format. The
// counters trust nothing in the data: every size is checked before it is
// used, every run must land inside its line and every page must end where
// its header says.
#include "backend/sheetcount.h"

#include <QIODevice>

#include <cstring>

namespace
{

// Bigger than any printer's page in pixels at any resolution we drive
// (a metre and a half at 600 dpi is 35433 pixels); anything larger is an
// attempt to make the count take long.
const quint32 MaxPagePixels = 1 << 20;
const quint32 MaxResolution = 10000;

// Reads a device in blocks of this size; nothing else is kept.
const int BlockSize = 64 * 1024;

// Bytes of a device, one at a time or in small runs, through one block.
class BlockReader
{
  public:
    explicit BlockReader(QIODevice& device) : m_device(device), m_block(BlockSize, Qt::Uninitialized) {}

    // False at the end of the data or on a read error.
    bool byte(quint8& value)
    {
        if (m_pos == m_end && !fill())
            return false;
        value = static_cast<quint8>(m_block.at(m_pos++));
        return true;
    }

    bool peek(quint8& value)
    {
        if (m_pos == m_end && !fill())
            return false;
        value = static_cast<quint8>(m_block.at(m_pos));
        return true;
    }

    // Copies the next `count` bytes; false when fewer are left.
    bool read(char* out, qint64 count)
    {
        while (count > 0) {
            if (m_pos == m_end && !fill())
                return false;
            const qint64 step = qMin<qint64>(count, m_end - m_pos);
            std::memcpy(out, m_block.constData() + m_pos, size_t(step));
            out += step;
            m_pos += int(step);
            count -= step;
        }
        return true;
    }

    // Passes over the next `count` bytes; false when fewer are left.
    bool skip(quint64 count)
    {
        while (count > 0) {
            if (m_pos == m_end && !fill())
                return false;
            const quint64 step = qMin<quint64>(count, quint64(m_end - m_pos));
            m_pos += int(step);
            count -= step;
        }
        return true;
    }

    // True when nothing is left, and the device did not fail on the way.
    bool atCleanEnd() { return m_pos == m_end && !fill() && !m_failed; }

  private:
    bool fill()
    {
        if (m_failed)
            return false;
        const qint64 got = m_device.read(m_block.data(), m_block.size());
        if (got < 0)
            m_failed = true;
        if (got <= 0)
            return false;
        m_pos = 0;
        m_end = int(got);
        return true;
    }

    QIODevice& m_device;
    QByteArray m_block;
    int m_pos = 0;
    int m_end = 0;
    bool m_failed = false;
};

quint32 bigEndian32(const char* bytes)
{
    const auto* b = reinterpret_cast<const quint8*>(bytes);
    return quint32(b[0]) << 24 | quint32(b[1]) << 16 | quint32(b[2]) << 8 | quint32(b[3]);
}

// Bits per pixel that a raster page can have: the packed gray levels below
// a byte, or whole bytes per pixel (up to 15 colours of 16 bits).
bool validBitsPerPixel(quint32 bits)
{
    return bits == 1 || bits == 2 || bits == 4 || (bits % 8 == 0 && bits >= 8 && bits <= 240);
}

bool validPageSize(quint32 width, quint32 height)
{
    return width > 0 && height > 0 && width <= MaxPagePixels && height <= MaxPagePixels;
}

bool validResolution(quint32 resolution)
{
    return resolution > 0 && resolution <= MaxResolution;
}

// Passes over the compressed lines of one raster page, the same in PWG and
// Apple raster: per group of identical lines a byte with the number of
// repeats, then runs until the line is full. A run byte 0..127 gives the
// next pixel n+1 times, 129..255 is followed by 257-n pixels as they are,
// 128 fills the rest of the line with white. A pixel is one byte when
// pixels are packed below a byte. Ghostscript (through libcups) writes
// only the first two kinds; the third is in the format and printers take
// it. The runs must fill each line exactly and the groups the page exactly:
// anything else puts the rest of the file out of step.
bool skipRasterLines(BlockReader& reader, quint32 height, quint32 bytesPerLine, quint32 bytesPerPixel)
{
    quint64 line = 0;
    while (line < height) {
        quint8 repeats = 0;
        if (!reader.byte(repeats) || line + repeats + 1 > height)
            return false;
        quint64 filled = 0;
        while (filled < bytesPerLine) {
            quint8 run = 0;
            if (!reader.byte(run))
                return false;
            if (run == 128) {
                filled = bytesPerLine;
            } else if (run < 128) {
                filled += quint64(run + 1) * bytesPerPixel;
                if (filled > bytesPerLine || !reader.skip(bytesPerPixel))
                    return false;
            } else {
                const quint64 bytes = quint64(257 - run) * bytesPerPixel;
                filled += bytes;
                if (filled > bytesPerLine || !reader.skip(bytes))
                    return false;
            }
        }
        line += repeats + 1;
    }
    return true;
}

quint32 bytesPerPixelOf(quint32 bitsPerPixel)
{
    return bitsPerPixel < 8 ? 1 : bitsPerPixel / 8;
}

// Field offsets in a PWG raster page header (after the sync word), as in
// libcups' cups_page_header2_t.
const int PwgHeaderSize = 1796;
const int PwgHwResolution = 276;
const int PwgNumCopies = 340;
const int PwgWidth = 372;
const int PwgHeight = 376;
const int PwgBitsPerPixel = 388;
const int PwgBytesPerLine = 392;
const int PwgTotalPageCount = 452;
// Printers that take copies from the page header get no more than this.
const quint32 MaxCopies = 65535;

// Apple raster page header.
const int AppleHeaderSize = 32;
const int AppleBitsPerPixel = 0;
const int AppleWidth = 12;
const int AppleHeight = 16;
const int AppleResolution = 20;

// PCL XL tokens.
enum : quint8 {
    XlBeginSession = 0x41,
    XlEndSession = 0x42,
    XlBeginPage = 0x43,
    XlEndPage = 0x44,
    XlBeginStream = 0x5b,
    XlRemoveStream = 0x5f,
    XlPassThrough = 0xbf,
    XlAttributeByte = 0xf8,
    XlAttributeWord = 0xf9,
    XlDataLong = 0xfa,
    XlDataByte = 0xfb,
    XlPageCopies = 0x31,
};

const char UniversalExit[] = "\x1b%-12345X";

bool isXlWhitespace(quint8 c)
{
    return c == 0x00 || (c >= 0x09 && c <= 0x0d) || c == 0x20;
}

// Size of one element of a PCL XL data type (the low three bits of the tag
// name ubyte, uint16, uint32, sint16, sint32, real32); 0 for other bits.
int xlElementSize(quint8 tag)
{
    switch (tag & 0x07) {
    case 0:
        return 1;
    case 1:
    case 3:
        return 2;
    case 2:
    case 4:
    case 5:
        return 4;
    default:
        return 0;
    }
}

// An integer of `size` bytes in the stream's byte order, signed or not by
// the data type.
qint64 xlInteger(const char* bytes, int size, bool littleEndian, bool isSigned)
{
    const auto* b = reinterpret_cast<const quint8*>(bytes);
    quint32 value = 0;
    for (int i = 0; i < size; ++i)
        value |= quint32(b[littleEndian ? i : size - 1 - i]) << (8 * i);
    if (!isSigned)
        return value;
    if (size == 2)
        return qint16(value);
    return qint32(value);
}

// Reads a line up to its line feed (included) into `line`; false when there
// is no line feed within `limit` bytes.
bool readLine(BlockReader& reader, QByteArray& line, int limit)
{
    line.clear();
    quint8 c = 0;
    while (line.size() < limit) {
        if (!reader.byte(c))
            return false;
        line.append(char(c));
        if (c == '\n')
            return true;
    }
    return false;
}

// Ghostscript's PCL XL job header: the universal exit, then PJL commands,
// the last of which switches the printer to PCL XL. Anything else before the
// stream header would be taken by the printer as another language.
bool skipJobHeader(BlockReader& reader)
{
    quint8 first = 0;
    if (!reader.peek(first))
        return false;
    if (first != 0x1b)
        return true;
    char exit[sizeof UniversalExit - 1];
    if (!reader.read(exit, sizeof exit) || std::memcmp(exit, UniversalExit, sizeof exit) != 0)
        return false;
    bool enteredXl = false;
    QByteArray line;
    for (;;) {
        quint8 next = 0;
        if (!reader.peek(next))
            return false;
        if (next != '@')
            return enteredXl;
        if (!readLine(reader, line, 4096) || !line.startsWith("@PJL"))
            return false;
        const QByteArray words = line.toUpper().replace(' ', "").replace('\t', "").trimmed();
        enteredXl = words == "@PJLENTERLANGUAGE=PCLXL";
    }
}

// The stream header: the binding byte that selects the byte order, then
// " HP-PCL XL;" with the protocol class and revision, up to the line feed.
// Returns false unless it is a binary binding; `littleEndian` tells which.
bool readStreamHeader(BlockReader& reader, bool& littleEndian)
{
    QByteArray line;
    if (!readLine(reader, line, 512))
        return false;
    // "(" selects high byte first, ")" low byte first; the ASCII binding
    // "'" is not something printers take.
    if (line.startsWith('('))
        littleEndian = false;
    else if (line.startsWith(')'))
        littleEndian = true;
    else
        return false;
    if (!line.startsWith(QByteArray(1, line.at(0)) + " HP-PCL XL;"))
        return false;
    int pos = 12;
    for (int field = 0; field < 2; ++field) {
        const int start = pos;
        while (pos < line.size() && line.at(pos) >= '0' && line.at(pos) <= '9')
            ++pos;
        if (pos == start)
            return false;
        if (field == 0 && (pos >= line.size() || line.at(pos++) != ';'))
            return false;
    }
    return line.at(pos) == ';' || line.at(pos) == '\n' || line.mid(pos) == "\r\n";
}

} // namespace

ConvertedFormat convertedFormatOf(const QByteArray& head)
{
    if (head.startsWith("%PDF-"))
        return ConvertedFormat::Pdf;
    if (head.startsWith("RaS2"))
        return ConvertedFormat::PwgRaster;
    if (head.startsWith(QByteArray("UNIRAST\0", 8)))
        return ConvertedFormat::AppleRaster;
    if (head.startsWith("( HP-PCL XL;") || head.startsWith(") HP-PCL XL;"))
        return ConvertedFormat::PclXl;
    if (head.startsWith(UniversalExit)) {
        const int header = qMax(head.indexOf("\n( HP-PCL XL;"), head.indexOf("\n) HP-PCL XL;"));
        const QByteArray jobHeader = head.left(header).toUpper().replace(' ', "");
        if (header > 0 && jobHeader.endsWith("@PJLENTERLANGUAGE=PCLXL"))
            return ConvertedFormat::PclXl;
    }
    return ConvertedFormat::Unknown;
}

qint64 countPwgRasterPages(QIODevice& data)
{
    BlockReader reader(data);
    char sync[4];
    if (!reader.read(sync, 4) || std::memcmp(sync, "RaS2", 4) != 0)
        return -1;
    qint64 pages = 0;
    qint64 copiesOut = 0;
    // Each header may carry the document's page count; 0 means not given.
    quint32 claimedPages = 0;
    QByteArray header(PwgHeaderSize, Qt::Uninitialized);
    while (!reader.atCleanEnd()) {
        if (!reader.read(header.data(), PwgHeaderSize))
            return -1;
        const char* h = header.constData();
        // The first field is the name "PwgRaster", padded with zero bytes.
        if (std::memcmp(h, "PwgRaster\0", 10) != 0)
            return -1;
        const quint32 width = bigEndian32(h + PwgWidth);
        const quint32 height = bigEndian32(h + PwgHeight);
        const quint32 bitsPerPixel = bigEndian32(h + PwgBitsPerPixel);
        const quint32 bytesPerLine = bigEndian32(h + PwgBytesPerLine);
        if (!validPageSize(width, height) || !validBitsPerPixel(bitsPerPixel) ||
            !validResolution(bigEndian32(h + PwgHwResolution)) ||
            !validResolution(bigEndian32(h + PwgHwResolution + 4)))
            return -1;
        if (quint64(bytesPerLine) != (quint64(width) * bitsPerPixel + 7) / 8)
            return -1;
        // Ghostscript writes the copies that the document asked for
        // (setpagedevice's NumCopies) into every page header; a printer
        // that honours them prints the page that many times.
        quint32 copies = bigEndian32(h + PwgNumCopies);
        if (copies > MaxCopies)
            return -1;
        copies = qMax<quint32>(copies, 1);
        // TotalPageCount is libcups' cupsInteger[0]: Ghostscript writes 0
        // there unless the job sets it (-dcupsInteger0=N).
        const quint32 total = bigEndian32(h + PwgTotalPageCount);
        if (total != 0) {
            if (claimedPages != 0 && total != claimedPages)
                return -1;
            claimedPages = total;
        }
        if (!skipRasterLines(reader, height, bytesPerLine, bytesPerPixelOf(bitsPerPixel)))
            return -1;
        ++pages;
        copiesOut += copies;
        if (claimedPages != 0 && pages > claimedPages)
            return -1;
    }
    if (claimedPages != 0 && pages != claimedPages)
        return -1;
    return copiesOut;
}

// Ghostscript's urf and appleraster devices are the same writer (libcups):
// the count in the file header is the first page's cupsInteger[0], which is
// 0 unless the job sets it (-dcupsInteger0=N); with 0 there is no count to
// check, otherwise it must be the number of pages that follow. The page
// header has no copies.
qint64 countAppleRasterPages(QIODevice& data)
{
    BlockReader reader(data);
    char fileHeader[12];
    if (!reader.read(fileHeader, 12) || std::memcmp(fileHeader, "UNIRAST\0", 8) != 0)
        return -1;
    const quint32 claimedPages = bigEndian32(fileHeader + 8);
    qint64 pages = 0;
    char header[AppleHeaderSize];
    while (!reader.atCleanEnd()) {
        if (!reader.read(header, AppleHeaderSize))
            return -1;
        const quint32 bitsPerPixel = quint8(header[AppleBitsPerPixel]);
        const quint32 width = bigEndian32(header + AppleWidth);
        const quint32 height = bigEndian32(header + AppleHeight);
        // Apple raster itself has 8 to 64 bits per pixel; Ghostscript writes
        // its default one-bit black as well, packed eight pixels to a byte.
        if (!validPageSize(width, height) || !validResolution(bigEndian32(header + AppleResolution)) ||
            !validBitsPerPixel(bitsPerPixel) || bitsPerPixel > 64)
            return -1;
        const quint32 bytesPerLine = quint32((quint64(width) * bitsPerPixel + 7) / 8);
        if (!skipRasterLines(reader, height, bytesPerLine, bytesPerPixelOf(bitsPerPixel)))
            return -1;
        ++pages;
        if (claimedPages != 0 && pages > claimedPages)
            return -1;
    }
    if (claimedPages != 0 && pages != claimedPages)
        return -1;
    return pages;
}

// The tokens need no knowledge of what each operator does: values carry
// their data type, attribute ids and embedded data their lengths. What the
// count checks is the frame: one session, pages that begin and end inside
// it, nothing after it but the universal exit. Ghostscript writes the
// copies that the document asked for as the PageCopies attribute of
// EndPage. Streams (macros kept in the printer and run by ExecStream) and
// PassThrough (PCL 5 inside PCL XL) could put out pages that no BeginPage
// shows, so they make the document one we do not count; Ghostscript writes
// neither.
qint64 countPclXlPages(QIODevice& data)
{
    BlockReader reader(data);
    bool littleEndian = false;
    if (!skipJobHeader(reader) || !readStreamHeader(reader, littleEndian))
        return -1;

    enum class State { BeforeSession, InSession, InPage, AfterSession } state = State::BeforeSession;
    qint64 pages = 0;
    // The last value read, when it is a single integer, and the copies
    // attribute it became: the attribute list of the next operator.
    bool haveInteger = false;
    qint64 lastInteger = 0;
    qint64 pageCopies = -1;
    char bytes[8];

    for (;;) {
        quint8 tag = 0;
        if (!reader.byte(tag))
            break;
        if (isXlWhitespace(tag))
            continue;
        if (state == State::AfterSession) {
            // Only the universal exit that ends the job may follow.
            if (tag != 0x1b || !reader.read(bytes, 8) || std::memcmp(bytes, UniversalExit + 1, 8) != 0)
                return -1;
            return reader.atCleanEnd() ? pages : -1;
        }
        if (tag >= 0xc0 && tag <= 0xc5) {
            const int size = xlElementSize(tag);
            if (!reader.read(bytes, size))
                return -1;
            haveInteger = tag != 0xc5;
            lastInteger = xlInteger(bytes, size, littleEndian, tag == 0xc3 || tag == 0xc4);
        } else if (tag >= 0xc8 && tag <= 0xcd) {
            // An array: its length is a ubyte or uint16 value.
            quint8 lengthTag = 0;
            if (!reader.byte(lengthTag) || (lengthTag != 0xc0 && lengthTag != 0xc1))
                return -1;
            const int lengthSize = xlElementSize(lengthTag);
            if (!reader.read(bytes, lengthSize))
                return -1;
            const qint64 length = xlInteger(bytes, lengthSize, littleEndian, false);
            if (!reader.skip(quint64(length) * xlElementSize(tag)))
                return -1;
            haveInteger = false;
        } else if ((tag >= 0xd0 && tag <= 0xd5) || (tag >= 0xe0 && tag <= 0xe5)) {
            const int values = tag < 0xe0 ? 2 : 4;
            if (!reader.skip(quint64(values) * xlElementSize(tag)))
                return -1;
            haveInteger = false;
        } else if (tag == XlAttributeByte || tag == XlAttributeWord) {
            const int size = tag == XlAttributeByte ? 1 : 2;
            if (!reader.read(bytes, size))
                return -1;
            if (xlInteger(bytes, size, littleEndian, false) == XlPageCopies) {
                if (!haveInteger || lastInteger < 1 || lastInteger > MaxCopies)
                    return -1;
                pageCopies = lastInteger;
            }
            haveInteger = false;
        } else if (tag == XlDataLong || tag == XlDataByte) {
            const int size = tag == XlDataLong ? 4 : 1;
            if (!reader.read(bytes, size))
                return -1;
            if (!reader.skip(quint64(xlInteger(bytes, size, littleEndian, false))))
                return -1;
            haveInteger = false;
        } else if (tag >= XlBeginSession && tag <= XlPassThrough) {
            if ((tag >= XlBeginStream && tag <= XlRemoveStream) || tag == XlPassThrough)
                return -1;
            switch (tag) {
            case XlBeginSession:
                if (state != State::BeforeSession)
                    return -1;
                state = State::InSession;
                break;
            case XlEndSession:
                if (state != State::InSession)
                    return -1;
                state = State::AfterSession;
                break;
            case XlBeginPage:
                if (state != State::InSession)
                    return -1;
                state = State::InPage;
                break;
            case XlEndPage:
                if (state != State::InPage)
                    return -1;
                state = State::InSession;
                pages += pageCopies > 0 ? pageCopies : 1;
                break;
            default:
                if (state == State::BeforeSession)
                    return -1;
            }
            haveInteger = false;
            pageCopies = -1;
        } else {
            // Tags that PCL XL leaves unassigned.
            return -1;
        }
    }
    // The end of the data, or a read error: only a finished session counts,
    // and only when the device did not fail.
    return state == State::AfterSession && reader.atCleanEnd() ? pages : -1;
}
