#include "host-test-case.h"

/** How processes end: with status 1 when the daemon cannot be reached, and otherwise as they please. */
class TestExit : public HostTestCase
{
    Q_OBJECT

private Q_SLOTS:
    void hostThatCannotBeginEnds_data();
    void hostThatCannotBeginEnds();
    void socketIsMissingForASecondClient_data();
    void socketIsMissingForASecondClient();
    void daemonReturnsWithoutItsSocket_data();
    void daemonReturnsWithoutItsSocket();
    void noMessageIsLogged();
    void deviceIsLockedAsTheLoopBegins_data();
    void deviceIsLockedAsTheLoopBegins();

    void processEnds_data();
    void processEnds();
    void processEndsAfterItsLoop_data();
    void processEndsAfterItsLoop();

    void failedSubscriptionsWarn_data();
    void failedSubscriptionsWarn();
};

namespace {
const QString testHost = QStringLiteral(TEST_HOST);

const QString noSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" ".+")");
// QDBusConnection of Qt 5.15 may know of no error when the connection was closed later.
const QString closedSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" ".*")");

const QStringList applications{"app"_s, "staticapp"_s, "noapp"_s};
const QStringList kinds{"client"_s, "devlock"_s};
const QStringList storages{"stack"_s, "heap"_s, "static"_s, "namespace"_s, "child"_s};
const QStringList bothCalls{"idle"_s, "flight"_s};

/** All that hosts can be told, a row each, called like it. */
QList<QStringList> products(const QList<QStringList> &choices)
{
    QList<QStringList> result{{}};
    for (const QStringList &choice : choices) {
        QList<QStringList> longer;
        for (const QStringList &begin : qAsConst(result)) {
            for (const QString &word : choice)
                longer.append(begin + QStringList{word});
        }
        result = longer;
    }
    return result;
}

void argumentsRows(const QList<QStringList> &choices)
{
    QTest::addColumn<QStringList>("arguments");
    for (const QStringList &arguments : products(choices))
        argumentsRow(arguments);
}
} // namespace

void TestExit::hostThatCannotBeginEnds_data()
{
    QTest::addColumn<QByteArrayList>("requests");
    QTest::addColumn<bool>("hasBus");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("critical");
    const auto rows = [](const char *name, const QByteArrayList &requests, bool hasBus, const QStringList &hostKinds,
                         const QString &critical) {
        for (const QStringList &arguments : products({applications, hostKinds, storages, {"idle"_s}, {"return"_s}}))
            QTest::addRow("%s, %s", name, qPrintable(arguments.join(QLatin1Char(' '))))
                << requests << hasBus << arguments << critical;
    };
    rows("socket is missing", {R"({"do":"stop"})"}, true, {"client"_s}, noSocket);
    rows("socket accepts and closes", {R"({"do":"accept","how":"close"})"}, true, {"client"_s}, closedSocket);
    rows("bus is missing", {}, false, kinds, noBus);
    // The device-lock client's message comes first, and so alone.
    rows("bus and socket are missing", {R"({"do":"stop"})"}, false, kinds, noBus);
}

void TestExit::hostThatCannotBeginEnds()
{
    QFETCH(QByteArrayList, requests);
    QFETCH(bool, hasBus);
    QFETCH(QStringList, arguments);
    QFETCH(QString, critical);
    for (const QByteArray &request : requests)
        daemon.request(request);
    QProcess host;
    start(host, testHost, arguments, hasBus ? WithBus : WithoutBus);
    checkEnd(host, 1, critical);
}

