// Bad input of every kind, given to the real executable inside the sandbox:
// empty files, binary garbage, NUL bytes, invalid UTF-8, a 100 MB line, a
// million pages, folders, unreadable files and FIFOs where files are
// expected, a missing or broken catalogue, an output that cannot be written.
// Every run must end with status 0 and a whole, marked document, or with
// status 1 and a message on standard error; never with a signal, never
// after its time limit, never leaving a process behind, and never with a
// peak memory above ten times its input plus a fixed amount.
#include "support/testsupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>

#include <csignal>
#include <sys/stat.h>
#include <sys/types.h>

namespace
{

// What a case spoils.
enum class Slot { Input, Template, Variables, Definitions, GlyphList, Charsets, Catalogue, Output };
// How it spoils it.
enum class Kind {
    Empty,
    Garbage,
    NulBytes,
    InvalidUtf8,
    LongLine,
    ManyPages,
    Folder,
    Unreadable,
    Fifo,
    Missing,
    DeviceFull,
    OutputIsInput,
    HangingScript
};
// What the run must end with.
enum class Outcome {
    Marked,  // status 0 and every page marked
    Refused, // status 1 and a message
    Either   // one of the two
};

} // namespace

Q_DECLARE_METATYPE(Slot)
Q_DECLARE_METATYPE(Kind)
Q_DECLARE_METATYPE(Outcome)

