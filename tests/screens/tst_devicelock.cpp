#include "screen-test-case.h"

#include <csignal>

/** AuthScreens::DeviceLock, with a daemon that does as it should and with one that does not. */
class TestDeviceLock : public ScreenTestCase
{
    Q_OBJECT

private Q_SLOTS:
    void statesAreFollowed();
    void statesHaveTheirProperties_data();
    void statesHaveTheirProperties();
    void unknownStateIsUndefined();
    void daemonComesBackWithoutAWord();
    void daemonComesLate();
    void lostAnnouncementIsNoticed();

    void attempts_data();
    void attempts();
    void rightCodesAreNeverRefused();
    void attemptsWithoutALockedDevice_data();
    void attemptsWithoutALockedDevice();
    void requestIsWhatTheDaemonExpects_data();
    void requestIsWhatTheDaemonExpects();
    void secondAttemptIsNotBegun();
    void attemptIsGivenUp();
    void attemptBecomesOverdue();
    void attemptEndsByItself();
    void daemonLeavesDuringAnAttempt();
    void lateTokenUnlocksNothing();
    void eachAttemptHasAnAgentOfItsOwn();

    void deviceIsLocked();
    void lockingIsRefused();
    void lockingGivesAnAttemptUp();

    void deletedInAHandler_data();
    void deletedInAHandler();
    void thousandAttemptsLeaveNothing();
};

void TestDeviceLock::statesAreFollowed()
{
    WatchedLock lock(&daemon);
    QCOMPARE(lock.state(), DeviceLock::Undefined);
    lock.await(DeviceLock::Locked);
    QStringList expected;
    for (const int state : {0, 1, 2, 3, 5, 0, 3, 1, 4, 0}) {
        daemon.setLockState(state);
        QVERIFY(waitFor([&lock, state] { return lock.state() == state; }));
        expected.append(nameOf(DeviceLock::State(state)));
    }
    QCOMPARE(lock.heard, expected);
}

void TestDeviceLock::statesHaveTheirProperties_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<bool>("available");
    QTest::addColumn<int>("lockout");
    QTest::newRow("unlocked") << 0 << true << int(DeviceLock::NoLockout);
    QTest::newRow("locked") << 1 << true << int(DeviceLock::NoLockout);
    QTest::newRow("locked out by a manager") << 2 << true << int(DeviceLock::ByManager);
    QTest::newRow("too many codes") << 3 << true << int(DeviceLock::TooManyCodes);
    QTest::newRow("security interface") << 5 << true << int(DeviceLock::NoLockout);
}

void TestDeviceLock::statesHaveTheirProperties()
{
    QFETCH(int, state);
    QFETCH(bool, available);
    QFETCH(int, lockout);
    daemon.setLockState(state);
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::State(state));
    QCOMPARE(lock.unlocked(), state == 0);
    QCOMPARE(lock.available(), available);
    QCOMPARE(int(lock.lockoutReason()), lockout);
    QVERIFY(!lock.busy());
    daemon.stop();
    lock.await(DeviceLock::Undefined);
    QVERIFY(!lock.unlocked());
    QVERIFY(!lock.available());
    QCOMPARE(lock.lockoutReason(), DeviceLock::NoLockout);
}

void TestDeviceLock::unknownStateIsUndefined()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    daemon.setLockState(77);
    lock.await(DeviceLock::Undefined);
    daemon.setLockState(3);
    lock.await(DeviceLock::CodeEntryLockout);
}

void TestDeviceLock::daemonComesBackWithoutAWord()
{
    daemon.unlock();
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Unlocked);
    daemon.stop();
    QVERIFY(waitFor([&lock] { return !lock.unlocked(); }));
    daemon.start();
    QVERIFY(waitFor([&lock] { return lock.available(); }));
    QCOMPARE(lock.heard, QStringList({"Undefined"_s, nameOf(lock.state())}));
    QCOMPARE(int(lock.state()), daemon.lockState());
}

void TestDeviceLock::daemonComesLate()
{
    daemon.stop();
    WatchedLock lock(&daemon);
    awaitAgents(1);
    daemon.start();
    lock.await(DeviceLock::Locked);
}

