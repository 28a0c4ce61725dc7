#pragma once

#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>
#include <QtCore/QObject>
#include <QtCore/QVector>

#include <functional>

/**
 * Scripts the stand-in daemon authd-standin over its control socket, for tests of screens and other hosts.
 *
 * Every function is one request to the control socket, or a few. It returns when the daemon has sent what follows from
 * the request, and blocks until then without turning the event loop: the host under test sees the effects afterwards,
 * from its event loop, in the order in which the functions were called. waitForCalls() alone turns it while it waits.
 *
 * **Failures.** A request that the stand-in refuses, a world without a stand-in, one that ends before it has answered,
 * and an answer that does not come within 10 seconds (setPatience()) are told to the ErrorHandler. Then the function
 * returns false, or an empty object or list. One that makes several requests ends with the first that fails.
 *
 * Any number of objects script the same daemon. Each request has a connection of its own: an object that is not used
 * does not connect, one that has failed can be used again at once, and no late answer is taken for another one.
 *
 * Values that travel on the bus are texts in GVariant notation, always a tuple: "(true,)", "(1,)",
 * "('code', {'uid': <uint32 1000>})", "()". Options are JSON values, as setOption() describes. Numbers are double, as
 * in JSON and QML: the stand-in refuses one that is no whole number or out of bounds, nothing is rounded here.
 */
class AuthStandIn : public QObject
{
    Q_OBJECT

public:
    /**
     * Takes what has failed: the reason, and in parentheses the request.
     *
     * With Qt Test <tt>[](const QString &error) { QFAIL(qPrintable(error)); }</tt> and with googletest
     * <tt>[](const QString &error) { ADD_FAILURE() << qPrintable(error); }</tt> fail the test. It may throw.
     */
    using ErrorHandler = std::function<void(const QString &error)>;

    explicit AuthStandIn(ErrorHandler onError, const QString &path = QStringLiteral("/run/authd/standin.socket"));

    /** An answer may take @p milliseconds from now on, on top of what the request itself tells the stand-in to wait. */
    void setPatience(int milliseconds);

    /**
     * Sends any request of docs/standin.md, such as <tt>{ "do": "handover", "keep-old": true }</tt>.
     *
     * @return the answer, with "ok" and what the request gives
     */
    Q_INVOKABLE QJsonObject request(const QJsonObject &request);
    /** The same with the request as JSON text, such as <tt>R"({"do":"state"})"</tt>. */
    QJsonObject request(const QByteArray &json);
    /**
     * Sends several requests at once, which is faster than one by one.
     *
     * @return the answers in the order of the requests; none when not all are answered. Those that say "ok": false are
     *         not told to the error handler
     */
    QVector<QJsonObject> requests(const QVector<QByteArray> &texts);

    /**
     * A new, well-behaved daemon: no rules, no held calls, no tokens, no wrong code counted, new connections accepted,
     * the scenario's options and secrets, and no calls in the log. The device is in @p lockState, which is Locked.
     *
     * To be called in init(), when the last test's clients are gone: one that is there sees the daemon restart and
     * calls the new one.
     */
    Q_INVOKABLE bool reset(double lockState = 1);

    /** What the daemon is: running, instance, owner, "lock-state", peers (ids of connections) and tokens (how many). */
    Q_INVOKABLE QJsonObject state();
    /** The state of the device, a number of AuthDevlockClient::LockState; Undefined (4) when it cannot be asked for. */
    Q_INVOKABLE int lockState();
    /** The state becomes @p state, which may be any number, and is announced even if it was that before. */
    Q_INVOKABLE bool setLockState(double state);
    /** The device becomes Locked, which drops all tokens. */
    Q_INVOKABLE bool lock();
    /** The device becomes Unlocked. */
    Q_INVOKABLE bool unlock();
    /** "manager" and "code-entry" begin a lockout, "none" ends it: the device is Locked then. */
    Q_INVOKABLE bool lockout(const QString &kind);

