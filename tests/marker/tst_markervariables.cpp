// Tests of variable expansion in marker texts: references to the store, site
// scripts ("SCRIPT:") and the user directory ("FREEIPA:") through stand-in
// "kinit" and "ipa" programs placed first on the search path.
#include "marker/marker.h"
#include "settings/variables.h"
#include "support/messagerecorder.h"
#include "support/testsupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QTextCodec>

#include <memory>

namespace {

void setReplaceUnderscore(bool on)
{
    readMarkerTemplate(on ? "replace_underscore=1\n" : "replace_underscore=0\n");
    QCOMPARE(Marker::instance().replaceUnderscore(), on);
}

const QStringList securityLabelNames = {
    QStringLiteral("LEVEL_NAME"),    QStringLiteral("LABEL_NAME"),
    QStringLiteral("LABEL_NAME_FULL"), QStringLiteral("ILEVEL_NAME"),
    QStringLiteral("CATEGORY_NAME"), QStringLiteral("mac-job-mac-level-name"),
    QStringLiteral("LEV_NAME"),      QStringLiteral("ILEV_NAME"),
    QStringLiteral("CAT_NAME")};

// What the stand-in directory client prints for a user by default.
const QByteArray directoryListing = "  User login: jdoe\n"
                                    "  First name: Jane\n"
                                    "  cn: Example User\n"
                                    "  description: a: b\n"
                                    "  mail: first@example.com\n"
                                    "  mail: second@example.com\n"
                                    "  title:Engineer\n"
                                    "  ou:   Research  \n"
                                    "Heading without separator\n"
                                    "  : orphan value\n"
                                    "  emptyvalue: \n"
                                    "  shell: /bin/sh\n";

} // namespace

class TestMarkerVariables : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void references_data();
    void references();
    void securityLabels_data();
    void securityLabels();

    void scripts_data();
    void scripts();
    void runScriptExpandsOnlyBracedCommands_data();
    void runScriptExpandsOnlyBracedCommands();
    void scriptValuesAreWholeArguments_data();
    void scriptValuesAreWholeArguments();
    void scriptThatHangs();
    void scriptsAreRunForEveryReference();
    void quickScriptsCostNoExtraWait();
    void scriptNestingIsBounded_data();
    void scriptNestingIsBounded();
    void scriptLeavesNoProcessBehind_data();
    void scriptLeavesNoProcessBehind();
    void scriptOutputIsLimited_data();
    void scriptOutputIsLimited();
    void programLimitSettings_data();
    void programLimitSettings();

    void directoryUserName_data();
    void directoryUserName();
    void directoryEntries_data();
    void directoryEntries();
    void directoryReferences_data();
    void directoryReferences();
    void directoryWithoutUserRunsNothing_data();
    void directoryWithoutUserRunsNothing();
    void directoryIsAskedForEveryReference();
    void directoryIgnoresFailingPrograms();
    void directoryClientThatHangs();
    void ticketRequestThatHangs();
    void braceOnlyTemplateTextRunsNothingAtLoadTime();

private:
    QString script(const QString& name) const { return m_scripts.filePath(name); }
    QString fakeBin(const QString& name) const { return m_fakeBin.filePath(name); }
    QStringList directoryLog() const;
    void writeScript(const QString& path, const QByteArray& body) const;
    QString withScripts(QString text) const;

    QTemporaryDir m_scripts;
    QTemporaryDir m_fakeBin;
    QByteArray m_savedPath;
    // Messages sent to the logging facility while a test case runs.
    std::unique_ptr<MessageRecorder> m_messages;
};

void TestMarkerVariables::writeScript(const QString& path, const QByteArray& body) const
{
    QVERIFY(writeFile(path, "#!/bin/sh\n" + body));
    QVERIFY(QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                            | QFileDevice::ReadGroup | QFileDevice::ExeGroup));
}

// Replaces the script placeholders (%ARGS% and the like) by their paths.
QString TestMarkerVariables::withScripts(QString text) const
{
    for (const char* name : {"ARGS", "COUNT", "PADDED", "LINES", "FAILS", "LOCAL", "SLOW", "COUNTER",
                             "HANGS_WITH_CHILD", "LEAVES_CHILD", "FLOOD"})
        text.replace(QStringLiteral("%%1%").arg(QLatin1String(name)), script(QLatin1String(name)));
    return text;
}

