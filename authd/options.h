#pragma once

#include <QtCore/QDebug>
#include <QtCore/QMetaMethod>
#include <QtCore/QString>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMetaType>

// clazy:excludeall=non-pod-global-static

/**
 * The names exchanged with the authentication daemon. The daemon itself is another project: authd/ holds this header and
 * nothing else.
 */
namespace Authd {

const QString Service = QStringLiteral("vantora.AuthService");
const QString Path = QStringLiteral("/vantora/AuthService");
const QString Interface = QStringLiteral("vantora.AuthService");
const QString SettingsPath = QStringLiteral("/vantora/AuthService/Settings");
const QString SettingsInterface = QStringLiteral("vantora.AuthService.Settings");
const QString DevlockPath = QStringLiteral("/vantora/AuthService/Devlock");
const QString DevlockInterface = QStringLiteral("vantora.AuthService.Devlock");

const QString SocketAddress = QStringLiteral("unix:path=/var/run/authd/authd.socket");
const QString ClientConnectionName = QStringLiteral("authd_p2p_client");
const QString SettingsConnectionName = QStringLiteral("authd_p2p_settings_client");

const QString MethodsDirectory = QStringLiteral("/var/lib/authd/methods/");
const QString FactorPrefix = QStringLiteral("authd-factor-");

namespace Method {

const QString Authenticate = QStringLiteral("Authenticate");
const QString ChangeAuthData = QStringLiteral("ChangeAuthData");
const QString UnlockIfNeeded = QStringLiteral("UnlockIfNeeded");
const QString SetDevlockState = QStringLiteral("SetDevlockState");
const QString RequestChallenge = QStringLiteral("RequestChallenge");
const QString FactorMethod = QStringLiteral("FactorMethod");
const QString GetOption = QStringLiteral("GetOption");
const QString GetUserOption = QStringLiteral("GetUserOption");
const QString GetUserOptions = QStringLiteral("GetUserOptions");
// Takes the user id, the token, the key and the value, in this order.
const QString SetUserOption = QStringLiteral("SetUserOption");
const QString GetState = QStringLiteral("GetState");
const QString SetState = QStringLiteral("SetState");

// Offered by the daemon and not called by this library: options and actions of a factor travel in FactorMethod.
const QString SetUserMethodOption = QStringLiteral("SetUserMethodOption");
const QString GetUserMethodOption = QStringLiteral("GetUserMethodOption");
const QString SetMethodOption = QStringLiteral("SetMethodOption");
const QString GetMethodOption = QStringLiteral("GetMethodOption");
const QString SetOption = QStringLiteral("SetOption");
const QString ActionUserMethod = QStringLiteral("ActionUserMethod");
const QString ActionMethod = QStringLiteral("ActionMethod");

} // namespace Method

namespace Signal {

const QString Authenticated = QStringLiteral("Authenticated");
const QString AuthenticationFailed = QStringLiteral("AuthenticationFailed");
const QString AuthDataChanged = QStringLiteral("AuthDataChanged");
const QString ChangeAuthDataFailed = QStringLiteral("ChangeAuthDataFailed");
const QString UnlockIfNeededFinished = QStringLiteral("UnlockIfNeededFinished");
const QString Factor = QStringLiteral("Factor");
const QString OptionChanged = QStringLiteral("OptionChanged");
const QString UserOptionChanged = QStringLiteral("UserOptionChanged");
const QString StateChanged = QStringLiteral("StateChanged");

// Sent by the daemon and not subscribed to by this library.
const QString UserMethodActionCompleted = QStringLiteral("UserMethodActionCompleted");
const QString UserMethodOptionChanged = QStringLiteral("UserMethodOptionChanged");
const QString MethodOptionChanged = QStringLiteral("MethodOptionChanged");
const QString MethodActionCompleted = QStringLiteral("MethodActionCompleted");

} // namespace Signal

namespace Option {

/** The scope of the daemon's own settings; also the method name under which a user's settings of it are reached. */
const QString Worker = QStringLiteral("worker");
const QString WorkerPrefix = Worker + QLatin1Char('/');
const QString DevlockPrefix = QStringLiteral("devlock/");

const QString ShowNotifications = QStringLiteral("show-notifications");
const QString ServiceFactors = QStringLiteral("service-factors");
const QString IsUserSettable = QStringLiteral("is-user-settable");
const QString IsMultiFactorable = QStringLiteral("is-multi-factorable");
const QString DisabledFactors = QStringLiteral("disabled-factors");
const QString LastLoginDate = QStringLiteral("last-login-date");
const QString ShowLastLogin = QStringLiteral("show-last-login");
const QString CanSwitchToUser = QStringLiteral("can-switch-to-user");
const QString AvailableServices = QStringLiteral("available-services");
const QString AvailableServiceFactors = QStringLiteral("available-service-factors");
const QString PermissiveMode = QStringLiteral("permissive-mode");

} // namespace Option

namespace Value {

const QString Login = QStringLiteral("login");
const QString Unlock = QStringLiteral("unlock");
const QString Sudis = QStringLiteral("sudis");
const QString Smartcard = QStringLiteral("smartcard");

} // namespace Value

/** Keys of parameter maps. */
namespace Key {

const QString Challenge = QStringLiteral("challenge");

// FactorMethod and the Factor signal.
const QString Type = QStringLiteral("type");
const QString Uid = QStringLiteral("uid");
const QString Name = QStringLiteral("name");
const QString Value = QStringLiteral("value");
const QString Params = QStringLiteral("params");

// A factor's user interface; read by hosts.
const QString TextForButton = QStringLiteral("textForButton");
const QString ForConfirm = QStringLiteral("forConfirm");
const QString InputRequestType = QStringLiteral("input-request-type");
const QString ResultCode = QStringLiteral("result-code");
const QString CancelEnabled = QStringLiteral("cancel-enabled");
const QString ShowMainPage = QStringLiteral("show-main-page");
const QString InfoPage = QStringLiteral("info-page");
const QString AuthPage = QStringLiteral("auth-page");
const QString PrePage = QStringLiteral("pre-page");
const QString FactorName = QStringLiteral("factor-name");

} // namespace Key

/** Values of Key::Type. */
namespace Request {

const QString GetOption = QStringLiteral("get-option");
const QString SetOption = QStringLiteral("set-option");
const QString Action = QStringLiteral("action");
const QString OptionChanged = QStringLiteral("option-changed");

} // namespace Request

/**
 * The D-Bus types of the parameters of @p slot, a slot or signal of @p receiver as written by SLOT() or SIGNAL().
 *
 * Anybody may send a signal, with anything in it. QDBusConnection of Qt 5.15 delivers a structure, an array or a
 * dictionary of whatever kind to a slot, and ends the process when that does not fit, unless it is told what fits.
 */
inline QString signatureOf(const QObject *receiver, const char *slot)
{
    const QMetaObject *type = receiver->metaObject();
    const QMetaMethod method = type->method(type->indexOfMethod(QMetaObject::normalizedSignature(slot + 1)));
    // Not null, which would be any signature.
    QByteArray signature("");
    for (int i = 0; i < method.parameterCount(); ++i)
        signature += QDBusMetaType::typeToSignature(method.parameterType(i));
    return QString::fromLatin1(signature);
}

/**
 * Subscribes @p slot of @p receiver (as written by SLOT(), or by SIGNAL() for a relay) to a signal of the main object
 * that carries what the slot takes. The sender is left open: on a peer connection it has no name. Returns false, after a
 * warning, when that fails.
 */
template <typename Receiver>
bool connectToAuthdSignal(Receiver *receiver, QDBusConnection connection, const QString &signalName, const char *slot)
{
    const bool connected =
        connection.connect(QString(), Path, Interface, signalName, signatureOf(receiver, slot), receiver, slot);
    if (!connected)
        qWarning() << "Failed to connect to" << signalName;
    return connected;
}

/** The same for a signal of the settings object. */
template <typename Receiver>
bool connectToSettingsSignal(Receiver *receiver, QDBusConnection connection, const QString &signalName,
                             const char *slot)
{
    const bool connected = connection.connect(QString(), SettingsPath, SettingsInterface, signalName,
                                              signatureOf(receiver, slot), receiver, slot);
    if (!connected)
        qWarning() << "Failed to connect to" << signalName;
    return connected;
}

/** The same for a signal of the device-lock object. */
template <typename Receiver>
bool connectToDevicelockSignal(Receiver *receiver, QDBusConnection connection, const QString &signalName,
                               const char *slot)
{
    const bool connected = connection.connect(QString(), DevlockPath, DevlockInterface, signalName,
                                              signatureOf(receiver, slot), receiver, slot);
    if (!connected)
        qWarning() << "Failed to connect to" << signalName;
    return connected;
}

} // namespace Authd
