// Choosing what the printer is sent, and the conversion that writes it.
#include "backend/printeroutput.h"

#include "backend/sheetcount.h"
#include "common/paths.h"

#include <QFile>

#include <cups/cups.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <strings.h>

namespace
{

// The printer attributes the backend asks for.
const char* const AskedAttributes[] = {
    "document-format-supported",
    "pwg-raster-document-resolution-supported",
    "pwg-raster-document-type-supported",
    "pwg-raster-document-sheet-back",
    "urf-supported",
    "sides-supported",
    "media-col-default",
    "media-bottom-margin-supported",
    "media-left-margin-supported",
    "media-right-margin-supported",
    "media-top-margin-supported",
};

// Formats in the order the backend prefers them, with their setting value
// and media type: PostScript keeps the printer's own rendering, PDF keeps
// the pages as vectors, the rasters are rendered on the server.
struct FormatInfo {
    OutputFormat format;
    const char* setting;
    const char* mediaType;
};
const FormatInfo Formats[] = {
    {OutputFormat::PostScript, "postscript", "application/postscript"},
    {OutputFormat::Pdf, "pdf", "application/pdf"},
    {OutputFormat::PwgRaster, "pwg-raster", "image/pwg-raster"},
    {OutputFormat::AppleRaster, "urf", "image/urf"},
    {OutputFormat::PclXl, "pcl", "application/vnd.hp-pclxl"},
};

const FormatInfo& info(OutputFormat format)
{
    for (const FormatInfo& entry : Formats) {
        if (entry.format == format)
            return entry;
    }
    return Formats[0];
}

// A raster for a printer that could not be asked: gray, at a resolution
// every raster printer takes.
constexpr int DefaultResolution = 300;
const char DefaultColour[] = "sgray_8";

// Raster colour types in the order the backend prefers them (colour
// documents keep their colour), with Ghostscript's colour space and bits per
// colour for them, and the Apple raster keyword of the same type.
struct ColourInfo {
    const char* pwgType;
    const char* urfType;
    int colorSpace;
    int bitsPerColor;
};
const ColourInfo Colours[] = {
    {"srgb_8", "SRGB24", 19, 8},
    {"sgray_8", "W8", 18, 8},
    {"black_1", nullptr, 3, 1},
};

const ColourInfo* colourInfo(const QString& pwgType)
{
    for (const ColourInfo& entry : Colours) {
        if (pwgType == QLatin1String(entry.pwgType))
            return &entry;
    }
    return nullptr;
}

// Apple raster's back-side keywords, and PWG raster's names, as
// Ghostscript's raster devices call them.
struct BackSideInfo {
    const char* urf;
    const char* pwg;
    const char* device;
};
const BackSideInfo BackSides[] = {
    {"DM1", "normal", "Normal"},
    {"DM2", "flipped", "Flipped"},
    {"DM3", "rotated", "Rotated"},
    {"DM4", "manual-tumble", "ManualTumble"},
};

// Fits every page inside the printer's margins, centred, at one scale for
// both directions: Ghostscript runs Install whenever a page size is set, and
// what it does to the coordinate system becomes the page's default. The
// pages must be flat (a PDF): a page that measures its own clip, as the
// marks do, would still find the paper's edges.
// %1..%4: left, bottom, right and top margins in points.
const char FitToMargins[] =
    "<< /Install { 4 dict begin currentpagedevice /PageSize get aload pop /h exch def /w exch def "
    "/s w %1 %3 add sub w div h %2 %4 add sub h div 2 copy gt { exch } if pop def "
    "%1 w %1 %3 add sub w s mul sub 2 div add %2 h %2 %4 add sub h s mul sub 2 div add translate "
    "s s scale end } bind >> setpagedevice";

// Job options that a printer would apply to the pages it gets: the marked
// pages already hold their layout and every copy, so the printer must print
// them as they are.
const char* const PageChangingOptions[] = {
    "copies",
    "page-ranges",
    "page-set",
    "number-up",
    "number-up-layout",
    "page-border",
    "fit-to-page",
    "print-scaling",
    "scaling",
    "natural-scaling",
    "ppi",
    "position",
    "landscape",
    "orientation-requested",
    "mirror",
    "outputorder",
    "page-delivery",
    "multiple-document-handling",
    "collate",
    "job-sheets",
};

QStringList stringValues(ipp_t* response, const char* name)
{
    QStringList values;
    ipp_attribute_t* attribute = ippFindAttribute(response, name, IPP_TAG_ZERO);
    for (int i = 0; attribute && i < ippGetCount(attribute); ++i) {
        if (const char* value = ippGetString(attribute, i, nullptr))
            values << QString::fromUtf8(value);
    }
    return values;
}

// The widest value of an integer attribute; 0 when absent.
int widest(ipp_t* response, const char* name)
{
    int value = 0;
    ipp_attribute_t* attribute = ippFindAttribute(response, name, IPP_TAG_INTEGER);
    for (int i = 0; attribute && i < ippGetCount(attribute); ++i)
        value = std::max(value, ippGetInteger(attribute, i));
    return value;
}

void readMargins(ipp_t* response, PrinterCapabilities* printer)
{
    static const char* const Sides[] = {"media-left-margin", "media-bottom-margin", "media-right-margin",
                                        "media-top-margin"};
    ipp_attribute_t* mediaCol = ippFindAttribute(response, "media-col-default", IPP_TAG_BEGIN_COLLECTION);
    ipp_t* collection = mediaCol ? ippGetCollection(mediaCol, 0) : nullptr;
    for (int side = 0; side < 4; ++side) {
        ipp_attribute_t* margin =
            collection ? ippFindAttribute(collection, Sides[side], IPP_TAG_INTEGER) : nullptr;
        printer->margins[side] = margin
                                     ? std::max(0, ippGetInteger(margin, 0))
                                     : widest(response, (QByteArray(Sides[side]) + "-supported").constData());
    }
}

// The listed resolution nearest to the default one, the finer on a tie.
int chooseResolution(const QList<int>& resolutions)
{
    int best = 0;
    for (int dpi : resolutions) {
        const int distance = std::abs(dpi - DefaultResolution);
        const int bestDistance = std::abs(best - DefaultResolution);
        if (best == 0 || distance < bestDistance || (distance == bestDistance && dpi > best))
            best = dpi;
    }
    return best;
}

// Apple raster's resolutions: "RS300" or "RS300-600".
QList<int> urfResolutions(const QStringList& urf)
{
    QList<int> resolutions;
    for (const QString& keyword : urf) {
        if (!keyword.startsWith(QLatin1String("RS")))
            continue;
        for (const QString& value : keyword.mid(2).split(QLatin1Char('-'), Qt::SkipEmptyParts)) {
            bool ok = false;
            const int dpi = value.toInt(&ok);
            if (ok && dpi > 0)
                resolutions << dpi;
        }
    }
    return resolutions;
}

void planRaster(const PrinterCapabilities& printer, bool asked, OutputPlan* plan)
{
    const bool apple = plan->format == OutputFormat::AppleRaster;
    if (!asked) {
        plan->resolution = DefaultResolution;
        plan->colour = QLatin1String(DefaultColour);
        plan->backSide = QStringLiteral("Normal");
        return;
    }
    const QList<int> resolutions = apple ? urfResolutions(printer.urf) : printer.rasterResolutions;
    plan->resolution = chooseResolution(resolutions);
    for (const ColourInfo& colour : Colours) {
        const bool listed = apple ? colour.urfType && printer.urf.contains(QLatin1String(colour.urfType))
                                  : printer.rasterTypes.contains(QLatin1String(colour.pwgType));
        if (listed) {
            plan->colour = QLatin1String(colour.pwgType);
            break;
        }
    }
    plan->backSide = QStringLiteral("Normal");
    for (const BackSideInfo& side : BackSides) {
        if (apple ? printer.urf.contains(QLatin1String(side.urf))
                  : printer.rasterBackSide == QLatin1String(side.pwg))
            plan->backSide = QLatin1String(side.device);
    }
    const QString name = formatName(plan->format);
    if (plan->resolution == 0)
        plan->error = QStringLiteral("the printer lists no %1 resolution").arg(name);
    else if (plan->colour.isEmpty())
        plan->error =
            QStringLiteral("the printer lists no %1 colour type that quillet writes (%2)")
                .arg(name, apple ? QStringLiteral("W8, SRGB24") : QStringLiteral("black_1, sgray_8, srgb_8"));
}

// What CUPS's ipp backend writes once the printer has created the job.
const char AcceptedJobLine[] = "DEBUG: Print job accepted - job ID ";

// A connection to the printer of an ipp:// or ipps:// URI (encrypted for
// ipps), each request bounded by the time-out.
struct PrinterConnection {
    PrinterConnection(const QString& printerUri, int timeoutMs) : uri(printerUri.toUtf8())
    {
        char scheme[32], userpass[256], host[256];
        int port = 0;
        if (httpSeparateURI(HTTP_URI_CODING_ALL, uri.constData(), scheme, sizeof scheme, userpass,
                            sizeof userpass, host, sizeof host, &port, resource,
                            sizeof resource) < HTTP_URI_STATUS_OK) {
            error = QStringLiteral("the printer's URI cannot be read");
            return;
        }
        const bool secure = !strcmp(scheme, "ipps") || !strcmp(scheme, "https");
        http = httpConnect2(host, port, nullptr, AF_UNSPEC,
                            secure ? HTTP_ENCRYPTION_ALWAYS : HTTP_ENCRYPTION_IF_REQUESTED, 1, timeoutMs,
                            nullptr);
        if (!http) {
            error = QStringLiteral("the printer does not answer (%1)")
                        .arg(QString::fromUtf8(cupsLastErrorString()));
            return;
        }
        httpSetTimeout(http, timeoutMs / 1000.0, nullptr, nullptr);
    }
    ~PrinterConnection()
    {
        if (http)
            httpClose(http);
    }
    PrinterConnection(const PrinterConnection&) = delete;
    PrinterConnection& operator=(const PrinterConnection&) = delete;

