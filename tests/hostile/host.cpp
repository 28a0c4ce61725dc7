// The host of a case: one object of each kind, all their calls, and what can be seen to be wrong.

#include "case.h"

#include <AuthClient>
#include <AuthDevlockClient>
#include <AuthSettings>
#include <AuthSettingsClient>
#include <FactorListModel>
#include <FactorSettingsBase>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QElapsedTimer>
#include <QtDBus/QDBusConnection>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// An answer is waited for 25 seconds, and no step waits for more than a few that the peers keep back. What only takes long
// took 140 seconds with the sanitizers on a machine that had half of its processors.
constexpr qint64 LongestStep = 300000;
constexpr qint64 LongestWait = 60000;

Ledger *theLedger = nullptr;
/** How often the library has said that a factor method had failed. */
int failureLines = 0;

[[noreturn]] void complain(const Bytes &text)
{
    snprintf(theLedger->complaint, sizeof theLedger->complaint, "%s", text.c_str());
    _exit(70);
}

void hear(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtCriticalMsg && text.startsWith(QLatin1String("Cannot connect to")))
        theLedger->saidGoodbye = true;
    failureLines += text.startsWith(QLatin1String("reply isError:"));
    fprintf(stderr, "%s\n", qPrintable(text));
}

/** Everything of a value is looked at. */
void look(const QVariant &value)
{
    QString text;
    QDebug(&text) << value;
    if (text.isNull())
        complain("a value without words");
}

class Settings : public FactorSettingsBase
{
public:
    using FactorSettingsBase::FactorSettingsBase;

protected:
    void handleOptionChanged(uint, const QString &name, const QVariant &value) override
    {
        look(name);
        look(value);
    }
};

class Host
{
public:
    Host(const Script &script, int control)
        : m_script(script)
        , m_control(control)
    {
    }

    void play();

private:
    void make();
    void step(const Bytes &name);
    void watch(AuthClient *client);
    ValueCallBack callback(const AuthClient *client);
    char ask(char word);
    void giveUp(std::unique_ptr<AuthClient> &client);
    void fork(bool doesCall);

    const Script &m_script;
    const int m_control;
    std::unique_ptr<AuthClient> m_client;
    std::unique_ptr<AuthClient> m_second;
    AuthSettingsClient *m_settings = nullptr;
    std::unique_ptr<AuthDevlockClient> m_devlock;
    std::unique_ptr<Settings> m_factorSettings;
    std::unique_ptr<AuthSettings> m_userSettings;
    struct Callback
    {
        const AuthClient *client;
        int calls = 0;
        /** The client has gone. */
        bool isOver = false;
    };
    std::deque<Callback> m_callbacks;
    /** Calls that may have failed, as far as the host knows. */
    int m_failures = 0;
    const QVariantMap m_params{{QStringLiteral("challenge"), 1}, {QStringLiteral("code"), QStringLiteral("s3cr3t")}};
};

void Host::watch(AuthClient *client)
{
    QObject::connect(client, &AuthClient::authenticatedChanged, [](const QVariant &token) { look(token); });
    QObject::connect(client, &AuthClient::factorSignal, [](const QString &factor, const QVariantMap &params) {
        look(factor);
        look(params);
    });
}

void Host::make()
{
    theLedger->phase = Ledger::Constructing;
    if (m_script.hasUsedBus)
        QDBusConnection::systemBus();
    m_client = std::make_unique<AuthClient>();
    m_settings = AuthSettingsClient::get();
    m_devlock = std::make_unique<AuthDevlockClient>();
    m_factorSettings = std::make_unique<Settings>(nullptr, QStringLiteral("code"));
    m_userSettings = std::make_unique<AuthSettings>();
    watch(m_client.get());
    watch(m_settings);
    theLedger->phase = Ledger::Running;
}

ValueCallBack Host::callback(const AuthClient *client)
{
    m_callbacks.push_back({client});
    return [this, &mine = m_callbacks.back()](const QVariant &value) {
        look(value);
        m_failures += !value.isValid();
        if (mine.isOver)
            complain("a callback was called after its client had been deleted");
        if (++mine.calls > 1)
            complain("a callback was called twice");
    };
}

void Host::giveUp(std::unique_ptr<AuthClient> &client)
{
    for (Callback &callback : m_callbacks)
        callback.isOver = callback.isOver || callback.client == client.get();
    client.reset();
}

/** Says something to the peers, and runs the event loop until they have answered. */
char Host::ask(char word)
{
    ::send(m_control, &word, 1, MSG_NOSIGNAL);
    pollfd answer = {m_control, POLLIN, 0};
    while (poll(&answer, 1, 1) == 0)
        QCoreApplication::processEvents();
    if (recv(m_control, &word, 1, 0) != 1)
        complain("the peers have gone");
    return word;
}

