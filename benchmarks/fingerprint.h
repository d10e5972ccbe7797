// SPDX-License-Identifier: MIT
#pragma once

#include "typed_records.h"
#include "workload.h"

#include <QCryptographicHash>

#include <deque>
#include <functional>
#include <memory>

/// What the results of two contenders are compared by.
QByteArray hash(const std::function<void(QCryptographicHash &)> &add);

void add(QCryptographicHash &sum, const QString &text);
void add(QCryptographicHash &sum, const DataContent &sample);
void add(QCryptographicHash &sum, const AlarmData &alarm);
void add(QCryptographicHash &sum, const OperatorLogData &entry);
void add(QCryptographicHash &sum, const QStringList &row);
void add(QCryptographicHash &sum, const device::Sample &sample);
void add(QCryptographicHash &sum, const device::Alarm &alarm);
void add(QCryptographicHash &sum, const device::LogEntry &entry);

/// What is in a table of a file, the IDs left out.
QByteArray contents(const char *table, const QString &path);

/// Runs gather their outputs; freeing them is not measured.
template<typename Record>
Contender reading(const std::string &name, double items, std::function<void(QList<Record> &)> read)
{
    const auto outputs = std::make_shared<std::deque<QList<Record>>>();
    return {name,
            items,
            [outputs, read] {
                outputs->emplace_back();
                read(outputs->back());
            },
            [outputs] {
                return hash([&](QCryptographicHash &sum) {
                    for (const Record &record : outputs->front())
                        add(sum, record);
                });
            },
            [outputs] { outputs->clear(); },
            {}};
}

inline Contender figure(const char *name, double value)
{
    return {name, 1, {}, {}, {}, [value] { return value; }};
}
