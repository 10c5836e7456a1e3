// The process-wide font catalogue: glyph names, charsets, base fonts per
// style, the marker font resources and the font procedures of the marker block.
#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>
#include <QStringList>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

class QFile;
class QIODevice;

// Names of the four composite marker fonts, by marker font style id.
inline constexpr const char* markerFontNames[] = {"Marker-Normal", "Marker-Bold", "Marker-Italic",
                                                  "Marker-BoldItalic"};

// A table of 65,536 entries indexed by a 16-bit code, all T() at first. Its
// memory grows with the entries set: 256 pieces of 256 entries, each made
// when one of its entries is first set, so that a catalogue of a few ranges
// costs little to make.
template <typename T>
class CodeTable
{
public:
    const T& at(int code) const
    {
        const std::unique_ptr<Piece>& piece = m_pieces[std::size_t(code) >> 8];
        return piece ? (*piece)[std::size_t(code) & 0xff] : unset();
    }

    // The entry, made settable.
    T& operator[](int code)
    {
        std::unique_ptr<Piece>& piece = m_pieces[std::size_t(code) >> 8];
        if (!piece)
            piece = std::make_unique<Piece>();
        return (*piece)[std::size_t(code) & 0xff];
    }

    void clear()
    {
        for (std::unique_ptr<Piece>& piece : m_pieces)
            piece.reset();
    }

private:
    using Piece = std::array<T, 256>;
    static const T& unset()
    {
        static const T value{};
        return value;
    }

    std::array<std::unique_ptr<Piece>, 256> m_pieces;
};

class Fonts
{
public:
    static constexpr int CodeCount = 65536;
    static constexpr int MaxCharsets = 256;
    static constexpr int StyleCount = 4;

    // Returns the catalogue, constructing it on the heap on first use.
    static Fonts& instance();

    // Returns the catalogue to the state of first use. The program never
    // needs it; tests start afresh with it.
    void reset();

    // --- Catalogue -----------------------------------------------------------

    // Reads the glyph list and the named charset file (falling back to
    // "utf-8") from the CUPS data directory. Problems are warnings; returns
    // false when the catalogue could not be read completely.
    bool initialize(const QString& charset);

    // Whether a charset name names a file of the charsets folder and nothing
    // else: it holds no "/", no ".." and no NUL. An empty name is left to the
    // fallback of initialize.
    static bool isCharsetFileName(const QString& name);

    // The file of a base font program: the fonts folder of the CUPS data
    // directory and the font's name as the charset file spells it.
    static QString fontFilePath(const QString& font);

    // With print-safe output (Variables::safeOutput), the reason why the
    // catalogue cannot draw the marker, as a translated message for
    // standard error: the glyph list or the charset file could not be read,
    // names no glyphs or no charsets, has a bad line, or a base font that
    // the marker styles need has no readable file. Empty when the catalogue
    // can draw it, and always empty without print-safe output, where such
    // problems are warnings only. Called after setMarkerStyles.
    QString catalogueRefusal() const;

    // The distinct base fonts of a style over all charsets, in charset order.
    QStringList fontsForStyle(int style) const;

    // Every font name met in the charset file, in order of first appearance.
    QStringList uniqueFonts() const { return m_uniqueFonts; }

    // Read access to the tables, for the resource writer and for tests.
    int charsetCount() const { return m_charsetCount; }
    QByteArray glyphName(int codePoint) const; // a null array for a code without a glyph line
    quint16 glyphOfCode(int codePoint) const { return m_glyphOfCode.at(codePoint); }
    quint16 codeOfGlyph(int code) const { return m_codeOfGlyph.at(code); }
    QString fontName(int charset, int style) const { return m_fontNames[charset][style]; }
    int charsetWidth(int charset) const { return m_charsetWidth[charset]; }
    int charsetDirection(int charset) const { return m_charsetDirection[charset]; }

    // --- Marker font resources -----------------------------------------------

    // Records the marker styles in use and computes the base fonts they need.
    void setMarkerStyles(const QSet<int>& styles);
    QSet<int> markerStyles() const { return m_markerStyles; }

    // The base fonts that the marker styles need.
    QStringList requiredFonts() const { return m_requiredFonts; }

    // Fonts the document already carries with the catalogue's content, and
    // fonts it carries under a catalogue name with other content.
    void setIdenticalDocumentFonts(const QStringList& fonts) { m_identicalDocumentFonts = fonts; }
    void setConflictingDocumentFonts(const QStringList& fonts) { m_conflictingDocumentFonts = fonts; }

    // Appends the rest of an open file to the output.
    using FileAppender = std::function<void(QFile& file)>;

    // Writes the font programs, encodings, re-encoded base fonts and
    // composite marker fonts. A font program that goes out unchanged is
    // handed to append when one is given (the output may copy it faster),
    // else copied to out.
    void writeFontResources(QIODevice& out, const FileAppender& append = {}) const;

    // --- Font procedures -----------------------------------------------------

    // Writes the selection of a marker font at a size and remembers it.
    void setFont(QIODevice& out, int style, float size);
    int currentStyle() const { return m_currentStyle; }
    float currentSize() const { return m_currentSize; }

    // Writes the underline position and thickness procedures of the current font.
    void writeUnderlineProcs(QIODevice& out) const;

    // Returns the PostScript hexadecimal string of two-byte marker codes for a text.
    QString encodeString(const QString& text) const;

    // Writes encodeString(text) as Latin-1 bytes, in pieces of bounded size.
    void writeString(QIODevice& out, const QString& text) const;

    // Writes the document-supplied-resources comment for the unique fonts.
    void writeSuppliedResources(QIODevice& out) const;

private:
    Fonts();

    bool readGlyphList();
    bool readCharsets(const QString& charset);

    // What went wrong in the last initialize, for catalogueRefusal.
    enum class CatalogueProblem {
        None,
        GlyphListUnreadable,
        GlyphListEmpty,
        CharsetFileUnreadable,
        CharsetLineBad
    };
    CatalogueProblem m_problem = CatalogueProblem::None;
    QString m_problemFile;
    QString m_charsetFile; // the charset file read by the last initialize

    // Where the name of a code's glyph stands in m_glyphNameBytes.
    struct GlyphNameSpan
    {
        int offset = 0;
        int length = 0;
        bool set = false; // the glyph list has a line for the code
    };
    CodeTable<GlyphNameSpan> m_glyphNames;
    QByteArray m_glyphNameBytes;
    std::array<std::array<QString, StyleCount>, MaxCharsets> m_fontNames;
    QStringList m_uniqueFonts;
    CodeTable<quint16> m_glyphOfCode;
    CodeTable<quint16> m_codeOfGlyph;
    std::array<qint32, MaxCharsets> m_charsetWidth;
    std::array<qint32, MaxCharsets> m_charsetDirection;
    qint32 m_charsetCount = 0;
    float m_currentSize = 0.0f;
    qint32 m_currentStyle = 0;
    QStringList m_identicalDocumentFonts;
    QStringList m_conflictingDocumentFonts;
    QSet<int> m_markerStyles;
    QStringList m_requiredFonts;
};
