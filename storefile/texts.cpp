// SPDX-License-Identifier: MIT
#include "storefile/texts.h"

#include <QLocale>
#include <QRegularExpression>

#include <algorithm>

namespace device_db
{

namespace
{

bool isAscii(const QByteArray &cell)
{
    return std::all_of(cell.begin(), cell.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// The control characters above ASCII, which some terminals obey, and those that change the direction of what follows
// or end a line.
bool steers(QChar c)
{
    const ushort code = c.unicode();
    return (code >= 0x80 && code < 0xa0) || (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069) ||
           code == 0x2028 || code == 0x2029;
}

} // namespace

QString grouped(qint64 number)
{
    return QLocale(QLocale::English, QLocale::UnitedStates).toString(number);
}

QString rowsText(qint64 rows)
{
    return grouped(rows) + QLatin1String(rows == 1 ? " row" : " rows");
}

QString bytesText(qint64 bytes)
{
    if (bytes < 1000)
        return QStringLiteral("%1 B").arg(bytes);
    double value = double(bytes);
    const char *unit = "B";
    for (const char *next : {"kB", "MB", "GB"}) {
        if (value < 999.5)
            break;
        value /= 1000;
        unit = next;
    }
    return QStringLiteral("%1 %2").arg(value, 0, 'f', value < 99.95 ? 1 : 0).arg(QLatin1String(unit));
}

bool isUtf8(const QByteArray &cell)
{
    return isAscii(cell) || fromUtf8(cell).toUtf8() == cell;
}

QString fromUtf8(const QByteArray &cell)
{
    return QString::fromUtf8('x' + cell).mid(1); // Qt takes U+FEFF away at the beginning only
}

QByteArray decodedTwice(const QByteArray &cell)
{
    if (isAscii(cell))
        return cell;
    const QString text = QString::fromUtf8(cell);
    if (std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() > 0xff; }))
        return cell;
    const QByteArray once = text.toLatin1();
    return QString::fromUtf8(once).toUtf8() == once ? once : cell;
}

QString visible(const QString &text)
{
    QString result;
    result.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char('\r') && i + 1 < text.size() && text.at(i + 1) == QLatin1Char('\n'))
            continue;
        if (c.unicode() < 0x20)
            result += QChar(0x2400 + c.unicode());
        else if (c.unicode() == 0x7f)
            result += QChar(0x2421);
        else if (steers(c))
            result += QChar(0xfffd);
        else
            result += c;
    }
    return result;
}

bool isJsonNumber(const QByteArray &text)
{
    static const QRegularExpression number(QStringLiteral("^-?(?:0|[1-9][0-9]*)(?:\\.[0-9]+)?(?:[eE][-+]?[0-9]+)?\\z"));
    return number.match(QString::fromLatin1(text)).hasMatch();
}

QString someOf(const QStringList &names, const QString &wanted)
{
    constexpr int most = 10;
    const auto alike = [&](const QString &name) {
        const auto differs = std::mismatch(name.begin(), name.end(), wanted.begin(), wanted.end(),
                                           [](QChar a, QChar b) { return a.toCaseFolded() == b.toCaseFolded(); });
        return differs.first - name.begin();
    };
    if (names.size() <= most)
        return names.join(QLatin1String(", "));
    QStringList first = names;
    std::stable_sort(first.begin(), first.end(),
                     [&](const QString &a, const QString &b) { return alike(a) > alike(b); });
    return QStringLiteral("%1 and %2 more")
        .arg(QStringList(first.mid(0, most)).join(QLatin1String(", ")), grouped(names.size() - most));
}

// Not QCollator, which counts only where it was built with ICU.
bool comesBefore(const QString &name, const QString &other)
{
    const auto isDigit = [](QChar c) { return c >= QLatin1Char('0') && c <= QLatin1Char('9'); };
    const auto number = [&](const QString &text, int &i) { // without zeros in front
        const int begin = i;
        while (i < text.size() && isDigit(text.at(i)))
            ++i;
        QString digits = text.mid(begin, i - begin);
        while (digits.size() > 1 && digits.startsWith(QLatin1Char('0')))
            digits.remove(0, 1);
        return digits;
    };
    int i = 0;
    int k = 0;
    while (i < name.size() && k < other.size()) {
        if (isDigit(name.at(i)) && isDigit(other.at(k))) {
            const QString left = number(name, i);
            const QString right = number(other, k);
            if (left.size() != right.size() || left != right)
                return left.size() != right.size() ? left.size() < right.size() : left < right;
        } else {
            const QChar left = name.at(i++).toCaseFolded();
            const QChar right = other.at(k++).toCaseFolded();
            if (left != right)
                return left < right;
        }
    }
    const bool isShorter = name.size() - i < other.size() - k;
    return name.size() - i == other.size() - k ? name < other : isShorter;
}

} // namespace device_db
