// The font pieces of the marker block: font selection, underline procedures,
// the two-byte encoding of marker text and the supplied-resources comment.
#include "fonts/fonts.h"

#include "common/postscriptnumber.h"

#include <QIODevice>

#include <algorithm>

namespace {

// - -  Selects marker font %1 at size %2.
const char SelectFont[] = "/%1 findfont %2 scalefont setfont\n";

// - y  Underline position of marker font %1 at size %2, in user space.
const char UnderlinePositionProc[] =
    "/font-underline-pos {\n"
    "  /%1 findfont %2 scalefont\n"
    "  dup /FontInfo get\n"
    "  dup /UnderlinePosition known { /UnderlinePosition get } { pop 2 px } ifelse\n"
    "  0 exch\n"
    "  3 2 roll /FontMatrix get transform\n"
    "  exch pop\n"
    "} def\n";

// - y  Underline thickness of marker font %1 at size %2, in user space.
const char UnderlineThicknessProc[] =
    "/font-underline-thickness {\n"
    "  /%1 findfont %2 scalefont\n"
    "  dup /FontInfo get\n"
    "  dup /UnderlineThickness known { /UnderlineThickness get } { pop 1 px } ifelse\n"
    "  0 exch\n"
    "  3 2 roll /FontMatrix get transform\n"
    "  exch pop\n"
    "} def\n";

const char SuppliedResourcesFirst[] = "%%DocumentSuppliedResources: font ";
const char SuppliedResourcesNext[] = "%%+font ";

// A font size in the shortest general notation with six significant digits.
QString sizeText(float size)
{
    return QString::number(double(size), 'g', 6);
}

// A fragment with its font name (%1) and font size (%2) filled in.
QByteArray withFont(const char* fragment, const char* font, const QByteArray& size)
{
    return QByteArray(fragment).replace("%1", font).replace("%2", size);
}

// Appends a glyph code as four lower-case hexadecimal digits.
void appendCode(QByteArray& text, quint16 code)
{
    static const char Digits[] = "0123456789abcdef";
    const char hex[4] = {Digits[code >> 12], Digits[(code >> 8) & 0xf], Digits[(code >> 4) & 0xf],
                         Digits[code & 0xf]};
    text.append(hex, 4);
}

} // namespace

void Fonts::setFont(QIODevice& out, int style, float size)
{
    // The template reader gives only usable sizes; any other caller's size
    // that no interpreter could read is replaced by the default one.
    if (!isPostScriptReal(size)) {
        qWarning("Font size '%s' is not a PostScript number, 12 is used!",
                 sizeText(size).toLocal8Bit().constData());
        size = 12.0f;
    }
    out.write(withFont(SelectFont, markerFontNames[style], sizeText(size).toLatin1()));
    m_currentStyle = style;
    m_currentSize = size;
}

void Fonts::writeUnderlineProcs(QIODevice& out) const
{
    const char* font = markerFontNames[m_currentStyle];
    const QByteArray size = sizeText(m_currentSize).toLatin1();
    out.write(withFont(UnderlinePositionProc, font, size) + withFont(UnderlineThicknessProc, font, size));
}

QString Fonts::encodeString(const QString& text) const
{
    // Each character becomes four hexadecimal digits: charset index and
    // position in that charset. Code points beyond the 16-bit table are 0000.
    QString result = QStringLiteral("<");
    for (const uint codePoint : text.toUcs4()) {
        const uint code = codePoint < uint(CodeCount) ? m_glyphOfCode.at(int(codePoint)) : 0;
        result += QString::number(code, 16).rightJustified(4, QLatin1Char('0'));
    }
    result += QLatin1Char('>');
    return result;
}

void Fonts::writeString(QIODevice& out, const QString& text) const
{
    // The same bytes as encodeString, written piece by piece: a long text
    // never has its four-times-larger encoding held whole in memory.
    constexpr int PieceCharacters = 4096;
    const int length = text.size();
    QByteArray piece;
    piece.reserve(4 * std::min(length, PieceCharacters) + 2);
    piece += '<';
    for (int i = 0; i < length; ++i) {
        // A surrogate pair is one code point; a lone surrogate is taken as
        // U+FFFD, as QString::toUcs4 takes it.
        uint codePoint = text.at(i).unicode();
        if (QChar::isHighSurrogate(codePoint) && i + 1 < length && text.at(i + 1).isLowSurrogate()) {
            codePoint = QChar::surrogateToUcs4(text.at(i).unicode(), text.at(i + 1).unicode());
            ++i;
        } else if (QChar::isSurrogate(codePoint)) {
            codePoint = QChar::ReplacementCharacter;
        }
        appendCode(piece, codePoint < uint(CodeCount) ? m_glyphOfCode.at(int(codePoint)) : 0);
        if (piece.size() >= 4 * PieceCharacters) {
            out.write(piece);
            piece.clear();
        }
    }
    piece += '>';
    out.write(piece);
}

void Fonts::writeSuppliedResources(QIODevice& out) const
{
    if (m_uniqueFonts.isEmpty())
        return;
    out.write(SuppliedResourcesFirst + m_uniqueFonts.first().toUtf8() + '\n');
    for (int i = 1; i < m_uniqueFonts.size(); ++i)
        out.write(SuppliedResourcesNext + m_uniqueFonts.at(i).toUtf8() + '\n');
}
