// The page counters of the documents that Ghostscript makes for printers
// (PWG raster, Apple raster, PCL XL), on Ghostscript's own output and on
// damaged or hand-made documents; and the raster pages decoded into images
// that Ghostscript's rendering and tesseract agree with.
#include "backend/sheetcount.h"
#include "support/postscripttools.h"
#include "support/rastertools.h"
#include "support/testsupport.h"

#include <QBuffer>
#include <QElapsedTimer>
#include <QHash>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>

Q_DECLARE_METATYPE(ConvertedFormat)

namespace
{

// Page sizes in points that the test documents go through in turn.
const int PageSizes[][2] = {{595, 842}, {842, 595}, {612, 792}, {420, 595}, {612, 1008}};

// A document of `pages` pages of several sizes, each with "Page n of N
// SECRET" in big letters. With colour, pages also have gray and red areas,
// a curve, a dashed line and a small image, so that the converters use
// more than text.
QByteArray testDocument(int pages, bool colour)
{
    QByteArray ps = "%!PS-Adobe-3.0\n/Helvetica-Bold findfont 36 scalefont setfont\n";
    for (int n = 1; n <= pages; ++n) {
        const int* size = PageSizes[(n - 1) % 5];
        ps += QStringLiteral("<< /PageSize [%1 %2] >> setpagedevice\n").arg(size[0]).arg(size[1]).toLatin1();
        ps += QStringLiteral("72 %1 moveto (Page %2 of %3 SECRET) show\n")
                  .arg(size[1] - 120)
                  .arg(n)
                  .arg(pages)
                  .toLatin1();
        if (colour) {
            ps += "0.5 setgray 72 72 144 144 rectfill\n"
                  "1 0 0 setrgbcolor 240 72 100 100 rectfill 0 setgray\n"
                  "[6 3] 0 setdash 2 setlinewidth 72 300 moveto 200 400 300 250 380 330 curveto stroke [] 0 "
                  "setdash\n"
                  "gsave 400 400 translate 64 64 scale 8 8 8 [8 0 0 8 0 0]\n"
                  "{<00ff00ff00ff00ff1122334455667788>} image grestore\n";
        } else {
            ps += "72 72 144 144 rectfill 1 setgray 96 96 96 96 rectfill 0 setgray\n";
        }
        ps += "showpage\n";
    }
    return ps;
}

// The same document asking for three copies of its one page.
const char CopiesDocument[] =
    "%!PS-Adobe-3.0\n<< /NumCopies 3 >> setpagedevice\n"
    "/Helvetica findfont 24 scalefont setfont 72 700 moveto (Copies) show showpage\n";

using Counter = std::function<qint64(QIODevice&)>;

Counter counterFor(ConvertedFormat format)
{
    switch (format) {
    case ConvertedFormat::PwgRaster:
        return countPwgRasterPages;
    case ConvertedFormat::AppleRaster:
        return countAppleRasterPages;
    case ConvertedFormat::PclXl:
        return countPclXlPages;
    default:
        return {};
    }
}

qint64 countBytes(ConvertedFormat format, const QByteArray& data)
{
    QBuffer buffer;
    buffer.setData(data);
    buffer.open(QIODevice::ReadOnly);
    return counterFor(format)(buffer);
}

void putBigEndian32(QByteArray& data, int at, quint32 value)
{
    for (int i = 0; i < 4; ++i)
        data[at + i] = char(value >> (24 - 8 * i));
}

quint32 bigEndian32(const QByteArray& data, int at)
{
    quint32 value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 8 | quint8(data.at(at + i));
    return value;
}

QByteArray withField(QByteArray data, int at, quint32 value)
{
    putBigEndian32(data, at, value);
    return data;
}

// A PWG raster page header (sync word not included) for 8-bit gray.
QByteArray pwgHeader(quint32 width, quint32 height)
{
    QByteArray header(1796, '\0');
    header.replace(0, 9, "PwgRaster");
    putBigEndian32(header, 276, 72);
    putBigEndian32(header, 280, 72);
    putBigEndian32(header, 372, width);
    putBigEndian32(header, 376, height);
    putBigEndian32(header, 384, 8);
    putBigEndian32(header, 388, 8);
    putBigEndian32(header, 392, width);
    putBigEndian32(header, 400, 18);
    putBigEndian32(header, 420, 1);
    return header;
}

// A PCL XL stream with the given tokens between the stream header and the
// end of the job.
QByteArray pclXl(const QByteArray& tokens, char binding = ')')
{
    return QByteArray(1, binding) + " HP-PCL XL;2;0;test\n" + tokens;
}

// BeginSession with its usual attributes (units per measure, measure,
// error report), in either byte order.
const QByteArray XlSession = QByteArray::fromHex("d1 6400 6400 f889 c000 f886 c003 f88f 41");
const QByteArray XlPage = QByteArray::fromHex("c0 00 f826 43"); // Orientation, BeginPage
const QByteArray XlEndPage = QByteArray::fromHex("44");
const QByteArray XlEndSession = QByteArray::fromHex("42");
const QByteArray Uel = "\x1b%-12345X";

// A device that makes up one 8-bit gray PWG raster page of a million by a
// million pixels as it is read, every line white (runs of 128 pixels), and
// remembers the largest read asked of it. Decoded, the page would be a
// terabyte; compressed it is about 60 MB.
class GeneratedPage : public QIODevice
{
  public:
    GeneratedPage()
    {
        m_head = "RaS2" + pwgHeader(Side, Side);
        // A group of 256 lines: runs of 128 white pixels across the line.
        m_group.append(char(255));
        for (quint32 x = 0; x < Side; x += 128)
            m_group.append(char(Side - x >= 128 ? 127 : Side - x - 1)).append(char(255));
        // As many groups as it takes; the last one repeats only the lines
        // that are left (see groupByte).
        m_size = m_head.size() + qint64(m_group.size()) * (Side / 256 + (Side % 256 ? 1 : 0));
        open(QIODevice::ReadOnly);
    }

    bool isSequential() const override { return true; }
    qint64 largestRead() const { return m_largestRead; }