namespace
{

const QString Time = QStringLiteral("/usr/bin/time");
const QByteArray Template = "any:normal:10::top-left:Page {CURRENT_PAGE} of {NUM_PAGES}\n"
                            "any:bold:10::bottom-center:[LABEL]\n";
const int Pages = 3;
const int ManyPages = 1000000;
const int LongLineBytes = 100 * 1024 * 1024;
// The longest line that quillet holds.
const qint64 LongestLineBytes = qint64(1) << 30;
// The marker block of a page starts with this line.
const QByteArray BlockStart = "% Common variables:\n";
// Memory a run may use whatever its input: the program, its libraries and
// tables, the sanitizers' own when they are built in.
const qint64 FixedKilobytes = 160 * 1024;
// Time limits of a run: ordinary cases, and the large documents and the
// site script (which may take its whole wait on every page).
const int SmallSeconds = 15;
const int LargeSeconds = 600;
// Every byte sequence that is not UTF-8: a stray continuation byte, an
// overlong encoding, a surrogate, a truncated sequence, bytes never used.
const QByteArray InvalidUtf8 = "\x80\xc0\xaf\xed\xa0\x80\xe2\x82\xf8\x88\x80\x80\x80\xfe\xff";

// Where each slot lives below the fixture root.
QString slotPath(Slot slot)
{
    switch (slot) {
    case Slot::Input:
        return QStringLiteral("job/in.ps");
    case Slot::Template:
        return QStringLiteral("job/marker.tpl");
    case Slot::Variables:
        return QStringLiteral("job/vars.txt");
    case Slot::Definitions:
        return QStringLiteral("etc-cups/marker.defs");
    case Slot::GlyphList:
        return QStringLiteral("share-cups/data/psglyphs");
    case Slot::Charsets:
        return QStringLiteral("share-cups/charsets/utf-8");
    case Slot::Catalogue:
        return QStringLiteral("share-cups");
    case Slot::Output:
        return QStringLiteral("job/out.ps");
    }
    return QString();
}

// The whole of a string literal, NUL bytes included.
template <int N> QByteArray withNuls(const char (&text)[N])
{
    return QByteArray(text, N - 1);
}

QByteArray garbage()
{
    QRandomGenerator random(14);
    QByteArray bytes(64 * 1024, '\0');
    for (char& byte : bytes)
        byte = char(random.bounded(256));
    return bytes;
}

QByteArray definitions(bool safe)
{
    return readFile(tinyCatalogueDir() + QStringLiteral("/quillet/marker.defs")) +
           (safe ? "MarkerSafeOutput=1\n" : "MarkerSafeOutput=0\n");
}

QByteArray variables(bool safe)
{
    return "copies=1\nLABEL=SECRET_LEVEL\n" +
           QByteArray(safe ? "MarkerSafeOutput=1\n" : "MarkerSafeOutput=0\n");
}

// A document of `pages` pages whose first page holds `extra` in its content.
QByteArray documentWith(const QByteArray& extra)
{
    QByteArray document = minimalDocument(Pages);
    const int at = document.indexOf("newpath");
    return document.insert(at, extra);
}

// The spoiled content of a file slot.
QByteArray spoiledContent(Slot slot, Kind kind, bool safe)
{
    switch (kind) {
    case Kind::Empty:
        return QByteArray();
    case Kind::Garbage:
        return garbage();
    case Kind::NulBytes:
        switch (slot) {
        case Slot::Input:
            return documentWith(withNuls("% \0\0 nul\0\n(\0\0) pop\n"));
        case Slot::Template:
            return Template + withNuls("any:normal:8::top-right:A\0B {CURRENT_PAGE}\0\n\0\0\0\n");
        case Slot::Variables:
            return variables(safe) + withNuls("NUL=a\0b\n\0\0\0\n\0KEY=1\n");
        case Slot::Definitions:
            return definitions(safe) + withNuls("NUL=a\0b\n\0\0\0\n");
        case Slot::GlyphList:
            return readFile(tinyCatalogueDir() + QStringLiteral("/data/psglyphs")) +
                   withNuls("0041 A\0x\n\0\0\n");
        case Slot::Charsets:
            return withNuls("charset utf8\n0000 00FF ltor single TinySans TinySans-Bold\n\0\0\n");
        default:
            break;
        }
        break;
    case Kind::InvalidUtf8:
        switch (slot) {
        case Slot::Input:
            return documentWith("% " + InvalidUtf8 + "\n(" + InvalidUtf8 + ") pop\n");
        case Slot::Template:
            return Template + "any:normal:8::top-right:" + InvalidUtf8 + " {CURRENT_PAGE}\n" + InvalidUtf8 +
                   "\n";
        case Slot::Variables:
            return variables(safe) + InvalidUtf8 + "=1\nVALUE=" + InvalidUtf8 + "\n";
        case Slot::Definitions:
            return definitions(safe) + InvalidUtf8 + "=1\nVALUE=" + InvalidUtf8 + "\n";
        case Slot::GlyphList:
            return readFile(tinyCatalogueDir() + QStringLiteral("/data/psglyphs")) + "0042 " + InvalidUtf8 +
                   "\n";
        case Slot::Charsets:
            return "charset utf8\n0000 00FF ltor single TinySans TinySans-Bold " + InvalidUtf8 + "\n";
        default:
            break;
        }
        break;
    case Kind::LongLine:
        switch (slot) {
        case Slot::Input:
            return documentWith("%" + QByteArray(LongLineBytes, 'x') + "\n");
        case Slot::Template:
            return Template + "replace_underscore=" + QByteArray(LongLineBytes, '1') + "\n";
        case Slot::Variables:
            return variables(safe) + "LONG=" + QByteArray(LongLineBytes, 'v') + "\n";
        default:
            break;
        }
        break;
    case Kind::ManyPages:
        return minimalDocument(ManyPages);
    default:
        break;
    }
    qFatal("no content for this case");
}

// Peak resident set size that /usr/bin/time wrote into a file, or -1.
qint64 peakKilobytes(const QString& report)
{
    const QRegularExpression peak(QStringLiteral("Maximum resident set size \\(kbytes\\): (\\d+)"));
    const QRegularExpressionMatch match = peak.match(QString::fromLocal8Bit(readFile(report)));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

// Processes whose working folder lies below the folder: what a run left.
QList<qint64> processesBelow(const QString& folder)
{
    QList<qint64> found;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        bool ok = false;
        const qint64 pid = entry.toLongLong(&ok);
        if (!ok)
            continue;
        const QString cwd = QFileInfo(QStringLiteral("/proc/%1/cwd").arg(pid)).symLinkTarget();
        if (cwd == folder || cwd.startsWith(folder + QLatin1Char('/')))
            found.append(pid);
    }
    return found;
}

// The number of marker blocks in a file, read line by line.
qint64 countBlocks(const QString& path, QByteArray* lastLine)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    qint64 blocks = 0;
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        if (line == BlockStart)
            ++blocks;
        *lastLine = line;
    }
    return blocks;
}

