// The print queue on printers without PostScript: a private cupsd whose
// quillet queues print to CUPS's simulated driverless printer (PDF only, PWG
// raster only, Apple raster only, two-sided, JPEG only) and to a stand-in
// PCL printer. Jobs are printed with lp by an unprivileged user, and what
// each printer got is read back: PDF with Ghostscript and Poppler, rasters
// decoded page by page and read with OCR, PCL XL counted page by page.
#include "backend/sheetcount.h"
#include "common/auditrecord.h"
#include "printserver.h"
#include "sheetcheck.h"
#include "simulatedprinter.h"
#include "standinprinter.h"
#include "support/rastertools.h"
#include "support/testsupport.h"

#include <QDir>
#include <QtMath>
#include <QFile>
#include <QRegularExpression>
#include <QtTest>

#include <algorithm>
#include <memory>

namespace
{

const char QueueTemplate[] = "any:bold:14::label:top-center:{LABEL_NAME}\n"
                             "any:normal:11::user:top-left:User {job-originating-user-name}\n"
                             "any:normal:11::copy:top-right:Copy {CURRENT_COPY} of {copies}\n"
                             "any:normal:11::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n";
const char QueueVariables[] = "LABEL_NAME=Kestrel Restricted\n";
const char Label[] = "Kestrel Restricted";
const char GenericPpd[] = "drv:///sample.drv/generic.ppd";

constexpr int JobTimeoutMs = 240000;
constexpr int PrinterLifetimeMs = 600000;

const QString PdfFormat = QStringLiteral("application/pdf");
const QString PwgFormat = QStringLiteral("image/pwg-raster");
const QString UrfFormat = QStringLiteral("image/urf");

QByteArray pagedText(int pages)
{
    QByteArray text;
    for (int page = 1; page <= pages; ++page) {
        if (page > 1)
            text += '\f';
        text += "Document page " + QByteArray::number(page) + "\n";
        for (int line = 1; line <= 30; ++line)
            text += "Line " + QByteArray::number(line) + " of the body text of the document.\n";
    }
    return text;
}

// What a sheet must say, for copy `copy` of `copies` and page `page` of
// `pages`.
QStringList markTexts(int copy, int copies, int page, int pages)
{
    return {QLatin1String(Label), QStringLiteral("User nobody"),
            QStringLiteral("Copy %1 of %2").arg(copy).arg(copies),
            QStringLiteral("Page %1 of %2").arg(page).arg(pages)};
}

// Text with runs of spaces made one, as OCR and pdftotext both read it.
QString simplified(const QString& text)
{
    return text.simplified();
}

// Asks a printer for one attribute of its job `job` (Get-Job-Attributes
// with ipptool); the values, or *error set.
const char JobAttributeTest[] = "{\n"
                                "  NAME \"Job attribute\"\n"
                                "  OPERATION Get-Job-Attributes\n"
                                "  GROUP operation-attributes-tag\n"
                                "  ATTR charset attributes-charset utf-8\n"
                                "  ATTR naturalLanguage attributes-natural-language en\n"
                                "  ATTR uri printer-uri $uri\n"
                                "  ATTR integer job-id $job\n"
                                "  ATTR keyword requested-attributes $name\n"
                                "  STATUS successful-ok\n"
                                "}\n";

QStringList jobAttribute(const QString& printerUri, int job, const QString& name, const QString& folder,
                         QString* error)
{
    const QString test = folder + QStringLiteral("/job-attribute.test");
    writeFile(test, JobAttributeTest);
    const RunResult run =
        runProgram(QStringLiteral("ipptool"),
                   {QStringLiteral("-t"), QStringLiteral("-v"), QStringLiteral("-T"), QStringLiteral("10"),
                    QStringLiteral("-d"), QStringLiteral("job=%1").arg(job), QStringLiteral("-d"),
                    QStringLiteral("name=") + name, printerUri, test});
    // "        sides (keyword) = two-sided-long-edge"
    const QRegularExpression line(
        QStringLiteral("^\\s*%1 \\([^)]*\\) = (.*)$").arg(QRegularExpression::escape(name)),
        QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(QString::fromLocal8Bit(run.standardOutput));
    if (run.exitCode != 0 || !match.hasMatch()) {
        *error = QStringLiteral("ipptool did not read the job's %1 (status %2): %3")
                     .arg(name)
                     .arg(run.exitCode)
                     .arg(QString::fromLocal8Bit(run.standardOutput + run.standardError));
        return {};
    }
    return match.captured(1).trimmed().split(QLatin1Char(','));
}

} // namespace

class TestAnyPrinter : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void jobReachesTheDriverlessPrinterMarked_data();
    void jobReachesTheDriverlessPrinterMarked();
    void backPageQueuePrintsTwoSided();
    void backOfASheetTurnedAsThePrinterAsks_data();
    void backOfASheetTurnedAsThePrinterAsks();
    void unusablePrinterGetsNothing_data();
    void unusablePrinterGetsNothing();
    void pclQueueSendsPclXl();
    void jobThePrinterAbortsIsNotAuditedAsSent();

