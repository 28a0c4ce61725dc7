// What AuthStandIn makes of stand-ins that refuse, fall silent, end, and send their answers in pieces.

#include <AuthStandIn>

#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonDocument>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int patience = 120000; // where an answer comes; where none does, it is brief
constexpr int brief = 50;
constexpr char good[] = "{\"ok\":true,\"calls\":[{\"method\":\"GetState\"}]}\n";

/** Listens like a stand-in, and meets each of so many connections as it is told. */
class Server
{
public:
    using Meeting = std::function<void(int connection)>;

    Server(const QByteArray &path, int connections, const Meeting &meet)
        : m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
        if (bind(m_listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0
            || listen(m_listener, 0) != 0)
            qFatal("no socket at %s", path.constData());
        m_thread = std::thread([this, connections, meet] {
            for (int i = 0; i < connections; ++i) {
                const int connection = accept(m_listener, nullptr, nullptr);
                if (connection < 0)
                    return;
                meet(connection);
                close(connection);
            }
        });
    }
    ~Server()
    {
        // Who has not come by now does not come any more.
        shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        close(m_listener);
    }
    Q_DISABLE_COPY(Server)

private:
    const int m_listener;
    std::thread m_thread;
};

/** So many requests, or those until the client ends. */
QByteArray taken(int connection, int lines = 1)
{
    QByteArray text;
    char buffer[65536];
    for (ssize_t count = 1; count > 0 && text.count('\n') < lines; text.append(buffer, int(count)))
        count = qMax<ssize_t>(0, recv(connection, buffer, sizeof buffer, 0));
    return text;
}

void give(int connection, const QByteArray &text)
{
    send(connection, text.constData(), size_t(text.size()), MSG_NOSIGNAL);
}

void awaitEnd(int connection)
{
    char byte = 0;
    while (recv(connection, &byte, 1, 0) > 0) { }
}

Server::Meeting answering(const QByteArray &text)
{
    return [text](int connection) {
        taken(connection);
        give(connection, text);
        awaitEnd(connection);
    };
}

Server::Meeting ending(const QByteArray &text)
{
    return [text](int connection) {
        taken(connection);
        give(connection, text);
    };
}

Server::Meeting inPieces(const QByteArray &text, QByteArray *heard = nullptr, int lines = 1)
{
    return [=](int connection) {
        const QByteArray requests = taken(connection, lines);
        if (heard)
            *heard = requests;
        for (const char byte : text)
            give(connection, QByteArray(1, byte));
    };
}

} // namespace

Q_DECLARE_METATYPE(Server::Meeting)

class TestStandInClient : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void answers_data();
    void answers();
    void noStandIn_data();
    void noStandIn();
    void standInWhoseQueueIsFullIsSilent();
    void severalRequestsAtOnce();
    void severalRequestsOfWhichNotAllAreAnswered();
    void waitingTakesAsLongAsTheRequestSays();
    void onlyWaitForCallsTurnsTheEventLoop();
    void waitForCallsWaitsAlsoAfterTheApplicationWasToldToQuit();
    void textOfSeveralLinesIsOneRequest();
    void bigRequestAndAnswer();
    void nextRequestFindsANewStandIn();
    void resetEndsWithTheFirstFailure();
    void handlerMayThrow();
    void realStandIn();

private:
    std::unique_ptr<QTemporaryDir> m_directory;
    QByteArray m_path;
    QStringList m_errors;
    std::unique_ptr<AuthStandIn> m_client;
};

void TestStandInClient::init()
{
    m_directory = std::make_unique<QTemporaryDir>();
    m_path = m_directory->filePath(QStringLiteral("socket")).toLocal8Bit();
    m_errors.clear();
    m_client = std::make_unique<AuthStandIn>([this](const QString &error) { m_errors.append(error); },
                                             QString::fromLocal8Bit(m_path));
    m_client->setPatience(patience);
}

void TestStandInClient::answers_data()
{
    QTest::addColumn<Server::Meeting>("meeting");
    QTest::addColumn<int>("limit");
    QTest::addColumn<QString>("error");
    const QString silence = QStringLiteral("the stand-in does not answer");
    const QString end = QStringLiteral("the stand-in has gone");
    const QString nonsense = QStringLiteral("the stand-in answers what is no answer");

    QTest::newRow("good") << answering(good) << patience << QString();
    QTest::newRow("two at once") << answering(QByteArray(good) + "{\"ok\":false}\n") << patience << QString();
    QTest::newRow("in pieces") << inPieces(good) << patience << QString();
    QTest::newRow("ends after the answer") << ending(good) << patience << QString();
    QTest::newRow("refused") << answering("{\"ok\":false,\"error\":\"no\"}\n") << patience << QStringLiteral("no");
    QTest::newRow("refusal in pieces") << inPieces("{\"ok\":false,\"error\":\"no\"}\n") << patience
                                       << QStringLiteral("no");
    QTest::newRow("no JSON") << answering("yes\n") << patience << nonsense;
    QTest::newRow("empty line") << answering("\n") << patience << nonsense;
    QTest::newRow("silent") << answering("") << brief << silence;
    QTest::newRow("silent under way") << answering(QByteArray(good, 9)) << brief << silence;
    QTest::newRow("ends") << ending("") << patience << end;
    QTest::newRow("ends under way") << ending(QByteArray(good, 9)) << patience << end;
    QTest::newRow("ends before the line does") << ending(QByteArray(good).trimmed()) << patience << end;
    QTest::newRow("ends at once") << Server::Meeting([](int) {}) << patience << end;
}

