// SPDX-License-Identifier: MIT
#include "file_content.h"

#include "plain_connection.h"
#include "text_literal.h"

#include <gtest/gtest.h>

QString contentOf(const QString &path)
{
    PlainConnection file(path);
    QString content = "integrity: "_q + file.value("PRAGMA integrity_check"_q);
    for (const QStringList &table : file.run("select name, sql from sqlite_master order by name"_q)) {
        content += "\n"_q + table.join(": "_q);
        for (const QStringList &row : file.run("select * from "_q + table.first()))
            content += "\n"_q + row.join("|"_q);
    }
    return content;
}

Replay::Replay(MemoryDisk &disk, MemoryDisk::Files start, QString path)
    : m_disk(disk), m_start(std::move(start)), m_path(std::move(path))
{
}

QString Replay::contentAfter(const QStringList &statements)
{
    QString &content = m_contents[statements];
    if (content.isNull()) {
        m_disk.setFiles(m_start);
        {
            PlainConnection file(m_path);
            file.run("PRAGMA synchronous=off"_q);
            for (const QString &statement : statements)
                file.run(statement);
        }
        content = contentOf(m_path);
        EXPECT_TRUE(content.startsWith("integrity: ok"_q)) << qPrintable(content);
    }
    return content;
}
