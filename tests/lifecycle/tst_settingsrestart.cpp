#include "bus-round-trip.h"
#include "settings-test-case.h"

#include <thread>

/** The daemon dies, restarts and hands its name over while a settings client shows a user. */
class TestSettingsRestart : public SettingsTestCase
{
    Q_OBJECT

private:
    void change(const QByteArrayList &requests);
    void awaitReturn();
    void awaitReturns(int count);
    void checkComplaintsOfTheStateCall();
    QByteArray onInstance();

private Q_SLOTS:
    void mirroredValuesAreKept_data();
    void mirroredValuesAreKept();
    void nothingIsReadAgain_data();
    void nothingIsReadAgain();
    void tokenIsDroppedWithTheDaemon();
    void tokenIsKeptThroughAHandover();
    void announcementsOfTheNewDaemonArriveOnce_data();
    void announcementsOfTheNewDaemonArriveOnce();
    void signalsOfTheBaseArriveOnce_data();
    void signalsOfTheBaseArriveOnce();
    void announcementsAreHeardWhileTheChallengeIsFetchedAnew();
    void nothingIsHeardOnceTheDaemonIsGone();
    void writesGoToTheNewDaemon_data();
    void writesGoToTheNewDaemon();
    void callsFailWhileTheDaemonIsAway();
    void userIsSelectedWhileTheDaemonIsAway();
    void handlerOfDiscreditReadsOnTheDeadConnection();

    void oldInstanceIsNotHeardAfterAHandover_data();
    void oldInstanceIsNotHeardAfterAHandover();
    void queuedSignalsOfTheOldInstanceAreNotHeard();
    void queuedSignalsOfTheOldInstanceAreHeardBeforeTheNews();

    void twoClientsReturnEach_data();
    void twoClientsReturnEach();
    void twoClientsAreNotSentAnothersSignalsByTheOldInstance();
    void oneOfTwoClientsIsDeletedBeforeTheReturn();

    void daemonRestartsDuringAWrite_data();
    void daemonRestartsDuringAWrite();
    void daemonRestartsDuringTheUserSwitch_data();
    void daemonRestartsDuringTheUserSwitch();
    void daemonRestartsDuringTheConstruction_data();
    void daemonRestartsDuringTheConstruction();
    void daemonHandsOverDuringTheConstruction();
    void manyRestarts();
    void wholeSessionAfterARestart();
};

namespace {
const QByteArray token = "s3cr3t token";
const QString connectionName = QStringLiteral("authd_p2p_settings_client");

void changeRows()
{
    QTest::addColumn<QByteArrayList>("requests");
    const auto row = [](const char *name, const QByteArrayList &requests) { QTest::newRow(name) << requests; };
    row("restart", {R"({"do":"restart"})"});
    row("stop and start", {R"({"do":"stop"})", R"({"do":"start"})"});
    row("handover", {R"({"do":"handover"})"});
    row("handover, the old one stays", {R"({"do":"handover","keep-old":true})"});
    row("the name goes and comes", {R"({"do":"release-name"})", R"({"do":"own-name"})"});
}

// All that a client shows.
QVariantMap shown(const AuthSettingsClient &client)
{
    QVariantMap result;
    for (const char *name : {"uid", "showNotifications", "isMultiFactorable", "isUserSettable", "canSwitchToUser",
                             "userWarning", "unlockFactors"})
        result.insert(QLatin1String(name), client.property(name));
    const FactorListModel *model = client.factors();
    QVariantList rows;
    for (int row = 0; row < model->rowCount(); ++row) {
        for (int role = Qt::UserRole; role < Qt::UserRole + 5; ++role)
            rows.append(model->data(model->index(row), role));
    }
    result.insert(QStringLiteral("rows"), rows);
    return result;
}

// What the daemon tells everybody, and what it makes a client of user 1000 emit.
struct Announcement
{
    const char *signal;
    const char *args;
    QStringList emitted;
};

const QVector<Announcement> announcements{
    {"OptionChanged", "('worker/can-switch-to-user', <true>)", {QStringLiteral("canSwitchToUserChanged()")}},
    {"UserOptionChanged",
     "(uint32 1000, 'devlock/show-notifications', <false>)",
     {QStringLiteral("showNotificationsChanged()")}},
    {"UserOptionChanged",
     "(uint32 1000, 'worker/service-factors/unlock', <['code', 'smartcard']>)",
     {QStringLiteral("unlockFactorsChanged()")}},
    {"AuthDataChanged", "()", {QStringLiteral("authDataChanged()")}},
    {"ChangeAuthDataFailed", "()", {QStringLiteral("changeAuthDataFailed()")}},
    {"UnlockIfNeededFinished", "(true,)", {QStringLiteral("unlockIfNeededFinished(true)")}},
    {"Factor", "('code', @a{sv} {})", {QStringLiteral("factorSignal(code, %1)").arg(written(QVariantMap()))}},
    {"AuthenticationFailed", "()", dropSignals},
};

QStringList emittedByAll()
{
    QStringList result;
    for (const Announcement &announcement : announcements)
        result += announcement.emitted;
    return result;
}
} // namespace