  private:
    // Makes queue `queue` printing to `uri` with the test's template and
    // the given extra .vars lines.
    void addQueue(const QString& queue, const QString& uri, const QByteArray& settings = {});
    // Prints and waits for the job to end; returns its id (0 on failure).
    int printAndWait(const QString& queue, const QString& document, int copies);
    QString auditLine(int id) const;
    // Problems of what a printer received as PDF: sheets, marks, texts.
    QStringList pdfProblems(const QString& file, int pages, int copies, int sides,
                            const QList<double>& margins) const;
    QStringList rasterProblems(const QString& file, int pages, int copies,
                               const QList<double>& margins) const;

    QTemporaryDir m_work;
    PrintServer m_server;
    QMap<QString, QString> m_documents;
};

void TestAnyPrinter::initTestCase()
{
    if (!PrintServer::available())
        QSKIP("cupsd, the CUPS client programs, pstops or the socket backend are not installed");
    if (!SimulatedPrinter::available())
        QSKIP("ippeveprinter, ipptool or avahi-daemon are not installed");
    for (const char* tool : {"gs", "ps2pdf", "pdftotext", "enscript", "tesseract", "runuser"}) {
        if (!haveProgram(QLatin1String(tool)))
            QSKIP(qPrintable(QStringLiteral("%1 is needed").arg(QLatin1String(tool))));
    }
    QVERIFY(m_work.isValid());
    // QUILLET_KEEP_PRINTED=1 keeps the work folder with what was read back.
    if (qEnvironmentVariableIntValue("QUILLET_KEEP_PRINTED") == 1) {
        m_work.setAutoRemove(false);
        qInfo("the decoded pages stay in %s", qPrintable(m_work.path()));
    }
    QString error;
    QVERIFY2(m_server.start(QStringLiteral(QUILLET_BACKEND), &error), qPrintable(error));
    m_server.writeSiteDefinitions(QByteArray());

    // A 3-page PostScript document (enscript), a 2-page PDF made of it by
    // Ghostscript, and a 2-page text file that CUPS's own filters set.
    const QString text3 = m_work.filePath(QStringLiteral("three.txt"));
    QVERIFY(writeFile(text3, pagedText(3)));
    const QString postscript = m_server.writeJobFile(QStringLiteral("three.ps"), QByteArray());
    QVERIFY2(runTool(m_work.path(), QStringLiteral("enscript"),
                     {QStringLiteral("-q"), QStringLiteral("-p"), postscript, text3}, &error),
             qPrintable(error));
    m_documents.insert(QStringLiteral("postscript"), postscript);
    const QString text2 = m_work.filePath(QStringLiteral("two.txt"));
    QVERIFY(writeFile(text2, pagedText(2)));
    const QString twoPostScript = m_work.filePath(QStringLiteral("two.ps"));
    QVERIFY2(runTool(m_work.path(), QStringLiteral("enscript"),
                     {QStringLiteral("-q"), QStringLiteral("-p"), twoPostScript, text2}, &error),
             qPrintable(error));
    const QString pdf = m_server.writeJobFile(QStringLiteral("two.pdf"), QByteArray());
    QVERIFY2(runTool(m_work.path(), QStringLiteral("ps2pdf"), {twoPostScript, pdf}, &error),
             qPrintable(error));
    m_documents.insert(QStringLiteral("pdf"), pdf);
    m_documents.insert(QStringLiteral("text"),
                       m_server.writeJobFile(QStringLiteral("two.txt"), pagedText(2)));
}

