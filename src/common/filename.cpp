// File names kept byte for byte through text.
#include "common/filename.h"

#include <QFile>
#include <QTextCodec>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// Stand-ins for bytes that the locale's encoding cannot read.
constexpr ushort StandInBase = 0xDC00;

// A low surrogate after a high one is half of a character beyond U+FFFF,
// not a stand-in.
bool isStandIn(const QString& text, int i)
{
    const ushort c = text.at(i).unicode();
    return c >= StandInBase && c <= StandInBase + 0xFF && !(i > 0 && text.at(i - 1).isHighSurrogate());
}

bool holdsStandIn(const QString& text)
{
    for (int i = 0; i < text.size(); ++i) {
        if (isStandIn(text, i))
            return true;
    }
    return false;
}

// The locale's encoding reads these bytes into text that it writes back as
// the same bytes.
bool readsBack(QTextCodec* codec, const QByteArray& bytes, QString* text)
{
    *text = codec->toUnicode(bytes);
    return !text->isEmpty() && !holdsStandIn(*text) && codec->fromUnicode(*text) == bytes;
}

} // namespace

QString decodeFileName(const QByteArray& bytes)
{
    QTextCodec* codec = QTextCodec::codecForLocale();
    QString whole;
    if (bytes.isEmpty() || readsBack(codec, bytes, &whole))
        return whole;

    // Character by character: the shortest run of bytes (a multi-byte
    // character has at most four) that reads back, else one stand-in.
    QString text;
    int i = 0;
    while (i < bytes.size()) {
        int taken = 0;
        for (int length = 1; length <= 4 && i + length <= bytes.size(); ++length) {
            QString piece;
            if (readsBack(codec, bytes.mid(i, length), &piece)) {
                text += piece;
                taken = length;
                break;
            }
        }
        if (taken == 0) {
            text += QChar(ushort(StandInBase + uchar(bytes.at(i))));
            taken = 1;
        }
        i += taken;
    }
    return text;
}

QByteArray encodeFileName(const QString& name)
{
    if (!holdsStandIn(name))
        return name.toLocal8Bit();
    QTextCodec* codec = QTextCodec::codecForLocale();
    QByteArray bytes;
    int start = 0;
    for (int i = 0; i <= name.size(); ++i) {
        if (i < name.size() && !isStandIn(name, i))
            continue;
        bytes += codec->fromUnicode(name.mid(start, i - start));
        if (i < name.size())
            bytes += char(name.at(i).unicode() - StandInBase);
        start = i + 1;
    }
    return bytes;
}

QStringList decodedArguments(int argc, char* argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << decodeFileName(QByteArray(argv[i]));
    return arguments;
}

bool fileNameExists(const QString& name)
{
    struct stat status;
    return !name.isEmpty() && ::stat(encodeFileName(name).constData(), &status) == 0;
}

bool openFileByName(QFile& file, const QString& name, QIODevice::OpenMode mode)
{
    file.setFileName(name);
    int flags = O_CLOEXEC;
    if ((mode & QIODevice::ReadWrite) == QIODevice::ReadWrite)
        flags |= O_RDWR | O_CREAT;
    else if (mode & QIODevice::WriteOnly)
        flags |= O_WRONLY | O_CREAT;
    else
        flags |= O_RDONLY;
    // As QFile does: writing without reading or appending starts the file anew.
    if ((mode & QIODevice::Truncate) ||
        ((mode & QIODevice::WriteOnly) && !(mode & (QIODevice::ReadOnly | QIODevice::Append))))
        flags |= O_TRUNC;
    if (mode & QIODevice::Append)
        flags |= O_APPEND;
    const int descriptor = ::open(encodeFileName(name).constData(), flags, 0666);
    if (descriptor < 0)
        return false;
    struct stat status;
    // QFile refuses to open a folder; so does this.
    if (::fstat(descriptor, &status) != 0 || S_ISDIR(status.st_mode) ||
        !file.open(descriptor, mode, QFileDevice::AutoCloseHandle)) {
        ::close(descriptor);
        return false;
    }
    return true;
}
