// The backend's parts in process: device URIs, queue settings, the job's
// variables, the paper size, the PostScript handling of copies, and what a
// printer is sent.
#include "backend/childprocess.h"
#include "backend/deviceuri.h"
#include "backend/jobvariables.h"
#include "backend/pagesize.h"
#include "backend/postscriptjob.h"
#include "backend/printeroutput.h"
#include "backend/proof.h"
#include "backend/queuesettings.h"
#include "support/testsupport.h"

#include <cups/cups.h>

#include <QBuffer>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

const char Ppd[] = "*PPD-Adobe: \"4.3\"\n"
                   "*DefaultPageSize: Letter\n"
                   "*PaperDimension Letter/US Letter: \"612 792\"\n"
                   "*PaperDimension A4/A4: \"595 842\"\n"
                   "*PaperDimension Legal/US Legal: \"612 1008\"\n";

QMap<QString, QString> variablesOf(const QByteArray& bytes)
{
    return parseKeyValues(bytes);
}

} // namespace

Q_DECLARE_METATYPE(PrinterCapabilities)

class TestBackendParts : public QObject
{
    Q_OBJECT

  private slots:
    void deviceUri_data();
    void deviceUri();
    void queueSettings();
    void jobVariablesOrder_data();
    void jobVariablesOrder();
    void valuesLoseLineBreaks();
    void paperSize_data();
    void paperSize();
    void postScriptHead_data();
    void postScriptHead();
    void copyRequestTakenBackToOne_data();
    void copyRequestTakenBackToOne();
    void copiesAreEncapsulated();
    void markerFontsGoOnceIntoTheStream_data();
    void markerFontsGoOnceIntoTheStream();
    void proofSheetsAreCounted_data();
    void proofSheetsAreCounted();
    void pdfPagesAreCounted_data();
    void pdfPagesAreCounted();
    void pdfPagesOfARealPdf();
    void printerOutputIsPlanned_data();
    void printerOutputIsPlanned();
    void printerOptionsLeaveThePagesAlone_data();
    void printerOptionsLeaveThePagesAlone();
    void printersJobNumberIsRead_data();
    void printersJobNumberIsRead();
    void childsErrorLinesArePassedOn_data();
    void childsErrorLinesArePassedOn();
};

void TestBackendParts::deviceUri_data()
{
    QTest::addColumn<QString>("uri");
    QTest::addColumn<QString>("realUri");
    QTest::addColumn<QString>("scheme");
    QTest::addColumn<QString>("error");
    QTest::newRow("socket") << "quillet:socket://printer:9100"
                            << "socket://printer:9100"
                            << "socket" << QString();
    QTest::newRow("ipp with path") << "quillet:ipp://printer/ipp/print"
                                   << "ipp://printer/ipp/print"
                                   << "ipp" << QString();
    QTest::newRow("not quillet") << "socket://printer:9100" << QString() << QString()
                                 << "does not start with";
    QTest::newRow("nothing after the prefix")
        << "quillet:" << QString() << QString() << "names no real printer";
    QTest::newRow("path instead of a scheme")
        << "quillet:/dev/lp0" << QString() << QString() << "names no real printer";
    QTest::newRow("wraps itself") << "quillet:quillet:socket://p" << QString() << QString() << "wraps";
    QTest::newRow("wraps itself in capitals")
        << "quillet:QUILLET:socket://p" << QString() << QString() << "wraps";
}

void TestBackendParts::deviceUri()
{
    QFETCH(QString, uri);
    QFETCH(QString, realUri);
    QFETCH(QString, scheme);
    QFETCH(QString, error);
    const RealDevice device = realDevice(uri);
    if (error.isEmpty()) {
        QCOMPARE(device.error, QString());
        QCOMPARE(device.uri, realUri);
        QCOMPARE(device.scheme, scheme);
    } else {
        QVERIFY2(device.error.contains(error), qPrintable(device.error));
    }
}

