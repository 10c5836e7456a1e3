// The output writer, end to end: quillet runs in the sandbox on small
// hand-written documents with a tiny fixture catalogue (one charset covering
// 0000-00FF, two stand-in fonts) whose marker definitions fix DATE and TIME.
//
// A marker text is observed through the hexadecimal string that measures it:
// with that catalogue every character is written as its own code point.
#include "documentlines.h"

#include "support/testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QTest>

namespace {

// A document of `pages` pages closed by "%%PageTrailer" lines.
QByteArray pagedDocument(int pages)
{
    QByteArrayList content = {"%!PS-Adobe-3.0", "%%Pages: (atend)", "%%EndComments", "%%BeginProlog",
                              "%%EndProlog"};
    for (int page = 1; page <= pages; ++page) {
        const QByteArray n = QByteArray::number(page);
        content << "%%Page: " + n + ' ' + n << "(content " + n + ") pop" << "showpage" << "%%PageTrailer";
    }
    content << "%%Trailer" << "%%Pages: " + QByteArray::number(pages) << "%%EOF";
    return lines(content);
}

// The same shape without "%%PageTrailer": pages end where the next begins.
QByteArray trailerDocument(int pages)
{
    QByteArrayList content = {"%!PS-Adobe-3.0", "%%Pages: " + QByteArray::number(pages), "%%EndComments",
                              "%%BeginProlog", "%%EndProlog"};
    for (int page = 1; page <= pages; ++page) {
        const QByteArray n = QByteArray::number(page);
        content << "%%Page: " + n + ' ' + n << "(content " + n + ") pop" << "showpage";
    }
    content << "%%Trailer" << "%%Pages: " + QByteArray::number(pages) << "%%EOF";
    return lines(content);
}

// One fixture tree with the tiny catalogue and a job in job/.
struct Job
{
    FixtureTree tree;

    Job(const QByteArray& document, const QByteArray& templateText, const QByteArray& variables)
    {
        tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
        tree.write(QStringLiteral("job/in.ps"), document);
        tree.write(QStringLiteral("job/template"), templateText);
        tree.write(QStringLiteral("job/vars"), variables);
    }

    // Runs quillet with the logging facility's warnings off, so that standard
    // error holds only what the program reports itself.
    RunResult run(bool duplex = false, const QString& output = QStringLiteral("out.ps")) const
    {
        QStringList arguments;
        if (duplex)
            arguments << QStringLiteral("--duplex");
        arguments << QStringLiteral("in.ps") << QStringLiteral("template") << QStringLiteral("vars") << output;
        return tree.runQuillet(arguments, {QStringLiteral("QT_LOGGING_RULES=*.warning=false")});
    }

    QByteArray output() const { return tree.read(QStringLiteral("job/out.ps")); }
    QByteArray variables() const { return tree.read(QStringLiteral("job/vars")); }
};

QMap<QByteArray, QByteArray> keyValues(const QByteArray& text)
{
    QMap<QByteArray, QByteArray> pairs;
    for (const QByteArray& line : text.split('\n')) {
        const int equals = line.indexOf('=');
        if (equals > 0)
            pairs.insert(line.left(equals), line.mid(equals + 1));
    }
    return pairs;
}

// The texts that a piece of output measures and paints, decoded from their
// hexadecimal strings (four digits per character, charset 0 only).
QStringList paintedTexts(const QByteArray& part)
{
    static const QRegularExpression measured(QStringLiteral("newpath 0 0 moveto <([0-9a-f]*)> dup true charpath"));
    QStringList texts;
    auto it = measured.globalMatch(QString::fromLatin1(part));
    while (it.hasNext()) {
        const QString hex = it.next().captured(1);
        QString text;
        for (int i = 0; i + 4 <= hex.size(); i += 4)
            text += QChar(hex.midRef(i, 4).toUShort(nullptr, 16));
        texts << text;
    }
    return texts;
}

// The marker blocks of an output, in order: each from "% Common variables:"
// to the next one (or the end).
QByteArrayList markerBlocks(const QByteArray& output)
{
    const QByteArray start = "% Common variables:\n";
    QByteArrayList blocks;
    int from = output.indexOf(start);
    while (from >= 0) {
        const int next = output.indexOf(start, from + start.size());
        blocks << output.mid(from, next < 0 ? -1 : next - from);
        from = next;
    }
    return blocks;
}

// The painted texts page by page.
QList<QStringList> textsPerPage(const QByteArray& output)
{
    QList<QStringList> pages;
    for (const QByteArray& block : markerBlocks(output))
        pages << paintedTexts(block);
    return pages;
}

QByteArrayList pageLabels(const QByteArray& output)
{
    QByteArrayList labels;
    for (const QByteArray& line : output.split('\n')) {
        if (line.startsWith("%%Page:"))
            labels << line;
    }
    return labels;
}

// Removes every piece that starts with `from` and ends after `to`.
QByteArray removeAll(QByteArray text, const QByteArray& from, const QByteArray& to)
{
    for (int start = text.indexOf(from); start >= 0; start = text.indexOf(from, start)) {
        const int end = text.indexOf(to, start + from.size());
        if (end < 0)
            break;
        text.remove(start, end + to.size() - start);
    }
    return text;
}

// The marker font resources as the tiny catalogue gives them for style 0:
// they run from the first font resource to the composite font's definition.
QByteArray withoutFontResources(const QByteArray& output)
{
    return removeAll(output, "%%BeginResource: font TinySans\n", "/Marker-Normal exch definefont pop\n");
}

const QByteArray PageNumberTemplate = "any:normal:12::top-left:{CURRENT_PAGE}/{CURRENT_PAGE_CONTINUOUS}\n";
const QByteArray ShowpageRedefinition = "/showpagereal /showpage load def\n/showpage {} def\n";
// Print-safe insertions stand between these lines; print-safe output puts
// its definitions (the page guard among them) in one right after the first
// line.
const QByteArray InsertionBegin = "%quillet-insertion-begin\n";
const QByteArray InsertionEnd = "%quillet-insertion-end\n";

} // namespace

