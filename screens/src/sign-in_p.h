#pragma once

#include "lock-follower.h"
#include "SignIn"
#include "trial.h"

namespace AuthScreens {

class SignInPrivate : public QObject
{
    Q_OBJECT

public:
    explicit SignInPrivate(SignIn *publicObject);

    struct View
    {
        bool isReady = false;
        QStringList factors;
        QString lastLogin;
        int step = 0;
    };

    template <typename Data> bool attempt(const Data &data);
    void setUid(uint newUid);
    void reload();
    /** Shows another view: the signals of what differs follow at once. */
    void show(const View &next);
    void startOver();

    bool isAvailable() const;
    bool isLockedOut() const;
    bool isSignedIn() const;
    QString factor() const;

    uint uid = 0;
    View view;
    Hand hand;
    Trial trial;

private:
    void handleState();
    void handleFinished(Hand::End end);
    void handleAccepted();
    void read();
    void arrange();

    SignIn *const q;
    LockFollower m_follower;
    int m_state;
    bool m_isReading = false;
    QTimer m_readAgain;
};

} // namespace AuthScreens
