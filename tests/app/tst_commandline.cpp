// Start-up of the real quillet executable: the command line, the existence
// and read checks with their exact messages, the order in which the store is
// filled (variables file, date and time, marker definitions) and the hand-over
// of the arguments to the document filter.
#include "support/testsupport.h"

#include <QDate>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>
#include <QTime>

#include <sys/stat.h>

namespace {

const QByteArray JobVariables = "job-originating-user-name=alice\ncopies=1\n";
const QByteArray JobTemplate = "any:normal:12::bottom-center:Page {CURRENT_PAGE}\n";

// The four positional arguments of a complete job, relative to job/.
QStringList jobArguments()
{
    return {QStringLiteral("in.ps"), QStringLiteral("marker.tpl"), QStringLiteral("vars.txt"),
            QStringLiteral("out.ps")};
}

// Gives the tree everything a run needs: the default catalogue with its
// shipped definitions, and in job/ a one-page document, a template with one
// marker string and a variables file.
void prepareJob(const FixtureTree& tree, const QByteArray& variables = JobVariables)
{
    tree.installCatalogue();
    tree.write(QStringLiteral("job/in.ps"), minimalDocument(1));
    tree.write(QStringLiteral("job/marker.tpl"), JobTemplate);
    tree.write(QStringLiteral("job/vars.txt"), variables);
}

QString describe(const RunResult& result)
{
    return QStringLiteral("exit %1%2\nstderr: %3")
        .arg(result.exitCode)
        .arg(result.crashed ? QStringLiteral(" (crashed)") : QString())
        .arg(QString::fromLocal8Bit(result.standardError.left(2000)));
}

// Runs the prepared job with print-safe output turned on or off by the
// site's definitions (the shipped ones turn it on) and checks its outcome:
// with an empty message a run that succeeds with an output; otherwise a
// refusal whose standard error ends with the message, the variables file as
// it was and no output.
void verifyRunOrRefusal(const FixtureTree& tree, bool safeOutput, const QByteArray& message)
{
    tree.write(QStringLiteral("etc-cups/marker.defs"),
               safeOutput ? QByteArray("MarkerSafeOutput=1\n") : QByteArray("MarkerTopShift=8\n"));

    const RunResult result = tree.runQuillet(jobArguments());

    QVERIFY2(!result.crashed, qPrintable(describe(result)));
    if (message.isEmpty()) {
        QVERIFY2(result.exitCode == 0, qPrintable(describe(result)));
        QVERIFY(tree.exists(QStringLiteral("job/out.ps")));
        return;
    }
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.standardError == message || result.standardError.endsWith('\n' + message),
             qPrintable(describe(result)));
    QCOMPARE(tree.read(QStringLiteral("job/vars.txt")), JobVariables);
    QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
}

QStringList replaceJobRoot(const QStringList& list, const QString& jobDir)
{
    QStringList result;
    for (const QString& item : list)
        result << QString(item).replace(QStringLiteral("@JOB@"), jobDir);
    return result;
}

} // namespace

class TestCommandLine : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void wrongArgumentCountPrintsHelpOnStandardError_data();
    void wrongArgumentCountPrintsHelpOnStandardError();
    void helpAndVersionAreAnsweredByTheParser_data();
    void helpAndVersionAreAnsweredByTheParser();
    void helpTextDescribesTheCommandLine();
    void unknownOptionFails();

    void startupFailuresAreFatal_data();
    void startupFailuresAreFatal();
    void nonRegularFilesAreRefused_data();
    void nonRegularFilesAreRefused();
    void catalogueThatCannotDrawIsRefused_data();
    void catalogueThatCannotDrawIsRefused();
    void jobThatWouldLeaveMarksOffIsRefused_data();
    void jobThatWouldLeaveMarksOffIsRefused();

    void definitionsFileIsChosen_data();
    void definitionsFileIsChosen();
    void runDateAndTimeReplaceVariablesFile();
    void definitionsReplaceRunDateAndTime();
    void badVariableLinesAreSilent();

    void outputInMissingFolderIsReportedByDocumentFilter();
    void duplexFlagReachesDocumentFilter_data();
    void duplexFlagReachesDocumentFilter();
    void messagesAreTranslated();
    void siteScriptsLeaveNoProcessBehind_data();
    void siteScriptsLeaveNoProcessBehind();

  private:
    QByteArray m_helpText;
};

