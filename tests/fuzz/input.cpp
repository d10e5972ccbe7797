// SPDX-License-Identifier: MIT
#include "input.h"

#include <climits>

namespace
{

// A null pointer makes a null text.
const char *const tables[] = {
    "T1", "AlarmData",      "OperatorLog", "tb_config",       "sqlite_master", "sqlite_sequence", "missing", "t1",
    "",   nullptr,          "T'1",         "T1 where 0",      "order",         "Kessel 1 °C",     "\"T 1\"", "T%1",
    "V",  "(select 1,2,3)", "T1;",         "T1 indexed by I", "AlarmData --",  "AlarmData' --"};
const char *const times[] = {"2024-05-06 07:08:09",
                             "2024/05/06 07:08:09",
                             "2024-05-06 07:08:09.123",
                             "2024-02-30 25:61:61",
                             "0000-00-00 00:00:00",
                             "9999-12-31 23:59:59.999",
                             "2024-03-31 02:30:00",
                             "2024",
                             "1e3",
                             "",
                             nullptr,
                             "' or '1'='1",
                             "2024-05-06  07:08:09",
                             "-001-05-06 07:08:09"};
const char *const orders[] = {"desc", "asc", "", nullptr, "DESC", "desc, ID", "limit 1", "%1", "collate nocase desc"};
const char *const texts[] = {"",      nullptr, "%1",   "%2%L3",   "%%",
                             "% 1",   "%",     "%9",   "it's",    "''",
                             "'",     "\\",    "87.5", "-1",      "2147483648",
                             "1e400", "0x10",  "nan",  "°",       "\xEF\xBB\xBF",
                             "温度",  "😀",     "%٣",   "a\tb\nc", "99999999999999999999",
                             "--",    ";",     "/*",   "@",       "1.7976931348623157e308"};

} // namespace

int Input::number()
{
    const int usual[] = {0, 1, 2, 3, 10, 100, -1, -2, INT_MAX, INT_MIN, 65536, 46341};
    const int choice = choose(15);
    return choice < 12 ? usual[choice] : m_bytes.ConsumeIntegral<int>();
}

QString Input::anyText()
{
    switch (choose(7)) {
    case 0:
        return oneOf(texts);
    case 1:
        return oneOf(times);
    case 2:
        return oneOf(texts) + oneOf(texts);
    case 3: {
        const std::string units = m_bytes.ConsumeBytesAsString(2 * size_t(choose(20)));
        QString text;
        for (size_t i = 0; i + 1 < units.size(); i += 2)
            text.append(QChar(ushort(uchar(units[i]) << 8 | uchar(units[i + 1]))));
        return text;
    }
    case 4: {
        const QString piece = oneOf(texts) + QString::fromLatin1(m_bytes.ConsumeBytesAsString(1).c_str());
        return piece.repeated(flag() ? choose(4000) : choose(30));
    }
    default:
        return QString::fromStdString(m_bytes.ConsumeRandomLengthString(200));
    }
}

// A thousand "%2" in one cell, a thousand "%3" in the next: the statement would take gigabytes, by contract.
QString Input::bounded(QString text)
{
    const long long copies = 1 + text.count(QLatin1Char('%'));
    if (m_copies * copies * (m_units + text.size()) > 2'000'000)
        return text.remove(QLatin1Char('%')).left(1000);
    m_copies *= copies;
    m_units += text.size();
    return text;
}

QString Input::text()
{
    return bounded(anyText());
}

QString Input::table()
{
    return choose(9) < 9 ? bounded(oneOf(tables)) : text();
}

QString Input::time()
{
    return choose(9) < 9 ? oneOf(times) : text();
}

QString Input::order()
{
    return choose(9) < 9 ? oneOf(orders) : text();
}

QStringList Input::cells(int usual)
{
    const int count = choose(9) < 9 ? usual : choose(14);
    QStringList list;
    startStatement();
    for (int i = 0; i < count; ++i)
        list.append(i == 0 ? time() : text());
    return list;
}

QList<QStringList> Input::rows(int usualCells)
{
    QList<QStringList> list;
    const int count = choose(6);
    for (int i = 0; i < count; ++i)
        list.append(cells(usualCells));
    return list;
}
