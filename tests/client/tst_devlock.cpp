#include "test-case.h"

#include <atomic>
#include <thread>

/** AuthDevlockClient. */
class TestDevlock : public TestCase
{
    Q_OBJECT

private:
    std::unique_ptr<AuthDevlockClient> newDevlockClient();

private Q_SLOTS:
    void freshClientKnowsNothing();
    void getState_data();
    void getState();
    void constructionUsesTheSystemBusAlone();
    void destructionIsSilent();
    void lateAnswerCounts_data();
    void lateAnswerCounts();

    void changesAreFollowed();
    void changeIsLoggedBeforeItIsAnnounced();
    void repeatedStateIsNotNews();
    void numbersOutsideTheRangeAreKept_data();
    void numbersOutsideTheRangeAreKept();
    void setStateCallsAndChangesNothingHere_data();
    void setStateCallsAndChangesNothingHere();
    void setStateWaitsForTheAnswer();
    void setStateIsFollowedByTheDaemonsNotice();
    void setStateWithoutADaemonIsNotReported();
    void statePropertyIsWritable();

    void daemonRestarts();
    void daemonHandsOver();
    void daemonLeavesBeforeItAnswers();
    void twoClientsFollowEachByItself();
    void daemonComesLater();
    void clientIsOwnedByItsParent();
};

namespace {
QString change(const char *from, int to)
{
    return QStringLiteral("debug handleStateChanged AuthDevlockClient::%1 -> %2").arg(QLatin1String(from)).arg(to);
}

const QString connected = QStringLiteral(R"(debug AuthDevlockClientPrivate Connected to "vantora.AuthService")");
} // namespace

std::unique_ptr<AuthDevlockClient> TestDevlock::newDevlockClient()
{
    auto client = std::make_unique<AuthDevlockClient>();
    if (!waitFor([&client] { return client->state() == AuthDevlockClient::Unlocked; }))
        qFatal("The client does not hear the device-lock state");
    log->take();
    daemon.clearCalls();
    return client;
}

void TestDevlock::freshClientKnowsNothing()
{
    const AuthDevlockClient client;
    QCOMPARE(client.state(), AuthDevlockClient::Undefined);
    QVERIFY(client.enabled());
}

void TestDevlock::getState_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("state");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("first state comes with the answer")
        << QByteArray("(3,)") << int(AuthDevlockClient::CodeEntryLockout) << QStringList{change("Undefined", 3)};
    QTest::newRow("undefined answer is not news")
        << QByteArray("(4,)") << int(AuthDevlockClient::Undefined) << QStringList();
    QTest::newRow("failed call warns") << QByteArray("error") << int(AuthDevlockClient::Undefined)
                                       << QStringList{R"(warning failed: "went wrong")"_s};
    for (const char *value : {"()", "('1',)", "(uint32 1,)", "(int64 1,)", "(<1>,)", "(true,)", "([1],)", "((1,),)"})
        QTest::newRow(value) << QByteArray(value) << int(AuthDevlockClient::Undefined)
                             << QStringList{"warning failed: …"_s};
}

void TestDevlock::getState()
{
    QFETCH(QByteArray, value);
    QFETCH(int, state);
    QFETCH(QStringList, expected);
    if (value == "error")
        daemon.misbehave("GetState", "error", R"("message":"went wrong")");
    else
        daemon.answer("GetState", value);
    AuthDevlockClient client;
    SignalRecorder heard(&client);
    QCOMPARE(log->take(), QStringList{connected});
    daemon.waitCalls("GetState");
    drainSystemBus();
    QCOMPARE(int(client.state()), state);
    QVERIFY(client.enabled());
    QCOMPARE(heard.list(), state == AuthDevlockClient::Undefined ? QStringList() : QStringList{"stateChanged()"_s});
    QCOMPARE(daemon.calls(), QStringList{systemCall("GetState", "", "()")});
    QCOMPARE(value == "error" ? log->take() : withoutTexts(log->take()), expected);
}

void TestDevlock::constructionUsesTheSystemBusAlone()
{
    const auto client = newDevlockClient();
    QCOMPARE(daemon.peerCount(), 0);
}

void TestDevlock::destructionIsSilent()
{
    auto client = newDevlockClient();
    SignalRecorder heard(client.get());
    client.reset();
    drainSystemBus();
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(log->take(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());
}

void TestDevlock::lateAnswerCounts_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("stateBefore");
    QTest::addColumn<int>("stateAfter");
    QTest::addColumn<int>("changes");
    QTest::newRow("nothing before") << QByteArray(R"({"do":"ping"})") << 4 << 0 << 1;
    QTest::newRow("a signal of the same state before") << QByteArray(R"({"do":"set-lock","state":2})") << 2 << 2 << 1;
    // The stand-in knows nothing of the signal that it is told to send.
    QTest::newRow("a signal of another state before")
        << QByteArray(R"-({"do":"emit","signal":"StateChanged","args":"(5,)"})-") << 5 << 0 << 2;
}

