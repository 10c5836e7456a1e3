// Numbers that the output may carry.
#include "common/postscriptnumber.h"

#include <QStringView>

#include <cfloat>
#include <cmath>

bool isPostScriptReal(double value)
{
    const double magnitude = std::fabs(value);
    return std::isfinite(value) &&
           (magnitude == 0.0 || (magnitude >= double(FLT_MIN) && magnitude <= double(FLT_MAX)));
}

namespace {

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

// Passes over the decimal digits at position i; returns how many there were.
int skipDigits(QStringView text, int& i)
{
    const int start = i;
    while (i < text.size() && isDigit(text[i]))
        ++i;
    return i - start;
}

// Whether a text is, as a whole, an optional sign, decimal digits with at most
// one point and at least one digit, and an optional exponent: "e" or "E", an
// optional sign and at least one digit.
bool hasNumberSyntax(QStringView text)
{
    int i = 0;
    if (i < text.size() && (text[i] == QLatin1Char('+') || text[i] == QLatin1Char('-')))
        ++i;
    int digits = skipDigits(text, i);
    if (i < text.size() && text[i] == QLatin1Char('.')) {
        ++i;
        digits += skipDigits(text, i);
    }
    if (digits == 0)
        return false;
    if (i < text.size() && (text[i] == QLatin1Char('e') || text[i] == QLatin1Char('E'))) {
        ++i;
        if (i < text.size() && (text[i] == QLatin1Char('+') || text[i] == QLatin1Char('-')))
            ++i;
        if (skipDigits(text, i) == 0)
            return false;
    }
    return i == text.size();
}

} // namespace

bool isPostScriptNumber(const QString& text)
{
    const QString number = text.trimmed();
    if (number.size() > MaxPostScriptNumberLength || !hasNumberSyntax(number))
        return false;
    bool ok = false;
    const double value = number.toDouble(&ok);
    return ok && isPostScriptReal(value);
}
