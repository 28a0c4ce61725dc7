// A host of everything that listens to the daemon. When it knows the device-lock state it writes "ready" and its unique
// name on the system bus, later each state ("state 5") and, for each of its clients, each factor signal that is a
// drain mark. Once standard input has ended it writes what it has heard else and what it shows, and ends.

#include "bus-round-trip.h"
#include "settings-test-case.h"

#include <AuthSettings>

#include <QtCore/QSocketNotifier>
#include <QtDBus/QDBusConnection>

#include <cstdio>

namespace {
void say(const QString &line)
{
    puts(qPrintable(line));
    fflush(stdout);
}

void sayMarks(const AuthClient &client, const char *name)
{
    QObject::connect(&client, &AuthClient::factorSignal, &client, [name](const QString &factor) {
        if (factor.startsWith(drainMark))
            say("%1 %2"_s.arg(QLatin1String(name), factor));
    });
}

void sayHeard(const SignalRecorder &heard, const char *name)
{
    for (const QString &emission : heard.list())
        say("%1 %2"_s.arg(QLatin1String(name), emission));
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    AuthClient client;
    AuthSettingsClient &settings = *AuthSettingsClient::get();
    settings.setUid(1000);
    AuthSettings user;
    user.setUid(1000);
    // The last to ask for the state.
    AuthDevlockClient devlock;

    const SignalRecorder clientHeard(&client);
    const SignalRecorder settingsHeard(&settings);
    const SignalRecorder userHeard(&user);
    sayMarks(client, "client");
    sayMarks(settings, "settings");
    QObject::connect(&devlock, &AuthDevlockClient::stateChanged, &devlock, [&, isReady = false]() mutable {
        say(isReady ? "state %1"_s.arg(devlock.state()) : "ready "_s + QDBusConnection::systemBus().baseService());
        isReady = true;
    });
    const QSocketNotifier inputEnd(fileno(stdin), QSocketNotifier::Read);
    QObject::connect(&inputEnd, &QSocketNotifier::activated, &application, &QCoreApplication::quit);
    QCoreApplication::exec();
    // What one follower has heard the others have yet to hear.
    roundTripToSystemBus();
    QCoreApplication::processEvents();

    sayHeard(clientHeard, "client");
    sayHeard(settingsHeard, "settings");
    sayHeard(userHeard, "user");
    say("client authenticated %1, progress %2"_s.arg(client.authenticated()).arg(client.progress()));
    say("settings can switch %1, settable %2, multi %3, notifications %4, %5"_s.arg(settings.canSwitchToUser())
            .arg(settings.isUserSettable())
            .arg(settings.isMultiFactorable())
            .arg(settings.showNotifications())
            .arg(rows(settings)));
    say("devlock state %1, enabled %2"_s.arg(devlock.state()).arg(devlock.enabled()));
    return 0;
}
