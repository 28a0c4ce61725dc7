#include "settings-test-case.h"

#include <QtCore/QMetaType>

#include <thread>

namespace {
struct Flag
{
    const char *name;
    QByteArray key;
    bool (AuthSettingsClient::*getter)() const;
    void (AuthSettingsClient::*setter)(bool);

    bool of(const std::unique_ptr<AuthSettingsClient> &client) const
    {
        return (client.get()->*getter)();
    }
    void set(const std::unique_ptr<AuthSettingsClient> &client, bool value) const
    {
        (client.get()->*setter)(value);
    }
};

const char accepted[] = "(true,)";

/** A call of a setter: what is there before it, and what the daemon does. */
struct Write
{
    const char *name;
    QByteArray token;
    bool isThere = false; // the value that is set
    const char *answer = accepted;
    const char *error = nullptr;
    const char *complaint = nullptr; // a regular expression
};
} // namespace
Q_DECLARE_METATYPE(Write)

/** How AuthSettingsClient comes up, its global options, its flags and their setters. */
class TestSettings : public SettingsTestCase
{
    Q_OBJECT

private:
    std::unique_ptr<AuthSettingsClient> newClientWith(const Flag &flag, bool value, uint uid = 1000);
    void failOnce();

private Q_SLOTS:
    void modelTypeIsRegisteredByName();

    void constructionMakesItsCallsInOrder();
    void constructionAsksForTheFactorsOfEachService_data();
    void constructionAsksForTheFactorsOfEachService();
    void constructionLogsItsConnections();
    void constructionLogsBeforeItReadsTheFactors();
    void announcementsAreHeardWhileTheFactorsAreRead();
    void destructionLogsTheDisconnection();
    void newClientHasItsInitialValues();
    void modelIsNeverNullAndAlwaysTheSame();
    void canSwitchToUserIsTheOptionAsABool_data();
    void canSwitchToUserIsTheOptionAsABool();
    void availableServicesAreTheOptionAsAListOfStrings_data();
    void availableServicesAreTheOptionAsAListOfStrings();
    void failedReadsLeaveItWithoutServices();
    void failedReadOfTheServicesIsNotTheOthers();
    void failedReadOfTheFlagIsNotTheOthers();
    void failedReadsAreNotRetried();
    void optionThatIsNotThereIsAFailedRead();
    void replyOfAnotherTypeIsAFailedRead_data();
    void replyOfAnotherTypeIsAFailedRead();
    void longTextsOfErrorsAreCutInTheLog();
    void clientComesUpThoughItsPeerIsLost();
    void constructionWaitsForTheDaemon();
    void clientIsOwnedByItsParent();

    void clientsAreIndependent();
    void eachClientReadsForItself();
    void clientsShareASocketAndHearTheSameTokens();
    void clientsHearEachSignalOnceEach();
    void clientGoesOnWhenAnotherOfItsConnectionIsDeleted();
    void clientWritesWhenAnotherOfItsConnectionIsDeleted_data();
    void clientWritesWhenAnotherOfItsConnectionIsDeleted();
    void clientAndAuthClientHaveTheirOwnConnections();

    void tokenIsTheBases();
    void tokenIsAnnouncedByTheBaseAlone();

    void announcedFlagIsEmittedAlways_data();
    void announcedFlagIsEmittedAlways();
    void announcedFlagIsConverted_data();
    void announcedFlagIsConverted();
    void announcedFlagIsReadWhenItIsEmitted();
    void otherOptionsAreIgnored_data();
    void otherOptionsAreIgnored();
    void otherSignalsAreNotTaken_data();
    void otherSignalsAreNotTaken();
    void announcementCorrectsAFailedRead();
    void announcementsArriveInTheirOrder();

    void setterWrites_data();
    void setterWrites();
    void setterWithoutAUserDoesNothing_data();
    void setterWithoutAUserDoesNothing();
    void setterSendsForTheHighestUserIdToo_data();
    void setterSendsForTheHighestUserIdToo();
    void acceptedWriteResetsTheModelThenTellsOfIsUserSettable();
    void acceptedWriteLeavesIsMultiFactorableToTheDaemon();
    void replyOfAnotherTypeIsConverted_data();
    void replyOfAnotherTypeIsConverted();
    void setterWaitsForTheReply();
    void signalsThatArriveMeanwhileComeAfterwards();
    void writeOfAnAuthenticatedUserReachesTheDaemon_data();
    void writeOfAnAuthenticatedUserReachesTheDaemon();

    void announcedUserFlagIsEmittedOnceItChanges_data();
    void announcedUserFlagIsEmittedOnceItChanges();
    void handlersSeeTheNewValues();
    void queuedAnnouncementsEndWithTheClient();

    // In this order, and last: the object stays.
    void getMakesTheObjectOnceAndForAll();
    void getIsBesideObjectsMadeDirectly();
};

namespace {
const QByteArray token = "s3cr3t token";
const uint highestUid = 4294967295;

const Flag flags[] = {
    {"showNotifications", "devlock/show-notifications", &AuthSettingsClient::showNotifications,
     &AuthSettingsClient::setShowNotifications},
    {"isUserSettable", "worker/is-user-settable", &AuthSettingsClient::isUserSettable,
     &AuthSettingsClient::setIsUserSettable},
    {"isMultiFactorable", "worker/is-multi-factorable", &AuthSettingsClient::isMultiFactorable,
     &AuthSettingsClient::setIsMultiFactorable},
};
const Flag &showNotificationsFlag = flags[0];
const Flag &isUserSettableFlag = flags[1];
const Flag &isMultiFactorableFlag = flags[2];

void flagRows()
{
    QTest::addColumn<int>("flagIndex");
    QTest::addColumn<bool>("value");
    for (int i = 0; i < 3; ++i) {
        QTest::addRow("%s becomes true", flags[i].name) << i << true;
        QTest::addRow("%s becomes false", flags[i].name) << i << false;
    }
}

QByteArray json(bool value)
{
    return value ? "true" : "false";
}

// What a change of the flag emits.
QStringList changeSignals(const Flag &flag)
{
    const QStringList changed{QLatin1String(flag.name) + "Changed()"_s};
    return &flag == &isUserSettableFlag ? resetSignals + changed : changed;
}

QString getOption(const QByteArray &key)
{
    return settingsCall("GetOption", "s", "('" + key + "',)");
}

QString setUserOption(uint uid, const QByteArray &withToken, const QByteArray &key, bool value)
{
    return settingsCall("SetUserOption", "uaysv",
                        "(uint32 " + QByteArray::number(uid) + ", " + bytes(withToken) + ", '" + key + "', <"
                            + json(value) + ">)");
}

const QStringList firstCalls{
    getOption("worker/available-services"),
    getOption("worker/can-switch-to-user"),
};

// Those that are made on the socket; the others are in no order with them.
QStringList onSocket(const QStringList &calls)
{
    return calls.filter(QRegularExpression("^peer "_s));
}

QStringList rowNames(const AuthSettingsClient &client)
{
    const FactorListModel *model = client.factors();
    QStringList result;
    for (int row = 0; row < model->rowCount(); ++row)
        result.append(model->data(model->index(row), Qt::UserRole).toString());
    return result;
}

// Values that are no bool, and the bools that QVariant makes of them.
void boolRows()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("expected");
    const auto row = [](const char *value, bool expected) { QTest::newRow(value) << QByteArray(value) << expected; };
    row("<true>", true);
    row("<false>", false);
    row("<1>", true);
    row("<0>", false);
    row("<uint32 2>", true);
    row("<byte 0x00>", false);
    row("<0.5>", true);
    row("<0.0>", false);
    row("<'true'>", true);
    row("<'no'>", true);
    row("<'false'>", false);
    row("<'False'>", false);
    row("<'0'>", false);
    row("<''>", false);
    row("<['true']>", false);
    row("<@as []>", false);
    row("<[<true>]>", false);
    row("<{'true': <true>}>", false);
    row("<(true,)>", false);
    row("<<true>>", false);
}
} // namespace

