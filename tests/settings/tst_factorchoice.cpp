#include "settings-test-case.h"

/** Toggling factors, and what is written of it. */
class TestFactorChoice : public SettingsTestCase
{
    Q_OBJECT

private:
    void allowSeveral();
    WatchedClient clientOf(uint uid);
    QStringList takeCalls();

private Q_SLOTS:
    void togglesAreWritten_data();
    void togglesAreWritten();
    void init();

    void rowOfAnotherServiceMayNotBeToggled_data();
    void rowOfAnotherServiceMayNotBeToggled();
    void rowThatIsNotThereMayNotBeToggled_data();
    void rowThatIsNotThereMayNotBeToggled();
    void rowOfAnEmptyModelMayNotBeToggled();

    void writesAreOfTheSelectedUser_data();
    void writesAreOfTheSelectedUser();
    void writesBearTheToken();
    void writesWithoutAUserAreRefusedByTheDaemon();

    void refusedWritesChangeNothing_data();
    void refusedWritesChangeNothing();
    void writesFailWithoutAPeer();

    void lastNamesakeDecides_data();
    void lastNamesakeDecides();

    void toggleInAHandlerStartsFromTheMarksSoFar();
    void manyFactorsAreWritten();
    void oddNamesAreWritten();
    void oddServicesAreWritten();
};

namespace {
const QByteArray token = "s3cr3t token";
const QString invalidIndex = QStringLiteral("warning canTriggerFactor invalid index %1");
const QString unlockRow = QStringLiteral("warning canTriggerFactor Couldn't manipulate unlock factors");
const QString refused = QStringLiteral("warning setUserOption failed: \"must not\"");

// How the choice for a service is written.
QString write(const QString &service, const QStringList &chosen, uint uid = 1000, const QByteArray &withToken = {})
{
    return settingsCall("SetUserOption", "uaysv",
                        "(uint32 " + QByteArray::number(uid) + ", " + bytes(withToken) + ", 'worker/service-factors/"
                            + service.toUtf8() + "', <" + gvariant(chosen) + ">)");
}

QStringList writes(const char *login, const char *unlock)
{
    return {write("login"_s, names(login)), write("unlock"_s, names(unlock))};
}

// The names of the rows that are wanted to be chosen.
QString wishes(AuthSettingsClient &client, const char *of)
{
    QStringList result;
    for (const QString &name : names(of)) {
        if (client.hasChosenFactor(name))
            result.append(name);
    }
    return result.join(QLatin1Char(' '));
}
} // namespace

void TestFactorChoice::init()
{
    TestCase::init();
    disable({});
}

void TestFactorChoice::allowSeveral()
{
    daemon.arrangeOption("worker/is-multi-factorable", "true", 1000);
}

// A client whose writes are accepted and do nothing, unless the test arranges something else afterwards.
WatchedClient TestFactorChoice::clientOf(uint uid)
{
    daemon.answer("SetUserOption", "(true,)");
    return WatchedClient(newClientOf(uid), uid);
}

QStringList TestFactorChoice::takeCalls()
{
    QStringList result = daemon.calls();
    daemon.clearCalls();
    return result;
}

