// Whatever is done over and over leaves nothing behind: each row of deeds() does one thing often, and what the process
// and its daemons hold is the same after a quarter of the times as at the end. AUTH_GROWTH_ALL does it as often as a
// host would in years.

#include "figures.h"
#include "host-test-case.h"

#include <AuthSettings>
#include <FactorListModel>
#include <FactorSettingsBase>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtDBus/QDBusConnection>

#include <csignal>
#include <deque>
#include <future>
#include <thread>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// By so much the memory in use differs from one mark to the next, in bytes and in blocks: the thread of Qt D-Bus may be
// about to free the last message or two, and buffers of libdbus keep the length of their longest one.
constexpr qint64 ByteSlack = 4096;
constexpr qint64 BlockSlack = 16;
// libdbus 1.14 keeps five messages of up to 10 KiB for later. The longest here are the answers to each new connection.
constexpr qint64 ConnectingSlack = ByteSlack + qint64(5 * 10240);

} // namespace

class TestGrowth : public HostTestCase
{
    Q_OBJECT

public:
    enum End {
        ByItself,
        ToldToQuit,
        BySignal,
    };

    struct Deed
    {
        const char *name;
        int usually; ///< So often at every run,
        int inAll;   ///< and so often where AUTH_GROWTH_ALL is set.
        int atOnce;  ///< So often before the event loop turns and all has to be done.
        std::function<void(TestGrowth *)> prepare;
        /** Does it once, the given number counting the times; done() is called once for that, now or later. */
        std::function<void(TestGrowth *, int)> act;
        /** In bytes. */
        qint64 slack = ByteSlack;
    };

    void done()
    {
        ++m_done;
    }
    template <typename Object, typename Emission> void countDone(Object *object, Emission emission)
    {
        connect(object, emission, this, &TestGrowth::done);
    }
    void makeClient();
    /** A client of user 1000 that may write. */
    void makeSettings();
    void makeDevlock();
    void logIn(AuthClient *user);
    void awaitPeers(int count);
    void runHost(const char *program, const char *arguments, End end, int status, const QString &critical);

    using HostTestCase::daemon;
    using HostTestCase::holdCalls;
    std::unique_ptr<AuthClient> client;
    std::unique_ptr<AuthSettingsClient> settings;
    std::unique_ptr<AuthDevlockClient> devlock;
    /** Requests that are made together, before the event loop turns. */
    QVector<QByteArray> requests;
    bool warningsAreAwaited = false;
    /** Things of which a deed of leaksAreReported() makes ever more. */
    std::deque<std::shared_ptr<void>> kept;

private:
    static void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &text);
    void repeat(const Deed &deed, int from, int to);
    QStringList grown(const Deed &deed, int patience);

    int m_done = 0;
    QString m_warning;
    static TestGrowth *current;
    static QtMessageHandler previousHandler;

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void nothingGrows_data();
    void nothingGrows();
    void leaksAreReported_data();
    void leaksAreReported();
};

namespace {

using Deed = TestGrowth::Deed;

const QVariantMap code{{QStringLiteral("factor"), QStringLiteral("code")},
                       {QStringLiteral("data"), QStringLiteral("1234")}};
const QVariantMap sameCode{{QStringLiteral("old"), QStringLiteral("1234")},
                           {QStringLiteral("new"), QStringLiteral("1234")}};
const QString noSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" ".+")");

void nothing(TestGrowth *)
{
}

void singleton(TestGrowth *)
{
    AuthSettingsClient::get()->setUid(1000);
}

void clientAndSettings(TestGrowth *test)
{
    test->makeClient();
    test->makeSettings();
    test->logIn(test->client.get());
}

template <typename Emission> std::function<void(TestGrowth *)> clientThatSays(Emission emission)
{
    return [emission](TestGrowth *test) {
        test->makeClient();
        test->logIn(test->client.get());
        test->countDone(test->client.get(), emission);
    };
}

template <typename Emission> std::function<void(TestGrowth *)> settingsThatSay(Emission emission)
{
    return [emission](TestGrowth *test) {
        test->makeSettings();
        test->countDone(test->settings.get(), emission);
    };
}

void devlockThatSays(TestGrowth *test)
{
    test->makeDevlock();
    test->countDone(test->devlock.get(), &AuthDevlockClient::stateChanged);
}

