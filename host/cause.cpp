// SPDX-License-Identifier: MIT
#include "cause.h"

namespace device
{

namespace
{

struct Meaning {
    const char *words;
    Error::Code code;
};

// What SQLite says of a file or a medium. A batch is tried again for these, so they must be its very words.
constexpr Meaning exactly[] = {
    {"database is locked", Error::Locked},        {"database table is locked", Error::Locked},
    {"locking protocol", Error::Locked},          {"database or disk is full", Error::StorageFailed},
    {"disk I/O error", Error::StorageFailed},     {"attempt to write a readonly database", Error::StorageFailed},
    {"out of memory", Error::StorageFailed},      {"unable to open database file", Error::FileError},
    {"file is not a database", Error::FileError}, {"database disk image is malformed", Error::FileError},
};

// What SQLite says of a statement. These only choose the advice.
constexpr Meaning inside[] = {
    {"no such table", Error::TableMissing},       {"no such column", Error::TableLayout},
    {"has no column", Error::TableLayout},        {"values were supplied", Error::TableLayout},
    {"malformed database schema", Error::Failed},
};

} // namespace

Error failure(const Site &site, const QString &words)
{
    if (words.isEmpty())
        return site.error(Error::Failed, QStringLiteral("the store library did not say why: its debug output is "
                                                        "switched off or taken by another message handler"));
    for (const Meaning &meaning : exactly) {
        if (words == QLatin1String(meaning.words))
            return site.error(meaning.code, words);
    }
    for (const Meaning &meaning : inside) {
        if (words.contains(QLatin1String(meaning.words)))
            return site.error(meaning.code, words);
    }
    return site.error(Error::Failed, words);
}

bool isOfTheFile(Error::Code code)
{
    return code == Error::Locked || code == Error::StorageFailed || code == Error::FileError ||
           code == Error::Cancelled || code == Error::FileMoved;
}

bool isFull(const Error &why)
{
    return why.code() == Error::StorageFailed && why.cause() == QLatin1String("database or disk is full");
}

bool isPassing(Error::Code code)
{
    return code == Error::Locked || code == Error::Cancelled || code == Error::FileMoved;
}

} // namespace device
