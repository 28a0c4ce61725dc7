// Calls the daemon through the library and, on the same connections, through bare QDBusInterface objects. With the argument
// `check` it makes calls with larger and larger parameter maps, for the check of the parameters alone to be measured.
// benchmarks/run makes the world for it: an unlocked device whose daemon announces no option.

#include "measure.h"

#include <AuthClient>
#include <AuthDevlockClient>
#include <AuthSettingsClient>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusInterface>
#include <QtDBus/QDBusPendingCallWatcher>
#include <QtDBus/QDBusPendingReply>
#include <QtDBus/QDBusReply>
#include <QtDBus/QDBusVariant>

#include <string>

namespace {

const QString Service = QStringLiteral("vantora.AuthService");
const QString Code = QStringLiteral("code");
const QString Date = QStringLiteral("2026-11-21");

void check(bool condition, const char *expectation)
{
    if (!condition)
        qFatal("not so: %s", expectation);
}

QVariantMap echo()
{
    return {
        {QStringLiteral("type"), QStringLiteral("echo")},
        {QStringLiteral("uid"), 1000U},
        {QStringLiteral("name"), QStringLiteral("last-login-date")},
        {QStringLiteral("value"), Date},
    };
}

QVariantMap credentials()
{
    return {{QStringLiteral("factor"), Code}, {QStringLiteral("data"), QStringLiteral("1234")}};
}

/** One of the daemon's objects, without the library. */
class Bare : public QDBusInterface
{
public:
    Bare(const QDBusConnection &bus, const char *path, const char *interface)
        : QDBusInterface(Service, QLatin1String(path), QLatin1String(interface), bus)
    {
        check(isValid(), "the daemon has the object");
    }

    /** Has @p finished called when the call has ended. */
    template <typename Finished> void watch(const QDBusPendingCall &pending, Finished finished)
    {
        auto *watcher = new QDBusPendingCallWatcher(pending, this);
        connect(watcher, &QDBusPendingCallWatcher::finished, this, [finished](QDBusPendingCallWatcher *call) {
            call->deleteLater();
            finished(call);
        });
    }
};

QByteArray tokenFor(AuthClient &client)
{
    QByteArray token;
    QEventLoop loop;
    QObject::connect(&client, &AuthClient::authenticatedChanged, &loop, [&](const QVariant &value) {
        token = value.toByteArray();
        loop.quit();
    });
    client.authenticate(QStringLiteral("login"), credentials());
    loop.exec();
    check(!token.isEmpty(), "the daemon takes the code");
    return token;
}

void measureCheck(AuthClient &client)
{
    for (const int entries : {1, 4, 10, 100, 1000}) {
        QVariantMap params;
        while (params.size() < entries)
            params.insert(QStringLiteral("value-%1").arg(params.size(), 3, 10, QLatin1Char('0')), Date);
        measureInTurns(
            {{("check." + std::to_string(entries)).c_str(), [&] { client.factorMethodWait(params, Code); }}});
    }
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);

    AuthClient client;
    if (argc > 1 && qstrcmp(argv[1], "check") == 0) {
        measureCheck(client);
        return 0;
    }

    const QByteArray token = tokenFor(client);
    Bare bare(QDBusConnection(QStringLiteral("authd_p2p_client")), "/vantora/AuthService", "vantora.AuthService");
    measureInTurns({
        {"factorMethodWait.bare",
         [&] {
             const QDBusReply<QDBusVariant> reply =
                 bare.call(QDBus::Block, QStringLiteral("FactorMethod"), token, Code, echo());
             check(reply.value().variant() == Date, "the daemon echoes");
         }},
        {"factorMethodWait.library",
         [&] { check(client.factorMethodWait(echo(), Code) == Date, "the daemon echoes"); }},
    });
    measureInTurns({
        {"setLocked.bare",
         [&] {
             const QDBusReply<bool> reply = bare.call(QDBus::Block, QStringLiteral("SetDevlockState"), token, 0);
             check(reply.value(), "the daemon unlocks");
         }},
        {"setLocked.library", [&] { check(client.setLocked(0), "the daemon unlocks"); }},
    });

