#include "test-case.h"

#include <QtDBus/QDBusPendingCallWatcher>

/** Requests, tokens and progress of AuthClient. */
class TestClient : public TestCase
{
    Q_OBJECT

private Q_SLOTS:
    void authenticateSendsServiceAndParameters();
    void authenticateAddsTheHeldChallenge();
    void authenticateKeepsTheCallersChallenge();
    void authenticateKeepsTheCallersChallengeOfAnyType();
    void authenticateLeavesTheCallersMapAlone();
    void changeAuthDataSendsMethodAndParameters();
    void changeAuthDataConsultsTheHolderThoughTheCallerSuppliesAChallenge();
    void subjectsArePassedUnchecked_data();
    void subjectsArePassedUnchecked();

    void progressIsSetOnceTheCallWasHandedOver_data();
    void progressIsSetOnceTheCallWasHandedOver();
    void progressIsAnnouncedOnceForTwoRequests();
    void trueReplyDoesNothing_data();
    void trueReplyDoesNothing();
    void falseReplyIsAFailedAuthentication_data();
    void falseReplyIsAFailedAuthentication();
    void falseReplyToChangeAuthDataIsNotAFailedChange();
    void errorReplyLeavesProgressAndEmitsNothing_data();
    void errorReplyLeavesProgressAndEmitsNothing();
    void replyOfAnotherTypeIsAnError_data();
    void replyOfAnotherTypeIsAnError();
    void errorReplyKeepsTheToken();
    void lateReplyCounts_data();
    void lateReplyCounts();
    void watcherLivesUntilItsHandlersAreThrough_data();
    void watcherLivesUntilItsHandlersAreThrough();
    void watcherIsDeletedAfterItsCall_data();
    void watcherIsDeletedAfterItsCall();

    void authenticatedStoresTheToken();
    void tokenIsInUseWhenItIsAnnounced();
    void authenticatedEndsTheRequest();
    void secondTokenReplacesTheFirst();
    void emptyTokenIsPublished();
    void authenticationFailedDropsTheToken();
    void authenticationFailedWithoutARequestStillTells();
    void authDataChangedEndsTheRequest();
    void changeAuthDataFailedEndsTheRequest();
    void handlersSeeTheNewState();
    void wholeAuthentication();
    void wholeAuthenticationWithTheSignalBeforeTheReply();
    void wholeChangeOfAuthenticationData();

    void lockedDeviceDropsTheToken();
    void lockedDeviceEndsTheRequest();
    void lockedDeviceAtTheStartIsHeard();
    void otherStatesChangeNothing_data();
    void otherStatesChangeNothing();
    void repeatedLockedIsHeardOnce();
    void lossOfTheDaemonDropsTheToken();
    void lossOfTheDaemonEndsTheRequest();
    void clientIsOwnedByItsParent();
};

namespace {
const QByteArray challenge = "s3cr3t challenge";
const QByteArray token = "s3cr3t token";
const QByteArray secondToken = "s3cr3t token too";
const QString noProgress = QStringLiteral("progressChanged()");

QByteArray reply(const QByteArray &value)
{
    return '(' + bytes(value) + ",)";
}

QString published(const QByteArray &value)
{
    return QStringLiteral("authenticatedChanged(%1)").arg(QLatin1String(value.toHex()));
}

QString enumerator(int state)
{
    QString result;
    QDebug(&result).nospace() << AuthDevlockClient::LockState(state);
    return result;
}

// The two requests, which differ in their names alone in most things.
struct Request
{
    const char *method;
    const char *finished;
    void (AuthClient::*send)(const QString &, const QVariantMap &);
};

const Request requests[] = {
    {"Authenticate", "callAuthenticateFinished", &AuthClient::authenticate},
    {"ChangeAuthData", "callChangeAuthDataFinished", &AuthClient::changeAuthData},
};

void requestRows()
{
    QTest::addColumn<int>("request");
    QTest::newRow("authenticate") << 0;
    QTest::newRow("changeAuthData") << 1;
}
} // namespace

