#include "bus-round-trip.h"
#include "test-case.h"

#include <QtCore/QElapsedTimer>

#include <csignal>

/** The daemon dies, restarts and hands its name over, with calls under way. */
class TestRestart : public TestCase
{
    Q_OBJECT

private:
    QByteArray instance();
    void checkComplaintsOfTheOtherCall();

private Q_SLOTS:
    void eachCallEndsOnce_data();
    void eachCallEndsOnce();
    void unlockIfNeededIsAnsweredByTheDaemonOrByAnError_data();
    void unlockIfNeededIsAnsweredByTheDaemonOrByAnError();
    void unlockIfNeededFailsAfterTheDaemonsSignal_data();
    void unlockIfNeededFailsAfterTheDaemonsSignal();
    void unlockIfNeededIsNotAnsweredAgain_data();
    void unlockIfNeededIsNotAnsweredAgain();
    void clientIsDeletedInTheFirstOfTwoUnlockAnswers();
    void oldInstanceIsNotHeardAfterAHandover_data();
    void oldInstanceIsNotHeardAfterAHandover();
    void queuedSignalsOfTheOldInstanceAreNotHeard();
    void replyOfTheOldInstanceAfterAHandover();
    void oldConnectionClosesWithItsLastCall();
    void blockingCallsWhileTheDaemonIsAway();
    void blockingCallsOfACrashingDaemon_data();
    void blockingCallsOfACrashingDaemon();
    void challengeOfACrashingDaemon();
    void callsBeforeTheReturnIsNoticed();
    void manyRestarts();
    void changesThatAreNoticedLate_data();
    void changesThatAreNoticedLate();
    void daemonHasGoneAgainWhenItsReturnIsNoticed();
    void twoClientsReturnEach();
    void peersAreDroppedAndTheNameStays();
    void secondClientConnectsThoughTheFirstHasLostItsPeer();
    void authenticationGoesOnAfterARestart();
    void busThatDoesNotTellIsNotWaitedForLong();
};

namespace {
const QVariantMap withChallenge{{QStringLiteral("challenge"), 1}};
const QString connected = R"(debug AuthdConnection "authd_p2p_client" connected to "authd_p2p_client")"_s;
} // namespace

QByteArray TestRestart::instance()
{
    return QByteArray::number(daemon.request(R"({"do":"state"})").value("instance"_s).toInt());
}

// A call of a factor's method fails with its connection, or is answered.
void TestRestart::checkComplaintsOfTheOtherCall()
{
    const QStringList complaints = withoutTexts(log->takeComplaints());
    if (!complaints.isEmpty())
        QCOMPARE(complaints, QStringList{"warning reply isError: …"_s});
}

void TestRestart::eachCallEndsOnce_data()
{
    QTest::addColumn<QByteArrayList>("requests");
    const auto row = [](const char *name, const QByteArrayList &requests) { QTest::newRow(name) << requests; };
    row("restart", {R"({"do":"restart"})"});
    row("stop", {R"({"do":"stop"})", R"({"do":"start"})"});
    row("drop-peers", {R"({"do":"drop-peers"})"});
    row("handover", {R"({"do":"handover"})"});
    row("handover, then the old one goes", {R"({"do":"handover","keep-old":true})", R"({"do":"drop-old"})"});
    row("name goes and comes, then the peers go",
        {R"({"do":"release-name"})", R"({"do":"own-name"})", R"({"do":"restart"})"});
    row("two handovers",
        {R"({"do":"handover","keep-old":true})", R"({"do":"handover","keep-old":true})", R"({"do":"drop-old"})"});
    row("restart and restart", {R"({"do":"restart"})", R"({"do":"restart"})"});
}