std::unique_ptr<AuthSettingsClient> TestSettings::newClientWith(const Flag &flag, bool value, uint uid)
{
    daemon.arrangeOption(flag.key, json(value), uid);
    return newClientOf(uid);
}

// The next read of a global option; the newest rule comes first.
void TestSettings::failOnce()
{
    daemon.misbehave("GetOption", "error", R"("message":"not now","times":1)");
}

// First of all, before anything asks for the property.
void TestSettings::modelTypeIsRegisteredByName()
{
    const auto client = newSettingsClient();
    const int type = QMetaType::type("FactorListModel*");
    QVERIFY(type != QMetaType::UnknownType);
    QVERIFY(QMetaType::typeFlags(type) & QMetaType::PointerToQObject);
    const QVariant factors = client->property("factors");
    QCOMPARE(factors.userType(), type);
    QCOMPARE(factors.value<FactorListModel *>(), client->factors());
    QCOMPARE(factors.value<QObject *>(), client->factors());
}

void TestSettings::constructionMakesItsCallsInOrder()
{
    const AuthSettingsClient client(nullptr);
    const QStringList service = daemon.waitCalls("GetState");
    QCOMPARE(service, QStringList{systemCall("GetState", "", "()")});
    const QStringList expected = firstCalls
        + QStringList{
            getOption("worker/available-service-factors/login"),
            getOption("worker/available-service-factors/unlock"),
        };
    QCOMPARE(onSocket(daemon.calls()), expected);
    QCOMPARE(daemon.calls().size(), expected.size() + 1);
    QCOMPARE(daemon.peerCount(), 1);
}

void TestSettings::constructionAsksForTheFactorsOfEachService_data()
{
    QTest::addColumn<QStringList>("services");
    QTest::newRow("none") << QStringList();
    QTest::newRow("one") << QStringList{"unlock"_s};
    QTest::newRow("the other order") << QStringList{"unlock"_s, "login"_s};
    QTest::newRow("unknown ones") << QStringList{"sudo"_s, "login"_s, "a/b"_s, "Ünlock"_s, QString()};
    QTest::newRow("the same twice") << QStringList{"login"_s, "unlock"_s, "login"_s};
}

void TestSettings::constructionAsksForTheFactorsOfEachService()
{
    QFETCH(QStringList, services);
    QByteArrayList names;
    QStringList expected = firstCalls;
    for (const QString &service : services) {
        const QByteArray name = service.toUtf8();
        names.append('"' + name + '"');
        expected.append(getOption("worker/available-service-factors/" + name));
        daemon.arrangeOption("worker/available-service-factors/" + name, R"(["code"])");
    }
    daemon.arrangeOption("worker/available-services", '[' + names.join(',') + ']');
    const AuthSettingsClient client(nullptr);
    QCOMPARE(onSocket(daemon.calls()), expected);
}

void TestSettings::constructionLogsItsConnections()
{
    const AuthSettingsClient client(nullptr);
    const QString address = R"("unix:path=/var/run/authd/authd.socket")"_s;
    QCOMPARE(
        log->take(),
        (QStringList{R"(debug AuthDevlockClientPrivate Connected to "vantora.AuthService")"_s,
                     R"(debug AuthdConnection "authd_p2p_settings_client" connected to "authd_p2p_settings_client")"_s,
                     "debug AuthClientPrivate Connected to "_s + address,
                     "debug AuthSettingsClientPrivate Connected to "_s + address}));
}

void TestSettings::constructionLogsBeforeItReadsTheFactors()
{
    daemon.misbehave("GetOption", "error", R"("message":"no factors")");
    answerOnce("<true>");
    answerOnce("<['login']>");
    const AuthSettingsClient client(nullptr);
    QCOMPARE(log->take().filter(QRegularExpression("AuthSettingsClientPrivate|getOption"_s)),
             (QStringList{
                 R"(debug AuthSettingsClientPrivate Connected to "unix:path=/var/run/authd/authd.socket")"_s,
                 R"(warning getOption failed: "no factors")"_s,
             }));
}

void TestSettings::announcementsAreHeardWhileTheFactorsAreRead()
{
    daemon.misbehave("GetOption", "hold", R"("times":1)");
    answerOnce("<true>");
    answerOnce("<['login']>");
    std::thread announcer([] {
        StandIn other;
        other.waitCalls("GetOption", 3);
        other.emitSignal("OptionChanged", "('worker/can-switch-to-user', <false>)");
        other.request(R"({"do":"release"})");
    });
    const auto client = std::make_unique<AuthSettingsClient>(nullptr);
    announcer.join();
    QVERIFY(client->canSwitchToUser());
    SignalRecorder heard(client.get());
    drain(client.get());
    QCOMPARE(heard.list().count("canSwitchToUserChanged()"_s), 1);
    QVERIFY(!client->canSwitchToUser());
}

void TestSettings::destructionLogsTheDisconnection()
{
    auto client = newSettingsClient();
    client.reset();
    QCOMPARE(
        log->take(),
        QStringList{
            R"(debug ~AuthdConnection "authd_p2p_settings_client" disconnected from "authd_p2p_settings_client")"_s});
    QVERIFY(waitFor([this] {
        drainSystemBus();
        return daemon.peerCount() == 0;
    }));
}

