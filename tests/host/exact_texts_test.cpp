// SPDX-License-Identifier: MIT
#include "every_kind.h"
#include "host_test.h"

#include <QRandomGenerator>

#include <array>

using namespace device;

namespace
{

// How many texts each store gets; a million in the long form. The seed is printed with a failure.
int textCount()
{
    return qEnvironmentVariableIsSet("DEVICE_HOST_TEXTS") ? qEnvironmentVariableIntValue("DEVICE_HOST_TEXTS") : 20000;
}

/// Random texts of every kind: what SQL, templates and encodings stumble over, and plain random characters.
class Texts
{
public:
    explicit Texts(quint32 seed) : m_random(seed) {}

    QString next()
    {
        QString text;
        for (int piece = below(6); piece > 0; --piece)
            text += this->piece();
        return text;
    }

private:
    int below(int end) { return int(m_random.bounded(end)); }

    QString piece()
    {
        static const QStringList hard{"'"_q,
                                      "''"_q,
                                      "\""_q,
                                      "%1"_q,
                                      "%2%10"_q,
                                      "%s%n"_q,
                                      "%"_q,
                                      "\\"_q,
                                      ";"_q,
                                      "--"_q,
                                      "/*"_q,
                                      "\r\n"_q,
                                      "\n"_q,
                                      "\r"_q,
                                      "\t"_q,
                                      "\x01\x1f\x7f"_q,
                                      "NULL"_q,
                                      "/"_q,
                                      "@"_q,
                                      "'); drop table Boiler; --"_q,
                                      "0x00"_q,
                                      " "_q,
                                      "1e5"_q,
                                      "007"_q,
                                      "\xef\xbf\xbd"_q,
                                      "\xef\xbf\xbf"_q,
                                      "é"_q,
                                      "e\xcc\x81"_q,
                                      "ß"_q,
                                      "日本語"_q,
                                      "العربية"_q,
                                      "עברית"_q,
                                      "ไทย"_q,
                                      "हिन्दी"_q,
                                      "👩‍🚒"_q,
                                      "🇩🇪"_q,
                                      "\xe2\x80\xae"_q,
                                      "\xe2\x80\xa8"_q};
        switch (below(12)) {
        case 0:
        case 1:
        case 2:
            return hard.at(below(int(hard.size())));
        case 3: { // any character of any plane, noncharacters too
            const uint code = uint(m_random.bounded(0x110000));
            return code < 0xd800 || code > 0xdfff ? QString::fromUcs4(reinterpret_cast<const char32_t *>(&code), 1)
                                                  : QString();
        }
        case 4:
            return QString(QChar(0xd800 + below(0x800))); // half of a pair, mostly
        case 5:
            return below(4) == 0 ? QString(QChar(0)) : QString(QChar(0xfeff));
        case 6:
            return QString(below(300), QLatin1Char(char(32 + below(95))));
        default: {
            QString text;
            for (int i = below(20); i > 0; --i)
                text += QChar(32 + below(below(4) == 0 ? 0x2000 : 95));
            return text;
        }
        }
    }