void TestAnyPrinter::addQueue(const QString& queue, const QString& uri, const QByteArray& settings)
{
    m_server.writeConfig(QStringLiteral("quillet/%1.tmpl").arg(queue), QueueTemplate);
    m_server.writeConfig(QStringLiteral("quillet/%1.vars").arg(queue), QueueVariables + settings);
    const RunResult added =
        m_server.admin(QStringLiteral("lpadmin"),
                       {QStringLiteral("-p"), queue, QStringLiteral("-E"), QStringLiteral("-v"),
                        QStringLiteral("quillet:") + uri, QStringLiteral("-m"), QLatin1String(GenericPpd),
                        QStringLiteral("-o"), QStringLiteral("Option1=True")});
    QVERIFY2(added.exitCode == 0, added.standardError.constData());
}

int TestAnyPrinter::printAndWait(const QString& queue, const QString& document, int copies)
{
    QString error;
    QStringList arguments{QStringLiteral("-d"), queue, QStringLiteral("-n"), QString::number(copies)};
    // CUPS sets a text job from the top edge of the generic printer's
    // paper, where the marks stand: the text gets margins of an inch, so
    // that the marks can be read back.
    if (document == QLatin1String("text"))
        arguments << QStringLiteral("-o") << QStringLiteral("page-top=72") << QStringLiteral("-o")
                  << QStringLiteral("page-bottom=72");
    const int id = m_server.print(arguments + QStringList{m_documents.value(document)}, &error);
    if (id <= 0) {
        qWarning("%s", qPrintable(error));
        return 0;
    }
    if (!m_server.waitForJobs({id}, JobTimeoutMs)) {
        qWarning("job %d did not end", id);
        return 0;
    }
    return id;
}

QString TestAnyPrinter::auditLine(int id) const
{
    for (const QString& line : m_server.jobLogLines(id)) {
        if (line.contains(QLatin1String("quillet audit:")))
            return line;
    }
    return QString();
}

// The margins of a printer's default paper (media-col-default), in points:
// left, bottom, right, top.
QList<double> defaultMargins(const SimulatedPrinter& printer, QString* error)
{
    const QString mediaCol = printer.printerAttributes(error).value(QStringLiteral("media-col-default"));
    QList<double> margins;
    for (const char* side : {"left", "bottom", "right", "top"}) {
        const QRegularExpression pattern(QStringLiteral("media-%1-margin=(\\d+)").arg(QLatin1String(side)));
        const QRegularExpressionMatch match = pattern.match(mediaCol);
        if (!match.hasMatch()) {
            *error =
                QStringLiteral("no %1 margin in media-col-default: %2").arg(QLatin1String(side), mediaCol);
            return {};
        }
        margins << match.captured(1).toInt() * 72.0 / 2540.0;
    }
    return margins;
}

// Words of the sheet that stand in the printer's margins.
QStringList wordsInMargins(const Sheet& sheet, const QList<double>& margins)
{
    const QRectF printable(margins.at(0), margins.at(3), sheet.width - margins.at(0) - margins.at(2),
                           sheet.height - margins.at(1) - margins.at(3));
    QStringList outside;
    for (const SheetWord& word : sheet.words) {
        if (!printable.adjusted(-0.5, -0.5, 0.5, 0.5).contains(word.box))
            outside << QStringLiteral("\"%1\" at %2,%3 to %4,%5 (printable %6,%7 to %8,%9)")
                           .arg(word.text)
                           .arg(word.box.left(), 0, 'f', 1)
                           .arg(word.box.top(), 0, 'f', 1)
                           .arg(word.box.right(), 0, 'f', 1)
                           .arg(word.box.bottom(), 0, 'f', 1)
                           .arg(printable.left(), 0, 'f', 1)
                           .arg(printable.top(), 0, 'f', 1)
                           .arg(printable.right(), 0, 'f', 1)
                           .arg(printable.bottom(), 0, 'f', 1);
    }
    return outside;
}

