#include "test-case.h"

/** Locking, unlocking and forgetting the token. */
class TestLockControl : public TestCase
{
    Q_OBJECT

private Q_SLOTS:
    void setLockedWithoutATokenIsRefusedHere();
    void setLockedAfterADropIsRefusedHere();
    void setLockedWithAnEmptyTokenOfTheDaemonIsRefusedHere();
    void setLockedSendsTokenAndState_data();
    void setLockedSendsTokenAndState();
    void setLockedReturnsTheDaemonsFalse();
    void setLockedFails();
    void setLockedTakesNoOtherReply_data();
    void setLockedTakesNoOtherReply();
    void setLockedFailsWithoutAPeer();
    void setLockedChangesNothingHere();
    void setLockedDeliversSignalsAfterwards();
    void lockingDropsTheTokenWhenTheDaemonAnnouncesIt();

    void unlockIfNeededSendsNothingButTheCall();
    void unlockIfNeededIsAnsweredByTheDaemonsSignal_data();
    void unlockIfNeededIsAnsweredByTheDaemonsSignal();
    void unlockIfNeededFails();
    void unlockIfNeededWithoutAPeerFailsOnce();
    void unlockIfNeededLosesItsPeerAndFailsOnce();
    void unlockIfNeededIgnoresReplyValues();
    void unlockIfNeededSignalBeforeTheReply();
    void severalUnlockIfNeededFailEach();

    void dropWithoutATokenTells();
    void dropForgetsTheToken();
    void dropEndsTheRequest();
    void dropEndsTheRequestBeforeItForgetsTheToken();
    void tokenIsGoneWhenTheDropIsAnnounced();
    void dropDoesNotCall();
    void dropInsideADropHandler();

    void cancelLeavesTheRequest();
    void requestChallengeDoesNothing();
};

namespace {
const QByteArray token = "s3cr3t token";
const QString noToken = QStringLiteral("warning setLocked m_authToken is empty, not authenticated request");
const QString finished = QStringLiteral("unlockIfNeededFinished(%1)");
} // namespace

void TestLockControl::setLockedWithoutATokenIsRefusedHere()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    QVERIFY(!client->setLocked(1));
    drain(client.get());
    QCOMPARE(log->take(), QStringList{noToken});
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(heard.list(), QStringList());
}

void TestLockControl::setLockedAfterADropIsRefusedHere()
{
    const auto client = newClient();
    grant(client.get(), token);
    client->dropAuthentication();
    QVERIFY(!client->setLocked(1));
    QCOMPARE(log->take(), QStringList{noToken});
    QCOMPARE(daemon.calls(), QStringList());
}

void TestLockControl::setLockedWithAnEmptyTokenOfTheDaemonIsRefusedHere()
{
    const auto client = newClient();
    grant(client.get(), QByteArray());
    QVERIFY(client->authenticated());
    QVERIFY(!client->setLocked(1));
    QCOMPARE(log->take(), QStringList{noToken});
    QCOMPARE(daemon.calls(), QStringList());
}

void TestLockControl::setLockedSendsTokenAndState_data()
{
    QTest::addColumn<int>("state");
    for (int state : {0, 1, 2, 3, 4, 5, 6, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()})
        QTest::addRow("%d", state) << state;
}

void TestLockControl::setLockedSendsTokenAndState()
{
    QFETCH(int, state);
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    grant(client.get(), token);
    QVERIFY(client->setLocked(state));
    QCOMPARE(
        daemon.calls(),
        QStringList{peerCall("SetDevlockState", "ayi", '(' + bytes(token) + ", " + QByteArray::number(state) + ')')});
    QCOMPARE(log->take(), QStringList());
}

void TestLockControl::setLockedReturnsTheDaemonsFalse()
{
    // The stand-in does not know this token.
    const auto client = newClient();
    grant(client.get(), token);
    QVERIFY(!client->setLocked(1));
    QCOMPARE(daemon.calls().size(), 1);
    QCOMPARE(log->take(), QStringList());
    QVERIFY(client->authenticated());
}

void TestLockControl::setLockedFails()
{
    daemon.misbehave("SetDevlockState", "error", R"("message":"went wrong")");
    const auto client = newClient();
    grant(client.get(), token);
    QVERIFY(!client->setLocked(1));
    QCOMPARE(log->take(), QStringList{R"(warning setLocked failed: "went wrong")"_s});
    QVERIFY(client->authenticated());
}

void TestLockControl::setLockedTakesNoOtherReply_data()
{
    QTest::addColumn<QByteArray>("value");
    for (const char *value : {"()", "('true',)", "(1,)", "(<true>,)", "([true],)", "((true,),)"})
        QTest::newRow(value) << QByteArray(value);
}

