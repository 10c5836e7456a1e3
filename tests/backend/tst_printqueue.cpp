// The print queue end to end: a private cupsd with queues on the quillet
// backend, a stand-in network printer per queue, jobs printed with lp by an
// unprivileged user, and what reached the printers read back with Ghostscript
// and Poppler.
#include "common/auditrecord.h"
#include "pagecode/pagecodekey.h"
#include "printserver.h"
#include "standinprinter.h"
#include "support/pagecodetools.h"
#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QMap>
#include <QRegularExpression>
#include <QElapsedTimer>
#include <QThread>
#include <QtTest>

#include <memory>
#include <sys/stat.h>

namespace
{

// The marked queue's template: every string names what the tests look for.
const char QueueTemplate[] = "any:bold:12::label:top-center:{LABEL_NAME}\n"
                             "any:normal:9::user:top-left:User {job-originating-user-name}\n"
                             "any:normal:9::copy:top-right:Copy {CURRENT_COPY} of {copies}\n"
                             "any:normal:9::job:bottom-left:Job {job-id} project {project}\n"
                             "any:normal:9::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n";

// The administrator's variables: the label, and the one job option a user
// may set. A key that the backend sets itself stays out even when listed.
const char QueueVariables[] = "LABEL_NAME=Kestrel Restricted\n"
                              "MarkerJobOptions=project,job-originating-user-name,copies,LABEL_NAME_FULL\n";

// The queue with the accounting stamp: its strings for a few copies and for
// many, and the key that turns it on.
const char StampLines[] = "fonarik:bold:12::label:top-center:{LABEL_NAME}\n"
                          "fonarik:normal:9::stamp:top-left:Accounting {copies} copies, copy {CURRENT_COPY}, "
                          "User {job-originating-user-name}\n"
                          "fonarik:normal:9::pages:bottom-right:Page count {NUM_PAGES}\n"
                          "fonarik_gt_5:normal:9::stamp:top-left:Many copies\n";
const char StampSetting[] = "MarkerAccountingStamp=1\n";

// The queue with page codes adds the code and a probe: a site program that
// runs as the marking account and tells whether that account can read the
// site key (its first argument), and what kind of key file the variables
// hand it (MarkerPageCodeJobKey).
const char CodeLines[] = "any:normal:9::code:bottom-center:Code {PAGE_CODE}\n"
                         "any:normal:9::probe:top-center:{SCRIPT:@PROBE@ @SITEKEY@ {MarkerPageCodeJobKey}}\n";
const char KeyProbe[] = "#!/bin/sh\n"
                        "if head -c 1 \"$1\" >/dev/null 2>&1; then site=readable; else site=unreadable; fi\n"
                        "kind=$(grep -v '^#' \"$2\" 2>/dev/null | head -n 1 | cut -d ' ' -f 1)\n"
                        "echo \"Probe site key $site, handed key ${kind:-none}\"\n";

const char Label[] = "Kestrel Restricted";
const char PrintingUser[] = "nobody";

// Bounds of the whole run.
constexpr int PrinterLifetimeMs = 240000;
constexpr int JobsTimeoutMs = 120000;

const char GenericPpd[] = "drv:///sample.drv/generic.ppd";

// One job printed by the suite.
struct PrintedJob {
    QString queue;
    int id = 0;
    // Pages of one copy and the copies asked for; 0 pages for a job that
    // must be refused.
    int pages = 0;
    int copies = 1;
    // Sheets per document page: 2 with back pages.
    int sides = 1;
    // Pages the accounting stamp adds to every copy.
    int stampPages = 0;

    int impressions() const { return (pages * sides + stampPages) * copies; }
};

// What reached a printer in one connection, read back.
struct Capture {
    QString file;
    QString pdf;
    QStringList pageTexts;
    int jobId = 0;
};

QByteArray pagedText(int pages, const QByteArray& word)
{
    QByteArray text;
    for (int page = 1; page <= pages; ++page) {
        if (page > 1)
            text += '\f';
        text += word + " page " + QByteArray::number(page) + "\nA line of the document body.\n";
    }
    return text;
}

} // namespace

class TestPrintQueue : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void cleanupTestCase();
    void backendSchemeIsListed();
    void everyCopyIsMarked_data();
    void everyCopyIsMarked();
    void duplexBackPagesCarryTheMarks();
    void forgedOptionsChangeNothing();
    void refusedJobSendsNothing_data();
    void refusedJobSendsNothing();
    void nextJobPrintsAfterRefusal_data();
    void nextJobPrintsAfterRefusal();
    void pageLogCountsPagesTimesCopies_data();
    void pageLogCountsPagesTimesCopies();
    void auditLineForEveryJob_data();
    void auditLineForEveryJob();
    void noCapturedPageIsUnmarked();
    void accountingStampEndsEveryCopy();
    void pageCodesTraceEveryPageAndCopy();
    void markingRunNeverHoldsTheSiteKey();
    void cancelledAfterSendingIsAuditedSo();

  private:
    StandInPrinter& printer(const QString& queue);
    void addQueue(const QString& queue, const QString& uri);
    int submit(const QString& name, const QString& queue, const QString& file, int pages, int copies,
               const QStringList& options = {}, int sides = 1);
    void readCaptures();
    const Capture* captureOf(const QString& name) const;

    QTemporaryDir m_work;
    PrintServer m_server;
    QMap<QString, std::shared_ptr<StandInPrinter>> m_printers;
    QMap<QString, PrintedJob> m_jobs;
    QList<Capture> m_captures;
    // The site's page-code key, and the days the jobs were marked within.
    QString m_siteKey;
    // The 3-page PostScript job.
    QString m_postscript;
    QDate m_firstDay;
    QDate m_lastDay;
};