void TestClient::authenticateSendsServiceAndParameters()
{
    daemon.answer("RequestChallenge", reply(challenge));
    const auto client = newClient();
    client->authenticate("unlock"_s, {{"data"_s, "s3cr3t"_s}, {"uid"_s, 1000U}});
    daemon.waitCalls("Authenticate");
    QCOMPARE(daemon.calls(),
             (QStringList{peerCall("RequestChallenge", "", "()"),
                          peerCall("Authenticate", "sa{sv}",
                                   "('unlock', {'challenge': <" + bytes(challenge)
                                       + ">, 'data': <'s3cr3t'>, 'uid': <uint32 1000>})")}));
}

void TestClient::authenticateAddsTheHeldChallenge()
{
    daemon.answer("RequestChallenge", reply(challenge));
    const auto client = newClient();
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    daemon.clearCalls();
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    QCOMPARE(daemon.calls(),
             QStringList{peerCall("Authenticate", "sa{sv}", "('login', {'challenge': <" + bytes(challenge) + ">})")});
}

void TestClient::authenticateKeepsTheCallersChallenge()
{
    const auto client = newClient();
    client->authenticate("login"_s, {{"challenge"_s, QByteArray("s3cr3t of mine")}});
    daemon.waitCalls("Authenticate");
    QCOMPARE(
        daemon.calls(),
        QStringList{peerCall("Authenticate", "sa{sv}", "('login', {'challenge': <" + bytes("s3cr3t of mine") + ">})")});
}

void TestClient::authenticateKeepsTheCallersChallengeOfAnyType()
{
    const auto client = newClient();
    client->authenticate("login"_s, {{"challenge"_s, QString()}});
    daemon.waitCalls("Authenticate");
    QCOMPARE(daemon.calls(), QStringList{peerCall("Authenticate", "sa{sv}", "('login', {'challenge': <''>})")});
}

void TestClient::authenticateLeavesTheCallersMapAlone()
{
    const auto client = newClient();
    const QVariantMap params{{"data"_s, "s3cr3t"_s}};
    QVariantMap passed = params;
    client->authenticate("login"_s, passed);
    client->changeAuthData("code"_s, passed);
    daemon.waitCalls("ChangeAuthData");
    QCOMPARE(passed, params);
}

void TestClient::changeAuthDataSendsMethodAndParameters()
{
    daemon.answer("RequestChallenge", reply(challenge));
    const auto client = newClient();
    client->changeAuthData("code"_s, {{"new"_s, "s3cr3t"_s}});
    daemon.waitCalls("ChangeAuthData");
    QCOMPARE(daemon.calls(),
             (QStringList{peerCall("RequestChallenge", "", "()"),
                          peerCall("ChangeAuthData", "sa{sv}",
                                   "('code', {'challenge': <" + bytes(challenge) + ">, 'new': <'s3cr3t'>})")}));
}

void TestClient::changeAuthDataConsultsTheHolderThoughTheCallerSuppliesAChallenge()
{
    const auto client = newClient();
    client->changeAuthData("code"_s, {{"challenge"_s, QByteArray("s3cr3t of mine")}});
    daemon.waitCalls("ChangeAuthData");
    QCOMPARE(daemon.calls(),
             (QStringList{
                 peerCall("RequestChallenge", "", "()"),
                 peerCall("ChangeAuthData", "sa{sv}", "('code', {'challenge': <" + bytes("s3cr3t of mine") + ">})")}));
}

void TestClient::subjectsArePassedUnchecked_data()
{
    QTest::addColumn<QString>("subject");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("empty") << QString() << QByteArray("''");
    QTest::newRow("unknown") << "no such thing/at all"_s << QByteArray("'no such thing/at all'");
    QTest::newRow("beyond Latin") << "вход 🔒"_s << QByteArray("'вход 🔒'");
    QTest::newRow("long") << QString(100000, QLatin1Char('x')) << '\'' + QByteArray(100000, 'x') + '\'';
}

void TestClient::subjectsArePassedUnchecked()
{
    QFETCH(QString, subject);
    QFETCH(QByteArray, text);
    const auto client = newClient();
    const QVariantMap params{{"challenge"_s, 1}};
    for (const Request &request : requests) {
        (client.get()->*request.send)(subject, params);
        QCOMPARE(daemon.waitCalls(request.method),
                 QStringList{peerCall(request.method, "sa{sv}", '(' + text + ", {'challenge': <1>})")});
    }
}

