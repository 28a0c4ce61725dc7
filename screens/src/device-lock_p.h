#pragma once

#include "DeviceLock"
#include "lock-follower.h"
#include "trial.h"

namespace AuthScreens {

class DeviceLockPrivate : public QObject
{
    Q_OBJECT

public:
    explicit DeviceLockPrivate(DeviceLock *publicObject);

    Wire::Attempt request(const QString &factor) const;
    /** Why nothing can be judged now, for Trial::begin(). */
    int obstacle() const;
    void lock();
    void setUid(uint newUid);

    DeviceLock::State state = DeviceLock::Undefined;
    uint uid = 0;
    QStringList factors;
    Hand hand;
    Trial trial;

private:
    void handleState();
    void handleFinished(Hand::End end);
    void handleBusy();
    void endLocking(bool isRefused);
    /** Reads the user's factors, when there is time and they are not known. */
    void read();
    void setFactors(const QStringList &names);

    DeviceLock *const q;
    LockFollower m_follower;
    bool m_isLocking = false;
    bool m_isReading = false;
    bool m_isRead = true;
    /** The daemon has accepted the secret, and its announcement is awaited. */
    QTimer m_check;
    QTimer m_grant;
    QTimer m_lockCheck;
    QTimer m_readAgain;
};

} // namespace AuthScreens
