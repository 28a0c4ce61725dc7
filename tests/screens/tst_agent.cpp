#include "messages.h"
#include "screen-test-case.h"

#include <QtCore/QProcess>

#include <csignal>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace AuthScreens;

/** An auth-agent and the screen's end of its socket. */
class RawAgent
{
public:
    RawAgent()
    {
        int sockets[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
            qFatal("There is no socket pair");
        screen = sockets[0];
        // One that exec() does not close.
        const int other = fcntl(sockets[0], F_DUPFD, 100);
        pid = fork();
        if (pid == 0) {
            dup2(sockets[1], Wire::Descriptor);
            execl(AUTH_AGENT, "auth-agent", static_cast<char *>(nullptr));
            _exit(99);
        }
        close(other);
        close(sockets[1]);
    }

    ~RawAgent()
    {
        kill(pid, SIGKILL);
        if (status < 0)
            waitpid(pid, nullptr, 0);
        closeScreen();
    }

    template <typename Message> void send(const Message &message)
    {
        write(Wire::encode(message, m_serial++));
    }

    void write(const QByteArray &bytes)
    {
        ::send(screen, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
    }

    /** The next frame; the kind Gone when there is none. */
    Wire::Frame read()
    {
        Wire::Frame frame;
        while (m_reader.next(frame) == Wire::FrameReader::Nothing) {
            const ssize_t got = recv(screen, m_reader.space(), m_reader.room(), 0);
            if (got <= 0)
                return Wire::Frame();
            m_reader.fill(size_t(got));
        }
        return frame;
    }

    /** Waits for its end. */
    int end()
    {
        int result = 0;
        waitpid(pid, &result, 0);
        status = WIFEXITED(result) ? WEXITSTATUS(result) : 256 + WTERMSIG(result);
        return status;
    }

    void closeScreen()
    {
        if (screen >= 0)
            close(screen);
        screen = -1;
    }

    pid_t pid = 0;
    int screen = -1;
    int status = -1;

private:
    Wire::FrameReader m_reader;
    quint32 m_serial = 0;
};

/** The program auth-agent, by itself. */
class TestAgent : public ScreenTestCase
{
    Q_OBJECT

private Q_SLOTS:
    void wantsASocket_data();
    void wantsASocket();
    void endsWithItsScreen_data();
    void endsWithItsScreen();
    void diesWithItsParent();
    void refusesNonsense_data();
    void refusesNonsense();
    void saysThatTheDaemonIsGone();
    void keepsToItself();
    void unlockedIsSaidByTheDaemonsAnswerAlone();
};

void TestAgent::wantsASocket_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("nothing") << QStringList();
    QTest::newRow("an argument") << QStringList{"--help"_s};
}

void TestAgent::wantsASocket()
{
    QFETCH(QStringList, arguments);
    QProcess process;
    process.start(QStringLiteral(AUTH_AGENT), arguments);
    QVERIFY(process.waitForFinished(-1));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 2);
    QVERIFY(process.readAllStandardError().startsWith("auth-agent works for a screen"));
}

void TestAgent::endsWithItsScreen_data()
{
    QTest::addColumn<QByteArray>("task");
    QTest::newRow("without a task") << QByteArray();
    QTest::newRow("following") << Wire::encode(Wire::Follow{1}, 0);
    QTest::newRow("prepared") << Wire::encode(Wire::Prepare(), 0);
    QTest::newRow("mirroring") << Wire::encode(Wire::Mirror{1000}, 0);
}

void TestAgent::endsWithItsScreen()
{
    QFETCH(QByteArray, task);
    RawAgent agent;
    agent.write(task);
    if (!task.isEmpty())
        QVERIFY(agent.read().kind != Wire::Kind::Gone);
    agent.closeScreen();
    QCOMPARE(agent.end(), 0);
}

// The socket's other end is still open.
void TestAgent::diesWithItsParent()
{
    int sockets[2];
    QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
    const pid_t parent = fork();
    if (parent == 0) {
        if (fork() == 0) {
            dup2(sockets[1], Wire::Descriptor);
            execl(AUTH_AGENT, "auth-agent", static_cast<char *>(nullptr));
            _exit(99);
        }
        close(sockets[1]);
        pause();
        _exit(0);
    }
    close(sockets[1]);
    const QByteArray follow = Wire::encode(Wire::Follow{1}, 0);
    QCOMPARE(send(sockets[0], follow.constData(), size_t(follow.size()), MSG_NOSIGNAL), ssize_t(follow.size()));
    char byte;
    QCOMPARE(recv(sockets[0], &byte, 1, 0), ssize_t(1));
    kill(parent, SIGKILL);
    waitpid(parent, nullptr, 0);
    // Its end of the socket is closed when it has gone.
    while (recv(sockets[0], &byte, 1, 0) > 0) { }
    close(sockets[0]);
}

