#include "deeds.h"

#include <FactorListModel>

#include <csignal>

namespace {

// libdbus 1.14 keeps five messages of up to 10 KiB for later. The longest here are the answers to each new connection.
constexpr qint64 ConnectingSlack = ByteSlack + qint64(5 * 10240);

const QVariantMap code{{QStringLiteral("factor"), QStringLiteral("code")},
                       {QStringLiteral("data"), QStringLiteral("1234")}};
const QVariantMap wrongCode{{QStringLiteral("factor"), QStringLiteral("broken")},
                            {QStringLiteral("data"), QStringLiteral("1234")}};
const QVariantMap sameCode{{QStringLiteral("old"), QStringLiteral("1234")},
                           {QStringLiteral("new"), QStringLiteral("1234")}};
const QVariantMap noCode{{QStringLiteral("old"), QStringLiteral("4321")},
                         {QStringLiteral("new"), QStringLiteral("1234")}};
const QVariantMap unsendable{{QStringLiteral("nothing"), QVariant()}};
const QString length = QStringLiteral("length");
const QString noSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" ".+")");

using Prepare = std::function<void(Doer *)>;
using Act = std::function<void(Doer *, int)>;

void nothing(Doer *)
{
}

void client(Doer *doer)
{
    doer->makeClient();
}

void settings(Doer *doer)
{
    doer->makeSettings();
}

void singleton(Doer *)
{
    AuthSettingsClient::get()->setUid(1000);
}

void factor(Doer *doer)
{
    doer->makeFactorAndUser();
}

void clientAndSettings(Doer *doer)
{
    doer->makeClient();
    doer->makeSettings();
    doer->logIn(doer->client.get());
}

void everything(Doer *doer)
{
    doer->makeFactorAndUser();
    clientAndSettings(doer);
    doer->makeDevlock();
}

template <typename Emission> Prepare clientThatSays(Emission emission)
{
    return [emission](Doer *doer) {
        doer->makeClient();
        doer->logIn(doer->client.get());
        doer->countDone(doer->client.get(), emission);
    };
}

template <typename Emission> Prepare settingsThatSay(Emission emission)
{
    return [emission](Doer *doer) {
        doer->makeSettings();
        doer->countDone(doer->settings.get(), emission);
    };
}

void devlockThatSays(Doer *doer)
{
    doer->makeDevlock();
    doer->countDone(doer->devlock.get(), &AuthDevlockClient::stateChanged);
}

void modelThatSays(Doer *doer)
{
    doer->makeSettings();
    doer->countDone(doer->settings->factors(), &FactorListModel::loginFactorsCountChanged);
}

/** The daemon answers calls of the methods with that. */
Prepare answered(const Prepare &prepare, const char *value, const QVector<const char *> &methods)
{
    return [=](Doer *doer) {
        prepare(doer);
        for (const char *method : methods)
            doer->daemon.answer(method, value);
    };
}

Deed call(const char *name, const Prepare &prepare, const Act &act)
{
    return {name, 2000, 100000, 20, prepare, act, ByteSlack};
}

/** What waits for several answers, or for what the daemon announces to all. */
Deed change(const char *name, const Prepare &prepare, const Act &act)
{
    return {name, 400, 100000, 1, prepare, act, ByteSlack};
}

Deed reconnection(const char *name, const Prepare &prepare, const Act &act)
{
    return {name, 80, 1000, 1, prepare, act, ConnectingSlack};
}

struct Call
{
    /** Of a call that is refused. */
    int warnings;
    void (*make)(Doer *);
};

