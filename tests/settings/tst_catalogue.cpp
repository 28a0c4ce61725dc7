#include "settings-test-case.h"

#include <QtCore/QPointer>
#include <QtCore/QTranslator>

#include <sys/syscall.h>
#include <unistd.h>

/** Which factors there are, which of them have rows, and how they are marked. */
class TestCatalogue : public SettingsTestCase
{
    Q_OBJECT

private:
    WatchedClient clientOf(uint uid);

private Q_SLOTS:
    void rowsAndMarksFollowTheDaemon_data();
    void rowsAndMarksFollowTheDaemon();
    void catalogueIsReadOnceServiceByService();
    void offersAreNotFollowed();
    void titleWithoutATranslationIsItsId_data();
    void titleWithoutATranslationIsItsId();
    void titleIsTheTranslationOfItsId();
    void titleIsLookedUpInLatin1_data();
    void titleIsLookedUpInLatin1();
    void titlesAreThoseOfTheStart();
    void failedReadLeavesOneServiceWithoutFactors_data();
    void failedReadLeavesOneServiceWithoutFactors();
    void failedReadsOfAllOffersLeaveNoFactors();
    void offerIsTheOptionAsAListOfStrings_data();
    void offerIsTheOptionAsAListOfStrings();

    void oneUserIdSeesEveryLoginFactor();
    void userIdThatSeesEveryLoginFactorIsTheRealOne();

    void handlersSeeTheMarksOneByOne();
    void handlersSeeTheDisabledMarkBeforeTheRebuild();
    void resetHandlersSeeTheRowsBeforeAndAfter();
    void listsThatAHandlerBringsInAreHeededAtOnce_data();
    void listsThatAHandlerBringsInAreHeededAtOnce();
    void unlockFactorsHandlerSeesTheFormerMarks();

    void smartcardSetsTheWarning_data();
    void smartcardSetsTheWarning();
    void warningIsTranslatedWhenItIsSet();
    void warningIsTranslatedAnewWithTheNextCard();
    void warningHandlerSeesTheMark();
    void warningIsOfTheSmartcardAlone();
    void warningFollowsTheLastChangedEntry_data();
    void warningFollowsTheLastChangedEntry();

    void hasFactorGoesOnToTheNextNamesake();

    void modelHasFiveRoles();
    void modelGivesEachValueInItsType_data();
    void modelGivesEachValueInItsType();
    void modelGivesNothingForOtherRoles_data();
    void modelGivesNothingForOtherRoles();
    void modelGivesNothingForOtherIndexes();
    void modelGivesNothingForARowThatIsGone();
    void modelCountsItsRowsWhateverTheParent();
    void modelOfAnotherParentHasNoRows_data();
    void modelOfAnotherParentHasNoRows();
    void modelLosesItsRowsWithItsParent();
    void anotherModelOfTheSameParentHasTheSameRows();
    void rowsAreThereUntilTheirModelIsGone();
    void loginFactorsCountIsReadWhenItIsTold();

    void thousandFactors();
    void sameNameAThousandTimes();
    void oddNames_data();
    void oddNames();
    void oddServices_data();
    void oddServices();
};

namespace {
uid_t pretendedUserId = 0;
}

// Stands before the system's in this process: only so the real user id and the effective one can differ in a world that
// has one user.
extern "C" uid_t getuid() noexcept
{
    return pretendedUserId ? pretendedUserId : uid_t(syscall(SYS_getuid));
}

namespace {
const QString warningId = QStringLiteral("settings_users-la-user_has_token_hint");
const QString warningChanged = QStringLiteral("userWarningChanged()");
const QString unlockFactorsChanged = QStringLiteral("unlockFactorsChanged()");

/** Translates ids, as catalogues made for them do, and notes what it is asked for. */
class Translator : public QTranslator
{
public:
    explicit Translator(const QHash<QByteArray, QString> &texts)
        : m_texts(texts)
    {
        QCoreApplication::installTranslator(this);
    }
    ~Translator() override
    {
        QCoreApplication::removeTranslator(this);
    }

    bool isEmpty() const override
    {
        return false;
    }

    QString translate(const char *context, const char *id, const char *disambiguation, int n) const override
    {
        const bool byId = !context && !disambiguation && n == -1;
        asked.append(byId ? QByteArray(id) : "not by its id: " + QByteArray(id));
        return m_texts.value(asked.last());
    }

    mutable QByteArrayList asked;

private:
    const QHash<QByteArray, QString> m_texts;
};

QStringList titles(const AuthSettingsClient &client)
{
    const FactorListModel *model = client.factors();
    QStringList result;
    for (int row = 0; row < model->rowCount(); ++row)
        result.append(model->data(model->index(row), 257).toString());
    return result;
}

// Seen from outside, a login factor that is chosen may be toggled when it is not the only one that counts.
bool severalCount(const WatchedClient &client, int chosenRow)
{
    return client->canTriggerFactor(chosenRow);
}
} // namespace

WatchedClient TestCatalogue::clientOf(uint uid)
{
    return WatchedClient(newSettingsClient(), uid);
}

