// SPDX-License-Identifier: MIT
//
// Records a value on the host layer as it was installed and prints which library was loaded.
#include <device/store.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include <cstdio>

using namespace device;

namespace
{

int failed(const Error &error)
{
    std::fprintf(stderr, "%s\n", qPrintable(error.text()));
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const auto library = Library::load(QString::fromLocal8Bit(argc > 1 ? argv[1] : ""));
    if (!library)
        return failed(library.error());
    QTemporaryDir folder;
    auto store = HistoryStore::open(*library, folder.filePath(QLatin1String("history.db")));
    if (!store)
        return failed(store.error());
    const TableName boiler = TableName::must("Boiler");
    if (const auto made = store->createTable(boiler, {QLatin1String("Boiler 1")}); !made)
        return failed(made.error());
    if (const auto stored = store->append(boiler, {{QDateTime::currentDateTime(), 87.5}}); !stored)
        return failed(stored.error());
    const auto newest = store->read(boiler);
    if (!newest)
        return failed(newest.error());
    std::printf("%s\n", qPrintable(library->path()));
    return newest->size() == 1 && newest->first().number() == 87.5 ? 0 : 1;
}
