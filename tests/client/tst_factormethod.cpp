#include "test-case.h"

#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusPendingCallWatcher>

/** Calls of a factor's methods, with a callback and waiting, and the factors' signals. */
class TestFactorMethod : public TestCase
{
    Q_OBJECT

private:
    QList<QVariant> m_results;
    ValueCallBack collect();

private Q_SLOTS:
    void init();

    void callSendsTokenMethodAndParameters();
    void callSendsAnEmptyTokenToo();
    void callFetchesTheChallengeAndDoesNotSendIt();
    void callWithAFailedChallengeIsStillSent();
    void callTouchesNeitherProgressNorAuthentication();
    void callbackReceivesTheResult_data();
    void callbackReceivesTheResult();
    void callbackReceivesAMapAsTheBusProducedIt();
    void callbackIsCalledFromTheEventLoop();
    void callbackReceivesAnInvalidValueOnFailure();
    void callbackReceivesAnInvalidValueForAnotherReply_data();
    void callbackReceivesAnInvalidValueForAnotherReply();
    void callbackIsCopied();
    void callbackMayCallAgain();
    void callbacksAreCalledInTheOrderOfTheReplies();
    void watcherBelongsToTheClientAndIsDeletedAfterTheCallback();
    void emptyCallbackIsNotCalled();
    void emptyCallbackOnFailure();
    void callWithoutAPeerFails();

    void waitSendsTokenMethodAndParameters();
    void waitSendsAnEmptyTokenToo();
    void waitFetchesTheChallengeAndDoesNotSendIt();
    void waitReturnsTheResult_data();
    void waitReturnsTheResult();
    void waitReturnsAMapAsTheBusProducedIt();
    void waitReturnsAnInvalidValueOnFailure();
    void waitReturnsAnInvalidValueForAnotherReply_data();
    void waitReturnsAnInvalidValueForAnotherReply();
    void waitWithoutAPeerFails();
    void waitDeliversSignalsAfterwards();
    void waitTouchesNeitherProgressNorAuthentication();

    void factorSignalIsRelayedAsItIs_data();
    void factorSignalIsRelayedAsItIs();
    void factorSignalOfTheStandIn();
};

namespace {
const QByteArray challenge = "s3cr3t challenge";
const QByteArray token = "s3cr3t token";

QByteArray reply(const QByteArray &value)
{
    return '(' + bytes(value) + ",)";
}

QString factorCall(const QByteArray &withToken, const QByteArray &rest)
{
    return peerCall("FactorMethod", "aysa{sv}", '(' + bytes(withToken) + ", " + rest + ')');
}

void resultRows()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QVariant>("expected");
    QTest::newRow("true") << QByteArray("(<true>,)") << QVariant(true);
    QTest::newRow("false") << QByteArray("(<false>,)") << QVariant(false);
    QTest::newRow("byte") << QByteArray("(<byte 0x07>,)") << QVariant::fromValue(uchar(7));
    QTest::newRow("int") << QByteArray("(<5>,)") << QVariant(5);
    QTest::newRow("uint") << QByteArray("(<uint32 5>,)") << QVariant(5U);
    QTest::newRow("long") << QByteArray("(<int64 5>,)") << QVariant(5LL);
    QTest::newRow("double") << QByteArray("(<0.5>,)") << QVariant(0.5);
    QTest::newRow("string") << QByteArray("(<'s3cr3t'>,)") << QVariant(QStringLiteral("s3cr3t"));
    QTest::newRow("empty string") << QByteArray("(<''>,)") << QVariant(QStringLiteral(""));
    QTest::newRow("bytes") << '(' + QByteArray("<") + bytes("s3cr3t") + ">,)" << QVariant(QByteArray("s3cr3t"));
    QTest::newRow("strings") << QByteArray("(<['a', 'b']>,)")
                             << QVariant(QStringList{QStringLiteral("a"), QStringLiteral("b")});
}

void otherReplyRows()
{
    QTest::addColumn<QByteArray>("value");
    for (const char *value : {"()", "('s3cr3t',)", "(true,)", "(5,)", "(@a{sv} {},)", "([<'s3cr3t'>],)"})
        QTest::newRow(value) << QByteArray(value);
}
} // namespace

