#include "auth-client.h"

#include "auth-client_p.h"
#include "authd/options.h"
#include "parameter-check.h"

#include <QtCore/QDebug>
#include <QtCore/QPointer>
#include <QtDBus/QDBusError>
#include <QtDBus/QDBusPendingReply>
#include <QtDBus/QDBusReply>
#include <QtDBus/QDBusVariant>

#include <utility>

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
    AuthdConnection *link = challengeHolder.connection;
    const QDBusInterface &main = link->authInterface;
    link->subscribe(this, main, Authd::Signal::Authenticated, SLOT(handleAuthenticated(QByteArray)));
    link->subscribe(this, main, Authd::Signal::AuthenticationFailed, SLOT(handleAuthenticationFailed()));
    link->subscribe(this, main, Authd::Signal::AuthDataChanged, SLOT(handleAuthDataChanged()));
    link->subscribe(this, main, Authd::Signal::ChangeAuthDataFailed, SLOT(handleChangeAuthDataFailed()));
    link->subscribe(&relay, main, Authd::Signal::UnlockIfNeededFinished, SIGNAL(unlockIfNeededFinished(bool)));
    // clang-format off
    link->subscribe(&relay, link->settingsInterface, Authd::Signal::Factor, SIGNAL(factorSignal(QString,QVariantMap)));
    // clang-format on
}

void AuthClientPrivate::authenticate(const QString &service, const QVariantMap &params)
{
    const QString problem = unsendableReason(params, challengeHolder.connection->connection);
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
    const QString problem = unsendableReason(params, challengeHolder.connection->connection);
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
    QDBusInterface &main = challengeHolder.connection->authInterface;
    // This reference to the connection outlives the call, also where a handler deletes the client.
    const QDBusConnection bus = main.connection();
    const QDBusPendingCall pending = main.asyncCallWithArgumentList(call, {subject, params});
    // A handler may delete the client, and the call is given up then.
    const QPointer<AuthClientPrivate> self(this);
    setProgress(true);
    if (self)
        watchCall(bus, pending, this,
                  [this, finished](QDBusPendingCallWatcher *watcher) { (this->*finished)(watcher); });
}

void AuthClientPrivate::callAuthenticateFinished(QDBusPendingCallWatcher *call)
{
    const QDBusPendingReply<bool> reply = *call;
    if (reply.isError())
        qWarning() << "callAuthenticateFinished failed:" << clipped(reply.error().message());
    else if (!reply.value())
        handleAuthenticationFailed();
}

void AuthClientPrivate::callChangeAuthDataFinished(QDBusPendingCallWatcher *call)
{
    const QDBusPendingReply<bool> reply = *call;
    if (reply.isError())
        qWarning() << "callChangeAuthDataFinished failed:" << clipped(reply.error().message());
    else if (!reply.value())
        handleAuthenticationFailed();
}

void AuthClientPrivate::unlockIfNeeded()
{
    QDBusInterface &main = challengeHolder.connection->authInterface;
    watchCall(main.connection(), main.asyncCall(Authd::Method::UnlockIfNeeded), this, [this](QDBusPendingCall *call) {
        if (call->isError())
            emit q->unlockIfNeededFinished(false);
    });
}

bool AuthClientPrivate::setLocked(int state)
{
    if (m_authToken.isEmpty()) {
        qWarning() << "setLocked m_authToken is empty, not authenticated request";
        return false;
    }
    const QDBusReply<bool> reply =
        callMethod(challengeHolder.connection->authInterface, Authd::Method::SetDevlockState, {m_authToken, state});
    if (!reply.isValid())
        qWarning() << "setLocked failed:" << clipped(reply.error().message());
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
    QDBusInterface &main = challengeHolder.connection->authInterface;
    const QString problem = unsendableReason(params, main.connection());
    if (problem.isEmpty())
        challengeHolder.get();
    const QDBusPendingCall call = problem.isEmpty()
        ? main.asyncCallWithArgumentList(Authd::Method::FactorMethod, {m_authToken, method, params})
        : QDBusPendingCall::fromError(QDBusError(QDBusError::InvalidArgs, problem));
    watchCall(main.connection(), call, q, [callback = std::move(callback)](QDBusPendingCall *finished) {
        const QDBusPendingReply<QDBusVariant> reply = *finished;
        if (reply.isError())
            qWarning() << "reply isError:" << clipped(reply.error().message());
        if (callback)
            callback(reply.isError() ? QVariant() : reply.value().variant());
    });
}

QVariant AuthClientPrivate::factorMethodWait(const QVariantMap &params, const QString &method)
{
    QDBusInterface &main = challengeHolder.connection->authInterface;
    const QString problem = unsendableReason(params, main.connection());
    if (problem.isEmpty())
        challengeHolder.get();
    const QDBusReply<QDBusVariant> reply = problem.isEmpty()
        ? callMethod(main, Authd::Method::FactorMethod, {m_authToken, method, params})
        : QDBusMessage::createError(QDBusError::InvalidArgs, problem);
    if (!reply.isValid()) {
        qWarning() << "factorMethodWait failed:" << clipped(reply.error().message());
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
