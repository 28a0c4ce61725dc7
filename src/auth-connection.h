#pragma once

#include "process-end.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QVariant>
#include <QtCore/QVector>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusInterface>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusPendingCallWatcher>
#include <QtDBus/QDBusServiceWatcher>

#include <utility>

/** Calls @p method of @p object and waits for the answer. */
QDBusMessage callMethod(QDBusInterface &object, const QString &method, const QVariantList &arguments = {});

/** A call of the system bus itself. */
QDBusMessage callOfBus(const QString &method);

/** As much of an error's text as belongs in a log: a message of D-Bus has room for 128 MiB. */
QString clipped(const QString &text);

/** The base of PendingCallWatcher that is destroyed last. */
struct ConnectionReference
{
    QDBusConnection connection;
};

/**
 * Watches one call, and completes it once.
 *
 * QDBusConnection of Qt 5.15 frees the pending calls of a connection that closes while their watchers still point at
 * the calls, so each watcher keeps a reference of its own to the connection. The reference is the first base because
 * it has to be released after the pending call of the second.
 */
class PendingCallWatcher : private ConnectionReference, public QDBusPendingCallWatcher, private BusUser
{
public:
    /**
     * Whether the call had ended before it was watched. Signals that the daemon sent after its answer may be delivered
     * before the completion then.
     */
    bool mayBeOvertaken() const
    {
        return m_mayBeOvertaken;
    }

protected:
    PendingCallWatcher(const QDBusConnection &bus, const QDBusPendingCall &call, QObject *parent);

private:
    /** Called once, after the watcher's deletion has been scheduled; may delete the parent, and the watcher with it. */
    virtual void complete() = 0;
    void handleFinished();

    const bool m_mayBeOvertaken;
    bool m_isComplete = false;
};

/**
 * Has @p completion called once with the watcher when @p call has ended, from the event loop; not any more when
 * @p parent is gone.
 */
template <typename Completion>
void watchCall(const QDBusConnection &bus, const QDBusPendingCall &call, QObject *parent, Completion completion)
{
    class Watcher : public PendingCallWatcher
    {
    public:
        Watcher(const QDBusConnection &bus, const QDBusPendingCall &call, QObject *parent, Completion completion)
            : PendingCallWatcher(bus, call, parent)
            , m_completion(std::move(completion))
        {
        }

    private:
        void complete() override
        {
            // The watcher may be deleted meanwhile.
            const Completion completion = std::move(m_completion);
            completion(this);
        }

        Completion m_completion;
    };
    new Watcher(bus, call, parent, std::move(completion));
}

/** A peer-to-peer connection to the daemon. Constructing it ends the process when the socket cannot be reached. */
class AuthdConnection : public QObject, private BusUser
{
    Q_OBJECT

public:
    /** @param name the connection's name; has to outlive the object */
    AuthdConnection(QObject *parent, const QString &name);
    ~AuthdConnection() override;

    /**
     * Subscribes @p slot of @p receiver (as written by SLOT(), or by SIGNAL() for a relay) to a signal of @p object,
     * one of the two interfaces, until the AuthdConnection goes; @p receiver has to outlive that. Calls under way, and
     * other clients, keep a replaced D-Bus connection open: its signals end all the same, with those that wait to be
     * delivered.
     */
    void subscribe(QObject *receiver, const QDBusInterface &object, const QString &signal, const char *slot);

    /** Whether a challenge was cached when the daemon left. */
    bool challengeWasHeld = false;
    const QString &name;
    QDBusConnection connection;
    QDBusInterface authInterface;
    QDBusInterface settingsInterface;

private:
    struct Subscription
    {
        QObject *receiver;
        const QDBusInterface *object;
        QString signal;
        QString signature;
        const char *slot;
    };
    QVector<Subscription> m_subscriptions;
};

/** Fetches and caches the daemon's challenge, and replaces the connection when another daemon instance takes over. */
class AuthChallengeHolder : public QObject
{
    Q_OBJECT

public:
    AuthChallengeHolder(QObject *parent, const QString &name);
    ~AuthChallengeHolder() override;

    /** Fetches a new challenge; blocks. The cache is empty afterwards when that fails. */
    void request();

    /** The cached challenge; fetches one, blocking, when there is none. Empty when that fails. */
    QByteArray get();

Q_SIGNALS:
    void disconnected();
    void conected();

private:
    QByteArray challenge;

public:
    /** The present connection; null only while it is being replaced, and at the end of the process. */
    QPointer<AuthdConnection> connection;

private:
    QDBusServiceWatcher watcher;
};
