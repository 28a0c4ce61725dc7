#include "authd/options.h"
#include "test-case.h"

#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>

#include <thread>

/** The link to the daemon: connections, subscriptions and the challenge, across its restarts. */
class TestConnection : public TestCase
{
    Q_OBJECT

private:
    QStringList linkLines() const;

private Q_SLOTS:
    void optionKeysAreAPrefixAndAName();
    void clientsOfTheTwoKindsHaveConnectionsOfTheirOwn();
    void construction();
    void constructionIntrospectsEachInterfaceOnce();
    void destruction();
    void secondClientSharesTheConnection();
    void destructorDisconnectsByNameThoughAnotherUsesIt();
    void everySignalIsSubscribed();
    void subscriptionThatFailsWarnsAndIsToldOf();
    void signalsFromAnySenderAreAccepted();
    void signalsOfOtherPathsAndInterfacesAreIgnored();

    void firstGetRequestsOneChallengeAndTheSecondNone();
    void getRequestsAnewAfterEachFailure_data();
    void getRequestsAnewAfterEachFailure();
    void failedRequestLeavesTheCallToTheDaemon();

    void daemonLeavesWithAChallengeHeldAndReturns();
    void daemonLeavesWithoutAChallengeAndReturns();
    void challengeIsKeptWhileTheDaemonIsAway();
    void challengeFetchedWhileTheNameIsGoneIsKept();
    void challengeFetchedOnTheNewsOfTheLossIsKept();
    void oldConnectionIsKeptWhileTheNameIsGone();
    void signalsAreHeardBeforeTheChallengeIsRequestedAgain();
    void failedRequestAfterTheReturnWarns();
    void nameGoesStraightToAnotherOwner();
    void nameGoesStraightToAnotherOwnerAfterAnEarlierReturn();
    void signalsAreSubscribedOnceAfterEachReturn();
};

namespace {
const QByteArray challenge = "s3cr3t challenge";
const QString address = QStringLiteral("unix:path=/var/run/authd/authd.socket");

} // namespace

// The lines that concern the peer connection and the watched name.
QStringList TestConnection::linkLines() const
{
    return log->lines().filter(QRegularExpression("AuthdConnection|authd reset"_s));
}

void TestConnection::optionKeysAreAPrefixAndAName()
{
    QCOMPARE(Authd::Option::WorkerPrefix, "worker/"_s);
    QCOMPARE(Authd::Option::WorkerPrefix + Authd::Option::CanSwitchToUser, "worker/can-switch-to-user"_s);
    QCOMPARE(Authd::Option::DevlockPrefix + Authd::Option::ShowNotifications, "devlock/show-notifications"_s);
}

void TestConnection::clientsOfTheTwoKindsHaveConnectionsOfTheirOwn()
{
    QCOMPARE(Authd::ClientConnectionName, "authd_p2p_client"_s);
    QCOMPARE(Authd::SettingsConnectionName, "authd_p2p_settings_client"_s);
}

void TestConnection::construction()
{
    AuthClient client;
    SignalRecorder heard(&client);
    QCOMPARE(log->take(),
             (QStringList{R"(debug AuthDevlockClientPrivate Connected to "vantora.AuthService")"_s,
                          R"(debug AuthdConnection "authd_p2p_client" connected to "authd_p2p_client")"_s,
                          R"(debug AuthClientPrivate Connected to "%1")"_s.arg(address)}));
    QVERIFY(waitFor([this] { return log->contains("debug handleStateChanged AuthDevlockClient::Undefined -> 0"_s); }));
    drain(&client);
    QCOMPARE(daemon.calls(), QStringList{systemCall("GetState", "", "()")});
    QCOMPARE(daemon.peerCount(), 1);
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(!client.authenticated());
    QVERIFY(!client.progress());
}

void TestConnection::constructionIntrospectsEachInterfaceOnce()
{
    // What is known of the system bus' object is shared by the whole process.
    const AuthDevlockClient first;
    daemon.clearCalls();
    const AuthClient client;
    QStringList asked;
    const QJsonArray calls = daemon.request(R"({"do":"standard-calls"})").value("calls"_s).toArray();
    for (const QJsonValue &value : calls) {
        const QJsonObject call = value.toObject();
        asked.append(QStringList{call.value("bus"_s).toString(), call.value("path"_s).toString(),
                                 call.value("method"_s).toString()}
                         .join(QLatin1Char(' ')));
    }
    asked.sort();
    QCOMPARE(
        asked,
        (QStringList{"peer /vantora/AuthService Introspect"_s, "peer /vantora/AuthService/Settings Introspect"_s}));
}

