#include "test-case.h"

#include <FactorSettingsBase>

#include <QtCore/QPointer>
#include <QtCore/QUrl>
#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusPendingCallWatcher>

#include <limits>

/** The settings of one authentication method, as its settings page extends them. */
class TestFactorSettings : public TestCase
{
    Q_OBJECT

private:
    QList<QVariant> m_results;
    ValueCallBack collect();
    void notify(const QByteArray &params, const QByteArray &method = "code");
    void settle();
    void awaitEndOfCalls();
    void authenticate();

private Q_SLOTS:
    void init();

    void newObjectAsksNothing();
    void objectBelongsToItsParent();

    void getOptionSendsTokenMethodAndRequest_data();
    void getOptionSendsTokenMethodAndRequest();
    void requestsNameMethodAndSubject_data();
    void requestsNameMethodAndSubject();
    void getOptionReturnsTheValue_data();
    void getOptionReturnsTheValue();
    void getOptionReturnsAMapAsTheBusProducedIt();
    void getOptionIsNotKept();
    void getOptionOfTheStandIn();
    void getOptionDeliversNoticesAfterwards();
    void failedGetOptionIsInvalid();
    void replyOfAnotherTypeIsAFailedGetOption_data();
    void replyOfAnotherTypeIsAFailedGetOption();
    void unsendableNameIsAFailedGetOption();
    void lostPeerIsAFailedGetOption();

    void setOptionSendsTokenMethodAndRequest_data();
    void setOptionSendsTokenMethodAndRequest();
    void setOptionSendsTheValueWithItsType_data();
    void setOptionSendsTheValueWithItsType();
    void setOptionDoesNotWait();
    void setOptionChangesNothingByItself();
    void acceptedSetOptionIsAnnounced();
    void failedSetOptionWarns();
    void unsendableValueIsNotSent_data();
    void unsendableValueIsNotSent();

    void doActionSendsTokenMethodAndRequest_data();
    void doActionSendsTokenMethodAndRequest();
    void doActionDoesNotWait();
    void doActionCallsBackWithTheResult_data();
    void doActionCallsBackWithTheResult();
    void doActionReturnsAMapAsTheBusProducedIt();
    void doActionCopiesTheCallback();
    void doActionWithAnEmptyCallbackIsSent();
    void failedDoActionCallsBackWithAnInvalidValue();
    void failedDoActionWithAnEmptyCallback();
    void unsendableParametersAreNotSent_data();
    void unsendableParametersAreNotSent();
    void unsendableParametersWithAnEmptyCallback();
    void actionsOfTheStandIn();
    void callbackIsCalledThoughTheObjectIsGone();

    void noticeIsHandled_data();
    void noticeIsHandled();
    void noticeHandsOverAMapAsTheBusProducedIt();
    void noticeOfAnotherMethodIsIgnored_data();
    void noticeOfAnotherMethodIsIgnored();
    void noticeOfAnotherTypeIsIgnored_data();
    void noticeOfAnotherTypeIsIgnored();
    void noticeOfAnotherSignatureIsIgnored_data();
    void noticeOfAnotherSignatureIsIgnored();
    void noticesAreHandledInTheirOrder();
    void objectsHearTheirOwnMethodOnly();
    void objectsOfOneMethodAllHear();
    void baseHandlesNoticesByDoingNothing();
    void deletedObjectHearsNothing();
    void objectMayBeDeletedFromItsHandler();
    void anotherObjectMayBeDeletedFromAHandler();
    void handlerMayAskForTheOption();

    void objectGoesOnAfterARestart();
    void objectsShareTheSettingsClient();
};

namespace {
const QByteArray token = "s3cr3t token";
const uint highestUid = std::numeric_limits<quint32>::max();

/** Writes down what it is told. */
class Settings : public FactorSettingsBase
{
public:
    explicit Settings(const QString &method = QStringLiteral("code"), QObject *parent = nullptr)
        : FactorSettingsBase(parent, method)
    {
    }

    QStringList take()
    {
        QStringList result;
        result.swap(m_heard);
        return result;
    }