void TestFactorChoice::togglesAreWritten_data()
{
    QTest::addColumn<QByteArray>("story");
    const auto story = [](const char *name, const char *steps) { QTest::newRow(name) << QByteArray(steps); };
    story("only chosen login factor may not be toggled",
          "offer login: a b c; unlock: a | login: b | user 1000 | may toggle 0 | not may toggle 1 "
          "| may toggle 2 | quiet");
    story("each of several chosen may be toggled",
          "offer login: a b c d | login: b d | user 1000 | may toggle 0 1 2 3");
    story("each may be toggled while none is chosen",
          "offer login: a b; unlock: a | unlock: a | user 1000 | may toggle 0 1");
    story("asking changes nothing",
          "offer login: a b | login: a | user 1000 | may toggle 1 | may toggle 1 ! nothing "
          "| look > nothing "
          "| wishes a | quiet");
    story("single mode chooses instead of the other",
          "offer login: a b c; unlock: b | login: b | unlock: b | user 1000 | toggle 0 > a / b "
          "| wishes a");
    story("single mode unchoosing leaves none",
          "offer login: a b c; unlock: c | login: a b c | unlock: c | user 1000 | toggle 1 > nothing / c "
          "| wishes nothing");
    story("single mode unchooses unlock rows too",
          "offer login: a b x; unlock: c d | login: a | unlock: c d | disabled: x "
          "| user 1000 = a chosen, b, c chosen unlock, d chosen unlock | toggle 1 > b / nothing "
          "| wishes b");
    story("single mode keeps what has no row",
          "offer login: a b x; unlock: a c | login: a x | disabled: x | user 1000 | unlock: a c = a chosen, b "
          "| toggle 1 "
          // The login factor that is disabled, and unlock factors that are not shown.
          "| look > b x / a c");
    story("single mode keeps the unlock factor of the same name",
          "offer login: a b; unlock: a b | login: a | unlock: b | user 1000 | toggle 1 > b / b");
    story("single mode keeps namesakes as they are",
          "offer login: a b a; unlock: c | login: a | user 1000 = a chosen, b, a chosen "
          "| toggle 2 > a / nothing "
          "| login: nothing | toggle 0 > a / nothing "
          "| toggle 2 > a a / nothing "
          "| toggle 1 > b / nothing");
    story("single mode keeps the wishes for namesakes",
          "offer login: a b c; unlock: a b d | unlock: b d | user 1000 | refuse | toggle unlock a "
          "| toggle unlock b > nothing / a b d, nothing / a d "
          // The one is wanted and not chosen, the other is chosen and not wanted.
          "| toggle 0 > a / a d "
          "| toggle 1 > b / a d "
          "| toggle 2 > c / a d");
    story("several mode chooses in addition",
          "offer login: a b c; unlock: b | login: c | several: yes | user 1000 | toggle 1 > b c / nothing "
          "| wishes b c");
    story("several mode unchooses one",
          "offer login: a b c; unlock: b | login: a b c | unlock: b | several: yes | user 1000 "
          "| toggle 1 > a c / b "
          "| wishes a c");
    story("several mode keeps unlock rows",
          "offer login: a b x; unlock: c d | login: a | unlock: d | disabled: x | several: yes "
          "| user 1000 = a chosen, b, d chosen unlock | toggle 1 > a b / d");
    story("several mode toggles one namesake",
          "offer login: a a; unlock: a | login: a | unlock: a | several: yes | user 1000 | toggle 0 > a / a "
          "| toggle 1 > nothing / a");
    story("choice is written in the order of the offer",
          "offer login: z M a b; unlock: y x w | login: b a | unlock: w y | several: yes | user 1000 "
          "| toggle 0 > z a b / y w");
    story("choices that are not offered are not written",
          "offer login: a b; unlock: c | login: a gone | unlock: gone c | several: yes | user 1000 "
          "| toggle 1 > a b / c");
    story("each toggle writes each service",
          "offer login: a b; unlock: c | login: a | user 1000 | toggle 1 | toggle 1 "
          "| toggle unlock none > b / nothing, b / nothing, b / nothing");
    story("writes without a user are of user zero",
          "offer login: a b; unlock: a | user 0 | toggle 1 > b / nothing "
          "| wishes b");
    story("toggle changes the wish alone",
          "offer login: a b smartcard; unlock: c | login: a | user 1000 | toggle 2 | toggle unlock c ! nothing "
          "| look = a chosen, b, smartcard "
          "| enabled a | not enabled smartcard c | wishes smartcard | not warned | unlock factors nothing "
          // Still the only one that is chosen.
          "| not may toggle 0 | quiet");
    story("wishes of refused toggles are written with the next",
          "offer login: a b c d; unlock: c | login: b d | several: yes | user 1000 | refuse "
          "| toggle 0 > a b d / nothing "
          "| toggle 1 > a d / nothing "
          "| toggle 2 > a c d / nothing "
          "| wishes a c d = a, b chosen, c, d chosen");
    story("single mode forgets wishes of refused toggles",
          "offer login: a b c; unlock: c | login: b | user 1000 | refuse | toggle 0 > a / nothing "
          "| toggle 2 > c / nothing "
          "| wishes c "
          // What the daemon has chosen is still the only one.
          "| toggle 1 > nothing");
    story("wish outlives announcements of others",
          "offer login: a b c d; unlock: c | login: b | several: yes | user 1000 | toggle 0 | login: b c "
          "| wishes a b c "
          // A rebuild of the rows keeps it too.
          "| settable: no | settable: yes | wishes a b c | forget calls | toggle 3 > a b c d / nothing");
    story("wish is overwritten when its factor changes",
          "offer login: a b c; unlock: c | login: b | user 1000 | toggle 0 | wishes a | login: a b | wishes a "
          "| login: b | wishes nothing | login: nothing | login: b | wishes b");
    story("wish of a login factor is written with an unlock factor",
          "offer login: a b; unlock: a c | login: b | user 1000 | refuse | toggle 0 > a / nothing "
          "| toggle unlock c > a / c");
    story("wishes of unlock factors are written with a login factor",
          "offer login: a b; unlock: a c | login: b | user 1000 | refuse | toggle unlock a | toggle unlock c "
          "| forget calls | toggle 0 > a / a c");
    story("unlock factor is chosen in addition",
          "offer login: a; unlock: a b c | unlock: c | user 1000 | toggle unlock b > nothing / b c");
    story("unlock factor is unchosen beside others",
          "offer login: a; unlock: a b c d | unlock: a b c | user 1000 | toggle unlock b > nothing / a c");
    story("sudis is chosen alone",
          "offer login: sudis; unlock: code smartcard sudis broken | unlock: smartcard broken | user 1000 "
          "| toggle unlock sudis > nothing / sudis");
    story("sudis is chosen where none is",
          "offer login: a; unlock: code sudis | user 1000 | toggle unlock sudis > nothing / sudis");
    story("sudis takes away what is only wanted with what is chosen",
          "offer login: a; unlock: code smartcard sudis broken | unlock: code | user 1000 | refuse "
          "| toggle unlock broken > nothing / code broken "
          "| toggle unlock sudis > nothing / sudis "
          // Chosen by the daemon, it is still another, though it is not wanted.
          "| toggle unlock broken | toggle unlock sudis > nothing / sudis broken, nothing / sudis");
    story("sudis is unchosen beside others",
          "offer login: a; unlock: code sudis smartcard broken | unlock: code sudis broken | user 1000 "
          "| toggle unlock sudis > nothing / code broken");
    story("others are chosen beside sudis",
          "offer login: a; unlock: code sudis | unlock: sudis | user 1000 "
          "| toggle unlock code > nothing / code sudis");
    story("only sudis has no other letters",
          "offer login: a; unlock: code Sudis sudis2 | unlock: code | user 1000 "
          "| toggle unlock Sudis > nothing / code Sudis "
          "| toggle unlock sudis2 > nothing / code Sudis sudis2 "
          "| toggle unlock sudis > nothing / code Sudis sudis2");
    story("last unlock factor without others leaves none",
          "offer login: a b; unlock: a | unlock: a | user 1000 | toggle unlock a > nothing / nothing");
    story("unlock factor offered twice is toggled twice",
          "offer login: a; unlock: b c b | user 1000 | toggle unlock b > nothing / b b "
          // Namesakes are not others.
          "| unlock: b | toggle unlock b > nothing / c");
    story("login factor offered twice is toggled row by row",
          "offer login: a b a; unlock: a a | login: a | unlock: a | user 1000 "
          // Both rows count, so that neither is the only one.
          "| may toggle 0 2 | refuse | toggle 0 > a / a a "
          "| wishes a | toggle 2 > nothing / a a "
          "| wishes nothing "
          // The daemon says nothing new of them, and knows one name where there are two rows.
          "| login: a | toggle 1 > b / a a");
    story("login factors are left alone by unlock factors",
          "offer login: code sudis broken; unlock: code sudis broken | login: code broken | unlock: code "
          "| user 1000 | toggle unlock code > code broken / sudis broken "
          "| toggle unlock sudis > code broken / sudis "
          "| wishes code broken");
    story("other chosen means chosen by the daemon",
          "offer login: a; unlock: code sudis broken | user 1000 | refuse | toggle unlock code > nothing / code "
          // The wish for another does not count, and stays.
          "| toggle unlock sudis > nothing / code sudis "
          "| unlock: broken | toggle unlock broken > nothing / code sudis");
    story("refused replacement is written with the next",
          "offer login: a; unlock: code smartcard broken | unlock: code | user 1000 | refuse "
          "| toggle unlock code > nothing / smartcard broken "
          "| toggle unlock smartcard > nothing / smartcard broken "
          "| toggle unlock none > nothing / smartcard broken "
          "| unlock factors code");
    story("unlock factor without a user is written for user zero",
          "offer login: a; unlock: a b | user 0 | toggle unlock b > nothing / b");
    story("same name is written as often as it is there",
          "offer login: a a a a a; unlock: a a a | login: a | user 1000 | toggle 2 > a a a a / nothing "
          "| toggle unlock a > a a a a / a a a");
    story("refused toggle does nothing, single mode",
          "offer login: a b; unlock: b | login: a | several: no | user 1000 | toggle 0 > nothing ! nothing "
          "| wishes a | quiet");
    story("refused toggle does nothing, several mode",
          "offer login: a b; unlock: b | login: a | several: yes | user 1000 | toggle 0 > nothing ! nothing "
          "| wishes a | quiet");
    story("mode is the one announced",
          "offer login: a b; unlock: b | login: b | user 1000 | several: yes | toggle 0 > a b / nothing "
          "| several: no | toggle 0 > a / nothing");
    story("each service is written in the order of names",
          "offer unlock: b; Вход: e; login: a; Zeta: c; login2: nothing; alpha: d | unlock: b "
          "| alpha: d | user 1000 "
          "| toggle 0 > Zeta: nothing; alpha: d; login: a; login2: nothing; unlock: b; Вход: nothing");
    story("service named twice is written once",
          "offer login: a b; unlock: c | services: login unlock login | login: a | unlock: c | several: yes "
          "| user 1000 = a chosen, b, a chosen, b | toggle 3 > a a b / c");
    story("refused toggle is repeated as it was",
          "offer login: a b; unlock: c d | login: b | unlock: d | several: yes | user 1000 | refuse "
          "| toggle 0 > a b / d | toggle 0 > a b / d | toggle 0 > a b / d "
          "| toggle unlock c > a b / c d | toggle unlock c > a b / c d | toggle unlock c > a b / c d");
    story(
        "last unlock factor is replaced by all others, the first",
        "offer login: a; unlock: code smartcard sudis broken | login: a | unlock: code | disabled: broken | user 1000 "
        "| toggle unlock code > a / smartcard sudis broken");
    story("last unlock factor is replaced by all others, the second",
          "offer login: a; unlock: code smartcard sudis broken | login: a | unlock: smartcard | disabled: broken | "
          "user 1000 "
          "| toggle unlock smartcard > a / code sudis broken");
    story(
        "last unlock factor is replaced by all others, the exclusive one",
        "offer login: a; unlock: code smartcard sudis broken | login: a | unlock: sudis | disabled: broken | user 1000 "
        "| toggle unlock sudis > a / code smartcard broken");
    story("last unlock factor is replaced by all others, the last",
          "offer login: a; unlock: code smartcard sudis broken | login: a | unlock: broken | disabled: broken | user "
          "1000 "
          "| toggle unlock broken > a / code smartcard sudis");
    story("unknown name writes the choice as it is, chosen nothing",
          "offer login: a x; unlock: b c | login: x | unlock: nothing | user 1000 | toggle unlock d > x / nothing "
          "| toggle unlock '' > x / nothing | toggle unlock a > x / nothing | toggle unlock B > x / nothing "
          "| toggle unlock sudis > x / nothing | quiet");
    story("unknown name writes the choice as it is, chosen b",
          "offer login: a x; unlock: b c | login: x | unlock: b | user 1000 | toggle unlock d > x / b "
          "| toggle unlock '' > x / b | toggle unlock a > x / b | toggle unlock B > x / b "
          "| toggle unlock sudis > x / b | quiet");
    story("unknown name writes the choice as it is, chosen b c",
          "offer login: a x; unlock: b c | login: x | unlock: b c | user 1000 | toggle unlock d > x / b c "
          "| toggle unlock '' > x / b c | toggle unlock a > x / b c | toggle unlock B > x / b c "
          "| toggle unlock sudis > x / b c | quiet");
    story(
        "unlock factors need no row",
        "offer unlock: a b c | unlock: a | disabled: a b c | settable: no | user 1000 | toggle unlock c > unlock: a c");
    story("unlock factors heed no mode, single mode",
          "offer login: a b x; unlock: c d e | login: a b | unlock: c d | disabled: x | several: no "
          "| user 1000 = a chosen, b chosen, c chosen unlock, d chosen unlock | toggle unlock e > a b / c d e "
          "| toggle unlock c > a b / d e | wishes a b d | quiet");
    story("unlock factors heed no mode, several mode",
          "offer login: a b x; unlock: c d e | login: a b | unlock: c d | disabled: x | several: yes "
          "| user 1000 = a chosen, b chosen, c chosen unlock, d chosen unlock | toggle unlock e > a b / c d e "
          "| toggle unlock c > a b / d e | wishes a b d | quiet");
    story("other services are left alone by unlock factors",
          "offer sudo: code sudis; unlock: code sudis; Unlock: code sudis | sudo: code | Unlock: code | user 1000 "
          "| toggle unlock code > Unlock: code; sudo: code; unlock: code "
          "| unlock: code | toggle unlock code > Unlock: code; sudo: code; unlock: sudis");
    story("without an unlock service the rest is written",
          "offer login: a b | login: a | user 1000 | toggle unlock a > login: a | toggle 1 > login: b");
    story("first write fails and the other is made",
          "offer login: a b; unlock: c | login: a | user 1000 | fail write 1 "
          "| toggle 1 > b / nothing | failed");
    story("last write fails and the first is kept",
          "offer login: code sudis; unlock: code sudis | login: code | unlock: code | authenticated user 1000 "
          "| fail write 2 | toggle 1 | failed "
          "| look ! mark 0, mark 1 "
          "| look = code, sudis chosen | unlock factors code");
    story("first service refused changes the other alone",
          "offer login: code sudis; unlock: code sudis | login: code | unlock: code | authenticated user 1000 "
          "| fail write 1 | toggle unlock sudis | failed "
          "| look ! unlock, mark 0, mark 1 "
          "| look = code chosen, sudis | unlock factors sudis");
    story("accepted toggle is shown once announced, after the reply",
          "offer login: code smartcard sudis; unlock: code | login: code | unlock: code | authenticated user 1000 "
          "| toggle 1 = code chosen, smartcard, sudis | stored login: smartcard | wishes smartcard | undelivered "
          "| look ! mark 0, warning, mark 1, unlock "
          "| look = code, smartcard chosen, sudis | warned | unlock factors code");
    story("accepted toggle is shown once announced, before the reply",
          "offer login: code smartcard sudis; unlock: code | login: code | unlock: code | announce first | "
          "authenticated user 1000 "
          "| toggle 1 = code chosen, smartcard, sudis | stored login: smartcard | wishes smartcard | undelivered "
          "| look ! mark 0, warning, mark 1, unlock "
          "| look = code, smartcard chosen, sudis | warned | unlock factors code");
    story("unannounced toggle is not shown",
          "offer login: code sudis smartcard; unlock: code | login: code | several: yes | lose news "
          "| authenticated user 1000 | toggle 1 ! nothing "
          "| look = code chosen, sudis, smartcard | not may toggle 0 | stored login: code sudis "
          "| toggle 2 | stored login: code sudis smartcard");
    story("second toggle starts from what is shown",
          "offer login: code sudis smartcard; unlock: x | login: code | several: yes | authenticated user 1000 "
          // As long as it is shown as the only one, it is taken for it.
          "| toggle 1 | toggle 2 | toggle 0 | stored login: code sudis smartcard "
          // The last announcement overwrites nothing: each change marks its factor once.
          "| look ! mark 1, unlock, warning, mark 2, unlock "
          "| look = code chosen, sudis chosen, smartcard chosen "
          "| toggle 0 ! mark 0, unlock "
          "| look = code, sudis chosen, smartcard chosen");
    story("second toggle in single mode takes the first back",
          "offer login: code sudis broken; unlock: x | login: code | authenticated user 1000 "
          "| toggle 1 | toggle 2 | stored login: broken "
          "| look ! mark 0, mark 1, unlock, mark 1, mark 2, unlock "
          "| look = code, sudis, broken chosen | wishes broken");
    story("same toggle twice writes the same",
          "offer login: code sudis; unlock: code sudis | login: code | unlock: code | several: yes | authenticated "
          "user 1000 "
          "| toggle 1 | toggle 1 | toggle unlock sudis | toggle unlock sudis | stored login: code sudis "
          "| stored unlock: sudis | deliver = code chosen, sudis chosen | unlock factors sudis");
    story("accepted unlock factor is shown once announced",
          "offer login: code; unlock: code sudis | login: code | unlock: code | authenticated user 1000 "
          "| toggle unlock sudis | unlock factors code | undelivered "
          "| look ! unlock, mark 0 "
          "| unlock factors sudis | enabled sudis | toggle unlock sudis | deliver | unlock factors code");
}

