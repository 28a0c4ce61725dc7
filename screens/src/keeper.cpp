#include "keeper.h"

#include "messages.h"

#include <QtCore/QLoggingCategory>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace AuthScreens {

namespace {

Q_LOGGING_CATEGORY(category, "auth-screens")

std::vector<char *> pointers(std::vector<std::string> &texts)
{
    std::vector<char *> result;
    for (std::string &text : texts)
        result.push_back(&text[0]);
    result.push_back(nullptr);
    return result;
}

int openProcess(pid_t pid)
{
    return int(syscall(SYS_pidfd_open, pid, 0));
}

// Where there are no descriptors of processes (Linux before 5.3, valgrind 3.19), a number has to do: nobody gets it anew
// before the process has been waited for, which is done here, unless the host waits for all processes.
constexpr int LookPause = 50;

void sendKill(const Child &child)
{
    if (child.descriptor >= 0)
        syscall(SYS_pidfd_send_signal, child.descriptor, SIGKILL, nullptr, 0);
    else
        ::kill(child.pid, SIGKILL);
}

// P_PIDFD is 3 in Linux; the C library may not name it. Where the host ignores SIGCHLD, or waits for all processes, there
// is nobody left to wait for, which is as well.
bool hasEnded(const Child &child)
{
    siginfo_t info = {};
    const int status = child.descriptor >= 0 ? waitid(idtype_t(3), id_t(child.descriptor), &info, WEXITED | WNOHANG)
                                             : waitid(P_PID, id_t(child.pid), &info, WEXITED | WNOHANG);
    return status != 0 || info.si_pid != 0;
}

} // namespace

// Never deleted: the thread may use it until the process has ended.
Keeper &Keeper::instance()
{
    static Keeper *const keeper = new Keeper;
    return *keeper;
}

// The thread gets none of the host's signals.
Keeper::Keeper()
    : m_bell(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread(&Keeper::run, this).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Keeper::start(const std::shared_ptr<Child> &child)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_new.push_back(child);
    }
    wake();
}

void Keeper::kill(const std::shared_ptr<Child> &child)
{
    child->isUnwanted = true;
    wake();
}

void Keeper::wake() const
{
    eventfd_write(m_bell, 1);
}

void Keeper::run()
{
    std::vector<std::shared_ptr<Child>> children;
    for (;;) {
        std::vector<pollfd> polled{{m_bell, POLLIN, 0}};
        int limit = -1;
        for (const auto &child : children) {
            polled.push_back({child->descriptor, POLLIN, 0});
            if (child->descriptor < 0)
                limit = LookPause;
        }
        poll(polled.data(), nfds_t(polled.size()), limit);
        eventfd_t rung;
        eventfd_read(m_bell, &rung);

        const auto isOver = [](const std::shared_ptr<Child> &child) {
            if (child->isUnwanted)
                sendKill(*child);
            if (!hasEnded(*child))
                return false;
            if (child->descriptor >= 0)
                close(child->descriptor);
            return true;
        };
        children.erase(std::remove_if(children.begin(), children.end(), isOver), children.end());

        std::vector<std::shared_ptr<Child>> fresh;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            fresh.swap(m_new);
        }
        for (const auto &child : fresh) {
            if (!child->isUnwanted)
                launch(*child);
            close(child->socket);
            if (child->pid)
                children.push_back(child);
            // What was asked for during the launch is looked at anew.
            wake();
        }
    }
}

// The screen learns of a failure by the end of its socket.
void Keeper::launch(Child &child)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, child.socket, Wire::Descriptor);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::string name = child.program.substr(child.program.rfind('/') + 1);
    char *const arguments[] = {&name[0], nullptr};
    pid_t pid = 0;
    const int error =
        posix_spawn(&pid, child.program.c_str(), &actions, &attributes, arguments, pointers(child.environment).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        qCWarning(category, "Cannot start %s: %s", child.program.c_str(), strerror(error));
        return;
    }
    // A process that nobody has waited for keeps its number, and this one waits for a message.
    child.descriptor = openProcess(pid);
    child.pid = pid;
}

} // namespace AuthScreens
