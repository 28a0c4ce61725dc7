#include "screen-test-case.h"

#include <csignal>

using namespace AuthScreens;

/** AuthScreens::DeviceLock with agents that go wrong, and with strangers that announce states. */
class TestAgentFaults : public ScreenTestCase
{
    Q_OBJECT

private:
    void meddle(const QByteArray &fault, Wire::Kind kind, int count, bool forges = false);
    /** The agent that follows the lock. */
    qint64 followerOf(WatchedLock *lock);

    std::unique_ptr<QTemporaryDir> m_folder;

private Q_SLOTS:
    void announcedUnlockingIsNotBelieved_data();
    void announcedUnlockingIsNotBelieved();
    void floodOfAnnouncementsUnlocksNothing();
    void announcedLockingIsBelievedAtOnce();

    void agentsGoWrong_data();
    void agentsGoWrong();
    void stoppedAgentIsUndefined();
    void agentThatGoesOnAsksTheDaemonFirst();
    void agentThatGoesOnHearsOfTheLocking();
    void stoppedAgentIsReplaced();
    void killedAgentsAreReplaced();
    void attemptSurvivesOrIsRefused_data();
    void attemptSurvivesOrIsRefused();
    void programThatIsMissing();
    void programThatIsAnother();
    void busIsFrozen();

    void operationsReturnAtOnce_data();
    void operationsReturnAtOnce();
};

void TestAgentFaults::meddle(const QByteArray &fault, Wire::Kind kind, int count, bool forges)
{
    m_folder = std::make_unique<QTemporaryDir>();
    qputenv("MEDDLER_FAULT", fault);
    qputenv("MEDDLER_KIND", QByteArray::number(int(kind)));
    qputenv("MEDDLER_COUNT", QByteArray::number(count));
    qputenv("MEDDLER_DONE", m_folder->filePath("done"_s).toLocal8Bit());
    if (forges)
        qputenv("MEDDLER_FORGES", "1");
    else
        qunsetenv("MEDDLER_FORGES");
    setAgentProgram(QStringLiteral(MEDDLER));
}

qint64 TestAgentFaults::followerOf(WatchedLock *lock)
{
    lock->await(DeviceLock::Unlocked);
    return awaitAgents(1).first();
}

void TestAgentFaults::announcedUnlockingIsNotBelieved_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<QString>("expected");
    QTest::newRow("the daemon says otherwise") << QByteArray("(1,)") << QString();
    QTest::newRow("the daemon says that it is locked out") << QByteArray("(3,)") << "CodeEntryLockout"_s;
    QTest::newRow("answer of another type") << QByteArray("(uint32 0,)") << "Undefined"_s;
    QTest::newRow("answer of the right value in another type") << QByteArray("(false,)") << "Undefined"_s;
    QTest::newRow("empty answer") << QByteArray("()") << "Undefined"_s;
}

void TestAgentFaults::announcedUnlockingIsNotBelieved()
{
    QFETCH(QByteArray, answer);
    QFETCH(QString, expected);
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    // All clients have asked that there are.
    daemon.waitCalls("GetState", 3);
    daemon.clearCalls();
    daemon.answer("GetState", answer);
    daemon.emitSignal("StateChanged", "(0,)");
    if (expected.isEmpty())
        daemon.waitCalls("GetState", 2); // The question, and that of the client which replaces the deceived one.
    else
        QVERIFY(waitFor([&lock] { return !lock.heard.isEmpty(); }));
    daemon.behave();
    daemon.setLockState(2);
    QVERIFY(waitFor([&lock] { return lock.state() == DeviceLock::ManagerLockout; }));
    QStringList heard{expected, "ManagerLockout"_s};
    heard.removeAll(QString());
    QCOMPARE(lock.heard, heard);
}