const QVector<Call> calls{
    {1, [](Doer *doer) { doer->client->authenticate("login"_s, code); }},
    {1, [](Doer *doer) { doer->client->changeAuthData("code"_s, sameCode); }},
    // Its signal tells.
    {1, [](Doer *doer) { doer->client->unlockIfNeeded(); }},
    {1, [](Doer *doer) { doer->client->factorMethod(echo(7), "code"_s, [](const QVariant &) {}); }},
    {1, [](Doer *doer) { doer->client->factorMethodWait(echo(7), "code"_s); }},
    {1, [](Doer *doer) { doer->client->setLocked(AuthDevlockClient::SecurityUi); }},
    {1, [](Doer *doer) { doer->settings->setShowNotifications(!doer->settings->showNotifications()); }},
    {1, [](Doer *doer) { doer->settings->setIsUserSettable(!doer->settings->isUserSettable()); }},
    {1, [](Doer *doer) { doer->settings->setIsMultiFactorable(!doer->settings->isMultiFactorable()); }},
    // One for each service.
    {2, [](Doer *doer) { doer->settings->triggerFactor(1); }},
    {2, [](Doer *doer) { doer->settings->triggerUnlockFactor("smartcard"_s); }},
    {2, [](Doer *doer) { doer->settings->setUid(doer->settings->uid() == 1000 ? 1001 : 1000); }},
    {1, [](Doer *doer) { doer->settings->showLastLogin(1000); }},
    {1, [](Doer *doer) { doer->settings->lastLoginDate(1000); }},
    {0, [](Doer *doer) { doer->devlock->setState(AuthDevlockClient::SecurityUi); }},
    {1, [](Doer *doer) { doer->factor->getOption(1000, length); }},
    {1, [](Doer *doer) { doer->factor->setOption(1000, length, 4U); }},
    {1, [](Doer *doer) { doer->factor->doAction(1000, "echo"_s, {}, [](const QVariant &) {}); }},
    {1, [](Doer *doer) { doer->user->lastLoginDate(); }},
};

/** These are not sent. */
const QVector<Call> impossibleCalls{
    {1, [](Doer *doer) { doer->client->authenticate("login"_s, unsendable); }},
    {1, [](Doer *doer) { doer->client->changeAuthData("code"_s, unsendable); }},
    {1, [](Doer *doer) { doer->client->factorMethod(unsendable, "code"_s, [](const QVariant &) {}); }},
    {1, [](Doer *doer) { doer->client->factorMethodWait(unsendable, "code"_s); }},
    {1, [](Doer *doer) { doer->client->setLocked(AuthDevlockClient::SecurityUi); }},
    {1, [](Doer *doer) { doer->settings->canTriggerFactor(99); }},
    {1, [](Doer *doer) { doer->settings->triggerFactor(99); }},
    {1, [](Doer *doer) { doer->factor->setOption(1000, length, QVariant()); }},
    {1, [](Doer *doer) { doer->factor->doAction(1000, "echo"_s, unsendable, ValueCallBack()); }},
};

/** All kinds of calls by turns, which end with warnings. */
Deed refusals(const char *name, const QVector<Call> &refused, const Prepare &prepare)
{
    return {name,
            3000,
            100000,
            20,
            [=](Doer *doer) {
                everything(doer);
                QObject::connect(doer->client.get(), &AuthClient::unlockIfNeededFinished, doer, [doer](bool unlocked) {
                    if (!unlocked)
                        doer->done();
                });
                prepare(doer);
                doer->warningsAreAwaited = true;
            },
            [=](Doer *doer, int number) {
                const Call &next = refused.at(number % refused.size());
                doer->done(1 - next.warnings);
                next.make(doer);
            },
            ByteSlack};
}