// The content of a regular file below the root; empty for anything else (a
// FIFO would block the reader).
QByteArray readRegular(const FixtureTree& tree, const QString& relative)
{
    return QFileInfo(tree.path(relative)).isFile() ? tree.read(relative) : QByteArray();
}

// Sum of the sizes of the regular files below a folder.
qint64 regularFileBytes(const QString& folder)
{
    qint64 bytes = 0;
    QDirIterator it(folder, QDir::Files | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        if (info.isFile())
            bytes += info.size();
    }
    return bytes;
}

QString describe(const RunResult& result, int status)
{
    return QStringLiteral("status %1, stderr: %2")
        .arg(status)
        .arg(QString::fromLocal8Bit(result.standardError.left(3000)));
}

} // namespace

class TestBadInput : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void runEndsWholeOrRefused_data();
    void runEndsWholeOrRefused();
    void lineLongerThanHeldIsRefused_data();
    void lineLongerThanHeldIsRefused();
};

void TestBadInput::initTestCase()
{
    if (!QFile::exists(Time))
        QSKIP("/usr/bin/time (package time) is needed to measure the peak memory");
    QVERIFY2(haveProgram(QStringLiteral("setpriv")) && haveProgram(QStringLiteral("timeout")) &&
                 haveProgram(QStringLiteral("mkfifo")),
             "setpriv, timeout and mkfifo (util-linux, coreutils) are needed");
}