    QByteArray uri;
    char resource[1024] = "";
    http_t* http = nullptr;
    QString error;
};

} // namespace

bool canAskPrinter(const QString& scheme)
{
    return scheme == QLatin1String("ipp") || scheme == QLatin1String("ipps") ||
           scheme == QLatin1String("http") || scheme == QLatin1String("https");
}

PrinterCapabilities askPrinter(const QString& uri, int timeoutMs)
{
    PrinterCapabilities printer;
    PrinterConnection connection(uri, timeoutMs);
    if (!connection.error.isEmpty()) {
        printer.error = connection.error;
        return printer;
    }
    ipp_t* request = ippNewRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, connection.uri.constData());
    ippAddStrings(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes",
                  int(sizeof AskedAttributes / sizeof AskedAttributes[0]), nullptr, AskedAttributes);
    ipp_t* response = cupsDoRequest(connection.http, request, connection.resource);
    if (!response || ippGetStatusCode(response) > IPP_STATUS_OK_CONFLICTING) {
        printer.error = QStringLiteral("the printer does not tell what it accepts (%1)")
                            .arg(QString::fromUtf8(cupsLastErrorString()));
    } else {
        printer.formats = stringValues(response, "document-format-supported");
        ipp_attribute_t* resolutions =
            ippFindAttribute(response, "pwg-raster-document-resolution-supported", IPP_TAG_RESOLUTION);
        for (int i = 0; resolutions && i < ippGetCount(resolutions); ++i) {
            int down = 0;
            ipp_res_t units = IPP_RES_PER_INCH;
            const int across = ippGetResolution(resolutions, i, &down, &units);
            if (across == down && across > 0)
                printer.rasterResolutions << (units == IPP_RES_PER_CM ? qRound(across * 2.54) : across);
        }
        printer.rasterTypes = stringValues(response, "pwg-raster-document-type-supported");
        printer.rasterBackSide = stringValues(response, "pwg-raster-document-sheet-back").value(0);
        printer.urf = stringValues(response, "urf-supported");
        printer.sides = stringValues(response, "sides-supported");
        readMargins(response, &printer);
    }
    ippDelete(response);
    return printer;
}