void TestConnection::destruction()
{
    static QtMessageHandler recorder;
    static QList<bool> connected;
    connected.clear();
    auto client = newClient();
    QVERIFY(QDBusConnection(Authd::ClientConnectionName).isConnected());
    recorder = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &text) {
        connected.append(QDBusConnection(Authd::ClientConnectionName).isConnected());
        recorder(type, context, text);
    });
    client.reset();
    qInstallMessageHandler(recorder);
    QCOMPARE(log->take(),
             QStringList{R"(debug ~AuthdConnection "authd_p2p_client" disconnected from "authd_p2p_client")"_s});
    // The log tells of what is done.
    QCOMPARE(connected, QList<bool>{false});
    QVERIFY(waitFor([this] {
        drainSystemBus();
        return daemon.peerCount() == 0;
    }));
}

void TestConnection::secondClientSharesTheConnection()
{
    const auto first = newClient();
    const auto second = newClient();
    QCOMPARE(daemon.peerCount(), 1);

    SignalRecorder firstSignals(first.get());
    SignalRecorder secondSignals(second.get());
    daemon.emitSignal("Authenticated", byteTuple("s3cr3t token"));
    drain(first.get());
    drain(second.get());
    QCOMPARE(firstSignals.list(), QStringList{published("s3cr3t token")});
    QCOMPARE(secondSignals.list(), QStringList{published("s3cr3t token")});
}

void TestConnection::destructorDisconnectsByNameThoughAnotherUsesIt()
{
    auto first = newClient();
    const auto second = newClient();
    first.reset();
    QVERIFY(!QDBusConnection(QStringLiteral("authd_p2p_client")).isConnected());

    // The one that is left goes on with its socket, and the next opens one of its own.
    second->unlockIfNeeded();
    daemon.waitCalls("UnlockIfNeeded");
    const auto third = newClient();
    QCOMPARE(daemon.peerCount(), 2);
    drain(second.get());
    drain(third.get());
}

void TestConnection::everySignalIsSubscribed()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    emitSignals({"Authenticated " + byteTuple("s3cr3t token"), "AuthenticationFailed ()", "AuthDataChanged ()",
                 "ChangeAuthDataFailed ()", "UnlockIfNeededFinished (true,)", "Factor ('code', {'type': <'told'>})"});
    drain(client.get());
    QCOMPARE(heard.take(),
             (QStringList{published("s3cr3t token"), "authenticatedChanged()"_s, "discredit()"_s, "authDataChanged()"_s,
                          "changeAuthDataFailed()"_s, "unlockIfNeededFinished(true)"_s,
                          "factorSignal(code, %1)"_s.arg(written(QVariantMap{{"type"_s, "told"_s}}))}));

    daemon.emitSignal("StateChanged", "(5,)");
    drainSystemBus();
    QCOMPARE(log->take(), QStringList{"debug handleStateChanged AuthDevlockClient::Unlocked -> 5"_s});
}

void TestConnection::subscriptionThatFailsWarnsAndIsToldOf()
{
    const auto client = newClient();
    const QDBusConnection bus(Authd::ClientConnectionName);
    QVERIFY(!Authd::connectToAuthdSignal(this, bus, "First"_s, SLOT(noSuchSlot())));
    QVERIFY(!Authd::connectToSettingsSignal(this, bus, "Second"_s, SLOT(noSuchSlot())));
    QVERIFY(!Authd::connectToDevicelockSignal(this, bus, "Third"_s, SLOT(noSuchSlot())));
    QCOMPARE(log->take().filter("Failed"_s),
             (QStringList{R"(warning Failed to connect to "First")"_s, R"(warning Failed to connect to "Second")"_s,
                          R"(warning Failed to connect to "Third")"_s}));
    // The lines are not of the library's sources.
    QCOMPARE(log->takeFaults().size(), 3);

    QVERIFY(Authd::connectToAuthdSignal(this, bus, "First"_s, SLOT(markHeard(int))));
    QVERIFY(Authd::connectToSettingsSignal(this, bus, "Second"_s, SLOT(markHeard(int))));
    QVERIFY(Authd::connectToDevicelockSignal(this, bus, "Third"_s, SLOT(markHeard(int))));
    QCOMPARE(log->take(), QStringList());
}