  protected:
    qint64 readData(char* out, qint64 max) override
    {
        m_largestRead = qMax(m_largestRead, max);
        qint64 done = 0;
        while (done < max && m_pos < m_size) {
            const char c = m_pos < m_head.size() ? m_head.at(int(m_pos)) : groupByte(m_pos - m_head.size());
            out[done++] = c;
            ++m_pos;
        }
        return done;
    }
    qint64 writeData(const char*, qint64) override { return -1; }

  private:
    static const quint32 Side = 1000000;

    char groupByte(qint64 offset) const
    {
        const qint64 group = offset / m_group.size();
        const int at = int(offset % m_group.size());
        // 1000000 lines are 3906 groups of 256 and one of 64.
        if (at == 0 && group == Side / 256)
            return char(Side % 256 - 1);
        return m_group.at(at);
    }

    QByteArray m_head;
    QByteArray m_group;
    qint64 m_size = 0;
    qint64 m_pos = 0;
    qint64 m_largestRead = 0;
};

} // namespace

class TestSheetCount : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void formatIsTold_data();
    void formatIsTold();
    void ghostscriptPagesAreCounted_data();
    void ghostscriptPagesAreCounted();
    void copiesAreCounted_data();
    void copiesAreCounted();
    void malformedRaster_data();
    void malformedRaster();
    void malformedPclXl_data();
    void malformedPclXl();
    void everyCutIsCountedOrRefused_data();
    void everyCutIsCountedOrRefused();
    void headerBytesChangedOneByOne_data();
    void headerBytesChangedOneByOne();
    void hugePageIsReadInBlocks();
    void decodedPagesMatchGhostscript_data();
    void decodedPagesMatchGhostscript();
    void decodedPageReadsBack_data();
    void decodedPageReadsBack();
    void decodingRefusesDamage();

  private:
    // Ghostscript's output for a document; every conversion is made once.
    QByteArray convert(const QString& document, const QStringList& options);
    QString document(int pages, bool colour = true) const;

    QTemporaryDir m_dir;
    QHash<QString, QByteArray> m_converted;
};

void TestSheetCount::initTestCase()
{
    if (QStandardPaths::findExecutable(QStringLiteral("gs")).isEmpty())
        QSKIP("Ghostscript (gs) is not installed");
    QVERIFY(m_dir.isValid());
    for (int pages : {1, 3, 7}) {
        QVERIFY(writeFile(document(pages, true), testDocument(pages, true)));
        QVERIFY(writeFile(document(pages, false), testDocument(pages, false)));
    }
    QVERIFY(writeFile(m_dir.filePath(QStringLiteral("copies.ps")), CopiesDocument));
}

QString TestSheetCount::document(int pages, bool colour) const
{
    return m_dir.filePath(QStringLiteral("%1-%2.ps").arg(colour ? "colour" : "black").arg(pages));
}

QByteArray TestSheetCount::convert(const QString& document, const QStringList& options)
{
    const QString key = document + QLatin1Char('\n') + options.join(QLatin1Char('\n'));
    if (m_converted.contains(key))
        return m_converted.value(key);
    const QString output = m_dir.filePath(QStringLiteral("converted-%1").arg(m_converted.size()));
    const RunResult result = runProgram(
        QStringLiteral("gs"), QStringList{QStringLiteral("-q"), QStringLiteral("-dSAFER"),
                                          QStringLiteral("-dBATCH"), QStringLiteral("-dNOPAUSE")} +
                                  options + QStringList{QStringLiteral("-sOutputFile=") + output, document});
    if (result.exitCode != 0 || result.crashed)
        qWarning("gs %s: %s", qPrintable(options.join(' ')), result.standardError.constData());
    const QByteArray data = readFile(output);
    m_converted.insert(key, data);
    return data;
}

void TestSheetCount::formatIsTold_data()
{
    QTest::addColumn<QByteArray>("head");
    QTest::addColumn<ConvertedFormat>("format");
    QTest::newRow("PDF") << QByteArray("%PDF-1.7\n") << ConvertedFormat::Pdf;
    QTest::newRow("PWG raster") << QByteArray("RaS2PwgRaster") << ConvertedFormat::PwgRaster;
    QTest::newRow("CUPS raster is not PWG") << QByteArray("RaS3") << ConvertedFormat::Unknown;
    QTest::newRow("Apple raster") << QByteArray("UNIRAST\0\0\0\0\1", 12) << ConvertedFormat::AppleRaster;
    QTest::newRow("PCL XL alone") << QByteArray(") HP-PCL XL;2;0\n") << ConvertedFormat::PclXl;
    QTest::newRow("PCL XL after PJL")
        << Uel + "@PJL SET RESOLUTION=600\n@PJL ENTER LANGUAGE = PCLXL\n) HP-PCL XL;1;1\n"
        << ConvertedFormat::PclXl;
    QTest::newRow("PJL entering PCL 5") << Uel + "@PJL ENTER LANGUAGE = PCL\n) HP-PCL XL;1;1\n"
                                        << ConvertedFormat::Unknown;
    QTest::newRow("PostScript") << QByteArray("%!PS-Adobe-3.0\n") << ConvertedFormat::Unknown;
    QTest::newRow("nothing") << QByteArray() << ConvertedFormat::Unknown;
}

void TestSheetCount::formatIsTold()
{
    QFETCH(QByteArray, head);
    QFETCH(ConvertedFormat, format);
    QCOMPARE(convertedFormatOf(head), format);
}

