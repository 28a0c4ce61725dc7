#include "test-case.h"

#include <AuthSettings>
#include <FactorSettingsBase>

#include <QtCore/QPointer>

/** The date of a user's last login. */
class TestAuthSettings : public TestCase
{
    Q_OBJECT

private:
    void notify(const QByteArray &params, const QByteArray &method = "worker");

private Q_SLOTS:
    void init();

    void newObjectHasNoUserAndAsksNothing();
    void selectionEmitsTheUserThenTheDate();
    void selectionAsksNothing();
    void selectionOfTheSameUserDoesNothing();
    void selectionIsTheProperty();
    void laterSelectionInsideAHandler();
    void dateIsAskedForOnEachRead();
    void dateIsTheProperty();
    void dateOfNobodyIsAskedForToo_data();
    void dateOfNobodyIsAskedForToo();
    void dateIsAskedForWithTheTokenOfTheSettingsClient();
    void dateIsConverted_data();
    void dateIsConverted();
    void failedReadIsAnEmptyDate();
    void replyOfAnotherTypeIsAFailedRead_data();
    void replyOfAnotherTypeIsAFailedRead();
    void changedOptionIsEmittedAndReadAnew();
    void noticeIsEmittedWhateverItsValue_data();
    void noticeIsEmittedWhateverItsValue();
    void otherNoticesAreIgnored_data();
    void otherNoticesAreIgnored();
    void noticeWithoutAUserIsForNobody();
    void noticeIsForTheUserSelectedWhenItIsDelivered();
    void noticeAsksNothing();
    void objectsHaveTheirOwnUsers();
    void objectGoesOnAfterARestart();
    void objectBelongsToItsParent();
    void deletedObjectHearsNothing();
};

namespace {
QString dateCall(uint uid, const QByteArray &token = QByteArray())
{
    return peerCall("FactorMethod", "aysa{sv}",
                    '(' + bytes(token) + ", 'worker', {'name': <'last-login-date'>, 'type': <'get-option'>, 'uid': <"
                        + "uint32 " + QByteArray::number(uid) + ">})");
}

// The settings client outlives the daemons of all functions. It notices each in the event loop, and asks for a new
// challenge if it had one.
AuthSettingsClient *settingsClient()
{
    return AuthSettingsClient::get();
}
} // namespace

void TestAuthSettings::notify(const QByteArray &params, const QByteArray &method)
{
    daemon.emitSignal("Factor", "('" + method + "', " + params + ')');
}

void TestAuthSettings::init()
{
    static bool made = false;
    TestCase::init();
    if (made)
        awaitReconnection("authd_p2p_settings_client"_s);
    else
        settingsClient();
    made = true;
    // The challenge is there now, and so is the device-lock state.
    settingsClient()->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 0}}, "code"_s);
    QVERIFY(waitFor([this] { return log->contains("debug handleStateChanged AuthDevlockClient::Undefined -> 0"_s); }));
    drain(settingsClient());
    log->take();
    daemon.clearCalls();
}

void TestAuthSettings::newObjectHasNoUserAndAsksNothing()
{
    AuthSettings settings(nullptr);
    SignalRecorder heard(&settings);
    drain(settingsClient());
    QCOMPARE(settings.uid(), 0U);
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(log->take(), QStringList());
}

void TestAuthSettings::selectionEmitsTheUserThenTheDate()
{
    AuthSettings settings;
    SignalRecorder heard(&settings);
    QList<uint> seen;
    connect(&settings, &AuthSettings::uidChanged, this, [&] { seen.append(settings.uid()); });
    connect(&settings, &AuthSettings::lastLoginDateChanged, this, [&] { seen.append(settings.uid()); });
    settings.setUid(1000);
    QCOMPARE(heard.take(), (QStringList{"uidChanged()"_s, "lastLoginDateChanged()"_s}));
    settings.setUid(0);
    QCOMPARE(heard.take(), (QStringList{"uidChanged()"_s, "lastLoginDateChanged()"_s}));
    QCOMPARE(seen, (QList<uint>{1000, 1000, 0, 0}));
}

