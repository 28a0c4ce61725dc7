#include "cell.h"

#include "bus-round-trip.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QFile>
#include <QtCore/QMap>
#include <QtCore/QThread>

#include <algorithm>
#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/** A host that does not get there within this time never will, even on a busy machine and under memcheck. */
int patience = 120000;

/** A letter: S for asleep, T for stopped. */
char stateOf(qint64 process)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(process));
    if (!file.open(QIODevice::ReadOnly))
        return 'X';
    const QByteArray text = file.readAll();
    const int place = text.lastIndexOf(')') + 2;
    return place < text.size() ? text.at(place) : 'X';
}

pid_t standInProcess()
{
    const int control = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address{AF_UNIX, "/run/authd/standin.socket"};
    ucred credentials = {};
    socklen_t size = sizeof credentials;
    if (connect(control, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0
        || getsockopt(control, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        qFatal("There is no stand-in");
    close(control);
    return credentials.pid;
}

void signalStandIn(int number)
{
    static const pid_t process = standInProcess();
    if (kill(process, number) != 0)
        qFatal("The stand-in has gone");
    const QByteArray states = number == SIGSTOP ? "T" : "ZX";
    while (number != SIGCONT && !states.contains(stateOf(process)))
        QThread::yieldCurrentThread();
}

} // namespace

Cell::Cell(StandIn &daemon, const Call &call, const Fault &fault, const Act &act)
    : m_daemon(daemon)
    , m_call(call)
    , m_fault(fault)
    , m_act(act)
    , m_expected(call, fault, act)
{
}

bool Cell::is(const char *kinds) const
{
    return overlap(m_call.kinds, kinds);
}

QString Cell::problem()
{
    m_daemon.reset();
    start();
    if (awaitSaid("ready")) {
        m_daemon.clearCalls();
        for (const QString &step : split(QString::fromUtf8(is("signal") ? m_fault.ofSignal : m_fault.ofCall)))
            take(step);
        awaitHeard();
        settle();
        // A host that quits might take the order yet.
        if (isNothing(m_act) || m_act.name == QByteArray("delete"))
            write("end");
    }
    const bool hasCome = await([this] { return hasEnded(); });
    const qint64 elapsed = m_timer.elapsed();
    const QStringList got = dealtCalls();

    QStringList problems;
    if (!hasCome) {
        m_host.kill();
        m_host.waitForFinished();
        problems.append(QStringLiteral("hangs"));
    } else if (m_host.exitStatus() != QProcess::NormalExit) {
        problems.append(QStringLiteral("ended by signal %1").arg(m_host.exitCode()));
    } else if (m_host.exitCode() != m_expected.promise()->status) {
        problems.append(
            QStringLiteral("status %1 instead of %2").arg(m_host.exitCode()).arg(m_expected.promise()->status));
    }
    if (!m_expected.fits(m_lines))
        problems.append(QStringLiteral("heard <%1>").arg(m_lines.join(QStringLiteral("; "))));
    if (!m_expected.fitsCalls(got))
        problems.append(QStringLiteral("the daemon got <%1> instead of <%2>")
                            .arg(got.join(QStringLiteral("; ")), m_expected.callsText()));
    if (!m_isFollowing)
        problems.append(QStringLiteral("does not reconnect"));
    if (isNothing(m_act) && elapsed < m_fault.lasts * qint64(1000))
        problems.append(QStringLiteral("given up after %1 ms").arg(elapsed));
    if (problems.isEmpty())
        return QString();
    return problems.join(QStringLiteral(", ")) + QStringLiteral(", and wrote:\n")
        + QString::fromUtf8(m_host.readAllStandardError());
}

void Cell::start()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"), QStringLiteral("%{type} %{file} %{message}"));
    environment.remove(QStringLiteral("QT_LOGGING_RULES"));
    // A client is left when exit() is called; what nothing points to any more is found by memcheck.
    environment.insert(QStringLiteral("ASAN_OPTIONS"),
                       environment.value(QStringLiteral("ASAN_OPTIONS")) + QStringLiteral(":detect_leaks=0"));
    m_host.setProcessEnvironment(environment);
    const QStringList command = QProcess::splitCommand(environment.value(QStringLiteral("AUTH_TEST_RUNNER")))
        + QStringList{QStringLiteral(FAULTS_HOST), QString::fromUtf8(m_call.name), QString::fromUtf8(m_act.name)};
    m_host.start(command.first(), command.mid(1));
    if (!m_host.waitForStarted())
        qFatal("The host does not start: %s", qPrintable(m_host.errorString()));
}

void Cell::take(const QString &step)
{
    const QStringList words = step.split(QLatin1Char(' '));
    const QString &verb = words.first();
    if (verb == QLatin1String("rule")) {
        addRule(words);
    } else if (verb == QLatin1String("go")) {
        makeCall();
    } else if (verb == QLatin1String("act")) {
        doAct();
    } else if (verb == QLatin1String("hear")) {
        runLoop();
        awaitHeard();
    } else if (verb == QLatin1String("catch")) {
        // Both the signal and the daemon's end are on their way, on two connections; here the signal is the first.
        if (isNothing(m_act)) {
            runLoop();
            const int count = split(QString::fromUtf8(m_call.heard)).size();
            await([&] { return m_lines.size() >= count; });
        }
    } else if (verb == QLatin1String("overdue")) {
        if (isNothing(m_act))
            await([this] { return m_lines.size() >= m_expected.late(); });
    } else if (verb == QLatin1String("reconnect")) {
        if (isNothing(m_act) && !is("bus") && m_expected.promise()->status == 0)
            m_isFollowing = awaitSaid("reconnected");
    } else if (verb == QLatin1String("emit")) {
        m_daemon.emitSignal(m_call.method, arguments(words.at(1)));
    } else if (verb == QLatin1String("beside")) {
        const QByteArray emission = m_call.beside;
        const int space = emission.indexOf(' ');
        if (space > 0)
            m_daemon.emitSignal(emission.left(space).constData(), emission.mid(space + 1));
    } else if (verb == QLatin1String("close")) {
        m_isClosed = true;
        // What has not called yet has no peer to lose, and is refused one.
        const bool isEarly = is("construction") && !m_timer.isValid();
        m_daemon.request(isEarly ? R"({"do":"accept","how":"refuse"})" : R"({"do":"drop-peers"})");
    } else if (verb == QLatin1String("freeze")) {
        m_isFrozen = true;
        signalStandIn(SIGSTOP);
    } else if (verb == QLatin1String("thaw")) {
        m_isFrozen = false;
        signalStandIn(SIGCONT);
    } else if (verb == QLatin1String("kill")) {
        if (words.at(1) == QLatin1String("bus"))
            killBus();
        else
            killDaemon();
    } else if (verb == QLatin1String("keep-old")) {
        m_daemon.request(R"({"do":"handover","keep-old":true})");
    } else {
        m_daemon.request("{\"do\":\"" + verb.toUtf8() + "\"}");
    }
}

const char *Cell::arguments(const QString &which) const
{
    const QMap<QString, const char *> known{{QStringLiteral("right"), m_call.right},
                                            {QStringLiteral("other"), m_call.other},
                                            {QStringLiteral("extra"), m_call.extra},
                                            {QStringLiteral("missing"), "()"}};
    return known.value(which);
}

void Cell::addRule(const QStringList &words)
{
    QString how = words.at(1);
    QByteArray more;
    if (how == QLatin1String("error"))
        more = "\"message\":" + AuthStandIn::quoted(words.mid(2).join(QLatin1Char(' '))) + ',';
    if (how == QLatin1String("reply"))
        more = "\"value\":" + AuthStandIn::quoted(QString::fromUtf8(arguments(words.at(2)))) + ',';
    if (how == QLatin1String("signal-first") && m_call.beside)
        how = QStringLiteral("hold");
    // A settings client asks for several options in a row, none of which is to be answered better than the first.
    static const QStringList answers{QStringLiteral("error"), QStringLiteral("reply"), QStringLiteral("mute"),
                                     QStringLiteral("hold")};
    const bool isLasting =
        m_call.name == QByteArray("GetOption") && answers.contains(how) && words.last() != QLatin1String("once");
    more += isLasting ? "\"times\":100" : "\"times\":1";
    m_daemon.misbehave(m_call.method, qPrintable(how), more);
    if (m_call.skip > 0)
        m_daemon.misbehave(m_call.method, "delay", "\"ms\":0,\"times\":" + QByteArray::number(m_call.skip));
}

/** Until the call is where the fault meets it. */
void Cell::makeCall()
{
    m_timer.start();
    write("go");
    awaitSaid("calling");
    const bool isAwaited = is("blocking|construction") || (m_isFrozen && m_call.method == QByteArray("GetState"));
    if (!isAwaited)
        awaitSaid("called");
    if (m_isFrozen && isAwaited)
        await([this] { return stateOf(m_host.processId()) == 'S'; }, 1);
    if (m_isFrozen || m_isClosed || is("signal"))
        return;
    if (is("construction")) {
        await(
            [this] {
                int count = 0;
                const QJsonArray got =
                    m_daemon.request(R"({"do":"standard-calls"})").value(QLatin1String("calls")).toArray();
                for (const QJsonValue &call : got)
                    count += call[QLatin1String("method")] == QLatin1String("Introspect");
                return count > m_call.skip;
            },
            1);
    } else {
        m_daemon.waitCalls(m_call.method);
    }
    // A client that is being made has asked for the state before, and has got it.
    if (!is("bus") && QByteArray(m_call.sends).contains("GetState"))
        m_daemon.waitCalls("GetState");
    settle();
}

void Cell::doAct()
{
    if (isNothing(m_act)) {
        runLoop();
        return;
    }
    write("act");
    // Also while the daemon is frozen.
    await([this] { return m_lines.contains(QLatin1String("deleted")); });
}

void Cell::runLoop()
{
    if (!m_isInLoop)
        write("loop");
    m_isInLoop = true;
}

void Cell::killBus()
{
    m_isClosed = m_isClosed || !m_timer.isValid();
    const pid_t bus = qEnvironmentVariableIntValue("AUTHD_WORLD_BUS_PID");
    if (bus <= 0 || kill(bus, SIGKILL) != 0)
        qFatal("There is no bus to kill");
    while (QDBusConnection::systemBus().isConnected())
        QThread::yieldCurrentThread();
}

// It cannot be asked for its calls afterwards.
void Cell::killDaemon()
{
    m_got = dealtCalls();
    m_isKilled = true;
    signalStandIn(SIGKILL);
}

void Cell::write(const char *order)
{
    if (hasEnded())
        return;
    m_host.write(QByteArray(order) + '\n');
    m_host.waitForBytesWritten(1000);
}

void Cell::read()
{
    static const QStringList words{QStringLiteral("ready"), QStringLiteral("calling"), QStringLiteral("called"),
                                   QStringLiteral("reconnected")};
    while (m_host.canReadLine()) {
        const QString line = QString::fromUtf8(m_host.readLine()).trimmed();
        (words.contains(line) ? m_said : m_lines).append(line);
    }
}

bool Cell::hasEnded() const
{
    return m_host.state() == QProcess::NotRunning;
}

template <typename Condition> bool Cell::await(Condition condition, int interval)
{
    const QDeadlineTimer deadline(patience);
    for (;;) {
        const bool isLast = hasEnded() || deadline.hasExpired();
        read();
        if (condition())
            return true;
        if (isLast) {
            // What is broken for one cell may be for many.
            patience = hasEnded() ? patience : 10000;
            return false;
        }
        m_host.waitForReadyRead(interval);
    }
}

bool Cell::awaitSaid(const char *word)
{
    return await([&] { return m_said.contains(QLatin1String(word)); });
}

void Cell::awaitHeard()
{
    await([this] { return m_expected.isHeard(m_lines) || m_expected.fits(m_lines); });
}

/** What the daemon has sent is on its way to the host. */
void Cell::settle()
{
    if (!m_isKilled)
        m_daemon.request(R"({"do":"ping"})");
    // What the bus gets from two processes at once it may take in any order.
    roundTripToSystemBus();
    roundTripToSystemBus();
}

/** What the daemon has got of calls, from the peer first. */
QStringList Cell::dealtCalls()
{
    if (m_isKilled)
        return m_got;
    const QDeadlineTimer deadline(5000);
    QStringList result;
    do {
        settle();
        QStringList ofBus;
        result.clear();
        for (const auto &value : m_daemon.AuthStandIn::calls()) {
            const QJsonValue call = value;
            const QString text = call[QLatin1String("method")].toString() + QLatin1Char(' ')
                + call[QLatin1String("signature")].toString();
            (call[QLatin1String("bus")] == QLatin1String("peer") ? result : ofBus).append(text.trimmed());
        }
        result += ofBus;
    } while (!m_expected.fitsCalls(result) && !deadline.hasExpired());
    return result;
}
