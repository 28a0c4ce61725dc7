#include "screen-test-case.h"

#include <UserSettings>

#include <csignal>

using AuthScreens::FactorModel;
using AuthScreens::UserSettings;

/** AuthScreens::UserSettings. */
class TestUserSettings : public ScreenTestCase
{
    Q_OBJECT

private:
    std::unique_ptr<UserSettings> newSettings(uint uid = 1000);
    std::unique_ptr<UserSettings> newAuthenticatedSettings(uint uid = 1000);
    /** Waits until nothing is pending: what has been refused. */
    QStringList settle(UserSettings *settings, const std::function<bool()> &change);
    QStringList login()
    {
        return {daemon.option("worker/service-factors/login", 1000)};
    }

private Q_SLOTS:
    void settingsAreRead();
    void managedUserSeesWhatIsChosen();
    void announcementsAreFollowed();
    void authentication_data();
    void authentication();
    void tokenIsDropped();
    void changesWantAnAuthentication();
    void loginChoice_data();
    void loginChoice();
    void unlockChoice_data();
    void unlockChoice();
    void changeable_data();
    void changeable();
    void switches();
    void changeIsPendingUntilItIsAnswered();
    void refusedChangeIsTold_data();
    void refusedChangeIsTold();
    void daemonLeavesDuringAChange();
    void agentIsKilledDuringAChange();
    void userChanges();
    void attemptIsGivenUp();
};

namespace {

/** The rows as texts: the name, and what is set of chosen, pending, wanted, disabled and changeable, by its first letters. */
QStringList rowsOf(const FactorModel *model)
{
    QStringList rows;
    for (int i = 0; i < model->count(); ++i) {
        const auto value = [&](FactorModel::Role role) { return model->data(model->index(i), role); };
        QString row = value(FactorModel::NameRole).toString() + QLatin1Char(' ');
        for (const auto &mark : {qMakePair(FactorModel::ChosenRole, 'c'), qMakePair(FactorModel::PendingRole, 'p'),
                                 qMakePair(FactorModel::WantedRole, 'w'), qMakePair(FactorModel::DisabledRole, 'd'),
                                 qMakePair(FactorModel::ChangeableRole, 'C')})
            row += QLatin1Char(value(mark.first).toBool() ? mark.second : '-');
        rows.append(row);
    }
    return rows;
}

} // namespace

std::unique_ptr<UserSettings> TestUserSettings::newSettings(uint uid)
{
    auto settings = std::make_unique<UserSettings>();
    settings->setUid(uid);
    if (!waitFor([&settings] { return settings->ready(); }))
        qFatal("The settings are not read");
    return settings;
}

std::unique_ptr<UserSettings> TestUserSettings::newAuthenticatedSettings(uint uid)
{
    auto settings = newSettings(uid);
    if (!settings->authenticate("code"_s, uid == 1000 ? "1234"_s : "9876"_s))
        qFatal("The settings are busy");
    if (!waitFor([&settings] { return settings->authenticated() && !settings->busy(); }))
        qFatal("The user is not authenticated");
    return settings;
}

QStringList TestUserSettings::settle(UserSettings *settings, const std::function<bool()> &change)
{
    QStringList refusals;
    QObject context;
    connect(settings, &UserSettings::changeRefused, &context,
            [&](UserSettings::Setting, const QString &factor, Reason reason) {
                refusals.append(factor.isEmpty() ? nameOf(reason) : factor + QLatin1Char(' ') + nameOf(reason));
            });
    if (!change())
        return {"not begun"_s};
    if (!waitFor([settings] { return !settings->pending(); }))
        return {"pending"_s};
    QTimer::singleShot(0, &context, [&] { refusals.append(QString()); });
    waitFor([&refusals] { return refusals.contains(QString()); });
    refusals.removeAll(QString());
    return refusals;
}

void TestUserSettings::settingsAreRead()
{
    const auto settings = newSettings();
    QVERIFY(settings->available());
    QVERIFY(!settings->authenticated());
    QVERIFY(settings->canSwitchToUser());
    QVERIFY(settings->settable());
    QVERIFY(!settings->multiFactor());
    QVERIFY(settings->notifications());
    QVERIFY(settings->needsSmartCard());
    QCOMPARE(rowsOf(settings->loginFactors()),
             QStringList({"code c-w--"_s, "smartcard -----"_s, "sudis -----"_s, "broken -----"_s, "slow -----"_s}));
    QCOMPARE(rowsOf(settings->unlockFactors()).mid(0, 2), QStringList({"code c-w--"_s, "smartcard c-w--"_s}));
}

