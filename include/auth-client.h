#pragma once

#include "auth-client-export.h"

#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QString>
#include <QtCore/QVariant>

#include <functional>

class AuthClientPrivate;

/** Receives the result of AuthClient::factorMethod(): one value, invalid when the call failed. It may be empty. */
using ValueCallBack = std::function<void(const QVariant &)>;

/**
 * Authenticates a user with the authentication daemon, and acts with the token that the daemon hands out.
 *
 * A host calls authenticate() and waits for authenticatedChanged() with a token, or for discredit(). With the token
 * held, setLocked() changes the device-lock state. The object forgets the token when the daemon says that the
 * authentication failed, when the device becomes locked, when the daemon leaves the bus, and on dropAuthentication();
 * each of these emits discredit(). It follows a restart of the daemon by itself.
 *
 * A new client learns the present device-lock state from its event loop. When that is Locked, the client emits
 * discredit() once and clears progress(), like at any other locking. A host that wants to tell this from a failed
 * authentication makes an AuthDevlockClient after the client, and waits for its stateChanged() before it calls
 * authenticate() for the first time. While the state cannot be learned, no stateChanged() comes.
 *
 * All objects of this library belong to one and the same thread, usually the main one. Signals are emitted there, from
 * its event loop, except where a member says that it emits by itself.
 *
 * @section restart When the daemon restarts
 * The loss of the daemon forgets the token. Its return reconnects the client, from the event loop, and fetches a new
 * challenge if one was held; this blocks for three short requests (for at most 25 seconds each, should the daemon be
 * mute, and before them for 25 seconds until the daemon has room for the connection), and for one to the bus (for at
 * most five seconds), which tells whether that instance is still there: a host that was busy while the daemon came and went
 * several times connects once, to the last. When one daemon instance takes over from another without a gap, the client
 * reconnects as well, but keeps the token, which the new instance may refuse, and progress(): signals of the old
 * instance are no longer heard, its replies still count.
 *
 * When the system bus itself dies, nobody tells of the daemon's loss any more: the token is kept, although no locking
 * will be heard of. AuthDevlockClient becomes Undefined then, and a host that sees this drops the authentication.
 *
 * @section trust Who is believed
 * Signals are taken from whoever sends them. On the socket that is the daemon. On the system bus it is anybody whom the
 * bus lets send them, so a device needs a policy like the example in `dbus/vantora.AuthService.conf`: without it any
 * process can announce a device-lock state, and can make all clients deaf to the daemon by signals so large that more
 * than 63 MiB of them wait while the hosts are blocked in calls. A signal that does not carry what the daemon's would
 * carry is never heard.
 *
 * Tokens, challenges and parameters are never logged. QDBUS_DEBUG, which would have Qt D-Bus log every message, is
 * taken out of the environment when the library is loaded; this comes too late in a process that has used D-Bus before.
 *
 * @section sharing Several clients in one process
 * Several AuthClient objects share one connection until the daemon restarts for the first time. The daemon answers
 * connections: until then each hears the tokens, failures and unlock answers meant for the others as well.
 *
 * @section parameters Parameter maps
 * The maps given to authenticate(), changeAuthData(), factorMethod() and factorMethodWait() travel over D-Bus. They may
 * hold booleans, integers of 8 (unsigned), 16, 32 and 64 bits, doubles, strings, byte arrays, string lists, lists and
 * maps of such values, and what else Qt D-Bus can marshal, types registered with qDBusRegisterMetaType() included
 * (what the stream operator of such a type writes is the host's own responsibility). These cannot be carried: an
 * invalid value (QML's undefined), a null pointer (null), a function, an object, any other type; a string with a NUL
 * character or half a surrogate pair, which would arrive altered; 20 maps or 30 lists inside each other, fewer when
 * both alternate; a map of about 63 MiB or more. A call with such a map is not sent. A warning names the path of the
 * offending value and its type; values are never logged.
 *
 * @section lifetime Deleting a client
 * A client may be deleted at any time, with calls under way, from a callback and from a handler of any of its signals;
 * what was under way ends unheard then. There is one exception: while the daemon leaves the bus, the signals
 * progressChanged(), authenticatedChanged() and discredit() are emitted from inside QDBusServiceWatcher, which does not
 * survive it. Use deleteLater() in handlers of these three. A client that a static object of the host owns must not be
 * called any more when static objects are destroyed.
 *
 * @section fork Child processes
 * D-Bus has a thread, which fork() does not copy. A child that does not call exec() must not call anything of this
 * library, and has to end by _exit(): exit() would wait for that thread without an end.
 *
 * @note Constructing the object ends the process with exit status 1, after a critical "Cannot connect to" message, when
 *       the system bus is not connected or the daemon's socket cannot be reached. So does the daemon's return to the
 *       bus without its socket, at any later time.
 */