void TestBackendParts::queueSettings()
{
    QTemporaryDir root;
    writeFile(root.filePath("quillet/default.tmpl"), "any:normal:9::a:top-left:A\n");
    writeFile(root.filePath("quillet/default.vars"), "LABEL_NAME=DEFAULT\n");
    writeFile(root.filePath("quillet/secure.vars"),
              "# comment\nLABEL_NAME=SECRET\nMarkerJobOptions=project, cost\n"
              "MarkerDuplexBackPages=1\nMarkerUser=root\n\nlevel=a=b\n");
    writeFile(root.filePath("cups-files.conf"), "User printing\nGroup printers\nLogLevel warn\n");

    // The queue's own variables, the default template.
    const QueueSettings secure = readQueueSettings(root.path(), QStringLiteral("secure"));
    QCOMPARE(secure.error, QString());
    QCOMPARE(secure.templateFile, root.filePath("quillet/default.tmpl"));
    QCOMPARE(secure.jobOptions, QStringList({"project", "cost"}));
    QVERIFY(secure.duplexBackPages);
    QCOMPARE(secure.markingUser, QStringLiteral("root"));
    const KeyValueList expected = {{"LABEL_NAME", "SECRET"}, {"level", "a=b"}};
    QCOMPARE(secure.variables, expected);

    // Another queue falls back to the default files.
    const QueueSettings other = readQueueSettings(root.path(), QStringLiteral("other"));
    QCOMPARE(other.variables, KeyValueList({{"LABEL_NAME", "DEFAULT"}}));
    QVERIFY(!other.duplexBackPages);

    // A queue name cannot leave the folder.
    QVERIFY(!readQueueSettings(root.path(), QStringLiteral("../secure")).error.isEmpty());

    // The page-code keys are the definitions' and the backend's: a queue's
    // variables that name one refuse its jobs.
    for (const char* key : {"MarkerPageCodeKey", "MarkerPageCodeJobKey"}) {
        writeFile(root.filePath("quillet/keyed.vars"),
                  QByteArray(key) + "=/etc/cups/quillet/page-code.key\n");
        const QString error = readQueueSettings(root.path(), QStringLiteral("keyed")).error;
        QVERIFY2(error.contains(QStringLiteral("must not set %1").arg(QLatin1String(key))),
                 qPrintable(error));
    }

    // Without a template file the queue has none.
    QVERIFY(QFile::remove(root.filePath("quillet/default.tmpl")));
    QCOMPARE(readQueueSettings(root.path(), QStringLiteral("secure")).templateFile, QString());

    const ServerAccount account = readServerAccount(root.path());
    QCOMPARE(account.user, QStringLiteral("printing"));
    QCOMPARE(account.group, QStringLiteral("printers"));
    QCOMPARE(readServerAccount(root.filePath("missing")).user, QStringLiteral("lp"));
}

void TestBackendParts::jobVariablesOrder_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("expected");
    QTest::newRow("user from the print server") << "job-originating-user-name=someone"
                                                << "job-originating-user-name"
                                                << "ivanov";
    QTest::newRow("copy number from the backend") << "CURRENT_COPY=9 copies=9"
                                                  << "CURRENT_COPY"
                                                  << "2";
    QTest::newRow("copies from the backend") << "copies=9"
                                             << "copies"
                                             << "3";
    QTest::newRow("page count cannot be preset") << "NUM_PAGES=1"
                                                 << "NUM_PAGES" << QString();
    QTest::newRow("allowed option reaches the variables") << "project=Apollo"
                                                          << "project"
                                                          << "Apollo";
    QTest::newRow("option not allowed is ignored") << "cost=1"
                                                   << "cost" << QString();
    QTest::newRow("administrator's value wins over an allowed option") << "LABEL_NAME=FORGED"
                                                                       << "LABEL_NAME"
                                                                       << "SECRET";
    QTest::newRow("paper size from the job facts") << "PAGE_FORMAT=A3"
                                                   << "PAGE_FORMAT"
                                                   << "Letter";
    QTest::newRow("page code cannot be preset") << "PAGE_CODE=AAAA-BBBB"
                                                << "PAGE_CODE" << QString();
    QTest::newRow("site key cannot be named by the job") << "MarkerPageCodeKey=/tmp/key"
                                                         << "MarkerPageCodeKey" << QString();
    QTest::newRow("job's page-code key from the backend") << "MarkerPageCodeJobKey=/tmp/key"
                                                          << "MarkerPageCodeJobKey"
                                                          << "/work/marking/page-code.key";
}

void TestBackendParts::jobVariablesOrder()
{
    QFETCH(QString, options);
    QFETCH(QString, key);
    QFETCH(QString, expected);
    JobFacts job;
    job.jobId = "12";
    job.user = "ivanov";
    job.title = "report";
    job.printer = "secure";
    job.copies = 3;
    job.pageFormat = "Letter";
    job.deviceWidth = "612";
    job.deviceHeight = "792";
    job.options = parseJobOptions(options.toUtf8());
    job.pageCodeKeyFile = "/work/marking/page-code.key";
    QueueSettings queue;
    // Listing a key that the backend sets does not let a user set it.
    queue.jobOptions = QStringList{"project",
                                   "LABEL_NAME",
                                   "job-originating-user-name",
                                   "copies",
                                   "CURRENT_COPY",
                                   "NUM_PAGES",
                                   "PAGE_FORMAT",
                                   "PAGE_CODE",
                                   "MarkerPageCodeKey",
                                   "MarkerPageCodeJobKey"};
    queue.variables = {{"LABEL_NAME", "SECRET"}};
    const QByteArray lines = jobVariables(job, queue, 2);
    const QMap<QString, QString> values = variablesOf(lines);
    // The job's key file comes last, after the administrator's variables.
    QVERIFY2(lines.endsWith("\nMarkerPageCodeJobKey=/work/marking/page-code.key\n"), lines.constData());
    QCOMPARE(values.value(key), expected);
    QCOMPARE(values.value("job-id"), QStringLiteral("12"));
    QCOMPARE(values.value("DEVICEWIDTH"), QStringLiteral("612"));
    QCOMPARE(values.value("LANDSCAPE"), QStringLiteral("0"));
}