// Until the client has returned.
void TestSettingsRestart::change(const QByteArrayList &requests)
{
    for (const QByteArray &request : requests)
        daemon.request(request);
    awaitReturn();
}

void TestSettingsRestart::awaitReturn()
{
    awaitReconnection(connectionName);
}

// So many since the log was last taken.
void TestSettingsRestart::awaitReturns(int count)
{
    const QString line = R"(debug authd reset "%1" captured "%2")"_s.arg(daemon.owner(), connectionName);
    if (!waitFor([&] { return log->count(line) == count; }))
        qFatal("Not all clients notice the new daemon once");
}

// The device-lock client's call fails with its daemon, or is answered.
void TestSettingsRestart::checkComplaintsOfTheStateCall()
{
    const QStringList complaints = log->takeComplaints();
    QVERIFY(complaints.size() <= 1);
    for (const QString &line : complaints)
        QVERIFY2(line.startsWith("warning failed: \""_s), qPrintable(line));
}

QByteArray TestSettingsRestart::onInstance()
{
    return "\"instance\":" + QByteArray::number(daemon.request(R"({"do":"state"})").value("instance"_s).toInt());
}

void TestSettingsRestart::mirroredValuesAreKept_data()
{
    changeRows();
}

void TestSettingsRestart::mirroredValuesAreKept()
{
    QFETCH(QByteArrayList, requests);
    daemon.arrangeOption("worker/is-multi-factorable", "true", 1000);
    daemon.arrangeOption("worker/is-user-settable", "false", 1000);
    daemon.arrangeOption("worker/can-switch-to-user", "false");
    daemon.arrangeOption("worker/disabled-factors", R"(["sudis"])", 1000);
    const auto client = newClientOf(1000);
    const ModelWatch watch(client->factors());
    const QVariantMap before = shown(*client);
    SignalRecorder heard(client.get());

    // Changes that nobody is told of.
    daemon.arrangeOption("worker/is-multi-factorable", "false", 1000);
    daemon.arrangeOption("worker/can-switch-to-user", "true");
    daemon.arrangeOption("worker/service-factors/login", "[]", 1000);
    change(requests);
    drain(client.get());
    QCOMPARE(shown(*client), before);
    const bool gone = !requests.first().contains("handover");
    QCOMPARE(heard.list(), gone ? dropSignals : QStringList());
}

void TestSettingsRestart::nothingIsReadAgain_data()
{
    changeRows();
}

void TestSettingsRestart::nothingIsReadAgain()
{
    QFETCH(QByteArrayList, requests);
    const auto client = newClientOf(1000);
    change(requests);
    drain(client.get());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(log->lines().filter("AuthSettingsClientPrivate"_s), QStringList());
    // Until another user is selected.
    client->setUid(1001);
    QCOMPARE(daemon.waitCalls("GetUserOptions").size(), 1);
    QCOMPARE(client->unlockFactors(), QStringList{"code"_s});
}

void TestSettingsRestart::tokenIsDroppedWithTheDaemon()
{
    const auto client = newClientOf(1000);
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"stop"})");
    QVERIFY(waitFor([&] { return !client->authenticated(); }));
    QCOMPARE(client->token(), QByteArray());
    QCOMPARE(client->uid(), 1000U);
    daemon.request(R"({"do":"start"})");
    awaitReturn();
    drain(client.get());
    QCOMPARE(heard.list(), dropSignals);
    QCOMPARE(client->token(), QByteArray());
}

