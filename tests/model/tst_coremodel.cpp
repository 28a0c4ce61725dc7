// AuthClient and AuthDevlockClient against a second implementation of them, the oracle: both take the same random steps of
// hosts, of the daemon and of the bus, and after each everything that a host or the daemon could tell them apart by is
// compared. A difference is shrunk to a short script. In every other script some steps are taken together, before what they
// send is waited for.
//
// AUTH_COREMODEL_SEED=N repeats the run of a seed, AUTH_COREMODEL_STEPS=N sets how many steps it takes. Without them each
// run also takes some steps with a seed that nobody has used before; it prints all of them.
// AUTH_COREMODEL_TRACE=1 prints each step before it is taken: what ends the process cannot be shrunk.
//
// The socket and the system bus are two ways, and who hears first of what arrives on both is open: then the oracle tries all
// orders that keep each way's own. The same holds for several objects that hear of one thing, for calls that fail with
// their connection, and for what is deleted later. Everything else has one order.

#include "bus-round-trip.h"
#include "core-host.h"

#include <QtCore/QJsonArray>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusServiceWatcher>
#include <QtDBus/QDBusVariant>

namespace {

// valgrind makes a step thirty times as slow, and what it looks for shows in a few of them.
const bool isUnderARunner = !qEnvironmentVariableIsEmpty("AUTH_TEST_RUNNER");
const int StepsOfFixedSeed = isUnderARunner ? 1000 : 18000;
const int StepsOfFreshSeed = isUnderARunner ? 200 : 2000;
// A call that is never answered would fail after 25 seconds.
const int StepsPerScript = isUnderARunner ? 40 : 120;
// Handlers make calls, and their answers have handlers; scripts have no more handlers than steps.
const int MostRounds = 2 * StepsPerScript;

/** Another process on the system bus, as far as the bus can tell. */
class Stranger
{
public:
    void emitStateChanged(const QString &text)
    {
        static const QHash<QString, QVariantList> others{{"('s3cr3t',)"_s, {"s3cr3t"_s}},
                                                         {"(true,)"_s, {true}},
                                                         {"(uint32 1,)"_s, {1U}},
                                                         {"(<true>,)"_s, {QVariant::fromValue(QDBusVariant(true))}},
                                                         {"([byte 0x61],)"_s, {QByteArray("a")}},
                                                         {"([byte 0x61], 1)"_s, {QByteArray("a"), 1}}};
        bool isNumber = false;
        const int number = text.mid(1).chopped(2).toInt(&isNumber);
        send("/vantora/AuthService/Devlock"_s, "vantora.AuthService.Devlock"_s, "StateChanged"_s,
             isNumber ? QVariantList{number} : others.value(text));
    }

    void sendMark(int number)
    {
        send("/test"_s, "test.Drain"_s, "StrangersMark"_s, {number});
    }

private:
    void send(const QString &path, const QString &interface, const QString &name, const QVariantList &arguments)
    {
        QDBusMessage message = QDBusMessage::createSignal(path, interface, name);
        message.setArguments(arguments);
        if (!m_bus.send(message))
            qFatal("The stranger is not heard");
    }

    QDBusConnection m_bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, "stranger"_s);
};

} // namespace

/** What the process hears on the system bus, for all scripts. */
class Ears : public QObject
{
    Q_OBJECT

public:
    Ears()
        : m_watcher("vantora.AuthService"_s, QDBusConnection::systemBus(), QDBusServiceWatcher::WatchForOwnerChange)
    {
        QDBusConnection bus = QDBusConnection::systemBus();
        for (const auto &[name, slot] :
             {std::pair("Mark"_s, SLOT(hearMark(int))), std::pair("StrangersMark"_s, SLOT(hearStrangersMark(int)))}) {
            if (!bus.connect({}, "/test"_s, "test.Drain"_s, name, this, slot))
                qFatal("The system bus is not heard");
        }
        connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
                [this](const QString &, const QString &, const QString &newOwner) { owners.append(newOwner); });
    }

    int mark = 0;
    int strangersMark = 0;
    QStringList owners;

public Q_SLOTS:
    void hearMark(int number)
    {
        mark = number;
    }
    void hearStrangersMark(int number)
    {
        strangersMark = number;
    }