class TestDocumentWriter : public QObject
{
    Q_OBJECT

private slots:
    void fatalMessages_data();
    void fatalMessages();

    void pageSizeRequest_data();
    void pageSizeRequest();

    void pageCounts_data();
    void pageCounts();
    void continuousPageNumbers_data();
    void continuousPageNumbers();
    void continuousPageNumbersAsPrinted();

    void simplexPageStructure();
    void lastPageStrings_data();
    void lastPageStrings();

    void duplexInsertsNumberedBackPages();
    void duplexWithoutPageTrailers();
    void duplexSinglePageEndsOnTrailer();

    void variablesFileAfterRun();

    void rawBytesSurvive_data();
    void rawBytesSurvive();
    void nonMatchingResourceMovesInsertionsOneLineEarly_data();
    void nonMatchingResourceMovesInsertionsOneLineEarly();
};

// The template file's own open failure in the document filter cannot be
// provoked: start-up reads the same file just before and reports its own
// message first, so only a change between the two opens could reach it.
void TestDocumentWriter::fatalMessages_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<bool>("inputIsFolder");
    QTest::addColumn<bool>("variablesReadOnly");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<bool>("variablesTruncated");
    QTest::addColumn<bool>("outputCreated");

    const QByteArray good = pagedDocument(1);
    const QByteArray pageless = lines({"%!PS-Adobe-3.0", "%%Page: 1 1", "showpage"});
    const QString out = QStringLiteral("out.ps");
    const QString lost = QStringLiteral("missing/out.ps");

    QTest::newRow("a folder as input cannot be opened")
        << QByteArray() << true << false << out << QByteArray("Can not open input file in.ps\n") << false << false;
    QTest::newRow("the input is opened before the variables file and the output")
        << QByteArray() << true << true << lost << QByteArray("Can not open input file in.ps\n") << false << false;
    QTest::newRow("a variables file that cannot be written")
        << good << false << true << out << QByteArray("Can not open variables file vars\n") << false << false;
    QTest::newRow("the variables file is opened before the output")
        << good << false << true << lost << QByteArray("Can not open variables file vars\n") << false << false;
    QTest::newRow("an output in a missing folder; the variables file is already emptied")
        << good << false << false << lost << QByteArray("Can not open output file missing/out.ps for writing\n")
        << true << false;
    QTest::newRow("the output is opened before the document is scanned")
        << pageless << false << false << lost
        << QByteArray("Can not open output file missing/out.ps for writing\n") << true << false;
    QTest::newRow("a document without page ends leaves both files empty")
        << pageless << false << false << out << QByteArray("No pages was found in file in.ps\n") << true << true;
    QTest::newRow("a missing marker font file is reported during the scan, before the page count")
        << lines({"%!PS-Adobe-3.0", "%%BeginResource: font TinySans", "x", "%%EndResource", "%%Page: 1 1"})
        << false << false << out << QByteArray("Can not open marker font file /usr/share/cups/fonts/TinySans\n")
        << true << true;
}

void TestDocumentWriter::fatalMessages()
{
    QFETCH(QByteArray, document);
    QFETCH(bool, inputIsFolder);
    QFETCH(bool, variablesReadOnly);
    QFETCH(QString, output);
    QFETCH(QByteArray, message);
    QFETCH(bool, variablesTruncated);
    QFETCH(bool, outputCreated);

    const QByteArray variables = "copies=1\nCURRENT_COPY=1\n";
    Job job(document, "any:normal:12::top-left:x\n", variables);
    if (inputIsFolder) {
        QVERIFY(QFile::remove(job.tree.path(QStringLiteral("job/in.ps"))));
        QVERIFY(QDir().mkpath(job.tree.path(QStringLiteral("job/in.ps"))));
    }
    if (message.contains("marker font file"))
        QVERIFY(QFile::remove(job.tree.path(QStringLiteral("share-cups/fonts/TinySans"))));

    const QStringList arguments = {QStringLiteral("in.ps"), QStringLiteral("template"), QStringLiteral("vars"),
                                   output};
    const QStringList quiet = {QStringLiteral("QT_LOGGING_RULES=*.warning=false")};
    RunResult run;
    if (variablesReadOnly) {
        // A read-only bind mount of the variables file: readable at start-up,
        // not writable afterwards, whoever runs the program.
        const QString script = QStringLiteral("mount --bind vars vars && mount -o remount,ro,bind vars && exec \"$@\"");
        run = job.tree.runInSandbox(QStringLiteral("/bin/sh"),
                                    QStringList{QStringLiteral("-c"), script, QStringLiteral("sh"),
                                                quilletExecutable()}
                                        + arguments,
                                    quiet);
    } else {
        run = job.tree.runQuillet(arguments, quiet);
    }

    QVERIFY(!run.crashed);
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.standardError, message);
    QCOMPARE(job.variables(), variablesTruncated ? QByteArray() : variables);
    const QString outputPath = job.tree.path(QStringLiteral("job/") + output);
    QCOMPARE(QFileInfo::exists(outputPath), outputCreated);
    if (outputCreated)
        QCOMPARE(readFile(outputPath), QByteArray());
}

