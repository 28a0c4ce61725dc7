#pragma once

#include "agent.h"

#include <QtCore/QTimer>

namespace AuthScreens {

/**
 * What an agent says of the device lock, for as long as it proves that it listens.
 *
 * A state counts for a second from the time that the agent has last given with it, by the clock that goes on while the
 * device sleeps. What an agent has said before it was silent for longer does not count any more: it is told to begin anew,
 * and the state is Undefined until it has asked the daemon. An agent that says nothing for ten seconds (then twenty,
 * forty, as long as the daemon keeps it waiting) is killed, and another takes its place.
 */
class LockFollower : public QObject
{
    Q_OBJECT

public:
    explicit LockFollower(QObject *parent = nullptr);

    /** A number of AuthDevlockClient::LockState. */
    int state() const;
    /** Asks the daemon anew; what is known stays until it has answered, or has not in time. */
    void look();

Q_SIGNALS:
    void stateChanged();

private:
    void start();
    void handleFrame(const Wire::Frame &frame);
    void handleDrained();
    void evaluate();
    void handleLost();
    void handleSilence();
    void begin();
    void setState(int state);

    std::unique_ptr<Agent> m_agent;
    quint32 m_epoch = 0;
    int m_state;
    /** What the agent has said in this epoch; Undefined before. */
    int m_said;
    bool m_hasSaid = false;
    /** When the agent has last said something, in nanoseconds; and when it has done so in this epoch. */
    quint64 m_heard = 0;
    quint64 m_proof = 0;
    /** The state counts until then. */
    QTimer m_expiry;
    QTimer m_silence;
    QTimer m_restart;
    int m_pause;
};

} // namespace AuthScreens
