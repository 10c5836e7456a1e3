// The PostScript marker block of a page: page measurement and placement
// definitions, then the strings of every position, each measured by the
// printer, painted on a white box, shown in black and optionally underlined.
#include "marker/marker.h"

#include "common/postscriptnumber.h"
#include "fonts/fonts.h"
#include "marker/markerpositions.h"
#include "settings/variables.h"

#include <QBuffer>
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

// The two procedures that open and close an isolated block, defined once at
// the top of the document, before any of its own code has run: bound there,
// every operator in them is the interpreter's own, whatever the document
// later defines under the same names.
//
// - QuilletBlockBegin save  Opens the block in a saved state, with systemdict
// over the document's dictionaries (so that the operators that the block
// calls by name are the interpreter's, not the document's redefinitions) and
// a dictionary of its own over that; the block draws in the physical page's
// default coordinates, in black, with the default transfer functions (gray
// included), whatever state the page ended in.
// save QuilletBlockEnd -  Closes the block and returns to the document's
// state; the paint stays on the page.
const char IsolationProcedures[] =
    "/QuilletBlockBegin { save //systemdict begin 20 dict begin initgraphics "
    "{} dup dup dup setcolortransfer 0 setgray } bind def\n"
    "/QuilletBlockEnd { end end restore } bind def\n";
// - save  Opens the block (see QuilletBlockBegin): the document's graphics
// state, current font and dictionaries are exactly as before once it ends.
const char IsolatedBlockBegin[] = "QuilletBlockBegin\n";
// save -  Closes the block.
const char IsolatedBlockEnd[] = "QuilletBlockEnd\n";

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

// Whether the strings of a position key are painted: a named position, or a
// coordinate position that begins with "{" and reads as one.
bool isPaintedPosition(const QString& position)
{
    for (const char* name : MarkerPosition::Names) {
        if (position == QLatin1String(name))
            return true;
    }
    return position.startsWith(QLatin1Char('{'))
        && (pointPositionPattern().match(position).hasMatch() || millimetrePositionPattern().match(position).hasMatch());
}

int totalStrings(const MarkerPositionMap& map)
{
    int count = 0;
    for (const MarkerStringList& list : map)
        count += list.size();
    return count;
}

// The longest fixed text whose encoding a run keeps; a longer one (four
// bytes a character) is encoded again for every page instead of being held.
constexpr int MaxKeptTextCharacters = 4096;

// What one call writes, as bytes.
template <typename Write>
QByteArray written(Write write)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    write(buffer);
    return bytes;
}

// The measurement of a string is its head, its encoded text and its tail.
// The head selects the string's font and starts the outline.
void writeMeasureHead(QIODevice& out, const MarkerString& string)
{
    Fonts::instance().setFont(out, string.fontStyle, string.fontSize);
    out.write(MeasureStart);
}

void writeMeasureTail(QIODevice& out)
{
    out.write(MeasureOutline);
    out.write(DefineStringBox);
}

// What follows the measurement at a position: the white box, the text shown
// in black, the underline in the font just selected, the stack's advance.
void writePaint(QIODevice& out, const PositionSnippets& snippets, bool underline)
{
    out.write(snippets.box);
    out.write(snippets.text);
    out.write(ShowString);
    if (underline) {
        Fonts::instance().writeUnderlineProcs(out);
        out.write(snippets.underline);
    }
    out.write(snippets.top ? TopStackAdvance : BottomStackAdvance);
}

// The expansion of a string for the page being drawn.
void expand(const Marker& marker, MarkerString& string)
{
    string.expandedText.clear(); // the last page's text is not kept beside the new one
    string.expandedText = marker.expandVariables(string.text);
}

// The shift definitions of a coordinate position such as {20;30} or
// {10mm;12mm}; a null array for a key that is not one.
QByteArray offsetDefinitions(const QString& position)
{
    bool millimetres = false;
    QRegularExpressionMatch match = pointPositionPattern().match(position);
    if (!match.hasMatch()) {
        match = millimetrePositionPattern().match(position);
        if (!match.hasMatch())
            return QByteArray();
        millimetres = true;
    }

    // A group that does not read as a number (such as "1,5") counts as 0.
    const double x = coordinate(match.captured(1), position, millimetres);
    const double y = coordinate(match.captured(2), position, millimetres);
    return "/markerTopShift " + QByteArray::number(y, 'g', 6) + " def\n" + "/markerLeftShift "
        + QByteArray::number(x, 'g', 6) + " def\n";
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
    writeMeasureHead(out, *string);
    Fonts::instance().writeString(out, string->expandedText);
    writeMeasureTail(out);
}

