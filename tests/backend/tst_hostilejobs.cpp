// The print queue against a hostile user and against real documents: a
// private cupsd with one quillet queue per job, a stand-in network printer
// per queue, jobs printed with lp by an unprivileged user, and what reached
// each printer read back sheet by sheet with Ghostscript and Poppler.
//
// Every job ends one of two ways, and nothing else passes:
//  - refused: the job is cancelled, nothing reached the printer, and the
//    print server's log holds the job's audit line with outcome=refused;
//  - printed: every sheet that reached the printer carries the label and
//    its "Page i of N" upright, readable and inked, and the printer gets
//    exactly the sheets the job prints (pages x copies, x2 with back pages).
// Real documents must print; hostile documents may be refused; set-ups
// that cannot mark must be refused.
#include "printserver.h"
#include "sheetcheck.h"
#include "standinprinter.h"
#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QMap>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtTest>

#include <memory>
#include <sys/stat.h>

namespace
{

// The template of every marked queue: the label, and where the sheet is.
const char QueueTemplate[] = "any:bold:12::label:top-center:{LABEL_NAME}\n"
                             "any:normal:9::user:top-left:User {job-originating-user-name}\n"
                             "any:normal:9::copy:top-right:Copy {CURRENT_COPY} of {copies}\n"
                             "any:normal:9::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n";
const char QueueVariables[] = "LABEL_NAME=Kestrel Restricted\n";
const char BackPagesSetting[] = "MarkerDuplexBackPages=1\n";
const char Label[] = "Kestrel Restricted";

// The two queues whose jobs are marked side by side: each template names a
// token of its own and runs a probe that looks for the other job's files.
const char ProbeTemplate[] = "any:bold:12::label:top-center:{LABEL_NAME}\n"
                             "any:normal:9::ref:top-left:Ref QTK@OWN@\n"
                             "any:normal:9::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n"
                             "any:normal:9::probe:bottom-left:{SCRIPT:@PROBE@ @OWN@ @OTHER@ @OTHERQUEUE@ "
                             "{job-id} @FOLDERS@}\n";
const char ProbeFindsNothing[] = "Probe listed 0 template no variables no key no wrote no";

// Templates that cannot mark.
const char FirstPageTemplate[] = "first:bold:12::label:top-center:{LABEL_NAME}\n"
                                 "first:normal:9::pages:bottom-right:Page {CURRENT_PAGE} of {NUM_PAGES}\n";
const char RejectedTemplate[] = "top-center {LABEL_NAME}\n"
                                "every:bold:12::label:top-center:{LABEL_NAME}\n"
                                "any:bold:12::label:middle-of-nowhere:{LABEL_NAME}\n";

const char GenericPpd[] = "drv:///sample.drv/generic.ppd";

// Bounds of the whole run: the marking of a job may take its time.
constexpr int PrinterLifetimeMs = 420000;
constexpr int JobsTimeoutMs = 300000;

// How a job must end.
enum class Expect {
    Printed,   // every sheet marked
    Refused,   // nothing printed
    Either,    // one of the two, never neither
};

// What the stream that reached the printer may not ask for.
enum StreamCheck {
    NoStreamCheck = 0,
    NoEndOfJob = 1,       // no Ctrl-D: the printer would start a new job
    NoCopyRequest = 2,    // no NumCopies or #copies above 1
    AsksTwoSided = 4,     // the last Duplex request is true
};

// A queue as an administrator sets it up.
struct QueueSetup {
    QByteArray templateText;
    bool withTemplate = true;
    QByteArray variables;
    bool withVariables = true;
    QStringList ppdOptions;
};

// One job of the suite, on a queue of its own.
struct HostileJob {
    QString queue;
    QueueSetup setup;
    QString document;
    QStringList options;
    int copies = 1;
    Expect expect = Expect::Printed;
    MarkExpectation marks;
    int streamChecks = NoStreamCheck;
    // Files that the document tries to write, and the folder that stands
    // for the disk of a printer whose interpreter lets jobs write to it.
    QStringList mustNotExist;
    QString printerDisk;
    // 2: printed after every other job, with the site definitions replaced.
    int phase = 1;
    int id = 0;
};

QByteArray pagedText(int pages, const QByteArray& word)
{
    QByteArray text;
    for (int page = 1; page <= pages; ++page) {
        if (page > 1)
            text += '\f';
        text += word + " page " + QByteArray::number(page) + "\n";
        for (int line = 1; line <= 40; ++line)
            text += "Line " + QByteArray::number(line) + " of the document body, long enough to leave ink.\n";
    }
    return text;
}

MarkExpectation marksOf(int pages, bool content, const QString& label = QLatin1String(Label))
{
    MarkExpectation marks;
    marks.labelWords = label.split(QLatin1Char(' '));
    marks.pages = pages;
    marks.content = content;
    return marks;
}

// A document whose code shows one page more than its page comments say: it
// may print as either, every sheet marked and numbered alike.
MarkExpectation marksWithHiddenPage(int pages)
{
    MarkExpectation marks = marksOf(pages, false);
    marks.otherPages = pages + 1;
    return marks;
}

QString fixture(const QString& name)
{
    return testsSourceDir() + QStringLiteral("/backend/hostile/") + name;
}

// Texts of the password file that the document must not get to print:
// "name:x:uid:gid" of every account.
QStringList passwordFileEntries()
{
    QStringList entries;
    for (const QByteArray& line : readFile(QStringLiteral("/etc/passwd")).split('\n')) {
        const QList<QByteArray> fields = line.split(':');
        if (fields.size() >= 4)
            entries << QString::fromLocal8Bit(fields.mid(0, 4).join(':'));
    }
    return entries;
}

// Pages of a document as Ghostscript shows them.
int pageCount(const QString& file)
{
    return renderPages(file, 10).size();
}

} // namespace

