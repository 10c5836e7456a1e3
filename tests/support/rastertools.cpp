// Decoding raster pages into gray images, and reading them with tesseract.
// The decoder is written apart from the backend's page counters on purpose:
// a test that compares its images with Ghostscript's own rendering checks
// our reading of the formats, which the counters rely on.
#include "support/rastertools.h"

#include "support/testsupport.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

namespace
{

// Colour spaces of PWG raster (libcups' cups_cspace_t numbers).
const quint32 PwgWhite = 0;
const quint32 PwgRgb = 1;
const quint32 PwgBlack = 3;
const quint32 PwgCmyk = 6;
const quint32 PwgSGray = 18;
const quint32 PwgSRgb = 19;
const quint32 PwgAdobeRgb = 20;

// Test pages are small; a header asking for more is broken.
const quint64 MaxPixels = 200u * 1000 * 1000;

enum class Colours { Gray, Black, Rgb, Cmyk };

struct PageLayout {
    quint32 width = 0;
    quint32 height = 0;
    quint32 xResolution = 0;
    quint32 yResolution = 0;
    quint32 bitsPerColor = 0;
    quint32 bitsPerPixel = 0;
    quint32 bytesPerLine = 0;
    Colours colours = Colours::Gray;
};

int channelsOf(Colours colours)
{
    switch (colours) {
    case Colours::Rgb:
        return 3;
    case Colours::Cmyk:
        return 4;
    default:
        return 1;
    }
}

quint32 bigEndian32(const QByteArray& bytes, qint64 at)
{
    const auto* b = reinterpret_cast<const quint8*>(bytes.constData() + at);
    return quint32(b[0]) << 24 | quint32(b[1]) << 16 | quint32(b[2]) << 8 | quint32(b[3]);
}

// Sample `index` of a line, scaled to 0..255 (the high byte of 16 bits).
int sample(const QByteArray& line, quint32 bitsPerColor, quint64 index)
{
    const auto* b = reinterpret_cast<const quint8*>(line.constData());
    if (bitsPerColor == 8)
        return b[index];
    if (bitsPerColor == 16)
        return b[index * 2];
    const quint64 bit = index * bitsPerColor;
    const int shift = 8 - bitsPerColor - int(bit % 8);
    const int max = (1 << bitsPerColor) - 1;
    return ((b[bit / 8] >> shift) & max) * 255 / max;
}

// One line of pixels in the page's colours to gray levels.
void lineToGray(const QByteArray& line, const PageLayout& page, char* gray)
{
    const int channels = channelsOf(page.colours);
    for (quint32 x = 0; x < page.width; ++x) {
        const quint64 first = quint64(x) * channels;
        int level = 0;
        switch (page.colours) {
        case Colours::Gray:
            level = sample(line, page.bitsPerColor, first);
            break;
        case Colours::Black:
            level = 255 - sample(line, page.bitsPerColor, first);
            break;
        case Colours::Rgb:
            level = (299 * sample(line, page.bitsPerColor, first) +
                     587 * sample(line, page.bitsPerColor, first + 1) +
                     114 * sample(line, page.bitsPerColor, first + 2)) /
                    1000;
            break;
        case Colours::Cmyk: {
            const int ink = (30 * sample(line, page.bitsPerColor, first) +
                             59 * sample(line, page.bitsPerColor, first + 1) +
                             11 * sample(line, page.bitsPerColor, first + 2)) /
                                100 +
                            sample(line, page.bitsPerColor, first + 3);
            level = 255 - qMin(ink, 255);
            break;
        }
        }
        gray[x] = char(level);
    }
}

// Decodes the compressed lines of one page (see src/backend/sheetcount.cpp
// for the scheme) into gray rows. False with *error filled when the data
// does not make the page.
bool decodeLines(const QByteArray& data, qint64& pos, const PageLayout& page, QByteArray& gray,
                 QString* error)
{
    const quint32 unit = page.bitsPerPixel < 8 ? 1 : page.bitsPerPixel / 8;
    // The byte of a white pixel: no ink for black and CMYK, full light for
    // the others.
    const char white = page.colours == Colours::Black || page.colours == Colours::Cmyk ? 0 : char(0xff);
    gray.resize(int(quint64(page.width) * page.height));
    QByteArray line;
    quint32 row = 0;
    while (row < page.height) {
        if (pos >= data.size()) {
            *error = QStringLiteral("page cut short at line %1").arg(row);
            return false;
        }
        const quint32 copies = quint8(data.at(pos++)) + 1u;
        if (row + copies > page.height) {
            *error = QStringLiteral("line repeats past the page's height at line %1").arg(row);
            return false;
        }
        line.clear();
        while (quint32(line.size()) < page.bytesPerLine) {
            if (pos >= data.size()) {
                *error = QStringLiteral("line %1 cut short").arg(row);
                return false;
            }
            const quint8 run = quint8(data.at(pos++));
            const quint32 left = page.bytesPerLine - quint32(line.size());
            if (run == 128) {
                line.append(int(left), white);
            } else if (run < 128) {
                if ((run + 1u) * unit > left || data.size() - pos < unit) {
                    *error = QStringLiteral("repeated pixel overruns line %1").arg(row);
                    return false;
                }
                const QByteArray pixel = data.mid(pos, unit);
                pos += unit;
                for (int i = 0; i <= run; ++i)
                    line.append(pixel);
            } else {
                const quint32 bytes = (257u - run) * unit;
                if (bytes > left || data.size() - pos < bytes) {
                    *error = QStringLiteral("literal pixels overrun line %1").arg(row);
                    return false;
                }
                line.append(data.mid(pos, bytes));
                pos += bytes;
            }
        }
        for (quint32 i = 0; i < copies; ++i)
            lineToGray(line, page, gray.data() + quint64(row + i) * page.width);
        row += copies;
    }
    return true;
}

bool checkLayout(const PageLayout& page, QString* error)
{
    if (page.width == 0 || page.height == 0 || quint64(page.width) * page.height > MaxPixels) {
        *error = QStringLiteral("page of %1 x %2 pixels").arg(page.width).arg(page.height);
        return false;
    }
    const quint32 channels = quint32(channelsOf(page.colours));
    if ((page.bitsPerColor != 1 && page.bitsPerColor != 2 && page.bitsPerColor != 4 &&
         page.bitsPerColor != 8 && page.bitsPerColor != 16) ||
        page.bitsPerPixel != page.bitsPerColor * channels || (channels > 1 && page.bitsPerColor < 8)) {
        *error = QStringLiteral("%1 bits per pixel, %2 per colour, %3 colours")
                     .arg(page.bitsPerPixel)
                     .arg(page.bitsPerColor)
                     .arg(channels);
        return false;
    }
    if (quint64(page.bytesPerLine) != (quint64(page.width) * page.bitsPerPixel + 7) / 8) {
        *error = QStringLiteral("%1 bytes per line for %2 pixels").arg(page.bytesPerLine).arg(page.width);
        return false;
    }
    return true;
}

bool pwgLayout(const QByteArray& header, PageLayout& page, QString* error)
{
    page.xResolution = bigEndian32(header, 276);
    page.yResolution = bigEndian32(header, 280);
    page.width = bigEndian32(header, 372);
    page.height = bigEndian32(header, 376);
    page.bitsPerColor = bigEndian32(header, 384);
    page.bitsPerPixel = bigEndian32(header, 388);
    page.bytesPerLine = bigEndian32(header, 392);
    const quint32 order = bigEndian32(header, 396);
    const quint32 space = bigEndian32(header, 400);
    if (order != 0) {
        *error = QStringLiteral("colours not chunked (order %1)").arg(order);
        return false;
    }
    if (space == PwgWhite || space == PwgSGray) {
        page.colours = Colours::Gray;
    } else if (space == PwgBlack) {
        page.colours = Colours::Black;
    } else if (space == PwgRgb || space == PwgSRgb || space == PwgAdobeRgb) {
        page.colours = Colours::Rgb;
    } else if (space == PwgCmyk) {
        page.colours = Colours::Cmyk;
    } else {
        *error = QStringLiteral("colour space %1").arg(space);
        return false;
    }
    return checkLayout(page, error);
}

// Apple raster's colour spaces: 0 and 4 gray, 1, 3 and 5 RGB, 6 CMYK (2,
// CIE Lab, is not converted).
bool appleLayout(const QByteArray& header, PageLayout& page, QString* error)
{
    page.bitsPerPixel = quint8(header.at(0));
    const int space = quint8(header.at(1));
    page.width = bigEndian32(header, 12);
    page.height = bigEndian32(header, 16);
    page.xResolution = page.yResolution = bigEndian32(header, 20);
    if (space == 0 || space == 4)
        page.colours = page.bitsPerPixel == 1 ? Colours::Black : Colours::Gray;
    else if (space == 1 || space == 3 || space == 5)
        page.colours = Colours::Rgb;
    else if (space == 6)
        page.colours = Colours::Cmyk;
    else {
        *error = QStringLiteral("colour space %1").arg(space);
        return false;
    }
    page.bitsPerColor = page.bitsPerPixel / quint32(channelsOf(page.colours));
    page.bytesPerLine = quint32((quint64(page.width) * page.bitsPerPixel + 7) / 8);
    return checkLayout(page, error);
}

bool writePgm(const QString& path, const PageLayout& page, const QByteArray& gray)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    const QByteArray header = QStringLiteral("P5\n# resolution %1x%2 dpi\n%3 %4\n255\n")
                                  .arg(page.xResolution)
                                  .arg(page.yResolution)
                                  .arg(page.width)
                                  .arg(page.height)
                                  .toLatin1();
    return file.write(header) == header.size() && file.write(gray) == gray.size();
}

} // namespace

