#include "screen-test-case.h"

#include <SignIn>

using AuthScreens::SignIn;

/** AuthScreens::SignIn. */
class TestSignIn : public ScreenTestCase
{
    Q_OBJECT

private:
    std::unique_ptr<SignIn> newSignIn(uint uid);
    /** Waits for the end of an attempt: "step 1", "passed", or why it has been refused. */
    QString outcomeOf(SignIn *signIn, const QString &secret);

private Q_SLOTS:
    void userIsRead_data();
    void userIsRead();
    void disabledFactorIsLeftOut();
    void managedFactorsAreRead();
    void oneFactor_data();
    void oneFactor();
    void severalFactors();
    void refusalBeginsAnew();
    void lockingTakesBack();
    void daemonComesAndGoes();
    void userChangesDuringAnAttempt();
    void lockoutIsTold();
    void readingIsTriedAgain();
    void unlockFactorsOfADeviceLock();
};

std::unique_ptr<SignIn> TestSignIn::newSignIn(uint uid)
{
    auto signIn = std::make_unique<SignIn>();
    signIn->setUid(uid);
    if (!waitFor([&signIn] { return signIn->ready(); }))
        qFatal("The user is not read");
    return signIn;
}

QString TestSignIn::outcomeOf(SignIn *signIn, const QString &secret)
{
    QStringList outcomes;
    QObject context;
    connect(signIn, &SignIn::refused, &context, [&](Reason reason) { outcomes.append(nameOf(reason)); });
    connect(signIn, &SignIn::passed, &context, [&] { outcomes.append("passed"_s); });
    connect(signIn, &SignIn::busyChanged, &context, [&] {
        if (!signIn->busy())
            QTimer::singleShot(0, &context, [&] {
                if (outcomes.isEmpty())
                    outcomes.append("step %1"_s.arg(signIn->step()));
            });
    });
    if (!signIn->attempt(secret))
        return "not begun"_s;
    if (!waitFor([&outcomes] { return !outcomes.isEmpty(); }))
        return "nothing"_s;
    return outcomes.join(QLatin1Char(' '));
}

void TestSignIn::userIsRead_data()
{
    QTest::addColumn<uint>("uid");
    QTest::addColumn<QStringList>("factors");
    QTest::addColumn<QString>("lastLogin");
    QTest::newRow("user who shows the last login") << 1000u << QStringList{"code"_s} << "2026-11-20 08:15"_s;
    QTest::newRow("user who does not") << 1001u << QStringList{"code"_s} << QString();
}

void TestSignIn::userIsRead()
{
    QFETCH(uint, uid);
    QFETCH(QStringList, factors);
    QFETCH(QString, lastLogin);
    const auto signIn = newSignIn(uid);
    QCOMPARE(signIn->uid(), uid);
    QCOMPARE(signIn->factors(), factors);
    QCOMPARE(signIn->factor(), factors.first());
    QCOMPARE(signIn->lastLogin(), lastLogin);
    QVERIFY(signIn->available());
    QVERIFY(!signIn->signedIn());
    signIn->setUid(0);
    QVERIFY(!signIn->ready());
    QCOMPARE(signIn->factors(), QStringList());
    QCOMPARE(signIn->lastLogin(), QString());
}

void TestSignIn::disabledFactorIsLeftOut()
{
    daemon.arrangeOption("worker/service-factors/login", R"(["code","sudis","smartcard"])", 1000);
    daemon.arrangeOption("worker/disabled-factors", R"(["sudis"])", 1000);
    QCOMPARE(newSignIn(1000)->factors(), QStringList({"code"_s, "smartcard"_s}));
}

void TestSignIn::managedFactorsAreRead()
{
    daemon.arrangeOption("worker/is-user-settable", "false", 1000);
    daemon.arrangeOption("worker/service-factors/login", R"(["sudis"])", 1000);
    QCOMPARE(newSignIn(1000)->factors(), QStringList{"sudis"_s});
}

void TestSignIn::oneFactor_data()
{
    QTest::addColumn<QString>("secret");
    QTest::addColumn<QString>("outcome");
    QTest::newRow("right code") << "1234"_s
                                << "passed"_s;
    QTest::newRow("wrong code") << "s3cr3t"_s
                                << "NotAccepted"_s;
    QTest::newRow("no code") << QString() << "NotSendable"_s;
}

void TestSignIn::oneFactor()
{
    QFETCH(QString, secret);
    QFETCH(QString, outcome);
    const auto signIn = newSignIn(1000);
    QCOMPARE(outcomeOf(signIn.get(), secret), outcome);
    QCOMPARE(signIn->signedIn(), outcome == "passed"_s);
    if (signIn->signedIn())
        QCOMPARE(outcomeOf(signIn.get(), secret), "not begun"_s);
    else
        QCOMPARE(outcomeOf(signIn.get(), "1234"_s), "passed"_s);
    QCOMPARE(daemon.lockState(), 1);
}