void TestDeviceLock::lostAnnouncementIsNoticed()
{
    daemon.unlock();
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Unlocked);
    // The daemon that takes over is another one, and need not announce what it believes.
    daemon.answer("GetState", "(1,)");
    daemon.handover();
    QVERIFY(waitFor([&lock] { return !lock.unlocked(); }));
    QCOMPARE(lock.heard, QStringList{"Locked"_s});
}

void TestDeviceLock::attempts_data()
{
    QTest::addColumn<QString>("factor");
    QTest::addColumn<QString>("secret");
    QTest::addColumn<QString>("outcome");
    QTest::newRow("right code") << "code"_s
                                << "1234"_s
                                << "Unlocked"_s;
    QTest::newRow("right phrase") << "sudis"_s
                                  << "correct horse"_s
                                  << "Unlocked"_s;
    QTest::newRow("wrong code") << "code"_s
                                << "s3cr3t"_s
                                << "NotAccepted"_s;
    QTest::newRow("unknown factor") << "none"_s
                                    << "1234"_s
                                    << "NotAccepted"_s;
    QTest::newRow("secret with a NUL character") << "code"_s << QString("s3cr3t"_s + QChar(0)) << "NotAccepted"_s;
    QTest::newRow("longest secret") << "code"_s << QString(32768, QLatin1Char('x')) << "NotAccepted"_s;
    QTest::newRow("too long a secret") << "code"_s << QString(32769, QLatin1Char('x')) << "NotSendable"_s;
    QTest::newRow("secret of 1 MiB") << "code"_s << QString(1 << 20, QLatin1Char('x')) << "NotSendable"_s;
    QTest::newRow("no secret") << "code"_s << QString() << "NotSendable"_s;
    QTest::newRow("half a character") << "code"_s << QString(QChar(0xd800)) << "NotSendable"_s;
    QTest::newRow("factor with a NUL character") << QString(QChar(0)) << "1234"_s
                                                 << "NotSendable"_s;
    QTest::newRow("long factor") << QString(1 << 20, QLatin1Char('x')) << "1234"_s
                                 << "NotSendable"_s;
}

void TestDeviceLock::attempts()
{
    QFETCH(QString, factor);
    QFETCH(QString, secret);
    QFETCH(QString, outcome);
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    QCOMPARE(lock.outcomeOf(factor, secret), outcome);
    QCOMPARE(lock.heard, QStringList{outcome});
    if (outcome != "Unlocked"_s)
        QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unlocked"_s);
    QVERIFY(waitFor([&lock] { return !lock.busy(); }));
}

// A new AuthClient discredits what it has when it learns that the device is locked, which is no refusal.
void TestDeviceLock::rightCodesAreNeverRefused()
{
    WatchedLock lock(&daemon);
    for (int i = 0; i < 100; ++i) {
        lock.await(DeviceLock::Locked);
        QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unlocked"_s);
        daemon.lock();
    }
}

void TestDeviceLock::attemptsWithoutALockedDevice_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("outcome");
    QTest::newRow("unlocked") << 0 << "NotNeeded"_s;
    QTest::newRow("security interface") << 5 << "NotNeeded"_s;
    QTest::newRow("locked out by a manager") << 2 << "LockedOut"_s;
    QTest::newRow("too many codes") << 3 << "LockedOut"_s;
    QTest::newRow("undefined") << 4 << "Unavailable"_s;
}

void TestDeviceLock::attemptsWithoutALockedDevice()
{
    QFETCH(int, state);
    QFETCH(QString, outcome);
    daemon.setLockState(state);
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::State(state));
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), outcome);
    QCOMPARE(daemon.calls().filter("Authenticate"_s), QStringList());
}

void TestDeviceLock::requestIsWhatTheDaemonExpects_data()
{
    QTest::addColumn<uint>("uid");
    QTest::addColumn<QByteArray>("secret");
    QTest::addColumn<bool>("isText");
    QTest::addColumn<QString>("expected");
    QTest::newRow("text") << 0u << QByteArray("s3cr3t") << true << "'data': <'s3cr3t'>, 'factor': <'code'>"_s;
    QTest::newRow("bytes") << 0u << QByteArray("ab\xff") << false
                           << "'data': <[byte 0x61, 0x62, 0xff]>, 'factor': <'code'>"_s;
    QTest::newRow("text with a NUL character")
        << 0u << QByteArray("a\0b", 3) << true << "'data': <[byte 0x61, 0x00, 0x62]>, 'factor': <'code'>"_s;
    QTest::newRow("user") << 1001u << QByteArray("s3cr3t") << true
                          << "'data': <'s3cr3t'>, 'factor': <'code'>, 'uid': <1001>"_s;
    QTest::newRow("high user") << 4294967294u << QByteArray("s3cr3t") << true
                               << "'data': <'s3cr3t'>, 'factor': <'code'>, 'uid': <uint32 4294967294>"_s;
}

