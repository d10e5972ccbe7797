// SPDX-License-Identifier: MIT
#pragma once

#include "model.h"

#include <random>

/// Makes random calls, mostly sensible ones, that keep the tables small.
class Generator
{
public:
    Generator(Kind kind, quint64 seed) : m_kind(kind), m_engine(seed) {}

    /// The next call. `model` is asked for row counts and IDs alone; `isClosed` and `isReading` say how things stand.
    Call next(Model &model, bool isClosed, bool isReading);

    /// Names that tables may have; the first are the usual ones.
    static QStringList tables(Kind kind);

private:
    int below(int limit) { return int(m_engine() % quint64(limit)); }
    bool oneIn(int count) { return below(count) == 0; }
    QString of(const QStringList &choices) { return choices.at(below(int(choices.size()))); }

    QString table();
    QString time(bool isCell);
    QString text();
    QString oddText();
    QStringList row(bool isOdd);
    QStringList statements(const Call &call, Model &model);

    Kind m_kind;
    std::mt19937_64 m_engine;
};