void TestFactorChoice::togglesAreWritten()
{
    QFETCH(QByteArray, story);
    play(story.constData());
}

void TestFactorChoice::rowOfAnotherServiceMayNotBeToggled_data()
{
    QTest::addColumn<QByteArray>("service");
    QTest::newRow("unlock") << QByteArray("unlock");
    QTest::newRow("another") << QByteArray("sudo");
}

void TestFactorChoice::rowOfAnotherServiceMayNotBeToggled()
{
    QFETCH(QByteArray, service);
    offer({{"login"_s, names("a b x")}, {QString::fromLatin1(service), names("c")}});
    choose("login", names("a b"));
    choose(service, names("c"));
    disable(names("x"));
    const WatchedClient client = clientOf(1000);
    QVERIFY(rows(*client).startsWith("a chosen, b chosen, c chosen"_s));
    SignalRecorder heard(client.get());
    QVERIFY(!client->canTriggerFactor(2));
    QCOMPARE(log->take(), QStringList{unlockRow});
    // Nor when it is no longer chosen.
    announceChosen(client.get(), service, {});
    heard.take();
    QVERIFY(!client->canTriggerFactor(2));
    QCOMPARE(log->take(), QStringList{unlockRow});
    client->triggerFactor(2);
    drain(client.get());
    QCOMPARE(log->take(), QStringList{unlockRow});
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(heard.list(), QStringList());
    QVERIFY(!client->hasChosenFactor("c"_s));
}