void TestDeviceLock::requestIsWhatTheDaemonExpects()
{
    QFETCH(uint, uid);
    QFETCH(QByteArray, secret);
    QFETCH(bool, isText);
    QFETCH(QString, expected);
    WatchedLock lock(&daemon);
    lock.setUid(uid);
    lock.await(DeviceLock::Locked);
    QVERIFY(isText ? lock.attempt("code"_s, QString::fromUtf8(secret.constData(), secret.size()))
                   : lock.attempt("code"_s, secret));
    const QStringList calls = daemon.waitCalls("Authenticate");
    QCOMPARE(calls.size(), 1);
    QVERIFY2(calls.first().contains(expected) && calls.first().contains("'unlock'"_s), qPrintable(calls.first()));
    QVERIFY(waitFor([&lock] { return !lock.heard.isEmpty(); }));
    QCOMPARE(lock.heard, QStringList{"NotAccepted"_s});
}

void TestDeviceLock::secondAttemptIsNotBegun()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    daemon.hold("Authenticate"_s);
    QVERIFY(lock.attempt("code"_s, "1234"_s));
    QVERIFY(lock.busy());
    QCOMPARE(lock.outcomeOf("code"_s, "s3cr3t"_s), "busy"_s);
    daemon.waitCalls("Authenticate");
    daemon.release();
    QVERIFY(waitFor([&lock] { return lock.unlocked(); }));
    QCOMPARE(lock.heard, QStringList{"Unlocked"_s});
    QCOMPARE(daemon.waitCalls("Authenticate").size(), 1);
}

void TestDeviceLock::attemptIsGivenUp()
{
    WatchedLock lock(&daemon);
    lock.giveUp();
    QCOMPARE(lock.heard, QStringList());
    lock.await(DeviceLock::Locked);
    daemon.mute("Authenticate"_s, 1);
    QVERIFY(lock.attempt("code"_s, "1234"_s));
    daemon.waitCalls("Authenticate");
    lock.giveUp();
    QCOMPARE(lock.heard, QStringList{"GivenUp"_s});
    QVERIFY(!lock.busy());
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unlocked"_s);
    // Before it has got anywhere, too.
    daemon.lock();
    lock.await(DeviceLock::Locked);
    QVERIFY(lock.attempt("code"_s, QString()));
    lock.giveUp();
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unlocked"_s);
    QCOMPARE(lock.heard, QStringList({"GivenUp"_s, "Unlocked"_s}));
}

void TestDeviceLock::attemptBecomesOverdue()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    daemon.mute("RequestChallenge"_s);
    QVERIFY(lock.attempt("code"_s, "1234"_s));
    QElapsedTimer time;
    time.start();
    QVERIFY(waitFor([&lock] { return lock.overdue(); }));
    QVERIFY(time.elapsed() >= 9000);
    QVERIFY(lock.busy());
    lock.giveUp();
    QVERIFY(!lock.overdue());
}

void TestDeviceLock::attemptEndsByItself()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    daemon.mute("Authenticate"_s);
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "NoAnswer"_s);
    QVERIFY(!lock.busy());
}

void TestDeviceLock::daemonLeavesDuringAnAttempt()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    daemon.misbehave("Authenticate", "crash");
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unavailable"_s);
    lock.await(DeviceLock::Undefined);
    daemon.behave();
    daemon.start();
    lock.await(DeviceLock::Locked);
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unlocked"_s);
}