void TestClient::progressIsSetOnceTheCallWasHandedOver_data()
{
    requestRows();
}

void TestClient::progressIsSetOnceTheCallWasHandedOver()
{
    QFETCH(int, request);
    daemon.misbehave(requests[request].method, "hold");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    QStringList seen;
    connect(client.get(), &AuthClient::progressChanged, this, [&] {
        seen = daemon.waitCalls(requests[request].method);
        QVERIFY(client->progress());
    });
    QVERIFY(!client->progress());
    (client.get()->*requests[request].send)("code"_s, {});
    QVERIFY(client->progress());
    QCOMPARE(seen.size(), 1);
    QCOMPARE(heard.list(), QStringList{noProgress});
    QVERIFY(!client->authenticated());
}

void TestClient::progressIsAnnouncedOnceForTwoRequests()
{
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->authenticate("login"_s, {{"challenge"_s, 1}});
    client->authenticate("login"_s, {{"challenge"_s, 1}});
    daemon.waitCalls("Authenticate", 2);
    QCOMPARE(heard.list(), QStringList{noProgress});
}

void TestClient::trueReplyDoesNothing_data()
{
    requestRows();
}

void TestClient::trueReplyDoesNothing()
{
    QFETCH(int, request);
    daemon.answer(requests[request].method, "(true,)");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    (client.get()->*requests[request].send)("code"_s, {});
    daemon.waitCalls(requests[request].method);
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{noProgress});
    QVERIFY(client->progress());
    QVERIFY(!client->authenticated());
    QCOMPARE(log->take(), QStringList());
}

void TestClient::falseReplyIsAFailedAuthentication_data()
{
    requestRows();
}

void TestClient::falseReplyIsAFailedAuthentication()
{
    QFETCH(int, request);
    daemon.answer(requests[request].method, "(false,)");
    const auto client = newClient();
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    (client.get()->*requests[request].send)("code"_s, {});
    daemon.waitCalls(requests[request].method);
    drain(client.get());
    QCOMPARE(heard.list(), QStringList({noProgress, noProgress}) + dropSignals);
    QVERIFY(!client->progress());
    QVERIFY(!client->authenticated());
    QCOMPARE(log->take(), QStringList());
}

void TestClient::falseReplyToChangeAuthDataIsNotAFailedChange()
{
    daemon.answer("ChangeAuthData", "(false,)");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->changeAuthData("code"_s, {});
    daemon.waitCalls("ChangeAuthData");
    drain(client.get());
    QVERIFY(!heard.list().contains("changeAuthDataFailed()"_s));
    QCOMPARE(heard.list(), (QStringList{noProgress, noProgress, published(QByteArray()), "discredit()"_s}));
}

void TestClient::errorReplyLeavesProgressAndEmitsNothing_data()
{
    requestRows();
}

void TestClient::errorReplyLeavesProgressAndEmitsNothing()
{
    QFETCH(int, request);
    daemon.misbehave(requests[request].method, "error", R"("message":"went wrong")");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    (client.get()->*requests[request].send)("code"_s, {});
    daemon.waitCalls(requests[request].method);
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{noProgress});
    QVERIFY(client->progress());
    QCOMPARE(log->take(),
             QStringList{R"(warning %1 failed: "went wrong")"_s.arg(QLatin1String(requests[request].finished))});
}

void TestClient::replyOfAnotherTypeIsAnError_data()
{
    QTest::addColumn<int>("request");
    QTest::addColumn<QByteArray>("value");
    for (const char *value : {"()", "('true',)", "(1,)", "(<true>,)", "([true],)", "((true,),)"}) {
        QTest::addRow("authenticate %s", value) << 0 << QByteArray(value);
        QTest::addRow("changeAuthData %s", value) << 1 << QByteArray(value);
    }
}