class TestHostileJobs : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void cleanupTestCase();
    void jobIsRefusedOrEverySheetIsMarked_data();
    void jobIsRefusedOrEverySheetIsMarked();

  private:
    void makeDocuments();
    void defineJobs();
    void setUpQueue(const HostileJob& job);
    StandInPrinter& printer(const QString& queue);
    int submit(HostileJob& job);
    QStringList refusedProblems(const HostileJob& job) const;
    QStringList printedProblems(const HostileJob& job) const;
    QStringList streamProblems(const HostileJob& job, const QByteArray& stream) const;
    QStringList auditLines(int id) const;

    QTemporaryDir m_work;
    PrintServer m_server;
    QMap<QString, std::shared_ptr<StandInPrinter>> m_printers;
    QMap<QString, QString> m_documents;
    QStringList m_rows;
    QMap<QString, HostileJob> m_jobs;
    QString m_siteKey;
    // A random word of this run, for names that no other run uses.
    QString m_token;
    // Where the document that writes files aims: a folder that every account
    // may write into, and a file in the shared temporary folder.
    QString m_dropFolder;
    QString m_temporaryDrop;
};

StandInPrinter& TestHostileJobs::printer(const QString& queue)
{
    if (!m_printers.contains(queue)) {
        auto standIn = std::make_shared<StandInPrinter>(m_work.filePath(QStringLiteral("printers/") + queue),
                                                        PrinterLifetimeMs);
        QString error;
        if (!standIn->start(&error))
            qFatal("%s", qPrintable(error));
        m_printers.insert(queue, standIn);
    }
    return *m_printers.value(queue);
}

