// End-to-end runs of the filter on documents made by real tools while the
// test runs: a manual page and a report typeset with groff, the report
// turned into PDF and back into PostScript with pdftops and with pdftocairo,
// and the manual page rewritten by Ghostscript's ps2write device. Every
// document goes through the filter in simplex and in duplex mode; the output
// is then rendered, converted to PDF and read back as text, and lined up
// with the input line by line.
#include "support/postscripttools.h"
#include "support/realdocuments.h"
#include "support/testsupport.h"

#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QSharedPointer>
#include <QTemporaryDir>
#include <QTest>

namespace
{

// Rendering resolution of every raster comparison, in dots per inch.
const int Resolution = 60;

// Marker placement written to the configuration directory, in points. The
// data directory keeps the shipped definitions, which differ, so the marks'
// positions show which file was read.
const double TopShift = 20;
const double BottomShift = 6;
const double SideShift = 40;
const QByteArray MarkerDefinitions = "# Marker placement for the job's printer, in points.\n"
                                     "MarkerTopShift=" +
                                     QByteArray::number(TopShift) +
                                     "\n"
                                     "MarkerBottomShift=" +
                                     QByteArray::number(BottomShift) +
                                     "\n"
                                     "MarkerLeftShift=" +
                                     QByteArray::number(SideShift) +
                                     "\n"
                                     "MarkerRightShift=" +
                                     QByteArray::number(SideShift) +
                                     "\n"
                                     "MarkerStringInterval=3\n";

// Height of the margin bands that hold the marks, in points. The manual
// pages' footer stands about 22 points above the paper's bottom edge, so
// the bottom marks are kept low and their band narrow.
const double TopBandPoints = 36;
const double BottomBandPoints = 18;

// Three marks: a fixed label, the page number out of the page count, and a
// Cyrillic label followed by the job owner's name.
const QString UserName = QStringLiteral("ivanov");
const QString Label = QStringLiteral("SECRET");
const QString CyrillicLabel = QStringLiteral("Секретно");
const QByteArray MarkerTemplate =
    QStringLiteral("any:bold:12::top-center:SECRET\n"
                   "any:normal:10::bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n"
                   "any:normal:10::bottom-left:Секретно {job-originating-user-name}\n")
        .toUtf8();

QString pageMark(int page, int pages)
{
    return QStringLiteral("Page %1 of %2").arg(page).arg(pages);
}

QString ownerMark()
{
    return CyrillicLabel + QLatin1Char(' ') + UserName;
}

// A document as it goes into the filter, with what the tools make of it.
struct Document {
    QString label;
    QString file;
    int pages = 0;
    QList<GrayPage> raster;
    QStringList texts;
};

// One run of the filter and what the tools make of its output.
struct MarkedJob {
    QSharedPointer<FixtureTree> tree;
    RunResult run;
    QString output;
    QByteArray variables;
    QList<GrayPage> raster;
    QString renderError;
    int pdfPages = -1;
    QString pdfError;
    QStringList texts;
};

QStringList words(const QString& text)
{
    return text.split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts);
}

QList<QByteArray> utf8List(const QStringList& list)
{
    QList<QByteArray> result;
    for (const QString& item : list)
        result.append(item.toUtf8());
    return result;
}

QString lineText(const QByteArray& line)
{
    return QString::fromLatin1(line.left(200)).trimmed();
}

// Index of the first line starting with prefix, from `from` on; -1 if none.
int findLine(const QList<QByteArray>& lines, const char* prefix, int from = 0)
{
    for (int i = qMax(0, from); i < lines.size(); ++i)
        if (lines.at(i).startsWith(prefix))
            return i;
    return -1;
}

// The first "%%PageBoundingBox:" line of every page of a document (null
// for a page without one).
QList<QByteArray> pageBoundingBoxes(const QList<QByteArray>& lines)
{
    QList<QByteArray> boxes;
    for (int start = findLine(lines, "%%Page:"); start >= 0;) {
        const int next = findLine(lines, "%%Page:", start + 1);
        QByteArray box;
        for (int i = start + 1; i < (next < 0 ? lines.size() : next) && box.isNull(); ++i)
            if (lines.at(i).startsWith("%%PageBoundingBox:"))
                box = lines.at(i);
        boxes.append(box);
        start = next;
    }
    return boxes;
}