void TestClient::replyOfAnotherTypeIsAnError()
{
    QFETCH(int, request);
    QFETCH(QByteArray, value);
    daemon.answer(requests[request].method, value);
    const auto client = newClient();
    SignalRecorder heard(client.get());
    (client.get()->*requests[request].send)("code"_s, {});
    daemon.waitCalls(requests[request].method);
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{noProgress});
    QVERIFY(client->progress());
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    const QRegularExpression expected(R"(^warning %1 failed: ".+"$)"_s.arg(QLatin1String(requests[request].finished)));
    QVERIFY2(expected.match(lines.first()).hasMatch(), qPrintable(lines.first()));
}

void TestClient::errorReplyKeepsTheToken()
{
    daemon.misbehave("Authenticate", "error", R"("message":"went wrong")");
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    grant(client.get(), token);
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    drain(client.get());
    QCOMPARE(log->takeComplaints(), QStringList{R"(warning callAuthenticateFinished failed: "went wrong")"_s});
    QVERIFY(client->authenticated());
    QVERIFY(client->setLocked(5));
    QCOMPARE(daemon.waitCalls("SetDevlockState"),
             QStringList{peerCall("SetDevlockState", "ayi", '(' + bytes(token) + ", 5)")});
}

void TestClient::lateReplyCounts_data()
{
    requestRows();
}

void TestClient::lateReplyCounts()
{
    QFETCH(int, request);
    // The stand-in turns down what it does not know.
    daemon.misbehave(requests[request].method, "hold", R"("times":1)");
    const auto client = newClient();
    (client.get()->*requests[request].send)("unknown"_s, {});
    daemon.waitCalls(requests[request].method);
    drain(client.get());
    QVERIFY(client->progress());

    // Something else has happened meanwhile.
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"release"})");
    QVERIFY(waitFor([&] { return !heard.list().isEmpty(); }));
    drain(client.get());
    QCOMPARE(heard.list(), dropSignals);
    QVERIFY(!client->authenticated());
}

void TestClient::watcherLivesUntilItsHandlersAreThrough_data()
{
    requestRows();
}

void TestClient::watcherLivesUntilItsHandlersAreThrough()
{
    QFETCH(int, request);
    daemon.answer(requests[request].method, "(false,)");
    const auto client = newClient();
    const auto watchers = [&client] { return client->findChildren<QDBusPendingCallWatcher *>().size(); };
    int seen = -1;
    connect(client.get(), &AuthClient::discredit, this, [&] { seen = watchers(); });
    (client.get()->*requests[request].send)("code"_s, {});
    QCOMPARE(watchers(), 1);
    // It belongs to the object inside.
    QVERIFY(client->findChildren<QDBusPendingCallWatcher *>(QString(), Qt::FindDirectChildrenOnly).isEmpty());
    QVERIFY(waitFor([&] { return seen >= 0; }));
    QCOMPARE(seen, 1);
    QVERIFY(waitFor([&] { return watchers() == 0; }));
}

void TestClient::watcherIsDeletedAfterItsCall_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QByteArray>("how");
    for (const char *method : {"Authenticate", "ChangeAuthData", "UnlockIfNeeded"}) {
        for (const char *how : {"true", "error", "drop"})
            QTest::addRow("%s %s", method, how) << QByteArray(method) << QByteArray(how);
    }
}

void TestClient::watcherIsDeletedAfterItsCall()
{
    QFETCH(QByteArray, method);
    QFETCH(QByteArray, how);
    if (how == "true")
        daemon.answer(method.constData(), method == "UnlockIfNeeded" ? "()" : "(true,)");
    else
        daemon.misbehave(method.constData(), how.constData());
    const auto client = newClient();
    const auto watchers = [&client] { return client->findChildren<QDBusPendingCallWatcher *>().size(); };
    for (int i = 0; i < 3; ++i) {
        if (method == "Authenticate")
            client->authenticate("login"_s, {{"challenge"_s, 1}});
        else if (method == "ChangeAuthData")
            client->changeAuthData("code"_s, {{"challenge"_s, 1}});
        else
            client->unlockIfNeeded();
    }
    QCOMPARE(watchers(), 3);
    QVERIFY(waitFor([&] { return watchers() == 0; }));
    QCOMPARE(log->takeComplaints().isEmpty(), how == "true" || method == "UnlockIfNeeded");
}

