// The printer's own set-up code for a marked job, from the queue's PPD: what
// the job's options select (paper, tray, two-sided printing, ...) as the
// printer description writes it, so that the flat pages that are marked keep
// the job's printer features.
#pragma once

#include <QByteArray>
#include <QString>

struct PrinterSetup {
    // PostScript for the start of the stream: the PPD's document and
    // any-order feature code for the marked options.
    QByteArray code;
    // Why the job cannot be printed as asked; empty when it can.
    QString error;
};

// Reads the PPD (an empty name or an unreadable file gives no code) and
// marks its defaults and the job's options. With `twoSided` the job prints
// on both sides whatever it asked for: a PPD without a two-sided choice is
// an error then.
PrinterSetup printerSetup(const QString& ppdFile, const QByteArray& options, bool twoSided);
