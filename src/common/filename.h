// File names are bytes: the file system takes any byte but "/" and NUL in a
// name, whatever the locale says. Text decoded with the locale's encoding
// loses the bytes that the encoding does not allow (a Latin-1 name under a
// UTF-8 locale, a name made of random bytes), and such a name can then be
// neither found nor created. These helpers keep every byte: bytes that do
// not decode are carried in the text as lone low surrogates (U+DC80 to
// U+DCFF for the bytes 0x80 to 0xFF), which no decoding ever yields, and
// are written back as the byte they stand for.
#pragma once

#include <QByteArray>
#include <QIODevice>
#include <QString>
#include <QStringList>

class QFile;

// The text of a file name, or of any command-line argument, as the locale's
// encoding reads it; bytes that it cannot read are kept as stand-ins.
// encodeFileName() gives the same bytes back.
QString decodeFileName(const QByteArray& bytes);

// The bytes of a name made by decodeFileName(), or of any text: the locale's
// encoding, each stand-in as the byte it stands for. Also what messages that
// name files are written with, so that they show the name as given.
QByteArray encodeFileName(const QString& name);

// The program's arguments, decoded with decodeFileName(): what
// QCoreApplication::arguments() gives, without its losses.
QStringList decodedArguments(int argc, char* argv[]);

// Whether a file (or folder) of this name exists, links followed.
bool fileNameExists(const QString& name);

// Opens `file` on the file that `name` names, in `mode` (ReadOnly,
// WriteOnly with or without Truncate, Append, Text); a file opened for
// writing is created with 0666 less the umask, as QFile creates it. The
// file's own name is set to `name` for messages. False when it cannot be
// opened.
bool openFileByName(QFile& file, const QString& name, QIODevice::OpenMode mode);
