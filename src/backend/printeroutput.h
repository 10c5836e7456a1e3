// What the printer is sent: the marked stream as PostScript, or converted
// by Ghostscript into a format that a printer without PostScript takes (PDF,
// PWG raster, Apple raster, PCL XL). A driverless printer is asked what it
// accepts; a printer that cannot be asked gets what the queue's setting
// names, PostScript by default.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

class QIODevice;

enum class OutputFormat { PostScript, Pdf, PwgRaster, AppleRaster, PclXl };

// What a driverless printer answered to Get-Printer-Attributes.
struct PrinterCapabilities {
    // document-format-supported
    QStringList formats;
    // pwg-raster-document-resolution-supported, in dots per inch (only the
    // resolutions with the same value across and down)
    QList<int> rasterResolutions;
    // pwg-raster-document-type-supported, for example "sgray_8"
    QStringList rasterTypes;
    // pwg-raster-document-sheet-back: normal, flipped, rotated, manual-tumble
    QString rasterBackSide;
    // urf-supported, for example "W8", "SRGB24", "RS300-600", "DM3"
    QStringList urf;
    // sides-supported
    QStringList sides;
    // The margins of the paper the printer prints on by default
    // (media-col-default), else the widest it lists for each side, in
    // hundredths of a millimetre: left, bottom, right, top.
    QList<int> margins{0, 0, 0, 0};
    // Why the printer could not be asked; empty when it answered.
    QString error;
};

// Whether a device URI's scheme names a printer that can be asked (IPP).
bool canAskPrinter(const QString& scheme);

// Asks the printer at `uri` (ipp://, ipps://) what it accepts.
PrinterCapabilities askPrinter(const QString& uri, int timeoutMs);

// The state of job `jobId` at the printer at `uri` (ipp://, ipps://), as
// IPP numbers it (7 canceled, 8 aborted, 9 completed, lower while it is
// still on its way); -1 when the printer does not say.
int printerJobState(const QString& uri, int jobId, int timeoutMs);

// The printer's job number in a line that CUPS's ipp backend writes once it
// has created the job ("DEBUG: Print job accepted - job ID 12."); 0 for
// every other line.
int acceptedPrinterJob(const QByteArray& line);

// How a job is written for its printer.
struct OutputPlan {
    OutputFormat format = OutputFormat::PostScript;
    // Rasters: dots per inch and the colour type ("srgb_8", "sgray_8",
    // "black_1").
    int resolution = 0;
    QString colour;
    // Printed on both sides of the sheet (long edge), and for rasters how
    // the printer wants the back of a sheet ("Normal", "Flipped", "Rotated",
    // "ManualTumble").
    bool twoSided = false;
    QString backSide;
    // The printer's margins in points (left, bottom, right, top): pages are
    // fitted inside them, marks included. All zero: pages are sent as drawn.
    QList<double> margins{0, 0, 0, 0};
    // Why the job cannot be written for the printer; empty when it can.
    QString error;
};

// The format and its details for a queue: `setting` is the value of
// MarkerOutputFormat ("" or "auto", "postscript", "pdf", "pwg-raster",
// "urf", "pcl"); `printer` is what the printer answered (when it was
// asked); `twoSided` asks for a printer that prints both sides.
OutputPlan planOutput(const QString& setting, bool asked, const PrinterCapabilities& printer, bool twoSided);

// Whether MarkerOutputFormat has a value the backend knows.
bool isOutputFormatSetting(const QString& value);

// The name of the format in messages and the audit ("pdf", "pwg-raster", ...).
QString formatName(OutputFormat format);

// The media type that the real backend announces to the printer.
QByteArray mediaType(OutputFormat format);

// Whether the plan fits the pages inside the printer's margins.
bool fitsInsideMargins(const OutputPlan& plan);

// The command that converts `input` (empty: standard input) into `output`
// for the plan's format, fitting the pages inside the plan's margins. Not
// used for PostScript.
QList<QByteArray> conversionCommand(const OutputPlan& plan, const QString& output, const QString& input);

// The job's options as the real backend gets them: without those that would
// make the printer change the marked pages (page ranges, n-up, scaling,
// orientation, copies), and two-sided on the long edge when `twoSided`.
QByteArray printerJobOptions(const QByteArray& jobOptions, bool twoSided);

// The number of pages in a converted file that the backend can count
// without rendering it (rasters and PCL XL), -1 when it is not a whole
// file of that format. PDF is counted by rendering it (see proof.h).
qint64 countConvertedPages(OutputFormat format, QIODevice& file);
