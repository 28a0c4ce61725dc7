#include "test-case.h"

/** Locking, unlocking and forgetting the token. */
class TestLockControl : public TestCase
{
    Q_OBJECT

private Q_SLOTS:
    void setLockedIsRefusedHere_data();
    void setLockedIsRefusedHere();
    void setLockedSendsTokenAndState_data();
    void setLockedSendsTokenAndState();
    void setLockedFails_data();
    void setLockedFails();
    void setLockedChangesNothingHere();
    void setLockedDeliversSignalsAfterwards();
    void lockingDropsTheTokenWhenTheDaemonAnnouncesIt();

    void unlockIfNeeded_data();
    void unlockIfNeeded();
    void unlockIfNeededWithoutAPeerFailsOnce();
    void unlockIfNeededLosesItsPeerAndFailsOnce();

    void drop_data();
    void drop();
    void dropEndsTheRequestBeforeItForgetsTheToken();
    void tokenIsGoneWhenTheDropIsAnnounced();
    void dropInsideADropHandler();

    void callsThatDoNothing_data();
    void callsThatDoNothing();
};

namespace {
const QByteArray token = "s3cr3t token";
const QString noToken = QStringLiteral("warning setLocked m_authToken is empty, not authenticated request");
const QString finished = QStringLiteral("unlockIfNeededFinished(%1)");

QString lockCall(int state)
{
    return peerCall("SetDevlockState", "ayi", '(' + bytes(token) + ", " + QByteArray::number(state) + ')');
}
} // namespace

void TestLockControl::setLockedIsRefusedHere_data()
{
    textRows("why", {"no token", "empty token of the daemon", "dropped token"});
}

void TestLockControl::setLockedIsRefusedHere()
{
    QFETCH(QByteArray, why);
    const auto client = newClient();
    if (why != "no token")
        grant(client.get(), why == "dropped token" ? token : QByteArray());
    if (why == "dropped token")
        client->dropAuthentication();
    QCOMPARE(client->authenticated(), why == "empty token of the daemon");
    SignalRecorder heard(client.get());
    QVERIFY(!client->setLocked(1));
    drain(client.get());
    QCOMPARE(log->take(), QStringList{noToken});
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(heard.list(), QStringList());
}

void TestLockControl::setLockedSendsTokenAndState_data()
{
    numberRows("state", {0, 1, 2, 3, 4, 5, 6, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()});
}

void TestLockControl::setLockedSendsTokenAndState()
{
    QFETCH(int, state);
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    grant(client.get(), token);
    QVERIFY(client->setLocked(state));
    QCOMPARE(daemon.calls(), QStringList{lockCall(state)});
    QCOMPARE(log->take(), QStringList());
}

void TestLockControl::setLockedFails_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QStringList>("expected");
    // The stand-in does not know this token.
    QTest::newRow("the daemon's false") << QByteArray() << QStringList();
    QTest::newRow("error") << QByteArray("error") << QStringList{R"(warning setLocked failed: "went wrong")"_s};
    for (const char *value : {"()", "('true',)", "(1,)", "(<true>,)", "([true],)", "((true,),)", "no peer"})
        QTest::newRow(value) << QByteArray(value) << QStringList{"warning setLocked failed: …"_s};
}

void TestLockControl::setLockedFails()
{
    QFETCH(QByteArray, value);
    QFETCH(QStringList, expected);
    const auto client = newClient();
    grant(client.get(), token);
    if (value == "no peer")
        daemon.request(R"({"do":"drop-peers"})");
    else if (value == "error")
        daemon.misbehave("SetDevlockState", "error", R"("message":"went wrong")");
    else if (!value.isEmpty())
        daemon.answer("SetDevlockState", value);
    QVERIFY(!client->setLocked(1));
    QCOMPARE(value == "error" ? log->take() : withoutTexts(log->take()), expected);
    QCOMPARE(daemon.calls(), value == "no peer" ? QStringList() : QStringList{lockCall(1)});
    QVERIFY(client->authenticated());
}

