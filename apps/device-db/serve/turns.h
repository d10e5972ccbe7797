// SPDX-License-Identifier: MIT
#ifndef DEVICE_DB_TURNS_H
#define DEVICE_DB_TURNS_H

#include <list>

namespace device_db
{

/// Whose turn it is. Most questions need one slice of work: who comes anew does not wait for all of those that need
/// many. These get every other turn nevertheless, however many come.
template<typename Who>
class Turns
{
public:
    bool isEmpty() const { return m_newcomers.empty() && m_others.empty(); }
    void begin(Who *who) { m_newcomers.push_back(who); }
    void goOn(Who *who) { m_others.push_back(who); }
    void remove(Who *who)
    {
        m_newcomers.remove(who);
        m_others.remove(who);
    }
    /// Null if nobody waits. Who needs another turn has to say so.
    Who *take()
    {
        if (isEmpty())
            return nullptr;
        m_wasNewcomer = m_others.empty() || (!m_wasNewcomer && !m_newcomers.empty());
        auto &waiting = m_wasNewcomer ? m_newcomers : m_others;
        Who *const next = waiting.front();
        waiting.pop_front();
        return next;
    }

private:
    std::list<Who *> m_newcomers;
    std::list<Who *> m_others;
    bool m_wasNewcomer = false;
};

} // namespace device_db

#endif
