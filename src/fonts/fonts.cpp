// The font catalogue: the glyph list and the charset file under the CUPS
// data directory.
//
// Glyph list lines read "0041 A": a hexadecimal code point and a PostScript
// glyph name. A charset file starts with the line "charset utf8"; each further
// line describes one charset: first and last code point, direction, width and
// one to four font names (normal, bold, italic, bold-italic), as in
//   0000 00FF ltor single Courier Courier-Bold Courier-Oblique Courier-BoldOblique
#include "fonts/fonts.h"

#include "common/paths.h"
#include "common/regularfile.h"
#include "common/trace.h"
#include "settings/variables.h"

#include <QCoreApplication>

#include <QDebug>
#include <QFile>

#include <algorithm>
#include <cstring>

namespace {

const char GlyphListFile[] = "/data/psglyphs";
const char CharsetsFolder[] = "/charsets/";
const char DefaultCharset[] = "utf-8";
const char CharsetFileHeader[] = "charset utf8\n";
const char FontsFolder[] = "/fonts/";

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The code field of a glyph list line, read as a hexadecimal number; a
// field that does not read as one counts as 0. The usual one to four digits
// are read here, anything else as QByteArray reads numbers.
qlonglong glyphCode(const char* field, int length)
{
    if (length >= 1 && length <= 4) {
        qlonglong code = 0;
        int i = 0;
        for (; i < length && hexDigit(field[i]) >= 0; ++i)
            code = code * 16 + hexDigit(field[i]);
        if (i == length)
            return code;
    }
    bool ok = false;
    const qlonglong code = QByteArray(field, length).toLongLong(&ok, 16);
    return ok ? code : 0;
}

// Writes the name field of a glyph list line to target, with white space
// taken off its ends and runs of it inside made one blank, and returns its
// length; the usual name, followed only by the line's end, is taken as it
// stands.
int writeGlyphName(const char* field, int length, char* target)
{
    int plain = 0;
    while (plain < length && field[plain] > ' ' && field[plain] < 127)
        ++plain;
    if (plain > 0 && (plain == length || (plain == length - 1 && field[plain] == '\n'))) {
        std::memcpy(target, field, size_t(plain));
        return plain;
    }
    const QByteArray simplified = QByteArray(field, length).simplified();
    std::memcpy(target, simplified.constData(), size_t(simplified.size()));
    return simplified.size();
}

} // namespace

Fonts::Fonts()
{
    m_charsetWidth.fill(0);
    m_charsetDirection.fill(0);
}

Fonts& Fonts::instance()
{
    static Fonts* fonts = new Fonts;
    return *fonts;
}

void Fonts::reset()
{
    m_glyphNames.clear();
    m_glyphNameBytes.clear();
    for (auto& names : m_fontNames)
        names.fill(QString());
    m_uniqueFonts.clear();
    m_glyphOfCode.clear();
    m_codeOfGlyph.clear();
    m_charsetWidth.fill(0);
    m_charsetDirection.fill(0);
    m_charsetCount = 0;
    m_currentSize = 0.0f;
    m_currentStyle = 0;
    m_identicalDocumentFonts.clear();
    m_conflictingDocumentFonts.clear();
    m_markerStyles.clear();
    m_requiredFonts.clear();
    m_problem = CatalogueProblem::None;
    m_problemFile.clear();
}

bool Fonts::initialize(const QString& charset)
{
    qWarning() << "bool Fonts::initialize(const QString&)" << charset;
    m_charsetCount = 0;
    m_problem = CatalogueProblem::None;
    m_problemFile.clear();
    if (!readGlyphList())
        return false;
    return readCharsets(charset);
}