void TestBackendParts::valuesLoseLineBreaks()
{
    JobFacts job;
    job.user = QStringLiteral("ivanov\nLABEL_NAME=FORGED");
    job.title = QStringLiteral("a\r\ntitle") + QChar(0) + QStringLiteral("end");
    QueueSettings queue;
    const QByteArray bytes = jobVariables(job, queue, 1);
    QVERIFY(!bytes.contains('\r'));
    QVERIFY(!bytes.contains('\0'));
    const QMap<QString, QString> values = variablesOf(bytes);
    QCOMPARE(values.value("job-originating-user-name"), QStringLiteral("ivanovLABEL_NAME=FORGED"));
    QCOMPARE(values.value("job-name"), QStringLiteral("atitleend"));
    QVERIFY(!values.contains("LABEL_NAME"));
}

void TestBackendParts::paperSize_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("width");
    QTest::addColumn<QString>("height");
    QTest::newRow("PPD default") << QString() << "Letter"
                                 << "612"
                                 << "792";
    QTest::newRow("PageSize option") << "PageSize=A4"
                                     << "A4"
                                     << "595"
                                     << "842";
    QTest::newRow("media with a PPD name, any case") << "media=legal"
                                                     << "Legal"
                                                     << "612"
                                                     << "1008";
    QTest::newRow("media with a PWG name") << "media=iso_a4_210x297mm"
                                           << "A4"
                                           << "595"
                                           << "842";
    QTest::newRow("media list with a tray first") << "media=Tray1,A4"
                                                  << "A4"
                                                  << "595"
                                                  << "842";
    QTest::newRow("size the PPD lacks, from the PWG table") << "media=iso_a3_297x420mm"
                                                            << "A3"
                                                            << "842"
                                                            << "1191";
}

void TestBackendParts::paperSize()
{
    QFETCH(QString, options);
    QFETCH(QString, name);
    QFETCH(QString, width);
    QFETCH(QString, height);
    const PaperSize size = jobPaperSize(Ppd, parseJobOptions(options.toUtf8()));
    QCOMPARE(size.name, name);
    QCOMPARE(size.width, width);
    QCOMPARE(size.height, height);
}

void TestBackendParts::postScriptHead_data()
{
    QTest::addColumn<QByteArray>("head");
    QTest::addColumn<bool>("postScript");
    QTest::newRow("DSC PostScript") << QByteArray("%!PS-Adobe-3.0\n") << true;
    QTest::newRow("after an end-of-job byte") << QByteArray("\004%!PS\n") << true;
    QTest::newRow("PDF") << QByteArray("%PDF-1.7\n") << false;
    QTest::newRow("PCL") << QByteArray("\033E\033&l0O") << false;
    QTest::newRow("PJL then PostScript") << QByteArray("\033%-12345X@PJL\n%!PS") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void TestBackendParts::postScriptHead()
{
    QFETCH(QByteArray, head);
    QFETCH(bool, postScript);
    QCOMPARE(looksLikePostScript(head), postScript);
}

void TestBackendParts::copyRequestTakenBackToOne_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<int>("streamCopies");
    const QByteArray oneCopy = "%RBIBeginNonPPDFeature: *NumCopies 1\n"
                               "1/languagelevel where{pop languagelevel 2 ge}{false}ifelse\n"
                               "{1 dict begin/NumCopies exch def currentdict end setpagedevice}\n"
                               "{userdict/#copies 3 -1 roll put}ifelse\n"
                               "%RBIEndNonPPDFeature\n";
    QTest::newRow("pstops asks the printer for 3 copies")
        << QByteArray("%!PS-Adobe-3.0\n%RBINumCopies: 3\n%%EndComments\n%%BeginSetup\n"
                      "%RBIBeginNonPPDFeature: *NumCopies 3\n"
                      "3/languagelevel where{pop languagelevel 2 ge}{false}ifelse\n"
                      "{1 dict begin/NumCopies exch def currentdict end setpagedevice}\n"
                      "{userdict/#copies 3 -1 roll put}ifelse\n"
                      "%RBIEndNonPPDFeature\n%%EndSetup\n")
        << "%!PS-Adobe-3.0\n%RBINumCopies: 1\n%%EndComments\n%%BeginSetup\n" + oneCopy + "%%EndSetup\n"
        << 3;
    QTest::newRow("pstops repeated the pages itself")
        << QByteArray("%!PS-Adobe-3.0\n%RBINumCopies: 1\n%%EndComments\n")
        << QByteArray("%!PS-Adobe-3.0\n%RBINumCopies: 1\n%%EndComments\n") << 1;
    QTest::newRow("document not from pstops") << minimalDocument(2) << minimalDocument(2) << -1;
}