Prepare error(const QByteArray &text)
{
    return [text](Doer *doer) { doer->daemon.misbehave("*", "error", R"("message":")" + text + '"'); };
}

/** The daemon sends a signal to all, with the one arguments and the other by turns. */
Deed signal(const char *name, const char *signal, const QByteArray &one, const QByteArray &other,
            const Prepare &prepare)
{
    return {name,
            1000,
            100000,
            50,
            [prepare](Doer *doer) {
                // Everything that listens.
                everything(doer);
                prepare(doer);
            },
            [=](Doer *doer, int number) {
                doer->requests.append(R"({"do":"emit","signal":")" + QByteArray(signal) + R"(","args":)"
                                      + AuthStandIn::quoted(QString::fromUtf8(number % 2 ? one : other)) + '}');
            },
            ByteSlack};
}

Deed signal(const char *name, const QByteArray &one, const QByteArray &other, const Prepare &prepare)
{
    return signal(name, name, one, other, prepare);
}

/** A signal that changes nothing. */
Deed unheard(const char *name, const char *signalName, const QByteArray &arguments)
{
    Deed deed = signal(name, signalName, arguments, arguments, nothing);
    deed.act = [act = deed.act](Doer *doer, int number) {
        act(doer, number);
        doer->done();
    };
    return deed;
}

/** The daemon announces an option of user 1000. */
Deed announcement(const char *option, const char *one, const char *other, const Prepare &prepare)
{
    const auto arguments = [option](const char *value) {
        return "(uint32 1000, '" + QByteArray(option) + "', <" + value + ">)";
    };
    return signal(option, "UserOptionChanged", arguments(one), arguments(other), prepare);
}

template <typename Make>
Deed makingAndDeleting(const char *name, int usually, Make make, const Prepare &prepare = nothing)
{
    return {name,
            usually,
            10000,
            10,
            prepare,
            [make](Doer *doer, int) {
                make();
                doer->done();
            },
            ConnectingSlack};
}

Deed ending(const char *name, const Prepare &prepare, const std::function<void(Doer *)> &run)
{
    return {name, 12, 1000, 1, prepare, [=](Doer *doer, int) { run(doer); }, ConnectingSlack};
}

Deed ending(const char *name, const char *program, const char *arguments, Doer::End end = Doer::ByItself)
{
    return ending(
        name, [](Doer *doer) { doer->holdCalls(); }, [=](Doer *doer) { doer->runHost(program, arguments, end); });
}

} // namespace