void TestCatalogue::rowsAndMarksFollowTheDaemon_data()
{
    QTest::addColumn<QByteArray>("story");
    const auto story = [](const char *name, const char *steps) { QTest::newRow(name) << QByteArray(steps); };
    story("rows are in the order of the offer",
          "offer login: z a M b; unlock: y x | login: b a | unlock: x y | user 1000 = z, a chosen, M, b chosen "
          "| disabled: z = a chosen, M, b chosen, y chosen unlock, x chosen unlock");
    story("login factors come first",
          "offer unlock: a b; login: c a | unlock: a b | user 1000 | settable: no "
          "| settable: yes = c, a, b chosen unlock");
    story("name offered twice has two rows",
          "offer login: a b a | login: a | user 1000 = a chosen, b, a chosen | login rows 3 | may toggle 0");
    story("name offered twice counts twice",
          "offer login: a b a c | user 1000 | login: a | may toggle 0 2 | login: b | not may toggle 1 "
          // The rebuild counts the same.
          "| login: a a | disabled: c | may toggle 0 | disabled: a = b, c "
          "| enabled a | not has a | not wants a | login: b | not may toggle 0");
    story("name of two services has the login row",
          "offer login: a smartcard; unlock: smartcard b | user 1000 = a, smartcard | login rows 2 "
          "| may toggle 0 1");
    story("other services are shown once chosen",
          "offer login: a; sudo: c a d | user 1000 = a | sudo: a c | settable: no | settable: yes = a, c chosen "
          "| login rows 1");
    story("service names are case sensitive",
          "offer Login: a; LOGIN: b; Unlock: c; login : d | Login: a | Unlock: c | user 1000 "
          "| settable: no = a chosen, c chosen "
          "| login rows 0 | unlock factors nothing");
    story("no services still tell of each reset",
          "offer nothing | user 1000 | disabled: code ! nothing "
          "| settable: no ! reset, settable");
    story("no login service shows what is chosen",
          "offer unlock: a b | user 1000 = nothing | unlock: b | disabled: b = b chosen disabled unlock "
          "| login rows 0");
    story("unlock factor is not shown until chosen",
          "offer login: a; unlock: b c | unlock: c | settable: no | user 1000 "
          "| settable: yes = a, c chosen unlock");
    story("unlock factor of a login name has no row",
          "offer unlock: a smartcard; login: a smartcard | unlock: a smartcard | disabled: smartcard "
          "| user 1000 = a, smartcard disabled");
    story("unlock factor of a hidden login name has a row",
          "offer login: a sudis; unlock: a sudis | login: sudis | unlock: a sudis | disabled: sudis "
          "| user 1000 = a, sudis chosen disabled unlock "
          "| settable: no = a chosen unlock, sudis chosen disabled unlock (100000: a, sudis chosen disabled unlock)");
    story("namesakes of other services each have a row",
          "offer unlock: b b; sudo: b | unlock: b | sudo: b | disabled: b "
          "| user 1000 = b chosen disabled unlock, b chosen disabled unlock, b chosen disabled");
    story("unlock factor is shown though disabled and not settable",
          "offer login: a; unlock: b smartcard c | unlock: b smartcard | disabled: a b smartcard c "
          "| settable: no | user 1000 = b chosen disabled unlock, smartcard chosen disabled unlock");
    story("unchosen unlock factor loses its row with the next rebuild",
          "offer login: a x; unlock: b | unlock: b | disabled: x | user 1000 = a, b chosen unlock "
          "| unlock: nothing = a, b unlock "
          "| disabled: nothing = a, x");
    story("one user id sees no disabled login factor",
          "offer login: a smartcard b | disabled: smartcard b | settable: no "
          "| user 1000 = nothing (100000: a, smartcard disabled)");
    // The flag of a new user rebuilds the rows while the marks are those of the former.
    story("user who may not set is shown the factors of the rebuild",
          "offer login: a b; unlock: c | login: a | unlock: c | settable: no "
          "| user 1000 = nothing (100000: a chosen, b) | enabled a | disabled: b = a chosen, c chosen unlock");
    story("disabled login factor disappears at once",
          "offer login: a b c; unlock: b | login: b c | user 1000 | disabled: b a = c chosen ! reset "
          "| disabled: a = b chosen, c chosen ! reset "
          "| disabled: nothing = a, b chosen, c chosen ! reset");
    story("disabled smartcard stays",
          "offer login: a smartcard Smartcard smartcard2; unlock: smartcard | user 1000 "
          "| disabled: a smartcard Smartcard smartcard2 = smartcard disabled "
          "| settable: no = nothing (100000: smartcard disabled) "
          "| login: smartcard "
          "| disabled: smartcard = smartcard chosen disabled (100000: a, smartcard chosen disabled, Smartcard, "
          "smartcard2)");
    story("disabled mark may be the smartcards alone",
          "offer login: a smartcard | login: smartcard | user 1000 "
          "| disabled: smartcard = a, smartcard chosen disabled ! reset");
    story("settable flag rebuilds once it changes",
          "offer login: a b | user 1000 | settable: yes ! nothing "
          "| settable: no ! reset, settable "
          "| settable: no ! nothing");
    story("chosen rows count",
          "offer login: a b c | login: a | user 1000 | not may toggle 0 | login: a b | may toggle 0 1 "
          "| login: c | not may toggle 2 | login: nothing | login: b c | may toggle 2 "
          // The rebuild counts anew.
          "| settable: no | settable: yes | may toggle 1 | login: b | not may toggle 1");
    story("disabled factor does not count",
          "offer login: a b | login: a b | user 1000 | may toggle 0 | disabled: b | not may toggle 0");
    story("disabled smartcard counts",
          "offer login: a smartcard | login: a smartcard | disabled: smartcard | user 1000 | may toggle 0 1");
    story("factor without a row does not count",
          "offer login: a b; unlock: b | login: a | disabled: b | user 1000 | login: a b | enabled b "
          "| not may toggle 0 | login: a | not may toggle 0");
    story("hidden factor counts until the rebuild when its name has a row",
          "offer login: code sudis; unlock: sudis | login: code | unlock: sudis | disabled: sudis "
          "| user 1000 = code chosen, sudis chosen disabled unlock | not may toggle 0 | login: code sudis "
          "| may toggle 0 | settable: no | not may toggle 0");
    story("unlock factor does not count",
          "offer login: a b x; unlock: a b c; sudo: b | login: a | user 1000 | unlock: a b c | sudo: b "
          "| not may toggle 0 | disabled: x = a chosen, b, c chosen unlock "
          "| not may toggle 0");
    story("chosen marks are announced row by row",
          "offer login: a b c | user 1000 | login: c a ! mark 0, mark 2 "
          "| look = a chosen, b, c chosen "
          "| login: b c ! mark 0, mark 1 "
          "| look = a, b chosen, c chosen "
          "| login: c b c ! nothing "
          "| login: nothing ! mark 1, mark 2 "
          "| look = a, b, c");
    story("mark of an unlock factor is announced on the row of its name",
          "offer login: a b; unlock: b | user 1000 | unlock: b ! unlock, mark 1 "
          "| look = a, b "
          "| enabled b");
    story("mark without a row is not announced",
          "offer login: a b; unlock: c | disabled: b | user 1000 | unlock: c | login: b ! unlock "
          "| enabled b c");
    story("marks of a name offered twice are announced on its last row",
          "offer login: a b a | user 1000 | login: a ! mark 2, mark 2 "
          "| look = a chosen, b, a chosen");
    story("unlock name offered twice has its last row",
          "offer login: a x; unlock: b c b | unlock: b c | disabled: x "
          "| user 1000 = a, b chosen unlock, c chosen unlock, b chosen unlock | login rows 1 | listen "
          "| unlock: c ! unlock, mark 3, mark 3 "
          "| look = a, b unlock, c chosen unlock, b unlock "
          "| unlock: b b ! unlock, mark 3, mark 2, mark 3");
    story("marks of namesakes of other services are announced on the last row",
          "offer unlock: b; sudo: b | unlock: b | sudo: b | disabled: b | user 1000 "
          "| unlock: nothing ! unlock, mark 1 "
          "| look = b disabled unlock, b chosen disabled");
    story("chosen names are case sensitive",
          "offer login: a A Smartcard; unlock: Smartcard | user 1000 | login: A smartcard "
          "| unlock: smartcard = a, A chosen, Smartcard "
          "| not enabled smartcard Smartcard");
    story("chosen names are of their service alone",
          "offer login: a b; unlock: a b | login: a | unlock: b | user 1000 = a chosen, b | unlock factors b");
    story("unlock factors are told before the marks",
          "offer login: a smartcard; unlock: a smartcard b | user 1000 "
          "| unlock: a smartcard b ! unlock, mark 0, warning, mark 1");
    story("user switch marks then rebuilds",
          "offer login: a smartcard b; unlock: smartcard c | login: smartcard b | unlock: c | disabled: b "
          "| user 0 | user 1000 ! uid, warning, mark 1, mark 2, reset, notifications "
          "| look = a, smartcard chosen, c chosen unlock "
          "| unlock factors c");
    story("user switch without disabled factors does not rebuild",
          "offer login: a b; unlock: c | login: b | unlock: c | user 0 | user 1000 ! uid, mark 1, notifications "
          "| look = a, b chosen");
    story("user switch takes the marks of the former user away",
          "offer login: a b smartcard; unlock: c | login: a smartcard | unlock: c | disabled: b | 1001 login: b "
          "| user 1000 = a chosen, smartcard chosen, c chosen unlock | warned | listen "
          "| user 1001 ! uid, mark 0, warning, mark 1, mark 2, reset, notifications "
          "| look = a, b chosen, smartcard "
          "| not warned | unlock factors nothing");
    story("warning comes between the marks",
          "offer login: a smartcard b | user 1000 | login: b smartcard a ! mark 0, warning, mark 1, mark 2 "
          "| login: nothing ! mark 0, warning, mark 1, mark 2");
    story("warning is set without a row",
          "offer login: a; unlock: smartcard | user 1000 | unlock: smartcard ! unlock, warning "
          "| look = a "
          "| warned");
    story("warning is not told twice",
          "offer login: smartcard; unlock: smartcard | user 1000 | login: smartcard "
          "| unlock: smartcard ! warning, mark 0, unlock, mark 0");
    story("warning does not follow the disabled mark",
          "offer login: smartcard | login: smartcard | disabled: smartcard | user 1000 | warned | listen "
          "| disabled: nothing | warned ! reset");
    story("has factor needs no row",
          "offer login: a; unlock: b | settable: no | user 1000 = nothing (100000: a) | has a b");
    story("has enabled factor needs no row",
          "offer login: a; unlock: b | login: a | unlock: b | disabled: a | user 1000 = b chosen unlock "
          "| enabled a b | login: nothing | not enabled a");
    story("has chosen factor looks at the wish",
          "offer login: a b | login: a | refuse | user 1000 | toggle 1 | wants b | not wants a | not enabled b "
          "| enabled a = a chosen, b");
    story("unlock factors without an unlock service are none",
          "offer login: a | login: a | unlock: a | user 1000 | unlock: a | unlock factors nothing ! nothing");
    story("login factors count is told though it is the same",
          "offer login: smartcard a | user 1000 | disabled: smartcard | login rows 2 ! reset");
    story("other factors are in the order of the services, sudo first",
          "offer login: a x; unlock: b c; sudo: d | services: sudo login unlock | unlock: c b | sudo: d | disabled: x "
          "| user 1000 = a, d chosen, b chosen unlock, c chosen unlock");
    story("other factors are in the order of the services, unlock first",
          "offer login: a x; unlock: b c; sudo: d | services: unlock login sudo | unlock: c b | sudo: d | disabled: x "
          "| user 1000 = a, b chosen unlock, c chosen unlock, d chosen");
    story("service named twice is offered twice",
          "offer login: a; unlock: b | services: login unlock login unlock | login: a | unlock: b | user 1000 "
          "| settable: no = a chosen, a chosen, b chosen unlock, b chosen unlock");
    story("nothing is marked at the start",
          "disabled: code smartcard | user 0 = code, smartcard, sudis, broken, slow | unlock factors nothing "
          "| not warned | has code smartcard sudis broken slow "
          "| not enabled code smartcard sudis broken slow | not wants code smartcard sudis broken slow | may toggle 0 "
          "1 2 3 4");
    story("no services give an empty model",
          "offer nothing | user 1000 = nothing | login rows 0 | not has code smartcard '' | not enabled code "
          "| not wants code | unlock factors nothing");
    story("chosen unlock factor is shown with the next rebuild, disabled factors change",
          "offer login: a smartcard; unlock: smartcard b | login: a smartcard | user 1000 "
          "| unlock: b = a chosen, smartcard chosen ! unlock "
          "| enabled b | not wants b "
          "| disabled: smartcard = a chosen, smartcard chosen disabled, b chosen unlock ! reset "
          "| wants b");
    story("chosen unlock factor is shown with the next rebuild, the settable flag changes",
          "offer login: a smartcard; unlock: smartcard b | login: a smartcard | user 1000 "
          "| unlock: b = a chosen, smartcard chosen ! unlock "
          "| enabled b | not wants b "
          "| settable: no = a chosen, smartcard chosen, b chosen unlock ! reset, settable "
          "| wants b");
    story("chosen marks alone do not rebuild the rows",
          "offer login: a b x; unlock: c d | login: a | unlock: c | user 1000 | settable: no "
          "| disabled: x = a chosen, c chosen unlock (100000: a chosen, b, c chosen unlock) "
          "| listen | login: b "
          "| unlock: d = a, c unlock (100000: a, b chosen, c unlock) "
          "! mark 0, unlock, mark 1 (100000: mark 0, mark 1, unlock, mark 2) "
          "| disabled: nothing = b chosen, d chosen unlock (100000: a, b chosen, x, d chosen unlock) ! reset");
    story("disabled list without an effect does not rebuild",
          "offer login: a b; unlock: c d | disabled: b d | user 1000 "
          "| disabled: b d | disabled: d b | disabled: b b d | disabled: b d e | disabled: b d A C "
          "| disabled: b '' d = a ! nothing");
    story("user switch rebuilds for the flag before the marks",
          "offer login: a b; unlock: c | login: a | disabled: b | settable: no | user 0 "
          "| user 1000 = a chosen ! uid, reset, settable, reset, notifications "
          "(100000: uid, reset, settable, mark 0, reset, notifications)");
    story("unchosen login factor is hidden from who may not set",
          "offer login: a b c; unlock: b | login: a | user 1000 = a chosen, b, c "
          "| settable: no = a chosen (100000: a chosen, b, c) | login rows 1 (100000: 3) "
          "| settable: yes = a chosen, b, c");
    story(
        "login name offered twice has its last row for unlock too",
        "offer login: a smartcard b a smartcard; unlock: a smartcard a | user 1000 = a, smartcard, b, a, smartcard "
        "| unlock: smartcard a = a, smartcard, b, a, smartcard ! unlock, mark 3, warning, mark 4, mark 3 "
        "| login: smartcard = a, smartcard chosen, b, a, smartcard chosen ! mark 4, mark 4 "
        "| disabled: a smartcard = smartcard chosen disabled, b, smartcard chosen disabled, a chosen disabled unlock, "
        "a chosen disabled unlock ! reset");
    story("unoffered names mark nothing",
          "offer login: a; unlock: b | user 1000 | login: b smartcard '' A = a ! nothing "
          "| not enabled b smartcard");
    story("has factor looks at the disabled mark",
          "offer login: a c; unlock: b c smartcard; sudo: d | user 1000 | has a b c d smartcard "
          "| not has e A smart '' | disabled: a | not has a | disabled: b | not has b | disabled: c | not has c "
          "| disabled: a c smartcard | has b smartcard");
    story("has enabled factor looks at each service",
          "offer login: a b c; unlock: b c; sudo: c d | login: a e | unlock: b a | sudo: d | user 1000 "
          "| enabled a b d | not enabled c e A ''");
    story("has chosen factor needs a row",
          "offer login: a b c; unlock: c d | login: a b | unlock: c d | disabled: b "
          "| user 1000 = a chosen, c, d chosen unlock | wants a d "
          // The row of c is the login row, which is not chosen.
          "| not wants b c A e ''");
    story("unlock factors are the users in the daemons order",
          "offer login: z; unlock: a b c | unlock: c unoffered a c z | disabled: a | user 1000 "
          "| unlock factors c unoffered a c z | unlock: b a | unlock factors b a | login: z | unlock factors b a "
          "| unlock: nothing | unlock factors nothing");
    story("login factors count is that of the login rows",
          "offer login: a b c x; unlock: d e; sudo: f | login: b | unlock: d e | sudo: f | disabled: x "
          "| user 1000 = a, b chosen, c, d chosen unlock, e chosen unlock, f chosen | login rows 3 "
          "| login: nothing | login rows 3");
}

