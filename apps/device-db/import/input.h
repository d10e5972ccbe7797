// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_INPUT_H
#define DEVICE_DB_INPUT_H

#include "import/row_reader.h"
#include "storefile/error.h"

#include <QFile>

#include <memory>

namespace device_db
{

struct InputOptions {
    QString path; ///< "-" for standard input.
    std::optional<char> separator;
    QString encoding; ///< As iconv calls it; empty: UTF-8, or UTF-16 where its mark comes first.
    int skip = 0;     ///< Lines before the header.
    bool noHeader = false;
};

/// What is imported: CSV, with a first line "sep=;" or without, or JSON lines, which begin with "{".
class Input
{
public:
    /// The Error says why it cannot be read, or what to do when it is neither.
    static Result<std::unique_ptr<Input>> open(const InputOptions &options);

    /// What it calls its columns; empty when it does not. Comes before the rows. An Error when there is no first row.
    Result<QStringList> header();
    bool isJson() const { return m_isJson; }

    RowReader &rows() { return *m_rows; }
    /// An Error when the rows ended because the input could not be read.
    Status status() const;

    /// A file can be read from where an earlier run stopped; a pipe cannot.
    bool isFile() const { return m_options.path != QLatin1String("-") && !m_file.isSequential(); }
    const QFile &file() const { return m_file; }
    /// Goes on with the row at that place, which the rows' own offset() and line() gave. header() comes before.
    Status goTo(qint64 offset, qint64 line);

    /// How far it is read, and its size, in bytes of the file; 0 when nobody knows.
    qint64 position() const { return isFile() ? m_file.pos() : 0; }
    qint64 size() const { return isFile() ? m_file.size() : 0; }

private:
    explicit Input(const InputOptions &options) : m_options(options), m_file(options.path) {}
    Status look();
    Status decode();
    void read(qint64 offset, qint64 line);
    QIODevice *text() { return m_decoded ? m_decoded.get() : static_cast<QIODevice *>(&m_file); }

    InputOptions m_options;
    QFile m_file;
    std::unique_ptr<QIODevice> m_decoded; ///< Null when the file is UTF-8.
    bool m_isJson = false;
    QStringList m_keys;
    std::unique_ptr<RowReader> m_rows;
};

} // namespace device_db

#endif
