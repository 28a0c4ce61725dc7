#include "play.h"

#include <QtCore/QJsonArray>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// Within these times a claim has to be taken back, and a host has to end.
const int Grace = 5000;
const int Quiet = 1000;
const int Alone = 65000;
const int EntryPause = 2000;
const int Tick = 20;
const int LongestLine = 4096;

[[noreturn]] void throwFinding(const QString &what)
{
    throw Outcome{Outcome::Failed, what};
}

QString seconds(int milliseconds)
{
    return QStringLiteral("%1 s").arg(milliseconds / 1000);
}

QString endText(int status)
{
    if (WIFEXITED(status))
        return QStringLiteral("ended with status %1").arg(WEXITSTATUS(status));
    const int signal = WTERMSIG(status);
    return QStringLiteral("was ended by signal %1 (%2)").arg(signal).arg(QString::fromLocal8Bit(strsignal(signal)));
}

/** Returns the process id, once the command has begun. */
pid_t spawn(const QList<QByteArray> &command, int probe)
{
    std::vector<char *> argv;
    for (const QByteArray &word : command)
        argv.push_back(const_cast<char *>(word.constData()));
    argv.push_back(nullptr);
    qputenv("AUTHD_HOSTCHECK_FD", QByteArray::number(probe));
    int failure[2];
    if (pipe2(failure, O_CLOEXEC) != 0)
        throw Outcome{Outcome::NotMade, QStringLiteral("no pipe: ") + QString::fromLocal8Bit(strerror(errno))};
    const pid_t pid = fork();
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        fcntl(probe, F_SETFD, 0);
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        // Standard output is the outcome's.
        dup2(STDERR_FILENO, STDOUT_FILENO);
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

} // namespace

Play::Play(const QList<QByteArray> &host, const QByteArray &code, const Patience &patience)
    : m_host(host)
    , m_code(code)
    , m_patience(patience)
    , m_daemon([](const QString &error) {
        throw Outcome{Outcome::NotMade, error};
    })
{
    m_daemon.setPatience(30000);
    m_clock.start();
    // The processes that the host leaves behind become children of this one.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    sigset_t children;
    sigemptyset(&children);
    sigaddset(&children, SIGCHLD);
    sigprocmask(SIG_BLOCK, &children, nullptr);
    m_signals = signalfd(-1, &children, SFD_CLOEXEC | SFD_NONBLOCK);
    observe();
}

Play::~Play()
{
    close(m_signals);
    if (m_probe >= 0)
        close(m_probe);
}

void Play::say(const QByteArray &text)
{
    fprintf(stderr, "[%7.3f] %s\n", double(m_clock.elapsed()) / 1000, text.constData());
}

QJsonObject Play::daemon(const QByteArray &json)
{
    observe();
    say("daemon: " + json);
    QJsonObject answer = m_daemon.request(json);
    observe();
    return answer;
}

void Play::misbehave(const QByteArray &method, const QByteArray &how, const QByteArray &more)
{
    daemon(R"({"do":"misbehave","method":")" + method + R"(","how":")" + how + '"' + (more.isEmpty() ? "" : ",") + more
           + '}');
}

void Play::answer(const QByteArray &method, const QByteArray &value)
{
    misbehave(method, "reply", "\"value\":" + AuthStandIn::quoted(QString::fromUtf8(value)));
}

void Play::emitSignal(const QByteArray &name, const QByteArray &args, const QByteArray &more)
{
    daemon(R"({"do":"emit","signal":")" + name + R"(","args":)" + AuthStandIn::quoted(QString::fromUtf8(args))
           + (more.isEmpty() ? "" : ",") + more + '}');
}

void Play::setLock(int state)
{
    daemon(R"({"do":"set-lock","state":)" + QByteArray::number(state) + '}');
}

void Play::killBus()
{
    say("the system bus is killed");
    kill(qEnvironmentVariableIntValue("AUTHD_WORLD_BUS_PID"), SIGKILL);
    if (!until([this] { return !m_hasOwner; }, Grace))
        throw Outcome{Outcome::NotMade, QStringLiteral("the system bus does not die")};
}

