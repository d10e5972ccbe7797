// SPDX-License-Identifier: MIT
//
// Random sequences of all operations of a store beside a model on a twin file: the same answer after each step, the
// same files at the end. DEVICE_MODEL_OPERATIONS is the number of steps for each kind of store, DEVICE_MODEL_SEED
// repeats a run; the seed is printed.
#include "generator.h"
#include "long_test.h"

#include <QElapsedTimer>

#include <iostream>

namespace
{

/// One file of the two and the other connection that reads it now and then.
class Side
{
public:
    explicit Side(const QString &path) : m_path(path) {}

    void startReader()
    {
        m_reader = std::make_unique<PlainConnection>(m_path);
        sqlite3_exec(m_reader->handle(), "begin; select count(*) from sqlite_master", nullptr, nullptr, nullptr);
    }
    void endReader() { m_reader.reset(); }

    /// Every row of every table, the type of each cell with it.
    QStringList content() const
    {
        QStringList lines;
        PlainConnection file(m_path);
        for (const QStringList &table :
             file.run("select name from sqlite_master where type = 'table' order by name"_q)) {
            lines.append(table.first());
            QStringList shown;
            for (const QStringList &column : file.run("select name from pragma_table_info('%1')"_q.arg(table.first())))
                shown.append("typeof(%1)||quote(%1)"_q.arg(column.first()));
            for (const QStringList &row :
                 file.run("select %1 from \"%2\" order by rowid"_q.arg(shown.join(","_q), table.first())))
                lines.append(row.join(" "_q));
        }
        lines.append(file.value("PRAGMA integrity_check"_q));
        return lines;
    }

private:
    QString m_path;
    std::unique_ptr<PlainConnection> m_reader;
};

class ModelTest : public LongTest<Kind>
{
protected:
    void prepareFiles(bool isWal) const
    {
        for (const char *name : {"store.db", "model.db"}) {
            PlainConnection file(path(name));
            file.run("PRAGMA page_size = 1024"_q); // less to copy
            if (isWal)
                file.run("PRAGMA journal_mode = wal"_q);
            const char *const order =
                GetParam() == History ? "DATETIME dateTime,Value text"
                : GetParam() == Alarm
                    ? "LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,"
                      "CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text"
                    : "DATETIME dateTime NOT NULL,userName text,logName text,message text";
            file.run(
                "create table \"order\"(ID INTEGER PRIMARY KEY AUTOINCREMENT,%1)"_q.arg(QString::fromLatin1(order)));
            file.run("create table Spare(ID INTEGER PRIMARY KEY)"_q);
            file.run("create table Other(ID INTEGER PRIMARY KEY, DATETIME dateTime, Value text, EndDate text, "
                     "EndTime text, userName text, more text);"
                     "insert into Other values(1,'2024-05-06 07:08:09','x','','','admin','y')"_q);
        }
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, ModelTest, everyKind(), nameOfKind);

TEST_P(ModelTest, AnswersAndFilesAreThoseOfTheModel)
{
    const qint64 steps = numberFrom("DEVICE_MODEL_OPERATIONS", 2000);
    const quint64 seed = seedFrom("DEVICE_MODEL_SEED");
    std::cout << keyOf(GetParam()) << ": DEVICE_MODEL_SEED=" << seed << std::endl;
    // One round is a new file; rollback journal and write-ahead log take turns.
    const qint64 round = 1000;
    QElapsedTimer timer;
    timer.start();
    for (qint64 first = 0; first < steps; first += round) {
        prepareFiles(first / round % 2 == 1);
        Generator generator(GetParam(), seed + quint64(first));
        Side storeFile(path("store.db")), modelFile(path("model.db"));
        library::StorePtr store = library::store(keyOf(GetParam()));
        ASSERT_EQ(store->openDB(path("store.db")), 0);
        {
            Model model(GetParam(), path("model.db"));
            Call create;
            create.operation = Operation::Create;
            create.table = Generator::tables(GetParam()).first();
            ASSERT_TRUE(ask(*store, GetParam(), create) == model.ask(create));
            bool isClosed = false, isReading = false;
            for (qint64 step = first; step < std::min(first + round, steps); ++step) {
                const Call call = generator.next(model, isClosed, isReading);
                switch (call.operation) {
                case Operation::Open:
                    ASSERT_EQ(store->openDB(path("store.db")), 0);
                    isClosed = false;
                    break;
                case Operation::Close:
                    ASSERT_EQ(store->closeDB(), 0);
                    isClosed = true;
                    break;
                case Operation::StartReader:
                    storeFile.startReader();
                    modelFile.startReader();
                    isReading = true;
                    break;
                case Operation::EndReader:
                    storeFile.endReader();
                    modelFile.endReader();
                    isReading = false;
                    break;
                default:
                    break;
                }
                const Answer answer = ask(*store, GetParam(), call);
                const Answer expected = model.ask(call);
                log.take();
                if (!(answer == expected)) {
                    FAIL() << "step " << step << "\n"
                           << qPrintable(call.description()) << "\n"
                           << qPrintable(difference(answer, expected));
                }
            }
            store.reset();
        }
        storeFile.endReader();
        modelFile.endReader();
        ASSERT_EQ(storeFile.content(), modelFile.content()) << "after step " << first + round;
        for (const char *name : {"store.db", "model.db"})
            ASSERT_TRUE(QFile::remove(path(name)));
    }
    std::cout << keyOf(GetParam()) << ": " << steps << " operations in " << timer.elapsed() << " ms" << std::endl;
}

} // namespace
