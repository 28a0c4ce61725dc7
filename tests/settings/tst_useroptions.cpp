#include "settings-test-case.h"

#include <limits>

/** The options of one user: how they are read, written, switched and followed. */
class TestUserOptions : public SettingsTestCase
{
    Q_OBJECT

private:
    void offer(const QStringList &services, const QStringList &factors);
    QStringList shownOf(uint uid);

private Q_SLOTS:
    void init();

    void switchMakesTwoCalls();
    void switchAsksForTheServicesInTheirOrder_data();
    void switchAsksForTheServicesInTheirOrder();
    void switchMirrorsEachService_data();
    void switchMirrorsEachService();
    void serviceIsAllThatFollowsTheFirstSeparator();
    void switchTakesAThousandServices();
    void switchShowsTheNewUser();
    void switchEmitsInOrder();
    void switchResetsTheModelWhenTheUserMayNotSet();
    void switchEmitsOnlyWhatDiffers();
    void switchNeverEmitsUnlockFactorsChanged();
    void handlerOfUidChangedSeesThePreviousUser();
    void switchIsCompleteWhenItReturns();
    void switchToTheCurrentUserDoesNothing();
    void switchToNobodyKeepsAllButShowNotifications_data();
    void switchToNobodyKeepsAllButShowNotifications();
    void missingKeyKeepsThePreviousUsersValue_data();
    void missingKeyKeepsThePreviousUsersValue();
    void emptyBatchKeepsAll();
    void unaskedKeysOfTheBatchAreIgnored();
    void failedBatchKeepsAllAndReadsShowNotifications();
    void switchMarksTheFactorsWhateverIsRead_data();
    void switchMarksTheFactorsWhateverIsRead();
    void missingShowNotificationsIsFalse();
    void failedReadOfShowNotificationsIsFalse();
    void readOfShowNotificationsWantsAVariant_data();
    void readOfShowNotificationsWantsAVariant();
    void replyThatIsNoOptionMapIsAFailedBatch_data();
    void replyThatIsNoOptionMapIsAFailedBatch();
    void lostPeerIsAFailedSwitch();

    void laterSelectionEndsTheFirst_data();
    void laterSelectionEndsTheFirst();
    void laterSelectionSavesTheReadsOfTheFirst();
    void laterSelectionOfTheSameUserEndsTheFirst();
    void selectionInsideAnAnnouncementWins_data();
    void selectionInsideAnAnnouncementWins();
    void selectionBackAndForthShowsTheLast();

    void writeSendsUserTokenKeyAndValue();
    void failedWriteWarnsAndChangesNothing();

    void announcedLoginFactors();
    void announcedUnlockFactors();
    void announcedUnlockFactorsAreEmittedAlways();
    void announcedDisabledFactors();
    void flagIsConverted_data();
    void flagIsConverted();
    void listIsConverted_data();
    void listIsConverted();
    void announcementForTheHighestUserIdIsTaken();
    void announcementOfAServiceThatWasNeverReadIsIgnored();
    void announcedServiceIsAllThatFollowsTheSecondSeparator_data();
    void announcedServiceIsAllThatFollowsTheSecondSeparator();
    void announcedServiceMayHaveAnyName_data();
    void announcedServiceMayHaveAnyName();
    void otherAnnouncementsAreIgnored_data();
    void otherAnnouncementsAreIgnored();
    void otherSignatureIsIgnored();
    void queuedAnnouncementOfThePreviousUserIsIgnored();
    void queuedAnnouncementOfTheNextUserIsTaken();

    void lastLoginIsAskedForOnDemand_data();
    void lastLoginIsAskedForOnDemand();
    void lastLoginOfNobodyIsNotAskedFor_data();
    void lastLoginOfNobodyIsNotAskedFor();
    void lastLoginTouchesNothing();
    void failedReadOfTheLastLogin();
    void lastLoginDateIsConverted_data();
    void lastLoginDateIsConverted();

    void warningsNameTheirFunction();
};

namespace {
const QByteArray token = "s3cr3t token";
const uint highestUid = std::numeric_limits<quint32>::max();
const QStringList batchKeys{"worker/service-factors/login"_s, "worker/service-factors/unlock"_s,
                            "worker/is-multi-factorable"_s, "worker/is-user-settable"_s, "worker/disabled-factors"_s};

QString batchCall(uint uid, const QStringList &keys = batchKeys)
{
    return settingsCall("GetUserOptions", "uas", "(uint32 " + QByteArray::number(uid) + ", " + gvariant(keys) + ')');
}

QString readCall(uint uid, const QByteArray &key)
{
    return settingsCall("GetUserOption", "us", "(uint32 " + QByteArray::number(uid) + ", '" + key + "')");
}

QString showNotificationsCall(uint uid)
{
    return readCall(uid, "devlock/show-notifications");
}

QString writeCall(uint uid, const QByteArray &withToken, const QByteArray &keyAndValue)
{
    return settingsCall("SetUserOption", "uaysv",
                        "(uint32 " + QByteArray::number(uid) + ", " + bytes(withToken) + ", " + keyAndValue + ')');
}

// All that a host can see, in words.
QStringList shown(AuthSettingsClient *client)
{
    const auto flag = [](const char *name, bool value) { return QLatin1String(name) + (value ? ": yes"_s : ": no"_s); };
    QStringList result{
        flag("multi", client->isMultiFactorable()),
        flag("settable", client->isUserSettable()),
        flag("notifications", client->showNotifications()),
        "warning: "_s + client->userWarning(),
        "unlock: "_s + client->unlockFactors().join(QLatin1Char(' ')),
    };
    result += rows(*client).split(", "_s);
    for (const char *name : {"code", "smartcard", "sudis"}) {
        if (client->hasEnabledFactor(QLatin1String(name)))
            result.append("enabled: "_s + QLatin1String(name));
        if (client->hasFactor(QLatin1String(name)))
            result.append("there: "_s + QLatin1String(name));
    }
    return result;
}

void nobodyRows()
{
    QTest::addColumn<uint>("uid");
    QTest::newRow("0") << 0U;
    QTest::newRow("4294967295") << highestUid;
}

const char *const otherReplies[] = {
    "()",
    "('x',)",
    "(true,)",
    "(@a{ss} {'worker/is-multi-factorable': 'true', 'worker/is-user-settable': ''},)",
    "(@a{sas} {'worker/disabled-factors': ['code'], 'worker/service-factors/unlock': []},)",
    "(@a{us} {},)",
    "(@a{oas} {},)",
    "(<@a{sv} {'worker/is-multi-factorable': <true>}>,)",
    "([{'worker/is-multi-factorable': <true>}],)",
    "(({'worker/is-multi-factorable': <true>},),)",
    "(['worker/is-multi-factorable'],)",
    "(5, @a{sv} {'worker/is-multi-factorable': <true>})",
};

/** Keeps where the messages of the library come from. */
class FunctionRecorder
{
public:
    FunctionRecorder()
    {
        instance = this;
        m_previous = qInstallMessageHandler(handle);
    }
    ~FunctionRecorder()
    {
        qInstallMessageHandler(m_previous);
        instance = nullptr;
    }
    Q_DISABLE_COPY(FunctionRecorder)