StandInPrinter& TestPrintQueue::printer(const QString& queue)
{
    if (!m_printers.contains(queue)) {
        auto standIn = std::make_shared<StandInPrinter>(m_work.filePath(queue), PrinterLifetimeMs);
        QString error;
        if (!standIn->start(&error))
            qFatal("%s", qPrintable(error));
        m_printers.insert(queue, standIn);
    }
    return *m_printers.value(queue);
}

void TestPrintQueue::addQueue(const QString& queue, const QString& uri)
{
    // The generic printer's duplexer is an installable option, off until
    // the administrator says it is there.
    const RunResult added = m_server.admin(
        QStringLiteral("lpadmin"),
        {QStringLiteral("-p"), queue, QStringLiteral("-E"), QStringLiteral("-v"), uri, QStringLiteral("-m"),
         QLatin1String(GenericPpd), QStringLiteral("-o"), QStringLiteral("Option1=True")});
    QVERIFY2(added.exitCode == 0, added.standardError.constData());
}

int TestPrintQueue::submit(const QString& name, const QString& queue, const QString& file, int pages,
                           int copies, const QStringList& options, int sides)
{
    QStringList arguments = {QStringLiteral("-d"),   queue, QStringLiteral("-t"), name, QStringLiteral("-n"),
                             QString::number(copies)};
    for (const QString& option : options)
        arguments << QStringLiteral("-o") << option;
    arguments << file;
    QString error;
    const int id = m_server.print(arguments, &error);
    if (id <= 0)
        qWarning("%s", qPrintable(error));
    m_jobs.insert(name, {queue, id, pages, copies, sides});
    return id;
}

