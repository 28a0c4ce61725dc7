#pragma once

#include "channel.h"

#include <AuthClient>
#include <AuthDevlockClient>

/**
 * Has the daemon judge one secret, and unlocks the device with the token if that is wanted.
 *
 * The daemon answers a connection and does not say which request it means, so a client has nothing else to ask for after
 * a request that was given up: its agent is killed.
 */
class Judge : public QObject
{
    Q_OBJECT

public:
    /**
     * @param client what asks, just made and not heard of anything yet; the owner of the judge
     */
    Judge(Channel *channel, AuthClient *client);

    /** One at a time. */
    void ask(AuthScreens::Wire::Attempt *attempt);

private:
    void settle();
    void begin();
    void handleToken(const QVariant &token);
    void handleDiscredit();
    void conclude();
    void finish(AuthScreens::Wire::Result result);

    enum Stage {
        Idle,
        Waiting,
        Asked,
        Failed,
        Finished,
    };

    Channel *const m_channel;
    Stage m_stage = Idle;
    AuthClient *const m_client;
    AuthDevlockClient m_devlock;
    // A new AuthClient discredits once on a locked device. What it says after that is about the request.
    bool m_isDiscredited = false;
    bool m_isSettled = false;
    AuthScreens::Wire::Attempt m_attempt;
};