void TestAgentFaults::floodOfAnnouncementsUnlocksNothing()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    daemon.clearCalls();
    for (int i = 0; i < 20; ++i) {
        for (int j = 0; j < 100; ++j)
            daemon.emitSignal("StateChanged", "(0,)");
        daemon.waitCalls("GetState", i / 10 + 1);
    }
    // The right code still unlocks, and is heard of.
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unlocked"_s);
    QCOMPARE(lock.heard, QStringList{"Unlocked"_s});
}

void TestAgentFaults::announcedLockingIsBelievedAtOnce()
{
    daemon.unlock();
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Unlocked);
    daemon.mute("GetState"_s);
    daemon.emitSignal("StateChanged", "(1,)");
    QVERIFY(waitFor([&lock] { return !lock.heard.isEmpty(); }));
    QCOMPARE(lock.heard, QStringList{"Locked"_s});
}

void TestAgentFaults::agentsGoWrong_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("forges");
    const struct
    {
        const char *name;
        Wire::Kind kind;
        int count;
    } messages[] = {
        {"first state", Wire::Kind::State, 1}, {"second state", Wire::Kind::State, 2},
        {"fifth state", Wire::Kind::State, 5}, {"readiness", Wire::Kind::Ready, 1},
        {"outcome", Wire::Kind::Outcome, 1},
    };
    for (const auto &message : messages) {
        for (const char *fault : {"killed", "killed after it", "ended", "stopped", "stopped after it", "truncated",
                                  "shortened", "doubled", "left out", "delayed", "long", "padded", "of another version",
                                  "of another kind", "from a second agent"}) {
            QTest::addRow("%s %s", message.name, fault)
                << QByteArray(fault) << int(message.kind) << message.count << false;
        }
        for (const char *fault : {"doubled", "left out", "delayed"}) {
            QTest::addRow("%s %s, with right numbers", message.name, fault)
                << QByteArray(fault) << int(message.kind) << message.count << true;
        }
    }
    QTest::newRow("state from the future") << QByteArray("from the future") << int(Wire::Kind::State) << 1 << true;
}

// Whatever goes wrong: no attempt is lost, nothing is unlocked without the daemon, and in the end the right code unlocks, a
// locking is heard of, and the agents are well again.
void TestAgentFaults::agentsGoWrong()
{
    QFETCH(QByteArray, fault);
    QFETCH(int, kind);
    QFETCH(int, count);
    QFETCH(bool, forges);
    meddle(fault, Wire::Kind(kind), count, forges);
    WatchedLock lock(&daemon);
    QStringList outcomes;
    // A state may be over as soon as it is there. A device may become unlocked after the attempt has been refused.
    while (!lock.unlocked() && outcomes.size() < 4) {
        waitFor([&lock] { return lock.state() == DeviceLock::Locked || lock.unlocked(); });
        if (lock.state() == DeviceLock::Locked)
            outcomes.append(lock.outcomeOf("code"_s, "1234"_s));
    }
    QVERIFY2(lock.heard.contains("Unlocked"_s), qPrintable(outcomes.join(QLatin1Char(' '))));
    QVERIFY2(!outcomes.contains("NotAccepted"_s), qPrintable(outcomes.join(QLatin1Char(' '))));

    // The message may be one that comes later, or the device may have been unlocked before it got through.
    const auto isDone = [this] { return QFile::exists(m_folder->filePath("done"_s)); };
    QTimer look;
    look.start(5);
    if (Wire::Kind(kind) == Wire::Kind::State)
        QVERIFY(waitFor(isDone));
    QVERIFY(waitFor([&lock] { return lock.unlocked(); }));
    bool isWell = false;
    for (int i = 0; i < 10 && !isWell; ++i) {
        const bool wasDone = isDone();
        daemon.lock();
        waitFor([&lock] { return lock.state() == DeviceLock::Locked; });
        outcomes = QStringList{lock.outcomeOf("code"_s, "1234"_s)};
        isWell = wasDone && outcomes.last() == "Unlocked"_s;
    }
    QVERIFY2(isWell, qPrintable(outcomes.last()));
    QVERIFY2(!lock.heard.contains("Unlocked without the daemon"_s), qPrintable(lock.heard.join(QLatin1Char(' '))));
}

