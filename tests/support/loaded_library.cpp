// SPDX-License-Identifier: MIT
#include "loaded_library.h"

#include <QLibrary>

namespace
{

template<typename Function>
Function resolve(const char *name)
{
    static QLibrary loaded(QString::fromLocal8Bit(qEnvironmentVariableIsSet("DEVICE_DATABASE_LIBRARY")
                                                      ? qgetenv("DEVICE_DATABASE_LIBRARY")
                                                      : QByteArray(DEVICE_DATABASE_LIBRARY)));
    const auto function = reinterpret_cast<Function>(loaded.resolve(name));
    if (!function)
        qFatal("%s: %s", name, qPrintable(loaded.errorString()));
    return function;
}

} // namespace

QStringList library::supportList()
{
    static const auto function = resolve<QStringList (*)()>("device_getSupportList");
    return function();
}

interface_data_base *library::create(const QString &key)
{
    static const auto function = resolve<interface_data_base *(*)(QString)>("device_createDB");
    return function(key);
}

void library::close(interface_data_base *store)
{
    static const auto function = resolve<void (*)(interface_data_base *)>("device_closeDB");
    function(store);
}
