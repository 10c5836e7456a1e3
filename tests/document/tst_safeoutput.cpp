// Print-safe output ("MarkerSafeOutput=1"), end to end through the real
// filter and Ghostscript, on documents made while the test runs:
//
//   - an enscript listing of several pages, which selects its body font once
//     in its setup: the marker block must not leave its own font behind;
//   - the same listing with an underlined "Page {CURRENT_PAGE} of
//     {NUM_PAGES}": the underline procedures need the marker fonts' metrics;
//   - a groff report with an EPS figure made by Ghostscript's eps2write, and
//     a hand-written document with an embedded document inside an embedded
//     document: their page, trailer and end-of-file comments are not the
//     document's own;
//   - a hand-written document that checks its own graphics state, font,
//     dictionary stack and names right after every marker block;
//   - hand-written documents that show a page by another route than their
//     own showpage (the real one from systemdict or taken before the
//     redefinition, copypage), and documents whose structure misleads the
//     classic scan (a figure's prolog after the first page, an embedded
//     document never closed, a figure's end-of-file comments inside a page,
//     a page without the page trailer that the others have, marker fonts
//     that differ from the installed ones): every page that Ghostscript shows
//     must carry the marks.
//
// Every correction is shown twice: without the key Ghostscript shows the
// failure, with the key the output prints as it should. Byte comparisons
// prove that only the value "1" turns the corrections on, from either file.
#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QMap>
#include <QSharedPointer>
#include <QTemporaryDir>
#include <QTest>

namespace {

// Resolution of the page comparisons, and of the closer look at underlines,
// in dots per inch.
const int Resolution = 60;
const int FineResolution = 144;

// Marker placement for every job, in points.
const QByteArray Placement = "MarkerTopShift=8\n"
                             "MarkerBottomShift=8\n"
                             "MarkerLeftShift=40\n"
                             "MarkerRightShift=40\n"
                             "MarkerStringInterval=2\n";

// The marks stay within these bands at the top and bottom of the paper, in
// points; every document used here keeps its own ink out of them.
const double TopBandPoints = 36;
const double BottomBandPoints = 30;

// Two marks: a label at the top and the page number at the bottom. The
// second template adds one at a coordinate position, which redefines
// placement names inside the block.
const QByteArray MarkTemplate = "any:bold:12::top-center:SECRET\n"
                                "any:normal:10::bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n";
const QByteArray CoordinateTemplate = MarkTemplate + "any:normal:10::{300;20}:COPY\n";

// An underlined page number at the top left, and the same without underline.
const int UnderlineSize = 14;
const QByteArray UnderlineTemplate =
    "any:normal:" + QByteArray::number(UnderlineSize) + ":underline::top-left:Page {CURRENT_PAGE} of {NUM_PAGES}\n";
const QByteArray PlainTemplate =
    "any:normal:" + QByteArray::number(UnderlineSize) + "::top-left:Page {CURRENT_PAGE} of {NUM_PAGES}\n";
// Underlined marks at the top and the bottom.
const QByteArray UnderlinedMarkTemplate = "any:bold:12:underline::top-center:SECRET\n"
                                          "any:normal:10:underline::bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n";

const QByteArray SafeOutput = "MarkerSafeOutput=1\n";

// A document as it goes into the filter.
struct Document
{
    QString label;
    QString file;
    int pages = 0;
    QList<GrayPage> raster;
};

// One run of the filter.
struct Job
{
    QSharedPointer<FixtureTree> tree;
    RunResult run;
    QString output;
    QByteArray bytes;
    QByteArray variables;
};

QString describeRun(const RunResult& run)
{
    return QStringLiteral("exit status %1%2: %3")
        .arg(run.exitCode)
        .arg(run.crashed ? QStringLiteral(" (crashed)") : QString())
        .arg(QString::fromLocal8Bit(run.standardError));
}

// The value of a key in the rewritten variables file.
QString variable(const Job& job, const QString& key)
{
    return parseKeyValues(job.variables).value(key);
}

// Whether the document's pages came out with the marks, each page otherwise
// as the input renders it: simplex, the output's page i equals input page i
// outside the margin bands and carries marks in both bands; duplex, output
// page 2i-1 equals input page i over the whole page and page 2i carries the
// marks and nothing else. Returns a description of the first problem.
QString compareWithInput(const Document& input, const QList<GrayPage>& output, bool duplex)
{
    const int expected = duplex ? 2 * input.pages : input.pages;
    if (output.size() != expected)
        return QStringLiteral("%1 pages rendered where %2 are expected").arg(output.size()).arg(expected);
    const int topBand = pointsToPixels(TopBandPoints, Resolution);
    const int bottomBand = pointsToPixels(BottomBandPoints, Resolution);
    for (int page = 1; page <= input.pages; ++page) {
        const GrayPage& original = input.raster.at(page - 1);
        const GrayPage& documentPage = output.at(duplex ? 2 * page - 2 : page - 1);
        const GrayPage& markPage = duplex ? output.at(2 * page - 1) : documentPage;
        if (documentPage.isNull() || markPage.isNull() || documentPage.width != original.width
            || documentPage.height != original.height || markPage.width != original.width
            || markPage.height != original.height)
            return QStringLiteral("page %1 is missing or has another size").arg(page);
        const QRect top(0, 0, original.width, topBand);
        const QRect bottom(0, original.height - bottomBand, original.width, bottomBand);
        if (duplex) {
            const qint64 changed = differingPixels(documentPage, original, 0, 0);
            if (changed != 0)
                return QStringLiteral("document page %1 differs from the input in %2 pixels").arg(page).arg(changed);
            const qint64 stray = inkPixels(markPage, QRect(0, topBand, original.width,
                                                           original.height - topBand - bottomBand));
            if (stray != 0)
                return QStringLiteral("back page %1 has %2 dark pixels outside the bands").arg(page).arg(stray);
            if (inkPixels(markPage, top) == 0 || inkPixels(markPage, bottom) == 0)
                return QStringLiteral("back page %1 lacks a mark in a band").arg(page);
        } else {
            const qint64 changed = differingPixels(documentPage, original, topBand, bottomBand);
            if (changed != 0)
                return QStringLiteral("page %1 differs from the input in %2 pixels outside the bands")
                    .arg(page).arg(changed);
            if (differingPixels(documentPage, original, top) <= 0 || differingPixels(documentPage, original, bottom) <= 0)
                return QStringLiteral("page %1 lacks a mark in a band").arg(page);
        }
    }
    return QString();
}

// The lines of a document outside its embedded documents (the lines from
// "%%BeginDocument" to its matching "%%EndDocument" are left out).
QList<QByteArray> ownLines(const QList<QByteArray>& lines)
{
    QList<QByteArray> own;
    int depth = 0;
    for (const QByteArray& line : lines) {
        if (line.startsWith("%%BeginDocument")) {
            ++depth;
            continue;
        }
        if (line.startsWith("%%EndDocument") && depth > 0) {
            --depth;
            continue;
        }
        if (depth == 0)
            own.append(line);
    }
    return own;
}

// Longest run of consecutive pixels darker than the threshold in a row,
// between two columns (inclusive).
int longestDarkRun(const GrayPage& page, int row, int from, int to, int threshold = 128)
{
    int longest = 0;
    int run = 0;
    for (int x = qMax(0, from); x <= qMin(page.width - 1, to); ++x) {
        run = page.at(x, row) < threshold ? run + 1 : 0;
        longest = qMax(longest, run);
    }
    return longest;
}

// The cases of the byte comparisons: a document, a template and the mode.
struct ByteCase
{
    const char* name;
    const char* document;
    QByteArray markerTemplate;
    bool duplex;
};

QList<ByteCase> byteCases()
{
    return {{"enscript listing, simplex", "enscript", MarkTemplate, false},
            {"enscript listing, underlined, duplex", "enscript", UnderlinedMarkTemplate, true},
            {"groff report with figures, simplex", "groff", MarkTemplate, false},
            {"nested embedded documents, duplex", "nested", CoordinateTemplate, true}};
}

// The report lines of the state-checking document ("state-check ...: ...").
QStringList stateReports(const QByteArray& output)
{
    QStringList reports;
    for (const QString& line : QString::fromLatin1(output).split(QLatin1Char('\n')))
        if (line.startsWith(QLatin1String("state-check ")))
            reports.append(line.mid(12).trimmed());
    return reports;
}

// A hand-written document written against the marks: what Ghostscript shows
// of it unmarked, and what the filter must make of it.
struct HostileDocument
{
    const char* name;
    int sheets;   // sheets the unmarked document shows
    int pages;    // its pages: every page is one marked sheet
    bool refused; // the filter refuses it instead
};

QList<HostileDocument> hostileDocuments()
{
    return {// Code between the header and the prolog that shows a sheet, and a
            // string opened there that runs on past the prolog line.
            {"code-before-prolog", 3, 2, false},
            {"string-before-prolog", 2, 2, false},
            // Code on the header line after a carriage return or a form feed,
            // which end the comment for the interpreter.
            {"header-carriage-return", 3, 2, true},
            {"header-form-feed", 3, 2, true},
            // Pages that end in a state of their own.
            {"tiny-scale", 3, 3, false},
            {"mirrored-page", 3, 3, false},
            {"whitening-transfer", 3, 3, false},
            {"redefined-operators", 3, 3, false},
            // The real showpage after grestoreall, and after restoring a save
            // made before the prolog.
            {"grestoreall", 4, 3, false},
            {"restore-before-prolog-save", 4, 3, false},
            // Every page shown twice, each time inside a save and restore
            // of its own, which would take back a guard's note kept in
            // local VM that the page was shown.
            {"restore-hides-front", 6, 3, false}};
}

// A document of boxes like the hand-written ones, without any trick.
QByteArray plainDocument(int pages)
{
    QByteArray document = "%!PS-Adobe-3.0\n%%Pages: " + QByteArray::number(pages)
                          + "\n%%EndComments\n%%BeginProlog\n"
                            "/box { dup 40 mul 200 add 100 exch 300 3 index 10 mul 20 add rectfill pop } bind def\n"
                            "%%EndProlog\n";
    for (int page = 1; page <= pages; ++page) {
        const QByteArray number = QByteArray::number(page);
        document += "%%Page: " + number + ' ' + number + '\n' + number + " box\nshowpage\n%%PageTrailer\n";
    }
    return document + "%%Trailer\n%%EOF\n";
}

} // namespace

