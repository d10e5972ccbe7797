// SPDX-License-Identifier: MIT
#pragma once

#include "kinds.h"

#include <cstdint>

/// Rows as a device makes them. The same seed, store and index give the same row on every machine.
class Data
{
public:
    explicit Data(std::uint64_t seed) : m_seed(seed) {}

    /// The cells of one row, as a host hands them to insertManyDatas().
    QStringList row(const Kind &kind, int index) const;
    Rows rows(const Kind &kind, int count) const;

    /// The time of a row to the second, as a host hands it over as a bound.
    static QString time(int index);

private:
    std::uint64_t m_seed;
};
