// The installable product: what `cmake --install` and the Debian package put
// on a print server, and that the installed program marks the example job.
// The package is built for /usr in a build folder of its own, as
// scripts/package.sh builds it, installed and removed with dpkg in a private
// mount namespace whose /usr, /etc and /var are throw-away overlays.
#include "common/paths.h"
#include "pagecode/pagecodekey.h"
#include "support/postscripttools.h"
#include "support/testsupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QRegularExpression>
#include <QtTest>

#include <sys/stat.h>

namespace
{

// How long the package's build may take: the whole program, from scratch.
constexpr int PackageBuildMs = 1500000;

const QString InstallPrefix = QStringLiteral(QUILLET_INSTALL_PREFIX);

// The prefix of Debian packages.
const QString PackagePrefix = QStringLiteral("/usr");

// Where the package's files may go: the prefix and the configuration folder.
bool isDebianPath(const QString& path)
{
    return (path == QLatin1String("/usr/") || path.startsWith(QLatin1String("/usr/")) ||
            path == QLatin1String("/etc/") || path.startsWith(QLatin1String("/etc/"))) &&
           !path.startsWith(QLatin1String("/usr/local/"));
}

// The lines of a report file of the package sandbox.
QStringList reportLines(const QString& folder, const char* name)
{
    return QString::fromUtf8(readFile(folder + QLatin1Char('/') + QLatin1String(name)))
        .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

// Paths of a list that are files, not folders (which end with a slash).
QStringList filesOf(const QStringList& paths)
{
    QStringList files;
    for (const QString& path : paths) {
        if (!path.endsWith(QLatin1Char('/')))
            files << path;
    }
    return files;
}

// Paths of a list that are not in another.
QStringList notIn(const QStringList& paths, const QStringList& others)
{
    QStringList result;
    for (const QString& path : paths) {
        if (!others.contains(path))
            result << path;
    }
    return result;
}

// Every file below a folder, as paths relative to it, sorted.
QStringList filesBelow(const QString& root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(QDir(root).relativeFilePath(it.next()));
    files.sort();
    return files;
}

QString installedPath(const QString& absolute)
{
    return absolute.startsWith(QLatin1Char('/')) ? absolute.mid(1) : absolute;
}

QString prefixed(const QString& relative)
{
    return installedPath(InstallPrefix + QLatin1Char('/') + relative);
}

} // namespace

class TestInstallation : public QObject
{
    Q_OBJECT

  private slots:
    void initTestCase();
    void installedTreeHoldsEveryFile_data();
    void installedTreeHoldsEveryFile();
    void installedProgramMarksExampleJob_data();
    void installedProgramMarksExampleJob();
    void backendRunsAsRootOnly();
    void installedCheckerMakesKeyAndChecksCode();
    void fatalMessageFollowsLocale_data();
    void fatalMessageFollowsLocale();
    void packageNeedsABuildForUsr();
    void packageMatchesInstallation();
    void packageInstallsAndRemovesCleanly();
    void packagePassesLintian();
    void everyMessageIsTranslated();

  private:
    // Builds the Debian package once, as scripts/package.sh does, in a build
    // folder of its own below this one (kept, so that a later run only
    // builds what changed); returns its path or an empty text.
    QString package();

