// Hosts that do what no host may: wrong-host FAULT [COMMAND…], where COMMAND is a right host that serves as the rest of
// it.
//     opens-at-the-end   claims to be unlocked when its client process has ended
//     believes-errors    takes setLocked() for done whatever it answers
//     keeps-its-claim    never takes its claim back
//     takes-back-late    takes its claim back after 8 s
//     is-slow            takes its claim back after half a second, as it may
//     claims-again       takes its claim back, and claims again
//     claims-late        tells after 6 s that it is unlocked, and nothing before
//     claims-at-a-code   claims to be unlocked when a code is entered; it stops the check for a second, so that the
//                        check reads that as late as on a busy machine
//     claims-at-its-end  claims to be unlocked, and ends with status 1; the check is stopped until then
//     gives-up-open      claims to be unlocked when a code has had no outcome for 3 s
//     remembers          keeps in a file that it is unlocked, and believes that when it is started again
//     ignores-sigterm    does not end when asked to
//     leaves-a-process   ends without a process that it has started
//     crashes            dies of a fault when a code is entered
//     ends               ends with status 3 when a code is entered
//     ends-at-a-code     ends with status 1 when a code is entered
//     ends-when-away     ends with status 1 when the daemon goes
//     ends-with-claim    ends with status 1 instead of taking its claim back
//     ends-at-sigterm    ends with status 1 when asked to end
//     ends-meanwhile     ends with status 1 when asked to end, whatever the daemon does
//     crashes-at-sigterm dies of a fault when asked to end
//     ends-at-once       ends with status 1 before it has told anything
//     ignores-codes      does not read the codes
//     works-once         ignores all codes but the first
//     hides-success      never tells that it is unlocked
//     is-silent          never tells what it claims
//     mumbles            tells something else
//     drones             tells a line that never ends, after one of 64 MiB on standard output
//     babbles            tells something else, with a control character, after 300 lines on standard output

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QCoreApplication>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int probe = -1;
// Every world has a /run of its own.
const char memory[] = "/run/remembered";

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
        : m_fault(fault)
        , m_notifier(probe, QSocketNotifier::Read)
    {
        QObject::connect(&m_notifier, &QSocketNotifier::activated, &m_notifier, [this] {
            const QList<QByteArray> lines = readCode().split('\n');
            for (const QByteArray &line : lines) {
                // What it believes is the same every time only if it has learnt the state before.
                if (line.startsWith("enter ") && m_isReady)
                    enter(line.mid(6));
            }
        });
        if (m_fault == "remembers" && access(memory, F_OK) == 0)
            claim(true);
        else
            tell("locked\n");
        // Like many a host it tells what it claims before it has connected.
        QTimer::singleShot(200, &m_notifier, [this] { follow(); });
    }

private:
    void enter(const QByteArray &code)
    {
        ++m_codes;
        if (m_codes > 1 && m_fault == "works-once")
            return;
        if (m_fault == "claims-at-a-code") {
            kill(getppid(), SIGSTOP);
            QTimer::singleShot(1000, &m_notifier, [] { kill(getppid(), SIGCONT); });
            claim(true);
        }
        if (m_fault == "gives-up-open") {
            QTimer::singleShot(3000, m_client.get(), [this] {
                if (m_client->progress())
                    claim(true);
            });
        }
        m_client->authenticate(QStringLiteral("unlock"),
                               {{QStringLiteral("factor"), QStringLiteral("code")}, {QStringLiteral("data"), code}});
    }

    void follow()
    {
        m_client = std::make_unique<AuthClient>();
        m_devlock = std::make_unique<AuthDevlockClient>();
        QObject::connect(m_client.get(), &AuthClient::authenticatedChanged, m_client.get(), [this] {
            if (!m_client->authenticated())
                return;
            m_client->setLocked(AuthDevlockClient::Unlocked);
            if (m_fault == "believes-errors")
                claim(true);
        });
        QObject::connect(m_devlock.get(), &AuthDevlockClient::stateChanged, m_devlock.get(), [this] {
            m_isReady = true;
            const int late = m_fault == "takes-back-late" ? 8000 : m_fault == "is-slow" ? 500 : 0;
            if (m_devlock->state() == AuthDevlockClient::Unlocked && m_fault == "remembers")
                close(creat(memory, 0600));
            if (m_devlock->state() == AuthDevlockClient::Unlocked && m_fault != "hides-success")
                claim(true);
            else if ((m_devlock->state() == AuthDevlockClient::Undefined && m_fault == "ends-when-away")
                     || (m_isUnlocked && m_fault == "ends-with-claim"))
                _exit(1);
            else if (m_isUnlocked && late > 0)
                QTimer::singleShot(late, m_devlock.get(),
                                   [this] { claim(m_devlock->state() == AuthDevlockClient::Unlocked); });
            else if (m_isUnlocked && m_fault == "claims-again") {
                claim(false);
                claim(true);
            } else if (m_fault != "keeps-its-claim")
                claim(false);
        });
    }

    void claim(bool isUnlocked)
    {
        if (isUnlocked != m_isUnlocked)
            tell(isUnlocked ? "unlocked\n" : "locked\n");
        m_isUnlocked = isUnlocked;
    }

    const QByteArray m_fault;
    QSocketNotifier m_notifier;
    std::unique_ptr<AuthClient> m_client;
    std::unique_ptr<AuthDevlockClient> m_devlock;
    int m_codes = 0;
    bool m_isReady = false;
    bool m_isUnlocked = false;
};

int endAtACode(const QByteArray &fault)
{
    tell("locked\n");
    readCode();
    if (fault == "crashes")
        raise(SIGSEGV);
    return fault == "ends" ? 3 : 1;
}

int claimAtTheEnd()
{
    const pid_t check = getppid();
    const pid_t host = getpid();
    kill(check, SIGSTOP);
    if (fork() == 0) {
        while (getppid() == host)
            usleep(1000);
        kill(check, SIGCONT);
        _exit(0);
    }
    tell("unlocked\n");
    return 1;
}

void babble()
{
    for (int i = 1; i <= 300; ++i)
        printf("line %d.\n", i);
    fflush(stdout);
    tell("\033open\n");
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
    if (fault == "crashes" || fault == "ends" || fault == "ends-at-a-code")
        return endAtACode(fault);
    if (fault == "ends-at-once")
        return 1;
    if (fault == "claims-at-its-end")
        return claimAtTheEnd();
    if (fault == "is-silent" || fault == "mumbles" || fault == "drones" || fault == "babbles"
        || fault == "ignores-codes" || fault == "claims-late" || fault == "ends-meanwhile") {
        if (fault == "babbles")
            babble();
        if (fault == "claims-late") {
            sleep(6);
            tell("unlocked\n");
        }
        if (fault == "mumbles") {
            fputs("mumbling\n", stderr);
            tell("open\n");
        }
        if (fault == "drones") {
            const QByteArray breath(1 << 20, 'm');
            for (int i = 0; i < 64; ++i)
                fwrite(breath.constData(), size_t(breath.size()), 1, stdout);
            for (;;)
                tell(breath);
        }
        if (fault == "ends-meanwhile")
            signal(SIGTERM, [](int) { _exit(1); });
        if (fault == "ignores-codes" || fault == "ends-meanwhile")
            tell("locked\n");
        for (;;)
            pause();
    }
    if (fault == "ends-at-sigterm")
        signal(SIGTERM, [](int) { _exit(1); });
    if (fault == "crashes-at-sigterm")
        signal(SIGTERM, [](int) { raise(SIGSEGV); });
    QCoreApplication application(argc, argv);
    const Host host(fault);
    return QCoreApplication::exec();
}