void TestBackendParts::copyRequestTakenBackToOne()
{
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, expected);
    QFETCH(int, streamCopies);
    QBuffer in(&input);
    QVERIFY(in.open(QIODevice::ReadOnly));
    QByteArray output;
    QBuffer out(&output);
    QVERIFY(out.open(QIODevice::WriteOnly));
    int copies = 0;
    QVERIFY(copyAsOneCopy(in, out, &copies));
    QCOMPARE(output, expected);
    QCOMPARE(copies, streamCopies);
}

void TestBackendParts::copiesAreEncapsulated()
{
    QByteArray stream;
    QBuffer out(&stream);
    QVERIFY(out.open(QIODevice::WriteOnly));
    QByteArray fonts;
    for (int copy = 0; copy < 2; ++copy) {
        QByteArray document = minimalDocument(1);
        QBuffer in(&document);
        QVERIFY(in.open(QIODevice::ReadOnly));
        QVERIFY(appendMarkedCopy(in, out, &fonts));
    }
    // Each copy keeps "%!" as its first line and runs between a save and
    // its restore.
    QVERIFY(stream.startsWith("%!PS-Adobe-3.0\nuserdict /quilletCopyState save put\n%%Pages: 1\n"));
    QCOMPARE(stream.count("%!PS-Adobe-3.0\nuserdict /quilletCopyState save put\n"), 2);
    QCOMPARE(stream.count("userdict /quilletCopyState get restore\n"), 2);
    QVERIFY(stream.endsWith("%%EOF\n\nclear { countdictstack 3 le { exit } if end } loop\n"
                            "userdict /quilletCopyState get restore\n"));
}

// A marked copy as print-safe output writes it: a head, the marker fonts'
// insertion before the first page, the page.
QByteArray markedCopy(const QByteArray& fonts, int copy)
{
    return "%!PS-Adobe-3.0\n%quillet-insertion-begin\n/QuilletGlobal { currentglobal true setglobal } def\n"
           "%quillet-insertion-end\n%%EndSetup\n" +
           fonts + "%%Page: 1 1\n(Copy " + QByteArray::number(copy) + ") show\nshowpage\n%%EOF\n";
}

const char FontsInsertion[] = "%quillet-insertion-begin\nQuilletGlobal\n%%BeginResource: font Sans\n"
                              "/Sans 10 dict definefont pop\n%%EndResource\nQuilletEndGlobal\n"
                              "%quillet-insertion-end\n";

