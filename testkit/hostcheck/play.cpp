#include "play.h"

#include <QtCore/QJsonArray>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <sys/wait.h>

namespace {

// A host has to end within this time, and the library to connect again.
const int Moment = 5000;
const int Quiet = 1000;
const int EntryPause = 2000;
const int OutcomeTime = 100;
const int EntryTime = 3000;
const int Tick = 20;
const int SlowTick = 200;

} // namespace

Play::Play(const QList<QByteArray> &host, const QByteArray &code, const Patience &patience)
    : m_host(host)
    , m_code(code)
    , m_patience(patience)
    , m_daemon([](const QString &error) {
        throw Outcome{Outcome::NotMade, error};
    })
    , m_judgement(patience.grace)
{
    m_daemon.setPatience(30000);
    observe();
}

void Play::say(const QByteArray &text)
{
    fprintf(stderr, "[%7.3f] %s\n", double(m_time.wall()) / 1000, text.constData());
}

QJsonObject Play::daemon(const QByteArray &json)
{
    observe();
    say("daemon: " + json);
    QJsonObject answer = m_daemon.request(json);
    observe();
    return answer;
}

void Play::changeState(int state, const QByteArray &json)
{
    observe();
    say("daemon: " + json);
    m_daemon.request(json);
    // A host may have answered to it by now.
    m_lockState = state;
    m_judgement.observe(m_hasOwner && state == Unlocked, m_time.elapsed(), true);
    observe();
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
    changeState(state, R"({"do":"set-lock","state":)" + QByteArray::number(state) + '}');
}

void Play::lockUnheard(int patience)
{
    // The announcement is the one thing that a host learns of at once.
    m_judgement.setGrace(patience);
    setLockUntold(Locked);
}

void Play::setLockUntold(int state)
{
    changeState(state, R"({"do":"set-lock","announce":false,"state":)" + QByteArray::number(state) + '}');
}

void Play::killBus()
{
    say("the system bus is killed");
    m_isBusKilled = true;
    ::kill(qEnvironmentVariableIntValue("AUTHD_WORLD_BUS_PID"), SIGKILL);
    observe();
}

void Play::freezeBus()
{
    say("the system bus is frozen");
    ::kill(qEnvironmentVariableIntValue("AUTHD_WORLD_BUS_PID"), SIGSTOP);
}

void Play::thawBus()
{
    say("the system bus goes on");
    ::kill(qEnvironmentVariableIntValue("AUTHD_WORLD_BUS_PID"), SIGCONT);
}

void Play::mayEnd(std::function<bool()> where)
{
    m_mayEnd = std::move(where);
}

void Play::start()
{
    m_isUp = false;
    m_isEnding = false;
    observe();
    m_judgement.begin();
    m_process.start(m_host);
    say("the host is started");
    const QString patience = secondsText(m_patience.up);
    if (!until([this] { return m_isUp; }, m_patience.up)) {
        if (m_process.hasUnfinishedLine())
            throwFinding(Rule::BadProbe, QStringLiteral("told no line that ends within %1 of its start").arg(patience));
        throwFinding(Rule::NoClaim, QStringLiteral("told no claim within %1 of its start").arg(patience));
    }
    m_peersAtStart = m_peers;
}

void Play::startIdle()
{
    start();
    // Some hosts connect to the daemon only when they have something to ask it.
    until([this] { return m_peers > 0; }, Moment);
    quiet();
    m_peersAtStart = m_peers;
}

void Play::enter(const QByteArray &code)
{
    say("enter " + code);
    observe();
    // A host that makes its client now finds no socket, and the library ends it.
    m_enteredWhileAway = m_enteredWhileAway || !m_hasOwner;
    if (code == m_code)
        m_judgement.enter();
    m_process.enter(code);
}

void Play::enterOnce(const QByteArray &code)
{
    const int calls = callCount("Authenticate");
    enter(code);
    until([&] { return callCount("Authenticate") > calls; }, EntryPause);
    leaveAlone(OutcomeTime);
}

QByteArray Play::wrongCode() const
{
    const QString code = QString::fromUtf8(m_code);
    return code.chopped(1).toUtf8() + (code.endsWith(QLatin1Char('0')) ? '1' : '0');
}

bool Play::enterUntil(const QByteArray &code, const std::function<bool()> &condition)
{
    return enterUntil(code, condition, m_patience.entry);
}

