// quillet-queue against a private print server: a queue that create makes
// checks clean and marks every page of every copy of a job, each broken
// set-up gives its one problem, list shows the marked queues, and test prints
// a page to a stand-in printer and shows its audit line. quillet-queue runs in the print server's own mount
// namespace, where the stand-in folders are the system's /etc/cups and /usr/share/cups, as the backend and
// quillet see them.
#include "../backend/printserver.h"
#include "../backend/sheetcheck.h"
#include "../backend/simulatedprinter.h"
#include "../backend/standinprinter.h"

#include "common/paths.h"
#include "pagecode/pagecodekey.h"
#include "queueadmin/cupsclient.h"
#include "support/pagecodetools.h"
#include "support/testsupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// How long the stand-in printer listens.
constexpr int PrinterLifetimeMs = 600000;
// How long a job of a few pages and copies may take to be marked and sent.
constexpr int JobTimeoutMs = 180000;

// A template of the site's own that gives page 1, the middle pages and the
// last page strings of their own; every one of them shows the copy.
const char ThreeKindTemplate[] = "replace_underscore=1\n"
                                 "first:bold:14::label:top-center:[LABEL_NAME]\n"
                                 "first:normal:9::copy:top-right:Copy {CURRENT_COPY} of {copies}\n"
                                 "first:normal:9::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n"
                                 "first:italic:9::note:top-left:Opening sheet\n"
                                 "last:bold:14::label:top-center:[LABEL_NAME]\n"
                                 "last:normal:9::copy:top-right:Copy {CURRENT_COPY} of {copies}\n"
                                 "last:normal:9::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n"
                                 "last:italic:9::note:top-left:Closing sheet\n"
                                 "any:bold:14::label:top-center:[LABEL_NAME]\n"
                                 "any:normal:9::copy:top-right:Copy {CURRENT_COPY} of {copies}\n"
                                 "any:normal:9::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n";

// A template that shows its code on the middle and last pages only, as the
// "any" line of a recipe appended to a template with "first" lines would.
const char AnyCodeTemplate[] = "replace_underscore=1\n"
                               "first:bold:14::label:top-center:[LABEL_NAME]\n"
                               "first:normal:9::copy:top-right:Copy {CURRENT_COPY} of {copies}\n"
                               "first:normal:9::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n"
                               "any:bold:14::label:top-center:[LABEL_NAME]\n"
                               "any:normal:9::copy:top-right:Copy {CURRENT_COPY} of {copies}\n"
                               "any:normal:9::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n"
                               "any:normal:7::code:bottom-left:{PAGE_CODE}\n";

// The page codes that a sheet shows: words of six groups of four characters
// of the codes' alphabet.
QStringList pageCodesOn(const Sheet& sheet)
{
    static const QRegularExpression code(QStringLiteral("^[2-9A-HJKMNP-Z]{4}(?:-[2-9A-HJKMNP-Z]{4}){5}$"));
    QStringList codes;
    for (const SheetWord& word : sheet.words) {
        if (code.match(word.text).hasMatch())
            codes << word.text;
    }
    return codes;
}

// The ways a good queue is broken, one problem each.
enum class Breakage {
    TemplateMissing,
    TemplateEmpty,
    TemplateCommentsOnly,
    VariablesMissing,
    LabelEmpty,
    SafeOutputOff,
    KeyMissing,
    KeyNotAKey,
    KeyFolder,
    KeyReadableByOthers,
    NotMarked,
    NoSuchQueue,
    AnonymousJobs,
    ServerTakesNoPasswords,
    BackPagesWithoutDuplex,
    PrinterSilent,
    PrinterTakesNothing,
    AuditLogUnwritable,
};

// Removes a file by the bytes of its name when it goes out of scope: the
// work folder's own removal goes through names as text, which loses such
// names.
struct RawFileRemover {
    QByteArray path;
    ~RawFileRemover() { ::unlink(path.constData()); }
};

QStringList outputLines(const RunResult& run)
{
    return QString::fromLocal8Bit(run.standardOutput).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QString describe(const RunResult& run)
{
    return QStringLiteral("exit %1\nstdout: %2\nstderr: %3")
        .arg(run.exitCode)
        .arg(QString::fromLocal8Bit(run.standardOutput), QString::fromLocal8Bit(run.standardError));
}

mode_t modeOf(const QString& path)
{
    struct stat status {
    };
    if (stat(QFile::encodeName(path).constData(), &status) != 0)
        return mode_t(-1);
    return status.st_mode & 07777;
}

uid_t ownerOf(const QString& path)
{
    struct stat status {
    };
    if (stat(QFile::encodeName(path).constData(), &status) != 0)
        return uid_t(-1);
    return status.st_uid;
}

} // namespace