void TestDocumentWriter::pageSizeRequest_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QByteArray>("variables");
    QTest::addColumn<bool>("duplex");
    QTest::addColumn<QByteArray>("expectedHead");

    const QByteArray document = pagedDocument(1);
    const QByteArray before = "%!PS-Adobe-3.0\n%%Pages: (atend)\n%%EndComments\n%%BeginProlog\n";
    const QByteArray after = "%%EndProlog\n%%BeginResource: font TinySans\n";
    const QByteArray sizes = "DEVICEWIDTH=595\nDEVICEHEIGHT=842\n";
    const QByteArray request = "<< /PageSize [ 595 842 ] /ImagingBBox null >> setpagedevice\n";

    QTest::newRow("PAGE_FORMAT A4: no page size request")
        << document << "PAGE_FORMAT=A4\n" + sizes << false << before + ShowpageRedefinition + after;
    QTest::newRow("PAGE_FORMAT empty: no page size request")
        << document << "PAGE_FORMAT=\n" + sizes << false << before + ShowpageRedefinition + after;
    QTest::newRow("PAGE_FORMAT absent: no page size request")
        << document << sizes << false << before + ShowpageRedefinition + after;
    QTest::newRow("PAGE_FORMAT a4 in other case: a request after the showpage redefinition")
        << document << "PAGE_FORMAT=a4\n" + sizes << false << before + ShowpageRedefinition + request + after;
    QTest::newRow("the device size is inserted as it stands")
        << document << QByteArray("PAGE_FORMAT=Letter\nDEVICEWIDTH=612.0\nDEVICEHEIGHT=792pt\n") << false
        << before + ShowpageRedefinition
               + "<< /PageSize [ 612.0 792pt ] /ImagingBBox null >> setpagedevice\n" + after;
    QTest::newRow("an absent device size leaves the request's numbers empty")
        << document << QByteArray("PAGE_FORMAT=A3\n") << false
        << before + ShowpageRedefinition + "<< /PageSize [   ] /ImagingBBox null >> setpagedevice\n" + after;
    QTest::newRow("duplex: the request without a showpage redefinition")
        << document << "PAGE_FORMAT=a4\n" + sizes << true << before + request + after;
    QTest::newRow("duplex, PAGE_FORMAT A4: the head is copied as it is")
        << document << "PAGE_FORMAT=A4\n" + sizes << true << before + after;
    QTest::newRow("without %%BeginProlog the insertions follow the first line")
        << lines({"%!PS-Adobe-3.0", "%%Pages: 1", "%%Page: 1 1", "showpage", "%%PageTrailer"})
        << "PAGE_FORMAT=a4\n" + sizes << false
        << "%!PS-Adobe-3.0\n" + ShowpageRedefinition + request + "%%Pages: 1\n%%BeginResource: font TinySans\n";

    // Print-safe output: only plain positive numbers reach the request; with
    // anything else the request is left out (the device's own paper). The
    // request stands in the definitions after the first line (the expected
    // head is the output without them).
    const QByteArray safe = "MarkerSafeOutput=1\nPAGE_FORMAT=Letter\n";
    const QByteArray safeHead = before + "%%EndProlog\n" + InsertionBegin + "QuilletGlobal\n%%BeginResource: font TinySans\n";
    QTest::newRow("print-safe: plain numbers are requested")
        << document << safe + "DEVICEWIDTH=612\nDEVICEHEIGHT=792.5\n" << false
        << safeHead + "<< /PageSize [ 612 792.5 ] /ImagingBBox null >> setpagedevice\n";
    QTest::newRow("print-safe: PostScript in a device size is not copied")
        << document << safe + "DEVICEWIDTH=612 ] >> setpagedevice erasepage [ 1\nDEVICEHEIGHT=792\n" << false
        << safeHead;
    QTest::newRow("print-safe: a unit after the number")
        << document << safe + "DEVICEWIDTH=612\nDEVICEHEIGHT=792pt\n" << false << safeHead;
    QTest::newRow("print-safe: an absent device size")
        << document << safe + "DEVICEWIDTH=612\n" << false << safeHead;
    QTest::newRow("print-safe: not a finite number")
        << document << safe + "DEVICEWIDTH=nan\nDEVICEHEIGHT=inf\n" << false << safeHead;
    QTest::newRow("print-safe: zero and negative sizes")
        << document << safe + "DEVICEWIDTH=0\nDEVICEHEIGHT=-792\n" << false << safeHead;
    QTest::newRow("print-safe: more digits than any paper")
        << document << safe + "DEVICEWIDTH=" + QByteArray(400, '9') + "\nDEVICEHEIGHT=792\n" << false << safeHead;
    QTest::newRow("print-safe, duplex: a bad device size is left out")
        << document << safe + "DEVICEWIDTH=(x)\nDEVICEHEIGHT=792\n" << true << safeHead;
}