    QStringList functions;

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        // Compilers differ in the blank before the reference.
        if (type == QtWarningMsg)
            instance->functions.append(QString::fromLatin1(context.file) + QLatin1Char(' ')
                                       + QString::fromLatin1(context.function).replace(" &"_s, "&"_s));
        instance->m_previous(type, context, text);
    }

    static FunctionRecorder *instance;
    QtMessageHandler m_previous = nullptr;
};

FunctionRecorder *FunctionRecorder::instance = nullptr;
} // namespace

// Every service offers these factors.
void TestUserOptions::offer(const QStringList &services, const QStringList &factors)
{
    daemon.arrangeOption("worker/available-services", json(services));
    for (const QString &service : services)
        daemon.arrangeOption("worker/available-service-factors/" + service.toUtf8(), json(factors));
}

// What a client shows who never had another user.
QStringList TestUserOptions::shownOf(uint uid)
{
    AuthSettingsClient client(nullptr);
    client.setUid(uid);
    return shown(&client);
}

void TestUserOptions::init()
{
    TestCase::init();
    offer({"login"_s, "unlock"_s}, {"code"_s, "smartcard"_s, "sudis"_s});
    arrangeTwoUsers();
}

void TestUserOptions::switchMakesTwoCalls()
{
    const auto client = newSettingsClient();
    client->setUid(1000);
    QCOMPARE(client->uid(), 1000U);
    QCOMPARE(daemon.calls(), (QStringList{batchCall(1000), showNotificationsCall(1000)}));
    QCOMPARE(log->take(), QStringList());
}

void TestUserOptions::switchAsksForTheServicesInTheirOrder_data()
{
    QTest::addColumn<QStringList>("services");
    QTest::newRow("none") << QStringList();
    QTest::newRow("other order") << QStringList{"unlock"_s, "login"_s};
    QTest::newRow("other names") << QStringList{"z"_s, "login"_s, "a"_s};
    QTest::newRow("separators") << QStringList{"a/b"_s, "/"_s, "/a"_s, "a/"_s};
    QTest::newRow("twice") << QStringList{"login"_s, "unlock"_s, "login"_s};
    QTest::newRow("empty name") << QStringList{QString(), "login"_s};
    QTest::newRow("other letters") << QStringList{"вход"_s, "schlüssel"_s, "鍵"_s};
}

void TestUserOptions::switchAsksForTheServicesInTheirOrder()
{
    QFETCH(QStringList, services);
    offer(services, {"code"_s});
    const auto client = newSettingsClient();
    client->setUid(1000);
    QStringList keys = services;
    for (QString &key : keys)
        key.prepend("worker/service-factors/"_s);
    keys += batchKeys.mid(2);
    QCOMPARE(daemon.calls(), (QStringList{batchCall(1000, keys), showNotificationsCall(1000)}));
}

void TestUserOptions::switchMirrorsEachService_data()
{
    QTest::addColumn<QString>("service");
    for (const char *service : {"login", "unlock", "other", "a/b", "a//b", "/a", "a/", "", "вход", "鍵"})
        QTest::newRow(service) << QString::fromUtf8(service);
}

void TestUserOptions::switchMirrorsEachService()
{
    QFETCH(QString, service);
    offer({"first"_s, service, "last"_s}, {"code"_s, "sudis"_s});
    daemon.arrangeOption("worker/service-factors/" + service.toUtf8(), R"(["sudis"])", 1000);
    const auto client = newSettingsClient();
    const ModelWatch watch(client->factors());
    client->setUid(1000);
    QVERIFY(client->hasEnabledFactor("sudis"_s));
    QVERIFY(!client->hasEnabledFactor("code"_s));
    QCOMPARE(client->unlockFactors(), service == "unlock"_s ? QStringList{"sudis"_s} : QStringList());
}

void TestUserOptions::serviceIsAllThatFollowsTheFirstSeparator()
{
    daemon.arrangeOption("worker/available-services", R"(["a/b","b","a"])");
    for (const char *service : {"a/b", "b", "a"})
        daemon.arrangeOption("worker/available-service-factors/" + QByteArray(service),
                             json({"only "_s + QLatin1String(service)}));
    daemon.arrangeOption("worker/service-factors/a/b", R"(["only a/b","only b","only a"])", 1000);
    daemon.arrangeOption("worker/service-factors/b", "[]", 1000);
    daemon.arrangeOption("worker/service-factors/a", "[]", 1000);
    const auto client = newClientOf(1000);
    QVERIFY(client->hasEnabledFactor("only a/b"_s));
    QVERIFY(!client->hasEnabledFactor("only b"_s));
    QVERIFY(!client->hasEnabledFactor("only a"_s));
}

void TestUserOptions::switchTakesAThousandServices()
{
    QStringList services;
    QStringList keys;
    for (int i = 0; i < 1000; ++i) {
        const QString service = (i % 3 == 0 ? "dienst/%1"_s : i % 3 == 1 ? "служба %1"_s : "service-%1"_s).arg(i);
        services.append(service);
        keys.append("worker/service-factors/"_s + service);
        daemon.arrangeOption("worker/available-service-factors/" + service.toUtf8(), json({"factor %1"_s.arg(i)}));
        daemon.arrangeOption("worker/service-factors/" + service.toUtf8(),
                             i % 2 ? json({"factor %1"_s.arg(i), "code"_s}) : json(QStringList()), 1000);
    }
    daemon.arrangeOption("worker/available-services", json(services));
    const auto client = newSettingsClient();
    const ModelWatch watch(client->factors());
    client->setUid(1000);
    QCOMPARE(daemon.calls(), (QStringList{batchCall(1000, keys + batchKeys.mid(2)), showNotificationsCall(1000)}));
    for (int i = 0; i < 1000; ++i)
        QCOMPARE(client->hasEnabledFactor("factor %1"_s.arg(i)), i % 2 == 1);
}

void TestUserOptions::switchShowsTheNewUser()
{
    const auto client = newSettingsClient();
    const ModelWatch watch(client->factors());
    client->setUid(1000);
    QCOMPARE(shown(client.get()),
             (QStringList{"multi: yes"_s, "settable: yes"_s, "notifications: yes"_s, "warning: "_s,
                          "unlock: code sudis"_s, "code chosen"_s, "smartcard"_s, "sudis"_s, "enabled: code"_s,
                          "there: code"_s, "there: smartcard"_s, "enabled: sudis"_s, "there: sudis"_s}));
    client->setUid(1001);
    QCOMPARE(shown(client.get()),
             (QStringList{"multi: no"_s, "settable: no"_s, "notifications: no"_s,
                          "warning: settings_users-la-user_has_token_hint"_s, "unlock: smartcard"_s,
                          "smartcard chosen"_s, "enabled: smartcard"_s, "there: smartcard"_s, "there: sudis"_s}));
    client->setUid(1000);
    QCOMPARE(shown(client.get()), shownOf(1000));
}