class TestQueueAdmin : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void cleanupTestCase();
    void createMakesAGoodQueue();
    void createAgainChangesNothing();
    void createTakesATemplateOfAnyName_data();
    void createTakesATemplateOfAnyName();
    void everyPageOfEveryCopyIsMarked_data();
    void everyPageOfEveryCopyIsMarked();
    void brokenSetupGivesItsProblem_data();
    void brokenSetupGivesItsProblem();
    void listShowsMarkedQueues();
    void testPrintsAndShowsTheAuditLine();
    void testShowsARefusal();

  private:
    // Runs quillet-queue in the print server's mount namespace against it.
    RunResult queueCommand(const QStringList& arguments) const;
    // The same with arguments handed over byte for byte, through a shell in
    // the server's namespace, under the locale `lang`.
    RunResult queueCommandWithBytes(const QList<QByteArray>& arguments, const QString& lang) const;
    // Makes a queue with create and checks that it went well.
    void createQueue(const QString& queue, const QStringList& options);
    QString queueFile(const QString& queue, const char* suffix) const;
    // A path as the print server's namespace shows it.
    QString insideServer(const QString& path) const;

    QTemporaryDir m_work;
    PrintServer m_server;
    std::unique_ptr<StandInPrinter> m_printer;
    qint64 m_serverPid = 0;
    QString m_siteKey;
};

RunResult TestQueueAdmin::queueCommand(const QStringList& arguments) const
{
    return m_server.runInServerNamespace(QStringList{QStringLiteral(QUILLET_QUEUE_EXECUTABLE)} + arguments,
                                         {QStringLiteral("LC_ALL=C"), QStringLiteral("LANG=C")},
                                         m_work.path());
}

RunResult TestQueueAdmin::queueCommandWithBytes(const QList<QByteArray>& arguments, const QString& lang) const
{
    const QByteArray script = execWithBytesScript(arguments);
    return m_server.runInServerNamespace(
        {QStringLiteral("/bin/sh"), QStringLiteral("-c"), QString::fromLatin1(script),
         QStringLiteral(QUILLET_QUEUE_EXECUTABLE)},
        {QStringLiteral("LC_ALL="), QStringLiteral("LANG=") + lang}, m_work.path());
}

QString TestQueueAdmin::queueFile(const QString& queue, const char* suffix) const
{
    return m_server.serverRoot() + QStringLiteral("/quillet/") + queue + QLatin1String(suffix);
}

QString TestQueueAdmin::insideServer(const QString& path) const
{
    return QStringLiteral("/proc/%1/root%2").arg(m_serverPid).arg(path);
}

void TestQueueAdmin::createQueue(const QString& queue, const QStringList& options)
{
    const RunResult run =
        queueCommand(QStringList{QStringLiteral("create"), queue, m_printer->socketUri()} + options);
    QVERIFY2(run.exitCode == 0, qPrintable(describe(run)));
}

void TestQueueAdmin::initTestCase()
{
    if (!PrintServer::available())
        QSKIP("cupsd, the CUPS client programs, pstops or the socket backend are not installed");
    if (!haveProgram(QStringLiteral("nsenter")))
        QSKIP("nsenter is needed");
    QVERIFY(m_work.isValid());
    QString error;
    QVERIFY2(m_server.start(QStringLiteral(QUILLET_BACKEND), &error), qPrintable(error));

    // The print server runs in the sandbox's namespace: its cupsd is the
    // process started with this server's configuration.
    const QByteArray conf = QFile::encodeName(m_server.serverRoot() + QStringLiteral("/cupsd.conf"));
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        const QList<QByteArray> words = readFile(QStringLiteral("/proc/%1/cmdline").arg(entry)).split('\0');
        if (words.value(0) == "/usr/sbin/cupsd" && words.contains(conf))
            m_serverPid = entry.toLongLong();
    }
    QVERIFY2(m_serverPid > 0, "the private cupsd was not found");

    m_printer =
        std::make_unique<StandInPrinter>(m_work.filePath(QStringLiteral("printer")), PrinterLifetimeMs);
    QVERIFY2(m_printer->start(&error), qPrintable(error));
    m_siteKey = m_server.serverRoot() + QStringLiteral("/quillet/page-code.key");
}

void TestQueueAdmin::cleanupTestCase()
{
    m_server.stop();
    if (m_printer)
        m_printer->stop();
}

