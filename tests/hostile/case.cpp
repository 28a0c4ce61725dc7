#include "case.h"

#include "peers.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// Calls that nobody answers are ended before; a D-Bus library gives up after 25 seconds.
constexpr std::chrono::seconds HostLimit(600);
constexpr std::chrono::milliseconds Patience(100);

const char DaemonSocket[] = "/run/authd/authd.socket";
const char BusSocket[] = "/run/hostile/bus";

[[noreturn]] void fail(const char *what)
{
    perror(what);
    _exit(3);
}

int listenOn(const char *path)
{
    Bytes folder = path;
    folder.erase(folder.rfind('/'));
    mkdir(folder.c_str(), 0755);
    unlink(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(listener, 64) != 0)
        fail(path);
    return listener;
}

Bytes contentOf(int file)
{
    Bytes content(size_t(std::max(lseek(file, 0, SEEK_END), off_t(0))), '\0');
    content.resize(size_t(std::max(pread(file, &content[0], content.size(), 0), ssize_t(0))));
    constexpr size_t Most = 20000;
    return content.size() > Most ? content.substr(0, Most / 2) + "\n…\n" + content.substr(content.size() - Most / 2)
                                 : content;
}

/** What is wrong with the way in which the host ended. */
Bytes judge(int status, const Ledger &ledger, const Peers &peers)
{
    if (WIFSIGNALED(status))
        return "the host was ended by signal " + std::to_string(WTERMSIG(status));
    const int code = WEXITSTATUS(status);
    if (ledger.complaint[0] != '\0')
        return ledger.complaint;
    if (code == 0)
        return {};
    if (code != 1)
        return "the host ended with status " + std::to_string(code);
    if (!ledger.saidGoodbye)
        return "the host ended with status 1 without a word";
    if (!peers.haveBroken())
        return "the host ended with status 1 although nothing was wrong with its connections";
    if (ledger.phase != Ledger::Constructing && !peers.haveReturned())
        return "the host ended with status 1 after its objects were made, and no other daemon had come";
    return {};
}

} // namespace

Bytes playCase(const Bytes &text, bool isTold, void (*prepareHost)(), Effort *effort)
{
    const Script script(text);
    const int daemonListener = listenOn(DaemonSocket);
    const int busListener = listenOn(BusSocket);
    void *const page = mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    const int words = memfd_create("words", MFD_CLOEXEC);
    int control[2];
    if (page == MAP_FAILED || words < 0 || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, control) != 0)
        fail("case");
    auto *const ledger = new (page) Ledger{};

    fflush(nullptr);
    const pid_t host = fork();
    if (host < 0)
        fail("fork");
    if (host == 0) {
        close(daemonListener);
        close(busListener);
        close(control[0]);
        if (!isTold) {
            dup2(words, STDOUT_FILENO);
            dup2(words, STDERR_FILENO);
        }
        setenv("DBUS_SYSTEM_BUS_ADDRESS", (Bytes("unix:path=") + BusSocket).c_str(), 1);
        if (script.isPinned) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(sched_getcpu(), &one);
            sched_setaffinity(0, sizeof one, &one);
        }
        if (prepareHost)
            prepareHost();
        playHost(script, control[1], *ledger);
    }
    close(control[1]);

    Bytes problem;
    int status = 0;
    {
        Peers peers(script, daemonListener, busListener, isTold);
        const int process = int(syscall(SYS_pidfd_open, host, 0));
        const Clock::time_point begin = Clock::now();
        std::vector<pollfd> others = {{process, POLLIN, 0}, {control[0], POLLIN, 0}};
        Clock::time_point lastEvent = begin;
        rusage usage = {};
        while (wait4(host, &status, WNOHANG, &usage) == 0) {
            if (peers.serve(int(Patience.count()), others))
                lastEvent = Clock::now();
            char word = 0;
            if (others[1].revents & POLLIN && recv(control[0], &word, 1, MSG_DONTWAIT) == 1) {
                lastEvent = Clock::now();
                if (word == EndWord) {
                    word = peers.end() ? AllEnded : SomeLive;
                } else {
                    peers.round();
                }
                ::send(control[0], &word, 1, MSG_NOSIGNAL);
            } else if (others[1].revents & POLLHUP) {
                others[1].fd = -1;
            }
            const Clock::time_point now = Clock::now();
            if (now - lastEvent >= Patience) {
                peers.endWaiting();
                lastEvent = now;
            }
            if (now - begin > HostLimit && problem.empty()) {
                problem = "the host hangs";
                // A sanitizer says where.
                kill(host, SIGABRT);
            } else if (now - begin > HostLimit + std::chrono::seconds(20)) {
                kill(host, SIGKILL);
            }
        }
        close(process);
        if (effort) {
            const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
            *effort = {usage.ru_maxrss, long(time.count()), contentOf(words), peers.unmet()};
        }
        if (problem.empty())
            problem = judge(status, *ledger, peers);
    }
    if (!problem.empty())
        problem += "\n" + contentOf(words);
    close(control[0]);
    close(words);
    munmap(page, sizeof(Ledger));
    return problem;
}