    QVariant lastValue;
    std::function<void()> handler;

protected:
    void handleOptionChanged(uint uid, const QString &name, const QVariant &value) override
    {
        m_heard.append("%1 \"%2\" %3"_s.arg(uid).arg(name, written(value)));
        lastValue = value;
        if (handler)
            handler();
    }

private:
    QStringList m_heard;
};

QString heard(uint uid, const char *name, const QVariant &value)
{
    return "%1 \"%2\" %3"_s.arg(uid).arg(QString::fromUtf8(name), written(value));
}

QString factorCall(const QByteArray &params, const QByteArray &method = "code", const QByteArray &withToken = {})
{
    return peerCall("FactorMethod", "aysa{sv}", '(' + bytes(withToken) + ", '" + method + "', " + params + ')');
}

AuthSettingsClient *settingsClient()
{
    return AuthSettingsClient::get();
}

void userRows()
{
    QTest::addColumn<uint>("uid");
    QTest::newRow("0") << 0U;
    QTest::newRow("1000") << 1000U;
    QTest::newRow("4294967295") << highestUid;
}

void valueRows()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QVariant>("value");
    const auto row = [](const char *text, const QVariant &value) { QTest::newRow(text) << QByteArray(text) << value; };
    row("true", true);
    row("false", false);
    row("byte 0x07", QVariant::fromValue(uchar(7)));
    row("-5", -5);
    row("uint32 4294967295", highestUid);
    row("int64 5", 5LL);
    row("0.5", 0.5);
    row("''", ""_s);
    row("'s3cr3t'", "s3cr3t"_s);
    row("'вход'", "вход"_s);
    row("[byte 0x01, 0x02]", QByteArray("\1\2"));
    row("['a', 'b']", QStringList{"a"_s, "b"_s});
    row("@as []", QStringList());
}

// Values that D-Bus does not carry, and what is said of them.
void unsendableRows()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("complaint");
    const QVariantMap deep{{"a"_s, QVariantList{5, QVariantMap{{"b"_s, QVariant()}}}}};
    QTest::newRow("invalid") << QVariant() << " of type Invalid cannot be sent over D-Bus"_s;
    QTest::newRow("null") << QVariant::fromValue(nullptr) << " of type std::nullptr_t cannot be sent over D-Bus"_s;
    QTest::newRow("URL") << QVariant(QUrl("s3cr3t:"_s)) << " of type QUrl cannot be sent over D-Bus"_s;
    QTest::newRow("URL in a list") << QVariant(QVariantList{5, QUrl()})
                                   << "[1] of type QUrl cannot be sent over D-Bus"_s;
    QTest::newRow("deep inside") << QVariant(deep) << ".a[1].b of type Invalid cannot be sent over D-Bus"_s;
    QTest::newRow("text with a NUL") << QVariant("s3cr3t"_s + QChar())
                                     << " of type QString holds a NUL character, which D-Bus cannot carry"_s;
}
} // namespace

ValueCallBack TestFactorSettings::collect()
{
    return [this](const QVariant &result) { m_results.append(result); };
}

void TestFactorSettings::notify(const QByteArray &params, const QByteArray &method)
{
    daemon.emitSignal("Factor", "('" + method + "', " + params + ')');
}

// The settings client outlives the daemons of all functions: it has noticed this one and has a challenge of it.
void TestFactorSettings::settle()
{
    settingsClient()->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 0}}, "code"_s);
    QVERIFY(waitFor([this] { return log->contains("debug handleStateChanged AuthDevlockClient::Undefined -> 0"_s); }));
    drain(settingsClient());
    log->take();
    daemon.clearCalls();
}

// Until no call of the settings client is under way.
void TestFactorSettings::awaitEndOfCalls()
{
    QVERIFY(waitFor([] { return settingsClient()->findChildren<QDBusPendingCallWatcher *>().isEmpty(); }));
    drain(settingsClient());
}

// As user 1000, who may then change and do things.
void TestFactorSettings::authenticate()
{
    settingsClient()->authenticate("login"_s, {{"factor"_s, "code"_s}, {"data"_s, "1234"_s}, {"uid"_s, 1000U}});
    QVERIFY(waitFor([] { return settingsClient()->authenticated(); }));
    LogRecorder::forbid(settingsClient()->token());
    daemon.clearCalls();
}

void TestFactorSettings::init()
{
    static bool made = false;
    TestCase::init();
    if (made)
        awaitReconnection("authd_p2p_settings_client"_s);
    else
        settingsClient();
    made = true;
    settle();
    m_results.clear();
}

