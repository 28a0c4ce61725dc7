#include "secret-input.h"

#include <QtDBus/QDBusConnection>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

namespace {

const int EndSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
// Others that would leave a terminal silent.
const int DefaultSignals[] = {SIGTSTP, SIGTTIN, SIGTTOU, SIGPIPE, SIGALRM, SIGUSR1, SIGUSR2, SIGXCPU, SIGABRT};

volatile sig_atomic_t signalStatus = 0;

// Of the question for a secret; the handlers of signals work with them, too.
volatile sig_atomic_t silentTerminal = -1;
volatile sig_atomic_t asking = 0;
volatile sig_atomic_t askedAgain = 0;
volatile sig_atomic_t stopping = 0;
pthread_t asker;
int terminal = -1;
const char *question = nullptr;
termios savedSettings;
termios silentSettings;

// Whether the terminal is as the question has left it, and not as the line editor of a shell wants it.
bool isSilent()
{
    const tcflag_t flags = ECHO | ECHONL | ICANON;
    termios settings;
    return silentTerminal >= 0 && tcgetattr(silentTerminal, &settings) == 0
        && (settings.c_lflag & flags) == (silentSettings.c_lflag & flags);
}

// Silences the terminal and shows the question.
bool ask()
{
    // In the background this stops the process until it is in the foreground, where the settings are not those of the
    // shell's own line editor any more. It fails in a process group that nobody would continue.
    int flushed = 0;
    do
        flushed = tcflush(terminal, TCIFLUSH);
    while (flushed != 0 && errno == EINTR);
    if (flushed != 0)
        return false;
    if (!isSilent()) {
        if (tcgetattr(terminal, &savedSettings) != 0)
            return false;
        silentSettings = savedSettings;
        silentSettings.c_lflag &= ~tcflag_t(ECHO | ECHONL);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        asking = 1;
        silentTerminal = terminal;
    }
    while (tcsetattr(terminal, TCSAFLUSH, &silentSettings) != 0) {
        if (errno != EINTR)
            return false;
    }
    return write(terminal, question, strlen(question)) > 0;
}

// Leaves the terminal to whoever has changed its settings meanwhile.
void restore()
{
    if (!isSilent())
        return;
    // What there is of a secret is for nobody else. Nothing here waits for a terminal that has been halted (Ctrl-S).
    tcflush(silentTerminal, TCIFLUSH);
    tcsetattr(silentTerminal, TCSANOW, &savedSettings);
    pollfd ready = {silentTerminal, POLLOUT, 0};
    if (poll(&ready, 1, 0) == 1) {
        // Nobody looks at the outcome of a line feed.
        [[maybe_unused]] const ssize_t written = write(silentTerminal, "\n", 1);
    }
}

void handleEnd(int)
{
    restore();
    _exit(signalStatus);
}

// Other threads may get signals while they live, and the question is no matter for two threads at a time.
bool passOn(int number)
{
    return !pthread_equal(pthread_self(), asker) && pthread_kill(asker, number) == 0;
}

// Has the signal stop or end the process as it does by itself, with the terminal as it was.
void handleDefault(int number)
{
    const int error = errno;
    restore();
    if (!passOn(number)) {
        stopping = 1;
        struct sigaction standard = {}, own = {};
        standard.sa_handler = SIG_DFL;
        sigaction(number, &standard, &own);
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, number);
        raise(number);
        pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
        sigaddset(&mask, SIGCONT);
        pthread_sigmask(SIG_BLOCK, &mask, nullptr);
        sigaction(number, &own, nullptr);
        stopping = 0;
        // Asks anew as soon as this returns, also in a process group that is not stopped because nobody would
        // continue it.
        raise(SIGCONT);
    }
    errno = error;
}

void handleContinue(int number)
{
    const int error = errno;
    if (!passOn(number) && asking && !stopping) {
        askedAgain = 1;
        ask();
    }
    errno = error;
}

/** Has the signals handled while it lives; those that are ignored stay so. */
class SignalHandling
{
public:
    SignalHandling()
    {
        struct sigaction action = {};
        action.sa_flags = SA_RESTART;
        action.sa_handler = handleContinue;
        sigaction(SIGCONT, &action, &m_continue);
        action.sa_handler = handleDefault;
        for (const int number : DefaultSignals)
            sigaddset(&action.sa_mask, number);
        for (size_t i = 0; i < std::size(DefaultSignals); ++i) {
            sigaction(DefaultSignals[i], nullptr, &m_former[i]);
            if (m_former[i].sa_handler != SIG_IGN)
                sigaction(DefaultSignals[i], &action, nullptr);
        }
    }

    ~SignalHandling()
    {
        for (size_t i = 0; i < std::size(DefaultSignals); ++i)
            sigaction(DefaultSignals[i], &m_former[i], nullptr);
        sigaction(SIGCONT, &m_continue, nullptr);
    }

    Q_DISABLE_COPY(SignalHandling)

private:
    struct sigaction m_continue;
    struct sigaction m_former[std::size(DefaultSignals)];
};

// Stops at a newline on a terminal, where it comes at the end of what was read.
bool readAll(int descriptor, bool line, QByteArray &data)
{
    char buffer[4096];
    ssize_t length = 0;
    while (!(line && data.endsWith('\n'))) {
        length = read(descriptor, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            break;
        if (askedAgain) {
            // What came before was thrown away with the rest of its line.
            askedAgain = 0;
            data.clear();
        }
        data.append(buffer, int(length));
    }
    if (data.endsWith('\n'))
        data.chop(1);
    return length >= 0;
}

} // namespace

void keepSecretsFromDumps()
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    // A program that takes cores from the kernel gets them whatever the limit is.
    prctl(PR_SET_DUMPABLE, 0);
}

void endOnSignals(int status)
{
    signalStatus = status;
    struct sigaction action = {};
    action.sa_handler = handleEnd;
    for (const int number : EndSignals)
        sigaddset(&action.sa_mask, number);
    for (const int number : DefaultSignals)
        sigaddset(&action.sa_mask, number);
    // A process that was stopped is continued to be ended, and must not ask anew before.
    sigaddset(&action.sa_mask, SIGCONT);

    // The thread of Qt D-Bus begins with the first connection that is asked for, here one that there is not, and lives as
    // long as the process. If it got a signal that is to end a continued process, the asking thread could stop the process
    // again before that.
    sigset_t former;
    pthread_sigmask(SIG_BLOCK, &action.sa_mask, &former);
    [[maybe_unused]] const QDBusConnection none(QStringLiteral("authctl"));
    pthread_sigmask(SIG_SETMASK, &former, nullptr);

    for (const int number : EndSignals)
        sigaction(number, &action, nullptr);
}

std::optional<QByteArray> readSecretFromTerminal(const char *prompt)
{
    terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (terminal < 0)
        return std::nullopt;
    question = prompt;
    askedAgain = 0;
    asker = pthread_self();
    QByteArray secret;
    const SignalHandling handling;
    const bool ok = ask() && readAll(terminal, true, secret);
    asking = 0;
    restore();
    silentTerminal = -1;
    close(terminal);
    return ok ? std::optional<QByteArray>(secret) : std::nullopt;
}

std::optional<QByteArray> readSecretFromDescriptor(int descriptor)
{
    QByteArray secret;
    return readAll(descriptor, false, secret) ? std::optional<QByteArray>(secret) : std::nullopt;
}