// Lines of the stand-in programs' log: "kinit <arg>..." and "ipa <arg>...".
QStringList TestMarkerVariables::directoryLog() const
{
    const QString log = QString::fromUtf8(readFile(fakeBin(QStringLiteral("calls.log"))));
    return log.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

void TestMarkerVariables::initTestCase()
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QVERIFY(m_scripts.isValid());
    QVERIFY(m_fakeBin.isValid());

    // Site scripts.
    writeScript(script(QStringLiteral("ARGS")), "for a in \"$@\"; do printf '<%s>' \"$a\"; done\n");
    // Prints how many arguments it got, then each in angle brackets.
    writeScript(script(QStringLiteral("COUNT")),
                "printf '%s' \"$#\"; for a in \"$@\"; do printf '<%s>' \"$a\"; done\n");
    writeScript(script(QStringLiteral("PADDED")), "printf '  \\n\\n  hello   world  \\n\\n\\t'\n");
    writeScript(script(QStringLiteral("LINES")), "printf 'line1\\n  line2\\n\\nline3\\n'\n");
    writeScript(script(QStringLiteral("FAILS")), "echo out\necho err >&2\nexit 3\n");
    writeScript(script(QStringLiteral("LOCAL")), "printf '\\320\\237\\321\\200\\320\\270\\320\\262\\320\\265\\321\\202\\n'\n");
    writeScript(script(QStringLiteral("SLOW")), "printf 'partial\\n'\nexec sleep 30\n");
    // Scripts whose own child, a sleep, records its process id.
    const QByteArray childPid = script(QStringLiteral("child.pid")).toUtf8();
    writeScript(script(QStringLiteral("HANGS_WITH_CHILD")),
                "sleep 300 &\necho $! > '" + childPid + "'\nprintf 'partial\\n'\nwait\n");
    writeScript(script(QStringLiteral("LEAVES_CHILD")),
                "sleep 300 &\necho $! > '" + childPid + "'\necho done\n");
    writeScript(script(QStringLiteral("FLOOD")), "exec yes flood\n");
    writeScript(script(QStringLiteral("COUNTER")),
                QByteArray("n=$(cat '") + script(QStringLiteral("count")).toUtf8()
                    + "' 2>/dev/null || echo 0)\nn=$((n + 1))\necho $n > '" + script(QStringLiteral("count")).toUtf8()
                    + "'\necho $n\n");

    // Stand-in Kerberos and directory clients. Each logs its arguments, each
    // in angle brackets, then runs a body that a test case may replace. When
    // the file kinit-pause exists, kinit logs only after a pause, so that a
    // caller that did not wait for it would see the directory client log first.
    const QByteArray log = fakeBin(QStringLiteral("calls.log")).toUtf8();
    writeScript(fakeBin(QStringLiteral("kinit")),
                "[ -e '" + fakeBin(QStringLiteral("kinit-pause")).toUtf8()
                    + "' ] && sleep 0.15\n{ printf 'kinit'; for a in \"$@\"; do printf ' <%s>' \"$a\"; done; echo; } >> '" + log
                    + "'\nexec /bin/sh '" + fakeBin(QStringLiteral("kinit-body")).toUtf8() + "'\n");
    writeScript(fakeBin(QStringLiteral("ipa")),
                "{ printf 'ipa'; for a in \"$@\"; do printf ' <%s>' \"$a\"; done; echo; } >> '" + log
                    + "'\nexec /bin/sh '" + fakeBin(QStringLiteral("ipa-body")).toUtf8() + "'\n");

    m_savedPath = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(m_fakeBin.path()) + ':' + m_savedPath);
}

void TestMarkerVariables::cleanupTestCase()
{
    qputenv("PATH", m_savedPath);
}

void TestMarkerVariables::init()
{
    Variables& variables = Variables::instance();
    variables.clear();
    Marker::instance().reset();

    variables.insert(QStringLiteral("DATE"), QStringLiteral("01.02.2024"));
    variables.insert(QStringLiteral("A"), QStringLiteral("alpha"));
    variables.insert(QStringLiteral("B"), QStringLiteral("beta"));
    variables.insert(QStringLiteral("[A]"), QStringLiteral("inner"));
    variables.insert(QStringLiteral(" PADDED "), QStringLiteral("padded"));
    variables.insert(QStringLiteral("EMPTY"), QString());

    QFile::remove(fakeBin(QStringLiteral("calls.log")));
    QFile::remove(script(QStringLiteral("count")));
    QFile::remove(script(QStringLiteral("child.pid")));
    QFile::remove(fakeBin(QStringLiteral("kinit-pause")));
    writeFile(fakeBin(QStringLiteral("listing")), directoryListing);
    writeFile(fakeBin(QStringLiteral("kinit-body")), "exit 0\n");
    writeFile(fakeBin(QStringLiteral("ipa-body")), "cat '" + fakeBin(QStringLiteral("listing")).toUtf8() + "'\n");

    m_messages.reset(new MessageRecorder);
}

void TestMarkerVariables::cleanup()
{
    const QStringList logged = m_messages->texts();
    m_messages.reset();
    // Expansion never reports anything.
    QCOMPARE(logged, QStringList());
}

// --- References to the store ---------------------------------------------------

