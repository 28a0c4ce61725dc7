#include "test-case.h"

#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusPendingCallWatcher>

/** Calls of a factor's methods, with a callback and waiting, and the factors' signals. */
class TestFactorMethod : public TestCase
{
    Q_OBJECT

private:
    void call(AuthClient *client, const QVariantMap &params, const QString &method = QStringLiteral("code"));
    ValueCallBack collect();

    QList<QVariant> m_results;
    QStringList m_linesAtCallback;

private Q_SLOTS:
    void init();

    void callSendsTokenMethodAndParameters_data();
    void callSendsTokenMethodAndParameters();
    void callFetchesTheChallengeAndDoesNotSendIt_data();
    void callFetchesTheChallengeAndDoesNotSendIt();
    void callWithAFailedChallengeIsStillSent_data();
    void callWithAFailedChallengeIsStillSent();
    void callTouchesNeitherProgressNorAuthentication_data();
    void callTouchesNeitherProgressNorAuthentication();
    void callGivesTheResult_data();
    void callGivesTheResult();
    void callGivesAMapAsTheBusProducedIt_data();
    void callGivesAMapAsTheBusProducedIt();
    void callGivesAnInvalidValueOnFailure_data();
    void callGivesAnInvalidValueOnFailure();

    void callbackIsCalledFromTheEventLoop();
    void callbackIsCopied();
    void callbackMayCallAgain();
    void callbacksAreCalledInTheOrderOfTheReplies();
    void watcherBelongsToTheClientAndIsDeletedAfterTheCallback();
    void emptyCallbackIsNotCalled();
    void emptyCallbackOnFailure();
    void waitDeliversSignalsAfterwards();

    void factorSignalIsRelayedAsItIs_data();
    void factorSignalIsRelayedAsItIs();
    void factorSignalOfTheStandIn();
};

namespace {
const QByteArray challenge = "s3cr3t challenge";
const QByteArray token = "s3cr3t token";

// The two ways of calling give the same.
const char *const ways[] = {"callback", "wait"};

bool waits()
{
    return QByteArray(QTest::currentDataTag()).startsWith("wait");
}

void wayRows()
{
    textRows("way", {ways[0], ways[1]});
}

QString factorCall(const QByteArray &withToken, const QByteArray &rest)
{
    return peerCall("FactorMethod", "aysa{sv}", '(' + bytes(withToken) + ", " + rest + ')');
}
} // namespace

ValueCallBack TestFactorMethod::collect()
{
    return [this](const QVariant &result) {
        m_linesAtCallback = log->lines();
        m_results.append(result);
    };
}

/** Calls in the way that the row says, and waits for the result. */
void TestFactorMethod::call(AuthClient *client, const QVariantMap &params, const QString &method)
{
    const int before = m_results.size();
    if (waits()) {
        m_results.append(client->factorMethodWait(params, method));
    } else {
        client->factorMethod(params, method, collect());
        QCOMPARE(m_results.size(), before);
        QVERIFY(waitFor([&] { return m_results.size() > before; }));
    }
    drainSystemBus();
}

void TestFactorMethod::init()
{
    TestCase::init();
    m_results.clear();
    daemon.answer("RequestChallenge", byteTuple(challenge));
}

void TestFactorMethod::callSendsTokenMethodAndParameters_data()
{
    QTest::addColumn<QByteArray>("held");
    QTest::addColumn<QString>("method");
    QTest::addColumn<QVariantMap>("params");
    QTest::addColumn<QByteArray>("args");
    for (const char *way : ways) {
        QTest::addRow("%s, all", way) << token << "code"_s
                                      << QVariantMap{{"type"_s, "echo"_s}, {"uid"_s, 1000U}, {"value"_s, "s3cr3t"_s}}
                                      << QByteArray("'code', {'type': <'echo'>, 'uid': <uint32 1000>, "
                                                    "'value': <'s3cr3t'>}");
        QTest::addRow("%s, nothing", way) << QByteArray() << QString() << QVariantMap() << QByteArray("'', @a{sv} {}");
    }
}