void TestUserSettings::managedUserSeesWhatIsChosen()
{
    daemon.arrangeOption("worker/is-user-settable", "false", 1000);
    const auto settings = newAuthenticatedSettings();
    QVERIFY(!settings->settable());
    QCOMPARE(rowsOf(settings->loginFactors()), QStringList{"code c-w--"_s});
    QCOMPARE(settle(settings.get(), [&] { return settings->chooseForLogin("sudis"_s, true); }),
             QStringList{"sudis NotAllowed"_s});
}

void TestUserSettings::announcementsAreFollowed()
{
    const auto settings = newSettings();
    daemon.changeOption("worker/service-factors/login", R"(["sudis"])", 1000);
    QVERIFY(waitFor([&] { return rowsOf(settings->loginFactors()).contains("sudis c-w--"_s); }));
    QVERIFY(rowsOf(settings->loginFactors()).contains("code -----"_s));
    daemon.changeOption("worker/is-multi-factorable", "true", 1000);
    QVERIFY(waitFor([&] { return settings->multiFactor(); }));
    daemon.changeOption("devlock/show-notifications", "false", 1000);
    QVERIFY(waitFor([&] { return !settings->notifications(); }));
    daemon.changeOption("worker/disabled-factors", R"(["smartcard"])", 1000);
    QVERIFY(waitFor([&] { return rowsOf(settings->loginFactors()).contains("smartcard ---d-"_s); }));
}

void TestUserSettings::authentication_data()
{
    QTest::addColumn<QString>("secret");
    QTest::addColumn<QString>("refusal");
    QTest::newRow("right code") << "1234"_s << QString();
    QTest::newRow("wrong code") << "s3cr3t"_s
                                << "NotAccepted"_s;
    QTest::newRow("no code") << QString() << "NotSendable"_s;
}

void TestUserSettings::authentication()
{
    QFETCH(QString, secret);
    QFETCH(QString, refusal);
    const auto settings = newSettings();
    QStringList refusals;
    connect(settings.get(), &UserSettings::refused, this,
            [&refusals](Reason reason) { refusals.append(nameOf(reason)); });
    QVERIFY(settings->authenticate("code"_s, secret));
    QVERIFY(settings->busy());
    QVERIFY(!settings->authenticate("code"_s, secret));
    QVERIFY(waitFor([&settings] { return !settings->busy(); }));
    QCOMPARE(settings->authenticated(), refusal.isEmpty());
    QCOMPARE(refusals.join(QString()), refusal);
    if (!settings->authenticated()) {
        QVERIFY(settings->authenticate("code"_s, "1234"_s));
        QVERIFY(waitFor([&settings] { return settings->authenticated(); }));
    }
}

void TestUserSettings::tokenIsDropped()
{
    const auto settings = newAuthenticatedSettings();
    settings->lock();
    QVERIFY(waitFor([&settings] { return !settings->authenticated(); }));
    QVERIFY(settings->authenticate("code"_s, "1234"_s));
    QVERIFY(waitFor([&settings] { return settings->authenticated(); }));
    daemon.unlock();
    daemon.lock();
    QVERIFY(waitFor([&settings] { return !settings->authenticated(); }));
}

void TestUserSettings::changesWantAnAuthentication()
{
    const auto settings = newSettings();
    QCOMPARE(settle(settings.get(), [&] { return settings->chooseForLogin("sudis"_s, true); }),
             QStringList{"sudis NotAuthenticated"_s});
    QCOMPARE(settle(settings.get(), [&] { return settings->changeMultiFactor(true); }),
             QStringList{"NotAuthenticated"_s});
    QCOMPARE(login(), QStringList{"['code']"_s});
    UserSettings nobody;
    QCOMPARE(settle(&nobody, [&] { return nobody.changeNotifications(true); }), QStringList{"Unavailable"_s});
}