void TestDevlock::lateAnswerCounts()
{
    QFETCH(QByteArray, request);
    QFETCH(int, stateBefore);
    QFETCH(int, stateAfter);
    QFETCH(int, changes);
    daemon.misbehave("GetState", "hold");
    AuthDevlockClient client;
    SignalRecorder heard(&client);
    daemon.waitCalls("GetState");
    daemon.request(request);
    drainSystemBus();
    QCOMPARE(int(client.state()), stateBefore);
    daemon.request(R"({"do":"release"})");
    drainSystemBus();
    QCOMPARE(int(client.state()), stateAfter);
    QCOMPARE(heard.list().count("stateChanged()"_s), changes);
    QCOMPARE(heard.list().size(), changes);
}

void TestDevlock::changesAreFollowed()
{
    const auto client = newDevlockClient();
    SignalRecorder heard(client.get());
    QList<int> seen;
    connect(client.get(), &AuthDevlockClient::stateChanged, this, [&] { seen.append(client->state()); });
    for (int state : {1, 2, 3, 4, 5, 0})
        daemon.emitSignal("StateChanged", '(' + QByteArray::number(state) + ",)");
    drainSystemBus();
    QCOMPARE(seen, (QList<int>{1, 2, 3, 4, 5, 0}));
    QCOMPARE(heard.list().size(), 6);
    QCOMPARE(log->take(),
             (QStringList{change("Unlocked", 1), change("Locked", 2), change("ManagerLockout", 3),
                          change("CodeEntryLockout", 4), change("Undefined", 5), change("SecurityUi", 0)}));
}

void TestDevlock::changeIsLoggedBeforeItIsAnnounced()
{
    const auto client = newDevlockClient();
    QStringList linesAtChange;
    connect(client.get(), &AuthDevlockClient::stateChanged, this, [&] { linesAtChange = log->lines(); });
    daemon.emitSignal("StateChanged", "(5,)");
    drainSystemBus();
    QCOMPARE(linesAtChange, QStringList{change("Unlocked", 5)});
}

void TestDevlock::repeatedStateIsNotNews()
{
    const auto client = newDevlockClient();
    SignalRecorder heard(client.get());
    daemon.emitSignal("StateChanged", "(0,)");
    drainSystemBus();
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestDevlock::numbersOutsideTheRangeAreKept_data()
{
    numberRows("state", {6, 42, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()});
}

void TestDevlock::numbersOutsideTheRangeAreKept()
{
    QFETCH(int, state);
    daemon.request(R"({"do":"set-lock","state":)" + QByteArray::number(state) + '}');
    AuthDevlockClient client;
    SignalRecorder heard(&client);
    daemon.waitCalls("GetState");
    drainSystemBus();
    QCOMPARE(int(client.state()), state);
    daemon.emitSignal("StateChanged", "(1,)");
    daemon.emitSignal("StateChanged", '(' + QByteArray::number(state) + ",)");
    drainSystemBus();
    QCOMPARE(int(client.state()), state);
    QCOMPARE(heard.list().size(), 3);
    QCOMPARE(log->take(),
             (QStringList{connected, change("Undefined", state),
                          "debug handleStateChanged AuthDevlockClient::LockState(%1) -> 1"_s.arg(state),
                          change("Locked", state)}));
}

void TestDevlock::setStateCallsAndChangesNothingHere_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QByteArray>("value");
    // The state held, 0, is sent like the others.
    for (int state : {0, 1, 2, 3, 4, 5, 42, -1})
        QTest::addRow("%d", state) << state << QByteArray("()");
    QTest::newRow("any reply is taken") << 1 << QByteArray("('what', <5>, [true])");
    QTest::newRow("a refusal is not reported") << 1 << QByteArray("error");
}

void TestDevlock::setStateCallsAndChangesNothingHere()
{
    QFETCH(int, state);
    QFETCH(QByteArray, value);
    if (value == "error")
        daemon.misbehave("SetState", "error", R"("message":"went wrong")");
    else
        daemon.answer("SetState", value);
    const auto client = newDevlockClient();
    SignalRecorder heard(client.get());
    client->setState(AuthDevlockClient::LockState(state));
    QCOMPARE(daemon.calls(), QStringList{systemCall("SetState", "i", '(' + QByteArray::number(state) + ",)")});
    drainSystemBus();
    QCOMPARE(client->state(), AuthDevlockClient::Unlocked);
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestDevlock::setStateWaitsForTheAnswer()
{
    daemon.misbehave("SetState", "hold");
    const auto client = newDevlockClient();
    std::atomic_bool released = false;
    std::thread releaser([&released] {
        StandIn other;
        other.waitCalls("SetState");
        released = true;
        other.request(R"({"do":"release"})");
    });
    client->setState(AuthDevlockClient::Locked);
    const bool waited = released;
    releaser.join();
    QVERIFY(waited);
    drainSystemBus();
    QCOMPARE(client->state(), AuthDevlockClient::Locked);
}

void TestDevlock::setStateIsFollowedByTheDaemonsNotice()
{
    const auto client = newDevlockClient();
    SignalRecorder heard(client.get());
    client->setState(AuthDevlockClient::Locked);
    QCOMPARE(client->state(), AuthDevlockClient::Unlocked);
    QCOMPARE(heard.list(), QStringList());
    drainSystemBus();
    QCOMPARE(client->state(), AuthDevlockClient::Locked);
    QCOMPARE(heard.list(), QStringList{"stateChanged()"_s});
}

void TestDevlock::setStateWithoutADaemonIsNotReported()
{
    const auto client = newDevlockClient();
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"stop"})");
    client->setState(AuthDevlockClient::Locked);
    QVERIFY(waitFor([&] { return client->state() == AuthDevlockClient::Undefined; }));
    QCOMPARE(log->take(), QStringList{change("Unlocked", 4)});
}

