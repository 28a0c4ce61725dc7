#include "process-end.h"

#include <QtCore/QReadWriteLock>

#include <utility>

namespace {

struct BusUsers
{
    BusUser *first = nullptr;

    ~BusUsers()
    {
        // Each takes itself off the list.
        while (first)
            delete first; // NOLINT(clang-analyzer-cplusplus.NewDelete)
    }
};

// QReadWriteLock of Qt 5.15 keeps the state of contended locks in a list that it makes at the first contention. Static
// objects go in the reverse order of their making: a list that is younger than the thread of Qt D-Bus goes before that
// thread, which then waits for ever when it is inside such a lock, and the end of the process for the thread. Made when
// the library is loaded, the list outlives the thread, unless the host has used D-Bus before.
const bool lockListIsMade = [] {
    QReadWriteLock lock;
    lock.lockForWrite();
    const bool isGranted = lock.tryLockForRead(1);
    lock.unlock();
    return !isGranted;
}();

} // namespace

void BusUser::enlist()
{
    // Made after the static objects of Qt D-Bus, and so destroyed before them.
    static BusUsers users;
    m_next = std::exchange(users.first, this);
    m_link = &users.first;
    if (m_next)
        m_next->m_link = &m_next;
}

BusUser::~BusUser()
{
    if (m_link)
        *m_link = m_next;
    if (m_next)
        m_next->m_link = m_link;
}
