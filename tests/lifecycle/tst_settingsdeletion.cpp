#include "settings-test-case.h"

#include <AuthSettings>
#include <FactorSettingsBase>

#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>

/** Hosts delete their settings objects whenever they like. */
class TestSettingsDeletion : public SettingsTestCase
{
    Q_OBJECT

private:
    void deleteAt(AuthSettingsClient *client, const SignalRecorder *heard, int emission);
    void checkQuiet();
    void awaitTheOneObject();

private Q_SLOTS:
    void init();

    void insideSignalsOfASwitch_data();
    void insideSignalsOfASwitch();
    void insideSignalsOfASetter_data();
    void insideSignalsOfASetter();
    void insideSignalsOfAnAnnouncement_data();
    void insideSignalsOfAnAnnouncement();
    void insideSignalsOfTheBase_data();
    void insideSignalsOfTheBase();
    void insideASwitchInsideASwitch();
    void insideAnEventLoopOfAHandler();
    void insideTheCallback_data();
    void insideTheCallback();
    void laterInsideSignalsOfTheDaemonsLoss_data();
    void laterInsideSignalsOfTheDaemonsLoss();
    void callsInFlight_data();
    void callsInFlight();
    void withQueuedAnnouncements();
    void whileTheDaemonIsAway();
    void withAParent();
    void oneOfTwo();

    // From here on there is the one object of the process, which stays.
    void besideTheOneObject();
    void tokenOfTheOneObjectIsItsOwn();
    void authSettingsInsideItsSignals_data();
    void authSettingsInsideItsSignals();
    void authSettingsWithItsParent();
    void factorSettingsInsideTheirHandlers();
    void factorSettingsInsideAHandlerOfTheClient_data();
    void factorSettingsInsideAHandlerOfTheClient();
    void factorSettingsInsideTheCallback();
    void factorSettingsWithCallsInFlight_data();
    void factorSettingsWithCallsInFlight();
    void factorSettingsWithQueuedNotices();

public Q_SLOTS:
    void deleteClientWhenItIsTime();
    void deleteClientLater();

private:
    QPointer<AuthSettingsClient> m_client;
    const SignalRecorder *m_heard = nullptr;
    int m_emission = 0;
    bool m_oneObjectIsThere = false;
};

namespace {
const QString aWarning = QStringLiteral("userWarningChanged()");

// A row for each emission: the client is deleted there, so that it is the last.
void emissionRows(const QByteArray &what, const QStringList &emissions)
{
    for (int i = 0; i < emissions.size(); ++i) {
        QTest::newRow((what + ", " + QByteArray::number(i + 1) + ": " + emissions.at(i).toUtf8()).constData())
            << what << QStringList(emissions.mid(0, i + 1));
    }
}

void emissionColumns()
{
    QTest::addColumn<QByteArray>("what");
    QTest::addColumn<QStringList>("emissions");
}

void keepCallsInFlight(AuthSettingsClient *client, StandIn *daemon)
{
    daemon->misbehave("FactorMethod", "hold");
    daemon->misbehave("UnlockIfNeeded", "hold");
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s, [](const QVariant &) {});
    client->unlockIfNeeded();
    daemon->waitCalls("UnlockIfNeeded");
}

class Settings : public FactorSettingsBase
{
public:
    Settings()
        : FactorSettingsBase(nullptr, QStringLiteral("code"))
    {
    }

    std::function<void()> handler = [] {};
    int handled = 0;

protected:
    void handleOptionChanged(uint, const QString &, const QVariant &) override
    {
        ++handled;
        handler();
    }
};

const QByteArray notice = "('code', {'type': <'option-changed'>})";
} // namespace

// The recorder, connected before, has the emission already.
void TestSettingsDeletion::deleteAt(AuthSettingsClient *client, const SignalRecorder *heard, int emission)
{
    m_client = client;
    m_heard = heard;
    m_emission = emission;
    const QMetaMethod slot = metaObject()->method(metaObject()->indexOfSlot("deleteClientWhenItIsTime()"));
    const QObject *const senders[] = {client, client->factors()};
    for (const QObject *sender : senders) {
        const QMetaObject *meta = sender->metaObject();
        for (int i = QObject::staticMetaObject.methodCount(); i < meta->methodCount(); ++i) {
            if (meta->method(i).methodType() == QMetaMethod::Signal)
                connect(sender, meta->method(i), this, slot);
        }
    }
}