void TestFactorChoice::rowThatIsNotThereMayNotBeToggled_data()
{
    QTest::addColumn<int>("row");
    for (int row : {-1, 2, 3, INT_MAX, INT_MIN})
        QTest::addRow("%d", row) << row;
}

void TestFactorChoice::rowThatIsNotThereMayNotBeToggled()
{
    QFETCH(int, row);
    offer({{"login"_s, names("a b")}, {"unlock"_s, names("c")}});
    const WatchedClient client = clientOf(1000);
    SignalRecorder heard(client.get());
    QVERIFY(!client->canTriggerFactor(row));
    QCOMPARE(log->take(), QStringList{invalidIndex.arg(row)});
    client->triggerFactor(row);
    drain(client.get());
    QCOMPARE(log->take(), QStringList{invalidIndex.arg(row)});
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(heard.list(), QStringList());
}

void TestFactorChoice::rowOfAnEmptyModelMayNotBeToggled()
{
    offer({});
    const WatchedClient client = clientOf(1000);
    QVERIFY(!client->canTriggerFactor(0));
    client->triggerFactor(0);
    QCOMPARE(log->take(), (QStringList{invalidIndex.arg(0), invalidIndex.arg(0)}));
    QCOMPARE(daemon.calls(), QStringList());
}

void TestFactorChoice::writesAreOfTheSelectedUser_data()
{
    QTest::addColumn<uint>("uid");
    for (uint uid : {1U, 1000U, 100000U, 2147483648U, 4294967294U, 4294967295U})
        QTest::addRow("%u", uid) << uid;
}

