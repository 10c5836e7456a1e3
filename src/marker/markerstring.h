// One marker string of the template and the id tables of page types and font styles.
#pragma once

#include <QList>
#include <QMap>
#include <QSharedPointer>
#include <QString>

// Page types of the template, by their position in this list of words.
namespace MarkerPageType {
enum : int { First = 0, Last = 1, Any = 2, Fonarik = 3, FonarikGt5 = 4 };
inline constexpr const char* Words[] = {"first", "last", "any", "fonarik", "fonarik_gt_5"};
inline constexpr int Count = 5;
} // namespace MarkerPageType

// Font styles of the template; an unknown style word means Normal.
namespace MarkerFontStyle {
enum : int { Normal = 0, Bold = 1, Italic = 2, BoldItalic = 3 };
inline constexpr const char* Words[] = {"normal", "bold", "italic", "bolditalic"};
inline constexpr int Count = 4;
} // namespace MarkerFontStyle

// One string to print, shared between the model and the per-page copies of
// its maps.
struct MarkerString
{
    QString text;         // the template's text, references still in it
    QString expandedText; // the text that is shown
    int fontStyle = MarkerFontStyle::Normal;
    QString extra;        // the template's fifth field, kept verbatim
    float fontSize = 12.0f;
    bool expanded = false; // expandedText is final (expanded at load time)
    bool underline = false;
};

using MarkerStringPtr = QSharedPointer<MarkerString>;

// The strings of one position, in template order.
using MarkerStringList = QList<MarkerStringPtr>;

// Position key (as written in the template) to its strings.
using MarkerPositionMap = QMap<QString, MarkerStringList>;
