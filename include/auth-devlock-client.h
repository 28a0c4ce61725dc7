#pragma once

#include "auth-client-export.h"

#include <QtCore/QObject>
#include <QtCore/QScopedPointer>

class AuthDevlockClientPrivate;

/**
 * Follows and sets the device-lock state.
 *
 * The state is the one that the daemon last reported on the system bus, never a guess: setState() changes nothing here
 * until the daemon announces the change. It is Undefined until the daemon has told for the first time and whenever
 * the daemon is away. After the daemon's return it stays Undefined until the daemon announces a state. When the system
 * bus dies it becomes Undefined for good: Qt D-Bus does not connect anew. A screen must treat Undefined as locked.
 *
 * The object may be deleted at any time, also from a handler of stateChanged(), with one exception: while the daemon
 * leaves the bus, the signal is emitted from inside QDBusServiceWatcher, which does not survive it. Use deleteLater()
 * there.
 *
 * Whoever may send signals on the system bus can announce a state: a device needs a policy for its bus such as the
 * example in `dbus/vantora.AuthService.conf`.
 *
 * The first client of a process opens the system bus, if that has not been used before. From then on the bus is heard
 * without an event loop, too: a host that offers objects there registers them before it takes a name.
 *
 * All objects of this library belong to one and the same thread, usually the main one; signals are emitted there, from
 * its event loop.
 *
 * @note Constructing the object ends the process with exit status 1, after a critical "Cannot connect to" message, when
 *       the system bus is not connected.
 */
class AUTH_CLIENT_EXPORT AuthDevlockClient : public QObject
{
    Q_OBJECT

    /** Always true; kept for interfaces that bind to it. */
    Q_PROPERTY(bool enabled READ enabled NOTIFY enabledChanged)
    /** The state that the daemon last reported. */
    Q_PROPERTY(LockState state READ state WRITE setState NOTIFY stateChanged)

public:
    /** The device-lock states; the numbers are those that the daemon uses on the bus. */
    enum LockState : int {
        Unlocked = 0,         ///< The device is in use.
        Locked = 1,           ///< The device is locked; clients drop their tokens when it becomes so.
        ManagerLockout = 2,   ///< A device manager has locked the user out.
        CodeEntryLockout = 3, ///< Too many wrong codes were entered; the daemon ends this by itself after a while.
        Undefined = 4,        ///< The daemon has not told, or is away.
        SecurityUi = 5,       ///< The security interface is shown.
    };
    Q_ENUM(LockState)

    /**
     * Connects to the daemon on the system bus and asks for the present state.
     *
     * The answer arrives later: the first stateChanged() comes with it, or with an announcement that comes before it;
     * none comes while the daemon cannot tell. The constructor itself waits only for the bus and for the daemon's
     * introspection data: at most 25 seconds when a daemon owns the name and does not answer. A bus that hangs after
     * it has let the process in holds each of three questions for 25 seconds; one that accepts connections and says
     * nothing holds the constructor for as long as that lasts.
     *
     * @param parent the owner, or nullptr
     */
    explicit AuthDevlockClient(QObject *parent = nullptr);
    ~AuthDevlockClient() override;

    /** Always true. */
    bool enabled() const;

    /**
     * The state that the daemon last reported. A number that the daemon sends outside the enumerators is passed on as
     * it is.
     */
    LockState state() const;

    /**
     * Asks the daemon for another state and waits for its answer (at most 25 seconds, after a question to
     * the system bus itself, which answers at once unless it hangs: then at most 25 seconds more).
     *
     * Nothing changes here by the call: when the daemon accepts, it announces the new state and stateChanged() follows
     * from the event loop. A refusal or an error is not reported; state() simply stays as it was.
     *
     * @param state the state wanted, sent as it is
     */
    void setState(LockState state);

Q_SIGNALS:
    /** Never emitted: enabled() does not change. */
    void enabledChanged();

    /** state() has changed; emitted once a change. */
    void stateChanged();

private:
    const QScopedPointer<AuthDevlockClientPrivate> d;
};
