#include "support/realdocuments.h"

#include "support/testsupport.h"

#include <QDir>
#include <QFileInfo>

QList<RealDocument> makeRealDocuments(const QString& folder, QString* error)
{
    const QString sources = testsSourceDir() + QStringLiteral("/document/realdocs");
    const QStringList paper = {QStringLiteral("-dpaper=a4"), QStringLiteral("-P-pa4")};
    const QDir work(folder);
    auto make = [&work](const char* name) { return work.filePath(QLatin1String(name)); };
    auto run = [&](const QString& program, const QStringList& arguments, const QString& stdoutFile = {}) {
        return runTool(folder, program, arguments, error, stdoutFile);
    };
    QList<RealDocument> documents;

    // A manual page installed on this machine, else one of our own.
    QString manualSource = make("ls.1");
    QString manualLabel = QStringLiteral("groff man page ls(1)");
    const QString installed = QStringLiteral("/usr/share/man/man1/ls.1.gz");
    if (QFileInfo::exists(installed)) {
        if (!run(QStringLiteral("gzip"), {QStringLiteral("-dc"), installed}, manualSource))
            return {};
    } else {
        manualSource = sources + QStringLiteral("/spoolclean.8");
        manualLabel = QStringLiteral("groff man page spoolclean(8)");
    }
    const QString manual = make("manual.ps");
    if (!run(QStringLiteral("groff"), QStringList{QStringLiteral("-man"), QStringLiteral("-Tps")} << paper << manualSource,
             manual))
        return {};
    documents.append({QStringLiteral("manual"), manualLabel, manual});

    // A report with a table and a drawing.
    const QString report = make("report.ps");
    if (!run(QStringLiteral("groff"),
             QStringList{QStringLiteral("-t"), QStringLiteral("-p"), QStringLiteral("-ms"), QStringLiteral("-Tps")}
                 << paper << sources + QStringLiteral("/maintenance-report.ms"),
             report))
        return {};
    documents.append({QStringLiteral("report"), QStringLiteral("groff -ms report"), report});

    // The report as PDF, turned back into PostScript by two converters.
    const QString reportPdf = make("report.pdf");
    const QString fromPdftops = make("report-pdftops.ps");
    const QString fromCairo = make("report-cairo.ps");
    if (!run(QStringLiteral("ps2pdf"), {report, reportPdf}) || !run(QStringLiteral("pdftops"), {reportPdf, fromPdftops})
        || !run(QStringLiteral("pdftocairo"), {QStringLiteral("-ps"), reportPdf, fromCairo}))
        return {};
    documents.append({QStringLiteral("pdftops"), QStringLiteral("report through ps2pdf and pdftops"), fromPdftops});
    documents.append({QStringLiteral("cairo"), QStringLiteral("report through ps2pdf and pdftocairo -ps"), fromCairo});

    // The manual page rewritten by Ghostscript.
    const QString fromPs2write = make("manual-ps2write.ps");
    if (!run(QStringLiteral("gs"), {QStringLiteral("-q"), QStringLiteral("-dSAFER"), QStringLiteral("-dBATCH"),
                                    QStringLiteral("-dNOPAUSE"), QStringLiteral("-sDEVICE=ps2write"),
                                    QStringLiteral("-sOutputFile=") + fromPs2write, manual}))
        return {};
    documents.append({QStringLiteral("ps2write"), QStringLiteral("man page through gs ps2write"), fromPs2write});
    return documents;
}