class TestSafeOutput : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void stateCheckSeesChanges();

    void fontSetOnceStopsWithoutKey_data();
    void fontSetOnceStopsWithoutKey();
    void fontSetOnceEveryPageWithKey_data();
    void fontSetOnceEveryPageWithKey();

    void underlineStopsWithoutKey();
    void underlinePaintsBelowText();

    void embeddedDocumentsBreakPagesWithoutKey_data();
    void embeddedDocumentsBreakPagesWithoutKey();
    void embeddedDocumentsKeepPagesWithKey_data();
    void embeddedDocumentsKeepPagesWithKey();
    void pagesEndAtTheDocumentsOwnComments_data();
    void pagesEndAtTheDocumentsOwnComments();

    void markerBlockLeaksStateWithoutKey_data();
    void markerBlockLeaksStateWithoutKey();
    void markerBlockKeepsStateWithKey_data();
    void markerBlockKeepsStateWithKey();

    void onlyOneTurnsItOn_data();
    void onlyOneTurnsItOn();
    void keyFromDefinitionsOrVariables_data();
    void keyFromDefinitionsOrVariables();
    void shippedDefinitionsTurnItOn();
    void safeOutputAddsOnlyItsCorrections_data();
    void safeOutputAddsOnlyItsCorrections();

    void unmarkedPagesWithoutKey_data();
    void unmarkedPagesWithoutKey();
    void everyShownPageMarkedWithKey_data();
    void everyShownPageMarkedWithKey();

    void hostileDocumentMarkedOrRefused_data();
    void hostileDocumentMarkedOrRefused();
    void hostileDocumentInDuplex_data();
    void hostileDocumentInDuplex();

private:
    QString make(const QString& name) const { return m_work.filePath(name); }
    // Runs a tool in the work folder; on failure m_toolError says why.
    bool runTool(const QString& program, const QStringList& arguments, const QString& stdoutFile = {})
    {
        return ::runTool(m_work.path(), program, arguments, &m_toolError, stdoutFile);
    }
    bool addDocument(const QString& key, const QString& label, const QString& file);
    const Job& job(const QString& document, const QByteArray& markerTemplate, bool duplex,
                   const QByteArray& variables = {}, const QByteArray& definitions = {});
    QStringList stateCheck(const QString& file, QString* errors);
    void addCaseRows();
    // Data of the two documents with embedded documents ("groff", "nested"),
    // each with a bool column `flag` off and on; rows are labelled by the
    // document and `whenOff` or `whenOn`.
    void addEmbeddedDocumentRows(const char* flag, const QString& whenOff, const QString& whenOn);

    QTemporaryDir m_work;
    QMap<QString, Document> m_documents;
    QMap<QString, QSharedPointer<Job>> m_jobs;
    QString m_toolError;
};

// Renders an input document; it must print cleanly, on at least two pages
// that all differ from each other.
bool TestSafeOutput::addDocument(const QString& key, const QString& label, const QString& file)
{
    Document document;
    document.label = label;
    document.file = file;
    const QString errors = ghostscriptErrors(file);
    QString renderError;
    document.raster = renderPages(file, Resolution, &renderError);
    document.pages = document.raster.size();
    if (!errors.isEmpty() || !renderError.isEmpty() || document.pages < 2) {
        m_toolError = QStringLiteral("the input %1 does not render cleanly on several pages (%2 pages): %3%4")
                          .arg(file).arg(document.pages).arg(errors, renderError);
        return false;
    }
    for (int i = 1; i < document.pages; ++i) {
        if (differingPixels(document.raster.at(i - 1), document.raster.at(i), 0, 0) == 0) {
            m_toolError = QStringLiteral("pages %1 and %2 of %3 look the same").arg(i).arg(i + 1).arg(file);
            return false;
        }
    }
    m_documents.insert(key, document);
    return true;
}

