// The process-wide marker model: template reader, variable expansion and the
// PostScript marker block of a page.
#pragma once

#include "marker/markerstring.h"

#include <QByteArray>
#include <QHash>
#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QStringView>
#include <QVector>

class QIODevice;

class Marker
{
public:
    // Returns the model, creating it with its defaults on first use.
    static Marker& instance();

    // Returns the model to the state of first use. The program never needs
    // it; tests start afresh with it.
    void reset();

    // --- Template side -------------------------------------------------------

    // Reads the whole template from an open device into the model. Bad lines
    // are skipped with a warning; strings whose text holds square brackets
    // are expanded at once. Reads "mac-marker-font" from the store at the end.
    void readTemplate(QIODevice& device);

    // The charset name handed to the font catalogue ("utf-8" by default).
    QString charset() const { return m_charset; }
    // The font styles used by the template's string lines.
    QSet<int> fontStyles() const { return m_fontStyles; }
    // The strings by page type and position key.
    const QMap<int, MarkerPositionMap>& strings() const { return m_strings; }
    // Count above which the fonarik block uses its "fonarik_gt_5" strings.
    int fonarikBoundary() const { return m_fonarikBoundary; }
    // Whether security-label values have "_" replaced by a blank.
    bool replaceUnderscore() const { return m_replaceUnderscore; }

    // --- Variables side ------------------------------------------------------

    // Returns the text with every [NAME] or {NAME} reference replaced by its
    // value from the store, a site script or the user directory.
    QString expandVariables(const QString& text) const;

    // Whether a text's expansion may differ from page to page: it names a
    // key that the document filter sets for every page, or it takes text
    // from a site script or the user directory, which are asked anew on
    // every page.
    bool changesPerPage(const QString& text) const;

    // The most marker strings a template may hold (pieces of "^"-split
    // texts included); further strings are ignored with a warning, or,
    // with print-safe output, make the run a refusal.
    static constexpr int MaxMarkerStrings = 4096;

    // Whether the template held more strings than the model keeps.
    bool stringsDropped() const { return m_stringCount > MaxMarkerStrings; }

    // How deep SCRIPT: references may nest inside a command; a deeper one is
    // not run and gives an empty text.
    static constexpr int MaxScriptNesting = 8;

    // Runs a command line and returns its trimmed standard output.
    QString runScript(const QString& command) const;

    // Returns one directory attribute of the job's user, or an empty text.
    QString directoryAttribute(const QString& attribute) const;

    // --- Rendering side ------------------------------------------------------

    // Writes the marker block's opening: page measurement, optional landscape
    // turn and the five placement definitions.
    void writeCommonVariables(QIODevice& out, bool fonarik, bool landscape) const;

    // Writes the font selection and outline measurement of one string,
    // leaving the encoded string on the operand stack.
    void measureString(QIODevice& out, const MarkerStringPtr& string) const;

    // Each paints the strings of one named position.
    void drawTopLeft(QIODevice& out, const MarkerStringList& strings) const;
    void drawTopCenter(QIODevice& out, const MarkerStringList& strings) const;
    void drawTopRight(QIODevice& out, const MarkerStringList& strings) const;
    void drawBottomLeft(QIODevice& out, const MarkerStringList& strings) const;
    void drawBottomCenter(QIODevice& out, const MarkerStringList& strings) const;
    void drawBottomRight(QIODevice& out, const MarkerStringList& strings) const;

    // Paints the strings of a coordinate position such as {20;30} or {10mm;12mm}.
    void drawAtOffset(QIODevice& out, const QString& position, const MarkerStringList& strings) const;

    // Writes the marker block of one page (page counted from 1).
    void drawMarker(QIODevice& out, int page, bool lastPage) const;

    // Returns the strings that apply to a page: "first", "last" or "any".
    MarkerPositionMap stringsForPage(int page, bool lastPage) const;
    // The page type whose strings apply to a page.
    int pageTypeFor(int page, bool lastPage) const;
    // How many strings of a page type a marker block paints at most: those
    // at positions that are painted whose text is not blank (a text expanded
    // per page counts when the template's text is not blank).
    int paintedStrings(int pageType) const;