void TestCommandLine::initTestCase()
{
    QVERIFY2(QFileInfo(quilletExecutable()).isExecutable(), qPrintable(quilletExecutable()));
    // The help text as the parser prints it on request; runs with a wrong
    // argument count must show the same text on standard error.
    FixtureTree tree;
    const RunResult help = tree.runQuillet({QStringLiteral("--help")});
    QVERIFY2(help.exitCode == 0 && !help.crashed, qPrintable(describe(help)));
    QVERIFY(help.standardOutput.startsWith("Usage: "));
    m_helpText = help.standardOutput;
}

void TestCommandLine::wrongArgumentCountPrintsHelpOnStandardError_data()
{
    QTest::addColumn<QStringList>("arguments");

    QTest::newRow("no arguments") << QStringList();
    // Names of missing files: a run that checked them would name the input.
    QTest::newRow("three arguments") << QStringList{"missing.ps", "missing.tpl", "missing.txt"};
    // Names of a complete job plus one: a run that went on would rewrite the
    // variables file and create the output.
    QTest::newRow("five arguments") << (jobArguments() << QStringLiteral("extra.ps"));
    QTest::newRow("three arguments and duplex")
        << QStringList{"--duplex", "in.ps", "marker.tpl", "vars.txt"};
}

void TestCommandLine::wrongArgumentCountPrintsHelpOnStandardError()
{
    QFETCH(QStringList, arguments);

    FixtureTree tree;
    prepareJob(tree);
    const RunResult result = tree.runQuillet(arguments);

    QVERIFY2(!result.crashed, qPrintable(describe(result)));
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.standardOutput, QByteArray());
    QVERIFY2(result.standardError == m_helpText, qPrintable(firstDifference(result.standardError, m_helpText)));
    // Nothing was read or written.
    QCOMPARE(tree.read(QStringLiteral("job/vars.txt")), JobVariables);
    QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
    QVERIFY(!tree.exists(QStringLiteral("job/extra.ps")));
}

void TestCommandLine::helpAndVersionAreAnsweredByTheParser_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("isVersion");

    QTest::newRow("--help") << QStringList{"--help"} << false;
    QTest::newRow("-h") << QStringList{"-h"} << false;
    QTest::newRow("--help with the four file arguments") << (jobArguments() << QStringLiteral("--help")) << false;
    QTest::newRow("--version") << QStringList{"--version"} << true;
    QTest::newRow("-v") << QStringList{"-v"} << true;
    QTest::newRow("--version with the four file arguments") << (QStringList{"--version"} + jobArguments()) << true;
}

void TestCommandLine::helpAndVersionAreAnsweredByTheParser()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, isVersion);

    FixtureTree tree;
    prepareJob(tree);
    const RunResult result = tree.runQuillet(arguments);

    QVERIFY2(!result.crashed, qPrintable(describe(result)));
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.standardError, QByteArray());
    if (isVersion)
        QCOMPARE(result.standardOutput, QByteArray("quillet 29.29\n"));
    else
        QCOMPARE(result.standardOutput, m_helpText);
    // The job was not run.
    QCOMPARE(tree.read(QStringLiteral("job/vars.txt")), JobVariables);
    QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
}

void TestCommandLine::helpTextDescribesTheCommandLine()
{
    const QStringList lines = QString::fromLocal8Bit(m_helpText).split(QLatin1Char('\n'));
    // The parser names the program as it was started (here by its full path)
    // and lists the positional arguments by their names, brackets included.
    QCOMPARE(lines.value(0), QStringLiteral("Usage: %1 [options] <input> <template> <variables> <output>")
                                 .arg(quilletExecutable()));
    QVERIFY2(lines.contains(QStringLiteral("PostScript file Marker Filter")), qPrintable(m_helpText));

    // Options and arguments with their descriptions, in the order in which
    // they were declared (each pattern must match a whole line).
    const QList<QRegularExpression> expected = {
        QRegularExpression(QStringLiteral("^  --duplex +Enable duplex mode$")),
        QRegularExpression(QStringLiteral("^  -h, --help +\\S.*$")),
        QRegularExpression(QStringLiteral("^  -v, --version +\\S.*$")),
        QRegularExpression(QStringLiteral("^  <input> +Input PostScript file name$")),
        QRegularExpression(QStringLiteral("^  <template> +Template file name marker$")),
        QRegularExpression(QStringLiteral("^  <variables> +File name with marker variable values$")),
        QRegularExpression(QStringLiteral("^  <output> +Output PostScript file name$")),
    };
    int from = 0;
    for (const QRegularExpression& pattern : expected) {
        const int at = lines.indexOf(pattern, from);
        QVERIFY2(at >= 0, qPrintable(QStringLiteral("no line after line %1 matches %2 in:\n%3")
                                         .arg(from)
                                         .arg(pattern.pattern(), QString::fromLocal8Bit(m_helpText))));
        from = at + 1;
    }
}