int printerJobState(const QString& uri, int jobId, int timeoutMs)
{
    PrinterConnection connection(uri, timeoutMs);
    if (!connection.error.isEmpty())
        return -1;
    ipp_t* request = ippNewRequest(IPP_OP_GET_JOB_ATTRIBUTES);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, connection.uri.constData());
    ippAddInteger(request, IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", jobId);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", nullptr, "job-state");
    ipp_t* response = cupsDoRequest(connection.http, request, connection.resource);
    ipp_attribute_t* state = response && ippGetStatusCode(response) <= IPP_STATUS_OK_CONFLICTING
                                 ? ippFindAttribute(response, "job-state", IPP_TAG_ENUM)
                                 : nullptr;
    const int value = state ? ippGetInteger(state, 0) : -1;
    ippDelete(response);
    return value;
}

int acceptedPrinterJob(const QByteArray& line)
{
    if (!line.startsWith(AcceptedJobLine) || !line.endsWith('.'))
        return 0;
    bool ok = false;
    const int id = line.mid(int(qstrlen(AcceptedJobLine)), line.size() - int(qstrlen(AcceptedJobLine)) - 1)
                       .toInt(&ok, 10);
    return ok && id > 0 ? id : 0;
}

bool isOutputFormatSetting(const QString& value)
{
    if (value.isEmpty() || value == QLatin1String("auto"))
        return true;
    for (const FormatInfo& entry : Formats) {
        if (value == QLatin1String(entry.setting))
            return true;
    }
    return false;
}

