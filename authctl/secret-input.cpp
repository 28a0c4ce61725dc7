#include "secret-input.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t signalStatus = 0;
volatile sig_atomic_t silentTerminal = -1;
termios savedSettings;

void handleSignal(int)
{
    if (silentTerminal >= 0) {
        tcsetattr(silentTerminal, TCSANOW, &savedSettings);
        // Nobody looks at the outcome of a line feed.
        [[maybe_unused]] const ssize_t written = write(silentTerminal, "\n", 1);
    }
    _exit(signalStatus);
}

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
        data.append(buffer, int(length));
    }
    if (data.endsWith('\n'))
        data.chop(1);
    return length >= 0;
}

} // namespace

void endOnSignals(int status)
{
    signalStatus = status;
    struct sigaction action = {};
    action.sa_handler = handleSignal;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&action.sa_mask, number);
        sigaction(number, &action, nullptr);
    }
}

std::optional<QByteArray> readSecretFromTerminal(const char *prompt)
{
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (terminal < 0)
        return std::nullopt;
    QByteArray secret;
    bool ok = tcgetattr(terminal, &savedSettings) == 0;
    if (ok) {
        termios silent = savedSettings;
        silent.c_lflag &= ~tcflag_t(ECHO | ECHONL);
        // A stopped process would leave the terminal silent.
        silent.c_cc[VSUSP] = _POSIX_VDISABLE;
        silentTerminal = terminal;
        ok = tcsetattr(terminal, TCSAFLUSH, &silent) == 0 && write(terminal, prompt, strlen(prompt)) > 0
            && readAll(terminal, true, secret);
        tcsetattr(terminal, TCSAFLUSH, &savedSettings);
        silentTerminal = -1;
        ok = write(terminal, "\n", 1) == 1 && ok;
    }
    close(terminal);
    return ok ? std::optional<QByteArray>(secret) : std::nullopt;
}

std::optional<QByteArray> readSecretFromDescriptor(int descriptor)
{
    QByteArray secret;
    return readAll(descriptor, false, secret) ? std::optional<QByteArray>(secret) : std::nullopt;
}
