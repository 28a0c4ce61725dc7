// What DeviceLock costs beside the classes of libauth-client in the process: times of unlocking, the start of an agent, and
// its memory. To be run in a world with the stand-in.

#include <AuthClient>
#include <AuthDevlockClient>
#include <AuthStandIn>
#include <DeviceLock>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QVector>

#include <algorithm>
#include <cstdio>
#include <functional>

using AuthScreens::DeviceLock;

namespace {

constexpr int Turns = 41;

void await(const std::function<bool()> &condition)
{
    while (!condition())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

void print(const char *what, QVector<double> values, const char *unit)
{
    std::sort(values.begin(), values.end());
    printf("%-44s %8.1f %s\n", what, values.at(values.size() / 2), unit);
}

double milliseconds(const QElapsedTimer &time)
{
    return double(time.nsecsElapsed()) / 1e6;
}

/** The proportional set size of each process called auth-agent, in KiB. */
QVector<double> memoryOfAgents()
{
    QVector<double> sizes;
    const QRegularExpression pss(QStringLiteral("^Pss: +(\\d+) kB"), QRegularExpression::MultilineOption);
    for (const QString &process : QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs)) {
        QFile name(QStringLiteral("/proc/%1/comm").arg(process));
        QFile memory(QStringLiteral("/proc/%1/smaps_rollup").arg(process));
        if (name.open(QIODevice::ReadOnly) && name.readAll() == "auth-agent\n" && memory.open(QIODevice::ReadOnly))
            sizes.append(pss.match(QString::fromLatin1(memory.readAll())).captured(1).toDouble());
    }
    return sizes;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    AuthStandIn daemon([](const QString &error) { qFatal("%s", qPrintable(error)); });
    const QString code = QStringLiteral("code");
    const QString secret = QStringLiteral("1234");

    QVector<double> starts;
    QVector<double> unlockings;
    for (int i = 0; i < Turns; ++i) {
        daemon.lock();
        QElapsedTimer time;
        time.start();
        DeviceLock lock;
        await([&lock] { return lock.state() == DeviceLock::Locked; });
        starts.append(milliseconds(time));
    }
    DeviceLock lock;
    for (int i = 0; i < Turns; ++i) {
        daemon.lock();
        daemon.clearCalls();
        await([&lock] { return lock.state() == DeviceLock::Locked; });
        // The agent that is started ahead has connected, and asked for the state twice.
        daemon.waitForCalls(QStringLiteral("GetState"), 2, 60000);
        if (i == Turns - 1)
            print("memory of an agent (PSS)", memoryOfAgents(), "KiB");
        QElapsedTimer time;
        time.start();
        lock.attempt(code, secret);
        await([&lock] { return lock.unlocked(); });
        unlockings.append(milliseconds(time));
    }

    QVector<double> unlockingsInProcess;
    for (int i = 0; i < Turns; ++i) {
        daemon.lock();
        AuthClient client;
        AuthDevlockClient devlock;
        bool isSettled = false;
        QObject::connect(&client, &AuthClient::discredit, [&isSettled] { isSettled = true; });
        await([&] { return isSettled && devlock.state() == AuthDevlockClient::Locked; });
        QElapsedTimer time;
        time.start();
        client.authenticate(QStringLiteral("unlock"),
                            {{QStringLiteral("factor"), code}, {QStringLiteral("data"), secret}});
        await([&client] { return client.authenticated(); });
        client.setLocked(AuthDevlockClient::Unlocked);
        await([&devlock] { return devlock.state() == AuthDevlockClient::Unlocked; });
        unlockingsInProcess.append(milliseconds(time));
    }
    print("from DeviceLock() to its first state", starts, "ms");
    print("a right code, by DeviceLock", unlockings, "ms");
    print("a right code, by AuthClient in the process", unlockingsInProcess, "ms");
}