void TestUserSettings::loginChoice_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("disabled");
    QTest::addColumn<bool>("isMulti");
    QTest::addColumn<QString>("factor");
    QTest::addColumn<bool>("isWanted");
    QTest::addColumn<QString>("after");
    QTest::newRow("another replaces the one")
        << QByteArray(R"(["code"])") << QByteArray("[]") << false << "sudis"_s << true << "['sudis']"_s;
    QTest::newRow("another is added, in the daemon's order")
        << QByteArray(R"(["sudis"])") << QByteArray("[]") << true << "code"_s << true << "['code', 'sudis']"_s;
    QTest::newRow("one of several is left out")
        << QByteArray(R"(["code","sudis"])") << QByteArray("[]") << true << "code"_s << false << "['sudis']"_s;
    QTest::newRow("one of several is left out where one is the rule")
        << QByteArray(R"(["code","sudis"])") << QByteArray("[]") << false << "code"_s << false << "['sudis']"_s;
    QTest::newRow("the only one stays") << QByteArray(R"(["code"])") << QByteArray("[]") << true << "code"_s << false
                                        << QString();
    QTest::newRow("the only one stays where one is the rule")
        << QByteArray(R"(["code"])") << QByteArray("[]") << false << "code"_s << false << QString();
    QTest::newRow("the only usable one stays")
        << QByteArray(R"(["code","sudis"])") << QByteArray(R"(["sudis"])") << true << "code"_s << false << QString();
    QTest::newRow("a disabled one is not chosen")
        << QByteArray(R"(["code"])") << QByteArray(R"(["sudis"])") << true << "sudis"_s << true << QString();
    QTest::newRow("a disabled one does not replace the one")
        << QByteArray(R"(["code"])") << QByteArray(R"(["sudis"])") << false << "sudis"_s << true << QString();
    QTest::newRow("an unknown one is not chosen")
        << QByteArray(R"(["code"])") << QByteArray("[]") << false << "none"_s << true << QString();
    QTest::newRow("a disabled one is left out") << QByteArray(R"(["code","sudis"])") << QByteArray(R"(["sudis"])")
                                                << true << "sudis"_s << false << "['code']"_s;
}

void TestUserSettings::loginChoice()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, disabled);
    QFETCH(bool, isMulti);
    QFETCH(QString, factor);
    QFETCH(bool, isWanted);
    QFETCH(QString, after);
    daemon.arrangeOption("worker/service-factors/login", before, 1000);
    daemon.arrangeOption("worker/disabled-factors", disabled, 1000);
    daemon.arrangeOption("worker/is-multi-factorable", isMulti ? "true" : "false", 1000);
    const auto settings = newAuthenticatedSettings();
    const QStringList was = login();
    const QStringList unlock{daemon.option("worker/service-factors/unlock", 1000)};
    const QStringList refusals = settle(settings.get(), [&] { return settings->chooseForLogin(factor, isWanted); });
    QCOMPARE(refusals, after.isEmpty() ? QStringList{factor + " NotAllowed"_s} : QStringList());
    QCOMPARE(login(), after.isEmpty() ? was : QStringList{after});
    QCOMPARE(QStringList{daemon.option("worker/service-factors/unlock", 1000)}, unlock);
    const QString mark = isWanted == after.isEmpty() ? " -----"_s : " c-w-"_s;
    if (!after.isEmpty())
        QVERIFY(!rowsOf(settings->loginFactors()).filter(factor + mark.left(3)).isEmpty());
}

void TestUserSettings::unlockChoice_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("disabled");
    QTest::addColumn<QString>("factor");
    QTest::addColumn<bool>("isWanted");
    QTest::addColumn<QString>("after");
    QTest::newRow("another is added") << QByteArray(R"(["code"])") << QByteArray("[]") << "smartcard"_s << true
                                      << "['code', 'smartcard']"_s;
    QTest::newRow("the exclusive one replaces all")
        << QByteArray(R"(["code","smartcard"])") << QByteArray("[]") << "sudis"_s << true << "['sudis']"_s;
    QTest::newRow("without the only one, all others")
        << QByteArray(R"(["sudis"])") << QByteArray(R"(["broken","slow"])") << "sudis"_s << false
        << "['code', 'smartcard']"_s;
    QTest::newRow("the only one that is not disabled stays")
        << QByteArray(R"(["code"])") << QByteArray(R"(["broken","slow","sudis","smartcard"])") << "code"_s << false
        << QString();
    QTest::newRow("a disabled one is not chosen")
        << QByteArray(R"(["code"])") << QByteArray(R"(["sudis"])") << "sudis"_s << true << QString();
}