void TestLockControl::setLockedChangesNothingHere()
{
    daemon.answer("SetDevlockState", "(true,)");
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    grant(client.get(), token);
    client->authenticate("login"_s, {});
    SignalRecorder heard(client.get());
    QVERIFY(client->setLocked(1));
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->authenticated());
    QVERIFY(client->progress());
}

void TestLockControl::setLockedDeliversSignalsAfterwards()
{
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    daemon.emitSignal("AuthDataChanged", "()");
    QVERIFY(client->setLocked(1));
    QCOMPARE(heard.list(), QStringList());
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{"authDataChanged()"_s});
}

void TestLockControl::lockingDropsTheTokenWhenTheDaemonAnnouncesIt()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->authenticate("login"_s, {{"factor"_s, "code"_s}, {"data"_s, "1234"_s}});
    QVERIFY(waitFor([&] { return heard.list().size() == 3; }));
    heard.take();

    QVERIFY(client->setLocked(5));
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->setLocked(1));
    QCOMPARE(heard.list(), QStringList());
    drain(client.get());
    QCOMPARE(heard.list(), dropSignals);
}

void TestLockControl::unlockIfNeeded_data()
{
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<QByteArray>("more");
    QTest::addColumn<int>("times");
    QTest::addColumn<QByteArrayList>("emissions");
    QTest::addColumn<QStringList>("expected");
    const auto row = [](const char *name, const char *how, const char *more, int times, const QByteArrayList &emissions,
                        const QStringList &expected) {
        QTest::newRow(name) << QByteArray(how) << QByteArray(more) << times << emissions << expected;
    };
    const QString yes = finished.arg("true"_s);
    const QString no = finished.arg("false"_s);
    const char *const reply = R"-("value":"()")-";
    row("sends nothing but the call", "hold", "", 1, {}, {});
    row("true signal is the answer", "reply", reply, 1, {"UnlockIfNeededFinished (true,)"}, {yes});
    row("false signal is the answer", "reply", reply, 1, {"UnlockIfNeededFinished (false,)"}, {no});
    row("error is a failure", "error", R"("message":"went wrong")", 1, {}, {no});
    row("several errors are as many failures", "error", "", 3, {}, {no, no, no});
    row("values of the reply are ignored", "reply", R"-("value":"(true, 'and more')")-", 1, {}, {});
    row("signal comes before the reply", "signal-first", "", 1, {}, {yes});
}

void TestLockControl::unlockIfNeeded()
{
    QFETCH(QByteArray, how);
    QFETCH(QByteArray, more);
    QFETCH(int, times);
    QFETCH(QByteArrayList, emissions);
    QFETCH(QStringList, expected);
    daemon.misbehave("UnlockIfNeeded", how.constData(), more);
    const auto client = newClient();
    SignalRecorder heard(client.get());
    QStringList calls;
    for (int i = 0; i < times; ++i) {
        client->unlockIfNeeded();
        calls.append(peerCall("UnlockIfNeeded", "", "()"));
    }
    QCOMPARE(heard.list(), QStringList());
    drainAfter(client.get(), "UnlockIfNeeded", times);
    QCOMPARE(daemon.calls(), calls);
    if (!emissions.isEmpty())
        QCOMPARE(heard.list(), QStringList());
    emitSignals(emissions);
    drain(client.get());
    QCOMPARE(heard.list(), expected);
    QCOMPARE(log->take(), QStringList());
}

void TestLockControl::unlockIfNeededWithoutAPeerFailsOnce()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"drop-peers"})");
    client->unlockIfNeeded();
    QVERIFY(waitFor([&] { return !heard.list().isEmpty(); }));
    drainSystemBus();
    client->unlockIfNeeded();
    QVERIFY(waitFor([&] { return heard.list().size() > 1; }));
    drainSystemBus();
    QCOMPARE(heard.list(), (QStringList{finished.arg("false"_s), finished.arg("false"_s)}));
    QCOMPARE(log->take(), QStringList());
}

void TestLockControl::unlockIfNeededLosesItsPeerAndFailsOnce()
{
    daemon.misbehave("UnlockIfNeeded", "drop");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->unlockIfNeeded();
    QVERIFY(waitFor([&] { return !heard.list().isEmpty(); }));
    drainSystemBus();
    QCOMPARE(heard.list(), QStringList{finished.arg("false"_s)});
    QCOMPARE(log->take(), QStringList());
}

