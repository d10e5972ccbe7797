// SPDX-License-Identifier: MIT
#include <QCoreApplication>

#include <gtest/gtest.h>
#include <sqlite3.h>

int main(int argc, char **argv)
{
    // The zone is UTC unless a test asks for another one; an empty text asks for none at all.
    if (!qEnvironmentVariableIsSet("DEVICE_DATABASE_TEST_ZONE"))
        qputenv("TZ", "UTC");
    else if (qEnvironmentVariableIsEmpty("DEVICE_DATABASE_TEST_ZONE"))
        qunsetenv("TZ");
    else
        qputenv("TZ", qgetenv("DEVICE_DATABASE_TEST_ZONE"));
    qunsetenv("QT_LOGGING_RULES"); // both can silence or reshape the debug output
    qunsetenv("QT_MESSAGE_PATTERN");
    QCoreApplication application(argc, argv);
    sqlite3_initialize(); // what it keeps for the process must not look like a leak of the first test
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