void TestConnection::signalsFromAnySenderAreAccepted()
{
    const auto client = newClient();
    QDBusConnection stranger = QDBusConnection::connectToBus(QString::fromLocal8Bit(qgetenv("DBUS_SYSTEM_BUS_ADDRESS")),
                                                             QStringLiteral("stranger"));
    QVERIFY2(stranger.isConnected(), qPrintable(stranger.lastError().message()));
    QDBusMessage signal =
        QDBusMessage::createSignal("/vantora/AuthService/Devlock"_s, "vantora.AuthService.Devlock"_s, "StateChanged"_s);
    signal << 3;
    QVERIFY(stranger.send(signal));
    QVERIFY(waitFor([this] { return log->contains("debug handleStateChanged AuthDevlockClient::Unlocked -> 3"_s); }));
    QDBusConnection::disconnectFromBus(QStringLiteral("stranger"));
}

void TestConnection::signalsOfOtherPathsAndInterfacesAreIgnored()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.emitSignal("AuthenticationFailed", "()", R"("path":"/vantora/AuthService/Settings")");
    daemon.emitSignal("AuthenticationFailed", "()", R"("interface":"vantora.AuthService.Settings")");
    daemon.emitSignal("authenticationFailed", "()",
                      R"("bus":"peer","path":"/vantora/AuthService",)"
                      R"("interface":"vantora.AuthService")");
    daemon.emitSignal("Factor", "('code', @a{sv} {})",
                      R"("path":"/vantora/AuthService","interface":"vantora.AuthService")");
    daemon.emitSignal("AuthenticationFailed", "()", R"("bus":"system")");
    daemon.emitSignal("StateChanged", "(1,)", R"("bus":"peer")");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestConnection::firstGetRequestsOneChallengeAndTheSecondNone()
{
    daemon.answer("RequestChallenge", byteTuple(challenge));
    const auto client = newClient();
    client->authenticate("login"_s, {});
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate", 2);
    QCOMPARE(daemon.calls(),
             (QStringList{peerCall("RequestChallenge", "", "()"), loginCall(challenge), loginCall(challenge)}));
}

void TestConnection::getRequestsAnewAfterEachFailure_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("error") << QByteArray("error") << QStringList{R"(warning request failed: "no challenge today")"_s};
    for (const char *other : {"('s3cr3t',)", "(5,)", "(<[byte 0x01]>,)", "()"})
        QTest::newRow(other) << QByteArray(other) << QStringList{"warning request failed: …"_s};
    QTest::newRow("empty challenge is no challenge") << byteTuple({}) << QStringList();
}

void TestConnection::getRequestsAnewAfterEachFailure()
{
    QFETCH(QByteArray, value);
    QFETCH(QStringList, expected);
    if (value == "error")
        daemon.misbehave("RequestChallenge", "error", R"("message":"no challenge today")");
    else
        daemon.answer("RequestChallenge", value);
    const auto client = newClient();
    for (int i = 0; i < 2; ++i) {
        daemon.clearCalls();
        client->authenticate("login"_s, {});
        daemon.waitCalls("Authenticate");
        QCOMPARE(daemon.calls(), (QStringList{peerCall("RequestChallenge", "", "()"), loginCall({})}));
        QCOMPARE(value == "error" ? log->takeComplaints() : withoutTexts(log->takeComplaints()), expected);
    }

    // The next challenge that comes is kept.
    daemon.request(R"({"do":"behave"})");
    daemon.answer("RequestChallenge", byteTuple(challenge));
    daemon.clearCalls();
    client->authenticate("login"_s, {});
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate", 2);
    QCOMPARE(daemon.calls(),
             (QStringList{peerCall("RequestChallenge", "", "()"), loginCall(challenge), loginCall(challenge)}));
}

