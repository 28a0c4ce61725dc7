#include "host-test-case.h"

#include <QtCore/QTemporaryDir>
#include <QtGui/QImage>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

/** How processes with QML screens end. */
class TestScreenExit : public HostTestCase
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void screenEnds_data();
    void screenEnds();
    void daemonReturnsWithoutItsSocket_data();
    void daemonReturnsWithoutItsSocket();
    void daemonDiesWhileTheScreenIsMade_data();
    void daemonDiesWhileTheScreenIsMade();
    void screenIsDrawnIntoAFile_data();
    void screenIsDrawnIntoAFile();

private:
    QTemporaryDir m_directory;
};

namespace {
const QString screenHost = QStringLiteral(SCREEN_HOST);
// QDBusConnection may know of no error when the connection was closed later.
const QString closed =
    QStringLiteral(R"(Cannot connect to "unix:path=/var/run/authd/authd\.socket" "authd_p2p(_settings)?_client" ".*")");
} // namespace

void TestScreenExit::initTestCase()
{
    // Qt Gui warns where there is none.
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(m_directory.path()));
}

void TestScreenExit::screenEnds_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status");
    for (const char *ending : {"close", "quit", "exit", "engine", "never"}) {
        for (const char *calls : {"idle", "flight"})
            QTest::newRow(QByteArray(ending) + ' ' + calls)
                << QStringList{QLatin1String(ending), QLatin1String(calls)} << (QByteArray(ending) == "exit" ? 7 : 0);
    }
}

void TestScreenExit::screenEnds()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, status);
    for (const char *method : {"Authenticate", "ChangeAuthData", "UnlockIfNeeded"})
        daemon.misbehave(method, "hold");
    QProcess host;
    start(host, screenHost, arguments);
    waitReady(host);
    sendQuit(host);
    checkEnd(host, status);
}

void TestScreenExit::daemonReturnsWithoutItsSocket_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("probe");
    const QStringList user{"--user"_s, "1000"_s};
    QTest::newRow("own") << screenHost << QStringList{"quit"_s, "flight"_s} << 1;
    for (const QString &screen : {"lockscreen"_s, "login"_s, "settings"_s})
        QTest::newRow(qPrintable(screen)) << QStringLiteral(SCREENS "/auth-") + screen << user << 1;
    // Descriptors that there are not, until Qt opens something; valgrind has its own.
    const int end = qEnvironmentVariableIsEmpty("AUTH_TEST_RUNNER") ? 10 : 3;
    for (int probe = 3; probe < end; ++probe)
        QTest::addRow("lockscreen %d", probe) << QStringLiteral(SCREENS "/auth-lockscreen") << user << probe;
}

void TestScreenExit::daemonReturnsWithoutItsSocket()
{
    QFETCH(QString, program);
    QFETCH(QStringList, arguments);
    QFETCH(int, probe);
    // In a device that is in use, the lock screen needs no client.
    daemon.request(R"({"do":"set-lock","state":1})");
    daemon.clearCalls();
    // The reference screens say that they are up where authd-hostcheck would hear it. It goes before them.
    const QString pipe = m_directory.filePath("probe"_s);
    QVERIFY(mkfifo(QFile::encodeName(pipe), 0600) == 0);
    pollfd listener = {open(QFile::encodeName(pipe), O_RDONLY | O_NONBLOCK | O_CLOEXEC), POLLIN, 0};
    qputenv("AUTHD_HOSTCHECK_FD", QByteArray::number(probe));
    QProcess host;
    host.setStandardOutputFile(pipe);
    start(host, program, arguments);
    const bool isUp = probe != 1 || poll(&listener, 1, 240000) == 1;
    close(listener.fd);
    QFile::remove(pipe);
    QVERIFY(isUp);
    if (program.endsWith("lockscreen"_s)) {
        // The client of a locked device asks for the state, too: it is there, and after the use another one is.
        daemon.waitCalls("GetState", 2);
        daemon.request(R"({"do":"set-lock","state":0})");
        daemon.request(R"({"do":"set-lock","state":1})");
        daemon.waitCalls("GetState", 3);
    }
    daemon.request(R"({"do":"stop"})");
    daemon.request(R"({"do":"start","socket":false})");
    // The client may still be on its way.
    checkEnd(host, 1, closed);
}

void TestScreenExit::daemonDiesWhileTheScreenIsMade_data()
{
    QTest::addColumn<int>("number");
    // The D-Bus thread is busy with the lost connection when the process ends: whether they get into each other's way
    // is a matter of luck.
    const int count = qEnvironmentVariableIsEmpty("AUTH_TEST_RUNNER") ? 40 : 2;
    for (int number = 0; number < count; ++number)
        QTest::addRow("%d", number) << number;
}

void TestScreenExit::daemonDiesWhileTheScreenIsMade()
{
    QProcess host;
    start(host, screenHost, {"quit"_s, "idle"_s});
    daemon.waitCalls("GetState");
    daemon.request(R"({"do":"stop"})");
    // Should the screen have been made before.
    daemon.request(R"({"do":"start","socket":false})");
    checkEnd(host, 1, closed);
}

void TestScreenExit::screenIsDrawnIntoAFile_data()
{
    QTest::addColumn<QString>("screen");
    for (const QString &screen : {"lockscreen"_s, "login"_s, "settings"_s})
        QTest::newRow(qPrintable(screen)) << screen;
}

void TestScreenExit::screenIsDrawnIntoAFile()
{
    QFETCH(QString, screen);
    const QString program = QStringLiteral(SCREENS "/auth-") + screen;
    const QString file = m_directory.filePath("picture.png"_s);
    QProcess host;
    start(host, program, {"--user"_s, "1000"_s, "--size"_s, "320x480"_s, "--screenshot"_s, file});
    checkEnd(host, 0);
    QCOMPARE(QImage(file).size(), QSize(320, 480));

    start(host, program, {"--user"_s, "1000"_s, "--screenshot"_s, m_directory.filePath("missing/picture.png"_s)});
    checkEnd(host, 3);
    QVERIFY2(said.contains("picture.png cannot be written"_s), qPrintable(said));

    for (const QStringList &wrong :
         {QStringList{"--size"_s, "0x480"_s}, QStringList{"--size"_s, "320"_s}, QStringList{"--theme"_s, "pink"_s},
          QStringList{"--user"_s, "me"_s}, QStringList{"more"_s}}) {
        start(host, program, wrong);
        checkEnd(host, 2);
    }
}

QTEST_GUILESS_MAIN(TestScreenExit)

#include "tst_screenexit.moc"
