#include "host-test-case.h"

/** A host in which no subscription can be made: each is complained of, and it goes on all the same. */
class TestDeafHost : public HostTestCase
{
    Q_OBJECT

private Q_SLOTS:
    void failedSubscriptionsWarn_data();
    void failedSubscriptionsWarn();
};

void TestDeafHost::failedSubscriptionsWarn_data()
{
    QTest::addColumn<QStringList>("expected");
    const auto failed = [](const QStringList &signalNames) {
        QStringList lines;
        for (const QString &name : signalNames)
            lines.append(R"(warning authd/options.h Failed to connect to "%1")"_s.arg(name));
        return lines;
    };
    const QString ownerChanges = R"(warning src/auth-devlock-client.cpp Failed to connect to )"
                                 R"('serviceOwnerChanged' signal "qt_default_system_bus" "")"_s;
    const QStringList devlock = failed({"StateChanged"_s}) + QStringList{ownerChanges};
    const QStringList client = devlock
        + failed({"Authenticated"_s, "AuthenticationFailed"_s, "AuthDataChanged"_s, "ChangeAuthDataFailed"_s,
                  "UnlockIfNeededFinished"_s, "Factor"_s});
    QTest::newRow("devlock") << devlock;
    QTest::newRow("client") << client;
    QTest::newRow("settings") << client + failed({"OptionChanged"_s, "UserOptionChanged"_s});
}

void TestDeafHost::failedSubscriptionsWarn()
{
    QFETCH(QStringList, expected);
    QProcess host;
    start(host, QStringLiteral(DEAF_HOST), {QString::fromLatin1(QTest::currentDataTag())});
    QVERIFY(host.waitForFinished(300000));
    QCOMPARE(host.exitCode(), 0);
    const QStringList lines = QString::fromUtf8(host.readAllStandardError()).split(QLatin1Char('\n'));
    QCOMPARE(lines.filter("warning"_s), expected);
}

QTEST_GUILESS_MAIN(TestDeafHost)
#include "tst_deafhost.moc"
