#include "host-test-case.h"

#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusConnectionInterface>

#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/** A daemon that lives and does not answer, or does not accept: a host waits for 25 seconds, and not for ever. */
class TestTimeouts : public HostTestCase
{
    Q_OBJECT

private Q_SLOTS:
    void asynchronousCalls();
    void blockingCalls_data();
    void blockingCalls();
    void setState();
    void failedGetStateTakesAKnownStateAway();
    void muteSocket();
    void fullQueueEndsTheProcess();
    void fullQueueOfAReturningDaemonEndsTheProcess();
    void lastPlaceInTheQueueIsForTheConnection();
};

namespace {
const QString testHost = QStringLiteral(TEST_HOST);
const QString fullQueue = QStringLiteral(
    R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" "Connection timed out")");
const sockaddr_un address{AF_UNIX, "/var/run/authd/authd.socket"};

/** In place of the stand-in's socket, one with a queue of one place, which nobody takes a connection from. */
class Listener
{
public:
    Listener()
        : m_listener(unixSocket())
    {
        unlink(address.sun_path);
        if (bind(m_listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0
            || listen(m_listener, 0) != 0)
            qFatal("listen: %s", strerror(errno));
    }
    ~Listener()
    {
        close(m_inQueue);
        close(m_listener);
        unlink(address.sun_path);
    }
    Q_DISABLE_COPY(Listener)

    void fillQueue()
    {
        m_inQueue = unixSocket();
        if (connect(m_inQueue, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            qFatal("connect: %s", strerror(errno));
    }
    /** Takes a connection if there is one. */
    bool take()
    {
        if (fcntl(m_listener, F_SETFL, O_NONBLOCK) != 0)
            qFatal("fcntl: %s", strerror(errno));
        const int accepted = accept(m_listener, nullptr, nullptr);
        if (accepted < 0 && errno != EAGAIN)
            qFatal("accept: %s", strerror(errno));
        return accepted >= 0 && close(accepted) == 0;
    }

private:
    static int unixSocket()
    {
        return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    }

    const int m_listener;
    int m_inQueue = -1;
};
} // namespace

// The waits are as many timeouts long, and not one more.
#define CHECK_TIMEOUTS(milliseconds, count)                                                                            \
    QVERIFY2((milliseconds) > qint64(24000) * (count) && (milliseconds) < qint64(24000) * ((count) + 1),               \
             qPrintable(QString::number(milliseconds)))

void TestTimeouts::asynchronousCalls()
{
    for (const char *method : {"Authenticate", "ChangeAuthData", "UnlockIfNeeded", "FactorMethod", "GetState"})
        daemon.misbehave(method, "mute");
    AuthClient client;
    SignalRecorder heard(&client);
    QList<QVariant> results;
    QElapsedTimer timer;
    timer.start();
    const QVariantMap params{{"challenge"_s, 1}};
    client.authenticate("login"_s, params);
    client.changeAuthData("code"_s, params);
    client.unlockIfNeeded();
    client.factorMethod({}, "code"_s, [&](const QVariant &result) { results.append(result); });
    QVERIFY(timer.elapsed() < 24000);
    QVERIFY(waitFor([&] {
        return results.size() == 1 && heard.list().size() == 2
            && log->lines().filter(QRegularExpression("^warning (call\\w+Finished )?failed:"_s)).size() == 3;
    }));
    CHECK_TIMEOUTS(timer.elapsed(), 1);
    drain(&client);
    QCOMPARE(heard.list(), (QStringList{"progressChanged()"_s, "unlockIfNeededFinished(false)"_s}));
    QVERIFY(!results.first().isValid());
    QVERIFY(client.progress());
    QCOMPARE(log->takeComplaints().size(), 4);
}

void TestTimeouts::blockingCalls_data()
{
    QTest::addColumn<QByteArray>("mute");
    QTest::addColumn<QString>("complaint");
    QTest::newRow("setLocked") << QByteArray("SetDevlockState") << "warning setLocked failed: …"_s;
    QTest::newRow("factorMethodWait") << QByteArray("FactorMethod") << "warning factorMethodWait failed: …"_s;
    QTest::newRow("challenge") << QByteArray("RequestChallenge") << "warning request failed: …"_s;
}

void TestTimeouts::blockingCalls()
{
    QFETCH(QByteArray, mute);
    QFETCH(QString, complaint);
    const auto client = newClient();
    grant(client.get(), "s3cr3t token");
    daemon.misbehave(mute.constData(), "mute");
    daemon.misbehave("Authenticate", "hold");
    QElapsedTimer timer;
    timer.start();
    if (mute == "SetDevlockState")
        QVERIFY(!client->setLocked(1));
    else if (mute == "FactorMethod")
        QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
    else
        client->authenticate("login"_s, {});
    CHECK_TIMEOUTS(timer.elapsed(), 1);
    if (mute == "RequestChallenge") {
        QVERIFY(client->progress());
        QCOMPARE(daemon.waitCalls("Authenticate"), QStringList{loginCall({})});
    }
    QCOMPARE(withoutTexts(log->takeComplaints()), QStringList{complaint});
    QVERIFY(client->authenticated());
    drain(client.get());
}

void TestTimeouts::setState()
{
    daemon.misbehave("SetState", "mute");
    AuthDevlockClient client;
    QVERIFY(waitFor([&client] { return client.state() == AuthDevlockClient::Unlocked; }));
    QElapsedTimer timer;
    timer.start();
    client.setState(AuthDevlockClient::Locked);
    CHECK_TIMEOUTS(timer.elapsed(), 1);
    drainSystemBus();
    QCOMPARE(client.state(), AuthDevlockClient::Unlocked);
}

void TestTimeouts::failedGetStateTakesAKnownStateAway()
{
    daemon.misbehave("GetState", "hold");
    AuthDevlockClient client;
    SignalRecorder heard(&client);
    daemon.waitCalls("GetState");
    daemon.emitSignal("StateChanged", "(0,)");
    drainSystemBus();
    QCOMPARE(client.state(), AuthDevlockClient::Unlocked);
    // Without an answer, and without leaving the bus: the answer is due in 25 seconds.
    const QString owner = daemon.owner();
    QVERIFY(waitFor([&] { return heard.list().size() == 2; }));
    QCOMPARE(daemon.owner(), owner);
    QCOMPARE(client.state(), AuthDevlockClient::Undefined);
    QCOMPARE(withoutTexts(log->take()),
             (QStringList{R"(debug AuthDevlockClientPrivate Connected to "vantora.AuthService")"_s,
                          "debug handleStateChanged AuthDevlockClient::Undefined -> 0"_s, "warning failed: …"_s,
                          "debug handleStateChanged AuthDevlockClient::Unlocked -> 4"_s}));
}

void TestTimeouts::muteSocket()
{
    daemon.request(R"({"do":"accept","how":"mute"})");
    QElapsedTimer timer;
    timer.start();
    AuthClient client;
    // Two requests for introspection data.
    CHECK_TIMEOUTS(timer.elapsed(), 2);
    timer.restart();
    QCOMPARE(log->take(),
             (QStringList{R"(debug AuthDevlockClientPrivate Connected to "vantora.AuthService")"_s,
                          R"(debug AuthdConnection "authd_p2p_client" connected to "authd_p2p_client")"_s,
                          R"(debug AuthClientPrivate Connected to "unix:path=/var/run/authd/authd.socket")"_s}));

    SignalRecorder heard(&client);
    client.unlockIfNeeded();
    // The challenge, and then the call.
    QVERIFY(!client.factorMethodWait({}, "code"_s).isValid());
    CHECK_TIMEOUTS(timer.elapsed(), 2);
    QVERIFY(waitFor([&] { return !heard.list().isEmpty(); }));
    QCOMPARE(heard.list(), QStringList{"unlockIfNeededFinished(false)"_s});
    QCOMPARE(withoutTexts(log->takeComplaints()),
             (QStringList{"warning request failed: …"_s, "warning factorMethodWait failed: …"_s}));

    // The client follows the daemon to a socket that answers.
    daemon.request(R"({"do":"accept","how":"normal"})");
    daemon.request(R"({"do":"restart"})");
    awaitReconnection();
    QCOMPARE(client.factorMethodWait(echo(5), "code"_s), QVariant(5));
}

void TestTimeouts::fullQueueEndsTheProcess()
{
    daemon.request(R"({"do":"stop"})");
    Listener listener;
    listener.fillQueue();
    QElapsedTimer timer;
    timer.start();
    std::array<QProcess, 3> hosts;
    start(hosts[0], testHost, {"app"_s, "client"_s, "stack"_s, "idle"_s, "return"_s});
    start(hosts[1], testHost, {"noapp"_s, "client"_s, "static"_s, "idle"_s, "return"_s});
    start(hosts[2], testHost, {"staticapp"_s, "client"_s, "child"_s, "idle"_s, "return"_s});
    for (QProcess &host : hosts) {
        checkEnd(host, 1, fullQueue);
        QVERIFY2(timer.elapsed() > 24000, qPrintable(QString::number(timer.elapsed())));
    }
}

void TestTimeouts::fullQueueOfAReturningDaemonEndsTheProcess()
{
    QProcess host;
    start(host, testHost, {"app"_s, "client"_s, "child"_s, "idle"_s, "loop"_s});
    waitReady(host);
    daemon.request(R"({"do":"stop"})");
    Listener listener;
    listener.fillQueue();
    QVERIFY(QDBusConnection::systemBus().registerService("vantora.AuthService"_s));
    checkEnd(host, 1, fullQueue);
    QVERIFY(QDBusConnection::systemBus().unregisterService("vantora.AuthService"_s));
}

// Whoever finds out whether there is room takes none: the daemon may be slow to accept.
void TestTimeouts::lastPlaceInTheQueueIsForTheConnection()
{
    daemon.request(R"({"do":"stop"})");
    Listener listener;
    QProcess host;
    start(host, testHost, {"app"_s, "client"_s, "heap"_s, "idle"_s, "return"_s});
    // Not accepted, and so with no answer to its two requests for introspection data.
    checkEnd(host, 0);
    QVERIFY(listener.take());
    QVERIFY(!listener.take());
}

QTEST_GUILESS_MAIN(TestTimeouts)
#include "tst_timeouts.moc"