void TestFactorChoice::writesAreOfTheSelectedUser()
{
    QFETCH(uint, uid);
    offer({{"login"_s, names("a")}, {"unlock"_s, names("b")}});
    daemon.answer("GetUserOptions", "(@a{sv} {},)");
    daemon.answer("GetUserOption", "(<false>,)");
    const WatchedClient client = clientOf(uid);
    client->triggerFactor(0);
    QCOMPARE(daemon.calls(), (QStringList{write("login"_s, names("a"), uid), write("unlock"_s, {}, uid)}));
}

void TestFactorChoice::writesBearTheToken()
{
    offer({{"login"_s, names("a")}, {"unlock"_s, names("b")}});
    const WatchedClient client = clientOf(1000);
    grant(client.get(), token);
    client->triggerFactor(0);
    QCOMPARE(takeCalls(), (QStringList{write("login"_s, names("a"), 1000, token), write("unlock"_s, {}, 1000, token)}));
    client->dropAuthentication();
    client->triggerUnlockFactor("b"_s);
    QCOMPARE(takeCalls(), writes("a", "b"));
}

void TestFactorChoice::writesWithoutAUserAreRefusedByTheDaemon()
{
    const WatchedClient client(newSettingsClient(), 0);
    client->triggerFactor(1);
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 2);
    for (const QString &complaint : complaints)
        QVERIFY2(complaint.startsWith("warning setUserOption failed: \""_s), qPrintable(complaint));
    QCOMPARE(daemon.calls().size(), 2);
}

