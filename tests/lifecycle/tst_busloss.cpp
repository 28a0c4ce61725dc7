#include "test-case.h"

#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>

#include <csignal>
#include <thread>

/** The system bus dies, which it does once in the life of a process: each function wants a world of its own. */
class TestBusLoss : public TestCase
{
    Q_OBJECT

private:
    void checkClients(std::unique_ptr<AuthClient> client, std::unique_ptr<AuthDevlockClient> devlock);

private Q_SLOTS:
    void idle();
    void callsInFlight();
    void blockedCall();
};

namespace {
void killBus()
{
    const pid_t bus = qEnvironmentVariableIntValue("AUTHD_WORLD_BUS_PID");
    if (bus <= 0 || kill(bus, SIGKILL) != 0)
        qFatal("There is no bus to kill");
}

// Without turning the event loop.
void awaitBusLoss()
{
    const QDBusConnection bus = QDBusConnection::systemBus();
    // The last of these calls ends with the connection.
    while (bus.isConnected()) {
        bus.call(QDBusMessage::createMethodCall("org.freedesktop.DBus"_s, "/"_s, "org.freedesktop.DBus"_s, "GetId"_s));
    }
}
} // namespace

// What works without the bus, what fails, and that it does so at once; both clients are deleted then.
void TestBusLoss::checkClients(std::unique_ptr<AuthClient> client, std::unique_ptr<AuthDevlockClient> devlock)
{
    QElapsedTimer timer;
    timer.start();
    SignalRecorder heard(client.get());
    SignalRecorder devlockHeard(devlock.get());
    daemon.clearCalls();
    QCOMPARE(client->factorMethodWait(echo(5), "code"_s), QVariant(5));
    // Fails, and says nothing.
    devlock->setState(AuthDevlockClient::Unlocked);
    QList<QVariant> results;
    client->factorMethod(echo(6), "code"_s, [&](const QVariant &result) { results.append(result); });
    grant(client.get(), "s3cr3t token");
    QVERIFY(waitFor([&] { return !results.isEmpty(); }));
    QCOMPARE(results, QList<QVariant>{6});
    QVERIFY(client->authenticated());
    QCOMPARE(heard.list().size(), 1);
    QCOMPARE(devlock->state(), AuthDevlockClient::Undefined);
    QCOMPARE(devlockHeard.list(), QStringList());
    QCOMPARE(daemon.calls().filter("SetState"_s), QStringList());
    // No call has waited for its timeout of 25 seconds.
    QVERIFY2(timer.elapsed() < 24000, qPrintable(QString::number(timer.elapsed())));

    devlock.reset();
    client.reset();
    QCoreApplication::processEvents();
    QCOMPARE(log->takeComplaints(), QStringList());
}

// Nobody can say any more whether the device is still unlocked.
void TestBusLoss::idle()
{
    auto client = newClient();
    auto devlock = std::make_unique<AuthDevlockClient>();
    QVERIFY(waitFor([&] { return devlock->state() == AuthDevlockClient::Unlocked; }));
    SignalRecorder heard(devlock.get());
    killBus();
    QVERIFY(waitFor([&] { return devlock->state() == AuthDevlockClient::Undefined; }));
    QCOMPARE(heard.list(), QStringList{"stateChanged()"_s});
    QVERIFY(log->contains("debug handleStateChanged AuthDevlockClient::Unlocked -> 4"_s));
    checkClients(std::move(client), std::move(devlock));
}

void TestBusLoss::callsInFlight()
{
    auto client = newClient();
    daemon.misbehave("GetState", "hold");
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    auto devlock = std::make_unique<AuthDevlockClient>();
    QList<QVariant> results;
    client->factorMethod(echo(7), "code"_s, [&](const QVariant &result) { results.append(result); });
    daemon.waitCalls("GetState");
    daemon.waitCalls("FactorMethod");
    killBus();
    awaitBusLoss();
    QVERIFY(waitFor([this] { return !log->lines().filter("warning failed: "_s).isEmpty(); }));
    QCOMPARE(log->takeComplaints().size(), 1);
    daemon.request(R"({"do":"release"})");
    QVERIFY(waitFor([&] { return !results.isEmpty(); }));
    QCOMPARE(results, QList<QVariant>{7});
    checkClients(std::move(client), std::move(devlock));
}

void TestBusLoss::blockedCall()
{
    auto client = newClient();
    daemon.misbehave("SetState", "hold");
    auto devlock = std::make_unique<AuthDevlockClient>();
    QVERIFY(waitFor([&] { return devlock->state() == AuthDevlockClient::Unlocked; }));
    std::thread killer([] {
        StandIn().waitCalls("SetState");
        killBus();
    });
    QElapsedTimer timer;
    timer.start();
    devlock->setState(AuthDevlockClient::Locked);
    killer.join();
    // No call has waited for its timeout of 25 seconds.
    QVERIFY2(timer.elapsed() < 24000, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(waitFor([&] { return devlock->state() == AuthDevlockClient::Undefined; }));
    checkClients(std::move(client), std::move(devlock));
}

QTEST_GUILESS_MAIN(TestBusLoss)
#include "tst_busloss.moc"
