// SPDX-License-Identifier: MIT
#pragma once

#include "device/store.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

/// A store and its record, for tests that are the same for every kind.
template<typename StoreType, typename Record>
struct Pairing {
    using Kept = StoreType;
    using Row = Record;
};

using Pairings =
    ::testing::Types<Pairing<device::HistoryStore, device::Sample>, Pairing<device::AlarmStore, device::Alarm>,
                     Pairing<device::LogStore, device::LogEntry>>;

/// How the tests of a pairing are called.
struct KindNames {
    template<typename Pair>
    static std::string GetName(int place)
    {
        return std::array{"History", "Alarm", "Log"}[size_t(place)];
    }
};