void TestCatalogue::rowsAndMarksFollowTheDaemon()
{
    QFETCH(QByteArray, story);
    play(story.constData());
}

void TestCatalogue::catalogueIsReadOnceServiceByService()
{
    offer({{"unlock"_s, names("b")}, {"login"_s, names("a")}, {"sudo"_s, names("c")}});
    const auto client = std::make_unique<AuthSettingsClient>(nullptr);
    const auto getOption = [](const char *key) {
        return settingsCall("GetOption", "s", QByteArray("('") + key + "',)");
    };
    const QStringList expected{
        getOption("worker/available-services"),
        getOption("worker/can-switch-to-user"),
        getOption("worker/available-service-factors/unlock"),
        getOption("worker/available-service-factors/login"),
        getOption("worker/available-service-factors/sudo"),
    };
    daemon.waitCalls("GetState");
    const QRegularExpression reads("Settings\\.GetOption "_s);
    QCOMPARE(daemon.calls().filter(reads), expected);

    client->setUid(1000);
    announceChosen(client.get(), "unlock", names("b"));
    announceDisabled(client.get(), names("a"));
    announceSettable(client.get(), false);
    QCOMPARE(daemon.calls().filter(reads), expected);
    QCOMPARE(rows(*client), "b chosen unlock"_s);
}