void TestAgentFaults::stoppedAgentIsUndefined()
{
    daemon.unlock();
    WatchedLock lock(&daemon);
    const qint64 agent = followerOf(&lock);
    QElapsedTimer time;
    time.start();
    signalAll({agent}, SIGSTOP);
    QVERIFY(waitFor([&lock] { return !lock.unlocked(); }));
    QCOMPARE(lock.heard, QStringList{"Undefined"_s});
    QVERIFY2(time.elapsed() < 1100 || IS_SANITIZED, qPrintable(QString::number(time.elapsed())));
    signalAll({agent}, SIGCONT);
    lock.await(DeviceLock::Unlocked);
    QCOMPARE(awaitAgents(1), QList<qint64>{agent});
}

void TestAgentFaults::agentThatGoesOnAsksTheDaemonFirst()
{
    daemon.unlock();
    WatchedLock lock(&daemon);
    const qint64 agent = followerOf(&lock);
    signalAll({agent}, SIGSTOP);
    lock.await(DeviceLock::Undefined);
    daemon.hold("GetState"_s);
    daemon.clearCalls();
    signalAll({agent}, SIGCONT);
    daemon.waitCalls("GetState");
    QCOMPARE(lock.state(), DeviceLock::Undefined);
    // Two proofs that it listens, at least: they do not bring back what it knew.
    QTimer::singleShot(1000, this, [this] { daemon.release(); });
    QElapsedTimer time;
    time.start();
    QVERIFY(waitFor([&lock] { return lock.unlocked(); }));
    QVERIFY(time.elapsed() >= 900);
    QCOMPARE(lock.heard, QStringList{"Unlocked"_s});
}

void TestAgentFaults::agentThatGoesOnHearsOfTheLocking()
{
    daemon.unlock();
    WatchedLock lock(&daemon);
    const qint64 agent = followerOf(&lock);
    signalAll({agent}, SIGSTOP);
    lock.await(DeviceLock::Undefined);
    daemon.lock();
    signalAll({agent}, SIGCONT);
    QVERIFY(waitFor([&lock] { return lock.available(); }));
    QCOMPARE(lock.heard, QStringList{"Locked"_s});
}

void TestAgentFaults::stoppedAgentIsReplaced()
{
    daemon.unlock();
    WatchedLock lock(&daemon);
    const qint64 agent = followerOf(&lock);
    QElapsedTimer time;
    time.start();
    signalAll({agent}, SIGSTOP);
    lock.await(DeviceLock::Undefined);
    QVERIFY(waitFor([&lock] { return lock.unlocked(); }));
    QVERIFY(time.elapsed() >= 9000);
    QVERIFY(awaitAgents(1).first() != agent);
}

void TestAgentFaults::killedAgentsAreReplaced()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    for (int i = 0; i < 5; ++i) {
        signalAll(awaitAgents(2), SIGKILL);
        lock.await(DeviceLock::Undefined);
        lock.await(DeviceLock::Locked);
    }
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unlocked"_s);
}

void TestAgentFaults::attemptSurvivesOrIsRefused_data()
{
    QTest::addColumn<QString>("method");
    for (const char *method : {"RequestChallenge", "Authenticate", "SetDevlockState"})
        QTest::newRow(method) << QString::fromLatin1(method);
}

void TestAgentFaults::attemptSurvivesOrIsRefused()
{
    QFETCH(QString, method);
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    const QList<qint64> before = awaitAgents(2);
    daemon.hold(method);
    QVERIFY(lock.attempt("code"_s, "1234"_s));
    daemon.waitCalls(method.toLatin1().constData());
    signalAll(before, SIGKILL);
    QVERIFY(waitFor([&lock] { return !lock.busy() && lock.heard.contains("Undefined"_s); }));
    QCOMPARE(lock.heard.filter(QRegularExpression("^(Interrupted|Unavailable)$"_s)).size(), 1);
    daemon.behave();
    // What had been asked for is done late, or not at all.
    daemon.release();
    daemon.lock();
    lock.await(DeviceLock::Locked);
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unlocked"_s);
}

