#include "runner.h"

#include "play.h"
#include "proc.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QSet>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <deque>
#include <poll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

// Hosts that wait take no processor, except to start.
const int MostWaiting = 24;
const int MostWorlds = 64;
const qint64 LeastMemory = 512; // MiB
const int LoadPause = 100;      // milliseconds
const int KillPause = 10000;
const double EnoughIdle = 0.15;

Patience patienceOf(Day::Pace pace, int grace)
{
    switch (pace) {
    case Day::Quick:
        return {30000, 2000, 30000, grace};
    case Day::GivesUp:
    case Day::Lasts:
        return {30000, 2000, 60000, grace};
    case Day::Freezes:
        break;
    }
    // A call that is not answered holds a host up for 25 seconds, perhaps when the daemon locks.
    return {60000, 27000, 110000, std::max(grace, 5000)};
}

Outcome playDay(const Day &day, int grace, const QString &code, const QStringList &host)
{
    QList<QByteArray> command;
    for (const QString &word : host)
        command.append(word.toLocal8Bit());
    try {
        Play play(command, code.toUtf8(), patienceOf(day.pace, grace));
        try {
            day.play(play);
            return play.finish();
        } catch (const Play::HostEnded &end) {
            return play.judgeEnd(end);
        }
    } catch (const Outcome &outcome) {
        return outcome;
    }
}

/** How much of the processors is idle, from one look to the next. */
class Load
{
public:
    double idle()
    {
        const QList<QByteArray> fields = contents("/proc/stat").split('\n').value(0).simplified().split(' ');
        qint64 sum = 0;
        for (int i = 1; i < fields.size(); ++i)
            sum += fields.at(i).toLongLong();
        const qint64 idle = fields.value(4).toLongLong() + fields.value(5).toLongLong();
        const double share = sum > m_sum ? double(idle - m_idle) / double(sum - m_sum) : 0;
        m_sum = sum;
        m_idle = idle;
        return share;
    }

private:
    qint64 m_sum = 0;
    qint64 m_idle = 0;
};

/** In MiB; much where the system does not tell. */
qint64 availableMemory()
{
    const QList<QByteArray> lines = contents("/proc/meminfo").split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith("MemAvailable:"))
            return line.simplified().split(' ').value(1).toLongLong() / 1024;
    }
    return LeastMemory + 1;
}

/** What is to end a process that has not been told to ignore it, as nohup does. */
sigset_t endingSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction action = {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            sigaddset(&set, signal);
    }
    return set;
}

class World : public QProcess
{
protected:
    // Else the world would start with the signals held that SignalsHeld holds here.
    void setupChildProcess() override
    {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }
};

class Runner
{
public:
    Runner(const Check &check, const SignalsHeld &held, const std::function<void(const Result &)> &tell)
        : m_check(check)
        , m_held(held)
        , m_tell(tell)
    {
        m_clock.start();
        for (const Day *day : check.days)
            (day->pace == Day::Quick ? m_quick : m_waiting).push_back(day);
        // The longest begin first.
        std::stable_sort(m_waiting.begin(), m_waiting.end(),
                         [](const Day *left, const Day *right) { return lengthOf(left) > lengthOf(right); });
    }

