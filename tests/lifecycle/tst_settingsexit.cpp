#include "host-test-case.h"

/** How processes with settings clients end: with status 1 when there is no daemon, and otherwise as they please. */
class TestSettingsExit : public HostTestCase
{
    Q_OBJECT

private Q_SLOTS:
    void socketIsMissing_data();
    void socketIsMissing();
    void socketAcceptsAndCloses_data();
    void socketAcceptsAndCloses();
    void busIsMissing_data();
    void busIsMissing();
    void socketIsMissingForASecondClient_data();
    void socketIsMissingForASecondClient();
    void daemonReturnsWithoutItsSocket_data();
    void daemonReturnsWithoutItsSocket();
    void daemonDiesWhileTheObjectIsMade_data();
    void daemonDiesWhileTheObjectIsMade();

    void processEnds_data();
    void processEnds();
    void processEndsAfterAnotherClientWasDeleted_data();
    void processEndsAfterAnotherClientWasDeleted();
    void processEndsAfterItsLoop_data();
    void processEndsAfterItsLoop();
    void processEndsAfterARestart_data();
    void processEndsAfterARestart();
    void processEndsWhileTheDaemonIsAway_data();
    void processEndsWhileTheDaemonIsAway();
    void singletonIsDeletedBeforeTheProcessEnds_data();
    void singletonIsDeletedBeforeTheProcessEnds();

    void qmlEnds_data();
    void qmlEnds();
    void qmlEndsAfterItsLoop_data();
    void qmlEndsAfterItsLoop();
    void qmlFollowsTheDaemon_data();
    void qmlFollowsTheDaemon();

    void libraryStaysWhenAPluginIsUnloaded_data();
    void libraryStaysWhenAPluginIsUnloaded();
};

namespace {
const QString settingsHost = QStringLiteral(SETTINGS_HOST);
const QString qmlHost = QStringLiteral(SETTINGS_QML_HOST);
const QString unloadHost = QStringLiteral(UNLOAD_HOST);

const QString noSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_settings_client" ".+")");
// QDBusConnection may know of no error when the connection was closed later.
const QString closedSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_settings_client" ".*")");

const QStringList all{QStringLiteral("app"), QStringLiteral("staticapp"), QStringLiteral("noapp")};
const QStringList calls{QStringLiteral("idle"), QStringLiteral("flight")};

// A process takes memcheck seconds, and what it finds there hardly depends on how the words of a row combine: it is
// given every third row.
void sampledRow(const QStringList &arguments)
{
    static const bool isUnderARunner = !qEnvironmentVariableIsEmpty("AUTH_TEST_RUNNER");
    static int row = 0;
    if (row++ % 3 == 0 || !isUnderARunner)
        argumentsRow(arguments);
}

// Each class with each of its storages.
void hostRows(const QStringList &applications, const QStringList &callsUnderWay)
{
    QTest::addColumn<QStringList>("arguments");
    for (const QString &application : applications) {
        for (const QString &flight : callsUnderWay) {
            for (const char *kind : {"singleton", "late"})
                sampledRow({application, QLatin1String(kind), QStringLiteral("none"), flight});
            for (const char *kind : {"client", "only", "factor", "user"}) {
                for (const char *storage : {"stack", "heap", "static", "namespace", "child"})
                    sampledRow({application, QLatin1String(kind), QLatin1String(storage), flight});
            }
        }
    }
}

void qmlRows(const QStringList &callsUnderWay)
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *exposure : {"context", "instance", "provider"}) {
        for (const char *engine : {"before", "unused", "after", "never"}) {
            for (const QString &flight : callsUnderWay) {
                sampledRow({QLatin1String(exposure), QLatin1String(engine), flight});
            }
        }
    }
}
} // namespace

void TestSettingsExit::socketIsMissing_data()
{
    hostRows(all, {"idle"_s});
}