void TestQueueAdmin::createMakesAGoodQueue()
{
    const RunResult created =
        queueCommand({QStringLiteral("create"), QStringLiteral("secure"), m_printer->socketUri(),
                      QStringLiteral("--label"), QStringLiteral("CONFIDENTIAL_INTERNAL"),
                      QStringLiteral("--back-pages"), QStringLiteral("--page-codes")});
    QVERIFY2(created.exitCode == 0, qPrintable(describe(created)));
    QVERIFY2(
        outputLines(created).last() ==
            QStringLiteral("secure: ready: its jobs are marked with the label \"CONFIDENTIAL_INTERNAL\""),
        qPrintable(describe(created)));

    // The queue's files: root's, not readable by others.
    const QString folder = m_server.serverRoot() + QStringLiteral("/quillet");
    QCOMPARE(modeOf(folder), mode_t(0700));
    for (const QString& file : {queueFile(QStringLiteral("secure"), ".tmpl"),
                                queueFile(QStringLiteral("secure"), ".vars"), m_siteKey}) {
        QCOMPARE(modeOf(file), mode_t(0600));
        QCOMPARE(ownerOf(file), uid_t(0));
    }
    // The shipped queue template, with page codes added: it has "any"
    // lines only, so the one code line is for every page.
    const QByteArray shippedTemplate = readFile(QStringLiteral(QUILLET_SOURCE_DIR "/examples/queue.tmpl"));
    const QByteArray queueTemplate = readFile(queueFile(QStringLiteral("secure"), ".tmpl"));
    QVERIFY(!shippedTemplate.isEmpty());
    QCOMPARE(queueTemplate, shippedTemplate + "any:normal:7::code:bottom-left:{PAGE_CODE}\n");
    const QMap<QString, QString> variables =
        parseKeyValues(readFile(queueFile(QStringLiteral("secure"), ".vars")));
    QCOMPARE(variables.value(QStringLiteral("LABEL_NAME")), QStringLiteral("CONFIDENTIAL_INTERNAL"));
    QCOMPARE(variables.value(QStringLiteral("MarkerDuplexBackPages")), QStringLiteral("1"));
    PageCodeKey siteKey;
    QString error;
    QVERIFY2(PageCodeKey::load(m_siteKey, &siteKey, &error), qPrintable(error));
    QVERIFY(siteKey.kind() == PageCodeKey::Kind::Site);

    // The site's definitions start from the shipped ones and name the key.
    const QString site = insideServer(QLatin1String(CupsServerRoot) + QStringLiteral("/marker.defs"));
    const QByteArray definitions = readFile(site);
    QVERIFY(definitions.startsWith(readFile(catalogueDir() + QStringLiteral("/quillet/marker.defs"))));
    QVERIFY(definitions.contains("\nMarkerPageCodeKey=" + QFile::encodeName(m_siteKey) + '\n'));
    QCOMPARE(modeOf(site), mode_t(0644));

    // The queue as the server has it.
    const RunResult uri =
        m_server.admin(QStringLiteral("lpstat"), {QStringLiteral("-v"), QStringLiteral("secure")});
    QVERIFY2(uri.standardOutput.contains("quillet:" + m_printer->socketUri().toUtf8()),
             uri.standardOutput.constData());
    ServerQueue facts;
    QVERIFY2(fetchQueue(QStringLiteral("secure"), &facts, &error), qPrintable(error));
    QCOMPARE(facts.opPolicy, QStringLiteral("quillet"));

    const RunResult checked = queueCommand({QStringLiteral("check"), QStringLiteral("secure")});
    QVERIFY2(checked.exitCode == 0, qPrintable(describe(checked)));
    QCOMPARE(outputLines(checked),
             QStringList{QStringLiteral(
                 "secure: ready: its jobs are marked with the label \"CONFIDENTIAL_INTERNAL\"")});
}

void TestQueueAdmin::createAgainChangesNothing()
{
    const QStringList arguments{QStringLiteral("create"), QStringLiteral("again"),
                                m_printer->socketUri(),   QStringLiteral("--label"),
                                QStringLiteral("SECRET"), QStringLiteral("--page-codes")};
    const RunResult first = queueCommand(arguments);
    QVERIFY2(first.exitCode == 0, qPrintable(describe(first)));
    const QByteArray templateText = readFile(queueFile(QStringLiteral("again"), ".tmpl"));
    const QByteArray variables = readFile(queueFile(QStringLiteral("again"), ".vars"));
    const QByteArray key = readFile(m_siteKey);
    const QByteArray definitions =
        readFile(insideServer(QLatin1String(CupsServerRoot) + QStringLiteral("/marker.defs")));

    const RunResult second = queueCommand(arguments);
    QVERIFY2(second.exitCode == 0, qPrintable(describe(second)));
    QCOMPARE(readFile(queueFile(QStringLiteral("again"), ".tmpl")), templateText);
    QCOMPARE(readFile(queueFile(QStringLiteral("again"), ".vars")), variables);
    QCOMPARE(readFile(m_siteKey), key);
    QCOMPARE(readFile(insideServer(QLatin1String(CupsServerRoot) + QStringLiteral("/marker.defs"))),
             definitions);
    const QString output = QString::fromLocal8Bit(second.standardOutput);
    QVERIFY2(output.contains(QStringLiteral("kept ") + queueFile(QStringLiteral("again"), ".tmpl")),
             qPrintable(output));
    QVERIFY2(output.contains(QStringLiteral("kept ") + queueFile(QStringLiteral("again"), ".vars")),
             qPrintable(output));
    QVERIFY2(output.contains(QStringLiteral("kept the page-code key")), qPrintable(output));
    QVERIFY2(output.contains(QStringLiteral("kept the policy quillet")), qPrintable(output));
    QVERIFY2(!output.contains(QStringLiteral("wrote ")) && !output.contains(QStringLiteral("updated ")),
             qPrintable(output));
}