QStringList TestAnyPrinter::pdfProblems(const QString& file, int pages, int copies, int sides,
                                        const QList<double>& margins) const
{
    QStringList problems;
    if (!readFile(file).startsWith("%PDF-"))
        return {QStringLiteral("%1 is not a PDF").arg(file)};
    QString error;
    const QList<Sheet> sheets = readSheets(file, m_work.path(), &error);
    if (!error.isEmpty())
        problems << error;
    MarkExpectation marks;
    marks.labelWords = QString::fromLatin1(Label).split(QLatin1Char(' '));
    marks.labelSize = 14;
    marks.pageLineSize = 11;
    marks.pages = pages;
    marks.copies = copies;
    marks.sides = sides;
    problems << markedSheetProblems(sheets, marks);
    // Each physical sheet (its two sides on a back-page queue) names its
    // copy and its page.
    for (int index = 0; index + sides <= sheets.size() && index < pages * copies * sides; index += sides) {
        const int page = index / sides % pages + 1;
        const int copy = index / sides / pages + 1;
        QString text;
        for (int side = 0; side < sides; ++side)
            text += QLatin1Char(' ') + sheets.at(index + side).text();
        text = simplified(text);
        for (const QString& expected : markTexts(copy, copies, page, pages)) {
            if (!text.contains(expected))
                problems << QStringLiteral("sheet %1 lacks \"%2\": %3")
                                .arg(index + 1)
                                .arg(expected, text.left(300));
        }
    }
    // Marks and document stay where the printer prints.
    for (int index = 0; index < sheets.size(); ++index) {
        const QStringList outside = wordsInMargins(sheets.at(index), margins);
        if (!outside.isEmpty())
            problems << QStringLiteral("sheet %1 has words in the printer's margins: %2")
                            .arg(index + 1)
                            .arg(outside.join(QStringLiteral("; ")));
    }
    return problems;
}

// The rows of a decoded page's image (P5: "P5", then width, height and the
// largest value, each after blanks and comment lines, then one blank and
// the rows); empty when the image cannot be read.
QByteArray pagePixels(const RasterPageImage& page)
{
    const QByteArray image = readFile(page.file);
    int offset = 2;
    for (int field = 0; field < 3; ++field) {
        while (offset < image.size() &&
               (QChar::fromLatin1(image.at(offset)).isSpace() || image.at(offset) == '#')) {
            if (image.at(offset) == '#')
                offset = image.indexOf('\n', offset);
            if (offset < 0)
                return QByteArray();
            ++offset;
        }
        while (offset < image.size() && QChar::fromLatin1(image.at(offset)).isDigit())
            ++offset;
    }
    ++offset;
    if (image.size() - offset != page.width * page.height)
        return QByteArray();
    return image.mid(offset);
}

// Dark pixels of a decoded page within the printer's margins (points:
// left, bottom, right, top); -1 when the image cannot be read.
int darkPixelsInMargins(const RasterPageImage& page, const QList<double>& margins)
{
    const QByteArray pixels = pagePixels(page);
    if (pixels.isEmpty() || page.xResolution <= 0 || page.yResolution <= 0)
        return -1;
    const int left = qCeil(margins.at(0) * page.xResolution / 72.0);
    const int right = page.width - qCeil(margins.at(2) * page.xResolution / 72.0);
    const int top = qCeil(margins.at(3) * page.yResolution / 72.0);
    const int bottom = page.height - qCeil(margins.at(1) * page.yResolution / 72.0);
    int dark = 0;
    for (int y = 0; y < page.height; ++y) {
        for (int x = 0; x < page.width; ++x) {
            const bool inMargin = x < left || x >= right || y < top || y >= bottom;
            if (inMargin && quint8(pixels.at(y * page.width + x)) < 128)
                ++dark;
        }
    }
    return dark;
}