void TestSettingsExit::socketIsMissing()
{
    QFETCH(QStringList, arguments);
    daemon.request(R"({"do":"stop"})");
    QProcess host;
    start(host, settingsHost, arguments + QStringList{"return"_s});
    checkEnd(host, 1, noSocket);
}

void TestSettingsExit::socketAcceptsAndCloses_data()
{
    hostRows(all, {"idle"_s});
}

void TestSettingsExit::socketAcceptsAndCloses()
{
    QFETCH(QStringList, arguments);
    daemon.request(R"({"do":"accept","how":"close"})");
    QProcess host;
    start(host, settingsHost, arguments + QStringList{"return"_s});
    checkEnd(host, 1, closedSocket);
}

void TestSettingsExit::busIsMissing_data()
{
    hostRows(all, {"idle"_s});
}

void TestSettingsExit::busIsMissing()
{
    QFETCH(QStringList, arguments);
    QProcess host;
    start(host, settingsHost, arguments + QStringList{"return"_s}, WithoutBus);
    checkEnd(host, 1, noBus);
}

void TestSettingsExit::socketIsMissingForASecondClient_data()
{
    hostRows(all, calls);
}

void TestSettingsExit::socketIsMissingForASecondClient()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, settingsHost, arguments + QStringList{"second"_s});
    waitReady(host);
    daemon.request(R"({"do":"stop"})");
    host.write("\n");
    checkEnd(host, 1, closedSocket);
}

void TestSettingsExit::daemonReturnsWithoutItsSocket_data()
{
    hostRows({"app"_s, "staticapp"_s}, calls);
}

void TestSettingsExit::daemonReturnsWithoutItsSocket()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, settingsHost, arguments + QStringList{"loop"_s});
    waitReady(host);
    daemon.request(R"({"do":"stop"})");
    daemon.request(R"({"do":"start","socket":false})");
    checkEnd(host, 1, noSocket);
}

void TestSettingsExit::daemonDiesWhileTheObjectIsMade_data()
{
    hostRows(all, {"idle"_s});
}

// The socket was there, so the client comes up, and shows nothing.
void TestSettingsExit::daemonDiesWhileTheObjectIsMade()
{
    QFETCH(QStringList, arguments);
    daemon.misbehave("GetOption", "crash");
    QProcess host;
    start(host, settingsHost, arguments + QStringList{"return"_s});
    // Where the host makes two, the second finds no socket.
    if (arguments.at(1) == "client"_s || arguments.at(1) == "late"_s)
        checkEnd(host, 1, closedSocket);
    else
        checkEnd(host, 3);
}

void TestSettingsExit::processEnds_data()
{
    hostRows(all, calls);
}

void TestSettingsExit::processEnds()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    for (const char *end : {"return", "exit"}) {
        QProcess host;
        start(host, settingsHost, arguments + QStringList{QLatin1String(end)});
        checkEnd(host, 0);
    }
}

void TestSettingsExit::processEndsAfterAnotherClientWasDeleted_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const QString &application : all) {
        for (const char *kind : {"singleton", "late", "client", "factor"}) {
            for (const QString &flight : calls) {
                argumentsRow({application, QLatin1String(kind), "static"_s, flight, "deleted"_s});
            }
        }
    }
}

void TestSettingsExit::processEndsAfterAnotherClientWasDeleted()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, settingsHost, arguments);
    checkEnd(host, 0);
}

void TestSettingsExit::processEndsAfterItsLoop_data()
{
    hostRows({"app"_s, "staticapp"_s}, calls);
}

void TestSettingsExit::processEndsAfterItsLoop()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, settingsHost, arguments + QStringList{"loop"_s});
    waitReady(host);
    sendQuit(host);
    checkEnd(host, 0);
}

void TestSettingsExit::processEndsAfterARestart_data()
{
    hostRows({"app"_s, "staticapp"_s}, calls);
}

