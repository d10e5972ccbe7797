// SPDX-License-Identifier: MIT
#include "memory.h"

#include <QCoreApplication>
#include <QProcess>

#include <dlfcn.h>

#include <cstdio>
#include <stdexcept>

namespace
{

template<typename Function>
Function counter(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
}

} // namespace

Memory childMemory(const std::string &workload, const std::string &contender, const QStringList &options)
{
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LD_PRELOAD"), QStringLiteral(ALLOCATION_COUNT));
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(), QStringList{"--once", QString::fromStdString(workload),
                                                                     "--contender", QString::fromStdString(contender)} +
                                                             options);
    child.waitForFinished(-1);
    Memory memory;
    if (std::sscanf(child.readAllStandardOutput().constData(), "peak %lf MB kept %lf MB", &memory.peak, &memory.kept) !=
        2)
        throw std::runtime_error("no figures from the child process");
    return memory;
}

MemoryCount::MemoryCount()
{
    if (const auto forgetPeak = counter<void (*)()>("allocation_count_forget_peak"))
        forgetPeak();
    if (const auto live = counter<long long (*)()>("allocation_count_live"))
        m_before = live();
}

void MemoryCount::print() const
{
    const auto peak = counter<long long (*)()>("allocation_count_peak");
    const auto live = counter<long long (*)()>("allocation_count_live");
    if (peak && live)
        std::printf("peak %.3f MB kept %.3f MB\n", double(peak() - m_before) / 1e6, double(live() - m_before) / 1e6);
}