/** The daemon sends a signal to all, with the one arguments and the other by turns. */
Deed signal(const char *name, const char *one, const char *other, std::function<void(TestGrowth *)> prepare)
{
    return {name,
            1000,
            100000,
            50,
            [=](TestGrowth *test) {
                // Everything that listens.
                clientAndSettings(test);
                test->makeDevlock();
                prepare(test);
            },
            [=](TestGrowth *test, int number) {
                test->requests.append(R"({"do":"emit","signal":")" + QByteArray(name) + R"(","args":)"
                                      + AuthStandIn::quoted(QString::fromUtf8(number % 2 ? one : other)) + '}');
            }};
}

/** All kinds of calls, which the daemon refuses with errors. */
Deed refusal(const char *name, const char *text)
{
    return {name,
            2000,
            100000,
            20,
            [text](TestGrowth *test) {
                clientAndSettings(test);
                test->makeDevlock();
                QObject::connect(test->client.get(), &AuthClient::unlockIfNeededFinished, test, [test](bool unlocked) {
                    if (!unlocked)
                        test->done();
                });
                test->daemon.misbehave("*", "error", QByteArray(R"("message":")") + text + '"');
                // One for each of the others.
                test->warningsAreAwaited = true;
            },
            [](TestGrowth *test, int number) {
                switch (number % 10) {
                case 0:
                    test->client->authenticate("login"_s, code);
                    break;
                case 1:
                    test->client->changeAuthData("code"_s, sameCode);
                    break;
                case 2:
                    test->client->unlockIfNeeded();
                    break;
                case 3:
                    test->client->factorMethod(echo(7), "code"_s, [](const QVariant &) {});
                    break;
                case 4:
                    test->client->factorMethodWait(echo(7), "code"_s);
                    break;
                case 5:
                    test->client->setLocked(5);
                    break;
                case 6:
                    test->settings->setShowNotifications(!test->settings->showNotifications());
                    break;
                case 7:
                    test->settings->lastLoginDate(1000);
                    break;
                case 8:
                    // Refused before it is sent.
                    test->client->authenticate("login"_s, {{"nothing"_s, QVariant()}});
                    break;
                case 9:
                    test->devlock->setState(AuthDevlockClient::SecurityUi);
                    test->done();
                    break;
                }
            }};
}

template <typename Make>
Deed makingAndDeleting(const char *name, int usually, Make make, std::function<void(TestGrowth *)> prepare = nothing)
{
    return {name,
            usually,
            10000,
            10,
            prepare,
            [make](TestGrowth *test, int) {
                make();
                test->done();
            },
            ConnectingSlack};
}

Deed ending(const char *name, const char *program, const char *arguments, TestGrowth::End end = TestGrowth::ByItself)
{
    return {name,
            12,
            1000,
            1,
            [](TestGrowth *test) { test->holdCalls(); },
            [=](TestGrowth *test, int) { test->runHost(program, arguments, end, 0, QString()); }};
}

const QVector<Deed> &deeds()
{
    static const QVector<Deed> all{
        {"daemon restarts", 80, 1000, 1, clientAndSettings,
         [](TestGrowth *test, int) {
             test->daemon.restart();
             test->awaitPeers(2);
             test->done();
         },
         ConnectingSlack},
        {"handovers without a gap", 80, 1000, 1, clientAndSettings,
         [](TestGrowth *test, int) {
             test->daemon.handover();
             test->awaitPeers(2);
             test->done();
         },
         ConnectingSlack},

        {"authenticate", 2000, 100000, 20, clientThatSays(&AuthClient::authenticatedChanged),
         [](TestGrowth *test, int) { test->client->authenticate("login"_s, code); }},
        {"changeAuthData", 2000, 100000, 20, clientThatSays(&AuthClient::authDataChanged),
         [](TestGrowth *test, int) { test->client->changeAuthData("code"_s, sameCode); }},
        {"unlockIfNeeded", 2000, 100000, 20, clientThatSays(&AuthClient::unlockIfNeededFinished),
         [](TestGrowth *test, int) { test->client->unlockIfNeeded(); }},
        {"factorMethod", 2000, 100000, 20, [](TestGrowth *test) { test->makeClient(); },
         [](TestGrowth *test, int number) {
             test->client->factorMethod(echo(number), "code"_s, [test, number](const QVariant &value) {
                 if (value == number)
                     test->done();
             });
         }},
        {"factorMethodWait", 2000, 100000, 20, [](TestGrowth *test) { test->makeClient(); },
         [](TestGrowth *test, int number) {
             if (test->client->factorMethodWait(echo(number), "code"_s) == number)
                 test->done();
         }},
        {"setLocked", 2000, 100000, 20, clientThatSays(&AuthClient::discredit),
         [](TestGrowth *test, int number) {
             if (test->client->setLocked(number % 2 ? AuthDevlockClient::Unlocked : AuthDevlockClient::SecurityUi))
                 test->done();
         }},
        {"setState", 2000, 100000, 20, devlockThatSays,
         [](TestGrowth *test, int number) {
             test->devlock->setState(number % 2 ? AuthDevlockClient::SecurityUi : AuthDevlockClient::ManagerLockout);
         }},
        {"setUid", 1000, 100000, 20, settingsThatSay(&AuthSettingsClient::uidChanged),
         [](TestGrowth *test, int number) { test->settings->setUid(number % 2 ? 1000 : 1001); }},
        {"setShowNotifications", 400, 100000, 1, settingsThatSay(&AuthSettingsClient::showNotificationsChanged),
         [](TestGrowth *test, int) { test->settings->setShowNotifications(!test->settings->showNotifications()); }},
        {"setIsUserSettable", 400, 100000, 1, settingsThatSay(&AuthSettingsClient::isUserSettableChanged),
         [](TestGrowth *test, int) { test->settings->setIsUserSettable(!test->settings->isUserSettable()); }},
        {"setIsMultiFactorable", 400, 100000, 1, settingsThatSay(&AuthSettingsClient::isMultiFactorableChanged),
         [](TestGrowth *test, int) { test->settings->setIsMultiFactorable(!test->settings->isMultiFactorable()); }},
        {"triggerFactor", 400, 100000, 1, settingsThatSay(&AuthSettingsClient::unlockFactorsChanged),
         // Of the first two rows the one that is not chosen.
         [](TestGrowth *test, int number) { test->settings->triggerFactor(number % 2 ? 0 : 1); }},
        {"triggerUnlockFactor", 400, 100000, 1, settingsThatSay(&AuthSettingsClient::unlockFactorsChanged),
         [](TestGrowth *test, int) { test->settings->triggerUnlockFactor("smartcard"_s); }},
        {"reads of a user", 1000, 100000, 20, [](TestGrowth *test) { test->makeSettings(); },
         [](TestGrowth *test, int) {
             AuthSettingsClient *settings = test->settings.get();
             const QModelIndex first = settings->factors()->index(0);
             const auto names = settings->factors()->roleNames();
             if (settings->showLastLogin(1000) && settings->lastLoginDate(1000) == "2026-11-20 08:15"_s
                 && settings->unlockFactors().size() == 2 && settings->hasFactor("code"_s)
                 && settings->hasEnabledFactor("code"_s) && settings->hasChosenFactor("code"_s)
                 && !settings->canTriggerFactor(0) && !settings->token().isEmpty()
                 && first.data(names.key("name")) == "code"_s && first.data(names.key("enabled")) == true)
                 test->done();
         }},

        refusal("refusals with a text", "no"),
        refusal("refusals without a text", ""),

        signal("Authenticated", "([byte 1, 2, 3, 4, 5, 6, 7, 8],)", "([byte 9],)",
               clientThatSays(&AuthClient::authenticatedChanged)),
        signal("AuthenticationFailed", "()", "()", clientThatSays(&AuthClient::discredit)),
        signal("AuthDataChanged", "()", "()", clientThatSays(&AuthClient::authDataChanged)),
        signal("ChangeAuthDataFailed", "()", "()", clientThatSays(&AuthClient::changeAuthDataFailed)),
        signal("UnlockIfNeededFinished", "(true,)", "(false,)", clientThatSays(&AuthClient::unlockIfNeededFinished)),
        signal("Factor", "('code', {'name': <'length'>, 'value': <uint32 4>})", "('worker', {'list': <['a', 'b']>})",
               [](TestGrowth *test) {
                   // The marks of drain() are factor signals too.
                   QObject::connect(test->client.get(), &AuthClient::factorSignal, test,
                                    [test](const QString &factor, const QVariantMap &params) {
                                        if (!factor.startsWith(drainMark) && !params.isEmpty())
                                            test->done();
                                    });
               }),
        signal("OptionChanged", "('worker/can-switch-to-user', <true>)", "('worker/can-switch-to-user', <false>)",
               settingsThatSay(&AuthSettingsClient::canSwitchToUserChanged)),
        signal("UserOptionChanged", "(uint32 1000, 'worker/service-factors/unlock', <['code']>)",
               "(uint32 1000, 'worker/service-factors/unlock', <['sudis', 'smartcard']>)",
               settingsThatSay(&AuthSettingsClient::unlockFactorsChanged)),
        signal("StateChanged", "(5,)", "(2,)", devlockThatSays),

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
            "FactorSettingsBase made and deleted", 1000,
            [] {
                struct Factor : FactorSettingsBase
                {
                    Factor()
                        : FactorSettingsBase(nullptr, "code"_s)
                    {
                    }
                } factor;
            },
            singleton),

        ending("hosts return from main", TEST_HOST, "app client stack flight return"),
        ending("hosts call exit", TEST_HOST, "app client heap flight exit"),
        ending("hosts call _exit", TEST_HOST, "app client heap flight _exit"),
        ending("hosts quit", TEST_HOST, "app client stack flight loop", TestGrowth::ToldToQuit),
        ending("hosts are killed", TEST_HOST, "app client stack flight loop", TestGrowth::BySignal),
        ending("hosts of the singleton return from main", SETTINGS_HOST, "app singleton stack flight return"),
        ending("hosts of the singleton are killed", SETTINGS_HOST, "app singleton stack flight loop",
               TestGrowth::BySignal),
        {"hosts find no daemon", 12, 1000, 1, nothing,
         [](TestGrowth *test, int) {
             test->daemon.stop();
             test->runHost(TEST_HOST, "app client heap idle return", TestGrowth::ByItself, 1, noSocket);
             test->daemon.start();
         },
         ConnectingSlack},
    };
    return all;
}

