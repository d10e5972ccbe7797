// SPDX-License-Identifier: MIT
#pragma once

#include "interface_data_base.h"

#include <QString>
#include <QStringList>

#include <memory>

/// The library under test, loaded at run time as a host does. Stores come from here alone.
namespace library
{

QStringList supportList();
interface_data_base *create(const QString &key);
void close(interface_data_base *store);

struct Closer {
    void operator()(interface_data_base *store) const { close(store); }
};
using StorePtr = std::unique_ptr<interface_data_base, Closer>;

/// A new, closed store.
inline StorePtr store(const char *key)
{
    return StorePtr(create(QString::fromLatin1(key)));
}

} // namespace library