void TestUserOptions::switchEmitsInOrder()
{
    const auto client = newSettingsClient();
    SignalRecorder heard(client.get());
    const ModelWatch watch(client->factors());
    client->setUid(1000);
    QCOMPARE(heard.take(),
             (QStringList{"uidChanged()"_s, "isMultiFactorableChanged()"_s,
                          "model dataChanged(row 0, [258])"_s, // code for login
                          "model dataChanged(row 0, [258])"_s, // code for unlocking, of the same name
                          "model dataChanged(row 2, [258])"_s, "showNotificationsChanged()"_s}));
}

void TestUserOptions::switchResetsTheModelWhenTheUserMayNotSet()
{
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    const ModelWatch watch(client->factors());
    QStringList rowsThen;
    connect(client.get(), &AuthSettingsClient::isUserSettableChanged, this, [&] {
        // The marks are still those of the previous user.
        rowsThen = shown(client.get()).mid(5, 1);
    });
    client->setUid(1001);
    QCOMPARE(heard.take(),
             QStringList() << "uidChanged()"_s
                           << "isMultiFactorableChanged()"_s << resetSignals << "isUserSettableChanged()"_s
                           << "model dataChanged(row 0, [258])"_s // code for login
                           << "userWarningChanged()"_s            // the smart card, which has no row yet
                           << "model dataChanged(row 0, [258])"_s // code for unlocking
                           << "model dataChanged(row 1, [258])"_s // sudis for unlocking
                           << resetSignals << "showNotificationsChanged()"_s);
    QCOMPARE(rowsThen, QStringList{"code chosen"_s});
}

void TestUserOptions::switchEmitsOnlyWhatDiffers()
{
    for (const QString &key : batchKeys + QStringList{"devlock/show-notifications"_s}) {
        const QByteArray value = key.startsWith("worker/service"_s) ? R"(["code"])"
            : key.endsWith("disabled-factors"_s)                    ? R"(["sudis"])"
                                                                    : "true";
        daemon.arrangeOption(key.toUtf8(), value, 1000);
        daemon.arrangeOption(key.toUtf8(), value, 1001);
    }
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    client->setUid(1001);
    QCOMPARE(heard.take(), QStringList{"uidChanged()"_s});
}

void TestUserOptions::switchNeverEmitsUnlockFactorsChanged()
{
    const auto client = newSettingsClient();
    int emitted = 0;
    connect(client.get(), &AuthSettingsClient::unlockFactorsChanged, this, [&] { ++emitted; });
    client->setUid(1000);
    QCOMPARE(client->unlockFactors(), (QStringList{"code"_s, "sudis"_s}));
    client->setUid(1001);
    drain(client.get());
    QCOMPARE(client->unlockFactors(), QStringList{"smartcard"_s});
    QCOMPARE(emitted, 0);
}

void TestUserOptions::handlerOfUidChangedSeesThePreviousUser()
{
    const auto client = newClientOf(1000);
    const QStringList before = shown(client.get());
    QStringList seen;
    QStringList callsThen{"none yet"_s};
    uint uidThen = 0;
    connect(client.get(), &AuthSettingsClient::uidChanged, this, [&] {
        uidThen = client->uid();
        seen = shown(client.get());
        callsThen = daemon.calls();
    });
    client->setUid(1001);
    QCOMPARE(uidThen, 1001U);
    QCOMPARE(callsThen, QStringList());
    QCOMPARE(seen, before);
    QVERIFY(shown(client.get()) != before);
}

void TestUserOptions::switchIsCompleteWhenItReturns()
{
    const auto client = newSettingsClient();
    SignalRecorder heard(client.get());
    client->setUid(1000);
    const QStringList shownThen = shown(client.get());
    heard.take();
    daemon.clearCalls();
    drain(client.get());
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(shown(client.get()), shownThen);
    QCOMPARE(daemon.calls(), QStringList());
}

void TestUserOptions::switchToTheCurrentUserDoesNothing()
{
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    client->setUid(1000);
    drain(client.get());
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());

    const auto fresh = newSettingsClient();
    SignalRecorder heardByFresh(fresh.get());
    fresh->setUid(0);
    drain(fresh.get());
    QCOMPARE(heardByFresh.take(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());
}

void TestUserOptions::switchToNobodyKeepsAllButShowNotifications_data()
{
    nobodyRows();
}

void TestUserOptions::switchToNobodyKeepsAllButShowNotifications()
{
    QFETCH(uint, uid);
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    QStringList expected = shown(client.get());
    expected.replace(2, "notifications: no"_s);
    client->setUid(uid);
    drain(client.get());
    QCOMPARE(client->uid(), uid);
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(heard.take(), (QStringList{"uidChanged()"_s, "showNotificationsChanged()"_s}));
    QCOMPARE(shown(client.get()), expected);
    QCOMPARE(log->take(), QStringList());
}

void TestUserOptions::missingKeyKeepsThePreviousUsersValue_data()
{
    QTest::addColumn<QString>("key");
    for (const QString &key : batchKeys)
        QTest::newRow(qPrintable(key)) << key;
}

// As if the next user's option had the value of the previous user's.
void TestUserOptions::missingKeyKeepsThePreviousUsersValue()
{
    QFETCH(QString, key);
    const QByteArray name = key.toUtf8();
    const QByteArray kept = name.endsWith("login") ? R"(["code"])"
        : name.endsWith("unlock")                  ? R"(["code","sudis"])"
        : name.endsWith("factors")                 ? R"(["sudis"])"
                                                   : "true";
    daemon.arrangeOption(name, kept, 1000);
    const auto shownAfterTheSwitch = [this] {
        const auto client = newClientOf(1000);
        client->setUid(1001);
        return shown(client.get());
    };
    const QStringList withItsOwn = shownAfterTheSwitch();
    daemon.arrangeOption(name, kept, 1001);
    const QStringList expected = shownAfterTheSwitch();

    daemon.removeOption(name, 1001);
    QCOMPARE(shownAfterTheSwitch(), expected);
    QVERIFY(expected != withItsOwn);
}

void TestUserOptions::emptyBatchKeepsAll()
{
    const auto client = newClientOf(1000);
    const QStringList before = shown(client.get());
    SignalRecorder heard(client.get());
    daemon.answer("GetUserOptions", "(@a{sv} {},)");
    daemon.answer("GetUserOption", "(<true>,)");
    client->setUid(1001);
    QCOMPARE(shown(client.get()), before);
    QCOMPARE(heard.take(), QStringList{"uidChanged()"_s});
}

