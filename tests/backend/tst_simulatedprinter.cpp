// The simulated driverless printer that the end-to-end tests print to: it
// advertises what it was told, keeps what it receives byte for byte, runs
// beside other printers and leaves no process behind.
#include "simulatedprinter.h"
#include "support/testsupport.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

namespace
{

constexpr int DocumentsTimeoutMs = 30000;

const QString OctetStream = QStringLiteral("application/octet-stream");
const QString Pdf = QStringLiteral("application/pdf");
const QString PwgRaster = QStringLiteral("image/pwg-raster");
const QString Urf = QStringLiteral("image/urf");
const QString Jpeg = QStringLiteral("image/jpeg");

const QStringList OneSided = {QStringLiteral("one-sided")};
const QStringList TwoSided = {QStringLiteral("one-sided"), QStringLiteral("two-sided-long-edge"),
                              QStringLiteral("two-sided-short-edge")};

// A one-page PDF made by Ghostscript whose text is `text`; empty on failure.
QString makePdf(const QTemporaryDir& dir, const QString& name, const QString& text, QString* error)
{
    const QString path = dir.filePath(name);
    const QString page =
        QStringLiteral("/Helvetica findfont 24 scalefont setfont 72 700 moveto (%1) show showpage").arg(text);
    if (!runTool(dir.path(), QStringLiteral("gs"),
                 {QStringLiteral("-q"), QStringLiteral("-dBATCH"), QStringLiteral("-dNOPAUSE"),
                  QStringLiteral("-dSAFER"), QStringLiteral("-sDEVICE=pdfwrite"), QStringLiteral("-o"), path,
                  QStringLiteral("-c"), page},
                 error))
        return {};
    return path;
}

} // namespace

class TestSimulatedPrinter : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void advertisesItsFormatsAndSides_data();
    void advertisesItsFormatsAndSides();
    void extraAttributesReplaceBuiltInOnes_data();
    void extraAttributesReplaceBuiltInOnes();
    void extraAttributesNeedRasterFormats();
    void keepsPdfDocumentsByteForByte_data();
    void keepsPdfDocumentsByteForByte();
    void printersRunSideBySide();
    void stopEndsEveryProcess();
};

void TestSimulatedPrinter::initTestCase()
{
    if (!SimulatedPrinter::available())
        QSKIP(
            "ippeveprinter, ipptool, dbus-daemon or avahi-daemon missing, not root, or no IPv6 on loopback");
    if (!haveProgram(QStringLiteral("gs")))
        QSKIP("Ghostscript missing");
}

void TestSimulatedPrinter::advertisesItsFormatsAndSides_data()
{
    QTest::addColumn<QStringList>("formats");
    QTest::addColumn<bool>("twoSided");
    // document-format-supported, exactly: ippeveprinter always puts
    // application/octet-stream first.
    QTest::addColumn<QStringList>("advertised");
    QTest::addColumn<QStringList>("sides");
    // The raster formats' own attributes as ipptool prints them, empty where
    // the printer leaves them out: ippeveprinter adds them only for the
    // format they describe, and the back sheet and URF's "DM1" (duplex) only
    // for two-sided printers.
    QTest::addColumn<QString>("pwgResolutions");
    QTest::addColumn<QString>("pwgTypes");
    QTest::addColumn<QString>("sheetBack");
    QTest::addColumn<QString>("urf");

    const QString resolutions = QStringLiteral("300dpi,600dpi");
    const QString types = QStringLiteral("black_1,sgray_8");
    const QString normal = QStringLiteral("normal");
    const QString urfOneSided = QStringLiteral("CP1,IS1-4-5-19,MT1-2-3-4-5-6,RS600,V1.4,W8");
    const QString urfTwoSided = urfOneSided + QStringLiteral(",DM1");
    const QString none;

    QTest::newRow("pdf, one-sided") << QStringList{Pdf} << false << QStringList{OctetStream, Pdf} << OneSided
                                    << none << none << none << none;
    QTest::newRow("pdf, two-sided") << QStringList{Pdf} << true << QStringList{OctetStream, Pdf} << TwoSided
                                    << none << none << none << none;
    QTest::newRow("pwg-raster, two-sided")
        << QStringList{PwgRaster} << true << QStringList{OctetStream, PwgRaster} << TwoSided << resolutions
        << types << normal << none;
    QTest::newRow("urf, two-sided") << QStringList{Urf} << true << QStringList{OctetStream, Urf} << TwoSided
                                    << none << none << none << urfTwoSided;
    QTest::newRow("jpeg, one-sided") << QStringList{Jpeg} << false << QStringList{OctetStream, Jpeg}
                                     << OneSided << none << none << none << none;
    QTest::newRow("pwg-raster and urf, one-sided")
        << QStringList{PwgRaster, Urf} << false << QStringList{OctetStream, PwgRaster, Urf} << OneSided
        << resolutions << types << none << urfOneSided;
    QTest::newRow("pdf and pwg-raster, two-sided")
        << QStringList{Pdf, PwgRaster} << true << QStringList{OctetStream, Pdf, PwgRaster} << TwoSided
        << resolutions << types << normal << none;
}