void TestSettings::newClientHasItsInitialValues()
{
    const auto client = newSettingsClient();
    const ModelWatch watch(client->factors());
    QCOMPARE(client->uid(), 0U);
    QVERIFY(!client->showNotifications());
    QVERIFY(!client->isMultiFactorable());
    QVERIFY(client->isUserSettable());
    QVERIFY(client->canSwitchToUser());
    QCOMPARE(client->token(), QByteArray());
    QCOMPARE(client->userWarning(), QString());
    QCOMPARE(client->unlockFactors(), QStringList());
    QVERIFY(!client->authenticated());
    QVERIFY(!client->progress());
    QCOMPARE(client->parent(), nullptr);
    // Every login factor, as long as nobody is selected.
    QCOMPARE(rowNames(*client), (QStringList{"code"_s, "smartcard"_s, "sudis"_s, "broken"_s, "slow"_s}));
}

void TestSettings::modelIsNeverNullAndAlwaysTheSame()
{
    const auto client = newSettingsClient();
    FactorListModel *const model = client->factors();
    QVERIFY(model);
    client->setUid(1000);
    daemon.request(R"({"do":"restart"})");
    awaitReconnection("authd_p2p_settings_client"_s);
    QCOMPARE(client->factors(), model);
    QCOMPARE(client->property("factors").value<QObject *>(), model);
}

void TestSettings::canSwitchToUserIsTheOptionAsABool_data()
{
    boolRows();
}

void TestSettings::canSwitchToUserIsTheOptionAsABool()
{
    QFETCH(QByteArray, value);
    QFETCH(bool, expected);
    answerOnce(value);
    answerOnce("<['login']>");
    const auto client = newSettingsClient();
    QCOMPARE(client->canSwitchToUser(), expected);
    QCOMPARE(client->property("canSwitchToUser"), QVariant(expected));
    QCOMPARE(rowNames(*client).size(), 5);
}

void TestSettings::availableServicesAreTheOptionAsAListOfStrings_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QByteArrayList>("expected");
    const auto row = [](const char *value, const QByteArrayList &expected) {
        QTest::newRow(value) << QByteArray(value) << expected;
    };
    row("<['unlock']>", {"unlock"});
    row("<@as []>", {});
    row("<'unlock'>", {"unlock"});
    row("<true>", {});
    row("<5>", {});
    row("<[<'unlock'>]>", {});
    row("<{'unlock': <true>}>", {});
    row("<{'unlock': 'login'}>", {});
    row("<('unlock', 'login')>", {});
    row("<[['unlock']]>", {});
    row("<<['unlock']>>", {});
    row("<@a{sv} {}>", {});
    row("<@av []>", {});
}

void TestSettings::availableServicesAreTheOptionAsAListOfStrings()
{
    QFETCH(QByteArray, value);
    QFETCH(QByteArrayList, expected);
    answerOnce(value);
    const AuthSettingsClient client(nullptr);
    QStringList calls = firstCalls;
    for (const QByteArray &service : expected)
        calls.append(getOption("worker/available-service-factors/" + service));
    QCOMPARE(onSocket(daemon.calls()), calls);
    QVERIFY(client.canSwitchToUser());
}

void TestSettings::failedReadsLeaveItWithoutServices()
{
    daemon.misbehave("GetOption", "error", R"("message":"not today")");
    const AuthSettingsClient client(nullptr);
    const ModelWatch watch(client.factors());
    QCOMPARE(onSocket(daemon.calls()), firstCalls);
    const QString warning = R"(warning getOption failed: "not today")"_s;
    QCOMPARE(log->takeComplaints(), (QStringList{warning, warning}));
    QVERIFY(!client.canSwitchToUser());
    QVERIFY(client.isUserSettable());
    QCOMPARE(client.factors()->rowCount(), 0);
    QCOMPARE(client.factors()->loginFactorsCount(), 0);
}

void TestSettings::failedReadOfTheServicesIsNotTheOthers()
{
    failOnce();
    const AuthSettingsClient client(nullptr);
    QCOMPARE(onSocket(daemon.calls()), firstCalls);
    QCOMPARE(log->takeComplaints(), QStringList{R"(warning getOption failed: "not now")"_s});
    QVERIFY(client.canSwitchToUser());
    QCOMPARE(client.factors()->rowCount(), 0);
}

void TestSettings::failedReadOfTheFlagIsNotTheOthers()
{
    failOnce();
    answerOnce("<['unlock', 'login']>");
    const AuthSettingsClient client(nullptr);
    QCOMPARE(onSocket(daemon.calls()).size(), 4);
    QCOMPARE(log->takeComplaints(), QStringList{R"(warning getOption failed: "not now")"_s});
    QVERIFY(!client.canSwitchToUser());
    QCOMPARE(client.factors()->rowCount(), 5);
}

void TestSettings::failedReadsAreNotRetried()
{
    daemon.misbehave("GetOption", "error");
    const auto client = newSettingsClient();
    QCOMPARE(log->takeComplaints(), QStringList());
    daemon.request(R"({"do":"behave"})");
    client->setUid(1000);
    daemon.changeOption("worker/available-services", R"(["login"])");
    daemon.request(R"({"do":"restart"})");
    awaitReconnection("authd_p2p_settings_client"_s);
    drain(client.get());
    QCOMPARE(daemon.calls().filter("GetOption"_s), QStringList());
    QVERIFY(!client->canSwitchToUser());
    QCOMPARE(client->factors()->rowCount(), 0);
}

void TestSettings::optionThatIsNotThereIsAFailedRead()
{
    daemon.removeOption("worker/can-switch-to-user");
    const AuthSettingsClient client(nullptr);
    QVERIFY(!client.canSwitchToUser());
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 1);
    QVERIFY2(complaints.first().startsWith("warning getOption failed: \""_s), qPrintable(complaints.first()));
}

void TestSettings::replyOfAnotherTypeIsAFailedRead_data()
{
    QTest::addColumn<QByteArray>("value");
    for (const char *value :
         {"()", "(true,)", "(['login'],)", "('login',)", "({'a': <true>},)", "((<true>,),)", "([<true>],)"})
        QTest::newRow(value) << QByteArray(value);
}

void TestSettings::replyOfAnotherTypeIsAFailedRead()
{
    QFETCH(QByteArray, value);
    daemon.answer("GetOption", value);
    const AuthSettingsClient client(nullptr);
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 2);
    for (const QString &line : complaints)
        QVERIFY2(line.startsWith(R"(warning getOption failed: "Unexpected reply signature: got \")"_s),
                 qPrintable(line));
    QVERIFY(!client.canSwitchToUser());
    QCOMPARE(onSocket(daemon.calls()), firstCalls);
}

