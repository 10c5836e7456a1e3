// Helpers for tests of page codes: reading the codes printed on pages and
// what quillet-verify answers about them.
#pragma once

#include <QByteArray>
#include <QDate>
#include <QList>
#include <QString>
#include <QStringList>

// What quillet-verify said about one code.
struct Verdict {
    bool authentic = false;
    qint64 job = -1;
    int page = -1;
    int copy = -1;
    QDate date;
};

// Reads quillet-verify's answer lines, one per code in order; the indented
// audit lines under an answer are left out.
QList<Verdict> verdicts(const QByteArray& output);

// The indented audit lines that quillet-verify printed, without the indent.
QStringList verifyAuditLines(const QByteArray& output);

// The code printed after `caption` (and blanks) in a page's text, as
// pdftotext reads it; empty when the page shows none.
QString printedPageCode(const QString& pageText, const QString& caption);
