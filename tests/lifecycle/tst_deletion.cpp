#include "test-case.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>
#include <QtCore/QUrl>

/** Hosts delete their clients whenever they like. */
class TestDeletion : public TestCase
{
    Q_OBJECT

private:
    void deleteOn(QObject *client, const QByteArray &signal, const char *slot);
    void checkQuiet();

private Q_SLOTS:
    void callsInFlight_data();
    void callsInFlight();
    void devlockCallInFlight();
    void insideTheCallback_data();
    void insideTheCallback();
    void insideAnEventLoopOfTheCallback();
    void insideSignals_data();
    void insideSignals();
    void insideSignalsOfTheFirstState_data();
    void insideSignalsOfTheFirstState();
    void laterInsideSignalsOfTheDaemonsLoss_data();
    void laterInsideSignalsOfTheDaemonsLoss();
    void insideSignalsOfADevlockClient_data();
    void insideSignalsOfADevlockClient();
    void withQueuedSignals();
    void whileTheDaemonIsAway();
    void oneOfTwo();

public Q_SLOTS:
    void deleteClient();
    void deleteClientLater();

private:
    QPointer<QObject> m_client;
};

namespace {
const QVariantMap withChallenge{{QStringLiteral("challenge"), 1}};
}

void TestDeletion::deleteClient()
{
    delete m_client;
}

void TestDeletion::deleteClientLater()
{
    if (m_client)
        m_client->deleteLater();
}

void TestDeletion::deleteOn(QObject *client, const QByteArray &signal, const char *slot)
{
    m_client = client;
    const QMetaObject *meta = client->metaObject();
    int index = meta->methodOffset();
    while (index < meta->methodCount() && meta->method(index).name() != signal)
        ++index;
    const QMetaMethod receiver = metaObject()->method(metaObject()->indexOfSlot(slot));
    if (!connect(client, meta->method(index), this, receiver))
        qFatal("No signal %s", signal.constData());
}

// Another client hears what the daemon had to say to the one that is gone.
void TestDeletion::checkQuiet()
{
    daemon.request(R"({"do":"release"})");
    AuthClient bystander;
    drain(&bystander);
    QCOMPARE(log->takeComplaints(), QStringList());
}

void TestDeletion::callsInFlight_data()
{
    QTest::addColumn<QByteArrayList>("methods");
    QTest::addColumn<QByteArray>("then");
    const QByteArrayList all{"Authenticate", "ChangeAuthData", "UnlockIfNeeded", "FactorMethod", "GetState"};
    for (const char *then : {"release", "drop-peers", "stop", "restart"}) {
        for (const QByteArray &method : all) {
            QTest::newRow((method + ", then " + then).constData())
                << QByteArrayList{method} << QByteArray(R"({"do":")") + then + R"("})";
        }
        QTest::newRow((QByteArray("all, then ") + then).constData())
            << all << QByteArray(R"({"do":")") + then + R"("})";
    }
}

void TestDeletion::callsInFlight()
{
    QFETCH(QByteArrayList, methods);
    QFETCH(QByteArray, then);
    for (const QByteArray &method : methods)
        daemon.misbehave(method.constData(), "hold");
    auto client = std::make_unique<AuthClient>();
    bool called = false;
    client->authenticate("login"_s, withChallenge);
    client->changeAuthData("code"_s, withChallenge);
    client->unlockIfNeeded();
    client->factorMethod({}, "code"_s, [&called](const QVariant &) { called = true; });
    for (const QByteArray &method : methods)
        daemon.waitCalls(method.constData());
    client.reset();
    log->take();

    daemon.request(then);
    if (then.contains("stop"))
        daemon.request(R"({"do":"start"})");
    checkQuiet();
    QVERIFY(!called);
}

void TestDeletion::devlockCallInFlight()
{
    daemon.misbehave("GetState", "hold");
    auto client = std::make_unique<AuthDevlockClient>();
    SignalRecorder heard(client.get());
    daemon.waitCalls("GetState");
    client.reset();
    checkQuiet();
    QCOMPARE(heard.list(), QStringList());
}

void TestDeletion::insideTheCallback_data()
{
    QTest::addColumn<QByteArray>("rule");
    QTest::addColumn<QVariantMap>("params");
    QTest::newRow("result") << QByteArray() << QVariantMap{{"type"_s, "echo"_s}, {"value"_s, 5}};
    QTest::newRow("error") << QByteArray("error") << QVariantMap();
    QTest::newRow("lost peer") << QByteArray("drop") << QVariantMap();
    QTest::newRow("lost daemon") << QByteArray("restart") << QVariantMap();
    QTest::newRow("refused parameters") << QByteArray() << QVariantMap{{"url"_s, QUrl()}};
}

void TestDeletion::insideTheCallback()
{
    QFETCH(QByteArray, rule);
    QFETCH(QVariantMap, params);
    daemon.misbehave("UnlockIfNeeded", "hold");
    if (!rule.isEmpty())
        daemon.misbehave("FactorMethod", rule.constData(), R"("times":1)");
    auto client = newClient();
    int called = 0;
    const auto alive = std::make_shared<int>(5);
    client->unlockIfNeeded();
    client->factorMethod(params, "code"_s, [&, alive](const QVariant &) {
        ++called;
        client.reset();
        // What the callback holds lives on until it returns.
        QCOMPARE(*alive, 5);
    });
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s, [&](const QVariant &) {
        if (!client)
            ++called;
    });
    QVERIFY(waitFor([&] { return !client; }));
    log->takeComplaints();
    checkQuiet();
    QCOMPARE(called, 1);
    QCOMPARE(alive.use_count(), 1);
}

void TestDeletion::insideAnEventLoopOfTheCallback()
{
    auto client = newClient();
    bool returned = false;
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s, [&](const QVariant &) {
        QTimer::singleShot(0, this, [&] { client.reset(); });
        waitFor([&] { return !client; });
        returned = true;
    });
    QVERIFY(waitFor([&] { return returned; }));
    checkQuiet();
}

