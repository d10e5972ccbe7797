// SPDX-License-Identifier: MIT
//
// The shortest host: records one sample and reads the newest ten.
#include "device/store.h"

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
    const auto library = Library::load(argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString());
    if (!library)
        return failed(library.error());
    auto store = HistoryStore::open(*library, QStringLiteral("history.db"));
    if (!store)
        return failed(store.error());
    const TableName boiler = TableName::must("Boiler");
    if (const auto created = store->createTable(boiler, QStringLiteral("Boiler 1")); !created)
        return failed(created.error());
    if (const auto appended = store->append(boiler, {{QDateTime::currentDateTime(), 87.5}}); !appended)
        return failed(appended.error());
    const auto newest = store->read(boiler, Query<Sample>().page(0, 10));
    if (!newest)
        return failed(newest.error());
    for (const Sample &sample : *newest)
        std::printf("%s  %s\n", qPrintable(sample.time.toDateTime().toString(Qt::ISODate)), qPrintable(sample.value));
}
