// SPDX-License-Identifier: MIT
#pragma once

#include "plain_connection.h"
#include "qt_printers.h"
#include "text_literal.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <initializer_list>

#include <gtest/gtest.h>

/// A temporary folder, which is where the tool runs.
class ToolTest : public ::testing::Test
{
protected:
    struct Outcome {
        int exitCode;
        QByteArray output;
        QByteArray errors;
    };

    void start(QProcess &process, const QStringList &arguments) const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("DEVICE_DATABASE_LIBRARY"_q, QString::fromLocal8Bit(DEVICE_DATABASE_LIBRARY));
        environment.insert("LC_ALL"_q, "C.UTF-8"_q);
        process.setProcessEnvironment(environment);
        process.setWorkingDirectory(m_folder.path());
        process.start(QString::fromLocal8Bit(DEVICE_DB), arguments);
        ASSERT_TRUE(process.waitForStarted()) << qPrintable(process.errorString());
    }
    static Outcome finish(QProcess &process)
    {
        EXPECT_TRUE(process.waitForFinished(120000));
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
        return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    }
    Outcome run(const QStringList &arguments) const
    {
        QProcess process;
        start(process, arguments);
        return finish(process);
    }

    /// Starts the tool again and again, and kills it once `file` has reached each of these sizes; how often it was
    /// still running then.
    int killedAt(const std::initializer_list<qint64> &sizes, const QString &file, const QStringList &arguments) const
    {
        int killed = 0;
        for (const qint64 size : sizes) {
            QProcess process;
            start(process, arguments);
            while (QFileInfo(path(file)).size() < size && process.state() == QProcess::Running)
                process.waitForFinished(1);
            process.kill();
            process.waitForFinished();
            killed += process.exitStatus() == QProcess::CrashExit ? 1 : 0;
        }
        return killed;
    }

    QString path(const QString &name) const { return m_folder.filePath(name); }
    void write(const QString &name, const QByteArray &content) const
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    QByteArray read(const QString &name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private:
    QTemporaryDir m_folder;
};