void TestBackendParts::markerFontsGoOnceIntoTheStream_data()
{
    QTest::addColumn<QList<QByteArray>>("copies");
    QTest::addColumn<QList<QByteArray>>("expected");
    QTest::addColumn<bool>("joined");

    const QByteArray fonts(FontsInsertion);
    const QByteArray other = QByteArray(FontsInsertion).replace("Sans", "Serif");
    const QByteArray unended = QByteArray(FontsInsertion).replace("%quillet-insertion-end\n", "");
    QTest::newRow("three copies, the fonts in the first")
        << QList<QByteArray>{markedCopy(fonts, 1), markedCopy(fonts, 2), markedCopy(fonts, 3)}
        << QList<QByteArray>{markedCopy(fonts, 1), markedCopy({}, 2), markedCopy({}, 3)} << true;
    QTest::newRow("a copy with other fonts keeps them")
        << QList<QByteArray>{markedCopy(fonts, 1), markedCopy(other, 2), markedCopy(fonts, 3)}
        << QList<QByteArray>{markedCopy(fonts, 1), markedCopy(other, 2), markedCopy({}, 3)} << true;
    QTest::newRow("copies without marker fonts")
        << QList<QByteArray>{markedCopy({}, 1), markedCopy({}, 2)}
        << QList<QByteArray>{markedCopy({}, 1), markedCopy({}, 2)} << true;
    QTest::newRow("fonts of the first copy only")
        << QList<QByteArray>{markedCopy(fonts, 1), markedCopy({}, 2)}
        << QList<QByteArray>{markedCopy(fonts, 1), markedCopy({}, 2)} << true;
    QTest::newRow("fonts insertion without its end")
        << QList<QByteArray>{markedCopy(unended, 1)} << QList<QByteArray>{} << false;
    // Only the insertion that opens with the global allocation is the
    // fonts'; the others of every copy stay.
    const QByteArray pageBlock = "%quillet-insertion-begin\nQuilletGlobal {\n} QuilletPageStart\n"
                                 "%quillet-insertion-end\n";
    // A line longer than the copy's read buffer whose last 25 bytes read
    // like a begin line does not begin the insertion after it.
    const QByteArray glued = "%" + QByteArray(65534, 'x') + fonts;
    QTest::newRow("a long line that ends like a begin line")
        << QList<QByteArray>{markedCopy(glued + fonts, 1), markedCopy(glued + fonts, 2)}
        << QList<QByteArray>{markedCopy(glued + fonts, 1), markedCopy(glued, 2)} << true;
    QTest::newRow("a page's insertion is not the fonts'")
        << QList<QByteArray>{markedCopy(pageBlock, 1), markedCopy(pageBlock, 2)}
        << QList<QByteArray>{markedCopy(pageBlock, 1), markedCopy(pageBlock, 2)} << true;
}

// Every copy after the first leaves out the marker fonts that the first
// copy defined in global VM, and keeps everything else.
void TestBackendParts::markerFontsGoOnceIntoTheStream()
{
    QFETCH(QList<QByteArray>, copies);
    QFETCH(QList<QByteArray>, expected);
    QFETCH(bool, joined);

    QByteArray stream;
    QBuffer out(&stream);
    QVERIFY(out.open(QIODevice::WriteOnly));
    QByteArray fonts;
    bool allJoined = true;
    for (QByteArray copy : copies) {
        QBuffer in(&copy);
        QVERIFY(in.open(QIODevice::ReadOnly));
        allJoined = allJoined && appendMarkedCopy(in, out, &fonts);
    }
    QCOMPARE(allJoined, joined);
    if (!joined)
        return;
    QByteArray wanted;
    QBuffer want(&wanted);
    QVERIFY(want.open(QIODevice::WriteOnly));
    for (const QByteArray& copy : expected) {
        // The expected copy as it stands in the stream: its first line, the
        // copy's save, the rest and the restore.
        const int firstLineEnd = copy.indexOf('\n') + 1;
        wanted +=
            copy.left(firstLineEnd) + "userdict /quilletCopyState save put\n" + copy.mid(firstLineEnd) +
            "\nclear { countdictstack 3 le { exit } if end } loop\nuserdict /quilletCopyState get restore\n";
    }
    QCOMPARE(stream, wanted);
}

// A binary PBM image as Ghostscript writes it, rows of zero bytes.
QByteArray pbmImage(int width, int height)
{
    return "P4\n# Image generated by Ghostscript\n" + QByteArray::number(width) + ' ' +
           QByteArray::number(height) + '\n' + QByteArray((width + 7) / 8 * height, '\0');
}

// pdfinfo's report, as Poppler 22 prints it, around a page count.
QByteArray pdfReport(const QByteArray& pagesLine)
{
    return "Producer:        GPL Ghostscript 10.00.0\nCreationDate:    Wed Nov 25 06:01:02 2026 UTC\n"
           "Tagged:          no\nForm:            none\nJavaScript:      no\n" +
           pagesLine + "Encrypted:       no\nPage size:       595 x 842 pts (A4)\nPDF version:     1.7\n";
}

void TestBackendParts::pdfPagesAreCounted_data()
{
    QTest::addColumn<QByteArray>("report");
    QTest::addColumn<qint64>("pages");
    QTest::newRow("twenty pages") << pdfReport("Pages:           20\n") << qint64(20);
    QTest::newRow("no pages") << pdfReport("Pages:           0\n") << qint64(0);
    QTest::newRow("no page count") << pdfReport("") << qint64(-1);
    QTest::newRow("page count that is no number") << pdfReport("Pages:           many\n") << qint64(-1);
    QTest::newRow("negative page count") << pdfReport("Pages:           -3\n") << qint64(-1);
    QTest::newRow("two page counts") << pdfReport("Pages:           2\nPages:           4\n") << qint64(-1);
    // A title is the PDF's own text: it cannot pose as the count.
    QTest::newRow("title that looks like a count")
        << "Title:           Pages: 99\n" + pdfReport("Pages:           2\n") << qint64(2);
    QTest::newRow("empty report") << QByteArray() << qint64(-1);
}

