// SPDX-License-Identifier: MIT
#ifndef HELPSQLITE_H
#define HELPSQLITE_H

#include <QString>

/// What the database library needs of the device's tool library. A device brings its own.
class Q_DECL_EXPORT helpSQLite
{
public:
    /// The text in a form that can stand between single quotes in SQL: each quote doubled. A text without
    /// a quote comes back as it is.
    static QString toSQLiteString(QString text);
};

#endif