void Marker::drawTopLeft(QIODevice& out, const MarkerStringList& strings) const
{
    MarkerBlocks(*this).drawPosition(out, MarkerPosition::TopLeft, strings);
}

void Marker::drawTopCenter(QIODevice& out, const MarkerStringList& strings) const
{
    MarkerBlocks(*this).drawPosition(out, MarkerPosition::TopCenter, strings);
}

void Marker::drawTopRight(QIODevice& out, const MarkerStringList& strings) const
{
    MarkerBlocks(*this).drawPosition(out, MarkerPosition::TopRight, strings);
}

void Marker::drawBottomLeft(QIODevice& out, const MarkerStringList& strings) const
{
    MarkerBlocks(*this).drawPosition(out, MarkerPosition::BottomLeft, strings);
}

void Marker::drawBottomCenter(QIODevice& out, const MarkerStringList& strings) const
{
    MarkerBlocks(*this).drawPosition(out, MarkerPosition::BottomCenter, strings);
}

void Marker::drawBottomRight(QIODevice& out, const MarkerStringList& strings) const
{
    MarkerBlocks(*this).drawPosition(out, MarkerPosition::BottomRight, strings);
}

void Marker::drawAtOffset(QIODevice& out, const QString& position, const MarkerStringList& strings) const
{
    MarkerBlocks(*this).drawAtOffset(out, position, strings);
}

void Marker::drawMarker(QIODevice& out, int page, bool lastPage) const
{
    MarkerBlocks(*this).drawMarker(out, page, lastPage);
}

int Marker::pageTypeFor(int page, bool lastPage) const
{
    if (page == 1 && totalStrings(m_strings.value(MarkerPageType::First)) > 0)
        return MarkerPageType::First;
    if (page != 1 && lastPage && totalStrings(m_strings.value(MarkerPageType::Last)) > 0)
        return MarkerPageType::Last;
    return MarkerPageType::Any;
}

int Marker::paintedStrings(int pageType) const
{
    int count = 0;
    const MarkerPositionMap map = m_strings.value(pageType);
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        if (!isPaintedPosition(it.key()))
            continue;
        for (const MarkerStringPtr& string : it.value()) {
            if (string && !isBlank(string->expanded ? string->expandedText : string->text))
                ++count;
        }
    }
    return count;
}

void Marker::writeBlockProcedures(QIODevice& out)
{
    out.write(IsolationProcedures);
}

MarkerPositionMap Marker::stringsForPage(int page, bool lastPage) const
{
    return m_strings.value(pageTypeFor(page, lastPage));
}

void Marker::drawPage(QIODevice& out, const MarkerPositionMap& strings, bool fonarik, bool landscape) const
{
    MarkerBlocks(*this).drawPage(out, strings, fonarik, landscape);
}

void Marker::drawFonarik(QIODevice& out, int count) const
{
    MarkerBlocks(*this).drawFonarik(out, count);
}

int Marker::fonarikTypeFor(int count) const
{
    return m_fonarikBoundary < count ? MarkerPageType::FonarikGt5 : MarkerPageType::Fonarik;
}

MarkerPositionMap Marker::fonarikStrings(int count) const
{
    return m_strings.value(fonarikTypeFor(count));
}

// --- The blocks of a run -------------------------------------------------------------

MarkerBlocks::MarkerBlocks(const Marker& marker)
    : m_marker(marker),
      m_isolated(Variables::instance().safeOutput()),
      // "LANDSCAPE" holds one flag per page; pages beyond the list take the
      // first flag, not the last. Fonarik blocks take the first character.
      m_landscapeFlags(
          Variables::instance().value(QStringLiteral("LANDSCAPE")).split(QLatin1Char(','), Qt::SkipEmptyParts))
{
}

void MarkerBlocks::drawMarker(QIODevice& out, int page, bool lastPage)
{
    bool landscape = false;
    if (!m_landscapeFlags.isEmpty() && page >= 1)
        landscape = m_landscapeFlags.at(page <= m_landscapeFlags.size() ? page - 1 : 0) == QLatin1String("1");

    drawPlan(out, planOf(m_marker.pageTypeFor(page, lastPage)), false, landscape);
}

void MarkerBlocks::drawFonarik(QIODevice& out, int count)
{
    const bool landscape =
        Variables::instance().value(QStringLiteral("LANDSCAPE")).startsWith(QLatin1Char('1'));
    drawPlan(out, planOf(m_marker.fonarikTypeFor(count)), true, landscape);
}

void MarkerBlocks::drawPage(QIODevice& out, const MarkerPositionMap& strings, bool fonarik, bool landscape)
{
    Plan plan = planFor(strings);
    drawPlan(out, plan, fonarik, landscape);
}