/** Makes a process without a program of its own, which has no thread of Qt D-Bus; tells how it ends. */
void Host::fork(bool doesCall)
{
    const pid_t child = ::fork();
    if (child == 0) {
        alarm(35);
        if (doesCall)
            look(m_client->factorMethodWait(m_params, QStringLiteral("code")));
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    fprintf(stderr, "the child ended with status %d, by signal %d\n", WEXITSTATUS(status), WTERMSIG(status));
}

void Host::step(const Bytes &name)
{
    AuthClient &client = *m_client;
    AuthSettingsClient &settings = *m_settings;
    const QString code = QStringLiteral("code");
    if (name == "authenticate") {
        client.authenticate(QStringLiteral("login"), m_params);
        settings.authenticate(QStringLiteral("login"), {});
    } else if (name == "change") {
        client.changeAuthData(code, m_params);
    } else if (name == "unlock") {
        client.unlockIfNeeded();
    } else if (name == "lock") {
        client.setLocked(1);
        settings.setLocked(1);
    } else if (name == "drop") {
        client.dropAuthentication();
    } else if (name == "factor") {
        client.factorMethod(m_params, code, callback(&client));
        settings.factorMethod(m_params, code, callback(&settings));
    } else if (name == "wait") {
        look(client.factorMethodWait(m_params, code));
    } else if (name == "burst") {
        for (int i = 0; i < 1000; ++i) {
            client.factorMethod(m_params, code, callback(&client));
            if (i % 3 == 0)
                QCoreApplication::processEvents();
        }
    } else if (name == "uid") {
        settings.setUid(settings.uid() + 1000);
    } else if (name == "notify") {
        settings.setShowNotifications(!settings.showNotifications());
    } else if (name == "settable") {
        settings.setIsUserSettable(!settings.isUserSettable());
    } else if (name == "multi") {
        settings.setIsMultiFactorable(!settings.isMultiFactorable());
    } else if (name == "login") {
        settings.showLastLogin(1000);
        look(settings.lastLoginDate(1000));
    } else if (name == "trigger") {
        if (settings.factors()->rowCount({}) > 0 && settings.canTriggerFactor(0))
            settings.triggerFactor(0);
    } else if (name == "unlocktrigger") {
        settings.triggerUnlockFactor(code);
        look(settings.unlockFactors());
    } else if (name == "state") {
        m_devlock->setState(AuthDevlockClient::Locked);
        look(int(m_devlock->state()));
    } else if (name == "option") {
        look(m_factorSettings->getOption(1000, code));
        m_factorSettings->setOption(1000, code, 1);
        ++m_failures;
    } else if (name == "action") {
        m_factorSettings->doAction(1000, code, m_params, callback(&settings));
    } else if (name == "date") {
        m_userSettings->setUid(m_userSettings->uid() + 1);
        look(m_userSettings->lastLoginDate());
    } else if (name == "round") {
        ask(RoundWord);
        QCoreApplication::processEvents();
    } else if (name == "linger") {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 5000) {
            poll(nullptr, 0, 1);
            QCoreApplication::processEvents();
        }
    } else if (name == "forkexit" || name == "forkcall") {
        fork(name == "forkcall");
    } else if (name == "renew") {
        giveUp(m_client);
        theLedger->phase = Ledger::Constructing;
        m_client = std::make_unique<AuthClient>();
        watch(m_client.get());
    } else if (name == "second" && m_second) {
        giveUp(m_second);
    } else if (name == "second") {
        theLedger->phase = Ledger::Constructing;
        m_second = std::make_unique<AuthClient>();
        m_second->factorMethod(m_params, code, callback(m_second.get()));
    }
    theLedger->phase = Ledger::Running;
}

void Host::play()
{
    make();
    for (const Bytes &name : m_script.steps) {
        QElapsedTimer timer;
        timer.start();
        step(name);
        if (timer.elapsed() > LongestStep)
            complain(name + " took " + std::to_string(timer.elapsed()) + " ms");
        QCoreApplication::processEvents();
    }
    const bool allHaveEnded = ask(EndWord) == AllEnded;
    QElapsedTimer timer;
    timer.start();
    const auto isOpen = [](const Callback &callback) { return callback.calls == 0 && !callback.isOver; };
    while (allHaveEnded && std::any_of(m_callbacks.begin(), m_callbacks.end(), isOpen)) {
        poll(nullptr, 0, 1);
        QCoreApplication::processEvents();
        if (timer.elapsed() > LongestWait)
            complain(std::to_string(std::count_if(m_callbacks.begin(), m_callbacks.end(), isOpen)) + " of "
                     + std::to_string(m_callbacks.size()) + " callbacks never came");
    }
    // A second time there is no callback left to call.
    if (failureLines > m_failures)
        complain("a call has ended twice");
    giveUp(m_second);
    giveUp(m_client);
    m_devlock.reset();
    m_factorSettings.reset();
    m_userSettings.reset();
    QCoreApplication::processEvents();
}

} // namespace

void playHost(const Script &script, int control, Ledger &ledger)
{
    theLedger = &ledger;
    qInstallMessageHandler(hear);
    {
        char name[] = "host";
        char *arguments[] = {name, nullptr};
        int count = 1;
        const QCoreApplication application(count, arguments);
        Host(script, control).play();
    }
    std::exit(0);
}