void TestMarkerVariables::references_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");

    QTest::newRow("square brackets") << "Printed [DATE]" << "Printed 01.02.2024";
    QTest::newRow("braces") << "Printed {DATE}" << "Printed 01.02.2024";
    QTest::newRow("mixed [ and }") << "[DATE}" << "01.02.2024";
    QTest::newRow("mixed { and ]") << "{DATE]" << "01.02.2024";
    QTest::newRow("text around and between references") << "a[A]b{B}c" << "aalphabbetac";
    QTest::newRow("adjacent references") << "[A][B]" << "alphabeta";
    QTest::newRow("text without references unchanged") << "plain text: 100%" << "plain text: 100%";
    QTest::newRow("empty text") << "" << "";
    QTest::newRow("absent key gives empty text") << "<[MISSING]>" << "<>";
    QTest::newRow("key with empty value gives empty text") << "<[EMPTY]>" << "<>";
    QTest::newRow("names are case-sensitive") << "<[date]>" << "<>";
    QTest::newRow("empty reference gives empty text") << "<[]>" << "<>";
    QTest::newRow("nesting: [[A]] looks up the name [A]") << "[[A]]" << "inner";
    QTest::newRow("nesting with mixed kinds: {[A]} looks up [A]") << "{[A]}" << "inner";
    QTest::newRow("name used untrimmed: [ DATE ] is empty") << "<[ DATE ]>" << "<>";
    QTest::newRow("name used untrimmed: [ PADDED ] finds ' PADDED '") << "[ PADDED ]" << "padded";
    QTest::newRow("name used untrimmed: [PADDED] misses ' PADDED '") << "<[PADDED]>" << "<>";
    QTest::newRow("stray closing bracket: rest copied as is") << "x]y[X]z" << "x]y[X]z";
    QTest::newRow("stray closing bracket after a reference") << "[A]]x[B]" << "alpha]x[B]";
    QTest::newRow("reference before a stray closing bracket resolved") << "[A]x}[B]" << "alphax}[B]";
    QTest::newRow("unterminated reference dropped with its bracket") << "Date: [DATE" << "Date: ";
    QTest::newRow("unterminated after a resolved reference") << "[A] and [B" << "alpha and ";
    QTest::newRow("unterminated nested reference dropped") << "x[[A]" << "x";
    QTest::newRow("prefix without brackets is plain text") << "SCRIPT:/bin/echo x" << "SCRIPT:/bin/echo x";
    QTest::newRow("underscores untouched when the flag is off") << "[LABEL_NAME]" << "TOP_SECRET";
}

void TestMarkerVariables::references()
{
    QFETCH(QString, text);
    QFETCH(QString, expected);

    Variables::instance().insert(QStringLiteral("LABEL_NAME"), QStringLiteral("TOP_SECRET"));
    QCOMPARE(Marker::instance().expandVariables(text), expected);
}

void TestMarkerVariables::securityLabels_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("replaceUnderscore");
    QTest::addColumn<QString>("expected");

    for (const QString& name : securityLabelNames) {
        QTest::addRow("flag on: %s has _ replaced", qPrintable(name)) << name << true << "TOP SECRET X";
        QTest::addRow("flag off: %s keeps _", qPrintable(name)) << name << false << "TOP_SECRET_X";
    }
    QTest::newRow("flag on: other name keeps _") << "OTHER" << true << "TOP_SECRET_X";
    QTest::newRow("flag on: list is case-sensitive, label_name keeps _") << "label_name" << true << "TOP_SECRET_X";
    QTest::newRow("flag on: exact names only, LABEL keeps _") << "LABEL" << true << "TOP_SECRET_X";
    QTest::newRow("flag on: exact names only, LABEL_NAME_FULL_X keeps _")
        << "LABEL_NAME_FULL_X" << true << "TOP_SECRET_X";
}

void TestMarkerVariables::securityLabels()
{
    QFETCH(QString, name);
    QFETCH(bool, replaceUnderscore);
    QFETCH(QString, expected);

    setReplaceUnderscore(replaceUnderscore);
    Variables::instance().insert(name, QStringLiteral("TOP_SECRET_X"));

    // The underscore of the surrounding text is never touched.
    QCOMPARE(Marker::instance().expandVariables(QStringLiteral("x_[%1]").arg(name)), QStringLiteral("x_") + expected);
}

// --- Site scripts ----------------------------------------------------------------

void TestMarkerVariables::scripts_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");

    QTest::newRow("braced argument expanded: {SCRIPT:/bin/echo {DATE}}")
        << "{SCRIPT:/bin/echo {DATE}}" << "01.02.2024";
    QTest::newRow("braced command expands square-bracketed arguments too")
        << "{SCRIPT:%ARGS% {A} [B]}" << "<alpha><beta>";
    QTest::newRow("command without braces is not expanded") << "[SCRIPT:%ARGS% [B]]" << "<[B]>";
    QTest::newRow("double quotes group words") << "{SCRIPT:%ARGS% \"a  b\" c}" << "<a  b><c>";
    QTest::newRow("three double quotes are one literal quote") << "{SCRIPT:%ARGS% a\"\"\"b}" << "<a\"b>";
    QTest::newRow("blanks around the command trimmed") << "{SCRIPT:   %ARGS% x   }" << "<x>";
    QTest::newRow("leading and trailing whitespace of output removed") << "({SCRIPT:%PADDED%})" << "(hello   world)";
    QTest::newRow("inner newlines kept") << "{SCRIPT:%LINES%}" << "line1\n  line2\n\nline3";
    QTest::newRow("exit status and standard error ignored") << "{SCRIPT:%FAILS%}" << "out";
    QTest::newRow("output decoded in the local encoding") << "{SCRIPT:%LOCAL%}" << QString::fromUtf8("Привет");
    QTest::newRow("empty command gives empty text") << "<{SCRIPT:}>" << "<>";
    QTest::newRow("blank command gives empty text") << "<{SCRIPT:   }>" << "<>";
    QTest::newRow("missing program gives empty text") << "<{SCRIPT:/nonexistent/quillet-test-program x}>" << "<>";
    QTest::newRow("script reference inside text") << "Before {SCRIPT:/bin/echo mid} after" << "Before mid after";
    QTest::newRow("prefix is case-sensitive: script: is a store name") << "<{script:/bin/echo x}>" << "<>";
    QTest::newRow("prefix must start the name") << "<{ SCRIPT:/bin/echo x}>" << "<>";
    QTest::newRow("unterminated script reference dropped") << "x{SCRIPT:/bin/echo y" << "x";
}