ValueCallBack TestFactorMethod::collect()
{
    return [this](const QVariant &result) { m_results.append(result); };
}

void TestFactorMethod::init()
{
    TestCase::init();
    m_results.clear();
    daemon.answer("RequestChallenge", reply(challenge));
}

void TestFactorMethod::callSendsTokenMethodAndParameters()
{
    const auto client = newClient();
    grant(client.get(), token);
    client->factorMethod({{"type"_s, "echo"_s}, {"uid"_s, 1000U}, {"value"_s, "s3cr3t"_s}}, "code"_s, collect());
    QCOMPARE(daemon.waitCalls("FactorMethod"),
             QStringList{factorCall(token, "'code', {'type': <'echo'>, 'uid': <uint32 1000>, 'value': <'s3cr3t'>}")});
}

void TestFactorMethod::callSendsAnEmptyTokenToo()
{
    const auto client = newClient();
    client->factorMethod({}, QString(), collect());
    QCOMPARE(daemon.waitCalls("FactorMethod"), QStringList{factorCall(QByteArray(), "'', @a{sv} {}")});
}

void TestFactorMethod::callFetchesTheChallengeAndDoesNotSendIt()
{
    const auto client = newClient();
    client->factorMethod({}, "code"_s, {});
    client->factorMethod({}, "code"_s, {});
    daemon.waitCalls("FactorMethod", 2);
    const QString call = factorCall(QByteArray(), "'code', @a{sv} {}");
    QCOMPARE(daemon.calls(), (QStringList{peerCall("RequestChallenge", "", "()"), call, call}));

    // It is the one that authenticate() sends.
    client->authenticate("login"_s, {});
    QCOMPARE(daemon.waitCalls("Authenticate"),
             QStringList{peerCall("Authenticate", "sa{sv}", "('login', {'challenge': <" + bytes(challenge) + ">})")});
    QCOMPARE(daemon.calls().size(), 4);
}

void TestFactorMethod::callWithAFailedChallengeIsStillSent()
{
    daemon.misbehave("RequestChallenge", "error", R"("message":"no challenge today")");
    const auto client = newClient();
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s, collect());
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    QCOMPARE(m_results, QList<QVariant>{5});
    QCOMPARE(client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 6}}, "code"_s), QVariant(6));
    const QString warning = R"(warning request failed: "no challenge today")"_s;
    QCOMPARE(log->takeComplaints(), (QStringList{warning, warning}));
}

void TestFactorMethod::callTouchesNeitherProgressNorAuthentication()
{
    const auto client = newClient();
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, false}}, "code"_s, collect());
    QVERIFY(!client->progress());
    client->factorMethod({}, "code"_s, collect());
    QVERIFY(waitFor([this] { return m_results.size() == 2; }));
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->authenticated());
    QCOMPARE(log->takeComplaints().size(), 1);
}

void TestFactorMethod::callbackReceivesTheResult_data()
{
    resultRows();
}

void TestFactorMethod::callbackReceivesTheResult()
{
    QFETCH(QByteArray, value);
    QFETCH(QVariant, expected);
    daemon.answer("FactorMethod", value);
    const auto client = newClient();
    client->factorMethod({}, "code"_s, collect());
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    drain(client.get());
    QCOMPARE(m_results, QList<QVariant>{expected});
    QCOMPARE(m_results.first().userType(), expected.userType());
    QCOMPARE(log->take(), QStringList());
}

void TestFactorMethod::callbackReceivesAMapAsTheBusProducedIt()
{
    daemon.answer("FactorMethod", "(<{'a': <5>, 'b': <{'c': <'s3cr3t'>}>}>,)");
    const auto client = newClient();
    client->factorMethod({}, "code"_s, collect());
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    QCOMPARE(m_results.first().userType(), qMetaTypeId<QDBusArgument>());
    const auto argument = m_results.first().value<QDBusArgument>();
    QCOMPARE(argument.currentSignature(), "a{sv}"_s);
    const QVariantMap map = qdbus_cast<QVariantMap>(argument);
    QCOMPARE(map.value("a"_s), QVariant(5));
    QCOMPARE(qdbus_cast<QVariantMap>(map.value("b"_s).value<QDBusArgument>()), (QVariantMap{{"c"_s, "s3cr3t"_s}}));
}

