#pragma once

#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>
#include <QtCore/QObject>

class QJSEngine;

/**
 * Scripts the stand-in daemon of this world, for tests written in QML.
 *
 * Every function is one request to the stand-in's control socket, or a few. It returns when the daemon has sent what
 * follows from it, and blocks until then: the screen under test sees the effects afterwards, from its event loop, in
 * the order in which the functions were called. waitForCalls() alone turns the event loop while it waits.
 *
 * What fails is thrown as a JavaScript error with the stand-in's reason and the request: a request that the stand-in
 * refuses, a world without a stand-in, an answer that does not come within 10 seconds.
 *
 * Values that travel on the bus are texts in GVariant notation, always a tuple: "(true,)", "(1,)",
 * "('code', {'uid': <uint32 1000>})", "()". Options are JavaScript values, as setOption() describes.
 *
 * Any number of objects script the same daemon. One that is not used does not connect to it.
 */
class StandIn : public QObject
{
    Q_OBJECT

public:
    /**
     * Sends any request of docs/standin.md, such as <tt>{ "do": "handover", "keep-old": true }</tt>.
     *
     * @return the answer, with "ok" and what the request gives
     */
    Q_INVOKABLE QJsonObject request(const QJsonObject &request);

    /**
     * A new, well-behaved daemon: no rules, no held calls, no tokens, no wrong code counted, new connections accepted,
     * the scenario's options and secrets, and no calls in the log. The device is Locked.
     *
     * To be called in init(), when the last test's clients are gone: one that is there sees the daemon restart and
     * calls the new one.
     */
    Q_INVOKABLE void reset();

    /** What the daemon is: running, instance, owner, "lock-state", peers (ids of connections) and tokens (how many). */
    Q_INVOKABLE QJsonObject state();
    /** The state of the device, a number of AuthDevlockClient::LockState. */
    Q_INVOKABLE int lockState();
    /** The state becomes @p state, which may be any number, and is announced even if it was that before. */
    Q_INVOKABLE void setLockState(double state);
    /** The device becomes Locked, which drops all tokens. */
    Q_INVOKABLE void lock();
    /** The device becomes Unlocked. */
    Q_INVOKABLE void unlock();
    /** "manager" and "code-entry" begin a lockout, "none" ends it: the device is Locked then. */
    Q_INVOKABLE void lockout(const QString &kind);

    /**
     * Answers calls of @p method with @p value, and nothing else happens.
     *
     * @param method the method's name, or "*" for all; of several rules for a method the newest holds
     * @param value  the arguments of the reply, of whatever types, in GVariant notation
     * @param times  how many calls the rule is for; all if left out
     */
    Q_INVOKABLE void answer(const QString &method, const QString &value, double times = 0);
    /** Answers calls of @p method with the bus error @p error, by default "vantora.AuthService.Error.Failed". */
    Q_INVOKABLE void fail(const QString &method, const QString &error = QString(), double times = 0);
    /** Looks at calls of @p method only after @p milliseconds. */
    Q_INVOKABLE void delay(const QString &method, double milliseconds, double times = 0);
    /** Never looks at calls of @p method nor answers them. */
    Q_INVOKABLE void mute(const QString &method, double times = 0);
    /** Does not look at calls of @p method until release(). */
    Q_INVOKABLE void hold(const QString &method, double times = 0);
    /** Treats the calls held so far, in the order of their arrival; the rule remains. */
    Q_INVOKABLE void release();
    /**
     * Any other misbehaviour for calls of @p method.
     *
     * @param how "lose-reply", "lose-signals", "signal-first", "drop" (the caller's connection), "crash" or "restart"
     */
    Q_INVOKABLE void misbehave(const QString &method, const QString &how, double times = 0);
    /** Drops all rules. Calls that are held stay so until release(). */
    Q_INVOKABLE void behave();

    /** The daemon goes: its name and its connections. */
    Q_INVOKABLE void stop();
    /** A new daemon comes. */
    Q_INVOKABLE void start();
    /** The daemon goes and a new one comes. */
    Q_INVOKABLE void restart();
    /** A new daemon takes the name over from the old one without a gap. */
    Q_INVOKABLE void handover();
    /** Closes the daemon's connections; the name stays, and new connections are accepted. */
    Q_INVOKABLE void dropPeers();

    /**
     * Sends a signal to everybody, whatever the daemon's state.
     *
     * @param name      the signal's name, such as "AuthenticationFailed"
     * @param arguments its arguments in GVariant notation; none if left out
     * @param more      where it goes and comes from, if it is not as usual: peer (one connection, as in state() and
     *                  calls()), instance, path, interface, bus ("peer" or "system")
     */
    Q_INVOKABLE void emitSignal(const QString &name, const QString &arguments = QStringLiteral("()"),
                                const QJsonObject &more = QJsonObject());

    /**
     * The calls of @p method since reset() or clearCalls(), or of all methods, the oldest first. A name that no method
     * of the daemon has is refused.
     *
     * @return objects with n, instance, bus ("peer" or "system"), peer, path, interface, method, signature (the D-Bus
     *         types of the arguments) and args (the arguments in GVariant notation)
     */
    Q_INVOKABLE QJsonArray calls(const QString &method = QString());
    /**
     * Waits until @p count calls of @p method are in the log. The event loop turns meanwhile.
     *
     * @param timeout how long to wait, in milliseconds; then an error is thrown
     * @return these calls, as calls() gives them
     */
    Q_INVOKABLE QJsonArray waitForCalls(const QString &method, double count = 1, double timeout = 5000);
    /** Empties the log. */
    Q_INVOKABLE void clearCalls();

    /** The options of user @p uid, or the global ones: an object of texts in GVariant notation. */
    Q_INVOKABLE QJsonObject options(double uid = 0);
    /**
     * An option becomes @p value, and everybody is told.
     *
     * @param key   such as "worker/show-last-login"
     * @param value true or false, a text, an array of texts, or { type: "u", value: "4" } with a D-Bus signature and
     *              GVariant notation
     * @param uid   whose option it is; a global one if left out
     */
    Q_INVOKABLE void setOption(const QString &key, const QJsonValue &value, double uid = 0);

private:
    bool tell(const char *what, QJsonObject more = QJsonObject());
    bool addRule(const QString &how, const QString &method, double times, QJsonObject more = QJsonObject());
};