const QVector<Deed> &deeds()
{
    static const QVector<Deed> all{
        reconnection("daemon restarts", clientAndSettings,
                     [](Doer *doer, int) {
                         doer->daemon.restart();
                         doer->awaitPeers(2);
                         doer->done();
                     }),
        reconnection("handovers without a gap", clientAndSettings,
                     [](Doer *doer, int) {
                         doer->daemon.handover();
                         doer->awaitPeers(2);
                         doer->done();
                     }),
        reconnection(
            "daemon restarts with calls under way",
            [](Doer *doer) {
                clientAndSettings(doer);
                doer->countDone(doer->client.get(), &AuthClient::unlockIfNeededFinished);
                doer->holdCalls();
                doer->warningsAreAwaited = true;
            },
            [](Doer *doer, int) {
                // Three warnings, and the signal.
                doer->done(-3);
                doer->client->authenticate("login"_s, code);
                doer->settings->changeAuthData("code"_s, sameCode);
                doer->client->factorMethod(echo(7), "code"_s, [](const QVariant &) {});
                doer->client->unlockIfNeeded();
                doer->daemon.restart();
                doer->awaitPeers(2);
            }),
        reconnection(
            "connections break off",
            [](Doer *doer) {
                clientAndSettings(doer);
                doer->warningsAreAwaited = true;
            },
            [](Doer *doer, int) {
                doer->daemon.dropPeers();
                doer->client->factorMethodWait(echo(7), "code"_s);
                doer->daemon.restart();
                doer->awaitPeers(2);
            }),

        call("authenticate", clientThatSays(&AuthClient::authenticatedChanged),
             [](Doer *doer, int) { doer->client->authenticate("login"_s, code); }),
        call("authenticate with a wrong code", clientThatSays(&AuthClient::discredit),
             [](Doer *doer, int) { doer->client->authenticate("login"_s, wrongCode); }),
        call("authenticate, answered no",
             answered(clientThatSays(&AuthClient::discredit), "(false,)", {"Authenticate"}),
             [](Doer *doer, int) { doer->client->authenticate("login"_s, code); }),
        call("changeAuthData", clientThatSays(&AuthClient::authDataChanged),
             [](Doer *doer, int) { doer->client->changeAuthData("code"_s, sameCode); }),
        call("changeAuthData with a wrong code", clientThatSays(&AuthClient::changeAuthDataFailed),
             [](Doer *doer, int) { doer->client->changeAuthData("code"_s, noCode); }),
        call("changeAuthData, answered no",
             answered(clientThatSays(&AuthClient::discredit), "(false,)", {"ChangeAuthData"}),
             [](Doer *doer, int) { doer->client->changeAuthData("code"_s, sameCode); }),
        call("unlockIfNeeded", clientThatSays(&AuthClient::unlockIfNeededFinished),
             [](Doer *doer, int) { doer->client->unlockIfNeeded(); }),
        call("factorMethod", client,
             [](Doer *doer, int number) {
                 doer->client->factorMethod(echo(number), "code"_s, [doer, number](const QVariant &value) {
                     if (value == number)
                         doer->done();
                 });
             }),
        call("factorMethodWait", client,
             [](Doer *doer, int number) {
                 if (doer->client->factorMethodWait(echo(number), "code"_s) == number)
                     doer->done();
             }),
        call("setLocked", clientThatSays(&AuthClient::discredit),
             [](Doer *doer, int number) {
                 if (doer->client->setLocked(number % 2 ? AuthDevlockClient::Unlocked : AuthDevlockClient::SecurityUi))
                     doer->done();
             }),
        call("dropAuthentication", clientThatSays(&AuthClient::discredit),
             [](Doer *doer, int) { doer->client->dropAuthentication(); }),
        call("calls that ask nobody", everything,
             [](Doer *doer, int) {
                 doer->client->cancel();
                 doer->client->requestChallenge();
                 if (doer->client->authenticated() && !doer->client->progress() && doer->devlock->enabled()
                     && doer->devlock->state() == AuthDevlockClient::Unlocked)
                     doer->done();
             }),
        call("setState", devlockThatSays,
             [](Doer *doer, int number) {
                 doer->devlock->setState(number % 2 ? AuthDevlockClient::SecurityUi
                                                    : AuthDevlockClient::ManagerLockout);
             }),
        call("setUid", settingsThatSay(&AuthSettingsClient::uidChanged),
             [](Doer *doer, int number) { doer->settings->setUid(number % 2 ? 1000 : 1001); }),
        change("setShowNotifications", settingsThatSay(&AuthSettingsClient::showNotificationsChanged),
               [](Doer *doer, int) { doer->settings->setShowNotifications(!doer->settings->showNotifications()); }),
        change("setIsUserSettable", settingsThatSay(&AuthSettingsClient::isUserSettableChanged),
               [](Doer *doer, int) { doer->settings->setIsUserSettable(!doer->settings->isUserSettable()); }),
        change("setIsMultiFactorable", settingsThatSay(&AuthSettingsClient::isMultiFactorableChanged),
               [](Doer *doer, int) { doer->settings->setIsMultiFactorable(!doer->settings->isMultiFactorable()); }),
        change("triggerFactor", settingsThatSay(&AuthSettingsClient::unlockFactorsChanged),
               // Of the first two rows the one that is not chosen.
               [](Doer *doer, int number) { doer->settings->triggerFactor(number % 2 ? 0 : 1); }),
        change("triggerUnlockFactor", settingsThatSay(&AuthSettingsClient::unlockFactorsChanged),
               [](Doer *doer, int) { doer->settings->triggerUnlockFactor("smartcard"_s); }),
        call("locks and changes, answered no",
             answered(clientAndSettings, "(false,)", {"SetDevlockState", "SetUserOption"}),
             [](Doer *doer, int number) {
                 // The first six of what the daemon refuses below.
                 calls.at(5 + number % 6).make(doer);
                 doer->done();
             }),
        call("reads of a user", settings,
             [](Doer *doer, int) {
                 AuthSettingsClient *settings = doer->settings.get();
                 FactorListModel *factors = settings->factors();
                 const auto names = factors->roleNames();
                 QVariantList values;
                 for (auto name = names.keyBegin(); name != names.keyEnd(); ++name)
                     values.append(factors->index(0).data(*name));
                 if (settings->showLastLogin(1000) && settings->lastLoginDate(1000) == "2026-11-20 08:15"_s
                     && settings->uid() == 1000 && settings->showNotifications() && settings->canSwitchToUser()
                     && settings->isUserSettable() && !settings->isMultiFactorable()
                     && !settings->userWarning().isEmpty() && settings->unlockFactors().size() == 2
                     && settings->hasFactor("code"_s) && settings->hasEnabledFactor("code"_s)
                     && settings->hasChosenFactor("code"_s) && !settings->canTriggerFactor(0)
                     && !settings->token().isEmpty() && factors->rowCount() == 5 && factors->loginFactorsCount() == 5
                     && values.size() == 5 && values.contains("code"_s))
                     doer->done();
             }),
        call("AuthSettings: setUid and lastLoginDate", factor,
             [](Doer *doer, int number) {
                 doer->user->setUid(number % 2 ? 1000 : 1001);
                 if (doer->user->lastLoginDate() == (number % 2 ? "2026-11-20 08:15"_s : QString()))
                     doer->done();
             }),
        call("FactorSettingsBase: getOption", factor,
             [](Doer *doer, int) {
                 if (doer->factor->getOption(1000, length) == 4U)
                     doer->done();
             }),
        change("FactorSettingsBase: setOption", factor,
               [](Doer *doer, int) { doer->factor->setOption(1000, length, 4U); }),
        call("FactorSettingsBase: doAction", factor,
             [](Doer *doer, int number) {
                 const ValueCallBack callback = [doer](const QVariant &value) {
                     if (value.isValid())
                         doer->done();
                 };
                 if (number % 2)
                     doer->factor->doAction(1000, "echo"_s, code, callback);
                 else
                     Factor(nullptr).doAction(1000, "echo"_s, code, callback);
             }),

        refusals("refusals with a text", calls, error("no")),
        refusals("refusals without a text", calls, error("")),
        refusals("calls that are not sent", impossibleCalls, [](Doer *doer) { doer->client->dropAuthentication(); }),

        signal("Authenticated", "([byte 1, 2, 3, 4, 5, 6, 7, 8],)", "([byte 9],)",
               clientThatSays(&AuthClient::authenticatedChanged)),
        signal("AuthenticationFailed", "()", "()", clientThatSays(&AuthClient::discredit)),
        signal("AuthDataChanged", "()", "()", clientThatSays(&AuthClient::authDataChanged)),
        signal("ChangeAuthDataFailed", "()", "()", clientThatSays(&AuthClient::changeAuthDataFailed)),
        signal("UnlockIfNeededFinished", "(true,)", "(false,)", clientThatSays(&AuthClient::unlockIfNeededFinished)),
        signal("Factor", "('code', {'name': <'length'>, 'value': <uint32 4>})", "('worker', {'list': <['a', 'b']>})",
               [](Doer *doer) {
                   // The marks of drain() are factor signals too.
                   QObject::connect(doer->client.get(), &AuthClient::factorSignal, doer,
                                    [doer](const QString &factor, const QVariantMap &params) {
                                        if (!factor.startsWith(drainMark) && !params.isEmpty())
                                            doer->done();
                                    });
               }),
        signal("option of a factor", "Factor",
               "('code', {'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'length'>, 'value': <uint32 4>})",
               "('code', {'type': <'option-changed'>, 'uid': <uint32 1001>, 'name': <'keypad'>, 'value': <'none'>})",
               nothing),
        signal("last login date", "Factor",
               "('worker', {'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>})",
               "('worker', {'type': <'option-changed'>, 'uid': <uint32 1000>, 'name': <'last-login-date'>, "
               "'value': <'2026-11-22 08:15'>})",
               [](Doer *doer) { doer->countDone(doer->user.get(), &AuthSettings::lastLoginDateChanged); }),
        signal("OptionChanged", "('worker/can-switch-to-user', <true>)", "('worker/can-switch-to-user', <false>)",
               settingsThatSay(&AuthSettingsClient::canSwitchToUserChanged)),
        announcement("worker/service-factors/unlock", "['code']", "['sudis', 'smartcard']",
                     settingsThatSay(&AuthSettingsClient::unlockFactorsChanged)),
        announcement("worker/service-factors/login", "['sudis', 'smartcard']", "['code']",
                     [](Doer *doer) {
                         settingsThatSay (&AuthSettingsClient::userWarningChanged)(doer);
                         // The warning is there already: the same factor unlocks.
                         doer->daemon.changeOption("worker/service-factors/login", R"(["sudis", "smartcard"])", 1000);
                     }),
        announcement("worker/disabled-factors", "@as []", "['sudis']", modelThatSays),
        announcement("worker/is-multi-factorable", "false", "true",
                     settingsThatSay(&AuthSettingsClient::isMultiFactorableChanged)),
        announcement("worker/is-user-settable", "true", "false",
                     settingsThatSay(&AuthSettingsClient::isUserSettableChanged)),
        announcement("devlock/show-notifications", "true", "false",
                     settingsThatSay(&AuthSettingsClient::showNotificationsChanged)),
        signal("StateChanged", "(5,)", "(2,)", devlockThatSays),
        unheard("options of others", "UserOptionChanged", "(uint32 1001, 'worker/is-user-settable', <false>)"),
        unheard("signals with other values", "Authenticated", "({'token': <[byte 1, 2, 3, 4]>},)"),

        makingAndDeleting("AuthClient made and deleted", 200, [] { AuthClient client; }),
        makingAndDeleting("AuthClient deleted with calls under way", 200,
                          [] {
                              AuthClient client;
                              client.authenticate("login"_s, code);
                              client.changeAuthData("code"_s, sameCode);
                              client.unlockIfNeeded();
                              client.factorMethod(echo(7), "code"_s, [](const QVariant &) {});
                          }),
        makingAndDeleting("AuthDevlockClient made and deleted", 400, [] { AuthDevlockClient client; }),
        makingAndDeleting("AuthSettingsClient made and deleted", 100,
                          [] {
                              AuthSettingsClient client(nullptr);
                              client.setUid(1000);
                          }),
        makingAndDeleting(
            "AuthSettings made and deleted", 1000,
            [] {
                AuthSettings user;
                user.setUid(1000);
            },
            singleton),
        makingAndDeleting(
            "FactorSettingsBase made and deleted", 1000, [] { FactorSettingsBase(nullptr, "code"_s); }, singleton),
        makingAndDeleting("FactorListModel made and deleted", 1000, [] { FactorListModel(nullptr).rowCount(); }),

        ending("hosts return from main", TEST_HOST, "app client stack flight return"),
        ending("hosts call exit", TEST_HOST, "app client heap flight exit"),
        ending("hosts call _exit", TEST_HOST, "app client heap flight _exit"),
        ending("hosts quit", TEST_HOST, "app client stack flight loop", Doer::ToldToQuit),
        ending("hosts are killed", TEST_HOST, "app client stack flight loop", Doer::BySignal),
        ending("hosts of a static client return from main", TEST_HOST, "app client static flight return"),
        ending("hosts without an application call exit", TEST_HOST, "noapp client stack flight exit"),
        ending("hosts of the device lock return from main", TEST_HOST, "app devlock heap flight return"),
        ending("hosts of the singleton return from main", SETTINGS_HOST, "app singleton stack flight return"),
        ending("hosts of the singleton are killed", SETTINGS_HOST, "app singleton stack flight loop", Doer::BySignal),
        ending("hosts of a factor call exit", SETTINGS_HOST, "app factor heap flight exit"),
        ending("hosts find no bus", nothing,
               [](Doer *doer) {
                   doer->runHost(TEST_HOST, "app client heap idle return", Doer::ByItself, noBus, Doer::WithoutBus);
               }),
        ending("hosts find no daemon", nothing,
               [](Doer *doer) {
                   doer->daemon.stop();
                   doer->runHost(TEST_HOST, "app client heap idle return", Doer::ByItself, noSocket);
                   doer->daemon.start();
               }),
        ending("hosts lose the daemon's socket", nothing,
               [](Doer *doer) {
                   doer->runHost(TEST_HOST, "app client heap idle loop", Doer::WithoutItsSocket, noSocket);
                   doer->daemon.restart();
               }),
    };
    return all;
}