    QTemporaryDir m_stage;
    QTemporaryDir m_packageDir;
    QString m_package;
    QByteArray m_packageLog;
};

QString TestInstallation::package()
{
    if (m_package.isEmpty() && m_packageLog.isEmpty()) {
        const RunResult pack =
            runProgram(QStringLiteral("bash"),
                       {QStringLiteral(QUILLET_SOURCE_DIR "/scripts/package.sh"),
                        QStringLiteral(QUILLET_BINARY_DIR "/package-build"), m_packageDir.path()},
                       {}, {}, PackageBuildMs);
        m_packageLog = pack.standardOutput + pack.standardError;
        const QStringList debs = QDir(m_packageDir.path()).entryList({QStringLiteral("*.deb")});
        if (pack.exitCode == 0 && debs.size() == 1)
            m_package = QDir(m_packageDir.path()).filePath(debs.first());
    }
    return m_package;
}

void TestInstallation::initTestCase()
{
    QVERIFY(m_stage.isValid());
    const RunResult install = runProgram(QStringLiteral(QUILLET_CMAKE_COMMAND),
                                         {QStringLiteral("--install"), QStringLiteral(QUILLET_BINARY_DIR)},
                                         {QStringLiteral("DESTDIR=") + m_stage.path()});
    QVERIFY2(install.exitCode == 0 && !install.crashed, install.standardError.constData());
}

void TestInstallation::installedTreeHoldsEveryFile_data()
{
    QTest::addColumn<QString>("file");
    const QString data = installedPath(QLatin1String(CupsDataDir));
    QTest::newRow("program") << prefixed(QStringLiteral(QUILLET_INSTALL_BINDIR "/quillet"));
    QTest::newRow("manual page") << prefixed(QStringLiteral(QUILLET_INSTALL_MANDIR "/man1/quillet.1"));
    QTest::newRow("code checker") << prefixed(QStringLiteral(QUILLET_INSTALL_BINDIR "/quillet-verify"));
    QTest::newRow("code checker's manual page")
        << prefixed(QStringLiteral(QUILLET_INSTALL_MANDIR "/man1/quillet-verify.1"));
    QTest::newRow("glyph list") << data + QStringLiteral("/data/psglyphs");
    QTest::newRow("charset file") << data + QStringLiteral("/charsets/utf-8");
    QTest::newRow("shipped definitions") << data + QStringLiteral("/quillet/marker.defs");
    QTest::newRow("queue administration")
        << prefixed(QStringLiteral(QUILLET_INSTALL_SBINDIR "/quillet-queue"));
    QTest::newRow("queue administration's manual page")
        << prefixed(QStringLiteral(QUILLET_INSTALL_MANDIR "/man8/quillet-queue.8"));
    QTest::newRow("template of new queues") << data + QStringLiteral("/quillet/queue.tmpl");
    QTest::newRow("printer description of new queues")
        << data + QStringLiteral("/quillet/quillet-generic.ppd");
    QTest::newRow("test page") << data + QStringLiteral("/quillet/testpage.ps");
    for (const char* font :
         {"NimbusSans-Regular", "NimbusSans-Bold", "NimbusSans-Italic", "NimbusSans-BoldItalic"})
        QTest::newRow(font) << data + QStringLiteral("/fonts/") + QLatin1String(font);
    QTest::newRow("backend manual page")
        << prefixed(QStringLiteral(QUILLET_INSTALL_MANDIR "/man8/quillet-backend.8"));
    QTest::newRow("print queue backend")
        << installedPath(QLatin1String(CupsServerBin)) + QStringLiteral("/backend/quillet");
    QTest::newRow("Russian messages")
        << installedPath(QLatin1String(TranslationsDir)) + QStringLiteral("/quillet_ru.qm");
    QTest::newRow("audit log rotation") << installedPath(QStringLiteral(QUILLET_LOGROTATE_DIR "/quillet"));
    QTest::newRow("copyright") << prefixed(QStringLiteral("share/doc/quillet/copyright"));
    QTest::newRow("fonts' licence") << prefixed(QStringLiteral("share/doc/quillet/copyright.fonts"));
}

void TestInstallation::installedTreeHoldsEveryFile()
{
    QFETCH(QString, file);
    const QFileInfo info(QDir(m_stage.path()).filePath(file));
    QVERIFY2(info.isFile(), qPrintable(file));
    QVERIFY2(info.size() > 0, qPrintable(file));
}

void TestInstallation::installedProgramMarksExampleJob_data()
{
    addSimplexAndDuplexRows();
}

void TestInstallation::installedProgramMarksExampleJob()
{
    QFETCH(bool, duplex);
    if (!haveProgram(QStringLiteral("gs")) || !haveProgram(QStringLiteral("pdftotext")))
        QSKIP("Ghostscript and pdftotext are needed");

    // The installed data folders stand in for the print server's own.
    FixtureTree tree;
    tree.copy(m_stage.path() + QLatin1Char('/') + installedPath(QLatin1String(CupsDataDir)),
              QStringLiteral("share-cups"));
    const QString examples = QStringLiteral(QUILLET_SOURCE_DIR "/examples");
    tree.copy(examples + QStringLiteral("/document.ps"), QStringLiteral("job/document.ps"));
    tree.copy(examples + QStringLiteral("/marker.tmpl"), QStringLiteral("job/marker.tmpl"));
    tree.copy(examples + QStringLiteral("/job.vars"), QStringLiteral("job/job.vars"));

    QStringList arguments;
    if (duplex)
        arguments << QStringLiteral("--duplex");
    arguments << QStringLiteral("document.ps") << QStringLiteral("marker.tmpl") << QStringLiteral("job.vars")
              << QStringLiteral("marked.ps");
    const QString program =
        m_stage.path() + QLatin1Char('/') + prefixed(QStringLiteral(QUILLET_INSTALL_BINDIR "/quillet"));
    const RunResult run = tree.runInSandbox(program, arguments);
    QVERIFY2(run.exitCode == 0 && !run.crashed, run.standardError.constData());

    // Ghostscript renders it without error, and the text of every page
    // holds the example's markers, Latin and Cyrillic.
    const QString marked = tree.path(QStringLiteral("job/marked.ps"));
    const QString pdf = tree.path(QStringLiteral("job/marked.pdf"));
    const RunResult render = runProgram(QStringLiteral("ps2pdf"), {marked, pdf});
    QVERIFY2(render.exitCode == 0, render.standardError.constData());
    QVERIFY2(!render.standardOutput.contains("Error") && !render.standardError.contains("Error"),
             render.standardOutput.constData());

    const int documentPages = 3;
    const int pages = duplex ? 2 * documentPages : documentPages;
    for (int page = 1; page <= pages; ++page) {
        // In duplex mode the markers are on the inserted back pages.
        if (duplex && page % 2 == 1)
            continue;
        const int documentPage = duplex ? page / 2 : page;
        const RunResult text = runProgram(QStringLiteral("pdftotext"),
                                          {QStringLiteral("-f"), QString::number(page), QStringLiteral("-l"),
                                           QString::number(page), pdf, QStringLiteral("-")});
        QCOMPARE(text.exitCode, 0);
        const QString content = QString::fromUtf8(text.standardOutput).simplified();
        QVERIFY2(content.contains(QStringLiteral("CONFIDENTIAL INTERNAL")), qPrintable(content));
        QVERIFY2(content.contains(QStringLiteral("Page %1 of %2").arg(documentPage).arg(documentPages)),
                 qPrintable(content));
        QVERIFY2(content.contains(QStringLiteral("Для служебного пользования")), qPrintable(content));
        QVERIFY2(content.contains(QStringLiteral("User ivanov@EXAMPLE.ORG")), qPrintable(content));
        QCOMPARE(content.contains(QStringLiteral("Registered copy, first sheet")), documentPage == 1);
    }
    QCOMPARE(pdfPageCount(pdf), pages);
    QCOMPARE(ghostscriptErrors(marked), QString());
}

void TestInstallation::backendRunsAsRootOnly()
{
    // The print server runs a backend as root only when others may not
    // read and execute it: owner root, mode 0700.
    const QString backend = m_stage.path() + QLatin1Char('/') + installedPath(QLatin1String(CupsServerBin)) +
                            QStringLiteral("/backend/quillet");
    struct stat info;
    QCOMPARE(stat(QFile::encodeName(backend).constData(), &info), 0);
    QCOMPARE(info.st_mode & 07777, mode_t(0700));
    QCOMPARE(info.st_uid, uid_t(0));

    // Run without arguments it names its device scheme, as "lpinfo -v" shows it.
    const RunResult listing = runProgram(backend, {});
    QCOMPARE(listing.exitCode, 0);
    QVERIFY2(listing.standardOutput.startsWith("network quillet "), listing.standardOutput.constData());
}

void TestInstallation::fatalMessageFollowsLocale_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("language");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("expected");
    const QStringList job{QStringLiteral("missing.ps"), QStringLiteral("t"), QStringLiteral("v"),
                          QStringLiteral("o")};
    const QStringList missingKey{QStringLiteral("--key"), QStringLiteral("missing.key"),
                                 QStringLiteral("ABCD-EFGH-JKMN-PQRS-TVWX-YZ23")};
    const QStringList twoKeys{QStringLiteral("--key"), QStringLiteral("a"), QStringLiteral("--key"),
                              QStringLiteral("b"), QStringLiteral("x")};
    QTest::newRow("quillet, Russian locale gives Russian")
        << QStringLiteral("quillet") << job << QStringLiteral("ru_RU.UTF-8") << 1
        << QStringLiteral("Входной файл missing.ps не существует\n");
    QTest::newRow("quillet, C locale gives English")
        << QStringLiteral("quillet") << job << QStringLiteral("C") << 1
        << QStringLiteral("Input file missing.ps doesn't exist\n");
    QTest::newRow("quillet-verify, Russian locale gives Russian")
        << QStringLiteral("quillet-verify") << missingKey << QStringLiteral("ru_RU.UTF-8") << 1
        << QStringLiteral("Файл ключа кодов страниц missing.key не существует\n");
    QTest::newRow("quillet-verify, C locale gives English")
        << QStringLiteral("quillet-verify") << missingKey << QStringLiteral("C") << 1
        << QStringLiteral("Page-code key file missing.key doesn't exist\n");
    QTest::newRow("quillet-verify usage, Russian locale gives Russian")
        << QStringLiteral("quillet-verify") << twoKeys << QStringLiteral("ru_RU.UTF-8") << 2
        << QStringLiteral("--key принимает одно имя файла, один раз\n"
                          "Попробуйте \"quillet-verify --help\".\n");
}