void TestFactorChoice::refusedWritesChangeNothing_data()
{
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<QByteArray>("more");
    QTest::addColumn<QStringList>("complaints");
    const auto row = [](const char *how, const char *more, const QStringList &complaints) {
        QTest::newRow(how) << QByteArray(how) << QByteArray(more) << complaints;
    };
    row("reply", "\"value\":\"(false,)\"", {});
    row("error", "\"message\":\"must not\"", {refused, refused});
}

void TestFactorChoice::refusedWritesChangeNothing()
{
    QFETCH(QByteArray, how);
    QFETCH(QByteArray, more);
    QFETCH(QStringList, complaints);
    offer({{"login"_s, names("a b")}, {"unlock"_s, names("c")}});
    choose("login", names("a"));
    const WatchedClient client = clientOf(1000);
    daemon.misbehave("SetUserOption", how.constData(), more);
    SignalRecorder heard(client.get());
    client->triggerFactor(1);
    drain(client.get());
    QCOMPARE(daemon.calls(), writes("b", ""));
    QCOMPARE(log->take(), complaints);
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(rows(*client), "a chosen, b"_s);
    QCOMPARE(wishes(*client, "a b"), "b"_s);
}

void TestFactorChoice::writesFailWithoutAPeer()
{
    offer({{"login"_s, names("a b")}, {"unlock"_s, names("c")}});
    const WatchedClient client = clientOf(1000);
    daemon.request(R"({"do":"drop-peers"})");
    client->triggerFactor(0);
    client->triggerUnlockFactor("c"_s);
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 4);
    for (const QString &complaint : complaints)
        QVERIFY2(complaint.startsWith("warning setUserOption failed: \""_s), qPrintable(complaint));
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(wishes(*client, "a b"), "a"_s);
}

