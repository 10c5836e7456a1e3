// The README's quick start, as an administrator types it on a fresh machine:
// its own command lines, run as root in a namespace where /usr, /etc, /var
// and /run are throw-away overlays (tests/product/system-sandbox), against a
// stand-in network printer. The print server is the machine's own cupsd,
// started there by the quick start's "service cups start". Every sheet that
// reaches the printer must carry the marks, and the audit log the job's
// record.
#include "../backend/sheetcheck.h"
#include "../backend/standinprinter.h"

#include "common/auditrecord.h"
#include "support/testsupport.h"

#include <QFileInfo>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace
{

// Where the quick start stands in the README, and what the test replaces
// in it: the build and installation (the test installs the build under
// test), the installation of the print server (the test's machine has it)
// and the printer's address.
const char QuickStartHeading[] = "Quick start, as root on a fresh Debian 12 machine, from the clone:";
const char SetupLine[] = "bash scripts/setup.sh";
const char InstallServerLine[] = "apt-get install -y cups";
const char ExamplePrinter[] = "socket://printer.example.org:9100";
const char PrintLine[] = "lp -d secure";

// How long the stand-in printer listens, and the whole quick start may take.
constexpr int PrinterLifetimeMs = 600000;
constexpr int QuickStartMs = 600000;

// The quick start's job: the example document, 3 pages, 3 copies.
constexpr int Pages = 3;
constexpr int Copies = 3;

// The shell lines of the first "```sh" block after the heading; empty when
// the README has none.
QStringList quickStartLines(const QByteArray& readme)
{
    const int heading = readme.indexOf(QuickStartHeading);
    if (heading < 0)
        return {};
    const int start = readme.indexOf("```sh\n", heading);
    const int end = start < 0 ? -1 : readme.indexOf("\n```", start + 6);
    if (end < 0)
        return {};
    return QString::fromUtf8(readme.mid(start + 6, end - start - 6)).split(QLatin1Char('\n'));
}

// Whether something answers on a TCP port of this machine.
bool portAnswers(int port)
{
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), quint16(port));
    return socket.waitForConnected(1000);
}

} // namespace

class TestQuickStart : public QObject
{
    Q_OBJECT

  private slots:
    void quickStartGivesMarkedSheetsAndARecord();
};

void TestQuickStart::quickStartGivesMarkedSheetsAndARecord()
{
    if (geteuid() != 0)
        QSKIP("the quick start runs as root");
    if (!QFileInfo::exists(QStringLiteral("/etc/init.d/cups")) || !haveProgram(QStringLiteral("service")))
        QSKIP("the machine's print server (cups) and the service command are needed");
    // The machine's own cupsd listens on localhost:631: a print server that
    // already does would be the one the commands reach.
    if (portAnswers(631))
        QSKIP("a print server already listens on port 631 of this machine");

    QTemporaryDir work;
    StandInPrinter printer(work.filePath(QStringLiteral("printer")), PrinterLifetimeMs);
    QString error;
    QVERIFY2(printer.start(&error), qPrintable(error));

    // The README's lines, with the test's build, server and printer.
    const QStringList lines = quickStartLines(readFile(QStringLiteral(QUILLET_SOURCE_DIR "/README.md")));
    QVERIFY2(!lines.isEmpty(), "the README has no quick start");
    QByteArray script = "set -e\n";
    int replaced = 0;
    for (const QString& line : lines) {
        QString command = line;
        if (line.startsWith(QLatin1String(SetupLine))) {
            command =
                QStringLiteral("cmake --install '%1' > /dev/null").arg(QStringLiteral(QUILLET_BINARY_DIR));
            ++replaced;
        } else if (line.startsWith(QLatin1String(InstallServerLine))) {
            command = QStringLiteral("dpkg-query -W cups > /dev/null");
            ++replaced;
        } else if (line.contains(QLatin1String(ExamplePrinter))) {
            command.replace(QLatin1String(ExamplePrinter), printer.socketUri());
            ++replaced;
        }
        script += command.toUtf8() + '\n';
        // As the administrator would, the test waits for the job to end
        // before it reads the record (at most five minutes).
        if (line.startsWith(QLatin1String(PrintLine))) {
            script += "i=0; while [ -n \"$(lpstat -o secure)\" ] && [ $i -lt 1500 ]; do sleep 0.2; "
                      "i=$((i+1)); done\n";
            ++replaced;
        }
    }
    QCOMPARE(replaced, 4);
    script += "service cups stop > /dev/null\n";

    const RunResult run =
        runProgram(QStringLiteral(QUILLET_TESTS_DIR "/product/system-sandbox"),
                   {QStringLiteral("/bin/bash"), QStringLiteral("-c"), QString::fromUtf8(script)}, {},
                   QStringLiteral(QUILLET_SOURCE_DIR), QuickStartMs);
    const QByteArray output = run.standardOutput + run.standardError;
    QVERIFY2(run.exitCode == 0, output.constData());

    // The record that "tail -n 1" showed: the job was sent, every sheet.
    AuditRecord record;
    bool found = false;
    for (const QByteArray& line : run.standardOutput.split('\n')) {
        if (line.startsWith('{'))
            found = readAuditJsonLine(line, &record);
    }
    QVERIFY2(found, output.constData());
    QCOMPARE(record.outcome, QLatin1String(AuditSent));
    QCOMPARE(record.queue, QStringLiteral("secure"));
    QCOMPARE(record.label, QStringLiteral("CONFIDENTIAL_INTERNAL"));
    QCOMPARE(record.pages, qint64(Pages));
    QCOMPARE(record.copies, Copies);
    QCOMPARE(record.sheetsSent, qint64(Pages * Copies));
    QVERIFY(record.userAuthenticated);

    // Every sheet is marked with the label, its page and its copy.
    QCOMPARE(printer.jobs().size(), 1);
    const QList<Sheet> sheets = readSheets(printer.jobs().first(), work.path(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    MarkExpectation marks;
    marks.labelWords = QStringList{QStringLiteral("CONFIDENTIAL"), QStringLiteral("INTERNAL")};
    marks.labelSize = 14;
    marks.pageLineSize = 9;
    marks.pages = Pages;
    marks.copies = Copies;
    marks.content = true;
    const QStringList problems = markedSheetProblems(sheets, marks);
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join(QLatin1Char('\n'))));
    for (int index = 0; index < sheets.size(); ++index) {
        const QString copy = QStringLiteral("Copy %1 of %2").arg(index / Pages + 1).arg(Copies);
        QVERIFY2(sheets.at(index).text().contains(copy), qPrintable(sheets.at(index).text()));
    }
}

QTEST_GUILESS_MAIN(TestQuickStart)
#include "tst_quickstart.moc"
