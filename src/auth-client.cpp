#include "auth-client.h"

#include "auth-client_p.h"
#include "authd/options.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QPointer>
#include <QtDBus/QDBusError>
#include <QtDBus/QDBusPendingReply>
#include <QtDBus/QDBusReply>
#include <QtDBus/QDBusVariant>

#include <utility>

namespace {

// clang-format off
const char *const FactorRelay = SIGNAL(factorSignal(QString,QVariantMap));
// clang-format on

void unsubscribe(QDBusConnection bus, QObject *receiver, const QString &signal, const char *slot)
{
    bus.disconnect(QString(), Authd::Path, Authd::Interface, signal, receiver, slot);
}

} // namespace

// The parent comes last: should the process end meanwhile, a parent that is a static object must not find a half-made
// child.
AuthClient::AuthClient(QObject *parent)
    : d(new AuthClientPrivate(this, Authd::ClientConnectionName))
{
    setParent(parent);
}

AuthClient::AuthClient(QObject *parent, AuthClientPrivate *(*factory)(AuthClient *))
    : d(factory(this))
{
    setParent(parent);
}

AuthClient::~AuthClient() = default;

bool AuthClient::authenticated() const
{
    return d->authenticated;
}

bool AuthClient::progress() const
{
    return d->progress;
}

void AuthClient::authenticate(const QString &service, const QVariantMap &params)
{
    d->authenticate(service, params);
}

void AuthClient::changeAuthData(const QString &method, const QVariantMap &params)
{
    d->changeAuthData(method, params);
}

void AuthClient::unlockIfNeeded()
{
    d->unlockIfNeeded();
}

void AuthClient::cancel()
{
}

void AuthClient::requestChallenge()
{
}

bool AuthClient::setLocked(int state)
{
    return d->setLocked(state);
}

void AuthClient::dropAuthentication()
{
    d->dropAuthentication();
}

void AuthClient::factorMethod(const QVariantMap &params, const QString &method, ValueCallBack callback)
{
    d->factorMethod(params, method, std::move(callback));
}

QVariant AuthClient::factorMethodWait(const QVariantMap &params, const QString &method)
{
    return d->factorMethodWait(params, method);
}

AuthClientPrivate::AuthClientPrivate(AuthClient *publicObject, const QString &connectionName)
    : QObject(publicObject)
    , challengeHolder(this, connectionName)
    , q(publicObject)
{
    connect(&relay, &SignalRelay::unlockIfNeededFinished, this, &AuthClientPrivate::countUnlockAnswer);
    connect(&relay, &SignalRelay::unlockIfNeededFinished, q, &AuthClient::unlockIfNeededFinished);
    connect(&relay, &SignalRelay::factorSignal, q, &AuthClient::factorSignal);
    setupConnection();
    qDebug() << "AuthClientPrivate Connected to" << Authd::SocketAddress;

    connect(
        &devlock, &AuthDevlockClient::stateChanged, &devlock,
        [this] {
            if (devlock.state() == AuthDevlockClient::Locked)
                dropAuthentication();
        },
        Qt::DirectConnection);
    connect(&challengeHolder, &AuthChallengeHolder::conected, this, &AuthClientPrivate::setupConnection);
    connect(&challengeHolder, &AuthChallengeHolder::disconnected, this, &AuthClientPrivate::dropAuthentication);
}

AuthClientPrivate::~AuthClientPrivate() = default;