void TestPrintQueue::initTestCase()
{
    if (!PrintServer::available())
        QSKIP("cupsd, the CUPS client programs, pstops or the socket backend are not installed");
    for (const char* tool : {"gs", "ps2pdf", "pdftotext", "pdfinfo", "enscript", "runuser"}) {
        if (!haveProgram(QLatin1String(tool)))
            QSKIP(qPrintable(QStringLiteral("%1 is needed").arg(QLatin1String(tool))));
    }
    QVERIFY(m_work.isValid());

    // The marked queue's configuration, root only, as an administrator
    // leaves it.
    m_server.writeConfig(QStringLiteral("quillet/marked.tmpl"), QueueTemplate);
    m_server.writeConfig(QStringLiteral("quillet/marked.vars"), QueueVariables);
    m_server.writeConfig(QStringLiteral("quillet/bare.vars"), QueueVariables);
    m_server.writeConfig(QStringLiteral("quillet/duplex.tmpl"), QueueTemplate);
    m_server.writeConfig(QStringLiteral("quillet/stamped.tmpl"), QByteArray(QueueTemplate) + StampLines);
    m_server.writeConfig(QStringLiteral("quillet/stamped.vars"), QByteArray(QueueVariables) + StampSetting);
    m_server.writeConfig(QStringLiteral("quillet/duplex.vars"),
                         QByteArray(QueueVariables) + "MarkerDuplexBackPages=1\n");

    QString error;
    QVERIFY2(m_server.start(QStringLiteral(QUILLET_BACKEND), &error), qPrintable(error));

    // Page codes for the whole site: the key, root's only, named in the
    // definitions; the queue "coded" shows the codes.
    m_siteKey = m_server.serverRoot() + QStringLiteral("/quillet/page-code.key");
    const RunResult madeKey =
        runProgram(QStringLiteral(QUILLET_VERIFY_EXECUTABLE), {QStringLiteral("--new-key"), m_siteKey});
    QVERIFY2(madeKey.exitCode == 0, madeKey.standardError.constData());
    m_server.writeSiteDefinitions("MarkerPageCodeKey=" + QFile::encodeName(m_siteKey) + '\n');
    const QString probe = m_server.writeJobFile(QStringLiteral("key-probe"), KeyProbe);
    QVERIFY(QFile::setPermissions(probe, QFile::permissions(probe) | QFile::ExeOwner | QFile::ExeGroup |
                                             QFile::ExeOther));
    m_server.writeConfig(QStringLiteral("quillet/coded.tmpl"),
                         QByteArray(QueueTemplate) + QByteArray(CodeLines)
                                                         .replace("@PROBE@", QFile::encodeName(probe))
                                                         .replace("@SITEKEY@", QFile::encodeName(m_siteKey)));
    // The probe's folder is one the job's sandbox shows, as a site's
    // program folder would be.
    m_server.writeConfig(QStringLiteral("quillet/coded.vars"),
                         QByteArray(QueueVariables) +
                             "MarkerSandboxFolders=" + QFile::encodeName(QFileInfo(probe).path()) + '\n');
    addQueue(QStringLiteral("coded"),
             QStringLiteral("quillet:") + printer(QStringLiteral("coded")).socketUri());
    addQueue(QStringLiteral("marked"),
             QStringLiteral("quillet:") + printer(QStringLiteral("marked")).socketUri());
    addQueue(QStringLiteral("duplex"),
             QStringLiteral("quillet:") + printer(QStringLiteral("duplex")).socketUri());
    addQueue(QStringLiteral("stamped"),
             QStringLiteral("quillet:") + printer(QStringLiteral("stamped")).socketUri());
    addQueue(QStringLiteral("bare"),
             QStringLiteral("quillet:") + printer(QStringLiteral("bare")).socketUri());
    addQueue(QStringLiteral("wrapped"),
             QStringLiteral("quillet:quillet:") + printer(QStringLiteral("wrapped")).socketUri());
    addQueue(QStringLiteral("unknown"), QStringLiteral("quillet:nosuchbackend://127.0.0.1:9"));
    m_server.writeConfig(QStringLiteral("quillet/wrapped.tmpl"), QueueTemplate);
    m_server.writeConfig(QStringLiteral("quillet/unknown.tmpl"), QueueTemplate);

    // The documents: PostScript from enscript, PDF, plain text, binary data.
    QString toolError;
    const QString text3 = m_server.writeJobFile(QStringLiteral("three.txt"), pagedText(3, "Enscript"));
    const QString postscript = m_server.writeJobFile(QStringLiteral("three.ps"), QByteArray());
    m_postscript = postscript;
    QVERIFY2(runTool(m_work.path(), QStringLiteral("enscript"),
                     {QStringLiteral("-q"), QStringLiteral("-p"), postscript, text3}, &toolError),
             qPrintable(toolError));
    const QString text2 = m_work.filePath(QStringLiteral("two.txt"));
    QVERIFY(writeFile(text2, pagedText(2, "Portable")));
    const QString twoPs = m_work.filePath(QStringLiteral("two.ps"));
    QVERIFY2(runTool(m_work.path(), QStringLiteral("enscript"),
                     {QStringLiteral("-q"), QStringLiteral("-p"), twoPs, text2}, &toolError),
             qPrintable(toolError));
    const QString pdf = m_server.writeJobFile(QStringLiteral("two.pdf"), QByteArray());
    QVERIFY(convertToPdf(twoPs, pdf, &toolError));
    const QString plain = m_server.writeJobFile(QStringLiteral("plain.txt"), pagedText(2, "Plain"));
    QByteArray binary;
    for (int i = 0; i < 4096; ++i)
        binary += char((i * 7 + 3) % 256);
    const QString raw = m_server.writeJobFile(QStringLiteral("binary.prn"), "\x1b%-12345X" + binary);

    // Every queue prints at the same time; within a queue the jobs keep
    // their order.
    m_firstDay = QDate::currentDate();
    submit(QStringLiteral("coded"), QStringLiteral("coded"), postscript, 3, 2);
    submit(QStringLiteral("postscript"), QStringLiteral("marked"), postscript, 3, 2);
    submit(QStringLiteral("pdf"), QStringLiteral("marked"), pdf, 2, 2);
    submit(QStringLiteral("text"), QStringLiteral("marked"), plain, 2, 2);
    submit(QStringLiteral("forged"), QStringLiteral("marked"), postscript, 3, 1,
           {QStringLiteral("job-originating-user-name=someone"), QStringLiteral("LABEL_NAME=FORGED"),
            QStringLiteral("project=Apollo")});
    submit(QStringLiteral("raw binary"), QStringLiteral("marked"), raw, 0, 1, {QStringLiteral("raw")});
    submit(QStringLiteral("after raw binary"), QStringLiteral("marked"), plain, 2, 1);
    submit(QStringLiteral("copies made by the filters"), QStringLiteral("marked"), postscript, 0, 2,
           {QStringLiteral("collate=true")});
    // 3 pages x 9,999 copies: over the default limit of pages x copies.
    submit(QStringLiteral("too many copies"), QStringLiteral("marked"), postscript, 0, 9999);
    submit(QStringLiteral("no template"), QStringLiteral("bare"), postscript, 0, 1);
    submit(QStringLiteral("duplex"), QStringLiteral("duplex"), postscript, 3, 2, {}, 2);
    submit(QStringLiteral("stamped"), QStringLiteral("stamped"), postscript, 3, 3);
    m_jobs[QStringLiteral("stamped")].stampPages = 1;
    submit(QStringLiteral("wrapped URI"), QStringLiteral("wrapped"), postscript, 0, 1);
    submit(QStringLiteral("unknown scheme"), QStringLiteral("unknown"), postscript, 0, 1);
    QList<int> ids;
    for (const PrintedJob& job : qAsConst(m_jobs)) {
        QVERIFY(job.id > 0);
        ids.append(job.id);
    }
    QVERIFY2(m_server.waitForJobs(ids, JobsTimeoutMs), m_server.errorLog().right(4000).constData());

    // The template arrives: the queue's next job prints.
    m_server.writeConfig(QStringLiteral("quillet/bare.tmpl"), QueueTemplate);
    const int next = submit(QStringLiteral("after no template"), QStringLiteral("bare"), postscript, 3, 1);
    QVERIFY(next > 0);
    QVERIFY2(m_server.waitForJobs({next}, JobsTimeoutMs), m_server.errorLog().right(4000).constData());

    // The site key goes missing: a job on a queue that shows the codes is
    // refused rather than printed without them.
    m_server.writeSiteDefinitions("MarkerPageCodeKey=" + QFile::encodeName(m_server.serverRoot()) +
                                  "/quillet/missing.key\n");
    const int withoutKey =
        submit(QStringLiteral("missing site key"), QStringLiteral("coded"), postscript, 0, 1);
    QVERIFY(withoutKey > 0);
    QVERIFY2(m_server.waitForJobs({withoutKey}, JobsTimeoutMs), m_server.errorLog().right(4000).constData());
    m_lastDay = QDate::currentDate();

    readCaptures();
}

