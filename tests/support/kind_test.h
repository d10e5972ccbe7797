// SPDX-License-Identifier: MIT
#pragma once

#include "store_test.h"

#include <string>

/// The kinds of store, as bits.
enum Kind { History = 1, Alarm = 2, OperatorLog = 4, EveryKind = 7 };

inline const char *keyOf(Kind kind)
{
    return kind == History ? "historyDB" : kind == Alarm ? "alarmDB" : "operatorLogDB";
}

/// A test that is repeated with stores of several kinds.
class KindTest : public StoreTest, public ::testing::WithParamInterface<Kind>
{
protected:
    const char *key() const { return keyOf(GetParam()); }
    interface_data_base &open() { return StoreTest::open(key()); }

    /// Runs the statements on a connection of its own, which spares the disk.
    void prepare(const QString &sql)
    {
        PlainConnection file(path());
        file.run("PRAGMA synchronous=off; begin; "_q + sql + "; commit"_q);
    }
};

inline std::string nameOfKind(const ::testing::TestParamInfo<Kind> &kind)
{
    return keyOf(kind.param);
}

inline auto everyKind()
{
    return ::testing::Values(History, Alarm, OperatorLog);
}