void TestCatalogue::offersAreNotFollowed()
{
    offer({{"login"_s, names("a b")}, {"unlock"_s, names("c")}});
    const WatchedClient client = clientOf(1000);
    SignalRecorder heard(client.get());
    daemon.clearCalls();
    daemon.changeOption("worker/available-service-factors/login", R"(["b", "d"])");
    daemon.changeOption("worker/available-services", R"(["unlock"])");
    drain(client.get());
    QCOMPARE(rows(*client), "a, b"_s);
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());
}

void TestCatalogue::titleWithoutATranslationIsItsId_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("title");
    QTest::newRow("plain") << "code"_s
                           << "authd-factor-code"_s;
    QTest::newRow("empty") << QString() << "authd-factor-"_s;
    QTest::newRow("slash") << "a/b"_s
                           << "authd-factor-a/b"_s;
    QTest::newRow("blank") << "a b"_s
                           << "authd-factor-a b"_s;
    QTest::newRow("per cent") << "100%n %1"_s
                              << "authd-factor-100%n %1"_s;
    // The id is Latin-1 text; qtTrId() takes it for UTF-8 when nothing translates it.
    QTest::newRow("beyond Latin-1") << "Жо日"_s
                                    << "authd-factor-???"_s;
    QTest::newRow("Latin-1") << "né"_s
                             << "authd-factor-n\uFFFD"_s;
}

void TestCatalogue::titleWithoutATranslationIsItsId()
{
    QFETCH(QString, name);
    QFETCH(QString, title);
    offer({{"login"_s, {name}}});
    const WatchedClient client(newSettingsClient());
    QCOMPARE(titles(*client), QStringList{title});
    QCOMPARE(rows(*client), name);
}

void TestCatalogue::titleIsTheTranslationOfItsId()
{
    offer({{"login"_s, names("code sudis")}, {"unlock"_s, names("smartcard code")}});
    choose("unlock", names("smartcard code"));
    disable(names("sudis"));
    const Translator translator({{"authd-factor-code", "Zugangscode %n"_s}, {"authd-factor-smartcard", "Карта"_s}});
    const WatchedClient client(newSettingsClient());
    QCOMPARE(
        translator.asked,
        (QByteArrayList{"authd-factor-code", "authd-factor-sudis", "authd-factor-smartcard", "authd-factor-code"}));
    QCOMPARE(titles(*client), (QStringList{"Zugangscode %n"_s, "authd-factor-sudis"_s}));
    client->setUid(1000);
    QCOMPARE(titles(*client), (QStringList{"Zugangscode %n"_s, "Карта"_s}));
}

void TestCatalogue::titleIsLookedUpInLatin1_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("id");
    QTest::newRow("Latin-1") << "né"_s << QByteArray("authd-factor-n\xe9");
    QTest::newRow("beyond it") << "Жо日x"_s << QByteArray("authd-factor-???x");
}

void TestCatalogue::titleIsLookedUpInLatin1()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, id);
    offer({{"login"_s, {name}}});
    const Translator translator({{id, "Название"_s}});
    const WatchedClient client(newSettingsClient());
    QCOMPARE(translator.asked, QByteArrayList{id});
    QCOMPARE(titles(*client), QStringList{"Название"_s});
    QCOMPARE(rows(*client), name);
}

void TestCatalogue::titlesAreThoseOfTheStart()
{
    offer({{"login"_s, names("code sudis")}});
    auto translator = std::make_unique<Translator>(QHash<QByteArray, QString>{{"authd-factor-code", "before"_s}});
    const WatchedClient client = clientOf(1000);
    translator.reset();
    const Translator other({{"authd-factor-code", "after"_s}});
    announceDisabled(client.get(), names("sudis"));
    QCOMPARE(titles(*client), QStringList{"before"_s});
    QCOMPARE(other.asked, QByteArrayList());
}

void TestCatalogue::failedReadLeavesOneServiceWithoutFactors_data()
{
    QTest::addColumn<QString>("service");
    QTest::addColumn<QString>("expected");
    QTest::newRow("first") << "login"_s
                           << "b chosen unlock, c chosen"_s;
    QTest::newRow("second") << "unlock"_s
                            << "a, c chosen"_s;
    QTest::newRow("last") << "sudo"_s
                          << "a, b chosen unlock"_s;
}

