#include "auth-devlock-client.h"

#include "auth-connection.h"
#include "auth-devlock-client_p.h"
#include "authd/options.h"

#include <QtCore/QDebug>
#include <QtCore/QThread>
#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusError>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusPendingReply>

#include <cstdlib>

namespace {

// The D-Bus thread of Qt 5.15 enters the name that the bus gives to a connection into a list, and does not lock out the
// calls, which look through that list, all but those of the bus itself. The bus tells the name before it answers. When
// the event loop has just begun to run, what the bus told before comes after the answer, but is one task with it.
void awaitOwnName(const QDBusConnection &bus)
{
    if (!bus.isConnected())
        return;
    bus.call(callOfBus(QStringLiteral("GetId")));
    // This object lives in the D-Bus thread.
    QMetaObject::invokeMethod(
        bus.interface(), [] {}, Qt::BlockingQueuedConnection);
}

// QDBusConnection of Qt 5.15 withholds what a bus sends until the event loop runs, when the main thread is the first to use
// the bus. Withheld is the news of the bus's end, too: a blocking call would wait for it without an end.
class BusOpener : public QThread
{
    void run() override
    {
        QDBusConnection::systemBus();
    }
};

// Every client's first use of D-Bus is this one.
QDBusConnection systemBus()
{
    makeTimerList();
    static const bool isOpen = [] {
        BusOpener opener;
        opener.start();
        return opener.wait();
    }();
    Q_UNUSED(isOpen)
    QDBusConnection bus = QDBusConnection::systemBus();
    awaitOwnName(bus);
    return bus;
}

} // namespace

// The parent comes last: should the process end meanwhile, a parent that is a static object must not find a half-made
// child.
AuthDevlockClient::AuthDevlockClient(QObject *parent)
    : d(new AuthDevlockClientPrivate(this))
{
    setParent(parent);
}

AuthDevlockClient::~AuthDevlockClient() = default;

bool AuthDevlockClient::enabled() const
{
    return d->enabled;
}

AuthDevlockClient::LockState AuthDevlockClient::state() const
{
    return LockState(d->state);
}

void AuthDevlockClient::setState(LockState state)
{
    d->setStateInternal(state);
}

AuthDevlockClientPrivate::AuthDevlockClientPrivate(AuthDevlockClient *publicObject)
    : connection(systemBus())
    , devlockInterface(Authd::Service, Authd::DevlockPath, Authd::DevlockInterface, connection)
    , watcher(Authd::Service, connection,
              QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration)
    , q(publicObject)
{
    setupConnection();
    getState();
    qDebug() << "AuthDevlockClientPrivate Connected to" << Authd::Service;
}

void AuthDevlockClientPrivate::setupConnection()
{
    if (!connection.isConnected()) {
        qCritical() << "Cannot connect to" << Authd::Service << connection.lastError().message();
        std::exit(1);
    }

    Authd::connectToDevicelockSignal(this, connection, Authd::Signal::StateChanged, SLOT(handleStateChanged(int)));
    if (!connect(&watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
                 &AuthDevlockClientPrivate::handleOwnerChanged)) {
        qWarning() << "Failed to connect to 'serviceOwnerChanged' signal" << connection.name()
                   << connection.lastError().message();
    }
    // When the bus itself dies, nobody reports that the daemon has left it.
    connection.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                       QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), this,
                       SLOT(handleBusLost()));
}

void AuthDevlockClientPrivate::getState()
{
    watchCall(connection, devlockInterface.asyncCall(Authd::Method::GetState), this, [this](PendingCallWatcher *call) {
        const QDBusPendingReply<int> reply = *call;
        if (reply.isError()) {
            qWarning() << "failed:" << clipped(reply.error().message());
            handleStateChanged(AuthDevlockClient::Undefined);
        } else if (!call->mayBeOvertaken() || !m_told) { // Else an announcement is newer than the answer.
            handleStateChanged(reply.value());
        }
    });
}

void AuthDevlockClientPrivate::handleStateChanged(int newState)
{
    m_told = true;
    if (newState == state)
        return;

    qDebug() << "handleStateChanged" << AuthDevlockClient::LockState(state) << "->" << newState;
    state = newState;
    emit q->stateChanged();
}

void AuthDevlockClientPrivate::handleOwnerChanged(const QString &, const QString &, const QString &newOwner)
{
    if (newOwner.isEmpty())
        handleStateChanged(AuthDevlockClient::Undefined);
}

void AuthDevlockClientPrivate::handleBusLost()
{
    handleStateChanged(AuthDevlockClient::Undefined);
}

void AuthDevlockClientPrivate::setStateInternal(AuthDevlockClient::LockState newState)
{
    // Where the host has used the bus before, its name comes when the event loop runs.
    awaitOwnName(connection);
    callMethod(devlockInterface, Authd::Method::SetState, {int(newState)});
}
