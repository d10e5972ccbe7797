// SPDX-License-Identifier: MIT
#pragma once

#include "data.h"

#include <QMap>
#include <QString>

#include <memory>
#include <vector>

class Connection;

using Store = std::shared_ptr<interface_data_base>;

/// A store of the library on a file.
Store openStore(const Kind &kind, const QString &path);

/// The database files, made on demand.
class Files
{
public:
    Files(const Data &data, const QString &folder);
    ~Files();

    /// A new file with an empty table, made by the library itself.
    QString empty(const Kind &kind);
    /// The same in memory, where every connection of this process finds it by its name.
    QString emptyInMemory(const Kind &kind);
    /// A file that holds the first `rows` rows; always the same one: it is for reading.
    QString filled(const Kind &kind, int rows, bool indexed = false);
    /// The same, but a file of its own.
    QString filledCopy(const Kind &kind, int rows);

    const Data &data() const { return m_data; }

private:
    Q_DISABLE_COPY(Files)

    const Data m_data;
    const QString m_folder;
    int m_count = 0;
    std::vector<std::unique_ptr<Connection>> m_inMemory;
    QMap<QStringList, QString> m_filled;
};
