// SPDX-License-Identifier: MIT
//
// A miniature of the application on the device: it loads the database library at run time, watches the
// machine it runs on, and keeps samples, alarms and the operator log in three files.
#include "failure.h"
#include "housekeeping.h"
#include "machine.h"
#include "monitor.h"
#include "options.h"
#include "report.h"
#include "tables.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <thread>

#include <langinfo.h>
#include <pwd.h>
#include <unistd.h>

namespace
{

volatile std::sig_atomic_t caughtSignal = 0;
bool showDebugOutput = false;

void writeMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    // The library writes its messages, failures too, as debug output.
    if (showDebugOutput || type != QtDebugMsg)
        std::fprintf(stderr, "%s\n", qPrintable(text.trimmed()));
}

QString userName()
{
    if (const passwd *entry = getpwuid(getuid()))
        return QString::fromLocal8Bit(entry->pw_name);
    return qEnvironmentVariable("USER", QString::number(getuid()));
}

QString prepareFolder(const QString &wanted)
{
    if (wanted.isEmpty()) {
        QTemporaryDir folder(QDir::temp().filePath("device_monitor-XXXXXX"));
        folder.setAutoRemove(false);
        if (!folder.isValid())
            throw Failure(folder.errorString());
        return folder.path();
    }
    QString path = QDir::cleanPath(QDir::current().absoluteFilePath(wanted));
    if (!QDir().mkpath(path) || !QFileInfo(path).isWritable())
        throw UsageError(QString("--dir \"%1\": this folder cannot be written; name another").arg(wanted));
    return path;
}

bool progressInPlace()
{
    return isatty(STDERR_FILENO) && !showDebugOutput;
}

/// One line on standard error: rewritten in place on a terminal, else a new one each time.
void showProgress(double second, const Values &values, int activeAlarms)
{
    QString text = QString("%1 s").arg(second, 5, 'f', 0);
    for (size_t i = 0; i < allSeries.size(); ++i)
        text += QString("  %1 %2%3").arg(allSeries[i].key, valueText(allSeries[i], values[i]), allSeries[i].unit);
    text += QString("  alarms %1").arg(activeAlarms);
    std::fprintf(stderr, progressInPlace() ? "\r%s\033[K" : "%s\n", qPrintable(text.left(79)));
}

/// Samples until the time is over or a signal comes; stores once a second. Time is counted in samples: on a
/// busy machine a run takes longer, but it takes every sample. Returns their number.
int watch(Monitor &monitor, Machine &machine, const Options &options)
{
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::nanoseconds(std::chrono::seconds(1)) / options.rate;
    auto nextLimit = options.limits.begin();
    auto nextTime = Clock::now();
    int samples = 0;
    while (!caughtSignal && (options.seconds == 0 || samples < options.seconds * options.rate)) {
        nextTime = std::max(nextTime + period, Clock::now());
        std::this_thread::sleep_until(nextTime);
        const double second = double(++samples) / options.rate;
        for (; nextLimit != options.limits.end() && nextLimit->second <= second; ++nextLimit)
            monitor.setLimit(nextLimit->series, nextLimit->limit);

        const Values values = machine.sample();
        monitor.add(values, QDateTime::currentDateTime());
        if (samples % options.rate == 0) {
            monitor.store();
            showProgress(second, values, monitor.activeAlarms());
        }
    }
    monitor.store(); // what a signal left
    if (progressInPlace())
        std::fputs("\n", stderr);
    return samples;
}

void run(const Options &options, const Printer &printer)
{
    const StoreLibrary library(options.library);
    const QString folder = prepareFolder(options.folder);
    printer.line(QString("Library   %1").arg(library.fileName()));
    printer.line(QString("Stores    %1").arg(library.kinds().join(", ")));
    printer.line(QString("Folder    %1").arg(folder));
    std::fflush(stdout);
    {
        const Stores stores = openStores(library, folder);
        Machine machine(folder);
        Monitor monitor(stores, userName());
        const QDateTime start = QDateTime::currentDateTime();
        monitor.log("Start", QString("%1 series, %2 samples a second").arg(allSeries.size()).arg(options.rate));
        const int samples = watch(monitor, machine, options);
        const QDateTime end = QDateTime::currentDateTime();
        monitor.log("Stop", QString("%1 samples a series; %2")
                                .arg(samples)
                                .arg(caughtSignal ? QString("signal %1").arg(caughtSignal) : "the time is over"));
        monitor.checkStored();
        cleanUp(stores, monitor, options, printer);
        report(stores, monitor, start, end, printer);
    }
    printer.heading("Files");
    for (const char *name : storeFiles) {
        const QFileInfo file(QDir(folder).filePath(name));
        printer.line(QString("  %1  (%2 bytes)").arg(file.filePath()).arg(file.size()));
    }
}

} // namespace

int main(int argc, char **argv)
{
    std::setlocale(LC_CTYPE, ""); // asked before Qt, which may choose another one
    const Printer printer(QByteArray(nl_langinfo(CODESET)) == "UTF-8");
    qInstallMessageHandler(writeMessage);
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("device_monitor");
    QCoreApplication::setApplicationVersion(QStringLiteral(DEVICE_MONITOR_VERSION));
    for (const int each : {SIGINT, SIGTERM, SIGHUP})
        std::signal(each, [](int number) { caughtSignal = number; });
    std::signal(SIGPIPE, SIG_IGN); // who stops reading the output does not stop the recording
    try {
        const Options options = parseOptions(QCoreApplication::arguments());
        showDebugOutput = options.verbose;
        run(options, printer);
        return 0;
    } catch (const UsageError &error) {
        std::fprintf(stderr, "device_monitor: %s\nSee device_monitor --help.\n", error.what());
        return 2;
    } catch (const Failure &error) {
        std::fprintf(stderr, "device_monitor: %s\n", error.what());
        return 1;
    }
}