/** A deed that leaves something behind, and the figure that tells. */
struct Leak
{
    const char *name;
    Figure figure;
    /** What is left behind goes with the pointer. */
    std::function<std::shared_ptr<void>(const QString &name)> make;
};

const QVector<Leak> &leaks()
{
    static const QVector<Leak> all{
        {"a byte", IS_SANITIZED ? Bytes : Blocks, [](const QString &) { return std::make_shared<char>(); }},
        {"a byte array", Bytes, [](const QString &) { return std::make_shared<QByteArray>(1, 'x'); }},
        {"an object", Objects, [](const QString &) { return std::make_shared<QObject>(); }},
        {"a thread", Threads,
         [](const QString &) {
             const auto end = std::make_shared<std::promise<void>>();
             return std::shared_ptr<std::thread>(new std::thread([end = end->get_future()]() mutable { end.wait(); }),
                                                 [end](std::thread *thread) {
                                                     end->set_value();
                                                     thread->join();
                                                     delete thread;
                                                 });
         }},
        {"a file", Files,
         [](const QString &name) {
             const QString path = "/run/"_s + name;
             QFile(path).open(QFile::WriteOnly);
             return std::shared_ptr<void>(nullptr, [path](void *) { QFile::remove(path); });
         }},
        {"a descriptor", Descriptors,
         [](const QString &) {
             auto file = std::make_shared<QFile>("/dev/null"_s);
             file->open(QFile::ReadOnly);
             return file;
         }},
        {"a child that nobody waits for", Processes,
         [](const QString &) {
             pid_t child = 0;
             char name[] = "true";
             char *const arguments[] = {name, nullptr};
             posix_spawnp(&child, name, nullptr, nullptr, arguments, environ);
             return std::shared_ptr<void>(nullptr, [child](void *) { waitpid(child, nullptr, 0); });
         }},
        {"a connection to the daemon", Peers,
         [](const QString &name) {
             QDBusConnection::connectToPeer("unix:path=/var/run/authd/authd.socket"_s, name);
             return std::shared_ptr<void>(nullptr, [name](void *) { QDBusConnection::disconnectFromPeer(name); });
         }},
        {"a connection to the bus", BusClients,
         [](const QString &name) {
             QDBusConnection::connectToBus(QDBusConnection::SystemBus, name);
             return std::shared_ptr<void>(nullptr, [name](void *) { QDBusConnection::disconnectFromBus(name); });
         }},
        {"a subscription", MatchRules,
         [](const QString &name) {
             auto receiver = std::make_shared<QObject>();
             QDBusConnection::systemBus().connect(QString(), QLatin1Char('/') + name, "test.Growth"_s, "Grown"_s,
                                                  receiver.get(), SLOT(deleteLater()));
             return receiver;
         }},
    };
    return all;
}

} // namespace