    // Writes the definitions that isolated (print-safe) marker blocks call;
    // they belong before any of the document's own code.
    static void writeBlockProcedures(QIODevice& out);

    // Writes one marker block for a map of strings.
    void drawPage(QIODevice& out, const MarkerPositionMap& strings, bool fonarik, bool landscape) const;

    // Writes a fonarik marker block; the count chooses between the two
    // fonarik page types.
    void drawFonarik(QIODevice& out, int count) const;

    // Returns the fonarik strings that apply to a count.
    MarkerPositionMap fonarikStrings(int count) const;
    // The fonarik page type that applies to a count.
    int fonarikTypeFor(int count) const;

private:
    Marker() = default;

    bool addString(int pageType, const QString& position, const MarkerStringPtr& string);
    QString expandReferences(QStringView text, int scriptDepth) const;
    QString runScriptAt(QStringView command, int scriptDepth) const;
    QString resolveReference(QStringView name, int scriptDepth) const;
    QStringList scriptArguments(QStringView command, int scriptDepth) const;

    QMap<int, MarkerPositionMap> m_strings;
    int m_fonarikBoundary = 3;
    bool m_replaceUnderscore = false;
    QString m_charset = QStringLiteral("utf-8");
    QSet<int> m_fontStyles;
    int m_stringCount = 0; // strings added, and those refused beyond the bound
};

// The marker blocks of one run, written page after page. What does not change
// from one page to the next is made once and then copied: the opening of each
// kind of block, the placement of every position, and for every string its
// font selection, measurement, box, placement and underline, and the encoded
// text of a string that names nothing that changes per page (see
// Marker::changesPerPage). Only the other strings are expanded and encoded
// anew on every page. The bytes are exactly those that drawing every page
// afresh would write; the store may change only in the per-page keys while
// the object is in use. Warnings about the template or the definitions come
// once, when a piece is made.
class MarkerBlocks
{
public:
    explicit MarkerBlocks(const Marker& marker);

    // As the Marker functions of the same names.
    void drawMarker(QIODevice& out, int page, bool lastPage);
    void drawFonarik(QIODevice& out, int count);
    void drawPage(QIODevice& out, const MarkerPositionMap& strings, bool fonarik, bool landscape);
    void drawPosition(QIODevice& out, int position, const MarkerStringList& strings);
    void drawAtOffset(QIODevice& out, const QString& position, const MarkerStringList& strings);

private:
    // One string of a position, with what is made of it once.
    struct StringBlock
    {
        MarkerStringPtr string;
        bool prepared = false; // perPage known, the text of a fixed one expanded
        bool perPage = false;  // expanded and encoded on every page
        bool built = false;    // head and tail made
        bool textKept = false; // the head holds the encoded text too
        QByteArray head;       // font selection, outline start (and a kept text)
        QByteArray tail;       // outline end, box, text placement, show, underline, advance
    };
    // The strings of one position, in the order in which they are painted.
    struct Placement
    {
        int position = 0;     // the named position whose algorithm paints them
        QByteArray offset;    // coordinate positions: the shift definitions
        QVector<StringBlock> strings;
    };
    using Plan = QVector<Placement>;

    Plan planFor(const MarkerPositionMap& strings) const;
    // The plan of a page type's strings, made on first use.
    Plan& planOf(int pageType);
    Placement placement(int position, const MarkerStringList& strings) const;
    void drawPlan(QIODevice& out, Plan& plan, bool fonarik, bool landscape);
    void drawPlacement(QIODevice& out, Placement& placement);
    void drawString(QIODevice& out, int position, StringBlock& block);
    const QByteArray& opening(bool fonarik, bool landscape);

    const Marker& m_marker;
    bool m_isolated;
    QStringList m_landscapeFlags;
    QHash<int, Plan> m_plans;         // by page type
    QHash<int, QByteArray> m_openings; // by fonarik and landscape
};