void TestCatalogue::failedReadLeavesOneServiceWithoutFactors()
{
    QFETCH(QString, service);
    QFETCH(QString, expected);
    offer({{"login"_s, names("a")}, {"unlock"_s, names("b")}, {"sudo"_s, names("c")}});
    choose("unlock", names("b"));
    choose("sudo", names("c"));
    daemon.removeOption("worker/available-service-factors/" + service.toUtf8());
    AuthSettingsClient client(nullptr);
    const ModelWatch watch(client.factors());
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 1);
    QVERIFY2(QRegularExpression("^warning getOption failed: \".+\"$"_s).match(complaints.first()).hasMatch(),
             qPrintable(complaints.first()));
    client.setUid(1000);
    announceSettable(&client, false);
    announceSettable(&client, true);
    QCOMPARE(rows(client), expected);
}

void TestCatalogue::failedReadsOfAllOffersLeaveNoFactors()
{
    daemon.misbehave("GetOption", "error", R"("message":"not today")");
    answerOnce("<true>");
    answerOnce("<['login', 'unlock']>");
    const AuthSettingsClient client(nullptr);
    const QString warning = R"(warning getOption failed: "not today")"_s;
    QCOMPARE(log->takeComplaints(), (QStringList{warning, warning}));
    QCOMPARE(rows(client), QString());
    QCOMPARE(client.factors()->loginFactorsCount(), 0);
}

void TestCatalogue::offerIsTheOptionAsAListOfStrings_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char *value, const QString &expected) {
        QTest::newRow(value) << QByteArray(value) << expected;
    };
    row("<['a', 'b']>", "a, b"_s);
    row("<@as []>", QString());
    row("<'a'>", "a"_s);
    row("<true>", QString());
    row("<5>", QString());
    row("<[<'a'>]>", QString());
    row("<('a', 'b')>", QString());
    row("<{'a': <true>}>", QString());
}

void TestCatalogue::offerIsTheOptionAsAListOfStrings()
{
    QFETCH(QByteArray, value);
    QFETCH(QString, expected);
    answerOnce(value);
    answerOnce("<true>");
    answerOnce("<['login']>");
    const WatchedClient client(newSettingsClient());
    QCOMPARE(rows(*client), expected);
}

// This runs as different users.
void TestCatalogue::oneUserIdSeesEveryLoginFactor()
{
    offer({{"login"_s, names("a b")}, {"unlock"_s, names("c")}});
    daemon.arrangeOption("worker/is-user-settable", "false", 1000);
    const WatchedClient client = clientOf(1000);
    QVERIFY(!client->isUserSettable());
    QCOMPARE(rows(*client), getuid() == 100000 ? "a, b"_s : QString());
}

void TestCatalogue::userIdThatSeesEveryLoginFactorIsTheRealOne()
{
    offer({{"login"_s, names("a b")}});
    daemon.arrangeOption("worker/is-user-settable", "false", 1000);
    const auto rowsOf = [this](uid_t user) {
        pretendedUserId = user;
        QString text = rows(*clientOf(1000));
        pretendedUserId = 0;
        return text;
    };
    QCOMPARE(rowsOf(100000), "a, b"_s);
    QCOMPARE(rowsOf(100001), QString());
}

void TestCatalogue::handlersSeeTheMarksOneByOne()
{
    offer({{"login"_s, names("a b")}});
    const WatchedClient client = clientOf(1000);
    QStringList seen;
    connect(client->factors(), &QAbstractItemModel::dataChanged, this, [&](const QModelIndex &index) {
        seen.append("row %1: "_s.arg(index.row()) + rows(*client)
                    + (client->hasChosenFactor("b"_s) ? "; b"_s : QString()));
    });
    announceChosen(client.get(), "login", names("a b"));
    QCOMPARE(seen, (QStringList{"row 0: a chosen, b"_s, "row 1: a chosen, b chosen; b"_s}));
}

void TestCatalogue::handlersSeeTheDisabledMarkBeforeTheRebuild()
{
    offer({{"login"_s, names("a b")}});
    choose("login", names("a"));
    disable(names("a b"));
    const WatchedClient client(newSettingsClient());
    QStringList seen;
    connect(client->factors(), &QAbstractItemModel::dataChanged, this, [&] { seen.append(rows(*client)); });
    client->setUid(1000);
    QCOMPARE(seen, QStringList{"a chosen disabled, b"_s});
    QCOMPARE(rows(*client), QString());
}

void TestCatalogue::resetHandlersSeeTheRowsBeforeAndAfter()
{
    offer({{"login"_s, names("a b")}});
    choose("login", names("a b"));
    const WatchedClient client = clientOf(1000);
    QStringList seen;
    const auto look = [&] { seen.append(rows(*client) + (severalCount(client, 0) ? "; several"_s : QString())); };
    connect(client->factors(), &QAbstractItemModel::modelAboutToBeReset, this, look);
    connect(client->factors(), &QAbstractItemModel::modelReset, this, look);
    connect(client->factors(), &FactorListModel::loginFactorsCountChanged, this, look);
    announceDisabled(client.get(), names("b"));
    QCOMPARE(seen, (QStringList{"a chosen, b chosen disabled; several"_s, "a chosen"_s, "a chosen"_s}));
}

void TestCatalogue::listsThatAHandlerBringsInAreHeededAtOnce_data()
{
    QTest::addColumn<bool>("warning");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QString>("expectedRows");
    const auto row = [](const char *name, bool warning, const QStringList &heard, const char *shown) {
        QTest::newRow(name) << warning << heard << QString::fromLatin1(shown);
    };
    row("while a row changes", false,
        QStringList{enabledChanged(0), enabledChanged(0), enabledChanged(3)} + resetSignals, "a, c, d chosen");
    const QStringList takenBack{enabledChanged(0), warningChanged, enabledChanged(1), enabledChanged(3)};
    row("while the warning changes", true,
        QStringList{enabledChanged(0), warningChanged} + takenBack + resetSignals + QStringList{enabledChanged(1)},
        "a, smartcard disabled, c, d chosen");
}

// The handler lets in what the daemon has announced since: the list being marked is another then, and so is the list of
// disabled factors.
void TestCatalogue::listsThatAHandlerBringsInAreHeededAtOnce()
{
    QFETCH(bool, warning);
    QFETCH(QStringList, expected);
    QFETCH(QString, expectedRows);
    const char *const second = warning ? "smartcard" : "b";
    offer({{"login"_s, {"a"_s, QString::fromLatin1(second), "c"_s, "d"_s}}});
    const WatchedClient client = clientOf(1000);
    SignalRecorder heard(client.get());
    bool done = false;
    const auto bringIn = [&] {
        if (done)
            return;
        done = true;
        announce(1000, "worker/service-factors/login", "['d']");
        announceDisabled(client.get(), names(second));
    };
    if (warning)
        connect(client.get(), &AuthSettingsClient::userWarningChanged, this, bringIn);
    else
        connect(client->factors(), &QAbstractItemModel::dataChanged, this, bringIn);
    announceChosen(client.get(), "login", {"a"_s, QString::fromLatin1(second), "c"_s});
    QVERIFY(done);
    QCOMPARE(heard.list(), expected);
    QCOMPARE(rows(*client), expectedRows);
    QVERIFY(!severalCount(client, client->factors()->rowCount() - 1));
}