    QEventLoop loop;
    measureInTurns({
        {"factorMethod.bare",
         [&] {
             bare.watch(bare.asyncCall(QStringLiteral("FactorMethod"), token, Code, echo()),
                        [&](QDBusPendingCallWatcher *call) {
                            const QDBusPendingReply<QDBusVariant> reply = *call;
                            check(reply.value().variant() == Date, "the daemon echoes");
                            loop.quit();
                        });
             loop.exec();
         }},
        {"factorMethod.library",
         [&] {
             client.factorMethod(echo(), Code, [&](const QVariant &value) {
                 check(value == Date, "the daemon echoes");
                 loop.quit();
             });
             loop.exec();
         }},
    });

    // Who hears the signal is the library, for both.
    QObject::connect(&client, &AuthClient::unlockIfNeededFinished, &loop, [&](bool success) {
        check(success, "the device is unlocked");
        loop.quit();
    });
    measureInTurns({
        {"unlockIfNeeded.bare",
         [&] {
             bare.watch(bare.asyncCall(QStringLiteral("UnlockIfNeeded")),
                        [](QDBusPendingCallWatcher *call) { check(!call->isError(), "the daemon decides"); });
             loop.exec();
         }},
        {"unlockIfNeeded.library",
         [&] {
             client.unlockIfNeeded();
             loop.exec();
         }},
    });

    AuthDevlockClient devlock;
    Bare bareDevlock(QDBusConnection::systemBus(), "/vantora/AuthService/Devlock", "vantora.AuthService.Devlock");
    measureInTurns({
        {"setState.bare",
         [&] {
             const QDBusMessage reply = bareDevlock.call(QDBus::Block, QStringLiteral("SetState"), 0);
             check(reply.type() == QDBusMessage::ReplyMessage, "the daemon unlocks");
         }},
        {"setState.library", [&] { devlock.setState(AuthDevlockClient::Unlocked); }},
    });

    AuthSettingsClient settings(nullptr);
    settings.setUid(1000);
    const QByteArray settingsToken = tokenFor(settings);
    Bare bareSettings(QDBusConnection(QStringLiteral("authd_p2p_settings_client")), "/vantora/AuthService/Settings",
                      "vantora.AuthService.Settings");
    measureInTurns({
        {"lastLoginDate.bare",
         [&] {
             const QDBusReply<QDBusVariant> reply = bareSettings.call(QDBus::Block, QStringLiteral("GetUserOption"),
                                                                      1000U, QStringLiteral("worker/last-login-date"));
             check(!reply.value().variant().toString().isEmpty(), "the daemon knows the date");
         }},
        {"lastLoginDate.library", [&] { check(!settings.lastLoginDate(1000).isEmpty(), "the daemon knows the date"); }},
    });
    measureInTurns({
        {"setIsMultiFactorable.bare",
         [&] {
             const QDBusReply<bool> reply = bareSettings.call(
                 QDBus::Block, QStringLiteral("SetUserOption"), 1000U, settingsToken,
                 QStringLiteral("worker/is-multi-factorable"), QVariant::fromValue(QDBusVariant(true)));
             check(reply.value(), "the daemon takes the option");
         }},
        // As the daemon announces nothing, each call is one more write.
        {"setIsMultiFactorable.library", [&] { settings.setIsMultiFactorable(true); }},
    });

    // The daemon turns both requests down at once, which is all that it says: the client has lost its token then.
    QObject::connect(&client, &AuthClient::discredit, &loop, &QEventLoop::quit);
    const QDBusReply<QByteArray> challenge = bare.call(QStringLiteral("RequestChallenge"));
    const QString nothing = QStringLiteral("nothing");
    const auto request = [&](const QString &method) {
        QVariantMap params = credentials();
        params.insert(QStringLiteral("challenge"), challenge.value());
        bare.watch(bare.asyncCall(method, nothing, params), [&](QDBusPendingCallWatcher *call) {
            const QDBusPendingReply<bool> reply = *call;
            check(!reply.isError() && !reply.value(), "the daemon turns it down");
            loop.quit();
        });
        loop.exec();
    };
    measureInTurns({
        {"authenticate.bare", [&] { request(QStringLiteral("Authenticate")); }},
        {"authenticate.library",
         [&] {
             client.authenticate(nothing, credentials());
             loop.exec();
         }},
    });
    measureInTurns({
        {"changeAuthData.bare", [&] { request(QStringLiteral("ChangeAuthData")); }},
        {"changeAuthData.library",
         [&] {
             client.changeAuthData(nothing, credentials());
             loop.exec();
         }},
    });
    return 0;
}