void TestBadInput::runEndsWholeOrRefused_data()
{
    QTest::addColumn<Slot>("slot");
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<bool>("safe");
    QTest::addColumn<Outcome>("outcome");
    QTest::addColumn<int>("pages");

    struct Case {
        const char* name;
        Slot slot;
        Kind kind;
        Outcome classic; // without MarkerSafeOutput
        Outcome safe;    // with MarkerSafeOutput=1
        int pages;
        bool bothModes;
    };
    const Outcome M = Outcome::Marked, R = Outcome::Refused, E = Outcome::Either;
    const Case cases[] = {
        // The document.
        {"input empty", Slot::Input, Kind::Empty, R, R, 0, true},
        {"input binary garbage", Slot::Input, Kind::Garbage, R, R, 0, true},
        {"input with NUL bytes", Slot::Input, Kind::NulBytes, M, M, Pages, true},
        {"input with invalid UTF-8", Slot::Input, Kind::InvalidUtf8, M, M, Pages, true},
        {"input with a 100 MB line", Slot::Input, Kind::LongLine, M, M, Pages, false},
        {"input of a million pages", Slot::Input, Kind::ManyPages, M, M, ManyPages, false},
        {"input is a folder", Slot::Input, Kind::Folder, R, R, 0, true},
        {"input unreadable", Slot::Input, Kind::Unreadable, R, R, 0, true},
        {"input is a FIFO", Slot::Input, Kind::Fifo, R, R, 0, true},
        // The template.
        {"template empty", Slot::Template, Kind::Empty, E, E, Pages, true},
        {"template binary garbage", Slot::Template, Kind::Garbage, E, E, Pages, true},
        {"template with NUL bytes", Slot::Template, Kind::NulBytes, E, E, Pages, true},
        {"template with invalid UTF-8", Slot::Template, Kind::InvalidUtf8, E, E, Pages, true},
        {"template with a 100 MB line", Slot::Template, Kind::LongLine, E, E, Pages, false},
        {"template is a folder", Slot::Template, Kind::Folder, R, R, 0, true},
        {"template unreadable", Slot::Template, Kind::Unreadable, R, R, 0, true},
        {"template is a FIFO", Slot::Template, Kind::Fifo, R, R, 0, true},
        {"template runs a site script that leaves a child", Slot::Template, Kind::HangingScript, E, E, Pages,
         false},
        // The job's variables.
        {"variables empty", Slot::Variables, Kind::Empty, E, E, Pages, true},
        {"variables binary garbage", Slot::Variables, Kind::Garbage, E, E, Pages, true},
        {"variables with NUL bytes", Slot::Variables, Kind::NulBytes, E, E, Pages, true},
        {"variables with invalid UTF-8", Slot::Variables, Kind::InvalidUtf8, E, E, Pages, true},
        {"variables with a 100 MB line", Slot::Variables, Kind::LongLine, E, E, Pages, false},
        {"variables is a folder", Slot::Variables, Kind::Folder, R, R, 0, true},
        {"variables unreadable", Slot::Variables, Kind::Unreadable, R, R, 0, true},
        {"variables is a FIFO", Slot::Variables, Kind::Fifo, R, R, 0, true},
        // The site's definitions.
        {"definitions empty", Slot::Definitions, Kind::Empty, E, E, Pages, true},
        {"definitions binary garbage", Slot::Definitions, Kind::Garbage, E, E, Pages, true},
        {"definitions with NUL bytes", Slot::Definitions, Kind::NulBytes, E, E, Pages, true},
        {"definitions with invalid UTF-8", Slot::Definitions, Kind::InvalidUtf8, E, E, Pages, true},
        {"definitions is a folder", Slot::Definitions, Kind::Folder, R, R, 0, true},
        {"definitions unreadable", Slot::Definitions, Kind::Unreadable, R, R, 0, true},
        {"definitions is a FIFO", Slot::Definitions, Kind::Fifo, R, R, 0, true},
        // The catalogue: without usable glyph names or charsets the marks
        // cannot be drawn, which print-safe output refuses.
        {"glyph list empty", Slot::GlyphList, Kind::Empty, E, R, Pages, true},
        {"glyph list binary garbage", Slot::GlyphList, Kind::Garbage, E, E, Pages, true},
        {"glyph list with NUL bytes", Slot::GlyphList, Kind::NulBytes, E, E, Pages, true},
        {"glyph list with invalid UTF-8", Slot::GlyphList, Kind::InvalidUtf8, E, E, Pages, true},
        {"glyph list is a folder", Slot::GlyphList, Kind::Folder, E, R, Pages, true},
        {"glyph list unreadable", Slot::GlyphList, Kind::Unreadable, E, R, Pages, true},
        {"glyph list missing", Slot::GlyphList, Kind::Missing, E, R, Pages, true},
        {"charset file empty", Slot::Charsets, Kind::Empty, E, R, Pages, true},
        {"charset file binary garbage", Slot::Charsets, Kind::Garbage, E, R, Pages, true},
        {"charset file with NUL bytes", Slot::Charsets, Kind::NulBytes, E, E, Pages, true},
        {"charset file with invalid UTF-8", Slot::Charsets, Kind::InvalidUtf8, E, E, Pages, true},
        {"charset file is a folder", Slot::Charsets, Kind::Folder, E, R, Pages, true},
        {"charset file unreadable", Slot::Charsets, Kind::Unreadable, E, R, Pages, true},
        {"charset file missing", Slot::Charsets, Kind::Missing, E, R, Pages, true},
        {"catalogue missing", Slot::Catalogue, Kind::Missing, E, R, Pages, true},
        // The output.
        {"output on a full device", Slot::Output, Kind::DeviceFull, R, R, 0, true},
        {"output is the input", Slot::Output, Kind::OutputIsInput, R, R, 0, true},
    };
    for (const Case& c : cases) {
        QTest::addRow("%s, print-safe", c.name) << c.slot << c.kind << true << c.safe << c.pages;
        if (c.bothModes)
            QTest::addRow("%s, classic", c.name) << c.slot << c.kind << false << c.classic << c.pages;
    }
}