void TestDeviceLock::lateTokenUnlocksNothing()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    daemon.hold("Authenticate"_s, 1);
    QVERIFY(lock.attempt("code"_s, "1234"_s));
    daemon.waitCalls("Authenticate");
    lock.giveUp();
    // What is left of the first attempt has gone when the next one is over.
    daemon.release();
    QCOMPARE(lock.outcomeOf("code"_s, "s3cr3t"_s), "NotAccepted"_s);
    QCOMPARE(daemon.calls().filter("SetDevlockState"_s), QStringList());
    QCOMPARE(lock.heard, QStringList({"GivenUp"_s, "NotAccepted"_s}));
}

void TestDeviceLock::eachAttemptHasAnAgentOfItsOwn()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    QList<qint64> before = awaitAgents(2);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(lock.outcomeOf("broken"_s, "s3cr3t"_s), "NotAccepted"_s);
        QTimer look;
        look.start(5);
        // The one that follows the lock stays.
        QList<qint64> now;
        QVERIFY(waitFor([&] {
            now = agents();
            return now.size() == 2 && now.contains(before.at(0)) != now.contains(before.at(1));
        }));
        before = now;
    }
    QCOMPARE(lock.outcomeOf("code"_s, "1234"_s), "Unlocked"_s);
    awaitAgents(1);
}

void TestDeviceLock::deviceIsLocked()
{
    daemon.unlock();
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Unlocked);
    lock.lock();
    QVERIFY(waitFor([&lock] { return !lock.unlocked(); }));
    QCOMPARE(lock.heard, QStringList{"Locked"_s});
    QCOMPARE(daemon.lockState(), 1);
}

void TestDeviceLock::lockingIsRefused()
{
    daemon.unlock();
    daemon.fail("SetState"_s);
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Unlocked);
    lock.lock();
    QVERIFY(waitFor([&lock] { return !lock.heard.isEmpty(); }));
    QCOMPARE(lock.heard, QStringList{"NotLocked"_s});
    QVERIFY(lock.unlocked());
}

void TestDeviceLock::lockingGivesAnAttemptUp()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    daemon.mute("Authenticate"_s);
    QVERIFY(lock.attempt("code"_s, "1234"_s));
    lock.lock();
    QCOMPARE(lock.heard, QStringList{"GivenUp"_s});
    daemon.waitCalls("SetState");
}

void TestDeviceLock::deletedInAHandler_data()
{
    QTest::addColumn<QByteArray>("signal");
    for (const char *signal :
         {"stateChanged()", "unlockedChanged()", "availableChanged()", "busyChanged()", "refused(AuthScreens::Reason)"})
        QTest::newRow(signal) << QByteArray(signal);
}

class Deleter : public QObject
{
    Q_OBJECT

public:
    DeviceLock *lock = new DeviceLock;

public Q_SLOTS:
    void act()
    {
        delete lock;
        lock = nullptr;
    }
};

void TestDeviceLock::deletedInAHandler()
{
    QFETCH(QByteArray, signal);
    Deleter deleter;
    QVERIFY(waitFor([&deleter] { return deleter.lock->state() == DeviceLock::Locked; }));
    connect(deleter.lock, ('2' + signal).constData(), &deleter, SLOT(act()));
    if (signal == "refused(AuthScreens::Reason)" || signal == "busyChanged()")
        deleter.lock->attempt("code"_s, "s3cr3t"_s);
    else if (signal == "availableChanged()")
        daemon.stop();
    else
        daemon.unlock();
    QVERIFY(waitFor([&deleter] { return !deleter.lock; }));
}

void TestDeviceLock::thousandAttemptsLeaveNothing()
{
    WatchedLock lock(&daemon);
    lock.await(DeviceLock::Locked);
    QCOMPARE(lock.outcomeOf("broken"_s, "s3cr3t"_s), "NotAccepted"_s);
    awaitAgents(2);
    const auto descriptors = [] { return QDir("/proc/self/fd"_s).entryList().size(); };
    const int before = descriptors();
    for (int i = 0; i < 1000; ++i)
        QCOMPARE(lock.outcomeOf("broken"_s, "s3cr3t"_s), "NotAccepted"_s);
    awaitAgents(2);
    QTimer look;
    look.start(5);
    QVERIFY(waitFor([this] { return children().size() == 2; }));
    QVERIFY2(waitFor([&] { return descriptors() <= before; }), qPrintable(QString::number(descriptors() - before)));
}

QTEST_GUILESS_MAIN(TestDeviceLock)

#include "tst_devicelock.moc"