void TestSimulatedPrinter::advertisesItsFormatsAndSides()
{
    QFETCH(QStringList, formats);
    QFETCH(bool, twoSided);
    QFETCH(QStringList, advertised);
    QFETCH(QStringList, sides);
    QFETCH(QString, pwgResolutions);
    QFETCH(QString, pwgTypes);
    QFETCH(QString, sheetBack);
    QFETCH(QString, urf);

    SimulatedPrinter printer;
    QString error;
    QVERIFY2(printer.start(formats, twoSided, &error), qPrintable(error));
    const QMap<QString, QString> attributes = printer.printerAttributes(&error);
    QVERIFY2(!attributes.isEmpty(), qPrintable(error));

    QCOMPARE(SimulatedPrinter::splitValues(attributes.value(QStringLiteral("document-format-supported"))),
             advertised);
    QCOMPARE(SimulatedPrinter::splitValues(attributes.value(QStringLiteral("sides-supported"))), sides);
    // A missing attribute reads as empty.
    QCOMPARE(attributes.value(QStringLiteral("pwg-raster-document-resolution-supported")), pwgResolutions);
    QCOMPARE(attributes.value(QStringLiteral("pwg-raster-document-type-supported")), pwgTypes);
    QCOMPARE(attributes.value(QStringLiteral("pwg-raster-document-sheet-back")), sheetBack);
    QCOMPARE(attributes.value(QStringLiteral("urf-supported")), urf);
    // Every printer describes its media with margins.
    QVERIFY(attributes.value(QStringLiteral("media-col-database"))
                .contains(QStringLiteral("media-left-margin=")));
}

void TestSimulatedPrinter::extraAttributesReplaceBuiltInOnes_data()
{
    QTest::addColumn<QStringList>("formats");
    QTest::addColumn<bool>("twoSided");
    QTest::addColumn<QByteArray>("extra");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QStringList>("sides");

    QTest::newRow("pwg-raster back sheet rotated, two-sided")
        << QStringList{PwgRaster} << true
        << QByteArray("ATTR keyword pwg-raster-document-sheet-back rotated\n")
        << QStringLiteral("pwg-raster-document-sheet-back") << QStringLiteral("rotated") << TwoSided;
    QTest::newRow("pwg-raster back sheet flipped, one-sided")
        << QStringList{PwgRaster, Urf} << false
        << QByteArray("ATTR keyword pwg-raster-document-sheet-back flipped\n")
        << QStringLiteral("pwg-raster-document-sheet-back") << QStringLiteral("flipped") << OneSided;
    QTest::newRow("urf capabilities, two-sided")
        << QStringList{Urf} << true << QByteArray("ATTR keyword urf-supported V1.4,W8,RS300,DM3\n")
        << QStringLiteral("urf-supported") << QStringLiteral("V1.4,W8,RS300,DM3") << TwoSided;
    QTest::newRow("an attribute the built-in printer lacks")
        << QStringList{PwgRaster} << true << QByteArray("ATTR keyword print-scaling-supported auto,none")
        << QStringLiteral("print-scaling-supported") << QStringLiteral("auto,none") << TwoSided;
}

void TestSimulatedPrinter::extraAttributesReplaceBuiltInOnes()
{
    QFETCH(QStringList, formats);
    QFETCH(bool, twoSided);
    QFETCH(QByteArray, extra);
    QFETCH(QString, name);
    QFETCH(QString, value);
    QFETCH(QStringList, sides);

    SimulatedPrinter printer;
    QString error;
    QVERIFY2(printer.start(formats, twoSided, &error, extra), qPrintable(error));
    // ipptool fails on an answer that holds an attribute twice: the built-in
    // value is gone, not merely followed by the new one.
    const QMap<QString, QString> attributes = printer.printerAttributes(&error);
    QVERIFY2(!attributes.isEmpty(), qPrintable(error));
    QCOMPARE(attributes.value(name), value);
    // The built-in printer's description stays.
    QCOMPARE(SimulatedPrinter::splitValues(attributes.value(QStringLiteral("sides-supported"))), sides);
    QVERIFY(
        attributes.value(QStringLiteral("media-col-database")).contains(QStringLiteral("iso_a4_210x297mm")));
    QCOMPARE(attributes.value(QStringLiteral("printer-make-and-model")), QStringLiteral("Example Printer"));
    // Whatever the formats, such a printer takes both raster formats.
    QCOMPARE(SimulatedPrinter::splitValues(attributes.value(QStringLiteral("document-format-supported"))),
             (QStringList{OctetStream, PwgRaster, Urf}));
}

void TestSimulatedPrinter::extraAttributesNeedRasterFormats()
{
    SimulatedPrinter printer;
    QString error;
    QVERIFY(!printer.start({Pdf}, false, &error, "ATTR keyword pwg-raster-document-sheet-back rotated\n"));
    QVERIFY2(error.contains(Pdf), qPrintable(error));
    QVERIFY(printer.uri().isEmpty());
}