void TestSettings::longTextsOfErrorsAreCutInTheLog()
{
    const QByteArray longest(4096, 'x');
    const auto client = newSettingsClient();
    grant(client.get(), "s3cr3t token");
    client->setUid(1000);
    log->take();
    daemon.misbehave("*", "error", "\"message\":\"" + longest + "\"");
    client->setLocked(0);
    daemon.misbehave("*", "error", "\"message\":\"" + longest + "x\"");
    client->setLocked(0);
    client->factorMethodWait({}, "code"_s);
    client->factorMethod({}, "code"_s, {});
    client->authenticate("login"_s, {});
    client->changeAuthData("code"_s, {});
    client->showLastLogin(1000);
    client->setUid(1001);
    client->setIsUserSettable(!client->isUserSettable());
    const AuthSettingsClient another(nullptr);
    QVERIFY(waitFor([&] { return log->lines().filter("warning "_s).size() >= 17; }));
    const QString cut = QString::fromLatin1(longest) + QChar(0x2026);
    QStringList lines = log->takeComplaints();
    QCOMPARE(lines.takeFirst(), R"(warning setLocked failed: "%1")"_s.arg(QString::fromLatin1(longest)));
    lines.sort();
    QStringList expected;
    for (const char *call : {"callAuthenticateFinished", "callChangeAuthDataFinished", "factorMethodWait", "getOption",
                             "getOption", "getUserOption", "getUserOption", "getUserOptions", "request", "request",
                             "request", "request", "setLocked", "setUserOption"})
        expected.append(R"(warning %1 failed: "%2")"_s.arg(QLatin1String(call), cut));
    expected.append(R"(warning failed: "%1")"_s.arg(cut));
    expected.append(R"(warning reply isError: "%1")"_s.arg(cut));
    expected.sort();
    QCOMPARE(lines, expected);
}

void TestSettings::clientComesUpThoughItsPeerIsLost()
{
    daemon.misbehave("GetOption", "drop");
    const AuthSettingsClient client(nullptr);
    QVERIFY(log->contains(R"(debug AuthSettingsClientPrivate Connected to "unix:path=/var/run/authd/authd.socket")"_s));
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.filter("warning getOption failed: \""_s).size(), 2);
    QCOMPARE(complaints.size(), 2);
    QVERIFY(!client.canSwitchToUser());
    QVERIFY(client.isUserSettable());
    QCOMPARE(client.factors()->rowCount(), 0);
}

void TestSettings::constructionWaitsForTheDaemon()
{
    daemon.misbehave("GetOption", "delay", R"("ms":50)");
    QElapsedTimer timer;
    timer.start();
    const AuthSettingsClient client(nullptr);
    // One after the other.
    QVERIFY(timer.elapsed() >= 4LL * 50);
    QVERIFY(client.canSwitchToUser());
    QCOMPARE(client.factors()->rowCount(), 5);
}

void TestSettings::clientIsOwnedByItsParent()
{
    auto parent = std::make_unique<QObject>();
    const QPointer<AuthSettingsClient> client = new AuthSettingsClient(parent.get());
    QCOMPARE(client->parent(), parent.get());
    const QPointer<FactorListModel> model = client->factors();
    parent.reset();
    QVERIFY(!client);
    QVERIFY(!model);
    QCOMPARE(log->takeComplaints(), QStringList());
}

void TestSettings::clientsAreIndependent()
{
    const auto first = newSettingsClient();
    const auto second = newSettingsClient();
    QVERIFY(first->factors() != second->factors());
    first->setUid(1000);
    second->setUid(1001);
    QCOMPARE(first->unlockFactors(), (QStringList{"code"_s, "smartcard"_s}));
    QCOMPARE(second->unlockFactors(), QStringList{"code"_s});
    QVERIFY(first->showNotifications());
    QVERIFY(!second->showNotifications());
    // For this user "sudis" is disabled.
    QCOMPARE(rowNames(*first).size(), 5);
    QCOMPARE(rowNames(*second).size(), 4);

    SignalRecorder firstSignals(first.get());
    SignalRecorder secondSignals(second.get());
    daemon.changeOption("worker/is-multi-factorable", "true", 1001);
    daemon.changeOption("worker/can-switch-to-user", "false");
    drain(first.get());
    drain(second.get());
    const auto flagSignals = [](const SignalRecorder &heard) {
        return heard.list().filter(QRegularExpression("Changed\\(\\)"_s));
    };
    QCOMPARE(flagSignals(firstSignals), QStringList{"canSwitchToUserChanged()"_s});
    QCOMPARE(flagSignals(secondSignals), (QStringList{"isMultiFactorableChanged()"_s, "canSwitchToUserChanged()"_s}));
    QVERIFY(!first->isMultiFactorable());
    QVERIFY(second->isMultiFactorable());

    first->dropAuthentication();
    QCOMPARE(flagSignals(secondSignals).size(), 2);
}

void TestSettings::eachClientReadsForItself()
{
    const auto first = newSettingsClient();
    daemon.arrangeOption("worker/available-service-factors/login", R"(["sudis","code"])");
    daemon.arrangeOption("worker/can-switch-to-user", "false");
    AuthSettingsClient second(nullptr);
    QCOMPARE(onSocket(daemon.calls()),
             firstCalls
                 + (QStringList{getOption("worker/available-service-factors/login"),
                                getOption("worker/available-service-factors/unlock")}));
    QCOMPARE(rowNames(second), (QStringList{"sudis"_s, "code"_s}));
    QVERIFY(!second.canSwitchToUser());
    QCOMPARE(rowNames(*first).size(), 5);
    QVERIFY(first->canSwitchToUser());

    first->setUid(1000);
    QVERIFY(!second.hasEnabledFactor("code"_s));
    daemon.clearCalls();
    second.setUid(1000);
    QCOMPARE(onSocket(daemon.calls()).size(), 2);
    QVERIFY(second.hasEnabledFactor("code"_s));
    // The wishes are each one's own.
    daemon.answer("SetUserOption", "(false,)");
    second.triggerFactor(0);
    QVERIFY(second.hasChosenFactor("sudis"_s));
    QVERIFY(!first->hasChosenFactor("sudis"_s));
}

void TestSettings::clientsShareASocketAndHearTheSameTokens()
{
    const auto first = newSettingsClient();
    const auto second = newSettingsClient();
    QCOMPARE(daemon.peerCount(), 1);
    grant(first.get(), token);
    drain(second.get());
    QCOMPARE(first->token(), token);
    QCOMPARE(second->token(), token);
    first->dropAuthentication();
    QCOMPARE(first->token(), QByteArray());
    QCOMPARE(second->token(), token);
}

