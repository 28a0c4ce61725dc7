#pragma once

#include "auth-stand-in.h"
#include "outcome.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QVector>

#include <functional>
#include <sys/types.h>

/** The device-lock states, by the numbers on the bus. */
enum LockState {
    Unlocked = 0,
    Locked = 1,
    ManagerLockout = 2,
    CodeEntryLockout = 3,
    Undefined = 4,
    SecurityUi = 5,
};

/** How long a host is waited for. */
struct Patience
{
    int up;    ///< from its start to its first claim, in milliseconds
    int entry; ///< before a code that has not had its effect is entered again
    int code;  ///< for the effect of a code in all
};

/**
 * A host's day in a world: the host as a process, what it claims and what is true, and the daemon that misbehaves.
 *
 * The world's first moments with a host are start(). Every function that waits throws an Outcome as soon as the host
 * claims what is not true, keeps a claim for too long, or ends without leave.
 */
class Play
{
public:
    /** @p host is the command with its arguments, @p code a right code. */
    Play(const QList<QByteArray> &host, const QByteArray &code, const Patience &patience);
    ~Play();
    Q_DISABLE_COPY(Play)

    /** Sends a control request to the stand-in. */
    QJsonObject daemon(const QByteArray &json);
    void misbehave(const QByteArray &method, const QByteArray &how, const QByteArray &more = QByteArray());
    /** Answers all calls of @p method with @p value, in GVariant text. */
    void answer(const QByteArray &method, const QByteArray &value);
    void emitSignal(const QByteArray &name, const QByteArray &args, const QByteArray &more = QByteArray());
    void setLock(int state);
    /** Kills the system bus of the world and waits until the stand-in has noticed. */
    void killBus();

    /** Starts the host, also one that has been ended, and waits until it is up. */
    void start();
    /** The same, and waits until it has connected: it may claim something before. */
    void startIdle();
    /** Status 1 is what the library documents from now on, while @p where is true. */
    void mayEnd(std::function<bool()> where = [] { return true; });
    bool isUp() const
    {
        return m_isUp;
    }

    /** The code is entered, and again after a while, until @p condition is true. False when patience runs out. */
    bool enterUntil(const QByteArray &code, const std::function<bool()> &condition);
    void enter(const QByteArray &code);
    QByteArray rightCode() const
    {
        return m_code;
    }
    QByteArray wrongCode() const;

    /** Enters the right code until @p method is called for the @p nth time; throws when the host makes no such call. */
    void reach(const QByteArray &method, int nth = 1);
    bool wasCalled(const QByteArray &method, int nth = 1);
    /** Waits until @p condition is true; throws @p finding when it does not become so. */
    void await(const std::function<bool()> &condition, int milliseconds, const QString &finding);
    /** Whether the daemon is there and says Unlocked, and the host claims it. */
    bool isUnlocked() const;
    /** Whether the daemon is there and says Unlocked. */
    bool isDaemonUnlocked() const
    {
        return m_truth.last().isUnlocked;
    }
    int lockState() const
    {
        return m_lockState;
    }
    /** Waits until the host has taken back its claim. */
    void awaitLocked();
    /** A time in which nothing may happen, for which there is nothing to wait. */
    void quiet();
    /** Gives a host that may end the time to do so. */
    void awaitEnd();
    /** Longer than calls wait for an answer, and than a host should wait for an outcome. */
    void leaveAlone();

    /** The right code unlocks. */
    void unlock();
    /** The daemon locks and the host takes back its claim. */
    void lock();
    /** The daemon is well again, so the host must be: the right code unlocks. */
    void usable();

    /** Ends the host as its supervisor would. */
    void end();
    /** The same; says how the day went. */
    Outcome finish();
    /** For what a day throws: the host may have ended with leave. */
    struct HostEnded
    {
        int status;
    };
    Outcome judgeEnd(const HostEnded &end);

private:
    struct Truth
    {
        bool isUnlocked;
        qint64 since;
    };

    bool enterUntil(const QByteArray &code, const std::function<bool()> &condition, int pause);
    int callCount(const QByteArray &method);
    void say(const QByteArray &text);
    void observe();
    bool until(const std::function<bool()> &condition, qint64 milliseconds);
    void turn(int milliseconds);
    void readHost();
    void reap();
    void hear(const QByteArray &line);
    void checkClaim();
    [[noreturn]] void failToUnlock();
    void awaitConnections();
    void awaitNoChildren();
    QString daemonState() const;

    const QList<QByteArray> m_host;
    const QByteArray m_code;
    const Patience m_patience;
    AuthStandIn m_daemon;
    QElapsedTimer m_clock;

    QVector<Truth> m_truth;
    int m_seen = 0; ///< the earliest time in m_truth that the host may still speak of
    int m_lockState = 0;
    bool m_hasOwner = false;
    int m_peers = 0;

    pid_t m_pid = 0;
    int m_probe = -1;
    int m_signals;
    QByteArray m_input;
    bool m_isUp = false;
    bool m_claimsUnlocked = false;
    bool m_hasEnded = false;
    bool m_isEnding = false;
    int m_status = 0;
    int m_peersAtStart = 0;
    int m_mostEntries = 0;
    std::function<bool()> m_mayEnd = [] { return false; };
};