void TestAuthSettings::selectionAsksNothing()
{
    AuthSettings settings;
    settings.setUid(1000);
    drain(settingsClient());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(settingsClient()->uid(), 0U);
}

void TestAuthSettings::selectionOfTheSameUserDoesNothing()
{
    AuthSettings settings;
    SignalRecorder heard(&settings);
    settings.setUid(0);
    QCOMPARE(heard.take(), QStringList());
    settings.setUid(1000);
    heard.take();
    settings.setUid(1000);
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(settings.uid(), 1000U);
}

void TestAuthSettings::selectionIsTheProperty()
{
    AuthSettings settings;
    SignalRecorder heard(&settings);
    QVERIFY(settings.setProperty("uid", 4294967295U));
    QCOMPARE(settings.uid(), 4294967295U);
    QCOMPARE(settings.property("uid"), QVariant(4294967295U));
    QCOMPARE(heard.take(), (QStringList{"uidChanged()"_s, "lastLoginDateChanged()"_s}));
}

void TestAuthSettings::laterSelectionInsideAHandler()
{
    AuthSettings settings;
    SignalRecorder heard(&settings);
    connect(&settings, &AuthSettings::uidChanged, this, [&] { settings.setUid(1001); });
    settings.setUid(1000);
    QCOMPARE(settings.uid(), 1001U);
    QCOMPARE(heard.take(),
             (QStringList{"uidChanged()"_s, "uidChanged()"_s, "lastLoginDateChanged()"_s, "lastLoginDateChanged()"_s}));
    QCOMPARE(settings.lastLoginDate(), QString());
    QCOMPARE(daemon.calls(), QStringList{dateCall(1001)});
}

void TestAuthSettings::dateIsAskedForOnEachRead()
{
    AuthSettings settings;
    settings.setUid(1000);
    QCOMPARE(settings.lastLoginDate(), "2026-11-20 08:15"_s);
    daemon.arrangeOption("worker/last-login-date", R"("вчера")", 1000);
    QCOMPARE(settings.lastLoginDate(), "вчера"_s);
    QCOMPARE(daemon.calls(), (QStringList{dateCall(1000), dateCall(1000)}));
    QCOMPARE(log->take(), QStringList());
}

void TestAuthSettings::dateIsTheProperty()
{
    AuthSettings settings;
    settings.setUid(1000);
    QCOMPARE(settings.property("lastLoginDate"), QVariant("2026-11-20 08:15"_s));
    QVERIFY(!settings.setProperty("lastLoginDate", "2026-11-21"_s));
    QCOMPARE(daemon.calls(), QStringList{dateCall(1000)});
}

void TestAuthSettings::dateOfNobodyIsAskedForToo_data()
{
    QTest::addColumn<uint>("uid");
    QTest::newRow("0") << 0U;
    QTest::newRow("4294967295") << 4294967295U;
}

void TestAuthSettings::dateOfNobodyIsAskedForToo()
{
    QFETCH(uint, uid);
    daemon.answer("FactorMethod", "(<'never'>,)");
    AuthSettings settings;
    settings.setUid(uid);
    QCOMPARE(settings.lastLoginDate(), "never"_s);
    QCOMPARE(daemon.calls(), QStringList{dateCall(uid)});
}

void TestAuthSettings::dateIsAskedForWithTheTokenOfTheSettingsClient()
{
    AuthSettings settings;
    settings.setUid(1000);
    grant(settingsClient(), "s3cr3t token");
    QCOMPARE(settings.lastLoginDate(), "2026-11-20 08:15"_s);
    QCOMPARE(daemon.calls(), QStringList{dateCall(1000, "s3cr3t token")});
}

void TestAuthSettings::dateIsConverted_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char *value, const char *expected) {
        QTest::newRow(value) << QByteArray(value) << QString::fromUtf8(expected);
    };
    row("''", "");
    row("' 20.11.2026 '", " 20.11.2026 ");
    row("'вчера'", "вчера");
    row("5", "5");
    row("uint32 4294967295", "4294967295");
    row("true", "true");
    row("[byte 0x61, 0x62]", "ab");
    row("<'2026'>", "");
    row("('2026', 5)", "");
    row("{'date': <'2026'>}", "");
    row("@av []", "");
}

