// The marker font resources written before the first page: the base font
// programs, one encoding vector per charset, the base fonts re-encoded per
// charset and style, and one composite (Type 0, 8/8 mapping) marker font per
// style whose descendant i is the re-encoded base font of charset i.
#include "fonts/fonts.h"

#include "common/trace.h"
#include "settings/variables.h"

#include <QFile>
#include <QMap>

#include <algorithm>
#include <cstdlib>

namespace {

const char BeginFontResource[] = "%%BeginResource: font ";
const char EndFontResource[] = "\n%%EndResource\n";

const char EncodingsHeader[] = "% Character encodings\n";
// - -  Defines markerEncoding<i>, the 256 glyph names of charset i.
const char EncodingStart[] = "/markerEncoding%1 [\n";
const char EncodingEnd[] = "] def\n";

const char ReencodeHeader[] = "% Reencode base fonts\n";
// - font  Finds the base font.
const char FindBaseFont[] = "/%1 findfont\n";
// font - font'  Copies the font with the encoding of charset %1.
const char ReencodeFont[] = "dup length 1 add dict begin\n"
                            "  { 1 index /FID ne { def } { pop pop } ifelse } forall\n"
                            "  /Encoding markerEncoding%1 def\n"
                            "  currentdict\n"
                            "end\n";
// font' - -  Defines the re-encoded font and binds its name in the current dictionary.
const char DefineReencodedFont[] = "/%1%2 exch definefont /%1%2 exch def\n";

const char CompositeHeader[] = "% Create composite font\n";
// - -  Opens the composite font dictionary.
const char CompositeBegin[] = "8 dict begin\n";
// - -  Defines the composite font's type and matrix and opens its Encoding array.
const char CompositeFields[] = "/FontType 0 def/FontMatrix[1.0 0 0 1.0 0 0]def/FMapType 2 def /Encoding[\n";
const char CompositeDescendants[] = "]def/FDepVector[\n";
// - dict  Closes the composite font dictionary.
const char CompositeEnd[] = "]def currentdict end\n";
// dict - -  Defines the composite marker font.
const char DefineCompositeFont[] = "/%1 exch definefont pop\n";

// --- Print-safe output: underline metrics of the composite fonts ------------------

// font key default markerUnderlineMetric value
// The FontInfo entry key of a base font in text space units (its value run
// through the font's matrix), or the default when the font lacks it. The
// composite fonts have an identity matrix, so the result is in their units.
const char UnderlineMetricProc[] = "/markerUnderlineMetric {\n"
                                   "  3 1 roll 1 index /FontInfo known {\n"
                                   "    1 index /FontInfo get dup 2 index known {\n"
                                   "      exch get 0 exch 3 -1 roll /FontMatrix get dtransform exch pop exch pop\n"
                                   "    } { pop pop pop } ifelse\n"
                                   "  } { pop pop } ifelse\n"
                                   "} bind def\n";
// - -  The composite font's FontInfo, from the base font %1 of its first charset.
const char CompositeFontInfo[] =
    "/FontInfo 2 dict dup begin\n"
    "/UnderlinePosition %1 /UnderlinePosition -0.1 markerUnderlineMetric def\n"
    "/UnderlineThickness %1 /UnderlineThickness 0.05 markerUnderlineMetric def\n"
    "end def\n";
// - -  The composite font's FontInfo when there are no charsets.
const char CompositeFontInfoDefault[] = "/FontInfo 2 dict dup begin\n"
                                        "/UnderlinePosition -0.1 def\n"
                                        "/UnderlineThickness 0.05 def\n"
                                        "end def\n";

// The name under which a conflicting font is embedded: its own name and a
// number drawn from an unseeded, repeatable pseudo-random sequence.
QString substituteName(const QString& font, const QStringList& taken)
{
    static unsigned int seed = 1;
    QString name;
    do {
        name = font + QString::number(rand_r(&seed));
    } while (taken.contains(name));
    return name;
}

// Copies the rest of a file as it stands, in large pieces.
void copyFile(QIODevice& file, QIODevice& out)
{
    char piece[65536];
    for (qint64 size = file.read(piece, sizeof piece); size > 0; size = file.read(piece, sizeof piece))
        out.write(piece, size);
}

QList<int> sortedStyles(const QSet<int>& styles)
{
    QList<int> sorted = styles.values();
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

} // namespace

void Fonts::writeFontResources(QIODevice& out, const FileAppender& append) const
{
    // Marker styles and fonts are iterated in sorted order so that the output
    // is the same on every run.
    const QList<int> styles = sortedStyles(m_markerStyles);

    // 1. The base fonts needed, less those the document already carries.
    QStringList fonts;
    for (int style : styles) {
        for (const QString& font : fontsForStyle(style)) {
            if (!fonts.contains(font))
                fonts.append(font);
        }
    }
    trace(QStringLiteral("Fonts, required for markering: %1").arg(fonts.join(QStringLiteral(", "))));
    for (const QString& font : m_identicalDocumentFonts)
        fonts.removeAll(font);
    std::sort(fonts.begin(), fonts.end());

    // 2. Their programs. A font the document defines differently is embedded
    // under a new name, renamed throughout its program text.
    QMap<QString, QString> substituteFontNames;
    for (const QString& font : qAsConst(fonts)) {
        QFile file(fontFilePath(font));
        if (!file.open(QIODevice::ReadOnly)) {
            qWarning("Can not read font file %s", file.fileName().toLocal8Bit().constData());
            continue;
        }
        if (!m_conflictingDocumentFonts.contains(font)) {
            out.write(BeginFontResource + font.toLatin1() + '\n');
            if (append)
                append(file);
            else
                copyFile(file, out);
        } else {
            const QString newName = substituteName(font, m_identicalDocumentFonts);
            substituteFontNames.insert(font, newName);
            out.write(BeginFontResource + newName.toLatin1() + '\n');
            const QByteArray oldBytes = font.toLocal8Bit();
            const QByteArray newBytes = newName.toLocal8Bit();
            for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine())
                out.write(line.replace(oldBytes, newBytes));
        }
        out.write(EndFontResource);
        file.close();
    }

