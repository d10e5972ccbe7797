// SPDX-License-Identifier: MIT
//
// A panel: a simulated boiler is sampled fifty times a second, alarms come and go with its temperature, the
// operator acknowledges. Recording and reading happen on the recorders' threads; this file only wires them.
#include "trend_view.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QGridLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTableView>
#include <QTimer>
#include <QtMath>

using namespace device;

namespace
{

constexpr double limit = 80;

RecorderOptions deviceOptions()
{
    RecorderOptions options;
    options.file.profile = Profile::Durable;
    options.batchTime = std::chrono::milliseconds(250);
    return options;
}

QTableView *viewOf(QAbstractItemModel *model, const QVector<int> &widths)
{
    auto *view = new QTableView;
    view->setModel(model);
    view->setSelectionBehavior(QAbstractItemView::SelectRows);
    view->horizontalHeader()->setStretchLastSection(true);
    view->verticalHeader()->hide();
    view->setWordWrap(false);
    view->verticalHeader()->setDefaultSectionSize(22);
    for (int column = 0; column < widths.size(); ++column)
        view->setColumnWidth(column, widths.at(column));
    return view;
}

class Panel : public QWidget
{
public:
    Panel(const Library &library, const QString &folder)
        : m_history(library, folder + QStringLiteral("/history.db"), deviceOptions()),
          m_alarms(library, folder + QStringLiteral("/alarms.db"), deviceOptions()),
          m_log(library, folder + QStringLiteral("/log.db"), deviceOptions())
    {
        setWindowTitle(QStringLiteral("Boiler"));
        m_history.createTable(m_boiler, {QStringLiteral("Boiler 1"), QStringLiteral("°C")});
        m_history.keepTrend(m_boiler, {{TrendLevel::TenSeconds, TrendLevel::Minute, TrendLevel::TenMinutes,
                                        TrendLevel::Hour, TrendLevel::Day}});
        m_alarms.createTable(m_alarmData);
        m_log.createTable(m_operatorLog);
        for (PagedModel *model : QList<PagedModel *>{&m_samples, &m_raised, &m_entries})
            model->setFollowing(true);

        auto *acknowledge = new QPushButton(QStringLiteral("Acknowledge"));
        auto *trend = new TrendView(&m_trend, QStringLiteral("Boiler 1, °C"));
        auto *grid = new QGridLayout(this);
        grid->addWidget(m_temperature, 0, 0);
        grid->addWidget(acknowledge, 0, 1);
        grid->addWidget(trend, 1, 0, 1, 2);
        grid->addWidget(new QLabel(QStringLiteral("Samples")), 2, 0);
        grid->addWidget(viewOf(&m_samples, {170}), 3, 0, 3, 1);
        grid->addWidget(new QLabel(QStringLiteral("Alarms")), 2, 1);
        grid->addWidget(viewOf(&m_raised, {45, 140, 65, 50, 55, 45, 190, 85}), 3, 1);
        grid->addWidget(new QLabel(QStringLiteral("Operator log")), 4, 1);
        grid->addWidget(viewOf(&m_entries, {170, 80, 80}), 5, 1);
        grid->addWidget(m_health, 6, 0, 1, 2);
        grid->setRowStretch(1, 2);
        grid->setRowStretch(3, 1);
        grid->setRowStretch(5, 1);
        grid->setColumnStretch(0, 2);
        grid->setColumnStretch(1, 5);

        // Not for the last rows, which are stored when the model is gone.
        connect(&m_history, &Recorder::stored, &m_trend, [trend] { trend->follow(); });
        connect(acknowledge, &QPushButton::clicked, this, [this] { log(QStringLiteral("Acknowledged")); });
        connect(&m_alarms, &AlarmRecorder::raised, this, [this](const Alarm &alarm) { m_state = alarm.description; });
        connect(&m_alarms, &AlarmRecorder::ended, this, [this] { m_state.clear(); });
        for (Recorder *recorder : QList<Recorder *>{&m_history, &m_alarms, &m_log}) {
            connect(recorder, &Recorder::troubled, this, [this](const Error &why) { m_state = why.text(); });
            keep(recorder->start());
        }
        connect(&m_sampling, &QTimer::timeout, this, [this] { takeSample(); });
        m_sampling.start(20);
        log(QStringLiteral("Panel started"));
    }

