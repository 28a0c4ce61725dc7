#include "test-case.h"

#include <QtCore/QProcess>

/** How processes end: with status 1 when the daemon cannot be reached, and otherwise as they please. */
class TestExit : public TestCase
{
    Q_OBJECT

private:
    enum Bus {
        WithBus,
        WithoutBus,
    };
    void start(QProcess &host, const QStringList &arguments, Bus bus = WithBus);
    void waitReady(QProcess &host);
    void checkEnd(QProcess &host, int status, const QString &critical = QString());
    void holdCalls();
    void storageRows(const QStringList &applications);

private Q_SLOTS:
    void socketIsMissing_data();
    void socketIsMissing();
    void socketAcceptsAndCloses_data();
    void socketAcceptsAndCloses();
    void socketIsMissingForASecondClient_data();
    void socketIsMissingForASecondClient();
    void busIsMissing_data();
    void busIsMissing();
    void busAndSocketAreMissing_data();
    void busAndSocketAreMissing();
    void daemonReturnsWithoutItsSocket_data();
    void daemonReturnsWithoutItsSocket();
    void daemonHandsOverWithoutASocket_data();
    void daemonHandsOverWithoutASocket();

    void processEnds_data();
    void processEnds();
    void processEndsAfterItsLoop_data();
    void processEndsAfterItsLoop();
    void processEndsAfterARestart_data();
    void processEndsAfterARestart();
    void processEndsWhileTheDaemonIsAway_data();
    void processEndsWhileTheDaemonIsAway();
};

namespace {
const QString noSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" ".+")");
// The toolkit may know of no error when the connection was closed later.
const QString closedSocket =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd.socket" "authd_p2p_client" ".*")");
const QString noBus = QStringLiteral(R"(Cannot connect to "vantora.AuthService" ".+")");

const char *const storages[] = {"stack", "heap", "static", "namespace", "child"};
} // namespace

void TestExit::start(QProcess &host, const QStringList &arguments, Bus bus)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"), QStringLiteral("%{type} %{file} %{message}"));
    environment.remove(QStringLiteral("QT_LOGGING_RULES"));
    // The toolkit leaves objects behind where no event loop ever ran, and some hosts their client; what nothing points to
    // any more is found by memcheck.
    environment.insert(QStringLiteral("ASAN_OPTIONS"),
                       environment.value(QStringLiteral("ASAN_OPTIONS")) + QStringLiteral(":detect_leaks=0"));
    if (bus == WithoutBus)
        environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), QStringLiteral("unix:path=/run/no-bus"));
    host.setProcessEnvironment(environment);
    QStringList command = QProcess::splitCommand(environment.value(QStringLiteral("AUTH_TEST_RUNNER")));
    command += QStringLiteral(TEST_HOST);
    command += arguments;
    host.start(command.first(), command.mid(1));
    if (!host.waitForStarted())
        qFatal("The host does not start: %s", qPrintable(host.errorString()));
}

void TestExit::waitReady(QProcess &host)
{
    host.setReadChannel(QProcess::StandardOutput);
    while (!host.canReadLine()) {
        if (!host.waitForReadyRead(60000))
            qFatal("The host does not get ready: %s", host.readAllStandardError().constData());
    }
    if (host.readLine() != "ready\n")
        qFatal("The host writes something else");
}

// Without a critical line expected there must be no warning of the toolkit either.
void TestExit::checkEnd(QProcess &host, int status, const QString &critical)
{
    if (host.state() != QProcess::NotRunning && !host.waitForFinished(60000)) {
        host.kill();
        host.waitForFinished();
        QFAIL(("The host hangs:\n" + host.readAllStandardError()).constData());
    }
    const QString text = QString::fromUtf8(host.readAllStandardError());
    QVERIFY2(host.exitStatus() == QProcess::NormalExit, qPrintable(text));
    QVERIFY2(host.exitCode() == status,
             qPrintable("%1 instead of %2:\n%3"_s.arg(host.exitCode()).arg(status).arg(text)));

    const QStringList lines = text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    const QStringList criticals = lines.filter(QRegularExpression("^(critical|fatal) "_s));
    if (critical.isEmpty()) {
        QCOMPARE(criticals, QStringList());
        // The library's own tell of calls that failed.
        QCOMPARE(lines.filter(QRegularExpression("^warning (?!src/)"_s)), QStringList());
    } else {
        QVERIFY2(criticals.size() == 1, qPrintable(text));
        // Nobody has said before that all is well.
        if (critical == noBus)
            QCOMPARE(lines.first(), criticals.first());
        QVERIFY2(QRegularExpression("^critical src/[a-z-]+\\.cpp "_s + critical + QLatin1Char('$'))
                     .match(criticals.first())
                     .hasMatch(),
                 qPrintable(text));
    }
    QVERIFY2(!text.contains("QObject"_s) && !text.contains("QMutex"_s) && !text.contains("terminate"_s),
             qPrintable(text));
}

// The asynchronous ones.
void TestExit::holdCalls()
{
    for (const char *method : {"Authenticate", "ChangeAuthData", "UnlockIfNeeded", "FactorMethod", "GetState"})
        daemon.misbehave(method, "hold");
}

void TestExit::storageRows(const QStringList &applications)
{
    QTest::addColumn<QStringList>("arguments");
    for (const QString &application : applications) {
        for (const char *kind : {"client", "devlock"}) {
            for (const char *storage : storages) {
                for (const char *calls : {"idle", "flight"}) {
                    const QStringList arguments{application, QLatin1String(kind), QLatin1String(storage),
                                                QLatin1String(calls)};
                    QTest::newRow(qPrintable(arguments.join(QLatin1Char(' ')))) << arguments;
                }
            }
        }
    }
}

