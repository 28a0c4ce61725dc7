#pragma once

#include "auth-client.h"
#include "auth-connection.h"
#include "auth-devlock-client.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QVariant>

/**
 * Receives the daemon's signals that the public object passes on unchanged. It stands between so that signals of a
 * replaced connection can be dropped from its queue: the public object's own may hold calls of the host.
 */
class SignalRelay : public QObject
{
    Q_OBJECT

Q_SIGNALS:
    void unlockIfNeededFinished(bool success);
    void factorSignal(const QString &factor, const QVariantMap &params);
};

class AuthClientPrivate : public QObject
{
    Q_OBJECT

public:
    AuthClientPrivate(AuthClient *q, const QString &connectionName);
    ~AuthClientPrivate() override;

    /** Subscribes the daemon's signals on the present connection. Not virtual: a derived object has its own beside it.
     */
    void setupConnection();

    void authenticate(const QString &service, const QVariantMap &params);
    void changeAuthData(const QString &method, const QVariantMap &params);
    void unlockIfNeeded();
    bool setLocked(int state);
    void dropAuthentication();
    void factorMethod(const QVariantMap &params, const QString &method, ValueCallBack callback);
    QVariant factorMethodWait(const QVariantMap &params, const QString &method);

    void setAuthenticated(bool value, const QByteArray &token);
    void setProgress(bool value);

    bool authenticated = false;
    bool progress = false;
    AuthDevlockClient devlock;
    SignalRelay relay;
    // After the relay, which its connection's subscriptions need to the end.
    AuthChallengeHolder challengeHolder;
    QByteArray m_authToken;
    AuthClient *const q;

private:
    void startRequest(const QString &call, const QString &subject, const QVariantMap &params,
                      void (AuthClientPrivate::*finished)(QDBusPendingCallWatcher *));

private Q_SLOTS:
    void handleAuthenticated(QByteArray authToken);
    void handleAuthenticationFailed();
    void handleAuthDataChanged();
    void handleChangeAuthDataFailed();
    void callAuthenticateFinished(QDBusPendingCallWatcher *call);
    void callChangeAuthDataFinished(QDBusPendingCallWatcher *call);
};