void TestUserSettings::unlockChoice()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, disabled);
    QFETCH(QString, factor);
    QFETCH(bool, isWanted);
    QFETCH(QString, after);
    daemon.arrangeOption("worker/service-factors/unlock", before, 1000);
    daemon.arrangeOption("worker/disabled-factors", disabled, 1000);
    const auto settings = newAuthenticatedSettings();
    const QString was = daemon.option("worker/service-factors/unlock", 1000);
    const QStringList refusals = settle(settings.get(), [&] { return settings->chooseForUnlocking(factor, isWanted); });
    QCOMPARE(refusals, after.isEmpty() ? QStringList{factor + " NotAllowed"_s} : QStringList());
    QCOMPARE(daemon.option("worker/service-factors/unlock", 1000), after.isEmpty() ? was : after);
    QCOMPARE(login(), QStringList{"['code']"_s});
}

void TestUserSettings::changeable_data()
{
    QTest::addColumn<QByteArray>("login");
    QTest::addColumn<QByteArray>("disabled");
    QTest::addColumn<QStringList>("rows");
    QTest::newRow("one") << QByteArray(R"(["code"])") << QByteArray("[]")
                         << QStringList({"code c-w--"_s, "smartcard ----C"_s, "sudis ----C"_s});
    QTest::newRow("two") << QByteArray(R"(["code","sudis"])") << QByteArray("[]")
                         << QStringList({"code c-w-C"_s, "smartcard ----C"_s, "sudis c-w-C"_s});
    QTest::newRow("two, one of them disabled") << QByteArray(R"(["code","sudis"])") << QByteArray(R"(["sudis"])")
                                               << QStringList({"code c-w--"_s, "smartcard ----C"_s, "sudis c-wdC"_s});
    QTest::newRow("one, another disabled") << QByteArray(R"(["code"])") << QByteArray(R"(["sudis"])")
                                           << QStringList({"code c-w--"_s, "smartcard ----C"_s, "sudis ---d-"_s});
}

void TestUserSettings::changeable()
{
    QFETCH(QByteArray, login);
    QFETCH(QByteArray, disabled);
    QFETCH(QStringList, rows);
    daemon.arrangeOption("worker/service-factors/login", login, 1000);
    daemon.arrangeOption("worker/disabled-factors", disabled, 1000);
    const auto settings = newAuthenticatedSettings();
    QCOMPARE(rowsOf(settings->loginFactors()).mid(0, 3), rows);
    settings->lock();
    QVERIFY(waitFor([&settings] { return !settings->authenticated(); }));
    QCOMPARE(rowsOf(settings->loginFactors()).filter("C"_s), QStringList());
}

void TestUserSettings::switches()
{
    const auto settings = newAuthenticatedSettings();
    QCOMPARE(settle(settings.get(), [&] { return settings->changeMultiFactor(true); }), QStringList());
    QVERIFY(settings->multiFactor());
    QCOMPARE(settle(settings.get(), [&] { return settings->changeNotifications(false); }), QStringList());
    QVERIFY(!settings->notifications());
    QCOMPARE(daemon.option("worker/is-multi-factorable", 1000), "true"_s);
    QCOMPARE(daemon.option("devlock/show-notifications", 1000), "false"_s);
    daemon.fail("SetUserOption"_s);
    QCOMPARE(settle(settings.get(), [&] { return settings->changeNotifications(true); }), QStringList{"NotAccepted"_s});
    QVERIFY(!settings->notifications());
}

void TestUserSettings::changeIsPendingUntilItIsAnswered()
{
    const auto settings = newAuthenticatedSettings();
    daemon.hold("FactorMethod"_s);
    QVERIFY(settings->chooseForLogin("sudis"_s, true));
    QVERIFY(settings->pending());
    QVERIFY(!settings->chooseForLogin("sudis"_s, false));
    QVERIFY(rowsOf(settings->loginFactors()).contains("sudis -pw--"_s));
    daemon.waitCalls("FactorMethod");
    QVERIFY(rowsOf(settings->loginFactors()).contains("code c-w--"_s));
    daemon.behave();
    daemon.release();
    QVERIFY(waitFor([&settings] { return !settings->pending(); }));
    QVERIFY(rowsOf(settings->loginFactors()).contains("sudis c-w--"_s));
    QVERIFY(rowsOf(settings->loginFactors()).contains("code ----C"_s));
}

void TestUserSettings::refusedChangeIsTold_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("false") << QByteArray("(<false>,)");
    QTest::newRow("a number") << QByteArray("(<1>,)");
    QTest::newRow("a text") << QByteArray("(<'true'>,)");
    QTest::newRow("error") << QByteArray();
}