void TestFactorChoice::lastNamesakeDecides_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::addColumn<QByteArray>("expected");
    const auto row = [](const char *name, const char *before, const char *after, const char *expected) {
        QTest::newRow(name) << QByteArray(before) << QByteArray(after) << QByteArray(expected);
    };
    row("last is not chosen yet", "", "sudis", "sudis");
    row("last is not chosen yet, another is", "code", "code sudis", "sudis");
    row("last is still chosen", "sudis", "", "sudis code broken");
    row("last is still chosen, another is", "code sudis", "code", "sudis code");
}

// Namesakes differ while they are being marked.
void TestFactorChoice::lastNamesakeDecides()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    QFETCH(QByteArray, expected);
    offer({{"login"_s, names("sudis")}, {"unlock"_s, names("sudis sudis code broken")}});
    choose("unlock", names(before.constData()));
    const WatchedClient client = clientOf(1000);
    QStringList calls;
    connect(client->factors(), &QAbstractItemModel::dataChanged, this, [&] {
        if (calls.isEmpty()) {
            client->triggerUnlockFactor("sudis"_s);
            calls = daemon.calls();
        }
    });
    announceChosen(client.get(), "unlock", names(after.constData()));
    QCOMPARE(calls, writes("", expected.constData()));
}

void TestFactorChoice::toggleInAHandlerStartsFromTheMarksSoFar()
{
    offer({{"login"_s, names("a b c")}, {"unlock"_s, names("d")}});
    choose("login", names("a"));
    allowSeveral();
    const WatchedClient client = clientOf(1000);
    QStringList calls;
    connect(client->factors(), &QAbstractItemModel::dataChanged, this, [&](const QModelIndex &index) {
        if (index.row() == 1) {
            client->triggerFactor(0);
            calls = takeCalls();
        }
    });
    announceChosen(client.get(), "login", names("a b c"));
    QCOMPARE(calls, writes("b", ""));
    QCOMPARE(rows(*client), "a chosen, b chosen, c chosen"_s);
    QCOMPARE(wishes(*client, "a b c"), "b c"_s);
}

