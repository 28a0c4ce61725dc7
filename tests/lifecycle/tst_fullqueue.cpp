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

/** A daemon that has a socket and does not accept: as long as its queue has no room, a host waits, but not for ever. */
class TestFullQueue : public HostTestCase
{
    Q_OBJECT

private:
    void listen();
    void enqueue();

    int m_listener = -1;
    int m_inQueue = -1;

private Q_SLOTS:
    void cleanup();
    void processEnds();
    void processEndsWhenTheDaemonReturns();
    void lastPlaceIsForTheConnection();
};

namespace {
const QString testHost = QStringLiteral(TEST_HOST);
const QString fullQueue = QStringLiteral(
    R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" "Connection timed out")");
const sockaddr_un address{AF_UNIX, "/var/run/authd/authd.socket"};

int unixSocket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}
} // namespace

// In place of the stand-in's: a socket with a queue of one, that nobody takes from.
void TestFullQueue::listen()
{
    m_listener = unixSocket();
    unlink(address.sun_path);
    QVERIFY2(bind(m_listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, strerror(errno));
    QVERIFY2(::listen(m_listener, 0) == 0, strerror(errno));
}

void TestFullQueue::enqueue()
{
    m_inQueue = unixSocket();
    QVERIFY2(::connect(m_inQueue, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, strerror(errno));
}

void TestFullQueue::cleanup()
{
    close(m_inQueue);
    close(m_listener);
    unlink(address.sun_path);
    HostTestCase::cleanup();
}

void TestFullQueue::processEnds()
{
    daemon.request(R"({"do":"stop"})");
    listen();
    enqueue();
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

void TestFullQueue::processEndsWhenTheDaemonReturns()
{
    QProcess host;
    start(host, testHost, {"app"_s, "client"_s, "child"_s, "idle"_s, "loop"_s});
    waitReady(host);
    daemon.request(R"({"do":"stop"})");
    listen();
    enqueue();
    QVERIFY(QDBusConnection::systemBus().registerService("vantora.AuthService"_s));
    checkEnd(host, 1, fullQueue);
    QVERIFY(QDBusConnection::systemBus().unregisterService("vantora.AuthService"_s));
}

// Whoever finds out whether there is room takes none: the daemon may be slow to accept.
void TestFullQueue::lastPlaceIsForTheConnection()
{
    daemon.request(R"({"do":"stop"})");
    listen();
    QProcess host;
    start(host, testHost, {"app"_s, "client"_s, "heap"_s, "idle"_s, "return"_s});
    // Not accepted, and so with no answer to its two requests for introspection data.
    checkEnd(host, 0);
    const int accepted = accept(m_listener, nullptr, nullptr);
    QVERIFY(accepted >= 0);
    close(accepted);
    QVERIFY(fcntl(m_listener, F_SETFL, O_NONBLOCK) == 0);
    QCOMPARE(accept(m_listener, nullptr, nullptr), -1);
    QCOMPARE(errno, EAGAIN);
}

QTEST_GUILESS_MAIN(TestFullQueue)
#include "tst_fullqueue.moc"