void TestSettings::clientsHearEachSignalOnceEach()
{
    const auto first = newClientOf(1000);
    const auto second = newClientOf(1000);
    QCOMPARE(daemon.peerCount(), 1);
    const SignalRecorder firstSignals(first.get());
    const SignalRecorder secondSignals(second.get());
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <true>)");
    announce(1000, "worker/service-factors/unlock", "['code']");
    announce(1000, "devlock/show-notifications", "false");
    daemon.emitSignal("AuthDataChanged", "()");
    daemon.emitSignal("ChangeAuthDataFailed", "()");
    daemon.emitSignal("UnlockIfNeededFinished", "(true,)");
    daemon.emitSignal("Factor", "('code', @a{sv} {})");
    daemon.emitSignal("Authenticated", '(' + bytes(token) + ",)");
    drain(first.get());
    drain(second.get());
    const QStringList expected{"canSwitchToUserChanged()"_s,
                               "unlockFactorsChanged()"_s,
                               "userWarningChanged()"_s,
                               enabledChanged(1),
                               "showNotificationsChanged()"_s,
                               "authDataChanged()"_s,
                               "changeAuthDataFailed()"_s,
                               "unlockIfNeededFinished(true)"_s,
                               "factorSignal(code, %1)"_s.arg(written(QVariantMap())),
                               "authenticatedChanged(%1)"_s.arg(QLatin1String(token.toHex()))};
    QCOMPARE(firstSignals.list(), expected);
    QCOMPARE(secondSignals.list(), expected);
}

void TestSettings::clientGoesOnWhenAnotherOfItsConnectionIsDeleted()
{
    auto first = newSettingsClient();
    const auto second = newSettingsClient();
    first.reset();
    QCOMPARE(daemon.peerCount(), 1);
    SignalRecorder heard(second.get());
    second->setUid(1001);
    QCOMPARE(second->unlockFactors(), QStringList{"code"_s});
    heard.take();
    daemon.changeOption("worker/can-switch-to-user", "false");
    daemon.changeOption("devlock/show-notifications", "true", 1001);
    drain(second.get());
    QCOMPARE(heard.list().filter("Changed()"_s),
             (QStringList{"canSwitchToUserChanged()"_s, "showNotificationsChanged()"_s}));
    // The connection's name is free.
    const auto third = newSettingsClient();
    QCOMPARE(daemon.peerCount(), 2);
}

void TestSettings::clientWritesWhenAnotherOfItsConnectionIsDeleted_data()
{
    QTest::addColumn<int>("deleted");
    QTest::newRow("who opened it") << 0;
    QTest::newRow("who found it open") << 1;
}

void TestSettings::clientWritesWhenAnotherOfItsConnectionIsDeleted()
{
    QFETCH(int, deleted);
    std::unique_ptr<AuthSettingsClient> clients[] = {newClientOf(1000), newClientOf(1000)};
    clients[deleted].reset();
    AuthSettingsClient *const left = clients[1 - deleted].get();
    // It has a socket of its own.
    const auto third = newClientOf(1000);
    QCOMPARE(daemon.peerCount(), 2);
    authenticate(left);
    drain(third.get());
    QCOMPARE(third->token(), QByteArray());

    SignalRecorder heard(left);
    left->setShowNotifications(false);
    left->triggerUnlockFactor("code"_s);
    QCOMPARE(daemon.option("devlock/show-notifications", 1000), "false"_s);
    QCOMPARE(daemon.option("worker/service-factors/unlock", 1000), "['smartcard']"_s);
    for (AuthSettingsClient *client : {left, third.get()}) {
        drain(client);
        QVERIFY(!client->showNotifications());
        QCOMPARE(client->unlockFactors(), QStringList{"smartcard"_s});
    }
    QCOMPARE(heard.list().count("showNotificationsChanged()"_s), 1);
    QCOMPARE(heard.list().count("unlockFactorsChanged()"_s), 1);
    third->setShowNotifications(true);
    QCOMPARE(log->takeComplaints().size(), 1);
}

void TestSettings::clientAndAuthClientHaveTheirOwnConnections()
{
    const auto client = newClient();
    const auto settings = newSettingsClient();
    QCOMPARE(daemon.peerCount(), 2);
    const QJsonArray peers = daemon.request(R"({"do":"state"})").value("peers"_s).toArray();
    const auto grantOn = [&](int peer) {
        daemon.emitSignal("Authenticated", '(' + bytes(token) + ",)",
                          "\"peer\":" + QByteArray::number(peers.at(peer).toInt()));
        drain(client.get());
        drain(settings.get());
    };
    grantOn(0);
    QVERIFY(client->authenticated());
    QVERIFY(!settings->authenticated());
    client->dropAuthentication();
    grantOn(1);
    QVERIFY(!client->authenticated());
    QVERIFY(settings->authenticated());
}

void TestSettings::tokenIsTheBases()
{
    const auto client = newSettingsClient();
    QCOMPARE(client->property("token"), QVariant(QByteArray()));
    grant(client.get(), token);
    QCOMPARE(client->token(), token);
    QCOMPARE(client->property("token"), QVariant(token));
    QVERIFY(!client->setProperty("token", QByteArray("s3cr3t of mine")));
    QCOMPARE(client->token(), token);
    daemon.emitSignal("Authenticated", '(' + bytes("s3cr3t token too") + ",)");
    drain(client.get());
    QCOMPARE(client->token(), QByteArray("s3cr3t token too"));
    client->dropAuthentication();
    QCOMPARE(client->token(), QByteArray());
}

void TestSettings::tokenIsAnnouncedByTheBaseAlone()
{
    const auto client = newSettingsClient();
    SignalRecorder heard(client.get());
    grant(client.get(), token);
    client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s);
    drain(client.get());
    client->dropAuthentication();
    daemon.request(R"({"do":"stop"})");
    QVERIFY(waitFor([&] { return heard.list().count("discredit()"_s) == 2; }));
    daemon.request(R"({"do":"start"})");
    awaitReconnection("authd_p2p_settings_client"_s);
    drain(client.get());
    QCOMPARE(heard.list(),
             QStringList{"authenticatedChanged(%1)"_s.arg(QLatin1String(token.toHex()))} + dropSignals + dropSignals);
}

void TestSettings::announcedFlagIsEmittedAlways_data()
{
    QTest::addColumn<bool>("before");
    QTest::addColumn<bool>("announced");
    QTest::newRow("true to false") << true << false;
    QTest::newRow("false to true") << false << true;
    QTest::newRow("true again") << true << true;
    QTest::newRow("false again") << false << false;
}

