#pragma once

#include "log-recorder.h"
#include "signal-recorder.h"
#include "stand-in.h"

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtTest/QtTest>

#include <functional>
#include <memory>

inline QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

/** Factor signals whose name begins so mark a point in the stream of signals; recorders leave them out. */
extern const QLatin1String drainMark;

/** Runs the event loop until @p condition holds; false when it does not within 30 seconds. */
bool waitFor(const std::function<bool()> &condition);

/**
 * A test with a daemon of its own: each function finds a new, well-behaved one in an unlocked device, and leaves no
 * warning that it did not expect.
 */
class TestCase : public QObject
{
    Q_OBJECT

protected:
    /** A client that has heard the device-lock state; logs and calls of its making are forgotten. */
    std::unique_ptr<AuthClient> newClient();
    /** Makes @p client hold @p token. */
    void grant(AuthClient *client, const QByteArray &token);
    /** Lets @p client and everything on the system bus hear all that the daemon has sent. */
    void drain(AuthClient *client);
    void drainSystemBus();
    /** Waits until the daemon's present instance has been noticed by the only client. */
    void awaitReconnection();

    StandIn daemon;
    std::unique_ptr<LogRecorder> log;

protected Q_SLOTS:
    void init();
    void cleanup();

public Q_SLOTS:
    void markHeard(int number);

private:
    int m_marks = 0;
    int m_heard = 0;
};

/** What a drop of the authentication emits when no request was under way. */
extern const QStringList dropSignals;
