// SPDX-License-Identifier: MIT
#pragma once

#include "loaded_library.h"
#include "text_literal.h"

#include <QDateTime>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <new>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

/// A process that writes batches into the table T1 through the library, as a device does: each row of a batch has its
/// number for a value.
class WritingDevice
{
public:
    static constexpr int batchRows = 20;

    /// `first`: what it runs before it begins.
    WritingDevice(const QString &path, const QString &mode, int pauseMs, const QString &first = QString())
    {
        void *const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        shared = new (memory) Shared;
        m_process = fork();
        if (m_process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // it does not outlive a test that is killed
            write(path, mode, pauseMs, first);
            _exit(0);
        }
        while (!shared->ready)
            usleep(1000);
    }
    ~WritingDevice()
    {
        stop();
        munmap(shared, sizeof(Shared));
    }
    WritingDevice(const WritingDevice &) = delete;
    WritingDevice &operator=(const WritingDevice &) = delete;

    void stop()
    {
        shared->stop = true;
        if (m_process > 0) {
            EXPECT_EQ(waitpid(m_process, nullptr, 0), m_process);
        }
        m_process = 0;
    }
    int batches() const { return shared->batches; }
    int failures() const { return shared->failures; } ///< Commits that a lock met.

private:
    // Seen by both processes.
    struct Shared {
        std::atomic<bool> ready{false};
        std::atomic<bool> stop{false};
        std::atomic<int> batches{0};
        std::atomic<int> failures{0};
    };
    inline static Shared *shared = nullptr;

    static void write(const QString &path, const QString &mode, int pauseMs, const QString &first)
    {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &message) {
            if (message.contains("fail"_q) || message.contains("locked"_q))
                ++shared->failures;
        });
        const auto store = library::store("historyDB");
        store->openDB(path);
        QList<QStringList> rows;
        store->execSQL({"PRAGMA journal_mode="_q + mode}, rows, 1);
        store->createTable("T1"_q, "Boiler 1"_q);
        if (!first.isEmpty())
            store->execSQL({first}, rows, 0);
        const int before = store->getDataCountOfTable("T1"_q) / batchRows;
        shared->ready = true;
        for (QDateTime time(QDate(2024, 5, 6), QTime(7, 0), Qt::UTC); !shared->stop; time = time.addSecs(batchRows)) {
            rows.clear();
            for (int i = 0; i < batchRows; ++i)
                rows << QStringList{time.addSecs(i).toString("yyyy-MM-dd hh:mm:ss"_q),
                                    QString::number(before + shared->batches)};
            store->insertManyDatas(rows, "T1"_q);
            ++shared->batches;
            usleep(useconds_t(pauseMs) * 1000);
        }
    }

    pid_t m_process;
};