QString formatName(OutputFormat format)
{
    return QLatin1String(info(format).setting);
}

QByteArray mediaType(OutputFormat format)
{
    return info(format).mediaType;
}

OutputPlan planOutput(const QString& setting, bool asked, const PrinterCapabilities& printer, bool twoSided)
{
    OutputPlan plan;
    if (setting.isEmpty() || setting == QLatin1String("auto")) {
        if (!asked)
            return plan; // a printer that cannot be asked gets PostScript
        bool found = false;
        for (const FormatInfo& entry : Formats) {
            if (entry.format != OutputFormat::PclXl &&
                printer.formats.contains(QLatin1String(entry.mediaType))) {
                plan.format = entry.format;
                found = true;
                break;
            }
        }
        if (!found) {
            plan.error =
                QStringLiteral("the printer accepts none of the formats quillet sends (PostScript, PDF, "
                               "PWG raster, Apple raster); it lists: %1")
                    .arg(printer.formats.join(QStringLiteral(", ")));
            return plan;
        }
    } else {
        for (const FormatInfo& entry : Formats) {
            if (setting == QLatin1String(entry.setting))
                plan.format = entry.format;
        }
        // A printer that was asked must list the format the queue names.
        if (asked && !printer.formats.contains(QLatin1String(mediaType(plan.format)))) {
            plan.error = QStringLiteral("the queue sends %1, which the printer does not accept; it lists: %2")
                             .arg(setting, printer.formats.join(QStringLiteral(", ")));
            return plan;
        }
    }
    if (plan.format == OutputFormat::PwgRaster || plan.format == OutputFormat::AppleRaster)
        planRaster(printer, asked, &plan);
    plan.twoSided = twoSided;
    if (asked && twoSided && !printer.sides.contains(QLatin1String("two-sided-long-edge")))
        plan.error = QStringLiteral("the queue prints back pages, but the printer does not print two-sided");
    if (asked && plan.format != OutputFormat::PostScript) {
        for (int side = 0; side < 4; ++side)
            plan.margins[side] = printer.margins.at(side) * 72.0 / 2540.0;
    }
    return plan;
}

