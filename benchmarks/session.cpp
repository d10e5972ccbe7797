// SPDX-License-Identifier: MIT
#include "session.h"

#include "memory.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <numeric>
#include <stdexcept>

extern "C" __attribute__((noinline)) void device_database_measured(const std::function<void()> &run, int calls)
{
    for (int call = 0; call < calls; ++call)
        run();
}

namespace
{

// Qt 6 hashes texts with 256-bit instructions and leaves their registers in use; until somebody clears them, all other
// code with vector instructions, SQLite's included, takes up to 1.7 times as long. Here the hash of one option on the
// command line was enough, for everybody who was measured after it.
void clearVectorRegisters()
{
#ifdef __x86_64__
    if (__builtin_cpu_supports("avx"))
        __asm__ volatile("vzeroupper");
#endif
}

} // namespace

double processorSeconds()
{
    timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return double(time.tv_sec) + double(time.tv_nsec) * 1e-9;
}

Session::Session(const Workload &workload) : m_contenders(workload.open())
{
    QByteArray expected;
    for (const Contender &contender : m_contenders) {
        if (contender.value)
            continue;
        contender.run();
        const QByteArray result = contender.result ? contender.result() : QByteArray();
        contender.undo();
        if (expected.isEmpty())
            expected = result;
        else if (!result.isEmpty() && result != expected)
            throw std::runtime_error(contender.name + " gives something else");
    }
    if (m_contenders.front().value)
        return;
    const double start = processorSeconds();
    m_contenders.front().run();
    const double seconds = processorSeconds() - start;
    m_contenders.front().undo();
    m_calls = std::clamp(int(std::ceil(0.005 / seconds)), 1, 1000);
}

std::vector<std::string> Session::names() const
{
    std::vector<std::string> names;
    for (const Contender &contender : m_contenders)
        names.push_back(contender.name);
    return names;
}

double Session::measure(const Contender &contender) const
{
    clearVectorRegisters();
    const double start = processorSeconds();
    device_database_measured(contender.run, m_calls);
    const double seconds = processorSeconds() - start;
    contender.undo();
    return seconds * 1e6 / (contender.items * m_calls);
}

std::vector<double> Session::round()
{
    std::vector<double> figures;
    if (m_contenders.front().value) {
        for (const Contender &contender : m_contenders)
            figures.push_back(contender.value());
        return figures;
    }
    std::vector<size_t> order(m_contenders.size() - 1);
    std::iota(order.begin(), order.end(), 1);
    std::shuffle(order.begin(), order.end(), m_order);
    figures.resize(m_contenders.size());
    // The last measurement of the round before serves again: FLOOR twice in a row would find its own pages still in
    // the processor's cache, which nobody else does.
    if (m_floor <= 0)
        m_floor = measure(m_contenders.front());
    const double first = m_floor;
    for (const size_t index : order) {
        const double figure = measure(m_contenders[index]);
        const double after = measure(m_contenders.front());
        figures[index] = figure * first / ((m_floor + after) / 2);
        m_floor = after;
    }
    figures[0] = first;
    return figures;
}

void runOnce(const Workload &workload, const std::string &name, int calls)
{
    for (const Contender &contender : workload.open()) {
        if (contender.name != name)
            continue;
        contender.run();
        contender.undo();
        const MemoryCount count;
        device_database_measured(contender.run, calls);
        count.print();
        contender.undo();
        return;
    }
    throw std::runtime_error("no contender " + name);
}
