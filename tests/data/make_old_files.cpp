// SPDX-License-Identifier: MIT
//
// Makes one database file a store kind, through the library, in the folder named by the argument.
// The committed files are kept as they are (see README.md); a new release adds new ones.
#include "loaded_library.h"

#include <QDir>

#include <cstdio>

namespace
{

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

/// Cells separated by "|".
QList<QStringList> rows(std::initializer_list<const char *> lines)
{
    QList<QStringList> cells;
    for (const char *line : lines)
        cells.append(text(line).split(QLatin1Char('|')));
    return cells;
}

void makeHistory(interface_data_base &store)
{
    store.createTable(text("Temperature"), text("Boiler 1"));
    store.createTable(text("Pressure"), text("Kessel Süd"));
    auto temperature = rows({"2024/05/06 07:00:00|20.5", "2024-05-06 07:00:01|-7", "2024-05-06 07:00:02|21 °C",
                             "2024-05-06 07:00:03|温度", "2024-05-06 07:00:04|it's lost", "only one cell",
                             "2024-05-06 07:00:05|%1 %2"});
    store.insertManyDatas(temperature, text("Temperature"));
    auto pressure = rows({"2023-12-31 23:59:59|1.00", "2024-01-01 00:00:00|1.01", "2024-01-01 00:00:01|1.02"});
    store.insertManyDatas(pressure, text("Pressure"));
    store.deleteDataForMax(1, text("Pressure"));
}

void makeAlarm(interface_data_base &store)
{
    store.createTable(text("AlarmData"), QString());
    auto alarms = rows({"2|2024/05/06|07:08:09|Pump 1|High|87.5|80|Level above limit||",
                        "1|2024-05-06|07:08:10|Pump 2|Low|3,5|1e1|it's low||",
                        "abc|2024-05-06|07:08:11|Größe 温度|Type|x|y|Größe||",
                        "3|2024-05-06|07:08:12|Pump 1|High|90|80|ended|2024/05/07|08:00:00",
                        "3|2024-05-06|07:08:13|Pump 1|High|91|80|half ended|2024-05-07|",
                        "4|yesterday|noon|Valve|Open|1|2|odd time||"});
    store.insertManyDatas(alarms, QString());
}

void makeOperatorLog(interface_data_base &store)
{
    store.createTable(text("OperatorLog"), QString());
    auto entries =
        rows({"2024-05-06 07:08:09.123|admin|Login|Logged in", "2024-05-06 07:08:09.999|O'Neill|Note|it's 5 o'clock",
              "2024-05-06 07:08:10.000|Jürgen|温度|limit → 85 😀", "2024/05/06 07:08:11.000|admin|Slashes|",
              "2024-05-06 07:08:12|admin|No milliseconds|%1 %5", "2024-05-07 00:00:00.000|admin|Logout|"});
    store.insertManyDatas(entries, text("OperatorLog"));
}

const struct {
    const char *key, *file;
    void (*make)(interface_data_base &store);
} kinds[] = {{"historyDB", "history-1.0.db", makeHistory},
             {"alarmDB", "alarm-1.0.db", makeAlarm},
             {"operatorLogDB", "operatorlog-1.0.db", makeOperatorLog}};

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    const QDir folder(QString::fromLocal8Bit(argv[1]));
    for (const auto &kind : kinds) {
        if (folder.exists(text(kind.file))) {
            std::fprintf(stderr, "%s is there already and is kept\n", kind.file);
            return 1;
        }
        const library::StorePtr store = library::store(kind.key);
        if (store->openDB(folder.filePath(text(kind.file))) != 0)
            return 1;
        kind.make(*store);
    }
    return 0;
}
