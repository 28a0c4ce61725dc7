#include "test-case.h"

/** What two threads could spoil: replies that come while somebody is busy with their calls. */
class TestThreads : public TestCase
{
    Q_OBJECT

private Q_SLOTS:
    void callsThatFailAtOnceEndOnce();
    void errorsWithoutATextAreErrors();
};

void TestThreads::callsThatFailAtOnceEndOnce()
{
    constexpr int Rounds = 400;
    const auto client = newClient();
    SignalRecorder heard(client.get());
    QVector<int> callbacks(Rounds, 0);
    // The daemon keeps its name, so that the client keeps its connection.
    daemon.request(R"({"do":"drop-peers"})");
    for (int &callback : callbacks) {
        client->unlockIfNeeded();
        client->factorMethod({}, "code"_s, [&callback](const QVariant &) { ++callback; });
        client->authenticate("login"_s, {{"challenge"_s, 1}});
        QCoreApplication::processEvents();
    }
    const auto failedRequests = [this] {
        return log->count(R"(warning callAuthenticateFinished failed: "Not connected to D-Bus server")"_s);
    };
    QVERIFY(waitFor([&] {
        return !callbacks.contains(0) && heard.list().count("unlockIfNeededFinished(false)"_s) >= Rounds
            && failedRequests() >= Rounds;
    }));
    drainSystemBus();
    QCOMPARE(callbacks.count(1), Rounds);
    QCOMPARE(heard.list().count("unlockIfNeededFinished(false)"_s), Rounds);
    QCOMPARE(failedRequests(), Rounds);
    log->takeComplaints();
}

void TestThreads::errorsWithoutATextAreErrors()
{
    constexpr int Calls = 3000;
    const auto client = newClient();
    daemon.misbehave("FactorMethod", "error", R"("message":"")");
    for (int i = 0; i < Calls; ++i)
        QVERIFY(!client->factorMethodWait({}, "code"_s).isValid());
    QCOMPARE(log->takeComplaints().count(R"(warning factorMethodWait failed: "")"_s), Calls);
}

QTEST_GUILESS_MAIN(TestThreads)
#include "tst_threads.moc"
