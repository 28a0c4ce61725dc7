#include "test-case.h"

/** A daemon that lives and does not answer: each wait ends after 25 seconds. */
class TestTimeouts : public TestCase
{
    Q_OBJECT

private Q_SLOTS:
    void asynchronousCalls();
    void setLocked();
    void factorMethodWait();
    void challenge();
    void setState();
    void failedGetStateTakesAKnownStateAway();
};

namespace {
// One, and not two.
bool isTimeout(qint64 milliseconds)
{
    return milliseconds > 24000 && milliseconds < 48000;
}
} // namespace

void TestTimeouts::asynchronousCalls()
{
    for (const char *method : {"Authenticate", "ChangeAuthData", "UnlockIfNeeded", "FactorMethod", "GetState"})
        daemon.misbehave(method, "mute");
    AuthClient client;
    SignalRecorder heard(&client);
    QList<QVariant> results;
    QElapsedTimer timer;
    timer.start();
    const QVariantMap params{{"challenge"_s, 1}};
    client.authenticate("login"_s, params);
    client.changeAuthData("code"_s, params);
    client.unlockIfNeeded();
    client.factorMethod({}, "code"_s, [&](const QVariant &result) { results.append(result); });
    QVERIFY(timer.elapsed() < 24000);
    QVERIFY(waitFor([&] {
        return results.size() == 1 && heard.list().size() == 2
            && log->lines().filter(QRegularExpression("^warning (call\\w+Finished )?failed:"_s)).size() == 3;
    }));
    QVERIFY2(isTimeout(timer.elapsed()), qPrintable(QString::number(timer.elapsed())));
    drain(&client);
    QCOMPARE(heard.list(), (QStringList{"progressChanged()"_s, "unlockIfNeededFinished(false)"_s}));
    QVERIFY(!results.first().isValid());
    QVERIFY(client.progress());
    QCOMPARE(log->takeComplaints().size(), 4);
}

void TestTimeouts::setLocked()
{
    const auto client = newClient();
    grant(client.get(), "s3cr3t token");
    daemon.misbehave("SetDevlockState", "mute");
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!client->setLocked(1));
    QVERIFY2(isTimeout(timer.elapsed()), qPrintable(QString::number(timer.elapsed())));
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 1);
    QVERIFY(QRegularExpression("^warning setLocked failed: \".+\"$"_s).match(complaints.first()).hasMatch());
    QVERIFY(client->authenticated());
    drain(client.get());
}

void TestTimeouts::factorMethodWait()
{
    const auto client = newClient();
    daemon.misbehave("FactorMethod", "mute");
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
    QVERIFY2(isTimeout(timer.elapsed()), qPrintable(QString::number(timer.elapsed())));
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 1);
    QVERIFY(QRegularExpression("^warning factorMethodWait failed: \".+\"$"_s).match(complaints.first()).hasMatch());
    drain(client.get());
}

void TestTimeouts::challenge()
{
    const auto client = newClient();
    daemon.misbehave("RequestChallenge", "mute");
    daemon.misbehave("Authenticate", "hold");
    QElapsedTimer timer;
    timer.start();
    client->authenticate("login"_s, {});
    QVERIFY2(isTimeout(timer.elapsed()), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(client->progress());
    QCOMPARE(daemon.waitCalls("Authenticate"),
             QStringList{peerCall("Authenticate", "sa{sv}", "('login', {'challenge': <@ay []>})")});
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 1);
    QVERIFY(QRegularExpression("^warning request failed: \".+\"$"_s).match(complaints.first()).hasMatch());
}

void TestTimeouts::setState()
{
    daemon.misbehave("SetState", "mute");
    AuthDevlockClient client;
    QVERIFY(waitFor([&client] { return client.state() == AuthDevlockClient::Unlocked; }));
    QElapsedTimer timer;
    timer.start();
    client.setState(AuthDevlockClient::Locked);
    QVERIFY2(isTimeout(timer.elapsed()), qPrintable(QString::number(timer.elapsed())));
    drainSystemBus();
    QCOMPARE(client.state(), AuthDevlockClient::Unlocked);
}

void TestTimeouts::failedGetStateTakesAKnownStateAway()
{
    daemon.misbehave("GetState", "hold");
    AuthDevlockClient client;
    SignalRecorder heard(&client);
    daemon.waitCalls("GetState");
    daemon.emitSignal("StateChanged", "(0,)");
    drainSystemBus();
    QCOMPARE(client.state(), AuthDevlockClient::Unlocked);
    // Without an answer, and without leaving the bus: the answer is due in 25 seconds.
    const QString owner = daemon.owner();
    QVERIFY(waitFor([&] { return heard.list().size() == 2; }));
    QCOMPARE(daemon.owner(), owner);
    QCOMPARE(client.state(), AuthDevlockClient::Undefined);
    const QStringList lines = log->take();
    QCOMPARE(lines.size(), 4);
    QCOMPARE(lines.mid(0, 2),
             (QStringList{R"(debug AuthDevlockClientPrivate Connected to "vantora.AuthService")"_s,
                          "debug handleStateChanged AuthDevlockClient::Undefined -> 0"_s}));
    QVERIFY2(QRegularExpression("^warning failed: \".+\"$"_s).match(lines.at(2)).hasMatch(), qPrintable(lines.at(2)));
    QCOMPARE(lines.at(3), "debug handleStateChanged AuthDevlockClient::Unlocked -> 4"_s);
}

QTEST_GUILESS_MAIN(TestTimeouts)
#include "tst_timeouts.moc"
