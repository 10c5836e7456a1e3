// Where the marker definitions are read from.
#include "settings/definitionsfile.h"

#include "common/paths.h"

#include <QFileInfo>

QString markerDefinitionsFile()
{
    // The site's file wins over the shipped one; only the shipped one lives
    // in the program's own subdirectory.
    const QString site = QLatin1String(CupsServerRoot) + QLatin1String("/marker.defs");
    if (QFileInfo::exists(site))
        return site;
    return QLatin1String(CupsDataDir) + QLatin1String("/quillet/marker.defs");
}