void TestSettingsRestart::tokenIsKeptThroughAHandover()
{
    const auto client = newClientOf(1000);
    grant(client.get(), token);
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"handover"})");
    awaitReturn();
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(client->token(), token);
    daemon.answer("SetUserOption", "(true,)");
    client->setShowNotifications(false);
    QCOMPARE(daemon.calls(),
             QStringList{settingsCall("SetUserOption", "uaysv",
                                      "(uint32 1000, " + bytes(token) + ", 'devlock/show-notifications', <false>)")});
}

void TestSettingsRestart::announcementsOfTheNewDaemonArriveOnce_data()
{
    changeRows();
}

// After the first and after a later return.
void TestSettingsRestart::announcementsOfTheNewDaemonArriveOnce()
{
    QFETCH(QByteArrayList, requests);
    const auto client = newClientOf(1000);
    for (int i = 0; i < 3; ++i) {
        // The owner that comes back may be the one that went.
        QCOMPARE(log->takeComplaints(), QStringList());
        log->take();
        change(requests);
        drain(client.get());
        SignalRecorder heard(client.get());
        daemon.changeOption("worker/can-switch-to-user", i % 2 ? "true" : "false");
        daemon.changeOption("devlock/show-notifications", i % 2 ? "true" : "false", 1000);
        daemon.changeOption("worker/service-factors/unlock", i % 2 ? R"(["code"])" : R"(["sudis"])", 1000);
        drain(client.get());
        QCOMPARE(heard.list().filter("Changed()"_s),
                 (QStringList{"canSwitchToUserChanged()"_s, "showNotificationsChanged()"_s, "unlockFactorsChanged()"_s})
                     + (i ? QStringList() : QStringList{"userWarningChanged()"_s}));
        QCOMPARE(client->canSwitchToUser(), i % 2 == 1);
        QCOMPARE(client->showNotifications(), i % 2 == 1);
        QCOMPARE(client->unlockFactors(), QStringList{i % 2 ? "code"_s : "sudis"_s});
    }
}

void TestSettingsRestart::signalsOfTheBaseArriveOnce_data()
{
    changeRows();
}

void TestSettingsRestart::signalsOfTheBaseArriveOnce()
{
    QFETCH(QByteArrayList, requests);
    const auto client = newClientOf(1000);
    change(requests);
    drain(client.get());
    SignalRecorder heard(client.get());
    for (const Announcement &announcement : announcements)
        daemon.emitSignal(announcement.signal, announcement.args);
    drain(client.get());
    QCOMPARE(heard.list(), emittedByAll());
    grant(client.get(), token);
    QCOMPARE(heard.list().filter("authenticatedChanged("_s + QLatin1String(token.toHex())).size(), 1);
}

void TestSettingsRestart::announcementsAreHeardWhileTheChallengeIsFetchedAnew()
{
    const auto client = newClientOf(1000);
    // Who has had a challenge gets another.
    client->factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 0}}, "code"_s);
    daemon.request(R"({"do":"stop"})");
    QVERIFY(
        waitFor([this] { return log->contains(R"(debug authd reset "" captured "authd_p2p_settings_client")"_s); }));
    daemon.clearCalls();
    SignalRecorder heard(client.get());
    daemon.misbehave("RequestChallenge", "hold");
    daemon.request(R"({"do":"start"})");
    std::thread announcer([] {
        StandIn other;
        other.waitCalls("RequestChallenge");
        other.emitSignal("OptionChanged", "('worker/can-switch-to-user', <false>)");
        other.request(R"({"do":"release"})");
    });
    awaitReturn();
    announcer.join();
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{"canSwitchToUserChanged()"_s});
}