private:
    QDBusServiceWatcher m_watcher;
};

namespace {

/** What all scripts share. */
struct Surroundings
{
    Control control;
    Ears ears;
    Stranger stranger;
    int marks = 0;
    int nextCall = 0;
};

QByteArray quotedJson(const QString &text)
{
    return AuthStandIn::quoted(text);
}

/** Hosts and the oracle, each with a daemon in the same condition. */
class Pair
{
public:
    Pair(Surroundings *surroundings, bool isShrinking)
        : m_around(surroundings)
        , m_control(&surroundings->control)
        // What does not come is waited for again and again while a script is shrunk.
        , m_patience(isShrinking ? 2000 : 120000)
    {
    }

    std::optional<Difference> run(const Script &script);

private:
    void trace(const Step &step) const;
    void arrange(const Step &step);
    bool take(const Step &step);
    bool deliver(bool always = false);
    bool deliverOnce();
    bool awaitEvents(const std::function<bool()> &condition, const QString &what);
    bool awaitOwner();
    void expectCalls();
    bool compareCalls();
    bool differ(const QStringList &expected, const QStringList &actual);
    void takeCalls(const QJsonObject &answer);
    QStringList takeSeen();
    void start();
    void end();

    Surroundings *const m_around;
    Control *const m_control;
    const int m_patience;
    QuietLog m_log{true};
    std::unique_ptr<CoreOracle> m_oracle;
    std::unique_ptr<Host> m_host;
    QMap<QString, int> m_sent; ///< how often methods were called since the daemon's log was read
    QVector<CoreOracle::LoggedCall> m_expectedCalls;
    QVector<CoreOracle::LoggedCall> m_calls;
    QMap<int, int> m_peers{
        {CoreOracle::SystemBus, CoreOracle::SystemBus}}; ///< the oracle's connections and the daemon's
    QMap<int, QStringList> m_newConnections; ///< calls on the oracle's that are not known to be one of the daemon's,
    QMap<int, QStringList> m_newPeers;       ///< and the other way round
    Difference m_difference{-1, {}, {}};
};

void Pair::trace(const Step &step) const
{
    static const bool isWanted = qEnvironmentVariableIsSet("AUTH_COREMODEL_TRACE");
    if (!isWanted)
        return;
    printf("%s\n", qPrintable(step.text()));
    fflush(stdout);
}

bool Pair::differ(const QStringList &expected, const QStringList &actual)
{
    m_difference.expected = expected;
    m_difference.actual = actual;
    return false;
}

// The stand-in makes up challenges; this one is known.
const QByteArray knownChallenge = "s3cr3t challenge";

void Pair::arrange(const Step &step)
{
    const auto emitSignal = [&](const QByteArray &more) {
        m_control->post(R"({"do":"emit","signal":)" + quotedJson(step.name) + ",\"args\":" + quotedJson(step.value.text)
                        + more + '}');
    };
    const auto answerChallenge = [this] {
        m_control->post(R"({"do":"misbehave","method":"RequestChallenge","how":"reply","value":)"
                        + quotedJson(QString::fromUtf8(byteTuple(knownChallenge))) + '}');
    };
    static const QMap<Do, QByteArray> plain{{Do::Release, "release"},  {Do::Leave, "stop"},
                                            {Do::Come, "start"},       {Do::Handover, "handover"},
                                            {Do::DropOld, "drop-old"}, {Do::ReleaseName, "release-name"},
                                            {Do::OwnName, "own-name"}, {Do::DropPeers, "drop-peers"}};
    switch (step.what) {
    case Do::Misbehave: {
        QByteArray json = R"({"do":"misbehave","method":)" + quotedJson(step.name) + ",\"how\":" + quotedJson(step.how);
        if (step.how == "error"_s)
            json += ",\"message\":" + quotedJson(step.value.text);
        if (step.how == "reply"_s)
            json += ",\"value\":" + quotedJson(step.value.text);
        m_control->post(json + '}');
        break;
    }
    case Do::Behave:
        m_control->post(R"({"do":"behave"})");
        answerChallenge();
        break;
    case Do::Emit:
        emitSignal({});
        break;
    case Do::EmitFromOld:
        emitSignal(",\"instance\":" + QByteArray::number(m_oracle->oldInstance()));
        break;
    case Do::SetLock:
        m_control->post(R"({"do":"set-lock","state":)" + QByteArray::number(step.number) + '}');
        break;
    case Do::HandoverKeepingOld:
        m_control->post(R"({"do":"handover","keep-old":true})");
        if (step.name.isEmpty())
            break;
        // The news of the new instance waits in the event loop, and what the old one says comes after it.
        m_control->await();
        roundTripToSystemBus();
        emitSignal(",\"instance\":" + QByteArray::number(m_oracle->instance()));
        m_control->await();
        roundTripToSystemBus();
        break;
    default:
        m_control->post(R"({"do":")" + plain.value(step.what) + "\"}");
        break;
    }
}