// Takes out of the filter's output what the filter adds to a document and
// checks that the rest is the input again. The additions are recognised by
// their own first and last lines: the showpage redefinition after the
// prolog line (simplex), the marker fonts before the first page, and per
// page either the marker block ("% Common variables:" up to "showpagereal",
// simplex) or the inserted back page ("%%Page: 2k 2k" up to "showpage" and
// "%%PageTrailer", duplex). Returns a description of the first thing out of
// place, or an empty string.
QString checkInsertions(const QList<QByteArray>& input, const QList<QByteArray>& output, bool duplex,
                        int pages)
{
    const int prologLine = qMax(0, findLine(input, "%%BeginProlog"));
    const int firstPage = findLine(input, "%%Page:");
    if (firstPage < 0)
        return QStringLiteral("the input has no page");
    const QList<QByteArray> boxes = pageBoundingBoxes(input);

    QList<QByteArray> rest;
    int j = 0;
    auto copy = [&](int count) {
        for (int i = 0; i < count && j < output.size(); ++i)
            rest.append(output.at(j++));
    };

    // The head, with the showpage redefinition right after the prolog line.
    copy(prologLine + 1);
    if (!duplex) {
        if (output.value(j) != "/showpagereal /showpage load def\n" ||
            output.value(j + 1) != "/showpage {} def\n")
            return QStringLiteral("no showpage redefinition after output line %1").arg(j);
        j += 2;
    }
    copy(firstPage - prologLine - 1);

    // The marker fonts, up to the first page.
    const int fontsEnd = findLine(output, "%%Page:", j);
    if (fontsEnd <= j)
        return QStringLiteral("no marker fonts before the first page (output line %1)").arg(j + 1);
    const QList<QByteArray> fonts = output.mid(j, fontsEnd - j);
    for (const char* resource :
         {"%%BeginResource: font NimbusSans-Regular\n", "%%BeginResource: font NimbusSans-Bold\n"})
        if (!fonts.contains(resource))
            return QStringLiteral("the marker fonts lack the line %1").arg(lineText(resource));
    j = fontsEnd;

    // The pages, with their marker blocks or back pages.
    int documentPages = 0;
    int markerBlocks = 0;
    while (j < output.size()) {
        const QByteArray& line = output.at(j);
        if (!duplex && line == "% Common variables:\n") {
            int end = j;
            while (end < output.size() && output.at(end) != "showpagereal\n")
                ++end;
            if (end == output.size())
                return QStringLiteral("marker block at output line %1 has no showpagereal").arg(j + 1);
            ++markerBlocks;
            if (markerBlocks != documentPages)
                return QStringLiteral("marker block %1 (output line %2) stands in document page %3")
                    .arg(markerBlocks)
                    .arg(j + 1)
                    .arg(documentPages);
            j = end + 1;
            continue;
        }
        if (line.startsWith("%%Page:")) {
            const bool hasBox = output.value(j + 1).startsWith("%%PageBoundingBox:");
            const int setup = j + 1 + (hasBox ? 1 : 0);
            const bool backPage = duplex && output.value(setup) == "%%BeginPageSetup\n" &&
                                  output.value(setup + 1) == "%%EndPageSetup\n" &&
                                  output.value(setup + 2) == "% Common variables:\n";
            if (backPage) {
                ++markerBlocks;
                const QByteArray label = QByteArray("%%Page: ") + QByteArray::number(2 * markerBlocks) + ' ' +
                                         QByteArray::number(2 * markerBlocks) + '\n';
                if (line != label)
                    return QStringLiteral("back page %1 is labelled %2")
                        .arg(markerBlocks)
                        .arg(lineText(line));
                if (markerBlocks != documentPages)
                    return QStringLiteral("back page %1 (output line %2) follows document page %3")
                        .arg(markerBlocks)
                        .arg(j + 1)
                        .arg(documentPages);
                const QByteArray box = hasBox ? output.at(j + 1) : QByteArray();
                if (box != boxes.value(markerBlocks - 1))
                    return QStringLiteral("back page %1 has the bounding box line '%2' instead of '%3'")
                        .arg(markerBlocks)
                        .arg(lineText(box), lineText(boxes.value(markerBlocks - 1)));
                int end = setup + 3;
                while (end + 1 < output.size() &&
                       !(output.at(end) == "showpage\n" && output.at(end + 1) == "%%PageTrailer\n"))
                    ++end;
                if (end + 1 >= output.size())
                    return QStringLiteral(
                               "back page at output line %1 does not end in showpage and %%PageTrailer")
                        .arg(j + 1);
                j = end + 2;
                continue;
            }
            ++documentPages;
        }
        rest.append(line);
        ++j;
    }
    if (markerBlocks != pages)
        return QStringLiteral("%1 marker blocks for %2 pages").arg(markerBlocks).arg(pages);

    // What is left is the input, byte for byte; in duplex mode the document
    // pages' labels may be renumbered and the trailer's page count doubled.
    if (rest.size() != input.size())
        return QStringLiteral("%1 lines remain where the input has %2; %3")
            .arg(rest.size())
            .arg(input.size())
            .arg(firstDifference(rest.join(), input.join()));
    int label = 0;
    for (int i = 0; i < input.size(); ++i) {
        const QByteArray& expected = input.at(i);
        const QByteArray& actual = rest.at(i);
        if (duplex && expected.startsWith("%%Page:") && actual.startsWith("%%Page:")) {
            const QByteArray number = QByteArray::number(2 * ++label - 1);
            if (actual == expected || actual == "%%Page: " + number + ' ' + number + '\n')
                continue;
        }
        if (duplex && i > firstPage && expected.startsWith("%%Pages:") &&
            actual == "%%Pages: " + QByteArray::number(2 * pages) + '\n')
            continue;
        if (actual != expected)
            return QStringLiteral("input line %1 became '%2' instead of '%3'")
                .arg(i + 1)
                .arg(lineText(actual), lineText(expected));
    }
    return QString();
}

} // namespace