// The text of the marks of a decoded page: OCR of the top and the bottom
// inch of the page, each strip on its own, so that the document's columns
// of text do not draw the marks into their reading order. OCR reads best at
// about 300 dpi: finer pages are read at half their resolution (each pixel
// the mean of four).
QString markText(const RasterPageImage& page, QString* error)
{
    const QByteArray pixels = pagePixels(page);
    if (pixels.isEmpty() || page.xResolution <= 0 || page.xResolution != page.yResolution) {
        *error = QStringLiteral("cannot read %1").arg(page.file);
        return QString();
    }
    const int step = page.xResolution >= 600 ? 2 : 1;
    const int width = page.width / step;
    const int stripRows = page.yResolution / step; // one inch
    QString text;
    for (const bool top : {true, false}) {
        const int firstRow = top ? 0 : page.height / step - stripRows;
        QByteArray strip = QStringLiteral("P5\n# resolution %1x%1 dpi\n%2 %3\n255\n")
                               .arg(page.xResolution / step)
                               .arg(width)
                               .arg(stripRows)
                               .toLatin1();
        for (int y = firstRow; y < firstRow + stripRows; ++y) {
            for (int x = 0; x < width; ++x) {
                int sum = 0;
                for (int dy = 0; dy < step; ++dy) {
                    for (int dx = 0; dx < step; ++dx)
                        sum += quint8(pixels.at((y * step + dy) * page.width + x * step + dx));
                }
                strip.append(char(sum / (step * step)));
            }
        }
        const QString file = page.file + (top ? QStringLiteral(".top.pgm") : QStringLiteral(".bottom.pgm"));
        if (!writeFile(file, strip)) {
            *error = QStringLiteral("cannot write %1").arg(file);
            return QString();
        }
        text += QLatin1Char(' ') + ocrText(file, error);
    }
    return text;
}

// Writes a decoded page turned by 180 degrees.
bool writeTurnedPage(const RasterPageImage& page, const QString& file)
{
    QByteArray pixels = pagePixels(page);
    if (pixels.isEmpty())
        return false;
    std::reverse(pixels.begin(), pixels.end());
    return writeFile(file, QStringLiteral("P5\n# resolution %1x%2 dpi\n%3 %4\n255\n")
                                   .arg(page.xResolution)
                                   .arg(page.yResolution)
                                   .arg(page.width)
                                   .arg(page.height)
                                   .toLatin1() +
                               pixels);
}

// Whether OCR read the text: words may run together, and "of" may be read
// with a zero.
bool ocrFinds(const QString& read, const QString& expected)
{
    QString pattern;
    for (const QString& word : expected.split(QLatin1Char(' '))) {
        if (!pattern.isEmpty())
            pattern += QStringLiteral("\\s*");
        pattern += word == QLatin1String("of") ? QStringLiteral("[o0]f") : QRegularExpression::escape(word);
    }
    return QRegularExpression(pattern).match(read).hasMatch();
}

QStringList TestAnyPrinter::rasterProblems(const QString& file, int pages, int copies,
                                           const QList<double>& margins) const
{
    QStringList problems;
    QString error;
    const QString folder = m_work.filePath(QFileInfo(file).fileName() + QStringLiteral(".pages"));
    QDir().mkpath(folder);
    const QList<RasterPageImage> decoded = decodeRasterPages(file, folder, &error);
    if (!error.isEmpty())
        return {error};
    if (decoded.size() != pages * copies)
        problems
            << QStringLiteral("%1 pages arrived, the job prints %2").arg(decoded.size()).arg(pages * copies);
    for (int index = 0; index < decoded.size(); ++index) {
        const int dark = darkPixelsInMargins(decoded.at(index), margins);
        if (dark != 0)
            problems << QStringLiteral("page %1 has %2 dark pixels in the printer's margins")
                            .arg(index + 1)
                            .arg(dark);
        const QString text = simplified(markText(decoded.at(index), &error));
        if (!error.isEmpty())
            problems << error;
        for (const QString& expected : markTexts(index / pages + 1, copies, index % pages + 1, pages)) {
            if (!ocrFinds(text, expected))
                problems << QStringLiteral("page %1 lacks \"%2\": %3")
                                .arg(index + 1)
                                .arg(expected, text.left(300));
        }
    }
    return problems;
}