void TestCatalogue::unlockFactorsHandlerSeesTheFormerMarks()
{
    offer({{"unlock"_s, names("b")}});
    const WatchedClient client = clientOf(1000);
    QStringList seen;
    connect(client.get(), &AuthSettingsClient::unlockFactorsChanged, this, [&] {
        QVERIFY(!client->hasEnabledFactor("b"_s));
        seen = client->unlockFactors();
    });
    announceChosen(client.get(), "unlock", names("b"));
    QCOMPARE(seen, names("b"));
    QVERIFY(client->hasEnabledFactor("b"_s));
}

void TestCatalogue::smartcardSetsTheWarning_data()
{
    QTest::addColumn<QByteArray>("service");
    for (const char *service : {"login", "unlock", "sudo"})
        QTest::newRow(service) << QByteArray(service);
}

void TestCatalogue::smartcardSetsTheWarning()
{
    QFETCH(QByteArray, service);
    offer({{"login"_s, names("a")}, {QString::fromLatin1(service), names("a smartcard")}});
    const WatchedClient client = clientOf(1000);
    QCOMPARE(client->userWarning(), QString());
    SignalRecorder heard(client.get());
    announceChosen(client.get(), service, names("smartcard"));
    QCOMPARE(client->userWarning(), warningId);
    QCOMPARE(heard.take().filter(warningChanged), QStringList{warningChanged});
    announceChosen(client.get(), service, names("a"));
    QCOMPARE(client->userWarning(), QString());
    QCOMPARE(heard.list().filter(warningChanged), QStringList{warningChanged});
}

void TestCatalogue::warningIsTranslatedWhenItIsSet()
{
    offer({{"login"_s, names("smartcard")}});
    const WatchedClient client = clientOf(1000);
    const Translator translator({{warningId.toLatin1(), "Токен не нужен %n"_s}});
    announceChosen(client.get(), "login", names("smartcard"));
    QCOMPARE(client->userWarning(), "Токен не нужен %n"_s);
    QCOMPARE(client->property("userWarning"), QVariant("Токен не нужен %n"_s));
    announceChosen(client.get(), "login", {});
    QCOMPARE(client->userWarning(), QString());
    QCOMPARE(translator.asked, QByteArrayList{warningId.toLatin1()});
}

void TestCatalogue::warningIsTranslatedAnewWithTheNextCard()
{
    offer({{"login"_s, names("smartcard")}, {"unlock"_s, names("smartcard")}});
    const WatchedClient client = clientOf(1000);
    {
        const Translator translator({{warningId.toLatin1(), "Карта"_s}});
        announceChosen(client.get(), "login", names("smartcard"));
        QCOMPARE(client->userWarning(), "Карта"_s);
    }
    const Translator translator({{warningId.toLatin1(), "Card"_s}});
    SignalRecorder heard(client.get());
    announceChosen(client.get(), "unlock", names("smartcard"));
    QCOMPARE(client->userWarning(), "Card"_s);
    QCOMPARE(heard.list().count(warningChanged), 1);
}

void TestCatalogue::warningHandlerSeesTheMark()
{
    offer({{"login"_s, names("a smartcard b")}});
    choose("login", names("a"));
    const WatchedClient client = clientOf(1000);
    QStringList seen;
    connect(client.get(), &AuthSettingsClient::userWarningChanged, this, [&] {
        seen.append(rows(*client) + (severalCount(client, 0) ? "; several"_s : QString())
                    + (client->hasChosenFactor("smartcard"_s) ? "; wanted"_s : QString()) + "; "_s
                    + client->userWarning());
    });
    announceChosen(client.get(), "login", names("a smartcard b"));
    QCOMPARE(seen, QStringList{"a chosen, smartcard chosen, b; several; wanted; "_s + warningId});
}

void TestCatalogue::warningIsOfTheSmartcardAlone()
{
    offer({{"login"_s, names("a Smartcard smartcard2 sudis")}, {"unlock"_s, names("a sudis")}});
    const WatchedClient client = clientOf(1000);
    SignalRecorder heard(client.get());
    announceChosen(client.get(), "login", names("a Smartcard smartcard2 sudis smartcard"));
    announceChosen(client.get(), "unlock", names("a sudis smartcard"));
    QCOMPARE(client->userWarning(), QString());
    QVERIFY(!heard.list().contains(warningChanged));
}

void TestCatalogue::warningFollowsTheLastChangedEntry_data()
{
    QTest::addColumn<QStringList>("services");
    QTest::addColumn<QString>("chosenBefore");
    QTest::addColumn<QString>("chosenAfter");
    QTest::addColumn<QString>("warning");
    QTest::addColumn<int>("changes");
    const QStringList usual = names("login unlock");
    const QStringList other = names("unlock login");
    QTest::newRow("login to unlock") << usual << "login"_s
                                     << "unlock"_s << warningId << 2;
    QTest::newRow("unlock to login") << usual << "unlock"_s
                                     << "login"_s << QString() << 1;
    QTest::newRow("login to unlock, unlock first") << other << "login"_s
                                                   << "unlock"_s << QString() << 1;
    QTest::newRow("unlock to login, unlock first") << other << "unlock"_s
                                                   << "login"_s << warningId << 2;
    QTest::newRow("both to unlock") << usual << "login unlock"_s
                                    << "unlock"_s << QString() << 1;
    QTest::newRow("both to login") << usual << "login unlock"_s
                                   << "login"_s << QString() << 1;
    QTest::newRow("login to both") << usual << "login"_s
                                   << "login unlock"_s << warningId << 0;
    QTest::newRow("both to none") << usual << "login unlock"_s << QString() << QString() << 1;
    QTest::newRow("none to both") << usual << QString() << "login unlock"_s << warningId << 1;
}

void TestCatalogue::warningFollowsTheLastChangedEntry()
{
    QFETCH(QStringList, services);
    QFETCH(QString, chosenBefore);
    QFETCH(QString, chosenAfter);
    QFETCH(QString, warning);
    QFETCH(int, changes);
    offer({{services.at(0), names("smartcard")}, {services.at(1), names("smartcard")}});
    for (const QString &service : services) {
        if (chosenBefore.contains(service))
            choose(service.toLatin1(), names("smartcard"), 1000);
        if (chosenAfter.contains(service))
            choose(service.toLatin1(), names("smartcard"), 1001);
    }
    const WatchedClient client = clientOf(1000);
    QCOMPARE(client->userWarning(), chosenBefore.isEmpty() ? QString() : warningId);
    SignalRecorder heard(client.get());
    client->setUid(1001);
    QCOMPARE(client->userWarning(), warning);
    QCOMPARE(heard.list().count(warningChanged), changes);
}