class AUTH_CLIENT_EXPORT AuthClient : public QObject
{
    Q_OBJECT

    /**
     * True from the daemon's word that the user is authenticated until the next discredit(). A token is held then,
     * unless the daemon has sent an empty one: setLocked() takes that for none.
     */
    Q_PROPERTY(bool authenticated READ authenticated NOTIFY authenticatedChanged)
    /** Whether a request made with authenticate() or changeAuthData() is under way. */
    Q_PROPERTY(bool progress READ progress NOTIFY progressChanged)

public:
    /**
     * Connects to the daemon.
     *
     * Waits for the daemon's introspection data on the system bus and on the socket (a daemon that accepts and stays
     * mute holds each of the three requests for 25 seconds). A daemon that no longer accepts connections, and has no
     * room left for one that waits, is given 25 seconds before the process ends. The system bus is waited for as
     * AuthDevlockClient does. Makes no call of the daemon's own but the asynchronous one for the device-lock state.
     *
     * @param parent the owner, or nullptr
     */
    explicit AuthClient(QObject *parent = nullptr);

    /**
     * For clients that extend this one: constructs the object with a private object of the extending class' own.
     *
     * @param parent  the owner, or nullptr
     * @param factory called once, with the object under construction, whose derived part does not exist yet; returns
     *                the private object, which the client owns from then on; never nullptr
     */
    AuthClient(QObject *parent, AuthClientPrivate *(*factory)(AuthClient *));

    ~AuthClient() override;

    bool authenticated() const;
    bool progress() const;

    /**
     * Asks the daemon to authenticate a user. Does not wait for the outcome, but fetches the daemon's challenge first
     * when none is held (a blocking call, at most 25 seconds).
     *
     * Sets progress(), and emits progressChanged() before it returns. The daemon's outcome follows from the event loop:
     * authenticatedChanged() with the token and progressChanged(), or progressChanged(), authenticatedChanged() with an
     * empty byte array and discredit(). When the call itself fails on the bus, a warning is logged and progress() stays
     * set: the outcome is the daemon's to tell, and a host that does not want to wait for it calls
     * dropAuthentication(). When @p params cannot be carried, a warning is logged and nothing else happens.
     *
     * @param service what the user authenticates for, such as "login" or "unlock"; passed to the daemon unchecked
     * @param params  what the daemon and its factors want to know (see @ref parameters). The challenge is added under
     *                "challenge" unless the map has that key, in which case the caller's value is sent and none is
     *                fetched
     */
    Q_INVOKABLE void authenticate(const QString &service, const QVariantMap &params);

    /**
     * Asks the daemon to change authentication data, such as a user's code. Blocks and sets progress() as
     * authenticate() does, except that the challenge is fetched even when the caller supplies one.
     *
     * The outcome follows from the event loop: progressChanged(), then authDataChanged() or changeAuthDataFailed(). A
     * request that the daemon turns down at once counts as a failed authentication: progressChanged(),
     * authenticatedChanged() with an empty byte array and discredit().
     *
     * @param method the factor whose data is to be changed; passed to the daemon unchecked
     * @param params as for authenticate()
     */
    Q_INVOKABLE void changeAuthData(const QString &method, const QVariantMap &params);

