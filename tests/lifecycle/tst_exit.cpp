#include "host-test-case.h"

/** How processes end: with status 1 when the daemon cannot be reached, and otherwise as they please. */
class TestExit : public HostTestCase
{
    Q_OBJECT

private:
    void storageRows(const QStringList &applications);

private Q_SLOTS:
    void socketIsMissing_data();
    void socketIsMissing();
    void socketAcceptsAndCloses_data();
    void socketAcceptsAndCloses();
    void socketIsMissingForASecondClient_data();
    void socketIsMissingForASecondClient();
    void busIsMissing_data();
    void busIsMissing();
    void busAndSocketAreMissing_data();
    void busAndSocketAreMissing();
    void daemonReturnsWithoutItsSocket_data();
    void daemonReturnsWithoutItsSocket();
    void daemonHandsOverWithoutASocket_data();
    void daemonHandsOverWithoutASocket();
    void noMessageIsLogged();

    void processEnds_data();
    void processEnds();
    void processEndsAfterItsLoop_data();
    void processEndsAfterItsLoop();
    void processEndsAfterARestart_data();
    void processEndsAfterARestart();
    void processEndsWhileTheDaemonIsAway_data();
    void processEndsWhileTheDaemonIsAway();
};

namespace {
const QString testHost = QStringLiteral(TEST_HOST);

const QString noSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" ".+")");
// The toolkit may know of no error when the connection was closed later.
const QString closedSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" ".*")");

const char *const storages[] = {"stack", "heap", "static", "namespace", "child"};
} // namespace

void TestExit::storageRows(const QStringList &applications)
{
    QTest::addColumn<QStringList>("arguments");
    for (const QString &application : applications) {
        for (const char *kind : {"client", "devlock"}) {
            for (const char *storage : storages) {
                for (const char *calls : {"idle", "flight"}) {
                    argumentsRow({application, QLatin1String(kind), QLatin1String(storage), QLatin1String(calls)});
                }
            }
        }
    }
}

void TestExit::socketIsMissing_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *application : {"app", "staticapp", "noapp"}) {
        for (const char *storage : storages) {
            argumentsRow({QLatin1String(application), "client"_s, QLatin1String(storage), "idle"_s, "return"_s});
        }
    }
}

void TestExit::socketIsMissing()
{
    QFETCH(QStringList, arguments);
    daemon.request(R"({"do":"stop"})");
    QProcess host;
    start(host, testHost, arguments);
    checkEnd(host, 1, noSocket);
}

void TestExit::socketAcceptsAndCloses_data()
{
    socketIsMissing_data();
}

void TestExit::socketAcceptsAndCloses()
{
    QFETCH(QStringList, arguments);
    daemon.request(R"({"do":"accept","how":"close"})");
    QProcess host;
    start(host, testHost, arguments);
    checkEnd(host, 1, closedSocket);
}

void TestExit::socketIsMissingForASecondClient_data()
{
    storageRows({"app"_s, "staticapp"_s, "noapp"_s});
}

void TestExit::socketIsMissingForASecondClient()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, testHost, arguments + QStringList{"second"_s});
    waitReady(host);
    daemon.request(R"({"do":"stop"})");
    host.write("\n");
    checkEnd(host, 1, closedSocket);
}

void TestExit::busIsMissing_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *application : {"app", "staticapp", "noapp"}) {
        for (const char *kind : {"client", "devlock"}) {
            for (const char *storage : storages) {
                argumentsRow(
                    {QLatin1String(application), QLatin1String(kind), QLatin1String(storage), "idle"_s, "return"_s});
            }
        }
    }
}

void TestExit::busIsMissing()
{
    QFETCH(QStringList, arguments);
    QProcess host;
    start(host, testHost, arguments, WithoutBus);
    checkEnd(host, 1, noBus);
}

void TestExit::busAndSocketAreMissing_data()
{
    busIsMissing_data();
}

// The device-lock client's message comes first, and so alone.
void TestExit::busAndSocketAreMissing()
{
    QFETCH(QStringList, arguments);
    daemon.request(R"({"do":"stop"})");
    QProcess host;
    start(host, testHost, arguments, WithoutBus);
    checkEnd(host, 1, noBus);
}

void TestExit::daemonReturnsWithoutItsSocket_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *storage : storages) {
        for (const char *calls : {"idle", "flight"}) {
            argumentsRow({"app"_s, "client"_s, QLatin1String(storage), QLatin1String(calls), "loop"_s});
        }
    }
}

void TestExit::daemonReturnsWithoutItsSocket()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, testHost, arguments);
    waitReady(host);
    daemon.request(R"({"do":"stop"})");
    daemon.request(R"({"do":"start","socket":false})");
    checkEnd(host, 1, noSocket);
}

void TestExit::daemonHandsOverWithoutASocket_data()
{
    daemonReturnsWithoutItsSocket_data();
}

// The old connection is still open then.
void TestExit::daemonHandsOverWithoutASocket()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, testHost, arguments);
    waitReady(host);
    daemon.request(R"({"do":"accept","how":"refuse"})");
    daemon.request(R"({"do":"release-name"})");
    daemon.request(R"({"do":"own-name"})");
    checkEnd(host, 1, noSocket);
}

// Tokens and challenges are in the messages.
void TestExit::noMessageIsLogged()
{
    qputenv("QDBUS_DEBUG", "1");
    QProcess host;
    start(host, testHost, {"app"_s, "client"_s, "stack"_s, "flight"_s, "return"_s});
    qunsetenv("QDBUS_DEBUG");
    checkEnd(host, 0);
    QVERIFY(said.contains("connected to"_s));
    QVERIFY2(!said.contains("QDBus"_s), qPrintable(said));
}

void TestExit::processEnds_data()
{
    storageRows({"app"_s, "staticapp"_s, "noapp"_s});
}

void TestExit::processEnds()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    for (const char *end : {"return", "exit"}) {
        QProcess host;
        start(host, testHost, arguments + QStringList{QLatin1String(end)});
        checkEnd(host, 0);
    }
}

void TestExit::processEndsAfterItsLoop_data()
{
    daemonReturnsWithoutItsSocket_data();
}

void TestExit::processEndsAfterItsLoop()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, testHost, arguments);
    waitReady(host);
    daemon.emitSignal("Factor", "('quit', @a{sv} {})");
    checkEnd(host, 0);
}

void TestExit::processEndsAfterARestart_data()
{
    daemonReturnsWithoutItsSocket_data();
}

void TestExit::processEndsAfterARestart()
{
    QFETCH(QStringList, arguments);
    for (const char *change : {R"({"do":"restart"})", R"({"do":"handover","keep-old":true})"}) {
        daemon.reset();
        holdCalls();
        QProcess host;
        start(host, testHost, arguments);
        waitReady(host);
        daemon.request(change);
        sendQuit(host);
        checkEnd(host, 0);
    }
}

void TestExit::processEndsWhileTheDaemonIsAway_data()
{
    daemonReturnsWithoutItsSocket_data();
}

void TestExit::processEndsWhileTheDaemonIsAway()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, testHost, arguments);
    waitReady(host);
    daemon.request(R"({"do":"release-name"})");
    daemon.emitSignal("Factor", "('quit', @a{sv} {})");
    checkEnd(host, 0);
}

QTEST_GUILESS_MAIN(TestExit)
#include "tst_exit.moc"