void TestExit::socketIsMissing_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *application : {"app", "staticapp", "noapp"}) {
        for (const char *storage : storages) {
            const QStringList arguments{QLatin1String(application), "client"_s, QLatin1String(storage), "idle"_s,
                                        "return"_s};
            QTest::newRow(qPrintable(arguments.join(QLatin1Char(' ')))) << arguments;
        }
    }
}

void TestExit::socketIsMissing()
{
    QFETCH(QStringList, arguments);
    daemon.request(R"({"do":"stop"})");
    QProcess host;
    start(host, arguments);
    checkEnd(host, 1, noSocket);
}

void TestExit::socketAcceptsAndCloses_data()
{
    socketIsMissing_data();
}

void TestExit::socketAcceptsAndCloses()
{
    QFETCH(QStringList, arguments);
    daemon.request(R"({"do":"accept","how":"close"})");
    QProcess host;
    start(host, arguments);
    checkEnd(host, 1, closedSocket);
}

void TestExit::socketIsMissingForASecondClient_data()
{
    storageRows({"app"_s, "staticapp"_s, "noapp"_s});
}

void TestExit::socketIsMissingForASecondClient()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, arguments + QStringList{"second"_s});
    waitReady(host);
    daemon.request(R"({"do":"stop"})");
    host.write("\n");
    checkEnd(host, 1, closedSocket);
}

void TestExit::busIsMissing_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *application : {"app", "staticapp", "noapp"}) {
        for (const char *kind : {"client", "devlock"}) {
            for (const char *storage : storages) {
                const QStringList arguments{QLatin1String(application), QLatin1String(kind), QLatin1String(storage),
                                            "idle"_s, "return"_s};
                QTest::newRow(qPrintable(arguments.join(QLatin1Char(' ')))) << arguments;
            }
        }
    }
}

void TestExit::busIsMissing()
{
    QFETCH(QStringList, arguments);
    QProcess host;
    start(host, arguments, WithoutBus);
    checkEnd(host, 1, noBus);
}

void TestExit::busAndSocketAreMissing_data()
{
    busIsMissing_data();
}

// The device-lock client's message comes first, and so alone.
void TestExit::busAndSocketAreMissing()
{
    QFETCH(QStringList, arguments);
    daemon.request(R"({"do":"stop"})");
    QProcess host;
    start(host, arguments, WithoutBus);
    checkEnd(host, 1, noBus);
}

void TestExit::daemonReturnsWithoutItsSocket_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *storage : storages) {
        for (const char *calls : {"idle", "flight"}) {
            const QStringList arguments{"app"_s, "client"_s, QLatin1String(storage), QLatin1String(calls), "loop"_s};
            QTest::newRow(qPrintable(arguments.join(QLatin1Char(' ')))) << arguments;
        }
    }
}

void TestExit::daemonReturnsWithoutItsSocket()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, arguments);
    waitReady(host);
    daemon.request(R"({"do":"stop"})");
    daemon.request(R"({"do":"start","socket":false})");
    checkEnd(host, 1, noSocket);
}

void TestExit::daemonHandsOverWithoutASocket_data()
{
    daemonReturnsWithoutItsSocket_data();
}

// The old connection is still open then.
void TestExit::daemonHandsOverWithoutASocket()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, arguments);
    waitReady(host);
    daemon.request(R"({"do":"accept","how":"refuse"})");
    daemon.request(R"({"do":"release-name"})");
    daemon.request(R"({"do":"own-name"})");
    checkEnd(host, 1, noSocket);
}

void TestExit::processEnds_data()
{
    storageRows({"app"_s, "staticapp"_s, "noapp"_s});
}

void TestExit::processEnds()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    for (const char *end : {"return", "exit"}) {
        QProcess host;
        start(host, arguments + QStringList{QLatin1String(end)});
        checkEnd(host, 0);
    }
}

void TestExit::processEndsAfterItsLoop_data()
{
    daemonReturnsWithoutItsSocket_data();
}

void TestExit::processEndsAfterItsLoop()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, arguments);
    waitReady(host);
    daemon.emitSignal("Factor", "('quit', @a{sv} {})");
    checkEnd(host, 0);
}

void TestExit::processEndsAfterARestart_data()
{
    daemonReturnsWithoutItsSocket_data();
}

void TestExit::processEndsAfterARestart()
{
    QFETCH(QStringList, arguments);
    for (const char *change : {R"({"do":"restart"})", R"({"do":"handover","keep-old":true})"}) {
        daemon.reset();
        holdCalls();
        QProcess host;
        start(host, arguments);
        waitReady(host);
        daemon.request(change);
        // The host is back when it hears the new instance.
        const QByteArray instance = QByteArray::number(daemon.request(R"({"do":"state"})").value("instance"_s).toInt());
        while (host.state() == QProcess::Running && !host.waitForFinished(20))
            daemon.emitSignal("Factor", "('quit', @a{sv} {})", "\"instance\":" + instance);
        checkEnd(host, 0);
    }
}

void TestExit::processEndsWhileTheDaemonIsAway_data()
{
    daemonReturnsWithoutItsSocket_data();
}

void TestExit::processEndsWhileTheDaemonIsAway()
{
    QFETCH(QStringList, arguments);
    holdCalls();
    QProcess host;
    start(host, arguments);
    waitReady(host);
    daemon.request(R"({"do":"release-name"})");
    daemon.emitSignal("Factor", "('quit', @a{sv} {})");
    checkEnd(host, 0);
}

QTEST_GUILESS_MAIN(TestExit)
#include "tst_exit.moc"
