// SPDX-License-Identifier: MIT
#include "power_cut.h"

#include <algorithm>

namespace
{

using Random = std::mt19937;

bool oneIn(int n, Random &random)
{
    return random() % unsigned(n) == 0;
}

QByteArray noise(int size, Random &random)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = char(random());
    return bytes;
}

bool changesFolder(const DiskEvent &event)
{
    return event.kind == DiskEvent::Create || event.kind == DiskEvent::Remove;
}

void change(QMap<QByteArray, int> &folder, const DiskEvent &event)
{
    if (event.kind == DiskEvent::Create)
        folder[event.text] = event.file;
    else if (folder.value(event.text) == event.file)
        folder.remove(event.text);
}

/// Puts bytes into a file; a gap behind its end is filled with `filler`, repeated.
void put(QByteArray &content, qint64 at, const QByteArray &bytes, const QByteArray &filler)
{
    while (content.size() < at)
        content.append(filler.left(int(at - content.size())));
    content.replace(int(at), int(bytes.size()), bytes);
}

void change(QByteArray &content, const DiskEvent &event, const QByteArray &filler)
{
    if (event.kind == DiskEvent::Write)
        put(content, event.at, event.text, filler);
    else
        content.truncate(int(std::min<qint64>(event.at, content.size())));
}

const QByteArray zeros(4096, '\0');

} // namespace

PowerCuts::PowerCuts(std::vector<DiskEvent> events) : m_events(std::move(events))
{
    const auto start = std::find_if(m_events.begin(), m_events.end(),
                                    [](const DiskEvent &event) { return event.kind == DiskEvent::Start; });
    play(size_t(start - m_events.begin()) + 1);
    m_start = m_now;
}

void PowerCuts::goTo(int moment)
{
    play(m_start + size_t(moment));
}

void PowerCuts::play(size_t until)
{
    for (; m_now < until; ++m_now) {
        const DiskEvent &event = m_events[m_now];
        switch (event.kind) {
        case DiskEvent::Note:
            m_noted = int(event.at);
            break;
        case DiskEvent::Sync:
        case DiskEvent::SyncFolder: {
            std::vector<const DiskEvent *> left;
            for (const DiskEvent *const each : m_unsynced) {
                if (event.kind == DiskEvent::SyncFolder ? !changesFolder(*each)
                                                        : changesFolder(*each) || each->file != event.file)
                    left.push_back(each);
                else if (changesFolder(*each))
                    change(m_folder, *each);
                else
                    change(m_synced[each->file], *each, zeros);
            }
            m_unsynced = std::move(left);
            break;
        }
        case DiskEvent::Start:
            break;
        default:
            m_unsynced.push_back(&event);
        }
    }
}

int PowerCuts::notedNext() const
{
    for (size_t i = m_now; i < m_events.size(); ++i)
        if (m_events[i].kind == DiskEvent::Note)
            return int(m_events[i].at);
    return m_noted;
}

MemoryDisk::Files PowerCuts::onlySynced() const
{
    MemoryDisk::Files files;
    for (auto entry = m_folder.begin(); entry != m_folder.end(); ++entry) {
        const auto content = m_synced.find(entry.value());
        files[entry.key()] = content == m_synced.end() ? QByteArray() : content->second;
    }
    return files;
}

MemoryDisk::Files PowerCuts::cut(Random &random, int sectorSize) const
{
    // All, nothing, all up to some moment, and mostly: each for itself.
    const unsigned manner = random() % 8;
    const size_t until = manner == 0 ? 0 : manner == 1 ? m_unsynced.size() : random() % (m_unsynced.size() + 1);
    const unsigned survives = random() % 101; // of 100
    const QByteArray filler = oneIn(2, random) ? noise(4096, random) : zeros;

    QMap<QByteArray, int> folder = m_folder;
    std::map<int, QByteArray> contents = m_synced;
    for (size_t i = 0; i < m_unsynced.size(); ++i) {
        const DiskEvent &event = *m_unsynced[i];
        if (manner <= 2 ? i >= until : random() % 100 >= survives)
            continue;
        if (changesFolder(event)) {
            change(folder, event);
        } else if (manner > 2 && event.kind == DiskEvent::Write && oneIn(3, random)) {
            QByteArray &content = contents[event.file];
            const qint64 end = event.at + event.text.size();
            for (qint64 at = event.at; at < end;) { // torn
                const int size = int(std::min<qint64>(end - at, sectorSize - at % sectorSize));
                if (oneIn(4, random))
                    put(content, at, noise(size, random), filler);
                else if (oneIn(2, random))
                    put(content, at, event.text.mid(int(at - event.at), size), filler);
                at += size;
            }
        } else {
            change(contents[event.file], event, filler);
        }
    }
    MemoryDisk::Files files;
    for (auto entry = folder.begin(); entry != folder.end(); ++entry)
        files[entry.key()] = contents[entry.value()];
    return files;
}