void AuthClientPrivate::setupConnection()
{
    const QDBusConnection bus = challengeHolder.connection->connection;
    Authd::connectToAuthdSignal(this, bus, Authd::Signal::Authenticated, SLOT(handleAuthenticated(QByteArray)));
    Authd::connectToAuthdSignal(this, bus, Authd::Signal::AuthenticationFailed, SLOT(handleAuthenticationFailed()));
    Authd::connectToAuthdSignal(this, bus, Authd::Signal::AuthDataChanged, SLOT(handleAuthDataChanged()));
    Authd::connectToAuthdSignal(this, bus, Authd::Signal::ChangeAuthDataFailed, SLOT(handleChangeAuthDataFailed()));
    Authd::connectToAuthdSignal(&relay, bus, Authd::Signal::UnlockIfNeededFinished,
                                SIGNAL(unlockIfNeededFinished(bool)));
    Authd::connectToSettingsSignal(&relay, bus, Authd::Signal::Factor, FactorRelay);

    // Calls under way, and other clients, keep a replaced connection open: its signals have to end all the same, with
    // those that wait to be delivered. The private object may be half destroyed by then.
    connect(challengeHolder.connection, &QObject::destroyed, this, [receiver = this, relay = &relay, bus] {
        unsubscribe(bus, receiver, Authd::Signal::Authenticated, SLOT(handleAuthenticated(QByteArray)));
        unsubscribe(bus, receiver, Authd::Signal::AuthenticationFailed, SLOT(handleAuthenticationFailed()));
        unsubscribe(bus, receiver, Authd::Signal::AuthDataChanged, SLOT(handleAuthDataChanged()));
        unsubscribe(bus, receiver, Authd::Signal::ChangeAuthDataFailed, SLOT(handleChangeAuthDataFailed()));
        unsubscribe(bus, relay, Authd::Signal::UnlockIfNeededFinished, SIGNAL(unlockIfNeededFinished(bool)));
        QDBusConnection(bus).disconnect(QString(), Authd::SettingsPath, Authd::SettingsInterface, Authd::Signal::Factor,
                                        Authd::FactorSignature, relay, FactorRelay);
        QCoreApplication::removePostedEvents(receiver, QEvent::MetaCall);
        QCoreApplication::removePostedEvents(relay, QEvent::MetaCall);
        receiver->failUnansweredUnlocks();
    });
}

void AuthClientPrivate::authenticate(const QString &service, const QVariantMap &params)
{
    const QString problem = challengeHolder.connection->unsendableReason(params);
    if (!problem.isEmpty()) {
        qWarning() << "authenticate failed:" << problem;
        return;
    }
    QVariantMap request = params;
    if (!request.contains(Authd::Key::Challenge))
        request.insert(Authd::Key::Challenge, challengeHolder.get());
    startRequest(Authd::Method::Authenticate, service, request, &AuthClientPrivate::callAuthenticateFinished);
}

void AuthClientPrivate::changeAuthData(const QString &method, const QVariantMap &params)
{
    const QString problem = challengeHolder.connection->unsendableReason(params);
    if (!problem.isEmpty()) {
        qWarning() << "changeAuthData failed:" << problem;
        return;
    }
    QVariantMap request = params;
    const QByteArray challenge = challengeHolder.get();
    if (!request.contains(Authd::Key::Challenge))
        request.insert(Authd::Key::Challenge, challenge);
    startRequest(Authd::Method::ChangeAuthData, method, request, &AuthClientPrivate::callChangeAuthDataFinished);
}

void AuthClientPrivate::startRequest(const QString &call, const QString &subject, const QVariantMap &params,
                                     void (AuthClientPrivate::*finished)(QDBusPendingCallWatcher *))
{
    AuthdConnection *link = challengeHolder.connection;
    auto *watcher = new PendingCallWatcher(
        link->connection, link->authInterface.asyncCallWithArgumentList(call, {subject, params}), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, finished);
    // Last, because a handler may delete the client.
    setProgress(true);
}

void AuthClientPrivate::callAuthenticateFinished(QDBusPendingCallWatcher *call)
{
    call->deleteLater();
    const QDBusPendingReply<bool> reply = *call;
    if (reply.isError())
        qWarning() << "callAuthenticateFinished failed:" << reply.error().message();
    else if (!reply.value())
        handleAuthenticationFailed();
}

void AuthClientPrivate::callChangeAuthDataFinished(QDBusPendingCallWatcher *call)
{
    call->deleteLater();
    const QDBusPendingReply<bool> reply = *call;
    if (reply.isError())
        qWarning() << "callChangeAuthDataFinished failed:" << reply.error().message();
    else if (!reply.value())
        handleAuthenticationFailed();
}

void AuthClientPrivate::unlockIfNeeded()
{
    AuthdConnection *link = challengeHolder.connection;
    auto *watcher =
        new PendingCallWatcher(link->connection, link->authInterface.asyncCall(Authd::Method::UnlockIfNeeded), this);
    ++m_unansweredUnlocks;
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, link = QPointer(link)](auto *call) {
        call->deleteLater();
        const QDBusPendingReply<> reply = *call;
        if (reply.isError() && link) {
            countUnlockAnswer();
            emit q->unlockIfNeededFinished(false);
        }
    });
}