void TestSignIn::severalFactors()
{
    daemon.arrangeOption("worker/service-factors/login", R"(["sudis","code"])", 1000);
    const auto signIn = newSignIn(1000);
    QCOMPARE(signIn->factor(), "sudis"_s);
    QCOMPARE(outcomeOf(signIn.get(), "correct horse"_s), "step 1"_s);
    QCOMPARE(signIn->factor(), "code"_s);
    QVERIFY(!signIn->signedIn());
    QCOMPARE(outcomeOf(signIn.get(), "1234"_s), "passed"_s);
    QVERIFY(signIn->signedIn());
    QCOMPARE(signIn->factor(), QString());
    signIn->signOut();
    QVERIFY(!signIn->signedIn());
    QCOMPARE(signIn->factor(), "sudis"_s);
}

void TestSignIn::refusalBeginsAnew()
{
    daemon.arrangeOption("worker/service-factors/login", R"(["sudis","code"])", 1000);
    const auto signIn = newSignIn(1000);
    QCOMPARE(outcomeOf(signIn.get(), "correct horse"_s), "step 1"_s);
    QCOMPARE(outcomeOf(signIn.get(), "s3cr3t"_s), "NotAccepted"_s);
    QCOMPARE(signIn->step(), 0);
    QCOMPARE(signIn->factor(), "sudis"_s);
}

void TestSignIn::lockingTakesBack()
{
    daemon.unlock();
    const auto signIn = newSignIn(1000);
    QCOMPARE(outcomeOf(signIn.get(), "1234"_s), "passed"_s);
    daemon.lock();
    QVERIFY(waitFor([&signIn] { return !signIn->signedIn(); }));
    QCOMPARE(outcomeOf(signIn.get(), "1234"_s), "passed"_s);
}

void TestSignIn::daemonComesAndGoes()
{
    daemon.stop();
    SignIn signIn;
    signIn.setUid(1000);
    QCOMPARE(outcomeOf(&signIn, "1234"_s), "Unavailable"_s);
    daemon.start();
    QVERIFY(waitFor([&signIn] { return signIn.ready(); }));
    daemon.hold("Authenticate"_s);
    QVERIFY(signIn.attempt("1234"_s));
    QStringList refusals;
    connect(&signIn, &SignIn::refused, this, [&refusals](Reason reason) { refusals.append(nameOf(reason)); });
    daemon.waitCalls("Authenticate");
    daemon.stop();
    QVERIFY(waitFor([&signIn] { return !signIn.available() && !signIn.busy(); }));
    QCOMPARE(refusals, QStringList{"Unavailable"_s});
    daemon.behave();
    daemon.start();
    QVERIFY(waitFor([&signIn] { return signIn.available() && signIn.ready(); }));
    QCOMPARE(outcomeOf(&signIn, "1234"_s), "passed"_s);
}

void TestSignIn::userChangesDuringAnAttempt()
{
    const auto signIn = newSignIn(1000);
    daemon.hold("Authenticate"_s);
    QVERIFY(signIn->attempt("1234"_s));
    daemon.waitCalls("Authenticate");
    signIn->setUid(1001);
    QVERIFY(!signIn->busy());
    daemon.behave();
    daemon.release();
    QVERIFY(waitFor([&signIn] { return signIn->ready(); }));
    QCOMPARE(outcomeOf(signIn.get(), "1234"_s), "NotAccepted"_s);
    QCOMPARE(outcomeOf(signIn.get(), "9876"_s), "passed"_s);
}

void TestSignIn::lockoutIsTold()
{
    const auto signIn = newSignIn(1000);
    daemon.lockout("manager"_s);
    QVERIFY(waitFor([&signIn] { return signIn->lockedOut(); }));
    QCOMPARE(outcomeOf(signIn.get(), "1234"_s), "LockedOut"_s);
    daemon.lockout("none"_s);
    QVERIFY(waitFor([&signIn] { return !signIn->lockedOut(); }));
    QCOMPARE(outcomeOf(signIn.get(), "1234"_s), "passed"_s);
}

void TestSignIn::readingIsTriedAgain()
{
    daemon.fail("FactorMethod"_s, QString(), 1);
    const auto signIn = newSignIn(1000);
    QCOMPARE(signIn->factors(), QStringList{"code"_s});
}

void TestSignIn::unlockFactorsOfADeviceLock()
{
    WatchedLock lock(&daemon);
    lock.setUid(1000);
    QVERIFY(waitFor([&lock] { return !lock.factors().isEmpty(); }));
    QCOMPARE(lock.factors(), QStringList({"code"_s, "smartcard"_s}));
    lock.await(DeviceLock::Locked);
    lock.setUid(1001);
    QCOMPARE(lock.factors(), QStringList());
    // An attempt is not held up by the reading, which is done later.
    QCOMPARE(lock.outcomeOf("code"_s, "9876"_s), "Unlocked"_s);
    QVERIFY(waitFor([&lock] { return !lock.factors().isEmpty(); }));
    QCOMPARE(lock.factors(), QStringList{"code"_s});
}

QTEST_GUILESS_MAIN(TestSignIn)

#include "tst_signin.moc"