bool Pair::awaitEvents(const std::function<bool()> &condition, const QString &what)
{
    QDeadlineTimer deadline(m_patience);
    QTimer wakening;
    wakening.start(qMin(1000, m_patience));
    while (!condition()) {
        if (deadline.hasExpired())
            return differ({what}, QStringList{"nothing of it"_s} + takeSeen());
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

// The bus tells all who watch the name; when its next answer is here, all of them have been told.
bool Pair::awaitOwner()
{
    m_control->post(R"({"do":"state"})");
    const QString owner = m_control->await().value("owner"_s).toString();
    const QStringList &owners = m_around->ears.owners;
    if (!awaitEvents([&] { return owners.last() == owner; }, "the news of the daemon's owner"_s))
        return false;
    roundTripToSystemBus();
    return true;
}

QStringList Pair::takeSeen()
{
    QStringList lines = m_log.take();
    for (const QString &owner : qAsConst(m_around->ears.owners)) {
        if (!owner.isEmpty())
            lines.replaceInStrings("reset \"%1\""_s.arg(owner), "reset \"the daemon\""_s);
    }
    return lines;
}

void Pair::takeCalls(const QJsonObject &answer)
{
    const QJsonArray calls = answer.value("calls"_s).toArray();
    for (const QJsonValue &value : calls) {
        const QJsonObject call = value.toObject();
        const auto text = [&call](const char *member) { return call.value(QLatin1String(member)).toString(); };
        const int peer = call.value("peer"_s).toInt();
        m_calls.append({peer ? peer : CoreOracle::SystemBus, text("method"),
                        "%1 %2 %3.%4 %5 %6"_s.arg(text("bus"), text("path"), text("interface"), text("method"),
                                                  text("signature"), text("args")),
                        false});
    }
    m_around->nextCall = answer.value("next"_s).toInt();
    m_sent.clear();
}

// The thread of Qt D-Bus may still have what was called last: no request may get ahead of it.
void Pair::expectCalls()
{
    const QVector<CoreOracle::LoggedCall> calls = m_oracle->takeCalls();
    QSet<QString> methods;
    for (const auto &call : calls) {
        ++m_sent[call.method];
        if (call.isAsynchronous)
            methods.insert(call.method);
    }
    for (const QString &method : qAsConst(methods)) {
        m_control->post(R"({"do":"wait-calls","method":)" + quotedJson(method)
                            + ",\"count\":" + QByteArray::number(m_sent[method])
                            + ",\"since\":" + QByteArray::number(m_around->nextCall)
                            + ",\"timeout\":" + QByteArray::number(m_patience) + '}',
                        true);
    }
    m_expectedCalls += calls;
}

// Each connection has an order of its own.
bool Pair::compareCalls()
{
    if (m_expectedCalls.size() != m_calls.size()) {
        m_control->post(R"({"do":"calls","since":)" + QByteArray::number(m_around->nextCall) + '}');
        takeCalls(m_control->await());
    }
    // Connections that the daemon has not been called on before may be any of those that it has not seen before.
    QMap<int, QStringList> expected = m_newConnections;
    QMap<int, QStringList> actual = m_newPeers;
    for (const auto &call : qAsConst(m_expectedCalls))
        expected[call.connection].append(call.text);
    for (const auto &call : qAsConst(m_calls))
        actual[call.connection].append(call.text);
    m_expectedCalls.clear();
    m_calls.clear();
    for (auto peer = m_peers.cbegin(); peer != m_peers.cend(); ++peer) {
        const QStringList calls = expected.take(peer.key());
        const QStringList made = actual.take(peer.value());
        if (made != calls)
            return differ(QStringList{"calls"_s} + calls, QStringList{"calls"_s} + made);
    }
    QList<QStringList> calls = expected.values();
    QList<QStringList> made = actual.values();
    std::sort(calls.begin(), calls.end());
    std::sort(made.begin(), made.end());
    if (made != calls)
        return differ({"calls"_s, written(QVariant::fromValue(calls))},
                      {"calls"_s, written(QVariant::fromValue(made))});
    for (const QStringList &alike : qAsConst(calls)) {
        if (calls.count(alike) == 1)
            m_peers[expected.key(alike)] = actual.key(alike);
    }
    for (auto peer = m_peers.cbegin(); peer != m_peers.cend(); ++peer) {
        expected.remove(peer.key());
        actual.remove(peer.value());
    }
    m_newConnections = expected;
    m_newPeers = actual;
    return true;
}

bool Pair::deliverOnce()
{
    const Ears &ears = m_around->ears;
    m_host->forgetCallsMade();
    m_oracle->beginDelivery();
    const int mark = ++m_around->marks;
    const QByteArray number = QByteArray::number(mark);
    const bool changesOwner = m_oracle->changesOwner();
    std::array<bool, CoreOracle::Clients> hears{};
    for (int i = 0; i < CoreOracle::Clients; ++i)
        hears[size_t(i)] = !changesOwner && m_oracle->hears(i);
    if (std::find(hears.begin(), hears.end(), true) != hears.end())
        m_control->post(R"~({"do":"emit","signal":"Factor","args":"('drain-)~" + number + R"~(', @a{sv} {})"})~");
    const bool isDaemonHeard = m_oracle->isRunning() && !changesOwner && m_oracle->isOnItsWay(CoreOracle::Daemon);
    if (isDaemonHeard)
        m_control->post(R"({"do":"emit","bus":"system","path":"/test","interface":"test.Drain","signal":"Mark",)"
                        R"("args":"()"
                        + number + ",)\"}");
    const bool isStrangerHeard = m_oracle->isOnItsWay(CoreOracle::AStranger);
    if (isStrangerHeard)
        m_around->stranger.sendMark(mark);
    m_control->post(R"({"do":"calls","since":)" + QByteArray::number(m_around->nextCall) + '}');
    takeCalls(m_control->await());

    const QString uncalled = m_control->takeRefused();
    if (!uncalled.isEmpty())
        return differ({uncalled}, {"no such call"_s});
    if (changesOwner && !awaitOwner())
        return false;
    const auto isThere = [&] {
        if ((isDaemonHeard && ears.mark != mark) || (isStrangerHeard && ears.strangersMark != mark))
            return false;
        for (int i = 0; i < CoreOracle::Clients; ++i) {
            if (!m_host->client(i))
                continue;
            if (hears[size_t(i)] && m_host->mark(i) != mark)
                return false;
            // Nothing follows the last on a connection that is closed but the end of its calls.
            const int left = m_oracle->callsUnderWay(i, false);
            if (left != m_oracle->callsUnderWay(i, true) && m_host->callsUnderWay(i) > left + m_host->callsMade(i))
                return false;
        }
        return true;
    };
    if (!awaitEvents(isThere, "all that is on its way"_s))
        return false;
    // The end of a call that had ended before it was watched takes two events, and the second is posted by the first.
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    const QStringList seen = takeSeen();
    QStringList expected;
    const bool same = explain(m_oracle.get(), seen, &expected);
    expectCalls();
    return same || differ(expected, seen);
}

bool Pair::deliver(bool always)
{
    for (int rounds = 0; always || !m_oracle->isSilent(); ++rounds) {
        always = false;
        if (!deliverOnce())
            return false;
        if (rounds == MostRounds)
            return differ({"more than has come"_s}, {});
    }
    return true;
}

bool Pair::take(const Step &step)
{
    if (!m_oracle->can(step))
        return true;
    if (m_oracle->needsSilence(step) && !deliver())
        return false;
    trace(step);
    m_host->setMayLeave(m_oracle->mayLeave(step));
    if (step.what == Do::Spoof) {
        m_around->stranger.emitStateChanged(step.value.text);
    } else if (step.what >= Do::Misbehave) {
        arrange(step);
    } else if (step.what == Do::Arm || step.what == Do::ArmDevlock) {
        m_host->arm(step);
    } else {
        m_control->await();
        m_host->perform(step.what, step, step.number);
        if (step.what == Do::MakeClient || step.what == Do::MakeDevlock)
            roundTripToSystemBus();
    }
    m_oracle->take(step);
    expectCalls();

    // No event has been delivered yet.
    const QStringList expected = m_oracle->takeSaid();
    const QStringList seen = takeSeen();
    if (!fit(expected, seen))
        return differ(expected, seen);
    if (step.delivered || m_oracle->needsDelivery()) {
        // An answer that shows nowhere may still be on its way.
        const auto isAnswered = [this] {
            for (int i = 0; i < CoreOracle::Clients; ++i) {
                if (m_host->callsUnderWay(i) > m_oracle->callsUnderWay(i, true))
                    return false;
            }
            return true;
        };
        if (!deliver() || !compareCalls() || !awaitEvents(isAnswered, "the end of a call"_s))
            return false;
    }
    const QStringList properties = m_host->properties();
    return m_oracle->properties() == properties || differ(m_oracle->properties(), properties);
}

void Pair::start()
{
    m_control->takeRefused();
    Step behave;
    behave.what = Do::Behave;
    arrange(behave);
    m_control->post(R"({"do":"set-lock","state":0})");
    m_control->post(R"({"do":"clear-calls"})");
    m_control->post(R"({"do":"state"})");
    m_control->post(R"({"do":"calls"})");
    const QVector<QJsonObject> answers = m_control->awaitAll();
    m_around->nextCall = answers.last().value("next"_s).toInt();
    const QJsonObject &state = answers[answers.size() - 2];
    m_around->ears.owners = QStringList{state.value("owner"_s).toString()};
    roundTripToSystemBus();
    QCoreApplication::processEvents();
    m_log.take();
    m_oracle = std::make_unique<CoreOracle>(state.value("instance"_s).toInt());
    m_host = std::make_unique<Host>(&m_log, m_oracle.get());
}

// Leaves a daemon that is there, holds no calls, and is known to be there.
void Pair::end()
{
    m_host.reset();
    m_control->post(R"({"do":"behave"})");
    m_control->post(R"({"do":"release"})");
    m_control->post(R"({"do":"drop-old"})");
    m_control->post(R"({"do":"start"})", true);
    m_control->post(R"({"do":"own-name"})", true);
    m_control->await();
    if (!awaitOwner())
        qFatal("The daemon does not return");
    QCoreApplication::processEvents();
}

std::optional<Difference> Pair::run(const Script &script)
{
    start();
    bool same = true;
    for (int i = 0; same && i < script.size(); ++i) {
        m_difference.step = i;
        same = take(script[i]);
    }
    same = same && deliver(true) && compareCalls();
    end();
    return same ? std::nullopt : std::optional<Difference>(m_difference);
}

} // namespace

class TestCoreModel : public TestCase
{
    Q_OBJECT

private Q_SLOTS:
    void clientsDoWhatTheOracleDoes_data();
    void clientsDoWhatTheOracleDoes();
};

void TestCoreModel::clientsDoWhatTheOracleDoes_data()
{
    QTest::addColumn<quint32>("seed");
    QTest::newRow("1") << 20261122u;
    QTest::newRow("2") << 161803398u;
    QTest::newRow("3") << 577215664u;
    QTest::newRow("4") << 693147180u;
    QTest::newRow("5") << 915965594u;
}

void TestCoreModel::clientsDoWhatTheOracleDoes()
{
    QFETCH(quint32, seed);
    Surroundings surroundings;
    const auto run = [&surroundings](const Script &script, bool isShrinking) {
        return Pair(&surroundings, isShrinking).run(script);
    };
    QVERIFY2(Walk<Author>(run, StepsPerScript).take("AUTH_COREMODEL", seed, StepsOfFixedSeed, StepsOfFreshSeed),
             "the clients and the oracle differ");
}

QTEST_GUILESS_MAIN(TestCoreModel)

#include "tst_coremodel.moc"
