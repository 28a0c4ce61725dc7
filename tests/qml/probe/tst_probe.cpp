#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, int(size));
}

const int Patience = 120000;

// What the screens here do with a code.
const QByteArray screen = R"(
    import QtQml 2.15
    import Vantora.Auth.Testing 1.0

    QtObject {
        id: screen

        property bool open: false
        property Probe probe: Probe {
            unlocked: screen.open
            onEnter: code => screen.take(code)
        }

        function take(code) {
            console.log("[" + code + "]");
            if (code === "open" || code === "close")
                open = code === "open";
            if (code === "quit")
                Qt.quit();
        }
        %1
    }
)";

QByteArray screenWith(const QByteArray &members = QByteArray())
{
    return QByteArray(screen).replace("%1", members);
}

/** A screen as a process, and the other end of its probe. */
class Screen : public QProcess
{
public:
    /** With an empty @p value the variable is not set; "%" in it is the descriptor's number. */
    explicit Screen(const QByteArray &qml, QByteArray value = "%", int type = SOCK_STREAM)
    {
        int ends[2];
        if (socketpair(AF_UNIX, type, 0, ends) != 0)
            qFatal("no socket");
        fcntl(ends[0], F_SETFD, FD_CLOEXEC);
        descriptor = ends[1];
        probe = ends[0];
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove("AUTHD_HOSTCHECK_FD"_s);
        if (!value.isEmpty())
            environment.insert("AUTHD_HOSTCHECK_FD"_s,
                               QString::fromUtf8(value.replace('%', QByteArray::number(descriptor))));
        setProcessEnvironment(environment);
        QStringList command = splitCommand(qEnvironmentVariable("AUTH_TEST_RUNNER")) << QStringLiteral(PROBE_HOST);
        command << QString::fromUtf8(qml);
        const QString program = command.takeFirst();
        setReadChannel(StandardError);
        start(program, command);
        waitForStarted(Patience);
        ::close(ends[1]);
    }

    ~Screen() override
    {
        leave();
        kill();
        waitForFinished(Patience);
    }

    void leave()
    {
        if (probe >= 0)
            ::close(probe);
        probe = -1;
    }

    void say(const QByteArray &text) const
    {
        QCOMPARE(::send(probe, text.constData(), size_t(text.size()), MSG_NOSIGNAL), ssize_t(text.size()));
    }

    /** What it says up to the @p count-th end of a line, or all that it says until its end. */
    QByteArray heard(int count) const
    {
        QByteArray text;
        while (text.count('\n') < count) {
            char byte = 0;
            pollfd source = {probe, POLLIN, 0};
            if (poll(&source, 1, Patience) != 1 || ::read(probe, &byte, 1) != 1)
                break;
            text += byte;
        }
        return text;
    }

    /** What it has written to standard error, when it has ended with status 0. */
    QString log()
    {
        if (!waitForFinished(Patience) || exitStatus() != NormalExit || exitCode() != 0)
            return "status %1 %2"_s.arg(exitStatus()).arg(exitCode());
        return QString::fromUtf8(readAllStandardError());
    }

    int descriptor; ///< its number in the screen's process
    int probe;
};

} // namespace

/** The Probe of QML in processes that are run by something like authd-hostcheck, or by nothing. */
class TestProbe : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsClaims();
    void takesCodes();
    void longLines();
    void isInactive_data();
    void isInactive();
    void descriptorIsNotInherited();
    void otherSideGoes_data();
    void otherSideGoes();
    void otherSideDoesNotRead_data();
    void otherSideDoesNotRead();
    void secondProbe();
};

void TestProbe::tellsClaims()
{
    // What is set before the screen is complete, and set again, is told once.
    Screen host(screenWith("Component.onCompleted: open = false"));
    QCOMPARE(host.heard(1), "locked\n");
    host.say("enter open\nenter open\nenter close\nenter close\nenter open\nenter quit\n");
    QCOMPARE(host.log(), "qml: [open]\nqml: [open]\nqml: [close]\nqml: [close]\nqml: [open]\nqml: [quit]\n"_s);
    QCOMPARE(host.heard(9), "unlocked\nlocked\nunlocked\n");
}

void TestProbe::takesCodes()
{
    Screen host(screenWith());
    QCOMPARE(host.heard(1), "locked\n");
    host.say("enter  1 2 \nenter \nenter\nleave 1\n\nENTER 1\nenter \xc3\xa4\xe2\x82\xac\nenter op");
    host.say("en");
    host.say("\n");
    QCOMPARE(host.heard(1), "unlocked\n");
    host.say("enter quit\n");
    QCOMPARE(host.log(), "qml: [ 1 2 ]\nqml: []\nqml: [ä€]\nqml: [open]\nqml: [quit]\n"_s);
}

void TestProbe::longLines()
{
    Screen host(screenWith());
    const QByteArray longest(4096 - int(strlen("enter ")), '1');
    host.say("enter " + longest + "\nenter " + longest + "1\n");
    host.say("enter " + QByteArray(100000, '2') + "\nenter open\nenter quit\n");
    QCOMPARE(host.heard(2), "locked\nunlocked\n");
    QCOMPARE(host.log(), "qml: [%1]\nqml: [open]\nqml: [quit]\n"_s.arg(QLatin1String(longest)));
}

