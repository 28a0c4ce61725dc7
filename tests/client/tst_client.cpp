#include "test-case.h"

#include <QtDBus/QDBusPendingCallWatcher>

/** Requests, tokens and progress of AuthClient. */
class TestClient : public TestCase
{
    Q_OBJECT

private Q_SLOTS:
    void requestsAreSent_data();
    void requestsAreSent();
    void progressIsSetOnceTheCallWasHandedOver_data();
    void progressIsSetOnceTheCallWasHandedOver();
    void progressIsAnnouncedOnceForTwoRequests();
    void replies_data();
    void replies();
    void lateReplyCounts_data();
    void lateReplyCounts();
    void watcherLivesUntilItsHandlersAreThrough_data();
    void watcherLivesUntilItsHandlersAreThrough();
    void watcherIsDeletedAfterItsCall_data();
    void watcherIsDeletedAfterItsCall();

    void daemonsSignals_data();
    void daemonsSignals();
    void tokenIsInUseWhenItIsAnnounced();
    void handlersSeeTheNewState();
    void wholeAuthentication();
    void wholeAuthenticationWithTheSignalBeforeTheReply();
    void wholeChangeOfAuthenticationData();

    void lockedDeviceAtTheStartIsHeard();
    void otherStatesChangeNothing_data();
    void otherStatesChangeNothing();
    void lossOfTheDaemonDropsTheToken();
    void lossOfTheDaemonEndsTheRequest();
    void clientIsOwnedByItsParent();
};

namespace {
const QByteArray challenge = "s3cr3t challenge";
const QByteArray token = "s3cr3t token";
const QByteArray secondToken = "s3cr3t token too";
const QString noProgress = QStringLiteral("progressChanged()");
const QString noToken = QStringLiteral("warning setLocked m_authToken is empty, not authenticated request");

QString lockCall(const QByteArray &withToken)
{
    return peerCall("SetDevlockState", "ayi", '(' + bytes(withToken) + ", 5)");
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
    const char *name;
    const char *method;
    const char *finished;
    void (AuthClient::*send)(const QString &, const QVariantMap &);
};

const Request requests[] = {
    {"authenticate", "Authenticate", "callAuthenticateFinished", &AuthClient::authenticate},
    {"changeAuthData", "ChangeAuthData", "callChangeAuthDataFinished", &AuthClient::changeAuthData},
};

void requestRows()
{
    QTest::addColumn<int>("request");
    QTest::newRow("authenticate") << 0;
    QTest::newRow("changeAuthData") << 1;
}
} // namespace

void TestClient::requestsAreSent_data()
{
    QTest::addColumn<int>("request");
    QTest::addColumn<QString>("subject");
    QTest::addColumn<QVariantMap>("params");
    QTest::addColumn<bool>("consultsHolder");
    QTest::addColumn<QByteArray>("args");
    const QByteArray held = "{'challenge': <" + bytes(challenge) + '>';
    QTest::newRow("authenticate sends service and parameters")
        << 0 << "unlock"_s << QVariantMap{{"data"_s, "s3cr3t"_s}, {"uid"_s, 1000U}} << true
        << "('unlock', " + held + ", 'data': <'s3cr3t'>, 'uid': <uint32 1000>})";
    QTest::newRow("changeAuthData sends method and parameters")
        << 1 << "code"_s << QVariantMap{{"new"_s, "s3cr3t"_s}} << true << "('code', " + held + ", 'new': <'s3cr3t'>})";

    const auto rows = [](const char *name, const QString &subject, const QVariant &own, const QByteArray &args) {
        // Only changeAuthData() consults the holder though the caller supplies a challenge.
        for (int request : {0, 1})
            QTest::addRow("%s, %s", name, requests[request].name)
                << request << subject << QVariantMap{{"challenge"_s, own}} << (request == 1) << args;
    };
    const QByteArray mine = "s3cr3t of mine";
    rows("the caller's challenge is kept", "login"_s, mine, "('login', {'challenge': <" + bytes(mine) + ">})");
    rows("the caller's challenge of any type is kept", "login"_s, QString(), "('login', {'challenge': <''>})");
    const auto subject = [&](const char *name, const QString &text) {
        rows(name, text, 1, "('" + text.toUtf8() + "', {'challenge': <1>})");
    };
    subject("empty subject", QString());
    subject("unknown subject", "no such thing/at all"_s);
    subject("subject beyond Latin", "вход 🔒"_s);
    subject("long subject", QString(100000, QLatin1Char('x')));
}