void TestSheetCount::ghostscriptPagesAreCounted_data()
{
    QTest::addColumn<ConvertedFormat>("format");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("pages");
    struct Kind {
        const char* name;
        ConvertedFormat format;
        QStringList options;
    };
    const QList<Kind> kinds = {
        {"PWG raster 1-bit black", ConvertedFormat::PwgRaster, {"-sDEVICE=pwgraster"}},
        {"PWG raster 8-bit gray",
         ConvertedFormat::PwgRaster,
         {"-sDEVICE=pwgraster", "-dcupsColorSpace=18", "-dcupsBitsPerColor=8"}},
        {"PWG raster 8-bit black",
         ConvertedFormat::PwgRaster,
         {"-sDEVICE=pwgraster", "-dcupsColorSpace=3", "-dcupsBitsPerColor=8"}},
        {"PWG raster 16-bit gray",
         ConvertedFormat::PwgRaster,
         {"-sDEVICE=pwgraster", "-dcupsColorSpace=18", "-dcupsBitsPerColor=16"}},
        {"PWG raster 8-bit sRGB",
         ConvertedFormat::PwgRaster,
         {"-sDEVICE=pwgraster", "-dcupsColorSpace=19", "-dcupsBitsPerColor=8"}},
        {"PWG raster 8-bit CMYK",
         ConvertedFormat::PwgRaster,
         {"-sDEVICE=pwgraster", "-dcupsColorSpace=6", "-dcupsBitsPerColor=8"}},
        {"urf 1-bit", ConvertedFormat::AppleRaster, {"-sDEVICE=urf"}},
        {"urf 8-bit gray",
         ConvertedFormat::AppleRaster,
         {"-sDEVICE=urf", "-dcupsColorSpace=18", "-dcupsBitsPerColor=8"}},
        {"urf 8-bit sRGB",
         ConvertedFormat::AppleRaster,
         {"-sDEVICE=urf", "-dcupsColorSpace=19", "-dcupsBitsPerColor=8"}},
        {"appleraster 8-bit sRGB",
         ConvertedFormat::AppleRaster,
         {"-sDEVICE=appleraster", "-dcupsColorSpace=19", "-dcupsBitsPerColor=8"}},
        {"pxlmono", ConvertedFormat::PclXl, {"-sDEVICE=pxlmono"}},
        {"pxlcolor", ConvertedFormat::PclXl, {"-sDEVICE=pxlcolor"}},
    };
    for (const Kind& kind : kinds) {
        for (int pages : {1, 3, 7}) {
            QTest::addRow("%s, %d pages", kind.name, pages)
                << kind.format << kind.options + QStringList{"-r50"} << pages;
        }
    }
    // The page count in the headers, which Ghostscript writes only when told.
    QTest::newRow("urf 8-bit gray, 7 pages, count in the header")
        << ConvertedFormat::AppleRaster
        << QStringList{"-sDEVICE=urf", "-dcupsColorSpace=18", "-dcupsBitsPerColor=8", "-dcupsInteger0=7",
                       "-r50"}
        << 7;
    QTest::newRow("PWG raster, 3 pages, count in the headers")
        << ConvertedFormat::PwgRaster << QStringList{"-sDEVICE=pwgraster", "-dcupsInteger0=3", "-r50"} << 3;
    // The resolution of a real printer.
    QTest::newRow("PWG raster 1-bit black at 600 dpi, 3 pages")
        << ConvertedFormat::PwgRaster << QStringList{"-sDEVICE=pwgraster", "-r600"} << 3;
    QTest::newRow("pxlmono at 600 dpi, 7 pages")
        << ConvertedFormat::PclXl << QStringList{"-sDEVICE=pxlmono", "-r600"} << 7;
}

void TestSheetCount::ghostscriptPagesAreCounted()
{
    QFETCH(ConvertedFormat, format);
    QFETCH(QStringList, options);
    QFETCH(int, pages);
    const QByteArray data = convert(document(pages), options);
    QVERIFY2(!data.isEmpty(), "Ghostscript wrote nothing");
    QCOMPARE(convertedFormatOf(data.left(1024)), format);
    QCOMPARE(countBytes(format, data), qint64(pages));
    // Where the document's page count was asked for, Ghostscript wrote it:
    // the count in the headers was checked, not left out.
    if (options.contains(QStringLiteral("-dcupsInteger0=%1").arg(pages)))
        QCOMPARE(bigEndian32(data, format == ConvertedFormat::AppleRaster ? 8 : 4 + 452), quint32(pages));
    // The other counters do not take it.
    for (ConvertedFormat other :
         {ConvertedFormat::PwgRaster, ConvertedFormat::AppleRaster, ConvertedFormat::PclXl}) {
        if (other != format)
            QCOMPARE(countBytes(other, data), qint64(-1));
    }
    // From a file, as the backend reads it.
    QTemporaryFile file;
    QVERIFY(file.open());
    QCOMPARE(file.write(data), qint64(data.size()));
    QVERIFY(file.seek(0));
    QCOMPARE(counterFor(format)(file), qint64(pages));
}

void TestSheetCount::copiesAreCounted_data()
{
    QTest::addColumn<ConvertedFormat>("format");
    QTest::addColumn<QString>("device");
    QTest::addColumn<qint64>("pages");
    // Ghostscript passes the document's NumCopies on as PageCopies of each
    // PCL XL page and NumCopies of each PWG page header; Apple raster has
    // no place for it.
    QTest::newRow("pxlmono") << ConvertedFormat::PclXl << "pxlmono" << qint64(3);
    QTest::newRow("pxlcolor") << ConvertedFormat::PclXl << "pxlcolor" << qint64(3);
    QTest::newRow("PWG raster") << ConvertedFormat::PwgRaster << "pwgraster" << qint64(3);
    QTest::newRow("urf") << ConvertedFormat::AppleRaster << "urf" << qint64(1);
}

void TestSheetCount::copiesAreCounted()
{
    QFETCH(ConvertedFormat, format);
    QFETCH(QString, device);
    QFETCH(qint64, pages);
    const QByteArray data = convert(m_dir.filePath(QStringLiteral("copies.ps")),
                                    {QStringLiteral("-sDEVICE=") + device, QStringLiteral("-r50")});
    QVERIFY(!data.isEmpty());
    QCOMPARE(countBytes(format, data), pages);
}

