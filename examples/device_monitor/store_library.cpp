// SPDX-License-Identifier: MIT
#include "store_library.h"
#include "failure.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace
{

QString findLibrary()
{
    QString name = "libdevice_database.so.1";
    const QDir here(QCoreApplication::applicationDirPath());
    for (const char *folder : {".", "../lib", "../../src"}) { // beside, installed, in the build tree
        const QString candidate = here.filePath(QString("%1/%2").arg(folder, name));
        if (QFileInfo::exists(candidate))
            return QDir::cleanPath(candidate);
    }
    return name; // the system's search path
}

} // namespace

StoreLibrary::StoreLibrary(const QString &path) : m_library(path.isEmpty() ? findLibrary() : path)
{
    if (path.contains('/') && !QFileInfo::exists(path))
        throw UsageError(QString("--library \"%1\": there is no such file").arg(path));
    if (!m_library.load())
        throw Failure(m_library.errorString() + "\nName the library with --library FILE.");
    m_supportList = resolve<decltype(m_supportList)>("device_getSupportList");
    m_create = resolve<decltype(m_create)>("device_createDB");
    m_close = resolve<decltype(m_close)>("device_closeDB");
}

template<typename Function>
Function StoreLibrary::resolve(const char *name)
{
    if (const auto function = reinterpret_cast<Function>(m_library.resolve(name)))
        return function;
    throw Failure(QString("%1 has no function %2; is it the database library?").arg(fileName(), name));
}

StorePtr StoreLibrary::openStore(const char *key, const QString &file) const
{
    StorePtr store(m_create(key), m_close);
    if (!store)
        throw Failure(QString("%1 knows no store \"%2\"").arg(fileName(), key));
    if (const int code = store->openDB(file))
        throw Failure(QString("%1 cannot be opened (SQLite result code %2)").arg(file).arg(code));
    return store;
}

Stores openStores(const StoreLibrary &library, const QString &folder)
{
    // The library sets no pragma: a file's settings are the host's. With a write-ahead log, which the file
    // remembers, others can read while the monitor writes. The operator log's own store runs no SQL of the
    // host; any other kind of store may open its file for that.
    const auto open = [&](const char *key, const char *name) {
        const QString file = QDir(folder).filePath(name);
        QList<QStringList> answer;
        library.openStore("historyDB", file)->execSQL({"PRAGMA journal_mode = WAL"}, answer, 1);
        return library.openStore(key, file);
    };
    return {open("historyDB", storeFiles[0]), open("alarmDB", storeFiles[1]), open("operatorLogDB", storeFiles[2])};
}

QString escaped(QString text)
{
    return text.replace('\'', "''");
}