void TestFactorSettings::newObjectAsksNothing()
{
    Settings settings;
    drain(settingsClient());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(settings.take(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestFactorSettings::objectBelongsToItsParent()
{
    auto parent = std::make_unique<QObject>();
    const QPointer<FactorSettingsBase> settings = new Settings("code"_s, parent.get());
    QCOMPARE(settings->parent(), parent.get());
    parent.reset();
    QVERIFY(!settings);
    QCOMPARE(Settings().parent(), nullptr);
}

void TestFactorSettings::getOptionSendsTokenMethodAndRequest_data()
{
    userRows();
}

void TestFactorSettings::getOptionSendsTokenMethodAndRequest()
{
    QFETCH(uint, uid);
    daemon.answer("FactorMethod", "(<5>,)");
    const Settings settings;
    const QByteArray request =
        "{'name': <'length'>, 'type': <'get-option'>, 'uid': <uint32 " + QByteArray::number(uid) + ">}";
    settings.getOption(uid, "length"_s);
    QCOMPARE(daemon.calls(), QStringList{factorCall(request)});

    grant(settingsClient(), token);
    daemon.clearCalls();
    settings.getOption(uid, "length"_s);
    QCOMPARE(daemon.calls(), QStringList{factorCall(request, "code", token)});
}

void TestFactorSettings::requestsNameMethodAndSubject_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("name");
    QTest::newRow("empty") << QString() << QString();
    QTest::newRow("other letters") << "вход"_s
                                   << "длина"_s;
    QTest::newRow("separators") << "a/b"_s
                                << "worker/c d"_s;
}

void TestFactorSettings::requestsNameMethodAndSubject()
{
    QFETCH(QString, method);
    QFETCH(QString, name);
    daemon.answer("FactorMethod", "(<5>,)");
    Settings settings(method);
    QCOMPARE(settings.getOption(1000, name), QVariant(5));
    settings.setOption(1000, name, true);
    settings.doAction(1000, name, {}, collect());
    awaitEndOfCalls();
    QCOMPARE(m_results, QList<QVariant>{5});
    const auto call = [&](const QByteArray &beforeTheType, const QByteArray &type, const QByteArray &afterTheUser) {
        return factorCall("{'name': <'" + name.toUtf8() + "'>, " + beforeTheType + "'type': <'" + type
                              + "'>, 'uid': <uint32 1000>" + afterTheUser + '}',
                          method.toUtf8());
    };
    QCOMPARE(daemon.calls(),
             (QStringList{call("", "get-option", ""), call("", "set-option", ", 'value': <true>"),
                          call("'params': <@a{sv} {}>, ", "action", "")}));
}

void TestFactorSettings::getOptionReturnsTheValue_data()
{
    valueRows();
}

void TestFactorSettings::getOptionReturnsTheValue()
{
    QFETCH(QByteArray, text);
    QFETCH(QVariant, value);
    daemon.answer("FactorMethod", "(<" + text + ">,)");
    const Settings settings;
    const QVariant result = settings.getOption(1000, "length"_s);
    QCOMPARE(result, value);
    QCOMPARE(result.userType(), value.userType());
    QCOMPARE(log->take(), QStringList());
}

void TestFactorSettings::getOptionReturnsAMapAsTheBusProducedIt()
{
    daemon.answer("FactorMethod", "(<{'a': <5>}>,)");
    const Settings settings;
    const QVariant result = settings.getOption(1000, "length"_s);
    QCOMPARE(result.userType(), qMetaTypeId<QDBusArgument>());
    QCOMPARE(qdbus_cast<QVariantMap>(result), (QVariantMap{{"a"_s, 5}}));
}

void TestFactorSettings::getOptionIsNotKept()
{
    const Settings settings;
    daemon.answer("FactorMethod", "(<5>,)");
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(5));
    daemon.answer("FactorMethod", "(<6>,)");
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(6));
    QCOMPARE(daemon.calls().size(), 2);
}

void TestFactorSettings::getOptionOfTheStandIn()
{
    const Settings code;
    QCOMPARE(code.getOption(1000, "length"_s), QVariant(4U));
    QCOMPARE(code.getOption(1001, "keypad"_s), QVariant("digits"_s));
    const Settings worker("worker"_s);
    QCOMPARE(worker.getOption(1000, "show-last-login"_s), QVariant(true));
}

void TestFactorSettings::getOptionDeliversNoticesAfterwards()
{
    Settings settings;
    notify("{'type': <'option-changed'>, 'name': <'length'>}");
    settings.getOption(1000, "length"_s);
    QCOMPARE(settings.take(), QStringList());
    drain(settingsClient());
    QCOMPARE(settings.take(), QStringList{heard(0, "length", QVariant())});
}

void TestFactorSettings::failedGetOptionIsInvalid()
{
    daemon.misbehave("FactorMethod", "error", R"("message":"not for you")");
    const Settings settings;
    QVERIFY(!settings.getOption(1000, "length"_s).isValid());
    QCOMPARE(log->take(), QStringList{R"(warning factorMethodWait failed: "not for you")"_s});
}

void TestFactorSettings::replyOfAnotherTypeIsAFailedGetOption_data()
{
    QTest::addColumn<QByteArray>("reply");
    for (const char *reply : {"()", "('5',)", "(5,)", "(@a{sv} {},)", "([<5>],)"})
        QTest::newRow(reply) << QByteArray(reply);
}

void TestFactorSettings::replyOfAnotherTypeIsAFailedGetOption()
{
    QFETCH(QByteArray, reply);
    daemon.answer("FactorMethod", reply);
    const Settings settings;
    QVERIFY(!settings.getOption(1000, "length"_s).isValid());
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith("warning factorMethodWait failed: \""_s), qPrintable(lines.first()));
}

void TestFactorSettings::unsendableNameIsAFailedGetOption()
{
    const Settings settings;
    QVERIFY(!settings.getOption(1000, "length"_s + QChar()).isValid());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(
        log->take(),
        QStringList{
            R"(warning factorMethodWait failed: "name of type QString holds a NUL character, which D-Bus cannot )"_s
            "carry\""});
}