void TestConnection::failedRequestLeavesTheCallToTheDaemon()
{
    daemon.misbehave("RequestChallenge", "error", R"("message":"no challenge today")");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->authenticate("login"_s, {});
    // The stand-in turns down an empty challenge.
    QVERIFY(waitFor([&] { return heard.list().size() == 4; }));
    QCOMPARE(heard.list(), QStringList({"progressChanged()"_s, "progressChanged()"_s}) + dropSignals);
    QCOMPARE(log->takeComplaints(), QStringList{R"(warning request failed: "no challenge today")"_s});
}

void TestConnection::daemonLeavesWithAChallengeHeldAndReturns()
{
    const auto client = newClient();
    client->authenticate("login"_s, {{"factor"_s, "code"_s}});
    drainAfter(client.get(), "Authenticate");
    log->take();
    daemon.clearCalls();
    SignalRecorder heard(client.get());
    QStringList linesAtDiscredit;
    connect(client.get(), &AuthClient::discredit, this, [&] { linesAtDiscredit = linkLines(); });

    daemon.request(R"({"do":"restart"})");
    awaitReconnection();
    drain(client.get());
    const QString left = R"(debug authd reset "" captured "authd_p2p_client")"_s;
    QCOMPARE(linkLines(),
             (QStringList{left, R"(debug authd reset "%1" captured "authd_p2p_client")"_s.arg(daemon.owner()),
                          R"(debug ~AuthdConnection "authd_p2p_client" disconnected from "authd_p2p_client")"_s,
                          R"(debug AuthdConnection "authd_p2p_client" connected to "authd_p2p_client")"_s}));
    QCOMPARE(linesAtDiscredit, QStringList{left});
    QCOMPARE(heard.list(), dropSignals);
    QCOMPARE(daemon.calls(), QStringList{peerCall("RequestChallenge", "", "()")});
    QCOMPARE(daemon.instancesOf("RequestChallenge"),
             QList<int>{daemon.request(R"({"do":"state"})").value("instance"_s).toInt()});
}

void TestConnection::daemonLeavesWithoutAChallengeAndReturns()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"restart"})");
    awaitReconnection();
    drain(client.get());
    QCOMPARE(heard.list(), dropSignals);
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(daemon.peerCount(), 1);

    // The first use fetches one, from the new instance.
    daemon.answer("RequestChallenge", byteTuple(challenge));
    client->authenticate("login"_s, {});
    QCOMPARE(daemon.waitCalls("Authenticate"), QStringList{loginCall(challenge)});
}

void TestConnection::challengeIsKeptWhileTheDaemonIsAway()
{
    daemon.answer("RequestChallenge", byteTuple(challenge));
    const auto client = newClient();
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    daemon.request(R"({"do":"release-name"})");
    awaitLoss();
    daemon.clearCalls();

    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    QCOMPARE(daemon.calls(), QStringList{loginCall(challenge)});
}

// No challenge was held when the name went, so none is renewed when the name comes back.
void TestConnection::challengeFetchedWhileTheNameIsGoneIsKept()
{
    daemon.answer("RequestChallenge", byteTuple(challenge));
    const auto client = newClient();
    daemon.request(R"({"do":"release-name"})");
    awaitLoss();
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    daemon.clearCalls();

    daemon.request(R"({"do":"own-name"})");
    awaitReconnection();
    drain(client.get());
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    QCOMPARE(daemon.calls(), QStringList{loginCall(challenge)});
}

void TestConnection::signalsAreHeardBeforeTheChallengeIsRequestedAgain()
{
    const auto client = newClient();
    client->authenticate("login"_s, {});
    drainAfter(client.get(), "Authenticate");
    daemon.clearCalls();
    daemon.misbehave("RequestChallenge", "hold");
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"restart"})");
    // While the client waits for the challenge.
    std::thread speaker([] {
        StandIn other;
        other.waitCalls("RequestChallenge");
        other.emitSignal("AuthDataChanged", "()");
        other.request(R"({"do":"release"})");
    });
    awaitReconnection();
    speaker.join();
    drain(client.get());
    QCOMPARE(heard.list(), dropSignals + QStringList{"authDataChanged()"_s});
}

// What counts is the moment when the name goes, before anybody hears of it.
void TestConnection::challengeFetchedOnTheNewsOfTheLossIsKept()
{
    const auto client = newClient();
    connect(client.get(), &AuthClient::discredit, this,
            [&] { QCOMPARE(client->factorMethodWait(echo(5), "code"_s), QVariant(5)); });
    daemon.request(R"({"do":"release-name"})");
    daemon.request(R"({"do":"own-name"})");
    awaitReconnection();
    drain(client.get());
    QCOMPARE(daemon.waitCalls("FactorMethod").size(), 1);
    QCOMPARE(daemon.waitCalls("RequestChallenge").size(), 1);
}