void TestFactorMethod::callbackIsCalledFromTheEventLoop()
{
    const auto client = newClient();
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s, collect());
    daemon.waitCalls("FactorMethod");
    // A round trip later the reply is there; the callback is not for a blocking call to make.
    QCOMPARE(client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 6}}, "code"_s), QVariant(6));
    QVERIFY(m_results.isEmpty());
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    QCOMPARE(m_results, QList<QVariant>{5});
}

void TestFactorMethod::callbackReceivesAnInvalidValueOnFailure()
{
    daemon.misbehave("FactorMethod", "error", R"("message":"went wrong")");
    const auto client = newClient();
    QStringList linesAtCallback;
    client->factorMethod({}, "code"_s, [&](const QVariant &result) {
        linesAtCallback = log->lines();
        m_results.append(result);
    });
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    drain(client.get());
    QCOMPARE(m_results, QList<QVariant>{QVariant()});
    QVERIFY(!m_results.first().isValid());
    const QStringList warning{R"(warning reply isError: "went wrong")"_s};
    QCOMPARE(linesAtCallback, warning);
    QCOMPARE(log->take(), warning);
}

void TestFactorMethod::callbackReceivesAnInvalidValueForAnotherReply_data()
{
    otherReplyRows();
}

void TestFactorMethod::callbackReceivesAnInvalidValueForAnotherReply()
{
    QFETCH(QByteArray, value);
    daemon.answer("FactorMethod", value);
    const auto client = newClient();
    client->factorMethod({}, "code"_s, collect());
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    drain(client.get());
    QCOMPARE(m_results.size(), 1);
    QVERIFY(!m_results.first().isValid());
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(QRegularExpression("^warning reply isError: \".+\"$"_s).match(lines.first()).hasMatch(),
             qPrintable(lines.first()));
}

void TestFactorMethod::callbackIsCopied()
{
    const auto client = newClient();
    const auto alive = std::make_shared<int>();
    ValueCallBack callback = [this, alive](const QVariant &result) { m_results.append(result); };
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s, callback);
    callback = {};
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    QCOMPARE(m_results, QList<QVariant>{5});
    // The watcher that held the copy does not outlive the call.
    QVERIFY(waitFor([&alive] { return alive.use_count() == 1; }));
}

void TestFactorMethod::callbackMayCallAgain()
{
    const auto client = newClient();
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 1}}, "code"_s, [&](const QVariant &result) {
        m_results.append(result);
        m_results.append(client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 2}}, "code"_s));
        client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 3}}, "code"_s, collect());
    });
    QVERIFY(waitFor([this] { return m_results.size() == 3; }));
    QCOMPARE(m_results, (QList<QVariant>{1, 2, 3}));
}

void TestFactorMethod::callbacksAreCalledInTheOrderOfTheReplies()
{
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    const auto client = newClient();
    for (int i = 0; i < 3; ++i)
        client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, i}}, "code"_s, collect());
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
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s,
                         [&](const QVariant &) { seen = watchers(); });
    QCOMPARE(watchers(), 1);
    QVERIFY(waitFor([&] { return seen >= 0; }));
    QCOMPARE(seen, 1);
    QVERIFY(waitFor([&] { return watchers() == 0; }));
}

void TestFactorMethod::emptyCallbackIsNotCalled()
{
    const auto client = newClient();
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s, ValueCallBack());
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 6}}, "code"_s, nullptr);
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

void TestFactorMethod::callWithoutAPeerFails()
{
    const auto client = newClient();
    client->factorMethod({}, "code"_s, {});
    daemon.waitCalls("FactorMethod");
    drain(client.get());
    log->take();
    daemon.request(R"({"do":"drop-peers"})");
    client->factorMethod({}, "code"_s, collect());
    QVERIFY(m_results.isEmpty());
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    drainSystemBus();
    QCOMPARE(m_results.size(), 1);
    QVERIFY(!m_results.first().isValid());
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(QRegularExpression("^warning reply isError: \".+\"$"_s).match(lines.first()).hasMatch(),
             qPrintable(lines.first()));
}