void TestAnyPrinter::jobReachesTheDriverlessPrinterMarked_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("document");
    QTest::addColumn<int>("pages");
    QTest::addColumn<int>("copies");

    QTest::newRow("PDF printer, PostScript job, 2 copies") << PdfFormat << "postscript" << 3 << 2;
    QTest::newRow("PDF printer, PDF job") << PdfFormat << "pdf" << 2 << 1;
    QTest::newRow("PDF printer, text job") << PdfFormat << "text" << 2 << 1;
    QTest::newRow("PWG raster printer, PostScript job, 2 copies") << PwgFormat << "postscript" << 3 << 2;
    QTest::newRow("PWG raster printer, PDF job") << PwgFormat << "pdf" << 2 << 1;
    QTest::newRow("PWG raster printer, text job") << PwgFormat << "text" << 2 << 1;
    QTest::newRow("Apple raster printer, PostScript job, 2 copies") << UrfFormat << "postscript" << 3 << 2;
    QTest::newRow("Apple raster printer, PDF job") << UrfFormat << "pdf" << 2 << 1;
    QTest::newRow("Apple raster printer, text job") << UrfFormat << "text" << 2 << 1;
}

void TestAnyPrinter::jobReachesTheDriverlessPrinterMarked()
{
    QFETCH(QString, format);
    QFETCH(QString, document);
    QFETCH(int, pages);
    QFETCH(int, copies);

    // One printer and one queue per case: the simulated printer stays busy
    // after a document it could not take.
    SimulatedPrinter printer;
    QString error;
    QVERIFY2(printer.start({format}, false, &error), qPrintable(error));
    const QString queue =
        QStringLiteral("any-%1").arg(QTest::currentDataTag()).replace(QRegularExpression("\\W+"), "-");
    addQueue(queue, printer.uri());
    const int id = printAndWait(queue, document, copies);
    QVERIFY(id > 0);
    QCOMPARE(m_server.jobState(id), JobCompleted);
    QVERIFY2(auditLine(id).contains(QLatin1String("outcome=marked-and-sent")), qPrintable(auditLine(id)));
    QVERIFY2(printer.waitForDocuments(1, 30000), qPrintable(printer.log()));
    const QStringList received = printer.receivedDocuments();
    QCOMPARE(received.size(), 1);
    const QList<double> margins = defaultMargins(printer, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QVERIFY(std::any_of(margins.begin(), margins.end(), [](double margin) { return margin > 0; }));
    const QStringList problems = format == PdfFormat
                                     ? pdfProblems(received.first(), pages, copies, 1, margins)
                                     : rasterProblems(received.first(), pages, copies, margins);
    QVERIFY2(problems.isEmpty(),
             qPrintable(m_server.jobLogLines(id).filter("goes to the printer").join("\n") +
                        problems.join(QLatin1Char(10))));
    if (format != PdfFormat) {
        QFile raster(received.first());
        QVERIFY(raster.open(QIODevice::ReadOnly));
        QCOMPARE(format == PwgFormat ? countPwgRasterPages(raster) : countAppleRasterPages(raster),
                 qint64(pages * copies));
    }
}

// A back-page queue on a two-sided printer: the printer is asked for
// two-sided printing, and every sheet carries the marks on its front.
void TestAnyPrinter::backPageQueuePrintsTwoSided()
{
    SimulatedPrinter printer;
    QString error;
    QVERIFY2(printer.start({PdfFormat}, true, &error), qPrintable(error));
    addQueue(QStringLiteral("back-pages"), printer.uri(), "MarkerDuplexBackPages=1\n");
    const int id = printAndWait(QStringLiteral("back-pages"), QStringLiteral("postscript"), 1);
    QVERIFY(id > 0);
    QCOMPARE(m_server.jobState(id), JobCompleted);
    QVERIFY2(printer.waitForDocuments(1, 30000), qPrintable(printer.log()));
    const QList<double> margins = defaultMargins(printer, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    const QStringList problems = pdfProblems(printer.receivedDocuments().first(), 3, 1, 2, margins);
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join(QLatin1Char('\n'))));
    const QStringList sides = jobAttribute(printer.uri(), 1, QStringLiteral("sides"), m_work.path(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QCOMPARE(sides, QStringList{QStringLiteral("two-sided-long-edge")});
}

// A raster printer that wants the back of a two-sided sheet turned gets it
// turned: on a back-page queue the marks stand on the backs, and they read
// only once the test turns those pages back.
void TestAnyPrinter::backOfASheetTurnedAsThePrinterAsks_data()
{
    QTest::addColumn<QString>("sheetBack");
    QTest::addColumn<bool>("turned");
    QTest::newRow("normal") << "normal" << false;
    QTest::newRow("rotated") << "rotated" << true;
}

void TestAnyPrinter::backOfASheetTurnedAsThePrinterAsks()
{
    QFETCH(QString, sheetBack);
    QFETCH(bool, turned);

    SimulatedPrinter printer;
    QString error;
    QVERIFY2(printer.start({PwgFormat}, true, &error,
                           "ATTR keyword pwg-raster-document-sheet-back " + sheetBack.toLatin1() + "\n"),
             qPrintable(error));
    const QString queue = QStringLiteral("back-") + sheetBack;
    addQueue(queue, printer.uri(), "MarkerDuplexBackPages=1\n");
    const int id = printAndWait(queue, QStringLiteral("pdf"), 1);
    QVERIFY(id > 0);
    QVERIFY2(m_server.jobState(id) == JobCompleted, qPrintable(auditLine(id)));
    QVERIFY2(printer.waitForDocuments(1, 30000), qPrintable(printer.log()));
    const QString folder = m_work.filePath(queue);
    QVERIFY(QDir().mkpath(folder));
    const QList<RasterPageImage> pages =
        decodeRasterPages(printer.receivedDocuments().first(), folder, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QCOMPARE(pages.size(), 4); // 2 pages, each with its back page
    for (int index = 1; index < pages.size(); index += 2) {
        RasterPageImage back = pages.at(index);
        QString asPrinted = simplified(markText(back, &error));
        QVERIFY2(error.isEmpty(), qPrintable(error));
        if (turned) {
            back.file = folder + QStringLiteral("/turned-%1.pgm").arg(index);
            QVERIFY(writeTurnedPage(pages.at(index), back.file));
        }
        const QString text = turned ? simplified(markText(back, &error)) : asPrinted;
        for (const QString& expected : markTexts(1, 1, index / 2 + 1, 2))
            QVERIFY2(
                ocrFinds(text, expected),
                qPrintable(QStringLiteral("back %1 lacks \"%2\": %3").arg(index + 1).arg(expected, text)));
        // Turned pages do not read as they were printed.
        if (turned)
            QVERIFY2(!ocrFinds(asPrinted, QLatin1String(Label)), qPrintable(asPrinted));
    }
}

// A printer that takes none of quillet's formats, or does not answer, gets
// nothing: the job is refused and audited so, and the next job, on another
// queue, prints.
void TestAnyPrinter::unusablePrinterGetsNothing_data()
{
    QTest::addColumn<bool>("answers");
    QTest::addColumn<QString>("reason");
    QTest::newRow("printer that accepts only JPEG")
        << true
        << "the printer accepts none of the formats quillet sends (PostScript, PDF, PWG raster, Apple "
           "raster); it lists: application/octet-stream, image/jpeg";
    QTest::newRow("printer that does not answer") << false << "the printer does not answer";
}

void TestAnyPrinter::unusablePrinterGetsNothing()
{
    QFETCH(bool, answers);
    QFETCH(QString, reason);

    SimulatedPrinter unusable;
    SimulatedPrinter pdfPrinter;
    QString error;
    QVERIFY2(unusable.start({QStringLiteral("image/jpeg")}, false, &error), qPrintable(error));
    QVERIFY2(pdfPrinter.start({PdfFormat}, false, &error), qPrintable(error));
    const QString uri = unusable.uri();
    if (!answers)
        unusable.stop(); // nothing listens on its port any more
    const QString queue = answers ? QStringLiteral("jpeg-only") : QStringLiteral("silent");
    addQueue(queue, uri);
    addQueue(queue + QStringLiteral("-next"), pdfPrinter.uri());

    const int refused = printAndWait(queue, QStringLiteral("postscript"), 1);
    QVERIFY(refused > 0);
    QCOMPARE(m_server.jobState(refused), JobCanceled);
    const QString audit = auditLine(refused);
    QVERIFY2(audit.contains(QLatin1String("outcome=refused")) && audit.contains(reason), qPrintable(audit));
    if (answers)
        QVERIFY(unusable.receivedDocuments().isEmpty());

    const int next = printAndWait(queue + QStringLiteral("-next"), QStringLiteral("pdf"), 1);
    QVERIFY(next > 0);
    QCOMPARE(m_server.jobState(next), JobCompleted);
    QVERIFY2(pdfPrinter.waitForDocuments(1, 30000), qPrintable(pdfPrinter.log()));
}

// A PCL printer on a socket: the data is PCL XL with every page of every
// copy.
void TestAnyPrinter::pclQueueSendsPclXl()
{
    StandInPrinter printer(m_work.filePath(QStringLiteral("pcl-printer")), PrinterLifetimeMs);
    QString error;
    QVERIFY2(printer.start(&error), qPrintable(error));
    addQueue(QStringLiteral("pcl"), printer.socketUri(), "MarkerOutputFormat=pcl\n");
    const int id = printAndWait(QStringLiteral("pcl"), QStringLiteral("postscript"), 2);
    QVERIFY(id > 0);
    QVERIFY2(m_server.jobState(id) == JobCompleted, qPrintable(auditLine(id)));
    const QStringList jobs = printer.jobs();
    QCOMPARE(jobs.size(), 1);
    QFile data(jobs.first());
    QVERIFY(data.open(QIODevice::ReadOnly));
    QVERIFY2(convertedFormatOf(data.peek(1024)) == ConvertedFormat::PclXl, data.peek(256).constData());
    QCOMPARE(countPclXlPages(data), qint64(6));
}

// A printer that takes the whole job and then aborts it printed nothing: the
// job is not audited as sent, whatever the backend handed over.
void TestAnyPrinter::jobThePrinterAbortsIsNotAuditedAsSent()
{
    SimulatedPrinter printer;
    printer.failEveryPrint();
    QString error;
    QVERIFY2(printer.start({PdfFormat}, false, &error), qPrintable(error));
    addQueue(QStringLiteral("aborting"), printer.uri());
    const int id = printAndWait(QStringLiteral("aborting"), QStringLiteral("pdf"), 1);
    QVERIFY(id > 0);
    // The document reached the printer whole.
    QVERIFY2(printer.waitForDocuments(1, 30000), qPrintable(printer.log()));
    const QString audit = auditLine(id);
    QVERIFY2(m_server.jobState(id) != JobCompleted, qPrintable(audit));
    QVERIFY2(audit.contains(QLatin1String("outcome=device-failed")) &&
                 audit.contains(QLatin1String("sent=0")),
             qPrintable(audit));
    AuditRecord record;
    for (const QByteArray& line : readFile(m_server.auditLogFile()).split('\n')) {
        AuditRecord read;
        if (readAuditJsonLine(line, &read) && read.job == id)
            record = read;
    }
    QCOMPARE(record.outcome, QLatin1String(AuditDeviceFailed));
    QCOMPARE(record.sheetsSent, qint64(0));
}

QTEST_GUILESS_MAIN(TestAnyPrinter)
#include "tst_anyprinter.moc"