void TestInstallation::fatalMessageFollowsLocale()
{
    QFETCH(QString, program);
    QFETCH(QStringList, arguments);
    QFETCH(QString, language);
    QFETCH(int, status);
    QFETCH(QString, expected);
    FixtureTree tree;
    tree.copy(m_stage.path() + QLatin1Char('/') + installedPath(QLatin1String(TranslationsDir)),
              QStringLiteral("translations"));
    const QString installed =
        m_stage.path() + QLatin1Char('/') + prefixed(QStringLiteral(QUILLET_INSTALL_BINDIR "/") + program);
    const RunResult run = tree.runInSandbox(installed, arguments,
                                            {QStringLiteral("LANG=") + language, QStringLiteral("LC_ALL="),
                                             QStringLiteral("LC_MESSAGES="), QStringLiteral("LANGUAGE=")});
    QCOMPARE(run.exitCode, status);
    QCOMPARE(QString::fromUtf8(run.standardError), expected);
}

// The installed code checker makes a key and checks a code made under it.
void TestInstallation::installedCheckerMakesKeyAndChecksCode()
{
    const QString program = m_stage.path() + QLatin1Char('/') +
                            prefixed(QStringLiteral(QUILLET_INSTALL_BINDIR "/quillet-verify"));
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString keyFile = dir.filePath(QStringLiteral("site.key"));
    const RunResult made = runProgram(program, {QStringLiteral("--new-key"), keyFile});
    QVERIFY2(made.exitCode == 0 && !made.crashed, made.standardError.constData());

    PageCodeKey site;
    PageCodeKey job;
    QString error;
    QVERIFY2(PageCodeKey::load(keyFile, &site, &error), qPrintable(error));
    QVERIFY(site.forJob(31, &job));
    const QString code = PageCode::make(job.secret(), PageCodeFields::wrap(31, 4, 2, QDate(2026, 10, 1)));
    const RunResult checked = runProgram(program, {QStringLiteral("--key"), keyFile, code});
    QCOMPARE(checked.exitCode, 0);
    QCOMPARE(checked.standardOutput,
             code.toLatin1() + ": authentic: job 31, page 4, copy 2, marked on 2026-10-01\n");
}