void TestBackendParts::pdfPagesAreCounted()
{
    QFETCH(QByteArray, report);
    QFETCH(qint64, pages);
    QCOMPARE(pdfPageCount(report), pages);
}

// The command counts the pages of a real PDF.
void TestBackendParts::pdfPagesOfARealPdf()
{
    if (!haveProgram(QStringLiteral("pdfinfo")) || !haveProgram(QStringLiteral("ps2pdf")))
        QSKIP("pdfinfo and ps2pdf are needed");
    QTemporaryDir work;
    const QString postscript = work.filePath(QStringLiteral("three.ps"));
    const QString pdf = work.filePath(QStringLiteral("three.pdf"));
    QVERIFY(writeFile(postscript, minimalDocument(3)));
    const RunResult made = runProgram(QStringLiteral("ps2pdf"), {postscript, pdf});
    QVERIFY2(made.exitCode == 0, made.standardError.constData());
    QList<QByteArray> command = pdfPageCountCommand(pdf);
    const QString program = QString::fromLocal8Bit(command.takeFirst());
    QStringList arguments;
    for (const QByteArray& argument : command)
        arguments << QString::fromLocal8Bit(argument);
    const RunResult counted = runProgram(program, arguments);
    QCOMPARE(counted.exitCode, 0);
    QCOMPARE(pdfPageCount(counted.standardOutput), qint64(3));
}

void TestBackendParts::proofSheetsAreCounted_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<qint64>("sheets");
    QTest::newRow("nothing drawn") << QByteArray() << qint64(0);
    QTest::newRow("one A4 sheet at 20 dpi") << pbmImage(166, 234) << qint64(1);
    QTest::newRow("sheets of two sizes")
        << pbmImage(166, 234) + pbmImage(234, 166) + pbmImage(170, 220) << qint64(3);
    QTest::newRow("width not a multiple of eight") << pbmImage(9, 3) + pbmImage(1, 1) << qint64(2);
    QTest::newRow("last sheet cut short") << pbmImage(166, 234) + pbmImage(166, 234).left(500) << qint64(-1);
    QTest::newRow("header cut short") << pbmImage(166, 234) + "P4\n166" << qint64(-1);
    QTest::newRow("not an image") << QByteArray("%!PS-Adobe-3.0\nshowpage\n") << qint64(-1);
    QTest::newRow("bytes after the last sheet") << pbmImage(8, 8) + "x" << qint64(-1);
    QTest::newRow("absurd size") << QByteArray("P4\n99999999 99999999\n") << qint64(-1);
}

void TestBackendParts::proofSheetsAreCounted()
{
    QFETCH(QByteArray, data);
    QFETCH(qint64, sheets);
    QTemporaryFile file;
    QVERIFY(file.open());
    QCOMPARE(file.write(data), qint64(data.size()));
    QVERIFY(file.seek(0));
    QCOMPARE(countProofSheets(file), sheets);
}

namespace
{

// A driverless printer as Get-Printer-Attributes describes it.
PrinterCapabilities driverless(const QStringList& formats)
{
    PrinterCapabilities printer;
    printer.formats = formats + QStringList{QStringLiteral("application/octet-stream")};
    printer.rasterResolutions = {150, 300, 600};
    printer.rasterTypes =
        QStringList{QStringLiteral("black_1"), QStringLiteral("sgray_8"), QStringLiteral("srgb_8")};
    printer.rasterBackSide = QStringLiteral("rotated");
    printer.urf = QStringList{QStringLiteral("V1.4"), QStringLiteral("W8"), QStringLiteral("RS600"),
                              QStringLiteral("DM2")};
    printer.sides = QStringList{QStringLiteral("one-sided")};
    printer.margins = {423, 423, 423, 635};
    return printer;
}

} // namespace