void TestBadInput::runEndsWholeOrRefused()
{
    QFETCH(Slot, slot);
    QFETCH(Kind, kind);
    QFETCH(bool, safe);
    QFETCH(Outcome, outcome);
    QFETCH(int, pages);
#ifdef QUILLET_SANITIZED
    // A million pages take tens of minutes under the sanitizers; the same
    // paths of the program run there with every smaller document.
    if (kind == Kind::ManyPages)
        QSKIP("a million pages: run by the suite without the sanitizers");
#endif

    // A complete job with the small catalogue, the mode set in both the
    // variables and the definitions (so that spoiling one keeps it).
    FixtureTree tree;
    tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("etc-cups/marker.defs"), definitions(safe));
    tree.write(QStringLiteral("job/in.ps"), minimalDocument(Pages));
    tree.write(QStringLiteral("job/marker.tpl"), Template);
    tree.write(QStringLiteral("job/vars.txt"), variables(safe));

    // Then spoil the slot.
    const QString target = tree.path(slotPath(slot));
    QString output = QStringLiteral("out.ps");
    bool asNobody = false;
    switch (kind) {
    case Kind::Folder:
        QVERIFY(QFile::remove(target));
        QVERIFY(QDir().mkpath(target));
        break;
    case Kind::Unreadable:
        // Root reads any file: the run is made as nobody, for whom the file
        // alone is unreadable.
        QVERIFY(QFile::setPermissions(target, QFileDevice::WriteOwner));
        asNobody = true;
        break;
    case Kind::Fifo:
        QVERIFY(QFile::remove(target));
        QVERIFY(mkfifo(QFile::encodeName(target).constData(), 0644) == 0);
        break;
    case Kind::Missing:
        if (slot == Slot::Catalogue) {
            for (const char* folder : {"data", "charsets", "fonts"})
                QVERIFY(QDir(tree.path(QStringLiteral("share-cups/") + QLatin1String(folder)))
                            .removeRecursively());
        } else {
            QVERIFY(QFile::remove(target));
        }
        break;
    case Kind::DeviceFull:
        output = QStringLiteral("/dev/full");
        break;
    case Kind::OutputIsInput:
        output = QStringLiteral("in.ps");
        break;
    case Kind::HangingScript:
        // The script's own child outlives it: the run must end both.
        tree.write(QStringLiteral("job/marker.tpl"),
                   Template + "any:normal:8::top-right:{SCRIPT:sh -c \"sleep 300 & sleep 300\"}\n");
        break;
    default:
        QVERIFY(writeFile(target, spoiledContent(slot, kind, safe)));
        break;
    }
    if (asNobody) {
        // nobody may enter the folders and rewrite the variables file.
        for (const QString& folder : {tree.root(), tree.job()})
            QVERIFY(QFile::setPermissions(folder, QFileDevice::Permissions(0x7777)));
        if (slot != Slot::Variables)
            QVERIFY(QFile::setPermissions(tree.path(QStringLiteral("job/vars.txt")),
                                          QFileDevice::Permissions(0x6666)));
    }
    const QByteArray inputBefore = readRegular(tree, QStringLiteral("job/in.ps"));
    const QByteArray variablesBefore = readRegular(tree, QStringLiteral("job/vars.txt"));
    const qint64 inputKilobytes = regularFileBytes(tree.root()) / 1024;

    // The run: under /usr/bin/time for its peak memory, under timeout for a
    // bound on its time.
    const bool large = kind == Kind::LongLine || kind == Kind::ManyPages || kind == Kind::HangingScript;
    const QString report = tree.path(QStringLiteral("time-report"));
    QStringList command{QStringLiteral("-v"),
                        QStringLiteral("-o"),
                        report,
                        QStringLiteral("timeout"),
                        QStringLiteral("-k"),
                        QStringLiteral("5"),
                        QString::number(large ? LargeSeconds : SmallSeconds)};
    if (asNobody)
        command << QStringLiteral("setpriv") << QStringLiteral("--reuid=65534")
                << QStringLiteral("--regid=65534") << QStringLiteral("--clear-groups");
    command << quilletExecutable() << QStringLiteral("in.ps") << QStringLiteral("marker.tpl")
            << QStringLiteral("vars.txt") << output;
    const RunResult result = tree.runInSandbox(Time, command, {}, (LargeSeconds + 60) * 1000);
    // time passes on the status of its command; timeout reports 124 when the
    // limit ended the run, 128 + n when signal n ended it.
    const int status = result.exitCode;

    const QList<qint64> leftovers = processesBelow(tree.root());
    for (qint64 pid : leftovers)
        ::kill(pid_t(pid), SIGKILL);

    QVERIFY2(!result.crashed, qPrintable(describe(result, status)));
    QVERIFY2(status != 124,
             qPrintable(QStringLiteral("no end within its time limit; ") + describe(result, status)));
    QVERIFY2(status < 124, qPrintable(QStringLiteral("ended by a signal; ") + describe(result, status)));
    QVERIFY2(leftovers.isEmpty(),
             qPrintable(QStringLiteral("%1 processes left behind").arg(leftovers.size())));
    const qint64 peak = peakKilobytes(report);
    QVERIFY2(peak > 0, readFile(report).constData());
    QVERIFY2(
        peak <= 10 * inputKilobytes + FixedKilobytes,
        qPrintable(QStringLiteral("peak memory %1 KB for %2 KB of input").arg(peak).arg(inputKilobytes)));

    if (status == 0) {
        QVERIFY2(outcome != Outcome::Refused,
                 qPrintable(QStringLiteral("not refused; ") + describe(result, status)));
        // A whole document: every page has its marker block, and the
        // document's last line closes the output.
        QByteArray lastLine;
        QCOMPARE(countBlocks(tree.path(QStringLiteral("job/out.ps")), &lastLine), qint64(pages));
        QCOMPARE(lastLine, QByteArray("%%EOF\n"));
        QVERIFY(readRegular(tree, QStringLiteral("job/vars.txt"))
                    .contains("\nNUM_PAGES=" + QByteArray::number(pages) + '\n'));
    } else {
        QVERIFY2(outcome != Outcome::Marked,
                 qPrintable(QStringLiteral("not marked; ") + describe(result, status)));
        QVERIFY2(status == 1, qPrintable(describe(result, status)));
        QVERIFY2(!result.standardError.trimmed().isEmpty(), "refused without a message");
        // The input is never touched; with print-safe output neither is the
        // variables file, and no output is left.
        QVERIFY(readRegular(tree, QStringLiteral("job/in.ps")) == inputBefore);
        if (safe) {
            QVERIFY(readRegular(tree, QStringLiteral("job/vars.txt")) == variablesBefore);
            QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
        }
    }
}