void MarkerBlocks::drawPosition(QIODevice& out, int position, const MarkerStringList& strings)
{
    Placement named = placement(position, strings);
    drawPlacement(out, named);
}

void MarkerBlocks::drawAtOffset(QIODevice& out, const QString& position, const MarkerStringList& strings)
{
    if (strings.isEmpty())
        return;
    Placement placed = placement(MarkerPosition::TopLeft, strings);
    placed.offset = offsetDefinitions(position);
    if (!placed.offset.isNull())
        drawPlacement(out, placed);
}

MarkerBlocks::Placement MarkerBlocks::placement(int position, const MarkerStringList& strings) const
{
    // Top positions stack downwards in template order; bottom positions are
    // visited from the last string so that they, too, read top to bottom.
    Placement placement;
    placement.position = position;
    const bool top = Positions[position].top;
    for (int i = 0; i < strings.size(); ++i) {
        StringBlock block;
        block.string = strings.at(top ? i : strings.size() - 1 - i);
        placement.strings.append(block);
    }
    return placement;
}

// The six named positions in their fixed order, then the coordinate
// positions in ascending order of their keys.
MarkerBlocks::Plan MarkerBlocks::planFor(const MarkerPositionMap& strings) const
{
    Plan plan;
    for (int position = 0; position < MarkerPosition::Count; ++position) {
        const MarkerStringList list = strings.value(QLatin1String(MarkerPosition::Names[position]));
        if (!list.isEmpty())
            plan.append(placement(position, list));
    }
    for (auto it = strings.cbegin(); it != strings.cend(); ++it) {
        if (!it.key().startsWith(QLatin1Char('{')) || it.value().isEmpty())
            continue;
        Placement placed = placement(MarkerPosition::TopLeft, it.value());
        placed.offset = offsetDefinitions(it.key());
        if (!placed.offset.isNull())
            plan.append(placed);
    }
    return plan;
}

MarkerBlocks::Plan& MarkerBlocks::planOf(int pageType)
{
    auto plan = m_plans.find(pageType);
    if (plan == m_plans.end())
        plan = m_plans.insert(pageType, planFor(m_marker.strings().value(pageType)));
    return *plan;
}

const QByteArray& MarkerBlocks::opening(bool fonarik, bool landscape)
{
    const int key = (fonarik ? 2 : 0) + (landscape ? 1 : 0);
    auto found = m_openings.find(key);
    if (found == m_openings.end()) {
        found = m_openings.insert(key, written([&](QIODevice& out) {
            if (m_isolated)
                out.write(IsolatedBlockBegin);
            m_marker.writeCommonVariables(out, fonarik, landscape);
        }));
    }
    return *found;
}

void MarkerBlocks::drawPlan(QIODevice& out, Plan& plan, bool fonarik, bool landscape)
{
    out.write(opening(fonarik, landscape));
    for (Placement& placed : plan)
        drawPlacement(out, placed);
    if (m_isolated)
        out.write(IsolatedBlockEnd);
}

void MarkerBlocks::drawPlacement(QIODevice& out, Placement& placement)
{
    if (placement.strings.isEmpty())
        return;
    if (!placement.offset.isNull())
        out.write(placement.offset);
    out.write(Positions[placement.position].top ? TopStackStart : BottomStackStart);
    for (StringBlock& block : placement.strings)
        drawString(out, placement.position, block);
}

void MarkerBlocks::drawString(QIODevice& out, int position, StringBlock& block)
{
    if (!block.string)
        return;
    MarkerString& string = *block.string;
    if (!block.prepared) {
        block.perPage = !string.expanded && m_marker.changesPerPage(string.text);
        if (!string.expanded)
            expand(m_marker, string);
        block.prepared = true;
    } else if (block.perPage) {
        expand(m_marker, string);
    }
    if (isBlank(string.expandedText))
        return;

    // Made when the string is first shown: a string never shown selects no
    // font (nor warns about its size).
    if (!block.built) {
        block.textKept = !block.perPage && string.expandedText.size() <= MaxKeptTextCharacters;
        block.head = written([&](QIODevice& head) {
            writeMeasureHead(head, string);
            if (block.textKept)
                Fonts::instance().writeString(head, string.expandedText);
        });
        block.tail = written([&](QIODevice& tail) {
            writeMeasureTail(tail);
            writePaint(tail, Positions[position], string.underline);
        });
        block.built = true;
    }
    out.write(block.head);
    if (!block.textKept)
        Fonts::instance().writeString(out, string.expandedText);
    out.write(block.tail);
}