void TestDocumentWriter::pageSizeRequest()
{
    QFETCH(QByteArray, document);
    QFETCH(QByteArray, variables);
    QFETCH(bool, duplex);
    QFETCH(QByteArray, expectedHead);

    Job job(document, "any:normal:12::top-left:x\n", variables);
    const RunResult run = job.run(duplex);
    QCOMPARE(run.exitCode, 0);
    QByteArray output = job.output();
    // Print-safe: the definitions after the first line hold the guard's
    // setpagedevice and the request, if any, on a line of its own.
    int setPageDevices = 0;
    const int definitions = output.indexOf('\n') + 1;
    if (output.mid(definitions).startsWith(InsertionBegin)) {
        const int definitionsEnd = output.indexOf(InsertionEnd, definitions) + InsertionEnd.size();
        QVERIFY(definitionsEnd > definitions);
        const QByteArray inserted = output.mid(definitions, definitionsEnd - definitions);
        output.remove(definitions, definitionsEnd - definitions);
        const int request = expectedHead.indexOf("<< /PageSize");
        if (request >= 0) {
            const QByteArray line = expectedHead.mid(request);
            QVERIFY2(inserted.contains('\n' + line), inserted.constData());
            expectedHead.chop(line.size());
        }
        // Statements, not the procedures that hold the operator.
        for (const QByteArray& statement : inserted.split('\n'))
            setPageDevices += statement.endsWith("setpagedevice") ? 1 : 0;
        setPageDevices -= request >= 0 ? 1 : 0;
        QCOMPARE(setPageDevices, 1);
    }
    QVERIFY2(output.startsWith(expectedHead), qPrintable(firstDifference(output.left(expectedHead.size()),
                                                                         expectedHead)));
    QCOMPARE(output.count("setpagedevice"), expectedHead.count("setpagedevice"));
}

void TestDocumentWriter::pageCounts_data()
{
    QTest::addColumn<QByteArray>("variables");
    QTest::addColumn<QByteArray>("continuous");

    QTest::newRow("copies missing: continuous count equals the page count") << QByteArray() << QByteArray("3");
    QTest::newRow("copies 2: twice the page count") << QByteArray("copies=2\n") << QByteArray("6");
    QTest::newRow("copies not a number: 0") << QByteArray("copies=x\n") << QByteArray("0");
    QTest::newRow("copies empty: 0") << QByteArray("copies=\n") << QByteArray("0");
    QTest::newRow("copies read in base 10 only") << QByteArray("copies=0x2\n") << QByteArray("0");
    QTest::newRow("copies negative: passed on") << QByteArray("copies=-1\n") << QByteArray("-3");
    // Page arithmetic never overflows: a count whose product does not fit in
    // 64 bits counts as 0, like text that is not a number.
    QTest::newRow("copies as large as the product allows")
        << QByteArray("copies=3074457345618258602\n") << QByteArray("9223372036854775806");
    QTest::newRow("copies whose product overflows: 0")
        << QByteArray("copies=3074457345618258603\n") << QByteArray("0");
    QTest::newRow("copies at the largest 64-bit number: 0")
        << QByteArray("copies=9223372036854775807\n") << QByteArray("0");
    QTest::newRow("copies at the smallest 64-bit number: 0")
        << QByteArray("copies=-9223372036854775808\n") << QByteArray("0");
    QTest::newRow("copies beyond 64 bits is not a number: 0")
        << QByteArray("copies=99999999999999999999\n") << QByteArray("0");
}

void TestDocumentWriter::pageCounts()
{
    QFETCH(QByteArray, variables);
    QFETCH(QByteArray, continuous);

    Job job(pagedDocument(3), "any:normal:12::top-left:{NUM_PAGES_CONTINUOUS}\n", variables);
    QCOMPARE(job.run().exitCode, 0);
    const QMap<QByteArray, QByteArray> written = keyValues(job.variables());
    QCOMPARE(written.value("NUM_PAGES"), QByteArray("3"));
    QCOMPARE(written.value("NUM_PAGES_CONTINUOUS"), continuous);
    // The markers print the same count.
    const QString painted = QString::fromLatin1(continuous);
    QCOMPARE(textsPerPage(job.output()), (QList<QStringList>{{painted}, {painted}, {painted}}));
}