// The documents, made by real tools or taken from the fixtures, all in the
// folder that the printing user can read.
void TestHostileJobs::makeDocuments()
{
    QString error;
    auto enscript = [&](const QString& key, int pages) {
        const QString text = m_work.filePath(key + QStringLiteral(".txt"));
        QVERIFY(writeFile(text, pagedText(pages, "Enscript")));
        const QString output = m_server.writeJobFile(key + QStringLiteral(".ps"), QByteArray());
        QVERIFY2(runTool(m_work.path(), QStringLiteral("enscript"),
                         {QStringLiteral("-q"), QStringLiteral("-p"), output, text}, &error),
                 qPrintable(error));
        m_documents.insert(key, output);
    };
    enscript(QStringLiteral("one-page"), 1);
    enscript(QStringLiteral("two-pages"), 2);
    enscript(QStringLiteral("twenty-pages"), 20);

    // The one-page document with its VM saved before the prolog and
    // restored in the trailer, where its only showpage stands.
    QByteArray saved = readFile(m_documents.value(QStringLiteral("one-page")));
    QVERIFY(saved.contains("%%EndComments\n") && saved.contains("_R\nS\n%%Trailer\n"));
    saved.replace("%%EndComments\n", "%%EndComments\n/x save def\n");
    saved.replace("_R\nS\n%%Trailer\n", "_R\n%%Trailer\nx restore showpage\n");
    m_documents.insert(QStringLiteral("saved-vm"), m_server.writeJobFile(QStringLiteral("saved-vm.ps"), saved));

    // A Letter report typeset by groff, rewritten by Ghostscript's ps2write.
    const QString letter = m_work.filePath(QStringLiteral("report-letter.ps"));
    QVERIFY2(runTool(m_work.path(), QStringLiteral("groff"),
                     {QStringLiteral("-t"), QStringLiteral("-p"), QStringLiteral("-ms"), QStringLiteral("-Tps"),
                      QStringLiteral("-dpaper=letter"), QStringLiteral("-P-pletter"),
                      testsSourceDir() + QStringLiteral("/document/realdocs/maintenance-report.ms")},
                     &error, letter),
             qPrintable(error));
    const QString ps2write = m_server.writeJobFile(QStringLiteral("report-ps2write.ps"), QByteArray());
    QVERIFY2(runTool(m_work.path(), QStringLiteral("gs"),
                     {QStringLiteral("-q"), QStringLiteral("-dSAFER"), QStringLiteral("-dBATCH"),
                      QStringLiteral("-dNOPAUSE"), QStringLiteral("-sDEVICE=ps2write"),
                      QStringLiteral("-sOutputFile=") + ps2write, letter},
                     &error),
             qPrintable(error));
    m_documents.insert(QStringLiteral("ps2write"), ps2write);

    // A note typeset with groff's mom macros.
    const QString mom = m_server.writeJobFile(QStringLiteral("note-mom.ps"), QByteArray());
    QVERIFY2(runTool(m_work.path(), QStringLiteral("groff"),
                     {QStringLiteral("-mom"), QStringLiteral("-Tps"), fixture(QStringLiteral("note.mom"))}, &error,
                     mom),
             qPrintable(error));
    m_documents.insert(QStringLiteral("mom"), mom);

    // The hand-written documents; the one that writes files aims at a
    // folder that every account may write into and at the shared temporary
    // folder, which Ghostscript's -dSAFER leaves writable.
    QByteArray drop = "/var/tmp/quillet-hostile-XXXXXX";
    QVERIFY(mkdtemp(drop.data()));
    m_dropFolder = QFile::decodeName(drop);
    QCOMPARE(chmod(drop.constData(), 0777), 0);
    m_temporaryDrop = QStringLiteral("/tmp/quillet-hostile-%1-written").arg(m_token);
    for (const QString& name : QDir(fixture(QString())).entryList({QStringLiteral("*.ps"), QStringLiteral("*.eps")})) {
        QByteArray content = readFile(fixture(name));
        content.replace("@DROP@", QFile::encodeName(m_dropFolder + QStringLiteral("/written-by-a-job")));
        content.replace("@TMPDROP@", QFile::encodeName(m_temporaryDrop));
        m_documents.insert(QFileInfo(name).completeBaseName(), m_server.writeJobFile(name, content));
    }
}