void TestPrintQueue::cleanupTestCase()
{
    m_server.stop();
    for (const auto& standIn : qAsConst(m_printers))
        standIn->stop();
}

void TestPrintQueue::readCaptures()
{
    static const QRegularExpression jobPattern(QStringLiteral("Job (\\d+) project"));
    for (auto it = m_printers.cbegin(); it != m_printers.cend(); ++it) {
        for (const QString& file : it.value()->jobs()) {
            Capture capture;
            capture.file = file;
            capture.pdf = file + QStringLiteral(".pdf");
            QString error;
            if (convertToPdf(file, capture.pdf, &error))
                capture.pageTexts = pdfPageTexts(capture.pdf);
            else
                qWarning("%s: %s", qPrintable(file), qPrintable(error));
            // The first marked page names the job (with back pages the
            // first page is the document's own).
            for (const QString& page : qAsConst(capture.pageTexts)) {
                const QRegularExpressionMatch match = jobPattern.match(page);
                if (match.hasMatch()) {
                    capture.jobId = match.captured(1).toInt();
                    break;
                }
            }
            m_captures.append(capture);
        }
    }
}

const Capture* TestPrintQueue::captureOf(const QString& name) const
{
    const int id = m_jobs.value(name).id;
    for (const Capture& capture : m_captures) {
        if (capture.jobId == id)
            return &capture;
    }
    return nullptr;
}

void TestPrintQueue::backendSchemeIsListed()
{
    const RunResult listed = m_server.admin(QStringLiteral("lpinfo"), {QStringLiteral("-v")});
    QCOMPARE(listed.exitCode, 0);
    QVERIFY2(listed.standardOutput.contains("network quillet"), listed.standardOutput.constData());
}

void TestPrintQueue::everyCopyIsMarked_data()
{
    QTest::addColumn<QString>("job");
    QTest::newRow("PostScript from enscript, 3 pages, 2 copies") << QStringLiteral("postscript");
    QTest::newRow("PDF, 2 pages, 2 copies") << QStringLiteral("pdf");
    QTest::newRow("plain text, 2 pages, 2 copies") << QStringLiteral("text");
}

void TestPrintQueue::everyCopyIsMarked()
{
    QFETCH(QString, job);
    const PrintedJob printed = m_jobs.value(job);
    QCOMPARE(m_server.jobState(printed.id), JobCompleted);
    const Capture* capture = captureOf(job);
    QVERIFY2(capture, qPrintable(QStringLiteral("nothing from job %1 reached the printer").arg(printed.id)));

    // Collated copies: the document's pages once per copy, in order.
    QCOMPARE(capture->pageTexts.size(), printed.pages * printed.copies);
    QCOMPARE(pdfPageCount(capture->pdf), printed.pages * printed.copies);
    for (int sheet = 0; sheet < capture->pageTexts.size(); ++sheet) {
        const QString text = capture->pageTexts.at(sheet).simplified();
        const int copy = sheet / printed.pages + 1;
        const int page = sheet % printed.pages + 1;
        // The private server lets anyone print: the name is the client's
        // claim, and the marks say so.
        QVERIFY2(text.contains(QStringLiteral("User %1 (unverified)").arg(QLatin1String(PrintingUser))),
                 qPrintable(text));
        QVERIFY2(text.contains(QLatin1String(Label)), qPrintable(text));
        QVERIFY2(text.contains(QStringLiteral("Copy %1 of %2").arg(copy).arg(printed.copies)),
                 qPrintable(text));
        QVERIFY2(text.contains(QStringLiteral("Page %1 of %2").arg(page).arg(printed.pages)),
                 qPrintable(text));
        QVERIFY2(text.contains(QStringLiteral("Job %1 project").arg(printed.id)), qPrintable(text));
        QVERIFY2(!text.contains(QStringLiteral("Apollo")), qPrintable(text));
    }
    // The printer is never asked to multiply the marked stream: whatever
    // copy request stands in it asks for one copy.
    static const QRegularExpression copyRequest(
        QStringLiteral("^(\\d+)/languagelevel where|/NumCopies\\s+(\\d+)|/#copies\\s+(\\d+)"),
        QRegularExpression::MultilineOption);
    const QString stream = QString::fromLatin1(readFile(capture->file));
    for (auto match = copyRequest.globalMatch(stream); match.hasNext();) {
        const QRegularExpressionMatch request = match.next();
        QCOMPARE(request.captured(1) + request.captured(2) + request.captured(3), QStringLiteral("1"));
    }
    QVERIFY(!stream.contains(QStringLiteral("*NumCopies 2")));
    // The printer's interpreter runs the whole stream without an error.
    QCOMPARE(ghostscriptErrors(capture->file), QString());
    QString error;
    const QList<GrayPage> pages = renderPages(capture->file, 20, &error);
    QCOMPARE(error, QString());
    QCOMPARE(pages.size(), printed.pages * printed.copies);
}