void TestUserOptions::unaskedKeysOfTheBatchAreIgnored()
{
    const auto client = newClientOf(1000);
    const QStringList before = shown(client.get());
    daemon.answer("GetUserOptions",
                  "({'is-multi-factorable': <false>, 'is-user-settable': <false>, 'disabled-factors': <['code']>, "
                  "'service-factors/unlock': <['smartcard']>, 'worker/service-factors/other': <['sudis']>, "
                  "'worker/service-factors': <['sudis']>, 'devlock/show-notifications': <false>},)");
    daemon.answer("GetUserOption", "(<true>,)");
    client->setUid(1001);
    QCOMPARE(shown(client.get()), before);
}

void TestUserOptions::switchMarksTheFactorsWhateverIsRead_data()
{
    QTest::addColumn<uint>("uid");
    QTest::addColumn<bool>("fails");
    QTest::newRow("nobody") << 0U << false;
    QTest::newRow("nobody, highest") << 4294967295U << false;
    QTest::newRow("failed") << 1001U << true;
    QTest::newRow("empty") << 1001U << false;
}

void TestUserOptions::switchMarksTheFactorsWhateverIsRead()
{
    QFETCH(uint, uid);
    QFETCH(bool, fails);
    daemon.arrangeOption("worker/service-factors/unlock", R"(["code"])", 1000);
    const auto client = newClientOf(1000);
    if (fails)
        daemon.misbehave("GetUserOptions", "error");
    else
        daemon.answer("GetUserOptions", "(@a{sv} {},)");
    bool marked = false;
    // The list is the announced one by then, and the marks are still the old ones.
    connect(client.get(), &AuthSettingsClient::unlockFactorsChanged, this, [&] {
        client->setUid(uid);
        marked = client->hasEnabledFactor("smartcard"_s);
    });
    announce(client.get(), "worker/service-factors/unlock", "['smartcard']");
    log->takeComplaints();
    QVERIFY(marked);
}

void TestUserOptions::failedBatchKeepsAllAndReadsShowNotifications()
{
    const auto client = newClientOf(1000);
    QStringList expected = shown(client.get());
    expected.replace(2, "notifications: no"_s);
    SignalRecorder heard(client.get());
    daemon.misbehave("GetUserOptions", "error", R"("message":"no options today")");
    client->setUid(1001);
    QCOMPARE(client->uid(), 1001U);
    QCOMPARE(heard.take(), (QStringList{"uidChanged()"_s, "showNotificationsChanged()"_s}));
    QCOMPARE(shown(client.get()), expected);
    QCOMPARE(daemon.calls(), (QStringList{batchCall(1001), showNotificationsCall(1001)}));
    QCOMPARE(log->take(), QStringList{R"(warning getUserOptions failed: "no options today")"_s});
}

void TestUserOptions::missingShowNotificationsIsFalse()
{
    const auto client = newClientOf(1000);
    daemon.removeOption("devlock/show-notifications", 1001);
    client->setUid(1001);
    QVERIFY(!client->showNotifications());
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 1);
    QVERIFY2(complaints.first().startsWith("warning getUserOption failed: \""_s), qPrintable(complaints.first()));
}

void TestUserOptions::failedReadOfShowNotificationsIsFalse()
{
    daemon.arrangeOption("devlock/show-notifications", "true", 1001);
    QStringList expected = shownOf(1001);
    expected.replace(2, "notifications: no"_s);
    const auto client = newClientOf(1000);
    log->take();
    daemon.misbehave("GetUserOption", "error", R"("message":"no option today")");
    client->setUid(1001);
    QCOMPARE(shown(client.get()), expected);
    QCOMPARE(log->take(), QStringList{R"(warning getUserOption failed: "no option today")"_s});
}

void TestUserOptions::readOfShowNotificationsWantsAVariant_data()
{
    QTest::addColumn<QByteArray>("reply");
    for (const char *reply : {"()", "(true,)", "('true',)", "([<true>],)", "({'a': <true>},)"})
        QTest::newRow(reply) << QByteArray(reply);
}

void TestUserOptions::readOfShowNotificationsWantsAVariant()
{
    QFETCH(QByteArray, reply);
    const auto client = newClientOf(1000);
    daemon.answer("GetUserOption", reply);
    client->setUid(1001);
    QVERIFY(!client->showNotifications());
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith("warning getUserOption failed: \""_s), qPrintable(lines.first()));
}

void TestUserOptions::replyThatIsNoOptionMapIsAFailedBatch_data()
{
    QTest::addColumn<QByteArray>("reply");
    for (const char *reply : otherReplies)
        QTest::newRow(reply) << QByteArray(reply);
}

void TestUserOptions::replyThatIsNoOptionMapIsAFailedBatch()
{
    QFETCH(QByteArray, reply);
    daemon.arrangeOption("worker/is-multi-factorable", "false", 1000);
    daemon.arrangeOption("devlock/show-notifications", "true", 1001);
    const auto client = newClientOf(1000);
    const QStringList before = shown(client.get());
    daemon.answer("GetUserOptions", reply);
    client->setUid(1001);
    QCOMPARE(shown(client.get()), before);
    QCOMPARE(daemon.calls(), (QStringList{batchCall(1001), showNotificationsCall(1001)}));
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith("warning getUserOptions failed: \""_s), qPrintable(lines.first()));
}

void TestUserOptions::lostPeerIsAFailedSwitch()
{
    const auto client = newClientOf(1000);
    QStringList expected = shown(client.get());
    expected.replace(2, "notifications: no"_s);
    daemon.misbehave("GetUserOptions", "drop");
    SignalRecorder heard(client.get());
    client->setUid(1001);
    QCOMPARE(heard.take(), (QStringList{"uidChanged()"_s, "showNotificationsChanged()"_s}));
    QCOMPARE(shown(client.get()), expected);
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 2);
    QVERIFY2(complaints.first().startsWith("warning getUserOptions failed: "_s), qPrintable(complaints.first()));
    QVERIFY2(complaints.last().startsWith("warning getUserOption failed: "_s), qPrintable(complaints.last()));
}

