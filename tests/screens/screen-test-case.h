#pragma once

#include "agent.h"
#include "test-case.h"

#include <DeviceLock>

using AuthScreens::DeviceLock;
using AuthScreens::Reason;

/** A device lock of which everything is recorded, in its order. */
class WatchedLock : public DeviceLock
{
    Q_OBJECT

public:
    explicit WatchedLock(StandIn *daemon);

    /** Waits until it is in @p state; what was recorded before is forgotten. */
    void await(State state);
    /** Waits for the end of an attempt: "Unlocked", or why it has been refused. */
    QString outcomeOf(const QString &factor, const QString &secret);

    /** The names of states and reasons. */
    QStringList heard;

private:
    void record(const QString &name);
};

QString nameOf(DeviceLock::State state);
QString nameOf(Reason reason);

/** A test of screens, with agents that are processes of their own. */
class ScreenTestCase : public TestCase
{
    Q_OBJECT

protected:
    /** The processes that this one has started and that have not been waited for, and what those have started. */
    QList<qint64> children() const;
    /** The same, of the name auth-agent. */
    QList<qint64> agents() const;
    /** The agents that have not ended, once there are as many. */
    QList<qint64> awaitAgents(int count) const;

protected Q_SLOTS:
    void init();
    void cleanup();
};

/** Sends @p signal to each. */
void signalAll(const QList<qint64> &processes, int signal);