void TestSettingsExit::processEndsAfterARestart()
{
    QFETCH(QStringList, arguments);
    for (const char *change : {R"({"do":"restart"})", R"({"do":"handover","keep-old":true})"}) {
        daemon.reset();
        holdCalls();
        QProcess host;
        start(host, settingsHost, arguments + QStringList{"loop"_s});
        waitReady(host);
        daemon.request(change);
        sendQuit(host);
        checkEnd(host, 0);
    }
}

void TestSettingsExit::processEndsWhileTheDaemonIsAway_data()
{
    hostRows({"app"_s, "staticapp"_s}, calls);
}

void TestSettingsExit::processEndsWhileTheDaemonIsAway()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, settingsHost, arguments + QStringList{"loop"_s});
    waitReady(host);
    daemon.request(R"({"do":"release-name"})");
    sendQuit(host);
    checkEnd(host, 0);
}

void TestSettingsExit::singletonIsDeletedBeforeTheProcessEnds_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const QString &application : all) {
        for (const QString &flight : calls) {
            for (const char *end : {"return", "exit"}) {
                argumentsRow({application, "singleton"_s, "none"_s, flight, QLatin1String(end)});
            }
        }
    }
}

void TestSettingsExit::singletonIsDeletedBeforeTheProcessEnds()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, settingsHost, arguments);
    checkEnd(host, 0);
    QCOMPARE(said.count(R"( AuthdConnection "authd_p2p_settings_client" connected)"_s), 1);
    // What is left when the process ends is disconnected, too, but without the pattern of the program's messages.
    QCOMPARE(said.count(R"( ~AuthdConnection "authd_p2p_settings_client" disconnected)"_s), 1);
}

void TestSettingsExit::qmlEnds_data()
{
    qmlRows(calls);
}

void TestSettingsExit::qmlEnds()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    for (const char *end : {"return", "exit"}) {
        QProcess host;
        start(host, qmlHost, arguments + QStringList{QLatin1String(end)});
        checkEnd(host, 0);
    }
}

void TestSettingsExit::qmlEndsAfterItsLoop_data()
{
    qmlRows(calls);
}

void TestSettingsExit::qmlEndsAfterItsLoop()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, qmlHost, arguments + QStringList{"loop"_s});
    waitReady(host);
    daemon.changeOption("worker/disabled-factors", R"(["sudis"])", 1000);
    daemon.changeOption("worker/service-factors/login", R"(["smartcard"])", 1000);
    sendQuit(host);
    checkEnd(host, 0);
}

void TestSettingsExit::qmlFollowsTheDaemon_data()
{
    qmlRows({"idle"_s});
}

// Through the loss of the daemon, and of the rows.
void TestSettingsExit::qmlFollowsTheDaemon()
{
    QFETCH(QStringList, arguments);
    QProcess host;
    start(host, qmlHost, arguments + QStringList{"loop"_s});
    waitReady(host);
    daemon.changeOption("worker/is-user-settable", "false", 1000);
    daemon.request(R"({"do":"restart"})");
    daemon.changeOption("worker/is-user-settable", "true", 1000);
    sendQuit(host);
    checkEnd(host, 0);
}

void TestSettingsExit::libraryStaysWhenAPluginIsUnloaded_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *application : {"app", "noapp"}) {
        for (const QString &flight : calls)
            argumentsRow({QLatin1String(application), flight});
    }
}

// Qt keeps pointers to code and texts of the library that it has once been given.
void TestSettingsExit::libraryStaysWhenAPluginIsUnloaded()
{
    QFETCH(QStringList, arguments);
    for (int i = 0; i < 5; ++i) {
        daemon.misbehave("Authenticate", "hold");
        daemon.misbehave("UnlockIfNeeded", "hold");
        QProcess host;
        start(host, unloadHost, arguments + QStringList{QStringLiteral(SETTINGS_PLUGIN)});
        checkEnd(host, 0);
        // The one object, and another in each round.
        QCOMPARE(said.count("AuthSettingsClientPrivate Connected"_s), 1 + 3);
    }
}

QTEST_GUILESS_MAIN(TestSettingsExit)
#include "tst_settingsexit.moc"