void TestDocumentWriter::continuousPageNumbers_data()
{
    QTest::addColumn<QByteArray>("variables");
    QTest::addColumn<bool>("duplex");
    QTest::addColumn<QList<QStringList>>("texts");

    QTest::newRow("CURRENT_COPY 2 with 3 pages: 4, 5, 6")
        << QByteArray("CURRENT_COPY=2\n") << false << QList<QStringList>{{"1/4"}, {"2/5"}, {"3/6"}};
    QTest::newRow("CURRENT_COPY 1: 1, 2, 3")
        << QByteArray("CURRENT_COPY=1\n") << false << QList<QStringList>{{"1/1"}, {"2/2"}, {"3/3"}};
    QTest::newRow("CURRENT_COPY absent: page number minus page count")
        << QByteArray("copies=2\n") << false << QList<QStringList>{{"1/-2"}, {"2/-1"}, {"3/0"}};
    QTest::newRow("CURRENT_COPY not a number counts as 0")
        << QByteArray("CURRENT_COPY=two\n") << false << QList<QStringList>{{"1/-2"}, {"2/-1"}, {"3/0"}};
    QTest::newRow("duplex: the back pages carry the numbers of their pages")
        << QByteArray("CURRENT_COPY=2\n") << true << QList<QStringList>{{"1/4"}, {"2/5"}, {"3/6"}};
    // Page arithmetic never overflows: a copy number whose page numbers do not
    // fit in 64 bits counts as 0, like text that is not a number.
    QTest::newRow("CURRENT_COPY as large as the page numbers allow")
        << QByteArray("CURRENT_COPY=3074457345618258602\n") << false
        << QList<QStringList>{{"1/9223372036854775804"}, {"2/9223372036854775805"}, {"3/9223372036854775806"}};
    QTest::newRow("CURRENT_COPY whose page numbers overflow counts as 0")
        << QByteArray("CURRENT_COPY=3074457345618258603\n") << false
        << QList<QStringList>{{"1/-2"}, {"2/-1"}, {"3/0"}};
    QTest::newRow("CURRENT_COPY at the largest 64-bit number counts as 0")
        << QByteArray("CURRENT_COPY=9223372036854775807\n") << false
        << QList<QStringList>{{"1/-2"}, {"2/-1"}, {"3/0"}};
    QTest::newRow("CURRENT_COPY at the smallest 64-bit number counts as 0")
        << QByteArray("CURRENT_COPY=-9223372036854775808\n") << true
        << QList<QStringList>{{"1/-2"}, {"2/-1"}, {"3/0"}};
    QTest::newRow("CURRENT_COPY as small as the page numbers allow")
        << QByteArray("CURRENT_COPY=-3074457345618258601\n") << false
        << QList<QStringList>{{"1/-9223372036854775805"}, {"2/-9223372036854775804"}, {"3/-9223372036854775803"}};
}

void TestDocumentWriter::continuousPageNumbers()
{
    QFETCH(QByteArray, variables);
    QFETCH(bool, duplex);
    QFETCH(QList<QStringList>, texts);

    Job job(pagedDocument(3), PageNumberTemplate, variables);
    QCOMPARE(job.run(duplex).exitCode, 0);
    QCOMPARE(textsPerPage(job.output()), texts);
}

void TestDocumentWriter::continuousPageNumbersAsPrinted()
{
    if (!haveProgram(QStringLiteral("ps2pdf")) || !haveProgram(QStringLiteral("pdftotext")))
        QSKIP("ps2pdf and pdftotext are needed to print the output");

    // The default catalogue's real fonts, so that the markers can be read back.
    FixtureTree tree;
    tree.copy(catalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("job/in.ps"), pagedDocument(3));
    tree.write(QStringLiteral("job/template"), "any:normal:14::top-left:Sheet {CURRENT_PAGE_CONTINUOUS}\n");
    tree.write(QStringLiteral("job/vars"), "copies=2\nCURRENT_COPY=2\n");
    const RunResult run = tree.runQuillet({"in.ps", "template", "vars", "out.ps"});
    QCOMPARE(run.exitCode, 0);

    const QString pdf = tree.path(QStringLiteral("job/out.pdf"));
    const RunResult converted = runProgram(QStringLiteral("ps2pdf"), {tree.path(QStringLiteral("job/out.ps")), pdf});
    QVERIFY2(converted.exitCode == 0, converted.standardError.constData());
    for (int page = 1; page <= 3; ++page) {
        const QString number = QString::number(page);
        const RunResult text = runProgram(QStringLiteral("pdftotext"),
                                          {QStringLiteral("-f"), number, QStringLiteral("-l"), number, pdf,
                                           QStringLiteral("-")});
        QCOMPARE(text.exitCode, 0);
        QCOMPARE(text.standardOutput.trimmed(), "Sheet " + QByteArray::number(page + 3));
    }
    const RunResult beyond = runProgram(QStringLiteral("pdftotext"),
                                        {QStringLiteral("-f"), QStringLiteral("4"), QStringLiteral("-l"),
                                         QStringLiteral("4"), pdf, QStringLiteral("-")});
    QVERIFY(beyond.standardOutput.trimmed().isEmpty());
}