void TestSettingsDeletion::deleteClientWhenItIsTime()
{
    if (m_heard->list().size() == m_emission)
        delete m_client;
}

void TestSettingsDeletion::deleteClientLater()
{
    if (m_client)
        m_client->deleteLater();
}

// Another client hears what the daemon had to say to the one that is gone.
void TestSettingsDeletion::checkQuiet()
{
    daemon.request(R"({"do":"behave"})");
    daemon.request(R"({"do":"release"})");
    AuthSettingsClient bystander(nullptr);
    bystander.setUid(1001);
    drain(&bystander);
    QCOMPARE(log->takeComplaints(), QStringList());
}

// It outlives the daemons of all functions; it has noticed this one when this returns.
void TestSettingsDeletion::awaitTheOneObject()
{
    if (m_oneObjectIsThere)
        awaitReconnection("authd_p2p_settings_client"_s);
    m_oneObjectIsThere = true;
    AuthSettingsClient::get()->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 0}}, "code"_s);
    QVERIFY(waitFor([this] { return log->contains("debug handleStateChanged AuthDevlockClient::Undefined -> 0"_s); }));
    drain(AuthSettingsClient::get());
    log->take();
    daemon.clearCalls();
}

void TestSettingsDeletion::init()
{
    TestCase::init();
    if (m_oneObjectIsThere)
        awaitTheOneObject();
    const QByteArray factors = R"(["code","smartcard","sudis"])";
    daemon.arrangeOption("worker/available-service-factors/login", factors);
    daemon.arrangeOption("worker/available-service-factors/unlock", factors);
    arrangeTwoUsers();
}

void TestSettingsDeletion::insideSignalsOfASwitch_data()
{
    emissionColumns();
    const QStringList settable = resetSignals + QStringList{"isUserSettableChanged()"_s};
    emissionRows("1001",
                 QStringList{"uidChanged()"_s, "isMultiFactorableChanged()"_s} + settable
                     + QStringList{enabledChanged(0), aWarning, enabledChanged(0), enabledChanged(1)} + resetSignals
                     + QStringList{"showNotificationsChanged()"_s});
    emissionRows("0", {"uidChanged()"_s, "showNotificationsChanged()"_s});
}

void TestSettingsDeletion::insideSignalsOfASwitch()
{
    QFETCH(QByteArray, what);
    QFETCH(QStringList, emissions);
    AuthSettingsClient *client = newClientOf(1000).release();
    keepCallsInFlight(client, &daemon);
    SignalRecorder heard(client);
    deleteAt(client, &heard, emissions.size());
    client->setUid(what.toUInt());
    QVERIFY(!m_client);
    checkQuiet();
    QCOMPARE(heard.list(), emissions);
}

void TestSettingsDeletion::insideSignalsOfASetter_data()
{
    emissionColumns();
    emissionRows("isUserSettable", resetSignals + QStringList{"isUserSettableChanged()"_s});
    emissionRows("showNotifications", {"showNotificationsChanged()"_s});
}

void TestSettingsDeletion::insideSignalsOfASetter()
{
    QFETCH(QByteArray, what);
    QFETCH(QStringList, emissions);
    daemon.answer("SetUserOption", "(true,)");
    AuthSettingsClient *client = newClientOf(1000).release();
    keepCallsInFlight(client, &daemon);
    SignalRecorder heard(client);
    deleteAt(client, &heard, emissions.size());
    client->setProperty(what.constData(), false);
    QVERIFY(!m_client);
    checkQuiet();
    QCOMPARE(heard.list(), emissions);
}

void TestSettingsDeletion::insideSignalsOfAnAnnouncement_data()
{
    emissionColumns();
    emissionRows("worker/service-factors/login=['smartcard', 'sudis']",
                 {enabledChanged(0), aWarning, enabledChanged(1), enabledChanged(2)});
    emissionRows("worker/service-factors/unlock=['smartcard']",
                 {"unlockFactorsChanged()"_s, enabledChanged(0), aWarning, enabledChanged(1), enabledChanged(2)});
    emissionRows("worker/disabled-factors=['code', 'smartcard']", resetSignals);
    emissionRows("worker/is-multi-factorable=false", {"isMultiFactorableChanged()"_s});
    emissionRows("worker/is-user-settable=false", resetSignals + QStringList{"isUserSettableChanged()"_s});
    emissionRows("devlock/show-notifications=false", {"showNotificationsChanged()"_s});
    emissionRows("worker/can-switch-to-user=false", {"canSwitchToUserChanged()"_s});
}