class TestRealDocuments : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();

    void filterSucceeds_data();
    void filterSucceeds();
    void outputRendersWithoutError_data();
    void outputRendersWithoutError();
    void pageCountKeptOrDoubled_data();
    void pageCountKeptOrDoubled();
    void markerTextOnEveryPage_data();
    void markerTextOnEveryPage();
    void documentTextKept_data();
    void documentTextKept();
    void documentPixelsUntouched_data();
    void documentPixelsUntouched();
    void inputLinesSurvive_data();
    void inputLinesSurvive();

    void printSafePatternPrints_data();
    void printSafePatternPrints();
    void printSafePatternPrintsInDuplex_data();
    void printSafePatternPrintsInDuplex();

  private:
    void addRows();
    bool addDocument(const QString& key, const QString& label, const QString& file);
    const MarkedJob& job(const QString& document, bool duplex);

    QTemporaryDir m_work;
    QStringList m_order;
    QMap<QString, Document> m_documents;
    QMap<QString, QSharedPointer<MarkedJob>> m_jobs;
    QString m_toolError;
    QList<RealDocument> m_patterns;
};

bool TestRealDocuments::addDocument(const QString& key, const QString& label, const QString& file)
{
    Document document;
    document.label = label;
    document.file = file;
    const QString errors = ghostscriptErrors(file);
    if (!errors.isEmpty()) {
        m_toolError = QStringLiteral("the input %1 itself does not render: %2").arg(file, errors);
        return false;
    }
    QString renderError;
    document.raster = renderPages(file, Resolution, &renderError);
    const QString pdf = file + QStringLiteral(".pdf");
    QString pdfError;
    if (!renderError.isEmpty() || !convertToPdf(file, pdf, &pdfError)) {
        m_toolError = QStringLiteral("the input %1 could not be rendered or converted: %2%3")
                          .arg(file, renderError, pdfError);
        return false;
    }
    document.pages = pdfPageCount(pdf);
    document.texts = pdfPageTexts(pdf);
    if (document.pages < 2 || document.raster.size() != document.pages ||
        document.texts.size() != document.pages) {
        m_toolError = QStringLiteral("the input %1 has %2 pages, %3 rendered and %4 read as text; "
                                     "a document of at least two pages is needed")
                          .arg(file)
                          .arg(document.pages)
                          .arg(document.raster.size())
                          .arg(document.texts.size());
        return false;
    }
    m_order.append(key);
    m_documents.insert(key, document);
    return true;
}