void TestMarkerVariables::scripts()
{
    QFETCH(QString, text);
    QFETCH(QString, expected);

    QCOMPARE(Marker::instance().expandVariables(withScripts(text)), expected);
}

void TestMarkerVariables::runScriptExpandsOnlyBracedCommands_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("expected");

    QTest::newRow("braces: references expanded") << "/bin/echo {DATE}" << "01.02.2024";
    QTest::newRow("both kinds once braces are there") << "%ARGS% {A} [B]" << "<alpha><beta>";
    QTest::newRow("square brackets only: left as written") << "%ARGS% [DATE]" << "<[DATE]>";
    QTest::newRow("opening brace only: left as written") << "%ARGS% {DATE" << "<{DATE>";
    QTest::newRow("closing brace only: left as written") << "%ARGS% DATE}" << "<DATE}>";
    QTest::newRow("no words: empty text") << "" << "";
}

void TestMarkerVariables::runScriptExpandsOnlyBracedCommands()
{
    QFETCH(QString, command);
    QFETCH(QString, expected);

    QCOMPARE(Marker::instance().runScript(withScripts(command)), expected);
}

// A job's values (its title above all, which the printing user chooses) reach
// a site program as one argument each when MarkerScriptWholeValues=1: never
// split at blanks, never read for quotes, whatever they hold. The command's
// own words, written in the template, split as they always did. Without the
// setting the command line is expanded first and split afterwards.
void TestMarkerVariables::scriptValuesAreWholeArguments_data()
{
    QTest::addColumn<QString>("setting"); // value of MarkerScriptWholeValues; "-" leaves it out
    QTest::addColumn<QString>("title");   // the job's "job-name"
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");

    const QString one = QStringLiteral("{SCRIPT:%COUNT% {job-name}}");
    QTest::newRow("blanks") << "1"
                            << "Quarterly report  final" << one << "1<Quarterly report  final>";
    QTest::newRow("single and double quotes")
        << "1"
        << "it's \"final\" 'draft'" << one << "1<it's \"final\" 'draft'>";
    QTest::newRow("three double quotes stay three") << "1"
                                                    << "a\"\"\"b" << one << "1<a\"\"\"b>";
    QTest::newRow("leading dash is no option") << "1"
                                               << "--help -x" << one << "1<--help -x>";
    QTest::newRow("command substitution is text")
        << "1"
        << "$(touch /tmp/quillet-x) $HOME" << one << "1<$(touch /tmp/quillet-x) $HOME>";
    QTest::newRow("backticks are text") << "1"
                                        << "`id` x" << one << "1<`id` x>";
    QTest::newRow("backslashes") << "1"
                                 << "a\\b \\\\c\\" << one << "1<a\\b \\\\c\\>";
    QTest::newRow("empty value is an empty argument") << "1"
                                                      << "" << one << "1<>";
    QTest::newRow("blanks only") << "1"
                                 << "   " << one << "1<   >";
    QTest::newRow("newline and tab") << "1"
                                     << "line1\nline2\tend" << one << "1<line1\nline2\tend>";
    QTest::newRow("references in the value are not expanded")
        << "1"
        << "{A} [B] {SCRIPT:/bin/echo no}" << one << "1<{A} [B] {SCRIPT:/bin/echo no}>";
    QTest::newRow("everything at once") << "1"
                                        << "-x 'a b' \"c d\" $(id) `id` \\ \n"
                                        << one << "1<-x 'a b' \"c d\" $(id) `id` \\ \n>";
    QTest::newRow("missing key is an empty argument") << "1"
                                                      << "x"
                                                      << "{SCRIPT:%COUNT% {MISSING} z}"
                                                      << "2<><z>";
    QTest::newRow("literal words still split and quote")
        << "1"
        << "my title"
        << "{SCRIPT:%COUNT% --title {job-name} \"two words\" x\"\"\"y}"
        << "4<--title><my title><two words><x\"y>";
    QTest::newRow("value joined to a literal word") << "1"
                                                    << "my title"
                                                    << "{SCRIPT:%COUNT% --title={job-name}}"
                                                    << "1<--title=my title>";
    QTest::newRow("value inside literal quotes") << "1"
                                                 << "my title"
                                                 << "{SCRIPT:%COUNT% \"pre {job-name} post\"}"
                                                 << "1<pre my title post>";
    QTest::newRow("two values in one word") << "1"
                                            << "b c"
                                            << "{SCRIPT:%COUNT% {A}{job-name}}"
                                            << "1<alphab c>";
    QTest::newRow("square-bracketed value") << "1"
                                            << "a b"
                                            << "{SCRIPT:%COUNT% [job-name] {A}}"
                                            << "2<a b><alpha>";
    QTest::newRow("a nested script's output is one value") << "1"
                                                           << "x"
                                                           << "{SCRIPT:%COUNT% {SCRIPT:/bin/echo a  b}}"
                                                           << "1<a b>";
    QTest::newRow("value as the program: one word, not run with arguments") << "1"
                                                                            << "/bin/echo hi"
                                                                            << "<{SCRIPT:{job-name}}>"
                                                                            << "<>";
    QTest::newRow("no braces: the command is taken as written") << "1"
                                                                << "a b"
                                                                << "{SCRIPT:%COUNT% [job-name] x}"
                                                                << "2<[job-name]><x>";

    // Without the setting, or with another value, the expanded line is split.
    QTest::newRow("setting absent: the value splits") << "-"
                                                      << "a b --x" << one << "3<a><b><--x>";
    QTest::newRow("setting 0: the value splits") << "0"
                                                 << "a \"b c\"" << one << "2<a><b c>";
    QTest::newRow("setting absent: an empty value is no argument") << "-"
                                                                   << "" << one << "0";
    QTest::newRow("setting absent: literal words as before")
        << "-"
        << "t"
        << "{SCRIPT:%COUNT% --title {job-name} \"two words\" x\"\"\"y}"
        << "4<--title><t><two words><x\"y>";
}