void TestConnection::oldConnectionIsKeptWhileTheNameIsGone()
{
    const auto client = newClient();
    const QJsonArray peers = daemon.request(R"({"do":"state"})").value("peers"_s).toArray();
    daemon.request(R"({"do":"release-name"})");
    awaitLoss();
    drain(client.get());
    QCOMPARE(daemon.request(R"({"do":"state"})").value("peers"_s).toArray(), peers);
    QVERIFY(linkLines().filter("AuthdConnection"_s).isEmpty());
    QVERIFY(QDBusConnection(Authd::ClientConnectionName).isConnected());

    daemon.request(R"({"do":"own-name"})");
    awaitReconnection();
    drain(client.get());
    QCOMPARE(daemon.peerCount(), 1);
    QVERIFY(daemon.request(R"({"do":"state"})").value("peers"_s).toArray() != peers);
}

void TestConnection::failedRequestAfterTheReturnWarns()
{
    const auto client = newClient();
    client->authenticate("login"_s, {});
    drainAfter(client.get(), "Authenticate");
    daemon.clearCalls();
    daemon.misbehave("RequestChallenge", "error", R"("message":"no challenge today","times":1)");
    daemon.request(R"({"do":"restart"})");
    awaitReconnection();
    drain(client.get());
    QCOMPARE(log->takeComplaints(), QStringList{R"(warning request failed: "no challenge today")"_s});
    QCOMPARE(daemon.calls(), QStringList{peerCall("RequestChallenge", "", "()")});

    // The stale challenge is gone.
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    QCOMPARE(daemon.waitCalls("RequestChallenge", 2).size(), 2);
}

void TestConnection::nameGoesStraightToAnotherOwner()
{
    daemon.answer("RequestChallenge", byteTuple(challenge));
    daemon.answer("Authenticate", "(true,)");
    const auto client = newClient();
    client->authenticate("login"_s, {});
    drainAfter(client.get(), "Authenticate");
    daemon.clearCalls();
    log->take();
    SignalRecorder heard(client.get());

    daemon.request(R"({"do":"handover"})");
    awaitReconnection();
    drain(client.get());
    QCOMPARE(linkLines(),
             (QStringList{R"(debug authd reset "%1" captured "authd_p2p_client")"_s.arg(daemon.owner()),
                          R"(debug ~AuthdConnection "authd_p2p_client" disconnected from "authd_p2p_client")"_s,
                          R"(debug AuthdConnection "authd_p2p_client" connected to "authd_p2p_client")"_s}));
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->progress());
    QCOMPARE(daemon.calls(), QStringList());

    // No disappearance was seen, so the challenge is still the old one.
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    QCOMPARE(daemon.calls(), QStringList{loginCall(challenge)});
}

void TestConnection::nameGoesStraightToAnotherOwnerAfterAnEarlierReturn()
{
    const auto client = newClient();
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    daemon.request(R"({"do":"restart"})");
    awaitReconnection();
    drain(client.get());
    daemon.clearCalls();

    // The disappearance belonged to a connection that has been replaced since.
    daemon.request(R"({"do":"handover"})");
    awaitReconnection();
    drain(client.get());
    QCOMPARE(daemon.calls(), QStringList());
}

void TestConnection::signalsAreSubscribedOnceAfterEachReturn()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    for (int i = 0; i < 3; ++i) {
        daemon.request(i == 1 ? R"({"do":"handover"})" : R"({"do":"restart"})");
        awaitReconnection();
        drain(client.get());
        heard.take();
        emitSignals({"AuthDataChanged ()", "UnlockIfNeededFinished (false,)", "Factor ('code', @a{sv} {})"});
        drain(client.get());
        QCOMPARE(heard.take(),
                 (QStringList{"authDataChanged()"_s, "unlockIfNeededFinished(false)"_s,
                              "factorSignal(code, %1)"_s.arg(written(QVariantMap()))}));
    }
}

QTEST_GUILESS_MAIN(TestConnection)
#include "tst_connection.moc"