void TestCommandLine::unknownOptionFails()
{
    FixtureTree tree;
    prepareJob(tree);
    const RunResult result = tree.runQuillet(QStringList{"--bogus"} + jobArguments());

    QVERIFY2(!result.crashed, qPrintable(describe(result)));
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.standardError.contains("bogus"), qPrintable(describe(result)));
    QCOMPARE(tree.read(QStringLiteral("job/vars.txt")), JobVariables);
    QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
}

void TestCommandLine::startupFailuresAreFatal_data()
{
    // Each row starts from a complete job (prepareJob), then removes files and
    // puts folders where files are expected. A folder exists but cannot be
    // opened for reading, also by root. "@JOB@" stands for the job folder.
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("remove");  // files below the root to delete
    QTest::addColumn<QStringList>("folders"); // folders below the root to create
    QTest::addColumn<QByteArray>("message");  // the whole of standard error

    const QStringList none;
    const QString shipped = QStringLiteral("share-cups/quillet/marker.defs");

    QTest::newRow("input, template and variables missing: only the input is named")
        << QStringList{"nope.ps", "nope.tpl", "nope.txt", "out.ps"} << none << none
        << QByteArray("Input file nope.ps doesn't exist\n");
    QTest::newRow("input is named as passed, not made absolute")
        << QStringList{"./sub/../nope.ps", "marker.tpl", "vars.txt", "out.ps"} << none << none
        << QByteArray("Input file ./sub/../nope.ps doesn't exist\n");
    QTest::newRow("absolute input name is kept")
        << QStringList{"@JOB@/nope.ps", "marker.tpl", "vars.txt", "out.ps"} << none << none
        << QByteArray("Input file @JOB@/nope.ps doesn't exist\n");
    QTest::newRow("template and variables missing: only the template is named")
        << QStringList{"in.ps", "nope.tpl", "nope.txt", "out.ps"} << none << none
        << QByteArray("Marker template file nope.tpl doesn't exist\n");
    QTest::newRow("variables missing")
        << QStringList{"in.ps", "marker.tpl", "nope.txt", "out.ps"} << none << none
        << QByteArray("Variables file nope.txt doesn't exist\n");
    QTest::newRow("template missing is found before an unreadable variables file")
        << QStringList{"in.ps", "nope.tpl", "vars.d", "out.ps"} << none << QStringList{"job/vars.d"}
        << QByteArray("Marker template file nope.tpl doesn't exist\n");
    QTest::newRow("existing but unreadable variables file")
        << QStringList{"in.ps", "marker.tpl", "vars.d", "out.ps"} << none << QStringList{"job/vars.d"}
        << QByteArray("Can not read marker variables file vars.d\n");
    QTest::newRow("unreadable variables file is found before missing definitions")
        << QStringList{"in.ps", "marker.tpl", "vars.d", "out.ps"} << QStringList{shipped}
        << QStringList{"job/vars.d"} << QByteArray("Can not read marker variables file vars.d\n");
    QTest::newRow("no definitions file: the shipped file is named")
        << jobArguments() << QStringList{shipped} << none
        << QByteArray("Can not find marker definition file /usr/share/cups/quillet/marker.defs\n");
    QTest::newRow("definitions file without the program folder is not a candidate")
        << jobArguments() << QStringList{shipped} << QStringList{"share-cups/marker.defs"}
        << QByteArray("Can not find marker definition file /usr/share/cups/quillet/marker.defs\n");
    QTest::newRow("missing definitions are found before an unreadable template")
        << QStringList{"in.ps", "tpl.d", "vars.txt", "out.ps"} << QStringList{shipped}
        << QStringList{"job/tpl.d"}
        << QByteArray("Can not find marker definition file /usr/share/cups/quillet/marker.defs\n");
    QTest::newRow("unreadable site definitions are not skipped for the shipped file")
        << jobArguments() << none << QStringList{"etc-cups/marker.defs"}
        << QByteArray("Can not read marker definition file /etc/cups/marker.defs\n");
    QTest::newRow("unreadable shipped definitions")
        << jobArguments() << QStringList{shipped} << QStringList{shipped}
        << QByteArray("Can not read marker definition file /usr/share/cups/quillet/marker.defs\n");
    QTest::newRow("unreadable template")
        << QStringList{"in.ps", "tpl.d", "vars.txt", "out.ps"} << none << QStringList{"job/tpl.d"}
        << QByteArray("Can not read marker format file tpl.d\n");
    QTest::newRow("unreadable template is named as passed")
        << QStringList{"in.ps", "@JOB@/tpl.d", "vars.txt", "out.ps"} << none << QStringList{"job/tpl.d"}
        << QByteArray("Can not read marker format file @JOB@/tpl.d\n");
}