void TestQueueAdmin::createTakesATemplateOfAnyName_data()
{
    QTest::addColumn<QString>("queue");
    QTest::addColumn<QByteArray>("name"); // of the template file, in the work folder
    QTest::addColumn<QString>("lang");
    QTest::addColumn<bool>("present");

    QTest::newRow("ASCII name") << "named-ascii" << QByteArray("site.tmpl") << "C.UTF-8" << true;
    QTest::newRow("invalid UTF-8 under a UTF-8 locale")
        << "named-bytes-utf8" << QByteArray("\xff\xfe") << "C.UTF-8" << true;
    QTest::newRow("invalid UTF-8 under C") << "named-bytes-c" << QByteArray("\xff\xfe") << "C" << true;
    QTest::newRow("Latin-1 letters under a UTF-8 locale")
        << "named-latin1" << QByteArray("r\xe9sum\xe9 \xc4rger.tmpl") << "C.UTF-8" << true;
    QTest::newRow("cut UTF-8 sequence and a line feed")
        << "named-cut" << QByteArray("\xd0\xb4\xd0\nend") << "C.UTF-8" << true;
    QTest::newRow("missing file of invalid UTF-8")
        << "named-missing" << QByteArray("absent-\xff\xfe.tmpl") << "C.UTF-8" << false;
}

// create copies the template that --template names, whatever bytes its name
// is made of; a template that is not there is named in the message by the
// bytes it was given as.
void TestQueueAdmin::createTakesATemplateOfAnyName()
{
    QFETCH(QString, queue);
    QFETCH(QByteArray, name);
    QFETCH(QString, lang);
    QFETCH(bool, present);

    const QByteArray file = QFile::encodeName(m_work.path()) + '/' + name;
    const RawFileRemover remover{file};
    if (present)
        QVERIFY(writeRaw(file, ThreeKindTemplate));
    const RunResult run = queueCommandWithBytes({"create", queue.toUtf8(), m_printer->socketUri().toUtf8(),
                                                 "--label", "NAMED_TEMPLATE", "--template", file},
                                                lang);
    if (!present) {
        QVERIFY2(run.exitCode == 1, qPrintable(describe(run)));
        QVERIFY2(run.standardError.contains("Can not read the template " + file + '\n'),
                 qPrintable(describe(run)));
        QVERIFY(!QFileInfo::exists(queueFile(queue, ".tmpl")));
        return;
    }
    QVERIFY2(run.exitCode == 0, qPrintable(describe(run)));
    QCOMPARE(readFile(queueFile(queue, ".tmpl")), QByteArray(ThreeKindTemplate));
    QVERIFY2(outputLines(run).last() ==
                 queue + QStringLiteral(": ready: its jobs are marked with the label \"NAMED_TEMPLATE\""),
             qPrintable(describe(run)));
}

void TestQueueAdmin::everyPageOfEveryCopyIsMarked_data()
{
    QTest::addColumn<QString>("queue");
    QTest::addColumn<QByteArray>("ownTemplate"); // empty: the shipped one
    QTest::addColumn<bool>("pageCodes");
    QTest::addColumn<QString>("collate");

    QTest::newRow("shipped template, page codes, collated copies")
        << "collated" << QByteArray() << true << "true";
    QTest::newRow("shipped template, page codes, uncollated copies")
        << "uncollated" << QByteArray() << true << "false";
    QTest::newRow("shipped template without page codes") << "uncoded" << QByteArray() << false << "true";
    QTest::newRow("template with first, last and any lines, page codes")
        << "three-kinds" << QByteArray(ThreeKindTemplate) << true << "true";
    QTest::newRow("template with a code on its any lines only, page codes")
        << "any-code" << QByteArray(AnyCodeTemplate) << true << "true";
}