namespace {
// Calls back, once, from a signal of the client or of its model.
void once(AuthSettingsClient *client, const QByteArray &signal, const std::function<void()> &handler)
{
    const auto connection = std::make_shared<QMetaObject::Connection>();
    const auto call = [connection, handler] {
        QObject::disconnect(*connection);
        handler();
    };
    FactorListModel *model = client->factors();
    const QMap<QByteArray, void (AuthSettingsClient::*)()> ofClient{
        {"uidChanged", &AuthSettingsClient::uidChanged},
        {"isMultiFactorableChanged", &AuthSettingsClient::isMultiFactorableChanged},
        {"isUserSettableChanged", &AuthSettingsClient::isUserSettableChanged},
        {"userWarningChanged", &AuthSettingsClient::userWarningChanged},
        {"unlockFactorsChanged", &AuthSettingsClient::unlockFactorsChanged},
        {"showNotificationsChanged", &AuthSettingsClient::showNotificationsChanged},
    };
    if (ofClient.contains(signal))
        *connection = QObject::connect(client, ofClient.value(signal), client, call);
    else if (signal == "dataChanged")
        *connection = QObject::connect(model, &QAbstractItemModel::dataChanged, client, call);
    else if (signal == "modelAboutToBeReset")
        *connection = QObject::connect(model, &QAbstractItemModel::modelAboutToBeReset, client, call);
    else if (signal == "modelReset")
        *connection = QObject::connect(model, &QAbstractItemModel::modelReset, client, call);
    else if (signal == "loginFactorsCountChanged")
        *connection = QObject::connect(model, &FactorListModel::loginFactorsCountChanged, client, call);
    if (!*connection)
        qFatal("No signal %s", signal.constData());
}

const char *const signalsOfASwitch[] = {
    "uidChanged",
    "isMultiFactorableChanged",
    "modelAboutToBeReset",
    "modelReset",
    "dataChanged",
    "loginFactorsCountChanged",
    "userWarningChanged",
    "isUserSettableChanged",
    "showNotificationsChanged",
};
} // namespace

void TestUserOptions::laterSelectionEndsTheFirst_data()
{
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<uint>("last");
    for (const char *signal : signalsOfASwitch) {
        QTest::addRow("%s, another user", signal) << QByteArray(signal) << 1002U;
        QTest::addRow("%s, back", signal) << QByteArray(signal) << 1000U;
    }
}

void TestUserOptions::laterSelectionEndsTheFirst()
{
    QFETCH(QByteArray, signal);
    QFETCH(uint, last);
    // A third, who has something of both.
    const QByteArray third =
        "({'worker/service-factors/login': <['sudis', 'code']>, 'worker/service-factors/unlock': <['code']>, "
        "'worker/is-multi-factorable': <true>, 'worker/is-user-settable': <true>, "
        "'worker/disabled-factors': <['smartcard']>},)";
    const auto arrangeThird = [&] {
        daemon.answer("GetUserOptions", third);
        daemon.answer("GetUserOption", "(<true>,)");
    };
    QStringList expected = shownOf(1000);
    if (last == 1002) {
        arrangeThird();
        expected = shownOf(1002);
        daemon.request(R"({"do":"behave"})");
    }
    const auto client = newClientOf(1000);
    once(client.get(), signal, [&] {
        if (last == 1002)
            arrangeThird();
        client->setUid(last);
    });
    SignalRecorder heard(client.get());
    client->setUid(1001);
    QCOMPARE(client->uid(), last);
    QCOMPARE(shown(client.get()), expected);
    QCOMPARE(heard.take().count("uidChanged()"_s), 2);
    drain(client.get());
    QCOMPARE(shown(client.get()), expected);
}

void TestUserOptions::laterSelectionOfTheSameUserEndsTheFirst()
{
    const auto client = newClientOf(1000);
    once(client.get(), "isMultiFactorableChanged", [&] {
        client->setUid(1000);
        // The first selection has read the former value.
        daemon.arrangeOption("worker/is-user-settable", "true", 1001);
        client->setUid(1001);
    });
    SignalRecorder heard(client.get());
    client->setUid(1001);
    QCOMPARE(heard.take().count("uidChanged()"_s), 3);
    QCOMPARE(client->uid(), 1001U);
    QVERIFY(client->isUserSettable());
}

void TestUserOptions::laterSelectionSavesTheReadsOfTheFirst()
{
    const auto client = newClientOf(1000);
    once(client.get(), "uidChanged", [&] { client->setUid(0); });
    client->setUid(1001);
    QCOMPARE(client->uid(), 0U);
    QCOMPARE(daemon.calls(), QStringList());

    client->setUid(1000);
    daemon.clearCalls();
    once(client.get(), "dataChanged", [&] { client->setUid(0); });
    client->setUid(1001);
    QCOMPARE(client->uid(), 0U);
    QCOMPARE(daemon.calls(), QStringList{batchCall(1001)});
}

void TestUserOptions::selectionInsideAnAnnouncementWins_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QByteArray>("signal");
    const auto row = [](const char *key, const char *value, const char *signal) {
        QTest::addRow("%s, %s", key, signal) << QByteArray(key) << QByteArray(value) << QByteArray(signal);
    };
    row("worker/service-factors/unlock", "['sudis', 'smartcard']", "unlockFactorsChanged");
    row("worker/service-factors/unlock", "['sudis', 'smartcard']", "dataChanged");
    row("worker/service-factors/unlock", "['sudis', 'smartcard']", "userWarningChanged");
    row("worker/service-factors/login", "['sudis', 'smartcard']", "dataChanged");
    row("worker/disabled-factors", "['sudis']", "modelAboutToBeReset");
    row("worker/disabled-factors", "['sudis']", "modelReset");
    row("worker/disabled-factors", "['sudis']", "loginFactorsCountChanged");
    row("worker/is-multi-factorable", "false", "isMultiFactorableChanged");
    row("worker/is-user-settable", "false", "isUserSettableChanged");
    row("worker/is-user-settable", "false", "modelReset");
    row("devlock/show-notifications", "false", "showNotificationsChanged");
}

void TestUserOptions::selectionInsideAnAnnouncementWins()
{
    QFETCH(QByteArray, key);
    QFETCH(QByteArray, value);
    QFETCH(QByteArray, signal);
    const QStringList expected = shownOf(1001);
    const auto client = newClientOf(1000);
    bool called = false;
    once(client.get(), signal, [&] {
        called = true;
        client->setUid(1001);
    });
    announce(client.get(), key, value);
    QVERIFY(called);
    QCOMPARE(client->uid(), 1001U);
    QCOMPARE(shown(client.get()), expected);
}

void TestUserOptions::selectionBackAndForthShowsTheLast()
{
    const QStringList expected = shownOf(1001);
    const auto client = newClientOf(1000);
    int changes = 0;
    connect(client.get(), &AuthSettingsClient::uidChanged, this, [&] {
        if (++changes < 6)
            client->setUid(client->uid() == 1001 ? 1000 : 1001);
    });
    client->setUid(1001);
    QCOMPARE(changes, 6);
    QCOMPARE(client->uid(), 1000U);
    QCOMPARE(shown(client.get()), shownOf(1000));
    client->setUid(1001);
    QCOMPARE(shown(client.get()), expected);
}

