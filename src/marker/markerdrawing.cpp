// The PostScript marker block of a page: page measurement and placement
// definitions, then the strings of every position, each measured by the
// printer, painted on a white box, shown in black and optionally underlined.
#include "marker/marker.h"

#include "common/postscriptnumber.h"
#include "fonts/fonts.h"
#include "marker/markerpositions.h"
#include "settings/variables.h"

#include <QIODevice>
#include <QStringList>

#include <algorithm>

namespace {

// --- Common variables of a marker block ---------------------------------------

const char CommonVariablesHeader[] = "% Common variables:\n";
// - 90 rotate -  Turns the user space for a landscape page.
const char LandscapeRotate[] = "90 rotate\n";
// - ... llx lly urx ury  Measures the page's clip box.
const char MeasurePage[] = "initclip newpath clippath pathbbox closepath\n";
// llx lly urx ury ... -  Defines pageL, pageB, pageR, pageT.
const char DefinePageBox[] = "/pageT exch def /pageR exch def /pageB exch def /pageL exch def\n";

// The five placement definitions: PostScript name, key for regular markers,
// key for fonarik markers (behind the paper-format prefix).
struct PlacementKey
{
    const char* name;
    const char* markerKey;
    const char* fonarikKey;
};
const PlacementKey PlacementKeys[] = {
    {"markerTopShift", "MarkerTopShift", "FonarikTopShift"},
    {"markerBottomShift", "MarkerBottomShift", "FonarikBottomShift"},
    {"markerLeftShift", "MarkerLeftShift", "FonarikLeftShift"},
    {"markerRightShift", "MarkerRightShift", "FonarikRightShift"},
    {"markerStringInterval", "MarkerStringInterval", "FonarikStringInterval"},
};

// --- Isolation of the block (print-safe output) -----------------------------------

// - save  Opens the block in a saved state with a dictionary of its own, so
// that the document's graphics state, current font and dictionaries are
// exactly as before once the block ends.
const char IsolatedBlockBegin[] = "save 20 dict begin\n";
// save -  Closes the block and returns to the document's state; the paint
// stays on the page.
const char IsolatedBlockEnd[] = "end restore\n";

// --- Stacking of the strings of one position ---------------------------------

// - -  TopPos: top edge of the first string box at a top position.
const char TopStackStart[] = "/TopPos pageT markerTopShift sub def\n";
// - -  Moves TopPos below the string just painted.
const char TopStackAdvance[] = "/TopPos TopPos tPart sub bPart sub markerStringInterval sub def\n";
// - -  BottomPos: bottom edge of the first string box at a bottom position.
const char BottomStackStart[] = "/BottomPos pageB markerBottomShift add def\n";
// - -  Moves BottomPos above the string just painted.
const char BottomStackAdvance[] = "/BottomPos BottomPos tPart add bPart add markerStringInterval add def\n";

// --- Measuring a string -------------------------------------------------------

// - string  Starts the outline of the string at the origin.
const char MeasureStart[] = "newpath 0 0 moveto ";
// string - string llx lly urx ury  Outlines the string and takes its box.
const char MeasureOutline[] = " dup true charpath closepath pathbbox\n";
// llx lly urx ury - -  Defines lPart, bPart (depth below baseline), rPart, tPart.
const char DefineStringBox[] = "/tPart exch def /rPart exch def neg /bPart exch def /lPart exch def\n";

// string - -  Shows the string at the current point.
const char ShowString[] = "show\n";

// --- Coordinate positions -------------------------------------------------------

// Millimetre coordinates are divided by this factor; it is the system's own
// conversion and is kept as it is.
constexpr double MillimetreFactor = 0.376;

// --- The six named positions ------------------------------------------------------

// What differs between the named positions: the stack direction and three
// snippets. Box: paints the white box. Text: sets black and moves to the
// text origin (the string is left on the stack for "show"). Underline:
// strokes a line of the string's width under it.
struct PositionSnippets
{
    bool top;
    const char* box;
    const char* text;
    const char* underline;
};

const PositionSnippets Positions[MarkerPosition::Count] = {
    // top-left
    {true,
     "1 setgray pageL markerLeftShift add\nTopPos tPart sub bPart sub\nrPart lPart add tPart bPart add rectfill\n",
     "0 setgray pageL markerLeftShift add lPart add\nTopPos tPart sub moveto ",
     "newpath font-underline-thickness setlinewidth pageL markerLeftShift add TopPos tPart sub bPart sub "
     "font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
    // top-center
    {true,
     "1 setgray pageR pageL add 2 div rPart lPart add 2 div sub TopPos tPart sub bPart sub\nrPart lPart add "
     "tPart bPart add rectfill\n",
     "0 setgray pageR pageL add 2 div rPart 2 div sub\nTopPos tPart sub moveto ",
     "newpath font-underline-thickness setlinewidth pageR pageL add 2 div rPart 2 div sub TopPos tPart sub "
     "bPart sub font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
    // top-right
    {true,
     "1 setgray pageR markerRightShift sub rPart sub\nlPart sub TopPos tPart sub bPart sub\nrPart lPart add "
     "tPart bPart add rectfill\n",
     "0 setgray pageR markerRightShift sub rPart sub\nTopPos tPart sub moveto ",
     "newpath font-underline-thickness setlinewidth pageR markerRightShift sub rPart sub TopPos tPart sub "
     "bPart sub font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
    // bottom-left
    {false,
     "1 setgray pageL markerLeftShift add BottomPos rPart lPart add tPart bPart add rectfill\n",
     "0 setgray pageL markerLeftShift add lPart add\nBottomPos bPart add moveto ",
     "newpath font-underline-thickness setlinewidth pageL markerLeftShift add BottomPos font-underline-pos "
     "add moveto rPart 0 rlineto closepath stroke\n"},
    // bottom-center: its text origin differs from top-center's on purpose.
    {false,
     "1 setgray pageL pageR add 2 div rPart lPart add 2 div sub BottomPos rPart lPart add tPart bPart add "
     "rectfill\n",
     "0 setgray pageL pageR add 2 div rPart lPart add 2 div sub BottomPos bPart add moveto ",
     "newpath font-underline-thickness setlinewidth pageR pageL add 2 div rPart 2 div sub BottomPos "
     "font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
    // bottom-right
    {false,
     "1 setgray pageR markerRightShift sub rPart sub\nlPart sub BottomPos\nrPart lPart add tPart bPart add "
     "rectfill\n",
     "0 setgray pageR markerRightShift sub rPart sub\nBottomPos bPart add moveto ",
     "newpath font-underline-thickness setlinewidth pageR markerRightShift sub rPart sub BottomPos "
     "font-underline-pos add moveto rPart 0 rlineto closepath stroke\n"},
};

// One number of a coordinate position in user-space units. A group that does
// not read as a number counts as 0; so does, with a warning, one whose value
// no interpreter can read back (such as a group of 400 digits).
double coordinate(const QString& group, const QString& position, bool millimetres)
{
    bool ok = false;
    double value = group.toDouble(&ok);
    if (millimetres)
        value /= MillimetreFactor;
    if (isPostScriptReal(value))
        return ok ? value : 0.0;
    qWarning("Coordinate '%s' of position '%s' is not a PostScript number, 0 is used!",
             group.toLocal8Bit().constData(), position.toLocal8Bit().constData());
    return 0.0;
}

// Whether a text is empty or only white space (as trimmed() would find it,
// without making a copy).
bool isBlank(const QString& text)
{
    return std::all_of(text.cbegin(), text.cend(), [](QChar c) { return c.isSpace(); });
}

int totalStrings(const MarkerPositionMap& map)
{
    int count = 0;
    for (const MarkerStringList& list : map)
        count += list.size();
    return count;
}

} // namespace

void Marker::writeCommonVariables(QIODevice& out, bool fonarik, bool landscape) const
{
    const Variables& variables = Variables::instance();

    out.write(CommonVariablesHeader);
    if (landscape)
        out.write(LandscapeRotate);
    out.write(MeasurePage);
    out.write(DefinePageBox);

    // Fonarik keys depend on paper format and orientation, as in "A4:P:".
    QString prefix;
    if (fonarik) {
        QString format = variables.contains(QStringLiteral("PAGE_FORMAT"))
            ? variables.value(QStringLiteral("PAGE_FORMAT")).toUpper()
            : QStringLiteral("A4");
        if (format.isEmpty())
            format = QStringLiteral("A4");
        prefix = format + QLatin1Char(':') + QLatin1String(landscape ? "L" : "P") + QLatin1Char(':');
    }

    // A value that reads as a number is written as it stands, blanks included.
    // Only a number in PostScript's own syntax is: a value such as "inf" or
    // one of 400 digits would stop the job on the printer, so it gives 0 and
    // a warning.
    QByteArray definitions;
    for (const PlacementKey& key : PlacementKeys) {
        const QString name = fonarik ? prefix + QLatin1String(key.fonarikKey) : QLatin1String(key.markerKey);
        const QString value = variables.value(name);
        bool isNumber = false;
        value.toFloat(&isNumber);
        if (isNumber && !isPostScriptNumber(value)) {
            qWarning("Value '%s' of %s is not a PostScript number, 0 is used!",
                     value.toLocal8Bit().constData(), name.toLocal8Bit().constData());
            isNumber = false;
        }
        definitions += '/';
        definitions += key.name;
        definitions += ' ';
        definitions += isNumber ? value.toLatin1() : QByteArray("0");
        definitions += " def\n";
    }
    out.write(definitions);
}

void Marker::measureString(QIODevice& out, const MarkerStringPtr& string) const
{
    if (!string)
        return;
    Fonts& fonts = Fonts::instance();
    fonts.setFont(out, string->fontStyle, string->fontSize);
    out.write(MeasureStart);
    fonts.writeString(out, string->expandedText);
    out.write(MeasureOutline);
    out.write(DefineStringBox);
}

// One algorithm for the six named positions: the table above holds what
// differs. Top positions stack downwards in template order; bottom positions
// are visited from the last string so that they, too, read top to bottom.
void Marker::drawPosition(QIODevice& out, int position, const MarkerStringList& strings) const
{
    if (strings.isEmpty())
        return;
    const PositionSnippets& snippets = Positions[position];
    out.write(snippets.top ? TopStackStart : BottomStackStart);

    for (int i = 0; i < strings.size(); ++i) {
        const MarkerStringPtr& string = strings.at(snippets.top ? i : strings.size() - 1 - i);
        if (!string)
            continue;
        if (!string->expanded) {
            string->expandedText.clear(); // the last page's text is not kept beside the new one
            string->expandedText = expandVariables(string->text);
        }
        if (isBlank(string->expandedText))
            continue;

        measureString(out, string);
        out.write(snippets.box);
        out.write(snippets.text);
        out.write(ShowString);
        if (string->underline) {
            Fonts::instance().writeUnderlineProcs(out);
            out.write(snippets.underline);
        }
        out.write(snippets.top ? TopStackAdvance : BottomStackAdvance);
    }
}

void Marker::drawTopLeft(QIODevice& out, const MarkerStringList& strings) const
{
    drawPosition(out, MarkerPosition::TopLeft, strings);
}

void Marker::drawTopCenter(QIODevice& out, const MarkerStringList& strings) const
{
    drawPosition(out, MarkerPosition::TopCenter, strings);
}

void Marker::drawTopRight(QIODevice& out, const MarkerStringList& strings) const
{
    drawPosition(out, MarkerPosition::TopRight, strings);
}

void Marker::drawBottomLeft(QIODevice& out, const MarkerStringList& strings) const
{
    drawPosition(out, MarkerPosition::BottomLeft, strings);
}

void Marker::drawBottomCenter(QIODevice& out, const MarkerStringList& strings) const
{
    drawPosition(out, MarkerPosition::BottomCenter, strings);
}

void Marker::drawBottomRight(QIODevice& out, const MarkerStringList& strings) const
{
    drawPosition(out, MarkerPosition::BottomRight, strings);
}

void Marker::drawAtOffset(QIODevice& out, const QString& position, const MarkerStringList& strings) const
{
    if (strings.isEmpty())
        return;
    bool millimetres = false;
    QRegularExpressionMatch match = pointPositionPattern().match(position);
    if (!match.hasMatch()) {
        match = millimetrePositionPattern().match(position);
        if (!match.hasMatch())
            return;
        millimetres = true;
    }

    // A group that does not read as a number (such as "1,5") counts as 0.
    const double x = coordinate(match.captured(1), position, millimetres);
    const double y = coordinate(match.captured(2), position, millimetres);
    out.write("/markerTopShift " + QByteArray::number(y, 'g', 6) + " def\n");
    out.write("/markerLeftShift " + QByteArray::number(x, 'g', 6) + " def\n");
    drawPosition(out, MarkerPosition::TopLeft, strings);
}

void Marker::drawMarker(QIODevice& out, int page, bool lastPage) const
{
    // "LANDSCAPE" holds one flag per page; pages beyond the list take the
    // first flag, not the last.
    const QStringList flags =
        Variables::instance().value(QStringLiteral("LANDSCAPE")).split(QLatin1Char(','), Qt::SkipEmptyParts);
    bool landscape = false;
    if (!flags.isEmpty() && page >= 1)
        landscape = flags.at(page <= flags.size() ? page - 1 : 0) == QLatin1String("1");

    drawPage(out, stringsForPage(page, lastPage), false, landscape);
}

MarkerPositionMap Marker::stringsForPage(int page, bool lastPage) const
{
    const MarkerPositionMap first = m_strings.value(MarkerPageType::First);
    const MarkerPositionMap last = m_strings.value(MarkerPageType::Last);
    const MarkerPositionMap any = m_strings.value(MarkerPageType::Any);
    if (page == 1)
        return totalStrings(first) > 0 ? first : any;
    if (lastPage)
        return totalStrings(last) > 0 ? last : any;
    return any;
}

void Marker::drawPage(QIODevice& out, const MarkerPositionMap& strings, bool fonarik, bool landscape) const
{
    const bool isolated = Variables::instance().safeOutput();
    if (isolated)
        out.write(IsolatedBlockBegin);

    writeCommonVariables(out, fonarik, landscape);
    for (int position = 0; position < MarkerPosition::Count; ++position)
        drawPosition(out, position, strings.value(QLatin1String(MarkerPosition::Names[position])));

    // Coordinate positions come last, in ascending order of their keys.
    for (auto it = strings.cbegin(); it != strings.cend(); ++it) {
        if (it.key().startsWith(QLatin1Char('{')))
            drawAtOffset(out, it.key(), it.value());
    }

    if (isolated)
        out.write(IsolatedBlockEnd);
}

void Marker::drawFonarik(QIODevice& out, int count) const
{
    const bool landscape =
        Variables::instance().value(QStringLiteral("LANDSCAPE")).startsWith(QLatin1Char('1'));
    drawPage(out, fonarikStrings(count), true, landscape);
}

MarkerPositionMap Marker::fonarikStrings(int count) const
{
    return m_strings.value(m_fonarikBoundary < count ? MarkerPageType::FonarikGt5 : MarkerPageType::Fonarik);
}
