// Makes every asynchronous call while the daemon and the system bus are stopped, so that one that waited for either would
// wait until its time is up. Prints how long each takes to return, and what else the daemon finds that it was asked.

#include "measure.h"

#include <AuthClient>
#include <AuthSettingsClient>
#include <AuthStandIn>
#include <FactorSettingsBase>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusReply>

#include <csignal>
#include <cstdlib>

namespace {

const QString Code = QStringLiteral("code");

/** Milliseconds; less than the library ever waits for an answer that does not come. */
constexpr qint64 Waited = 900;

QVariantMap credentials()
{
    return {{QStringLiteral("factor"), Code}, {QStringLiteral("data"), QStringLiteral("1234")}};
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    AuthStandIn standIn([](const QString &error) { qFatal("%s", qPrintable(error)); });
    const QDBusReply<uint> daemon =
        QDBusConnection::systemBus().interface()->servicePid(QStringLiteral("vantora.AuthService"));
    const auto signal = [daemon = pid_t(daemon.value()),
                         bus = pid_t(qEnvironmentVariableIntValue("AUTHD_WORLD_BUS_PID"))](int number) {
        if (daemon <= 0 || bus <= 0 || kill(daemon, number) != 0 || kill(bus, number) != 0)
            qFatal("the daemon or the bus takes no signals");
    };

    FactorSettingsBase settings(nullptr, Code);
    AuthClient client;
    const auto none = [](const QVariant &) {};
    // The daemon has dealt with everything that was sent before. The first time, this fetches the challenges.
    const auto settle = [&] {
        for (AuthClient *each : {&client, static_cast<AuthClient *>(AuthSettingsClient::get())})
            each->factorMethodWait({{QStringLiteral("type"), QStringLiteral("echo")}, {QStringLiteral("value"), 1}},
                                   Code);
    };
    settle();
    // Asked for by the constructors, which do not wait.
    standIn.waitCalls(QStringLiteral("GetState"), 2);

    const Subject calls[] = {
        {"frozen.authenticate", [&] { client.authenticate(QStringLiteral("unlock"), credentials()); }},
        {"frozen.changeAuthData", [&] { client.changeAuthData(Code, credentials()); }},
        {"frozen.unlockIfNeeded", [&] { client.unlockIfNeeded(); }},
        {"frozen.factorMethod", [&] { client.factorMethod(credentials(), Code, none); }},
        {"frozen.setOption", [&] { settings.setOption(1000, QStringLiteral("length"), 5); }},
        {"frozen.doAction", [&] { settings.doAction(1000, QStringLiteral("reset"), {}, none); }},
    };
    for (const Subject &subject : calls) {
        qint64 nanoseconds = 0;
        qint64 questions = 0;
        qint64 waits = 1;
        // A call that waits does so each time; a busy machine keeps one from running for as long only now and then.
        for (int i = 0; i < 3 && waits > 0; ++i) {
            standIn.clearCalls();
            signal(SIGSTOP);
            QElapsedTimer timer;
            timer.start();
            subject.call();
            nanoseconds = timer.nsecsElapsed();
            signal(SIGCONT);
            settle();
            // The call itself, and the two that settle.
            questions = standIn.calls().size() - 3;
            if (questions < 0)
                qFatal("the daemon is not asked by %s", subject.name);
            waits = nanoseconds / 1000000 / Waited;
        }
        printFigure(subject.name, "µs", double(nanoseconds) / 1000);
        printFigure(subject.name, "waits", double(questions + waits));
    }
    // The settings client would say that it ends when nobody minds what is to be said any more.
    std::quick_exit(0);
}