    /**
     * Answers calls of @p method with @p value, and nothing else happens.
     *
     * @param method the method's name, or "*" for all; of several rules for a method the newest holds
     * @param value  the arguments of the reply, of whatever types, in GVariant notation
     * @param times  how many calls the rule is for; all if left out
     */
    Q_INVOKABLE bool answer(const QString &method, const QString &value, double times = 0);
    /** Answers calls of @p method with the bus error @p error, by default "vantora.AuthService.Error.Failed". */
    Q_INVOKABLE bool fail(const QString &method, const QString &error = QString(), double times = 0);
    /** Looks at calls of @p method only after @p milliseconds. */
    Q_INVOKABLE bool delay(const QString &method, double milliseconds, double times = 0);
    /** Never looks at calls of @p method nor answers them. */
    Q_INVOKABLE bool mute(const QString &method, double times = 0);
    /** Does not look at calls of @p method until release(). */
    Q_INVOKABLE bool hold(const QString &method, double times = 0);
    /** Treats the calls held so far, in the order of their arrival; the rule remains. */
    Q_INVOKABLE bool release();
    /**
     * Any other misbehaviour for calls of @p method.
     *
     * @param how "lose-reply", "lose-signals", "signal-first", "drop" (the caller's connection), "crash" or "restart"
     */
    Q_INVOKABLE bool misbehave(const QString &method, const QString &how, double times = 0);
    /** Drops all rules. Calls that are held stay so until release(). */
    Q_INVOKABLE bool behave();

    /** The daemon goes: its name and its connections. */
    Q_INVOKABLE bool stop();
    /** A new daemon comes. */
    Q_INVOKABLE bool start();
    /** The daemon goes and a new one comes. */
    Q_INVOKABLE bool restart();
    /** A new daemon takes the name over from the old one without a gap. */
    Q_INVOKABLE bool handover();
    /** Closes the daemon's connections; the name stays, and new connections are accepted. */
    Q_INVOKABLE bool dropPeers();

    /**
     * Sends a signal to everybody, whatever the daemon's state.
     *
     * @param name      the signal's name, such as "AuthenticationFailed"
     * @param arguments its arguments in GVariant notation; none if left out
     * @param more      where it goes and comes from, if it is not as usual: peer (one connection, as in state() and
     *                  calls()), instance, path, interface, bus ("peer" or "system")
     */
    Q_INVOKABLE bool emitSignal(const QString &name, const QString &arguments = QStringLiteral("()"),
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
     * Waits until @p count calls of @p method are in the log. The event loop turns meanwhile, and may delete it.
     *
     * @param timeout how long to wait, in milliseconds; calls that have not come by then are a failure
     * @return these calls, as calls() gives them
     */
    Q_INVOKABLE QJsonArray waitForCalls(const QString &method, double count = 1, double timeout = 5000);
    /** The same while the event loop stands: for calls of other processes, and for those that are on their way. */
    QJsonArray waitCalls(const QString &method, double count = 1, double timeout = 5000);
    /** Empties the log. */
    Q_INVOKABLE bool clearCalls();

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
    Q_INVOKABLE bool setOption(const QString &key, const QJsonValue &value, double uid = 0);

    /** @p text as JSON has it, in quotation marks, for those who write requests as text. */
    static QByteArray quoted(const QString &text);

protected:
    /** What the next failure is told to: asked for before each request, and used even if this object goes meanwhile. */
    virtual ErrorHandler errorHandler() const;
    /**
     * Called by reset() before and after the daemon's restart.
     *
     * A process with Qt D-Bus keeps its connection to the system bus from one test to the next. A round trip to the bus
     * here keeps the news of the restart from clients that are made later. The default does nothing.
     */
    virtual void settleBus();

private:
    bool tell(const char *what, const QJsonObject &more = QJsonObject());
    bool addRule(const QString &how, const QString &method, double times, QJsonObject more = QJsonObject());

    ErrorHandler m_onError;
    QByteArray m_path;
    int m_patience = 10000;
};
