#pragma once

#include "agent.h"

#include <QtCore/QTimer>

namespace AuthScreens {

/**
 * One agent at a time that does things for a screen: an attempt, a locking, or a reading. An agent for the next attempt is started
 * ahead while isWaiting().
 *
 * What is under way when another thing begins, or end() is called, is over and not heard of any more. A thing that has
 * begun ends with finished() otherwise, after Longest milliseconds at the latest.
 */
class Hand : public QObject
{
    Q_OBJECT

public:
    enum End {
        Done,
        NotAccepted,
        NotGranted,
        NotSendable,
        Unavailable,
        LockedOut,
        NotAllowed,
        NotAuthenticated,
        NoAnswer,
        Interrupted,
    };

    explicit Hand(QObject *parent = nullptr);

    /** Whether an agent is kept ready for an attempt while nothing else is done. */
    void setPrepared(bool isPrepared);
    void attempt(const Wire::Attempt &attempt);
    void lock();
    void read(quint32 uid);
    void end();

    bool isBusy() const;

Q_SIGNALS:
    void finished(AuthScreens::Hand::End end);
    /** What has been read, before finished() with Done. */
    void told(const AuthScreens::Wire::Choice &choice);

private:
    enum Task {
        Nothing,
        Waiting,
        Attempting,
        Locking,
        Reading,
    };

    void arrange();
    void begin(Task task);
    void handleFrame(const Wire::Frame &frame);
    void handleLost();
    void handleSilence();
    void finish(End end);

    std::unique_ptr<Agent> m_agent;
    Task m_task = Nothing;
    bool m_isPrepared = false;
    bool m_isReady = false;
    bool m_isGone = false;
    QTimer m_limit;
    QTimer m_silence;
    QTimer m_restart;
    int m_pause;
};

} // namespace AuthScreens
