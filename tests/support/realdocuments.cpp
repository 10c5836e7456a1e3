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

namespace {

// Inserts text before the first line (from the start of a line) that begins
// with prefix; false when there is none.
bool insertBeforeLine(QByteArray& document, const QByteArray& prefix, const QByteArray& text, int from = 0)
{
    for (int at = document.indexOf(prefix, from); at >= 0; at = document.indexOf(prefix, at + 1)) {
        if (at == 0 || document.at(at - 1) == '\n') {
            document.insert(at, text);
            return true;
        }
    }
    return false;
}

} // namespace

QList<RealDocument> makePrintSafePatterns(const QString& folder, QString* error)
{
    const QString sources = testsSourceDir() + QStringLiteral("/document/realdocs");
    const QDir work(folder);
    auto make = [&work](const char* name) { return work.filePath(QLatin1String(name)); };
    auto run = [&](const QString& program, const QStringList& arguments, const QString& stdoutFile = {}) {
        return runTool(folder, program, arguments, error, stdoutFile);
    };
    const QStringList ghostscript = {QStringLiteral("-q"), QStringLiteral("-dSAFER"), QStringLiteral("-dBATCH"),
                                     QStringLiteral("-dNOPAUSE")};
    QList<RealDocument> documents;

    // The notice as an EPS figure, in a saved VM from the header to the trailer.
    const QString notice = make("notice.ps");
    const QString figure = make("notice.eps");
    if (!run(QStringLiteral("groff"),
             {QStringLiteral("-ms"), QStringLiteral("-Tps"), QStringLiteral("-dpaper=a4"), QStringLiteral("-P-pa4"),
              sources + QStringLiteral("/notice.ms")},
             notice)
        || !run(QStringLiteral("gs"), QStringList(ghostscript) << QStringLiteral("-sDEVICE=eps2write")
                                                                << QStringLiteral("-sOutputFile=") + figure << notice))
        return {};
    QByteArray wrapped = readFile(figure);
    const int headerEnd = wrapped.indexOf('\n') + 1;
    if (headerEnd <= 0 || !wrapped.startsWith("%!")) {
        *error = QStringLiteral("eps2write made no PostScript header in %1").arg(figure);
        return {};
    }
    wrapped.insert(headerEnd, "/jobsave save def\n");
    if (!insertBeforeLine(wrapped, "%%EOF", "jobsave restore\nshowpage\n", wrapped.lastIndexOf("\n%%Trailer"))) {
        *error = QStringLiteral("eps2write made no trailer in %1").arg(figure);
        return {};
    }
    const QString saved = make("notice-vm-save.ps");
    if (!writeFile(saved, wrapped))
        return {};
    documents.append({QStringLiteral("vm-save"), QStringLiteral("groff notice through eps2write, VM saved from the "
                                                                "header to the trailer"),
                      saved});

    // The report on Letter paper through ps2write.
    const QString letter = make("report-letter.ps");
    const QString rewritten = make("report-letter-ps2write.ps");
    if (!run(QStringLiteral("groff"),
             {QStringLiteral("-t"), QStringLiteral("-p"), QStringLiteral("-ms"), QStringLiteral("-Tps"),
              QStringLiteral("-dpaper=letter"), QStringLiteral("-P-pletter"),
              sources + QStringLiteral("/maintenance-report.ms")},
             letter)
        || !run(QStringLiteral("gs"), QStringList(ghostscript) << QStringLiteral("-sDEVICE=ps2write")
                                                                << QStringLiteral("-sOutputFile=") + rewritten << letter))
        return {};
    documents.append({QStringLiteral("ps2write-letter"),
                      QStringLiteral("groff report on Letter paper through ps2write"), rewritten});

    // A listing whose pages end in a tiny coordinate system: enscript ends
    // every page with "_R" (its restore) and "S" (its showpage).
    QByteArray listing;
    for (int line = 1; line <= 150; ++line)
        listing += "Line " + QByteArray::number(line) + " of the queue log: job accepted, marked and sent.\n";
    const QString text = make("queue-log.txt");
    const QString enscript = make("queue-log.ps");
    if (!writeFile(text, listing)
        || !run(QStringLiteral("enscript"),
                {QStringLiteral("-q"), QStringLiteral("--media=A4"), QStringLiteral("-p"), enscript, text}))
        return {};
    QByteArray scaled = readFile(enscript);
    const int pages = scaled.count("\n_R\nS\n");
    scaled.replace("\n_R\nS\n", "\n_R\n0.001 0.001 scale\nS\n");
    if (pages < 2) {
        *error = QStringLiteral("enscript made %1 page ends of the expected form in %2").arg(pages).arg(enscript);
        return {};
    }
    const QString scaledFile = make("queue-log-scaled.ps");
    if (!writeFile(scaledFile, scaled))
        return {};
    documents.append({QStringLiteral("scaled-page-end"),
                      QStringLiteral("enscript listing whose pages end in a tiny coordinate system"), scaledFile});
    return documents;
}
