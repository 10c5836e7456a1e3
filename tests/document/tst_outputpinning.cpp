// Output pinning: the output and rewritten variables file of a generated
// corpus stay byte for byte what they are today.
//
// A deterministic generator (its own small random number generator with fixed
// seeds) makes documents that stress buffer and block boundaries: lines from
// 0 bytes to beyond 1 MB, DSC comments at and across power-of-two offsets, no
// final line feed, CR and CR LF line ends, NUL bytes and binary lines, pages
// with and without "%%PageTrailer", nested embedded documents, carried marker
// fonts, no prolog, an early "%%Trailer" and repeated "%%Pages:" comments.
// Every document is marked with several templates (pinned/templates/), in
// simplex and duplex mode, with and without MarkerSafeOutput (set in the
// definitions, which also fix DATE), through the real executable in the
// sandbox: the tiny fixture catalogue for most cases, the default catalogue
// for a few.
//
// pinned/expected.sha256 holds one line per case:
//   <case> <exit status> <SHA-256 of the output> <SHA-256 of the variables>
// where the variables file is hashed without its "TIME=" line. With
// QUILLET_PIN_RECORD=1 in the environment the test writes that file from
// the current program instead of comparing. On a mismatch the actual files
// are written to pinned-actual/<case>/ in the build tree.
#include "document/documentlines.h"
#include "support/testsupport.h"

#include <QCryptographicHash>
#include <QList>
#include <QMap>
#include <QSet>
#include <QTest>

#include <iterator>
#include <memory>

