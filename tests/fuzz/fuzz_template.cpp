// libFuzzer target: the marker template reader with variable expansion, and
// the marker blocks drawn from it (first, middle and last page, fonarik), with
// and without print-safe output.
#include "fuzzsupport.h"

#include "fonts/fonts.h"
#include "marker/marker.h"
#include "settings/variables.h"

#include <QBuffer>

namespace
{

// Job variables and placement definitions the texts can refer to.
const char JobVariables[] = "job-originating-user-name=alice@EXAMPLE.ORG\n"
                            "LABEL_NAME=CONFIDENTIAL_INTERNAL\n"
                            "mac-job-mac-level-name=LEVEL_2\n"
                            "copies=2\nCURRENT_COPY=1\nPAGE_FORMAT=A4\nLANDSCAPE=0,1\n"
                            "MarkerTopShift=10\nMarkerBottomShift=12\nMarkerLeftShift=20\n"
                            "MarkerRightShift=22\nMarkerStringInterval=3\n"
                            "DATE=01.02.2024\nTIME=10:20:30\nNUM_PAGES=3\nNUM_PAGES_CONTINUOUS=6\n";

void drawPages(QIODevice& out)
{
    const Marker& marker = Marker::instance();
    Variables& variables = Variables::instance();
    for (int page = 1; page <= 3; ++page) {
        variables.insert(QStringLiteral("CURRENT_PAGE"), QString::number(page));
        variables.insert(QStringLiteral("CURRENT_PAGE_CONTINUOUS"), QString::number(page + 3));
        marker.drawMarker(out, page, page == 3);
    }
    marker.drawFonarik(out, 2);
    marker.drawFonarik(out, 7);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::initialize();
    Fuzz::installTinyCatalogue();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (Fuzz::runsPrograms(data, size))
        return 0;
    Fuzz::resetSingletons();

    Variables& variables = Variables::instance();
    QBuffer job;
    job.setData(JobVariables);
    job.open(QIODevice::ReadOnly);
    variables.read(job);

    QBuffer templateDevice;
    templateDevice.setData(reinterpret_cast<const char*>(data), int(size));
    templateDevice.open(QIODevice::ReadOnly);
    Marker& marker = Marker::instance();
    marker.readTemplate(templateDevice);

    Fonts& fonts = Fonts::instance();
    fonts.initialize(QStringLiteral("utf-8"));
    fonts.setMarkerStyles(marker.fontStyles());

    QBuffer out;
    out.open(QIODevice::WriteOnly);
    fonts.writeFontResources(out);
    drawPages(out);
    variables.insert(QStringLiteral("MarkerSafeOutput"), QStringLiteral("1"));
    fonts.writeFontResources(out);
    drawPages(out);
    return 0;
}