bool Fonts::readGlyphList()
{
    QFile file(QLatin1String(CupsDataDir) + QLatin1String(GlyphListFile));
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning("Can not open glyphs file!");
        m_problem = CatalogueProblem::GlyphListUnreadable;
        m_problemFile = file.fileName();
        return false;
    }
    // The whole list is read at once and taken apart line by line; the
    // names stand one after the other in one array, which a name never
    // outgrows: it is no longer than its line.
    const QByteArray text = file.readAll();
    const int namesStart = m_glyphNameBytes.size();
    m_glyphNameBytes.resize(namesStart + text.size());
    char* const nameBytes = m_glyphNameBytes.data();
    int used = namesStart;
    int names = 0;
    const char* const textEnd = text.constData() + text.size();
    for (const char* line = text.constData(); line < textEnd;) {
        const char* newline = static_cast<const char*>(std::memchr(line, '\n', size_t(textEnd - line)));
        const char* const lineEnd = newline ? newline + 1 : textEnd;
        // The fields are separated by single blanks: the code, then the name.
        const char* firstBlank = line;
        while (firstBlank < lineEnd && *firstBlank != ' ')
            ++firstBlank;
        const char* const name = firstBlank + 1;
        const char* nameEnd = name;
        while (nameEnd < lineEnd && *nameEnd != ' ')
            ++nameEnd;
        const char* const code = line;
        line = lineEnd;
        // Lines without a name or with a code beyond the table are outside
        // the format; they are passed over so that they cannot touch the table.
        if (firstBlank == lineEnd)
            continue;
        const qlonglong value = glyphCode(code, int(firstBlank - code));
        if (value < 0 || value >= CodeCount)
            continue;
        GlyphNameSpan& span = m_glyphNames[int(value)];
        span.offset = used;
        span.length = writeGlyphName(name, int(nameEnd - name), nameBytes + used);
        span.set = true;
        used += span.length;
        names += span.length > 0;
    }
    m_glyphNameBytes.resize(used);
    file.close();
    if (names == 0) {
        m_problem = CatalogueProblem::GlyphListEmpty;
        m_problemFile = file.fileName();
    }
    return true;
}

bool Fonts::isCharsetFileName(const QString& name)
{
    return !name.contains(QLatin1Char('/')) && !name.contains(QLatin1String("..")) &&
           !name.contains(QChar(0));
}

bool Fonts::readCharsets(const QString& charset)
{
    // A name that would lead out of the charsets folder is treated like a
    // charset without a file: the default charset is read instead.
    const QString folder = QLatin1String(CupsDataDir) + QLatin1String(CharsetsFolder);
    QFile file(folder + charset);
    if (!isCharsetFileName(charset) || !file.open(QIODevice::ReadOnly)) {
        qWarning("Can not open %s charset file!", charset.toLocal8Bit().constData());
        file.setFileName(folder + QLatin1String(DefaultCharset));
        if (!file.open(QIODevice::ReadOnly)) {
            qWarning("Can not open utf-8 charset file!");
            m_problem = CatalogueProblem::CharsetFileUnreadable;
            m_problemFile = file.fileName();
            return false;
        }
    }

    m_charsetFile = file.fileName();

    // A file without the exact header is closed; the loop below then reads
    // nothing and the catalogue stays without charsets. (The loop tests that
    // the file is open: reading a closed device would add a warning of its own.)
    if (file.readLine() != CharsetFileHeader) {
        file.close();
        qWarning("Bad/Empty charset file %s !", file.fileName().toLocal8Bit().constData());
    }

    // The names met so far, this call's and an earlier call's alike.
    QSet<QString> knownFonts(m_uniqueFonts.cbegin(), m_uniqueFonts.cend());
    while (file.isOpen()) {
        const QByteArray line = file.readLine();
        if (line.isEmpty())
            break;
        if (line.at(0) == '#' || line.at(0) == '\n')
            continue;
        const QStringList fields = QString::fromLatin1(line).simplified().split(QLatin1Char(' '));
        if (fields.size() < 5) {
            file.close();
            qWarning("Bad font description line: %s", line.constData());
            m_problem = CatalogueProblem::CharsetLineBad;
            m_problemFile = file.fileName();
            return false;
        }
        bool ok = false;
        const uint start = fields.at(0).toUInt(&ok, 16);
        if (!ok) {
            file.close();
            qWarning("Bad start value!");
            m_problem = CatalogueProblem::CharsetLineBad;
            m_problemFile = file.fileName();
            return false;
        }
        const uint end = fields.at(1).toUInt(&ok, 16);
        if (!ok) {
            file.close();
            qWarning("Bad end value!");
            m_problem = CatalogueProblem::CharsetLineBad;
            m_problemFile = file.fileName();
            return false;
        }

        const int n = m_charsetCount;
        if (fields.at(2) == QLatin1String("ltor")) {
            m_charsetDirection[n] = 0;
        } else if (fields.at(2) == QLatin1String("rtol")) {
            m_charsetDirection[n] = 1;
        } else {
            file.close();
            qWarning("Wrong text direction: %s", fields.at(2).toLocal8Bit().constData());
            m_problem = CatalogueProblem::CharsetLineBad;
            m_problemFile = file.fileName();
            return false;
        }
        if (fields.at(3) == QLatin1String("single")) {
            m_charsetWidth[n] = 0;
        } else if (fields.at(3) == QLatin1String("double")) {
            m_charsetWidth[n] = 1;
        } else {
            file.close();
            qWarning("Wrong text width %s", fields.at(3).toLocal8Bit().constData());
            m_problem = CatalogueProblem::CharsetLineBad;
            m_problemFile = file.fileName();
            return false;
        }

        // Names beyond the fourth are listed as fonts but belong to no style;
        // styles without a name of their own take the first. The set answers
        // "met before?" at once, however many names a line holds.
        for (int i = 4; i < fields.size(); ++i) {
            if (!knownFonts.contains(fields.at(i))) {
                knownFonts.insert(fields.at(i));
                m_uniqueFonts.append(fields.at(i));
            }
        }
        for (int style = 0; style < StyleCount; ++style)
            m_fontNames[n][style] = fields.value(4 + style, fields.at(4));

        // Map the span; a later charset covering the same code point wins.
        // Codes or code points outside the 16-bit tables are passed over.
        for (qint64 p = start; p <= qint64(end) && p < CodeCount; ++p) {
            const qint64 code = qint64(n) * 256 + (p - start);
            if (code >= CodeCount)
                break;
            m_glyphOfCode[int(p)] = quint16(code);
            m_codeOfGlyph[int(code)] = quint16(p);
        }

        if (++m_charsetCount == MaxCharsets)
            break;
    }
    file.close();
    trace(QStringLiteral("Unique fonts: %1").arg(m_uniqueFonts.join(QStringLiteral(", "))));
    return true;
}