void TestProbe::isInactive_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("isRefused");
    QTest::newRow("not set") << QByteArray() << int(SOCK_STREAM) << false;
    QTest::newRow("no number") << QByteArray("one") << int(SOCK_STREAM) << true;
    QTest::newRow("rubbish behind the number") << QByteArray("%x") << int(SOCK_STREAM) << true;
    QTest::newRow("negative") << QByteArray("-1") << int(SOCK_STREAM) << true;
    QTest::newRow("too large") << QByteArray("4294967296") << int(SOCK_STREAM) << true;
    QTest::newRow("no descriptor") << QByteArray("1000") << int(SOCK_STREAM) << true;
    QTest::newRow("a pipe") << QByteArray("2") << int(SOCK_STREAM) << true;
    QTest::newRow("another kind of socket") << QByteArray("%") << int(SOCK_DGRAM) << true;
}

void TestProbe::isInactive()
{
    QFETCH(QByteArray, value);
    QFETCH(int, type);
    QFETCH(bool, isRefused);
    Screen host(screenWith(R"(
        Component.onCompleted: {
            open = true;
            console.log(probe.active, probe.unlocked);
            Qt.callLater(Qt.quit);
        }
    )"),
                value, type);
    const QString told = QString::fromUtf8(value.replace('%', QByteArray::number(host.descriptor)));
    QString expected = "qml: false true\n"_s;
    if (isRefused)
        expected.prepend("Probe: AUTHD_HOSTCHECK_FD names no end of a stream socket pair: \"%1\"\n"_s.arg(told));
    QCOMPARE(host.log(), expected);
    char byte = 0;
    QVERIFY(recv(host.probe, &byte, 1, MSG_DONTWAIT) <= 0);
}

void TestProbe::descriptorIsNotInherited()
{
    Screen host(screenWith());
    QCOMPARE(host.heard(1), "locked\n");
    QFile file("/proc/%1/fdinfo/%2"_s.arg(host.processId()).arg(host.descriptor));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray info = file.readAll();
    const QByteArray flags = info.split('\n').value(1);
    QVERIFY2(flags.startsWith("flags:"), info);
    QVERIFY2(flags.mid(6).trimmed().toInt(nullptr, 8) & O_CLOEXEC, info);
}

void TestProbe::otherSideGoes_data()
{
    QTest::addColumn<bool>("whileItIsTold");
    QTest::newRow("closes") << false;
    QTest::newRow("takes nothing any more") << true;
}

void TestProbe::otherSideGoes()
{
    QFETCH(bool, whileItIsTold);
    Screen host(screenWith(R"(
        property bool active: probe.active
        onActiveChanged: {
            console.log(active);
            if (!active)
                Qt.quit();
        }
    )"));
    QCOMPARE(host.heard(1), "locked\n");
    if (whileItIsTold) {
        shutdown(host.probe, SHUT_RD);
        host.say("enter open\n");
    } else {
        host.leave();
    }
    QCOMPARE(host.log(), whileItIsTold ? "qml: true\nqml: [open]\nqml: false\n"_s : "qml: true\nqml: false\n"_s);
}

void TestProbe::otherSideDoesNotRead_data()
{
    QTest::addColumn<int>("changes");
    QTest::addColumn<bool>("isActive");
    QTest::newRow("more than a socket takes") << 4000 << true;
    QTest::newRow("too much") << 40000 << false;
}

void TestProbe::otherSideDoesNotRead()
{
    QFETCH(int, changes);
    QFETCH(bool, isActive);
    Screen host(screenWith(R"(
        Component.onCompleted: {
            for (let i = 0; i < %2; ++i)
                open = !open;
            console.log(probe.active);
            if (!probe.active)
                Qt.callLater(Qt.quit);
        }
    )")
                    .replace("%2", QByteArray::number(changes)));
    if (!isActive) {
        QCOMPARE(host.log(), "qml: false\n"_s);
        return;
    }
    while (!host.canReadLine() && host.waitForReadyRead(Patience)) { }
    QByteArray told = "locked\n";
    for (int i = 0; i < changes; ++i)
        told += i % 2 == 0 ? "unlocked\n" : "locked\n";
    QCOMPARE(host.heard(changes + 1), told);
    host.say("enter quit\n");
    QCOMPARE(host.log(), "qml: true\nqml: [quit]\n"_s);
}

void TestProbe::secondProbe()
{
    Screen host(screenWith(R"(
        property Probe other
        property Component second: Component {
            Probe {
                unlocked: true
                onEnter: console.log("second")
            }
        }
        Component.onCompleted: {
            other = second.createObject();
            console.log(probe.active, other.active);
        }
    )"));
    QCOMPARE(host.heard(1), "locked\n");
    host.say("enter quit\n");
    QCOMPARE(host.log(),
             "Probe: there is another one in this process; this one does nothing\nqml: true false\nqml: [quit]\n"_s);
    QCOMPARE(host.heard(1), "");
}

QTEST_GUILESS_MAIN(TestProbe)
#include "tst_probe.moc"