void TestClient::authenticatedStoresTheToken()
{
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.emitSignal("Authenticated", reply(token));
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{published(token)});
    QVERIFY(client->authenticated());
    QVERIFY(client->setLocked(1));
    QCOMPARE(daemon.calls(), QStringList{peerCall("SetDevlockState", "ayi", '(' + bytes(token) + ", 1)")});
}

void TestClient::tokenIsInUseWhenItIsAnnounced()
{
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    QList<bool> results;
    connect(client.get(), &AuthClient::authenticatedChanged, this, [&] { results.append(client->setLocked(5)); });
    daemon.emitSignal("Authenticated", reply(token));
    daemon.emitSignal("Authenticated", reply(secondToken));
    drain(client.get());
    QCOMPARE(results, (QList<bool>{true, true}));
    QCOMPARE(daemon.calls(),
             (QStringList{peerCall("SetDevlockState", "ayi", '(' + bytes(token) + ", 5)"),
                          peerCall("SetDevlockState", "ayi", '(' + bytes(secondToken) + ", 5)")}));
}

void TestClient::authenticatedEndsTheRequest()
{
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    client->authenticate("login"_s, {});
    SignalRecorder heard(client.get());
    daemon.emitSignal("Authenticated", reply(token));
    drain(client.get());
    QCOMPARE(heard.list(), (QStringList{published(token), noProgress}));
    QVERIFY(!client->progress());
}

void TestClient::secondTokenReplacesTheFirst()
{
    daemon.misbehave("Authenticate", "hold");
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    client->authenticate("login"_s, {});
    SignalRecorder heard(client.get());
    daemon.emitSignal("Authenticated", reply(token));
    daemon.emitSignal("Authenticated", reply(secondToken));
    drain(client.get());
    QCOMPARE(heard.take(), (QStringList{published(token), noProgress, published(secondToken)}));
    QVERIFY(client->setLocked(1));
    QCOMPARE(daemon.waitCalls("SetDevlockState"),
             QStringList{peerCall("SetDevlockState", "ayi", '(' + bytes(secondToken) + ", 1)")});

    // The same one once more is told once more.
    daemon.emitSignal("Authenticated", reply(secondToken));
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{published(secondToken)});
}

void TestClient::emptyTokenIsPublished()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.emitSignal("Authenticated", reply(QByteArray()));
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{published(QByteArray())});
    QVERIFY(client->authenticated());
}

void TestClient::authenticationFailedDropsTheToken()
{
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    grant(client.get(), token);
    client->authenticate("login"_s, {});
    SignalRecorder heard(client.get());
    daemon.emitSignal("AuthenticationFailed", "()");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{noProgress} + dropSignals);
    QVERIFY(!client->authenticated());
    QVERIFY(!client->progress());
    QVERIFY(!client->setLocked(1));
    QCOMPARE(log->takeComplaints(), QStringList{"warning setLocked m_authToken is empty, not authenticated request"_s});
}

void TestClient::authenticationFailedWithoutARequestStillTells()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.emitSignal("AuthenticationFailed", "()");
    daemon.emitSignal("AuthenticationFailed", "()");
    drain(client.get());
    QCOMPARE(heard.list(), dropSignals + dropSignals);
}

void TestClient::authDataChangedEndsTheRequest()
{
    daemon.misbehave("ChangeAuthData", "hold");
    const auto client = newClient();
    grant(client.get(), token);
    client->changeAuthData("code"_s, {});
    SignalRecorder heard(client.get());
    daemon.emitSignal("AuthDataChanged", "()");
    daemon.emitSignal("AuthDataChanged", "()");
    drain(client.get());
    QCOMPARE(heard.list(), (QStringList{noProgress, "authDataChanged()"_s, "authDataChanged()"_s}));
    QVERIFY(!client->progress());
    QVERIFY(client->authenticated());
}