    Costs run(QString *problem)
    {
        QSocketNotifier interruption(m_held.descriptor(), QSocketNotifier::Read);
        QObject::connect(&interruption, &QSocketNotifier::activated, &m_loop, [&] {
            interruption.setEnabled(false);
            for (QProcess *world : qAsConst(m_worlds))
                world->terminate();
            QTimer::singleShot(KillPause, &m_loop, [this] {
                for (QProcess *world : qAsConst(m_worlds))
                    world->kill();
            });
        });
        QTimer timer;
        QObject::connect(&timer, &QTimer::timeout, &m_loop, [this] { startMore(); });

        const Day *first = firstDay();
        m_quick.erase(std::remove(m_quick.begin(), m_quick.end(), first), m_quick.end());
        m_waiting.erase(std::remove(m_waiting.begin(), m_waiting.end(), first), m_waiting.end());
        m_isFirst = true;
        start(first);
        m_loop.exec();
        *problem = m_problem;
        m_isFirst = false;
        if (m_problem.isEmpty() && !m_held.isAnyWaiting() && !(m_quick.empty() && m_waiting.empty())) {
            m_load.idle();
            startMore();
            timer.start(LoadPause);
            m_loop.exec();
        }
        return costs();
    }

private:
    /** The day that shows whether there is something to be checked: the plainest, and over soon. */
    const Day *firstDay() const
    {
        const auto &days = m_check.days;
        const auto ordinary = std::find(days.begin(), days.end(), findDay("ordinary"));
        if (ordinary != days.end())
            return *ordinary;
        return m_quick.empty() ? days.front() : m_quick.front();
    }

    static int lengthOf(const Day *day)
    {
        return day->pace + (day->isThorough ? Day::Lasts : 0);
    }

    /** As many as may run on any machine, and two more where the processors have nothing to do. */
    void startMore()
    {
        int more = m_load.idle() > EnoughIdle ? 2 : 0;
        const auto next = [&](std::deque<const Day *> &days, int running, int most) {
            for (; !days.empty() && mayStart() && (m_check.jobs > 0 || running < most || more > 0); ++running) {
                more -= running >= most;
                start(days.front());
                days.pop_front();
            }
        };
        next(m_waiting, m_runningWaiting, MostWaiting);
        next(m_quick, m_worlds.size() - m_runningWaiting, 2 * QThread::idealThreadCount());
    }

    bool mayStart() const
    {
        if (m_held.isAnyWaiting())
            return false;
        return m_check.jobs > 0
            ? m_worlds.size() < m_check.jobs
            : m_worlds.size() < MostWorlds && (m_worlds.isEmpty() || availableMemory() > LeastMemory);
    }

    void start(const Day *day)
    {
        QStringList arguments = {QStringLiteral("--standin"), QStringLiteral("--private-files")};
        if (day->world == Day::WithoutBus)
            arguments.append(QStringLiteral("--no-bus"));
        if (!m_check.scenario.isEmpty())
            arguments.append({QStringLiteral("--scenario"), m_check.scenario});
        arguments.append({QStringLiteral("--"), QCoreApplication::applicationFilePath(), QStringLiteral("--inside"),
                          QString::fromUtf8(day->name), QStringLiteral("--grace"),
                          QString::number(double(m_check.grace) / 1000), QStringLiteral("--"), m_check.code});
        arguments.append(m_check.host);

        auto *world = new World;
        world->setStandardErrorFile(logFile(m_check, *day));
        QElapsedTimer timer;
        timer.start();
        m_worlds.insert(world);
        m_mostAtOnce = std::max(m_mostAtOnce, m_worlds.size());
        m_runningWaiting += day->pace != Day::Quick;
        const auto finished = [this, world, day, timer] {
            const double seconds = double(timer.elapsed()) / 1000;
            world->deleteLater();
            m_worlds.remove(world);
            m_runningWaiting -= day->pace != Day::Quick;
            // Ctrl-C reaches the worlds, too: how the worlds ended says nothing about the host then.
            if (!m_held.isAnyWaiting()) {
                const Outcome outcome = outcomeOf(*world);
                m_tell({day, outcome, seconds});
                if (m_isFirst)
                    m_problem = problemOf(outcome);
                else
                    startMore();
            }
            if (m_worlds.isEmpty())
                m_loop.quit();
        };
        QObject::connect(world, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &m_loop, finished);
        QObject::connect(
            world, &QProcess::errorOccurred, &m_loop,
            [finished](QProcess::ProcessError error) {
                if (error == QProcess::FailedToStart)
                    finished();
            },
            Qt::QueuedConnection);
        world->start(m_check.world, arguments);
    }