void TestBadInput::lineLongerThanHeldIsRefused_data()
{
    QTest::addColumn<bool>("safe");
    QTest::newRow("print-safe") << true;
    QTest::newRow("classic") << false;
}

// A line longer than the gibibyte that quillet holds, in the second of three
// pages that end with page trailers: the run is refused. It used to end the
// reading there as if the document ended, and marked the first page and a
// half with status 0.
void TestBadInput::lineLongerThanHeldIsRefused()
{
#ifdef QUILLET_SANITIZED
    QSKIP("a gibibyte line under the sanitizers: run by the suite without them");
#endif
    QFETCH(bool, safe);
    FixtureTree tree;
    tree.copy(tinyCatalogueDir(), QStringLiteral("share-cups"));
    tree.write(QStringLiteral("etc-cups/marker.defs"), definitions(safe));
    tree.write(QStringLiteral("job/marker.tpl"), Template);
    const QByteArray variablesBefore = variables(safe);
    tree.write(QStringLiteral("job/vars.txt"), variablesBefore);

    // Written in pieces: the line alone is larger than the test should hold.
    const QByteArray document = minimalDocument(Pages);
    const int secondPage = document.indexOf("newpath", document.indexOf("%%Page: 2"));
    QFile input(tree.path(QStringLiteral("job/in.ps")));
    QVERIFY(input.open(QIODevice::WriteOnly));
    QVERIFY(input.write(document.left(secondPage) + '%') == secondPage + 1);
    const QByteArray piece(1 << 24, 'x');
    for (qint64 written = 0; written <= LongestLineBytes; written += piece.size())
        QVERIFY(input.write(piece) == piece.size());
    QVERIFY(input.write('\n' + document.mid(secondPage)) == document.size() - secondPage + 1);
    input.close();

    const RunResult result = tree.runInSandbox(
        quilletExecutable(),
        {QStringLiteral("in.ps"), QStringLiteral("marker.tpl"), QStringLiteral("vars.txt"), QStringLiteral("out.ps")},
        {}, LargeSeconds * 1000);
    QVERIFY2(!result.crashed, result.standardError.constData());
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.standardError.contains("The document has a line longer than " +
                                           QByteArray::number(LongestLineBytes) + " bytes, which cannot be read"),
             result.standardError.constData());
    // As with every refusal: print-safe output leaves no output and the
    // variables file as it was.
    if (safe) {
        QVERIFY(!tree.exists(QStringLiteral("job/out.ps")));
        QVERIFY(readRegular(tree, QStringLiteral("job/vars.txt")) == variablesBefore);
    }
}

QTEST_GUILESS_MAIN(TestBadInput)
#include "tst_badinput.moc"