void TestSheetCount::malformedRaster_data()
{
    QTest::addColumn<ConvertedFormat>("format");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<qint64>("pages");

    const ConvertedFormat pwg = ConvertedFormat::PwgRaster;
    const QByteArray good = convert(document(3), {"-sDEVICE=pwgraster", "-r50"});
    QVERIFY(good.size() > 2 * 1800);
    // Offsets of fields of the first page header in the file.
    const int h = 4;
    QTest::newRow("PWG: as Ghostscript wrote it") << pwg << good << qint64(3);
    QTest::newRow("PWG: empty") << pwg << QByteArray() << qint64(-1);
    QTest::newRow("PWG: sync word only") << pwg << QByteArray("RaS2") << qint64(0);
    QTest::newRow("PWG: CUPS raster sync word") << pwg << QByteArray("RaS3") + good.mid(4) << qint64(-1);
    QTest::newRow("PWG: sync word cut") << pwg << good.left(2) << qint64(-1);
    QTest::newRow("PWG: header cut") << pwg << good.left(h + 1000) << qint64(-1);
    QTest::newRow("PWG: header without lines") << pwg << good.left(h + 1796) << qint64(-1);
    QTest::newRow("PWG: first page cut") << pwg << good.left(h + 1796 + 20) << qint64(-1);
    QTest::newRow("PWG: last byte missing") << pwg << good.left(good.size() - 1) << qint64(-1);
    QTest::newRow("PWG: a byte after the end") << pwg << good + '\n' << qint64(-1);
    QTest::newRow("PWG: a header after the end") << pwg << good + good.mid(4, 1796) << qint64(-1);
    QTest::newRow("PWG: the sync word again") << pwg << good + "RaS2" << qint64(-1);
    QByteArray renamed = good;
    renamed[h] = 'p';
    QTest::newRow("PWG: header not named PwgRaster") << pwg << renamed << qint64(-1);
    const quint32 height = bigEndian32(good, h + 376);
    const quint32 width = bigEndian32(good, h + 372);
    QTest::newRow("PWG: height one more") << pwg << withField(good, h + 376, height + 1) << qint64(-1);
    QTest::newRow("PWG: height one less") << pwg << withField(good, h + 376, height - 1) << qint64(-1);
    QTest::newRow("PWG: height zero") << pwg << withField(good, h + 376, 0) << qint64(-1);
    QTest::newRow("PWG: width zero") << pwg << withField(good, h + 372, 0) << qint64(-1);
    QTest::newRow("PWG: width absurd") << pwg << withField(good, h + 372, 0xffffffff) << qint64(-1);
    QTest::newRow("PWG: width not matching bytes per line")
        << pwg << withField(good, h + 372, width + 8) << qint64(-1);
    QTest::newRow("PWG: bytes per line one more")
        << pwg << withField(good, h + 392, bigEndian32(good, h + 392) + 1) << qint64(-1);
    QTest::newRow("PWG: 3 bits per pixel") << pwg << withField(good, h + 388, 3) << qint64(-1);
    QTest::newRow("PWG: 8 bits per pixel, bytes per line of 1")
        << pwg << withField(good, h + 388, 8) << qint64(-1);
    QTest::newRow("PWG: resolution zero") << pwg << withField(good, h + 276, 0) << qint64(-1);
    QTest::newRow("PWG: resolution absurd") << pwg << withField(good, h + 280, 1000000) << qint64(-1);
    QTest::newRow("PWG: header count of 5 for 3 pages") << pwg << withField(good, h + 452, 5) << qint64(-1);
    QTest::newRow("PWG: header count of 2 for 3 pages") << pwg << withField(good, h + 452, 2) << qint64(-1);
    QTest::newRow("PWG: header count of 3 for 3 pages") << pwg << withField(good, h + 452, 3) << qint64(3);
    const int second = good.indexOf("RaS2PwgRaster") >= 0 ? good.indexOf("PwgRaster", h + 10) : -1;
    QVERIFY(second > h);
    QTest::newRow("PWG: pages giving different counts")
        << pwg << withField(withField(good, h + 452, 3), second + 452, 4) << qint64(-1);
    QTest::newRow("PWG: two copies of the first page") << pwg << withField(good, h + 340, 2) << qint64(4);
    QTest::newRow("PWG: copies absurd") << pwg << withField(good, h + 340, 100000) << qint64(-1);

    // Hand-made pages of 8-bit gray, 4 pixels by 3 lines.
    const QByteArray page = "RaS2" + pwgHeader(4, 3);
    QTest::newRow("PWG: lines filled with white") << pwg << page + QByteArray::fromHex("02 80") << qint64(1);
    QTest::newRow("PWG: literal pixels")
        << pwg << page + QByteArray::fromHex("02 fd 00 11 22 33") << qint64(1);
    QTest::newRow("PWG: a run, then white")
        << pwg << page + QByteArray::fromHex("00 01 00 80 01 03 ff") << qint64(1);
    QTest::newRow("PWG: run past the line") << pwg << page + QByteArray::fromHex("02 04 00") << qint64(-1);
    QTest::newRow("PWG: literal past the line")
        << pwg << page + QByteArray::fromHex("02 fc 00 11 22 33 44") << qint64(-1);
    QTest::newRow("PWG: lines past the page") << pwg << page + QByteArray::fromHex("03 80") << qint64(-1);
    QTest::newRow("PWG: literal cut") << pwg << page + QByteArray::fromHex("02 fd 00 11") << qint64(-1);
    QTest::newRow("PWG: lines short of the page") << pwg << page + QByteArray::fromHex("01 80") << qint64(-1);
    QTest::newRow("PWG: a million lines, two bytes of data")
        << pwg << "RaS2" + pwgHeader(4, 1000000) + QByteArray::fromHex("ff 80") << qint64(-1);
    QTest::newRow("PWG: a million pixels wide, few runs")
        << pwg << "RaS2" + pwgHeader(1000000, 1) + QByteArray::fromHex("00 7f 00 7f 00") << qint64(-1);
    QTest::newRow("PWG: wider than any page")
        << pwg << "RaS2" + pwgHeader(2000000, 1) + QByteArray::fromHex("00 80") << qint64(-1);

    const ConvertedFormat apple = ConvertedFormat::AppleRaster;
    const QByteArray urf =
        convert(document(3), {"-sDEVICE=urf", "-dcupsColorSpace=18", "-dcupsBitsPerColor=8", "-r50"});
    QVERIFY(urf.size() > 200);
    QCOMPARE(bigEndian32(urf, 8), quint32(0));
    const int a = 12;
    QTest::newRow("Apple: as Ghostscript wrote it") << apple << urf << qint64(3);
    QTest::newRow("Apple: empty") << apple << QByteArray() << qint64(-1);
    QTest::newRow("Apple: signature only") << apple << urf.left(8) << qint64(-1);
    QTest::newRow("Apple: file header only") << apple << urf.left(12) << qint64(0);
    QTest::newRow("Apple: wrong signature") << apple << "UNIRAST\1" + urf.mid(8) << qint64(-1);
    QTest::newRow("Apple: PWG sync word") << apple << "RaS2" + urf.mid(4) << qint64(-1);
    QTest::newRow("Apple: page header cut") << apple << urf.left(a + 20) << qint64(-1);
    QTest::newRow("Apple: page header without lines") << apple << urf.left(a + 32) << qint64(-1);
    QTest::newRow("Apple: first page cut") << apple << urf.left(a + 32 + 10) << qint64(-1);
    QTest::newRow("Apple: last byte missing") << apple << urf.left(urf.size() - 1) << qint64(-1);
    QTest::newRow("Apple: a byte after the end") << apple << urf + '\0' << qint64(-1);
    QTest::newRow("Apple: a page header after the end") << apple << urf + urf.mid(a, 32) << qint64(-1);
    QTest::newRow("Apple: count of 3 for 3 pages") << apple << withField(urf, 8, 3) << qint64(3);
    QTest::newRow("Apple: count of 5 for 3 pages") << apple << withField(urf, 8, 5) << qint64(-1);
    QTest::newRow("Apple: count of 2 for 3 pages") << apple << withField(urf, 8, 2) << qint64(-1);
    QTest::newRow("Apple: count of 1 and no pages") << apple << withField(urf.left(12), 8, 1) << qint64(-1);
    QByteArray bits = urf;
    bits[a] = 3;
    QTest::newRow("Apple: 3 bits per pixel") << apple << bits << qint64(-1);
    bits[a] = char(72);
    QTest::newRow("Apple: 72 bits per pixel") << apple << bits << qint64(-1);
    bits[a] = 24;
    QTest::newRow("Apple: 24 bits per pixel for 8-bit lines") << apple << bits << qint64(-1);
    QTest::newRow("Apple: width zero") << apple << withField(urf, a + 12, 0) << qint64(-1);
    QTest::newRow("Apple: width absurd") << apple << withField(urf, a + 12, 0x7fffffff) << qint64(-1);
    QTest::newRow("Apple: height one more")
        << apple << withField(urf, a + 16, bigEndian32(urf, a + 16) + 1) << qint64(-1);
    QTest::newRow("Apple: height one less")
        << apple << withField(urf, a + 16, bigEndian32(urf, a + 16) - 1) << qint64(-1);
    QTest::newRow("Apple: resolution zero") << apple << withField(urf, a + 20, 0) << qint64(-1);
}

