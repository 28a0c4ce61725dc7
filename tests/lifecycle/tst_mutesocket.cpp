#include "test-case.h"

/** A daemon whose socket takes connections and stays mute: no wait is for ever. */
class TestMuteSocket : public TestCase
{
    Q_OBJECT

private Q_SLOTS:
    void clientIsMadeAndItsCallsFail();
};

void TestMuteSocket::clientIsMadeAndItsCallsFail()
{
    daemon.request(R"({"do":"accept","how":"mute"})");
    QElapsedTimer timer;
    timer.start();
    AuthClient client;
    // Two requests for introspection data, of 25 seconds each.
    const qint64 construction = timer.restart();
    QVERIFY2(construction > 47500 && construction < 90000, qPrintable(QString::number(construction)));
    QCOMPARE(log->take(),
             (QStringList{R"(debug AuthDevlockClientPrivate Connected to "vantora.AuthService")"_s,
                          R"(debug AuthdConnection "authd_p2p_client" connected to "authd_p2p_client")"_s,
                          R"(debug AuthClientPrivate Connected to "unix:path=/var/run/authd/authd.socket")"_s}));

    SignalRecorder heard(&client);
    client.unlockIfNeeded();
    // The challenge, and then the call.
    QVERIFY(!client.factorMethodWait({}, "code"_s).isValid());
    const qint64 calls = timer.elapsed();
    QVERIFY2(calls > 47500 && calls < 90000, qPrintable(QString::number(calls)));
    QVERIFY(waitFor([&] { return !heard.list().isEmpty(); }));
    QCOMPARE(heard.list(), QStringList{"unlockIfNeededFinished(false)"_s});
    const QStringList complaints = log->takeComplaints();
    QCOMPARE(complaints.size(), 2);
    QVERIFY(complaints.first().startsWith(R"(warning request failed: ")"_s));
    QVERIFY(complaints.last().startsWith(R"(warning factorMethodWait failed: ")"_s));

    // The client follows the daemon to a socket that answers.
    daemon.request(R"({"do":"accept","how":"normal"})");
    daemon.request(R"({"do":"restart"})");
    awaitReconnection();
    QCOMPARE(client.factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 5}}, "code"_s), QVariant(5));
}

QTEST_GUILESS_MAIN(TestMuteSocket)
#include "tst_mutesocket.moc"
