// SPDX-License-Identifier: MIT
#include "store_test.h"

namespace
{

using EntryPoints = StoreTest;

TEST_F(EntryPoints, SupportListIsTheSameThreeTextsInTheSameOrderEveryTime)
{
    const QStringList expected{"history"_q, "alarm"_q, "operatorLog"_q};
    EXPECT_EQ(library::supportList(), expected);
    EXPECT_EQ(library::supportList(), expected);
}

} // namespace