bool Play::enterUntil(const QByteArray &code, const std::function<bool()> &condition, int pause)
{
    const qint64 begin = m_time.elapsed();
    for (int entries = 1; m_time.elapsed() - begin < m_patience.code; ++entries) {
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
            m_code, [&] { return reached() || isUnlocked(); }, EntryPause)) {
        throwUselessness(QStringLiteral("the right code had no effect within %1").arg(secondsText(m_patience.code)));
    }
    if (!reached())
        throw Outcome{Outcome::NotReached, QStringLiteral("the host made no such call")};
}

bool Play::isUnlocked() const
{
    return m_judgement.claimsUnlocked() && isDaemonUnlocked();
}

void Play::awaitLocked()
{
    // Before this time is over checkClaim() throws.
    until([this] { return !m_judgement.claimsUnlocked(); }, qint64(2) * m_judgement.grace());
}

void Play::awaitLook()
{
    awaitLocked();
    m_judgement.setGrace(m_patience.grace);
}

void Play::leaveAlone(qint64 milliseconds)
{
    until([] { return false; }, milliseconds);
}

void Play::quiet()
{
    leaveAlone(Quiet);
}

void Play::keepEntering(qint64 milliseconds, const std::function<void()> &each)
{
    const qint64 begin = m_time.elapsed();
    while (m_time.elapsed() - begin < milliseconds) {
        each();
        enter(m_code);
        leaveAlone(EntryPause);
    }
}

void Play::awaitEnd()
{
    leaveAlone(Moment);
}

void Play::forgetEntries()
{
    // A slow host may hold one that was made twice.
    leaveAlone(EntryTime);
    if (isDaemonUnlocked())
        lock();
    m_judgement.forgetEntries();
}

void Play::unlock()
{
    if (!isUnlocked() && !enterUntil(m_code, [this] { return isUnlocked(); }))
        failToUnlock();
}

void Play::failToUnlock()
{
    const QString patience = secondsText(m_patience.code);
    if (isDaemonUnlocked()) {
        throwFinding(Rule::NotTold,
                     QStringLiteral("did not tell within %1 that the right code had unlocked").arg(patience));
    }
    throwUselessness(QStringLiteral("the right code did not unlock within %1").arg(patience));
}

void Play::throwUselessness(const QString &finding)
{
    if (!m_process.hasProbe())
        throwFinding(Rule::BadProbe, QStringLiteral("has closed the probe"));
    if (m_process.readsNothing())
        throwFinding(Rule::BadProbe, QStringLiteral("did not read from the probe"));
    throwFinding(Rule::NoUse, finding);
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
    // A code from before may have unlocked by now, as it may.
    if (m_lockState != Locked)
        lock();
    // The code is held until the host has taken back what it still claimed from before: the daemon is Locked meanwhile.
    misbehave("Authenticate", "hold");
    const int calls = callCount("Authenticate");
    if (!enterUntil(m_code, [&] { return wasCalled("Authenticate", calls + 1) || isDaemonUnlocked(); }))
        failToUnlock();
    if (!isDaemonUnlocked())
        awaitLocked();
    daemon(R"({"do":"behave"})");
    daemon(R"({"do":"release"})");
    if (!until([this] { return isUnlocked(); }, EntryPause))
        unlock();
}

void Play::end()
{
    settleClaim();
    m_isEnding = true;
    say("the host is asked to end");
    m_process.signal(SIGTERM);
    await([this] { return m_process.hasEnded(); }, Moment, Rule::NoEnd,
          QStringLiteral("did not end within %1 of SIGTERM").arg(secondsText(Moment)));
    const int status = m_process.status();
    // A host that may end by itself may just have done so.
    if (mayHaveEnded(status))
        throw HostEnded{status};
    const bool asAsked = WIFSIGNALED(status) ? WTERMSIG(status) == SIGTERM
                                             : WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 128 + SIGTERM;
    if (!asAsked)
        throwFinding(Rule::NoEnd, endText(status) + QStringLiteral(" when asked to end"));
    closeHost();
}

void Play::kill()
{
    m_isEnding = true;
    say("the host is killed");
    m_process.signal(SIGKILL);
    await([this] { return m_process.hasEnded(); }, Moment, Rule::NoEnd, QStringLiteral("did not end by SIGKILL"));
    await(
        [] {
            HostProcess::killLeftProcesses();
            return !HostProcess::hasLeftProcesses();
        },
        Moment, Rule::LeftProcesses, QStringLiteral("has processes that SIGKILL does not end"));
    m_judgement.forgetClaim();
    m_process.forget();
}