// Namesakes differ while they are being marked.
void TestCatalogue::hasFactorGoesOnToTheNextNamesake()
{
    offer({{"login"_s, names("a")}, {"unlock"_s, names("a")}});
    choose("login", names("a"));
    disable(names("a"));
    const WatchedClient client(newSettingsClient());
    QStringList seen;
    connect(client->factors(), &QAbstractItemModel::dataChanged, this,
            [&] { seen.append(rows(*client) + (client->hasFactor("a"_s) ? "; has it"_s : QString())); });
    client->setUid(1000);
    QCOMPARE(seen, QStringList{"a chosen disabled; has it"_s});
    QVERIFY(!client->hasFactor("a"_s));
}

void TestCatalogue::modelHasFiveRoles()
{
    const QHash<int, QByteArray> expected{
        {256, "name"}, {257, "title"}, {258, "enabled"}, {259, "disabled"}, {260, "isUnlock"},
    };
    const WatchedClient client(newSettingsClient());
    QCOMPARE(client->factors()->roleNames(), expected);
}

void TestCatalogue::modelGivesEachValueInItsType_data()
{
    QTest::addColumn<int>("row");
    QTest::addColumn<QVariantList>("values");
    QTest::newRow("login") << 0 << QVariantList{"a"_s, "A title"_s, false, false, false};
    QTest::newRow("chosen, disabled login") << 1 << QVariantList{"smartcard"_s, "Card"_s, true, true, false};
    QTest::newRow("chosen unlock") << 2 << QVariantList{"b"_s, "authd-factor-b"_s, true, false, true};
    QTest::newRow("chosen, disabled unlock") << 3 << QVariantList{"c"_s, "authd-factor-c"_s, true, true, true};
    QTest::newRow("another service") << 4 << QVariantList{"d"_s, "authd-factor-d"_s, true, false, false};
}

void TestCatalogue::modelGivesEachValueInItsType()
{
    QFETCH(int, row);
    QFETCH(QVariantList, values);
    offer({{"login"_s, names("a smartcard")}, {"unlock"_s, names("b c")}, {"sudo"_s, names("d")}});
    choose("login", names("smartcard"));
    choose("unlock", names("b c"));
    choose("sudo", names("d"));
    disable(names("smartcard c"));
    const Translator translator({{"authd-factor-a", "A title"_s}, {"authd-factor-smartcard", "Card"_s}});
    const WatchedClient client = clientOf(1000);
    const FactorListModel *model = client->factors();
    QCOMPARE(model->rowCount(), 5);
    QVariantList found;
    for (int role = 256; role <= 260; ++role)
        found.append(model->data(model->index(row), role));
    QCOMPARE(written(found), written(values));
}

void TestCatalogue::modelGivesNothingForOtherRoles_data()
{
    QTest::addColumn<int>("role");
    for (int role : {Qt::DisplayRole + 0, Qt::DecorationRole + 0, Qt::EditRole + 0, 255, 261, -1, INT_MAX, INT_MIN})
        QTest::addRow("%d", role) << role;
}

void TestCatalogue::modelGivesNothingForOtherRoles()
{
    QFETCH(int, role);
    const WatchedClient client = clientOf(1000);
    const FactorListModel *model = client->factors();
    for (int row = 0; row < 5; ++row)
        QVERIFY(!model->data(model->index(row), role).isValid());
}

void TestCatalogue::modelGivesNothingForOtherIndexes()
{
    const WatchedClient client = clientOf(1000);
    const FactorListModel *model = client->factors();
    QCOMPARE(model->rowCount(), 5);
    QVERIFY(model->data(model->index(4), 256).isValid());
    for (int role = 256; role <= 260; ++role) {
        QVERIFY(!model->data(QModelIndex(), role).isValid());
        QVERIFY(!model->data(model->index(5), role).isValid());
        QVERIFY(!model->data(model->index(-1), role).isValid());
        QVERIFY(!model->data(model->index(0, 1), role).isValid());
    }
}

void TestCatalogue::modelGivesNothingForARowThatIsGone()
{
    offer({{"login"_s, names("a b c")}});
    const WatchedClient client = clientOf(1000);
    const FactorListModel *model = client->factors();
    const QModelIndex second = model->index(1);
    const QModelIndex third = model->index(2);
    announceDisabled(client.get(), names("a"));
    QCOMPARE(rows(*client), "b, c"_s);
    QVERIFY(third.isValid());
    for (int role = 256; role <= 260; ++role)
        QVERIFY(!model->data(third, role).isValid());
    QCOMPARE(model->data(second, 256), QVariant("c"_s));
}

void TestCatalogue::modelCountsItsRowsWhateverTheParent()
{
    const AuthSettingsClient client(nullptr);
    const FactorListModel *model = client.factors();
    QCOMPARE(model->rowCount(), 5);
    QCOMPARE(model->rowCount(model->index(2)), 5);
}

namespace {
// What a model shows that has no rows, asked also for a row of the model of a client.
void checkEmpty(const FactorListModel &model, const QModelIndex &other)
{
    QCOMPARE(model.rowCount(), 0);
    QCOMPARE(model.rowCount(other), 0);
    QCOMPARE(model.loginFactorsCount(), 0);
    QCOMPARE(model.property("loginFactorsCount"), QVariant(0));
    QVERIFY(!model.index(0).isValid());
    for (int role = 256; role <= 260; ++role) {
        QVERIFY(!model.data(QModelIndex(), role).isValid());
        QVERIFY(!model.data(other, role).isValid());
    }
    QCOMPARE(model.roleNames().size(), 5);
}
} // namespace

void TestCatalogue::modelOfAnotherParentHasNoRows_data()
{
    QTest::addColumn<QByteArray>("parent");
    for (const char *parent : {"none", "object", "settings client", "client", "model"})
        QTest::newRow(parent) << QByteArray(parent);
}

void TestCatalogue::modelOfAnotherParentHasNoRows()
{
    QFETCH(QByteArray, parent);
    const WatchedClient client = clientOf(1000);
    AuthClient other;
    QObject object;
    const QHash<QByteArray, QObject *> parents{{"none", nullptr},
                                               {"object", &object},
                                               {"settings client", client.get()},
                                               {"client", &other},
                                               {"model", client->factors()}};
    QVERIFY(parents.contains(parent));
    FactorListModel model(parents.value(parent));
    const QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    QSignalSpy counts(&model, &FactorListModel::loginFactorsCountChanged);
    QSignalSpy resets(&model, &QAbstractItemModel::modelReset);
    const QModelIndex row = client->factors()->index(0);
    QVERIFY(row.isValid());
    checkEmpty(model, row);
    announceDisabled(client.get(), names("sudis"));
    checkEmpty(model, row);
    QCOMPARE(rows(*client), "code chosen, smartcard, broken, slow"_s);
    QCOMPARE(counts.size() + resets.size(), 0);
}