// A build for another prefix is no Debian package: its programs would look
// for each other outside /usr.
void TestInstallation::packageNeedsABuildForUsr()
{
    if (InstallPrefix == PackagePrefix)
        QSKIP("this build folder is itself configured for /usr");
    QTemporaryDir output;
    const RunResult pack =
        runProgram(QStringLiteral(QUILLET_CPACK_COMMAND),
                   {QStringLiteral("-G"), QStringLiteral("DEB"), QStringLiteral("-B"), output.path(),
                    QStringLiteral("--config"), QStringLiteral(QUILLET_BINARY_DIR "/CPackConfig.cmake")});
    QVERIFY(pack.exitCode != 0);
    QVERIFY2(QString::fromLocal8Bit(pack.standardError)
                 .simplified()
                 .contains(QStringLiteral("a Debian package is made from a build for /usr")),
             pack.standardError.constData());
    QCOMPARE(QDir(output.path()).entryList({QStringLiteral("*.deb")}), QStringList());
}

void TestInstallation::packageMatchesInstallation()
{
    if (!haveProgram(QStringLiteral("dpkg-deb")) || !haveProgram(QStringLiteral("dpkg-shlibdeps")))
        QSKIP("dpkg-deb and dpkg-shlibdeps are needed");
    const QString deb = package();
    QVERIFY2(!deb.isEmpty(), m_packageLog.constData());

    // The package's files are the installed files, with the prefix /usr
    // in place of this build's and the manual pages compressed, and the
    // files that a Debian package adds: its changelog and lintian overrides.
    const RunResult contents = runProgram(QStringLiteral("dpkg-deb"), {QStringLiteral("--contents"), deb});
    QCOMPARE(contents.exitCode, 0);
    QStringList packaged;
    for (const QString& line : QString::fromUtf8(contents.standardOutput).split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1Char('-')))
            packaged.append(line.section(QLatin1String("./"), -1));
    }
    packaged.sort();
    QStringList expected;
    // Installed manual page (in the stage) and its compressed file in the package.
    QList<QPair<QString, QString>> manualPages;
    const QString installedPrefix = installedPath(InstallPrefix) + QLatin1Char('/');
    const QString packagedManuals =
        installedPath(PackagePrefix) + QStringLiteral("/" QUILLET_INSTALL_MANDIR "/");
    for (const QString& file : filesBelow(m_stage.path())) {
        QString path = file.startsWith(installedPrefix) ? installedPath(PackagePrefix) + QLatin1Char('/') +
                                                              file.mid(installedPrefix.size())
                                                        : file;
        if (path.startsWith(packagedManuals)) {
            path += QStringLiteral(".gz");
            manualPages.append({file, path});
        }
        expected << path;
    }
    QVERIFY(manualPages.size() >= 4);
    expected << QStringLiteral("usr/share/doc/quillet/changelog.gz")
             << QStringLiteral("usr/share/lintian/overrides/quillet");
    expected.sort();
    QCOMPARE(packaged, expected);

    // Programs in /usr/bin and /usr/sbin, the backend where the print server
    // runs backends, configuration in /etc only, nothing in /usr/local.
    for (const QString& file : packaged)
        QVERIFY2(isDebianPath(QLatin1Char('/') + file), qPrintable(file));
    for (const char* program : {"usr/bin/quillet", "usr/bin/quillet-verify", "usr/sbin/quillet-queue"})
        QVERIFY2(packaged.contains(QLatin1String(program)), program);

    // The backend keeps its owner and mode in the package.
    const QRegularExpression backendEntry(QStringLiteral("^-rwx------ root/root .* \\./%1/backend/quillet$")
                                              .arg(installedPath(QLatin1String(CupsServerBin))),
                                          QRegularExpression::MultilineOption);
    QVERIFY2(backendEntry.match(QString::fromUtf8(contents.standardOutput)).hasMatch(),
             contents.standardOutput.constData());

    // The backend runs the quillet of the package.
    QTemporaryDir unpacked;
    QCOMPARE(
        runProgram(QStringLiteral("dpkg-deb"), {QStringLiteral("--extract"), deb, unpacked.path()}).exitCode,
        0);
    const QByteArray backend = readFile(
        unpacked.filePath(installedPath(QLatin1String(CupsServerBin)) + QStringLiteral("/backend/quillet")));
    QVERIFY(backend.contains(QByteArray("\0/usr/bin/quillet\0", 18)));
    QVERIFY(!backend.contains("/usr/local/bin/quillet"));

    // The manual pages and the changelog are compressed as Debian's tools
    // compress them, gzip -9n: best compression, no name and no time stamp
    // in the header; the pages are the installed ones.
    QList<QPair<QString, QString>> compressed = manualPages;
    compressed.append({QString(), QStringLiteral("usr/share/doc/quillet/changelog.gz")});
    for (const auto& [installed, path] : compressed) {
        const QByteArray bytes = readFile(unpacked.filePath(path));
        QVERIFY2(bytes.size() > 10 && bytes.startsWith("\x1f\x8b\x08"), qPrintable(path));
        QVERIFY2((uchar(bytes.at(3)) & 0x08) == 0, qPrintable(path + QStringLiteral(": holds a file name")));
        QVERIFY2(bytes.mid(4, 4) == QByteArray(4, '\0'), qPrintable(path + QStringLiteral(": holds a time")));
        QVERIFY2(uchar(bytes.at(8)) == 2, qPrintable(path + QStringLiteral(": not compressed with -9")));
        const RunResult text =
            runProgram(QStringLiteral("gzip"), {QStringLiteral("-dc"), unpacked.filePath(path)});
        QCOMPARE(text.exitCode, 0);
        if (!installed.isEmpty())
            QVERIFY2(text.standardOutput == readFile(m_stage.path() + QLatin1Char('/') + installed),
                     qPrintable(path));
        else
            QVERIFY2(text.standardOutput.startsWith("quillet (" QUILLET_VERSION ") "),
                     text.standardOutput.left(200).constData());
    }

    // The programs carry no symbols or debugging information.
    for (const QString& program :
         {QStringLiteral("usr/bin/quillet"), QStringLiteral("usr/bin/quillet-verify"),
          QStringLiteral("usr/sbin/quillet-queue"),
          installedPath(QLatin1String(CupsServerBin)) + QStringLiteral("/backend/quillet")}) {
        const RunResult sections =
            runProgram(QStringLiteral("readelf"),
                       {QStringLiteral("-S"), QStringLiteral("-W"), unpacked.filePath(program)});
        QCOMPARE(sections.exitCode, 0);
        QVERIFY2(sections.standardOutput.contains(".text"), sections.standardOutput.constData());
        for (const char* section : {" .symtab ", " .debug_info ", " .comment "})
            QVERIFY2(!sections.standardOutput.contains(section),
                     qPrintable(program + QLatin1String(section)));
    }

    // Every file in /etc is a configuration file of the package, which dpkg
    // keeps on removal until the package is purged.
    const RunResult conffiles =
        runProgram(QStringLiteral("sh"),
                   {QStringLiteral("-c"),
                    QStringLiteral("dpkg-deb --ctrl-tarfile \"$0\" | tar -xOf - ./conffiles"), deb});
    QCOMPARE(conffiles.exitCode, 0);
    QStringList inEtc = packaged.filter(QRegularExpression(QStringLiteral("^etc/")));
    for (QString& file : inEtc)
        file.prepend(QLatin1Char('/'));
    QCOMPARE(QString::fromUtf8(conffiles.standardOutput).split(QLatin1Char('\n'), Qt::SkipEmptyParts), inEtc);

    // It depends on the Qt core library it was linked with, and on what the
    // print queue's backend runs for every job.
    const RunResult fields =
        runProgram(QStringLiteral("dpkg-deb"), {QStringLiteral("--field"), deb, QStringLiteral("Depends")});
    for (const char* package : {"libqt5core5a", "bubblewrap", "ghostscript", "poppler-utils"})
        QVERIFY2(fields.standardOutput.contains(package), fields.standardOutput.constData());
}