void TestFactorSettings::lostPeerIsAFailedGetOption()
{
    daemon.misbehave("FactorMethod", "drop");
    const Settings settings;
    QVERIFY(!settings.getOption(1000, "length"_s).isValid());
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith("warning factorMethodWait failed: \""_s), qPrintable(lines.first()));
}

void TestFactorSettings::setOptionSendsTokenMethodAndRequest_data()
{
    userRows();
}

void TestFactorSettings::setOptionSendsTokenMethodAndRequest()
{
    QFETCH(uint, uid);
    daemon.answer("FactorMethod", "(<true>,)");
    Settings settings;
    const QByteArray request =
        "{'name': <'length'>, 'type': <'set-option'>, 'uid': <uint32 " + QByteArray::number(uid) + ">, 'value': <6>}";
    settings.setOption(uid, "length"_s, 6);
    daemon.waitCalls("FactorMethod");
    QCOMPARE(daemon.calls(), QStringList{factorCall(request)});

    awaitEndOfCalls();
    grant(settingsClient(), token);
    daemon.clearCalls();
    settings.setOption(uid, "length"_s, 6);
    daemon.waitCalls("FactorMethod");
    QCOMPARE(daemon.calls(), QStringList{factorCall(request, "code", token)});
    awaitEndOfCalls();
}

void TestFactorSettings::setOptionSendsTheValueWithItsType_data()
{
    valueRows();
    const auto row = [](const char *text, const QVariant &value) { QTest::newRow(text) << QByteArray(text) << value; };
    row("@av []", QVariantList());
    row("[<5>, <'a'>]", QVariantList{5, "a"_s});
    row("@a{sv} {}", QVariantMap());
    row("{'a': <{'b': <true>}>}", QVariantMap{{"a"_s, QVariantMap{{"b"_s, true}}}});
    row("<5>", QVariant::fromValue(QDBusVariant(5)));
}

void TestFactorSettings::setOptionSendsTheValueWithItsType()
{
    QFETCH(QByteArray, text);
    QFETCH(QVariant, value);
    daemon.answer("FactorMethod", "(<true>,)");
    Settings settings;
    settings.setOption(1000, "length"_s, value);
    QCOMPARE(daemon.waitCalls("FactorMethod"),
             QStringList{factorCall("{'name': <'length'>, 'type': <'set-option'>, 'uid': <uint32 1000>, 'value': <"
                                    + text + ">}")});
    awaitEndOfCalls();
    QCOMPARE(log->take(), QStringList());
}

void TestFactorSettings::setOptionDoesNotWait()
{
    authenticate();
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    Settings settings;
    settings.setOption(1000, "length"_s, 6U);
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(4U));
    QCOMPARE(daemon.calls().size(), 2);
    QCOMPARE(settings.take(), QStringList());
    daemon.request(R"({"do":"release"})");
    awaitEndOfCalls();
    QCOMPARE(settings.take(), QStringList{heard(1000, "length", 6U)});
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(6U));
}

void TestFactorSettings::setOptionChangesNothingByItself()
{
    daemon.answer("FactorMethod", "(<true>,)");
    Settings settings;
    settings.setOption(1000, "length"_s, 6U);
    awaitEndOfCalls();
    QCOMPARE(settings.take(), QStringList());
    daemon.request(R"({"do":"behave"})");
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(4U));
}

void TestFactorSettings::acceptedSetOptionIsAnnounced()
{
    authenticate();
    Settings settings;
    settings.setOption(1000, "length"_s, 6U);
    awaitEndOfCalls();
    QCOMPARE(settings.take(), QStringList{heard(1000, "length", 6U)});
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(6U));
    QCOMPARE(settings.getOption(1001, "length"_s), QVariant(4U));
}

void TestFactorSettings::failedSetOptionWarns()
{
    daemon.misbehave("FactorMethod", "error", R"("message":"not for you")");
    Settings settings;
    settings.setOption(1000, "length"_s, 6U);
    QCOMPARE(log->take(), QStringList());
    awaitEndOfCalls();
    QCOMPARE(settings.take(), QStringList());
    QCOMPARE(log->take(), QStringList{R"(warning reply isError: "not for you")"_s});
}

void TestFactorSettings::unsendableValueIsNotSent_data()
{
    unsendableRows();
}

void TestFactorSettings::unsendableValueIsNotSent()
{
    QFETCH(QVariant, value);
    QFETCH(QString, complaint);
    Settings settings;
    settings.setOption(1000, "length"_s, value);
    awaitEndOfCalls();
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(settings.take(), QStringList());
    QCOMPARE(log->take(), QStringList{R"(warning reply isError: "value%1")"_s.arg(complaint)});
    // The connection is as good as before.
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(4U));
}