void TestHostileJobs::defineJobs()
{
    auto add = [this](const QString& row, const QString& queue, const QString& document, Expect expect,
                      const MarkExpectation& marks) -> HostileJob& {
        HostileJob job;
        job.queue = queue;
        job.setup.templateText = QueueTemplate;
        job.setup.variables = QueueVariables;
        job.document = m_documents.value(document);
        if (job.document.isEmpty())
            qFatal("no document %s", qPrintable(document));
        job.expect = expect;
        job.marks = marks;
        m_rows << row;
        m_jobs.insert(row, job);
        return m_jobs[row];
    };

    // Real documents: every one prints, with its own drawing on its sheets.
    // Except for the two whose VM is saved before the prolog: pstops sets up
    // the page device after that save, and the restore in the trailer puts
    // the old one back, which clears the page before the trailer's
    // showpage. An interpreter prints that one sheet blank: it must still
    // be the only one, and marked.
    add(QStringLiteral("document with its VM saved before the prolog, restored and shown in the trailer"),
        QStringLiteral("saved-vm"), QStringLiteral("saved-vm"), Expect::Printed, marksOf(1, false));
    // pstops also defines its showpage after the drawing's save, and the
    // restore takes it away again: the stream that pstops makes of it stops
    // at its showpage on any printer, so a refusal is right too.
    add(QStringLiteral("encapsulated drawing without page comments, showpage after its restore"),
        QStringLiteral("saved-drawing"), QStringLiteral("saved-drawing"), Expect::Either, marksOf(1, false));
    HostileJob& ps2write =
        add(QStringLiteral("ps2write output of a Letter document on an A4 queue"), QStringLiteral("a4-ps2write"),
            QStringLiteral("ps2write"), Expect::Printed,
            marksOf(pageCount(m_documents.value(QStringLiteral("ps2write"))), true));
    ps2write.setup.ppdOptions = QStringList{QStringLiteral("PageSize=A4")};
    add(QStringLiteral("pages ending in a scaled and turned coordinate system"), QStringLiteral("coordinates"),
        QStringLiteral("changed-coordinates"), Expect::Printed, marksOf(2, true));
    add(QStringLiteral("groff mom document"), QStringLiteral("mom"), QStringLiteral("mom"), Expect::Printed,
        marksOf(pageCount(m_documents.value(QStringLiteral("mom"))), true));
    add(QStringLiteral("lp -o landscape"), QStringLiteral("landscape"), QStringLiteral("two-pages"),
        Expect::Printed, marksOf(2, true))
        .options = QStringList{QStringLiteral("landscape")};
    // 20 pages, 16 to a sheet: 2 sheets, the label still at its size.
    add(QStringLiteral("lp -o number-up=16"), QStringLiteral("number-up"), QStringLiteral("twenty-pages"),
        Expect::Printed, marksOf(2, true))
        .options = QStringList{QStringLiteral("number-up=16")};
    HostileJob& copies = add(QStringLiteral("enscript document, 2 copies"), QStringLiteral("copies"),
                             QStringLiteral("two-pages"), Expect::Printed, marksOf(2, true));
    copies.copies = 2;
    copies.marks.copies = 2;
    copies.options = QStringList{QStringLiteral("collate=false")};

    // Hostile documents: refused, or printed with every sheet marked.
    add(QStringLiteral("showpage between the header and the prolog"), QStringLiteral("header-showpage"),
        QStringLiteral("header-showpage"), Expect::Either, marksWithHiddenPage(1));
    add(QStringLiteral("showpage after a carriage return in a header line"), QStringLiteral("header-cr"),
        QStringLiteral("header-carriage-return"), Expect::Either, marksWithHiddenPage(1));
    add(QStringLiteral("string opened before the prolog and closed after it"), QStringLiteral("open-string"),
        QStringLiteral("open-string-before-prolog"), Expect::Either, marksOf(1, false));
    add(QStringLiteral("grestoreall, then the showpage of systemdict"), QStringLiteral("grestoreall"),
        QStringLiteral("grestoreall-showpage"), Expect::Either, marksOf(1, false));
    add(QStringLiteral("restore of the first save object within reach"), QStringLiteral("restore-save"),
        QStringLiteral("restore-first-save"), Expect::Either, marksOf(2, false));
    add(QStringLiteral("tiny scale and white transfer left at the end of a page"), QStringLiteral("tiny-white"),
        QStringLiteral("tiny-scale-white-transfer"), Expect::Either, marksOf(2, false));
    add(QStringLiteral("show, charpath, fill and stroke redefined in userdict"), QStringLiteral("redefined"),
        QStringLiteral("redefined-operators"), Expect::Either, marksOf(2, false));
    add(QStringLiteral("end of job (Ctrl-D) followed by a page of its own"), QStringLiteral("control-d"),
        QStringLiteral("control-d"), Expect::Either, marksWithHiddenPage(1))
        .streamChecks = NoEndOfJob;
    add(QStringLiteral("/#copies 5 def"), QStringLiteral("copies-def"), QStringLiteral("copies-def"),
        Expect::Either, marksOf(1, false))
        .streamChecks = NoCopyRequest;
    add(QStringLiteral("NumCopies 5 by setpagedevice"), QStringLiteral("numcopies"),
        QStringLiteral("numcopies-setpagedevice"), Expect::Either, marksOf(1, false))
        .streamChecks = NoCopyRequest;
    HostileJob& passwd = add(QStringLiteral("reads /etc/passwd onto the page"), QStringLiteral("read-passwd"),
                             QStringLiteral("read-passwd"), Expect::Either, marksOf(1, false));
    passwd.marks.forbidden = passwordFileEntries();
    HostileJob& passThrough = add(QStringLiteral("PostScript for a PDF writer to pass through"),
                                  QStringLiteral("pass-through"), QStringLiteral("ps-passthrough"), Expect::Either,
                                  marksOf(1, false));
    passThrough.marks.forbidden = QStringList{QStringLiteral("PASSEDTHROUGH"), QStringLiteral("HIJACKED")};
    HostileJob& writer = add(QStringLiteral("writes a file"), QStringLiteral("write-file"),
                             QStringLiteral("write-file"), Expect::Either, marksOf(1, false));
    writer.mustNotExist = QStringList{m_dropFolder + QStringLiteral("/written-by-a-job"), m_temporaryDrop};
    writer.printerDisk = m_dropFolder;
    add(QStringLiteral("own EndPage procedure"), QStringLiteral("endpage"), QStringLiteral("endpage-replaced"),
        Expect::Either, marksOf(2, false));
    add(QStringLiteral("sets the flag of a marked page itself"), QStringLiteral("marked-flag"),
        QStringLiteral("marked-flag"), Expect::Either, marksOf(2, false));
    add(QStringLiteral("paints every page white before showing it"), QStringLiteral("white-out"),
        QStringLiteral("white-out-showpage"), Expect::Either, marksOf(2, false));

    // Queues with back pages: every sheet marked, and two-sided.
    auto backPages = [&](const QString& row, const QString& queue, const QString& document, int pages) -> HostileJob& {
        MarkExpectation marks = marksOf(pages, false);
        marks.sides = 2;
        HostileJob& job = add(row, queue, document, Expect::Printed, marks);
        job.setup.variables = QByteArray(QueueVariables) + BackPagesSetting;
        // The printer has its duplexer (the generic PPD says it has none).
        job.setup.ppdOptions = QStringList{QStringLiteral("Option1=True")};
        job.streamChecks = AsksTwoSided;
        return job;
    };
    backPages(QStringLiteral("back pages: one-page job"), QStringLiteral("back-one"), QStringLiteral("one-page"), 1);
    backPages(QStringLiteral("back pages: lp -o sides=one-sided"), QStringLiteral("back-one-sided"),
              QStringLiteral("two-pages"), 2)
        .options = QStringList{QStringLiteral("sides=one-sided")};
    backPages(QStringLiteral("back pages: showpage in the trailer"), QStringLiteral("back-trailer"),
              QStringLiteral("saved-vm"), 1);

    // Set-ups that cannot mark: refused, nothing sent.
    add(QStringLiteral("site definitions of the one line that names the page-code key"),
        QStringLiteral("one-line-defs"), QStringLiteral("one-page"), Expect::Refused, marksOf(1, false))
        .phase = 2;
    add(QStringLiteral("empty template"), QStringLiteral("empty-template"), QStringLiteral("one-page"),
        Expect::Refused, marksOf(1, false))
        .setup.templateText = QByteArray();
    add(QStringLiteral("template whose every line is rejected"), QStringLiteral("rejected-template"),
        QStringLiteral("one-page"), Expect::Refused, marksOf(1, false))
        .setup.templateText = RejectedTemplate;
    add(QStringLiteral("template that draws nothing after the first page"), QStringLiteral("first-page-only"),
        QStringLiteral("two-pages"), Expect::Refused, marksOf(2, false))
        .setup.templateText = FirstPageTemplate;
    add(QStringLiteral("queue without a variables file"), QStringLiteral("no-variables"),
        QStringLiteral("one-page"), Expect::Refused, marksOf(1, false))
        .setup.withVariables = false;
    add(QStringLiteral("template printing a label that no file defines"), QStringLiteral("undefined-label"),
        QStringLiteral("one-page"), Expect::Refused, marksOf(1, false))
        .setup.variables = "MarkerJobOptions=project\n";

    // Two jobs marked at the same time, each probing for the other's files.
    const QString& token = m_token;
    const QString root = QFileInfo(m_server.serverRoot()).path();
    const QString folders = QStringList{root + QStringLiteral("/spool"), root + QStringLiteral("/spool/tmp"),
                                        QStringLiteral("/var/tmp"),
                                        QStringLiteral("/var/spool/cups")}
                                .join(QLatin1Char(' '));
    // The probe stands in a folder of site programs of its own, which the
    // queues name for the job's sandbox.
    const QString probe = m_server.writeJobFile(QStringLiteral("site-programs/probe-other-job"),
                                                readFile(fixture(QStringLiteral("probe-other-job.sh"))));
    chmod(QFile::encodeName(probe).constData(), 0755);
    struct Side {
        QString queue, label, own, other, otherQueue, otherLabel;
    };
    const QList<Side> sides = {
        {QStringLiteral("probe-alpha"), QStringLiteral("Osprey Restricted"), token + QStringLiteral("Alfa"),
         token + QStringLiteral("Bravo"), QStringLiteral("probe-bravo"), QStringLiteral("Heron Confidential")},
        {QStringLiteral("probe-bravo"), QStringLiteral("Heron Confidential"), token + QStringLiteral("Bravo"),
         token + QStringLiteral("Alfa"), QStringLiteral("probe-alpha"), QStringLiteral("Osprey Restricted")}};
    for (const Side& side : sides) {
        MarkExpectation marks = marksOf(1, false, side.label);
        marks.required = QStringList{QLatin1String(ProbeFindsNothing)};
        marks.forbidden = side.otherLabel.split(QLatin1Char(' ')) << QStringLiteral("HIJACKED");
        HostileJob& job = add(QStringLiteral("marked beside another job: ") + side.queue, side.queue,
                              QStringLiteral("one-page"), Expect::Printed, marks);
        job.setup.templateText = QByteArray(ProbeTemplate)
                                     .replace("@PROBE@", QFile::encodeName(probe))
                                     .replace("@OWN@", side.own.toUtf8())
                                     .replace("@OTHER@", side.other.toUtf8())
                                     .replace("@OTHERQUEUE@", side.otherQueue.toUtf8())
                                     .replace("@FOLDERS@", QFile::encodeName(folders));
        job.setup.variables = "LABEL_NAME=" + side.label.toUtf8() + "\nMarkerSandboxFolders=" +
                              QFile::encodeName(QFileInfo(probe).path()) + '\n';
    }
}