void TestDeletion::insideSignals_data()
{
    QTest::addColumn<QByteArray>("trigger");
    QTest::addColumn<QByteArray>("signal");
    const auto rows = [](const char *trigger, const QByteArrayList &emitted) {
        for (const QByteArray &signal : emitted)
            QTest::newRow((QByteArray(trigger) + ": " + signal).constData()) << QByteArray(trigger) << signal;
    };
    const QByteArrayList drop{"progressChanged", "authenticatedChanged", "discredit"};
    rows("token", {"authenticatedChanged", "progressChanged"});
    rows("failed authentication", drop);
    rows("changed data", {"progressChanged", "authDataChanged"});
    rows("data not changed", {"progressChanged", "changeAuthDataFailed"});
    rows("unlock signal", {"unlockIfNeededFinished"});
    rows("unlock error", {"unlockIfNeededFinished"});
    rows("factor", {"factorSignal"});
    rows("authenticate turned down", drop);
    rows("changeAuthData turned down", drop);
    rows("locked", drop);
    rows("dropped", drop);
    rows("authenticate", {"progressChanged"});
    rows("changeAuthData", {"progressChanged"});
}

void TestDeletion::insideSignals()
{
    QFETCH(QByteArray, trigger);
    QFETCH(QByteArray, signal);
    daemon.misbehave("Authenticate", "hold");
    daemon.misbehave("ChangeAuthData", "hold");
    daemon.misbehave("UnlockIfNeeded", "hold");
    auto client = newClient();
    grant(client.get(), "s3cr3t token");
    const bool starts = trigger == "authenticate" || trigger == "changeAuthData";
    if (!starts) {
        client->authenticate("login"_s, withChallenge);
        daemon.waitCalls("Authenticate");
    }
    SignalRecorder heard(client.get());
    deleteOn(client.get(), signal, "deleteClient()");
    AuthClient *const raw = client.release();

    if (trigger == "token") {
        daemon.emitSignal("Authenticated", "([byte 0x01],)");
    } else if (trigger == "failed authentication") {
        daemon.emitSignal("AuthenticationFailed", "()");
    } else if (trigger == "changed data") {
        daemon.emitSignal("AuthDataChanged", "()");
    } else if (trigger == "data not changed") {
        daemon.emitSignal("ChangeAuthDataFailed", "()");
    } else if (trigger == "unlock signal") {
        daemon.emitSignal("UnlockIfNeededFinished", "(true,)");
    } else if (trigger == "unlock error") {
        daemon.misbehave("UnlockIfNeeded", "error");
        raw->unlockIfNeeded();
    } else if (trigger == "factor") {
        daemon.emitSignal("Factor", "('code', @a{sv} {})");
    } else if (trigger == "authenticate turned down") {
        daemon.answer("Authenticate", "(false,)");
        raw->authenticate("login"_s, withChallenge);
    } else if (trigger == "changeAuthData turned down") {
        daemon.answer("ChangeAuthData", "(false,)");
        raw->changeAuthData("code"_s, withChallenge);
    } else if (trigger == "locked") {
        daemon.request(R"({"do":"set-lock","state":1})");
    } else if (trigger == "dropped") {
        raw->dropAuthentication();
    } else if (trigger == "authenticate") {
        raw->authenticate("login"_s, {});
    } else if (trigger == "changeAuthData") {
        raw->changeAuthData("code"_s, {});
    }
    QVERIFY(waitFor([this] { return !m_client; }));
    QVERIFY2(heard.list().last().startsWith(QLatin1String(signal)), qPrintable(heard.list().last()));
    checkQuiet();
}

