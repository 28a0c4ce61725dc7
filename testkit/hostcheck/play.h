#pragma once

#include "auth-stand-in.h"
#include "host-process.h"
#include "host-time.h"
#include "judgement.h"
#include "outcome.h"

#include <functional>

/** The device-lock states, by the numbers on the bus. */
enum LockState {
    Unlocked = 0,
    Locked = 1,
    ManagerLockout = 2,
    CodeEntryLockout = 3,
    Undefined = 4,
    SecurityUi = 5,
};

/** How long a host is waited for, in milliseconds. */
struct Patience
{
    int up;    ///< from its start to its first claim
    int entry; ///< before a code that has not had its effect is entered again
    int code;  ///< for the effect of a code in all
    int grace; ///< until it takes back a claim
};

/**
 * A host's day in a world: the host as a process, what it claims and what is true, and the daemon that misbehaves.
 *
 * The world's first moments with a host are start(). Every function that waits throws an Outcome as soon as the host
 * breaks a rule. Times are in the host's own time.
 */
class Play
{
public:
    /** @p host is the command with its arguments, @p code a right code. */
    Play(const QList<QByteArray> &host, const QByteArray &code, const Patience &patience);
    Q_DISABLE_COPY(Play)

    /** Sends a control request to the stand-in. */
    QJsonObject daemon(const QByteArray &json);
    void misbehave(const QByteArray &method, const QByteArray &how, const QByteArray &more = QByteArray());
    /** Answers all calls of @p method with @p value, in GVariant text. */
    void answer(const QByteArray &method, const QByteArray &value);
    void emitSignal(const QByteArray &name, const QByteArray &args, const QByteArray &more = QByteArray());
    void setLock(int state);
    /** The same, and nobody is told. */
    void setLockUntold(int state);
    /** The device becomes Locked, and nobody is told: the host finds out within @p patience, by looking. */
    void lockUnheard(int patience);
    /** Kills the system bus of the world: from now on the daemon is away. */
    void killBus();
    /** Nothing gets through the system bus until thawBus(). */
    void freezeBus();
    void thawBus();

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
    /** The code is entered, and the host has passed it on and heard the outcome, or has had the time to do so. */
    void enterOnce(const QByteArray &code);
    QByteArray rightCode() const
    {
        return m_code;
    }
    QByteArray wrongCode() const;

    /** Enters the right code until @p method is called for the @p nth time; throws when the host makes no such call. */
    void reach(const QByteArray &method, int nth = 1);
    bool wasCalled(const QByteArray &method, int nth = 1);
    /** Waits until @p condition is true; throws the finding when it does not become so. */
    void await(const std::function<bool()> &condition, int milliseconds, Rule rule, const QString &finding);
    /** Whether the daemon is there and says Unlocked, and the host claims it. */
    bool isUnlocked() const;
    /** Whether the daemon is there and says Unlocked. */
    bool isDaemonUnlocked() const
    {
        return m_judgement.isUnlocked();
    }
    int lockState() const
    {
        return m_lockState;
    }
    /** Waits until the host has taken back its claim, for as long as it may keep it. */
    void awaitLocked();
    /** The same for a change that the host can find out by looking alone. */
    void awaitLook();
    /** Nobody does anything for so long. */
    void leaveAlone(qint64 milliseconds);
    /** A time in which nothing may happen, for which there is nothing to wait. */
    void quiet();
    /** The right code is entered again and again for so long, whatever comes of it; @p each is called before each. */
    void keepEntering(
        qint64 milliseconds, const std::function<void()> &each = [] {});
    /** Gives a host that may end the time to do so. */
    void awaitEnd();
    /** The codes up to now have had their time, and are no reason for an unlocking any more. */
    void forgetEntries();
    /** How long the host has been played with. */
    qint64 elapsed()
    {
        return m_time.elapsed();
    }

    /** The right code unlocks. */
    void unlock();
    /** The daemon locks and the host takes back its claim. */
    void lock();
    /** The daemon is well again, so the host must be: the right code unlocks. The daemon tells only what is new. */
    void usable();

    /** Ends the host as its supervisor would. */
    void end();
    /** Ends the host without letting it do anything more. */
    void kill();
    /** The same as end(), after a last look at what the host claims; says how the day went. */
    Outcome finish();
    /** For what a day throws: the host may have ended with leave. */
    struct HostEnded
    {
        int status;
    };
    Outcome judgeEnd(const HostEnded &end);

private:
    bool enterUntil(const QByteArray &code, const std::function<bool()> &condition, int pause);
    bool mayHaveEnded(int status);
    int callCount(const QByteArray &method);
    void say(const QByteArray &text);
    void observe();
    void changeState(int state, const QByteArray &json);
    bool until(const std::function<bool()> &condition, qint64 milliseconds);
    void turn(int milliseconds);
    void hear(const QByteArray &line);
    void checkClaim();
    void settleClaim();
    void closeHost();
    [[noreturn]] void failToUnlock();
    [[noreturn]] void throwUselessness(const QString &finding);
    void awaitConnections();
    QString daemonState() const;

    const QList<QByteArray> m_host;
    const QByteArray m_code;
    const Patience m_patience;
    AuthStandIn m_daemon;
    HostTime m_time;
    Judgement m_judgement;
    HostProcess m_process;

    int m_lockState = Undefined;
    bool m_hasOwner = false;
    bool m_isBusKilled = false;
    int m_peers = 0;

    bool m_isUp = false;
    bool m_isEnding = false;
    bool m_enteredWhileAway = false;
    qint64 m_ownerSince = 0;
    int m_peersAtStart = 0;
    int m_mostEntries = 0;
    std::function<bool()> m_mayEnd = [] { return false; };
};
