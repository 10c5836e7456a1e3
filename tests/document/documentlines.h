// Documents written as lists of lines, for the document tests.
#pragma once

#include <QByteArray>
#include <QByteArrayList>

// A document made of lines, each given without its line feed.
inline QByteArray lines(const QByteArrayList& content)
{
    QByteArray document;
    for (const QByteArray& line : content)
        document += line + '\n';
    return document;
}

// The same with CR LF line ends.
inline QByteArray crlfLines(const QByteArrayList& content)
{
    QByteArray document;
    for (const QByteArray& line : content)
        document += line + "\r\n";
    return document;
}

// Bytes of a literal, NUL bytes included.
template <int N>
QByteArray bytes(const char (&raw)[N])
{
    return QByteArray(raw, N - 1);
}