void TestSettingsDeletion::insideSignalsOfAnAnnouncement()
{
    QFETCH(QByteArray, what);
    QFETCH(QStringList, emissions);
    AuthSettingsClient *client = newClientOf(1000).release();
    keepCallsInFlight(client, &daemon);
    SignalRecorder heard(client);
    deleteAt(client, &heard, emissions.size());
    const QByteArray key = what.left(what.indexOf('='));
    const QByteArray value = what.mid(what.indexOf('=') + 1);
    if (key == "worker/can-switch-to-user")
        daemon.emitSignal("OptionChanged", "('" + key + "', <" + value + ">)");
    else
        announce(1000, key, value);
    // More is on its way.
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <true>)");
    announce(1000, "worker/service-factors/unlock", "@as []");
    QVERIFY(waitFor([this] { return !m_client; }));
    checkQuiet();
    QCOMPARE(heard.list(), emissions);
}

void TestSettingsDeletion::insideSignalsOfTheBase_data()
{
    emissionColumns();
    const QStringList drop{"progressChanged()"_s, "authenticatedChanged()"_s, "discredit()"_s};
    emissionRows("token", {"authenticatedChanged(01)"_s, "progressChanged()"_s});
    emissionRows("failure", drop);
    emissionRows("lock", drop);
    emissionRows("drop", drop);
    emissionRows("changed data", {"progressChanged()"_s, "authDataChanged()"_s});
    emissionRows("data not changed", {"progressChanged()"_s, "changeAuthDataFailed()"_s});
    emissionRows("unlock", {"unlockIfNeededFinished(true)"_s});
    emissionRows("factor", {"factorSignal(code, %1)"_s.arg(written(QVariantMap{{"type"_s, "option-changed"_s}}))});
}

void TestSettingsDeletion::insideSignalsOfTheBase()
{
    QFETCH(QByteArray, what);
    QFETCH(QStringList, emissions);
    daemon.misbehave("Authenticate", "hold");
    AuthSettingsClient *client = newClientOf(1000).release();
    client->authenticate("login"_s, {{"challenge"_s, 1}});
    keepCallsInFlight(client, &daemon);
    SignalRecorder heard(client);
    deleteAt(client, &heard, emissions.size());
    const QMap<QByteArray, std::function<void()>> actions{
        {"token", [this] { daemon.emitSignal("Authenticated", "([byte 0x01],)"); }},
        {"failure", [this] { daemon.emitSignal("AuthenticationFailed", "()"); }},
        {"lock", [this] { daemon.request(R"({"do":"set-lock","state":1})"); }},
        {"drop", [client] { client->dropAuthentication(); }},
        {"changed data", [this] { daemon.emitSignal("AuthDataChanged", "()"); }},
        {"data not changed", [this] { daemon.emitSignal("ChangeAuthDataFailed", "()"); }},
        {"unlock", [this] { daemon.emitSignal("UnlockIfNeededFinished", "(true,)"); }},
        {"factor", [this] { daemon.emitSignal("Factor", notice); }},
    };
    actions.value(what)();
    QVERIFY(waitFor([this] { return !m_client; }));
    checkQuiet();
    QCOMPARE(heard.list(), emissions);
}

void TestSettingsDeletion::insideASwitchInsideASwitch()
{
    AuthSettingsClient *client = newClientOf(1000).release();
    const QPointer<AuthSettingsClient> guard(client);
    int changes = 0;
    connect(client, &AuthSettingsClient::uidChanged, this, [&] {
        if (++changes == 1)
            client->setUid(1002);
        else
            delete client;
    });
    client->setUid(1001);
    QVERIFY(!guard);
    QCOMPARE(changes, 2);
    checkQuiet();
}

