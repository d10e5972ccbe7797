// SPDX-License-Identifier: MIT
#include "storefile/temporary_file.h"

#include <QDir>
#include <QFile>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>

#include <unistd.h>

namespace device_db
{

// What the handler of a signal can reach: of a fixed size, at a fixed place.
struct RegisteredFile {
    enum State { Free, Taken, Registered };

    std::atomic<int> state{Free};
    char path[4096] = {};
    char folder[4096] = {};
};

namespace
{

std::array<RegisteredFile, 8> registered;

void removeFiles(const char *path, const char *folder) // async-signal-safe
{
    char name[sizeof(RegisteredFile::path) + 16];
    for (const char *ending : {"", "-journal", "-wal", "-shm"}) {
        std::strcpy(name, path);
        std::strcat(name, ending);
        unlink(name);
    }
    if (folder[0])
        rmdir(folder);
}

extern "C" void removeAndDie(int signal)
{
    for (const RegisteredFile &each : registered) {
        if (each.state == RegisteredFile::Registered)
            removeFiles(each.path, each.folder);
    }
    std::signal(signal, SIG_DFL);
    raise(signal);
}

} // namespace

TemporaryFile::TemporaryFile(QByteArray path, QByteArray folder) : m_path(std::move(path)), m_folder(std::move(folder))
{
    if (m_path.size() >= int(sizeof(RegisteredFile::path)))
        return; // too long for any file system
    for (RegisteredFile &each : registered) {
        int expected = RegisteredFile::Free;
        if (!each.state.compare_exchange_strong(expected, RegisteredFile::Taken))
            continue;
        std::strcpy(each.path, m_path.constData());
        std::strcpy(each.folder, m_folder.constData());
        each.state = RegisteredFile::Registered;
        m_registered = &each;
        break;
    }
}

TemporaryFile::~TemporaryFile()
{
    if (!m_path.isEmpty())
        removeFiles(m_path.constData(), m_folder.constData());
    keep();
}

void TemporaryFile::keep()
{
    m_path.clear();
    if (m_registered)
        m_registered->state = RegisteredFile::Free;
    m_registered = nullptr;
}

std::unique_ptr<TemporaryFile> makeTemporaryFile()
{
    QByteArray folder = QFile::encodeName(temporaryPlace()) + "/device-db-XXXXXX";
    if (!mkdtemp(folder.data()))
        return nullptr;
    return std::make_unique<TemporaryFile>(folder + "/snapshot.db", folder);
}

QString temporaryPlace()
{
    const QByteArray wanted = qgetenv("TMPDIR");
    return wanted.isEmpty() ? QDir::tempPath() : QFile::decodeName(wanted);
}

void removeTemporaryFilesOnSignals()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction present {
        };
        if (sigaction(signal, nullptr, &present) != 0 || present.sa_handler != SIG_DFL)
            continue;
        struct sigaction ours {
        };
        ours.sa_handler = removeAndDie;
        sigaction(signal, &ours, nullptr);
    }
}

} // namespace device_db