void TestMarkerVariables::scriptValuesAreWholeArguments()
{
    QFETCH(QString, setting);
    QFETCH(QString, title);
    QFETCH(QString, text);
    QFETCH(QString, expected);

    if (setting != QLatin1String("-"))
        Variables::instance().insert(QStringLiteral("MarkerScriptWholeValues"), setting);
    Variables::instance().insert(QStringLiteral("job-name"), title);
    QFile::remove(QStringLiteral("/tmp/quillet-x"));
    QCOMPARE(Marker::instance().expandVariables(withScripts(text)), expected);
    QVERIFY(!QFile::exists(QStringLiteral("/tmp/quillet-x")));
}

void TestMarkerVariables::scriptThatHangs()
{
    QElapsedTimer timer;
    timer.start();
    const QString result = Marker::instance().expandVariables(withScripts(QStringLiteral("({SCRIPT:%SLOW%})")));
    const qint64 elapsed = timer.elapsed();

    // What the script wrote before the wait ended is kept.
    QCOMPARE(result, QStringLiteral("(partial)"));
    QVERIFY2(elapsed >= 3500 && elapsed < 8000, QByteArray::number(elapsed).constData());
}

void TestMarkerVariables::scriptsAreRunForEveryReference()
{
    QCOMPARE(Marker::instance().expandVariables(withScripts(QStringLiteral("{SCRIPT:%COUNTER%} {SCRIPT:%COUNTER%}"))),
             QStringLiteral("1 2"));
    QCOMPARE(Marker::instance().expandVariables(withScripts(QStringLiteral("{SCRIPT:%COUNTER%}"))),
             QStringLiteral("3"));
}

// A script that ends at once is taken at once: a reference on every page of
// a long job must not add a fixed wait per run.
void TestMarkerVariables::quickScriptsCostNoExtraWait()
{
    QElapsedTimer timer;
    timer.start();
    for (int run = 0; run < 50; ++run)
        QCOMPARE(Marker::instance().expandVariables(QStringLiteral("{SCRIPT:/bin/echo x}")),
                 QStringLiteral("x"));
    // A few milliseconds a run; waiting 50 ms a run would take 2.5 s.
    QVERIFY2(timer.elapsed() < 2000, QByteArray::number(timer.elapsed()).constData());
}

// SCRIPT: references may nest inside a command up to 8 deep; a deeper one is
// not run and gives an empty text, with one warning.
void TestMarkerVariables::scriptNestingIsBounded_data()
{
    QTest::addColumn<int>("depth");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<bool>("warned");

    // Each level prints "<L" and what the level inside it printed, then ">".
    const QString eight = QStringLiteral("<L").repeated(8);
    const QString closing = QStringLiteral(">").repeated(8);
    QTest::newRow("one level") << 1 << "<Lx>" << false;
    QTest::newRow("eight levels, all run") << 8 << eight + QLatin1Char('x') + closing << false;
    QTest::newRow("nine levels: the innermost is not run") << 9 << eight + closing << true;
    QTest::newRow("10,000 levels: the eight outermost run") << 10000 << eight + closing << true;
}