void TestSafeOutput::initTestCase()
{
    for (const char* program : {"enscript", "groff", "gs"})
        QVERIFY2(haveProgram(QLatin1String(program)), qPrintable(QStringLiteral("%1 is not installed").arg(program)));
    QVERIFY(m_work.isValid());
    const QString sources = testsSourceDir() + QStringLiteral("/document/safeoutput/");

    // A listing of four pages, every line its own.
    QByteArray listing;
    for (int line = 1; line <= 230; ++line)
        listing += "Entry " + QByteArray::number(line) + " of the duty log: checked, signed and filed ("
                   + QByteArray::number(line * 37 % 1000) + ").\n";
    const QString listingText = make(QStringLiteral("dutylog.txt"));
    QVERIFY(writeFile(listingText, listing));
    const QString listingDocument = make(QStringLiteral("dutylog.ps"));
    QVERIFY2(runTool(QStringLiteral("enscript"),
                     {QStringLiteral("-q"), QStringLiteral("--media=A4"), QStringLiteral("-p"), listingDocument,
                      listingText}),
             qPrintable(m_toolError));
    QVERIFY2(addDocument(QStringLiteral("enscript"), QStringLiteral("enscript listing"), listingDocument),
             qPrintable(m_toolError));
    QCOMPARE(m_documents.value(QStringLiteral("enscript")).pages, 4);

    // An EPS figure made by Ghostscript, in a groff report on two of its
    // three pages.
    QVERIFY(writeFile(make(QStringLiteral("figure.ps")), readFile(sources + QStringLiteral("figure.ps"))));
    QVERIFY2(runTool(QStringLiteral("gs"),
                     {QStringLiteral("-q"), QStringLiteral("-dSAFER"), QStringLiteral("-dBATCH"), QStringLiteral("-dNOPAUSE"),
                      QStringLiteral("-sDEVICE=eps2write"), QStringLiteral("-sOutputFile=figure.eps"),
                      QStringLiteral("figure.ps")}),
             qPrintable(m_toolError));
    const QByteArray figure = readFile(make(QStringLiteral("figure.eps")));
    for (const char* comment : {"\n%%Page:", "\n%%PageTrailer", "\n%%Trailer", "\n%%EOF"})
        QVERIFY2(figure.contains(comment), comment);
    QVERIFY(writeFile(make(QStringLiteral("figures.ms")), readFile(sources + QStringLiteral("figures.ms"))));
    const QString report = make(QStringLiteral("figures.ps"));
    QVERIFY2(runTool(QStringLiteral("groff"),
                     {QStringLiteral("-ms"), QStringLiteral("-dpaper=a4"), QStringLiteral("-P-pa4"),
                      QStringLiteral("figures.ms")},
                     report),
             qPrintable(m_toolError));
    QCOMPARE(readFile(report).count("\n%%BeginDocument: figure.eps\n"), 2);
    QVERIFY2(addDocument(QStringLiteral("groff"), QStringLiteral("groff report with EPS figures"), report),
             qPrintable(m_toolError));
    QCOMPARE(m_documents.value(QStringLiteral("groff")).pages, 3);

    // Hand-written: a figure inside a figure; and the state check.
    QVERIFY2(addDocument(QStringLiteral("nested"), QStringLiteral("nested embedded documents"),
                         sources + QStringLiteral("nested-documents.ps")),
             qPrintable(m_toolError));
    QCOMPARE(m_documents.value(QStringLiteral("nested")).pages, 2);
    QVERIFY2(addDocument(QStringLiteral("state"), QStringLiteral("state check"), sources + QStringLiteral("state-check.ps")),
             qPrintable(m_toolError));
    QCOMPARE(m_documents.value(QStringLiteral("state")).pages, 3);

    // Pages shown by other routes, and misleading structure.
    const QList<QPair<const char*, int>> routes = {
        {"route-systemdict", 4},  {"route-early-showpage", 3}, {"route-copypage", 4},
        {"late-prolog", 2},       {"unclosed-document", 3},    {"eof-in-page", 3},
        {"mixed-page-trailers", 3}, {"conflicting-fonts", 2}};
    for (const auto& route : routes) {
        const QString key = QLatin1String(route.first);
        QVERIFY2(addDocument(key, key, sources + key + QStringLiteral(".ps")), qPrintable(m_toolError));
        QCOMPARE(m_documents.value(key).pages, route.second);
    }

    // Documents written against the marks, with the sheets Ghostscript
    // shows of them unmarked, and plain documents of the same page counts
    // whose marks show how the marks must look.
    for (const HostileDocument& hostile : hostileDocuments()) {
        const QString key = QLatin1String(hostile.name);
        QVERIFY2(addDocument(key, key, sources + key + QStringLiteral(".ps")), qPrintable(m_toolError));
        QCOMPARE(m_documents.value(key).pages, hostile.sheets);
    }
    for (const int pages : {2, 3}) {
        const QString file = make(QStringLiteral("plain-%1.ps").arg(pages));
        QVERIFY(writeFile(file, plainDocument(pages)));
        QVERIFY2(addDocument(QStringLiteral("plain-%1").arg(pages), file, file), qPrintable(m_toolError));
    }
}

// Runs the filter once per combination and keeps the result. The definitions
// file holds the placement and the extra definitions; the job's variables
// file a user name, one copy and the extra variables.
const Job& TestSafeOutput::job(const QString& document, const QByteArray& markerTemplate, bool duplex,
                               const QByteArray& variables, const QByteArray& definitions)
{
    const QString key = QStringList{document, QString::fromLatin1(markerTemplate), QString::fromLatin1(variables),
                                    QString::fromLatin1(definitions), duplex ? QStringLiteral("duplex") : QString()}
                            .join(QLatin1Char('|'));
    QSharedPointer<Job>& slot = m_jobs[key];
    if (slot)
        return *slot;
    slot.reset(new Job);
    Job& result = *slot;
    result.tree.reset(new FixtureTree);
    const FixtureTree& tree = *result.tree;
    tree.installCatalogue();
    tree.write(QStringLiteral("etc-cups/marker.defs"), Placement + definitions);
    tree.copy(m_documents.value(document).file, QStringLiteral("job/input.ps"));
    tree.write(QStringLiteral("job/marker.tmpl"), markerTemplate);
    tree.write(QStringLiteral("job/job.vars"), "job-originating-user-name=ivanov\ncopies=1\n" + variables);
    QStringList arguments = {QStringLiteral("input.ps"), QStringLiteral("marker.tmpl"), QStringLiteral("job.vars"),
                             QStringLiteral("output.ps")};
    if (duplex)
        arguments << QStringLiteral("--duplex");
    result.run = tree.runQuillet(arguments);
    result.output = tree.path(QStringLiteral("job/output.ps"));
    result.bytes = readFile(result.output);
    result.variables = tree.read(QStringLiteral("job/job.vars"));
    return result;
}

// Interprets the state-checking document (or a filter's output of it) and
// returns its report lines; *errors receives Ghostscript's error report.
QStringList TestSafeOutput::stateCheck(const QString& file, QString* errors)
{
    const RunResult run = runProgram(QStringLiteral("gs"),
                                     {QStringLiteral("-q"), QStringLiteral("-dSAFER"), QStringLiteral("-dBATCH"),
                                      QStringLiteral("-dNOPAUSE"), QStringLiteral("-sDEVICE=nullpage"), file});
    const QByteArray printed = run.standardOutput + run.standardError;
    errors->clear();
    if (run.exitCode != 0 || run.crashed || printed.contains("Error"))
        *errors = QString::fromLocal8Bit(printed);
    return stateReports(run.standardOutput);
}