    QRandomGenerator m_random;
};

// What a UTF-8 text file cannot give back, said without the code under test.
bool canBeHeld(const QString &text)
{
    if (text.startsWith(QChar(0xfeff)))
        return false;
    for (int i = 0; i < text.size(); ++i) {
        const ushort c = text.at(i).unicode();
        if (c == 0 || (c >= 0xdc00 && c <= 0xdfff))
            return false;
        if (c >= 0xd800 && c <= 0xdbff) {
            const ushort low = i + 1 < text.size() ? text.at(i + 1).unicode() : 0;
            if (low < 0xdc00 || low > 0xdfff)
                return false;
            ++i;
        }
    }
    return true;
}

const LocalTime noon = at("2024-05-06 12:00:00.125"_q);

Sample make(Texts &texts, Sample *)
{
    return {at("2024-05-06 12:00:00"_q), texts.next()};
}

Alarm make(Texts &texts, Alarm *)
{
    Alarm alarm;
    alarm.start = at("2024-05-06 12:00:00"_q);
    for (QString *text : {&alarm.object, &alarm.type, &alarm.value, &alarm.limit, &alarm.description})
        *text = texts.next();
    return alarm;
}

LogEntry make(Texts &texts, LogEntry *)
{
    LogEntry entry;
    entry.time = noon;
    for (QString *text : {&entry.user, &entry.name, &entry.message})
        *text = texts.next();
    return entry;
}

QStringList textsOf(const Sample &sample)
{
    return {sample.value};
}

QStringList textsOf(const Alarm &alarm)
{
    return {alarm.object, alarm.type, alarm.value, alarm.limit, alarm.description};
}

QStringList textsOf(const LogEntry &entry)
{
    return {entry.user, entry.name, entry.message};
}

template<typename Pair>
class EveryText : public HostTest
{
};

TYPED_TEST_SUITE(EveryText, Pairings, KindNames);

TYPED_TEST(EveryText, ComesBackTheSameInOrderOrIsRefusedByName)
{
    using Record = typename TypeParam::Row;
    const quint32 seed = qEnvironmentVariableIsSet("DEVICE_HOST_SEED")
                             ? quint32(qEnvironmentVariableIntValue("DEVICE_HOST_SEED"))
                             : QRandomGenerator::global()->generate();
    SCOPED_TRACE("DEVICE_HOST_SEED=" + std::to_string(int(seed)));
    Texts texts(seed);
    auto store = require(TypeParam::Kept::open(this->library(), this->path()));
    const TableName name = table("Boiler"_q);
    require(store.createTable(name));
    qint64 read = 0;
    int heldTexts = 0;
    int refusedTexts = 0;
    for (int made = 0; made < textCount();) {
        QList<Record> rows;
        QList<Record> kept;
        std::vector<int> refused;
        for (int i = 0; i < 1000; ++i) {
            rows.append(make(texts, static_cast<Record *>(nullptr)));
            bool held = true;
            for (const QString &text : textsOf(rows.last()))
                held = canBeHeld(text) && held;
            (held ? heldTexts : refusedTexts) += int(textsOf(rows.last()).size());
            made += int(textsOf(rows.last()).size());
            if (held)
                kept.append(rows.last());
            else
                refused.push_back(i);
        }
        const Appended appended = require(store.append(name, rows));
        ASSERT_EQ(appended.stored, kept.size());
        ASSERT_EQ(appended.refused.size(), int(refused.size()));
        for (int i = 0; i < appended.refused.size(); ++i) {
            ASSERT_EQ(appended.refused.at(i).row, refused[size_t(i)]);
            ASSERT_EQ(appended.refused.at(i).error.code(), Error::TextRefused);
        }
        const QList<Record> back = require(store.read(name, Query<Record>().oldestFirst().page(read, kept.size() + 1)));
        ASSERT_EQ(back.size(), kept.size());
        for (int i = 0; i < kept.size(); ++i)
            ASSERT_TRUE(back.at(i) == kept.at(i)) << "row " << read + i;
        read += kept.size();
    }
    EXPECT_GT(heldTexts, 0);
    EXPECT_GT(refusedTexts, 0);
}

TEST(LongTexts, AreHeldUpToTheLimitAndRefusedBehindIt)
{
    QTemporaryDir folder;
    auto store = require(HistoryStore::open(require(Library::load(QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY))),
                                            folder.filePath("store.db"_q)));
    const TableName name = table("Boiler"_q);
    require(store.createTable(name));
    const QString held(890000, QLatin1Char('x'));
    EXPECT_EQ(require(store.append(name, {{noon, held}})).stored, 1);
    EXPECT_EQ(require(store.read(name)).first().value, held);
    EXPECT_EQ(codeOf(store.append(name, {{noon, QString(1100000, QLatin1Char('x'))}})), Error::TextRefused);
    EXPECT_EQ(codeOf(store.append(name, {{noon, QString(500000, QLatin1Char('\''))}})), Error::TextRefused);
    EXPECT_EQ(codeOf(store.append(name, {{noon, QString(400000, QChar(0x20ac))}})), Error::TextRefused);
}

} // namespace