    // 3. One encoding vector per charset: 32 lines of 8 glyph names.
    out.write(EncodingsHeader);
    for (int i = 0; i < m_charsetCount; ++i) {
        QByteArray encoding = QString::fromLatin1(EncodingStart).arg(i, 0, 16).toLatin1();
        for (int k = 0; k < 256; ++k) {
            const quint16 codePoint = m_codeOfGlyph.at(i * 256 + k);
            const QByteArray glyph = glyphName(codePoint);
            encoding += '/';
            if (!glyph.isEmpty())
                encoding += glyph;
            else if (codePoint <= 0xFF)
                encoding += ".notdef";
            else
                encoding += "uni" + QByteArray::number(codePoint, 16).rightJustified(4, '0');
            if (k % 8 == 7)
                encoding += '\n';
        }
        encoding += EncodingEnd;
        out.write(encoding);
    }

    // 4. Every base font of a used style, re-encoded per charset.
    out.write(ReencodeHeader);
    for (int style : styles) {
        for (int i = 0; i < m_charsetCount; ++i) {
            const QString base = substituteFontNames.value(m_fontNames[i][style], m_fontNames[i][style]);
            const QString hex = QString::number(i, 16);
            out.write(QString::fromLatin1(FindBaseFont).arg(base).toLatin1());
            out.write(QString::fromLatin1(ReencodeFont).arg(hex).toLatin1());
            out.write(QString::fromLatin1(DefineReencodedFont)
                          .arg(QLatin1String(markerFontNames[style]), hex)
                          .toLatin1());
        }
    }

    // 5. One composite font per used style.
    // With print-safe output each composite font also gets the FontInfo that
    // the underline procedures read, in the composite font's own units.
    const bool safeOutput = Variables::instance().safeOutput();
    out.write(CompositeHeader);
    if (safeOutput && m_charsetCount > 0)
        out.write(UnderlineMetricProc);
    for (int style : styles) {
        QByteArray composite = CompositeBegin;
        if (safeOutput) {
            composite += m_charsetCount > 0
                ? QString::fromLatin1(CompositeFontInfo).arg(QLatin1String(markerFontNames[style]) + QLatin1Char('0')).toLatin1()
                : QByteArray(CompositeFontInfoDefault);
        }
        composite += CompositeFields;
        for (int u = 0; u < m_charsetCount; ++u) {
            composite += QByteArray::number(u);
            if (u != m_charsetCount - 1)
                composite += u % 16 == 15 ? '\n' : ' ';
        }
        composite += CompositeDescendants;
        for (int u = 0; u < m_charsetCount; ++u) {
            composite += markerFontNames[style] + QByteArray::number(u, 16);
            if (u != m_charsetCount - 1)
                composite += u % 4 == 3 ? '\n' : ' ';
        }
        composite += CompositeEnd;
        composite += QString::fromLatin1(DefineCompositeFont).arg(QLatin1String(markerFontNames[style])).toLatin1();
        out.write(composite);
    }
}