void TestDocumentWriter::simplexPageStructure()
{
    // The trailer's "%%Pages:" line also gives the page order.
    QByteArray document = trailerDocument(3);
    document.replace("%%Trailer\n%%Pages: 3\n", "%%Trailer\n%%Pages: 3 1\n");
    Job job(document, "any:normal:12::top-left:{CURRENT_PAGE}\n", "copies=1\n");
    QCOMPARE(job.run().exitCode, 0);
    const QByteArray output = job.output();

    // The head, the showpage redefinition after the prolog line, then the
    // fonts just before the first page.
    QVERIFY(output.startsWith("%!PS-Adobe-3.0\n%%Pages: 3\n%%EndComments\n%%BeginProlog\n" + ShowpageRedefinition
                              + "%%EndProlog\n%%BeginResource: font TinySans\n"));
    QVERIFY(output.contains("/Marker-Normal exch definefont pop\n%%Page: 1 1\n(content 1) pop\nshowpage\n"
                            "% Common variables:\n"));
    // Each page: its lines, the marker, the real showpage, then the next
    // page's "%%Page:" line unchanged; the last page ends before the trailer.
    QCOMPARE(output.count("showpagereal\n"), 3);
    QVERIFY(output.contains("showpagereal\n%%Page: 2 2\n(content 2) pop\nshowpage\n% Common variables:\n"));
    QVERIFY(output.contains("showpagereal\n%%Page: 3 3\n(content 3) pop\nshowpage\n% Common variables:\n"));
    // "%%Pages:" lines stay as they are in simplex mode.
    QVERIFY(output.endsWith("showpagereal\n%%Trailer\n%%Pages: 3 1\n%%EOF\n"));
    QCOMPARE(textsPerPage(output), (QList<QStringList>{{"1"}, {"2"}, {"3"}}));

    // Taking the insertions out gives the input back.
    QByteArray rest = withoutFontResources(output);
    rest = removeAll(rest, "% Common variables:\n", "showpagereal\n");
    rest.replace(ShowpageRedefinition, QByteArray());
    QCOMPARE(rest, document);
}

void TestDocumentWriter::lastPageStrings_data()
{
    QTest::addColumn<int>("pages");
    QTest::addColumn<bool>("duplex");
    QTest::addColumn<QByteArray>("templateText");
    QTest::addColumn<QList<QStringList>>("texts");

    const QByteArray lastAndAny = "last:normal:12::top-left:LAST\nany:normal:12::top-left:ANY\n";
    const QByteArray all = "first:normal:12::top-left:FIRST\n" + lastAndAny;
    QTest::newRow("three pages: only the last one gets the last-page strings")
        << 3 << false << lastAndAny << QList<QStringList>{{"ANY"}, {"ANY"}, {"LAST"}};
    QTest::newRow("one page: the first page is never treated as last")
        << 1 << false << lastAndAny << QList<QStringList>{{"ANY"}};
    QTest::newRow("first, any and last pages") << 3 << false << all
                                               << QList<QStringList>{{"FIRST"}, {"ANY"}, {"LAST"}};
    QTest::newRow("two pages: first and last") << 2 << false << all << QList<QStringList>{{"FIRST"}, {"LAST"}};
    QTest::newRow("duplex: the back page of the last page gets the last-page strings")
        << 3 << true << lastAndAny << QList<QStringList>{{"ANY"}, {"ANY"}, {"LAST"}};
}

void TestDocumentWriter::lastPageStrings()
{
    QFETCH(int, pages);
    QFETCH(bool, duplex);
    QFETCH(QByteArray, templateText);
    QFETCH(QList<QStringList>, texts);

    Job job(pagedDocument(pages), templateText, "copies=1\n");
    QCOMPARE(job.run(duplex).exitCode, 0);
    QCOMPARE(textsPerPage(job.output()), texts);
}

void TestDocumentWriter::duplexInsertsNumberedBackPages()
{
    const QByteArray document = lines({"%!PS-Adobe-3.0", "%%Pages: 3", "%%EndComments", "%%BeginProlog",
                                       "%%EndProlog",
                                       "%%Page: one 1", "%%PageBoundingBox: 0 0 612 792", "(one) pop", "showpage",
                                       "%%PageTrailer",
                                       "%%Page: two 2", "(two) pop", "showpage", "%%PageTrailer",
                                       "%%Page: three 3", "%%PageBoundingBox: 10 10 200 200",
                                       "%%PageBoundingBox: 0 0 1 1", "(three) pop", "showpage", "%%PageTrailer",
                                       "%%Trailer", "%%Pages: 3", "%%EOF"});
    Job job(document, "any:normal:12::top-left:{CURRENT_PAGE}\n", "copies=1\n");
    QCOMPARE(job.run(true).exitCode, 0);
    const QByteArray output = job.output();

    QCOMPARE(pageLabels(output), (QByteArrayList{"%%Page: one 1", "%%Page: 2 2", "%%Page: 3 3", "%%Page: 4 4",
                                                 "%%Page: 5 5", "%%Page: 6 6"}));
    // No showpage redefinition; the "%%Pages:" line in the head is kept.
    QVERIFY(!output.contains("showpagereal"));
    QVERIFY(output.startsWith("%!PS-Adobe-3.0\n%%Pages: 3\n%%EndComments\n%%BeginProlog\n%%EndProlog\n"
                              "%%BeginResource: font TinySans\n"));
    // The document's pages are copied without a marker.
    QVERIFY(output.contains("/Marker-Normal exch definefont pop\n%%Page: one 1\n%%PageBoundingBox: 0 0 612 792\n"
                            "(one) pop\nshowpage\n%%PageTrailer\n%%Page: 2 2\n"));
    QVERIFY(output.contains("%%PageTrailer\n%%Page: 3 3\n(two) pop\nshowpage\n%%PageTrailer\n%%Page: 4 4\n"));
    QVERIFY(output.contains("%%PageTrailer\n%%Page: 5 5\n%%PageBoundingBox: 10 10 200 200\n"
                            "%%PageBoundingBox: 0 0 1 1\n(three) pop\nshowpage\n%%PageTrailer\n%%Page: 6 6\n"));
    // Each back page: label, the page's first bounding box if it had one,
    // an empty page setup, the marker, showpage and a page trailer.
    QVERIFY(output.contains("%%Page: 2 2\n%%PageBoundingBox: 0 0 612 792\n%%BeginPageSetup\n%%EndPageSetup\n"
                            "% Common variables:\n"));
    QVERIFY(output.contains("%%Page: 4 4\n%%BeginPageSetup\n%%EndPageSetup\n% Common variables:\n"));
    QVERIFY(output.contains("%%Page: 6 6\n%%PageBoundingBox: 10 10 200 200\n%%BeginPageSetup\n%%EndPageSetup\n"
                            "% Common variables:\n"));
    QCOMPARE(markerBlocks(output).size(), 3);
    for (const QByteArray& block : markerBlocks(output).mid(0, 2))
        QVERIFY(block.contains("showpage\n%%PageTrailer\n%%Page: "));
    // The "%%Pages:" line after the last page counts the back pages too.
    QVERIFY(output.endsWith("showpage\n%%PageTrailer\n%%Trailer\n%%Pages: 6\n%%EOF\n"));
    QCOMPARE(textsPerPage(output), (QList<QStringList>{{"1"}, {"2"}, {"3"}}));
}

