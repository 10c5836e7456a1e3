// Page codes: packing the fields, the authenticator and the base-31 notation.
#include "pagecode/pagecode.h"

#include <QMessageAuthenticationCode>

#include <cstring>

namespace
{

// Field widths in bits, from the most significant end of the data number.
constexpr int JobBits = 24;
constexpr int PageBits = 16;
constexpr int CopyBits = 10;
constexpr int DayBits = 14;
constexpr int MacBits = 54;
static_assert(JobBits + PageBits + CopyBits + DayBits == 64, "the fields fill the data number");

constexpr int DayShift = 0;
constexpr int CopyShift = DayShift + DayBits;
constexpr int PageShift = CopyShift + CopyBits;
constexpr int JobShift = PageShift + PageBits;

constexpr int Base = 31;
constexpr int GroupSize = 4;
constexpr char Separator = '-';

// Text authenticated before the data number: names what the authenticator is for.
const char MacContext[] = "quillet page code 1";

// The first day a code can name; day fields count from it.
const QDate& epoch()
{
    static const QDate day(2024, 1, 1);
    return day;
}

constexpr quint64 mask(int bits)
{
    return (quint64(1) << bits) - 1;
}

// A value reduced into 0 .. 2^bits - 1, negative values wrapping from the top.
quint32 wrapTo(qint64 value, int bits)
{
    return quint32(quint64(value) & mask(bits));
}

using Wide = unsigned __int128;

// Value of one code character, or -1 for characters codes never use.
int digitValue(QChar c)
{
    const char* found = c.unicode() < 128 && c.unicode() > 0
                            ? std::strchr(PageCode::Alphabet, char(c.toUpper().unicode()))
                            : nullptr;
    return found ? int(found - PageCode::Alphabet) : -1;
}

} // namespace

const char PageCode::Alphabet[] = "23456789ABCDEFGHJKMNPQRSTUVWXYZ";
static_assert(sizeof(PageCode::Alphabet) - 1 == Base, "one character per digit");

PageCodeFields PageCodeFields::wrap(qint64 job, qint64 page, qint64 copy, const QDate& date)
{
    PageCodeFields fields;
    fields.job = wrapTo(job, JobBits);
    fields.page = wrapTo(page, PageBits);
    fields.copy = wrapTo(copy, CopyBits);
    fields.date = epoch().addDays(wrapTo(epoch().daysTo(date), DayBits));
    return fields;
}

quint64 PageCode::packFields(const PageCodeFields& fields)
{
    const PageCodeFields wrapped = PageCodeFields::wrap(fields.job, fields.page, fields.copy, fields.date);
    return quint64(wrapped.job) << JobShift | quint64(wrapped.page) << PageShift |
           quint64(wrapped.copy) << CopyShift | quint64(epoch().daysTo(wrapped.date)) << DayShift;
}

PageCodeFields PageCode::unpackFields(quint64 data)
{
    PageCodeFields fields;
    fields.job = quint32(data >> JobShift & mask(JobBits));
    fields.page = quint32(data >> PageShift & mask(PageBits));
    fields.copy = quint32(data >> CopyShift & mask(CopyBits));
    fields.date = epoch().addDays(qint64(data >> DayShift & mask(DayBits)));
    return fields;
}

quint64 PageCode::authenticator(const QByteArray& jobSecret, quint64 data)
{
    QByteArray message(MacContext);
    for (int shift = 56; shift >= 0; shift -= 8)
        message.append(char(data >> shift & 0xff));
    const QByteArray digest =
        QMessageAuthenticationCode::hash(message, jobSecret, QCryptographicHash::Sha256);

    // The first 54 bits of the digest, the first byte most significant.
    quint64 first = 0;
    for (int i = 0; i < 8; ++i)
        first = first << 8 | quint8(digest.at(i));
    return first >> (64 - MacBits);
}

QString PageCode::compose(quint64 mac, quint64 data)
{
    Wide value = Wide(mac & mask(MacBits)) << 64 | data;
    QString plain(Length, QLatin1Char(Alphabet[0]));
    for (int i = Length - 1; i >= 0; --i) {
        plain[i] = QLatin1Char(Alphabet[int(value % Base)]);
        value /= Base;
    }
    return group(plain);
}

bool PageCode::decompose(const QString& typed, quint64* mac, quint64* data, PageCodeReading* why)
{
    QString plain;
    for (const QChar c : typed) {
        if (c != QLatin1Char(Separator) && !c.isSpace())
            plain += c;
    }
    if (plain.size() != Length) {
        *why = PageCodeReading::WrongLength;
        return false;
    }

    // 31^24 exceeds 2^118 by a little; larger values are no code.
    Wide value = 0;
    for (const QChar c : plain) {
        const int digit = digitValue(c);
        if (digit < 0) {
            *why = PageCodeReading::BadCharacter;
            return false;
        }
        value = value * Base + Wide(digit);
    }
    if (value >> (64 + MacBits) != 0) {
        *why = PageCodeReading::OutOfRange;
        return false;
    }
    *mac = quint64(value >> 64);
    *data = quint64(value);
    return true;
}

QString PageCode::make(const QByteArray& jobSecret, const PageCodeFields& fields)
{
    const quint64 data = packFields(fields);
    return compose(authenticator(jobSecret, data), data);
}

QString PageCode::group(const QString& plain)
{
    QString grouped;
    for (int i = 0; i < plain.size(); i += GroupSize) {
        if (i > 0)
            grouped += QLatin1Char(Separator);
        grouped += plain.mid(i, GroupSize);
    }
    return grouped;
}