// A job of three pages in three copies through a queue as create makes it:
// the printer gets nine sheets, each with the label, its page and copy
// number and, with page codes, a code that names that very page and copy.
// The queue's printer description has a Collate option, so collated copies
// reach the backend unrepeated.
void TestQueueAdmin::everyPageOfEveryCopyIsMarked()
{
    QFETCH(QString, queue);
    QFETCH(QByteArray, ownTemplate);
    QFETCH(bool, pageCodes);
    QFETCH(QString, collate);
    if (!haveProgram(QStringLiteral("ps2pdf")) || !haveProgram(QStringLiteral("pdftotext")))
        QSKIP("Ghostscript and pdftotext are needed");

    QStringList options{QStringLiteral("--label"), QStringLiteral("COPY_CHECK")};
    if (pageCodes)
        options << QStringLiteral("--page-codes");
    if (!ownTemplate.isEmpty()) {
        const QString file = m_work.filePath(queue + QStringLiteral(".tmpl"));
        QVERIFY(writeFile(file, ownTemplate));
        options << QStringLiteral("--template") << file;
    }
    createQueue(queue, options);

    const QString document =
        m_server.writeJobFile(QStringLiteral("three-pages.ps"),
                              readFile(QStringLiteral(QUILLET_SOURCE_DIR "/examples/document.ps")));
    const int before = m_printer->jobs().size();
    const RunResult printed = m_server.admin(
        QStringLiteral("lp"), {QStringLiteral("-d"), queue, QStringLiteral("-n"), QStringLiteral("3"),
                               QStringLiteral("-o"), QStringLiteral("collate=") + collate, document});
    QVERIFY2(printed.exitCode == 0, qPrintable(describe(printed)));
    // "request id is <queue>-<id> (1 file(s))"
    const int job = QString::fromLocal8Bit(printed.standardOutput)
                        .section(QLatin1Char(' '), 3, 3)
                        .section(QLatin1Char('-'), -1)
                        .toInt();
    QVERIFY2(job > 0, printed.standardOutput.constData());
    QVERIFY2(m_server.waitForJobs({job}, JobTimeoutMs), m_server.errorLog().right(4000).constData());
    QVERIFY2(m_server.jobState(job) == JobCompleted,
             qPrintable(m_server.jobLogLines(job).join(QLatin1Char('\n'))));
    QCOMPARE(m_printer->jobs().size(), before + 1);

    QString error;
    const QList<Sheet> sheets = readSheets(m_printer->jobs().last(), m_work.path(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    const int pages = 3;
    const int copies = 3;
    QCOMPARE(sheets.size(), pages * copies);

    QStringList codes;
    for (int index = 0; index < sheets.size(); ++index) {
        const Sheet& sheet = sheets.at(index);
        const int page = index % pages + 1;
        const int copy = index / pages + 1;
        const QString where = QStringLiteral("sheet %1 (page %2 of copy %3): %4")
                                  .arg(index + 1)
                                  .arg(page)
                                  .arg(copy)
                                  .arg(sheet.text());
        const QStringList copyLine{QStringLiteral("Copy"), QString::number(copy), QStringLiteral("of"),
                                   QString::number(copies)};
        const QStringList pageLine{QStringLiteral("Page"), QString::number(page), QStringLiteral("of"),
                                   QString::number(pages)};
        QVERIFY2(!findWords(sheet, {QStringLiteral("COPY"), QStringLiteral("CHECK")}).isEmpty(),
                 qPrintable(where));
        QVERIFY2(!findWords(sheet, copyLine).isEmpty(), qPrintable(where));
        QVERIFY2(!findWords(sheet, pageLine).isEmpty(), qPrintable(where));
        const QStringList found = pageCodesOn(sheet);
        QVERIFY2(found.size() == (pageCodes ? 1 : 0), qPrintable(where));
        codes << found;
    }
    if (!pageCodes)
        return;

    // Each code is that sheet's own: the site key traces it to this job,
    // its page and its copy.
    const RunResult check = runProgram(QStringLiteral(QUILLET_VERIFY_EXECUTABLE),
                                       QStringList{QStringLiteral("--key"), m_siteKey} + codes);
    QVERIFY2(check.exitCode == 0, qPrintable(describe(check)));
    const QList<Verdict> answers = verdicts(check.standardOutput);
    QCOMPARE(answers.size(), codes.size());
    for (int index = 0; index < answers.size(); ++index) {
        QVERIFY2(answers.at(index).authentic, qPrintable(codes.at(index)));
        QCOMPARE(answers.at(index).job, qint64(job));
        QCOMPARE(answers.at(index).page, index % pages + 1);
        QCOMPARE(answers.at(index).copy, index / pages + 1);
    }
}

void TestQueueAdmin::brokenSetupGivesItsProblem_data()
{
    QTest::addColumn<int>("breakage");
    QTest::addColumn<QString>("problem");

    QTest::newRow("template missing") << int(Breakage::TemplateMissing) << "the queue has no template";
    QTest::newRow("template empty") << int(Breakage::TemplateEmpty) << "holds no marker strings";
    QTest::newRow("template of comments") << int(Breakage::TemplateCommentsOnly) << "holds no marker strings";
    QTest::newRow("variables missing")
        << int(Breakage::VariablesMissing) << "the queue has no variables file";
    QTest::newRow("label empty") << int(Breakage::LabelEmpty) << "prints LABEL_NAME, which neither";
    QTest::newRow("print-safe output off") << int(Breakage::SafeOutputOff) << "do not set MarkerSafeOutput=1";
    QTest::newRow("page-code key missing") << int(Breakage::KeyMissing) << "names does not exist";
    QTest::newRow("page-code key not a key")
        << int(Breakage::KeyNotAKey) << "cannot be read as the site's key";
    QTest::newRow("page-code key a folder") << int(Breakage::KeyFolder) << "cannot be read as the site's key";
    QTest::newRow("page-code key readable by others")
        << int(Breakage::KeyReadableByOthers) << "is open to others than root (owner 0, mode 0644)";
    QTest::newRow("not a quillet queue") << int(Breakage::NotMarked) << "does not start with quillet:";
    QTest::newRow("no such queue") << int(Breakage::NoSuchQueue) << "the print server has no queue";
    QTest::newRow("jobs from anyone")
        << int(Breakage::AnonymousJobs)
        << "takes jobs from users who did not authenticate (operation policy default)";
    // The marked queues' policy asks for AuthType Default: under None the
    // server lets anyone submit without a password.
    QTest::newRow("server that takes no password")
        << int(Breakage::ServerTakesNoPasswords)
        << "takes jobs from users who did not authenticate (operation policy quillet)";
    QTest::newRow("back pages without a duplexer")
        << int(Breakage::BackPagesWithoutDuplex)
        << "the queue prints back pages, which needs two-sided printing";
    QTest::newRow("audit log that cannot be written")
        << int(Breakage::AuditLogUnwritable) << "cannot be written, so every job is refused";
    QTest::newRow("printer that does not answer")
        << int(Breakage::PrinterSilent) << "the printer does not answer";
    QTest::newRow("printer that takes no format quillet sends")
        << int(Breakage::PrinterTakesNothing) << "the printer accepts none of the formats quillet sends";
}

void TestQueueAdmin::brokenSetupGivesItsProblem()
{
    QFETCH(int, breakage);
    QFETCH(QString, problem);
    const QString queue = QStringLiteral("broken-%1").arg(breakage);
    createQueue(queue,
                {QStringLiteral("--label"), QStringLiteral("RESTRICTED"), QStringLiteral("--page-codes")});
    const RunResult good = queueCommand({QStringLiteral("check"), queue});
    QVERIFY2(good.exitCode == 0, qPrintable(describe(good)));

    const QByteArray siteKey = readFile(m_siteKey);
    const QString keyLine = QStringLiteral("MarkerPageCodeKey=%1");
    const QString serverConfigurationFile = m_server.serverRoot() + QStringLiteral("/cupsd.conf");
    QByteArray serverConfiguration; // as it was, when a case changes it
    switch (Breakage(breakage)) {
    case Breakage::TemplateMissing:
        QVERIFY(QFile::remove(queueFile(queue, ".tmpl")));
        break;
    case Breakage::TemplateEmpty:
        m_server.writeConfig(QStringLiteral("quillet/") + queue + QStringLiteral(".tmpl"), QByteArray());
        break;
    case Breakage::TemplateCommentsOnly:
        m_server.writeConfig(QStringLiteral("quillet/") + queue + QStringLiteral(".tmpl"),
                             "# the marks come later\n\n   \n#any:bold:14::label:top-center:[LABEL_NAME]\n");
        break;
    case Breakage::VariablesMissing:
        QVERIFY(QFile::remove(queueFile(queue, ".vars")));
        break;
    case Breakage::LabelEmpty: {
        QByteArray variables = readFile(queueFile(queue, ".vars"));
        QVERIFY(variables.contains("LABEL_NAME=RESTRICTED\n"));
        variables.replace("LABEL_NAME=RESTRICTED\n", "LABEL_NAME=\n");
        m_server.writeConfig(QStringLiteral("quillet/") + queue + QStringLiteral(".vars"), variables);
        break;
    }
    case Breakage::SafeOutputOff:
        // A site file written from scratch: the shipped lines are gone.
        m_server.writeOwnSiteDefinitions("MarkerTopShift=8\nMarkerBottomShift=8\n");
        break;
    case Breakage::KeyMissing:
        m_server.writeSiteDefinitions(keyLine.arg(m_work.filePath(QStringLiteral("absent.key"))).toUtf8());
        break;
    case Breakage::KeyNotAKey: {
        const QString file = m_work.filePath(QStringLiteral("not-a.key"));
        QVERIFY(writeFile(file, "this is not a key\n"));
        QVERIFY(QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner));
        m_server.writeSiteDefinitions(keyLine.arg(file).toUtf8());
        break;
    }
    case Breakage::KeyFolder:
        m_server.writeSiteDefinitions(keyLine.arg(m_work.path()).toUtf8());
        break;
    case Breakage::KeyReadableByOthers:
        QVERIFY(QFile::setPermissions(m_siteKey, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup |
                                                     QFile::ReadOther));
        break;
    case Breakage::NotMarked: {
        const RunResult changed =
            m_server.admin(QStringLiteral("lpadmin"),
                           {QStringLiteral("-p"), queue, QStringLiteral("-v"), m_printer->socketUri()});
        QVERIFY2(changed.exitCode == 0, changed.standardError.constData());
        break;
    }
    case Breakage::NoSuchQueue: {
        const RunResult removed = m_server.admin(QStringLiteral("lpadmin"), {QStringLiteral("-x"), queue});
        QVERIFY2(removed.exitCode == 0, removed.standardError.constData());
        break;
    }
    case Breakage::AnonymousJobs: {
        const RunResult changed =
            m_server.admin(QStringLiteral("lpadmin"), {QStringLiteral("-p"), queue, QStringLiteral("-o"),
                                                       QStringLiteral("printer-op-policy=default")});
        QVERIFY2(changed.exitCode == 0, changed.standardError.constData());
        break;
    }
    case Breakage::ServerTakesNoPasswords: {
        // Edited by hand after create set it to Basic; the server reads the
        // file afresh when asked for it.
        serverConfiguration = readFile(serverConfigurationFile);
        QVERIFY(serverConfiguration.contains("\nDefaultAuthType Basic\n"));
        QVERIFY(writeFile(serverConfigurationFile, QByteArray(serverConfiguration)
                                                       .replace("\nDefaultAuthType Basic\n",
                                                                "\nDefaultAuthType None\n")));
        break;
    }
    case Breakage::BackPagesWithoutDuplex: {
        QByteArray variables = readFile(queueFile(queue, ".vars"));
        m_server.writeConfig(QStringLiteral("quillet/") + queue + QStringLiteral(".vars"),
                             variables + "MarkerDuplexBackPages=1\n");
        // The shipped printer description without its two-sided option.
        QByteArray ppd;
        for (const QByteArray& line :
             readFile(catalogueDir() + QStringLiteral("/quillet/quillet-generic.ppd")).split('\n')) {
            if (!line.contains("Duplex"))
                ppd += line + '\n';
        }
        const QString file = m_work.filePath(QStringLiteral("simplex.ppd"));
        QVERIFY(writeFile(file, ppd));
        const RunResult changed = m_server.admin(QStringLiteral("lpadmin"),
                                                 {QStringLiteral("-p"), queue, QStringLiteral("-P"), file});
        QVERIFY2(changed.exitCode == 0, changed.standardError.constData());
        break;
    }
    case Breakage::AuditLogUnwritable:
        // A "folder" that is a file.
        m_server.writeSiteDefinitions(keyLine.arg(m_siteKey).toUtf8() +
                                      "\nMarkerAuditLog=" + QFile::encodeName(m_siteKey) + "/audit.log\n");
        break;
    case Breakage::PrinterSilent:
    case Breakage::PrinterTakesNothing:
        break; // the queue is pointed at a simulated printer below, which lives until the check
    }

    SimulatedPrinter jpegPrinter;
    if (Breakage(breakage) == Breakage::PrinterSilent ||
        Breakage(breakage) == Breakage::PrinterTakesNothing) {
        QString error;
        if (!SimulatedPrinter::available())
            QSKIP("the simulated driverless printer cannot run here");
        QVERIFY2(jpegPrinter.start({QStringLiteral("image/jpeg")}, false, &error), qPrintable(error));
        const QString uri = jpegPrinter.uri();
        if (Breakage(breakage) == Breakage::PrinterSilent)
            jpegPrinter.stop(); // nothing answers on its port any more
        const RunResult changed =
            m_server.admin(QStringLiteral("lpadmin"), {QStringLiteral("-p"), queue, QStringLiteral("-v"),
                                                       QStringLiteral("quillet:") + uri});
        QVERIFY2(changed.exitCode == 0, changed.standardError.constData());
    }

    const RunResult checked = queueCommand({QStringLiteral("check"), queue});

    // The site-wide files as the other cases need them.
    if (!serverConfiguration.isEmpty())
        QVERIFY(writeFile(serverConfigurationFile, serverConfiguration));
    m_server.writeSiteDefinitions(keyLine.arg(m_siteKey).toUtf8());
    QVERIFY(writeFile(m_siteKey, siteKey));
    QVERIFY(QFile::setPermissions(m_siteKey, QFile::ReadOwner | QFile::WriteOwner));

    QCOMPARE(checked.exitCode, 1);
    const QStringList lines = outputLines(checked);
    QVERIFY2(lines.size() == 1, qPrintable(describe(checked)));
    QVERIFY2(lines.first().startsWith(queue + QStringLiteral(": ")), qPrintable(lines.first()));
    QVERIFY2(lines.first().contains(problem), qPrintable(lines.first()));
    QVERIFY2(lines.first().contains(QStringLiteral("; fix: ")), qPrintable(lines.first()));
}

void TestQueueAdmin::listShowsMarkedQueues()
{
    createQueue(QStringLiteral("listed"), {QStringLiteral("--label"), QStringLiteral("LIST_LABEL")});
    const RunResult plain = m_server.admin(
        QStringLiteral("lpadmin"),
        {QStringLiteral("-p"), QStringLiteral("plain"), QStringLiteral("-E"), QStringLiteral("-v"),
         m_printer->socketUri(), QStringLiteral("-m"), QStringLiteral("drv:///sample.drv/generic.ppd")});
    QVERIFY2(plain.exitCode == 0, plain.standardError.constData());
    const RunResult rejecting = m_server.admin(QStringLiteral("cupsreject"), {QStringLiteral("listed")});
    QVERIFY2(rejecting.exitCode == 0, rejecting.standardError.constData());

    const RunResult listed = queueCommand({QStringLiteral("list")});
    QVERIFY2(listed.exitCode == 0, qPrintable(describe(listed)));
    const QStringList lines = outputLines(listed);
    QVERIFY2(
        lines.contains(QStringLiteral("listed: label \"LIST_LABEL\", idle, rejecting jobs (Rejecting Jobs)")),
        qPrintable(describe(listed)));
    QVERIFY2(lines.contains(QStringLiteral("secure: label \"CONFIDENTIAL_INTERNAL\", idle, accepting jobs")),
             qPrintable(describe(listed)));
    for (const QString& line : lines)
        QVERIFY2(!line.startsWith(QStringLiteral("plain:")), qPrintable(line));
    QVERIFY(m_server.admin(QStringLiteral("cupsaccept"), {QStringLiteral("listed")}).exitCode == 0);
}

void TestQueueAdmin::testPrintsAndShowsTheAuditLine()
{
    createQueue(QStringLiteral("tested"), {QStringLiteral("--label"), QStringLiteral("TEST_LABEL")});
    const int before = m_printer->jobs().size();
    const RunResult tested = queueCommand({QStringLiteral("test"), QStringLiteral("tested")});
    QVERIFY2(tested.exitCode == 0, qPrintable(describe(tested)));
    const QStringList lines = outputLines(tested);
    QVERIFY2(lines.size() == 2, qPrintable(describe(tested)));
    const QString job = lines.first().section(QStringLiteral(" as job tested-"), 1);
    QVERIFY2(job.toInt() > 0, qPrintable(lines.first()));
    QVERIFY2(lines.last().contains(QStringLiteral("[Job %1] quillet audit: job=%1 user=\"root\" queue=tested "
                                                  "label=\"TEST_LABEL\" pages=1 copies=1 sent=1 "
                                                  "outcome=marked-and-sent")
                                       .arg(job)),
             qPrintable(lines.last()));

    // The stand-in printer got the marked page.
    QTRY_VERIFY_WITH_TIMEOUT(m_printer->jobs().size() == before + 1, 10000);
    const QByteArray received = readFile(m_printer->jobs().last());
    QVERIFY2(received.startsWith("%!PS"), received.left(80).constData());
    QVERIFY(received.contains("%%Page:"));
}

void TestQueueAdmin::testShowsARefusal()
{
    createQueue(QStringLiteral("refusing"), {QStringLiteral("--label"), QStringLiteral("TEST_LABEL")});
    QVERIFY(QFile::remove(queueFile(QStringLiteral("refusing"), ".tmpl")));
    const int before = m_printer->jobs().size();
    const RunResult tested = queueCommand({QStringLiteral("test"), QStringLiteral("refusing")});
    QCOMPARE(tested.exitCode, 1);
    const QStringList lines = outputLines(tested);
    QVERIFY2(lines.size() == 2, qPrintable(describe(tested)));
    QVERIFY2(lines.last().contains(QStringLiteral("quillet audit: ")) &&
                 lines.last().contains(QStringLiteral("queue=refusing")) &&
                 lines.last().contains(QStringLiteral("outcome=refused reason=\"the queue has no template")),
             qPrintable(lines.last()));
    QCOMPARE(m_printer->jobs().size(), before);
}

QTEST_GUILESS_MAIN(TestQueueAdmin)
#include "tst_queueadmin.moc"