void TestMarkerVariables::scriptNestingIsBounded()
{
    QFETCH(int, depth);
    QFETCH(QString, expected);
    QFETCH(bool, warned);

    QString text = QStringLiteral("x");
    for (int level = 0; level < depth; ++level)
        text = QStringLiteral("{SCRIPT:%ARGS% L") + text + QLatin1Char('}');
    QCOMPARE(Marker::instance().expandVariables(withScripts(text)), expected);

    const QStringList warnings = m_messages->texts(QtWarningMsg);
    m_messages.reset(new MessageRecorder);
    QCOMPARE(warnings,
             warned ? QStringList{QStringLiteral("Script reference nested deeper than 8 levels is not run!")}
                    : QStringList{});
}

// A script that outlives its time is ended with everything it started; one
// that ends at once does not leave its children running either.
void TestMarkerVariables::scriptLeavesNoProcessBehind_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<int>("maxMs");

    QTest::newRow("a script that hangs with a child: both ended after the time limit")
        << "({SCRIPT:%HANGS_WITH_CHILD%})"
        << "(partial)" << 3000;
    QTest::newRow("a script that ends at once leaving a child behind: the child is ended")
        << "({SCRIPT:%LEAVES_CHILD%})"
        << "(done)" << 1500;
}

void TestMarkerVariables::scriptLeavesNoProcessBehind()
{
    QFETCH(QString, text);
    QFETCH(QString, expected);
    QFETCH(int, maxMs);

    Variables::instance().insert(QStringLiteral("MarkerProgramTimeout"), QStringLiteral("500"));
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(Marker::instance().expandVariables(withScripts(text)), expected);
    QVERIFY2(timer.elapsed() < maxMs, QByteArray::number(timer.elapsed()).constData());

    const qint64 child = readFile(script(QStringLiteral("child.pid"))).trimmed().toLongLong();
    QVERIFY(child > 0);
    QVERIFY2(processEnded(child), qPrintable(QStringLiteral("the script's child %1 still runs").arg(child)));
}

// A script that writes without end is stopped at the output limit: neither
// the memory nor the time of the run grows with what it writes.
void TestMarkerVariables::scriptOutputIsLimited_data()
{
    QTest::addColumn<QString>("limit"); // MarkerProgramOutputLimit, empty for the default
    QTest::addColumn<int>("kept");

    QTest::newRow("default limit: 64 KiB kept") << QString() << 65536;
    QTest::newRow("limit of 1000 bytes") << "1000" << 1000;
}

void TestMarkerVariables::scriptOutputIsLimited()
{
    QFETCH(QString, limit);
    QFETCH(int, kept);

    if (!limit.isEmpty())
        Variables::instance().insert(QStringLiteral("MarkerProgramOutputLimit"), limit);
    QElapsedTimer timer;
    timer.start();
    const QString output = Marker::instance().runScript(withScripts(QStringLiteral("%FLOOD%")));
    // The flood is cut as soon as the limit is reached, long before the time limit.
    QVERIFY2(timer.elapsed() < 2000, QByteArray::number(timer.elapsed()).constData());
    // "flood\n" repeated up to the limit, which cuts a line (neither limit
    // is a multiple of 6), so nothing is trimmed.
    QCOMPARE(output.size(), kept);
    QVERIFY(output.startsWith(QStringLiteral("flood\nflood\n")));
}

// The two limits come from the store; values that are not whole numbers in
// their range give the defaults with a warning.
void TestMarkerVariables::programLimitSettings_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<int>("minMs");
    QTest::addColumn<int>("maxMs");
    QTest::addColumn<QStringList>("warnings");

    const auto refused = [](const char* value, const char* key, const char* range, const char* fallback) {
        return QStringList{QStringLiteral("Value '%1' of %2 is not a whole number from 1 to %3, %4 is used!")
                               .arg(QLatin1String(value), QLatin1String(key), QLatin1String(range),
                                    QLatin1String(fallback))};
    };
    QTest::newRow("timeout of 300 ms") << "MarkerProgramTimeout"
                                       << "300" << 250 << 2000 << QStringList{};
    QTest::newRow("timeout with blanks") << "MarkerProgramTimeout"
                                         << " 300 " << 250 << 2000 << QStringList{};
    QTest::newRow("timeout that is no number: default 4000 ms")
        << "MarkerProgramTimeout"
        << "soon" << 3500 << 8000 << refused("soon", "MarkerProgramTimeout", "60000", "4000");
    QTest::newRow("timeout of 0: default")
        << "MarkerProgramTimeout"
        << "0" << 3500 << 8000 << refused("0", "MarkerProgramTimeout", "60000", "4000");
    QTest::newRow("timeout beyond a minute: default")
        << "MarkerProgramTimeout"
        << "3600000" << 3500 << 8000 << refused("3600000", "MarkerProgramTimeout", "60000", "4000");
    QTest::newRow("output limit beyond 16 MiB: default")
        << "MarkerProgramOutputLimit"
        << "99999999999" << 3500 << 8000
        << refused("99999999999", "MarkerProgramOutputLimit", "16777216", "65536");
}

