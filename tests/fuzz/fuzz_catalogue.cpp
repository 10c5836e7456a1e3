// libFuzzer target: the font catalogue files, the glyph list and the charset
// file, read by Fonts::initialize, and what the marker block takes from them
// (the base fonts per style, the encoded strings, the font resources).
//
// An input is the glyph list, a line "====", then the charset file; without
// that line the whole input is the charset file and the glyph list is empty.
#include "fuzzsupport.h"

#include "fonts/fonts.h"

#include <QBuffer>
#include <QFileInfo>

namespace
{

const QByteArray Separator = "\n====\n";

// A text over several scripts and planes, for the string encoder.
const char16_t SampleText[] =
    u"Page 3 of 7 \u00e9\u00df \u0416\u0438\u0442\u044c \u05d0\u05d1 \u4e2d\u6587 \U0001F600";

// Whether every font the styles need is a plain name of a file in the fonts
// folder (names with folders in them are a separate matter of the catalogue).
bool fontsPresent(const QStringList& fonts)
{
    for (const QString& font : fonts) {
        if (font.contains(QLatin1Char('/')) || font.startsWith(QLatin1Char('.')) ||
            !QFileInfo(Fuzz::dataPath(QStringLiteral("fonts/") + font)).isFile())
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::initialize();
    Fuzz::installTinyCatalogue();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
    const int separator = input.indexOf(Separator);
    Fuzz::writeDataFile(QStringLiteral("data/psglyphs"),
                        separator < 0 ? QByteArray() : input.left(separator + 1));
    Fuzz::writeDataFile(QStringLiteral("charsets/utf-8"),
                        separator < 0 ? input : input.mid(separator + Separator.size()));

    Fuzz::resetSingletons();
    Fonts& fonts = Fonts::instance();
    fonts.initialize(QStringLiteral("utf-8"));
    fonts.setMarkerStyles({0, 1, 2, 3});
    for (int style = 0; style < Fonts::StyleCount; ++style)
        fonts.fontsForStyle(style);

    QBuffer out;
    out.open(QIODevice::WriteOnly);
    fonts.writeString(out, QString::fromUtf16(SampleText));
    fonts.writeSuppliedResources(out);
    if (fontsPresent(fonts.requiredFonts()))
        fonts.writeFontResources(out);
    return 0;
}