// dpkg installs the package as on a print server (its dependencies are this
// machine's), in a private mount namespace whose /usr, /etc and /var are
// throw-away overlays; then removes and purges it.
void TestInstallation::packageInstallsAndRemovesCleanly()
{
    if (!haveProgram(QStringLiteral("dpkg")) || !haveProgram(QStringLiteral("dpkg-shlibdeps")) ||
        !haveProgram(QStringLiteral("unshare")))
        QSKIP("dpkg and unshare are needed");
    const QString deb = package();
    QVERIFY2(!deb.isEmpty(), m_packageLog.constData());

    QTemporaryDir report;
    const RunResult run = runProgram(QStringLiteral(QUILLET_SOURCE_DIR "/tests/product/package-sandbox"),
                                     {deb, report.path(), QStringLiteral("sh"), QStringLiteral("-c"),
                                      QStringLiteral("%1/backend/quillet && /usr/bin/quillet --version")
                                          .arg(QLatin1String(CupsServerBin))},
                                     {}, {}, 600000);
    QVERIFY2(run.exitCode == 0, run.standardOutput + run.standardError);
    const QString folder = report.path();
    const QStringList paths = reportLines(folder, "paths");
    const QStringList before = reportLines(folder, "before");
    QVERIFY(!filesOf(paths).isEmpty());

    // Installed: every path of the package is under /usr or /etc, not in
    // /usr/local, and there.
    QVERIFY2(readFile(folder + QStringLiteral("/install.status")) == "0\n",
             readFile(folder + QStringLiteral("/install.log")).constData());
    for (const QString& path : paths)
        QVERIFY2(isDebianPath(path), qPrintable(path));
    QCOMPARE(reportLines(folder, "after-install"), paths);
    QStringList listed = reportLines(folder, "listed");
    listed.removeAll(QStringLiteral("/."));
    QStringList unslashed;
    for (const QString& path : paths)
        unslashed << (path.endsWith(QLatin1Char('/')) ? path.chopped(1) : path);
    QCOMPARE(listed, unslashed);

    // The installed backend and program run.
    QVERIFY2(readFile(folder + QStringLiteral("/command.status")) == "0\n",
             readFile(folder + QStringLiteral("/command.out")).constData());
    const QByteArray ran = readFile(folder + QStringLiteral("/command.out"));
    QVERIFY2(ran.startsWith("network quillet "), ran.constData());
    QVERIFY2(ran.contains("\nquillet " QUILLET_VERSION "\n"), ran.constData());

    // Removed: of the package's files only its configuration files are
    // left, as dpkg leaves them until a purge; folders only where there
    // were folders before.
    QVERIFY2(readFile(folder + QStringLiteral("/remove.status")) == "0\n",
             readFile(folder + QStringLiteral("/remove.log")).constData());
    const QStringList afterRemove = reportLines(folder, "after-remove");
    QCOMPARE(filesOf(afterRemove), filesOf(paths).filter(QRegularExpression(QStringLiteral("^/etc/"))));
    QCOMPARE(notIn(afterRemove, before + filesOf(afterRemove)), QStringList());
    QCOMPARE(readFile(folder + QStringLiteral("/state-after-remove")),
             QByteArray("deinstall ok config-files\n"));

    // Purged: nothing of the package is left, and dpkg no longer knows it.
    QVERIFY2(readFile(folder + QStringLiteral("/purge.status")) == "0\n",
             readFile(folder + QStringLiteral("/purge.log")).constData());
    const QStringList afterPurge = reportLines(folder, "after-purge");
    QCOMPARE(filesOf(afterPurge), QStringList());
    QCOMPARE(notIn(afterPurge, before), QStringList());
    QVERIFY2(readFile(folder + QStringLiteral("/state-after-purge")).contains("no packages found matching"),
             readFile(folder + QStringLiteral("/state-after-purge")).constData());
}