void TestLockControl::drop_data()
{
    QTest::addColumn<bool>("hasToken");
    QTest::addColumn<bool>("isUnderWay");
    QTest::addColumn<int>("times");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("tells without a token") << false << false << 2 << dropSignals + dropSignals;
    QTest::newRow("forgets the token") << true << false << 1 << dropSignals;
    QTest::newRow("ends the request") << false << true << 1 << QStringList{"progressChanged()"_s} + dropSignals;
}

void TestLockControl::drop()
{
    QFETCH(bool, hasToken);
    QFETCH(bool, isUnderWay);
    QFETCH(int, times);
    QFETCH(QStringList, expected);
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    if (hasToken)
        grant(client.get(), token);
    if (isUnderWay) {
        client->authenticate("login"_s, {});
        daemon.waitCalls("Authenticate");
    }
    daemon.clearCalls();
    SignalRecorder heard(client.get());
    for (int i = 0; i < times; ++i)
        client->dropAuthentication();
    QCOMPARE(heard.list(), expected);
    QVERIFY(!client->authenticated());
    QVERIFY(!client->progress());
    drain(client.get());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(log->take(), QStringList());

    client->factorMethod({}, "code"_s, {});
    QCOMPARE(daemon.waitCalls("FactorMethod"),
             QStringList{peerCall("FactorMethod", "aysa{sv}", "(@ay [], 'code', @a{sv} {})")});
}

void TestLockControl::dropEndsTheRequestBeforeItForgetsTheToken()
{
    daemon.misbehave("Authenticate", "hold");
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    grant(client.get(), token);
    client->authenticate("login"_s, {{"challenge"_s, 1}});
    daemon.waitCalls("Authenticate");
    daemon.clearCalls();
    QList<bool> results;
    connect(client.get(), &AuthClient::progressChanged, this, [&] {
        QVERIFY(client->authenticated());
        results.append(client->setLocked(5));
    });
    client->dropAuthentication();
    QCOMPARE(results, QList<bool>{true});
    QCOMPARE(daemon.calls(), QStringList{lockCall(5)});
}

void TestLockControl::tokenIsGoneWhenTheDropIsAnnounced()
{
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    grant(client.get(), token);
    QList<bool> results;
    const auto lock = [&] { results.append(client->setLocked(5)); };
    connect(client.get(), &AuthClient::authenticatedChanged, this, lock);
    connect(client.get(), &AuthClient::discredit, this, lock);
    client->dropAuthentication();
    QCOMPARE(results, (QList<bool>{false, false}));
    QCOMPARE(log->take(), (QStringList{noToken, noToken}));
    QCOMPARE(daemon.calls(), QStringList());
}

void TestLockControl::dropInsideADropHandler()
{
    const auto client = newClient();
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    bool again = true;
    connect(client.get(), &AuthClient::discredit, this, [&] {
        if (again) {
            again = false;
            client->dropAuthentication();
        }
    });
    client->dropAuthentication();
    QCOMPARE(heard.list(), dropSignals + dropSignals);
}

void TestLockControl::callsThatDoNothing_data()
{
    textRows("call", {"cancel", "requestChallenge"});
}

void TestLockControl::callsThatDoNothing()
{
    QFETCH(QByteArray, call);
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    for (const bool isUnderWay : {false, true}) {
        if (isUnderWay) {
            client->authenticate("login"_s, {{"challenge"_s, 1}});
            daemon.waitCalls("Authenticate");
        }
        daemon.clearCalls();
        SignalRecorder heard(client.get());
        if (call == "cancel")
            client->cancel();
        else
            client->requestChallenge();
        drain(client.get());
        QCOMPARE(client->progress(), isUnderWay);
        QCOMPARE(heard.list(), QStringList());
        QCOMPARE(daemon.calls(), QStringList());
        QCOMPARE(log->take(), QStringList());
    }
}

QTEST_GUILESS_MAIN(TestLockControl)
#include "tst_lockcontrol.moc"