void TestSheetCount::malformedRaster()
{
    QFETCH(ConvertedFormat, format);
    QFETCH(QByteArray, data);
    QFETCH(qint64, pages);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(countBytes(format, data), pages);
    QVERIFY2(timer.elapsed() < 5000, "counting took too long");
}

void TestSheetCount::malformedPclXl_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<qint64>("pages");

    const QByteArray good = convert(document(3), {"-sDEVICE=pxlmono", "-r50"});
    QVERIFY(good.startsWith(Uel));
    QVERIFY(good.endsWith(QByteArray(1, 0x42) + Uel));
    const int header = good.indexOf(") HP-PCL XL;");
    QVERIFY(header > 0);
    const int tokens = good.indexOf('\n', header) + 1;
    QTest::newRow("as Ghostscript wrote it") << good << qint64(3);
    QTest::newRow("without the job header") << good.mid(header) << qint64(3);
    QTest::newRow("without the universal exit at the end")
        << good.left(good.size() - Uel.size()) << qint64(3);
    QTest::newRow("empty") << QByteArray() << qint64(-1);
    QTest::newRow("universal exit only") << Uel << qint64(-1);
    QTest::newRow("job header only") << good.left(header) << qint64(-1);
    QTest::newRow("cut in the job header") << good.left(20) << qint64(-1);
    QTest::newRow("cut in the stream header") << good.left(header + 8) << qint64(-1);
    QTest::newRow("stream header only") << good.left(tokens) << qint64(-1);
    QTest::newRow("cut in the first page") << good.left(tokens + 200) << qint64(-1);
    QTest::newRow("cut before the end of the session")
        << good.left(good.size() - Uel.size() - 1) << qint64(-1);
    QTest::newRow("cut in the universal exit") << good.left(good.size() - 3) << qint64(-1);
    QTest::newRow("a byte after the end") << good + '\n' << qint64(-1);
    QTest::newRow("a page after the end") << good + XlPage + XlEndPage << qint64(-1);
    QTest::newRow("a second job after the end") << good + good << qint64(-1);
    QByteArray language = good;
    language.replace("ENTER LANGUAGE = PCLXL", "ENTER LANGUAGE = PCL  ");
    QTest::newRow("PJL entering another language") << language << qint64(-1);
    QTest::newRow("other bytes before the stream header")
        << good.left(header) + "x\n" + good.mid(header) << qint64(-1);
    QByteArray ascii = good;
    ascii[header] = '\'';
    QTest::newRow("ASCII binding") << ascii << qint64(-1);
    QByteArray name = good;
    name[header + 5] = 'L';
    QTest::newRow("not HP-PCL XL") << name << qint64(-1);
    QTest::newRow("stream header without class")
        << pclXl("").replace(";2;0;test", ";") + XlSession + XlEndSession << qint64(-1);

    // Hand-made sessions, low byte first unless said otherwise.
    const QByteArray twoPages = XlSession + XlPage + XlEndPage + XlPage + XlEndPage + XlEndSession;
    QTest::newRow("two pages") << pclXl(twoPages) << qint64(2);
    QTest::newRow("two pages, high byte first") << pclXl(twoPages, '(') << qint64(2);
    QTest::newRow("no pages") << pclXl(XlSession + XlEndSession) << qint64(0);
    QTest::newRow("no session") << pclXl("") << qint64(-1);
    QTest::newRow("session not ended") << pclXl(XlSession + XlPage + XlEndPage) << qint64(-1);
    QTest::newRow("page not ended") << pclXl(XlSession + XlPage + XlEndSession) << qint64(-1);
    QTest::newRow("page begun twice")
        << pclXl(XlSession + XlPage + XlPage + XlEndPage + XlEndSession) << qint64(-1);
    QTest::newRow("page ended twice")
        << pclXl(XlSession + XlPage + XlEndPage + XlEndPage + XlEndSession) << qint64(-1);
    QTest::newRow("page before the session")
        << pclXl(XlPage + XlEndPage + XlSession + XlEndSession) << qint64(-1);
    QTest::newRow("drawing before the session")
        << pclXl(QByteArray::fromHex("85") + XlSession + XlEndSession) << qint64(-1);
    QTest::newRow("two sessions") << pclXl(twoPages + twoPages) << qint64(-1);
    const QByteArray copies4 = QByteArray::fromHex("c1 0400 f831");
    QTest::newRow("four copies of a page")
        << pclXl(XlSession + XlPage + copies4 + XlEndPage + XlEndSession) << qint64(4);
    QTest::newRow("copies as a ubyte") << pclXl(XlSession + XlPage + QByteArray::fromHex("c0 02 f831") +
                                                XlEndPage + XlPage + XlEndPage + XlEndSession)
                                       << qint64(3);
    // In the other byte order the same bytes ask for 1024 copies.
    QTest::newRow("copies, high byte first")
        << pclXl(XlSession + XlPage + copies4 + XlEndPage + XlEndSession, '(') << qint64(1024);
    QTest::newRow("copies with a two-byte attribute id")
        << pclXl(XlSession + XlPage + QByteArray::fromHex("c1 0300 f9 3100") + XlEndPage + XlEndSession)
        << qint64(3);
    QTest::newRow("copies on another operator do not stay")
        << pclXl(XlSession + XlPage + copies4 + QByteArray::fromHex("85") + XlEndPage + XlEndSession)
        << qint64(1);
    QTest::newRow("zero copies") << pclXl(XlSession + XlPage + QByteArray::fromHex("c1 0000 f831") +
                                          XlEndPage + XlEndSession)
                                 << qint64(-1);
    QTest::newRow("copies as a real number")
        << pclXl(XlSession + XlPage + QByteArray::fromHex("c5 00008040 f831") + XlEndPage + XlEndSession)
        << qint64(-1);
    QTest::newRow("copies without a value")
        << pclXl(XlSession + XlPage + QByteArray::fromHex("f831") + XlEndPage + XlEndSession) << qint64(-1);
    // Data and arrays hold bytes that look like BeginPage; they are not.
    QTest::newRow("embedded data") << pclXl(XlSession + XlPage +
                                            QByteArray::fromHex("fb 04 43434343 fa 03000000 434343") +
                                            XlEndPage + XlEndSession)
                                   << qint64(1);
    QTest::newRow("arrays and boxes")
        << pclXl(XlSession + XlPage +
                 QByteArray::fromHex("c8 c0 03 434343 c9 c1 0200 43434343 e1 4343434343434343"
                                     " d5 4343434343434343 f84c") +
                 XlEndPage + XlEndSession)
        << qint64(1);
    QTest::newRow("embedded data past the end")
        << pclXl(XlSession + XlPage + QByteArray::fromHex("fa ffffff7f 43") + XlEndPage + XlEndSession)
        << qint64(-1);
    QTest::newRow("array length of a wrong type")
        << pclXl(XlSession + XlPage + QByteArray::fromHex("c8 c5 00000000") + XlEndPage + XlEndSession)
        << qint64(-1);
    QTest::newRow("array past the end")
        << pclXl(XlSession + XlPage + QByteArray::fromHex("cd c1 ffff 00")) << qint64(-1);
    QTest::newRow("value cut") << pclXl(XlSession + XlPage + QByteArray::fromHex("c2 0000")) << qint64(-1);
    QTest::newRow("unassigned tag") << pclXl(XlSession + XlPage + QByteArray::fromHex("30") + XlEndPage +
                                             XlEndSession)
                                    << qint64(-1);
    QTest::newRow("unassigned data type")
        << pclXl(XlSession + XlPage + QByteArray::fromHex("c6 00") + XlEndPage + XlEndSession) << qint64(-1);
    QTest::newRow("escape inside the session") << pclXl(XlSession + Uel + XlEndSession) << qint64(-1);
    QTest::newRow("stream run") << pclXl(XlSession + XlPage + QByteArray::fromHex("c8 c0 01 41 f8 a8 5e") +
                                         XlEndPage + XlEndSession)
                                << qint64(-1);
    QTest::newRow("stream defined") << pclXl(XlSession + QByteArray::fromHex("5b fb 01 43 5c 5d") +
                                             XlEndSession)
                                    << qint64(-1);
    QTest::newRow("PCL 5 passed through")
        << pclXl(XlSession + XlPage + QByteArray::fromHex("bf fb 01 0c") + XlEndPage + XlEndSession)
        << qint64(-1);
    QTest::newRow("whitespace between tokens")
        << pclXl(" \t\r\n" + XlSession + QByteArray("\0 ", 2) + XlPage + XlEndPage + XlEndSession + " " + Uel)
        << qint64(1);
    QTest::newRow("after the exit") << pclXl(twoPages + Uel + "@PJL EOJ\n") << qint64(-1);
}