void TestSettings::announcedFlagIsEmittedAlways()
{
    QFETCH(bool, before);
    QFETCH(bool, announced);
    daemon.arrangeOption("worker/can-switch-to-user", json(before));
    const auto client = newSettingsClient();
    QCOMPARE(client->canSwitchToUser(), before);
    SignalRecorder heard(client.get());
    daemon.changeOption("worker/can-switch-to-user", json(announced));
    drain(client.get());
    QCOMPARE(client->canSwitchToUser(), announced);
    QCOMPARE(heard.list(), QStringList{"canSwitchToUserChanged()"_s});
    QCOMPARE(daemon.calls(), QStringList());
}

void TestSettings::announcedFlagIsConverted_data()
{
    boolRows();
}

void TestSettings::announcedFlagIsConverted()
{
    QFETCH(QByteArray, value);
    QFETCH(bool, expected);
    daemon.arrangeOption("worker/can-switch-to-user", json(!expected));
    const auto client = newSettingsClient();
    SignalRecorder heard(client.get());
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', " + value + ')');
    drain(client.get());
    QCOMPARE(client->canSwitchToUser(), expected);
    QCOMPARE(heard.list(), QStringList{"canSwitchToUserChanged()"_s});
}

void TestSettings::announcedFlagIsReadWhenItIsEmitted()
{
    const auto client = newSettingsClient();
    QVector<bool> seen;
    connect(client.get(), &AuthSettingsClient::canSwitchToUserChanged, this,
            [&] { seen.append(client->canSwitchToUser()); });
    daemon.changeOption("worker/can-switch-to-user", "false");
    daemon.changeOption("worker/can-switch-to-user", "true");
    drain(client.get());
    QCOMPARE(seen, (QVector<bool>{false, true}));
}

void TestSettings::otherOptionsAreIgnored_data()
{
    QTest::addColumn<QByteArray>("key");
    for (const char *key : {"worker/available-services", "worker/available-service-factors/login", "can-switch-to-user",
                            "worker/can-switch-to-user/", "/worker/can-switch-to-user", "worker//can-switch-to-user",
                            "Worker/can-switch-to-user", "worker/can-switch-to-user2", "devlock/can-switch-to-user",
                            "worker/is-user-settable", "worker/is-multi-factorable", "devlock/show-notifications", ""})
        QTest::newRow(key) << QByteArray(key);
}

// Also those that would mean something for a user.
void TestSettings::otherOptionsAreIgnored()
{
    QFETCH(QByteArray, key);
    const auto client = newClientOf(1000);
    const QStringList rows = rowNames(*client);
    SignalRecorder heard(client.get());
    for (const char *value : {"<false>", "<true>", "<['login']>", "<@as []>"})
        daemon.emitSignal("OptionChanged", "('" + key + "', " + value + ')');
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());
    QVERIFY(client->canSwitchToUser());
    QVERIFY(client->showNotifications());
    QVERIFY(client->isUserSettable());
    QVERIFY(!client->isMultiFactorable());
    QCOMPARE(rowNames(*client), rows);
}

void TestSettings::otherSignalsAreNotTaken_data()
{
    QTest::addColumn<QByteArray>("args");
    QTest::addColumn<QByteArray>("place");
    const auto row = [](const char *name, const char *args, const char *place) {
        QTest::newRow(name) << QByteArray(args) << QByteArray(place);
    };
    const char *const good = "('worker/can-switch-to-user', <false>)";
    row("no variant", "('worker/can-switch-to-user', false)", "");
    row("no key", "(<false>,)", "");
    row("the other order", "(<false>, 'worker/can-switch-to-user')", "");
    row("nothing", "()", "");
    row("path of the main object", good, R"("path":"/vantora/AuthService","bus":"peer")");
    row("main interface", good, R"("interface":"vantora.AuthService","bus":"peer")");
    row("on the system bus", good, R"("bus":"system")");
}

void TestSettings::otherSignalsAreNotTaken()
{
    QFETCH(QByteArray, args);
    QFETCH(QByteArray, place);
    const auto client = newSettingsClient();
    SignalRecorder heard(client.get());
    daemon.emitSignal("OptionChanged", args, place);
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->canSwitchToUser());
}

void TestSettings::announcementCorrectsAFailedRead()
{
    daemon.misbehave("GetOption", "error");
    const auto client = newSettingsClient();
    QVERIFY(!client->canSwitchToUser());
    SignalRecorder heard(client.get());
    daemon.changeOption("worker/can-switch-to-user", "true");
    drain(client.get());
    QVERIFY(client->canSwitchToUser());
    QCOMPARE(heard.list(), QStringList{"canSwitchToUserChanged()"_s});
}

void TestSettings::announcementsArriveInTheirOrder()
{
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    daemon.emitSignal("UserOptionChanged", "(uint32 1000, 'devlock/show-notifications', <false>)");
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <false>)");
    daemon.emitSignal("AuthDataChanged", "()");
    daemon.emitSignal("UserOptionChanged", "(uint32 1000, 'worker/is-multi-factorable', <true>)");
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <false>)");
    drain(client.get());
    QCOMPARE(heard.list(),
             (QStringList{"showNotificationsChanged()"_s, "canSwitchToUserChanged()"_s, "authDataChanged()"_s,
                          "isMultiFactorableChanged()"_s, "canSwitchToUserChanged()"_s}));
}

void TestSettings::setterWrites_data()
{
    QTest::addColumn<Write>("write");
    QTest::addColumn<int>("flagIndex");
    QTest::addColumn<bool>("value");
    const Write writes[] = {
        {"sends the option, which is changed at once where it is accepted", token},
        {"sends an empty token, too", {}},
        {"does nothing with the value that is there", token, true},
        {"changes nothing when it is refused", {}, false, "(false,)"},
        {"warns and changes nothing when it fails", {}, false, nullptr, R"("message":"must not")", "must not"},
        {"without a good token is refused by the daemon", token, false, nullptr, nullptr, "[^\"]+"},
    };
    for (const Write &write : writes) {
        for (int i = 0; i < 3; ++i) {
            for (const bool value : {true, false})
                QTest::addRow("%s: %s becomes %s", write.name, flags[i].name, value ? "true" : "false")
                    << write << i << value;
        }
    }
}