void TestSettingsDeletion::insideAnEventLoopOfAHandler()
{
    auto client = newClientOf(1000);
    bool returned = false;
    connect(client->factors(), &QAbstractItemModel::dataChanged, this, [&] {
        QTimer::singleShot(0, this, [&] { client.reset(); });
        waitFor([&] { return !client; });
        returned = true;
    });
    client->setUid(1001);
    QVERIFY(returned);
    checkQuiet();
}

void TestSettingsDeletion::insideTheCallback_data()
{
    QTest::addColumn<QVariantMap>("params");
    QTest::newRow("result") << QVariantMap{{"type"_s, "echo"_s}, {"value"_s, 5}};
    QTest::newRow("error") << QVariantMap();
    QTest::newRow("refused parameters") << QVariantMap{{"x"_s, QVariant()}};
}

void TestSettingsDeletion::insideTheCallback()
{
    QFETCH(QVariantMap, params);
    auto client = newClientOf(1000);
    int called = 0;
    for (int i = 0; i < 2; ++i) {
        client->factorMethod(params, "code"_s, [&](const QVariant &) {
            ++called;
            client.reset();
        });
    }
    QVERIFY(waitFor([&] { return !client; }));
    log->takeComplaints();
    checkQuiet();
    QCOMPARE(called, 1);
}

void TestSettingsDeletion::laterInsideSignalsOfTheDaemonsLoss_data()
{
    QTest::addColumn<QByteArray>("signal");
    for (const char *signal : {"progressChanged()", "authenticatedChanged(QVariant)", "discredit()"})
        QTest::newRow(signal) << QByteArray(signal);
}

void TestSettingsDeletion::laterInsideSignalsOfTheDaemonsLoss()
{
    QFETCH(QByteArray, signal);
    daemon.misbehave("Authenticate", "hold");
    m_client = newClientOf(1000).release();
    m_client->authenticate("login"_s, {{"challenge"_s, 1}});
    daemon.waitCalls("Authenticate");
    announce(1000, "worker/is-multi-factorable", "false");
    const QMetaObject *meta = m_client->metaObject();
    QVERIFY(connect(m_client, meta->method(meta->indexOfSignal(signal)), this,
                    metaObject()->method(metaObject()->indexOfSlot("deleteClientLater()"))));
    daemon.request(R"({"do":"restart"})");
    QVERIFY(waitFor([this] { return !m_client; }));
    log->takeComplaints();
    checkQuiet();
}

void TestSettingsDeletion::callsInFlight_data()
{
    QTest::addColumn<QByteArray>("then");
    for (const char *then : {"release", "drop-peers", "stop", "restart"})
        QTest::newRow(then) << QByteArray(then);
}

void TestSettingsDeletion::callsInFlight()
{
    QFETCH(QByteArray, then);
    for (const char *method : {"Authenticate", "ChangeAuthData"})
        daemon.misbehave(method, "hold");
    auto client = newClientOf(1000);
    client->authenticate("login"_s, {{"challenge"_s, 1}});
    client->changeAuthData("code"_s, {{"challenge"_s, 1}});
    keepCallsInFlight(client.get(), &daemon);
    client.reset();
    log->take();
    daemon.request(R"({"do":")" + then + R"("})");
    if (then == "stop")
        daemon.request(R"({"do":"start"})");
    checkQuiet();
}

void TestSettingsDeletion::withQueuedAnnouncements()
{
    auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    for (int i = 0; i < 100; ++i) {
        announce(1000, "worker/is-multi-factorable", i % 2 ? "true" : "false");
        daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <true>)");
    }
    // A round trip: all of them wait in the event queue now.
    client->lastLoginDate(1000);
    client.reset();
    checkQuiet();
    QCOMPARE(heard.list(), QStringList());
}

void TestSettingsDeletion::whileTheDaemonIsAway()
{
    auto client = newClientOf(1000);
    daemon.request(R"({"do":"stop"})");
    QVERIFY(
        waitFor([this] { return log->contains(R"(debug authd reset "" captured "authd_p2p_settings_client")"_s); }));
    client->setUid(1001);
    QCOMPARE(log->takeComplaints().size(), 2);
    client.reset();
    daemon.request(R"({"do":"start"})");
    checkQuiet();
}