void TestFactorSettings::doActionSendsTokenMethodAndRequest_data()
{
    QTest::addColumn<uint>("uid");
    QTest::addColumn<QVariantMap>("params");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("nothing") << 0U << QVariantMap() << QByteArray("@a{sv} {}");
    QTest::newRow("number") << 1000U << QVariantMap{{"a"_s, 5U}} << QByteArray("{'a': <uint32 5>}");
    QTest::newRow("same keys") << highestUid << QVariantMap{{"type"_s, "x"_s}, {"uid"_s, true}, {"name"_s, ""_s}}
                               << QByteArray("{'name': <''>, 'type': <'x'>, 'uid': <true>}");
    QTest::newRow("structures") << 1000U
                                << QVariantMap{{"list"_s, QVariantList{1, "b"_s}},
                                               {"map"_s, QVariantMap{{"c"_s, QStringList{"d"_s}}}},
                                               {"data"_s, QByteArray("\1")}}
                                << QByteArray("{'data': <[byte 0x01]>, 'list': <[<1>, <'b'>]>, "
                                              "'map': <{'c': <['d']>}>}");
}

void TestFactorSettings::doActionSendsTokenMethodAndRequest()
{
    QFETCH(uint, uid);
    QFETCH(QVariantMap, params);
    QFETCH(QByteArray, text);
    daemon.answer("FactorMethod", "(<true>,)");
    grant(settingsClient(), token);
    const Settings settings;
    settings.doAction(uid, "learn"_s, params, collect());
    awaitEndOfCalls();
    QCOMPARE(daemon.calls(),
             QStringList{factorCall("{'name': <'learn'>, 'params': <" + text + ">, 'type': <'action'>, 'uid': <uint32 "
                                        + QByteArray::number(uid) + ">}",
                                    "code", token)});
    QCOMPARE(m_results, QList<QVariant>{true});
}

void TestFactorSettings::doActionDoesNotWait()
{
    authenticate();
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    const Settings settings;
    settings.doAction(1000, "reset"_s, {}, collect());
    settings.doAction(1000, "nonsense"_s, {}, collect());
    daemon.waitCalls("FactorMethod", 2);
    QVERIFY(waitFor([this] { return !m_results.isEmpty(); }));
    QCOMPARE(log->takeComplaints().size(), 1);
    daemon.request(R"({"do":"release"})");
    // A round trip later the reply is there; the callback is not for a blocking call to make.
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(4U));
    QCOMPARE(m_results, QList<QVariant>{QVariant()});
    awaitEndOfCalls();
    QCOMPARE(m_results, (QList<QVariant>{QVariant(), true}));
}

void TestFactorSettings::doActionCallsBackWithTheResult_data()
{
    valueRows();
}

void TestFactorSettings::doActionCallsBackWithTheResult()
{
    QFETCH(QByteArray, text);
    QFETCH(QVariant, value);
    daemon.answer("FactorMethod", "(<" + text + ">,)");
    const Settings settings;
    settings.doAction(1000, "learn"_s, {}, collect());
    QVERIFY(m_results.isEmpty());
    awaitEndOfCalls();
    QCOMPARE(m_results, QList<QVariant>{value});
    QCOMPARE(m_results.first().userType(), value.userType());
    QCOMPARE(log->take(), QStringList());
}

void TestFactorSettings::doActionReturnsAMapAsTheBusProducedIt()
{
    daemon.answer("FactorMethod", "(<{'a': <5>}>,)");
    const Settings settings;
    settings.doAction(1000, "learn"_s, {}, collect());
    awaitEndOfCalls();
    QCOMPARE(m_results.size(), 1);
    QCOMPARE(m_results.first().userType(), qMetaTypeId<QDBusArgument>());
    QCOMPARE(qdbus_cast<QVariantMap>(m_results.first()), (QVariantMap{{"a"_s, 5}}));
}

void TestFactorSettings::doActionCopiesTheCallback()
{
    daemon.answer("FactorMethod", "(<5>,)");
    const auto alive = std::make_shared<int>();
    ValueCallBack callback = [this, alive](const QVariant &result) { m_results.append(result); };
    const Settings settings;
    settings.doAction(1000, "learn"_s, {}, callback);
    callback = {};
    awaitEndOfCalls();
    QCOMPARE(m_results, QList<QVariant>{5});
    QCOMPARE(alive.use_count(), 1L);
}

void TestFactorSettings::doActionWithAnEmptyCallbackIsSent()
{
    daemon.answer("FactorMethod", "(<5>,)");
    const Settings settings;
    settings.doAction(1000, "learn"_s, {{"a"_s, 5}}, {});
    settings.doAction(1000, "learn"_s, {{"a"_s, 5}}, nullptr);
    awaitEndOfCalls();
    const QString call =
        factorCall("{'name': <'learn'>, 'params': <{'a': <5>}>, 'type': <'action'>, 'uid': <uint32 1000>}");
    QCOMPARE(daemon.calls(), (QStringList{call, call}));
    QCOMPARE(log->take(), QStringList());
}