// By the setter, and by the property.
void TestSettings::setterWrites()
{
    QFETCH(Write, write);
    QFETCH(int, flagIndex);
    QFETCH(bool, value);
    const Flag &flag = flags[flagIndex];
    for (const bool byProperty : {false, true}) {
        const auto client = newClientWith(flag, value == write.isThere, 1001);
        QCOMPARE(client->property(flag.name), QVariant(value == write.isThere));
        if (!write.token.isEmpty())
            grant(client.get(), write.token);
        if (write.answer)
            daemon.answer("SetUserOption", write.answer);
        else if (write.error)
            daemon.misbehave("SetUserOption", "error", write.error);
        SignalRecorder heard(client.get());
        if (byProperty)
            QVERIFY(client->setProperty(flag.name, value));
        else
            flag.set(client, value);

        const bool isSent = !write.isThere;
        const bool isAccepted = isSent && !write.complaint && QByteArray(write.answer) == accepted;
        const bool isChanged = isAccepted && &flag != &isMultiFactorableFlag;
        QCOMPARE(flag.of(client), write.isThere || isChanged ? value : !value);
        QCOMPARE(client->property(flag.name), QVariant(flag.of(client)));
        QCOMPARE(heard.list(), isChanged ? changeSignals(flag) : QStringList());
        drain(client.get());
        QCOMPARE(heard.list(), isChanged ? changeSignals(flag) : QStringList());
        QCOMPARE(daemon.calls(),
                 isSent ? QStringList{setUserOption(1001, write.token, flag.key, value)} : QStringList());
        QCOMPARE(daemon.option(flag.key, 1001), QLatin1String(json(value == write.isThere)));
        const QStringList complaints = log->takeComplaints();
        QCOMPARE(complaints.size(), write.complaint ? 1 : 0);
        if (write.complaint) {
            const QString line = R"(^warning setUserOption failed: "%1"$)"_s.arg(QLatin1String(write.complaint));
            QVERIFY2(QRegularExpression(line).match(complaints.first()).hasMatch(), qPrintable(complaints.first()));
        }

        // The daemon's announcement of what is shown is not emitted again.
        if (isAccepted) {
            announce(client.get(), flag.key, json(value));
            announce(client.get(), flag.key, json(value));
            QCOMPARE(heard.list(), changeSignals(flag));
            QCOMPARE(flag.of(client), value);
        }
        daemon.request(R"({"do":"behave"})");
    }
}

void TestSettings::setterWithoutAUserDoesNothing_data()
{
    flagRows();
}

void TestSettings::setterWithoutAUserDoesNothing()
{
    QFETCH(int, flagIndex);
    QFETCH(bool, value);
    const Flag &flag = flags[flagIndex];
    const auto client = newSettingsClient();
    grant(client.get(), token);
    daemon.answer("SetUserOption", "(true,)");
    SignalRecorder heard(client.get());
    const bool before = flag.of(client);
    flag.set(client, value);
    drain(client.get());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(flag.of(client), before);

    // Nor when there was one.
    daemon.arrangeOption(flag.key, json(!value), 1000);
    client->setUid(1000);
    client->setUid(0);
    heard.take();
    daemon.clearCalls();
    flag.set(client, value);
    drain(client.get());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(heard.list(), QStringList());
}

void TestSettings::setterSendsForTheHighestUserIdToo_data()
{
    flagRows();
}

// Unlike reading.
void TestSettings::setterSendsForTheHighestUserIdToo()
{
    QFETCH(int, flagIndex);
    QFETCH(bool, value);
    const Flag &flag = flags[flagIndex];
    const auto client = newClientWith(flag, !value);
    if (&flag == &showNotificationsFlag && value == false) {
        // What cannot be read for this user is false.
        client->setUid(highestUid);
        announce(client.get(), "devlock/show-notifications", "true");
    } else {
        client->setUid(highestUid);
    }
    QCOMPARE(flag.of(client), !value);
    daemon.answer("SetUserOption", "(true,)");
    flag.set(client, value);
    QCOMPARE(daemon.calls(), QStringList{setUserOption(highestUid, QByteArray(), flag.key, value)});
}

void TestSettings::acceptedWriteResetsTheModelThenTellsOfIsUserSettable()
{
    const auto client = newClientOf(1000);
    const ModelWatch watch(client->factors());
    daemon.answer("SetUserOption", "(true,)");
    SignalRecorder heard(client.get());
    QStringList seen;
    connect(client.get(), &AuthSettingsClient::isUserSettableChanged, this,
            [&] { seen = rowNames(*client) << (client->isUserSettable() ? "settable"_s : "not settable"_s); });
    client->setIsUserSettable(false);
    QVERIFY(!client->isUserSettable());
    QCOMPARE(heard.take(), resetSignals + QStringList{"isUserSettableChanged()"_s});
    // What is chosen: one login factor, and an unlock factor, which gets its row now.
    QCOMPARE(seen, (QStringList{"code"_s, "smartcard"_s, "not settable"_s}));
    client->setIsUserSettable(true);
    QCOMPARE(heard.take(), resetSignals + QStringList{"isUserSettableChanged()"_s});
    QCOMPARE(seen, (QStringList{"code"_s, "smartcard"_s, "sudis"_s, "broken"_s, "slow"_s, "settable"_s}));
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
}

void TestSettings::acceptedWriteLeavesIsMultiFactorableToTheDaemon()
{
    const auto client = newClientOf(1000);
    daemon.answer("SetUserOption", "(true,)");
    SignalRecorder heard(client.get());
    client->setIsMultiFactorable(true);
    drain(client.get());
    QVERIFY(!client->isMultiFactorable());
    QCOMPARE(heard.list(), QStringList());
    // So the wish is sent again.
    client->setIsMultiFactorable(true);
    const QString call = setUserOption(1000, QByteArray(), "worker/is-multi-factorable", true);
    QCOMPARE(daemon.calls(), (QStringList{call, call}));
    QVERIFY(!client->isMultiFactorable());

    daemon.changeOption("worker/is-multi-factorable", "true", 1000);
    drain(client.get());
    QVERIFY(client->isMultiFactorable());
    QCOMPARE(heard.list().filter("Changed()"_s), QStringList{"isMultiFactorableChanged()"_s});
}

void TestSettings::replyOfAnotherTypeIsConverted_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<bool>("taken");
    const auto row = [](const char *reply, bool taken) { QTest::newRow(reply) << QByteArray(reply) << taken; };
    row("(true,)", true);
    row("(false,)", false);
    row("(<true>,)", false);
    row("(true, false)", true);
    row("(false, true)", false);
    row("(1,)", true);
    row("(0,)", false);
    row("(uint32 7,)", true);
    row("(int64 7,)", true);
    row("(byte 0x00,)", false);
    row("(0.5,)", true);
    row("('true',)", true);
    row("('done',)", true);
    row("('false',)", false);
    row("('0',)", false);
    row("('',)", false);
    row("()", false);
    row("(['true'],)", false);
    row("({'a': <true>},)", false);
    row("((true,),)", false);
}