void TestRealDocuments::initTestCase()
{
    for (const char* program :
         {"groff", "gs", "ps2pdf", "pdfinfo", "pdftotext", "pdftops", "pdftocairo", "gzip"})
        QVERIFY2(haveProgram(QLatin1String(program)),
                 qPrintable(QStringLiteral("%1 is not installed").arg(program)));
    QVERIFY(m_work.isValid());
    const QList<RealDocument> documents = makeRealDocuments(m_work.path(), &m_toolError);
    QVERIFY2(!documents.isEmpty(), qPrintable(m_toolError));
    for (const RealDocument& document : documents)
        QVERIFY2(addDocument(document.key, document.label, document.file), qPrintable(m_toolError));
    QVERIFY(haveProgram(QStringLiteral("enscript")));
    m_patterns = makePrintSafePatterns(m_work.path(), &m_toolError);
    QVERIFY2(!m_patterns.isEmpty(), qPrintable(m_toolError));
}

const MarkedJob& TestRealDocuments::job(const QString& document, bool duplex)
{
    const QString key = document + (duplex ? QStringLiteral("/duplex") : QStringLiteral("/simplex"));
    QSharedPointer<MarkedJob>& slot = m_jobs[key];
    if (slot)
        return *slot;
    slot.reset(new MarkedJob);
    MarkedJob& marked = *slot;
    marked.tree.reset(new FixtureTree);
    const FixtureTree& tree = *marked.tree;
    tree.copy(catalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("etc-cups/marker.defs"), MarkerDefinitions);
    tree.copy(m_documents.value(document).file, QStringLiteral("job/input.ps"));
    tree.write(QStringLiteral("job/marker.tmpl"), MarkerTemplate);
    tree.write(QStringLiteral("job/job.vars"),
               "job-originating-user-name=" + UserName.toUtf8() + "\ncopies=1\n");
    QStringList arguments = {QStringLiteral("input.ps"), QStringLiteral("marker.tmpl"),
                             QStringLiteral("job.vars"), QStringLiteral("output.ps")};
    if (duplex)
        arguments << QStringLiteral("--duplex");
    marked.run = tree.runQuillet(arguments);
    marked.output = tree.path(QStringLiteral("job/output.ps"));
    marked.variables = tree.read(QStringLiteral("job/job.vars"));
    if (marked.run.exitCode != 0 || readFile(marked.output).isEmpty())
        return marked;
    marked.raster = renderPages(marked.output, Resolution, &marked.renderError);
    const QString pdf = tree.path(QStringLiteral("job/output.pdf"));
    if (convertToPdf(marked.output, pdf, &marked.pdfError)) {
        marked.pdfPages = pdfPageCount(pdf);
        marked.texts = pdfPageTexts(pdf);
    }
    return marked;
}

void TestRealDocuments::addRows()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<bool>("duplex");
    for (const QString& key : qAsConst(m_order)) {
        const QString label = m_documents.value(key).label;
        QTest::newRow(qPrintable(label + QStringLiteral(", simplex"))) << key << false;
        QTest::newRow(qPrintable(label + QStringLiteral(", duplex"))) << key << true;
    }
}

void TestRealDocuments::filterSucceeds_data()
{
    addRows();
}

// The filter runs to its end and reports the document's page count.
void TestRealDocuments::filterSucceeds()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    const MarkedJob& marked = job(document, duplex);
    QVERIFY2(!marked.run.crashed && marked.run.exitCode == 0,
             qPrintable(QStringLiteral("exit status %1: %2")
                            .arg(marked.run.exitCode)
                            .arg(QString::fromLocal8Bit(marked.run.standardError))));
    QVERIFY(!readFile(marked.output).isEmpty());
    const int pages = m_documents.value(document).pages;
    QVERIFY2(marked.variables.contains("\nNUM_PAGES=" + QByteArray::number(pages) + '\n'),
             marked.variables.constData());
}

void TestRealDocuments::outputRendersWithoutError_data()
{
    addRows();
}

// Ghostscript interprets the whole output without an error.
void TestRealDocuments::outputRendersWithoutError()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    const MarkedJob& marked = job(document, duplex);
    QVERIFY2(marked.run.exitCode == 0, "the filter failed");
    const QString errors = ghostscriptErrors(marked.output);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    QVERIFY2(marked.renderError.isEmpty(), qPrintable(marked.renderError));
}

void TestRealDocuments::pageCountKeptOrDoubled_data()
{
    addRows();
}

