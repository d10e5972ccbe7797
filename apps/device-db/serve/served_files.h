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
    QString error;                   ///< Why it cannot be read; it is left out then.
    std::shared_ptr<TablePass> pass; ///< Another one when more than new rows has come; null if it cannot be read.
    std::vector<Point> dots;         ///< Single rows from everywhere in it, for a first look.
    bool hasDots = false;
    QByteArray fingerprint; ///< Of rows that may be others with the same IDs.
};

/// What the host layer adds about a series.
struct SeriesInfo {
    QByteArray unit;
    QByteArray description;

    bool operator==(const SeriesInfo &other) const { return unit == other.unit && description == other.description; }
};

struct ServedFile {
    explicit ServedFile(const QString &path) : followed(path) {}

    FollowedFile followed;
    int place = 0;
    QList<Table> all;
    QStringList keyless; ///< Tables of records that cannot be read by their ID.
    QList<Registration> registrations;
    std::map<QByteArray, SeriesInfo> infos; ///< By the names of the tables, folded.
    QString error;                          ///< Why nothing of it can be read although it was opened.
    QString configurationError;             ///< Why tb_config cannot be read.
    QString infosError;                     ///< Why "device series" cannot be read.
    QByteArray schema;                      ///< The statements that made it, as a hash; null: not known.
    qint64 version = 0;                     ///< Grows with each change that is more than new rows.
    std::map<QByteArray, std::shared_ptr<ServedTable>> tables;
    QList<QByteArray> order; ///< The keys, as people count.
};

/// The files that are served, and what is known of them. Every answer is what viewer/src/reading/source.ts calls it.
class ServedFiles
{
public:
    /// The Error of the first file, if none of them can be read.
    static Result<std::unique_ptr<ServedFiles>> of(const QStringList &paths);

    /// Of the files that cannot be read at the moment.
    std::vector<Error> errors() const;
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

    void read(ServedFile &file, FollowedFile::News news, QList<QByteArray> &grown);
    Result<bool> readTables(ServedFile &file);
    Result<bool> readTable(ServedTable &table, QList<QByteArray> &grown);
    QList<Finding> findingsOf(const ServedFile &file) const;
    void forget(const QByteArray &table);
    void forgetAll(ServedFile &file);

    std::vector<std::unique_ptr<ServedFile>> m_files;
    std::vector<Kept> m_selections; ///< The least recently used first.
};

void writeFinding(Json &json, const Finding &finding);

} // namespace device_db

#endif