void TestSettingsDeletion::withAParent()
{
    auto parent = std::make_unique<QObject>();
    const QPointer<AuthSettingsClient> client = new AuthSettingsClient(parent.get());
    const QPointer<FactorListModel> model = client->factors();
    client->setUid(1000);
    connect(client, &AuthSettingsClient::isUserSettableChanged, this, [&parent] { parent.reset(); });
    client->setUid(1001);
    QVERIFY(!client);
    QVERIFY(!model);
    checkQuiet();
}

void TestSettingsDeletion::oneOfTwo()
{
    auto first = newClientOf(1000);
    const auto second = newClientOf(1000);
    SignalRecorder heard(second.get());
    connect(first.get(), &AuthSettingsClient::isMultiFactorableChanged, this, [&first] { first.reset(); });
    announce(1000, "worker/is-multi-factorable", "false");
    drain(second.get());
    QVERIFY(!first);
    QCOMPARE(heard.take(), QStringList{"isMultiFactorableChanged()"_s});
    QCOMPARE(second->lastLoginDate(1000), "2026-11-20 08:15"_s);
    announce(1000, "worker/is-multi-factorable", "true");
    drain(second.get());
    QCOMPARE(heard.take(), QStringList{"isMultiFactorableChanged()"_s});
}

void TestSettingsDeletion::besideTheOneObject()
{
    AuthSettingsClient::get();
    awaitTheOneObject();
    AuthSettingsClient *const one = AuthSettingsClient::get();
    SignalRecorder heard(one);
    auto client = std::make_unique<AuthSettingsClient>(nullptr);
    client->setUid(1000);
    client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s, {});
    client.reset();
    drain(one);
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <true>)");
    drain(one);
    QCOMPARE(heard.take(), QStringList{"canSwitchToUserChanged()"_s});
    QCOMPARE(one->lastLoginDate(1000), "2026-11-20 08:15"_s);
    checkQuiet();
}

// Which the other has heard too, and gives up and takes along.
void TestSettingsDeletion::tokenOfTheOneObjectIsItsOwn()
{
    AuthSettingsClient *const one = AuthSettingsClient::get();
    auto client = newClientOf(1001);
    one->setUid(1000);
    authenticate(one);
    drain(client.get());
    const QByteArray token = one->token();
    QCOMPARE(client->token(), token);
    client->dropAuthentication();
    QCOMPARE(one->token(), token);
    client.reset();
    QCOMPARE(one->token(), token);
    one->setShowNotifications(false);
    QCOMPARE(daemon.option("devlock/show-notifications", 1000), "false"_s);
    SignalRecorder heard(one);
    announce(one, "worker/is-multi-factorable", "false");
    QCOMPARE(heard.list().count("isMultiFactorableChanged()"_s), 1);
    one->setUid(0);
    one->dropAuthentication();
    checkQuiet();
}

void TestSettingsDeletion::authSettingsInsideItsSignals_data()
{
    QTest::addColumn<bool>("byNotice");
    QTest::addColumn<QStringList>("emissions");
    QTest::newRow("selection, user") << false << QStringList{"uidChanged()"_s};
    QTest::newRow("selection, date") << false << QStringList{"uidChanged()"_s, "lastLoginDateChanged()"_s};
    QTest::newRow("notice") << true << QStringList{"lastLoginDateChanged()"_s};
}

void TestSettingsDeletion::authSettingsInsideItsSignals()
{
    QFETCH(bool, byNotice);
    QFETCH(QStringList, emissions);
    auto *settings = new AuthSettings;
    AuthSettings bystander;
    const QPointer<AuthSettings> guard(settings);
    SignalRecorder heard(settings);
    SignalRecorder heardByBystander(&bystander);
    connect(settings,
            emissions.size() == 1 && !byNotice ? &AuthSettings::uidChanged : &AuthSettings::lastLoginDateChanged, this,
            [settings] { delete settings; });
    if (byNotice)
        daemon.emitSignal("Factor", "('worker', {'type': <'option-changed'>, 'name': <'last-login-date'>})");
    else
        settings->setUid(1000);
    drain(AuthSettingsClient::get());
    QVERIFY(!guard);
    QCOMPARE(heard.take(), emissions);
    QCOMPARE(heardByBystander.take(), byNotice ? QStringList{"lastLoginDateChanged()"_s} : QStringList());
    checkQuiet();
}