// Simplex keeps the page count; duplex adds one back page per page. The
// rendered pages, the PDF's pages and the output's page comments agree.
void TestRealDocuments::pageCountKeptOrDoubled()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    const MarkedJob& marked = job(document, duplex);
    QVERIFY2(marked.run.exitCode == 0, "the filter failed");
    const int pages = m_documents.value(document).pages;
    const int expected = duplex ? 2 * pages : pages;
    QCOMPARE(marked.raster.size(), expected);
    QVERIFY2(marked.pdfError.isEmpty(), qPrintable(marked.pdfError));
    QCOMPARE(marked.pdfPages, expected);
    int pageComments = 0;
    for (const QByteArray& line : splitLines(readFile(marked.output)))
        if (line.startsWith("%%Page:"))
            ++pageComments;
    QCOMPARE(pageComments, expected);
}

void TestRealDocuments::markerTextOnEveryPage_data()
{
    addRows();
}

// Every document page (simplex) or every back page (duplex) reads the label,
// its own "Page i of n" and the Cyrillic label with the owner's name; in
// duplex the document pages carry no mark and the back pages nothing else.
void TestRealDocuments::markerTextOnEveryPage()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    const MarkedJob& marked = job(document, duplex);
    QVERIFY2(marked.run.exitCode == 0, "the filter failed");
    const int pages = m_documents.value(document).pages;
    QCOMPARE(marked.texts.size(), duplex ? 2 * pages : pages);
    for (int page = 1; page <= pages; ++page) {
        const int markedPage = duplex ? 2 * page : page;
        const QString text = marked.texts.at(markedPage - 1).simplified();
        const QString where = QStringLiteral("output page %1 reads: %2 [...] %3")
                                  .arg(markedPage)
                                  .arg(text.left(200), text.right(200));
        QVERIFY2(text.contains(Label), qPrintable(where));
        QVERIFY2(text.contains(pageMark(page, pages)), qPrintable(where));
        QVERIFY2(text.contains(ownerMark()), qPrintable(where));
        if (!duplex)
            continue;
        QString rest = text;
        rest.remove(Label).remove(pageMark(page, pages)).remove(ownerMark());
        QVERIFY2(rest.trimmed().isEmpty(),
                 qPrintable(QStringLiteral("back page %1 also reads: %2").arg(markedPage).arg(rest)));
        const QString documentPage = marked.texts.at(2 * page - 2);
        QVERIFY2(!documentPage.contains(Label) && !documentPage.contains(CyrillicLabel) &&
                     !documentPage.contains(QRegularExpression(QStringLiteral("Page \\d+ of \\d+"))),
                 qPrintable(QStringLiteral("document page at output page %1 carries a mark: %2")
                                .arg(2 * page - 1)
                                .arg(documentPage.simplified().left(400))));
    }
}

void TestRealDocuments::documentTextKept_data()
{
    addRows();
}

// The document's own words are all still on their pages, in order; in duplex
// mode its pages read exactly as before.
void TestRealDocuments::documentTextKept()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    const MarkedJob& marked = job(document, duplex);
    QVERIFY2(marked.run.exitCode == 0, "the filter failed");
    const Document& input = m_documents[document];
    QCOMPARE(marked.texts.size(), duplex ? 2 * input.pages : input.pages);
    for (int page = 1; page <= input.pages; ++page) {
        const QString original = input.texts.at(page - 1);
        const QString text = marked.texts.at(duplex ? 2 * page - 2 : page - 1);
        if (duplex) {
            QCOMPARE(text, original);
            continue;
        }
        const QList<QByteArray> originalWords = utf8List(words(original));
        QVERIFY(!originalWords.isEmpty());
        const LineAlignment alignment = alignLines(originalWords, utf8List(words(text)));
        QVERIFY2(alignment.missingLine < 0,
                 qPrintable(QStringLiteral("page %1: word %2 ('%3') is missing or out of order")
                                .arg(page)
                                .arg(alignment.missingLine + 1)
                                .arg(QString::fromUtf8(originalWords.value(alignment.missingLine)))));
    }
}

void TestRealDocuments::documentPixelsUntouched_data()
{
    addRows();
}