void TestHostileJobs::setUpQueue(const HostileJob& job)
{
    const QueueSetup& setup = job.setup;
    if (setup.withTemplate)
        m_server.writeConfig(QStringLiteral("quillet/%1.tmpl").arg(job.queue), setup.templateText);
    if (setup.withVariables)
        m_server.writeConfig(QStringLiteral("quillet/%1.vars").arg(job.queue), setup.variables);
    QStringList arguments = {QStringLiteral("-p"), job.queue, QStringLiteral("-E"), QStringLiteral("-v"),
                             QStringLiteral("quillet:") + printer(job.queue).socketUri(), QStringLiteral("-m"),
                             QLatin1String(GenericPpd)};
    for (const QString& option : setup.ppdOptions)
        arguments << QStringLiteral("-o") << option;
    const RunResult added = m_server.admin(QStringLiteral("lpadmin"), arguments);
    QVERIFY2(added.exitCode == 0, added.standardError.constData());
}

int TestHostileJobs::submit(HostileJob& job)
{
    QStringList arguments = {QStringLiteral("-d"), job.queue, QStringLiteral("-n"), QString::number(job.copies)};
    for (const QString& option : qAsConst(job.options))
        arguments << QStringLiteral("-o") << option;
    arguments << job.document;
    QString error;
    job.id = m_server.print(arguments, &error);
    if (job.id <= 0)
        qWarning("%s", qPrintable(error));
    return job.id;
}