void TestSheetCount::malformedPclXl()
{
    QFETCH(QByteArray, data);
    QFETCH(qint64, pages);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(countBytes(ConvertedFormat::PclXl, data), pages);
    QVERIFY2(timer.elapsed() < 5000, "counting took too long");
}

void TestSheetCount::everyCutIsCountedOrRefused_data()
{
    QTest::addColumn<ConvertedFormat>("format");
    QTest::addColumn<QByteArray>("data");
    // Lengths at which the data is a whole document, and its page count.
    QTest::addColumn<QList<int>>("wholeAt");
    QTest::addColumn<QList<int>>("pagesAt");

    // Three pages of different sizes, made one by one and put together, so
    // that where each page ends is known without counting.
    for (const auto& kind : {std::make_pair("PWG raster", ConvertedFormat::PwgRaster),
                             std::make_pair("urf", ConvertedFormat::AppleRaster)}) {
        const bool apple = kind.second == ConvertedFormat::AppleRaster;
        const QStringList device = {apple ? "-sDEVICE=urf" : "-sDEVICE=pwgraster", "-dcupsColorSpace=18",
                                    "-dcupsBitsPerColor=8", "-r30"};
        const int fileHeader = apple ? 12 : 4;
        QByteArray joined = convert(document(1), device).left(fileHeader);
        QList<int> wholeAt = {joined.size()};
        QList<int> pagesAt = {0};
        for (int page = 1; page <= 3; ++page) {
            const QByteArray one =
                convert(document(3), device + QStringList{QStringLiteral("-dFirstPage=%1").arg(page),
                                                          QStringLiteral("-dLastPage=%1").arg(page)});
            QVERIFY(one.size() > fileHeader);
            joined += one.mid(fileHeader);
            wholeAt << joined.size();
            pagesAt << page;
        }
        QCOMPARE(joined, convert(document(3), device));
        QTest::addRow("%s, page count not given", kind.first) << kind.second << joined << wholeAt << pagesAt;
        if (apple) {
            QTest::addRow("%s, page count given", kind.first)
                << kind.second << withField(joined, 8, 3) << QList<int>{joined.size()} << QList<int>{3};
        }
    }
    // PCL XL is whole only with its session ended.
    const QByteArray pxl = convert(document(3), {"-sDEVICE=pxlmono", "-r50"});
    QTest::newRow("pxlmono") << ConvertedFormat::PclXl << pxl
                             << QList<int>{pxl.size() - Uel.size(), pxl.size()} << QList<int>{3, 3};
}