void TestCommandLine::startupFailuresAreFatal()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, remove);
    QFETCH(QStringList, folders);
    QFETCH(QByteArray, message);

    FixtureTree tree;
    prepareJob(tree);
    for (const QString& file : remove)
        QVERIFY2(QFile::remove(tree.path(file)), qPrintable(file));
    for (const QString& folder : folders)
        QVERIFY2(QDir().mkpath(tree.path(folder)), qPrintable(folder));

    const RunResult result = tree.runQuillet(replaceJobRoot(arguments, tree.job()));
    message.replace("@JOB@", tree.job().toLocal8Bit());

    QVERIFY2(!result.crashed, qPrintable(describe(result)));
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.standardOutput, QByteArray());
    QVERIFY2(result.standardError == message, qPrintable(firstDifference(result.standardError, message)));
    // Start-up stops before the document filter: the variables file is left
    // as it was and no output is created.
    QCOMPARE(tree.read(QStringLiteral("job/vars.txt")), JobVariables);
    QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
}

// A FIFO (or a device) where a file is expected would block the run for as
// long as nobody writes to it: it is refused at once with its own message.
void TestCommandLine::nonRegularFilesAreRefused_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("fifo");       // FIFO to make below the root, replacing a file there
    QTest::addColumn<QByteArray>("message"); // the whole of standard error

    QTest::newRow("variables file is a FIFO")
        << QStringList{"in.ps", "marker.tpl", "vars.fifo", "out.ps"} << "job/vars.fifo"
        << QByteArray("Variables file vars.fifo is not a regular file\n");
    QTest::newRow("template is a FIFO")
        << QStringList{"in.ps", "tpl.fifo", "vars.txt", "out.ps"} << "job/tpl.fifo"
        << QByteArray("Marker template file tpl.fifo is not a regular file\n");
    QTest::newRow("site definitions file is a FIFO")
        << jobArguments() << "etc-cups/marker.defs"
        << QByteArray("Marker definition file /etc/cups/marker.defs "
                      "is not a regular file\n");
    QTest::newRow("shipped definitions file is a FIFO")
        << jobArguments() << "share-cups/quillet/marker.defs"
        << QByteArray("Marker definition file /usr/share/cups/quillet/marker.defs is not a regular file\n");
    QTest::newRow("template is a character device")
        << QStringList{"in.ps", "/dev/null", "vars.txt", "out.ps"} << QString()
        << QByteArray("Marker template file /dev/null is not a regular file\n");
    QTest::newRow("variables file is a character device")
        << QStringList{"in.ps", "marker.tpl", "/dev/zero", "out.ps"} << QString()
        << QByteArray("Variables file /dev/zero is not a regular file\n");
}

void TestCommandLine::nonRegularFilesAreRefused()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, fifo);
    QFETCH(QByteArray, message);

    FixtureTree tree;
    prepareJob(tree);
    if (!fifo.isEmpty()) {
        QFile::remove(tree.path(fifo));
        QVERIFY2(::mkfifo(QFile::encodeName(tree.path(fifo)).constData(), 0644) == 0, qPrintable(fifo));
    }

    const RunResult result = tree.runQuillet(arguments);

    QVERIFY2(!result.crashed, qPrintable(describe(result)));
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.standardError == message, qPrintable(firstDifference(result.standardError, message)));
    QCOMPARE(tree.read(QStringLiteral("job/vars.txt")), JobVariables);
    QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
}

// With print-safe output (on in the shipped definitions) a catalogue that
// cannot draw the marker ends the run before any output, instead of a run
// that prints invisible marks; without it the run goes on as it always did.
void TestCommandLine::catalogueThatCannotDrawIsRefused_data()
{
    QTest::addColumn<QString>("damage"); // file below share-cups/ to remove
    QTest::addColumn<bool>("asFolder");  // and put a folder in its place
    QTest::addColumn<bool>("safeOutput");
    QTest::addColumn<QByteArray>("message"); // the last line of standard error, empty for success

    const QByteArray suffix = ": the marker would not print\n";
    QTest::newRow("print-safe: no glyph list")
        << "data/psglyphs" << false << true
        << "Can not read glyph list /usr/share/cups/data/psglyphs" + suffix;
    QTest::newRow("print-safe: a folder for the charset file")
        << "charsets/utf-8" << true << true
        << "Can not read charset file /usr/share/cups/charsets/utf-8" + suffix;
    QTest::newRow("print-safe: no file for the base font of the template's style")
        << "fonts/NimbusSans-Regular" << false << true
        << "Can not read marker font file /usr/share/cups/fonts/NimbusSans-Regular" + suffix;
    QTest::newRow("classic: no glyph list, the run goes on")
        << "data/psglyphs" << false << false << QByteArray();
    QTest::newRow("classic: a folder for the charset file")
        << "charsets/utf-8" << true << false << QByteArray();
}