namespace
{

const char RecordVariable[] = "QUILLET_PIN_RECORD";

QString pinnedDir()
{
    return testsSourceDir() + QStringLiteral("/document/pinned");
}

QString expectedFile()
{
    return pinnedDir() + QStringLiteral("/expected.sha256");
}

QString actualDir(const QString& name)
{
    QString folder = name;
    folder.replace(QLatin1Char('/'), QLatin1Char('-'));
    return QStringLiteral(QUILLET_BINARY_DIR) + QStringLiteral("/pinned-actual/") + folder;
}

bool recording()
{
    return qEnvironmentVariable(RecordVariable) == QLatin1String("1");
}

QByteArray sha256(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

// The variables file without its "TIME=" line, the one value that the
// definitions cannot fix for every run.
QByteArray withoutTime(const QByteArray& variables)
{
    QByteArray kept;
    for (const QByteArray& line : variables.split('\n')) {
        if (!line.startsWith("TIME="))
            kept += line + '\n';
    }
    return kept;
}

// SplitMix64: a tiny generator whose sequence depends on the seed only, not
// on the standard library, so the corpus is the same on every machine.
class Random
{
  public:
    explicit Random(quint64 seed) : m_state(seed) {}

    quint64 next()
    {
        quint64 z = (m_state += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }

    // A number in [0, bound).
    int below(int bound) { return int(next() % quint64(bound)); }

    // A number in [low, high].
    int between(int low, int high) { return low + below(high - low + 1); }

  private:
    quint64 m_state;
};

// Text of PostScript-like words; never starts a DSC comment.
QByteArray textLine(Random& random, int length)
{
    static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz ABCDEFGHIJ0123456789 ()/{}[]<>-.%";
    QByteArray line(length, ' ');
    for (int i = 0; i < length; ++i)
        line[i] = alphabet[random.below(sizeof alphabet - 1)];
    if (length > 0 && line.at(0) == '%')
        line[0] = 'x';
    return line;
}

// Bytes of every value but the line feed: NUL, CR, high bytes.
QByteArray binaryLine(Random& random, int length)
{
    QByteArray line(length, '\0');
    for (int i = 0; i < length; ++i) {
        char byte = char(random.below(256));
        line[i] = byte == '\n' ? '\0' : byte;
    }
    return line;
}

// Line lengths as documents have them: mostly short, sometimes a few
// kilobytes, rarely tens of kilobytes.
int randomLength(Random& random)
{
    const int kind = random.below(100);
    if (kind < 80)
        return random.between(0, 120);
    if (kind < 97)
        return random.between(121, 5000);
    return random.between(5001, 70000);
}

// Lengths around the buffer sizes a reader may use.
const int BoundaryLengths[] = {0,    1,     2,     63,    64,    65,    4095, 4096,
                               4097, 16383, 16384, 16385, 65535, 65536, 65537};

QByteArray head(int pages, const QByteArray& eol = "\n")
{
    return "%!PS-Adobe-3.0" + eol + "%%Creator: pinning corpus" + eol +
           "%%Pages: " + QByteArray::number(pages) + eol + "%%EndComments" + eol + "%%BeginProlog" + eol +
           "/F { findfont exch scalefont setfont } bind def" + eol + "%%EndProlog" + eol + "%%BeginSetup" +
           eol + "12 /Courier F" + eol + "%%EndSetup" + eol;
}

QByteArray pageStart(int page, const QByteArray& eol = "\n")
{
    const QByteArray number = QByteArray::number(page);
    return "%%Page: " + number + ' ' + number + eol;
}

QByteArray pageEnd(bool trailer, const QByteArray& eol = "\n")
{
    return "showpage" + eol + (trailer ? "%%PageTrailer" + eol : QByteArray());
}

QByteArray documentEnd(const QByteArray& eol = "\n")
{
    return "%%Trailer" + eol + "%%EOF" + eol;
}

// Pages of random text lines.
QByteArray randomPages(Random& random, int first, int pages, bool trailers)
{
    QByteArray body;
    for (int page = first; page < first + pages; ++page) {
        body += pageStart(page);
        const int count = random.between(0, 40);
        for (int i = 0; i < count; ++i)
            body += textLine(random, randomLength(random)) + '\n';
        body += pageEnd(trailers);
    }
    return body;
}

QByteArray textLinesDocument()
{
    Random random(1);
    return head(12) + randomPages(random, 1, 12, true) + documentEnd();
}

// DSC comments placed just before, at and just after multiples of 4 KB and
// 64 KB, and lines whose lengths are the boundary lengths themselves.
QByteArray boundariesDocument()
{
    Random random(2);
    QByteArray document = head(10);
    const int deltas[] = {-14, -8, -1, 0, 1, 5};
    for (int page = 1; page <= 10; ++page) {
        const int block = page % 2 ? 4096 : 65536;
        const int delta = deltas[page % 6];
        for (const int length : BoundaryLengths) {
            if (random.below(3) == 0)
                document += textLine(random, length) + '\n';
        }
        // Pad so that the "%%Page:" line starts at block * k + delta.
        const int target = int((document.size() / block + 1) * block) + delta;
        const int pad = target - document.size() - 1;
        document += textLine(random, qMax(0, pad)) + '\n';
        document += pageStart(page);
        const int pad2 = int((document.size() / block + 1) * block) - document.size() - 3;
        document += textLine(random, qMax(0, pad2)) + '\n';
        document += pageEnd(true);
    }
    return document + documentEnd();
}

// Lines of 1 MB and more, text and binary, around the 1 MB boundary.
QByteArray hugeLinesDocument()
{
    Random random(3);
    const int megabyte = 1 << 20;
    QByteArray document = head(3);
    document += pageStart(1) + textLine(random, megabyte - 1) + '\n' + textLine(random, megabyte) + '\n' +
                pageEnd(true);
    document += pageStart(2) + binaryLine(random, megabyte + 1) + '\n' + '\n' + pageEnd(true);
    document += pageStart(3) + textLine(random, megabyte + megabyte / 2) + '\n' + pageEnd(true);
    return document + documentEnd();
}

QByteArray noFinalNewlineDocument()
{
    Random random(4);
    QByteArray document = head(3) + randomPages(random, 1, 3, true) + documentEnd();
    document.chop(1);
    return document;
}

// The last page's "%%PageTrailer" is the last line, without a line feed.
QByteArray endsInPageTrailerDocument()
{
    Random random(5);
    QByteArray document = head(2) + randomPages(random, 1, 2, true);
    document.chop(1);
    return document;
}

// Page content whose lines end in CR alone; the DSC comments end in LF.
QByteArray carriageReturnDocument()
{
    Random random(6);
    QByteArray document = head(4);
    for (int page = 1; page <= 4; ++page) {
        document += pageStart(page);
        const int count = random.between(1, 30);
        for (int i = 0; i < count; ++i)
            document += textLine(random, randomLength(random)) + '\r';
        document += '\n' + pageEnd(true);
    }
    return document + "%%Trailer\r%%EOF\r";
}

QByteArray crlfDocument()
{
    Random random(7);
    const QByteArray eol = "\r\n";
    QByteArray document = head(5, eol);
    for (int page = 1; page <= 5; ++page) {
        document += pageStart(page, eol);
        const int count = random.between(0, 30);
        for (int i = 0; i < count; ++i)
            document += textLine(random, randomLength(random)) + eol;
        document += pageEnd(true, eol);
    }
    return document + "%%Pages: 5" + eol + documentEnd(eol);
}

// NUL bytes inside text lines and long binary lines, some starting with '%'.
QByteArray binaryDocument()
{
    Random random(8);
    QByteArray document = head(4);
    for (int page = 1; page <= 4; ++page) {
        document += pageStart(page);
        for (int i = 0; i < 10; ++i) {
            QByteArray line = textLine(random, random.between(1, 200));
            line[random.below(line.size())] = '\0';
            document += line + '\n';
        }
        const int length = page == 2 ? 300000 : random.between(1000, 100000);
        QByteArray binary = binaryLine(random, length);
        if (page % 2)
            binary[0] = '%';
        document += "currentfile 0 (%%EndBinary) /SubFileDecode filter\n" + binary + '\n' + pageEnd(true);
    }
    return document + documentEnd();
}

QByteArray noPageTrailerDocument()
{
    Random random(9);
    return head(6) + randomPages(random, 1, 6, false) + documentEnd();
}

QByteArray singlePageNoTrailerDocument()
{
    Random random(10);
    return head(1) + randomPages(random, 1, 1, false) + documentEnd();
}

// Neither "%%PageTrailer" nor "%%Trailer": the filter finds no pages.
QByteArray noTrailersAtAllDocument()
{
    Random random(11);
    return head(2) + randomPages(random, 1, 2, false);
}

// Some pages with "%%PageTrailer", some without.
QByteArray mixedTrailersDocument()
{
    Random random(12);
    QByteArray document = head(6);
    for (int page = 1; page <= 6; ++page)
        document += randomPages(random, page, 1, random.below(2) == 0);
    return document + documentEnd();
}

// Embedded documents, nested two deep, with their own page, trailer and
// "%%Pages:" comments, and a stray "%%EndDocument".
QByteArray nestedDocumentsDocument()
{
    Random random(13);
    const QByteArray inner = lines({"%%BeginDocument: inner.eps", "%!PS-Adobe-3.0 EPSF-3.0", "%%Pages: 1",
                                    "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "0 0 moveto",
                                    "%%PageTrailer", "%%Trailer", "%%EOF", "%%EndDocument"});
    const QByteArray outer = lines({"%%BeginDocument: outer.eps", "%!PS-Adobe-3.0 EPSF-3.0", "%%Page: 1 1"}) +
                             inner + lines({"%%PageTrailer", "%%Pages: 7", "%%Trailer", "%%EndDocument"});
    QByteArray document = head(4);
    for (int page = 1; page <= 4; ++page) {
        document += pageStart(page) + textLine(random, randomLength(random)) + '\n';
        if (page == 2)
            document += outer;
        if (page == 3)
            document += inner + "%%EndDocument\n";
        document += textLine(random, randomLength(random)) + '\n' + pageEnd(true);
    }
    return document + documentEnd();
}

// A document carrying catalogue fonts as resources in its prolog.
QByteArray carriedFontsDocument(const QByteArray& resources)
{
    Random random(14);
    QByteArray document =
        "%!PS-Adobe-3.0\n%%Pages: 3\n%%EndComments\n%%BeginProlog\n" + resources + "%%EndProlog\n";
    return document + randomPages(random, 1, 3, true) + documentEnd();
}

QByteArray catalogueFont(const QString& catalogue, const char* name)
{
    return readFile(catalogue + QStringLiteral("/fonts/") + QLatin1String(name));
}

// A resource holding exactly the catalogue's font, as the filter writes it.
QByteArray identicalResource(const QString& catalogue, const char* name)
{
    return "%%BeginResource: font " + QByteArray(name) + '\n' + catalogueFont(catalogue, name) +
           "\n%%EndResource\n";
}

QByteArray conflictingFontsDocument()
{
    return carriedFontsDocument(
        lines({"%%BeginResource: font TinySans", "/TinySans 1 def", "%%EndResource"}) +
        identicalResource(tinyCatalogueDir(), "TinySans-Bold"));
}

// The document ends inside a resource whose lines so far match the font.
QByteArray truncatedFontDocument()
{
    const QByteArray font = catalogueFont(tinyCatalogueDir(), "TinySans");
    return lines({"%!PS-Adobe-3.0", "%%BeginProlog", "%%EndProlog", "%%Page: 1 1", "a", "%%PageTrailer",
                  "%%BeginResource: font TinySans"}) +
           font.left(font.indexOf('\n', font.indexOf('\n') + 1) + 1);
}

QByteArray noPrologDocument()
{
    Random random(15);
    return "%!PS-Adobe-3.0\n%%Pages: 3\n%%EndComments\n" + randomPages(random, 1, 3, true) + documentEnd();
}

// A "%%Trailer" in the head and a "%%EOF" between the pages, before the real ones.
QByteArray earlyTrailerDocument()
{
    Random random(16);
    QByteArray document =
        "%!PS-Adobe-3.0\n%%Pages: 4\n%%Trailer\n%%EndComments\n%%BeginProlog\n%%EndProlog\n";
    document += randomPages(random, 1, 2, false) + "%%EOF\n" + randomPages(random, 3, 2, false);
    return document + documentEnd();
}

QByteArray earlyTrailerWithPageTrailersDocument()
{
    Random random(17);
    QByteArray document = head(3) + randomPages(random, 1, 1, true) + "%%Trailer\n";
    return document + randomPages(random, 2, 2, true) + documentEnd();
}

// "%%Pages:" in the head, inside a page and several times after the pages.
QByteArray repeatedPagesDocument()
{
    Random random(18);
    QByteArray document = "%!PS-Adobe-3.0\n%%Pages: (atend)\n%%Pages: 9\n%%EndComments\n%%BeginProlog\n"
                          "%%EndProlog\n";
    document += randomPages(random, 1, 2, true) + "%%Pages: 1\n" + randomPages(random, 3, 2, true);
    return document + "%%Trailer\n%%Pages: 4\n%%Pages:4\n%%Pages: 4 extra\n%%EOF\n";
}

QByteArray onePageDocument()
{
    return minimalDocument(1);
}

using DocumentMaker = QByteArray (*)();

struct CorpusDocument {
    const char* name;
    DocumentMaker make;
    // Marked with every template; otherwise with the first one only.
    bool allTemplates;
};

const CorpusDocument TinyCorpus[] = {
    {"text-lines", textLinesDocument, true},
    {"boundaries", boundariesDocument, true},
    {"huge-lines", hugeLinesDocument, false},
    {"no-final-newline", noFinalNewlineDocument, true},
    {"ends-in-page-trailer", endsInPageTrailerDocument, true},
    {"carriage-returns", carriageReturnDocument, true},
    {"crlf", crlfDocument, true},
    {"nul-and-binary", binaryDocument, true},
    {"no-page-trailer", noPageTrailerDocument, true},
    {"single-page-no-page-trailer", singlePageNoTrailerDocument, true},
    {"no-trailers-at-all", noTrailersAtAllDocument, false},
    {"mixed-page-trailers", mixedTrailersDocument, true},
    {"nested-documents", nestedDocumentsDocument, true},
    {"fonts-identical",
     [] {
         return carriedFontsDocument(identicalResource(tinyCatalogueDir(), "TinySans") +
                                     identicalResource(tinyCatalogueDir(), "TinySans-Bold"));
     },
     true},
    {"fonts-conflicting", conflictingFontsDocument, true},
    {"fonts-truncated", truncatedFontDocument, true},
    {"no-prolog", noPrologDocument, true},
    {"early-trailer", earlyTrailerDocument, true},
    {"early-trailer-page-trailers", earlyTrailerWithPageTrailersDocument, true},
    {"repeated-pages", repeatedPagesDocument, true},
    {"one-page", onePageDocument, true},
};

const char* const TinyTemplates[] = {"pages", "placed", "script"};

// Documents marked with the default catalogue (four Nimbus Sans styles), the
// one that is installed.
const CorpusDocument RealCorpus[] = {
    {"text-lines", textLinesDocument, true},
    {"boundaries", boundariesDocument, true},
    {"nested-documents", nestedDocumentsDocument, true},
    {"fonts-identical-and-conflicting",
     [] {
         return carriedFontsDocument(
             identicalResource(catalogueDir(), "NimbusSans-Regular") +
             lines({"%%BeginResource: font NimbusSans-Bold", "/x 1 def", "%%EndResource"}));
     },
     true},
    {"one-page", onePageDocument, true},
};

const char* const RealTemplates[] = {"cyrillic"};

// One run of the filter: a corpus document, a template, the mode.
struct PinnedCase {
    QString name;
    QString catalogue;
    QString document; // "<catalogue name>/<document name>"
    DocumentMaker make;
    QString templateName;
    bool duplex;
    bool safe;
    // Cases of one group share a document, a catalogue and definitions, and
    // run one after another in one sandbox.
    QString group;
};

// Every case, in a fixed order: each document with its templates, simplex
// and duplex, classic and print-safe output.
QList<PinnedCase> pinnedCases()
{
    QList<PinnedCase> cases;
    auto add = [&cases](const char* catalogueName, const QString& catalogue, const CorpusDocument& document,
                        const char* const* templates, int templateCount) {
        const QString key = QLatin1String(catalogueName) + QLatin1Char('/') + QLatin1String(document.name);
        for (const bool safe : {false, true}) {
            const QString kind = safe ? QStringLiteral("safe") : QStringLiteral("classic");
            for (int t = 0; t < (document.allTemplates ? templateCount : 1); ++t) {
                for (const bool duplex : {false, true}) {
                    const QString name =
                        QStringLiteral("%1/%2/%3/%4")
                            .arg(key, QLatin1String(templates[t]),
                                 duplex ? QStringLiteral("duplex") : QStringLiteral("simplex"), kind);
                    cases.append({name, catalogue, key, document.make, QLatin1String(templates[t]), duplex,
                                  safe, key + QLatin1Char('/') + kind});
                }
            }
        }
    };
    for (const CorpusDocument& document : TinyCorpus)
        add("tiny", tinyCatalogueDir(), document, TinyTemplates, int(std::size(TinyTemplates)));
    for (const CorpusDocument& document : RealCorpus)
        add("real", catalogueDir(), document, RealTemplates, int(std::size(RealTemplates)));
    return cases;
}

// Expected lines of the committed file: case name -> rest of the line.
QMap<QString, QString> readExpected()
{
    QMap<QString, QString> expected;
    for (const QByteArray& line : readFile(expectedFile()).split('\n')) {
        const int space = line.indexOf(' ');
        if (space > 0 && !line.startsWith('#'))
            expected.insert(QString::fromLatin1(line.left(space)), QString::fromLatin1(line.mid(space + 1)));
    }
    return expected;
}

} // namespace

class TestOutputPinning : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void output_data();
    void output();
    void everyCaseIsRecorded();
    void cleanupTestCase();

  private:
    // The document of a case, made once and kept for its other cases.
    QByteArray document(const PinnedCase& pinned);
    // Runs every case of a group in one sandbox: one sandbox start per run
    // would take most of the test's time. Each case has its own job folder,
    // job/<index>/, holding its files, "status" and "stderr" afterwards.
    void runGroup(const QString& group);

    QList<PinnedCase> m_cases;
    QString m_group;
    std::unique_ptr<FixtureTree> m_groupTree;
    QMap<QString, QByteArray> m_documents;
    QMap<QString, QString> m_expected;
    QMap<QString, QString> m_recorded;
};

void TestOutputPinning::initTestCase()
{
    m_cases = pinnedCases();
    m_expected = readExpected();
    if (!recording())
        QVERIFY2(!m_expected.isEmpty(),
                 qPrintable(QStringLiteral("no expected values in %1; record them with %2=1")
                                .arg(expectedFile(), QLatin1String(RecordVariable))));
}

QByteArray TestOutputPinning::document(const PinnedCase& pinned)
{
    if (!m_documents.contains(pinned.document))
        m_documents.insert(pinned.document, pinned.make());
    return m_documents.value(pinned.document);
}

void TestOutputPinning::output_data()
{
    QTest::addColumn<int>("index");
    for (int i = 0; i < m_cases.size(); ++i)
        QTest::newRow(qPrintable(m_cases.at(i).name)) << i;
}

void TestOutputPinning::runGroup(const QString& group)
{
    m_group = group;
    m_groupTree = std::make_unique<FixtureTree>();
    const FixtureTree& tree = *m_groupTree;
    QByteArray script = "# Runs the cases of one group; $1 is the program.\n";
    for (int index = 0; index < m_cases.size(); ++index) {
        const PinnedCase& pinned = m_cases.at(index);
        if (pinned.group != group)
            continue;
        if (!tree.exists(QStringLiteral("etc-cups/marker.defs"))) {
            QByteArray definitions = readFile(pinnedDir() + QStringLiteral("/marker.defs"));
            QVERIFY(definitions.contains("DATE="));
            if (pinned.safe)
                definitions += "MarkerSafeOutput=1\n";
            tree.copy(pinned.catalogue, QStringLiteral("share-cups"));
            tree.write(QStringLiteral("etc-cups/marker.defs"), definitions);
        }
        const QString job = QStringLiteral("job/%1/").arg(index);
        const QByteArray input = document(pinned);
        QVERIFY(!input.isEmpty());
        tree.write(job + QStringLiteral("input.ps"), input);
        const QString templates = pinnedDir() + QStringLiteral("/templates/") + pinned.templateName;
        tree.copy(templates + QStringLiteral(".tmpl"), job + QStringLiteral("template"));
        tree.copy(templates + QStringLiteral(".vars"), job + QStringLiteral("variables"));
        tree.copy(pinnedDir() + QStringLiteral("/pagescript.sh"), job + QStringLiteral("pagescript.sh"));
        script += "cd '" + tree.path(job).toLocal8Bit() + "' && \"$1\" " +
                  (pinned.duplex ? "--duplex " : "") +
                  "input.ps template variables output.ps 2>stderr; echo $? >status\n";
    }
    tree.write(QStringLiteral("run-cases.sh"), script);
    const RunResult run = tree.runInSandbox(QStringLiteral("/bin/sh"),
                                            {tree.path(QStringLiteral("run-cases.sh")), quilletExecutable()});
    QVERIFY2(!run.crashed && run.exitCode == 0, run.standardError.constData());
}

void TestOutputPinning::output()
{
    QFETCH(int, index);
    const PinnedCase& pinned = m_cases.at(index);
    if (m_group != pinned.group || !m_groupTree)
        runGroup(pinned.group);
    if (QTest::currentTestFailed())
        return;
    const FixtureTree& tree = *m_groupTree;
    const QString job = QStringLiteral("job/%1/").arg(index);
    const QByteArray input = document(pinned);

    const QByteArray status = tree.read(job + QStringLiteral("status")).trimmed();
    QVERIFY2(!status.isEmpty(), "the case did not run");
    const QByteArray standardError = tree.read(job + QStringLiteral("stderr"));
    const QByteArray output = tree.read(job + QStringLiteral("output.ps"));
    const QByteArray variables = tree.read(job + QStringLiteral("variables"));
    const QString actual = QStringLiteral("%1 %2 %3")
                               .arg(QString::fromLatin1(status), QString::fromLatin1(sha256(output)),
                                    QString::fromLatin1(sha256(withoutTime(variables))));
    if (recording()) {
        m_recorded.insert(pinned.name, actual);
        return;
    }

    const QString expected = m_expected.value(pinned.name);
    QVERIFY2(!expected.isEmpty(), qPrintable(QStringLiteral("%1: no expected value; record with %2=1")
                                                 .arg(pinned.name, QLatin1String(RecordVariable))));
    if (actual != expected) {
        const QString folder = actualDir(pinned.name);
        writeFile(folder + QStringLiteral("/input.ps"), input);
        writeFile(folder + QStringLiteral("/output.ps"), output);
        writeFile(folder + QStringLiteral("/variables"), variables);
        writeFile(folder + QStringLiteral("/stderr"), standardError);
    }
    QVERIFY2(actual == expected,
             qPrintable(QStringLiteral("case %1 changed (exit status, output hash, variables hash):\n"
                                       "  actual:   %2\n  expected: %3\n  actual files written to %4")
                            .arg(pinned.name, actual, expected, actualDir(pinned.name))));
}

void TestOutputPinning::everyCaseIsRecorded()
{
    // The committed file names exactly the cases of the corpus: none missing,
    // none left over from a corpus that has changed since.
    if (recording())
        QSKIP("recording");
    QSet<QString> cases;
    for (const PinnedCase& pinned : m_cases)
        cases.insert(pinned.name);
    QCOMPARE(cases.size(), m_cases.size());
    const QStringList recorded = m_expected.keys();
    const QSet<QString> expected(recorded.cbegin(), recorded.cend());
    QVERIFY2(cases == expected,
             qPrintable(QStringLiteral("cases without expected value: %1; expected values without case: %2")
                            .arg(QStringList((cases - expected).values()).join(QLatin1Char(' ')),
                                 QStringList((expected - cases).values()).join(QLatin1Char(' ')))));
}

void TestOutputPinning::cleanupTestCase()
{
    if (!recording())
        return;
    // Cases left out of this run (a row filter) keep their committed values.
    QByteArray content = "# Output pinning: <case> <exit status> <SHA-256 of the output> <SHA-256 of the\n"
                         "# variables file without TIME>. Written by tst_outputpinning with " +
                         QByteArray(RecordVariable) + "=1.\n";
    for (const PinnedCase& pinned : m_cases) {
        const QString value = m_recorded.value(pinned.name, m_expected.value(pinned.name));
        if (!value.isEmpty())
            content += pinned.name.toLatin1() + ' ' + value.toLatin1() + '\n';
    }
    QVERIFY(writeFile(expectedFile(), content));
    qInfo("recorded %d cases in %s", int(m_recorded.size()), qPrintable(expectedFile()));
}

QTEST_GUILESS_MAIN(TestOutputPinning)
#include "tst_outputpinning.moc"