// What has been refused is not asked for again with the next change.
void TestUserSettings::refusedChangeIsTold()
{
    QFETCH(QByteArray, answer);
    daemon.arrangeOption("worker/is-multi-factorable", "true", 1000);
    const auto settings = newAuthenticatedSettings();
    if (answer.isEmpty())
        daemon.fail("FactorMethod"_s, QString(), 1);
    else
        daemon.misbehave("FactorMethod", "reply",
                         R"("times":1,"value":)" + AuthStandIn::quoted(QString::fromLatin1(answer)));
    QCOMPARE(settle(settings.get(), [&] { return settings->chooseForLogin("sudis"_s, true); }),
             QStringList{"sudis NotAccepted"_s});
    QVERIFY(rowsOf(settings->loginFactors()).contains("sudis ----C"_s));
    QCOMPARE(settle(settings.get(), [&] { return settings->chooseForLogin("smartcard"_s, true); }), QStringList());
    QCOMPARE(login(), QStringList{"['code', 'smartcard']"_s});
}

void TestUserSettings::daemonLeavesDuringAChange()
{
    const auto settings = newAuthenticatedSettings();
    daemon.hold("FactorMethod"_s);
    QCOMPARE(settle(settings.get(),
                    [&] {
                        const bool isBegun = settings->chooseForLogin("sudis"_s, true);
                        daemon.waitCalls("FactorMethod");
                        daemon.stop();
                        return isBegun;
                    })
                 .filter(QRegularExpression("^sudis (Unavailable|Interrupted|NotAccepted)$"_s))
                 .size(),
             1);
    QVERIFY(waitFor([&settings] { return !settings->available() && !settings->authenticated(); }));
    QVERIFY(settings->loginFactors()->count() > 0);
    daemon.behave();
    daemon.start();
    QVERIFY(waitFor([&settings] { return settings->available(); }));
    QVERIFY(settings->authenticate("code"_s, "1234"_s));
    QVERIFY(waitFor([&settings] { return !settings->busy(); }));
    QVERIFY(settings->authenticated());
    QCOMPARE(settle(settings.get(), [&] { return settings->chooseForLogin("sudis"_s, true); }), QStringList());
}

void TestUserSettings::agentIsKilledDuringAChange()
{
    const auto settings = newAuthenticatedSettings();
    daemon.hold("FactorMethod"_s);
    QCOMPARE(settle(settings.get(),
                    [&] {
                        const bool isBegun = settings->chooseForLogin("sudis"_s, true);
                        daemon.waitCalls("FactorMethod");
                        signalAll(agents(), SIGKILL);
                        return isBegun;
                    })
                 .filter(QRegularExpression("^sudis (Unavailable|Interrupted)$"_s))
                 .size(),
             1);
    QVERIFY(!settings->authenticated());
}

void TestUserSettings::userChanges()
{
    const auto settings = newAuthenticatedSettings();
    settings->setUid(1001);
    QVERIFY(!settings->authenticated());
    QVERIFY(!settings->ready());
    QCOMPARE(settings->loginFactors()->count(), 0);
    QVERIFY(waitFor([&settings] { return settings->ready(); }));
    QVERIFY(rowsOf(settings->loginFactors()).contains("sudis ---d-"_s));
    QVERIFY(!settings->notifications());
    settings->setUid(0);
    QVERIFY(!settings->ready());
}

void TestUserSettings::attemptIsGivenUp()
{
    const auto settings = newSettings();
    QStringList refusals;
    connect(settings.get(), &UserSettings::refused, this,
            [&refusals](Reason reason) { refusals.append(nameOf(reason)); });
    settings->giveUp();
    QCOMPARE(refusals, QStringList());
    daemon.hold("Authenticate"_s);
    QVERIFY(settings->authenticate("code"_s, "1234"_s));
    daemon.waitCalls("Authenticate");
    settings->giveUp();
    QCOMPARE(refusals, QStringList{"GivenUp"_s});
    QVERIFY(!settings->busy());
    daemon.behave();
    daemon.release();
    // The token of what was given up is nobody's.
    QVERIFY(settings->authenticate("code"_s, "s3cr3t"_s));
    QVERIFY(waitFor([&settings] { return !settings->busy(); }));
    QVERIFY(!settings->authenticated());
    QCOMPARE(refusals, QStringList({"GivenUp"_s, "NotAccepted"_s}));
}

QTEST_GUILESS_MAIN(TestUserSettings)

#include "tst_usersettings.moc"
