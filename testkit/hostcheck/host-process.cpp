#include "host-process.h"

#include "outcome.h"
#include "proc.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

const int LongestLine = 4096;
const int MostLines = 10000;
// Of what a host writes to its standard output and error.
const qint64 MostLogged = 4 << 20;

QString errorText()
{
    return QString::fromLocal8Bit(strerror(errno));
}

/** Returns the process id, once the command has begun. */
pid_t spawn(const QList<QByteArray> &command, int probe, int output)
{
    std::vector<char *> argv;
    for (const QByteArray &word : command)
        argv.push_back(const_cast<char *>(word.constData()));
    argv.push_back(nullptr);
    qputenv("AUTHD_HOSTCHECK_FD", QByteArray::number(probe));
    int failure[2];
    if (pipe2(failure, O_CLOEXEC) != 0)
        throw Outcome{Outcome::NotMade, QStringLiteral("no pipe: ") + errorText()};
    const pid_t pid = fork();
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        fcntl(probe, F_SETFD, 0);
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        execvp(argv[0], argv.data());
        const int error = errno;
        const ssize_t written = write(failure[1], &error, sizeof error);
        _exit(written > 0 ? 127 : 126);
    }
    close(failure[1]);
    int error = pid < 0 ? errno : 0;
    if (pid > 0 && read(failure[0], &error, sizeof error) <= 0)
        error = 0;
    close(failure[0]);
    if (error) {
        throw Outcome{Outcome::NotMade,
                      QStringLiteral("the host cannot be started: ") + QString::fromLocal8Bit(strerror(error))};
    }
    return pid;
}

void closeIfOpen(int *descriptor)
{
    if (*descriptor >= 0)
        close(*descriptor);
    *descriptor = -1;
}

} // namespace

QString endText(int status)
{
    if (WIFEXITED(status))
        return QStringLiteral("ended with status %1").arg(WEXITSTATUS(status));
    const int signal = WTERMSIG(status);
    return QStringLiteral("was ended by signal %1 (%2)").arg(signal).arg(QString::fromLocal8Bit(strsignal(signal)));
}

HostProcess::HostProcess()
{
    // The processes that the host leaves behind become children of this one.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    sigset_t children;
    sigemptyset(&children);
    sigaddset(&children, SIGCHLD);
    sigprocmask(SIG_BLOCK, &children, nullptr);
    m_signals = signalfd(-1, &children, SFD_CLOEXEC | SFD_NONBLOCK);
}

HostProcess::~HostProcess()
{
    drain();
    closeIfOpen(&m_signals);
    closeIfOpen(&m_probe);
    closeIfOpen(&m_output);
}

void HostProcess::start(const QList<QByteArray> &command)
{
    int probe[2];
    int output[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, probe) != 0)
        throw Outcome{Outcome::NotMade, QStringLiteral("no socket: ") + errorText()};
    m_probe = probe[0];
    if (pipe2(output, O_CLOEXEC) != 0)
        throw Outcome{Outcome::NotMade, QStringLiteral("no pipe: ") + errorText()};
    fcntl(output[0], F_SETFL, O_NONBLOCK);
    closeIfOpen(&m_output);
    m_output = output[0];
    m_hasEnded = false;
    m_pid = spawn(command, probe[1], output[1]);
    close(probe[1]);
    close(output[1]);
}

void HostProcess::signal(int number) const
{
    kill(m_pid, number);
}

void HostProcess::enter(const QByteArray &code)
{
    // Looked at before there is more to be read.
    readsNothing();
    m_hasCodes = true;
    const QByteArray line = "enter " + code + '\n';
    // reap() is where the end of a host is noticed.
    const ssize_t sent = send(m_probe, line.constData(), size_t(line.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0 ? sent != line.size() : errno == EAGAIN)
        throwFinding(Rule::BadProbe, QStringLiteral("did not read from the probe"));
}

void HostProcess::wait(int milliseconds)
{
    pollfd sources[] = {{m_probe, POLLIN, 0}, {m_signals, POLLIN, 0}, {m_output, POLLIN, 0}, {STDIN_FILENO, 0, 0}};
    poll(sources, std::size(sources), milliseconds);
    // Standard input is a pipe from the authd-hostcheck outside of this world, which has ended when the pipe is closed.
    if (sources[3].revents & (POLLHUP | POLLERR))
        throw Outcome{Outcome::NotMade, QStringLiteral("the check was broken off")};
    if (sources[2].revents)
        drain();
    // The host's end is looked for before its lines are read: then what has been read is all that it has said.
    if (sources[1].revents)
        reap();
    if (sources[0].revents || m_hasEnded)
        readProbe();
}

void HostProcess::reap()
{
    signalfd_siginfo ignored;
    while (read(m_signals, &ignored, sizeof ignored) > 0) { }
    int status = 0;
    for (pid_t pid = waitpid(-1, &status, WNOHANG); pid > 0; pid = waitpid(-1, &status, WNOHANG)) {
        if (pid != m_pid)
            continue;
        m_hasEnded = true;
        m_status = status;
    }
}

bool HostProcess::hasLeftProcesses()
{
    return waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD;
}

void HostProcess::killLeftProcesses()
{
    const QByteArray parent = QByteArray::number(getpid());
    forEachNumber("/proc", [&](int process) {
        // After the name, which may hold anything, come the state and the parent.
        const QByteArray stat = contents("/proc/" + QByteArray::number(process) + "/stat");
        if (stat.mid(stat.lastIndexOf(')') + 2).split(' ').value(1) == parent)
            ::kill(process, SIGKILL);
    });
}

void HostProcess::readProbe()
{
    // No more than what is judged at once: a host may write faster than anybody reads.
    while (m_probe >= 0 && m_input.size() <= LongestLine) {
        char buffer[4096];
        const ssize_t count = recv(m_probe, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count < 0)
            return;
        if (count == 0)
            closeIfOpen(&m_probe);
        m_input.append(buffer, int(count));
    }
}

bool HostProcess::takeLine(QByteArray *line)
{
    const int end = m_input.indexOf('\n');
    if (end < 0 && m_input.size() > LongestLine) {
        throwFinding(Rule::BadProbe,
                     QStringLiteral("told more than %1 bytes without the end of a line").arg(LongestLine));
    }
    if (end < 0)
        return false;
    if (++m_lines > MostLines)
        throwFinding(Rule::BadProbe, QStringLiteral("told more than %1 lines").arg(MostLines));
    *line = m_input.left(end);
    m_input.remove(0, end + 1);
    return true;
}

bool HostProcess::readsNothing()
{
    int unread = 0;
    if (m_probe >= 0 && ioctl(m_probe, SIOCOUTQ, &unread) == 0 && m_hasCodes && unread == 0)
        m_reads = true;
    return m_hasCodes && !m_reads;
}

void HostProcess::drain()
{
    char buffer[65536];
    for (int i = 0; i < 16; ++i) {
        const ssize_t count = m_output < 0 ? 0 : read(m_output, buffer, sizeof buffer);
        if (count < 0)
            return;
        if (count == 0)
            return closeIfOpen(&m_output);
        const qint64 wanted = std::min<qint64>(count, MostLogged - m_logged);
        if (wanted > 0)
            fwrite(buffer, size_t(wanted), 1, stderr);
        if (wanted > 0 && m_logged + wanted == MostLogged)
            fputs("\n(What the host writes is not kept any more.)\n", stderr);
        m_logged = std::min(m_logged + count, MostLogged);
    }
}

void HostProcess::forget()
{
    m_input.clear();
    closeIfOpen(&m_probe);
}