// Rendered at the same resolution, the output's document pages equal the
// input's pages outside the top and bottom margin bands (simplex) or over the
// whole page (duplex). The marks are inside the bands, no closer to the
// paper's edges than the configured shifts, and cover none of the document's
// ink; a back page shows nothing else.
void TestRealDocuments::documentPixelsUntouched()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    const MarkedJob& marked = job(document, duplex);
    QVERIFY2(marked.run.exitCode == 0, "the filter failed");
    const Document& input = m_documents[document];
    QCOMPARE(marked.raster.size(), duplex ? 2 * input.pages : input.pages);

    const int topBandHeight = pointsToPixels(TopBandPoints, Resolution);
    const int bottomBandHeight = pointsToPixels(BottomBandPoints, Resolution);
    // One pixel of slack for rounding at the shifts' edges.
    const int top = pointsToPixels(TopShift, Resolution) - 1;
    const int bottom = pointsToPixels(BottomShift, Resolution) - 1;
    const int side = pointsToPixels(SideShift, Resolution) - 1;

    for (int page = 1; page <= input.pages; ++page) {
        const GrayPage& original = input.raster.at(page - 1);
        const GrayPage& documentPage = marked.raster.at(duplex ? 2 * page - 2 : page - 1);
        const GrayPage& markPage = duplex ? marked.raster.at(2 * page - 1) : documentPage;
        QVERIFY(!original.isNull() && !documentPage.isNull() && !markPage.isNull());
        QCOMPARE(documentPage.width, original.width);
        QCOMPARE(documentPage.height, original.height);
        QCOMPARE(markPage.width, original.width);
        QCOMPARE(markPage.height, original.height);
        const int width = original.width;
        const int height = original.height;
        const QString where = QStringLiteral("page %1").arg(page);

        QRect marks;
        if (duplex) {
            QCOMPARE(differingPixels(documentPage, original, 0, 0), qint64(0));
            QCOMPARE(inkPixels(markPage,
                               QRect(0, topBandHeight, width, height - topBandHeight - bottomBandHeight)),
                     qint64(0));
            marks = inkBounds(markPage);
        } else {
            const qint64 outside = differingPixels(documentPage, original, topBandHeight, bottomBandHeight);
            QVERIFY2(outside == 0,
                     qPrintable(where + QStringLiteral(": %1 pixels differ outside the bands").arg(outside)));
            const qint64 erased = erasedPixels(original, documentPage);
            QVERIFY2(erased == 0,
                     qPrintable(where +
                                QStringLiteral(": the marks cover %1 pixels of the document").arg(erased)));
            marks = differenceBounds(documentPage, original);
        }
        const QRect topBand(0, 0, width, topBandHeight);
        const QRect bottomBand(0, height - bottomBandHeight, width, bottomBandHeight);
        const qint64 topMarks =
            duplex ? inkPixels(markPage, topBand) : differingPixels(documentPage, original, topBand);
        const qint64 bottomMarks =
            duplex ? inkPixels(markPage, bottomBand) : differingPixels(documentPage, original, bottomBand);
        QVERIFY2(topMarks > 0, qPrintable(where + QStringLiteral(": nothing marked in the top band")));
        QVERIFY2(bottomMarks > 0, qPrintable(where + QStringLiteral(": nothing marked in the bottom band")));

        const QString placement = where + QStringLiteral(": marks span x %1..%2, y %3..%4 of %5x%6")
                                              .arg(marks.left())
                                              .arg(marks.right())
                                              .arg(marks.top())
                                              .arg(marks.bottom())
                                              .arg(width)
                                              .arg(height);
        QVERIFY2(marks.top() >= top, qPrintable(placement));
        QVERIFY2(marks.bottom() <= height - 1 - bottom, qPrintable(placement));
        QVERIFY2(marks.left() >= side, qPrintable(placement));
        QVERIFY2(marks.right() <= width - 1 - side, qPrintable(placement));
    }
}

void TestRealDocuments::inputLinesSurvive_data()
{
    addRows();
}