void TestDevlock::statePropertyIsWritable()
{
    const auto client = newDevlockClient();
    QVERIFY(client->setProperty("state", QVariant::fromValue(AuthDevlockClient::SecurityUi)));
    QCOMPARE(daemon.calls(), QStringList{systemCall("SetState", "i", "(5,)")});
    drainSystemBus();
    QCOMPARE(client->property("state").value<AuthDevlockClient::LockState>(), AuthDevlockClient::SecurityUi);
    QCOMPARE(client->property("enabled"), QVariant(true));
}

void TestDevlock::daemonRestarts()
{
    const auto client = newDevlockClient();
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"stop"})");
    QVERIFY(waitFor([&] { return client->state() == AuthDevlockClient::Undefined; }));
    daemon.request(R"({"do":"start"})");
    drainSystemBus();
    QCOMPARE(client->state(), AuthDevlockClient::Undefined);
    QCOMPARE(heard.take(), QStringList{"stateChanged()"_s});
    QCOMPARE(daemon.calls(), QStringList());

    daemon.emitSignal("StateChanged", "(5,)");
    drainSystemBus();
    QCOMPARE(client->state(), AuthDevlockClient::SecurityUi);
    QCOMPARE(heard.list(), QStringList{"stateChanged()"_s});
    QCOMPARE(log->take(), (QStringList{change("Unlocked", 4), change("Undefined", 5)}));
}

void TestDevlock::daemonHandsOver()
{
    const auto client = newDevlockClient();
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"handover"})");
    drainSystemBus();
    QCOMPARE(client->state(), AuthDevlockClient::Unlocked);
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestDevlock::daemonLeavesBeforeItAnswers()
{
    daemon.misbehave("GetState", "hold");
    AuthDevlockClient client;
    SignalRecorder heard(&client);
    daemon.waitCalls("GetState");
    daemon.request(R"({"do":"stop"})");
    QVERIFY(waitFor([this] { return !log->lines().filter("warning failed: "_s).isEmpty(); }));
    QCOMPARE(log->takeComplaints().size(), 1);
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(client.state(), AuthDevlockClient::Undefined);
}

void TestDevlock::twoClientsFollowEachByItself()
{
    const auto first = newDevlockClient();
    const auto second = newDevlockClient();
    SignalRecorder firstSignals(first.get());
    SignalRecorder secondSignals(second.get());
    first->setState(AuthDevlockClient::SecurityUi);
    drainSystemBus();
    QCOMPARE(first->state(), AuthDevlockClient::SecurityUi);
    QCOMPARE(second->state(), AuthDevlockClient::SecurityUi);
    QCOMPARE(firstSignals.list(), QStringList{"stateChanged()"_s});
    QCOMPARE(secondSignals.list(), QStringList{"stateChanged()"_s});
}

void TestDevlock::daemonComesLater()
{
    daemon.request(R"({"do":"stop"})");
    AuthDevlockClient client;
    SignalRecorder heard(&client);
    QVERIFY(waitFor([this] { return !log->lines().filter("warning failed: "_s).isEmpty(); }));
    QCOMPARE(log->takeComplaints().size(), 1);
    QCOMPARE(client.state(), AuthDevlockClient::Undefined);
    daemon.request(R"({"do":"start"})");
    daemon.emitSignal("StateChanged", "(1,)");
    drainSystemBus();
    QCOMPARE(client.state(), AuthDevlockClient::Locked);
    QCOMPARE(heard.list(), QStringList{"stateChanged()"_s});
    QCOMPARE(daemon.calls(), QStringList());
}

void TestDevlock::clientIsOwnedByItsParent()
{
    auto parent = std::make_unique<QObject>();
    const QPointer<AuthDevlockClient> client = new AuthDevlockClient(parent.get());
    QCOMPARE(client->parent(), parent.get());
    parent.reset();
    QVERIFY(!client);
}

QTEST_GUILESS_MAIN(TestDevlock)
#include "tst_devlock.moc"
