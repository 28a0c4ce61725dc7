#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QVariant>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusInterface>
#include <QtDBus/QDBusPendingCallWatcher>
#include <QtDBus/QDBusServiceWatcher>

/**
 * Something on the heap that uses the toolkit. A host may own a client in a static object, which outlives the toolkit's
 * own static objects; what is left of these objects at the end of the process is deleted before that.
 */
class ToolkitUser
{
    Q_DISABLE_COPY(ToolkitUser)

public:
    virtual ~ToolkitUser();

protected:
    ToolkitUser() = default;
    /** To be called at the end of construction. */
    void enlist();

private:
    ToolkitUser *m_next = nullptr;
    /** What points to this object. */
    ToolkitUser **m_link = nullptr;
};

/** Outlives the watcher that it is a base of; see PendingCallWatcher. */
struct ConnectionReference
{
    QDBusConnection connection;
};

/**
 * Watches one call.
 *
 * A connection that closes frees its pending calls while their watchers still point at them, so each watcher keeps its
 * own reference to the connection. It is the first base because it has to be released after the other base's pending
 * call.
 */
class PendingCallWatcher : private ConnectionReference, public QDBusPendingCallWatcher, private ToolkitUser
{
public:
    PendingCallWatcher(const QDBusConnection &bus, const QDBusPendingCall &call, QObject *parent);
};

/** A peer-to-peer connection to the daemon. Constructing it ends the process when the socket cannot be reached. */
class AuthdConnection : public QObject, private ToolkitUser
{
    Q_OBJECT

public:
    /** @param name the connection's name; has to outlive the object */
    AuthdConnection(QObject *parent, const QString &name);
    ~AuthdConnection() override;

    /**
     * Why the connection cannot carry @p parameters: the path and type of the first value that is to blame, never a
     * value. Empty when it can. The toolkit ends the process, or loses the connection, over a map that does not pass.
     */
    QString unsendableReason(const QVariantMap &parameters) const;

    /** Whether a challenge was cached when the daemon left. */
    bool challengeWasHeld = false;
    const QString &name;
    QDBusConnection connection;
    QDBusInterface authInterface;
    QDBusInterface settingsInterface;
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