void TestSettingsRestart::nothingIsHeardOnceTheDaemonIsGone()
{
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    daemon.request(R"({"do":"release-name"})");
    QVERIFY(waitFor([&] { return heard.list() == dropSignals; }));
    // The connection is still there, until another daemon comes.
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <false>)");
    drain(client.get());
    QCOMPARE(heard.take(), dropSignals + QStringList{"canSwitchToUserChanged()"_s});
    daemon.request(R"({"do":"own-name"})");
    awaitReturn();
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <true>)");
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{"canSwitchToUserChanged()"_s});
}

void TestSettingsRestart::writesGoToTheNewDaemon_data()
{
    changeRows();
}

void TestSettingsRestart::writesGoToTheNewDaemon()
{
    QFETCH(QByteArrayList, requests);
    const auto client = newClientOf(1000);
    change(requests);
    daemon.answer("SetUserOption", "(true,)");
    client->setShowNotifications(false);
    client->setIsMultiFactorable(true);
    client->lastLoginDate(1000);
    const int instance = daemon.request(R"({"do":"state"})").value("instance"_s).toInt();
    QCOMPARE(daemon.instancesOf("SetUserOption"), (QList<int>{instance, instance}));
    QCOMPARE(daemon.instancesOf("GetUserOption"), QList<int>{instance});
    QVERIFY(!client->showNotifications());
}

void TestSettingsRestart::callsFailWhileTheDaemonIsAway()
{
    const auto client = newClientOf(1000);
    daemon.request(R"({"do":"stop"})");
    QVERIFY(waitFor([this] { return log->contains(R"(debug authd reset "" captured "%1")"_s.arg(connectionName)); }));
    const QVariantMap before = shown(*client);
    SignalRecorder heard(client.get());
    client->setShowNotifications(false);
    client->setIsUserSettable(false);
    client->setIsMultiFactorable(true);
    QVERIFY(!client->showLastLogin(1000));
    QCOMPARE(client->lastLoginDate(1000), QString());
    QCOMPARE(shown(*client), before);
    QCOMPARE(heard.list(), QStringList());
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.filter(QRegularExpression(R"(^warning setUserOption failed: ".+"$)"_s)).size(), 3);
    QCOMPARE(complaints.filter(QRegularExpression(R"(^warning getUserOption failed: ".+"$)"_s)).size(), 2);
    QCOMPARE(complaints.size(), 5);
}

void TestSettingsRestart::userIsSelectedWhileTheDaemonIsAway()
{
    const auto client = newClientOf(1000);
    daemon.request(R"({"do":"stop"})");
    client->setUid(1001);
    QCOMPARE(client->uid(), 1001U);
    // What the daemon does not tell stays the other user's.
    QCOMPARE(client->unlockFactors(), (QStringList{"code"_s, "smartcard"_s}));
    QCOMPARE(log->takeComplaints().size(), 2);

    daemon.request(R"({"do":"start"})");
    awaitReturn();
    SignalRecorder heard(client.get());
    daemon.changeOption("worker/service-factors/unlock", R"(["sudis"])", 1001);
    daemon.changeOption("worker/service-factors/unlock", R"(["code"])", 1000);
    drain(client.get());
    QCOMPARE(heard.list().count("unlockFactorsChanged()"_s), 1);
    QCOMPARE(client->unlockFactors(), QStringList{"sudis"_s});
}

void TestSettingsRestart::handlerOfDiscreditReadsOnTheDeadConnection()
{
    const auto client = newClientOf(1000);
    QStringList dates;
    connect(client.get(), &AuthClient::discredit, this, [&] { dates.append(client->lastLoginDate(1000)); });
    daemon.request(R"({"do":"stop"})");
    QVERIFY(waitFor([&] { return !dates.isEmpty(); }));
    QCOMPARE(dates, QStringList{QString()});
    QCOMPARE(log->takeComplaints().size(), 1);
    daemon.request(R"({"do":"start"})");
    awaitReturn();
    QCOMPARE(client->lastLoginDate(1000), "2026-11-20 08:15"_s);
}

void TestSettingsRestart::oldInstanceIsNotHeardAfterAHandover_data()
{
    QTest::addColumn<bool>("flight");
    QTest::newRow("idle") << false;
    QTest::newRow("calls in flight") << true;
}

