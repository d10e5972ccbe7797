// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_SERVED_FILES_H
#define DEVICE_DB_SERVED_FILES_H

#include "serve/followed_file.h"
#include "serve/json.h"
#include "serve/selection.h"

#include <map>

namespace device_db
{

struct ServedFile;

/// A table of records, as long as it is one of its file's.
struct ServedTable {
    QByteArray key; ///< Names it in every question.
    ServedFile *file = nullptr;
    Table table;
    QByteArray title;
    QByteArray unit;
    QByteArray description;
    bool hasTrend = false;
    std::shared_ptr<TablePass> pass; ///< Another one when more than new rows has come.
    std::vector<Point> dots;         ///< Single rows from everywhere in it, for a first look.
    bool hasDots = false;
    QByteArray fingerprint; ///< Of what changes in place.
};

struct ServedFile {
    explicit ServedFile(const QString &path) : followed(path) {}

    FollowedFile followed;
    int place = 0;
    QList<Table> all;
    QList<Registration> registrations;
    qint64 schema = -1; ///< Negative: the tables are not known.
    qint64 version = 0; ///< Grows with each change that is more than new rows.
    std::map<QByteArray, std::shared_ptr<ServedTable>> tables;
    QList<QByteArray> order; ///< The keys, as people count.
};

/// The files that are served, and what is known of them. Every answer is what viewer/src/reading/source.ts calls it.
class ServedFiles
{
public:
    /// The Error of the first file that cannot be read.
    static Result<std::unique_ptr<ServedFiles>> of(const QStringList &paths);

    QByteArray open() const;
    QByteArray tables() const;
    /// Null if there is none.
    std::shared_ptr<ServedTable> table(const QByteArray &key) const;

    /// Looks whether anything has changed; what to tell those who watch, empty if nothing.
    QByteArray look();
    /// What to tell somebody who begins to watch: all of it.
    QByteArray state() const;

    /// The rows that a question finds: those of the same question before, if they are still known.
    std::shared_ptr<Selection> selection(const ServedTable &table, const QByteArray &key, const SelectionQuery &query);

private:
    ServedFiles() = default;

    struct Kept {
        QByteArray table;
        QByteArray key;
        std::shared_ptr<TablePass> pass;
        std::shared_ptr<Selection> selection;
    };

    Status read(ServedFile &file, bool isOther, QList<QByteArray> &grown);
    Status readTables(ServedFile &file);
    QList<Finding> findingsOf(const ServedFile &file) const;
    void forget(const QByteArray &table);

    std::vector<std::unique_ptr<ServedFile>> m_files;
    std::vector<Kept> m_selections; ///< The least recently used first.
};

void writeFinding(Json &json, const Finding &finding);

} // namespace device_db

#endif