void TestClient::requestsAreSent()
{
    QFETCH(int, request);
    QFETCH(QString, subject);
    QFETCH(QVariantMap, params);
    QFETCH(bool, consultsHolder);
    QFETCH(QByteArray, args);
    const char *const method = requests[request].method;
    daemon.answer("RequestChallenge", byteTuple(challenge));
    const auto client = newClient();
    const QVariantMap passed = params;
    (client.get()->*requests[request].send)(subject, passed);
    daemon.waitCalls(method);
    QStringList expected{peerCall(method, "sa{sv}", args)};
    if (consultsHolder)
        expected.prepend(peerCall("RequestChallenge", "", "()"));
    QCOMPARE(daemon.calls(), expected);
    QCOMPARE(passed, params);

    // The challenge is held now.
    daemon.clearCalls();
    (client.get()->*requests[request].send)(subject, passed);
    daemon.waitCalls(method);
    QCOMPARE(daemon.calls(), QStringList{expected.last()});
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

void TestClient::replies_data()
{
    QTest::addColumn<int>("request");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QString>("problem");
    for (int request : {0, 1}) {
        const auto row = [request](const char *value, const QString &problem) {
            QTest::addRow("%s %s", requests[request].name, value) << request << QByteArray(value) << problem;
        };
        row("(true,)", QString());
        row("(false,)", QString());
        row("error", "\"went wrong\""_s);
        for (const char *other : {"()", "('true',)", "(1,)", "(<true>,)", "([true],)", "((true,),)"})
            row(other, "…"_s);
    }
}

// A true reply promises a signal; a false one is a failed authentication, and no failed change; an error, and a reply of
// another type, say nothing of how the request stands.
void TestClient::replies()
{
    QFETCH(int, request);
    QFETCH(QByteArray, value);
    QFETCH(QString, problem);
    const char *const method = requests[request].method;
    const bool isTurnedDown = value == "(false,)";
    for (const bool hasToken : {false, true}) {
        daemon.reset();
        if (value == "error")
            daemon.misbehave(method, "error", R"("message":"went wrong")");
        else
            daemon.answer(method, value);
        const auto client = newClient();
        if (hasToken)
            grant(client.get(), token);
        SignalRecorder heard(client.get());
        (client.get()->*requests[request].send)("code"_s, {});
        drainAfter(client.get(), method);
        QCOMPARE(heard.list(),
                 isTurnedDown ? QStringList({noProgress, noProgress}) + dropSignals : QStringList{noProgress});
        QCOMPARE(client->progress(), !isTurnedDown);
        QCOMPARE(client->authenticated(), hasToken && !isTurnedDown);
        QStringList expected;
        if (!problem.isEmpty())
            expected.append("warning %1 failed: %2"_s.arg(QLatin1String(requests[request].finished), problem));
        QCOMPARE(problem == "…"_s ? withoutTexts(log->take()) : log->take(), expected);

        if (client->authenticated()) {
            client->setLocked(5);
            QCOMPARE(daemon.waitCalls("SetDevlockState"), QStringList{lockCall(token)});
        }
    }
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
    drainAfter(client.get(), requests[request].method);
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
    // The watcher belongs to the object inside.
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

void TestClient::daemonsSignals_data()
{
    QTest::addColumn<QByteArray>("underWay");
    QTest::addColumn<bool>("hasToken");
    QTest::addColumn<QByteArrayList>("emissions");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QVariant>("held");
    const auto row = [](const char *name, const char *underWay, bool hasToken, const QByteArrayList &emissions,
                        const QStringList &expected, const QVariant &held = {}) {
        QTest::newRow(name) << QByteArray(underWay) << hasToken << emissions << expected << held;
    };
    const QByteArray first = "Authenticated " + byteTuple(token);
    const QByteArray second = "Authenticated " + byteTuple(secondToken);
    const QByteArray failed = "AuthenticationFailed ()";
    const QByteArray locked = "StateChanged (1,)";
    row("token is stored", "", false, {first}, {published(token)}, token);
    row("token ends the request", "Authenticate", false, {first}, {published(token), noProgress}, token);
    row("empty token is published", "", false, {"Authenticated " + byteTuple({})}, {published({})}, QByteArray());
    row("second token replaces the first, and is told again", "Authenticate", false, {first, second, second},
        {published(token), noProgress, published(secondToken), published(secondToken)}, secondToken);
    row("failed authentication drops the token", "Authenticate", true, {failed}, QStringList{noProgress} + dropSignals);
    row("failed authentication without a request still tells", "", false, {failed, failed}, dropSignals + dropSignals);
    row("changed data end the request", "ChangeAuthData", true, {"AuthDataChanged ()", "AuthDataChanged ()"},
        {noProgress, "authDataChanged()"_s, "authDataChanged()"_s}, token);
    row("failed change ends the request", "ChangeAuthData", true,
        {"ChangeAuthDataFailed ()", "ChangeAuthDataFailed ()"},
        {noProgress, "changeAuthDataFailed()"_s, "changeAuthDataFailed()"_s}, token);
    row("locked device drops the token", "", true, {locked}, dropSignals);
    row("locked device ends the request", "Authenticate", false, {locked}, QStringList{noProgress} + dropSignals);
    row("repeated Locked is heard once", "", false, {locked, locked}, dropSignals);
}

void TestClient::daemonsSignals()
{
    QFETCH(QByteArray, underWay);
    QFETCH(bool, hasToken);
    QFETCH(QByteArrayList, emissions);
    QFETCH(QStringList, expected);
    QFETCH(QVariant, held);
    for (const Request &request : requests)
        daemon.misbehave(request.method, "hold");
    const auto client = newClient();
    if (hasToken)
        grant(client.get(), token);
    const QVariantMap params{{"challenge"_s, 1}};
    if (underWay == "Authenticate")
        client->authenticate("login"_s, params);
    else if (underWay == "ChangeAuthData")
        client->changeAuthData("code"_s, params);
    QCOMPARE(client->progress(), !underWay.isEmpty());
    SignalRecorder heard(client.get());
    emitSignals(emissions);
    drain(client.get());
    QCOMPARE(heard.list(), expected);
    QVERIFY(!client->progress());
    QCOMPARE(client->authenticated(), held.isValid());

    // Which token the client holds.
    daemon.clearCalls();
    daemon.answer("SetDevlockState", "(true,)");
    const QByteArray tokenHeld = held.toByteArray();
    QCOMPARE(client->setLocked(5), !tokenHeld.isEmpty());
    QCOMPARE(daemon.calls(), tokenHeld.isEmpty() ? QStringList() : QStringList{lockCall(tokenHeld)});
    QCOMPARE(log->takeComplaints(), tokenHeld.isEmpty() ? QStringList{noToken} : QStringList());
}

void TestClient::tokenIsInUseWhenItIsAnnounced()
{
    daemon.answer("SetDevlockState", "(true,)");
    const auto client = newClient();
    QList<bool> results;
    connect(client.get(), &AuthClient::authenticatedChanged, this, [&] { results.append(client->setLocked(5)); });
    emitSignals({"Authenticated " + byteTuple(token), "Authenticated " + byteTuple(secondToken)});
    drain(client.get());
    QCOMPARE(results, (QList<bool>{true, true}));
    QCOMPARE(daemon.calls(), (QStringList{lockCall(token), lockCall(secondToken)}));
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

    daemon.emitSignal("Authenticated", byteTuple(token));
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
    const auto change = [&](const char *method, const char *old, const char *fresh, const QStringList &expected) {
        client->changeAuthData(QLatin1String(method), {{"old"_s, QLatin1String(old)}, {"new"_s, QLatin1String(fresh)}});
        QVERIFY(waitFor([&] { return heard.list().size() == 2 + expected.size(); }));
        QCOMPARE(heard.take(), QStringList({noProgress, noProgress}) + expected);
    };
    change("code", "1234", "s3cr3t", {"authDataChanged()"_s});
    change("code", "1234", "s3cr3t", {"changeAuthDataFailed()"_s});
    change("code", "s3cr3t", "1234", {"authDataChanged()"_s});
    // An unknown factor is turned down at once.
    change("no such factor", "s3cr3t", "1234", dropSignals);
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
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
    numberRows("state", {2, 3, 4, 5, 6, -1});
}

void TestClient::otherStatesChangeNothing()
{
    QFETCH(int, state);
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    grant(client.get(), token);
    client->authenticate("login"_s, {});
    SignalRecorder heard(client.get());
    emitSignals({"StateChanged (" + QByteArray::number(state) + ",)", "StateChanged (0,)"});
    drain(client.get());
    QCOMPARE(log->take(),
             (QStringList{"debug handleStateChanged AuthDevlockClient::Unlocked -> %1"_s.arg(state),
                          "debug handleStateChanged %1 -> 0"_s.arg(enumerator(state))}));
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->authenticated());
    QVERIFY(client->progress());
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
    // The daemon's return is no news.
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