// The state-checking document itself: untouched, every check finds the state
// kept; with a dictionary left open at the end of its first page, the checks
// that follow report it. (Its other checks are seen failing below, on the
// filter's classic output.)
void TestSafeOutput::stateCheckSeesChanges()
{
    const Document& document = m_documents[QStringLiteral("state")];
    QString errors;
    QCOMPARE(stateCheck(document.file, &errors),
             (QStringList{"page 1 start: kept", "sheet 1: kept", "page 2 start: kept", "sheet 2: kept",
                          "page 3 start: kept", "sheet 3: kept"}));
    QVERIFY2(errors.isEmpty(), qPrintable(errors));

    QByteArray changed = readFile(document.file);
    const QByteArray pageEnd = "noteState\nshowpage\n%%PageTrailer\n%%Page: 2 2\n";
    QVERIFY(changed.contains(pageEnd));
    changed.replace(pageEnd, "noteState\n10 dict begin\nshowpage\n%%PageTrailer\n%%Page: 2 2\n");
    const QString file = make(QStringLiteral("state-check-open-dictionary.ps"));
    QVERIFY(writeFile(file, changed));
    const QStringList reports = stateCheck(file, &errors);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    QCOMPARE(reports.value(1), QStringLiteral("sheet 1: dictstack currentdict"));
    QCOMPARE(reports.value(2), QStringLiteral("page 2 start: dictstack currentdict"));
}

void TestSafeOutput::fontSetOnceStopsWithoutKey_data()
{
    addSimplexAndDuplexRows();
}

// Without the key the marker block leaves the composite marker font current.
// The listing selected its body font once, so the first line of page 2 stops
// Ghostscript: "/rangecheck in --show--". Everything up to there prints.
void TestSafeOutput::fontSetOnceStopsWithoutKey()
{
    QFETCH(bool, duplex);
    const Document& input = m_documents[QStringLiteral("enscript")];
    const Job& marked = job(QStringLiteral("enscript"), MarkTemplate, duplex);
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));

    const QString errors = ghostscriptErrors(marked.output);
    QVERIFY2(errors.contains(QLatin1String("/rangecheck in --show--")), qPrintable(errors));
    QString renderError;
    const QList<GrayPage> pages = renderPages(marked.output, Resolution, &renderError);
    QVERIFY(!renderError.isEmpty());
    // Simplex: page 1; duplex: page 1 and its back page.
    QCOMPARE(pages.size(), duplex ? 2 : 1);
    Document firstPage = input;
    firstPage.pages = 1;
    const QString problem = compareWithInput(firstPage, pages, duplex);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));
}

void TestSafeOutput::fontSetOnceEveryPageWithKey_data()
{
    fontSetOnceStopsWithoutKey_data();
}

// With the key every page prints, each with its own lines: outside the
// margin bands the output's pages equal the input's (duplex: the document
// pages equal them entirely, so a back page changes nothing on the page that
// follows it), and the marks are in the bands.
void TestSafeOutput::fontSetOnceEveryPageWithKey()
{
    QFETCH(bool, duplex);
    const Document& input = m_documents[QStringLiteral("enscript")];
    const Job& marked = job(QStringLiteral("enscript"), MarkTemplate, duplex, SafeOutput);
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));

    const QString errors = ghostscriptErrors(marked.output);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    QString renderError;
    const QList<GrayPage> pages = renderPages(marked.output, Resolution, &renderError);
    QVERIFY2(renderError.isEmpty(), qPrintable(renderError));
    const QString problem = compareWithInput(input, pages, duplex);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));
}

// Without the key the underline procedures look up a FontInfo that the
// composite marker font does not have: Ghostscript stops on the first page.
void TestSafeOutput::underlineStopsWithoutKey()
{
    const Job& marked = job(QStringLiteral("enscript"), UnderlineTemplate, false);
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));
    const QString errors = ghostscriptErrors(marked.output);
    QVERIFY2(errors.contains(QLatin1String("/undefined in --get--")), qPrintable(errors));
    QVERIFY2(errors.contains(QLatin1String("FontInfo")), qPrintable(errors));
    QCOMPARE(renderPages(marked.output, Resolution).size(), 0);
}

// With the key the listing prints with the underlined page number on every
// page. The text's ink is where the same job without underline differs from
// the input; the underline is what the underlined job adds to that: a thin
// line just below the text, as wide as the text.
void TestSafeOutput::underlinePaintsBelowText()
{
    const Document& input = m_documents[QStringLiteral("enscript")];
    const Job& underlined = job(QStringLiteral("enscript"), UnderlineTemplate, false, SafeOutput);
    const Job& plain = job(QStringLiteral("enscript"), PlainTemplate, false, SafeOutput);
    QVERIFY2(underlined.run.exitCode == 0 && !underlined.bytes.isEmpty(), qPrintable(describeRun(underlined.run)));
    QVERIFY2(plain.run.exitCode == 0 && !plain.bytes.isEmpty(), qPrintable(describeRun(plain.run)));
    const QString errors = ghostscriptErrors(underlined.output);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));

    QString renderError;
    const QList<GrayPage> withLine = renderPages(underlined.output, FineResolution, &renderError);
    QVERIFY2(renderError.isEmpty(), qPrintable(renderError));
    const QList<GrayPage> withoutLine = renderPages(plain.output, FineResolution, &renderError);
    QVERIFY2(renderError.isEmpty(), qPrintable(renderError));
    const QList<GrayPage> original = renderPages(input.file, FineResolution, &renderError);
    QVERIFY2(renderError.isEmpty(), qPrintable(renderError));
    QCOMPARE(withLine.size(), input.pages);
    QCOMPARE(withoutLine.size(), input.pages);
    QCOMPARE(original.size(), input.pages);

    const double pixelsPerPoint = FineResolution / 72.0;
    const int topBand = pointsToPixels(TopBandPoints, FineResolution);
    for (int page = 0; page < input.pages; ++page) {
        const QString where = QStringLiteral("page %1").arg(page + 1);
        const QRect text = differenceBounds(withoutLine.at(page), original.at(page));
        QVERIFY2(!text.isNull() && text.bottom() < topBand, qPrintable(where + QStringLiteral(": no page number in the top band")));
        // At this size the text is a good deal wider than high.
        QVERIFY2(text.width() > 4 * text.height(), qPrintable(where));

        const QRect line = differenceBounds(withLine.at(page), withoutLine.at(page));
        const QString geometry = where + QStringLiteral(": text x %1..%2 y %3..%4, underline x %5..%6 y %7..%8")
                                             .arg(text.left()).arg(text.right()).arg(text.top()).arg(text.bottom())
                                             .arg(line.left()).arg(line.right()).arg(line.top()).arg(line.bottom());
        QVERIFY2(!line.isNull(), qPrintable(where + QStringLiteral(": the underline paints nothing")));
        // Below the text with a clear row between them (the underline does
        // not touch the descenders), at most about a quarter of the font
        // size lower.
        QVERIFY2(line.top() > text.bottom() + 1, qPrintable(geometry));
        QVERIFY2(line.top() - text.bottom() <= UnderlineSize * 0.25 * pixelsPerPoint, qPrintable(geometry));
        // A thin line: at most about a tenth of the font size thick.
        QVERIFY2(line.height() <= UnderlineSize * 0.1 * pixelsPerPoint + 1, qPrintable(geometry));
        // About as wide as the text: it starts at the string's box, a side
        // bearing or two left of the ink, and ends near the ink's right end.
        const double slack = UnderlineSize * 0.3 * pixelsPerPoint;
        QVERIFY2(line.left() <= text.left() && text.left() - line.left() <= slack, qPrintable(geometry));
        QVERIFY2(qAbs(line.right() - text.right()) <= slack, qPrintable(geometry));
        // One unbroken run of dark pixels under the whole text.
        int longest = 0;
        for (int row = line.top(); row <= line.bottom(); ++row)
            longest = qMax(longest, longestDarkRun(withLine.at(page), row, line.left(), line.right()));
        QVERIFY2(longest >= text.width() * 9 / 10,
                 qPrintable(geometry + QStringLiteral(", longest dark run %1").arg(longest)));
    }
}