void TestSettingsDeletion::authSettingsWithItsParent()
{
    for (const bool atTheUser : {true, false}) {
        auto parent = std::make_unique<QObject>();
        auto *settings = new AuthSettings(parent.get());
        const QPointer<AuthSettings> guard(settings);
        connect(settings, atTheUser ? &AuthSettings::uidChanged : &AuthSettings::lastLoginDateChanged, this,
                [&parent] { parent.reset(); });
        settings->setUid(1000);
        QVERIFY(!guard);
    }
    checkQuiet();
}

void TestSettingsDeletion::factorSettingsInsideTheirHandlers()
{
    auto first = std::make_unique<Settings>();
    auto second = std::make_unique<Settings>();
    auto third = std::make_unique<Settings>();
    Settings fourth;
    first->handler = [&] { third.reset(); };
    second->handler = [&] {
        first.reset();
        second.reset();
    };
    daemon.emitSignal("Factor", notice);
    daemon.emitSignal("Factor", notice);
    drain(AuthSettingsClient::get());
    QVERIFY(!first);
    QVERIFY(!second);
    QVERIFY(!third);
    QCOMPARE(fourth.handled, 2);
    checkQuiet();
}

void TestSettingsDeletion::factorSettingsInsideAHandlerOfTheClient_data()
{
    QTest::addColumn<bool>("before");
    QTest::newRow("before it hears the notice") << true;
    QTest::newRow("after it has heard the notice") << false;
}

void TestSettingsDeletion::factorSettingsInsideAHandlerOfTheClient()
{
    QFETCH(bool, before);
    int handled = 0;
    std::unique_ptr<Settings> settings;
    QObject context;
    const auto make = [&] {
        settings = std::make_unique<Settings>();
        settings->handler = [&handled] { ++handled; };
    };
    if (!before)
        make();
    connect(AuthSettingsClient::get(), &AuthClient::factorSignal, &context, [&settings] { settings.reset(); });
    if (before)
        make();
    daemon.emitSignal("Factor", notice);
    drain(AuthSettingsClient::get());
    QVERIFY(!settings);
    QCOMPARE(handled, before ? 0 : 1);
    checkQuiet();
}

void TestSettingsDeletion::factorSettingsInsideTheCallback()
{
    auto settings = std::make_unique<Settings>();
    int called = 0;
    for (const QVariantMap &params : {QVariantMap(), QVariantMap{{"x"_s, QVariant()}}}) {
        settings->doAction(1000, "echo"_s, params, [&](const QVariant &) {
            ++called;
            settings.reset();
        });
    }
    QVERIFY(waitFor([&] { return called == 2; }));
    QVERIFY(!settings);
    QCOMPARE(log->takeComplaints().size(), 2);
    checkQuiet();
}

void TestSettingsDeletion::factorSettingsWithCallsInFlight_data()
{
    callsInFlight_data();
}

void TestSettingsDeletion::factorSettingsWithCallsInFlight()
{
    QFETCH(QByteArray, then);
    daemon.misbehave("FactorMethod", "hold");
    auto settings = std::make_unique<Settings>();
    int called = 0;
    settings->setOption(1000, "length"_s, 6U);
    settings->doAction(1000, "echo"_s, {}, [&](const QVariant &result) {
        QVERIFY(!result.isValid());
        ++called;
    });
    daemon.waitCalls("FactorMethod", 2);
    settings.reset();
    daemon.request(R"({"do":")" + then + R"("})");
    if (then == "stop")
        daemon.request(R"({"do":"start"})");
    QVERIFY(waitFor([&] { return called == 1 && log->lines().filter("warning reply isError: "_s).size() == 2; }));
    QCOMPARE(log->takeComplaints().size(), 2);
    if (then == "stop" || then == "restart")
        awaitReconnection("authd_p2p_settings_client"_s);
    checkQuiet();
}

void TestSettingsDeletion::factorSettingsWithQueuedNotices()
{
    int handled = 0;
    auto settings = std::make_unique<Settings>();
    settings->handler = [&handled] { ++handled; };
    for (int i = 0; i < 100; ++i)
        daemon.emitSignal("Factor", notice);
    // A round trip: all of them wait in the event queue now.
    settings->getOption(1000, "length"_s);
    settings.reset();
    checkQuiet();
    QCOMPARE(handled, 0);
}

QTEST_GUILESS_MAIN(TestSettingsDeletion)
#include "tst_settingsdeletion.moc"