void TestRestart::eachCallEndsOnce()
{
    QFETCH(QByteArrayList, requests);
    const auto client = newClient();
    for (const char *method : {"Authenticate", "ChangeAuthData", "UnlockIfNeeded", "FactorMethod"})
        daemon.misbehave(method, "hold", R"("times":3)");
    SignalRecorder heard(client.get());
    QList<QVariant> results;
    for (int i = 0; i < 3; ++i) {
        client->authenticate("login"_s, withChallenge);
        client->changeAuthData("code"_s, withChallenge);
        client->unlockIfNeeded();
        client->factorMethod({}, "code"_s, [&](const QVariant &result) { results.append(result); });
    }
    daemon.waitCalls("FactorMethod", 3);
    for (const QByteArray &request : requests) {
        daemon.request(request);
        if (!request.contains("stop"))
            drainSystemBus();
    }

    const QString failed = "unlockIfNeededFinished(false)"_s;
    const auto warnings = [this](const char *start) {
        return withoutTexts(log->lines()).count("warning %1 …"_s.arg(QLatin1String(start)));
    };
    QVERIFY(waitFor([&] {
        return results.size() >= 3 && heard.list().count(failed) >= 3
            && warnings("callAuthenticateFinished failed:") >= 3 && warnings("callChangeAuthDataFinished failed:") >= 3;
    }));
    // Whatever may come twice would come before this.
    if (!requests.first().contains("drop-peers")) {
        daemon.request(R"({"do":"behave"})");
        awaitReconnection();
        drain(client.get());
    }
    drainSystemBus();
    QCOMPARE(results, (QList<QVariant>{QVariant(), QVariant(), QVariant()}));
    QCOMPARE(heard.list().count(failed), 3);
    QCOMPARE(warnings("callAuthenticateFinished failed:"), 3);
    QCOMPARE(warnings("callChangeAuthDataFinished failed:"), 3);
    QCOMPARE(warnings("reply isError:"), 3);
    QCOMPARE(log->takeComplaints().size(), 9);
}

void TestRestart::unlockIfNeededIsAnsweredByTheDaemonOrByAnError_data()
{
    QTest::addColumn<bool>("replied");
    QTest::addColumn<QByteArrayList>("requests");
    QTest::addColumn<bool>("fails");
    const auto rows = [](const QByteArrayList &requests, bool breaks) {
        QTest::newRow(("no reply, " + requests.join()).constData()) << false << requests << breaks;
        QTest::newRow(("reply without a signal, " + requests.join()).constData()) << true << requests << false;
    };
    rows({R"({"do":"restart"})"}, true);
    rows({R"({"do":"stop"})", R"({"do":"start"})"}, true);
    rows({R"({"do":"handover"})"}, true);
    // The instance that was asked replies when nobody listens to its signal any more.
    rows({R"({"do":"handover","keep-old":true})"}, false);
    rows({R"({"do":"release-name"})", R"({"do":"own-name"})"}, false);
}

void TestRestart::unlockIfNeededIsAnsweredByTheDaemonOrByAnError()
{
    QFETCH(bool, replied);
    QFETCH(QByteArrayList, requests);
    QFETCH(bool, fails);
    for (int asked = 1; asked <= 2; ++asked) {
        daemon.reset();
        const auto client = newClient();
        const QByteArray old = "\"instance\":" + instance();
        if (replied)
            daemon.answer("UnlockIfNeeded", "()");
        else
            daemon.misbehave("UnlockIfNeeded", "hold");
        daemon.misbehave("FactorMethod", "hold", R"("times":1)");
        SignalRecorder heard(client.get());
        for (int i = 0; i < asked; ++i)
            client->unlockIfNeeded();
        // Its reply comes last on the old connection.
        bool ended = false;
        client->factorMethod(echo(5), "code"_s, [&](const QVariant &) { ended = true; });
        daemon.waitCalls("FactorMethod");
        drain(client.get());
        QCOMPARE(heard.list(), QStringList());

        for (const QByteArray &request : requests)
            daemon.request(request);
        awaitReconnection();
        daemon.request(R"({"do":"behave"})");
        daemon.request(R"({"do":"release"})");
        if (requests.first().contains("keep-old"))
            daemon.emitSignal("UnlockIfNeededFinished", "(true,)", old);
        QVERIFY(waitFor([&] { return ended; }));
        drain(client.get());
        QStringList expected;
        for (int i = 0; i < asked && fails; ++i)
            expected.append("unlockIfNeededFinished(false)"_s);
        QCOMPARE(heard.list().filter("unlockIfNeededFinished"_s), expected);
        checkComplaintsOfTheOtherCall();
    }
}

void TestRestart::unlockIfNeededIsNotAnsweredAgain_data()
{
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<QByteArray>("change");
    QTest::addColumn<QString>("answer");
    const QByteArray restart = R"({"do":"restart"})";
    const QByteArray handover = R"({"do":"handover","keep-old":true})";
    QTest::newRow("signal, handover, reply never") << QByteArray("lose-reply") << handover << "true"_s;
    QTest::newRow("signal, handover, reply and another signal") << QByteArray("hold") << handover << "true"_s;
    QTest::newRow("signal, reply, handover") << QByteArray("signal-first") << handover << "true"_s;
    QTest::newRow("signal, reply, restart") << QByteArray("signal-first") << restart << "true"_s;
    QTest::newRow("reply, signal, handover") << QByteArray() << handover << "true"_s;
    QTest::newRow("reply, signal, restart") << QByteArray() << restart << "true"_s;
    QTest::newRow("error, handover") << QByteArray("error") << handover << "false"_s;
    QTest::newRow("error, restart") << QByteArray("error") << restart << "false"_s;
}