void TestSafeOutput::addEmbeddedDocumentRows(const char* flag, const QString& whenOff, const QString& whenOn)
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<bool>(flag);
    for (const char* key : {"groff", "nested"}) {
        const QString label = m_documents.value(QLatin1String(key)).label;
        QTest::newRow(qPrintable(label + QStringLiteral(", ") + whenOff)) << QString::fromLatin1(key) << false;
        QTest::newRow(qPrintable(label + QStringLiteral(", ") + whenOn)) << QString::fromLatin1(key) << true;
    }
}

void TestSafeOutput::embeddedDocumentsBreakPagesWithoutKey_data()
{
    addEmbeddedDocumentRows("duplex", QStringLiteral("simplex"), QStringLiteral("duplex"));
}

// Without the key the page comments of the embedded documents count as the
// document's own: the page count is wrong and Ghostscript prints pages that
// are not the document's.
void TestSafeOutput::embeddedDocumentsBreakPagesWithoutKey()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    const Document& input = m_documents[document];
    const Job& marked = job(document, MarkTemplate, duplex);
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));
    QVERIFY2(variable(marked, QStringLiteral("NUM_PAGES")) != QString::number(input.pages), marked.variables.constData());
    const QList<GrayPage> pages = renderPages(marked.output, Resolution);
    const QString problem = compareWithInput(input, pages, duplex);
    QVERIFY2(!problem.isEmpty(), "the output prints like the input");
}

void TestSafeOutput::embeddedDocumentsKeepPagesWithKey_data()
{
    embeddedDocumentsBreakPagesWithoutKey_data();
}

// With the key the embedded documents are copied and left alone: the page
// count is the document's and every page prints as the input's page does,
// with its marks.
void TestSafeOutput::embeddedDocumentsKeepPagesWithKey()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    const Document& input = m_documents[document];
    const Job& marked = job(document, MarkTemplate, duplex, SafeOutput);
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));
    QCOMPARE(variable(marked, QStringLiteral("NUM_PAGES")), QString::number(input.pages));

    const QString errors = ghostscriptErrors(marked.output);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    QString renderError;
    const QList<GrayPage> pages = renderPages(marked.output, Resolution, &renderError);
    QVERIFY2(renderError.isEmpty(), qPrintable(renderError));
    const QString problem = compareWithInput(input, pages, duplex);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));

    // Every input line is still there, in order (duplex renumbers pages).
    const auto sameLine = [duplex](const QByteArray& original, const QByteArray& line) {
        if (duplex && original.startsWith("%%Page:"))
            return line.startsWith("%%Page:");
        return original == line;
    };
    const QList<QByteArray> inputLines = splitLines(readFile(input.file));
    const LineAlignment alignment = alignLines(inputLines, splitLines(marked.bytes), sameLine);
    QVERIFY2(alignment.missingLine < 0,
             qPrintable(QStringLiteral("input line %1 is missing or out of order").arg(alignment.missingLine + 1)));
}

void TestSafeOutput::pagesEndAtTheDocumentsOwnComments_data()
{
    addEmbeddedDocumentRows("safe", QStringLiteral("classic"), QStringLiteral("print-safe"));
}

// Where the pages end, in simplex: every marker block ends in "showpagereal"
// (print-safe: every page ends in "QuilletShowPending", which shows the page
// when the document has not, and the end of the insertion), and the line
// after it must be the document's own next "%%Page:" line, or its own
// "%%Trailer" after the last page. Without the key the embedded documents'
// lines show up there; with it exactly the document's own.
void TestSafeOutput::pagesEndAtTheDocumentsOwnComments()
{
    QFETCH(QString, document);
    QFETCH(bool, safe);
    const Document& input = m_documents[document];
    const Job& marked = job(document, MarkTemplate, false, safe ? SafeOutput : QByteArray());
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));

    QList<QByteArray> expected;
    bool firstPage = true;
    for (const QByteArray& line : ownLines(splitLines(readFile(input.file)))) {
        if (line.startsWith("%%Page:")) {
            if (!firstPage)
                expected.append(line);
            firstPage = false;
        } else if (line.startsWith("%%Trailer")) {
            expected.append(line);
            break;
        }
    }
    QCOMPARE(expected.size(), input.pages);

    QList<QByteArray> following;
    const QList<QByteArray> lines = splitLines(marked.bytes);
    const QByteArray shown = safe ? "QuilletShowPending\n" : "showpagereal\n";
    const int after = safe ? 2 : 1;
    for (int i = 0; i + after < lines.size(); ++i)
        if (lines.at(i) == shown && (!safe || lines.at(i + 1) == "%quillet-insertion-end\n"))
            following.append(lines.at(i + after));
    if (safe)
        QCOMPARE(following, expected);
    else
        QVERIFY2(following != expected, "the pages end where the document's own pages end");
}

void TestSafeOutput::markerBlockLeaksStateWithoutKey_data()
{
    QTest::addColumn<bool>("duplex");
    QTest::addColumn<QString>("sheet");
    QTest::addColumn<QString>("sheetReport");
    // Simplex: the block on page 1 turns to landscape, paints in black and
    // selects the marker font, and defines placement names over the
    // document's own. Duplex: the back page starts from a reset state, so
    // the gray level comes out as it was.
    QTest::newRow("simplex") << false << "sheet 1" << "gray ctm font names";
    QTest::newRow("duplex") << true << "sheet 2" << "ctm font names";
}

// Without the key the document's own checks, run right after the marker
// block of the first page, report what the block changed, and page 2 starts
// with the marker font and the marker's names.
void TestSafeOutput::markerBlockLeaksStateWithoutKey()
{
    QFETCH(bool, duplex);
    QFETCH(QString, sheet);
    QFETCH(QString, sheetReport);
    const Job& marked = job(QStringLiteral("state"), CoordinateTemplate, duplex, "LANDSCAPE=1\n");
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));
    QString errors;
    const QStringList reports = stateCheck(marked.output, &errors);
    QVERIFY2(reports.contains(sheet + QStringLiteral(": ") + sheetReport), qPrintable(reports.join(QLatin1Char('\n'))));
    QVERIFY2(reports.contains(QStringLiteral("page 2 start: font names")), qPrintable(reports.join(QLatin1Char('\n'))));
}

