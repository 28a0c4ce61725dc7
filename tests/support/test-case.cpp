#include "test-case.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>

bool waitFor(const std::function<bool()> &condition)
{
    if (condition())
        return true;

    QEventLoop loop;
    QTimer timeout;
    QObject::connect(&timeout, &QTimer::timeout, &loop, &QEventLoop::quit);
    timeout.start(120000);
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, &loop, [&] {
        if (condition())
            loop.quit();
    });
    loop.exec();
    return condition();
}

QVariantMap echo(const QVariant &value)
{
    return {{"type"_s, "echo"_s}, {"value"_s, value}};
}

QByteArray byteTuple(const QByteArray &value)
{
    return '(' + bytes(value) + ",)";
}

QString published(const QByteArray &token)
{
    return "authenticatedChanged(%1)"_s.arg(QLatin1String(token.toHex()));
}

QString loginCall(const QByteArray &challenge)
{
    return peerCall("Authenticate", "sa{sv}", "('login', {'challenge': <" + bytes(challenge) + ">})");
}

QStringList withoutTexts(QStringList lines)
{
    return lines.replaceInStrings(QRegularExpression("^(warning .*(failed|isError):) \".+\"$"_s), "\\1 …"_s);
}

void textRows(const char *column, const QByteArrayList &values)
{
    QTest::addColumn<QByteArray>(column);
    for (const QByteArray &value : values)
        QTest::newRow(value.constData()) << value;
}

void numberRows(const char *column, const QList<int> &values)
{
    QTest::addColumn<int>(column);
    for (const int value : values)
        QTest::addRow("%d", value) << value;
}

void TestCase::init()
{
    log = std::make_unique<LogRecorder>();
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!m_marks && bus.isConnected()) {
        bus.connect(QString(), "/test"_s, "test.Drain"_s, "Mark"_s, this, SLOT(markHeard(int)));
        m_marks = 1;
    }
    daemon.reset();
    log->take();
}

void TestCase::cleanup()
{
    const QStringList complaints = log->takeComplaints();
    const QStringList faults = log->takeFaults();
    log.reset();
    QCOMPARE(complaints, QStringList());
    QCOMPARE(faults, QStringList());
}

void TestCase::markHeard(int number)
{
    m_heard = number;
}

std::unique_ptr<AuthClient> TestCase::newClient()
{
    auto client = std::make_unique<AuthClient>();
    awaitLockState();
    return client;
}

std::unique_ptr<AuthSettingsClient> TestCase::newSettingsClient()
{
    auto client = std::make_unique<AuthSettingsClient>(nullptr);
    awaitLockState();
    return client;
}

void TestCase::awaitLockState()
{
    if (!waitFor([this] { return log->contains("debug handleStateChanged AuthDevlockClient::Undefined -> 0"_s); }))
        qFatal("The client does not hear the device-lock state");
    log->take();
    daemon.clearCalls();
}

void TestCase::grant(AuthClient *client, const QByteArray &token)
{
    daemon.emitSignal("Authenticated", byteTuple(token));
    if (!waitFor([client] { return client->authenticated(); }))
        qFatal("The client does not take a token");
}

void TestCase::emitSignals(const QByteArrayList &emissions, const QByteArray &more)
{
    for (const QByteArray &emission : emissions) {
        const int space = emission.indexOf(' ');
        daemon.emitSignal(emission.left(space).constData(), emission.mid(space + 1), more);
    }
}

void TestCase::drainAfter(AuthClient *client, const char *method, int count)
{
    daemon.waitCalls(method, count);
    drain(client);
}

void TestCase::drain(AuthClient *client)
{
    const QString mark = drainMark + QString::number(++m_marks);
    bool heard = false;
    const auto connection = connect(client, &AuthClient::factorSignal, this,
                                    [&](const QString &factor) { heard = heard || factor == mark; });
    daemon.emitSignal("Factor", "('" + mark.toLatin1() + "', @a{sv} {})");
    if (!waitFor([&heard] { return heard; }))
        qFatal("The client does not hear the daemon");
    disconnect(connection);
    drainSystemBus();
}

void TestCase::drainSystemBus()
{
    const int number = ++m_marks;
    daemon.emitSignal("Mark", '(' + QByteArray::number(number) + ",)",
                      R"("bus":"system","path":"/test","interface":"test.Drain")");
    if (!waitFor([this, number] { return m_heard == number; }))
        qFatal("The system bus does not carry the daemon's signals");
}

void TestCase::awaitReconnection(const QString &connectionName)
{
    const QString line = R"(debug authd reset "%1" captured "%2")"_s.arg(daemon.owner(), connectionName);
    if (!waitFor([&] { return log->contains(line); }))
        qFatal("The client does not notice the new daemon");
}

void TestCase::awaitLoss()
{
    if (!waitFor([this] { return log->contains(R"(debug authd reset "" captured "authd_p2p_client")"_s); }))
        qFatal("The client does not notice the daemon's loss");
}