    static Outcome outcomeOf(QProcess &world)
    {
        const QJsonObject outcome = QJsonDocument::fromJson(world.readAllStandardOutput()).object();
        if (outcome.isEmpty()) {
            return {Outcome::NotMade,
                    world.error() == QProcess::FailedToStart
                        ? world.errorString()
                        : QStringLiteral("the world ended with status %1").arg(world.exitCode())};
        }
        return {Outcome::Verdict(outcome.value(QLatin1String("verdict")).toInt()),
                outcome.value(QLatin1String("text")).toString(), Rule(outcome.value(QLatin1String("rule")).toInt())};
    }

    /** Why the other days would show nothing either; empty if they may. */
    static QString problemOf(const Outcome &outcome)
    {
        if (outcome.rule == Rule::Ends && outcome.text.endsWith(QLatin1String(" before it was up")))
            return QStringLiteral("the host ends before it tells anything; what is shown above says why");
        if (outcome.rule == Rule::NoClaim || outcome.rule == Rule::BadProbe) {
            return QStringLiteral(
                       "the host cannot be understood. It has to write \"locked\" or \"unlocked\" to the socket whose "
                       "descriptor\nthe environment variable AUTHD_HOSTCHECK_FD names: the probe, a few lines in "
                       "C++, QML, Python or shell.\nThe recipe is in %1")
                .arg(cureOf(Rule::NoClaim));
        }
        if (outcome.verdict == Outcome::NotMade)
            return QStringLiteral("no day can be made here; what is shown above says why");
        return QString();
    }

    Costs costs() const
    {
        rusage used = {};
        getrusage(RUSAGE_CHILDREN, &used);
        const auto seconds = [](const timeval &time) { return double(time.tv_sec) + double(time.tv_usec) / 1e6; };
        return {double(m_clock.elapsed()) / 1000, seconds(used.ru_utime) + seconds(used.ru_stime),
                used.ru_maxrss / 1024, m_mostAtOnce};
    }

    const Check &m_check;
    const SignalsHeld &m_held;
    const std::function<void(const Result &)> &m_tell;
    QElapsedTimer m_clock;
    Load m_load;
    std::deque<const Day *> m_waiting;
    std::deque<const Day *> m_quick;
    QSet<QProcess *> m_worlds; ///< those that run
    int m_runningWaiting = 0;
    int m_mostAtOnce = 0;
    bool m_isFirst = false;
    QString m_problem;
    QEventLoop m_loop;
};

} // namespace

SignalsHeld::SignalsHeld()
{
    const sigset_t set = endingSignals();
    sigprocmask(SIG_BLOCK, &set, &m_before);
    m_descriptor = signalfd(-1, &set, SFD_CLOEXEC);
}

SignalsHeld::~SignalsHeld()
{
    close(m_descriptor);
    sigprocmask(SIG_SETMASK, &m_before, nullptr);
}

bool SignalsHeld::isAnyWaiting() const
{
    pollfd source = {m_descriptor, POLLIN, 0};
    return poll(&source, 1, 0) > 0;
}

Costs playDays(const Check &check, const SignalsHeld &held, const std::function<void(const Result &)> &tell,
               QString *problem)
{
    return Runner(check, held, tell).run(problem);
}

int playInside(const Day &day, int grace, const QString &code, const QStringList &host)
{
    const Outcome outcome = playDay(day, grace, code, host);
    const QJsonObject object = {{QStringLiteral("verdict"), outcome.verdict},
                                {QStringLiteral("text"), outcome.text},
                                {QStringLiteral("rule"), int(outcome.rule)}};
    fputs(QJsonDocument(object).toJson(QJsonDocument::Compact).constData(), stdout);
    return fflush(stdout) == 0 ? 0 : 1;
}

QString logFile(const Check &check, const Day &day)
{
    return check.logs + QLatin1Char('/') + QString::fromUtf8(day.name) + QStringLiteral(".log");
}
