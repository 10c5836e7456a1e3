// The job's paper size: the PPD's default or the size the job asks for.
#pragma once

#include "backend/queuesettings.h"

#include <QByteArray>
#include <QString>

// A paper size by its PPD name, in PostScript points.
struct PaperSize {
    QString name;
    QString width;
    QString height;
};

// The size a job prints on: the job's "PageSize" option, else the first
// entry of its "media" option that names a size (PPD names and PWG
// self-describing names such as "iso_a4_210x297mm"), else the PPD's
// "*DefaultPageSize". Dimensions come from the PPD's "*PaperDimension" lines,
// or from the PWG size table for a size the PPD does not list. A name
// without known dimensions is returned without them.
PaperSize jobPaperSize(const QByteArray& ppd, const KeyValueList& options);