void TestUserOptions::writeSendsUserTokenKeyAndValue()
{
    const auto client = newClientOf(1000);
    grant(client.get(), token);
    daemon.answer("SetUserOption", "(true,)");
    client->setShowNotifications(false);
    client->triggerUnlockFactor("code"_s);
    QCOMPARE(daemon.calls(),
             (QStringList{writeCall(1000, token, "'devlock/show-notifications', <false>"),
                          writeCall(1000, token, "'worker/service-factors/login', <['code']>"),
                          writeCall(1000, token, "'worker/service-factors/unlock', <['sudis']>")}));
}

void TestUserOptions::failedWriteWarnsAndChangesNothing()
{
    const auto client = newClientOf(1000);
    const QStringList before = shown(client.get());
    SignalRecorder heard(client.get());
    daemon.misbehave("SetUserOption", "error", R"("message":"not you")");
    client->setShowNotifications(false);
    client->triggerUnlockFactor("code"_s);
    drain(client.get());
    const QString warning = R"(warning setUserOption failed: "not you")"_s;
    QCOMPARE(log->take(), (QStringList{warning, warning, warning}));
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(shown(client.get()), before);
}

void TestUserOptions::announcedLoginFactors()
{
    const auto client = newClientOf(1000);
    const ModelWatch watch(client->factors());
    SignalRecorder heard(client.get());
    announce(client.get(), "worker/service-factors/login", "['sudis', 'code']");
    QCOMPARE(heard.take(), QStringList{"model dataChanged(row 2, [258])"_s});
    QCOMPARE(shown(client.get()).mid(5, 3), (QStringList{"code chosen"_s, "smartcard"_s, "sudis chosen"_s}));
    QCOMPARE(client->unlockFactors(), (QStringList{"code"_s, "sudis"_s}));
    QCOMPARE(daemon.calls(), QStringList());
}

void TestUserOptions::announcedUnlockFactors()
{
    const auto client = newClientOf(1000);
    const ModelWatch watch(client->factors());
    SignalRecorder heard(client.get());
    announce(client.get(), "worker/service-factors/unlock", "['smartcard', 'code']");
    QCOMPARE(heard.take(),
             (QStringList{"unlockFactorsChanged()"_s, "userWarningChanged()"_s, "model dataChanged(row 1, [258])"_s,
                          "model dataChanged(row 2, [258])"_s}));
    QCOMPARE(client->unlockFactors(), (QStringList{"smartcard"_s, "code"_s}));
    QVERIFY(client->hasEnabledFactor("smartcard"_s));
    QVERIFY(!client->hasEnabledFactor("sudis"_s));
    QCOMPARE(daemon.calls(), QStringList());
}

void TestUserOptions::announcedUnlockFactorsAreEmittedAlways()
{
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    announce(1000, "worker/service-factors/unlock", "['code', 'sudis']");
    announce(1000, "worker/service-factors/unlock", "['code', 'sudis']");
    announce(client.get(), "worker/service-factors/login", "['code']");
    QCOMPARE(heard.take(), (QStringList{"unlockFactorsChanged()"_s, "unlockFactorsChanged()"_s}));
}

void TestUserOptions::announcedDisabledFactors()
{
    const auto client = newClientOf(1000);
    const ModelWatch watch(client->factors());
    SignalRecorder heard(client.get());
    announce(client.get(), "worker/disabled-factors", "['sudis', 'smartcard']");
    QCOMPARE(heard.take(), resetSignals);
    QCOMPARE(shown(client.get()).mid(5, 3),
             (QStringList{"code chosen"_s, "smartcard disabled"_s, "sudis chosen disabled unlock"_s}));
    QVERIFY(!client->hasFactor("sudis"_s));

    announce(client.get(), "worker/disabled-factors", "['smartcard', 'sudis']");
    QCOMPARE(heard.take(), QStringList());

    announce(client.get(), "worker/disabled-factors", "@as []");
    QCOMPARE(heard.take(), resetSignals);
    QCOMPARE(shown(client.get()), shownOf(1000));
}

void TestUserOptions::flagIsConverted_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("expected");
    for (const char *value : {"true", "1", "-7", "uint32 4", "byte 0x01", "0.5", "'true'", "'yes'"})
        QTest::newRow(value) << QByteArray(value) << true;
    for (const char *value : {"false", "0", "uint64 0", "0.0", "'false'", "'0'", "''", "<true>", "<'true'>", "['true']",
                              "[true]", "[<true>]", "(true, true)", "{'a': <true>}", "{'a': 'true'}", "@a{sv} {}"})
        QTest::newRow(value) << QByteArray(value) << false;
}

void TestUserOptions::flagIsConverted()
{
    QFETCH(QByteArray, value);
    QFETCH(bool, expected);
    const auto client = newClientOf(1000);
    for (const char *flag : {"true", "false"}) {
        for (const char *key :
             {"worker/is-multi-factorable", "worker/is-user-settable", "devlock/show-notifications"}) {
            announce(1000, key, flag);
            announce(1000, key, value);
        }
        drain(client.get());
        QCOMPARE(client->isMultiFactorable(), expected);
        QCOMPARE(client->isUserSettable(), expected);
        QCOMPARE(client->showNotifications(), expected);
    }

    const auto reader = newSettingsClient();
    daemon.answer("GetUserOption", "(<" + value + ">,)");
    daemon.answer("GetUserOptions", "({'worker/is-multi-factorable': <" + value + ">},)");
    reader->setUid(1000);
    QCOMPARE(reader->isMultiFactorable(), expected);
    QVERIFY(reader->isUserSettable());
    QCOMPARE(reader->showNotifications(), expected);
    QCOMPARE(reader->showLastLogin(1000), expected);
    daemon.answer("GetUserOptions", "({'worker/is-user-settable': <" + value + ">},)");
    reader->setUid(1001);
    QCOMPARE(reader->isUserSettable(), expected);
    QCOMPARE(reader->isMultiFactorable(), expected);
    QCOMPARE(log->take(), QStringList());
}

void TestUserOptions::listIsConverted_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QStringList>("expected");
    const auto row = [](const char *value, const QStringList &expected) {
        QTest::newRow(value) << QByteArray(value) << expected;
    };
    row("['code', 'sudis']", {"code"_s, "sudis"_s});
    row("['sudis', 'sudis', '']", {"sudis"_s, "sudis"_s, QString()});
    row("@as []", {});
    row("'code'", {"code"_s});
    row("5", {});
    row("true", {});
    row("0.5", {});
    row("<['code']>", {});
    row("[<'code'>]", {});
    row("[['code']]", {});
    row("('code', 'sudis')", {});
    row("{'code': <true>}", {});
    row("{'code': 'code'}", {});
    row("@a{sv} {}", {});
    row("[objectpath '/code']", {});
}

