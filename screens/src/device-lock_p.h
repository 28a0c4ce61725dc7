#pragma once

#include "DeviceLock"
#include "hand.h"
#include "lock-follower.h"

namespace AuthScreens {

class DeviceLockPrivate : public QObject
{
    Q_OBJECT

public:
    explicit DeviceLockPrivate(DeviceLock *publicObject);

    bool attempt(const QString &factor, QByteArray secret, bool isText, bool isSendable = true);
    void giveUp();
    void lock();

    DeviceLock::State state = DeviceLock::Undefined;
    bool isBusy = false;
    bool isOverdue = false;
    uint uid = 0;

private:
    void handleState();
    void handleFinished(Hand::End end);
    /** Ends the attempt, and tells why when there is something to tell. */
    void endAttempt(int reason);
    void endLocking(bool isRefused);

    DeviceLock *const q;
    LockFollower m_follower;
    Hand m_hand;
    bool m_isLocking = false;
    /** Why an attempt ends that cannot begin. */
    Reason m_obstacle = NotSendable;
    QTimer m_refusal;
    QTimer m_overdue;
    /** The daemon has accepted the secret, and its announcement is awaited. */
    QTimer m_check;
    QTimer m_grant;
    QTimer m_lockCheck;
};

} // namespace AuthScreens
