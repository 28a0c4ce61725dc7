#pragma once

#include "auth-screens-export.h"
#include "auth-screens-reason.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QStringList>

namespace AuthScreens {

class DeviceLockPrivate;

/**
 * The device lock for a lock screen: follows it, unlocks it with a secret, and locks it.
 *
 * Nothing here waits for the daemon, and the process never ends because of it: processes of the library's own, the agents,
 * talk to the daemon. An object has one that follows the lock, and one that does what is asked for, which is started ahead
 * while the device is locked. They die with the object.
 *
 * @code
 * AuthScreens::DeviceLock lock;
 * connect(&lock, &DeviceLock::unlockedChanged, this, [&] { view->setLocked(!lock.unlocked()); });
 * connect(&lock, &DeviceLock::refused, this, [&](AuthScreens::Reason reason) { view->say(textFor(reason)); });
 * connect(view, &View::entered, &lock, [&](const QString &code) { lock.attempt("code", code); });
 * @endcode
 *
 * @section unlocked When a device counts as unlocked
 * While the daemon itself has answered that it is, and the agent has proved within the last second that it listens for
 * changes. An announcement alone, which on a bus without a policy anybody can send, unlocks nothing: the daemon is asked
 * first. Every other state is believed at once. The daemon is asked again every 30 seconds, as an announcement may get
 * lost; no answer within ten seconds counts as Undefined. An agent that is frozen, ends, or says what makes no sense makes
 * the state Undefined, and so does a device that wakes up; what was known before does not count then, and the daemon is
 * asked anew. An agent that is silent for ten seconds is killed and another takes its place. (The ten seconds are doubled
 * each time, up to 80, for the sake of a daemon that keeps it waiting.)
 *
 * @section outcome Attempts
 * An attempt ends when the device is unlocked, or with refused(): never with both, never with neither. There is one at a
 * time, and it ends by itself after a minute.
 *
 * The object may be deleted at any time, also in a handler of its signals. All signals come from the event loop of the
 * thread that it belongs to, which is any one; of the operations, attempt() and giveUp() emit some before they return.
 */
class AUTH_SCREENS_EXPORT DeviceLock : public QObject
{
    Q_OBJECT

    /** The state; Undefined while nobody knows. */
    Q_PROPERTY(State state READ state NOTIFY stateChanged)
    /** Whether the device is in use: state() is Unlocked. */
    Q_PROPERTY(bool unlocked READ unlocked NOTIFY unlockedChanged)
    /** Whether the daemon is there and has told the state. */
    Q_PROPERTY(bool available READ available NOTIFY availableChanged)
    /** Why nobody can unlock the device for now. */
    Q_PROPERTY(Lockout lockoutReason READ lockoutReason NOTIFY lockoutReasonChanged)
    /** Whether an attempt is under way. */
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    /** Whether an attempt has been under way for ten seconds: a screen offers to give it up. */
    Q_PROPERTY(bool overdue READ overdue NOTIFY overdueChanged)
    /** The user to unlock for; 0, as at first, leaves the choice to the daemon. It is used by the next attempt. */
    Q_PROPERTY(uint uid READ uid WRITE setUid NOTIFY uidChanged)
    /**
     * The names of the factors that uid() has chosen for unlocking, in the daemon's order, without those that are disabled.
     * Empty until they have been read, and without a user. Read when the user is set, and when the daemon comes.
     */
    Q_PROPERTY(QStringList factors READ factors NOTIFY factorsChanged)

public:
    /** The device-lock states, with the daemon's numbers. */
    enum State {
        Unlocked = 0,         ///< The device is in use.
        Locked = 1,           ///< The device is locked.
        ManagerLockout = 2,   ///< A device manager has locked the user out.
        CodeEntryLockout = 3, ///< Too many wrong codes were entered; the daemon ends this by itself after a while.
        Undefined = 4,        ///< Nobody knows: to be treated as locked.
        SecurityUi = 5,       ///< The security interface is shown.
    };
    Q_ENUM(State)

    enum Lockout {
        NoLockout,
        TooManyCodes, ///< As CodeEntryLockout.
        ByManager,    ///< As ManagerLockout.
    };
    Q_ENUM(Lockout)

    /** @param parent the owner, or nullptr */
    explicit DeviceLock(QObject *parent = nullptr);
    ~DeviceLock() override;

    State state() const;
    bool unlocked() const;
    bool available() const;
    Lockout lockoutReason() const;
    bool busy() const;
    bool overdue() const;
    uint uid() const;
    QStringList factors() const;

    void setUid(uint uid);

    /**
     * Has the daemon judge a secret, and unlocks the device when it accepts that.
     *
     * @param factor the factor, such as "code"
     * @param data   the secret, up to 32 KiB of UTF-8. One with a NUL character is sent as bytes, any other as a text.
     *               The copies that are made here are overwritten
     * @return false while another attempt is under way, and then nothing happens; otherwise refused() follows, unless the
     *         device becomes unlocked
     */
    Q_INVOKABLE bool attempt(const QString &factor, const QString &data);
    /** The same with a secret that is sent as bytes. */
    Q_INVOKABLE bool attempt(const QString &factor, const QByteArray &data);

    /**
     * Ends the attempt under way, if there is one, and emits refused(GivenUp) before it returns. What the daemon has begun
     * it may still do: the state tells.
     */
    Q_INVOKABLE void giveUp();

    /**
     * Locks the device. An attempt under way is given up. When the device is still in use three seconds later, or as soon
     * as there is no way to ask for it, refused(NotLocked) follows.
     */
    Q_INVOKABLE void lock();

Q_SIGNALS:
    void stateChanged();
    void unlockedChanged();
    void availableChanged();
    void lockoutReasonChanged();
    void busyChanged();
    void overdueChanged();
    void uidChanged();
    void factorsChanged();

    /** What was asked for last has not come about. */
    void refused(AuthScreens::Reason reason);

private:
    const QScopedPointer<DeviceLockPrivate> d;
};

} // namespace AuthScreens