void TestSafeOutput::markerBlockKeepsStateWithKey_data()
{
    addSimplexAndDuplexRows();
}

// With the key every check finds the state kept: right after each marker
// block (simplex on the document's pages, duplex on the back pages) the
// gray level, the turned and moved user space, the current font, the
// dictionary stack and the document's names are exactly as before it, and
// every page starts with the document's body font and names.
void TestSafeOutput::markerBlockKeepsStateWithKey()
{
    QFETCH(bool, duplex);
    const Job& marked = job(QStringLiteral("state"), CoordinateTemplate, duplex, "LANDSCAPE=1\n" + SafeOutput);
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));
    QString errors;
    const QStringList reports = stateCheck(marked.output, &errors);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    QStringList expected;
    for (int page = 1; page <= 3; ++page) {
        expected << QStringLiteral("page %1 start: kept").arg(page);
        if (duplex)
            expected << QStringLiteral("sheet %1: kept").arg(2 * page - 1) << QStringLiteral("sheet %1: kept").arg(2 * page);
        else
            expected << QStringLiteral("sheet %1: kept").arg(page);
    }
    QCOMPARE(reports, expected);

    // The marks are there all the same (turned to the page's long edges),
    // and in duplex the document's pages are untouched.
    const Document& input = m_documents[QStringLiteral("state")];
    const QList<GrayPage> pages = renderPages(marked.output, Resolution);
    QCOMPARE(pages.size(), duplex ? 2 * input.pages : input.pages);
    for (int page = 0; page < input.pages; ++page) {
        if (duplex) {
            QCOMPARE(differingPixels(pages.at(2 * page), input.raster.at(page), 0, 0), qint64(0));
            QVERIFY(!inkBounds(pages.at(2 * page + 1)).isNull());
        } else {
            QVERIFY(differingPixels(pages.at(page), input.raster.at(page), 0, 0) > 0);
        }
    }
}

void TestSafeOutput::addCaseRows()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<QByteArray>("markerTemplate");
    QTest::addColumn<bool>("duplex");
    for (const ByteCase& c : byteCases())
        QTest::newRow(c.name) << QString::fromLatin1(c.document) << c.markerTemplate << c.duplex;
}

void TestSafeOutput::onlyOneTurnsItOn_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<QByteArray>("markerTemplate");
    QTest::addColumn<bool>("duplex");
    QTest::addColumn<QByteArray>("variables");
    QTest::addColumn<QByteArray>("definitions");
    for (const ByteCase& c : byteCases()) {
        for (const QByteArray& value : {QByteArray("0"), QByteArray("yes"), QByteArray("true"), QByteArray()}) {
            const QByteArray line = "MarkerSafeOutput=" + value + "\n";
            QTest::addRow("%s, %s in the variables file", c.name, line.trimmed().constData())
                << QString::fromLatin1(c.document) << c.markerTemplate << c.duplex << line << QByteArray();
            QTest::addRow("%s, %s in the definitions file", c.name, line.trimmed().constData())
                << QString::fromLatin1(c.document) << c.markerTemplate << c.duplex << QByteArray() << line;
        }
    }
}

// Any value but "1" leaves the output exactly as without the key, byte for
// byte; "1" changes it.
void TestSafeOutput::onlyOneTurnsItOn()
{
    QFETCH(QString, document);
    QFETCH(QByteArray, markerTemplate);
    QFETCH(bool, duplex);
    QFETCH(QByteArray, variables);
    QFETCH(QByteArray, definitions);
    const Job& classic = job(document, markerTemplate, duplex);
    const Job& other = job(document, markerTemplate, duplex, variables, definitions);
    const Job& safe = job(document, markerTemplate, duplex, SafeOutput);
    for (const Job* run : {&classic, &other, &safe})
        QVERIFY2(run->run.exitCode == 0 && !run->bytes.isEmpty(), qPrintable(describeRun(run->run)));
    QVERIFY2(other.bytes == classic.bytes, qPrintable(firstDifference(other.bytes, classic.bytes)));
    QVERIFY(safe.bytes != classic.bytes);
}

void TestSafeOutput::keyFromDefinitionsOrVariables_data()
{
    addCaseRows();
}

// The key does the same from the marker definitions file as from the job's
// variables file, and what it does shows when Ghostscript prints the result.
void TestSafeOutput::keyFromDefinitionsOrVariables()
{
    QFETCH(QString, document);
    QFETCH(QByteArray, markerTemplate);
    QFETCH(bool, duplex);
    const Job& classic = job(document, markerTemplate, duplex);
    const Job& fromVariables = job(document, markerTemplate, duplex, SafeOutput);
    const Job& fromDefinitions = job(document, markerTemplate, duplex, QByteArray(), SafeOutput);
    for (const Job* run : {&classic, &fromVariables, &fromDefinitions})
        QVERIFY2(run->run.exitCode == 0 && !run->bytes.isEmpty(), qPrintable(describeRun(run->run)));
    QVERIFY2(fromDefinitions.bytes == fromVariables.bytes,
             qPrintable(firstDifference(fromDefinitions.bytes, fromVariables.bytes)));
    QVERIFY(fromDefinitions.bytes != classic.bytes);

    const Document& input = m_documents[document];
    QVERIFY2(!ghostscriptErrors(classic.output).isEmpty()
                 || !compareWithInput(input, renderPages(classic.output, Resolution), duplex).isEmpty(),
             "the classic output prints correctly: the case shows nothing");
    const QString errors = ghostscriptErrors(fromDefinitions.output);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    const QString problem = compareWithInput(input, renderPages(fromDefinitions.output, Resolution), duplex);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));
}

// Without a definitions file in the configuration directory the shipped one
// is read, and it turns the corrections on: the listing prints every page.
void TestSafeOutput::shippedDefinitionsTurnItOn()
{
    const Document& input = m_documents[QStringLiteral("enscript")];
    FixtureTree tree;
    tree.installCatalogue();
    QVERIFY(tree.exists(QStringLiteral("share-cups/quillet/marker.defs")));
    QVERIFY(!tree.exists(QStringLiteral("etc-cups/marker.defs")));
    tree.copy(input.file, QStringLiteral("job/input.ps"));
    tree.write(QStringLiteral("job/marker.tmpl"), UnderlinedMarkTemplate);
    tree.write(QStringLiteral("job/job.vars"), "copies=1\n");
    const RunResult run = tree.runQuillet({QStringLiteral("input.ps"), QStringLiteral("marker.tmpl"),
                                           QStringLiteral("job.vars"), QStringLiteral("output.ps")});
    QVERIFY2(run.exitCode == 0, qPrintable(describeRun(run)));
    const QString output = tree.path(QStringLiteral("job/output.ps"));
    const QString errors = ghostscriptErrors(output);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    QCOMPARE(renderPages(output, Resolution).size(), input.pages);
}

void TestSafeOutput::safeOutputAddsOnlyItsCorrections_data()
{
    QTest::addColumn<QByteArray>("markerTemplate");
    QTest::addColumn<bool>("duplex");
    QTest::newRow("simplex") << MarkTemplate << false;
    QTest::newRow("underlined, duplex") << UnderlinedMarkTemplate << true;
}