void TestAgent::refusesNonsense_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray follow = Wire::encode(Wire::Follow{1}, 0);
    const QByteArray prepare = Wire::encode(Wire::Prepare(), 0);
    QTest::newRow("zeros") << QByteArray(64, '\0');
    QTest::newRow("letters") << QByteArray(64, 'x');
    QTest::newRow("1 MiB") << QByteArray(1 << 20, 'x');
    QTest::newRow("another serial number") << Wire::encode(Wire::Follow{1}, 1);
    QTest::newRow("the same twice") << follow + follow;
    QTest::newRow("a field too few") << QByteArray(prepare).replace(5, 1, QByteArray(1, char(Wire::Kind::Follow)));
    QTest::newRow("a field too many") << QByteArray(follow).replace(5, 1, QByteArray(1, char(Wire::Kind::Prepare)));
    QTest::newRow("a kind of the agent's") << Wire::encode(Wire::Ready(), 0);
    QTest::newRow("an unknown kind") << QByteArray(prepare).replace(5, 1, "\x7f");
    QTest::newRow("an attempt at first") << Wire::encode(Wire::Attempt(), 0);
    QTest::newRow("another task") << follow + Wire::encode(Wire::Prepare(), 1);
    QTest::newRow("a second attempt") << prepare + Wire::encode(Wire::Attempt(), 1) + Wire::encode(Wire::Attempt(), 2);
    Wire::Attempt unlocking;
    unlocking.unlocks = true;
    QTest::newRow("an unlocking for settings") << Wire::encode(Wire::Mirror{1000}, 0) + Wire::encode(unlocking, 1);
}

void TestAgent::refusesNonsense()
{
    QFETCH(QByteArray, bytes);
    RawAgent agent;
    agent.write(bytes);
    QCOMPARE(agent.end(), 3);
}

void TestAgent::saysThatTheDaemonIsGone()
{
    daemon.stop();
    RawAgent agent;
    agent.send(Wire::Prepare());
    Wire::Gone gone;
    QVERIFY(decode(agent.read(), gone));
    QCOMPARE(agent.end(), 1);
}

void TestAgent::keepsToItself()
{
    RawAgent agent;
    agent.send(Wire::Follow{1});
    QCOMPARE(agent.read().kind, Wire::Kind::State);
    const QString folder = "/proc/%1/"_s.arg(agent.pid);
    const auto content = [&folder](const char *name) {
        QFile file(folder + QLatin1String(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("nothing");
    };
    QCOMPARE(content("cmdline"), QByteArray("auth-agent\0", 11));
    QVERIFY(QRegularExpression("Max core file size +0 +0 "_s).match(QString::fromLatin1(content("limits"))).hasMatch());
    if (getuid() == 0) {
        QVERIFY(!QFileInfo(folder + "fd/100"_s).isSymLink());
        QVERIFY(QFileInfo(folder + "fd/3"_s).isSymLink());
    } else {
        // A process that may not be looked into belongs to root.
        QCOMPARE(content("environ"), QByteArray("nothing"));
    }
}

void TestAgent::unlockedIsSaidByTheDaemonsAnswerAlone()
{
    RawAgent agent;
    agent.send(Wire::Follow{1});
    Wire::State state;
    do {
        QVERIFY(decode(agent.read(), state));
    } while (state.state == Wire::NothingYet);
    QCOMPARE(state.state, 1);
    daemon.hold("GetState"_s);
    daemon.clearCalls();
    daemon.emitSignal("StateChanged", "(0,)");
    daemon.waitCalls("GetState");
    // Three times it has said what it knows, meanwhile.
    for (int i = 0; i < 3; ++i) {
        QVERIFY(decode(agent.read(), state));
        QCOMPARE(state.state, 1);
    }
    daemon.behave();
    daemon.unlock();
    daemon.release();
    do {
        QVERIFY(decode(agent.read(), state));
    } while (state.state == 1);
    QCOMPARE(state.state, 0);
    // What it has known does not count in another epoch.
    daemon.hold("GetState"_s);
    daemon.clearCalls();
    agent.send(Wire::Follow{2});
    daemon.waitCalls("GetState");
    do {
        QVERIFY(decode(agent.read(), state));
    } while (state.epoch == 1);
    QCOMPARE(state.state, Wire::NothingYet);
    daemon.release();
    do {
        QVERIFY(decode(agent.read(), state));
    } while (state.state == Wire::NothingYet);
    QCOMPARE(state.state, 0);
}

QTEST_GUILESS_MAIN(TestAgent)

#include "tst_agent.moc"