void TestRestart::unlockIfNeededIsNotAnsweredAgain()
{
    QFETCH(QByteArray, how);
    QFETCH(QByteArray, change);
    QFETCH(QString, answer);
    const QStringList answers{"unlockIfNeededFinished(%1)"_s.arg(answer)};
    const auto client = newClient();
    if (!how.isEmpty())
        daemon.misbehave("UnlockIfNeeded", how.constData());
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    SignalRecorder heard(client.get());
    client->unlockIfNeeded();
    // Its reply comes last on the old connection.
    bool ended = false;
    client->factorMethod(echo(5), "code"_s, [&](const QVariant &) { ended = true; });
    daemon.waitCalls("FactorMethod");
    if (how == "hold")
        daemon.emitSignal("UnlockIfNeededFinished", "(true,)");
    drain(client.get());
    QCOMPARE(heard.list(), answers);

    daemon.request(change);
    awaitReconnection();
    daemon.request(R"({"do":"behave"})");
    daemon.request(R"({"do":"release"})");
    QVERIFY(waitFor([&] { return ended; }));
    drain(client.get());
    QCOMPARE(heard.list().filter("unlockIfNeededFinished"_s), answers);
    checkComplaintsOfTheOtherCall();
}

void TestRestart::clientIsDeletedInTheFirstOfTwoUnlockAnswers()
{
    auto client = newClient();
    daemon.misbehave("UnlockIfNeeded", "hold");
    client->unlockIfNeeded();
    client->unlockIfNeeded();
    daemon.waitCalls("UnlockIfNeeded", 2);
    int answers = 0;
    connect(client.get(), &AuthClient::unlockIfNeededFinished, this, [&] {
        ++answers;
        client.reset();
    });
    daemon.request(R"({"do":"handover"})");
    QVERIFY(waitFor([&] { return answers > 0; }));
    drainSystemBus();
    QCOMPARE(answers, 1);
    QCOMPARE(daemon.peerCount(), 0);
}

void TestRestart::oldInstanceIsNotHeardAfterAHandover_data()
{
    textRows("calls", {"idle", "flight"});
}

void TestRestart::oldInstanceIsNotHeardAfterAHandover()
{
    QFETCH(QByteArray, calls);
    const bool flight = calls == "flight";
    const auto client = newClient();
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    QList<QVariant> results;
    if (flight) {
        client->factorMethod(echo(5), "code"_s, [&](const QVariant &result) { results.append(result); });
        daemon.waitCalls("FactorMethod");
    }
    const QByteArray old = "\"instance\":" + instance();
    daemon.request(R"({"do":"handover","keep-old":true})");
    awaitReconnection();
    SignalRecorder heard(client.get());

    emitSignals({"Authenticated " + byteTuple("s3cr3t token"), "AuthenticationFailed ()", "AuthDataChanged ()",
                 "ChangeAuthDataFailed ()", "UnlockIfNeededFinished (true,)", "Factor ('code', @a{sv} {})"},
                old);
    if (flight) {
        // The reply comes on the old connection, behind the signals.
        daemon.request(R"({"do":"release"})");
        QVERIFY(waitFor([&] { return !results.isEmpty(); }));
        QCOMPARE(results, QList<QVariant>{5});
    }
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(!client->authenticated());

    daemon.emitSignal("AuthDataChanged", "()");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{"authDataChanged()"_s});
}