// lintian, Debian's package checker, finds no error and no warning in the
// package. The tags that do not apply to it are overridden by the package's
// own lintian overrides (packaging/lintian-overrides, each with its
// reason), and every one of them must still be needed: lintian shows each
// as an overridden tag. The hardening that Debian's build flags give must
// be there too, though lintian reports the lack of some of it (bindnow) as
// information only; not its guess that no call was fortified, which is also
// what a program whose calls all have sizes unknown when it is compiled
// gives.
void TestInstallation::packagePassesLintian()
{
    if (!haveProgram(QStringLiteral("lintian")) || !haveProgram(QStringLiteral("dpkg-shlibdeps")))
        QSKIP("lintian and dpkg-shlibdeps are needed");
    const QString deb = package();
    QVERIFY2(!deb.isEmpty(), m_packageLog.constData());

    const RunResult lint =
        runProgram(QStringLiteral("lintian"),
                   {QStringLiteral("--display-info"), QStringLiteral("--pedantic"),
                    QStringLiteral("--display-experimental"), QStringLiteral("--show-overrides"),
                    QStringLiteral("--fail-on"), QStringLiteral("none"), deb},
                   {}, {}, 600000);
    // Every tag is shown, overridden ones too, and the exit status only
    // tells whether lintian could check the package: the tags are judged
    // here.
    const QString report = QString::fromUtf8(lint.standardOutput + lint.standardError);
    const QStringList lines = QString::fromUtf8(lint.standardOutput).split(QLatin1Char('\n'));
    QStringList problems;
    static const QRegularExpression hardening(
        QStringLiteral("^I: quillet: hardening-no-(?!fortify-functions )"));
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1String("E: ")) || line.startsWith(QLatin1String("W: ")) ||
            hardening.match(line).hasMatch())
            problems << line;
    }
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join(QLatin1Char('\n'))));
    QVERIFY2(lint.exitCode == 0 && !lint.crashed, qPrintable(report));

    const QStringList overrides =
        QString::fromUtf8(readFile(QStringLiteral(QUILLET_SOURCE_DIR "/packaging/lintian-overrides")))
            .split(QLatin1Char('\n'));
    int used = 0;
    for (const QString& line : overrides) {
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        QVERIFY2(lines.contains(QStringLiteral("O: ") + line),
                 qPrintable(line + QStringLiteral("\n") + report));
        ++used;
    }
    QVERIFY(used > 0);
}