void TestUserOptions::listIsConverted()
{
    QFETCH(QByteArray, value);
    QFETCH(QStringList, expected);
    const auto client = newClientOf(1001);
    const ModelWatch watch(client->factors());
    const char *const keys[] = {"worker/service-factors/login", "worker/service-factors/unlock",
                                "worker/disabled-factors"};
    const auto check = [&] {
        QCOMPARE(client->unlockFactors(), expected);
        for (const char *name : {"code", "sudis"}) {
            const bool listed = expected.contains(QLatin1String(name));
            QCOMPARE(client->hasEnabledFactor(QLatin1String(name)), listed);
            QCOMPARE(client->hasFactor(QLatin1String(name)), !listed);
        }
        QCOMPARE(log->take(), QStringList());
    };
    for (const char *key : keys)
        announce(1001, key, value);
    drain(client.get());
    check();

    client->setUid(1000);
    QByteArrayList options;
    for (const char *key : keys)
        options.append(QByteArray("'") + key + "': <" + value + '>');
    daemon.answer("GetUserOptions", "({" + options.join(", ") + "},)");
    client->setUid(1001);
    check();
}

namespace {
// One announcement of each kind, with values that user 1000 does not have.
const QMap<QByteArray, QByteArray> news{
    {"worker/service-factors/login", "['smartcard']"},
    {"worker/service-factors/unlock", "['smartcard']"},
    {"worker/disabled-factors", "['code']"},
    {"worker/is-multi-factorable", "false"},
    {"worker/is-user-settable", "false"},
    {"devlock/show-notifications", "false"},
};
const QByteArrayList otherValues{"['smartcard']", "['code']", "false"};
} // namespace

void TestUserOptions::announcementForTheHighestUserIdIsTaken()
{
    const auto client = newClientOf(1000);
    client->setUid(highestUid);
    SignalRecorder heard(client.get());
    announce(highestUid, "devlock/show-notifications", "true");
    announce(client.get(), "worker/is-multi-factorable", "false");
    QCOMPARE(heard.take(), (QStringList{"showNotificationsChanged()"_s, "isMultiFactorableChanged()"_s}));
}

// Only a read makes a service known, also one that the daemon offers.
void TestUserOptions::announcementOfAServiceThatWasNeverReadIsIgnored()
{
    daemon.removeOption("worker/service-factors/unlock", 1000);
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    announce(client.get(), "worker/service-factors/unlock", "['smartcard']");
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(client->unlockFactors(), QStringList());

    client->setUid(1001);
    heard.take();
    announce(client.get(), "worker/service-factors/unlock", "['code']");
    QCOMPARE(heard.list().first(), "unlockFactorsChanged()"_s);
    QCOMPARE(client->unlockFactors(), QStringList{"code"_s});
}

void TestUserOptions::announcedServiceIsAllThatFollowsTheSecondSeparator_data()
{
    QTest::addColumn<QByteArray>("key");
    for (const char *key : {"worker/service-factors/unlock", "worker/service-factorsX/unlock",
                            "worker/service-factors-and-more/unlock", "worker/service-factors вход/unlock"})
        QTest::newRow(key) << QByteArray(key);
}

void TestUserOptions::announcedServiceIsAllThatFollowsTheSecondSeparator()
{
    QFETCH(QByteArray, key);
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    announce(client.get(), key, "['code']");
    QCOMPARE(heard.take(), (QStringList{"unlockFactorsChanged()"_s, "model dataChanged(row 2, [258])"_s}));
    QCOMPARE(client->unlockFactors(), QStringList{"code"_s});
}

void TestUserOptions::announcedServiceMayHaveAnyName_data()
{
    switchMirrorsEachService_data();
}

void TestUserOptions::announcedServiceMayHaveAnyName()
{
    QFETCH(QString, service);
    offer({"first"_s, service, "last"_s}, {"code"_s, "sudis"_s});
    daemon.arrangeOption("worker/service-factors/" + service.toUtf8(), R"(["sudis"])", 1000);
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    announce(client.get(), "worker/service-factors/" + service.toUtf8(), "['code']");
    QVERIFY(client->hasEnabledFactor("code"_s));
    QVERIFY(!client->hasEnabledFactor("sudis"_s));
    QCOMPARE(heard.take().count("unlockFactorsChanged()"_s), service == "unlock"_s ? 1 : 0);
}

void TestUserOptions::otherAnnouncementsAreIgnored_data()
{
    QTest::addColumn<uint>("selected");
    QTest::addColumn<uint>("uid");
    QTest::addColumn<QByteArrayList>("keys");
    const QByteArrayList all = news.keys();
    for (const uint uid : {0U, 1U, 999U, 1001U, 1000U + 65536U, highestUid})
        QTest::addRow("of another user, %u", uid) << 1000U << uid << all;
    for (const uint uid : {0U, 1000U})
        QTest::addRow("without a user, of %u", uid) << 0U << uid << all;
    for (const char *key :
         {"worker/service-factors", "worker/service-factors/", "worker/service-factors/other",
          "worker/service-factors/Unlock", "worker/service-factors//unlock", "worker/service-factors/unlock/",
          "worker/service-factors/x/unlock", "worker/service-factors-and-more/x/unlock", "worker/service-factorsunlock",
          "worker/service-factors/ unlock", "worker/service-factors/вход"})
        QTest::addRow("of an unknown service, %s", key) << 1000U << 1000U << QByteArrayList{key};
    for (const char *key : {"",
                            "/",
                            "worker/",
                            "devlock/",
                            "service-factors/unlock",
                            "Worker/service-factors/unlock",
                            " worker/service-factors/unlock",
                            "devlock/service-factors/unlock",
                            "worker/service-factor/unlock",
                            "is-multi-factorable",
                            "devlock/is-multi-factorable",
                            "worker/is-multi-factorable/",
                            "worker/is-multi",
                            "is-user-settable",
                            "devlock/is-user-settable",
                            "worker/is-user-settable ",
                            "worker/Is-user-settable",
                            "disabled-factors",
                            "worker/disabled-factors/code",
                            "devlock/disabled-factors",
                            "show-notifications",
                            "worker/show-notifications",
                            "devlock/show-notifications/",
                            "devlock/show-notifications-too",
                            "worker/show-last-login",
                            "worker/last-login-date",
                            "worker/can-switch-to-user"})
        QTest::addRow("of another key, %s", key) << 1000U << 1000U << QByteArrayList{key};
}

void TestUserOptions::otherAnnouncementsAreIgnored()
{
    QFETCH(uint, selected);
    QFETCH(uint, uid);
    QFETCH(QByteArrayList, keys);
    const auto client = newClientOf(1000);
    client->setUid(selected);
    const QStringList before = shown(client.get());
    SignalRecorder heard(client.get());
    for (const QByteArray &key : qAsConst(keys)) {
        for (const QByteArray &value : news.contains(key) ? QByteArrayList{news.value(key)} : otherValues)
            announce(uid, key, value);
    }
    if (selected == 0)
        announce(uid, "devlock/show-notifications", "true");
    drain(client.get());
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(shown(client.get()), before);
    QCOMPARE(log->take(), QStringList());
}