void TestRestart::queuedSignalsOfTheOldInstanceAreNotHeard()
{
    const auto client = newClient();
    const QByteArray old = "\"instance\":" + instance();
    daemon.request(R"({"do":"handover","keep-old":true})");
    // After this round trip the news of the new owner waits in the event queue, ahead of the old one's signals.
    roundTripToSystemBus();
    emitSignals({"Authenticated " + byteTuple("s3cr3t token"), "Factor ('code', @a{sv} {})"}, old);
    client->unlockIfNeeded();
    daemon.waitCalls("UnlockIfNeeded");

    QStringList heardLate;
    const auto record = [&](const char *signal) {
        if (!log->lines().filter("authd reset"_s).isEmpty())
            heardLate.append(QLatin1String(signal));
    };
    connect(client.get(), &AuthClient::authenticatedChanged, this, [&] { record("authenticatedChanged"); });
    connect(client.get(), &AuthClient::factorSignal, this, [&](const QString &factor) {
        if (!factor.startsWith(drainMark))
            record("factorSignal");
    });
    awaitReconnection();
    drain(client.get());
    QCOMPARE(heardLate, QStringList());
    QVERIFY(!client->authenticated());
}

void TestRestart::replyOfTheOldInstanceAfterAHandover()
{
    const auto client = newClient();
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    // The stand-in turns down this challenge.
    daemon.misbehave("Authenticate", "hold", R"("times":1)");
    QList<QVariant> results;
    client->authenticate("login"_s, withChallenge);
    client->factorMethod(echo(5), "code"_s, [&](const QVariant &result) { results.append(result); });
    daemon.waitCalls("FactorMethod");
    daemon.request(R"({"do":"handover","keep-old":true})");
    awaitReconnection();
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"release"})");
    QVERIFY(waitFor([&] { return !results.isEmpty() && heard.list().size() == 3; }));
    drain(client.get());
    QCOMPARE(results, QList<QVariant>{5});
    QCOMPARE(heard.list(), QStringList{"progressChanged()"_s} + dropSignals);
}

void TestRestart::oldConnectionClosesWithItsLastCall()
{
    const auto client = newClient();
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    bool called = false;
    client->factorMethod(echo(5), "code"_s, [&](const QVariant &) { called = true; });
    daemon.waitCalls("FactorMethod");
    daemon.request(R"({"do":"release-name"})");
    daemon.request(R"({"do":"own-name"})");
    awaitReconnection();
    QCOMPARE(daemon.peerCount(), 2);
    daemon.request(R"({"do":"release"})");
    QVERIFY(waitFor([&] { return called; }));
    QVERIFY(waitFor([this] {
        drainSystemBus();
        return daemon.peerCount() == 1;
    }));
}

void TestRestart::blockingCallsWhileTheDaemonIsAway()
{
    const auto client = newClient();
    grant(client.get(), "s3cr3t token");
    daemon.request(R"({"do":"stop"})");
    // The client has not noticed yet.
    QVERIFY(!client->setLocked(1));
    QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
    const QString noChallenge = "warning request failed: …"_s;
    const QString noResult = "warning factorMethodWait failed: …"_s;
    QCOMPARE(withoutTexts(log->takeComplaints()),
             (QStringList{"warning setLocked failed: …"_s, noChallenge, noResult}));
    awaitLoss();
    // And now the client has.
    QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
    QVERIFY(!client->setLocked(1));
    // The token went with the daemon.
    QCOMPARE(
        withoutTexts(log->takeComplaints()),
        (QStringList{noChallenge, noResult, "warning setLocked m_authToken is empty, not authenticated request"_s}));
}

void TestRestart::blockingCallsOfACrashingDaemon_data()
{
    textRows("how", {"crash", "restart", "drop"});
}

void TestRestart::blockingCallsOfACrashingDaemon()
{
    QFETCH(QByteArray, how);
    for (const bool wait : {false, true}) {
        daemon.reset();
        const auto client = newClient();
        grant(client.get(), "s3cr3t token");
        daemon.misbehave("SetDevlockState", how.constData());
        daemon.misbehave("FactorMethod", how.constData());
        if (wait)
            QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
        else
            QVERIFY(!client->setLocked(1));
        QVERIFY(client->authenticated());
        QCOMPARE(withoutTexts(log->takeComplaints()),
                 QStringList{"warning %1 failed: …"_s.arg(wait ? "factorMethodWait"_s : "setLocked"_s)});
    }
}

void TestRestart::challengeOfACrashingDaemon()
{
    const auto client = newClient();
    daemon.misbehave("RequestChallenge", "restart", R"("times":1)");
    SignalRecorder heard(client.get());
    client->authenticate("login"_s, {});
    QVERIFY(client->progress());
    QVERIFY(waitFor([&] { return heard.list().size() == 4; }));
    awaitReconnection();
    drain(client.get());
    QCOMPARE(heard.list(), QStringList({"progressChanged()"_s, "progressChanged()"_s}) + dropSignals);
    QCOMPARE(withoutTexts(log->takeComplaints()),
             (QStringList{"warning request failed: …"_s, "warning callAuthenticateFinished failed: …"_s}));
    QCOMPARE(daemon.waitCalls("RequestChallenge").size(), 1);
}

