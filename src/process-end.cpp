#include "process-end.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QReadWriteLock>
#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusMetaType>

#include <utility>

namespace {

struct BusUsers
{
    BusUser *first = nullptr;

    ~BusUsers()
    {
        // Every user takes itself off the list.
        while (first)
            delete first; // NOLINT(clang-analyzer-cplusplus.NewDelete)
    }
};

// Static objects go in the reverse order of their making, and those of Qt that are made when they are first needed may be
// younger than the thread of Qt D-Bus, which goes on using them until its own end. Made when the library is loaded, they
// outlive the thread, unless the host has used D-Bus before.

// What QMetaType and QDBusMetaType of Qt 5.15 know of types. The thread destroys arguments of queued calls.
const bool typesAreMade = QDBusMetaType::typeToSignature(qMetaTypeId<QDBusVariant>()) != nullptr;

// The list of contended locks that QReadWriteLock of Qt 5.15 keeps. The thread waits for ever inside a lock whose state
// has gone, and the end of the process for the thread.
const bool lockListIsMade = [] {
    QReadWriteLock lock;
    lock.lockForWrite();
    const bool isGranted = lock.tryLockForRead(1);
    lock.unlock();
    return !isGranted;
}();

/** Has nothing to dispatch; see makeTimerList(). */
class IdleDispatcher : public QAbstractEventDispatcher
{
public:
    bool processEvents(QEventLoop::ProcessEventsFlags) override
    {
        return false;
    }
    bool hasPendingEvents() override
    {
        return false;
    }
    void registerSocketNotifier(QSocketNotifier *) override
    {
    }
    void unregisterSocketNotifier(QSocketNotifier *) override
    {
    }
    void registerTimer(int, int, Qt::TimerType, QObject *) override
    {
    }
    bool unregisterTimer(int) override
    {
        return false;
    }
    bool unregisterTimers(QObject *) override
    {
        return false;
    }
    QList<TimerInfo> registeredTimers(QObject *) const override
    {
        return {};
    }
    int remainingTime(int) override
    {
        return -1;
    }
    void wakeUp() override
    {
    }
    void interrupt() override
    {
    }
    void flush() override
    {
    }
};

} // namespace

// The numbers of timers that QAbstractEventDispatcher of Qt 5.15 gives out, and that the thread returns when a call has
// been answered. Not made when the library is loaded, as this needs an object, which belongs to a thread.
void makeTimerList()
{
    static const int number = [] {
        IdleDispatcher dispatcher;
        QAbstractEventDispatcher &base = dispatcher;
        return base.registerTimer(1000, Qt::CoarseTimer, &dispatcher);
    }();
    Q_UNUSED(number)
}

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