void TestFactorMethod::waitSendsTokenMethodAndParameters()
{
    const auto client = newClient();
    grant(client.get(), token);
    QCOMPARE(client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, "s3cr3t"_s}}, "code"_s), QVariant("s3cr3t"_s));
    QCOMPARE(daemon.waitCalls("FactorMethod"),
             QStringList{factorCall(token, "'code', {'type': <'echo'>, 'value': <'s3cr3t'>}")});
}

void TestFactorMethod::waitSendsAnEmptyTokenToo()
{
    const auto client = newClient();
    QCOMPARE(client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s), QVariant(5));
    QCOMPARE(daemon.waitCalls("FactorMethod"),
             QStringList{factorCall(QByteArray(), "'code', {'type': <'echo'>, 'value': <5>}")});
}

void TestFactorMethod::waitFetchesTheChallengeAndDoesNotSendIt()
{
    const auto client = newClient();
    client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s);
    client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s);
    const QString call = factorCall(QByteArray(), "'code', {'type': <'echo'>, 'value': <5>}");
    QCOMPARE(daemon.calls(), (QStringList{peerCall("RequestChallenge", "", "()"), call, call}));
}

void TestFactorMethod::waitReturnsTheResult_data()
{
    resultRows();
}

void TestFactorMethod::waitReturnsTheResult()
{
    QFETCH(QByteArray, value);
    QFETCH(QVariant, expected);
    daemon.answer("FactorMethod", value);
    const auto client = newClient();
    const QVariant result = client->factorMethodWait({}, "code"_s);
    QCOMPARE(result, expected);
    QCOMPARE(result.userType(), expected.userType());
    QCOMPARE(log->take(), QStringList());
}

void TestFactorMethod::waitReturnsAMapAsTheBusProducedIt()
{
    daemon.answer("FactorMethod", "(<{'a': <5>}>,)");
    const auto client = newClient();
    const QVariant result = client->factorMethodWait({}, "code"_s);
    QCOMPARE(result.userType(), qMetaTypeId<QDBusArgument>());
    QCOMPARE(qdbus_cast<QVariantMap>(result.value<QDBusArgument>()), (QVariantMap{{"a"_s, 5}}));
}

void TestFactorMethod::waitReturnsAnInvalidValueOnFailure()
{
    daemon.misbehave("FactorMethod", "error", R"("message":"went wrong")");
    const auto client = newClient();
    QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
    QCOMPARE(log->take(), QStringList{R"(warning factorMethodWait failed: "went wrong")"_s});
}

void TestFactorMethod::waitReturnsAnInvalidValueForAnotherReply_data()
{
    otherReplyRows();
}

void TestFactorMethod::waitReturnsAnInvalidValueForAnotherReply()
{
    QFETCH(QByteArray, value);
    daemon.answer("FactorMethod", value);
    const auto client = newClient();
    QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(QRegularExpression("^warning factorMethodWait failed: \".+\"$"_s).match(lines.first()).hasMatch(),
             qPrintable(lines.first()));
}

void TestFactorMethod::waitWithoutAPeerFails()
{
    const auto client = newClient();
    daemon.request(R"({"do":"drop-peers"})");
    QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
    const QStringList lines = log->take();
    // The challenge cannot be had either.
    QCOMPARE(lines.size(), 2);
    QVERIFY2(QRegularExpression("^warning request failed: \".+\"$"_s).match(lines.at(0)).hasMatch(),
             qPrintable(lines.at(0)));
    QVERIFY2(QRegularExpression("^warning factorMethodWait failed: \".+\"$"_s).match(lines.at(1)).hasMatch(),
             qPrintable(lines.at(1)));
    QCOMPARE(daemon.calls(), QStringList());
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

void TestFactorMethod::waitTouchesNeitherProgressNorAuthentication()
{
    const auto client = newClient();
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, false}}, "code"_s);
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->authenticated());
    QVERIFY(!client->progress());
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