// On a document without embedded documents the print-safe output is the
// classic output with its additions taken apart: the definitions right after
// the first line (the real showpage kept under a name of its own, the page
// guard, the procedures of the blocks, and in simplex the showpage that shows
// a page's waiting block) where the classic output redefines showpage after
// the prolog line; the marker fonts made in global VM, with their underline
// metrics; the lines that open and close every marker block; in simplex every
// page's block at the page's start, waiting, and at the page's end the line
// that shows it where the classic output has the block and "showpagereal";
// in duplex the back pages shown marked where the classic output has
// "showpage"; the lines around every insertion and the records of the lines
// that duplex output renumbers. Put back together, it is the classic output
// byte for byte.
void TestSafeOutput::safeOutputAddsOnlyItsCorrections()
{
    QFETCH(QByteArray, markerTemplate);
    QFETCH(bool, duplex);
    const Job& classic = job(QStringLiteral("enscript"), markerTemplate, duplex);
    const Job& safe = job(QStringLiteral("enscript"), markerTemplate, duplex, SafeOutput);
    QVERIFY2(classic.run.exitCode == 0 && !classic.bytes.isEmpty(), qPrintable(describeRun(classic.run)));
    QVERIFY2(safe.run.exitCode == 0 && !safe.bytes.isEmpty(), qPrintable(describeRun(safe.run)));

    const QByteArray begin = "%quillet-insertion-begin\n";
    const QByteArray end = "%quillet-insertion-end\n";
    QList<QByteArray> rest;
    QList<QByteArray> waiting; // the block of the page being copied (simplex)
    int blockOpenings = 0;
    int blockClosings = 0;
    int fontInfos = 0;
    int metricProcedures = 0;
    int heads = 0;
    int guards = 0;
    int insertionLines = 0;
    int globalFonts = 0;
    int records = 0;
    bool prologSeen = false;
    const QList<QByteArray> lines = splitLines(safe.bytes);
    for (int i = 0; i < lines.size(); ++i) {
        const QByteArray& line = lines.at(i);
        // The head's definitions, a whole insertion right after the first line.
        if (i == 1 && line == begin && lines.value(2) == "/QuilletShowPage /showpage load def\n") {
            ++heads;
            insertionLines += 2;
            for (i += 2; i < lines.size() && lines.at(i) != end; ++i) {
                if (lines.at(i).startsWith("<< /EndPage {") && lines.at(i).endsWith("} bind >> setpagedevice\n"))
                    ++guards;
            }
            continue;
        }
        if (!prologSeen && line.startsWith("%%BeginProlog")) {
            prologSeen = true;
            rest.append(line);
            if (!duplex)
                rest << "/showpagereal /showpage load def\n" << "/showpage {} def\n";
            continue;
        }
        if (line == "QuilletBlockBegin\n") {
            ++blockOpenings;
            continue;
        }
        if (line == "QuilletBlockEnd\n") {
            ++blockClosings;
            continue;
        }
        if (line == begin || line == end) {
            ++insertionLines;
            continue;
        }
        if (line == "QuilletGlobal\n" || line == "QuilletEndGlobal\n") {
            ++globalFonts;
            continue;
        }
        // Simplex: the block waits from the page's start and is shown at its end.
        if (!duplex && line == "QuilletGlobal {\n") {
            waiting.clear();
            for (++i; i < lines.size() && lines.at(i) != "} QuilletPageStart\n"; ++i) {
                const QByteArray& blockLine = lines.at(i);
                if (blockLine == "QuilletBlockBegin\n")
                    ++blockOpenings;
                else if (blockLine == "QuilletBlockEnd\n")
                    ++blockClosings;
                else
                    waiting.append(blockLine);
            }
            continue;
        }
        if (!duplex && line == "QuilletShowPending\n") {
            rest << waiting << "showpagereal\n";
            continue;
        }
        if (duplex && line == "QuilletShowMarkedPage\n") {
            rest.append("showpage\n");
            continue;
        }
        // Duplex: what keeps the document's state and paper around a back
        // page, and ends the job after the last one.
        if (duplex && (line == "QuilletBackPageStart\n" || line == "QuilletBackPageEnd\n" ||
                       line == "QuilletJobEnd\n"))
            continue;
        if (line.startsWith("%quillet-replaced: ")) {
            ++records;
            continue;
        }
        if (line == "/markerUnderlineMetric {\n" || line == "/FontInfo 2 dict dup begin\n") {
            (line.startsWith("/FontInfo") ? fontInfos : metricProcedures) += 1;
            const QByteArray last = line.startsWith("/FontInfo") ? "end def\n" : "} bind def\n";
            while (i < lines.size() && lines.at(i) != last)
                ++i;
            continue;
        }
        rest.append(line);
    }
    const int pages = m_documents.value(QStringLiteral("enscript")).pages;
    QCOMPARE(heads, 1);
    QCOMPARE(guards, 1);
    QCOMPARE(blockOpenings, pages);
    QCOMPARE(blockClosings, pages);
    QCOMPARE(globalFonts, 2);
    // The head, the fonts and every page are insertions, in simplex two per
    // page; duplex output renumbers every page after the first.
    QCOMPARE(insertionLines, 2 * (2 + (duplex ? 1 : 2) * pages));
    QVERIFY2(duplex ? records >= pages - 1 : records == 0, qPrintable(QString::number(records)));
    QCOMPARE(metricProcedures, 1);
    // One composite font per style that the template uses.
    QCOMPARE(fontInfos, markerTemplate.contains(":bold:") ? 2 : 1);
    const QByteArray remaining = rest.join();
    QVERIFY2(remaining == classic.bytes, qPrintable(firstDifference(remaining, classic.bytes)));
}

namespace {

// Rows of the route and structure documents: `route` when the document shows
// a page by another route than its own showpage, or more than one page
// within one of its pages (in duplex, where the marks go on the back pages,
// that leaves a sheet without them). With
// classicFailuresOnly, only the rows whose classic output misplaces or drops
// marks (an unclosed embedded document broke only the earlier print-safe
// scan).
void addRouteRows(bool classicFailuresOnly)
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<bool>("duplex");
    QTest::addColumn<bool>("route");

    for (const bool duplex : {false, true}) {
        const char* mode = duplex ? "duplex" : "simplex";
        // In duplex the document's showpage is the real one, so a showpage
        // taken before the prolog is no other route there.
        for (const char* route : {"route-systemdict", "route-early-showpage", "route-copypage"}) {
            if (!classicFailuresOnly || !duplex || qstrcmp(route, "route-early-showpage") != 0)
                QTest::addRow("%s, %s", route, mode) << QString::fromLatin1(route) << duplex << true;
        }
        for (const char* document : {"late-prolog", "unclosed-document", "eof-in-page", "mixed-page-trailers",
                                     "conflicting-fonts"}) {
            const bool classicFails = qstrcmp(document, "unclosed-document") != 0;
            if (classicFails || !classicFailuresOnly)
                QTest::addRow("%s, %s", document, mode) << QString::fromLatin1(document) << duplex << false;
        }
    }
}

