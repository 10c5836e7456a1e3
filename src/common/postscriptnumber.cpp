// Numbers that the output may carry.
#include "common/postscriptnumber.h"

#include <QRegularExpression>

#include <cfloat>
#include <cmath>

bool isPostScriptReal(double value)
{
    const double magnitude = std::fabs(value);
    return std::isfinite(value) &&
           (magnitude == 0.0 || (magnitude >= double(FLT_MIN) && magnitude <= double(FLT_MAX)));
}

bool isPostScriptNumber(const QString& text)
{
    static const QRegularExpression syntax(
        QStringLiteral("\\A[+-]?([0-9]+\\.?[0-9]*|\\.[0-9]+)([eE][+-]?[0-9]+)?\\z"));
    const QString number = text.trimmed();
    if (number.size() > MaxPostScriptNumberLength || !syntax.match(number).hasMatch())
        return false;
    bool ok = false;
    const double value = number.toDouble(&ok);
    return ok && isPostScriptReal(value);
}
