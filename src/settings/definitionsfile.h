// Where the marker definitions are read from.
#pragma once

#include <QString>

// The marker definitions file to read: the site's file in the CUPS
// configuration directory when it exists, else the shipped one in the
// program's own data subdirectory (which may be missing too).
QString markerDefinitionsFile();
