// SPDX-License-Identifier: MIT
#ifndef DEVICE_LIBRARY_H
#define DEVICE_LIBRARY_H

#include "result.h"

#include <QStringList>

#include <memory>

class interface_data_base;

namespace device
{

/// The store library, found, checked and loaded. A small value: copies share it; it stays loaded until the
/// process ends, so stores may outlive it. May be used from any thread.
class DEVICE_HOST_EXPORT Library
{
public:
    /// Loads the library at `path`. With an empty path: $DEVICE_DATABASE_LIBRARY, or the first of places()
    /// that exists. A library built for another Qt is refused before it is loaded: two Qts in one process crash.
    ///
    /// Also puts a message handler in front of the host's (once per process). It takes the store library's
    /// lines during calls from here, to make them an Error's cause, and hands everything else on. A host
    /// that installs a handler of its own does so before, or hands on what it gets.
    static Result<Library> load(const QString &path = QString());

    /// The folders searched, in order: the program's, its ../lib, that of the host layer itself, $LD_LIBRARY_PATH, the
    /// folder that the libraries were configured to be installed in, the system's.
    static QStringList places();

    QString path() const;

    /// The entry points, for a host that needs the bare interface.
    QStringList supportList() const;
    interface_data_base *createStore(const QString &key) const; ///< The caller owns it; null for an unknown key.
    void closeStore(interface_data_base *store) const;

private:
    struct Loaded;
    explicit Library(std::shared_ptr<const Loaded> loaded) : m_loaded(std::move(loaded)) {}

    std::shared_ptr<const Loaded> m_loaded;
};

} // namespace device

#endif