void TestSettings::replyOfAnotherTypeIsConverted()
{
    QFETCH(QByteArray, reply);
    QFETCH(bool, taken);
    daemon.answer("SetUserOption", reply);
    const auto client = newClientOf(1000);
    client->setShowNotifications(false);
    client->setIsUserSettable(false);
    client->setIsMultiFactorable(true);
    QCOMPARE(client->showNotifications(), !taken);
    QCOMPARE(client->isUserSettable(), !taken);
    QVERIFY(!client->isMultiFactorable());
    QCOMPARE(daemon.calls().size(), 3);
    QCOMPARE(log->take(), QStringList());
}

void TestSettings::setterWaitsForTheReply()
{
    const auto client = newClientOf(1000);
    authenticate(client.get());
    daemon.misbehave("SetUserOption", "delay", R"("ms":200)");
    QElapsedTimer timer;
    timer.start();
    client->setShowNotifications(false);
    QVERIFY(timer.elapsed() >= 200);
    QVERIFY(!client->showNotifications());
}

void TestSettings::signalsThatArriveMeanwhileComeAfterwards()
{
    const auto client = newSettingsClient();
    SignalRecorder heard(client.get());
    authenticate(client.get());
    client->setUid(1000);
    heard.take();

    // The announcement is there before the reply.
    daemon.misbehave("SetUserOption", "signal-first");
    client->setIsMultiFactorable(true);
    QVERIFY(!client->isMultiFactorable());
    QCOMPARE(heard.list(), QStringList());
    client->setIsUserSettable(false);
    client->setShowNotifications(false);
    const QStringList atOnce = resetSignals + QStringList{"isUserSettableChanged()"_s, "showNotificationsChanged()"_s};
    QCOMPARE(heard.list(), atOnce);
    drain(client.get());
    QVERIFY(client->isMultiFactorable());
    QStringList rest = heard.list().mid(atOnce.size());
    // The daemon tells of these changes in another way too.
    const QStringList notices = rest.filter(QRegularExpression("^factorSignal"_s));
    for (const QString &notice : notices)
        rest.removeOne(notice);
    QCOMPARE(rest, QStringList{"isMultiFactorableChanged()"_s});
}

void TestSettings::writeOfAnAuthenticatedUserReachesTheDaemon_data()
{
    flagRows();
}

void TestSettings::writeOfAnAuthenticatedUserReachesTheDaemon()
{
    QFETCH(int, flagIndex);
    QFETCH(bool, value);
    const Flag &flag = flags[flagIndex];
    const auto client = newClientWith(flag, !value);
    authenticate(client.get());
    SignalRecorder heard(client.get());
    flag.set(client, value);
    QCOMPARE(daemon.option(flag.key, 1000), QLatin1String(json(value)));
    QVERIFY(waitFor([&] { return flag.of(client) == value; }));
    drain(client.get());
    const QString changed = QLatin1String(flag.name) + "Changed()"_s;
    QCOMPARE(heard.list().count(changed), 1);
}

void TestSettings::announcedUserFlagIsEmittedOnceItChanges_data()
{
    flagRows();
}

void TestSettings::announcedUserFlagIsEmittedOnceItChanges()
{
    QFETCH(int, flagIndex);
    QFETCH(bool, value);
    const Flag &flag = flags[flagIndex];
    const auto client = newClientWith(flag, !value);
    const ModelWatch watch(client->factors());
    SignalRecorder heard(client.get());
    announce(client.get(), flag.key, json(!value));
    QCOMPARE(heard.list(), QStringList());
    announce(client.get(), flag.key, json(value));
    QCOMPARE(flag.of(client), value);
    announce(client.get(), flag.key, json(value));
    QCOMPARE(heard.list(), changeSignals(flag));
    QCOMPARE(daemon.calls(), QStringList());
}

void TestSettings::handlersSeeTheNewValues()
{
    const auto client = newClientOf(1000);
    QStringList seen;
    connect(client.get(), &AuthSettingsClient::showNotificationsChanged, this,
            [&] { seen.append(client->showNotifications() ? "shown"_s : "not shown"_s); });
    connect(client.get(), &AuthSettingsClient::isMultiFactorableChanged, this,
            [&] { seen.append(client->isMultiFactorable() ? "multi"_s : "single"_s); });
    daemon.changeOption("devlock/show-notifications", "false", 1000);
    daemon.changeOption("worker/is-multi-factorable", "true", 1000);
    drain(client.get());
    QCOMPARE(seen, (QStringList{"not shown"_s, "multi"_s}));
}

void TestSettings::queuedAnnouncementsEndWithTheClient()
{
    auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <false>)");
    daemon.emitSignal("UserOptionChanged", "(uint32 1000, 'worker/is-user-settable', <false>)");
    // After its reply the announcements wait to be delivered.
    client->lastLoginDate(1000);
    client.reset();
    drainSystemBus();
    QCOMPARE(heard.list(), QStringList());
}

void TestSettings::getMakesTheObjectOnceAndForAll()
{
    QCOMPARE(daemon.peerCount(), 0);
    AuthSettingsClient *const client = AuthSettingsClient::get();
    QVERIFY(client);
    QCOMPARE(client->parent(), nullptr);
    QCOMPARE(daemon.peerCount(), 1);
    QCOMPARE(onSocket(daemon.calls()).size(), 4);
    log->take();
    daemon.clearCalls();

    QCOMPARE(AuthSettingsClient::get(), client);
    client->setUid(1000);
    QCOMPARE(AuthSettingsClient::get(), client);
    QCOMPARE(AuthSettingsClient::get()->uid(), 1000U);
    QCOMPARE(daemon.peerCount(), 1);
    QCOMPARE(daemon.calls().filter("GetOption "_s), QStringList());
    QVERIFY(!log->contains("AuthdConnection"_s));
}

void TestSettings::getIsBesideObjectsMadeDirectly()
{
    AuthSettingsClient *const client = AuthSettingsClient::get();
    const auto other = newSettingsClient();
    QVERIFY(other.get() != client);
    QVERIFY(other->factors() != client->factors());
    QCOMPARE(AuthSettingsClient::get(), client);
    client->setUid(1000);
    QCOMPARE(other->uid(), 0U);
    other->setUid(1001);
    QCOMPARE(client->uid(), 1000U);
    QCOMPARE(client->unlockFactors(), (QStringList{"code"_s, "smartcard"_s}));
    QCOMPARE(other->unlockFactors(), QStringList{"code"_s});
}

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