void TestClient::changeAuthDataFailedEndsTheRequest()
{
    daemon.misbehave("ChangeAuthData", "hold");
    const auto client = newClient();
    grant(client.get(), token);
    client->changeAuthData("code"_s, {});
    SignalRecorder heard(client.get());
    daemon.emitSignal("ChangeAuthDataFailed", "()");
    daemon.emitSignal("ChangeAuthDataFailed", "()");
    drain(client.get());
    QCOMPARE(heard.list(), (QStringList{noProgress, "changeAuthDataFailed()"_s, "changeAuthDataFailed()"_s}));
    QVERIFY(!client->progress());
    QVERIFY(client->authenticated());
}

void TestClient::handlersSeeTheNewState()
{
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    client->authenticate("login"_s, {});
    QStringList seen;
    const auto record = [&](const char *signal) {
        seen.append("%1 authenticated=%2 progress=%3"_s.arg(QLatin1String(signal))
                        .arg(client->authenticated())
                        .arg(client->progress()));
    };
    connect(client.get(), &AuthClient::authenticatedChanged, this, [&] { record("authenticatedChanged"); });
    connect(client.get(), &AuthClient::progressChanged, this, [&] { record("progressChanged"); });
    connect(client.get(), &AuthClient::discredit, this, [&] { record("discredit"); });

    daemon.emitSignal("Authenticated", reply(token));
    drain(client.get());
    QCOMPARE(seen,
             (QStringList{"authenticatedChanged authenticated=1 progress=1"_s,
                          "progressChanged authenticated=1 progress=0"_s}));
    client->authenticate("login"_s, {});
    seen.clear();
    daemon.emitSignal("AuthenticationFailed", "()");
    drain(client.get());
    QCOMPARE(
        seen,
        (QStringList{"progressChanged authenticated=1 progress=0"_s,
                     "authenticatedChanged authenticated=0 progress=0"_s, "discredit authenticated=0 progress=0"_s}));
}

void TestClient::wholeAuthentication()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->authenticate("login"_s, {{"factor"_s, "code"_s}, {"data"_s, "1234"_s}});
    QVERIFY(waitFor([&] { return heard.list().size() == 3; }));
    drain(client.get());
    const QStringList list = heard.take();
    QCOMPARE(list.size(), 3);
    QCOMPARE(list.at(0), noProgress);
    QVERIFY2(QRegularExpression("^authenticatedChanged\\([0-9a-f]{64}\\)$"_s).match(list.at(1)).hasMatch(),
             qPrintable(list.at(1)));
    QCOMPARE(list.at(2), noProgress);

    client->authenticate("login"_s, {{"factor"_s, "code"_s}, {"data"_s, "4321"_s}});
    QVERIFY(waitFor([&] { return heard.list().size() == 4; }));
    drain(client.get());
    QCOMPARE(heard.list(), QStringList({noProgress, noProgress}) + dropSignals);
}

void TestClient::wholeAuthenticationWithTheSignalBeforeTheReply()
{
    daemon.misbehave("Authenticate", "signal-first");
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->authenticate("login"_s, {{"factor"_s, "code"_s}, {"data"_s, "1234"_s}});
    QVERIFY(waitFor([&] { return heard.list().size() == 3; }));
    drain(client.get());
    QCOMPARE(heard.list().size(), 3);
    QVERIFY(client->authenticated());
    QVERIFY(!client->progress());
}

void TestClient::wholeChangeOfAuthenticationData()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    client->changeAuthData("code"_s, {{"old"_s, "1234"_s}, {"new"_s, "s3cr3t"_s}});
    QVERIFY(waitFor([&] { return heard.list().size() == 3; }));
    QCOMPARE(heard.take(), (QStringList{noProgress, noProgress, "authDataChanged()"_s}));
    client->changeAuthData("code"_s, {{"old"_s, "1234"_s}, {"new"_s, "s3cr3t"_s}});
    QVERIFY(waitFor([&] { return heard.list().size() == 3; }));
    QCOMPARE(heard.take(), (QStringList{noProgress, noProgress, "changeAuthDataFailed()"_s}));
    client->changeAuthData("code"_s, {{"old"_s, "s3cr3t"_s}, {"new"_s, "1234"_s}});
    QVERIFY(waitFor([&] { return heard.list().size() == 3; }));
    QCOMPARE(heard.take(), (QStringList{noProgress, noProgress, "authDataChanged()"_s}));
    // An unknown factor is turned down at once.
    client->changeAuthData("no such factor"_s, {{"old"_s, "s3cr3t"_s}, {"new"_s, "1234"_s}});
    QVERIFY(waitFor([&] { return heard.list().size() == 4; }));
    drain(client.get());
    QCOMPARE(heard.take(), QStringList({noProgress, noProgress}) + dropSignals);
}

