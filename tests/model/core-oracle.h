#pragma once

#include "core-script.h"

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QMap>

// A second, plain implementation of AuthClient and AuthDevlockClient, of the connections and challenges behind them, and of
// the part of the daemon that they talk to. It shares no code with the library.
//
// It is a value: where the order in which things arrive is nobody's promise, all orders are tried, each with a copy.

/** What is on its way to the host. */
struct Event
{
    enum Kind {
        Signal, ///< of the daemon, on the socket
        Reply,
        State, ///< of the device, by the daemon or a stranger
        Owner,
        Deletion,
    };
    Kind kind;
    QString name = {};
    QVariant value = {};
    int call = 0; ///< the call that is replied to; a signal's connection; who is deleted
    bool isError = false;
    int number = 0; ///< counts events
};

/** What may happen next. */
struct Choice
{
    enum Kind {
        Next,     ///< of a queue: its first event, or one that overtakes replies
        Receiver, ///< one of several objects hears the event that is being delivered
        Floating, ///< an event whose place among the others is open
        Failure,  ///< a call fails, since its connection is closed
    };
    Kind kind;
    int index;
    int place = 0; ///< in the queue
};

class CoreOracle
{
public:
    explicit CoreOracle(int instance);

    /** Whether the step makes sense now and neither blocks for long nor ends the process. */
    bool can(const Step &step) const;
    /** Whether nothing may be on its way when the step is taken. */
    bool needsSilence(const Step &step) const;
    /** Whether all that follows has to arrive before the next step. */
    bool needsDelivery() const;
    /** Whether the daemon may leave in this step, when handlers must not delete their client at once. */
    bool mayLeave(const Step &step) const;
    void take(const Step &step);

    /** What a host has seen since the last time; an asterisk at the end stands for any text. */
    QStringList takeSaid();
    QVector<Choice> choices() const;
    void choose(const Choice &choice);

    /** All that is on its way now has to arrive before isSettled(). */
    void beginDelivery();
    bool isSettled() const;
    bool isSilent() const;

    bool hasClient(int client) const;
    /** Whether signals of the daemon's present instance reach the client. */
    bool hears(int client) const;
    bool isRunning() const;
    int instance() const
    {
        return m_instance;
    }
    int oldInstance() const;
    /** Whether calls of factor methods are answered at once. */
    bool mayWait() const;
    /** Whether clients are about to hear of another owner of the daemon's name. */
    bool changesOwner() const;
    enum Source {
        Daemon,
        AStranger,
    };
    /** Whether something of the source is on its way on the system bus. */
    bool isOnItsWay(Source source) const;
    /** How many calls the client waits for, with or without those that are answered or have failed. */
    int callsUnderWay(int client, bool withEnding) const;
    QStringList properties() const;

    struct LoggedCall
    {
        int connection; ///< SystemBus, or the connection's number
        QString method;
        QString text;
        bool isAsynchronous;
    };
    QVector<LoggedCall> takeCalls();
    static constexpr int SystemBus = -1;

    // The most that a host has at a time.
    static constexpr int Clients = 3;
    static constexpr int Devlocks = 2;

private:
    static constexpr int Stranger = -2;
    static constexpr int Local = -3;
    static constexpr int Nobody = -4;

    struct Client
    {
        bool isThere = false;
        bool authenticated = false;
        bool progress = false;
        QByteArray token = {};
        QByteArray challenge = {};
        bool challengeWasHeld = false;
        int connection = 0;
        QHash<QString, Step> handlers = {};
    };
    /** A client of the device-lock state: a host's, or one that a client has inside. */
    struct Devlock
    {
        bool isThere = false;
        int state = 4;
        QHash<QString, Step> handlers = {};
    };
    struct Connection
    {
        int instance;
        bool isOpen;
    };
    struct Call
    {
        int number;
        QString method;
        int object;     ///< the client, or for "GetState" the device-lock client
        int connection; ///< SystemBus for "GetState"
        int instance;
        Step step;
        Do then;
        int callback; ///< 0 for none
        bool isHeld;
        bool isAnswered;
    };
    struct Answer
    {
        enum Kind {
            None,
            Error,
            Returned,
        };
        Kind kind;
        QVariant value; ///< of an error its message, nothing for any message
    };

    bool anyRule(bool (Step::*does)() const) const;

    void say(const QString &what);
    void log(const QString &line);
    void emitSignal(int client, const QString &signal, const QString &arguments = {});
    void emitStateChanged(int devlock);
    void react(const Step &handler);

    void perform(Do what, const Step &step, int number);
    void makeClient(int client);
    void deleteClient(int client);
    void makeDevlock(int devlock);
    void deleteDevlock(int devlock);
    void deleteLater(int object);
    void forgetCalls(int object, bool ofDevlock);
    void request(int client, const QString &method, const Step &step);
    void factorMethod(int client, const Step &step);
    void factorMethodWait(int client, const Step &step);
    void setLocked(int client, int state);
    void setState(int state);
    void drop(int client);
    void setProgress(int client, bool value);
    void setAuthenticated(int client, bool value);
    void requestChallenge(int client);
    QByteArray challenge(int client);

    void deliver(const Event &event);
    void receive(const Event &event, int receiver);
    void hearSignal(int client, const Event &event);
    void hearState(int devlock, int state);
    void hearOwner(int client, bool hasOwner);
    void finish(const Event &reply);
    void call(const Call &call, const Event &reply);

    int connectPeer();
    int callLater(int object, int connection, const QString &method, const QString &text, const Step &step = {},
                  Do then = Do::Nothing, int callback = 0);
    Answer callNow(int connection, const QString &method, const QString &text, const Step &step = {});
    Answer treat(int connection, const QString &method, const Step &step);
    Answer usual(const QString &method, const Step &step) const;
    void answer(int call, const Answer &answer);
    void send(int queue, Event event);
    void sendToAll(int instance, const Event &event);
    void tellUnlock(int connection);
    void setLockState(int state, bool isToldAnyway);
    void end(int instance);
    void start();
    void release();

    QVector<Client> m_clients;
    QVector<Devlock> m_devlocks; ///< the host's, then the clients'
    Step m_step;
    bool m_mayLeave = false;
    QStringList m_said;
    int m_reactions = 0;
    int m_depth = 0; ///< of handlers inside each other
    int m_callbacks = 0;

    // The bus library's.
    int m_named = -1;            ///< the connection that has the name
    bool m_isNamedByAny = false; ///< clients have connected in an order that nobody knows
    QVector<Connection> m_connections;
    QVector<Call> m_pending;
    int m_lastCall = 0;
    QMap<int, QVector<Event>> m_queues;
    QVector<Event> m_floating;
    Event m_delivered{Event::Deletion};
    QVector<int> m_receivers;
    int m_lastEvent = 0;
    int m_lastMandatory = 0;

    // The daemon's.
    int m_instance;
    int m_lastInstance;
    bool m_isRunning = true;
    bool m_hasName = true;
    QVector<int> m_old;
    int m_lockState = 0;
    QHash<QString, Step> m_rules;
    QVector<LoggedCall> m_calls;
};

/**
 * Lets @p oracle go on until it has said what a host has seen. Returns false if it cannot; then the rest of what it would have
 * said instead is in @p expected.
 */
bool explain(CoreOracle *oracle, const QStringList &seen, QStringList *expected);