TestGrowth *TestGrowth::current = nullptr;
QtMessageHandler TestGrowth::previousHandler = nullptr;

void TestGrowth::makeClient()
{
    if (!client)
        client = newClient();
}

void TestGrowth::makeSettings()
{
    if (settings)
        return;
    settings = newSettingsClient();
    settings->setUid(1000);
    logIn(settings.get());
}

void TestGrowth::makeDevlock()
{
    if (devlock)
        return;
    devlock = std::make_unique<AuthDevlockClient>();
    if (!waitFor([this] { return devlock->state() == AuthDevlockClient::Unlocked; }))
        qFatal("The client does not hear the device-lock state");
}

void TestGrowth::logIn(AuthClient *user)
{
    user->authenticate("login"_s, code);
    if (!waitFor([user] { return user->authenticated() && !user->progress(); }))
        qFatal("The daemon does not take the code");
}

/** Clients are connected and subscribed once the daemon has as many connections: they do both at one go. */
void TestGrowth::awaitPeers(int count)
{
    if (!waitFor([=] { return daemon.peerCount() == count; }))
        qFatal("The clients do not follow the daemon");
}

void TestGrowth::runHost(const char *program, const char *arguments, End end, int status, const QString &critical)
{
    QProcess host;
    start(host, QLatin1String(program), QString::fromUtf8(arguments).split(QLatin1Char(' ')));
    if (end != ByItself)
        waitReady(host);
    if (end == ToldToQuit)
        sendQuit(host);
    if (end == BySignal) {
        kill(pid_t(host.processId()), SIGTERM);
        QVERIFY(host.waitForFinished(300000));
        QCOMPARE(host.exitStatus(), QProcess::CrashExit);
    } else {
        checkEnd(host, status, critical);
    }
    done();
}

