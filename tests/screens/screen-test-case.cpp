#include "screen-test-case.h"

#include <csignal>

WatchedLock::WatchedLock(StandIn *daemon)
{
    connect(this, &DeviceLock::stateChanged, this, [this, daemon] {
        // What the daemon does not say must not be shown, not for a moment.
        if (state() == Unlocked && daemon->lockState() != Unlocked)
            record("Unlocked without the daemon"_s);
        record(nameOf(state()));
    });
    connect(this, &DeviceLock::refused, this, [this](Reason reason) { record(nameOf(reason)); });
}

void WatchedLock::await(State wanted)
{
    if (!waitFor([this, wanted] { return state() == wanted; }))
        qFatal("The state does not become %s", qPrintable(nameOf(wanted)));
    heard.clear();
}

QString WatchedLock::outcomeOf(const QString &factor, const QString &secret)
{
    QString outcome;
    QObject context;
    connect(this, &DeviceLock::refused, &context, [&outcome](Reason reason) { outcome = nameOf(reason); });
    connect(this, &DeviceLock::unlockedChanged, &context, [this, &outcome] {
        if (unlocked())
            outcome = nameOf(Unlocked);
    });
    if (!attempt(factor, secret))
        return "busy"_s;
    if (!waitFor([&outcome] { return !outcome.isEmpty(); }))
        return "nothing"_s;
    return outcome;
}

void WatchedLock::record(const QString &name)
{
    heard.append(name);
}

QString nameOf(DeviceLock::State state)
{
    return QLatin1String(QMetaEnum::fromType<DeviceLock::State>().valueToKey(state));
}

QString nameOf(Reason reason)
{
    return QLatin1String(QMetaEnum::fromType<Reason>().valueToKey(reason));
}

QList<qint64> ScreenTestCase::children() const
{
    QList<qint64> found;
    QHash<qint64, qint64> parents;
    for (const QString &name : QDir("/proc"_s).entryList({"[0-9]*"_s}, QDir::Dirs)) {
        QFile file("/proc/%1/stat"_s.arg(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray line = file.readAll();
        const QByteArrayList words = line.mid(line.lastIndexOf(')') + 2).split(' ');
        parents.insert(name.toLongLong(), words.value(1).toLongLong());
    }
    for (auto process = parents.cbegin(); process != parents.cend(); ++process) {
        qint64 ancestor = process.value();
        while (ancestor && ancestor != QCoreApplication::applicationPid())
            ancestor = parents.value(ancestor);
        if (ancestor)
            found.append(process.key());
    }
    return found;
}

QList<qint64> ScreenTestCase::agents() const
{
    QList<qint64> found;
    for (const qint64 process : children()) {
        QFile file("/proc/%1/comm"_s.arg(process));
        if (file.open(QIODevice::ReadOnly) && file.readAll().trimmed() == "auth-agent")
            found.append(process);
    }
    return found;
}

QList<qint64> ScreenTestCase::awaitAgents(int count) const
{
    QList<qint64> found;
    QTimer look;
    look.start(5);
    if (!waitFor([&] { return (found = agents()).size() == count; }))
        qFatal("There are %d agents", int(found.size()));
    return found;
}

void ScreenTestCase::init()
{
    TestCase::init();
    AuthScreens::setAgentProgram(QStringLiteral(AUTH_AGENT));
    daemon.lock();
}

// Agents are ended by a thread, and this may take a moment.
void ScreenTestCase::cleanup()
{
    QTimer look;
    look.start(5);
    QVERIFY(waitFor([this] { return children().isEmpty(); }));
    TestCase::cleanup();
}

void signalAll(const QList<qint64> &processes, int signal)
{
    for (const qint64 process : processes)
        kill(pid_t(process), signal);
}