void TestFactorSettings::failedDoActionCallsBackWithAnInvalidValue()
{
    daemon.misbehave("FactorMethod", "error", R"("message":"not for you")");
    const Settings settings;
    settings.doAction(1000, "learn"_s, {}, collect());
    awaitEndOfCalls();
    QCOMPARE(m_results, QList<QVariant>{QVariant()});
    QVERIFY(!m_results.first().isValid());
    QCOMPARE(log->take(), QStringList{R"(warning reply isError: "not for you")"_s});
}

void TestFactorSettings::failedDoActionWithAnEmptyCallback()
{
    daemon.misbehave("FactorMethod", "error", R"("message":"not for you")");
    const Settings settings;
    settings.doAction(1000, "learn"_s, {}, {});
    awaitEndOfCalls();
    QCOMPARE(log->take(), QStringList{R"(warning reply isError: "not for you")"_s});
}

void TestFactorSettings::unsendableParametersAreNotSent_data()
{
    unsendableRows();
}

void TestFactorSettings::unsendableParametersAreNotSent()
{
    QFETCH(QVariant, value);
    QFETCH(QString, complaint);
    const Settings settings;
    settings.doAction(1000, "learn"_s, {{"good"_s, 5}, {"x"_s, value}}, collect());
    // From the event loop, as any result.
    QVERIFY(m_results.isEmpty());
    awaitEndOfCalls();
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(m_results, QList<QVariant>{QVariant()});
    QCOMPARE(log->take(), QStringList{R"(warning reply isError: "params.x%1")"_s.arg(complaint)});
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(4U));
}

void TestFactorSettings::unsendableParametersWithAnEmptyCallback()
{
    const Settings settings;
    settings.doAction(1000, "learn"_s, {{"x"_s, QVariant()}}, {});
    awaitEndOfCalls();
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(log->take(),
             QStringList{R"(warning reply isError: "params.x of type Invalid cannot be sent over D-Bus")"_s});
}

void TestFactorSettings::actionsOfTheStandIn()
{
    authenticate();
    Settings settings;
    settings.doAction(1000, "echo"_s, {{"a"_s, 5}}, collect());
    awaitEndOfCalls();
    QCOMPARE(m_results.size(), 1);
    QCOMPARE(qdbus_cast<QVariantMap>(m_results.first()), (QVariantMap{{"a"_s, 5}}));

    settings.setOption(1000, "length"_s, 6U);
    settings.doAction(1000, "reset"_s, {}, collect());
    awaitEndOfCalls();
    QCOMPARE(m_results.size(), 2);
    QCOMPARE(m_results.last(), QVariant(true));
    QCOMPARE(settings.take(),
             (QStringList{heard(1000, "length", 6U), heard(1000, "keypad", "digits"_s), heard(1000, "length", 4U)}));
}

void TestFactorSettings::callbackIsCalledThoughTheObjectIsGone()
{
    authenticate();
    daemon.misbehave("FactorMethod", "hold");
    auto settings = std::make_unique<Settings>();
    settings->doAction(1000, "reset"_s, {}, collect());
    settings->setOption(1000, "length"_s, 6U);
    daemon.waitCalls("FactorMethod", 2);
    settings.reset();
    drain(settingsClient());
    QVERIFY(m_results.isEmpty());
    daemon.request(R"({"do":"release"})");
    awaitEndOfCalls();
    QCOMPARE(m_results, QList<QVariant>{true});
}

void TestFactorSettings::noticeIsHandled_data()
{
    QTest::addColumn<QByteArray>("members");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char *name, const char *members, const QString &expected) {
        QTest::newRow(name) << QByteArray(members) << expected;
    };
    row("all members", "'uid': <uint32 1000>, 'name': <'length'>, 'value': <uint32 6>", heard(1000, "length", 6U));
    row("text", "'uid': <uint32 1000>, 'name': <'keypad'>, 'value': <''>", heard(1000, "keypad", ""_s));
    row("list", "'uid': <uint32 1000>, 'name': <'l'>, 'value': <['a']>", heard(1000, "l", QStringList{"a"_s}));
    row("more members", "'uid': <uint32 1000>, 'name': <'l'>, 'value': <true>, 'x': <5>", heard(1000, "l", true));
    row("no user", "'name': <'length'>, 'value': <true>", heard(0, "length", true));
    row("no name", "'uid': <uint32 1000>, 'value': <true>", heard(1000, "", true));
    row("no value", "'uid': <uint32 1000>, 'name': <'length'>", heard(1000, "length", QVariant()));
    row("nothing else", "", heard(0, "", QVariant()));
    row("highest user", "'uid': <uint32 4294967295>, 'name': <'вход'>", heard(highestUid, "вход", QVariant()));
    row("signed user", "'uid': <1000>, 'name': <'length'>", heard(1000, "length", QVariant()));
    row("user in words", "'uid': <'somebody'>, 'name': <'length'>", heard(0, "length", QVariant()));
    row("user in a variant", "'uid': <<uint32 1000>>, 'name': <'length'>", heard(0, "length", QVariant()));
    row("name of another type", "'uid': <uint32 1000>, 'name': <(5, 6)>", heard(1000, "", QVariant()));
    row("number for a name", "'uid': <uint32 1000>, 'name': <5>", heard(1000, "5", QVariant()));
}

