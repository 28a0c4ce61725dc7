#include "device-lock_p.h"

#include <QtCore/QPointer>

namespace AuthScreens {

namespace {

/** Milliseconds until a screen offers to give an attempt up. */
constexpr int Patience = 10000;
/** Milliseconds until the daemon is asked whether an announcement got lost. */
constexpr int CheckPause = 1000;
/** Milliseconds until a device that should be unlocked, or locked, counts as refused. */
constexpr int GrantPatience = 10000;
constexpr int LockPatience = 3000;
constexpr int LongestName = 1024;

constexpr int Silently = -1;

Reason reasonOf(Hand::End end)
{
    switch (end) {
    case Hand::NotAccepted:
        return NotAccepted;
    case Hand::NotSendable:
        return NotSendable;
    case Hand::Unavailable:
        return Unavailable;
    case Hand::LockedOut:
        return LockedOut;
    case Hand::NoAnswer:
        return NoAnswer;
    case Hand::Interrupted:
        return Interrupted;
    case Hand::Done:
    case Hand::NotGranted:
        break;
    }
    return NotGranted;
}

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
    return d->isBusy;
}

bool DeviceLock::overdue() const
{
    return d->isOverdue;
}

uint DeviceLock::uid() const
{
    return d->uid;
}

void DeviceLock::setUid(uint uid)
{
    if (uid == d->uid)
        return;
    d->uid = uid;
    emit uidChanged();
}

bool DeviceLock::attempt(const QString &factor, const QString &data)
{
    return d->attempt(factor, data.toUtf8(), !data.contains(QChar(0)), data.isValidUtf16());
}

bool DeviceLock::attempt(const QString &factor, const QByteArray &data)
{
    return d->attempt(factor, QByteArray(data.constData(), data.size()), false);
}

void DeviceLock::giveUp()
{
    d->giveUp();
}

void DeviceLock::lock()
{
    d->lock();
}

DeviceLockPrivate::DeviceLockPrivate(DeviceLock *publicObject)
    : q(publicObject)
{
    connect(&m_follower, &LockFollower::stateChanged, this, &DeviceLockPrivate::handleState);
    connect(&m_hand, &Hand::finished, this, &DeviceLockPrivate::handleFinished);
    const auto prepare = [this](QTimer *timer, int interval) {
        timer->setSingleShot(true);
        timer->setInterval(interval);
    };
    prepare(&m_refusal, 0);
    prepare(&m_overdue, Patience);
    prepare(&m_check, CheckPause);
    prepare(&m_grant, GrantPatience);
    prepare(&m_lockCheck, LockPatience);
    connect(&m_refusal, &QTimer::timeout, this, [this] { endAttempt(m_obstacle); });
    connect(&m_overdue, &QTimer::timeout, this, [this] {
        isOverdue = true;
        emit q->overdueChanged();
    });
    connect(&m_check, &QTimer::timeout, &m_follower, &LockFollower::look);
    connect(&m_grant, &QTimer::timeout, this, [this] { endAttempt(NotGranted); });
    connect(&m_lockCheck, &QTimer::timeout, this, [this] { endLocking(true); });
}

bool DeviceLockPrivate::attempt(const QString &factor, QByteArray secret, bool isText, bool isSendable)
{
    if (isBusy) {
        Wire::wipe(secret);
        return false;
    }
    isBusy = true;
    if (secret.isEmpty() || secret.size() > Wire::MaxSecret || factor.size() > LongestName)
        isSendable = false;
    if (!isSendable || state != DeviceLock::Locked) {
        Wire::wipe(secret);
        m_obstacle = isSendable ? obstacleOf(state) : NotSendable;
        m_refusal.start();
    } else {
        Wire::Attempt request;
        request.service = QStringLiteral("unlock");
        request.factor = factor;
        request.secret.swap(secret);
        request.isText = isText;
        request.uid = uid;
        request.unlocks = true;
        m_hand.attempt(request);
        Wire::wipe(request.secret);
        m_overdue.start();
    }
    emit q->busyChanged();
    return true;
}

void DeviceLockPrivate::giveUp()
{
    if (isBusy)
        endAttempt(GivenUp);
}

void DeviceLockPrivate::lock()
{
    const QPointer<DeviceLockPrivate> self(this);
    giveUp();
    if (!self)
        return;
    m_isLocking = true;
    m_hand.lock();
    m_lockCheck.start();
}

void DeviceLockPrivate::handleState()
{
    const QPointer<DeviceLockPrivate> self(this);
    const DeviceLock::State before = state;
    state = DeviceLock::State(m_follower.state());
    if (state != DeviceLock::Unlocked)
        endLocking(false);
    m_hand.setPrepared(state == DeviceLock::Locked);

    emit q->stateChanged();
    if (self && (before == DeviceLock::Unlocked) != (state == DeviceLock::Unlocked))
        emit q->unlockedChanged();
    if (self && (before == DeviceLock::Undefined) != (state == DeviceLock::Undefined))
        emit q->availableChanged();
    if (self && lockoutOf(before) != lockoutOf(state))
        emit q->lockoutReasonChanged();
    if (self && isBusy && state != DeviceLock::Locked)
        endAttempt(state == DeviceLock::Unlocked ? Silently : int(obstacleOf(state)));
}

void DeviceLockPrivate::handleFinished(Hand::End end)
{
    if (m_isLocking) {
        if (end == Hand::Done)
            m_follower.look();
        else
            endLocking(true);
    } else if (end != Hand::Done) {
        endAttempt(reasonOf(end));
    } else {
        m_check.start();
        m_grant.start();
    }
}

void DeviceLockPrivate::endAttempt(int reason)
{
    const QPointer<DeviceLockPrivate> self(this);
    for (QTimer *timer : {&m_refusal, &m_overdue, &m_check, &m_grant})
        timer->stop();
    m_hand.end();
    const bool wasOverdue = isOverdue;
    isBusy = false;
    isOverdue = false;
    emit q->busyChanged();
    if (self && wasOverdue)
        emit q->overdueChanged();
    if (self && reason != Silently)
        emit q->refused(Reason(reason));
}

// The agent may still be waiting for the daemon; the state tells what becomes of that.
void DeviceLockPrivate::endLocking(bool isRefused)
{
    if (!m_isLocking)
        return;
    m_lockCheck.stop();
    m_isLocking = false;
    if (!isRefused)
        m_hand.end();
    else if (state == DeviceLock::Unlocked)
        emit q->refused(NotLocked);
}

} // namespace AuthScreens