// Every input line is in the output, in order, and without the lines that
// the filter inserts (showpage redefinition, marker fonts, marker blocks or
// back pages) the output is the input again; in duplex mode only the page
// labels and the trailer's page count may change.
void TestRealDocuments::inputLinesSurvive()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    const MarkedJob& marked = job(document, duplex);
    QVERIFY2(marked.run.exitCode == 0, "the filter failed");
    const Document& input = m_documents[document];
    const QList<QByteArray> inputLines = splitLines(readFile(input.file));
    const QList<QByteArray> outputLines = splitLines(readFile(marked.output));
    QVERIFY(inputLines.size() > 100);

    const auto sameLine = [duplex](const QByteArray& original, const QByteArray& line) {
        if (duplex && original.startsWith("%%Page:"))
            return line.startsWith("%%Page:");
        if (duplex && original.startsWith("%%Pages:"))
            return line.startsWith("%%Pages:");
        return original == line;
    };
    const LineAlignment alignment = alignLines(inputLines, outputLines, sameLine);
    QVERIFY2(alignment.missingLine < 0,
             qPrintable(QStringLiteral("input line %1 ('%2') is missing or out of order")
                            .arg(alignment.missingLine + 1)
                            .arg(lineText(inputLines.value(alignment.missingLine)))));

    const QString problem = checkInsertions(inputLines, outputLines, duplex, input.pages);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));
}

// A pattern document marked with print-safe output in the tree: the
// document rendered unmarked and marked, and the marked file; `problem`
// says what went wrong, empty when nothing did.
struct MarkedPattern {
    QList<GrayPage> original;
    QList<GrayPage> marked;
    QString output;
    QString problem;
};

MarkedPattern markPattern(FixtureTree& tree, const QString& file, bool duplex)
{
    MarkedPattern pattern;
    pattern.original = renderPages(file, Resolution, &pattern.problem);
    if (pattern.problem.isEmpty() && pattern.original.isEmpty())
        pattern.problem = QStringLiteral("%1 shows no page").arg(file);
    if (!pattern.problem.isEmpty())
        return pattern;
    tree.copy(catalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("etc-cups/marker.defs"), MarkerDefinitions + "MarkerSafeOutput=1\n");
    tree.copy(file, QStringLiteral("job/input.ps"));
    tree.write(QStringLiteral("job/marker.tmpl"), MarkerTemplate);
    tree.write(QStringLiteral("job/job.vars"),
               "job-originating-user-name=" + UserName.toUtf8() + "\ncopies=1\n");
    QStringList arguments{QStringLiteral("input.ps"), QStringLiteral("marker.tmpl"),
                          QStringLiteral("job.vars"), QStringLiteral("output.ps")};
    if (duplex)
        arguments.prepend(QStringLiteral("--duplex"));
    const RunResult run = tree.runQuillet(arguments);
    if (run.exitCode != 0) {
        pattern.problem = QString::fromLocal8Bit(run.standardError);
        return pattern;
    }
    pattern.output = tree.path(QStringLiteral("job/output.ps"));
    pattern.problem = ghostscriptErrors(pattern.output);
    if (pattern.problem.isEmpty())
        pattern.marked = renderPages(pattern.output, Resolution, &pattern.problem);
    return pattern;
}

void TestRealDocuments::printSafePatternPrints_data()
{
    QTest::addColumn<QString>("file");
    for (const RealDocument& document : qAsConst(m_patterns))
        QTest::newRow(qPrintable(document.label)) << document.file;
}

// With print-safe output, documents that show their pages inside a saved VM,
// set their page size inside each page's save and restore, or end their
// pages in another coordinate system print on a device whose own paper is A4
// as they print unmarked: as many sheets, each of its own size, with every
// pixel of the document outside the margin bands; and every sheet carries
// the marks in both bands, readable as text.
void TestRealDocuments::printSafePatternPrints()
{
    QFETCH(QString, file);
    FixtureTree tree;
    const MarkedPattern pattern = markPattern(tree, file, false);
    QVERIFY2(pattern.problem.isEmpty(), qPrintable(pattern.problem));
    const QList<GrayPage>& original = pattern.original;
    const QList<GrayPage>& marked = pattern.marked;
    const QString& output = pattern.output;
    QString error;
    QCOMPARE(marked.size(), original.size());

    const int pages = original.size();
    const int topBand = pointsToPixels(TopBandPoints, Resolution);
    const int bottomBand = pointsToPixels(BottomBandPoints, Resolution);
    for (int page = 0; page < pages; ++page) {
        const GrayPage& before = original.at(page);
        const GrayPage& after = marked.at(page);
        const QString where = QStringLiteral("sheet %1").arg(page + 1);
        QCOMPARE(after.width, before.width);
        QCOMPARE(after.height, before.height);
        const qint64 outside = differingPixels(after, before, topBand, bottomBand);
        QVERIFY2(outside == 0,
                 qPrintable(where + QStringLiteral(": %1 pixels differ outside the bands").arg(outside)));
        QVERIFY2(differingPixels(after, before, QRect(0, 0, after.width, topBand)) > 0,
                 qPrintable(where + QStringLiteral(": nothing marked in the top band")));
        QVERIFY2(
            differingPixels(after, before, QRect(0, after.height - bottomBand, after.width, bottomBand)) > 0,
            qPrintable(where + QStringLiteral(": nothing marked in the bottom band")));
    }

    const QString pdf = tree.path(QStringLiteral("job/output.pdf"));
    QVERIFY2(convertToPdf(output, pdf, &error), qPrintable(error));
    const QStringList texts = pdfPageTexts(pdf);
    QCOMPARE(texts.size(), pages);
    for (int page = 1; page <= pages; ++page) {
        const QString text = texts.at(page - 1).simplified();
        QVERIFY2(text.contains(Label) && text.contains(pageMark(page, pages)) && text.contains(ownerMark()),
                 qPrintable(QStringLiteral("sheet %1 reads: %2").arg(page).arg(text.left(300))));
    }
}