void TestHostileJobs::initTestCase()
{
    if (!PrintServer::available())
        QSKIP("cupsd, the CUPS client programs, pstops or the socket backend are not installed");
    for (const char* tool : {"gs", "ps2pdf", "pdftotext", "enscript", "groff", "runuser"}) {
        if (!haveProgram(QLatin1String(tool)))
            QSKIP(qPrintable(QStringLiteral("%1 is needed").arg(QLatin1String(tool))));
    }
    QVERIFY(m_work.isValid());
    // QUILLET_KEEP_PRINTED=1 keeps what the printers received, to look at.
    if (qEnvironmentVariableIntValue("QUILLET_KEEP_PRINTED") == 1) {
        m_work.setAutoRemove(false);
        qInfo("the printed streams stay in %s/printers", qPrintable(m_work.path()));
    }
    QElapsedTimer clock;
    clock.start();
    m_token = QString::number(QRandomGenerator::global()->generate(), 36);

    QString error;
    QVERIFY2(m_server.start(QStringLiteral(QUILLET_BACKEND), &error), qPrintable(error));
    // The suite's own Ghostscript runs read hostile streams: their temporary
    // folder, the one place that -dSAFER lets a document write to, is
    // private to the suite (the print server keeps the one it had).
    const QString privateTemporary = m_work.filePath(QStringLiteral("tmp"));
    QVERIFY(QDir().mkpath(privateTemporary));
    qputenv("TMPDIR", QFile::encodeName(privateTemporary));
    // Page codes on for the site, as the README sets them up: every job's
    // marking folder then also holds its job's key. Site programs get time
    // for the probes, which wait for each other on a busy machine.
    m_siteKey = m_server.serverRoot() + QStringLiteral("/quillet/page-code.key");
    QDir().mkpath(QFileInfo(m_siteKey).path());
    const RunResult madeKey =
        runProgram(QStringLiteral(QUILLET_VERIFY_EXECUTABLE), {QStringLiteral("--new-key"), m_siteKey});
    QVERIFY2(madeKey.exitCode == 0, madeKey.standardError.constData());
    m_server.writeSiteDefinitions("MarkerPageCodeKey=" + QFile::encodeName(m_siteKey) +
                                  "\nMarkerProgramTimeout=20000\n");

    makeDocuments();
    if (QTest::currentTestFailed())
        return;
    defineJobs();
    for (const QString& row : qAsConst(m_rows)) {
        setUpQueue(m_jobs.value(row));
        if (QTest::currentTestFailed())
            return;
    }

    // The two probing jobs first, alone on the print server, so that their
    // markings overlap however busy the machine is; then every other job of
    // the first round at once.
    QList<int> ids;
    const QStringList probing = m_rows.filter(QStringLiteral("marked beside another job"));
    for (const QString& row : probing) {
        QVERIFY2(submit(m_jobs[row]) > 0, qPrintable(row));
        ids << m_jobs.value(row).id;
    }
    QVERIFY2(m_server.waitForJobs(ids, JobsTimeoutMs), m_server.errorLog().right(4000).constData());
    for (const QString& row : qAsConst(m_rows)) {
        HostileJob& job = m_jobs[row];
        if (job.phase == 1 && !probing.contains(row)) {
            QVERIFY2(submit(job) > 0, qPrintable(row));
            ids << job.id;
        }
    }
    QVERIFY2(m_server.waitForJobs(ids, JobsTimeoutMs), m_server.errorLog().right(4000).constData());

    // The site's definitions made from scratch by the one-line recipe: a
    // file that names the key and nothing else.
    m_server.writeOwnSiteDefinitions("MarkerPageCodeKey=" + QFile::encodeName(m_siteKey) + '\n');
    QList<int> late;
    for (const QString& row : qAsConst(m_rows)) {
        HostileJob& job = m_jobs[row];
        if (job.phase == 2) {
            QVERIFY2(submit(job) > 0, qPrintable(row));
            late << job.id;
        }
    }
    QVERIFY2(m_server.waitForJobs(late, JobsTimeoutMs), m_server.errorLog().right(4000).constData());
    qInfo("%d jobs printed or refused in %lld s", int(m_rows.size()), clock.elapsed() / 1000);
}

