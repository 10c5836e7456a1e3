// Helper of tst_markerpage: writes a one-page PostScript document whose page
// ends with the marker block, the way the filter prepares and paints it.
//
//   tst_markerpage_writer <template> <definitions> <output>
//
// The definitions file holds "key=value" lines for the store. The font
// catalogue is read from the CUPS data directory, so the helper runs inside
// the test sandbox with a catalogue bound there. Exit status 0 on success,
// 2 on a file problem, 3 when the font catalogue cannot be read.
#include "fonts/fonts.h"
#include "marker/marker.h"
#include "settings/variables.h"

#include <QCoreApplication>
#include <QFile>

#include <cstdio>

namespace {

// The page's own content: a frame and a word in a base font of the
// catalogue, so that the marker block runs after ordinary page content.
const char PageContent[] = "<< /PageSize [595 842] >> setpagedevice\n"
                           "0.5 setgray newpath 100 300 moveto 495 300 lineto 495 600 lineto 100 600 lineto\n"
                           "closepath stroke 0 setgray\n"
                           "/NimbusSans-Regular findfont 20 scalefont setfont 250 450 moveto (BODYTEXT) show\n";

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 4) {
        std::fprintf(stderr, "usage: tst_markerpage_writer <template> <definitions> <output>\n");
        return 2;
    }

    QFile definitions(arguments.at(2));
    if (!definitions.open(QIODevice::ReadOnly))
        return 2;
    Variables::instance().read(definitions);

    QFile markerTemplate(arguments.at(1));
    if (!markerTemplate.open(QIODevice::ReadOnly))
        return 2;
    Marker& marker = Marker::instance();
    marker.readTemplate(markerTemplate);

    Fonts& fonts = Fonts::instance();
    if (!fonts.initialize(marker.charset()))
        return 3;
    fonts.setMarkerStyles(marker.fontStyles());

    QFile output(arguments.at(3));
    if (!output.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return 2;
    output.write("%!PS\n");
    // Print-safe blocks call procedures that the document filter defines
    // after the first line.
    if (Variables::instance().safeOutput())
        Marker::writeBlockProcedures(output);
    fonts.writeFontResources(output);
    output.write(PageContent);
    marker.drawMarker(output, 1, true);
    output.write("showpage\n");
    return 0;
}
