// Position keys of the template.
#include "marker/markerpositions.h"

const QRegularExpression& pointPositionPattern()
{
    static const QRegularExpression pattern(QStringLiteral("\\{([0-9,.]+);([0-9,.]+)\\}"));
    return pattern;
}

const QRegularExpression& millimetrePositionPattern()
{
    static const QRegularExpression pattern(QStringLiteral("\\{([0-9,.]+)mm;([0-9,.]+)mm\\}"));
    return pattern;
}
