// SPDX-License-Identifier: MIT
//
// A data logger: 50 series at 10 Hz, an alarm for each that is too high, the operator log, the latest values once a
// second, a trend of the first series for a browser (FOLDER/trend.html), and an end on SIGINT or SIGTERM that loses
// nothing. Usage: device_logger [LIBRARY [FOLDER]]
#include "device/models.h"

#include <QCoreApplication>
#include <QDir>
#include <QSaveFile>
#include <QTextStream>
#include <QTimer>

#include <cmath>
#include <csignal>

using namespace device;

static volatile std::sig_atomic_t interrupted = 0;

int main(int argc, char **argv)
{
    constexpr int seriesCount = 50;
    constexpr double limit = 95;
    QCoreApplication application(argc, argv);
    std::signal(SIGINT, [](int) { interrupted = 1; });
    std::signal(SIGTERM, [](int) { interrupted = 1; });
    // Declared before the recorders, whose last signals use them.
    QTextStream out(stdout), errors(stderr);
    const auto report = [&](const Error &why) { errors << why.text() << Qt::endl; };
    const auto check = [&](const Status &status) { return status.ok() || (report(status.error()), false); };

    const auto library = Library::load(application.arguments().value(1));
    if (!library)
        return report(library.error()), 1;
    const QDir folder(application.arguments().value(2, QStringLiteral(".")));
    RecorderOptions options;
    options.file.profile = Profile::Durable;
    options.retention.ceiling = 500 * 1000 * 1000; // bytes of each file: the oldest rows make room
    HistoryRecorder history(*library, folder.filePath(QStringLiteral("history.db")), options);
    AlarmRecorder alarms(*library, folder.filePath(QStringLiteral("alarms.db")), options);
    LogRecorder log(*library, folder.filePath(QStringLiteral("log.db")), options);
    const TableName alarmTable = TableName::must("AlarmData"), logTable = TableName::must("OperatorLog");
    QList<TableName> tables;
    Keep keep;
    keep.age = std::chrono::hours(24 * 30);
    for (int i = 0; i < seriesCount; ++i) {
        tables << TableName::from(QStringLiteral("Series%1").arg(i)).value();
        history.createTable(tables.last(), {QStringLiteral("Sensor %1").arg(i), QStringLiteral("°C")});
        history.keep(tables.last(), keep);
        history.keepTrend(tables.last(), {{TrendLevel::TenSeconds, TrendLevel::Minute, TrendLevel::Hour}});
    }
    alarms.createTable(alarmTable);
    log.createTable(logTable);
    const QList<Recorder *> recorders{&history, &alarms, &log};
    for (Recorder *recorder : recorders) {
        QObject::connect(recorder, &Recorder::troubled, report);
        QObject::connect(recorder, &Recorder::retentionHeld, report);
        if (!check(recorder->start()))
            return 1;
    }
    const auto note = [&](const QString &message) {
        check(log.record(logTable, {LocalTime::now(), QStringLiteral("service"), QStringLiteral("Logger"), message}));
    };
    note(QStringLiteral("started"));

    QVector<bool> high(seriesCount, true); // so that an alarm that ended while nobody measured is ended
    QTimer sampling, showing;
    QObject::connect(&sampling, &QTimer::timeout, [&, tick = 0]() mutable {
        const LocalTime now = LocalTime::now();
        for (int i = (++tick, 0); i < seriesCount; ++i) {
            const Sample sample(now, 50 + 46 * std::sin(tick / 40.0 + i));
            const Alarm alarm{0, now, tables.at(i).text(), QStringLiteral("High"), sample.value, {}, {}, {}};
            check(history.record(tables.at(i), sample));
            const bool wasHigh = std::exchange(high[i], sample.number() > limit);
            if (high.at(i) && (!wasHigh || tick == 1))
                check(alarms.raiseUnlessActive(alarmTable, alarm));
            else if (!high.at(i) && wasHigh)
                check(alarms.end(alarmTable, alarm.object, alarm.type, now));
        }
        if (interrupted)
            QCoreApplication::quit();
    });
    TrendModel trend(&history, tables.first());
    QObject::connect(&trend, &TrendModel::trendChanged, [&] {
        const QString rect = QStringLiteral("<rect x='%1' y='%2' width='1' height='%3'/>");
        QString html = QStringLiteral("<meta http-equiv='refresh' content='1'>Sensor 0, the last hour, 0 to 100 °C<hr>"
                                      "<svg viewBox='-360 -100 360 100' width='100%' fill='steelblue'>");
        for (const TrendColumn &column : trend.trend().columns) {
            const double least = column.lowest.number().value_or(0), most = column.highest.number().value_or(0);
            const qint64 age = column.from.toDateTime().secsTo(QDateTime::currentDateTime());
            html += rect.arg(double(-age) / 10).arg(-most).arg(most - least + 0.5);
        }
        QSaveFile page(folder.filePath(QStringLiteral("trend.html")));
        if (!page.open(QIODevice::WriteOnly) || page.write(html.toUtf8()) < 0 || !page.commit())
            errors << page.fileName() << ": " << page.errorString() << Qt::endl;
    });
    QObject::connect(&showing, &QTimer::timeout, [&] {
        trend.show(TrendQuery::between(QDateTime::currentDateTime().addSecs(-3599), LocalTime::now()).columns(361));
        const auto question = [&](HistoryStore &store) { return store.latest(tables); };
        history.ask(nullptr, question, [&](const Result<QList<Latest<Sample>>> &latest) {
            if (latest && latest->first().record)
                out << latest->first().record->value << " °C, and " << latest->size() - 1 << " others" << Qt::endl;
        });
    });
    sampling.start(100);
    showing.start(1000);
    QCoreApplication::exec();

    note(QStringLiteral("stopped"));
    bool whole = true;
    for (Recorder *recorder : recorders) {
        whole = recorder->stop(std::chrono::seconds(10)) && whole; // what was lost is in its why
        out << recorder->path() << ": " << recorder->health().stored << " rows stored" << Qt::endl;
    }
    return whole ? 0 : 1;
}
