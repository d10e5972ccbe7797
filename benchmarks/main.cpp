// SPDX-License-Identifier: MIT
#include "peer.h"
#include "report.h"
#include "session.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace
{

// Memory once taken stays: giving it back and taking it again would be measured as part of whoever is next.
const char allocatorSettings[] = "no trimming, no mmap, 64 MB ahead";
void fixAllocator()
{
    mallopt(M_TRIM_THRESHOLD, 2147483647);
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TOP_PAD, 64 << 20);
}

QString processor()
{
    QFile file(QStringLiteral("/proc/cpuinfo"));
    if (file.open(QIODevice::ReadOnly)) {
        const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
        for (const QString &line : lines) {
            if (line.startsWith(QLatin1String("model name")))
                return line.section(QLatin1Char(':'), 1).trimmed();
        }
    }
    return QStringLiteral("unknown");
}

QString loadAverage()
{
    double load = 0;
    getloadavg(&load, 1);
    return QStringLiteral("%1 on %2 processors").arg(load, 0, 'f', 1).arg(sysconf(_SC_NPROCESSORS_ONLN));
}

QJsonObject environment(const QString &zone, const QString &folder, const QString &seed)
{
    QString libraries;
    for (const PeerType *peer : {&qtSqlPeer, &sqliteCppPeer, &sociPeer, &pocoPeer})
        libraries += QLatin1String(libraries.isEmpty() ? "" : ", ") + QLatin1String(peer->name) + QLatin1Char(' ') +
                     QString::fromStdString(peer->version());
    return {
        {"allocator", allocatorSettings},
        {"build", BENCHMARK_BUILD},
        {"clock", "processor time of the process"},
        {"compiler", BENCHMARK_COMPILER},
        {"files", QFileInfo(folder).path()},
        {"load", loadAverage()},
        {"peers", libraries},
        {"processor", processor()},
        {"qt", QString::fromLatin1(qVersion())},
        {"seed", seed},
        {"sqlite", QString::fromLatin1(sqlite3_libversion())},
        {"zone", zone},
    };
}

void measure(benchmark::State &state, const Workload &workload, std::unique_ptr<Session> &session, int &roundsLeft)
{
    try {
        if (!session) {
            std::fprintf(stderr, "%s\n", workload.name.c_str());
            session = std::make_unique<Session>(workload);
        }
        std::vector<double> figures;
        for (auto _ : state) {
            const double start = processorSeconds();
            figures = session->round();
            state.SetIterationTime(processorSeconds() - start);
        }
        const std::vector<std::string> names = session->names();
        for (size_t place = 0; place < names.size(); ++place)
            state.counters[contenderCounter(place, names[place])] = figures[place];
    } catch (const std::exception &error) {
        state.SkipWithError(error.what());
    }
    if (--roundsLeft == 0)
        session.reset();
}

} // namespace

int main(int argc, char **argv)
{
    fixAllocator();

    QStringList arguments;
    for (int index = 0; index < argc; ++index)
        arguments.append(QString::fromLocal8Bit(argv[index]));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("How much the library costs above SQLite, and beside other ways"));
    parser.addHelpOption();
    parser.addOptions({
        {"filter", "Only the workloads that match the regular expression.", "regex", "."},
        {"json", "Write the figures to a file.", "file"},
        {"short", "Everything once, on tiny data: that it runs, not how fast."},
        {"rounds", "Rounds of the fast workloads; slow ones take a third or a fifth.", "n"},
        {"seed", "Of the data.", "n", "1"},
        {"zone", "TZ; \"unset\" for none.", "name", "UTC"},
        {"once", "One contender of one workload, once, without figures: for a profiler.", "workload"},
        {"contender", "Which, with --once.", "name", "OURS"},
        {"calls", "How often, with --once.", "n", "1"},
        {"list", "The names of the workloads."},
    });
    if (!parser.parse(arguments)) {
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return 1;
    }
    if (parser.value("zone") == QLatin1String("unset"))
        qunsetenv("TZ");
    else
        qputenv("TZ", parser.value("zone").toLocal8Bit());
    QCoreApplication application(argc, argv);
    if (parser.isSet("help"))
        parser.showHelp();
    // The stores' messages are not wanted here.
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        if (type != QtDebugMsg)
            std::fprintf(stderr, "%s\n", qPrintable(text));
    });

    sqlite3_config(SQLITE_CONFIG_URI, 1); // databases in memory have such names
    const QString memory = QStringLiteral("/dev/shm");
    QTemporaryDir folder((QFileInfo(memory).isWritable() ? memory : QDir::tempPath()) +
                         QStringLiteral("/device_database_bench-XXXXXX"));
    qputenv("SQLITE_TMPDIR", folder.path().toLocal8Bit()); // where large sorts go
    Sizes sizes =
        parser.isSet("short") ? Sizes{100, 100, 1000, 2000, 1, {}} : Sizes{10000, 10000, 100000, 1000000, 15, {}};
    sizes.options = QStringList{"--seed", parser.value("seed")};
    if (parser.isSet("short"))
        sizes.options.append("--short");
    if (parser.isSet("rounds"))
        sizes.rounds = parser.value("rounds").toInt();
    const std::vector<Workload> workloads =
        allWorkloads(sizes, Data(parser.value("seed").toULongLong()), folder.path());

    if (parser.isSet("list")) {
        for (const Workload &workload : workloads)
            std::printf("%s\n", workload.name.c_str());
        return 0;
    }
    if (parser.isSet("once")) {
        for (const Workload &workload : workloads) {
            if (workload.name == parser.value("once").toStdString()) {
                runOnce(workload, parser.value("contender").toStdString(), parser.value("calls").toInt());
                return 0;
            }
        }
        std::fprintf(stderr, "no workload %s\n", qPrintable(parser.value("once")));
        return 1;
    }

    std::vector<std::unique_ptr<Session>> sessions(workloads.size());
    std::vector<int> roundsLeft;
    for (const Workload &workload : workloads)
        roundsLeft.push_back(workload.rounds);
    for (size_t index = 0; index < workloads.size(); ++index) {
        if (workloads[index].rounds == 0)
            continue;
        benchmark::RegisterBenchmark(workloads[index].name.c_str(),
                                     [&, index](benchmark::State &state) {
                                         measure(state, workloads[index], sessions[index], roundsLeft[index]);
                                     })
            ->Iterations(1)
            ->Repetitions(workloads[index].rounds)
            ->UseManualTime();
    }
    int none = 1;
    benchmark::Initialize(&none, argv);
    Report report(workloads, environment(parser.value("zone"), folder.path(), parser.value("seed")));
    benchmark::RunSpecifiedBenchmarks(&report, parser.value("filter").toStdString());

    if (parser.isSet("json")) {
        QFile file(parser.value("json"));
        if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(report.json()).toJson()) < 0) {
            std::fprintf(stderr, "%s: %s\n", qPrintable(file.fileName()), qPrintable(file.errorString()));
            return 1;
        }
    }
    return report.failed() ? 1 : 0; // never for a figure
}