void TestFactorSettings::noticeIsHandled()
{
    QFETCH(QByteArray, members);
    QFETCH(QString, expected);
    Settings settings;
    const QByteArray params = "{'type': <'option-changed'>" + (members.isEmpty() ? "" : ", " + members) + '}';
    notify(params);
    drain(settingsClient());
    QCOMPARE(settings.take(), QStringList{expected});
    notify(params);
    drain(settingsClient());
    QCOMPARE(settings.take(), QStringList{expected});
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestFactorSettings::noticeHandsOverAMapAsTheBusProducedIt()
{
    Settings settings;
    notify("{'type': <'option-changed'>, 'value': <{'a': <5>}>}");
    drain(settingsClient());
    QCOMPARE(settings.lastValue.userType(), qMetaTypeId<QDBusArgument>());
    QCOMPARE(qdbus_cast<QVariantMap>(settings.lastValue), (QVariantMap{{"a"_s, 5}}));
}

void TestFactorSettings::noticeOfAnotherMethodIsIgnored_data()
{
    QTest::addColumn<QByteArray>("method");
    for (const char *method : {"", "sudis", "Code", "code ", "cod", "codes", "worker/code", "код"})
        QTest::newRow(method) << QByteArray(method);
}

void TestFactorSettings::noticeOfAnotherMethodIsIgnored()
{
    QFETCH(QByteArray, method);
    Settings settings;
    notify("{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'length'>, 'value': <5>}", method);
    drain(settingsClient());
    QCOMPARE(settings.take(), QStringList());
}

void TestFactorSettings::noticeOfAnotherTypeIsIgnored_data()
{
    QTest::addColumn<QByteArray>("type");
    for (const char *type : {"",
                             "'type': <''>, ",
                             "'type': <'action'>, ",
                             "'type': <'get-option'>, ",
                             "'type': <'set-option'>, ",
                             "'type': <'Option-Changed'>, ",
                             "'type': <'option-changed '>, ",
                             "'type': <'option-change'>, ",
                             "'Type': <'option-changed'>, ",
                             "'type': <['option-changed']>, ",
                             "'type': <<'option-changed'>>, ",
                             "'type': <('option-changed',)>, ",
                             "'type': <[<'option-changed'>]>, ",
                             "'type': <true>, ",
                             "'type': <0>, ",
                             "'type': <{'option-changed': <true>}>, ",
                             "'type': <signature 'ay'>, ",
                             "'type': <1>, ",
                             "'type': <1.5>, ",
                             "'type': <byte 0x6f>, ",
                             "'type': <uint64 1>, ",
                             "'type': <@as []>, ",
                             "'type': <@ay []>, ",
                             "'type': <['option-changed', 'option-changed']>, ",
                             "'type': <objectpath '/option_changed'>, "})
        QTest::newRow(type) << QByteArray(type);
    QTest::newRow("bytes") << "'type': <" + bytes("option-changed") + ">, ";
    QTest::newRow("bytes with an end") << QByteArray("'type': <b'option-changed'>, ");
}

void TestFactorSettings::noticeOfAnotherTypeIsIgnored()
{
    QFETCH(QByteArray, type);
    Settings settings;
    notify('{' + type + "'uid': <uint32 1000>, 'name': <'length'>, 'value': <5>}");
    drain(settingsClient());
    QCOMPARE(settings.take(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestFactorSettings::noticeOfAnotherSignatureIsIgnored_data()
{
    QTest::addColumn<QByteArray>("args");
    for (const char *args :
         {"()", "('code',)", "('code', {'type': 'option-changed'})", "({'type': <'option-changed'>}, 'code')",
          "('code', <{'type': <'option-changed'>}>)", "('code', [<'option-changed'>])"})
        QTest::newRow(args) << QByteArray(args);
}

void TestFactorSettings::noticeOfAnotherSignatureIsIgnored()
{
    QFETCH(QByteArray, args);
    Settings settings;
    daemon.emitSignal("Factor", args);
    drain(settingsClient());
    QCOMPARE(settings.take(), QStringList());
}

void TestFactorSettings::noticesAreHandledInTheirOrder()
{
    Settings settings;
    QStringList expected;
    for (int i = 0; i < 50; ++i) {
        notify("{'type': <'option-changed'>, 'value': <" + QByteArray::number(i) + ">}");
        expected.append(heard(0, "", i));
    }
    drain(settingsClient());
    QCOMPARE(settings.take(), expected);
}

void TestFactorSettings::objectsHearTheirOwnMethodOnly()
{
    Settings code("code"_s);
    Settings sudis("sudis"_s);
    Settings nameless((QString()));
    Settings letters("вход"_s);
    for (const char *method : {"code", "sudis", "", "вход", "other"})
        notify("{'type': <'option-changed'>, 'name': <'of " + QByteArray(method) + "'>}", method);
    drain(settingsClient());
    QCOMPARE(code.take(), QStringList{heard(0, "of code", QVariant())});
    QCOMPARE(sudis.take(), QStringList{heard(0, "of sudis", QVariant())});
    QCOMPARE(nameless.take(), QStringList{heard(0, "of ", QVariant())});
    QCOMPARE(letters.take(), QStringList{heard(0, "of вход", QVariant())});
}

void TestFactorSettings::objectsOfOneMethodAllHear()
{
    Settings first;
    auto second = std::make_unique<Settings>();
    Settings third;
    notify("{'type': <'option-changed'>}");
    drain(settingsClient());
    const QStringList once{heard(0, "", QVariant())};
    QCOMPARE(first.take(), once);
    QCOMPARE(second->take(), once);
    QCOMPARE(third.take(), once);

    second.reset();
    notify("{'type': <'option-changed'>}");
    drain(settingsClient());
    QCOMPARE(first.take(), once);
    QCOMPARE(third.take(), once);
}

void TestFactorSettings::baseHandlesNoticesByDoingNothing()
{
    FactorSettingsBase settings(nullptr, "code"_s);
    notify("{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'length'>, 'value': <5>}");
    drain(settingsClient());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(log->take(), QStringList());
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(4U));
}

void TestFactorSettings::deletedObjectHearsNothing()
{
    int handled = 0;
    auto settings = std::make_unique<Settings>();
    settings->handler = [&] { ++handled; };
    notify("{'type': <'option-changed'>}");
    // The notice is in the event queue now.
    settings->getOption(1000, "length"_s);
    settings.reset();
    drain(settingsClient());
    QCOMPARE(handled, 0);
}

void TestFactorSettings::objectMayBeDeletedFromItsHandler()
{
    Settings before;
    auto settings = std::make_unique<Settings>();
    Settings after;
    int handled = 0;
    settings->doAction(1000, "learn"_s, {}, collect());
    settings->handler = [&] {
        ++handled;
        settings.reset();
    };
    notify("{'type': <'option-changed'>}");
    notify("{'type': <'option-changed'>}");
    awaitEndOfCalls();
    QVERIFY(!settings);
    QCOMPARE(handled, 1);
    QCOMPARE(before.take().size(), 2);
    QCOMPARE(after.take().size(), 2);
    QCOMPARE(m_results, QList<QVariant>{QVariant()});
    QCOMPARE(log->takeComplaints().size(), 1);
}

void TestFactorSettings::anotherObjectMayBeDeletedFromAHandler()
{
    auto before = std::make_unique<Settings>();
    Settings settings;
    auto after = std::make_unique<Settings>();
    int handledAfter = 0;
    after->handler = [&] { ++handledAfter; };
    settings.handler = [&] {
        before.reset();
        after.reset();
    };
    notify("{'type': <'option-changed'>}");
    drain(settingsClient());
    QVERIFY(!before);
    QVERIFY(!after);
    QCOMPARE(handledAfter, 0);
    QCOMPARE(settings.take().size(), 1);
}

void TestFactorSettings::handlerMayAskForTheOption()
{
    Settings settings;
    QVariant read;
    settings.handler = [&] { read = settings.getOption(1000, "length"_s); };
    daemon.request(
        R"({"do":"set-option","uid":1000,"factor":"code","name":"length","value":{"type":"u","value":"8"}})");
    drain(settingsClient());
    QCOMPARE(settings.take(), QStringList{heard(1000, "length", 8U)});
    QCOMPARE(read, QVariant(8U));
}

void TestFactorSettings::objectGoesOnAfterARestart()
{
    Settings settings;
    daemon.request(R"({"do":"restart"})");
    awaitReconnection("authd_p2p_settings_client"_s);
    drain(settingsClient());
    notify("{'type': <'option-changed'>, 'value': <5>}");
    drain(settingsClient());
    QCOMPARE(settings.take(), QStringList{heard(0, "", 5)});
    QCOMPARE(settings.getOption(1000, "length"_s), QVariant(4U));
}

void TestFactorSettings::objectsShareTheSettingsClient()
{
    const int peers = daemon.peerCount();
    const Settings first;
    const Settings second("sudis"_s);
    QCOMPARE(first.getOption(1000, "length"_s), QVariant(4U));
    QCOMPARE(daemon.peerCount(), peers);
    QCOMPARE(peers, 1);
}

QTEST_GUILESS_MAIN(TestFactorSettings)
#include "tst_factorsettings.moc"
