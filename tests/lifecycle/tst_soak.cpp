// Two clients, thousands of calls, hundreds of daemon instances, and a daemon that misbehaves at random. Whatever
// happens, each call ends, once; and nothing grows. AUTH_SOAK_SEED repeats a run.

#include "test-case.h"

#include <QtCore/QDir>
#include <QtCore/QRandomGenerator>

#include <array>
#include <malloc.h>

namespace {

constexpr int Rounds = 200;
constexpr int CallsPerRound = 40;
constexpr int CallsUnderWay = 10;
constexpr int WarmUpRounds = 40;

struct Resources
{
    int descriptors;
    size_t memory;
};

Resources resources()
{
    return {int(QDir("/proc/self/fd"_s).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size()),
            mallinfo2().uordblks};
}

} // namespace

class SoakTest : public TestCase
{
    Q_OBJECT

private:
    void misbehaveAtRandom();
    void callAtRandom(AuthClient *client, bool mayBlock);
    void awaitAnswers();
    bool changeInstance();
    void awaitBoth();
    int random(int bound);

    std::array<AuthClient, 2> m_clients;
    QRandomGenerator m_random;
    QVector<int> m_callbacks;
    int m_unlocksAsked = 0;
    int m_unlocksAnswered = 0;

private Q_SLOTS:
    void everyCallEndsOnceAndNothingGrows();
};

int SoakTest::random(int bound)
{
    return m_random.bounded(bound);
}

void SoakTest::misbehaveAtRandom()
{
    static const char *const methods[] = {"Authenticate",   "ChangeAuthData",   "FactorMethod",
                                          "UnlockIfNeeded", "RequestChallenge", "SetDevlockState"};
    static const char *const wrongReplies[] = {
        "()",          "(true, 1)",      "('text',)",    "(@av [],)", "(<<uint64 7>>,)",
        "(uint32 1,)", "([byte 0x01],)", "({'a': <1>},)"};
    const char *method = methods[random(6)];
    switch (random(5)) {
    case 0:
        daemon.misbehave(method, "error", R"("message":"at random","times":1)");
        break;
    case 1:
        // A good answer promises a signal that never comes.
        if (qstrcmp(method, "UnlockIfNeeded") != 0) {
            daemon.misbehave(method, "reply", R"("times":1,"value":")" + QByteArray(wrongReplies[random(8)]) + '"');
        }
        break;
    case 2:
        daemon.misbehave(method, "delay", "\"times\":1,\"ms\":" + QByteArray::number(random(20)));
        break;
    case 3:
        daemon.misbehave(method, "signal-first", R"("times":1)");
        break;
    case 4:
        break;
    }
}

void SoakTest::callAtRandom(AuthClient *client, bool mayBlock)
{
    const QVariantMap echo{{"type"_s, "echo"_s}, {"value"_s, random(1000)}};
    const QVariantMap code{{"factor"_s, "code"_s}, {"data"_s, random(2) ? "1234"_s : "0000"_s}};
    switch (random(mayBlock ? 8 : 4)) {
    case 0: {
        const int index = m_callbacks.size();
        m_callbacks.append(0);
        client->factorMethod(echo, "code"_s, [this, index](const QVariant &) { ++m_callbacks[index]; });
        break;
    }
    case 1:
        ++m_unlocksAsked;
        client->unlockIfNeeded();
        break;
    case 2:
        client->authenticate("unlock"_s, code);
        break;
    case 3:
        client->changeAuthData("code"_s, {{"old"_s, "1234"_s}, {"new"_s, "1234"_s}});
        break;
    case 4:
    case 5:
        client->factorMethodWait(echo, "code"_s);
        break;
    case 6:
        client->setLocked(random(3));
        break;
    case 7:
        client->dropAuthentication();
        break;
    }
}

void SoakTest::awaitAnswers()
{
    QVERIFY2(waitFor([&] { return m_callbacks.count(0) == 0 && m_unlocksAnswered >= m_unlocksAsked; }),
             qPrintable("%1 callbacks and %2 unlock requests are not answered"_s.arg(m_callbacks.count(0))
                            .arg(m_unlocksAsked - m_unlocksAnswered)));
    drain(&m_clients.front());
    drain(&m_clients.back());
    QCOMPARE(m_callbacks.count(1), m_callbacks.size());
    QCOMPARE(m_unlocksAnswered, m_unlocksAsked);
}