void TestHostileJobs::cleanupTestCase()
{
    m_server.stop();
    for (const auto& standIn : qAsConst(m_printers))
        standIn->stop();
    if (!m_dropFolder.isEmpty())
        QDir(m_dropFolder).removeRecursively();
    if (!m_temporaryDrop.isEmpty())
        QFile::remove(m_temporaryDrop);
}

// The files that a job's document wrote.
static QStringList writtenFiles(const HostileJob& job)
{
    QStringList written;
    for (const QString& file : job.mustNotExist) {
        if (QFileInfo::exists(file))
            written << QStringLiteral("the document wrote %1").arg(file);
    }
    return written;
}

// The job's audit lines, at NOTICE level.
QStringList TestHostileJobs::auditLines(int id) const
{
    return m_server.jobLogLines(id).filter(QRegularExpression(QStringLiteral("^N .* quillet audit: ")));
}

// A refused job: cancelled, nothing at the printer, its audit line.
QStringList TestHostileJobs::refusedProblems(const HostileJob& job) const
{
    QStringList problems;
    const int state = m_server.jobState(job.id);
    if (state != JobCanceled)
        problems << QStringLiteral("job %1 ended in state %2, not cancelled").arg(job.id).arg(state);
    const QStringList received = m_printers.value(job.queue)->jobs();
    if (!received.isEmpty())
        problems << QStringLiteral("%1 bytes reached the printer").arg(readFile(received.first()).size());
    const QStringList audits = auditLines(job.id);
    if (audits.size() != 1 || !audits.first().contains(QStringLiteral(" outcome=refused")))
        problems << QStringLiteral("no audit line with outcome=refused: [%1]").arg(audits.join(QStringLiteral("] [")));
    problems << writtenFiles(job);
    return problems;
}