void TestStandInClient::answers()
{
    QFETCH(Server::Meeting, meeting);
    QFETCH(int, limit);
    QFETCH(QString, error);
    const Server server(m_path, 3, meeting);
    m_client->setPatience(limit);
    QElapsedTimer timer;
    timer.start();

    const QJsonArray calls = m_client->calls(QStringLiteral("GetState"));
    const QJsonArray waited = m_client->waitCalls(QStringLiteral("GetState"), 1, 1);
    const QJsonArray turned = m_client->waitForCalls(QStringLiteral("GetState"), 1, 1);
    if (error.isEmpty()) {
        QCOMPARE(m_errors, QStringList());
        QCOMPARE(calls, QJsonArray{QJsonObject({{QStringLiteral("method"), QStringLiteral("GetState")}})});
        QCOMPARE(waited, calls);
        QCOMPARE(turned, calls);
    } else {
        const QString waiting = QStringLiteral(R"({"count":1,"do":"wait-calls","method":"GetState","timeout":1})");
        QCOMPARE(m_errors,
                 (QStringList{error + QStringLiteral(R"( ({"do":"calls","method":"GetState"}))"),
                              QStringLiteral("%1 (%2)").arg(error, waiting),
                              QStringLiteral("%1 (%2)").arg(error, waiting)}));
        QCOMPARE(calls, QJsonArray());
        QCOMPARE(waited, QJsonArray());
        QCOMPARE(turned, QJsonArray());
    }
    if (limit == brief)
        QVERIFY(timer.elapsed() >= 3 * brief);
}

void TestStandInClient::noStandIn_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("reason");
    QTest::newRow("no file") << QStringLiteral("none") << ENOENT;
    QTest::newRow("dead") << QStringLiteral("socket") << ECONNREFUSED;
    QTest::newRow("long") << QString(200, QLatin1Char('x')) << ENAMETOOLONG;
}

void TestStandInClient::noStandIn()
{
    QFETCH(QString, name);
    QFETCH(int, reason);
    {
        const Server dead(m_path, 0, {});
    }
    const QString path = m_directory->filePath(name);
    AuthStandIn client([this](const QString &error) { m_errors.append(error); }, path);
    QVERIFY(!client.lock());
    // Never Unlocked where nobody knows.
    QCOMPARE(client.lockState(), 4);
    const QString error = QStringLiteral("there is no stand-in at %1: %2; run the tests where there is one: "
                                         "authd-standin run -- COMMAND (%3)")
                              .arg(path, QString::fromLocal8Bit(strerror(reason)));
    QCOMPARE(m_errors,
             (QStringList{error.arg(QStringLiteral(R"({"do":"set-lock","state":1})")),
                          error.arg(QStringLiteral(R"({"do":"state"})"))}));
}

void TestStandInClient::standInWhoseQueueIsFullIsSilent()
{
    const Server server(m_path, 0, {});
    m_client->setPatience(brief);
    // The first finds room in the queue, and waits for an answer.
    for (int i = 0; i < 3; ++i)
        QVERIFY(!m_client->behave());
    const QString silence = QStringLiteral(R"(the stand-in does not answer ({"do":"behave"}))");
    QCOMPARE(m_errors, (QStringList{silence, silence, silence}));
}

void TestStandInClient::severalRequestsAtOnce()
{
    QByteArray heard;
    {
        const Server server(m_path, 1, inPieces("{\"ok\":true,\"n\":1}\n{\"ok\":false}\n", &heard, 2));
        const QVector<QJsonObject> answers = m_client->requests({R"({"do":"state"})", R"({"do":"dance"})"});
        QCOMPARE(answers.size(), 2);
        QCOMPARE(answers.at(0).value(QLatin1String("n")).toInt(), 1);
        QCOMPARE(answers.at(1).value(QLatin1String("ok")), QJsonValue(false));
    }
    QCOMPARE(heard, QByteArray("{\"do\":\"state\"}\n{\"do\":\"dance\"}\n"));
    QCOMPARE(m_errors, QStringList());
}

void TestStandInClient::severalRequestsOfWhichNotAllAreAnswered()
{
    const Server server(m_path, 1, ending("{\"ok\":true}\n"));
    QVERIFY(m_client->requests({"{}", "{}"}).isEmpty());
    QCOMPARE(m_errors, QStringList{QStringLiteral("the stand-in has gone ({}\n{}\n)")});
}

void TestStandInClient::waitingTakesAsLongAsTheRequestSays()
{
    const Server server(m_path, 2, [](int connection) {
        taken(connection);
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        give(connection, good);
    });
    m_client->setPatience(brief);
    QCOMPARE(m_client->waitCalls(QStringLiteral("GetState"), 1, patience).size(), 1);
    QCOMPARE(m_client->waitForCalls(QStringLiteral("GetState"), 1, patience).size(), 1);
    QCOMPARE(m_errors, QStringList());
}