void TestBackendParts::printerOutputIsPlanned_data()
{
    QTest::addColumn<QString>("setting");
    QTest::addColumn<bool>("asked");
    QTest::addColumn<PrinterCapabilities>("printer");
    QTest::addColumn<bool>("twoSided");
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("raster"); // resolution, colour and back side
    QTest::addColumn<QString>("error");  // a part of the refusal

    const PrinterCapabilities none;
    const QString pdf = QStringLiteral("application/pdf");
    const QString pwg = QStringLiteral("image/pwg-raster");
    const QString urf = QStringLiteral("image/urf");
    const QString ps = QStringLiteral("application/postscript");
    PrinterCapabilities grayOnly = driverless({pwg});
    grayOnly.rasterTypes = QStringList{QStringLiteral("sgray_8")};
    grayOnly.rasterResolutions = {600, 1200};
    PrinterCapabilities twoSided = driverless({pdf});
    twoSided.sides << QStringLiteral("two-sided-long-edge") << QStringLiteral("two-sided-short-edge");
    PrinterCapabilities noColours = driverless({pwg});
    noColours.rasterTypes = QStringList{QStringLiteral("cmyk_8")};
    PrinterCapabilities noResolution = driverless({urf});
    noResolution.urf = QStringList{QStringLiteral("W8")};

    QTest::newRow("socket printer, automatic") << "auto" << false << none << false << "postscript"
                                               << ""
                                               << "";
    QTest::newRow("socket printer, raster by setting")
        << "pwg-raster" << false << none << false << "pwg-raster"
        << "300 sgray_8 Normal"
        << "";
    QTest::newRow("driverless PostScript printer")
        << "auto" << true << driverless({pdf, ps, pwg}) << false << "postscript"
        << ""
        << "";
    QTest::newRow("driverless PDF printer") << "" << true << driverless({pwg, pdf}) << false << "pdf"
                                            << ""
                                            << "";
    QTest::newRow("PWG raster printer") << "auto" << true << driverless({pwg, urf}) << false << "pwg-raster"
                                        << "300 srgb_8 Rotated"
                                        << "";
    QTest::newRow("gray raster printer, finest nearest 300 dpi")
        << "auto" << true << grayOnly << false << "pwg-raster"
        << "600 sgray_8 Rotated"
        << "";
    QTest::newRow("Apple raster printer")
        << "auto" << true << driverless({urf, QStringLiteral("image/jpeg")}) << false << "urf"
        << "600 sgray_8 Flipped"
        << "";
    QTest::newRow("PDF forced on a PostScript printer")
        << "pdf" << true << driverless({ps, pdf}) << false << "pdf"
        << ""
        << "";
    QTest::newRow("PostScript forced on a PDF printer")
        << "postscript" << true << driverless({pdf}) << false << ""
        << ""
        << "the queue sends postscript, which the printer does not accept; it lists: application/pdf";
    QTest::newRow("PCL forced on a printer that was not asked") << "pcl" << false << none << false << "pcl"
                                                                << ""
                                                                << "";
    QTest::newRow("JPEG printer") << "auto" << true << driverless({QStringLiteral("image/jpeg")}) << false
                                  << ""
                                  << ""
                                  << "it lists: image/jpeg, application/octet-stream";
    QTest::newRow("raster printer without a colour type quillet writes")
        << "auto" << true << noColours << false << ""
        << ""
        << "no pwg-raster colour type";
    QTest::newRow("Apple raster printer without a resolution")
        << "auto" << true << noResolution << false << ""
        << ""
        << "no urf resolution";
    QTest::newRow("back pages on a one-sided printer") << "auto" << true << driverless({pdf}) << true << ""
                                                       << ""
                                                       << "does not print two-sided";
    QTest::newRow("back pages on a two-sided printer") << "auto" << true << twoSided << true << "pdf"
                                                       << ""
                                                       << "";
}

void TestBackendParts::printerOutputIsPlanned()
{
    QFETCH(QString, setting);
    QFETCH(bool, asked);
    QFETCH(PrinterCapabilities, printer);
    QFETCH(bool, twoSided);
    QFETCH(QString, format);
    QFETCH(QString, raster);
    QFETCH(QString, error);

    const OutputPlan plan = planOutput(setting, asked, printer, twoSided);
    if (!error.isEmpty()) {
        QVERIFY2(plan.error.contains(error), qPrintable(plan.error));
        return;
    }
    QVERIFY2(plan.error.isEmpty(), qPrintable(plan.error));
    QCOMPARE(formatName(plan.format), format);
    if (!raster.isEmpty())
        QCOMPARE(QStringLiteral("%1 %2 %3").arg(plan.resolution).arg(plan.colour, plan.backSide), raster);
    // Only what is converted for an asked printer is fitted in its margins.
    const bool fitted = asked && plan.format != OutputFormat::PostScript;
    QCOMPARE(plan.margins.at(0) > 11.9 && plan.margins.at(0) < 12.1, fitted);
    QCOMPARE(plan.margins.at(3) > 17.9 && plan.margins.at(3) < 18.1, fitted);
}

