// Hosts that do what no host may: wrong-host FAULT [COMMAND…], where COMMAND is a right host that serves as the rest of
// it.
//     opens-at-the-end   claims to be unlocked when its client process has ended
//     believes-errors    takes setLocked() for done whatever it answers
//     keeps-its-claim    never takes its claim back
//     claims-again       takes its claim back, and claims again
//     ignores-sigterm    does not end when asked to
//     leaves-a-process   ends without a process that it has started
//     crashes            dies of a fault when a code is entered
//     ends               ends with status 3 when a code is entered
//     ends-with-claim    ends with status 1 instead of taking its claim back
//     ends-at-sigterm    ends with status 1 when asked to end
//     ends-at-once       ends with status 1 before it has told anything
//     ignores-codes      does not read the codes
//     hides-success      never tells that it is unlocked
//     is-silent          never tells what it claims
//     mumbles            tells something else

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QCoreApplication>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int probe = -1;

void tell(const QByteArray &line)
{
    if (write(probe, line.constData(), size_t(line.size())) != line.size())
        _exit(4);
}

/** The next code, for hosts without an event loop. */
QByteArray readCode()
{
    char buffer[256];
    const ssize_t count = read(probe, buffer, sizeof buffer);
    return count > 0 ? QByteArray(buffer, int(count)) : QByteArray();
}

int become(char **command)
{
    execv(command[0], command);
    perror(command[0]);
    return 2;
}

pid_t client = 0;

int openAtTheEnd(char **command)
{
    client = fork();
    if (client == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(become(command));
    }
    signal(SIGTERM, [](int) {
        kill(client, SIGKILL);
        _exit(0);
    });
    waitpid(client, nullptr, 0);
    tell("unlocked\n");
    for (;;)
        pause();
}

int leaveAProcess(char **command)
{
    if (fork() == 0) {
        for (;;)
            pause();
    }
    return become(command);
}

class Host
{
public:
    explicit Host(const QByteArray &fault)
        : m_notifier(probe, QSocketNotifier::Read)
    {
        QObject::connect(&m_notifier, &QSocketNotifier::activated, &m_notifier, [this] {
            for (const QByteArray &line : readCode().split('\n')) {
                // What it believes is the same every time only if it knows the state before.
                if (line.startsWith("enter ") && m_devlock && m_devlock->state() != AuthDevlockClient::Undefined)
                    m_client->authenticate(
                        QStringLiteral("unlock"),
                        {{QStringLiteral("factor"), QStringLiteral("code")}, {QStringLiteral("data"), line.mid(6)}});
            }
        });
        tell("locked\n");
        // Like many a host it tells what it claims before it has connected.
        QTimer::singleShot(200, &m_notifier, [=] { follow(fault); });
    }

private:
    void follow(const QByteArray &fault)
    {
        m_client = std::make_unique<AuthClient>();
        m_devlock = std::make_unique<AuthDevlockClient>();
        QObject::connect(m_client.get(), &AuthClient::authenticatedChanged, m_client.get(), [=] {
            if (!m_client->authenticated())
                return;
            m_client->setLocked(AuthDevlockClient::Unlocked);
            if (fault == "believes-errors")
                claim(true);
        });
        QObject::connect(m_devlock.get(), &AuthDevlockClient::stateChanged, m_devlock.get(), [=] {
            if (m_devlock->state() == AuthDevlockClient::Unlocked && fault != "hides-success")
                claim(true);
            else if (m_isUnlocked && fault == "ends-with-claim")
                _exit(1);
            else if (m_isUnlocked && fault == "claims-again") {
                claim(false);
                claim(true);
            } else if (fault != "keeps-its-claim")
                claim(false);
        });
    }

    void claim(bool isUnlocked)
    {
        if (isUnlocked != m_isUnlocked)
            tell(isUnlocked ? "unlocked\n" : "locked\n");
        m_isUnlocked = isUnlocked;
    }

    QSocketNotifier m_notifier;
    std::unique_ptr<AuthClient> m_client;
    std::unique_ptr<AuthDevlockClient> m_devlock;
    bool m_isUnlocked = false;
};

int endAtACode(const QByteArray &fault)
{
    tell("locked\n");
    readCode();
    if (fault == "crashes")
        raise(SIGSEGV);
    return 3;
}

} // namespace

int main(int argc, char **argv)
{
    const QByteArray fault = argc > 1 ? argv[1] : "";
    char **command = argc > 2 ? argv + 2 : nullptr;
    probe = qEnvironmentVariableIntValue("AUTHD_HOSTCHECK_FD");
    if (command && fault == "opens-at-the-end")
        return openAtTheEnd(command);
    if (command && fault == "leaves-a-process")
        return leaveAProcess(command);
    if (command && fault == "ignores-sigterm") {
        signal(SIGTERM, SIG_IGN);
        return become(command);
    }
    if (fault == "crashes" || fault == "ends")
        return endAtACode(fault);
    if (fault == "ends-at-once")
        return 1;
    if (fault == "is-silent" || fault == "mumbles" || fault == "ignores-codes") {
        if (fault == "mumbles") {
            fputs("mumbling\n", stderr);
            tell("open\n");
        }
        if (fault == "ignores-codes")
            tell("locked\n");
        for (;;)
            pause();
    }
    if (fault == "ends-at-sigterm")
        signal(SIGTERM, [](int) { _exit(1); });
    QCoreApplication application(argc, argv);
    const Host host(fault);
    return QCoreApplication::exec();
}