void TestCommandLine::catalogueThatCannotDrawIsRefused()
{
    QFETCH(QString, damage);
    QFETCH(bool, asFolder);
    QFETCH(bool, safeOutput);
    QFETCH(QByteArray, message);

    FixtureTree tree;
    prepareJob(tree);
    QVERIFY(QFile::remove(tree.path(QStringLiteral("share-cups/") + damage)));
    if (asFolder)
        QVERIFY(QDir().mkpath(tree.path(QStringLiteral("share-cups/") + damage)));
    verifyRunOrRefusal(tree, safeOutput, message);
}

// With print-safe output a job whose marks could not be guarded or would be
// missing from some page ends before any output: a template with more strings
// than are drawn, a template that draws nothing on one of the document's
// pages, and a document whose first line is not a whole comment (a carriage
// return or form feed ends the comment for the interpreter, and what follows
// would run before anything of the filter). Without it the job runs as it
// always did.
void TestCommandLine::jobThatWouldLeaveMarksOffIsRefused_data()
{
    QTest::addColumn<QByteArray>("markerTemplate");
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<bool>("safeOutput");
    QTest::addColumn<QByteArray>("message"); // the last line of standard error, empty for success

    const QByteArray any = "any:normal:12::bottom-center:Page {CURRENT_PAGE}\n";
    const QByteArray first = "first:bold:12::top-center:First\n";
    const QByteArray last = "last:bold:12::top-center:Last\n";
    QByteArray tooMany;
    for (int i = 0; i <= 4096; ++i)
        tooMany += any;
    const QByteArray codeOnHeader = "%!PS-Adobe-3.0\r72 72 moveto 144 144 lineto stroke showpage\n"
                                    + minimalDocument(1).mid(int(qstrlen("%!PS-Adobe-3.0\n")));
    const QByteArray drawsNothing = "Marker template marker.tpl draws nothing on page %1 of %2\n";
    auto nothingOn = [&drawsNothing](int page, int pages) {
        return QByteArray(drawsNothing).replace("%1", QByteArray::number(page)).replace("%2", QByteArray::number(pages));
    };

    QTest::newRow("print-safe: no strings at all") << QByteArray() << minimalDocument(1) << true << nothingOn(1, 1);
    QTest::newRow("print-safe: every line rejected")
        << QByteArray("every:normal:12::top-left:X\nany:normal:12::middle:X\n") << minimalDocument(1) << true
        << nothingOn(1, 1);
    QTest::newRow("print-safe: only a position that is never painted")
        << QByteArray("any:normal:12::x{1;2}y:X\n") << minimalDocument(2) << true << nothingOn(1, 2);
    QTest::newRow("print-safe: first strings only, the last page has none")
        << first << minimalDocument(2) << true << nothingOn(2, 2);
    QTest::newRow("print-safe: first and last strings, a middle page has none")
        << first + last << minimalDocument(3) << true << nothingOn(2, 3);
    QTest::newRow("print-safe: last strings only, a one-page document shows none")
        << last << minimalDocument(1) << true << nothingOn(1, 1);
    QTest::newRow("print-safe: more strings than are drawn")
        << tooMany << minimalDocument(1) << true
        << QByteArray("Marker template marker.tpl holds more than 4096 marker strings\n");
    QTest::newRow("print-safe: code on the header line after a carriage return")
        << any << codeOnHeader << true
        << QByteArray("The first line of input file in.ps is not a comment that ends at its line feed\n");
    QTest::newRow("print-safe: first, last and any strings mark every page")
        << first + last + any << minimalDocument(3) << true << QByteArray();
    QTest::newRow("print-safe: a header line ended by a carriage return and a line feed")
        << any << "%!PS-Adobe-3.0\r\n" + minimalDocument(2).mid(int(qstrlen("%!PS-Adobe-3.0\n"))) << true
        << QByteArray();
    QTest::newRow("classic: no strings at all") << QByteArray() << minimalDocument(1) << false << QByteArray();
    QTest::newRow("classic: first strings only") << first << minimalDocument(2) << false << QByteArray();
    QTest::newRow("classic: more strings than are drawn") << tooMany << minimalDocument(1) << false << QByteArray();
    QTest::newRow("classic: code on the header line") << any << codeOnHeader << false << QByteArray();
}