void TestAgentFaults::programThatIsMissing()
{
    setAgentProgram("/run/no-such-agent"_s);
    WatchedLock lock(&daemon);
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unavailable"_s);
    QVERIFY(waitFor([this] { return log->lines().size() >= 2; }));
    for (const QString &line : log->takeComplaints())
        QCOMPARE(line, "warning Cannot start /run/no-such-agent: No such file or directory"_s);
    QCOMPARE(lock.heard, QStringList{"Unavailable"_s});
    setAgentProgram(QStringLiteral(AUTH_AGENT));
    lock.await(DeviceLock::Locked);
}

void TestAgentFaults::programThatIsAnother()
{
    for (const char *other : {"/bin/true", "/bin/cat", "/bin/yes"}) {
        setAgentProgram(QString::fromLatin1(other));
        WatchedLock lock(&daemon);
        QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unavailable"_s);
        QCOMPARE(lock.heard, QStringList{"Unavailable"_s});
        setAgentProgram(QStringLiteral(AUTH_AGENT));
    }
}

void TestAgentFaults::busIsFrozen()
{
    daemon.unlock();
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Unlocked);
    const QList<qint64> bus{qEnvironmentVariable("AUTHD_WORLD_BUS_PID").toLongLong()};
    signalAll(bus, SIGSTOP);
    // Announcements and answers are missing alike; the next look at the daemon tells.
    QVERIFY(waitFor([&lock] { return !lock.unlocked(); }));
    signalAll(bus, SIGCONT);
    QCOMPARE(lock.heard, QStringList{"Undefined"_s});
    lock.await(DeviceLock::Unlocked);
}

void TestAgentFaults::operationsReturnAtOnce_data()
{
    QTest::addColumn<QByteArray>("trouble");
    for (const char *trouble : {"none", "no daemon", "mute daemon", "frozen agents"})
        QTest::newRow(trouble) << QByteArray(trouble);
}

// The best of many, as the machine may be busy with other things.
void TestAgentFaults::operationsReturnAtOnce()
{
    QFETCH(QByteArray, trouble);
    if (trouble == "no daemon") {
        daemon.stop();
    } else if (trouble == "mute daemon") {
        daemon.request(R"({"do":"accept","how":"mute"})");
        daemon.mute("*"_s);
    }
    QHash<QByteArray, qint64> best;
    const auto measure = [&best](const char *what, const std::function<void()> &operation) {
        QElapsedTimer time;
        time.start();
        operation();
        const qint64 taken = time.nsecsElapsed();
        best.insert(what, qMin(taken, best.value(what, taken)));
    };
    for (int i = 0; i < 20; ++i) {
        std::unique_ptr<DeviceLock> lock;
        measure("construction", [&] { lock = std::make_unique<DeviceLock>(); });
        if (trouble == "none" || trouble == "frozen agents")
            QVERIFY(waitFor([&lock] { return lock->state() == DeviceLock::Locked; }));
        if (trouble == "frozen agents")
            signalAll(awaitAgents(2), SIGSTOP);
        measure("attempt", [&] { lock->attempt("code"_s, "s3cr3t"_s); });
        measure("giving up", [&] { lock->giveUp(); });
        measure("locking", [&] { lock->lock(); });
        measure("state", [&] { lock->state(); });
        measure("destruction", [&] { lock.reset(); });
    }
    for (auto what = best.cbegin(); what != best.cend(); ++what)
        QVERIFY2(what.value() < 1000000,
                 qPrintable(QStringLiteral("%1 %2 ns").arg(QLatin1String(what.key())).arg(what.value())));
}

QTEST_GUILESS_MAIN(TestAgentFaults)

#include "tst_agentfaults.moc"