QByteArray Fonts::glyphName(int codePoint) const
{
    const GlyphNameSpan& span = m_glyphNames.at(codePoint);
    if (!span.set)
        return QByteArray();
    return QByteArray(m_glyphNameBytes.constData() + span.offset, span.length);
}

QString Fonts::fontFilePath(const QString& font)
{
    return QLatin1String(CupsDataDir) + QLatin1String(FontsFolder) + font;
}

QString Fonts::catalogueRefusal() const
{
    if (!Variables::instance().safeOutput())
        return QString();

    const auto refusal = [](const char* text, const QString& file) {
        return QCoreApplication::translate("main", text).arg(file);
    };
    switch (m_problem) {
    case CatalogueProblem::GlyphListUnreadable:
        return refusal(QT_TRANSLATE_NOOP("main", "Can not read glyph list %1: the marker would not print"),
                       m_problemFile);
    case CatalogueProblem::GlyphListEmpty:
        return refusal(QT_TRANSLATE_NOOP("main", "Glyph list %1 names no glyphs: the marker would not print"),
                       m_problemFile);
    case CatalogueProblem::CharsetFileUnreadable:
        return refusal(QT_TRANSLATE_NOOP("main", "Can not read charset file %1: the marker would not print"),
                       m_problemFile);
    case CatalogueProblem::CharsetLineBad:
        return refusal(
            QT_TRANSLATE_NOOP("main", "Charset file %1 has a bad line: the marker would not print"),
            m_problemFile);
    case CatalogueProblem::None:
        break;
    }
    if (m_charsetCount == 0)
        return refusal(
            QT_TRANSLATE_NOOP("main", "Charset file %1 describes no charsets: the marker would not print"),
            m_charsetFile);

    // Every base font the marker styles need must have a readable file.
    for (const QString& font : m_requiredFonts) {
        QFile file(fontFilePath(font));
        if (openRegularFile(file) != RegularFileOpen::Opened)
            return refusal(
                QT_TRANSLATE_NOOP("main", "Can not read marker font file %1: the marker would not print"),
                file.fileName());
    }
    return QString();
}

QStringList Fonts::fontsForStyle(int style) const
{
    QStringList fonts;
    if (style < 0 || style >= StyleCount)
        return fonts;
    for (int i = 0; i < m_charsetCount; ++i) {
        if (!fonts.contains(m_fontNames[i][style]))
            fonts.append(m_fontNames[i][style]);
    }
    return fonts;
}

void Fonts::setMarkerStyles(const QSet<int>& styles)
{
    m_markerStyles = styles;
    m_requiredFonts.clear();
    QList<int> sorted = styles.values();
    std::sort(sorted.begin(), sorted.end());
    for (int style : sorted) {
        for (const QString& font : fontsForStyle(style)) {
            if (!m_requiredFonts.contains(font))
                m_requiredFonts.append(font);
        }
    }
}