void TestClient::lockedDeviceDropsTheToken()
{
    const auto client = newClient();
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"set-lock","state":1})");
    drain(client.get());
    QCOMPARE(heard.list(), dropSignals);
    QVERIFY(!client->authenticated());
    QVERIFY(!client->setLocked(0));
    QCOMPARE(log->takeComplaints(), QStringList{"warning setLocked m_authToken is empty, not authenticated request"_s});
    QCOMPARE(daemon.calls(), QStringList());
}

void TestClient::lockedDeviceEndsTheRequest()
{
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    client->authenticate("login"_s, {});
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"set-lock","state":1})");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{noProgress} + dropSignals);
    QVERIFY(!client->progress());
}

void TestClient::lockedDeviceAtTheStartIsHeard()
{
    daemon.request(R"({"do":"set-lock","state":1})");
    AuthClient client;
    SignalRecorder heard(&client);
    QVERIFY(waitFor([&] { return heard.list().size() == 2; }));
    drain(&client);
    QCOMPARE(heard.list(), dropSignals);
}

void TestClient::otherStatesChangeNothing_data()
{
    QTest::addColumn<int>("state");
    for (int state : {2, 3, 4, 5, 6, -1})
        QTest::addRow("%d", state) << state;
}

void TestClient::otherStatesChangeNothing()
{
    QFETCH(int, state);
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    grant(client.get(), token);
    client->authenticate("login"_s, {});
    SignalRecorder heard(client.get());
    daemon.emitSignal("StateChanged", '(' + QByteArray::number(state) + ",)");
    daemon.emitSignal("StateChanged", "(0,)");
    drain(client.get());
    QCOMPARE(log->take(),
             (QStringList{"debug handleStateChanged AuthDevlockClient::Unlocked -> %1"_s.arg(state),
                          "debug handleStateChanged %1 -> 0"_s.arg(enumerator(state))}));
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->authenticated());
    QVERIFY(client->progress());
}

void TestClient::repeatedLockedIsHeardOnce()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.emitSignal("StateChanged", "(1,)");
    daemon.emitSignal("StateChanged", "(1,)");
    drain(client.get());
    QCOMPARE(heard.list(), dropSignals);
}

void TestClient::lossOfTheDaemonDropsTheToken()
{
    const auto client = newClient();
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"stop"})");
    QVERIFY(waitFor([&] { return heard.list().size() == 2; }));
    QCOMPARE(heard.list(), dropSignals);
    QVERIFY(!client->authenticated());
    // Its return is no news.
    daemon.request(R"({"do":"start"})");
    awaitReconnection();
    drain(client.get());
    QCOMPARE(heard.list(), dropSignals);
}

void TestClient::lossOfTheDaemonEndsTheRequest()
{
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"stop"})");
    const auto failed = [this] {
        return log->lines().filter(QRegularExpression("^warning callAuthenticateFinished failed: \".+\"$"_s)).size();
    };
    QVERIFY(waitFor([&] { return heard.list().size() == 3 && failed() == 1; }));
    QCOMPARE(heard.list(), QStringList{noProgress} + dropSignals);
    QVERIFY(!client->progress());
    QCOMPARE(log->takeComplaints().size(), 1);
}

void TestClient::clientIsOwnedByItsParent()
{
    auto parent = std::make_unique<QObject>();
    const QPointer<AuthClient> client = new AuthClient(parent.get());
    QCOMPARE(client->parent(), parent.get());
    parent.reset();
    QVERIFY(!client);
    QVERIFY(log->contains(R"(debug ~AuthdConnection "authd_p2p_client" disconnected from "authd_p2p_client")"_s));
}

QTEST_GUILESS_MAIN(TestClient)
#include "tst_client.moc"