void Play::closeHost()
{
    await([] { return !HostProcess::hasLeftProcesses(); }, Moment, Rule::LeftProcesses,
          QStringLiteral("left processes behind"));
    // A process that has ended claims nothing.
    m_judgement.forgetClaim();
    m_process.forget();
}

void Play::settleClaim()
{
    until([this] { return !m_judgement.isClaimOpen(); }, qint64(2) * m_judgement.grace());
}

Outcome Play::finish()
{
    end();
    QString text = QStringLiteral("stayed up");
    if (m_mostEntries > 1)
        text += QStringLiteral("; a code had to be entered %1 times").arg(m_mostEntries);
    return {Outcome::Passed, text};
}

bool Play::mayHaveEnded(int status)
{
    return WIFEXITED(status) && WEXITSTATUS(status) == 1
        && (m_mayEnd()
            || (m_enteredWhileAway && (!m_hasOwner || m_time.elapsed() - m_ownerSince < qint64(2) * Moment)));
}

Outcome Play::judgeEnd(const HostEnded &end)
{
    m_isEnding = true;
    observe();
    if (!mayHaveEnded(end.status)) {
        const QString when = m_judgement.isClaimOpen()
            ? QStringLiteral(" while it claimed to be unlocked and the daemon was ") + daemonState()
            : m_isUp ? QString()
                     : QStringLiteral(" before it was up");
        throwFinding(Rule::Ends, endText(end.status) + when);
    }
    closeHost();
    return {Outcome::Passed, endText(end.status)};
}

void Play::observe()
{
    const QJsonObject state = m_daemon.state();
    const bool hadOwner = m_hasOwner;
    const int formerState = m_lockState;
    m_lockState = state.value(QLatin1String("lock-state")).toInt();
    m_hasOwner = !m_isBusKilled && !state.value(QLatin1String("owner")).toString().isEmpty();
    m_peers = state.value(QLatin1String("peers")).toArray().size();
    if (m_hasOwner && !hadOwner)
        m_ownerSince = m_time.elapsed();
    // A daemon that returns to a device that was unlocked before has not unlocked it.
    m_judgement.observe(m_hasOwner && m_lockState == Unlocked, m_time.elapsed(), formerState == Unlocked);
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

void Play::await(const std::function<bool()> &condition, int milliseconds, Rule rule, const QString &finding)
{
    if (!until(condition, milliseconds))
        throwFinding(rule, finding);
}

bool Play::until(const std::function<bool()> &condition, qint64 milliseconds)
{
    const qint64 begin = m_time.elapsed();
    for (;;) {
        // Long waits are many worlds' at once, and what the host tells ends a turn early.
        turn(m_time.elapsed() - begin < Quiet ? Tick : SlowTick);
        observe();
        checkClaim();
        if (condition())
            return true;
        if (m_time.elapsed() - begin >= milliseconds && m_time.measured() - begin >= milliseconds)
            return false;
    }
}

void Play::turn(int milliseconds)
{
    const bool hadEnded = m_process.hasEnded();
    m_process.wait(milliseconds);
    for (QByteArray line; m_process.takeLine(&line);) {
        say("host: " + line);
        hear(line);
    }
    if (!m_process.hasEnded() || hadEnded)
        return;
    say("the host " + endText(m_process.status()).toLocal8Bit());
    if (!m_isEnding)
        throw HostEnded{m_process.status()};
}

void Play::hear(const QByteArray &line)
{
    observe();
    m_isUp = true;
    if (line != "locked" && line != "unlocked") {
        const QString told = QString::fromUtf8(line.left(60)) + (line.size() > 60 ? QStringLiteral("…") : QString());
        throwFinding(Rule::BadProbe, QStringLiteral("told neither locked nor unlocked, but \"%1\"").arg(told));
    }
    m_judgement.claim(line == "unlocked", m_time.measured(), daemonState());
}

void Play::checkClaim()
{
    if (m_judgement.isClaimOpen() && m_time.elapsed() > m_judgement.end())
        m_judgement.check(m_time.measured(), daemonState());
}

void Play::awaitConnections()
{
    // How many connections the host needs is not known; where it does not come back to as many as it had after its start,
    // the next code shows whether it can be used.
    until([this] { return m_peers >= m_peersAtStart; }, Moment);
}
