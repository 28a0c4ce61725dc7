#pragma once

#include "auth-devlock-client.h"

#include <QtCore/QObject>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusInterface>
#include <QtDBus/QDBusServiceWatcher>

class AuthDevlockClientPrivate : public QObject
{
    Q_OBJECT

public:
    explicit AuthDevlockClientPrivate(AuthDevlockClient *q);

    void setupConnection();
    void getState();
    void setStateInternal(AuthDevlockClient::LockState state);

    QDBusConnection connection;
    QDBusInterface devlockInterface;
    const bool enabled = true;
    int state = AuthDevlockClient::Undefined;
    QDBusServiceWatcher watcher;
    AuthDevlockClient *const q;

public Q_SLOTS:
    void handleStateChanged(int state);
    void handleOwnerChanged(const QString &serviceName, const QString &oldOwner, const QString &newOwner);

private Q_SLOTS:
    void handleBusLost();

private:
    /** Whether anything has been heard of the state. */
    bool m_told = false;
};