// A printed job: completed, one stream, every sheet marked.
QStringList TestHostileJobs::printedProblems(const HostileJob& job) const
{
    QStringList problems;
    const int state = m_server.jobState(job.id);
    if (state != JobCompleted) {
        problems << QStringLiteral("job %1 ended in state %2, not completed").arg(job.id).arg(state);
        for (const QString& line : m_server.jobLogLines(job.id)) {
            if (line.contains(QStringLiteral("quillet audit:")) || line.startsWith(QLatin1String("E ")))
                problems << line;
        }
    }
    problems << writtenFiles(job);
    const QStringList received = m_printers.value(job.queue)->jobs();
    if (received.size() != 1) {
        problems << QStringLiteral("%1 streams reached the printer, not one").arg(received.size());
        if (received.isEmpty())
            return problems;
    }
    const QByteArray stream = readFile(received.first());
    problems << streamProblems(job, stream);
    QString error;
    const QList<Sheet> sheets = readSheets(received.first(), m_work.path(), &error);
    if (!error.isEmpty())
        problems << error;
    problems << markedSheetProblems(sheets, job.marks);
    // The audit line counts what went to the printer.
    static const QRegularExpression sent(QStringLiteral(" sent=(\\d+) outcome=marked-and-sent"));
    const QStringList audits = auditLines(job.id);
    const QRegularExpressionMatch counted = audits.size() == 1 ? sent.match(audits.first()) : QRegularExpressionMatch();
    if (!counted.hasMatch())
        problems << QStringLiteral("no audit line with outcome=marked-and-sent: [%1]").arg(audits.join(QStringLiteral("] [")));
    else if (counted.captured(1).toInt() != sheets.size())
        problems << QStringLiteral("the audit line counts sent=%1, the printer got %2 sheets")
                        .arg(counted.captured(1))
                        .arg(sheets.size());
    // Reading the stream back writes nothing either, not even on a printer
    // that lets jobs write to its disk: the document's own file operations
    // must not reach the printer.
    if (problems.filter(QStringLiteral("the document wrote")).isEmpty() && !job.printerDisk.isEmpty()) {
        runProgram(QStringLiteral("gs"), {QStringLiteral("-q"), QStringLiteral("-dSAFER"), QStringLiteral("-dBATCH"),
                                          QStringLiteral("-dNOPAUSE"),
                                          QStringLiteral("--permit-file-write=") + job.printerDisk + QLatin1Char('/'),
                                          QStringLiteral("-sDEVICE=nullpage"), received.first()});
        for (const QString& written : writtenFiles(job))
            problems << written + QStringLiteral(" (on a printer that lets jobs write to its disk)");
    }
    return problems;
}

// What the stream itself may not hold or must ask for.
QStringList TestHostileJobs::streamProblems(const HostileJob& job, const QByteArray& stream) const
{
    QStringList problems;
    const QString text = QString::fromLatin1(stream);
    if ((job.streamChecks & NoEndOfJob) && stream.contains('\x04'))
        problems << QStringLiteral("the stream holds an end of job (Ctrl-D) at byte %1").arg(stream.indexOf('\x04'));
    if (job.streamChecks & NoCopyRequest) {
        static const QRegularExpression copies(
            QStringLiteral("(/NumCopies|/#copies|\\*NumCopies)\\s+(\\d+)"));
        for (auto it = copies.globalMatch(text); it.hasNext();) {
            const QRegularExpressionMatch match = it.next();
            if (match.captured(2).toInt() > 1)
                problems << QStringLiteral("the stream asks the printer for copies: \"%1\"").arg(match.captured(0));
        }
    }
    if (job.streamChecks & AsksTwoSided) {
        static const QRegularExpression duplex(QStringLiteral("/Duplex\\s*(true|false)"));
        QString last;
        for (auto it = duplex.globalMatch(text); it.hasNext();)
            last = it.next().captured(1);
        if (last != QLatin1String("true"))
            problems << QStringLiteral("the stream does not ask for two-sided printing (last Duplex request: %1)")
                            .arg(last.isEmpty() ? QStringLiteral("none") : last);
    }
    for (const QString& forbidden : job.marks.forbidden) {
        if (stream.contains(forbidden.toUtf8()))
            problems << QStringLiteral("the stream holds \"%1\"").arg(forbidden);
    }
    return problems;
}

void TestHostileJobs::jobIsRefusedOrEverySheetIsMarked_data()
{
    QTest::addColumn<QString>("row");
    for (const QString& row : qAsConst(m_rows))
        QTest::newRow(qPrintable(row)) << row;
}

void TestHostileJobs::jobIsRefusedOrEverySheetIsMarked()
{
    QFETCH(QString, row);
    const HostileJob job = m_jobs.value(row);
    QVERIFY(job.id > 0);
    QStringList problems;
    const int state = m_server.jobState(job.id);
    const QStringList received = m_printers.value(job.queue)->jobs();
    qInfo("job %d: %s, %d stream(s) at the printer", job.id,
          state == JobCanceled ? "refused" : state == JobCompleted ? "printed" : "neither refused nor printed",
          int(received.size()));
    switch (job.expect) {
    case Expect::Printed:
        problems = printedProblems(job);
        break;
    case Expect::Refused:
        problems = refusedProblems(job);
        break;
    case Expect::Either:
        if (state == JobCanceled)
            problems = refusedProblems(job);
        else if (state == JobCompleted)
            problems = printedProblems(job);
        else
            problems << QStringLiteral("job %1 was neither refused nor printed: state %2").arg(job.id).arg(state);
        break;
    }
    QVERIFY2(problems.isEmpty(), qPrintable(QStringLiteral("\n  ") + problems.join(QStringLiteral("\n  "))));
}

QTEST_GUILESS_MAIN(TestHostileJobs)
#include "tst_hostilejobs.moc"