void TestAuthSettings::dateIsConverted()
{
    QFETCH(QByteArray, value);
    QFETCH(QString, expected);
    daemon.answer("FactorMethod", "(<" + value + ">,)");
    AuthSettings settings;
    QCOMPARE(settings.lastLoginDate(), expected);
    QCOMPARE(log->take(), QStringList());
}

void TestAuthSettings::failedReadIsAnEmptyDate()
{
    daemon.misbehave("FactorMethod", "error", R"("message":"no date today")");
    AuthSettings settings;
    settings.setUid(1000);
    SignalRecorder heard(&settings);
    QCOMPARE(settings.lastLoginDate(), QString());
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(log->take(), QStringList{R"(warning factorMethodWait failed: "no date today")"_s});
}

void TestAuthSettings::replyOfAnotherTypeIsAFailedRead_data()
{
    QTest::addColumn<QByteArray>("reply");
    for (const char *reply : {"()", "('2026',)", "([<'2026'>],)"})
        QTest::newRow(reply) << QByteArray(reply);
}

void TestAuthSettings::replyOfAnotherTypeIsAFailedRead()
{
    QFETCH(QByteArray, reply);
    daemon.answer("FactorMethod", reply);
    AuthSettings settings;
    QCOMPARE(settings.lastLoginDate(), QString());
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith("warning factorMethodWait failed: \""_s), qPrintable(lines.first()));
}

void TestAuthSettings::changedOptionIsEmittedAndReadAnew()
{
    AuthSettings settings;
    settings.setUid(1000);
    SignalRecorder heard(&settings);
    daemon.changeOption("worker/last-login-date", R"("2026-11-21 09:00")", 1000);
    daemon.changeOption("worker/show-last-login", "false", 1000);
    daemon.changeOption("worker/last-login-date", R"("2026-11-21 10:00")", 1001);
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList{"lastLoginDateChanged()"_s});
    QCOMPARE(settings.lastLoginDate(), "2026-11-21 09:00"_s);
}

void TestAuthSettings::noticeIsEmittedWhateverItsValue_data()
{
    QTest::addColumn<QByteArray>("value");
    for (const char *value : {"", ", 'value': <'2026'>", ", 'value': <''>", ", 'value': <5>", ", 'value': <@a{sv} {}>",
                              ", 'value': <('a', 5)>", ", 'more': <true>"})
        QTest::newRow(value) << QByteArray(value);
}

void TestAuthSettings::noticeIsEmittedWhateverItsValue()
{
    QFETCH(QByteArray, value);
    AuthSettings settings;
    settings.setUid(1000);
    SignalRecorder heard(&settings);
    const QByteArray params =
        "{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>" + value + '}';
    notify(params);
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList{"lastLoginDateChanged()"_s});
    notify(params);
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList{"lastLoginDateChanged()"_s});
}

void TestAuthSettings::otherNoticesAreIgnored_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QByteArray>("params");
    const auto row = [](const char *name, const char *method, const char *params) {
        QTest::newRow(name) << QByteArray(method) << QByteArray(params);
    };
    row("other user", "worker", "{'type': <'option-changed'>, 'uid': <uint32 1001>, 'name': <'last-login-date'>}");
    row("nobody", "worker", "{'type': <'option-changed'>, 'uid': <uint32 0>, 'name': <'last-login-date'>}");
    row("no user", "worker", "{'type': <'option-changed'>, 'name': <'last-login-date'>}");
    row("other option", "worker", "{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'show-last-login'>}");
    row("key", "worker", "{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'worker/last-login-date'>}");
    row("other case", "worker", "{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'Last-login-date'>}");
    row("no option", "worker", "{'type': <'option-changed'>, 'uid': <uint32 1000>}");
    row("other type", "worker", "{'type': <'action'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>}");
    row("no type", "worker", "{'uid': <uint32 1000>, 'name': <'last-login-date'>}");
    row("other method", "code", "{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>}");
    row("prefix", "worker/", "{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>}");
    row("no method", "", "{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>}");
}

