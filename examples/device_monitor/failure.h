// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <stdexcept>

/// What ends the program before its time: a text for the user.
struct Failure : std::runtime_error {
    explicit Failure(const QString &text) : std::runtime_error(text.toStdString()) {}
};

/// The same, for an argument that the user can put right.
struct UsageError : Failure {
    using Failure::Failure;
};