void TestFactorMethod::callSendsTokenMethodAndParameters()
{
    QFETCH(QByteArray, held);
    QFETCH(QString, method);
    QFETCH(QVariantMap, params);
    QFETCH(QByteArray, args);
    daemon.answer("FactorMethod", "(<5>,)");
    const auto client = newClient();
    if (!held.isEmpty())
        grant(client.get(), held);
    call(client.get(), params, method);
    QCOMPARE(daemon.waitCalls("FactorMethod"), QStringList{factorCall(held, args)});
    QCOMPARE(m_results, QList<QVariant>{5});
}

void TestFactorMethod::callFetchesTheChallengeAndDoesNotSendIt_data()
{
    wayRows();
}

void TestFactorMethod::callFetchesTheChallengeAndDoesNotSendIt()
{
    const auto client = newClient();
    call(client.get(), echo(5));
    call(client.get(), echo(5));
    const QString sent = factorCall(QByteArray(), "'code', {'type': <'echo'>, 'value': <5>}");
    QCOMPARE(daemon.calls(), (QStringList{peerCall("RequestChallenge", "", "()"), sent, sent}));

    // The same challenge is the one that authenticate() sends.
    client->authenticate("login"_s, {});
    QCOMPARE(daemon.waitCalls("Authenticate"), QStringList{loginCall(challenge)});
    QCOMPARE(daemon.calls().size(), 4);
}

void TestFactorMethod::callWithAFailedChallengeIsStillSent_data()
{
    wayRows();
}

void TestFactorMethod::callWithAFailedChallengeIsStillSent()
{
    daemon.misbehave("RequestChallenge", "error", R"("message":"no challenge today")");
    const auto client = newClient();
    call(client.get(), echo(5));
    QCOMPARE(m_results, QList<QVariant>{5});
    QCOMPARE(log->takeComplaints(), QStringList{R"(warning request failed: "no challenge today")"_s});
}

void TestFactorMethod::callTouchesNeitherProgressNorAuthentication_data()
{
    wayRows();
}

void TestFactorMethod::callTouchesNeitherProgressNorAuthentication()
{
    const auto client = newClient();
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    client->factorMethod(echo(false), "code"_s, {});
    QVERIFY(!client->progress());
    call(client.get(), echo(false));
    call(client.get(), {});
    drain(client.get());
    QCOMPARE(m_results, (QList<QVariant>{false, QVariant()}));
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->authenticated());
    QVERIFY(!client->progress());
    QCOMPARE(log->takeComplaints().size(), 1);
}

void TestFactorMethod::callGivesTheResult_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QVariant>("expected");
    for (const char *way : ways) {
        const auto row = [way](const char *name, const QByteArray &value, const QVariant &expected) {
            QTest::addRow("%s %s", way, name) << "(<" + value + ">,)" << expected;
        };
        row("true", "true", true);
        row("false", "false", false);
        row("byte", "byte 0x07", QVariant::fromValue(uchar(7)));
        row("int", "5", 5);
        row("uint", "uint32 5", 5U);
        row("long", "int64 5", 5LL);
        row("double", "0.5", 0.5);
        row("string", "'s3cr3t'", "s3cr3t"_s);
        row("empty string", "''", ""_s);
        row("bytes", bytes("s3cr3t"), QByteArray("s3cr3t"));
        row("strings", "['a', 'b']", QStringList{"a"_s, "b"_s});
    }
}

void TestFactorMethod::callGivesTheResult()
{
    QFETCH(QByteArray, value);
    QFETCH(QVariant, expected);
    daemon.answer("FactorMethod", value);
    const auto client = newClient();
    call(client.get(), {});
    drain(client.get());
    QCOMPARE(m_results, QList<QVariant>{expected});
    QCOMPARE(m_results.first().userType(), expected.userType());
    QCOMPARE(log->take(), QStringList());
}

void TestFactorMethod::callGivesAMapAsTheBusProducedIt_data()
{
    wayRows();
}