void TestUserOptions::otherSignatureIsIgnored()
{
    const auto client = newClientOf(1000);
    SignalRecorder heard(client.get());
    for (const char *args :
         {"(uint32 1000, 'devlock/show-notifications')", "(uint64 1000, 'devlock/show-notifications', <false>)",
          "(uint32 1000, 'devlock/show-notifications', false)", "(uint32 1000, 'devlock/show-notifications', 'false')",
          "(uint32 1000, <'devlock/show-notifications'>, <false>)", "(uint32 1000, objectpath '/devlock', <false>)"})
        daemon.emitSignal("UserOptionChanged", args);
    drain(client.get());
    QCOMPARE(heard.take(), QStringList());
    QVERIFY(client->showNotifications());
}

void TestUserOptions::queuedAnnouncementOfThePreviousUserIsIgnored()
{
    const auto client = newClientOf(1000);
    for (auto option = news.begin(); option != news.end(); ++option)
        announce(1000, option.key(), option.value());
    // The switch's blocking calls bring them in; the event loop has yet to deliver them.
    client->setUid(1001);
    const QStringList before = shown(client.get());
    SignalRecorder heard(client.get());
    announce(1000, "devlock/show-notifications", "true");
    drain(client.get());
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(shown(client.get()), before);
    QCOMPARE(before, shownOf(1001));
}

void TestUserOptions::queuedAnnouncementOfTheNextUserIsTaken()
{
    const auto client = newClientOf(1000);
    daemon.changeOption("devlock/show-notifications", "true", 1001);
    announce(1001, "worker/is-multi-factorable", "true");
    client->setUid(1001);
    QVERIFY(client->showNotifications());
    QVERIFY(!client->isMultiFactorable());
    SignalRecorder heard(client.get());
    drain(client.get());
    QCOMPARE(heard.take(), QStringList{"isMultiFactorableChanged()"_s});
    QVERIFY(client->isMultiFactorable());
}

void TestUserOptions::lastLoginIsAskedForOnDemand_data()
{
    QTest::addColumn<uint>("current");
    QTest::newRow("nobody selected") << 0U;
    QTest::newRow("the user selected") << 1000U;
    QTest::newRow("another selected") << 1001U;
}

void TestUserOptions::lastLoginIsAskedForOnDemand()
{
    QFETCH(uint, current);
    daemon.arrangeOption("worker/show-last-login", "true", 1000);
    daemon.arrangeOption("worker/last-login-date", R"("вчера, 08:15")", 1000);
    const auto client = newClientOf(current);
    QVERIFY(client->showLastLogin(1000));
    QCOMPARE(client->lastLoginDate(1000), "вчера, 08:15"_s);
    QCOMPARE(daemon.calls(),
             (QStringList{readCall(1000, "worker/show-last-login"), readCall(1000, "worker/last-login-date")}));

    // Nothing is kept.
    daemon.arrangeOption("worker/show-last-login", "false", 1000);
    daemon.arrangeOption("worker/last-login-date", R"("")", 1000);
    QVERIFY(!client->showLastLogin(1000));
    QCOMPARE(client->lastLoginDate(1000), QString());
    QCOMPARE(daemon.calls().size(), 4);
    QCOMPARE(log->take(), QStringList());
}

void TestUserOptions::lastLoginOfNobodyIsNotAskedFor_data()
{
    nobodyRows();
}

void TestUserOptions::lastLoginOfNobodyIsNotAskedFor()
{
    QFETCH(uint, uid);
    daemon.answer("GetUserOption", "(<'true'>,)");
    const auto client = newClientOf(1000);
    QVERIFY(!client->showLastLogin(uid));
    QCOMPARE(client->lastLoginDate(uid), QString());
    QCOMPARE(daemon.calls(), QStringList());
    QVERIFY(client->showLastLogin(1));
    QVERIFY(client->showLastLogin(highestUid - 1));
    QCOMPARE(daemon.calls(),
             (QStringList{readCall(1, "worker/show-last-login"), readCall(highestUid - 1, "worker/show-last-login")}));
    QCOMPARE(log->take(), QStringList());
}

void TestUserOptions::lastLoginTouchesNothing()
{
    const auto client = newClientOf(1000);
    const QStringList before = shown(client.get());
    SignalRecorder heard(client.get());
    client->showLastLogin(1001);
    client->lastLoginDate(1001);
    drain(client.get());
    QCOMPARE(heard.take(), QStringList());
    QCOMPARE(client->uid(), 1000U);
    QCOMPARE(shown(client.get()), before);
}

void TestUserOptions::failedReadOfTheLastLogin()
{
    daemon.misbehave("GetUserOption", "error", R"("message":"true")");
    const auto client = newSettingsClient();
    QVERIFY(!client->showLastLogin(1000));
    QCOMPARE(client->lastLoginDate(1000), QString());
    const QString warning = R"(warning getUserOption failed: "true")"_s;
    QCOMPARE(log->take(), (QStringList{warning, warning}));
}

void TestUserOptions::lastLoginDateIsConverted_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char *value, const char *expected) {
        QTest::newRow(value) << QByteArray(value) << QString::fromUtf8(expected);
    };
    row("'2026-11-20 08:15'", "2026-11-20 08:15");
    row("'  '", "  ");
    row("''", "");
    row("5", "5");
    row("true", "true");
    row("0.5", "0.5");
    row("<'2026'>", "");
    row("['2026']", "2026");
    row("['2026', '2027']", "");
    row("{'date': <'2026'>}", "");
    row("('2026',)", "");
    row("[<'2026'>]", "");
}

void TestUserOptions::lastLoginDateIsConverted()
{
    QFETCH(QByteArray, value);
    QFETCH(QString, expected);
    daemon.answer("GetUserOption", "(<" + value + ">,)");
    const auto client = newSettingsClient();
    QCOMPARE(client->lastLoginDate(1000), expected);
    QCOMPARE(log->take(), QStringList());
}

void TestUserOptions::warningsNameTheirFunction()
{
    const auto client = newSettingsClient();
    for (const char *method : {"GetUserOption", "GetUserOptions", "SetUserOption"})
        daemon.misbehave(method, "error");
    FunctionRecorder recorder;
    client->setUid(1000);
    client->setShowNotifications(true);
    const QString place = "src/auth-settings-client.cpp %1"_s;
    QCOMPARE(recorder.functions,
             (QStringList{
                 place.arg("QVariantMap AuthSettingsClientPrivate::getUserOptions(uint, const QStringList&)"_s),
                 place.arg("QVariant AuthSettingsClientPrivate::getUserOption(uint, const QString&)"_s),
                 place.arg("bool AuthSettingsClientPrivate::setUserOption(uint, const QString&, const QVariant&)"_s),
             }));
    QCOMPARE(log->takeComplaints().size(), 3);
}

QTEST_GUILESS_MAIN(TestUserOptions)
#include "tst_useroptions.moc"
