#pragma once

#include <QtCore/QString>
#include <QtCore/QVariant>
#include <QtDBus/QDBusConnection>

/**
 * Why @p bus cannot carry @p parameters: the path and type of the first value that is to blame, never a value. Empty
 * when it can. libdbus ends the process, or drops the connection, over a map that does not pass.
 */
QString unsendableReason(const QVariantMap &parameters, const QDBusConnection &bus);