void TestSheetCount::everyCutIsCountedOrRefused()
{
    QFETCH(ConvertedFormat, format);
    QFETCH(QByteArray, data);
    QFETCH(QList<int>, wholeAt);
    QFETCH(QList<int>, pagesAt);
    for (int length = 0; length <= data.size(); ++length) {
        const int whole = wholeAt.indexOf(length);
        const qint64 expected = whole >= 0 ? pagesAt.at(whole) : -1;
        const qint64 counted = countBytes(format, data.left(length));
        if (counted != expected)
            QFAIL(qPrintable(QStringLiteral("cut at %1 of %2 bytes: counted %3, expected %4")
                                 .arg(length)
                                 .arg(data.size())
                                 .arg(counted)
                                 .arg(expected)));
    }
}

void TestSheetCount::headerBytesChangedOneByOne_data()
{
    QTest::addColumn<ConvertedFormat>("format");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("from");
    QTest::addColumn<int>("to");
    QTest::addColumn<int>("copiesAt");
    const QByteArray pwg = convert(document(3), {"-sDEVICE=pwgraster", "-r50"});
    const int second = pwg.indexOf("PwgRaster", 10);
    QVERIFY(second > 0);
    QTest::newRow("PWG raster, second page header")
        << ConvertedFormat::PwgRaster << pwg << second << second + 1796 << second + 340;
    QTest::newRow("PWG raster, sync word and first header")
        << ConvertedFormat::PwgRaster << pwg << 0 << 4 + 1796 << 4 + 340;
    const QByteArray urf =
        convert(document(3), {"-sDEVICE=urf", "-dcupsColorSpace=19", "-dcupsBitsPerColor=8", "-r50"});
    QTest::newRow("urf, file and first page header")
        << ConvertedFormat::AppleRaster << urf << 0 << 12 + 32 << -1;
}

// Each byte in turn inverted: the count is the true one (a byte that does
// not matter), the true one with the copies that the byte now asks for, or
// a refusal; never another number, never a crash.
void TestSheetCount::headerBytesChangedOneByOne()
{
    QFETCH(ConvertedFormat, format);
    QFETCH(QByteArray, data);
    QFETCH(int, from);
    QFETCH(int, to);
    QFETCH(int, copiesAt);
    int refused = 0;
    for (int at = from; at < to; ++at) {
        QByteArray changed = data;
        changed[at] = char(~changed.at(at));
        qint64 expected = 3;
        if (copiesAt >= 0 && at >= copiesAt && at < copiesAt + 4)
            expected = 2 + qMax<quint32>(bigEndian32(changed, copiesAt), 1);
        const qint64 counted = countBytes(format, changed);
        if (counted == -1)
            ++refused;
        else if (counted != expected)
            QFAIL(qPrintable(QStringLiteral("byte %1 changed: counted %2").arg(at).arg(counted)));
    }
    // The signature, the sizes and the line layout are in every range.
    QVERIFY2(refused >= 8, qPrintable(QString::number(refused)));
}

void TestSheetCount::hugePageIsReadInBlocks()
{
    GeneratedPage page;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(countPwgRasterPages(page), qint64(1));
    QVERIFY2(page.largestRead() <= 1024 * 1024, qPrintable(QString::number(page.largestRead())));
    qInfo("a page of 60 MB read in %lld ms", timer.elapsed());
}