void TestFactorMethod::callGivesAMapAsTheBusProducedIt()
{
    daemon.answer("FactorMethod", "(<{'a': <5>, 'b': <{'c': <'s3cr3t'>}>}>,)");
    const auto client = newClient();
    call(client.get(), {});
    QCOMPARE(m_results.value(0).userType(), qMetaTypeId<QDBusArgument>());
    const auto argument = m_results.first().value<QDBusArgument>();
    QCOMPARE(argument.currentSignature(), "a{sv}"_s);
    const QVariantMap map = qdbus_cast<QVariantMap>(argument);
    QCOMPARE(map.value("a"_s), QVariant(5));
    QCOMPARE(qdbus_cast<QVariantMap>(map.value("b"_s).value<QDBusArgument>()), (QVariantMap{{"c"_s, "s3cr3t"_s}}));
}

void TestFactorMethod::callGivesAnInvalidValueOnFailure_data()
{
    QTest::addColumn<QByteArray>("value");
    for (const char *way : ways) {
        for (const char *value :
             {"error", "no peer", "()", "('s3cr3t',)", "(true,)", "(5,)", "(@a{sv} {},)", "([<'s3cr3t'>],)"})
            QTest::addRow("%s %s", way, value) << QByteArray(value);
    }
}

void TestFactorMethod::callGivesAnInvalidValueOnFailure()
{
    QFETCH(QByteArray, value);
    const auto client = newClient();
    if (value == "no peer")
        daemon.request(R"({"do":"drop-peers"})");
    else if (value == "error")
        daemon.misbehave("FactorMethod", "error", R"("message":"went wrong")");
    else
        daemon.answer("FactorMethod", value);
    call(client.get(), {});
    if (value != "no peer")
        drain(client.get());
    QCOMPARE(m_results, QList<QVariant>{QVariant()});

    QStringList lines = log->take();
    if (!waits())
        QCOMPARE(m_linesAtCallback, lines);
    if (value != "error")
        lines = withoutTexts(lines);
    QStringList expected{"warning %1: %2"_s.arg(waits() ? "factorMethodWait failed"_s : "reply isError"_s,
                                                value == "error" ? "\"went wrong\""_s : "…"_s)};
    // Nor can the challenge be had from nobody.
    if (value == "no peer")
        expected.prepend("warning request failed: …"_s);
    QCOMPARE(lines, expected);
    QCOMPARE(daemon.calls().isEmpty(), value == "no peer");
}

void TestFactorMethod::callbackIsCalledFromTheEventLoop()
{
    const auto client = newClient();
    client->factorMethod(echo(5), "code"_s, collect());
    daemon.waitCalls("FactorMethod");
    // A round trip later the reply is there; the callback is not for a blocking call to make.
    QCOMPARE(client->factorMethodWait(echo(6), "code"_s), QVariant(6));
    QVERIFY(m_results.isEmpty());
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    QCOMPARE(m_results, QList<QVariant>{5});
}

void TestFactorMethod::callbackIsCopied()
{
    const auto client = newClient();
    const auto alive = std::make_shared<int>();
    ValueCallBack callback = [this, alive](const QVariant &result) { m_results.append(result); };
    client->factorMethod(echo(5), "code"_s, callback);
    callback = {};
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    QCOMPARE(m_results, QList<QVariant>{5});
    // The watcher that held the copy does not outlive the call.
    QVERIFY(waitFor([&alive] { return alive.use_count() == 1; }));
}

void TestFactorMethod::callbackMayCallAgain()
{
    const auto client = newClient();
    client->factorMethod(echo(1), "code"_s, [&](const QVariant &result) {
        m_results.append(result);
        m_results.append(client->factorMethodWait(echo(2), "code"_s));
        client->factorMethod(echo(3), "code"_s, collect());
    });
    QVERIFY(waitFor([this] { return m_results.size() == 3; }));
    QCOMPARE(m_results, (QList<QVariant>{1, 2, 3}));
}

void TestFactorMethod::callbacksAreCalledInTheOrderOfTheReplies()
{
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    const auto client = newClient();
    for (int i = 0; i < 3; ++i)
        client->factorMethod(echo(i), "code"_s, collect());
    QVERIFY(waitFor([this] { return m_results.size() == 2; }));
    daemon.request(R"({"do":"release"})");
    QVERIFY(waitFor([this] { return m_results.size() == 3; }));
    QCOMPARE(m_results, (QList<QVariant>{1, 2, 0}));
}