void TestFactorChoice::manyFactorsAreWritten()
{
    QStringList many;
    for (int i = 0; i < 1000; ++i)
        many.append("f%1"_s.arg(i));
    offer({{"login"_s, many}, {"unlock"_s, many}});
    choose("login", many);
    choose("unlock", many.mid(500, 1));
    allowSeveral();
    const WatchedClient client = clientOf(1000);
    QStringList others = many;
    others.removeAt(500);
    client->triggerFactor(500);
    QCOMPARE(takeCalls(), (QStringList{write("login"_s, others), write("unlock"_s, many.mid(500, 1))}));
    client->triggerUnlockFactor("f500"_s);
    QCOMPARE(takeCalls(), (QStringList{write("login"_s, others), write("unlock"_s, others)}));
    QVERIFY(!client->canTriggerFactor(1000));
    QCOMPARE(log->take(), QStringList{invalidIndex.arg(1000)});
}

void TestFactorChoice::oddNamesAreWritten()
{
    const QStringList odd{QString(), "a/b"_s, "Ключ"_s, "🔑"_s, "100 %1"_s, " "_s};
    offer({{"login"_s, odd}, {"unlock"_s, odd}});
    allowSeveral();
    const WatchedClient client = clientOf(1000);
    QStringList wanted;
    for (int row = 0; row < odd.size(); ++row) {
        client->triggerFactor(row);
        client->triggerUnlockFactor(odd.at(row));
        const QStringList before = wanted;
        wanted.append(odd.at(row));
        QCOMPARE(takeCalls(),
                 (QStringList{write("login"_s, wanted), write("unlock"_s, before), write("login"_s, wanted),
                              write("unlock"_s, wanted)}));
        QVERIFY(client->hasChosenFactor(odd.at(row)));
    }
}

void TestFactorChoice::oddServicesAreWritten()
{
    offer({{QString(), names("a")}, {"a/b"_s, names("b")}, {"login"_s, names("c")}, {"Вход"_s, names("d")}});
    daemon.arrangeOption("worker/service-factors/a/b", R"(["b"])", 1000);
    const WatchedClient client = clientOf(1000);
    client->triggerFactor(0);
    QCOMPARE(daemon.calls(),
             (QStringList{write(QString(), {}), write("a/b"_s, names("b")), write("login"_s, names("c")),
                          write("Вход"_s, {})}));
}

QTEST_GUILESS_MAIN(TestFactorChoice)

#include "tst_factorchoice.moc"