bool fitsInsideMargins(const OutputPlan& plan)
{
    return std::any_of(plan.margins.begin(), plan.margins.end(), [](double margin) { return margin > 0; });
}

QList<QByteArray> conversionCommand(const OutputPlan& plan, const QString& output, const QString& input)
{
    QList<QByteArray> command{GhostscriptPath, "-q", "-dSAFER", "-dBATCH", "-dNOPAUSE"};
    switch (plan.format) {
    case OutputFormat::PostScript:
    case OutputFormat::Pdf:
        command << "-sDEVICE=pdfwrite"
                << "-dAutoRotatePages=/None";
        break;
    case OutputFormat::PwgRaster:
    case OutputFormat::AppleRaster: {
        const ColourInfo* colour = colourInfo(plan.colour);
        command << (plan.format == OutputFormat::PwgRaster ? "-sDEVICE=pwgraster" : "-sDEVICE=urf")
                << "-r" + QByteArray::number(plan.resolution)
                << "-dcupsColorSpace=" + QByteArray::number(colour ? colour->colorSpace : 18)
                << "-dcupsBitsPerColor=" + QByteArray::number(colour ? colour->bitsPerColor : 8)
                << "-scupsBackSideOrientation=" + plan.backSide.toLatin1();
        // The raster says which pages are backs, whatever the pages it is
        // drawn from say.
        if (plan.twoSided)
            command << "-dDuplex=true"
                    << "-dTumble=false";
        break;
    }
    case OutputFormat::PclXl:
        command << "-sDEVICE=pxlmono";
        break;
    }
    command << "-sOutputFile=" + QFile::encodeName(output);
    if (fitsInsideMargins(plan)) {
        QString fit = QLatin1String(FitToMargins);
        for (double margin : plan.margins)
            fit = fit.arg(margin, 0, 'f', 2);
        command << "-c" << fit.toLatin1() << "-f";
    }
    // "-_" reads standard input in blocks.
    command << (input.isEmpty() ? QByteArray("-_") : QFile::encodeName(input));
    return command;
}

QByteArray printerJobOptions(const QByteArray& jobOptions, bool twoSided)
{
    cups_option_t* options = nullptr;
    int count = cupsParseOptions(jobOptions.constData(), 0, &options);
    QByteArray kept;
    for (int i = 0; i < count; ++i) {
        const char* name = options[i].name;
        const bool changesPages =
            std::any_of(std::begin(PageChangingOptions), std::end(PageChangingOptions),
                        [name](const char* dropped) { return strcasecmp(name, dropped) == 0; });
        const bool choosesSides = !strcasecmp(name, "sides") || !strcasecmp(name, "Duplex");
        if (changesPages || (twoSided && choosesSides))
            continue;
        // Quoted only where the value would otherwise not read back as one.
        QByteArray value(options[i].value);
        if (value.isEmpty() || std::any_of(value.begin(), value.end(), [](char c) {
                return c == ' ' || c == '\t' || c == '\n' || c == '\'' || c == '"' || c == '\\';
            })) {
            value.replace('\\', "\\\\").replace('\'', "\\'");
            value = "'" + value + "'";
        }
        kept += (kept.isEmpty() ? "" : " ") + QByteArray(name) + "=" + value;
    }
    cupsFreeOptions(count, options);
    if (twoSided)
        kept += (kept.isEmpty() ? "" : " ") + QByteArray("sides=two-sided-long-edge");
    return kept;
}

qint64 countConvertedPages(OutputFormat format, QIODevice& file)
{
    switch (format) {
    case OutputFormat::PwgRaster:
        return countPwgRasterPages(file);
    case OutputFormat::AppleRaster:
        return countAppleRasterPages(file);
    case OutputFormat::PclXl:
        return countPclXlPages(file);
    default:
        return -1;
    }
}