void AuthClientPrivate::countUnlockAnswer()
{
    // The daemon may answer unasked, or answer another client that shares the connection.
    m_unansweredUnlocks = qMax(0, m_unansweredUnlocks - 1);
}

// The daemon that was asked can no longer be heard, whatever it still replies.
void AuthClientPrivate::failUnansweredUnlocks()
{
    const int count = std::exchange(m_unansweredUnlocks, 0);
    // Later, from the event loop: the connection is just being replaced.
    QMetaObject::invokeMethod(
        q,
        [client = QPointer(q), count] {
            for (int i = 0; i < count && client; ++i)
                emit client->unlockIfNeededFinished(false);
        },
        Qt::QueuedConnection);
}

bool AuthClientPrivate::setLocked(int state)
{
    if (m_authToken.isEmpty()) {
        qWarning() << "setLocked m_authToken is empty, not authenticated request";
        return false;
    }
    const QDBusReply<bool> reply = challengeHolder.connection->authInterface.call(
        QDBus::Block, Authd::Method::SetDevlockState, m_authToken, state);
    if (!reply.isValid())
        qWarning() << "setLocked failed:" << reply.error().message();
    return reply.value();
}

void AuthClientPrivate::dropAuthentication()
{
    const QPointer<AuthClientPrivate> self(this);
    setProgress(false);
    if (!self)
        return;
    m_authToken.clear();
    setAuthenticated(false, m_authToken);
    if (!self)
        return;
    emit q->discredit();
}

void AuthClientPrivate::factorMethod(const QVariantMap &params, const QString &method, ValueCallBack callback)
{
    AuthdConnection *link = challengeHolder.connection;
    const QString problem = link->unsendableReason(params);
    if (problem.isEmpty())
        challengeHolder.get();
    const QDBusPendingCall call = problem.isEmpty()
        ? link->authInterface.asyncCallWithArgumentList(Authd::Method::FactorMethod, {m_authToken, method, params})
        : QDBusPendingCall::fromError(QDBusError(QDBusError::InvalidArgs, problem));
    auto *watcher = new PendingCallWatcher(link->connection, call, q);
    connect(
        watcher, &QDBusPendingCallWatcher::finished, watcher,
        [callback = std::move(callback)](QDBusPendingCallWatcher *finished) {
            finished->deleteLater();
            const QDBusPendingReply<QDBusVariant> reply = *finished;
            if (reply.isError())
                qWarning() << "reply isError:" << reply.error().message();
            if (callback)
                callback(reply.isError() ? QVariant() : reply.value().variant());
        },
        Qt::DirectConnection);
}

QVariant AuthClientPrivate::factorMethodWait(const QVariantMap &params, const QString &method)
{
    AuthdConnection *link = challengeHolder.connection;
    const QString problem = link->unsendableReason(params);
    if (problem.isEmpty())
        challengeHolder.get();
    const QDBusReply<QDBusVariant> reply = problem.isEmpty()
        ? link->authInterface.callWithArgumentList(QDBus::Block, Authd::Method::FactorMethod,
                                                   {m_authToken, method, params})
        : QDBusMessage::createError(QDBusError::InvalidArgs, problem);
    if (!reply.isValid()) {
        qWarning() << "factorMethodWait failed:" << reply.error().message();
        return QVariant();
    }
    return reply.value().variant();
}

void AuthClientPrivate::setAuthenticated(bool value, const QByteArray &token)
{
    authenticated = value;
    emit q->authenticatedChanged(token);
}

void AuthClientPrivate::setProgress(bool value)
{
    if (progress == value)
        return;
    progress = value;
    emit q->progressChanged();
}

void AuthClientPrivate::handleAuthenticated(QByteArray authToken)
{
    const QPointer<AuthClientPrivate> self(this);
    m_authToken = authToken;
    setAuthenticated(true, m_authToken);
    if (self)
        setProgress(false);
}

void AuthClientPrivate::handleAuthenticationFailed()
{
    dropAuthentication();
}

void AuthClientPrivate::handleAuthDataChanged()
{
    const QPointer<AuthClientPrivate> self(this);
    setProgress(false);
    if (self)
        emit q->authDataChanged();
}

void AuthClientPrivate::handleChangeAuthDataFailed()
{
    const QPointer<AuthClientPrivate> self(this);
    setProgress(false);
    if (self)
        emit q->changeAuthDataFailed();
}