void TestPrintQueue::duplexBackPagesCarryTheMarks()
{
    const PrintedJob printed = m_jobs.value(QStringLiteral("duplex"));
    QCOMPARE(m_server.jobState(printed.id), JobCompleted);
    const Capture* capture = captureOf(QStringLiteral("duplex"));
    QVERIFY2(capture, "nothing from the job with back pages reached the printer");
    // Every document page is followed by a back page with its marks.
    QCOMPARE(capture->pageTexts.size(), printed.impressions());
    for (int sheet = 0; sheet < capture->pageTexts.size(); sheet += 2) {
        const int copy = sheet / (2 * printed.pages) + 1;
        const int page = (sheet / 2) % printed.pages + 1;
        const QString front = capture->pageTexts.at(sheet).simplified();
        const QString back = capture->pageTexts.at(sheet + 1).simplified();
        QVERIFY2(front.contains(QStringLiteral("Enscript page %1").arg(page)), qPrintable(front));
        QVERIFY2(back.contains(QLatin1String(Label)), qPrintable(back));
        QVERIFY2(back.contains(QStringLiteral("Copy %1 of %2").arg(copy).arg(printed.copies)),
                 qPrintable(back));
        QVERIFY2(back.contains(QStringLiteral("Page %1 of %2").arg(page).arg(printed.pages)),
                 qPrintable(back));
    }
    QCOMPARE(ghostscriptErrors(capture->file), QString());
}

void TestPrintQueue::forgedOptionsChangeNothing()
{
    const PrintedJob printed = m_jobs.value(QStringLiteral("forged"));
    const Capture* capture = captureOf(QStringLiteral("forged"));
    QVERIFY2(capture, "nothing from the job with forged options reached the printer");
    QCOMPARE(capture->pageTexts.size(), printed.pages);
    for (const QString& page : capture->pageTexts) {
        const QString text = page.simplified();
        QVERIFY2(text.contains(QStringLiteral("User %1").arg(QLatin1String(PrintingUser))), qPrintable(text));
        QVERIFY2(!text.contains(QStringLiteral("someone")), qPrintable(text));
        QVERIFY2(text.contains(QLatin1String(Label)) && !text.contains(QStringLiteral("FORGED")),
                 qPrintable(text));
        QVERIFY2(text.contains(QStringLiteral("Copy 1 of 1")), qPrintable(text));
        // The allowed option reaches the marks.
        QVERIFY2(text.contains(QStringLiteral("project Apollo")), qPrintable(text));
    }
}

void TestPrintQueue::refusedJobSendsNothing_data()
{
    QTest::addColumn<QString>("job");
    QTest::addColumn<QString>("reason");
    QTest::newRow("raw binary data") << QStringLiteral("raw binary") << QStringLiteral("not PostScript");
    QTest::newRow("copies repeated by the filters")
        << QStringLiteral("copies made by the filters") << QStringLiteral("repeated the 2 copies");
    QTest::newRow("pages x copies over the queue's limit")
        << QStringLiteral("too many copies") << QStringLiteral("29997 pages (9999 copies of 3)");
    QTest::newRow("queue without template")
        << QStringLiteral("no template") << QStringLiteral("has no template");
    QTest::newRow("device URI wrapping quillet") << QStringLiteral("wrapped URI") << QStringLiteral("wraps");
    QTest::newRow("device URI naming no backend")
        << QStringLiteral("unknown scheme") << QStringLiteral("no backend");
    QTest::newRow("page codes on, site key missing")
        << QStringLiteral("missing site key") << QStringLiteral("Page-code key file ");
}