// The Russian translation holds every message of the programs, each with
// its translation: lupdate run over the sources on a copy of it finds
// nothing to add, nothing unfinished and nothing obsolete.
void TestInstallation::everyMessageIsTranslated()
{
    QTemporaryDir work;
    const QString source = QStringLiteral(QUILLET_SOURCE_DIR "/translations/quillet_ru.ts");
    const QString copy = work.filePath(QStringLiteral("quillet_ru.ts"));
    QVERIFY(QFile::copy(source, copy));
    const RunResult updated =
        runProgram(QStringLiteral(QUILLET_LUPDATE),
                   {QStringLiteral("-no-obsolete"), QStringLiteral("-locations"), QStringLiteral("none"),
                    QStringLiteral(QUILLET_SOURCE_DIR "/src"), QStringLiteral("-ts"), copy});
    QVERIFY2(updated.exitCode == 0, updated.standardError.constData());
    const QByteArray translations = readFile(copy);
    QVERIFY2(!translations.contains("type=\"unfinished\""),
             "a message has no translation: run lupdate (see translations/CMakeLists.txt) and translate it");
    QVERIFY2(translations == readFile(source),
             "translations/quillet_ru.ts is not up to date with the sources");
}

QTEST_GUILESS_MAIN(TestInstallation)
#include "tst_installation.moc"