void TestLockControl::setLockedTakesNoOtherReply()
{
    QFETCH(QByteArray, value);
    daemon.answer("SetDevlockState", value);
    const auto client = newClient();
    grant(client.get(), token);
    QVERIFY(!client->setLocked(1));
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(QRegularExpression("^warning setLocked failed: \".+\"$"_s).match(lines.first()).hasMatch(),
             qPrintable(lines.first()));
}

void TestLockControl::setLockedFailsWithoutAPeer()
{
    const auto client = newClient();
    grant(client.get(), token);
    daemon.request(R"({"do":"drop-peers"})");
    QVERIFY(!client->setLocked(1));
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(QRegularExpression("^warning setLocked failed: \".+\"$"_s).match(lines.first()).hasMatch(),
             qPrintable(lines.first()));
    QCOMPARE(daemon.calls(), QStringList());
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

void TestLockControl::unlockIfNeededSendsNothingButTheCall()
{
    daemon.misbehave("UnlockIfNeeded", "hold");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->unlockIfNeeded();
    daemon.waitCalls("UnlockIfNeeded");
    drain(client.get());
    QCOMPARE(daemon.calls(), QStringList{peerCall("UnlockIfNeeded", "", "()")});
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestLockControl::unlockIfNeededIsAnsweredByTheDaemonsSignal_data()
{
    QTest::addColumn<QString>("success");
    QTest::newRow("true") << "true"_s;
    QTest::newRow("false") << "false"_s;
}

void TestLockControl::unlockIfNeededIsAnsweredByTheDaemonsSignal()
{
    QFETCH(QString, success);
    daemon.answer("UnlockIfNeeded", "()");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->unlockIfNeeded();
    daemon.waitCalls("UnlockIfNeeded");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    daemon.emitSignal("UnlockIfNeededFinished", '(' + success.toLatin1() + ",)");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{finished.arg(success)});
    QCOMPARE(log->take(), QStringList());
}

void TestLockControl::unlockIfNeededFails()
{
    daemon.misbehave("UnlockIfNeeded", "error", R"("message":"went wrong")");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->unlockIfNeeded();
    QCOMPARE(heard.list(), QStringList());
    daemon.waitCalls("UnlockIfNeeded");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{finished.arg("false"_s)});
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

void TestLockControl::unlockIfNeededIgnoresReplyValues()
{
    daemon.answer("UnlockIfNeeded", "(true, 'and more')");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->unlockIfNeeded();
    daemon.waitCalls("UnlockIfNeeded");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
}

void TestLockControl::unlockIfNeededSignalBeforeTheReply()
{
    daemon.misbehave("UnlockIfNeeded", "signal-first");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->unlockIfNeeded();
    daemon.waitCalls("UnlockIfNeeded");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{finished.arg("true"_s)});
}

void TestLockControl::severalUnlockIfNeededFailEach()
{
    daemon.misbehave("UnlockIfNeeded", "error");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    for (int i = 0; i < 3; ++i)
        client->unlockIfNeeded();
    daemon.waitCalls("UnlockIfNeeded", 3);
    drain(client.get());
    const QString failed = finished.arg("false"_s);
    QCOMPARE(heard.list(), (QStringList{failed, failed, failed}));
}

void TestLockControl::dropWithoutATokenTells()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->dropAuthentication();
    client->dropAuthentication();
    QCOMPARE(heard.list(), dropSignals + dropSignals);
    QVERIFY(!client->authenticated());
    QCOMPARE(log->take(), QStringList());
}

void TestLockControl::dropForgetsTheToken()
{
    const auto client = newClient();
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    client->dropAuthentication();
    QCOMPARE(heard.list(), dropSignals);
    QVERIFY(!client->authenticated());
    client->factorMethod({}, "code"_s, {});
    QCOMPARE(daemon.waitCalls("FactorMethod"),
             QStringList{peerCall("FactorMethod", "aysa{sv}", "(@ay [], 'code', @a{sv} {})")});
}

void TestLockControl::dropEndsTheRequest()
{
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    client->authenticate("login"_s, {});
    SignalRecorder heard(client.get());
    client->dropAuthentication();
    QCOMPARE(heard.list(), QStringList{"progressChanged()"_s} + dropSignals);
    QVERIFY(!client->progress());
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
    QCOMPARE(daemon.calls(), QStringList{peerCall("SetDevlockState", "ayi", '(' + bytes(token) + ", 5)")});
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

void TestLockControl::dropDoesNotCall()
{
    const auto client = newClient();
    grant(client.get(), token);
    client->dropAuthentication();
    drain(client.get());
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

void TestLockControl::cancelLeavesTheRequest()
{
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    daemon.clearCalls();
    SignalRecorder heard(client.get());
    client->cancel();
    drain(client.get());
    QVERIFY(client->progress());
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestLockControl::requestChallengeDoesNothing()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->requestChallenge();
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

QTEST_GUILESS_MAIN(TestLockControl)
#include "tst_lockcontrol.moc"