void TestPrintQueue::refusedJobSendsNothing()
{
    QFETCH(QString, job);
    QFETCH(QString, reason);
    const PrintedJob printed = m_jobs.value(job);
    // Not completed: the job is cancelled, so it is neither printed nor
    // left to stop the queue.
    QCOMPARE(m_server.jobState(printed.id), JobCanceled);
    QVERIFY2(!captureOf(job), "a refused job reached the printer");
    const RunResult finished =
        m_server.admin(QStringLiteral("lpstat"), {QStringLiteral("-W"), QStringLiteral("completed"),
                                                  QStringLiteral("-o"), printed.queue});
    QVERIFY2(finished.standardOutput.contains(
                 QStringLiteral("%1-%2 ").arg(printed.queue).arg(printed.id).toUtf8()),
             finished.standardOutput.constData());
    if (job == QLatin1String("wrapped URI"))
        QCOMPARE(printer(QStringLiteral("wrapped")).jobs(), QStringList());

    // One ERROR line names the job and the reason.
    const QStringList errors =
        m_server.jobLogLines(printed.id)
            .filter(QRegularExpression(QStringLiteral("^E .*quillet: job %1 on ").arg(printed.id)));
    QCOMPARE(errors.size(), 1);
    QVERIFY2(errors.first().contains(reason), qPrintable(errors.first()));
}

void TestPrintQueue::nextJobPrintsAfterRefusal_data()
{
    QTest::addColumn<QString>("job");
    QTest::newRow("after raw binary data") << QStringLiteral("after raw binary");
    QTest::newRow("after a job on a queue without template") << QStringLiteral("after no template");
}

void TestPrintQueue::nextJobPrintsAfterRefusal()
{
    QFETCH(QString, job);
    const PrintedJob printed = m_jobs.value(job);
    QCOMPARE(m_server.jobState(printed.id), JobCompleted);
    const Capture* capture = captureOf(job);
    QVERIFY2(capture, "the next job did not reach the printer");
    QCOMPARE(capture->pageTexts.size(), printed.pages);
}

void TestPrintQueue::pageLogCountsPagesTimesCopies_data()
{
    QTest::addColumn<QString>("job");
    for (const char* job : {"postscript", "pdf", "text", "forged", "after raw binary", "duplex", "coded",
                            "stamped", "raw binary", "no template", "missing site key"})
        QTest::newRow(job) << QString::fromLatin1(job);
}

void TestPrintQueue::pageLogCountsPagesTimesCopies()
{
    QFETCH(QString, job);
    const PrintedJob printed = m_jobs.value(job);
    // One line per job: "<queue> <user> <job> total <impressions>
    // <impressions> <state message>". A printed job counts its pages times
    // its copies and ends with its audit line; a refused one says so.
    const QString head =
        QStringLiteral("%1 %2 %3 total ").arg(printed.queue, QLatin1String(PrintingUser)).arg(printed.id);
    QStringList lines;
    for (const QByteArray& line : m_server.pageLog().split('\n')) {
        if (line.startsWith(head.toUtf8()))
            lines.append(QString::fromUtf8(line));
    }
    QCOMPARE(lines.size(), 1);
    const QString& line = lines.first();
    if (printed.pages > 0) {
        const int impressions = printed.impressions();
        QVERIFY2(line.startsWith(head + QStringLiteral("%1 %1 quillet audit: ").arg(impressions)),
                 qPrintable(line));
        QVERIFY2(line.contains(QStringLiteral(" sent=%1 outcome=marked-and-sent").arg(impressions)),
                 qPrintable(line));
    } else {
        QVERIFY2(line.contains(QStringLiteral(" quillet: job %1 on %2 refused, nothing printed: ")
                                   .arg(printed.id)
                                   .arg(printed.queue)),
                 qPrintable(line));
    }
}

void TestPrintQueue::auditLineForEveryJob_data()
{
    QTest::addColumn<QString>("job");
    QTest::addColumn<QString>("outcome");
    QTest::newRow("PostScript, 2 copies")
        << QStringLiteral("postscript") << QStringLiteral("outcome=marked-and-sent");
    QTest::newRow("forged options") << QStringLiteral("forged") << QStringLiteral("outcome=marked-and-sent");
    QTest::newRow("back pages") << QStringLiteral("duplex") << QStringLiteral("outcome=marked-and-sent");
    QTest::newRow("raw binary data") << QStringLiteral("raw binary")
                                     << QStringLiteral("outcome=refused reason=");
    QTest::newRow("no template") << QStringLiteral("no template")
                                 << QStringLiteral("outcome=refused reason=");
    QTest::newRow("page codes on, site key missing")
        << QStringLiteral("missing site key") << QStringLiteral("outcome=refused reason=");
}