void TestFactorMethod::watcherBelongsToTheClientAndIsDeletedAfterTheCallback()
{
    const auto client = newClient();
    const auto watchers = [&client] {
        return client->findChildren<QDBusPendingCallWatcher *>(QString(), Qt::FindDirectChildrenOnly).size();
    };
    int seen = -1;
    client->factorMethod(echo(5), "code"_s, [&](const QVariant &) { seen = watchers(); });
    QCOMPARE(watchers(), 1);
    QVERIFY(waitFor([&] { return seen >= 0; }));
    QCOMPARE(seen, 1);
    QVERIFY(waitFor([&] { return watchers() == 0; }));
}

void TestFactorMethod::emptyCallbackIsNotCalled()
{
    const auto client = newClient();
    client->factorMethod(echo(5), "code"_s, ValueCallBack());
    client->factorMethod(echo(6), "code"_s, nullptr);
    QCOMPARE(daemon.waitCalls("FactorMethod", 2).size(), 2);
    // The replies are taken all the same.
    QVERIFY(waitFor([&] { return client->findChildren<QDBusPendingCallWatcher *>().isEmpty(); }));
    drain(client.get());
    QCOMPARE(log->take(), QStringList());
}

void TestFactorMethod::emptyCallbackOnFailure()
{
    daemon.misbehave("FactorMethod", "error", R"("message":"went wrong")");
    const auto client = newClient();
    client->factorMethod({}, "code"_s, {});
    daemon.waitCalls("FactorMethod");
    drain(client.get());
    QCOMPARE(log->take(), QStringList{R"(warning reply isError: "went wrong")"_s});
}

void TestFactorMethod::waitDeliversSignalsAfterwards()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    const QVariantMap told{{"told"_s, true}};
    client->factorMethodWait({{"type"_s, "notify"_s}, {"params"_s, told}}, "code"_s);
    QCOMPARE(heard.list(), QStringList());
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{"factorSignal(code, %1)"_s.arg(written(told))});
}

void TestFactorMethod::factorSignalIsRelayedAsItIs_data()
{
    QTest::addColumn<QByteArray>("args");
    QTest::addColumn<QString>("factor");
    QTest::addColumn<QVariantMap>("params");
    QTest::newRow("empty") << QByteArray("('', @a{sv} {})") << QString() << QVariantMap();
    QTest::newRow("option") << QByteArray("('code', {'type': <'option-changed'>, 'uid': <uint32 1000>, "
                                          "'name': <'length'>, 'value': <4>})")
                            << "code"_s
                            << QVariantMap{{"type"_s, "option-changed"_s},
                                           {"uid"_s, 1000U},
                                           {"name"_s, "length"_s},
                                           {"value"_s, 4}};
    QTest::newRow("unknown") << QByteArray("('вход', {'s3cr3t': <true>})") << "вход"_s
                             << QVariantMap{{"s3cr3t"_s, true}};
}

void TestFactorMethod::factorSignalIsRelayedAsItIs()
{
    QFETCH(QByteArray, args);
    QFETCH(QString, factor);
    QFETCH(QVariantMap, params);
    const auto client = newClient();
    SignalRecorder heard(client.get());
    daemon.emitSignal("Factor", args);
    daemon.emitSignal("Factor", args);
    drain(client.get());
    const QString expected = "factorSignal(%1, %2)"_s.arg(factor, written(params));
    QCOMPARE(heard.list(), (QStringList{expected, expected}));
    QCOMPARE(log->take(), QStringList());
}

void TestFactorMethod::factorSignalOfTheStandIn()
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    const QVariantMap told{{"told"_s, "s3cr3t"_s}};
    client->factorMethod({{"type"_s, "notify"_s}, {"params"_s, told}}, "smartcard"_s, collect());
    QVERIFY(waitFor([&] { return m_results.size() == 1 && heard.list().size() == 1; }));
    QCOMPARE(heard.list(), QStringList{"factorSignal(smartcard, %1)"_s.arg(written(told))});
    QCOMPARE(m_results, QList<QVariant>{true});
}

QTEST_GUILESS_MAIN(TestFactorMethod)
#include "tst_factormethod.moc"
