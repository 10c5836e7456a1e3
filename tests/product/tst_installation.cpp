// The installable product: what `cmake --install` and the Debian package put
// on a print server, and that the installed program marks the example job.
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

namespace {

const QString InstallPrefix = QStringLiteral(QUILLET_INSTALL_PREFIX);

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
    void packageMatchesInstallation();
    void packageInstallsAndRemovesCleanly();

private:
    // Builds the Debian package once; returns its path or an empty text.
    QString package();

    QTemporaryDir m_stage;
    QTemporaryDir m_packageDir;
    QString m_package;
    QByteArray m_packageLog;
};

QString TestInstallation::package()
{
    if (m_package.isEmpty() && m_packageLog.isEmpty()) {
        const RunResult pack = runProgram(QStringLiteral(QUILLET_CPACK_COMMAND),
                                          {QStringLiteral("-G"), QStringLiteral("DEB"), QStringLiteral("-B"),
                                           m_packageDir.path(), QStringLiteral("--config"),
                                           QStringLiteral(QUILLET_BINARY_DIR "/CPackConfig.cmake")});
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
    for (const char* font : {"NimbusSans-Regular", "NimbusSans-Bold", "NimbusSans-Italic", "NimbusSans-BoldItalic"})
        QTest::newRow(font) << data + QStringLiteral("/fonts/") + QLatin1String(font);
    QTest::newRow("backend manual page") << prefixed(QStringLiteral(QUILLET_INSTALL_MANDIR "/man8/quillet-backend.8"));
    QTest::newRow("print queue backend")
        << installedPath(QLatin1String(CupsServerBin)) + QStringLiteral("/backend/quillet");
    QTest::newRow("Russian messages")
        << installedPath(QLatin1String(TranslationsDir)) + QStringLiteral("/quillet_ru.qm");
    QTest::newRow("audit log rotation") << installedPath(QStringLiteral(QUILLET_LOGROTATE_DIR "/quillet"));
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
    tree.copy(m_stage.path() + QLatin1Char('/') + installedPath(QLatin1String(CupsDataDir)), QStringLiteral("share-cups"));
    const QString examples = QStringLiteral(QUILLET_SOURCE_DIR "/examples");
    tree.copy(examples + QStringLiteral("/document.ps"), QStringLiteral("job/document.ps"));
    tree.copy(examples + QStringLiteral("/marker.tmpl"), QStringLiteral("job/marker.tmpl"));
    tree.copy(examples + QStringLiteral("/job.vars"), QStringLiteral("job/job.vars"));

    QStringList arguments;
    if (duplex)
        arguments << QStringLiteral("--duplex");
    arguments << QStringLiteral("document.ps") << QStringLiteral("marker.tmpl") << QStringLiteral("job.vars")
              << QStringLiteral("marked.ps");
    const QString program = m_stage.path() + QLatin1Char('/') + prefixed(QStringLiteral(QUILLET_INSTALL_BINDIR "/quillet"));
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
    const QString backend = m_stage.path() + QLatin1Char('/') + installedPath(QLatin1String(CupsServerBin))
                            + QStringLiteral("/backend/quillet");
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
    const QStringList job{QStringLiteral("missing.ps"), QStringLiteral("t"), QStringLiteral("v"), QStringLiteral("o")};
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
    const QString program =
        m_stage.path() + QLatin1Char('/') + prefixed(QStringLiteral(QUILLET_INSTALL_BINDIR "/quillet-verify"));
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
    QCOMPARE(checked.standardOutput, code.toLatin1() + ": authentic: job 31, page 4, copy 2, marked on 2026-10-01\n");
}

void TestInstallation::packageMatchesInstallation()
{
    if (!haveProgram(QStringLiteral("dpkg-deb")) || !haveProgram(QStringLiteral("dpkg-shlibdeps")))
        QSKIP("dpkg-deb and dpkg-shlibdeps are needed");
    const QString deb = package();
    QVERIFY2(!deb.isEmpty(), m_packageLog.constData());

    // The package's files are exactly the installed files.
    const RunResult contents = runProgram(QStringLiteral("dpkg-deb"), {QStringLiteral("--contents"), deb});
    QCOMPARE(contents.exitCode, 0);
    QStringList packaged;
    for (const QString& line : QString::fromUtf8(contents.standardOutput).split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1Char('-')))
            packaged.append(line.section(QLatin1String("./"), -1));
    }
    packaged.sort();
    QCOMPARE(packaged, filesBelow(m_stage.path()));

    // The backend keeps its owner and mode in the package.
    const QRegularExpression backendEntry(QStringLiteral("^-rwx------ root/root .* \\./%1/backend/quillet$")
                                              .arg(installedPath(QLatin1String(CupsServerBin))),
                                          QRegularExpression::MultilineOption);
    QVERIFY2(backendEntry.match(QString::fromUtf8(contents.standardOutput)).hasMatch(),
             contents.standardOutput.constData());

    // It depends on the Qt core library it was linked with, and on what the
    // print queue's backend runs for every job.
    const RunResult fields = runProgram(QStringLiteral("dpkg-deb"), {QStringLiteral("--field"), deb, QStringLiteral("Depends")});
    for (const char* package : {"libqt5core5a", "bubblewrap", "ghostscript", "poppler-utils"})
        QVERIFY2(fields.standardOutput.contains(package), fields.standardOutput.constData());
}

void TestInstallation::packageInstallsAndRemovesCleanly()
{
    if (!haveProgram(QStringLiteral("dpkg")) || !haveProgram(QStringLiteral("dpkg-shlibdeps")))
        QSKIP("dpkg is needed");
    const QString deb = package();
    QVERIFY2(!deb.isEmpty(), m_packageLog.constData());

    // A scratch root with its own package database: the package goes in and
    // out there, never on this machine's own folders.
    QTemporaryDir root;
    QVERIFY(writeFile(root.filePath(QStringLiteral("var/lib/dpkg/status")), QByteArray()));
    QDir().mkpath(root.filePath(QStringLiteral("var/lib/dpkg/updates")));
    QDir().mkpath(root.filePath(QStringLiteral("var/lib/dpkg/info")));
    const QStringList dpkg = {QStringLiteral("--root=") + root.path(), QStringLiteral("--force-depends"),
                              QStringLiteral("--force-script-chrootless"), QStringLiteral("--force-not-root")};
    const RunResult install = runProgram(QStringLiteral("dpkg"), dpkg + QStringList{QStringLiteral("-i"), deb});
    QVERIFY2(install.exitCode == 0, install.standardOutput + install.standardError);
    QCOMPARE(filesBelow(root.path()).filter(QRegularExpression(QStringLiteral("^(usr|etc)/"))),
             filesBelow(m_stage.path()));

    const RunResult remove = runProgram(QStringLiteral("dpkg"), dpkg + QStringList{QStringLiteral("--purge"), QStringLiteral("quillet")});
    QVERIFY2(remove.exitCode == 0, remove.standardOutput + remove.standardError);
    QCOMPARE(filesBelow(root.path()).filter(QRegularExpression(QStringLiteral("^(usr|etc)/"))), QStringList());
}

QTEST_GUILESS_MAIN(TestInstallation)
#include "tst_installation.moc"
