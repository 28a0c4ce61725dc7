#pragma once

#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>

/**
 * The system bus has dealt with what this process has sent, and what it has sent to this process is on its way to the
 * objects there are, and to none that is made later.
 */
inline void roundTripToSystemBus()
{
    const QDBusConnection bus = QDBusConnection::systemBus();
    if (bus.isConnected()) {
        bus.call(QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/"),
                                                QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")));
    }
}
