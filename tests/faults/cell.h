#pragma once

#include "expectation.h"

#include "stand-in.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QProcess>

/** One cell of the matrix: a host, a fault, and what comes of them; in a world with the stand-in. */
class Cell
{
public:
    Cell(StandIn &daemon, const Call &call, const Fault &fault, const Act &act);

    /** Lives through it; says what was not as promised, if anything. */
    QString problem();

private:
    void start();
    void take(const QString &step);
    /** What the daemon answers, or sends, in GVariant text. */
    const char *arguments(const QString &which) const;
    void addRule(const QStringList &words);
    void makeCall();
    void doAct();
    void runLoop();
    void killBus();
    void killDaemon();
    bool is(const char *kinds) const;

    void write(const char *order);
    void read();
    bool hasEnded() const;
    /** Waits, but not after the host's end. What does not come from the host is looked for again after @p interval. */
    template <typename Condition> bool await(Condition condition, int interval = 1000);
    bool awaitSaid(const char *word);
    void awaitHeard();
    void settle();
    QStringList dealtCalls();

    StandIn &m_daemon;
    const Call &m_call;
    const Fault &m_fault;
    const Act &m_act;
    const Expectation m_expected;
    QProcess m_host;
    QStringList m_said;  ///< what tells how far the host is
    QStringList m_lines; ///< all else
    QStringList m_got;   ///< the calls of a daemon that has been killed
    bool m_isClosed = false;
    bool m_isFrozen = false;
    bool m_isKilled = false;
    bool m_isFollowing = true;
    bool m_isInLoop = false;
    QElapsedTimer m_timer;
};