void TestCommandLine::jobThatWouldLeaveMarksOffIsRefused()
{
    QFETCH(QByteArray, markerTemplate);
    QFETCH(QByteArray, document);
    QFETCH(bool, safeOutput);
    QFETCH(QByteArray, message);

    FixtureTree tree;
    prepareJob(tree);
    tree.write(QStringLiteral("job/in.ps"), document);
    tree.write(QStringLiteral("job/marker.tpl"), markerTemplate);
    verifyRunOrRefusal(tree, safeOutput, message);
}

void TestCommandLine::definitionsFileIsChosen_data()
{
    QTest::addColumn<bool>("withSiteFile");
    QTest::addColumn<QString>("shared");   // the value SHARED ends with
    QTest::addColumn<QString>("onlyName"); // the one name of the file that was read

    QTest::newRow("site definitions alone are read") << true << "site" << "SITE_ONLY";
    QTest::newRow("shipped definitions are read when the site file is missing")
        << false << "shipped" << "SHIPPED_ONLY";
}

void TestCommandLine::definitionsFileIsChosen()
{
    QFETCH(bool, withSiteFile);
    QFETCH(QString, shared);
    QFETCH(QString, onlyName);

    FixtureTree tree;
    prepareJob(tree, "SHARED=job\nJOB_ONLY=1\n");
    if (withSiteFile)
        tree.write(QStringLiteral("etc-cups/marker.defs"), "SITE_ONLY=1\nSHARED=site\n");
    tree.write(QStringLiteral("share-cups/quillet/marker.defs"), "SHIPPED_ONLY=1\nSHARED=shipped\n");

    const RunResult result = tree.runQuillet(jobArguments());
    QVERIFY2(result.exitCode == 0 && !result.crashed, qPrintable(describe(result)));

    // The filter writes the whole store back into the variables file.
    QMap<QString, QString> store = parseKeyValues(tree.read(QStringLiteral("job/vars.txt")));
    QVERIFY(store.remove(QStringLiteral("DATE")) == 1);
    QVERIFY(store.remove(QStringLiteral("TIME")) == 1);
    const QMap<QString, QString> expected = {
        {QStringLiteral("JOB_ONLY"), QStringLiteral("1")},
        {QStringLiteral("NUM_PAGES"), QStringLiteral("1")},
        {QStringLiteral("NUM_PAGES_CONTINUOUS"), QStringLiteral("1")},
        {QStringLiteral("SHARED"), shared},
        {onlyName, QStringLiteral("1")},
    };
    QCOMPARE(store, expected);
}