void TestExit::socketIsMissingForASecondClient_data()
{
    argumentsRows({applications, kinds, storages, bothCalls});
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

void TestExit::daemonReturnsWithoutItsSocket_data()
{
    QTest::addColumn<QByteArrayList>("requests");
    QTest::addColumn<QStringList>("arguments");
    for (const QStringList &arguments : products({{"app"_s}, {"client"_s}, storages, bothCalls, {"loop"_s}})) {
        const QString name = arguments.join(QLatin1Char(' '));
        QTest::addRow("restart, %s", qPrintable(name))
            << QByteArrayList{R"({"do":"stop"})", R"({"do":"start","socket":false})"} << arguments;
        // The old connection is still open then.
        QTest::addRow("handover, %s", qPrintable(name))
            << QByteArrayList{R"({"do":"accept","how":"refuse"})", R"({"do":"release-name"})", R"({"do":"own-name"})"}
            << arguments;
    }
}

void TestExit::daemonReturnsWithoutItsSocket()
{
    QFETCH(QByteArrayList, requests);
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, testHost, arguments);
    waitReady(host);
    for (const QByteArray &request : requests)
        daemon.request(request);
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

void TestExit::deviceIsLockedAsTheLoopBegins_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *application : {"app", "staticapp"}) {
        for (const QString &storage : storages)
            argumentsRow({QLatin1String(application), "devlock"_s, storage, "idle"_s, "loop"_s});
    }
}

// Qt 5.15 takes no notice of the bus before.
void TestExit::deviceIsLockedAsTheLoopBegins()
{
    QFETCH(QStringList, arguments);
    QProcess host;
    start(host, testHost, arguments);
    checkEnd(host, 0);
    QCOMPARE(daemon.calls().filter("SetState"_s).size(), 1);
}

void TestExit::processEnds_data()
{
    argumentsRows({applications, kinds, storages, bothCalls});
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
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QStringList>("arguments");
    for (const QStringList &arguments : products({{"app"_s}, {"client"_s}, storages, bothCalls, {"loop"_s}})) {
        const auto row = [&](const char *name, const char *request) {
            QTest::addRow("%s, %s", name, qPrintable(arguments.join(QLatin1Char(' '))))
                << QByteArray(request) << arguments;
        };
        row("nothing happens", "");
        row("the daemon restarts", R"({"do":"restart"})");
        row("the daemon hands over", R"({"do":"handover","keep-old":true})");
        row("the daemon is away", R"({"do":"release-name"})");
    }
}

void TestExit::processEndsAfterItsLoop()
{
    QFETCH(QByteArray, request);
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, testHost, arguments);
    waitReady(host);
    if (!request.isEmpty())
        daemon.request(request);
    if (request.isEmpty() || request.contains("release-name"))
        daemon.emitSignal("Factor", "('quit', @a{sv} {})");
    else
        sendQuit(host);
    checkEnd(host, 0);
}

void TestExit::failedSubscriptionsWarn_data()
{
    QTest::addColumn<QStringList>("expected");
    const auto failed = [](const QStringList &signalNames) {
        QStringList lines;
        for (const QString &name : signalNames)
            lines.append(R"(warning authd/options.h Failed to connect to "%1")"_s.arg(name));
        return lines;
    };
    const QString ownerChanges = R"(warning src/auth-devlock-client.cpp Failed to connect to )"
                                 R"('serviceOwnerChanged' signal "qt_default_system_bus" "")"_s;
    const QStringList devlock = failed({"StateChanged"_s}) + QStringList{ownerChanges};
    const QStringList client = devlock
        + failed({"Authenticated"_s, "AuthenticationFailed"_s, "AuthDataChanged"_s, "ChangeAuthDataFailed"_s,
                  "UnlockIfNeededFinished"_s, "Factor"_s});
    QTest::newRow("devlock") << devlock;
    QTest::newRow("client") << client;
    QTest::newRow("settings") << client + failed({"OptionChanged"_s, "UserOptionChanged"_s});
}

// In a host where no subscription can be made, each is complained of, and the host goes on all the same.
void TestExit::failedSubscriptionsWarn()
{
    QFETCH(QStringList, expected);
    QProcess host;
    start(host, QStringLiteral(DEAF_HOST), {QString::fromLatin1(QTest::currentDataTag())});
    QVERIFY(host.waitForFinished(300000));
    QCOMPARE(host.exitCode(), 0);
    const QStringList lines = QString::fromUtf8(host.readAllStandardError()).split(QLatin1Char('\n'));
    QCOMPARE(lines.filter("warning"_s), expected);
}

QTEST_GUILESS_MAIN(TestExit)
#include "tst_exit.moc"