void TestSettingsRestart::oldInstanceIsNotHeardAfterAHandover()
{
    QFETCH(bool, flight);
    const auto client = newClientOf(1000);
    daemon.misbehave("FactorMethod", "hold", R"("times":1)");
    QList<QVariant> results;
    if (flight) {
        client->factorMethod({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s,
                             [&](const QVariant &result) { results.append(result); });
        daemon.waitCalls("FactorMethod");
    }
    const QByteArray old = onInstance();
    daemon.request(R"({"do":"handover","keep-old":true})");
    awaitReturn();
    SignalRecorder heard(client.get());
    const QVariantMap before = shown(*client);

    for (const Announcement &announcement : announcements)
        daemon.emitSignal(announcement.signal, announcement.args, old);
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <false>)", old);
    daemon.emitSignal("UserOptionChanged", "(uint32 1000, 'worker/is-user-settable', <false>)", old);
    if (flight) {
        // The reply comes on the old connection, behind the signals.
        daemon.request(R"({"do":"release"})");
        QVERIFY(waitFor([&] { return !results.isEmpty(); }));
        QCOMPARE(results, QList<QVariant>{5});
    }
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(shown(*client), before);

    for (const Announcement &announcement : announcements)
        daemon.emitSignal(announcement.signal, announcement.args);
    drain(client.get());
    QCOMPARE(heard.list(), emittedByAll());
}

void TestSettingsRestart::queuedSignalsOfTheOldInstanceAreNotHeard()
{
    const auto client = newClientOf(1000);
    const QVariantMap before = shown(*client);
    const QByteArray old = onInstance();
    daemon.request(R"({"do":"handover","keep-old":true})");
    // After this round trip the news of the new owner waits in the event queue, ahead of the old one's signals.
    roundTripToSystemBus();
    SignalRecorder heard(client.get());
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <false>)", old);
    daemon.emitSignal("UserOptionChanged", "(uint32 1000, 'worker/is-user-settable', <false>)", old);
    daemon.emitSignal("UserOptionChanged", "(uint32 1000, 'worker/service-factors/unlock', <['sudis']>)", old);
    // The reply comes behind them, on the same connection.
    client->lastLoginDate(1000);
    QCOMPARE(heard.list(), QStringList());
    awaitReturn();
    drain(client.get());
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(shown(*client), before);
}

void TestSettingsRestart::queuedSignalsOfTheOldInstanceAreHeardBeforeTheNews()
{
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <false>)");
    client->lastLoginDate(1000);
    daemon.request(R"({"do":"handover","keep-old":true})");
    awaitReturn();
    drain(client.get());
    QCOMPARE(heard.list(), QStringList{"canSwitchToUserChanged()"_s});
    QVERIFY(!client->canSwitchToUser());
}

void TestSettingsRestart::twoClientsReturnEach_data()
{
    changeRows();
}

void TestSettingsRestart::twoClientsReturnEach()
{
    QFETCH(QByteArrayList, requests);
    const auto first = newClientOf(1000);
    const auto second = newClientOf(1001);
    for (int i = 0; i < 2; ++i) {
        for (const QByteArray &request : requests)
            daemon.request(request);
        // The owner that comes back may be the one that went.
        awaitReturns(requests.last().contains("own-name") ? 2 * (i + 1) : 2);
        drain(first.get());
        drain(second.get());
        SignalRecorder firstSignals(first.get());
        SignalRecorder secondSignals(second.get());
        daemon.emitSignal("OptionChanged", "('worker/can-switch-to-user', <true>)");
        daemon.emitSignal("UserOptionChanged", "(uint32 1000, 'worker/service-factors/unlock', <['code']>)");
        daemon.emitSignal("UserOptionChanged", "(uint32 1001, 'worker/service-factors/unlock', <['sudis']>)");
        daemon.emitSignal("AuthDataChanged", "()");
        drain(first.get());
        drain(second.get());
        const QStringList expected{"canSwitchToUserChanged()"_s, "unlockFactorsChanged()"_s, "authDataChanged()"_s};
        const QRegularExpression own("^(canSwitch|unlockFactors|authData)"_s);
        QCOMPARE(firstSignals.list().filter(own), expected);
        QCOMPARE(secondSignals.list().filter(own), expected);
        QCOMPARE(first->unlockFactors(), QStringList{"code"_s});
        QCOMPARE(second->unlockFactors(), QStringList{"sudis"_s});
        QCOMPARE(first->lastLoginDate(1000), "2026-11-20 08:15"_s);
        QVERIFY(!second->showLastLogin(1001));
    }
}