void TestCommandLine::runDateAndTimeReplaceVariablesFile()
{
    FixtureTree tree;
    prepareJob(tree, "DATE=01.01.1999\nTIME=99:99:99\n");

    const QDateTime before = QDateTime::currentDateTime();
    const RunResult result = tree.runQuillet(jobArguments());
    const QDateTime after = QDateTime::currentDateTime();
    QVERIFY2(result.exitCode == 0 && !result.crashed, qPrintable(describe(result)));

    const QMap<QString, QString> store = parseKeyValues(tree.read(QStringLiteral("job/vars.txt")));
    const QString date = store.value(QStringLiteral("DATE"));
    const QString time = store.value(QStringLiteral("TIME"));
    QVERIFY2(QRegularExpression(QStringLiteral("^\\d\\d\\.\\d\\d\\.\\d\\d\\d\\d$")).match(date).hasMatch(),
             qPrintable(date));
    QVERIFY2(QRegularExpression(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d$")).match(time).hasMatch(), qPrintable(time));

    // The run's own clock: the stamp lies between the moments before and
    // after the run (whole seconds, as it is written).
    const QDateTime stamp = QDateTime(QDate::fromString(date, QStringLiteral("dd.MM.yyyy")),
                                      QTime::fromString(time, QStringLiteral("hh:mm:ss")));
    QVERIFY2(stamp.isValid(), qPrintable(date + QLatin1Char(' ') + time));
    QVERIFY2(stamp >= before.addMSecs(-before.time().msec()) && stamp <= after,
             qPrintable(QStringLiteral("%1 not between %2 and %3")
                            .arg(stamp.toString(Qt::ISODate), before.toString(Qt::ISODate),
                                 after.toString(Qt::ISODate))));
}

void TestCommandLine::definitionsReplaceRunDateAndTime()
{
    FixtureTree tree;
    prepareJob(tree, "DATE=01.01.1999\nTIME=10:00:00\n");
    tree.write(QStringLiteral("etc-cups/marker.defs"), "DATE=fixed date\nTIME=fixed time\n");

    const RunResult result = tree.runQuillet(jobArguments());
    QVERIFY2(result.exitCode == 0 && !result.crashed, qPrintable(describe(result)));

    const QMap<QString, QString> store = parseKeyValues(tree.read(QStringLiteral("job/vars.txt")));
    QCOMPARE(store.value(QStringLiteral("DATE")), QStringLiteral("fixed date"));
    QCOMPARE(store.value(QStringLiteral("TIME")), QStringLiteral("fixed time"));
}

void TestCommandLine::badVariableLinesAreSilent()
{
    // Bad lines in the variables and definitions files are skipped without a
    // word: standard error is the same as for the same job without them.
    FixtureTree clean;
    prepareJob(clean, "A=1\n");
    clean.write(QStringLiteral("etc-cups/marker.defs"), "D=4\n");
    const RunResult cleanRun = clean.runQuillet(jobArguments());
    QVERIFY2(cleanRun.exitCode == 0 && !cleanRun.crashed, qPrintable(describe(cleanRun)));

    FixtureTree noisy;
    prepareJob(noisy, "novalue\n=value\nA=1\n   = x\n");
    noisy.write(QStringLiteral("etc-cups/marker.defs"), "=1\nbad line\nD=4\n");
    const RunResult noisyRun = noisy.runQuillet(jobArguments());
    QVERIFY2(noisyRun.exitCode == 0 && !noisyRun.crashed, qPrintable(describe(noisyRun)));

    QCOMPARE(noisyRun.standardError, cleanRun.standardError);
    QCOMPARE(noisyRun.standardOutput, QByteArray());
    const QMap<QString, QString> store = parseKeyValues(noisy.read(QStringLiteral("job/vars.txt")));
    QCOMPARE(store.value(QStringLiteral("A")), QStringLiteral("1"));
    QCOMPARE(store.value(QStringLiteral("D")), QStringLiteral("4"));
    QVERIFY(!store.contains(QString()));
    QVERIFY(!store.contains(QStringLiteral("novalue")));
}

void TestCommandLine::outputInMissingFolderIsReportedByDocumentFilter()
{
    FixtureTree tree;
    prepareJob(tree);
    const RunResult result = tree.runQuillet(
        {QStringLiteral("in.ps"), QStringLiteral("marker.tpl"), QStringLiteral("vars.txt"), QStringLiteral("nodir/out.ps")});

    QVERIFY2(!result.crashed, qPrintable(describe(result)));
    QCOMPARE(result.exitCode, 1);
    // Start-up passed the name on unchecked; the document filter's message is
    // the last line on standard error.
    const QByteArray message = "Can not open output file nodir/out.ps for writing\n";
    QVERIFY2(result.standardError.endsWith(message), qPrintable(describe(result)));
    QCOMPARE(result.standardError.count(message), 1);
    QVERIFY2(!result.standardError.contains("doesn't exist"), qPrintable(describe(result)));
    QVERIFY(!tree.exists(QStringLiteral("job/nodir")));
    QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
    QVERIFY(!tree.exists(QStringLiteral("nodir")));
}

void TestCommandLine::duplexFlagReachesDocumentFilter_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("duplex");

    QTest::newRow("without --duplex the job is simplex") << jobArguments() << false;
    QTest::newRow("--duplex before the file names") << (QStringList{"--duplex"} + jobArguments()) << true;
    QTest::newRow("--duplex between the file names")
        << QStringList{"in.ps", "marker.tpl", "--duplex", "vars.txt", "out.ps"} << true;
    QTest::newRow("--duplex after the file names") << (jobArguments() << QStringLiteral("--duplex")) << true;
}

void TestCommandLine::duplexFlagReachesDocumentFilter()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, duplex);

    FixtureTree tree;
    prepareJob(tree);
    const RunResult result = tree.runQuillet(arguments);
    QVERIFY2(result.exitCode == 0 && !result.crashed, qPrintable(describe(result)));

    // Duplex puts a back page labelled 2 after the one document page;
    // simplex replaces the document's showpage instead.
    const QByteArray output = tree.read(QStringLiteral("job/out.ps"));
    QVERIFY(output.startsWith("%!PS-Adobe-3.0\n"));
    QCOMPARE(output.contains("\n%%Page: 2 2\n"), duplex);
    QCOMPARE(output.contains("\n/showpage "), !duplex);
}