void TestStandInClient::onlyWaitForCallsTurnsTheEventLoop()
{
    const Server server(m_path, 3, answering(good));
    bool hasTurned = false;
    QTimer::singleShot(0, this, [&hasTurned] { hasTurned = true; });
    QVERIFY(m_client->behave());
    QCOMPARE(m_client->waitCalls(QStringLiteral("GetState")).size(), 1);
    QVERIFY(!hasTurned);
    QCOMPARE(m_client->waitForCalls(QStringLiteral("GetState")).size(), 1);
    QVERIFY(hasTurned);
}

void TestStandInClient::waitForCallsWaitsAlsoAfterTheApplicationWasToldToQuit()
{
    const Server server(m_path, 1, inPieces(good));
    QCoreApplication::quit();
    const QJsonArray calls = m_client->waitForCalls(QStringLiteral("GetState"), 1, patience);
    // Otherwise no loop would begin any more.
    QTimer::singleShot(0, qApp, &QCoreApplication::quit);
    QCoreApplication::exec();
    QCOMPARE(m_errors, QStringList());
    QCOMPARE(calls.size(), 1);
}

void TestStandInClient::textOfSeveralLinesIsOneRequest()
{
    QByteArray heard;
    {
        const Server server(m_path, 1, inPieces(good, &heard));
        m_client->request(QByteArray("{\n\"do\":\n\"behave\"}\n"));
    }
    QCOMPARE(heard, QByteArray("{ \"do\": \"behave\"} \n"));
    QCOMPARE(m_errors, QStringList());
}

void TestStandInClient::bigRequestAndAnswer()
{
    const QString big(1000000, QLatin1Char('x'));
    const Server server(m_path, 1, [](int connection) {
        const QJsonObject request = QJsonDocument::fromJson(taken(connection)).object();
        give(connection,
             R"({"ok":true,"value":)" + AuthStandIn::quoted(request.value(QLatin1String("x")).toString()) + "}\n");
    });
    QCOMPARE(m_client->request(QJsonObject{{QStringLiteral("x"), big}}).value(QLatin1String("value")).toString(), big);
    QCOMPARE(m_errors, QStringList());
}

void TestStandInClient::nextRequestFindsANewStandIn()
{
    {
        const Server server(m_path, 1, ending(""));
        QVERIFY(!m_client->behave());
    }
    QFile::remove(QString::fromLocal8Bit(m_path));
    const Server server(m_path, 1, answering(good));
    QVERIFY(m_client->behave());
    QCOMPARE(m_errors, QStringList{QStringLiteral(R"(the stand-in has gone ({"do":"behave"}))")});
}

void TestStandInClient::resetEndsWithTheFirstFailure()
{
    QByteArray heard;
    {
        const Server server(m_path, 3, [&heard](int connection) {
            heard += taken(connection);
            give(connection, heard.count('\n') < 3 ? "{\"ok\":true}\n" : "{\"ok\":false,\"error\":\"no\"}\n");
        });
        QVERIFY(!m_client->reset());
    }
    QCOMPARE(heard, QByteArray("{\"do\":\"stop\"}\n{\"do\":\"drop-old\"}\n{\"do\":\"behave\"}\n"));
    QCOMPARE(m_errors, QStringList{QStringLiteral(R"(no ({"do":"behave"}))")});
}

void TestStandInClient::handlerMayThrow()
{
    const Server server(m_path, 1, ending(""));
    AuthStandIn client([](const QString &error) { throw error; }, QString::fromLocal8Bit(m_path));
    QVERIFY_EXCEPTION_THROWN(client.behave(), QString);
}

void TestStandInClient::realStandIn()
{
    AuthStandIn client([this](const QString &error) { m_errors.append(error); });
    client.setPatience(patience);
    QVERIFY(client.reset(0));
    QCOMPARE(client.lockState(), 0);
    QVERIFY(client.mute(QStringLiteral("GetState"), 1));
    QVERIFY(client.setOption(QStringLiteral("x"), QStringLiteral("y\n\"")));
    QCOMPARE(client.options().value(QLatin1String("x")).toString(), QStringLiteral("'y\\n\"'"));
    QVERIFY(!client.lockout(QStringLiteral("total")));
    QVERIFY(client.waitForCalls(QStringLiteral("GetState"), 1, 1).isEmpty());
    QCOMPARE(m_errors.size(), 2);
    QCOMPARE(
        m_errors.at(0),
        QStringLiteral(R"(kind: expected one of "none", "manager", "code-entry" ({"do":"lockout","kind":"total"}))"));
    QVERIFY(m_errors.at(1).startsWith(QLatin1String("the calls of GetState have not come in time (")));
    QVERIFY(client.reset());
    QCOMPARE(client.lockState(), 1);
    QVERIFY(!client.options().contains(QStringLiteral("x")));
    QCOMPARE(m_errors.size(), 2);
}

QTEST_GUILESS_MAIN(TestStandInClient)
#include "tst_standinclient.moc"