// The first rendered page without ink in both margin bands; empty when every
// page carries the marks. In duplex every second page (the back pages) must
// carry them, and the pages come in pairs.
QString unmarkedPage(const QList<GrayPage>& pages, bool duplex)
{
    if (duplex && pages.size() % 2 != 0)
        return QStringLiteral("%1 pages: not pairs of a document page and its back page").arg(pages.size());
    for (int i = duplex ? 1 : 0; i < pages.size(); i += duplex ? 2 : 1) {
        const GrayPage& page = pages.at(i);
        const int topBand = pointsToPixels(TopBandPoints, Resolution);
        const int bottomBand = pointsToPixels(BottomBandPoints, Resolution);
        if (inkPixels(page, QRect(0, 0, page.width, topBand)) == 0
            || inkPixels(page, QRect(0, page.height - bottomBand, page.width, bottomBand)) == 0)
            return QStringLiteral("page %1 of %2 is shown without the marks").arg(i + 1).arg(pages.size());
    }
    return QString();
}

} // namespace

void TestSafeOutput::unmarkedPagesWithoutKey_data()
{
    addRouteRows(true);
}

// Without the key a page shown by another route carries no marks, and the
// misleading structures misplace the marks, drop pages or stop the job.
void TestSafeOutput::unmarkedPagesWithoutKey()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    QFETCH(bool, route);

    const Document& input = m_documents[document];
    const Job& marked = job(document, MarkTemplate, duplex);
    QString renderError;
    const QList<GrayPage> pages = renderPages(marked.output, Resolution, &renderError);
    if (route) {
        QVERIFY2(marked.run.exitCode == 0 && renderError.isEmpty(), qPrintable(describeRun(marked.run) + renderError));
        QVERIFY(!unmarkedPage(pages, duplex).isEmpty());
    } else {
        QVERIFY(!compareWithInput(input, pages, duplex).isEmpty() || !renderError.isEmpty());
    }
}

void TestSafeOutput::everyShownPageMarkedWithKey_data()
{
    addRouteRows(false);
}

// With the key every page that Ghostscript shows carries the marks (duplex:
// every document page is followed by its marked back page). A page shown by
// another route is not shown at all (the guard refuses it); the documents
// with misleading structure print page for page as the input, with the marks
// in the bands (duplex: on the back pages).
void TestSafeOutput::everyShownPageMarkedWithKey()
{
    QFETCH(QString, document);
    QFETCH(bool, duplex);
    QFETCH(bool, route);

    const Document& input = m_documents[document];
    const Job& marked = job(document, MarkTemplate, duplex, SafeOutput);
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));
    const QString errors = ghostscriptErrors(marked.output);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    QString renderError;
    const QList<GrayPage> pages = renderPages(marked.output, Resolution, &renderError);
    QVERIFY2(renderError.isEmpty(), qPrintable(renderError));
    if (route) {
        QVERIFY(pages.size() >= (duplex ? 2 : 1) * (input.pages - 1));
        const QString problem = unmarkedPage(pages, duplex);
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
    } else {
        const QString problem = compareWithInput(input, pages, duplex);
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
    }
}

void TestSafeOutput::hostileDocumentMarkedOrRefused_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<int>("pages");
    QTest::addColumn<bool>("refused");
    for (const HostileDocument& hostile : hostileDocuments())
        QTest::newRow(hostile.name) << QString::fromLatin1(hostile.name) << hostile.pages << hostile.refused;
}

// Every sheet that Ghostscript shows of a document written against the marks
// carries them exactly as a plain document of as many pages gets them:
// upright, at their size, black on white, one marked sheet per page. Or the
// filter refuses the document and writes nothing.
void TestSafeOutput::hostileDocumentMarkedOrRefused()
{
    QFETCH(QString, document);
    QFETCH(int, pages);
    QFETCH(bool, refused);

    const Job& marked = job(document, MarkTemplate, false, SafeOutput);
    if (refused) {
        QVERIFY2(!marked.run.crashed && marked.run.exitCode == 1, qPrintable(describeRun(marked.run)));
        QVERIFY2(marked.run.standardError.contains("is not a comment that ends at its line feed"),
                 qPrintable(describeRun(marked.run)));
        QVERIFY(!marked.tree->exists(QStringLiteral("job/output.ps")));
        return;
    }
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));
    const QString errors = ghostscriptErrors(marked.output);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    const QList<GrayPage> sheets = renderPages(marked.output, Resolution);
    const Job& plain = job(QStringLiteral("plain-%1").arg(pages), MarkTemplate, false, SafeOutput);
    QVERIFY2(plain.run.exitCode == 0, qPrintable(describeRun(plain.run)));
    const QList<GrayPage> expected = renderPages(plain.output, Resolution);
    QCOMPARE(expected.size(), pages);
    QCOMPARE(sheets.size(), pages);
    for (int sheet = 0; sheet < pages; ++sheet) {
        const GrayPage& page = sheets.at(sheet);
        QCOMPARE(page.width, expected.at(sheet).width);
        QCOMPARE(page.height, expected.at(sheet).height);
        const int topBand = pointsToPixels(TopBandPoints, Resolution);
        const int bottomBand = pointsToPixels(BottomBandPoints, Resolution);
        for (const QRect& band : {QRect(0, 0, page.width, topBand),
                                  QRect(0, page.height - bottomBand, page.width, bottomBand)}) {
            QVERIFY2(inkPixels(page, band) > 0, qPrintable(QStringLiteral("sheet %1 has no marks").arg(sheet + 1)));
            const qint64 differing = differingPixels(page, expected.at(sheet), band);
            QVERIFY2(differing == 0, qPrintable(QStringLiteral("the marks of sheet %1 differ from a plain page's in %2 "
                                                               "pixels")
                                                    .arg(sheet + 1)
                                                    .arg(differing)));
        }
    }
}

void TestSafeOutput::hostileDocumentInDuplex_data()
{
    QTest::addColumn<QString>("document");
    QTest::addColumn<int>("pages");
    for (const HostileDocument& hostile : hostileDocuments()) {
        if (!hostile.refused)
            QTest::newRow(hostile.name) << QString::fromLatin1(hostile.name) << hostile.pages;
    }
}

// In duplex the same documents print one sheet of paper per page: a front,
// then its back page carrying the marks; no sheet more, whatever the page
// shows and restores.
void TestSafeOutput::hostileDocumentInDuplex()
{
    QFETCH(QString, document);
    QFETCH(int, pages);
    const Job& marked = job(document, MarkTemplate, true, SafeOutput);
    QVERIFY2(marked.run.exitCode == 0 && !marked.bytes.isEmpty(), qPrintable(describeRun(marked.run)));
    const QString errors = ghostscriptErrors(marked.output);
    QVERIFY2(errors.isEmpty(), qPrintable(errors));
    const QList<GrayPage> sheets = renderPages(marked.output, Resolution);
    QCOMPARE(sheets.size(), 2 * pages);
    const int topBand = pointsToPixels(TopBandPoints, Resolution);
    const int bottomBand = pointsToPixels(BottomBandPoints, Resolution);
    for (int back = 1; back < sheets.size(); back += 2) {
        const GrayPage& page = sheets.at(back);
        for (const QRect& band : {QRect(0, 0, page.width, topBand),
                                  QRect(0, page.height - bottomBand, page.width, bottomBand)})
            QVERIFY2(inkPixels(page, band) > 0, qPrintable(QStringLiteral("sheet %1 has no marks").arg(back + 1)));
    }
}

QTEST_GUILESS_MAIN(TestSafeOutput)
#include "tst_safeoutput.moc"