Factor::Factor(std::function<void()> heard)
    : FactorSettingsBase(nullptr, "code"_s)
    , m_heard(std::move(heard))
{
}

void Factor::handleOptionChanged(uint, const QString &, const QVariant &)
{
    m_heard();
}

void Doer::makeClient()
{
    if (!client)
        client = newClient();
}

void Doer::makeSettings()
{
    if (settings)
        return;
    settings = newSettingsClient();
    settings->setUid(1000);
    logIn(settings.get());
}

void Doer::makeDevlock()
{
    if (devlock)
        return;
    devlock = std::make_unique<AuthDevlockClient>();
    if (!waitFor([this] { return devlock->state() == AuthDevlockClient::Unlocked; }))
        qFatal("The client does not hear the device-lock state");
}

void Doer::makeFactorAndUser()
{
    // Where it is there from an earlier row, it has a connection to the last daemon.
    static AuthSettingsClient *known = nullptr;
    if (known)
        awaitReconnection("authd_p2p_settings_client"_s);
    known = AuthSettingsClient::get();
    logIn(known);
    factor = std::make_unique<Factor>([this] { done(); });
    user = std::make_unique<AuthSettings>();
    user->setUid(1000);
}

void Doer::logIn(AuthClient *who)
{
    who->authenticate("login"_s, code);
    if (!waitFor([who] { return who->authenticated() && !who->progress(); }))
        qFatal("The daemon does not take the code");
}

/** Clients are connected and subscribed once the daemon has as many connections: they do both at one go. */
void Doer::awaitPeers(int count)
{
    if (!waitFor([=] { return daemon.peerCount() == count; }))
        qFatal("The clients do not follow the daemon");
}

void Doer::runHost(const char *program, const char *arguments, End end, const QString &critical, Bus bus)
{
    QProcess host;
    start(host, QLatin1String(program), QString::fromUtf8(arguments).split(QLatin1Char(' ')), bus);
    if (end != ByItself)
        waitReady(host);
    if (end == ToldToQuit)
        sendQuit(host);
    if (end == WithoutItsSocket) {
        daemon.stop();
        daemon.request(R"({"do":"start","socket":false})");
    }
    if (end == BySignal) {
        kill(pid_t(host.processId()), SIGTERM);
        QVERIFY(host.waitForFinished(300000));
        QCOMPARE(host.exitStatus(), QProcess::CrashExit);
    } else {
        checkEnd(host, critical.isEmpty() ? 0 : 1, critical);
    }
    done();
}

void Doer::letGo()
{
    client.reset();
    settings.reset();
    devlock.reset();
    factor.reset();
    user.reset();
    warningsAreAwaited = false;
}
