// Numbers that the output may carry: only what every PostScript interpreter reads.
#pragma once

#include <QString>

// The longest number text, blanks around it aside, that is copied into the
// output as written.
inline constexpr int MaxPostScriptNumberLength = 32;

// Whether a value can be written as a PostScript real: finite and within the
// range of the interpreters' single-precision reals (zero, or a magnitude
// from the smallest normal to the largest finite single-precision value).
bool isPostScriptReal(double value);

// Whether a text, blanks around it aside, is a number in PostScript's own
// syntax (an optional sign, decimal digits with at most one point, an
// optional exponent), at most MaxPostScriptNumberLength characters long, and
// its value a PostScript real. "nan", "inf" and the like are not.
bool isPostScriptNumber(const QString& text);