void TestCommandLine::messagesAreTranslated()
{
    const QString lrelease = QStandardPaths::findExecutable(QStringLiteral("lrelease"));
    if (lrelease.isEmpty())
        QSKIP("lrelease is needed to build a message catalogue");

    FixtureTree tree;
    prepareJob(tree);
    const QString source = tree.write(QStringLiteral("quillet_de.ts"), QByteArray(
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!DOCTYPE TS>\n<TS version=\"2.1\" language=\"de_DE\">\n"
        "<context>\n    <name>main</name>\n"
        "    <message>\n        <source>Input file %1 doesn't exist</source>\n"
        "        <translation>Eingabedatei %1 fehlt \xe2\x80\x93 Abbruch</translation>\n    </message>\n"
        "    <message>\n        <source>PostScript file Marker Filter</source>\n"
        "        <translation>Markierungsfilter f\xc3\xbcr PostScript</translation>\n    </message>\n"
        "</context>\n</TS>\n"));
    const RunResult compiled = runProgram(lrelease, {source, QStringLiteral("-qm"), tree.path(QStringLiteral("translations/quillet_de.qm"))});
    QVERIFY2(compiled.exitCode == 0 && tree.exists(QStringLiteral("translations/quillet_de.qm")),
             qPrintable(describe(compiled)));

    const QStringList german = {QStringLiteral("LANGUAGE=de"), QStringLiteral("LC_ALL="), QStringLiteral("LANG=C.UTF-8")};
    const RunResult missing = tree.runQuillet(
        {QStringLiteral("nope.ps"), QStringLiteral("marker.tpl"), QStringLiteral("vars.txt"), QStringLiteral("out.ps")}, german);
    QCOMPARE(missing.exitCode, 1);
    const QByteArray expected = "Eingabedatei nope.ps fehlt \xe2\x80\x93 Abbruch\n";
    QVERIFY2(missing.standardError == expected, qPrintable(firstDifference(missing.standardError, expected)));

    const RunResult help = tree.runQuillet({}, german);
    QCOMPARE(help.exitCode, 1);
    QVERIFY2(help.standardError.contains("\nMarkierungsfilter f\xc3\xbcr PostScript\n"), qPrintable(describe(help)));
    QVERIFY(!help.standardError.contains("PostScript file Marker Filter"));

    // Without a catalogue for the locale the texts stay English.
    const RunResult english = tree.runQuillet(
        {QStringLiteral("nope.ps"), QStringLiteral("marker.tpl"), QStringLiteral("vars.txt"), QStringLiteral("out.ps")},
        {QStringLiteral("LANGUAGE=fr"), QStringLiteral("LC_ALL="), QStringLiteral("LANG=C.UTF-8")});
    QCOMPARE(english.standardError, QByteArray("Input file nope.ps doesn't exist\n"));
}

// A site script's own children (here a sleep started by a shell) are ended
// with it: none of them outlives the run, whether the script hangs or ends.
void TestCommandLine::siteScriptsLeaveNoProcessBehind_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QByteArray>("shown");

    QTest::newRow("a script that hangs, waiting for its child")
        << QByteArray("sleep 300 &\necho $! >> children\necho waiting\nwait\n") << QByteArray("waiting");
    QTest::newRow("a script that ends at once, leaving its child running")
        << QByteArray("sleep 300 &\necho $! >> children\necho done\n") << QByteArray("done");
}

void TestCommandLine::siteScriptsLeaveNoProcessBehind()
{
    QFETCH(QByteArray, script);
    QFETCH(QByteArray, shown);

    FixtureTree tree;
    prepareJob(tree, JobVariables + "MarkerProgramTimeout=300\n");
    const QString scriptFile =
        tree.write(QStringLiteral("job/site.sh"), "#!/bin/sh\ncd '" + tree.job().toUtf8() + "'\n" + script);
    QVERIFY(QFile::setPermissions(scriptFile,
                                  QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    tree.write(QStringLiteral("job/in.ps"), minimalDocument(2));
    tree.write(QStringLiteral("job/marker.tpl"),
               "any:normal:12::top-left:{SCRIPT:" + scriptFile.toUtf8() + "}\n");

    const RunResult result = tree.runQuillet(jobArguments());
    QVERIFY2(!result.crashed && result.exitCode == 0, qPrintable(describe(result)));

    // The script ran once per page, and each time its child was ended.
    const QList<QByteArray> children = tree.read(QStringLiteral("job/children")).trimmed().split('\n');
    QCOMPARE(children.size(), 2);
    for (const QByteArray& child : children)
        QVERIFY2(processEnded(child.toLongLong()), child.constData());
    // What the script printed before it was stopped is the marker text, on
    // both pages (the shipped catalogue's charset 0 is Latin-1, so each
    // character is 00 and its own code).
    QByteArray encoded = "<";
    for (const char c : shown)
        encoded += "00" + QByteArray::number(uchar(c), 16);
    encoded += '>';
    QCOMPARE(tree.read(QStringLiteral("job/out.ps")).count(encoded), 2);
}

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