void TestBackendParts::printerOptionsLeaveThePagesAlone_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<bool>("twoSided");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("nothing") << QByteArray() << false << QByteArray();
    QTest::newRow("paper and colour kept") << QByteArray("PageSize=A4 print-color-mode=monochrome") << false
                                           << QByteArray("PageSize=A4 print-color-mode=monochrome");
    QTest::newRow("layout options dropped")
        << QByteArray("number-up=4 page-ranges=1-2 copies=3 fit-to-page landscape PageSize=A4") << false
        << QByteArray("PageSize=A4");
    QTest::newRow("the user's two-sided kept")
        << QByteArray("sides=two-sided-long-edge") << false << QByteArray("sides=two-sided-long-edge");
    QTest::newRow("back pages: always two-sided on the long edge")
        << QByteArray("sides=one-sided Duplex=None") << true << QByteArray("sides=two-sided-long-edge");
    QTest::newRow("quotes and spaces stay one value")
        << QByteArray("job-name='a b' note=\"it's\"") << false << QByteArray("job-name='a b' note='it\\'s'");
}

void TestBackendParts::printerOptionsLeaveThePagesAlone()
{
    QFETCH(QByteArray, options);
    QFETCH(bool, twoSided);
    QFETCH(QByteArray, expected);
    const QByteArray result = printerJobOptions(options, twoSided);
    QCOMPARE(result, expected);
    // What the real backend reads back is the same options.
    cups_option_t* parsed = nullptr;
    const int count = cupsParseOptions(result.constData(), 0, &parsed);
    QCOMPARE(count, expected.isEmpty() ? 0 : int(expected.count('=')));
    cupsFreeOptions(count, parsed);
}

void TestBackendParts::printersJobNumberIsRead_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<int>("job");
    QTest::newRow("the line of CUPS's ipp backend")
        << QByteArray("DEBUG: Print job accepted - job ID 12.") << 12;
    QTest::newRow("another line") << QByteArray("DEBUG: job-id integer 12") << 0;
    QTest::newRow("no number") << QByteArray("DEBUG: Print job accepted - job ID x.") << 0;
    QTest::newRow("no full stop") << QByteArray("DEBUG: Print job accepted - job ID 12") << 0;
    QTest::newRow("zero") << QByteArray("DEBUG: Print job accepted - job ID 0.") << 0;
    QTest::newRow("not at the start") << QByteArray("INFO: DEBUG: Print job accepted - job ID 12.") << 0;
}

void TestBackendParts::printersJobNumberIsRead()
{
    QFETCH(QByteArray, line);
    QFETCH(int, job);
    QCOMPARE(acceptedPrinterJob(line), job);
}

void TestBackendParts::childsErrorLinesArePassedOn_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QList<QByteArray>>("lines");
    QTest::newRow("two lines") << QByteArray("echo one >&2; echo two >&2") << QList<QByteArray>{"one", "two"};
    QTest::newRow("last line without its line feed")
        << QByteArray("echo one >&2; printf two >&2") << QList<QByteArray>{"one", "two"};
    QTest::newRow("nothing") << QByteArray("true") << QList<QByteArray>{};
    // More than a pipe holds, while the child waits for nobody.
    QList<QByteArray> many;
    for (int i = 1; i <= 20000; ++i)
        many << "line " + QByteArray::number(i) + " of many";
    QTest::newRow("more than a pipe holds")
        << QByteArray("i=1; while [ $i -le 20000 ]; do echo \"line $i of many\"; i=$((i+1)); done >&2")
        << many;
    QTest::newRow("standard error closed early")
        << QByteArray("echo early >&2; exec 2>&-; sleep 0.3") << QList<QByteArray>{"early"};
    // A process that the child leaves behind with the pipe is not waited
    // for.
    QTest::newRow("a process left behind")
        << QByteArray("echo parent >&2; (sleep 5; echo late >&2) & exit 0") << QList<QByteArray>{"parent"};
}

// The lines a child writes to standard error reach the receiver whole and in
// order, and the child's end is not waited past.
void TestBackendParts::childsErrorLinesArePassedOn()
{
    QFETCH(QByteArray, script);
    QFETCH(QList<QByteArray>, lines);
    ChildCommand command;
    command.program = "/bin/sh";
    command.arguments = {"sh", "-c", script};
    command.environment = {"PATH=/usr/bin:/bin"};
    QList<QByteArray> received;
    command.errorLines = [&received](const QByteArray& line) { received << line; };
    QElapsedTimer timer;
    timer.start();
    const ChildResult result = runChild(command);
    QVERIFY(result.started);
    QCOMPARE(result.exitStatus, 0);
    QCOMPARE(received.size(), lines.size());
    QCOMPARE(received, lines);
    QVERIFY2(timer.elapsed() < 4000, qPrintable(QString::number(timer.elapsed())));
}

QTEST_GUILESS_MAIN(TestBackendParts)
#include "tst_backendparts.moc"