void TestGrowth::handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (type == QtWarningMsg && current->warningsAreAwaited)
        current->done();
    else if (type == QtWarningMsg && current->m_warning.isEmpty())
        current->m_warning = text;
    else if (type == QtCriticalMsg || type == QtFatalMsg)
        previousHandler(type, context, text);
}

void TestGrowth::initTestCase()
{
    // Hosts that leave files behind do so in this world.
    QVERIFY(QDir().mkpath("/run/tmp"_s));
    for (const char *place :
         {"TMPDIR", "HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"})
        qputenv(place, "/run/tmp");
}

void TestGrowth::cleanup()
{
    client.reset();
    settings.reset();
    devlock.reset();
    kept.clear();
    warningsAreAwaited = false;
    HostTestCase::cleanup();
}

/** The times from the one number up to the other. */
void TestGrowth::repeat(const Deed &deed, int from, int to)
{
    for (int number = from; number < to && !QTest::currentTestFailed();) {
        for (int i = 0; i < deed.atOnce && number < to; ++i)
            deed.act(this, number++);
        if (!requests.isEmpty()) {
            const QVector<QJsonObject> answers = daemon.requests(requests);
            for (const QJsonObject &answer : answers)
                QVERIFY2(answer.value("ok"_s).toBool(), qPrintable(answer.value("error"_s).toString()));
            requests.clear();
        }
        if (!waitFor([&] { return m_done >= number || QTest::currentTestFailed(); }))
            QFAIL(qPrintable("%1 of %2 are done"_s.arg(m_done).arg(number)));
        // What the daemon has sent besides.
        for (AuthClient *listener : {client.get(), static_cast<AuthClient *>(settings.get())}) {
            if (listener)
                drain(listener);
        }
        drainSystemBus();
        QCOMPARE(m_done, number);
        daemon.release();
        daemon.clearCalls();
    }
}