void TestSettingsRestart::twoClientsAreNotSentAnothersSignalsByTheOldInstance()
{
    const auto first = newClientOf(1000);
    const auto second = newClientOf(1001);
    const QByteArray old = onInstance();
    daemon.request(R"({"do":"handover","keep-old":true})");
    awaitReturns(2);
    SignalRecorder firstSignals(first.get());
    SignalRecorder secondSignals(second.get());
    for (const Announcement &announcement : announcements)
        daemon.emitSignal(announcement.signal, announcement.args, old);
    drain(first.get());
    drain(second.get());
    QCOMPARE(firstSignals.list(), QStringList());
    QCOMPARE(secondSignals.list(), QStringList());
}

void TestSettingsRestart::oneOfTwoClientsIsDeletedBeforeTheReturn()
{
    auto first = newClientOf(1000);
    const auto second = newClientOf(1001);
    daemon.request(R"({"do":"restart"})");
    first.reset();
    awaitReturn();
    SignalRecorder heard(second.get());
    daemon.changeOption("worker/can-switch-to-user", "false");
    drain(second.get());
    QCOMPARE(heard.list(), QStringList{"canSwitchToUserChanged()"_s});
    QCOMPARE(daemon.peerCount(), 1);
}

void TestSettingsRestart::daemonRestartsDuringAWrite_data()
{
    QTest::addColumn<QByteArray>("how");
    for (const char *how : {"restart", "crash", "drop"})
        QTest::newRow(how) << QByteArray(how);
}

void TestSettingsRestart::daemonRestartsDuringAWrite()
{
    QFETCH(QByteArray, how);
    const auto client = newClientOf(1000);
    grant(client.get(), token);
    const QVariantMap before = shown(*client);
    daemon.misbehave("SetUserOption", how.constData(), R"("times":1)");
    SignalRecorder heard(client.get());
    client->setIsUserSettable(false);
    QCOMPARE(shown(*client), before);
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(client->authenticated());
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 1);
    QVERIFY2(complaints.first().startsWith("warning setUserOption failed: \""_s), qPrintable(complaints.first()));

    if (how == "crash")
        daemon.request(R"({"do":"start"})");
    else if (how == "drop")
        daemon.request(R"({"do":"restart"})");
    awaitReturn();
    drain(client.get());
    QCOMPARE(heard.take(), dropSignals);
    QCOMPARE(shown(*client), before);
    daemon.changeOption("worker/is-user-settable", "false", 1000);
    drain(client.get());
    QVERIFY(!client->isUserSettable());
    QCOMPARE(heard.list().count("isUserSettableChanged()"_s), 1);
}

void TestSettingsRestart::daemonRestartsDuringTheUserSwitch_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QStringList>("failed");
    QTest::newRow("first read") << QByteArray("GetUserOptions") << QStringList{"getUserOptions"_s, "getUserOption"_s};
    QTest::newRow("second read") << QByteArray("GetUserOption") << QStringList{"getUserOption"_s};
}

void TestSettingsRestart::daemonRestartsDuringTheUserSwitch()
{
    QFETCH(QByteArray, method);
    QFETCH(QStringList, failed);
    const auto client = newClientOf(1000);
    daemon.misbehave(method.constData(), "restart", R"("times":1)");
    SignalRecorder heard(client.get());
    client->setUid(1001);
    QCOMPARE(client->uid(), 1001U);
    QCOMPARE(client->unlockFactors(),
             failed.size() == 2 ? QStringList({"code"_s, "smartcard"_s}) : QStringList{"code"_s});
    QVERIFY(!client->showNotifications());
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), failed.size());
    for (int i = 0; i < failed.size(); ++i)
        QVERIFY2(complaints.at(i).startsWith("warning %1 failed: \""_s.arg(failed.at(i))),
                 qPrintable(complaints.at(i)));

    awaitReturn();
    drain(client.get());
    QCOMPARE(heard.list().mid(heard.list().size() - 2), dropSignals);
    heard.take();
    daemon.changeOption("worker/service-factors/unlock", R"(["sudis"])", 1001);
    drain(client.get());
    QCOMPARE(heard.list().count("unlockFactorsChanged()"_s), 1);
}