void TestSimulatedPrinter::keepsPdfDocumentsByteForByte_data()
{
    QTest::addColumn<int>("documents");
    QTest::newRow("one document") << 1;
    QTest::newRow("three documents") << 3;
}

void TestSimulatedPrinter::keepsPdfDocumentsByteForByte()
{
    QFETCH(int, documents);

    QTemporaryDir dir;
    QString error;
    QStringList sent;
    for (int n = 1; n <= documents; ++n) {
        const QString path = makePdf(dir, QStringLiteral("document-%1.pdf").arg(n),
                                     QStringLiteral("Document %1").arg(n), &error);
        QVERIFY2(!path.isEmpty(), qPrintable(error));
        sent.append(path);
    }

    SimulatedPrinter printer;
    QVERIFY2(printer.start({Pdf}, false, &error), qPrintable(error));
    QVERIFY(printer.receivedDocuments().isEmpty());
    // The printer prints one job at a time and answers "busy" to the next
    // until it is done: each document is sent once the one before is kept,
    // again after a moment while the printer still says it is busy, as
    // CUPS's own IPP backend does.
    for (int n = 0; n < sent.size(); ++n) {
        bool accepted = false;
        for (int attempt = 0; !accepted && attempt < 50; ++attempt) {
            error.clear();
            accepted = printer.printFile(sent.at(n), Pdf, &error);
            if (!accepted && !error.contains(QLatin1String("server-error-busy")))
                break;
            if (!accepted)
                QThread::msleep(200);
        }
        QVERIFY2(accepted, qPrintable(error));
        QVERIFY2(printer.waitForDocuments(n + 1, DocumentsTimeoutMs), qPrintable(printer.log()));
    }

    const QStringList kept = printer.receivedDocuments();
    QCOMPARE(kept.size(), documents);
    for (int i = 0; i < documents; ++i) {
        // Kept as <job id>-<job name>.pdf; ipptool's Print-Job sends no job name.
        QCOMPARE(QFileInfo(kept.at(i)).fileName(), QStringLiteral("%1-untitled.pdf").arg(i + 1));
        const QByteArray expected = readFile(sent.at(i));
        const QByteArray actual = readFile(kept.at(i));
        QVERIFY2(actual == expected, qPrintable(firstDifference(actual, expected)));
    }
}

void TestSimulatedPrinter::printersRunSideBySide()
{
    QTemporaryDir dir;
    QString error;
    const QString first = makePdf(dir, QStringLiteral("first.pdf"), QStringLiteral("First printer"), &error);
    QVERIFY2(!first.isEmpty(), qPrintable(error));
    const QString second =
        makePdf(dir, QStringLiteral("second.pdf"), QStringLiteral("Second printer"), &error);
    QVERIFY2(!second.isEmpty(), qPrintable(error));

    SimulatedPrinter one;
    SimulatedPrinter two;
    QVERIFY2(one.start({Pdf}, false, &error), qPrintable(error));
    QVERIFY2(two.start({Pdf}, true, &error), qPrintable(error));
    QVERIFY(one.uri() != two.uri());

    QVERIFY2(one.printFile(first, Pdf, &error), qPrintable(error));
    QVERIFY2(two.printFile(second, Pdf, &error), qPrintable(error));
    QVERIFY2(one.waitForDocuments(1, DocumentsTimeoutMs), qPrintable(one.log()));
    QVERIFY2(two.waitForDocuments(1, DocumentsTimeoutMs), qPrintable(two.log()));
    QCOMPARE(one.receivedDocuments().size(), 1);
    QCOMPARE(two.receivedDocuments().size(), 1);
    QCOMPARE(readFile(one.receivedDocuments().first()), readFile(first));
    QCOMPARE(readFile(two.receivedDocuments().first()), readFile(second));
}

void TestSimulatedPrinter::stopEndsEveryProcess()
{
    SimulatedPrinter printer;
    QString error;
    QVERIFY2(printer.start({Pdf}, false, &error), qPrintable(error));
    const QString uri = printer.uri();

    const QList<qint64> pids = printer.processIds();
    QStringList names;
    for (const qint64 pid : pids)
        names.append(QString::fromLocal8Bit(readFile(QStringLiteral("/proc/%1/comm").arg(pid))).trimmed());
    for (const char* expected : {"unshare", "ippeveprinter", "dbus-daemon", "avahi-daemon"})
        QVERIFY2(names.contains(QLatin1String(expected)), qPrintable(names.join(QLatin1Char(' '))));

    printer.stop();
    for (const qint64 pid : pids)
        QVERIFY2(processEnded(pid, 0), qPrintable(QStringLiteral("process %1 still runs").arg(pid)));
    QVERIFY(printer.uri().isEmpty());
    // Nobody answers on the port any more.
    const RunResult probe = runProgram(QStringLiteral("ipptool"),
                                       {QStringLiteral("-q"), QStringLiteral("-T"), QStringLiteral("2"), uri,
                                        QStringLiteral("get-printer-attributes.test")});
    QVERIFY(probe.exitCode != 0);
}

QTEST_GUILESS_MAIN(TestSimulatedPrinter)
#include "tst_simulatedprinter.moc"
