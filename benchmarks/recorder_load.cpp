// SPDX-License-Identifier: MIT
//
// How long rows wait in a recorder under load: eight questions outstanding, three following models on a large table, a
// deletion of many rows, and rows all the while. Prints the time from being handed over to being in the file.
//
//     recorder_load LIBRARY [ROWS [SECONDS]]
#include "device/models.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

#include <sqlite3.h>

using namespace device;

namespace
{

constexpr int rowsASecond = 500;
constexpr int questionsOutstanding = 8;

void fill(const QString &path, int rows)
{
    sqlite3 *connection = nullptr;
    sqlite3_open(path.toUtf8().constData(), &connection);
    const QByteArray sql =
        "pragma synchronous=off; with recursive n(i) as (select 1 union all select i+1 from n where i<" +
        QByteArray::number(rows) +
        ") insert into Boiler select NULL,datetime('2024-01-01','+'||i||' seconds'),'87.5' from n";
    if (sqlite3_exec(connection, sql.constData(), nullptr, nullptr, nullptr) != SQLITE_OK)
        qFatal("%s", sqlite3_errmsg(connection));
    sqlite3_close(connection);
}

struct Load {
    HistoryRecorder &recorder;
    const TableName boiler;
    qint64 answers = 0;
    bool over = false;

    void ask()
    {
        if (over)
            return;
        recorder.ask(
            nullptr,
            [table = boiler](HistoryStore &store) {
                return store.count(table, Query<Sample>().between(QDateTime(QDate(2024, 1, 2), QTime(0, 0)),
                                                                  QDateTime(QDate(2024, 1, 9), QTime(0, 0))));
            },
            [this](const Result<qint64> &) {
                ++answers;
                ask();
            });
    }
};

void run(const Library &library, Profile profile, const char *name, int rows, int seconds)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("load.db"));
    const TableName boiler = TableName::must("Boiler"), live = TableName::must("Live");
    RecorderOptions options;
    options.file.profile = profile;
    options.capacity = 1000000;
    {
        auto store = HistoryStore::open(library, path, options.file).value();
        (void)store.createTable(boiler).value();
    }
    fill(path, rows);
    HistoryRecorder recorder(library, path, options);
    recorder.createTable(live);
    if (const auto started = recorder.start(); !started)
        qFatal("%s", qPrintable(started.error().text()));
    SampleModel first(&recorder, boiler), second(&recorder, boiler), third(&recorder, boiler);
    QTimer looking;
    QObject::connect(&looking, &QTimer::timeout, [&] {
        for (SampleModel *model : {&first, &second, &third}) {
            for (int row = 0; row < 30; ++row)
                (void)model->index(row, 1).data();
        }
    });
    for (SampleModel *model : {&first, &second, &third})
        model->setFollowing(true);
    looking.start(100);

    Load load{recorder, boiler};
    for (int i = 0; i < questionsOutstanding; ++i)
        load.ask();
    qint64 removed = -1;
    QElapsedTimer clock;
    clock.start();
    recorder.keepNewest(boiler, rows - rows / 5, nullptr, [&](const Result<qint64> &result) {
        removed = result ? *result : -2;
        std::printf("%-8s %lld rows removed after %.1f s\n", name, removed, double(clock.elapsed()) / 1000);
    });

    // Rows into a table of their own, one in ten into the one that is looked at. Those stored are the oldest waiting.
    std::vector<double> handed, waits;
    size_t stored = 0;
    QObject::connect(&recorder, &Recorder::stored, &recorder, [&](const QString &, int count) {
        for (; count > 0 && stored < handed.size(); --count)
            waits.push_back(double(clock.nsecsElapsed()) / 1e6 - handed[stored++]);
    });
    QTimer recording;
    recording.setTimerType(Qt::PreciseTimer);
    QObject::connect(&recording, &QTimer::timeout, [&] {
        const LocalTime now = LocalTime::now();
        while (double(handed.size()) < double(clock.elapsed()) * rowsASecond / 1000) {
            if (recorder.record(handed.size() % 10 ? live : boiler, Sample(now, 87.5)))
                handed.push_back(double(clock.nsecsElapsed()) / 1e6);
        }
    });
    recording.start(5);
    QTimer::singleShot(seconds * 1000, QCoreApplication::instance(), &QCoreApplication::quit);
    QCoreApplication::exec();
    load.over = true;
    const Settled settled = recorder.stop(std::chrono::minutes(5));
    std::sort(waits.begin(), waits.end());
    const auto at = [&](double part) { return waits.empty() ? -1 : waits[size_t(double(waits.size() - 1) * part)]; };
    std::printf(
        "%-8s %zu rows, p50 %.0f ms, p99 %.0f ms, longest %.0f ms; %lld questions answered, batches p99 %.0f ms; "
        "%lld dropped\n",
        name, waits.size(), at(0.5), at(0.99), at(1), load.answers, recorder.health().latencyP99, settled.dropped);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const auto library = Library::load(application.arguments().value(1));
    if (!library)
        qFatal("%s", qPrintable(library.error().text()));
    const int rows = application.arguments().value(2, QStringLiteral("5000000")).toInt();
    const int seconds = application.arguments().value(3, QStringLiteral("20")).toInt();
    run(*library, Profile::Durable, "Durable", rows, seconds);
    run(*library, Profile::AsIs, "AsIs", rows, seconds);
    return 0;
}
