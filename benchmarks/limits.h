// SPDX-License-Identifier: MIT
#pragma once

#include <string>

/// What a ratio is to keep to.
struct Limit {
    const char *workload; ///< Shell patterns.
    const char *contender;
    const char *base;
    enum Sense { AtMost, AtLeast } sense;
    double qt6;
    double qt5;
    double fromMicroseconds = 0; ///< Holds only where the base takes this long.

    double value() const;
    bool kept(double ratio) const { return sense == AtMost ? ratio <= value() : ratio >= value(); }
};

/// The limit of a ratio; null when there is none. The first that matches counts.
const Limit *findLimit(const std::string &workload, const std::string &contender, const std::string &base,
                       double baseMicroseconds);
