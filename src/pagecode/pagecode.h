// Page codes: a short text on every printed page that names the job, the page,
// the copy and the day of marking, authenticated with the site's secret key.
#pragma once

#include <QByteArray>
#include <QDate>
#include <QString>
#include <QtGlobal>

// The four facts a page code carries, each already reduced to the width of
// its field (PageCodeFields::wrap does that).
//
// Field widths and what wraps:
//   job   24 bits: job ids 0 .. 16 777 215; larger ids wrap (16 777 216 reads as 0)
//   page  16 bits: pages 0 .. 65 535; page 65 536 reads as 0
//   copy  10 bits: copies 0 .. 1 023; copy 1 024 reads as 0 (0: the job named no copy)
//   day   14 bits: days from 2024-01-01, so 2024-01-01 .. 2068-11-08; later
//                  and earlier days wrap around that range
struct PageCodeFields {
    quint32 job = 0;
    quint32 page = 0;
    quint32 copy = 0;
    QDate date;

    // Reduces full values to the field widths, as a code stores them.
    static PageCodeFields wrap(qint64 job, qint64 page, qint64 copy, const QDate& date);

    bool operator==(const PageCodeFields& other) const
    {
        return job == other.job && page == other.page && copy == other.copy && date == other.date;
    }
};

// How a typed code was read by PageCode::read.
enum class PageCodeReading {
    Authentic,    // the key made it: the fields are what the code says
    WrongLength,  // not 24 characters once separators are removed
    BadCharacter, // holds a character that codes never use
    OutOfRange,   // spelled with the right characters, but no code is this large
    NotAuthentic, // well formed, but the key did not make it
};

// Making and reading codes. A code is one number of 118 bits written as 24
// digits in base 31, the most significant first, in the alphabet
// "23456789ABCDEFGHJKMNPQRSTUVWXYZ" (no 0, 1, I, L or O), and shown in six
// groups of four joined by "-". The number is mac * 2^64 + data, where data
// packs the fields as job << 40 | page << 24 | copy << 14 | day, and mac is
// the first 54 bits of HMAC-SHA-256(job secret, "quillet page code 1" + data
// as 8 bytes, most significant first). The job secret comes from
// PageCodeKey::jobSecret: codes of every job are made under a key of that
// job alone.
namespace PageCode
{

// Number of characters of a code without separators.
constexpr int Length = 24;

// The 31 characters a code is written with, in digit order.
extern const char Alphabet[];

// Packs the fields into the code's data number.
quint64 packFields(const PageCodeFields& fields);

// Unpacks the data number of a code.
PageCodeFields unpackFields(quint64 data);

// The 54-bit authenticator of a data number under a job secret.
quint64 authenticator(const QByteArray& jobSecret, quint64 data);

// Writes an authenticator and a data number as a grouped code. Codes are
// normally made with make(); this is the code's plain notation.
QString compose(quint64 mac, quint64 data);

// Reads a typed code into its authenticator and data number; lower case,
// "-" and blanks are accepted. Returns whether it is well formed (nothing is
// checked against a key yet); when not, *why says what is wrong with it.
bool decompose(const QString& typed, quint64* mac, quint64* data, PageCodeReading* why);

// The grouped code of the fields under a job secret; the same inputs always
// give the same code.
QString make(const QByteArray& jobSecret, const PageCodeFields& fields);

// Writes a code without separators as six groups of four joined by "-".
QString group(const QString& plain);

} // namespace PageCode
