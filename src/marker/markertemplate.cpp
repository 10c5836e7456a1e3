// The marker model and the reader of the marker template.
//
// A template has keyword lines ("charset=", "fonarik_boundary=",
// "replace_underscore=") and marker string lines of six or seven fields:
//   page type : style : size [: underline] : extra : position : text
#include "marker/marker.h"

#include "common/postscriptnumber.h"
#include "common/trace.h"
#include "fonts/fonts.h"
#include "marker/markerpositions.h"
#include "settings/variables.h"

#include <QIODevice>
#include <QStringList>

namespace {

// Splits a string line at ":", except between "{" and the next "}". Braces
// do not nest; square brackets do not protect.
QStringList splitFields(const QString& line)
{
    // Each field is copied once, at its exact size.
    QStringList fields;
    int start = 0;
    bool protectedByBrace = false;
    for (int i = 0; i < line.size(); ++i) {
        const QChar c = line.at(i);
        if (c == QLatin1Char('{'))
            protectedByBrace = true;
        else if (c == QLatin1Char('}'))
            protectedByBrace = false;
        if (c == QLatin1Char(':') && !protectedByBrace) {
            fields.append(line.mid(start, i - start));
            start = i + 1;
        }
    }
    fields.append(line.mid(start));
    return fields;
}

// Returns the index of a word in a fixed table, or -1.
template <int N>
int indexOf(const char* const (&words)[N], const QString& word)
{
    for (int i = 0; i < N; ++i) {
        if (word == QLatin1String(words[i]))
            return i;
    }
    return -1;
}

// The charset name itself, or the default "utf-8" with a warning when the
// name would lead out of the charsets folder.
QString checkedCharset(const QString& name)
{
    if (Fonts::isCharsetFileName(name))
        return name;
    qWarning("Charset name '%s' is not a file of the charsets folder, utf-8 is used!",
             name.toLocal8Bit().constData());
    return QStringLiteral("utf-8");
}

bool isKnownPosition(const QString& position)
{
    return indexOf(MarkerPosition::Names, position) >= 0
        || pointPositionPattern().match(position).hasMatch()
        || millimetrePositionPattern().match(position).hasMatch();
}

} // namespace

Marker& Marker::instance()
{
    static Marker* marker = new Marker;
    return *marker;
}

void Marker::reset()
{
    *this = Marker();
}

bool Marker::addString(int pageType, const QString& position, const MarkerStringPtr& string)
{
    // Every string costs memory beyond its text, and a few bytes of template
    // ("^^^^") can ask for many strings: their number is bounded.
    // With print-safe output the run is refused instead (see stringsDropped).
    if (m_stringCount >= MaxMarkerStrings) {
        if (m_stringCount++ == MaxMarkerStrings && !Variables::instance().safeOutput())
            qWarning("Template holds more than %d marker strings, the rest is ignored!", MaxMarkerStrings);
        return false;
    }
    ++m_stringCount;
    m_strings[pageType][position].append(string);
    return true;
}

void Marker::readTemplate(QIODevice& device)
{
    device.seek(0);
    m_fontStyles.clear();

    for (;;) {
        QByteArray raw = device.readLine();
        if (raw.isEmpty())
            break;
        // The raw bytes are let go at once: a long line is held only as text.
        const QString line = QString::fromUtf8(std::move(raw).simplified());
        if (line.isEmpty())
            continue;

        // Keyword lines: a case-insensitive prefix and an "=" somewhere; the
        // value lies between the first and the second "=".
        if (line.contains(QLatin1Char('='))) {
            const QString value = line.split(QLatin1Char('=')).value(1);
            if (line.startsWith(QLatin1String("fonarik_boundary"), Qt::CaseInsensitive)) {
                bool ok = false;
                const int boundary = value.trimmed().toInt(&ok, 10);
                if (ok && boundary > 0)
                    m_fonarikBoundary = boundary;
                continue;
            }
            if (line.startsWith(QLatin1String("replace_underscore"), Qt::CaseInsensitive)) {
                m_replaceUnderscore = value.trimmed() == QLatin1String("1");
                continue;
            }
            if (line.startsWith(QLatin1String("charset"), Qt::CaseInsensitive)) {
                m_charset = checkedCharset(value);
                continue;
            }
        }

        QStringList fields = splitFields(line);
        if (fields.size() == 6)
            fields.insert(3, QString());
        if (fields.size() != 7) {
            qWarning("Incorrect marker format string '%s'!", line.toLocal8Bit().constData());
            continue;
        }

        auto string = MarkerStringPtr::create();
        string->text = fields.at(6);
        string->fontStyle = qMax(0, indexOf(MarkerFontStyle::Words, fields.at(1)));
        string->extra = fields.at(4);
        bool sizeOk = false;
        const float size = fields.at(2).toFloat(&sizeOk);
        if (sizeOk && size > 0 && !isPostScriptReal(size)) {
            qWarning("Font size '%s' is not a PostScript number, 12 is used!",
                     fields.at(2).toLocal8Bit().constData());
            sizeOk = false;
        }
        string->fontSize = sizeOk && size > 0 ? size : 12.0f;
        string->underline = fields.at(3) == QLatin1String("underline");
        // The style counts as used even when the line is rejected below.
        m_fontStyles.insert(string->fontStyle);

        const int pageType = indexOf(MarkerPageType::Words, fields.at(0));
        if (pageType < 0) {
            qWarning("Unknown page type '%s'!", fields.at(0).toLocal8Bit().constData());
            continue;
        }
        const QString& position = fields.at(5);
        if (!isKnownPosition(position)) {
            qWarning("Unknown position '%s'!", position.toLocal8Bit().constData());
            continue;
        }

        // A text with square brackets is expanded now, once; "^" splits the
        // result into several strings. Other texts are expanded per page.
        if (string->text.contains(QLatin1Char('[')) && string->text.contains(QLatin1Char(']'))) {
            // The pieces are taken one at a time, so that a text of many
            // pieces is never held as a list of all of them.
            const QString expandedText = expandVariables(string->text);
            for (int start = 0;;) {
                int end = expandedText.indexOf(QLatin1Char('^'), start);
                if (end < 0)
                    end = expandedText.size();
                auto expanded = MarkerStringPtr::create(*string);
                expanded->text.clear();
                expanded->expandedText = expandedText.mid(start, end - start);
                expanded->expanded = true;
                if (!addString(pageType, position, expanded) || end == expandedText.size())
                    break;
                start = end + 1;
            }
        } else {
            addString(pageType, position, string);
        }
        trace(QStringLiteral("Added marker string %1").arg(string->text));
    }

    const Variables& variables = Variables::instance();
    if (variables.contains(QStringLiteral("mac-marker-font")))
        m_charset = checkedCharset(variables.value(QStringLiteral("mac-marker-font")));
}