void TestDocumentWriter::duplexWithoutPageTrailers()
{
    Job job(trailerDocument(3), "any:normal:12::top-left:{CURRENT_PAGE}\n", "copies=1\n");
    QCOMPARE(job.run(true).exitCode, 0);
    const QByteArray output = job.output();

    QCOMPARE(pageLabels(output), (QByteArrayList{"%%Page: 1 1", "%%Page: 2 2", "%%Page: 3 3", "%%Page: 4 4",
                                                 "%%Page: 5 5", "%%Page: 6 6"}));
    QVERIFY(output.contains("(content 1) pop\nshowpage\n%%Page: 2 2\n%%BeginPageSetup\n"));
    QVERIFY(output.contains("showpage\n%%PageTrailer\n%%Page: 3 3\n(content 2) pop\n"));
    // The page before the trailer: its back page, then the trailer line as it is.
    QVERIFY(output.endsWith("(content 3) pop\nshowpage\n%%Page: 6 6\n"
                            "%%BeginPageSetup\n%%EndPageSetup\n" + markerBlocks(output).last()));
    QVERIFY(markerBlocks(output).last().endsWith("showpage\n%%PageTrailer\n%%Trailer\n%%Pages: 6\n%%EOF\n"));
    QVERIFY(output.startsWith("%!PS-Adobe-3.0\n%%Pages: 3\n"));
}

void TestDocumentWriter::duplexSinglePageEndsOnTrailer()
{
    // A single page without "%%PageTrailer" ends on the trailer line itself,
    // so its back page follows that line.
    Job job(trailerDocument(1), "any:normal:12::top-left:{CURRENT_PAGE}\n", "copies=1\n");
    QCOMPARE(job.run(true).exitCode, 0);
    const QByteArray output = job.output();
    QCOMPARE(pageLabels(output), (QByteArrayList{"%%Page: 1 1", "%%Page: 2 2"}));
    QVERIFY(output.contains("(content 1) pop\nshowpage\n%%Trailer\n%%Page: 2 2\n%%BeginPageSetup\n"));
    // The line after a page's end is copied before the rest of the file is
    // searched for "%%Pages:", so this one keeps its count.
    QVERIFY(output.endsWith("showpage\n%%PageTrailer\n%%Pages: 1\n%%EOF\n"));
}

void TestDocumentWriter::variablesFileAfterRun()
{
    Job job(pagedDocument(3), "any:normal:12::top-left:{CURRENT_PAGE} {CURRENT_PAGE_CONTINUOUS}\n",
            "copies=2\nCURRENT_COPY=1\nZeta=last\nalpha=first\n");
    QCOMPARE(job.run().exitCode, 0);
    // The store in key order: the job's keys, DATE and TIME, the marker
    // definitions and the two page counts; no per-page keys.
    QCOMPARE(job.variables(), QByteArray("CURRENT_COPY=1\n"
                                         "DATE=01.02.2024\n"
                                         "MarkerBottomShift=14\n"
                                         "MarkerLeftShift=28\n"
                                         "MarkerRightShift=28\n"
                                         "MarkerStringInterval=2\n"
                                         "MarkerTopShift=14\n"
                                         "NUM_PAGES=3\n"
                                         "NUM_PAGES_CONTINUOUS=6\n"
                                         "TIME=10:20:30\n"
                                         "Zeta=last\n"
                                         "alpha=first\n"
                                         "copies=2\n"));
    // The per-page keys were set all the same: the last marker shows page 3.
    QCOMPARE(textsPerPage(job.output()).last(), QStringList{"3 3"});
}