/** Does it four times as often as between two marks, after a while of getting used to it; what has grown meanwhile. */
QStringList TestGrowth::grown(const Deed &deed, int patience)
{
    // What takes a second costs three under a sanitizer.
    const int usually = IS_SANITIZED ? deed.usually / 2 : deed.usually;
    const int all = qEnvironmentVariableIsSet("AUTH_GROWTH_ALL") ? deed.inAll : usually;
    const int warmUp = qMax(deed.atOnce * 4, all / 8);
    const int quarter = qMax(deed.atOnce, all / 4);
    m_done = 0;
    m_warning.clear();
    deed.prepare(this);
    m_done = 0;

    std::array<Figures, 4> marks{};
    current = this;
    previousHandler = qInstallMessageHandler(handleMessage);
    repeat(deed, 0, warmUp);
    // For the first time that takes memory of its own.
    takeFigures(daemon);
    for (int i = 0; i < 4; ++i) {
        repeat(deed, warmUp + i * quarter, warmUp + (i + 1) * quarter);
        marks[size_t(i)] = takeFigures(daemon, i ? &marks[0] : nullptr, patience);
        // Whoever has waited in vain need not wait again.
        if (i && !isNoMore(marks[size_t(i)], marks[0]))
            patience = 0;
    }
    qInstallMessageHandler(previousHandler);

    QStringList complaints;
    if (!m_warning.isEmpty())
        complaints.append("warning: "_s + m_warning);
    printf("%s, %d times\n", deed.name, 4 * quarter);
    for (size_t figure = 0; figure < FigureCount; ++figure) {
        printf("  %-26s", figureNames[figure]);
        for (const Figures &mark : marks)
            printf(" %10lld", mark[figure]);
        // Memory is looked at when all other things have long come to rest.
        const bool isMemory = figure == Bytes || figure == Blocks;
        const qint64 growth = marks[3][figure] - marks[isMemory ? 1 : 0][figure];
        // No byte a time, where an allocation takes 24, and no block in eight times.
        const qint64 slack = figure == Bytes ? deed.slack + qint64(2) * quarter
            : figure == Blocks               ? BlockSlack + quarter / 4
                                             : 0;
        const bool grows = growth > slack;
        printf(grows ? "  grows\n" : "\n");
        if (grows)
            complaints.append("%1 by %2 in %3 times"_s.arg(QLatin1String(figureNames[figure]))
                                  .arg(growth)
                                  .arg((isMemory ? 2 : 3) * quarter));
    }
    return complaints;
}

void TestGrowth::nothingGrows_data()
{
    QTest::addColumn<int>("row");
    for (int row = 0; row < deeds().size(); ++row)
        QTest::newRow(deeds().at(row).name) << row;
}

void TestGrowth::nothingGrows()
{
    QFETCH(int, row);
    QCOMPARE(grown(deeds().at(row), 120000), QStringList());
}

void TestGrowth::leaksAreReported_data()
{
    QTest::addColumn<int>("row");
    for (int row = 0; row < leaks().size(); ++row)
        QTest::newRow(leaks().at(row).name) << row;
}

void TestGrowth::leaksAreReported()
{
    QFETCH(int, row);
    const Leak &leak = leaks().at(row);
    // Under valgrind malloc() is another.
    if (!IS_SANITIZED && leak.figure <= Blocks && !qEnvironmentVariableIsEmpty("AUTH_TEST_RUNNER"))
        QSKIP("What valgrind allocates is not counted", );
    const bool isSmall = leak.figure <= Blocks;
    const QStringList complaints = grown({leak.name, isSmall ? 800 : 80, isSmall ? 800 : 80, 10, nothing,
                                          [&leak](TestGrowth *test, int number) {
                                              test->kept.push_back(leak.make("leak%1"_s.arg(number)));
                                              test->done();
                                          }},
                                         0);
    const QString figure = QLatin1String(figureNames[leak.figure]) + QLatin1Char(' ');
    QVERIFY2(!complaints.filter(QRegularExpression(QLatin1Char('^') + figure)).isEmpty(),
             qPrintable(complaints.join("; "_s)));
}

QTEST_GUILESS_MAIN(TestGrowth)
#include "tst_growth.moc"