void TestSheetCount::decodedPagesMatchGhostscript_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("resolution");
    const QList<QPair<const char*, QStringList>> kinds = {
        {"PWG raster 1-bit black", {"-sDEVICE=pwgraster"}},
        {"PWG raster 8-bit gray", {"-sDEVICE=pwgraster", "-dcupsColorSpace=18", "-dcupsBitsPerColor=8"}},
        {"PWG raster 8-bit black", {"-sDEVICE=pwgraster", "-dcupsColorSpace=3", "-dcupsBitsPerColor=8"}},
        {"PWG raster 16-bit gray", {"-sDEVICE=pwgraster", "-dcupsColorSpace=18", "-dcupsBitsPerColor=16"}},
        {"PWG raster 8-bit sRGB", {"-sDEVICE=pwgraster", "-dcupsColorSpace=19", "-dcupsBitsPerColor=8"}},
        {"PWG raster 8-bit CMYK", {"-sDEVICE=pwgraster", "-dcupsColorSpace=6", "-dcupsBitsPerColor=8"}},
        {"urf 1-bit", {"-sDEVICE=urf"}},
        {"urf 8-bit gray", {"-sDEVICE=urf", "-dcupsColorSpace=18", "-dcupsBitsPerColor=8"}},
        {"urf 8-bit sRGB", {"-sDEVICE=urf", "-dcupsColorSpace=19", "-dcupsBitsPerColor=8"}},
    };
    for (const auto& kind : kinds) {
        for (int resolution : {72, 144})
            QTest::addRow("%s at %d dpi", kind.first, resolution) << kind.second << resolution;
    }
}

// Black and white pages: every converter draws the same pixels as
// Ghostscript's gray rendering, so the decoded pages must equal it. At
// resolutions where the page sizes are not whole pixels the raster devices
// place the page a fraction of a pixel apart from pgmraw (edges then move
// by a line); at 72 and 144 dpi the pages are whole pixels and the same.
void TestSheetCount::decodedPagesMatchGhostscript()
{
    QFETCH(QStringList, options);
    QFETCH(int, resolution);
    const QString black = document(3, false);
    const QByteArray data = convert(black, options + QStringList{QStringLiteral("-r%1").arg(resolution)});
    QTemporaryDir dir;
    const QString raster = dir.filePath(QStringLiteral("pages.ras"));
    QVERIFY(writeFile(raster, data));
    QString error;
    const QList<RasterPageImage> pages =
        decodeRasterPages(raster, dir.filePath(QStringLiteral("pages")), &error);
    QCOMPARE(error, QString());
    const QList<GrayPage> rendered = renderPages(black, resolution);
    QCOMPARE(pages.size(), 3);
    QCOMPARE(rendered.size(), 3);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(pages.at(i).xResolution, resolution);
        QCOMPARE(pages.at(i).yResolution, resolution);
        QCOMPARE(pages.at(i).width, rendered.at(i).width);
        QCOMPARE(pages.at(i).height, rendered.at(i).height);
        const GrayPage decoded = parsePgm(readFile(pages.at(i).file));
        QVERIFY(!decoded.isNull());
        QVERIFY(inkPixels(decoded, QRect(0, 0, decoded.width, decoded.height)) > 100);
        const qint64 differing = differingPixels(decoded, rendered.at(i), 0, 0);
        QVERIFY2(differing == 0,
                 qPrintable(QStringLiteral("page %1: %2 pixels differ").arg(i + 1).arg(differing)));
    }
}

void TestSheetCount::decodedPageReadsBack_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::newRow("PWG raster 1-bit black") << QStringList{"-sDEVICE=pwgraster"};
    QTest::newRow("urf 8-bit gray") << QStringList{"-sDEVICE=urf", "-dcupsColorSpace=18",
                                                   "-dcupsBitsPerColor=8"};
}

void TestSheetCount::decodedPageReadsBack()
{
    QFETCH(QStringList, options);
    if (QStandardPaths::findExecutable(QStringLiteral("tesseract")).isEmpty())
        QSKIP("tesseract is not installed");
    const QByteArray data = convert(document(7), options + QStringList{QStringLiteral("-r300")});
    QCOMPARE(countBytes(convertedFormatOf(data.left(16)), data), qint64(7));
    QTemporaryDir dir;
    const QString raster = dir.filePath(QStringLiteral("pages.ras"));
    QVERIFY(writeFile(raster, data));
    QString error;
    const QList<RasterPageImage> pages =
        decodeRasterPages(raster, dir.filePath(QStringLiteral("pages")), &error);
    QCOMPARE(error, QString());
    QCOMPARE(pages.size(), 7);
    // The third page is US Letter.
    QCOMPARE(pages.at(2).xResolution, 300);
    QCOMPARE(pages.at(2).width, pointsToPixels(PageSizes[2][0], 300));
    QCOMPARE(pages.at(2).height, pointsToPixels(PageSizes[2][1], 300));
    const QString text = ocrText(pages.at(2).file, &error);
    QCOMPARE(error, QString());
    QVERIFY2(text.contains(QStringLiteral("Page 3 of 7")) && text.contains(QStringLiteral("SECRET")),
             qPrintable(text));
    QVERIFY2(!text.contains(QStringLiteral("Page 4")), qPrintable(text));
}

void TestSheetCount::decodingRefusesDamage()
{
    const QByteArray good = convert(document(3), {"-sDEVICE=pwgraster", "-r30"});
    QTemporaryDir dir;
    const QString raster = dir.filePath(QStringLiteral("cut.ras"));
    QVERIFY(writeFile(raster, good.left(good.size() - 1)));
    QString error;
    const QList<RasterPageImage> pages =
        decodeRasterPages(raster, dir.filePath(QStringLiteral("cut")), &error);
    QCOMPARE(pages.size(), 2);
    QVERIFY2(error.contains(QStringLiteral("page 3")), qPrintable(error));
    QVERIFY(writeFile(raster, withField(good, 4 + 376, 0x7fffffff)));
    QVERIFY(decodeRasterPages(raster, dir.filePath(QStringLiteral("tall")), &error).isEmpty());
    QVERIFY2(error.contains(QStringLiteral("page 1")), qPrintable(error));
    QVERIFY(writeFile(raster, "%!PS\n"));
    QVERIFY(decodeRasterPages(raster, dir.filePath(QStringLiteral("other")), &error).isEmpty());
    QVERIFY(!error.isEmpty());
}

QTEST_GUILESS_MAIN(TestSheetCount)
#include "tst_sheetcount.moc"