void TestAuthSettings::otherNoticesAreIgnored()
{
    QFETCH(QByteArray, method);
    QFETCH(QByteArray, params);
    AuthSettings settings;
    settings.setUid(1000);
    SignalRecorder heard(&settings);
    notify(params, method);
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());
}

void TestAuthSettings::noticeWithoutAUserIsForNobody()
{
    AuthSettings settings;
    SignalRecorder heard(&settings);
    notify("{'type': <'option-changed'>, 'name': <'last-login-date'>}");
    notify("{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>}");
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList{"lastLoginDateChanged()"_s});
}

void TestAuthSettings::noticeIsForTheUserSelectedWhenItIsDelivered()
{
    AuthSettings settings;
    settings.setUid(1000);
    SignalRecorder heard(&settings);
    notify("{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>}");
    QCOMPARE(settings.lastLoginDate(), "2026-11-20 08:15"_s);
    QCOMPARE(heard.take(), QStringList());
    settings.setUid(1001);
    heard.take();
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList());
}

void TestAuthSettings::noticeAsksNothing()
{
    AuthSettings settings;
    settings.setUid(1000);
    notify("{'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>, 'value': <'x'>}");
    drain(settingsClient());
    QCOMPARE(daemon.calls(), QStringList());
}

void TestAuthSettings::objectsHaveTheirOwnUsers()
{
    AuthSettings first;
    AuthSettings second;
    AuthSettings third;
    first.setUid(1000);
    second.setUid(1001);
    third.setUid(1001);
    SignalRecorder heardByFirst(&first);
    SignalRecorder heardBySecond(&second);
    SignalRecorder heardByThird(&third);
    daemon.changeOption("worker/last-login-date", R"("2026-11-21 09:00")", 1001);
    drain(settingsClient());
    QCOMPARE(heardByFirst.take(), QStringList());
    QCOMPARE(heardBySecond.take(), QStringList{"lastLoginDateChanged()"_s});
    QCOMPARE(heardByThird.take(), QStringList{"lastLoginDateChanged()"_s});
    QCOMPARE(first.lastLoginDate(), "2026-11-20 08:15"_s);
    QCOMPARE(second.lastLoginDate(), "2026-11-21 09:00"_s);
    QCOMPARE(daemon.calls(), (QStringList{dateCall(1000), dateCall(1001)}));
}

void TestAuthSettings::objectGoesOnAfterARestart()
{
    AuthSettings settings;
    settings.setUid(1000);
    SignalRecorder heard(&settings);
    daemon.request(R"({"do":"restart"})");
    awaitReconnection("authd_p2p_settings_client"_s);
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList());
    daemon.changeOption("worker/last-login-date", R"("2026-11-21 09:00")", 1000);
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList{"lastLoginDateChanged()"_s});
    QCOMPARE(settings.lastLoginDate(), "2026-11-21 09:00"_s);
}

void TestAuthSettings::objectBelongsToItsParent()
{
    auto parent = std::make_unique<QObject>();
    const QPointer<AuthSettings> settings = new AuthSettings(parent.get());
    QCOMPARE(settings->parent(), parent.get());
    const QPointer<QObject> method = settings->findChild<FactorSettingsBase *>(QString(), Qt::FindDirectChildrenOnly);
    QVERIFY(method);
    parent.reset();
    QVERIFY(!settings);
    QVERIFY(!method);
}

void TestAuthSettings::deletedObjectHearsNothing()
{
    auto settings = std::make_unique<AuthSettings>();
    SignalRecorder heard(settings.get());
    notify("{'type': <'option-changed'>, 'name': <'last-login-date'>}");
    settingsClient()->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 0}}, "code"_s);
    settings.reset();
    drain(settingsClient());
    QCOMPARE(heard.take(), QStringList());
}

QTEST_GUILESS_MAIN(TestAuthSettings)
#include "tst_authsettings.moc"