void TestRestart::callsBeforeTheReturnIsNoticed()
{
    const auto client = newClient();
    daemon.request(R"({"do":"restart"})");
    // On the dead connection, as the event loop has not run.
    SignalRecorder heard(client.get());
    int called = 0;
    client->unlockIfNeeded();
    client->factorMethod({}, "code"_s, [&called](const QVariant &) { ++called; });
    awaitReconnection();
    QVERIFY(waitFor([&] { return called > 0 && heard.list().size() == 3; }));
    drain(client.get());
    QCOMPARE(called, 1);
    QCOMPARE(heard.list().count("unlockIfNeededFinished(false)"_s), 1);
    QCOMPARE(heard.list().size(), 3);
    QCOMPARE(withoutTexts(log->takeComplaints()),
             (QStringList{"warning request failed: …"_s, "warning reply isError: …"_s}));
}

void TestRestart::manyRestarts()
{
    const auto client = newClient();
    for (int i = 0; i < 20; ++i) {
        daemon.request(i % 3 ? R"({"do":"restart"})" : R"({"do":"handover","keep-old":true})");
        awaitReconnection();
        QCOMPARE(client->factorMethodWait(echo(i), "code"_s), QVariant(i));
    }
    drain(client.get());
    daemon.request(R"({"do":"drop-old"})");
    QCOMPARE(daemon.peerCount(), 1);
}

void TestRestart::changesThatAreNoticedLate_data()
{
    QTest::addColumn<QByteArray>("change");
    QTest::addColumn<int>("losses");
    QTest::newRow("restarts") << QByteArray(R"({"do":"restart"})") << 20;
    QTest::newRow("handovers") << QByteArray(R"({"do":"handover"})") << 0;
}

// The client connects to the newest instance alone, and hears of each loss.
void TestRestart::changesThatAreNoticedLate()
{
    QFETCH(QByteArray, change);
    QFETCH(int, losses);
    const auto client = newClient();
    // So that a challenge is held.
    QCOMPARE(client->factorMethodWait(echo(1), "code"_s), QVariant(1));
    daemon.clearCalls();
    log->take();
    SignalRecorder heard(client.get());
    for (int i = 0; i < 20; ++i)
        daemon.request(change);
    roundTripToSystemBus();
    awaitReconnection();
    drain(client.get());
    QCOMPARE(log->count(connected), 1);
    QStringList expected;
    for (int i = 0; i < losses; ++i)
        expected += dropSignals;
    QCOMPARE(heard.list(), expected);
    // The challenge that was held when the daemon left is asked for anew.
    QCOMPARE(daemon.calls(), losses > 0 ? QStringList{peerCall("RequestChallenge", "", "()")} : QStringList());
    QCOMPARE(client->factorMethodWait(echo(5), "code"_s), QVariant(5));
    QCOMPARE(daemon.peerCount(), 1);
}

// No instance is left to connect to by then, which would end the process.
void TestRestart::daemonHasGoneAgainWhenItsReturnIsNoticed()
{
    const auto client = newClient();
    log->take();
    for (const char *change : {R"({"do":"restart"})", R"({"do":"handover"})", R"({"do":"stop"})"})
        daemon.request(change);
    roundTripToSystemBus();
    const QString loss = R"(debug authd reset "" captured "authd_p2p_client")"_s;
    QVERIFY(waitFor([&] { return log->count(loss) == 2; }));
    QCOMPARE(log->count(connected), 0);
    daemon.request(R"({"do":"start"})");
    awaitReconnection();
    QCOMPARE(log->count(connected), 1);
    QCOMPARE(client->factorMethodWait(echo(5), "code"_s), QVariant(5));
}

void TestRestart::twoClientsReturnEach()
{
    const auto first = newClient();
    const auto second = newClient();
    for (const char *change : {R"({"do":"restart"})", R"({"do":"handover"})", R"({"do":"handover","keep-old":true})"}) {
        daemon.request(change);
        const QString line = R"(debug authd reset "%1" captured "authd_p2p_client")"_s.arg(daemon.owner());
        QVERIFY(waitFor([&] { return log->count(line) == 2; }));
        drain(first.get());
        drain(second.get());
        QCOMPARE(first->factorMethodWait(echo(1), "code"_s), QVariant(1));
        QCOMPARE(second->factorMethodWait(echo(2), "code"_s), QVariant(2));
        SignalRecorder firstSignals(first.get());
        SignalRecorder secondSignals(second.get());
        daemon.emitSignal("AuthDataChanged", "()");
        drain(first.get());
        drain(second.get());
        QCOMPARE(firstSignals.list(), QStringList{"authDataChanged()"_s});
        QCOMPARE(secondSignals.list(), QStringList{"authDataChanged()"_s});
    }
}

