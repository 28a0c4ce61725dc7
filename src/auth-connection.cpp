#include "auth-connection.h"

#include "authd/options.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDeadlineTimer>
#include <QtCore/QDebug>
#include <QtCore/QFile>
#include <QtDBus/QDBusError>
#include <QtDBus/QDBusPendingCall>
#include <QtDBus/QDBusReply>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Where QDBUS_DEBUG is set, Qt D-Bus 5.15 writes every message to the log, tokens and challenges in full. It is read when
// the process makes its first connection.
const bool busIsSilent = !qEnvironmentVariableIsSet("QDBUS_DEBUG") || qunsetenv("QDBUS_DEBUG");

/** As long as D-Bus waits for an answer. */
constexpr std::chrono::seconds ConnectionTimeout(25);

// libdbus would wait without an end, and all connections of Qt D-Bus with it, for room in the queue of a daemon that
// does not accept. connect() of a socket that is connected already takes no room: Linux looks at the queue first, waits
// until it has room, and only then refuses.
bool awaitRoomInQueue()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(Authd::SocketAddress.section(QLatin1Char('='), 1));
    memcpy(address.sun_path, path.constData(), size_t(path.size()));

    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        return true;
    const QDeadlineTimer deadline(ConnectionTimeout);
    int error = EINTR;
    while (error == EINTR && !deadline.hasExpired()) {
        // A limit of zero would be no limit.
        const qint64 left = qMax(deadline.remainingTime(), qint64(1));
        const timeval limit = {time_t(left / 1000), suseconds_t(left % 1000 * 1000)};
        setsockopt(sockets[0], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        if (connect(sockets[0], reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
            error = errno;
        else
            error = EISCONN;
    }
    close(sockets[0]);
    close(sockets[1]);
    return error != EAGAIN && error != EINTR;
}

// To connect for each of the changes that a busy host hears late would freeze it, and end it where that instance has gone.
// A bus that does not tell soon is not waited for, and not asked for each of them.
bool isStillOwner(const QString &owner)
{
    static QDeadlineTimer silence;
    if (!silence.hasExpired())
        return true;
    QDBusMessage question = callOfBus(QStringLiteral("GetNameOwner"));
    question << Authd::Service;
    const QDBusReply<QString> reply = QDBusConnection::systemBus().call(question, QDBus::Block, 5000);
    if (reply.error().type() == QDBusError::NoReply)
        silence.setRemainingTime(ConnectionTimeout);
    const bool isFree = reply.error().name() == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner");
    return reply.isValid() ? reply.value() == owner : !isFree;
}

[[noreturn]] void endWithoutDaemon(const QString &name, const QString &problem)
{
    qCritical() << "Cannot connect to" << Authd::SocketAddress << name << problem;
    std::exit(1);
}

QDBusConnection connectToPeer(const QString &name)
{
    // QDBusConnection::connectToPeer() of Qt 5.15 hands out a connection that has the name, even a closed one.
    if (!QDBusConnection(name).isConnected()) {
        QDBusConnection::disconnectFromPeer(name);
        if (!awaitRoomInQueue())
            endWithoutDaemon(name, qt_error_string(ETIMEDOUT));
    }
    return QDBusConnection::connectToPeer(Authd::SocketAddress, name);
}

} // namespace

// Not QDBusInterface::call(): QDBusAbstractInterface of Qt 5.15 adds a value to an error reply without any, while the
// D-Bus thread may still be reading the reply.
QDBusMessage callMethod(QDBusInterface &object, const QString &method, const QVariantList &arguments)
{
    QDBusPendingCall call = object.asyncCallWithArgumentList(method, arguments);
    call.waitForFinished();
    return call.reply();
}

QDBusMessage callOfBus(const QString &method)
{
    const QString service = QStringLiteral("org.freedesktop.DBus");
    return QDBusMessage::createMethodCall(service, QStringLiteral("/org/freedesktop/DBus"), service, method);
}

QString clipped(const QString &text)
{
    constexpr int longest = 4096;
    return text.size() <= longest ? text : text.left(longest) + QChar(0x2026);
}

PendingCallWatcher::PendingCallWatcher(const QDBusConnection &bus, const QDBusPendingCall &call, QObject *parent)
    : ConnectionReference{bus}
    , QDBusPendingCallWatcher(call, parent)
    , m_mayBeOvertaken(isFinished())
{
    connect(this, &QDBusPendingCallWatcher::finished, this, &PendingCallWatcher::handleFinished);
    enlist();
}

// When a call fails in the D-Bus thread, for want of a connection, while its QDBusPendingCallWatcher (of Qt 5.15) is
// being made, the watcher says twice that the call has ended.
void PendingCallWatcher::handleFinished()
{
    if (m_isComplete)
        return;
    m_isComplete = true;
    // QDBusMessage of Qt 5.15 takes an answer of a type that it does not know for none at all: the call has ended, and
    // whoever reads the answer waits for ever.
    if (!isFinished()) {
        static_cast<QDBusPendingCall &>(*this) =
            fromError(QDBusError(QDBusError::Failed, QStringLiteral("Unexpected reply type")));
    }
    deleteLater();
    complete();
}

// The parent comes last: should the process end meanwhile, the parent must not find a half-made child.
AuthdConnection::AuthdConnection(QObject *parent, const QString &connectionName)
    : name(connectionName)
    , connection(connectToPeer(name))
    , authInterface(Authd::Service, Authd::Path, Authd::Interface, connection)
    , settingsInterface(Authd::Service, Authd::SettingsPath, Authd::SettingsInterface, connection)
{
    // The interfaces come first: the requests they make are what exposes a peer that accepts and closes.
    if (!connection.isConnected())
        endWithoutDaemon(connection.name(), connection.lastError().message());
    qDebug() << "AuthdConnection" << name << "connected to" << connection.name();
    enlist();
    setParent(parent);
}

AuthdConnection::~AuthdConnection()
{
    for (const Subscription &subscription : qAsConst(m_subscriptions)) {
        connection.disconnect(QString(), subscription.object->path(), subscription.object->interface(),
                              subscription.signal, subscription.signature, subscription.receiver, subscription.slot);
        QCoreApplication::removePostedEvents(subscription.receiver, QEvent::MetaCall);
    }
    QDBusConnection::disconnectFromPeer(name);
    qDebug() << "~AuthdConnection" << name << "disconnected from" << connection.name();
}

void AuthdConnection::subscribe(QObject *receiver, const QDBusInterface &object, const QString &signal,
                                const char *slot)
{
    const bool isSubscribed = &object == &settingsInterface
        ? Authd::connectToSettingsSignal(receiver, connection, signal, slot)
        : Authd::connectToAuthdSignal(receiver, connection, signal, slot);
    if (isSubscribed)
        m_subscriptions.append({receiver, &object, signal, Authd::signatureOf(receiver, slot), slot});
}

AuthChallengeHolder::AuthChallengeHolder(QObject *parent, const QString &name)
    : QObject(parent)
    , connection(new AuthdConnection(this, name))
    , watcher(Authd::Service, QDBusConnection::systemBus(),
              QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration)
{
    connect(
        &watcher, &QDBusServiceWatcher::serviceOwnerChanged, &watcher,
        [this, name](const QString &, const QString &, const QString &newOwner) {
            qDebug() << "authd reset" << newOwner << "captured" << name;
            if (newOwner.isEmpty()) {
                connection->challengeWasHeld = !challenge.isEmpty();
                emit disconnected();
                return;
            }
            if (!isStillOwner(newOwner))
                return;
            const bool challengeWasHeld = connection->challengeWasHeld;
            // The old connection has to go before its name can be used again.
            delete connection;
            connection = new AuthdConnection(this, name);
            emit conected();
            if (challengeWasHeld)
                request();
        },
        Qt::DirectConnection);
}

AuthChallengeHolder::~AuthChallengeHolder()
{
    // The connection refers to a name that the watcher's handler holds.
    delete connection;
}

void AuthChallengeHolder::request()
{
    const QDBusReply<QByteArray> reply = callMethod(connection->authInterface, Authd::Method::RequestChallenge);
    if (!reply.isValid()) {
        qWarning() << "request failed:" << clipped(reply.error().message());
        challenge.clear();
        return;
    }
    challenge = reply.value();
}

QByteArray AuthChallengeHolder::get()
{
    if (challenge.isEmpty())
        request();
    return challenge;
}