void TestMarkerVariables::programLimitSettings()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(int, minMs);
    QFETCH(int, maxMs);
    QFETCH(QStringList, warnings);

    Variables::instance().insert(key, value);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(Marker::instance().expandVariables(withScripts(QStringLiteral("({SCRIPT:%SLOW%})"))),
             QStringLiteral("(partial)"));
    const qint64 elapsed = timer.elapsed();
    QVERIFY2(elapsed >= minMs && elapsed < maxMs, QByteArray::number(elapsed).constData());

    QCOMPARE(m_messages->texts(QtWarningMsg), warnings);
    m_messages.reset(new MessageRecorder);
}

// --- User directory ----------------------------------------------------------------

void TestMarkerVariables::directoryUserName_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("asked");

    QTest::newRow("part before @ asked for") << "jdoe@EXAMPLE.COM" << "jdoe";
    QTest::newRow("name without realm asked as is") << "jdoe" << "jdoe";
    QTest::newRow("only the part before the first @") << "jdoe@sub@EXAMPLE.COM" << "jdoe";
    QTest::newRow("name that is only a realm: asked with an empty name") << "@EXAMPLE.COM" << "";
}

void TestMarkerVariables::directoryUserName()
{
    QFETCH(QString, user);
    QFETCH(QString, asked);

    Variables::instance().insert(QStringLiteral("job-originating-user-name"), user);
    writeFile(fakeBin(QStringLiteral("kinit-pause")), "");

    QCOMPARE(Marker::instance().directoryAttribute(QStringLiteral("cn")), QStringLiteral("Example User"));
    // A ticket first, waited for; then the directory client with exactly
    // these arguments.
    QCOMPARE(directoryLog(),
             (QStringList{QStringLiteral("kinit <-kt> </etc/krb5.keytab>"),
                          QStringLiteral("ipa <user-show> <%1> <--raw> <--all>").arg(asked)}));
}

void TestMarkerVariables::directoryEntries_data()
{
    QTest::addColumn<QString>("attribute");
    QTest::addColumn<QString>("expected");

    QTest::newRow("leading blanks of a line trimmed") << "cn" << "Example User";
    QTest::newRow("key with a blank inside") << "User login" << "jdoe";
    QTest::newRow("later duplicate key wins") << "mail" << "second@example.com";
    QTest::newRow("value with another ': ' ignored") << "description" << "";
    QTest::newRow("colon without blank does not separate") << "title" << "";
    QTest::newRow("blanks around the value trimmed") << "ou" << "Research";
    QTest::newRow("empty key piece dropped: line has one piece") << "" << "";
    QTest::newRow("empty value: line has one piece") << "emptyvalue" << "";
    QTest::newRow("value holding a slash") << "shell" << "/bin/sh";
    QTest::newRow("attribute is case-sensitive") << "CN" << "";
    QTest::newRow("attribute not trimmed here") << " cn" << "";
    QTest::newRow("attribute not listed") << "uidnumber" << "";
}

void TestMarkerVariables::directoryEntries()
{
    QFETCH(QString, attribute);
    QFETCH(QString, expected);

    Variables::instance().insert(QStringLiteral("job-originating-user-name"), QStringLiteral("jdoe@EXAMPLE.COM"));

    QCOMPARE(Marker::instance().directoryAttribute(attribute), expected);
    QCOMPARE(directoryLog().size(), 2);
}

void TestMarkerVariables::directoryReferences_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<int>("calls");

    QTest::newRow("braced reference") << "Name: {FREEIPA:cn}" << "Name: Example User" << 2;
    QTest::newRow("square-bracketed reference") << "[FREEIPA:cn]" << "Example User" << 2;
    QTest::newRow("attribute trimmed after the prefix") << "{FREEIPA:   cn  }" << "Example User" << 2;
    QTest::newRow("attribute with a blank inside") << "{FREEIPA:User login}" << "jdoe" << 2;
    QTest::newRow("unknown attribute gives empty text") << "<{FREEIPA:nothing}>" << "<>" << 2;
    QTest::newRow("prefix is case-sensitive: freeipa: is a store name") << "<{freeipa:cn}>" << "<>" << 0;
}

void TestMarkerVariables::directoryReferences()
{
    QFETCH(QString, text);
    QFETCH(QString, expected);
    QFETCH(int, calls);

    Variables::instance().insert(QStringLiteral("job-originating-user-name"), QStringLiteral("jdoe@EXAMPLE.COM"));

    QCOMPARE(Marker::instance().expandVariables(text), expected);
    QCOMPARE(directoryLog().size(), calls);
}

void TestMarkerVariables::directoryWithoutUserRunsNothing_data()
{
    QTest::addColumn<bool>("keyPresent");

    QTest::newRow("no user key in the store") << false;
    QTest::newRow("user key with an empty value") << true;
}

