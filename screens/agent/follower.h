#pragma once

#include "channel.h"

#include <AuthDevlockClient>

#include <QtCore/QPointer>
#include <QtCore/QTimer>
#include <QtDBus/QDBusPendingCallWatcher>

/**
 * Follows the device lock for a screen.
 *
 * AuthDevlockClient tells what is announced, by whomever. Everything but Unlocked is passed on at once. Unlocked is passed
 * on when the daemon has answered GetState so after the announcement, and nothing else has been announced meanwhile:
 * the bus lets nobody but the daemon answer a call of the daemon.
 */
class Follower : public QObject
{
    Q_OBJECT

public:
    explicit Follower(Channel *channel);

    /** Begins anew: what is known does not count, and the daemon is asked. */
    void follow(quint32 epoch);

private:
    void renew();
    void renewSoon(int pause);
    void handleWord();
    void ask();
    void handleAnswer(int answer);
    void tell(int state);
    void sayState();

    Channel *const m_channel;
    quint32 m_epoch = 0;
    QPointer<AuthDevlockClient> m_client;
    int m_told = AuthScreens::Wire::NothingYet;
    quint64 m_time = 0;
    std::unique_ptr<QDBusPendingCallWatcher> m_question;
    QTimer m_beat;
    QTimer m_patience;
    QTimer m_look;
    QTimer m_renewal;
    int m_pause;
};