void TestPrintQueue::auditLineForEveryJob()
{
    QFETCH(QString, job);
    QFETCH(QString, outcome);
    const PrintedJob printed = m_jobs.value(job);
    // At NOTICE level; the log writes the line's quotes as \".
    const QStringList audits =
        m_server.jobLogLines(printed.id).filter(QRegularExpression(QStringLiteral("^N .* quillet audit: ")));
    QCOMPARE(audits.size(), 1);
    const QString line = QString(audits.first()).replace(QStringLiteral("\\\""), QStringLiteral("\""));
    const QString fields =
        QStringLiteral("job=%1 user=\"%2\" queue=%3 label=\"%4\" pages=%5 copies=%6 sent=%7 ")
            .arg(printed.id)
            .arg(QLatin1String(PrintingUser), printed.queue, QLatin1String(Label))
            .arg(printed.pages)
            .arg(printed.copies)
            .arg(printed.impressions());
    QVERIFY2(line.contains(fields + outcome), qPrintable(line));

    // The same in the audit log of its own, as one JSON record.
    QString error;
    const QList<AuditRecord> records = auditRecordsOfJob(m_server.auditLogFile(), printed.id, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QCOMPARE(records.size(), 1);
    const AuditRecord& record = records.first();
    QCOMPARE(record.user, QLatin1String(PrintingUser));
    QVERIFY(!record.userAuthenticated);
    QCOMPARE(record.queue, printed.queue);
    QCOMPARE(record.copies, printed.copies);
    QCOMPARE(record.pages, qint64(printed.pages));
    QCOMPARE(record.sheetsSent, qint64(printed.impressions()));
    QCOMPARE(record.outcome, outcome.startsWith(QLatin1String("outcome=marked-and-sent"))
                                 ? QLatin1String(AuditSent)
                                 : QLatin1String(AuditRefused));
    QCOMPARE(record.label, QLatin1String(Label));
}

void TestPrintQueue::noCapturedPageIsUnmarked()
{
    int pages = 0;
    for (const Capture& capture : qAsConst(m_captures)) {
        QVERIFY2(!capture.pageTexts.isEmpty(), qPrintable(capture.file));
        QCOMPARE(pdfPageCount(capture.pdf), capture.pageTexts.size());
        // With back pages, the back pages carry the marks.
        int step = 1;
        for (const PrintedJob& job : qAsConst(m_jobs)) {
            if (job.id == capture.jobId)
                step = job.sides;
        }
        for (int index = step - 1; index < capture.pageTexts.size(); index += step) {
            const QString text = capture.pageTexts.at(index).simplified();
            QVERIFY2(text.contains(QLatin1String(Label)) && text.contains(QStringLiteral("User ")) &&
                         text.contains(QStringLiteral("Page ")),
                     qPrintable(capture.file + QStringLiteral(": ") + text));
            pages += step;
        }
    }
    // Every page the printed jobs asked for, and nothing else.
    int expected = 0;
    for (const PrintedJob& job : qAsConst(m_jobs))
        expected += job.impressions();
    QCOMPARE(pages, expected);
}

// A queue whose definitions turn the stamp on ends every copy with a page of
// it: the copy count, the copy and the user, under the label.
void TestPrintQueue::accountingStampEndsEveryCopy()
{
    const PrintedJob printed = m_jobs.value(QStringLiteral("stamped"));
    QCOMPARE(m_server.jobState(printed.id), JobCompleted);
    const Capture* capture = captureOf(QStringLiteral("stamped"));
    QVERIFY2(capture, "nothing from the stamped job reached the printer");
    QCOMPARE(capture->pageTexts.size(), printed.impressions());
    const int perCopy = printed.pages + 1;
    for (int sheet = 0; sheet < capture->pageTexts.size(); ++sheet) {
        const QString text = capture->pageTexts.at(sheet).simplified();
        const int copy = sheet / perCopy + 1;
        const int page = sheet % perCopy + 1;
        const QString stamp = QStringLiteral("Accounting %1 copies, copy %2, User %3")
                                  .arg(printed.copies)
                                  .arg(copy)
                                  .arg(QLatin1String(PrintingUser));
        if (page == perCopy) {
            QVERIFY2(text.contains(stamp), qPrintable(text));
            QVERIFY2(text.contains(QStringLiteral("Page count %1").arg(printed.pages)), qPrintable(text));
            QVERIFY2(!text.contains(QStringLiteral("Many copies")), qPrintable(text));
        } else {
            QVERIFY2(text.contains(QStringLiteral("Page %1 of %2").arg(page).arg(printed.pages)),
                     qPrintable(text));
            QVERIFY2(!text.contains(QStringLiteral("Accounting ")), qPrintable(text));
        }
    }
    QCOMPARE(ghostscriptErrors(capture->file), QString());
}

// Every page and copy of the queue with codes carries its own code, and the
// site key alone traces each to this job, page and copy, with the job's
// audit line from the print server's log.
void TestPrintQueue::pageCodesTraceEveryPageAndCopy()
{
    const PrintedJob printed = m_jobs.value(QStringLiteral("coded"));
    QCOMPARE(m_server.jobState(printed.id), JobCompleted);
    const Capture* capture = captureOf(QStringLiteral("coded"));
    QVERIFY2(capture, "nothing from the job with page codes reached the printer");
    QCOMPARE(capture->pageTexts.size(), printed.impressions());
    QStringList codes;
    for (const QString& page : capture->pageTexts) {
        const QString code = printedPageCode(page.simplified(), QStringLiteral("Code"));
        QVERIFY2(!code.isEmpty(), qPrintable(page));
        codes << code;
    }
    QCOMPARE(QSet<QString>(codes.begin(), codes.end()).size(), codes.size());

    const RunResult check = runProgram(
        QStringLiteral(QUILLET_VERIFY_EXECUTABLE),
        QStringList{QStringLiteral("--key"), m_siteKey, QStringLiteral("--log"), m_server.auditLogFile()} +
            codes);
    QVERIFY2(check.exitCode == 0, check.standardOutput + check.standardError);
    const QList<Verdict> answers = verdicts(check.standardOutput);
    QCOMPARE(answers.size(), codes.size());
    for (int sheet = 0; sheet < codes.size(); ++sheet) {
        const Verdict& answer = answers.at(sheet);
        QVERIFY2(answer.authentic, qPrintable(codes.at(sheet)));
        QCOMPARE(answer.job, qint64(printed.id));
        QCOMPARE(answer.page, sheet % printed.pages + 1);
        QCOMPARE(answer.copy, sheet / printed.pages + 1);
        QVERIFY(answer.date >= m_firstDay && answer.date <= m_lastDay);
    }
    // The job's audit record, under every code, with the identity of the
    // key that made the codes.
    const QStringList audits = verifyAuditLines(check.standardOutput);
    QCOMPARE(audits.size(), codes.size());
    PageCodeKey site;
    QString error;
    QVERIFY2(PageCodeKey::load(m_siteKey, &site, &error), qPrintable(error));
    for (const QString& line : audits) {
        AuditRecord record;
        QVERIFY2(readAuditJsonLine(line.toUtf8(), &record), qPrintable(line));
        QCOMPARE(record.job, qint64(printed.id));
        QCOMPARE(record.user, QLatin1String(PrintingUser));
        QCOMPARE(record.queue, QStringLiteral("coded"));
        QCOMPARE(record.label, QLatin1String(Label));
        QCOMPARE(record.pages, qint64(printed.pages));
        QCOMPARE(record.copies, printed.copies);
        QCOMPARE(record.sheetsSent, qint64(printed.impressions()));
        QCOMPARE(record.outcome, QLatin1String(AuditSent));
        QCOMPARE(record.pageCodeKey, site.identity());
    }
}

// A job cancelled once the printer has all of its data (the printer holds
// the connection open while it prints) may well be printed: the audit says
// it was cancelled after sending, with every sheet sent.
void TestPrintQueue::cancelledAfterSendingIsAuditedSo()
{
    StandInPrinter printer(m_work.filePath(QStringLiteral("holding")), PrinterLifetimeMs);
    printer.holdConnectionsOpen();
    QString error;
    QVERIFY2(printer.start(&error), qPrintable(error));
    // The site's key as it should be (the suite's set-up ended without it).
    m_server.writeSiteDefinitions("MarkerPageCodeKey=" + QFile::encodeName(m_siteKey) + "\n");
    m_server.writeConfig(QStringLiteral("quillet/holding.tmpl"), QueueTemplate);
    m_server.writeConfig(QStringLiteral("quillet/holding.vars"), QueueVariables);
    addQueue(QStringLiteral("holding"), QStringLiteral("quillet:") + printer.socketUri());
    const int id =
        submit(QStringLiteral("cancelled after sending"), QStringLiteral("holding"), m_postscript, 3, 2);
    QVERIFY(id > 0);
    QElapsedTimer clock;
    clock.start();
    while (printer.jobs().isEmpty() && m_server.jobState(id) < JobCanceled && clock.elapsed() < JobsTimeoutMs)
        QThread::msleep(100);
    QVERIFY2(
        printer.jobs().size() == 1,
        qPrintable(
            m_server.jobLogLines(id).filter(QStringLiteral("quillet")).join(QLatin1Char('\n')).left(900)));
    QCOMPARE(m_server.jobState(id) < JobCanceled, true);
    const RunResult cancelled = m_server.admin(QStringLiteral("cancel"), {QString::number(id)});
    QVERIFY2(cancelled.exitCode == 0, cancelled.standardError.constData());
    QVERIFY(m_server.waitForJobs({id}, JobsTimeoutMs));
    printer.stop();

    // The print server marks the job cancelled at once; the backend writes
    // its record once it has ended the real backend.
    QList<AuditRecord> records;
    clock.restart();
    while (records.isEmpty() && clock.elapsed() < 30000) {
        QThread::msleep(100);
        records = auditRecordsOfJob(m_server.auditLogFile(), id, &error);
    }
    QCOMPARE(records.size(), 1);
    QCOMPARE(records.first().outcome, QLatin1String(AuditCancelledAfterSending));
    QCOMPARE(records.first().sheetsSent, qint64(6));
    QVERIFY2(records.first().reason.contains(QStringLiteral("bytes handed to the backend socket")),
             qPrintable(records.first().reason));
}

// The marking account got a key of its job alone: the probe on every page
// ran as that account, could not read the site key, and was handed a "job"
// key file; the site key file is root's only.
void TestPrintQueue::markingRunNeverHoldsTheSiteKey()
{
    struct stat info;
    QCOMPARE(::stat(QFile::encodeName(m_siteKey).constData(), &info), 0);
    QCOMPARE(info.st_uid, uid_t(0));
    QCOMPARE(info.st_mode & 0077, mode_t(0));
    const Capture* capture = captureOf(QStringLiteral("coded"));
    QVERIFY2(capture, "nothing from the job with page codes reached the printer");
    for (const QString& page : capture->pageTexts)
        QVERIFY2(page.simplified().contains(QStringLiteral("Probe site key unreadable, handed key job")),
                 qPrintable(page));
}

QTEST_GUILESS_MAIN(TestPrintQueue)
#include "tst_printqueue.moc"
