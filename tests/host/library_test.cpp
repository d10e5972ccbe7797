// SPDX-License-Identifier: MIT
#include "host_test.h"

#include "interface_data_base.h"

#include <QDir>
#include <QFile>
#include <QSet>

using namespace device;

namespace
{

class Libraries : public HostTest
{
protected:
    QString write(const char *name, const QByteArray &content) const
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        return file.fileName();
    }
    static Error refusal(const QString &file)
    {
        const auto loaded = Library::load(file);
        return loaded ? Error() : loaded.error();
    }
};

TEST_F(Libraries, ALoadedLibraryListsItsKindsAndMakesStores)
{
    EXPECT_EQ(library().supportList(), (QStringList{"history", "alarm", "operatorLog"}));
    interface_data_base *store = library().createStore("historyDB"_q);
    ASSERT_TRUE(store);
    library().closeStore(store);
    EXPECT_FALSE(library().createStore("history"_q));
}

TEST_F(Libraries, TheEnvironmentNamesTheLibrary)
{
    qputenv("DEVICE_DATABASE_LIBRARY", DEVICE_DATABASE_LIBRARY);
    EXPECT_TRUE(Library::load().ok());
    qputenv("DEVICE_DATABASE_LIBRARY", QFile::encodeName(path("nowhere.so")));
    const auto missing = Library::load();
    ASSERT_FALSE(missing.ok());
    EXPECT_TRUE(missing.error().text().contains("nowhere.so"_q));
    qunsetenv("DEVICE_DATABASE_LIBRARY");
}

TEST_F(Libraries, ArePlacedWhereTheyAreConfiguredToBeInstalledToo)
{
    const QStringList places = Library::places();
    EXPECT_TRUE(places.contains(QString::fromLocal8Bit(INSTALL_LIBDIR))) << places.join(" "_q).toStdString();
    EXPECT_EQ(QSet<QString>(places.begin(), places.end()).size(), places.size()) << "none is searched twice";
}

TEST_F(Libraries, AMissingFileIsNamed)
{
    const Error why = refusal(path("none.so"));
    EXPECT_EQ(why.code(), Error::LibraryError);
    EXPECT_TRUE(why.operation().contains("none.so"_q));
    EXPECT_EQ(why.cause(), "there is no such file"_q);
}

TEST_F(Libraries, AFileThatIsNoLibraryIsRefusedInTheLoadersWords)
{
    const Error why = refusal(write("text.so", "no library"));
    EXPECT_EQ(why.code(), Error::LibraryError);
    EXPECT_FALSE(why.cause().isEmpty());
}

TEST_F(Libraries, ALibraryOfAnotherQtIsRefusedBeforeItIsLoaded)
{
    const Error why =
        refusal(write("other.so", QT_VERSION_MAJOR == 6 ? "\177ELF libQt5Core.so.5" : "\177ELF libQt6Core.so.6"));
    EXPECT_TRUE(why.cause().contains(QT_VERSION_MAJOR == 6 ? "built for Qt 5"_q : "built for Qt 6"_q))
        << why.text().toStdString();
}

TEST_F(Libraries, EveryMissingFunctionIsNamed)
{
    const Error why = refusal(QString::fromLocal8Bit(DEVICE_TOOLS_LIBRARY)); // a library of this Qt without the names
    EXPECT_EQ(why.cause(), "it has no function device_getSupportList and no device_createDB and no device_closeDB"_q);
}

struct NameCase {
    const char *text;
    bool valid;
};

void PrintTo(const NameCase &each, std::ostream *out)
{
    *out << each.text;
}

class TableNames : public ::testing::TestWithParam<NameCase>
{
};

TEST_P(TableNames, AreCheckedAndARefusalNamesTheText)
{
    const QString text = QString::fromUtf8(GetParam().text);
    const auto name = TableName::from(text);
    ASSERT_EQ(name.ok(), GetParam().valid);
    if (name.ok())
        EXPECT_EQ(name->text(), text);
    else
        EXPECT_TRUE(name.error().cause().contains(text)) << name.error().text().toStdString();
}

INSTANTIATE_TEST_SUITE_P(All, TableNames,
                         ::testing::Values(NameCase{"Boiler", true}, NameCase{"_1", true}, NameCase{"AlarmData", true},
                                           NameCase{"tb_history", true}, NameCase{"", false}, NameCase{"1A", false},
                                           NameCase{"a b", false}, NameCase{"a'b", false}, NameCase{"a;drop", false},
                                           NameCase{"Kessel-1", false}, NameCase{"Kühler", false},
                                           NameCase{"%1", false}, NameCase{"select", false}, NameCase{"Order", false},
                                           NameCase{"WHERE", false}, NameCase{"sqlite_x", false},
                                           NameCase{"TB_config", false}));

} // namespace