void TestDocumentWriter::rawBytesSurvive_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<bool>("duplex");

    QByteArray everyByte;
    for (int b = 0; b < 256; ++b) {
        if (b != '\n')
            everyByte += char(b);
    }
    const QByteArray crlf =
        crlfLines({"%!PS-Adobe-3.0", "%%Pages: 2", "%%EndComments", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1",
                   "(one) pop", "showpage", "%%PageTrailer", "%%Page: 2 2", "(two) pop", "showpage",
                   "%%PageTrailer", "%%Trailer", "%%EOF"});
    QByteArray binary = crlf;
    binary.insert(binary.indexOf("(one) pop"), everyByte + "\nlone\rCR\rinside\n" + QByteArray(3, '\0') + "\r\n");

    QTest::newRow("CR LF lines, simplex") << crlf << false;
    QTest::newRow("CR LF lines, duplex") << crlf << true;
    QTest::newRow("every byte value, lone CR and NUL inside a page, simplex") << binary << false;
    QTest::newRow("every byte value, lone CR and NUL inside a page, duplex") << binary << true;
    QTest::newRow("no line feed after the last line")
        << bytes("%!PS-Adobe-3.0\n%%BeginProlog\n%%EndProlog\n%%Page: 1 1\n\0\r\xff\n%%PageTrailer\n%%EOF")
        << false;
}

void TestDocumentWriter::rawBytesSurvive()
{
    QFETCH(QByteArray, document);
    QFETCH(bool, duplex);

    Job job(document, "any:normal:12::top-left:{CURRENT_PAGE}\n", "copies=1\n");
    QCOMPARE(job.run(duplex).exitCode, 0);
    const QByteArray output = job.output();
    QCOMPARE(markerBlocks(output).size(), document.count("%%PageTrailer"));

    // Taking the insertions out gives the input back byte for byte; in duplex
    // mode the only input line replaced is the second page's "%%Page:" line.
    QByteArray rest = withoutFontResources(output);
    if (duplex) {
        rest = removeAll(rest, "%%Page: 2 2\n", "showpage\n%%PageTrailer\n");
        rest = removeAll(rest, "%%Page: 4 4\n", "showpage\n%%PageTrailer\n");
        QVERIFY(rest.contains("%%Page: 3 3\n"));
        rest.replace("%%Page: 3 3\n", "%%Page: 2 2\r\n");
    } else {
        rest = removeAll(rest, "% Common variables:\n", "showpagereal\n");
        rest.replace(ShowpageRedefinition, QByteArray());
    }
    QVERIFY2(rest == document, qPrintable(firstDifference(rest, document)));
}

void TestDocumentWriter::nonMatchingResourceMovesInsertionsOneLineEarly_data()
{
    QTest::addColumn<QByteArray>("resource");
    QTest::addColumn<QByteArrayList>("expectedPieces");

    const QByteArray font = readFile(tinyCatalogueDir() + QStringLiteral("/fonts/TinySans"));
    QTest::newRow("a matching resource: fonts before the first page, markers after the page trailers")
        << "%%BeginResource: font TinySans\n" + font + "\n%%EndResource\n"
        << QByteArrayList{"/Marker-Normal exch definefont pop\n%%Page: 1 1\na\n%%PageTrailer\n% Common variables:\n",
                          "showpagereal\n%%Page: 2 2\nb\n%%PageTrailer\n% Common variables:\n",
                          "showpagereal\n%%EOF\n"};
    QTest::newRow("a non-matching resource: every insertion comes one line early")
        << lines({"%%BeginResource: font TinySans", "/TinySans 1 def", "%%EndResource"})
        << QByteArrayList{"/Marker-Normal exch definefont pop\n%%EndProlog\n%%Page: 1 1\na\n% Common variables:\n",
                          "showpagereal\n%%PageTrailer\n%%Page: 2 2\nb\n% Common variables:\n",
                          "showpagereal\n%%PageTrailer\n%%EOF\n"};
}

void TestDocumentWriter::nonMatchingResourceMovesInsertionsOneLineEarly()
{
    QFETCH(QByteArray, resource);
    QFETCH(QByteArrayList, expectedPieces);

    const QByteArray document = "%!PS-Adobe-3.0\n%%BeginProlog\n" + resource
                                + lines({"%%EndProlog", "%%Page: 1 1", "a", "%%PageTrailer", "%%Page: 2 2", "b",
                                         "%%PageTrailer", "%%EOF"});
    Job job(document, "any:normal:12::top-left:x\n", "copies=1\n");
    QCOMPARE(job.run().exitCode, 0);
    const QByteArray output = job.output();
    int from = 0;
    for (const QByteArray& piece : expectedPieces) {
        const int at = output.indexOf(piece, from);
        QVERIFY2(at >= 0, piece.constData());
        from = at + piece.size();
    }
    QCOMPARE(from, output.size());
    QCOMPARE(markerBlocks(output).size(), 2);
}

QTEST_GUILESS_MAIN(TestDocumentWriter)
#include "tst_documentwriter.moc"