// A sheet of paper with nothing on it.
GrayPage blankPage(int width, int height)
{
    GrayPage page;
    page.width = width;
    page.height = height;
    page.pixels = QByteArray(width * height, char(255));
    return page;
}

void TestRealDocuments::printSafePatternPrintsInDuplex_data()
{
    printSafePatternPrints_data();
}

// In duplex the same documents print every page as it prints unmarked,
// followed by its back page on the same paper carrying the marks, and
// nothing else: no sheet the document shows after its last page.
void TestRealDocuments::printSafePatternPrintsInDuplex()
{
    QFETCH(QString, file);
    FixtureTree tree;
    const MarkedPattern pattern = markPattern(tree, file, true);
    QVERIFY2(pattern.problem.isEmpty(), qPrintable(pattern.problem));
    const QList<GrayPage>& original = pattern.original;
    const QList<GrayPage>& marked = pattern.marked;
    const QString& output = pattern.output;
    QString error;
    const int pages = original.size();
    QCOMPARE(marked.size(), 2 * pages);

    const int topBand = pointsToPixels(TopBandPoints, Resolution);
    const int bottomBand = pointsToPixels(BottomBandPoints, Resolution);
    for (int page = 0; page < pages; ++page) {
        const GrayPage& before = original.at(page);
        const GrayPage& front = marked.at(2 * page);
        const GrayPage& back = marked.at(2 * page + 1);
        const QString where = QStringLiteral("page %1").arg(page + 1);
        // The front is the document's page as it is; the back has its paper.
        QCOMPARE(front.width, before.width);
        QCOMPARE(front.height, before.height);
        QVERIFY2(differingPixels(front, before, QRect(0, 0, front.width, front.height)) == 0,
                 qPrintable(where + QStringLiteral(": the front differs from the page")));
        QCOMPARE(back.width, before.width);
        QCOMPARE(back.height, before.height);
        QVERIFY2(differingPixels(back, blankPage(back.width, back.height), QRect(0, 0, back.width, topBand)) >
                     0,
                 qPrintable(where + QStringLiteral(": nothing marked in the back's top band")));
        QVERIFY2(differingPixels(back, blankPage(back.width, back.height),
                                 QRect(0, back.height - bottomBand, back.width, bottomBand)) > 0,
                 qPrintable(where + QStringLiteral(": nothing marked in the back's bottom band")));
    }

    const QString pdf = tree.path(QStringLiteral("job/output.pdf"));
    QVERIFY2(convertToPdf(output, pdf, &error), qPrintable(error));
    const QStringList texts = pdfPageTexts(pdf);
    QCOMPARE(texts.size(), 2 * pages);
    for (int page = 1; page <= pages; ++page) {
        const QString text = texts.at(2 * page - 1).simplified();
        QVERIFY2(text.contains(Label) && text.contains(ownerMark()),
                 qPrintable(QStringLiteral("back of page %1 reads: %2").arg(page).arg(text.left(300))));
    }
}

QTEST_GUILESS_MAIN(TestRealDocuments)
#include "tst_realdocuments.moc"