void TestDeletion::insideSignalsOfTheFirstState_data()
{
    QTest::addColumn<QByteArray>("signal");
    QTest::newRow("authenticatedChanged") << QByteArray("authenticatedChanged");
    QTest::newRow("discredit") << QByteArray("discredit");
}

void TestDeletion::insideSignalsOfTheFirstState()
{
    QFETCH(QByteArray, signal);
    daemon.request(R"({"do":"set-lock","state":1})");
    deleteOn(new AuthClient, signal, "deleteClient()");
    QVERIFY(waitFor([this] { return !m_client; }));
    daemon.request(R"({"do":"set-lock","state":0})");
    checkQuiet();
}

void TestDeletion::laterInsideSignalsOfTheDaemonsLoss_data()
{
    QTest::addColumn<QByteArray>("signal");
    for (const char *signal : {"progressChanged", "authenticatedChanged", "discredit"})
        QTest::newRow(signal) << QByteArray(signal);
}

void TestDeletion::laterInsideSignalsOfTheDaemonsLoss()
{
    QFETCH(QByteArray, signal);
    daemon.misbehave("Authenticate", "hold");
    auto client = newClient();
    client->authenticate("login"_s, withChallenge);
    client->unlockIfNeeded();
    daemon.waitCalls("Authenticate");
    deleteOn(client.release(), signal, "deleteClientLater()");
    daemon.request(R"({"do":"restart"})");
    QVERIFY(waitFor([this] { return !m_client; }));
    log->takeComplaints();
    checkQuiet();
}

void TestDeletion::insideSignalsOfADevlockClient_data()
{
    QTest::addColumn<QByteArray>("trigger");
    QTest::newRow("answer") << QByteArray("answer");
    QTest::newRow("signal") << QByteArray("signal");
}

void TestDeletion::insideSignalsOfADevlockClient()
{
    QFETCH(QByteArray, trigger);
    daemon.misbehave("GetState", "hold", R"("times":1)");
    auto *client = new AuthDevlockClient;
    daemon.waitCalls("GetState");
    deleteOn(client, "stateChanged", "deleteClient()");
    if (trigger == "signal")
        daemon.emitSignal("StateChanged", "(5,)");
    else
        daemon.request(R"({"do":"release"})");
    QVERIFY(waitFor([this] { return !m_client; }));
    checkQuiet();
}

void TestDeletion::withQueuedSignals()
{
    auto client = newClient();
    SignalRecorder heard(client.get());
    for (int i = 0; i < 100; ++i) {
        daemon.emitSignal("Authenticated", "([byte 0x01],)");
        daemon.emitSignal("StateChanged", i % 2 ? "(1,)" : "(0,)");
    }
    // A round trip: all of them wait in the event queue now.
    client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s);
    client.reset();
    checkQuiet();
    QCOMPARE(heard.list(), QStringList());
}

void TestDeletion::whileTheDaemonIsAway()
{
    auto client = newClient();
    daemon.request(R"({"do":"stop"})");
    QVERIFY(waitFor([this] { return log->contains(R"(debug authd reset "" captured "authd_p2p_client")"_s); }));
    client.reset();
    daemon.request(R"({"do":"start"})");
    checkQuiet();
}

void TestDeletion::oneOfTwo()
{
    auto first = newClient();
    const auto second = newClient();
    daemon.misbehave("FactorMethod", "hold");
    bool firstCalled = false;
    bool secondCalled = false;
    first->factorMethod({}, "code"_s, [&](const QVariant &) { firstCalled = true; });
    second->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s,
                         [&](const QVariant &result) { secondCalled = result == 5; });
    daemon.waitCalls("FactorMethod", 2);
    first.reset();
    daemon.request(R"({"do":"release"})");
    QVERIFY(waitFor([&] { return secondCalled; }));
    drain(second.get());
    QVERIFY(!firstCalled);
}

QTEST_GUILESS_MAIN(TestDeletion)
#include "tst_deletion.moc"