/** Whether the calls under way fail; else the old instance still answers them. */
bool SoakTest::changeInstance()
{
    const int change = random(5);
    switch (change) {
    case 0:
        daemon.request(R"({"do":"restart"})");
        break;
    case 1:
        daemon.request(R"({"do":"stop"})");
        if (random(2))
            QCoreApplication::processEvents();
        daemon.request(R"({"do":"start"})");
        break;
    case 2:
        daemon.request(R"({"do":"handover"})");
        break;
    case 3:
        daemon.request(R"({"do":"handover","keep-old":true})");
        break;
    case 4:
        daemon.request(R"({"do":"drop-peers"})");
        daemon.request(R"({"do":"restart"})");
        break;
    }
    return change != 3;
}

void SoakTest::awaitBoth()
{
    const QString line = R"(debug authd reset "%1" captured "authd_p2p_client")"_s.arg(daemon.owner());
    if (!waitFor([&] { return log->count(line) == 2; }))
        qFatal("The clients do not follow the daemon");
}

void SoakTest::everyCallEndsOnceAndNothingGrows()
{
    const QByteArray given = qgetenv("AUTH_SOAK_SEED");
    const quint32 seed = given.isEmpty() ? QRandomGenerator::system()->generate() : given.toUInt();
    printf("AUTH_SOAK_SEED=%u\n", seed);
    m_random.seed(seed);

    for (AuthClient &client : m_clients)
        connect(&client, &AuthClient::unlockIfNeededFinished, this, [this] { ++m_unlocksAnswered; });
    // Until the first restart both share a socket, and each hears what was meant for the other.
    daemon.request(R"({"do":"restart"})");
    awaitBoth();

    Resources warm{};
    for (int round = 0; round < Rounds; ++round) {
        for (int call = 0; call < CallsPerRound; ++call) {
            if (random(4) == 0)
                misbehaveAtRandom();
            callAtRandom(&m_clients[size_t(random(2))], true);
            if (random(4) == 0)
                QCoreApplication::processEvents();
        }
        daemon.request(R"({"do":"behave"})");
        awaitAnswers();

        // What is under way from here on is so until the daemon has changed.
        for (const char *method : {"Authenticate", "ChangeAuthData", "FactorMethod", "UnlockIfNeeded"})
            daemon.misbehave(method, "hold");
        const int unlocksAsked = m_unlocksAsked;
        for (int call = 0; call < CallsUnderWay; ++call)
            callAtRandom(&m_clients[size_t(random(2))], false);
        // Nobody listens any more to the signal that follows a good reply of the old instance.
        if (!changeInstance())
            m_unlocksAsked = unlocksAsked;
        awaitBoth();
        daemon.request(R"({"do":"behave"})");
        daemon.request(R"({"do":"release"})");
        awaitAnswers();
        daemon.request(R"({"do":"drop-old"})");

        m_callbacks.clear();
        log->take();
        if (round + 1 == WarmUpRounds)
            warm = resources();
    }

    // Qt D-Bus closes sockets in a thread of its own.
    QVERIFY2(waitFor([&] { return resources().descriptors <= warm.descriptors; }),
             qPrintable("from %1 to %2 descriptors"_s.arg(warm.descriptors).arg(resources().descriptors)));
    // The heap breathes; had each call left only 32 bytes behind, it would have grown by more.
    const size_t memory = resources().memory;
    QVERIFY2(memory < warm.memory + size_t(32) * Rounds * CallsPerRound,
             qPrintable("from %1 to %2 bytes"_s.arg(warm.memory).arg(memory)));

    for (AuthClient &client : m_clients)
        QCOMPARE(client.factorMethodWait({{"type"_s, "echo"_s}, {"value"_s, 7}}, "code"_s), QVariant(7));
    // Misbehaviour is complained of, to the last.
    log->take();
}

QTEST_GUILESS_MAIN(SoakTest)
#include "tst_soak.moc"
