#include "device-lock_p.h"

#include <QtCore/QPointer>

namespace AuthScreens {

namespace {

/** Milliseconds until the daemon is asked whether an announcement got lost. */
constexpr int CheckPause = 1000;
/** Milliseconds until a device that should be unlocked, or locked, counts as refused. */
constexpr int GrantPatience = 10000;
constexpr int LockPatience = 3000;
/** Milliseconds until the daemon is asked again for what it has not told. */
constexpr int ReadPause = 5000;

DeviceLock::Lockout lockoutOf(DeviceLock::State state)
{
    switch (state) {
    case DeviceLock::ManagerLockout:
        return DeviceLock::ByManager;
    case DeviceLock::CodeEntryLockout:
        return DeviceLock::TooManyCodes;
    default:
        return DeviceLock::NoLockout;
    }
}

/** Why an attempt cannot go on, or not begin, in a state other than Locked. */
Reason obstacleOf(DeviceLock::State state)
{
    switch (state) {
    case DeviceLock::ManagerLockout:
    case DeviceLock::CodeEntryLockout:
        return LockedOut;
    case DeviceLock::Undefined:
        return Unavailable;
    default:
        return NotNeeded;
    }
}

} // namespace

DeviceLock::DeviceLock(QObject *parent)
    : QObject(parent)
    , d(new DeviceLockPrivate(this))
{
}

DeviceLock::~DeviceLock() = default;

DeviceLock::State DeviceLock::state() const
{
    return d->state;
}

bool DeviceLock::unlocked() const
{
    return d->state == Unlocked;
}

bool DeviceLock::available() const
{
    return d->state != Undefined;
}

DeviceLock::Lockout DeviceLock::lockoutReason() const
{
    return lockoutOf(d->state);
}

bool DeviceLock::busy() const
{
    return d->trial.isBusy();
}

bool DeviceLock::overdue() const
{
    return d->trial.isOverdue();
}

uint DeviceLock::uid() const
{
    return d->uid;
}

QStringList DeviceLock::factors() const
{
    return d->factors;
}

void DeviceLock::setUid(uint uid)
{
    d->setUid(uid);
}

bool DeviceLock::attempt(const QString &factor, const QString &data)
{
    return d->trial.begin(d->request(factor), data, d->obstacle());
}

bool DeviceLock::attempt(const QString &factor, const QByteArray &data)
{
    return d->trial.begin(d->request(factor), data, d->obstacle());
}

void DeviceLock::giveUp()
{
    d->trial.end(GivenUp);
}

void DeviceLock::lock()
{
    d->lock();
}

DeviceLockPrivate::DeviceLockPrivate(DeviceLock *publicObject)
    : trial(&hand)
    , q(publicObject)
{
    connect(&m_follower, &LockFollower::stateChanged, this, &DeviceLockPrivate::handleState);
    connect(&hand, &Hand::finished, this, &DeviceLockPrivate::handleFinished);
    connect(&hand, &Hand::told, this, [this](const Wire::Choice &choice) {
        m_isRead = true;
        setFactors(choice.unlock);
    });
    connect(&trial, &Trial::busyChanged, this, &DeviceLockPrivate::handleBusy);
    connect(&trial, &Trial::overdueChanged, q, &DeviceLock::overdueChanged);
    connect(&trial, &Trial::refused, q, &DeviceLock::refused);
    connect(&trial, &Trial::accepted, this, [this] {
        m_check.start(CheckPause);
        m_grant.start(GrantPatience);
    });
    for (QTimer *timer : {&m_check, &m_grant, &m_lockCheck, &m_readAgain})
        timer->setSingleShot(true);
    connect(&m_check, &QTimer::timeout, &m_follower, &LockFollower::look);
    connect(&m_grant, &QTimer::timeout, this, [this] { trial.end(NotGranted); });
    connect(&m_lockCheck, &QTimer::timeout, this, [this] { endLocking(true); });
    connect(&m_readAgain, &QTimer::timeout, this, &DeviceLockPrivate::read);
}

Wire::Attempt DeviceLockPrivate::request(const QString &factor) const
{
    Wire::Attempt result;
    result.service = QStringLiteral("unlock");
    result.factor = factor;
    result.uid = uid;
    result.unlocks = true;
    return result;
}

int DeviceLockPrivate::obstacle() const
{
    return state == DeviceLock::Locked ? Trial::Silently : int(obstacleOf(state));
}

void DeviceLockPrivate::lock()
{
    const QPointer<DeviceLockPrivate> self(this);
    trial.end(GivenUp);
    if (!self)
        return;
    m_isLocking = true;
    m_isReading = false;
    hand.lock();
    m_lockCheck.start(LockPatience);
}

void DeviceLockPrivate::setUid(uint newUid)
{
    if (newUid == uid)
        return;
    const QPointer<DeviceLockPrivate> self(this);
    uid = newUid;
    m_isRead = uid == 0;
    if (m_isReading) {
        m_isReading = false;
        hand.end();
    }
    emit q->uidChanged();
    if (self)
        setFactors(QStringList());
    if (self)
        read();
}

void DeviceLockPrivate::handleState()
{
    const QPointer<DeviceLockPrivate> self(this);
    const DeviceLock::State before = state;
    state = DeviceLock::State(m_follower.state());
    if (state != DeviceLock::Unlocked)
        endLocking(false);
    if (before == DeviceLock::Undefined)
        m_isRead = uid == 0;
    read();
    hand.setPrepared(state == DeviceLock::Locked);

    emit q->stateChanged();
    if (self && (before == DeviceLock::Unlocked) != (state == DeviceLock::Unlocked))
        emit q->unlockedChanged();
    if (self && (before == DeviceLock::Undefined) != (state == DeviceLock::Undefined))
        emit q->availableChanged();
    if (self && lockoutOf(before) != lockoutOf(state))
        emit q->lockoutReasonChanged();
    if (self && state != DeviceLock::Locked)
        trial.end(state == DeviceLock::Unlocked ? Trial::Silently : int(obstacleOf(state)));
}

void DeviceLockPrivate::handleFinished(Hand::End end)
{
    if (m_isLocking) {
        if (end == Hand::Done)
            m_follower.look();
        else
            endLocking(true);
    } else if (m_isReading) {
        m_isReading = false;
        if (!m_isRead)
            m_readAgain.start(ReadPause);
    } else {
        trial.tell(end);
    }
}

void DeviceLockPrivate::handleBusy()
{
    const QPointer<DeviceLockPrivate> self(this);
    m_isReading = false;
    m_check.stop();
    m_grant.stop();
    emit q->busyChanged();
    if (self)
        read();
}

// The agent may still be waiting for the daemon; the state tells what becomes of that.
void DeviceLockPrivate::endLocking(bool isRefused)
{
    if (!m_isLocking)
        return;
    m_lockCheck.stop();
    m_isLocking = false;
    hand.end();
    if (isRefused && state == DeviceLock::Unlocked)
        emit q->refused(NotLocked);
}

void DeviceLockPrivate::read()
{
    if (m_isRead || m_isReading || m_isLocking || trial.isBusy() || state == DeviceLock::Undefined)
        return;
    m_isReading = true;
    hand.read(uid);
}

void DeviceLockPrivate::setFactors(const QStringList &names)
{
    if (names == factors)
        return;
    factors = names;
    emit q->factorsChanged();
}

} // namespace AuthScreens