QList<RasterPageImage> decodeRasterPages(const QString& rasterFile, const QString& folder, QString* error)
{
    QString problem;
    QList<RasterPageImage> pages;
    QFile file(rasterFile);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = QStringLiteral("cannot read %1: %2").arg(rasterFile, file.errorString());
        return pages;
    }
    const QByteArray data = file.readAll();
    const bool apple = data.startsWith(QByteArray("UNIRAST\0", 8));
    const qint64 headerSize = apple ? 32 : 1796;
    qint64 pos = apple ? 12 : 4;
    if (!apple && !data.startsWith("RaS2"))
        problem = QStringLiteral("neither PWG raster nor Apple raster");
    QDir().mkpath(folder);
    while (problem.isEmpty() && pos < data.size()) {
        if (data.size() - pos < headerSize) {
            problem = QStringLiteral("page header %1 cut short").arg(pages.size() + 1);
            break;
        }
        const QByteArray header = data.mid(pos, int(headerSize));
        pos += headerSize;
        PageLayout page;
        QByteArray gray;
        if (!(apple ? appleLayout(header, page, &problem) : pwgLayout(header, page, &problem)) ||
            !decodeLines(data, pos, page, gray, &problem)) {
            problem = QStringLiteral("page %1: %2").arg(pages.size() + 1).arg(problem);
            break;
        }
        RasterPageImage image;
        image.file = QDir(folder).filePath(
            QStringLiteral("page-%1.pgm").arg(pages.size() + 1, 3, 10, QLatin1Char('0')));
        image.width = int(page.width);
        image.height = int(page.height);
        image.xResolution = int(page.xResolution);
        image.yResolution = int(page.yResolution);
        if (!writePgm(image.file, page, gray)) {
            problem = QStringLiteral("cannot write %1").arg(image.file);
            break;
        }
        pages.append(image);
    }
    if (error)
        *error = problem;
    return pages;
}

QString ocrText(const QString& pgmFile, QString* error)
{
    QStringList arguments{pgmFile, QStringLiteral("stdout"), QStringLiteral("-l"), QStringLiteral("eng")};
    // Without the resolution tesseract guesses 70 dpi and misjudges the
    // size of the letters.
    QFile file(pgmFile);
    if (file.open(QIODevice::ReadOnly)) {
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("^# resolution (\\d+)x\\d+ dpi$"),
                               QRegularExpression::MultilineOption)
                .match(QString::fromLatin1(file.read(256)));
        if (match.hasMatch())
            arguments << QStringLiteral("--dpi") << match.captured(1);
    }
    const RunResult result = runProgram(QStringLiteral("tesseract"), arguments);
    if (result.crashed || result.exitCode != 0) {
        if (error)
            *error = QStringLiteral("tesseract: exit status %1\n%2")
                         .arg(result.exitCode)
                         .arg(QString::fromLocal8Bit(result.standardError));
        return QString();
    }
    if (error)
        error->clear();
    return QString::fromUtf8(result.standardOutput);
}