void TestMarkerVariables::directoryWithoutUserRunsNothing()
{
    QFETCH(bool, keyPresent);

    if (keyPresent)
        Variables::instance().insert(QStringLiteral("job-originating-user-name"), QString());

    QCOMPARE(Marker::instance().expandVariables(QStringLiteral("<{FREEIPA:cn}>")), QStringLiteral("<>"));
    QCOMPARE(Marker::instance().directoryAttribute(QStringLiteral("cn")), QString());
    QVERIFY(!QFile::exists(fakeBin(QStringLiteral("calls.log"))));
}

void TestMarkerVariables::directoryIsAskedForEveryReference()
{
    Variables::instance().insert(QStringLiteral("job-originating-user-name"), QStringLiteral("jdoe"));
    writeFile(fakeBin(QStringLiteral("kinit-pause")), "");

    QCOMPARE(Marker::instance().expandVariables(QStringLiteral("{FREEIPA:cn}/{FREEIPA:mail}")),
             QStringLiteral("Example User/second@example.com"));
    const QString kinit = QStringLiteral("kinit <-kt> </etc/krb5.keytab>");
    const QString ipa = QStringLiteral("ipa <user-show> <jdoe> <--raw> <--all>");
    QCOMPARE(directoryLog(), (QStringList{kinit, ipa, kinit, ipa}));

    QCOMPARE(Marker::instance().expandVariables(QStringLiteral("{FREEIPA:cn}")), QStringLiteral("Example User"));
    QCOMPARE(directoryLog().size(), 6);
}

void TestMarkerVariables::directoryIgnoresFailingPrograms()
{
    Variables::instance().insert(QStringLiteral("job-originating-user-name"), QStringLiteral("jdoe"));
    writeFile(fakeBin(QStringLiteral("kinit-body")), "exit 1\n");
    writeFile(fakeBin(QStringLiteral("ipa-body")), "cat '" + fakeBin(QStringLiteral("listing")).toUtf8()
                                                       + "'\necho 'ipa: ERROR: something' >&2\nexit 2\n");

    QCOMPARE(Marker::instance().directoryAttribute(QStringLiteral("cn")), QStringLiteral("Example User"));
    QCOMPARE(directoryLog().size(), 2);
}

void TestMarkerVariables::directoryClientThatHangs()
{
    Variables::instance().insert(QStringLiteral("job-originating-user-name"), QStringLiteral("jdoe"));
    writeFile(fakeBin(QStringLiteral("ipa-body")), "printf '  cn: Slow User\\n'\nexec sleep 30\n");

    QElapsedTimer timer;
    timer.start();
    const QString value = Marker::instance().directoryAttribute(QStringLiteral("cn"));
    const qint64 elapsed = timer.elapsed();

    QCOMPARE(value, QStringLiteral("Slow User"));
    QVERIFY2(elapsed >= 3500 && elapsed < 8000, QByteArray::number(elapsed).constData());
}

// The ticket request is bounded like the look-up: a kinit that hangs is
// ended, with its children, after the time limit, and the look-up goes on.
void TestMarkerVariables::ticketRequestThatHangs()
{
    Variables::instance().insert(QStringLiteral("job-originating-user-name"), QStringLiteral("jdoe"));
    Variables::instance().insert(QStringLiteral("MarkerProgramTimeout"), QStringLiteral("500"));
    writeFile(fakeBin(QStringLiteral("kinit-body")),
              "sleep 300 &\necho $! > '" + script(QStringLiteral("child.pid")).toUtf8() + "'\nwait\n");

    QElapsedTimer timer;
    timer.start();
    const QString value = Marker::instance().directoryAttribute(QStringLiteral("cn"));
    const qint64 elapsed = timer.elapsed();

    QCOMPARE(value, QStringLiteral("Example User"));
    QVERIFY2(elapsed >= 450 && elapsed < 3000, QByteArray::number(elapsed).constData());
    const qint64 child = readFile(script(QStringLiteral("child.pid"))).trimmed().toLongLong();
    QVERIFY(child > 0);
    QVERIFY2(processEnded(child), qPrintable(QStringLiteral("kinit's child %1 still runs").arg(child)));
}

void TestMarkerVariables::braceOnlyTemplateTextRunsNothingAtLoadTime()
{
    Variables::instance().insert(QStringLiteral("job-originating-user-name"), QStringLiteral("jdoe"));

    readMarkerTemplate(withScripts(QStringLiteral("any:normal:12::top-left:{FREEIPA:cn}\n"
                                            "any:normal:12::top-right:{SCRIPT:%COUNTER%}\n"))
                     .toUtf8());

    QCOMPARE(Marker::instance().strings().value(2).value(QStringLiteral("top-left")).size(), 1);
    QVERIFY(!QFile::exists(fakeBin(QStringLiteral("calls.log"))));
    QVERIFY(!QFile::exists(script(QStringLiteral("count"))));
}

QTEST_GUILESS_MAIN(TestMarkerVariables)
#include "tst_markervariables.moc"