void TestRestart::peersAreDroppedAndTheNameStays()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"drop-peers"})");
    QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
    drainSystemBus();
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(log->takeComplaints().size(), 2);

    // Only a new owner of the name makes the client connect anew.
    daemon.request(R"({"do":"restart"})");
    awaitReconnection();
    QCOMPARE(client->factorMethodWait(echo(5), "code"_s), QVariant(5));
}

void TestRestart::secondClientConnectsThoughTheFirstHasLostItsPeer()
{
    const auto first = newClient();
    daemon.request(R"({"do":"drop-peers"})");
    QVERIFY(!first->factorMethodWait({}, "code"_s).isValid());
    log->take();
    const auto second = newClient();
    QCOMPARE(second->factorMethodWait(echo(5), "code"_s), QVariant(5));
    QCOMPARE(daemon.peerCount(), 1);
}

void TestRestart::authenticationGoesOnAfterARestart()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    const QVariantMap params{{"factor"_s, "code"_s}, {"data"_s, "1234"_s}};
    for (int i = 0; i < 3; ++i) {
        client->authenticate("login"_s, params);
        QVERIFY(waitFor([&] { return heard.list().size() == 3; }));
        QVERIFY(client->authenticated());
        daemon.request(R"({"do":"restart"})");
        awaitReconnection();
        drain(client.get());
        QVERIFY(!client->authenticated());
        QCOMPARE(heard.take().mid(3), dropSignals);
    }
}

void TestRestart::unlockIfNeededFailsAfterTheDaemonsSignal_data()
{
    QTest::addColumn<QByteArrayList>("requests");
    QTest::newRow("the daemon dies before its reply") << QByteArrayList{R"({"do":"stop"})", R"({"do":"start"})"};
    QTest::newRow("its connection is replaced, and breaks")
        << QByteArrayList{R"({"do":"handover","keep-old":true})", R"({"do":"drop-old"})"};
}

// The daemon's signal and the bus' error: each tells what it knows.
void TestRestart::unlockIfNeededFailsAfterTheDaemonsSignal()
{
    QFETCH(QByteArrayList, requests);
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.misbehave("UnlockIfNeeded", "hold");
    client->unlockIfNeeded();
    daemon.waitCalls("UnlockIfNeeded");
    daemon.emitSignal("UnlockIfNeededFinished", "(true,)");
    drain(client.get());
    QCOMPARE(heard.take(), QStringList{"unlockIfNeededFinished(true)"_s});

    daemon.request(requests.first());
    if (requests.first().contains("handover"))
        awaitReconnection();
    daemon.request(requests.last());
    QVERIFY(waitFor([&] { return heard.list().contains("unlockIfNeededFinished(false)"_s); }));
    awaitReconnection();
    drain(client.get());
    QCOMPARE(heard.list().filter("unlockIfNeeded"_s), QStringList{"unlockIfNeededFinished(false)"_s});
}

// It is asked once for all the changes, and not for as long as other calls wait. The last test: then it is not asked for
// a while.
void TestRestart::busThatDoesNotTellIsNotWaitedForLong()
{
    const pid_t bus = qEnvironmentVariableIntValue("AUTHD_WORLD_BUS_PID");
    QVERIFY(bus > 0);
    const auto client = newClient();
    log->take();
    for (int i = 0; i < 8; ++i)
        daemon.request(R"({"do":"handover"})");
    roundTripToSystemBus();
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(kill(bus, SIGSTOP), 0);
    const bool areConnected = waitFor([&] { return log->count(connected) == 8; });
    const qint64 waited = timer.elapsed();
    kill(bus, SIGCONT);
    QVERIFY(areConnected);
    QVERIFY2(waited > 4500 && waited < 20000, qPrintable(QString::number(waited)));
    QCOMPARE(client->factorMethodWait(echo(5), "code"_s), QVariant(5));
}

QTEST_GUILESS_MAIN(TestRestart)
#include "tst_restart.moc"