void Play::mayEnd(std::function<bool()> where)
{
    m_mayEnd = std::move(where);
}

void Play::start()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw Outcome{Outcome::NotMade, QStringLiteral("no socket: ") + QString::fromLocal8Bit(strerror(errno))};
    m_probe = ends[0];
    m_isUp = false;
    m_hasEnded = false;
    m_isEnding = false;
    // The host's claims are about what is true from its start on, not about what was true before.
    observe();
    m_seen = m_truth.size() - 1;
    m_pid = spawn(m_host, ends[1]);
    close(ends[1]);
    say("the host is started");
    await([this] { return m_isUp; }, m_patience.up,
          QStringLiteral("told no claim within %1 of its start").arg(seconds(m_patience.up)));
    m_peersAtStart = m_peers;
}

void Play::startIdle()
{
    start();
    // Some hosts connect to the daemon only when they have something to ask it.
    until([this] { return m_peers > 0; }, Grace);
    quiet();
    m_peersAtStart = m_peers;
}

void Play::enter(const QByteArray &code)
{
    say("enter " + code);
    const QByteArray line = "enter " + code + '\n';
    // A host that has ended takes nothing; reap() is where its end is noticed.
    const ssize_t sent = send(m_probe, line.constData(), size_t(line.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0 && sent != line.size())
        throwFinding(QStringLiteral("did not read from the probe"));
}

QByteArray Play::wrongCode() const
{
    QByteArray code = m_code;
    code[code.size() - 1] = code.endsWith('0') ? '1' : '0';
    return code;
}

bool Play::enterUntil(const QByteArray &code, const std::function<bool()> &condition)
{
    return enterUntil(code, condition, m_patience.entry);
}

bool Play::enterUntil(const QByteArray &code, const std::function<bool()> &condition, int pause)
{
    const qint64 begin = m_clock.elapsed();
    for (int entries = 1; m_clock.elapsed() - begin < m_patience.code; ++entries) {
        enter(code);
        if (until(condition, pause)) {
            m_mostEntries = qMax(m_mostEntries, entries);
            return true;
        }
    }
    return false;
}

int Play::callCount(const QByteArray &method)
{
    const QString name = QString::fromUtf8(method);
    if (method != "Introspect")
        return m_daemon.calls(name).size();
    const QJsonArray calls =
        m_daemon.request(QByteArray(R"({"do":"standard-calls"})")).value(QLatin1String("calls")).toArray();
    return int(std::count_if(calls.begin(), calls.end(), [&name](const QJsonValue &call) {
        return call[QLatin1String("method")].toString() == name;
    }));
}

bool Play::wasCalled(const QByteArray &method, int nth)
{
    return callCount(method) >= nth;
}

void Play::reach(const QByteArray &method, int nth)
{
    const auto reached = [&] { return wasCalled(method, nth); };
    // The rule of the day has not held the host up yet, so a code that has had no effect may be entered again soon.
    if (!reached()
        && !enterUntil(
            m_code, [&] { return reached() || isUnlocked(); }, EntryPause))
        throwFinding(QStringLiteral("the right code had no effect within %1").arg(seconds(m_patience.code)));
    if (!reached())
        throw Outcome{Outcome::NotReached, QStringLiteral("the host made no such call")};
}

bool Play::isUnlocked() const
{
    return m_claimsUnlocked && isDaemonUnlocked();
}

void Play::awaitLocked()
{
    // Before this time is over checkClaim() throws: a host may keep its claim for no longer than Grace.
    until([this] { return !m_claimsUnlocked; }, qint64(2) * Grace);
}

void Play::quiet()
{
    until([] { return false; }, Quiet);
}

void Play::awaitEnd()
{
    until([] { return false; }, Grace);
}

void Play::leaveAlone()
{
    until([] { return false; }, Alone);
}

void Play::unlock()
{
    if (!enterUntil(m_code, [this] { return isUnlocked(); }))
        failToUnlock();
}

void Play::failToUnlock()
{
    throwFinding(
        isDaemonUnlocked()
            ? QStringLiteral("did not tell within %1 that the right code had unlocked").arg(seconds(m_patience.code))
            : QStringLiteral("the right code did not unlock within %1").arg(seconds(m_patience.code)));
}

void Play::lock()
{
    setLock(Locked);
    awaitLocked();
}

void Play::usable()
{
    daemon(R"({"do":"behave"})");
    daemon(R"({"do":"release"})");
    awaitConnections();
    lock();
    // The code is held until the host has taken back what it still claimed from before: the daemon is Locked meanwhile.
    misbehave("Authenticate", "hold");
    const int calls = callCount("Authenticate");
    if (!enterUntil(m_code, [&] { return wasCalled("Authenticate", calls + 1); }))
        failToUnlock();
    awaitLocked();
    daemon(R"({"do":"behave"})");
    daemon(R"({"do":"release"})");
    if (!until([this] { return isUnlocked(); }, EntryPause))
        unlock();
}

void Play::end()
{
    m_isEnding = true;
    say("the host is asked to end");
    kill(m_pid, SIGTERM);
    await([this] { return m_hasEnded; }, Grace, QStringLiteral("did not end within %1 of SIGTERM").arg(seconds(Grace)));
    // A host that may end by itself may just have done so.
    if (WIFEXITED(m_status) && WEXITSTATUS(m_status) == 1 && m_mayEnd())
        throw HostEnded{m_status};
    const bool asAsked = WIFSIGNALED(m_status) ? WTERMSIG(m_status) == SIGTERM
                                               : WEXITSTATUS(m_status) == 0 || WEXITSTATUS(m_status) == 128 + SIGTERM;
    if (!asAsked)
        throwFinding(endText(m_status) + QStringLiteral(" when asked to end"));
    awaitNoChildren();
    // A process that has ended claims nothing.
    m_claimsUnlocked = false;
    m_input.clear();
    if (m_probe >= 0)
        close(m_probe);
    m_probe = -1;
}

Outcome Play::finish()
{
    end();
    QString text = QStringLiteral("stayed up");
    if (m_mostEntries > 1)
        text += QStringLiteral("; a code had to be entered %1 times").arg(m_mostEntries);
    return {Outcome::Passed, text};
}

Outcome Play::judgeEnd(const HostEnded &end)
{
    m_isEnding = true;
    observe();
    if (m_claimsUnlocked && !isDaemonUnlocked())
        throwFinding(endText(end.status) + QStringLiteral(" while it claimed to be unlocked and the daemon was ")
                     + daemonState());
    if (!WIFEXITED(end.status) || WEXITSTATUS(end.status) != 1 || !m_mayEnd())
        throwFinding(endText(end.status) + (m_isUp ? QString() : QStringLiteral(" before it was up")));
    awaitNoChildren();
    return {Outcome::Passed, endText(end.status)};
}

void Play::observe()
{
    const QJsonObject state = m_daemon.state();
    m_lockState = state.value(QLatin1String("lock-state")).toInt();
    m_hasOwner = !state.value(QLatin1String("owner")).toString().isEmpty();
    m_peers = state.value(QLatin1String("peers")).toArray().size();
    const bool isUnlocked = m_hasOwner && m_lockState == Unlocked;
    if (m_truth.isEmpty() || isUnlocked != m_truth.last().isUnlocked)
        m_truth.append({isUnlocked, m_clock.elapsed()});
}

QString Play::daemonState() const
{
    static const char *const names[] = {"Unlocked",  "Locked",    "in ManagerLockout", "in CodeEntryLockout",
                                        "Undefined", "SecurityUi"};
    if (!m_hasOwner)
        return QStringLiteral("away");
    if (m_lockState >= 0 && m_lockState < int(std::size(names)))
        return QLatin1String(names[m_lockState]);
    return QStringLiteral("in state %1").arg(m_lockState);
}

void Play::await(const std::function<bool()> &condition, int milliseconds, const QString &finding)
{
    if (!until(condition, milliseconds))
        throwFinding(finding);
}

bool Play::until(const std::function<bool()> &condition, qint64 milliseconds)
{
    const qint64 end = m_clock.elapsed() + milliseconds;
    for (;;) {
        turn(Tick);
        observe();
        checkClaim();
        if (condition())
            return true;
        if (m_clock.elapsed() >= end)
            return false;
    }
}

void Play::turn(int milliseconds)
{
    pollfd sources[] = {{m_probe, POLLIN, 0}, {m_signals, POLLIN, 0}, {STDIN_FILENO, 0, 0}};
    poll(sources, std::size(sources), milliseconds);
    // Standard input is a pipe from the authd-hostcheck outside of this world, which has ended when the pipe is closed.
    if (sources[2].revents & (POLLHUP | POLLERR))
        throw Outcome{Outcome::NotMade, QStringLiteral("the check was broken off")};
    // The host's end is looked for before its lines are read: then what has been read is all that it has said.
    if (sources[1].revents)
        reap();
    if (m_probe >= 0)
        readHost();
    if (m_hasEnded && !m_isEnding)
        throw HostEnded{m_status};
}

void Play::reap()
{
    signalfd_siginfo ignored;
    while (read(m_signals, &ignored, sizeof ignored) > 0) { }
    int status = 0;
    for (pid_t pid = waitpid(-1, &status, WNOHANG); pid > 0; pid = waitpid(-1, &status, WNOHANG)) {
        if (pid != m_pid)
            continue;
        m_hasEnded = true;
        m_status = status;
        say("the host " + endText(status).toLocal8Bit());
    }
}

void Play::readHost()
{
    for (;;) {
        char buffer[4096];
        const ssize_t count = recv(m_probe, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count < 0)
            break;
        if (count == 0) {
            close(m_probe);
            m_probe = -1;
            break;
        }
        m_input.append(buffer, int(count));
        for (int end = m_input.indexOf('\n'); end >= 0; end = m_input.indexOf('\n')) {
            const QByteArray line = m_input.left(end);
            m_input.remove(0, end + 1);
            say("host: " + line);
            hear(line);
        }
        if (m_input.size() > LongestLine)
            throwFinding(QStringLiteral("told more than %1 bytes without the end of a line").arg(LongestLine));
    }
}

void Play::hear(const QByteArray &line)
{
    observe();
    m_isUp = true;
    if (line == "locked") {
        m_claimsUnlocked = false;
        if (m_truth.at(m_seen).isUnlocked && m_seen + 1 < m_truth.size())
            ++m_seen;
        return;
    }
    if (line != "unlocked")
        throwFinding(QStringLiteral("told neither locked nor unlocked, but \"%1\"").arg(QString::fromUtf8(line)));
    m_claimsUnlocked = true;
    // The host may be late. Its claim is about one of the times in which the daemon was Unlocked: the first one that no
    // earlier claim was later than, and that is not over for longer than Grace.
    for (int i = m_seen; i < m_truth.size(); ++i) {
        const bool isOver = i + 1 < m_truth.size();
        if (m_truth.at(i).isUnlocked && (!isOver || m_clock.elapsed() - m_truth.at(i + 1).since <= Grace)) {
            m_seen = i;
            return;
        }
    }
    throwFinding(QStringLiteral("claimed to be unlocked while the daemon was ") + daemonState());
}

void Play::checkClaim()
{
    if (m_claimsUnlocked && !isDaemonUnlocked() && m_clock.elapsed() - m_truth.last().since > Grace) {
        throwFinding(QStringLiteral("still claimed to be unlocked after the daemon had been %1 for %2")
                         .arg(daemonState(), seconds(Grace)));
    }
}

void Play::awaitConnections()
{
    // How many connections the host needs is not known; where it does not come back to as many as it had after its start,
    // the next code shows whether it can be used.
    until([this] { return m_peers >= m_peersAtStart; }, Grace);
}

void Play::awaitNoChildren()
{
    await([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }, Grace,
          QStringLiteral("left processes behind"));
}
