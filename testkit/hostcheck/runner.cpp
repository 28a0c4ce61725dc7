#include "runner.h"

#include "play.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QSet>
#include <QtCore/QSocketNotifier>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <deque>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

// By Day::pace. An unanswered call holds a host up for 25 seconds.
const Patience patiences[] = {{30000, 2000, 30000}, {30000, 2000, 60000}, {60000, 27000, 110000}};
// Hosts that wait take no processor, except to start.
const int MostWaiting = 12;

Outcome playDay(const Day &day, const QString &code, const QStringList &host)
{
    QList<QByteArray> command;
    for (const QString &word : host)
        command.append(word.toLocal8Bit());
    try {
        Play play(command, code.toUtf8(), patiences[day.pace]);
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
        for (const Day *day : check.days)
            (day->pace == Day::Quick ? m_quick : m_waiting).push_back(day);
        // The longest begin first.
        std::stable_sort(m_waiting.begin(), m_waiting.end(),
                         [](const Day *left, const Day *right) { return left->pace > right->pace; });
    }

    bool run()
    {
        QSocketNotifier interruption(m_held.descriptor(), QSocketNotifier::Read);
        QObject::connect(&interruption, &QSocketNotifier::activated, &m_loop, [&] {
            interruption.setEnabled(false);
            for (QProcess *world : qAsConst(m_worlds))
                world->terminate();
        });
        startMore();
        if (!m_worlds.isEmpty())
            m_loop.exec();
        return !m_held.isAnyWaiting();
    }

private:
    void startMore()
    {
        while (!m_waiting.empty() && m_runningWaiting < MostWaiting)
            start(take(m_waiting));
        while (!m_quick.empty() && m_worlds.size() - m_runningWaiting < m_check.jobs)
            start(take(m_quick));
    }

    static const Day *take(std::deque<const Day *> &days)
    {
        const Day *day = days.front();
        days.pop_front();
        return day;
    }

    void start(const Day *day)
    {
        QStringList arguments = {QStringLiteral("--standin")};
        if (day->world == Day::WithoutBus)
            arguments.append(QStringLiteral("--no-bus"));
        if (!m_check.scenario.isEmpty())
            arguments.append({QStringLiteral("--scenario"), m_check.scenario});
        arguments.append({QStringLiteral("--"), QCoreApplication::applicationFilePath(), QStringLiteral("--inside"),
                          QString::fromUtf8(day->name), QStringLiteral("--"), m_check.code});
        arguments.append(m_check.host);

        auto *world = new World;
        world->setStandardErrorFile(logFile(m_check, *day));
        QElapsedTimer timer;
        timer.start();
        m_worlds.insert(world);
        m_runningWaiting += day->pace != Day::Quick;
        const auto finished = [this, world, day, timer] {
            const double seconds = double(timer.elapsed()) / 1000;
            world->deleteLater();
            m_worlds.remove(world);
            m_runningWaiting -= day->pace != Day::Quick;
            // Ctrl-C reaches the worlds, too: how the worlds ended says nothing about the host then.
            if (!m_held.isAnyWaiting()) {
                m_tell({day, outcomeOf(*world), seconds});
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
                outcome.value(QLatin1String("text")).toString()};
    }

    const Check &m_check;
    const SignalsHeld &m_held;
    const std::function<void(const Result &)> &m_tell;
    std::deque<const Day *> m_waiting;
    std::deque<const Day *> m_quick;
    QSet<QProcess *> m_worlds; ///< those that run
    int m_runningWaiting = 0;
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

bool playDays(const Check &check, const SignalsHeld &held, const std::function<void(const Result &)> &tell)
{
    return Runner(check, held, tell).run();
}

int playInside(const Day &day, const QString &code, const QStringList &host)
{
    const Outcome outcome = playDay(day, code, host);
    const QJsonObject object = {{QStringLiteral("verdict"), outcome.verdict}, {QStringLiteral("text"), outcome.text}};
    fputs(QJsonDocument(object).toJson(QJsonDocument::Compact).constData(), stdout);
    return fflush(stdout) == 0 ? 0 : 1;
}

QString logFile(const Check &check, const Day &day)
{
    return check.logs + QLatin1Char('/') + QString::fromUtf8(day.name) + QStringLiteral(".log");
}