void TestSettingsRestart::daemonRestartsDuringTheConstruction_data()
{
    QTest::addColumn<int>("survived");
    QTest::newRow("services") << 0;
    QTest::newRow("flag") << 1;
    QTest::newRow("factors of the first service") << 2;
    QTest::newRow("factors of the second service") << 3;
}

void TestSettingsRestart::daemonRestartsDuringTheConstruction()
{
    QFETCH(int, survived);
    // The newest rule comes first.
    daemon.misbehave("GetOption", "restart", R"("times":1)");
    const QByteArrayList values{"<['login', 'unlock']>", "<true>", "<['code']>"};
    for (int i = survived - 1; i >= 0; --i)
        answerOnce(values.at(i));
    const AuthSettingsClient client(nullptr);
    QCOMPARE(client.canSwitchToUser(), survived > 1);
    QCOMPARE(client.factors()->rowCount(), survived > 2 ? 1 : 0);
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.filter(QRegularExpression(R"(^warning getOption failed: ".+"$)"_s)).size(), complaints.size());
    QCOMPARE(complaints.size(), survived ? 4 - survived : 2);
    QVERIFY(log->contains(R"(debug AuthSettingsClientPrivate Connected to "unix:path=/var/run/authd/authd.socket")"_s));

    // The new instance is heard, and asked nothing.
    awaitReturn();
    auto *const settings = const_cast<AuthSettingsClient *>(&client);
    SignalRecorder heard(settings);
    daemon.changeOption("worker/can-switch-to-user", "false");
    drain(settings);
    QCOMPARE(heard.list().count("canSwitchToUserChanged()"_s), 1);
    const int instance = daemon.request(R"({"do":"state"})").value("instance"_s).toInt();
    QVERIFY(!daemon.instancesOf("GetOption").contains(instance));
    checkComplaintsOfTheStateCall();
}

void TestSettingsRestart::daemonHandsOverDuringTheConstruction()
{
    auto client = std::make_unique<AuthSettingsClient>(nullptr);
    // Nothing has been delivered to the new client yet.
    daemon.request(R"({"do":"handover","keep-old":true})");
    awaitReturn();
    SignalRecorder heard(client.get());
    daemon.changeOption("worker/can-switch-to-user", "false");
    drain(client.get());
    QCOMPARE(heard.list().count("canSwitchToUserChanged()"_s), 1);
    QCOMPARE(client->factors()->rowCount(), 5);
    checkComplaintsOfTheStateCall();
}

void TestSettingsRestart::manyRestarts()
{
    const auto client = newClientOf(1000);
    for (int i = 0; i < 20; ++i) {
        daemon.request(i % 3 ? R"({"do":"restart"})" : R"({"do":"handover","keep-old":true})");
        awaitReturn();
        SignalRecorder heard(client.get());
        daemon.changeOption("worker/is-multi-factorable", i % 2 ? "false" : "true", 1000);
        drain(client.get());
        QCOMPARE(heard.list().count("isMultiFactorableChanged()"_s), 1);
        QCOMPARE(client->lastLoginDate(1000), "2026-11-20 08:15"_s);
    }
    daemon.request(R"({"do":"drop-old"})");
    QCOMPARE(daemon.peerCount(), 1);
}

void TestSettingsRestart::wholeSessionAfterARestart()
{
    const auto client = newClientOf(1000);
    for (int i = 0; i < 3; ++i) {
        authenticate(client.get());
        client->setShowNotifications(i % 2);
        QCOMPARE(client->showNotifications(), i % 2 == 1);
        QCOMPARE(daemon.option("devlock/show-notifications", 1000), i % 2 ? "true"_s : "false"_s);
        daemon.request(R"({"do":"restart"})");
        awaitReturn();
        drain(client.get());
        QCOMPARE(client->token(), QByteArray());
    }
}

QTEST_GUILESS_MAIN(TestSettingsRestart)
#include "tst_settingsrestart.moc"