    void log(const QString &message)
    {
        keep(m_log.record(m_operatorLog,
                          {QDateTime::currentDateTime(), QStringLiteral("admin"), QStringLiteral("Panel"), message}));
    }

private:
    void takeSample()
    {
        const double temperature = 74 + 9 * qSin(++m_count / 60.0);
        const QString text = QString::number(temperature, 'f', 2);
        keep(m_history.record(m_boiler, {QDateTime::currentDateTime(), text}));
        const bool high = temperature > limit;
        if (high && !m_high)
            raise(text);
        if (!high && m_high)
            keep(m_alarms.end(m_alarmData, QStringLiteral("Boiler 1"), QStringLiteral("High"),
                              QDateTime::currentDateTime()));
        m_high = high;
        const QString state = m_state.isEmpty() ? QStringLiteral("No alarm") : m_state.toHtmlEscaped();
        m_temperature->setText(QStringLiteral("<h1>%1 °C</h1>%2").arg(text, state));
        const Health health = m_history.health();
        m_health->setText(QStringLiteral("%1 stored, %2 waiting, %3 refused, %4 dropped; in the file after %5 ms "
                                         "(median), %6 ms (99 %); %7 bytes a row")
                              .arg(health.stored)
                              .arg(health.depth)
                              .arg(health.refused)
                              .arg(health.dropped)
                              .arg(health.latencyP50, 0, 'f', 0)
                              .arg(health.latencyP99, 0, 'f', 0)
                              .arg(health.bytesPerRow, 0, 'f', 0));
    }

    void raise(const QString &text)
    {
        Alarm alarm;
        alarm.level = 2;
        alarm.start = QDateTime::currentDateTime();
        alarm.object = QStringLiteral("Boiler 1");
        alarm.type = QStringLiteral("High");
        alarm.value = text;
        alarm.limit = QString::number(limit);
        alarm.description = QStringLiteral("Temperature above limit");
        keep(m_alarms.raise(m_alarmData, alarm));
    }

    // A refused row is shown, never passed over.
    void keep(const Status &taken)
    {
        if (!taken)
            m_state = taken.error().text();
    }

    const TableName m_boiler = TableName::must("Boiler");
    const TableName m_alarmData = TableName::must("AlarmData");
    const TableName m_operatorLog = TableName::must("OperatorLog");
    QTimer m_sampling;
    int m_count = 0;
    bool m_high = false;
    QString m_state;
    QLabel *m_temperature = new QLabel;
    QLabel *m_health = new QLabel;
    // The recorders after all that their last signals touch, the models after their recorders.
    HistoryRecorder m_history;
    AlarmRecorder m_alarms;
    LogRecorder m_log;
    SampleModel m_samples{&m_history, m_boiler};
    AlarmModel m_raised{&m_alarms, m_alarmData};
    LogModel m_entries{&m_log, m_operatorLog};
    TrendModel m_trend{&m_history, m_boiler};
};

} // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("library"), QStringLiteral("The store library."));
    const QCommandLineOption folder(QStringLiteral("folder"), QStringLiteral("Where the files are."),
                                    QStringLiteral("folder"), QDir::currentPath());
    const QCommandLineOption picture(QStringLiteral("picture"),
                                     QStringLiteral("Save a picture after a while and quit."), QStringLiteral("file"));
    const QCommandLineOption seconds(QStringLiteral("seconds"), QStringLiteral("The while."), QStringLiteral("number"),
                                     QStringLiteral("3"));
    parser.addOptions({folder, picture, seconds});
    parser.process(application);
    const auto library = Library::load(parser.positionalArguments().value(0));
    if (!library)
        qFatal("%s", qPrintable(library.error().text()));
    Panel panel(*library, parser.value(folder));
    panel.resize(1150, 800);
    panel.show();
    if (parser.isSet(picture)) {
        QTimer::singleShot(int(parser.value(seconds).toDouble() * 1000), &panel,
                           [&] { application.exit(panel.grab().save(parser.value(picture)) ? 0 : 1); });
    }
    return application.exec();
}
