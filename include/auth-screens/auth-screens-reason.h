#pragma once

#include "auth-screens-export.h"

#include <QtCore/QObject>

namespace AuthScreens {

Q_NAMESPACE_EXPORT(AUTH_SCREENS_EXPORT)

/** Why something that was asked for has not come about. Screens have words of their own for each. */
enum Reason {
    NotAccepted = 0, ///< The daemon has not accepted the secret.
    NotGranted = 1,  ///< The daemon has accepted the secret, and the device is still locked.
    NotSendable = 2, ///< The secret is empty or too long, or has half a character. The daemon has not seen it.
    Unavailable = 3, ///< The daemon is away, or nobody knows the state of the device.
    LockedOut = 4,   ///< Nobody can authenticate for now: too many wrong codes, or a device manager's lockout.
    NoAnswer = 5,    ///< There has been no answer for too long.
    Interrupted = 6, ///< The agent has ended, or cannot be trusted. Trying again helps.
    GivenUp = 7,     ///< giveUp() has been called, or something else has been asked for.
    NotNeeded = 8,   ///< The device is not locked.
    NotLocked = 9,   ///< The device should have been locked, and is still in use.
    NotAllowed = 10, ///< No user may make this change: the factor is disabled, nothing would be left, or others decide.
    NotAuthenticated = 11, ///< The user has not shown who they are, or that does not count any more.
};
Q_ENUM_NS(Reason)

} // namespace AuthScreens