    /**
     * Asks the daemon to unlock the device if its policy allows that without an authentication. Does not block.
     *
     * unlockIfNeededFinished() follows from the event loop, from two sources: with the decision when the daemon
     * announces it, and with false when the call fails on the bus. Each tells what it knows: false follows the decision
     * of a daemon that dies before it has replied, and nothing ever comes from a daemon that replies and does not
     * announce its decision, or announces it when another instance has taken over. A host that waits for an answer sets
     * a limit of its own.
     */
    Q_INVOKABLE void unlockIfNeeded();

    /** Does nothing; a request under way stays under way. */
    Q_INVOKABLE void cancel();

    /** Does nothing: challenges are fetched and renewed as they are needed. */
    Q_INVOKABLE void requestChallenge();

    /**
     * Sets the device-lock state with the token held, and waits for the daemon's answer (at most 25 seconds).
     *
     * @param state a number of AuthDevlockClient::LockState; sent as it is
     * @return what the daemon answered; false, after a warning, when no token is held (nothing is sent then) or when
     *         the call failed. Nothing changes here by the call; that the device became locked is heard from the daemon
     */
    Q_INVOKABLE bool setLocked(int state);

    /**
     * Forgets the token. Does not call the daemon.
     *
     * Emits, before it returns, progressChanged() if a request was under way, authenticatedChanged() with an empty byte
     * array, and discredit(); the latter two whether or not a token was held.
     */
    Q_INVOKABLE void dropAuthentication();

    /**
     * Calls a method of a factor, with the token (empty when none is held). Fetches the challenge first when none is
     * held (a blocking call, at most 25 seconds); does not wait for the result.
     *
     * @param params   the method's parameters (see @ref parameters)
     * @param method   the factor whose method is called
     * @param callback called once with the result, from the event loop; with an invalid variant, after a warning, when
     *                 the call failed or @p params cannot be carried. Not called when the client is deleted before.
     *                 Nested structures arrive as the bus delivered them. May be empty
     */
    void factorMethod(const QVariantMap &params, const QString &method, ValueCallBack callback);

    /**
     * As factorMethod(), but waits for the result (at most 25 seconds, and as long again when the challenge has to be
     * fetched first). Signals of the daemon that arrive meanwhile are delivered afterwards, from the event loop.
     *
     * @return the result, or an invalid variant after a warning when the call failed or @p params cannot be carried
     */
    QVariant factorMethodWait(const QVariantMap &params, const QString &method);

Q_SIGNALS:
    /** progress() has changed. */
    void progressChanged();

    /**
     * A token has come or the one held is gone. Emitted for every token, also when it follows another, and for every
     * drop.
     *
     * @param authToken a byte array: the token, or empty after a drop. A daemon can send an empty token, too: it is
     *                  authenticated() that tells the two apart. This signal alone publishes the token
     */
    void authenticatedChanged(QVariant authToken);

    /** The daemon has changed the authentication data as asked. */
    void authDataChanged();

    /** The daemon has not changed the authentication data. */
    void changeAuthDataFailed();

    /**
     * The answer to unlockIfNeeded(); the daemon may also send it unasked.
     *
     * @param success whether the daemon unlocked the device; false also when the call failed on the bus
     */
    void unlockIfNeededFinished(bool success);

    /** The authentication is not valid, or no longer; whatever the host granted on its strength is to be taken back. */
    void discredit();

    /**
     * A notice of a factor, as the daemon sent it.
     *
     * @param factor the factor's name
     * @param params what the factor tells
     */
    void factorSignal(const QString &factor, const QVariantMap &params);

protected:
    const QScopedPointer<AuthClientPrivate> d;
};