void TestCatalogue::modelLosesItsRowsWithItsParent()
{
    const WatchedClient client = clientOf(1000);
    const QModelIndex row = client->factors()->index(0);
    FactorListModel model(client->factors()->QObject::parent());
    QCOMPARE(model.rowCount(), 5);
    model.setParent(nullptr);
    checkEmpty(model, row);
    model.setParent(client.get());
    checkEmpty(model, row);
    QCOMPARE(client->factors()->rowCount(), 5);
}

void TestCatalogue::anotherModelOfTheSameParentHasTheSameRows()
{
    const WatchedClient client = clientOf(1000);
    const FactorListModel model(client->factors()->QObject::parent());
    QCOMPARE(model.rowCount(), client->factors()->rowCount());
    QCOMPARE(model.loginFactorsCount(), 5);
    for (int row = 0; row < 5; ++row) {
        for (int role = 256; role <= 260; ++role)
            QCOMPARE(model.data(model.index(row), role), client->factors()->data(client->factors()->index(row), role));
    }
}

// A model that is no member of the client is asked at each point of the client's end.
void TestCatalogue::rowsAreThereUntilTheirModelIsGone()
{
    auto client = newClientOf(1000);
    QObject *const inner = client->factors()->QObject::parent();
    QPointer<FactorListModel> model = new FactorListModel(inner);
    const QModelIndex row = model->index(0);
    QStringList seen;
    const auto look = [&](const QString &when) {
        seen.append("%1: %2 rows, %3 of login, the first is %4"_s.arg(when)
                        .arg(model->rowCount())
                        .arg(model->loginFactorsCount())
                        .arg(model->data(row, 256).toString()));
    };
    connect(client->factors(), &QObject::destroyed, this, [&] { look("model"_s); });
    connect(inner, &QObject::destroyed, this, [&] { look("parent"_s); });
    client.reset();
    QVERIFY(!model);
    QCOMPARE(
        seen,
        (QStringList{"model: 5 rows, 5 of login, the first is code"_s, "parent: 0 rows, 0 of login, the first is "_s}));
}

void TestCatalogue::loginFactorsCountIsReadWhenItIsTold()
{
    offer({{"login"_s, names("a b c")}});
    const WatchedClient client = clientOf(1000);
    QList<int> counts;
    connect(client->factors(), &FactorListModel::loginFactorsCountChanged, this,
            [&] { counts.append(client->factors()->loginFactorsCount()); });
    announceDisabled(client.get(), names("a b"));
    announceDisabled(client.get(), names("a"));
    QCOMPARE(counts, (QList<int>{1, 2}));
}

void TestCatalogue::thousandFactors()
{
    QStringList many;
    for (int i = 0; i < 1000; ++i)
        many.append("f%1"_s.arg(i));
    offer({{"login"_s, many}, {"unlock"_s, many}});
    choose("login", many);
    choose("unlock", many);
    const auto client = newSettingsClient();
    SignalRecorder heard(client.get());
    client->setUid(1000);
    QStringList expected{"uidChanged()"_s};
    for (int service = 0; service < 2; ++service) {
        for (int row = 0; row < 1000; ++row)
            expected.append(enabledChanged(row));
    }
    QCOMPARE(heard.take(), expected + QStringList{"showNotificationsChanged()"_s});

    const ModelWatch watch(client->factors());
    announceDisabled(client.get(), many.mid(0, 999));
    QCOMPARE(heard.list(), resetSignals);
    QCOMPARE(client->factors()->loginFactorsCount(), 1);
    // The others have the rows of their unlock factors.
    QCOMPARE(client->factors()->rowCount(), 1000);
    QVERIFY(rows(*client).startsWith("f999 chosen, f0 chosen disabled unlock, "_s));
    QVERIFY(client->hasFactor("f999"_s));
    QVERIFY(!client->hasFactor("f998"_s));
    QVERIFY(!client->canTriggerFactor(0));
}

void TestCatalogue::sameNameAThousandTimes()
{
    QStringList many;
    for (int i = 0; i < 1000; ++i)
        many.append("smartcard"_s);
    offer({{"login"_s, many}, {"unlock"_s, many}});
    const auto client = newSettingsClient();
    client->setUid(1000);
    SignalRecorder heard(client.get());
    announceChosen(client.get(), "login", many);
    QStringList expected;
    for (int i = 0; i < 1000; ++i)
        expected.append(enabledChanged(999));
    QCOMPARE(heard.list(), QStringList{warningChanged} + expected);
    QCOMPARE(client->factors()->loginFactorsCount(), 1000);
    QVERIFY(client->canTriggerFactor(0));
}

void TestCatalogue::oddNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("empty") << QString();
    QTest::newRow("blank") << " "_s;
    QTest::newRow("slash") << "/"_s;
    QTest::newRow("slashes") << "worker/service-factors/login"_s;
    QTest::newRow("per cent") << "%1 %n %L1"_s;
    QTest::newRow("Cyrillic") << "Ключ"_s;
    QTest::newRow("beyond the first plane") << "🔑"_s;
    QTest::newRow("line end") << "a\nb"_s;
    QTest::newRow("long") << QString(20000, QLatin1Char('x'));
}

void TestCatalogue::oddNames()
{
    QFETCH(QString, name);
    offer({{"login"_s, {"a"_s, name}}, {"unlock"_s, {name}}});
    choose("login", {name});
    const WatchedClient client = clientOf(1000);
    QCOMPARE(rows(*client), "a, "_s + name + " chosen"_s);
    QVERIFY(client->hasFactor(name));
    QVERIFY(client->hasEnabledFactor(name));
    QVERIFY(client->hasChosenFactor(name));
    QVERIFY(!client->hasFactor(name + QLatin1Char('x')));
    daemon.changeOption("worker/service-factors/unlock", json({name}), 1000);
    daemon.changeOption("worker/disabled-factors", json({name}), 1000);
    drain(client.get());
    QCOMPARE(rows(*client), "a, "_s + name + " chosen disabled unlock"_s);
    QCOMPARE(client->unlockFactors(), QStringList{name});
    QVERIFY(!client->hasFactor(name));
}

void TestCatalogue::oddServices_data()
{
    QTest::addColumn<QString>("service");
    QTest::newRow("empty") << QString();
    QTest::newRow("slash") << "a/b"_s;
    QTest::newRow("as unlock with a slash") << "unlock/"_s;
    QTest::newRow("Cyrillic") << "Вход"_s;
}

void TestCatalogue::oddServices()
{
    QFETCH(QString, service);
    offer({{service, names("b")}, {"login"_s, names("a x")}});
    const WatchedClient client = clientOf(1000);
    announceChosen(client.get(), service.toUtf8(), names("b"));
    announceDisabled(client.get(), names("x"));
    QCOMPARE(rows(*client), "a, b chosen"_s);
    QCOMPARE(client->factors()->loginFactorsCount(), 1);
    QCOMPARE(client->unlockFactors(), QStringList());
}

QTEST_GUILESS_MAIN(TestCatalogue)

#include "tst_catalogue.moc"
