// Where secrets are found that a host has handed to the library, or got from it: in no log, file, environment or
// command line; and how often in the process' memory, as a table for docs/threat-model.md.

#include "test-case.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtCore/QProcess>
#include <QtCore/QRandomGenerator>

#include <array>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

/** How often a secret is found. */
struct Copies
{
    int bus = 0; ///< As it is on the bus, in buffers of libdbus.
    int qt = 0;  ///< In a QByteArray or a QString.

    QString text() const
    {
        return "%1 + %2"_s.arg(bus).arg(qt);
    }
};

/** Whether the bytes are those of a QByteArray, or were: each begins after a header that ends with its own length. */
bool isByteArray(const QByteArray &memory, int at)
{
    quintptr offset = 0;
    if (at >= int(sizeof offset))
        memcpy(&offset, memory.constData() + at - sizeof offset, sizeof offset);
    return offset == sizeof(QArrayData);
}

/** All that the process may write to, which is what a core dump of it holds. */
Copies copiesIn(qint64 process, const QByteArray &secret)
{
    const QString text = QString::fromUtf8(secret);
    const QByteArray utf16(reinterpret_cast<const char *>(text.constData()), text.size() * int(sizeof(QChar)));
    const auto mappings = [process] {
        QFile maps("/proc/%1/maps"_s.arg(process));
        return maps.open(QFile::ReadOnly) ? maps.readAll().split('\n') : QList<QByteArray>();
    };
    const QList<QByteArray> lines = mappings();
    const int memory = open(qPrintable("/proc/%1/mem"_s.arg(process)), O_RDONLY | O_CLOEXEC);
    if (memory < 0 || lines.size() < 2)
        qFatal("The host's memory cannot be read");
    Copies copies;
    for (const QByteArray &line : lines) {
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.size() < 2 || !words.at(1).startsWith("rw"))
            continue;
        const QList<QByteArray> ends = words.first().split('-');
        const quint64 begin = ends.first().toULongLong(nullptr, 16);
        QByteArray content(int(ends.last().toULongLong(nullptr, 16) - begin), 0);
        if (pread(memory, content.data(), size_t(content.size()), off_t(begin)) != content.size()) {
            // A thread of the host may have returned this memory meanwhile.
            if (mappings().contains(line))
                qFatal("A part of the host's memory cannot be read: %s", line.constData());
            close(memory);
            return copiesIn(process, secret);
        }
        copies.qt += content.count(utf16);
        for (int at = content.indexOf(secret); at >= 0; at = content.indexOf(secret, at + 1))
            ++(isByteArray(content, at) ? copies.qt : copies.bus);
    }
    close(memory);
    return copies;
}

} // namespace

class TestSecrets : public TestCase
{
    Q_OBJECT

private:
    enum Care {
        Careless,
        Careful,
    };
    enum Moment {
        UnderWay,
        Answered,
        Dropped,
        Deleted,
        MomentCount,
    };
    enum Memory {
        All,
        InUse,
    };
    using Story = std::array<Copies, MomentCount>;

    void begin(const char *kind, Care care, Memory memory);
    void order(const QByteArray &line);
    void await(const QByteArray &word);
    Copies count() const;
    Copies countWithout(Memory memory, bool isGone) const;
    bool isTold(const QByteArray &text) const;
    Story live(Care care, Memory memory);
    void end();

    // Sanitizers and valgrind keep what is freed, and have a memory of their own.
    const bool isMeasured = !IS_SANITIZED && qEnvironmentVariableIsEmpty("AUTH_TEST_RUNNER");
    QProcess m_host;
    QByteArray m_said;
    QByteArray m_secret;

private Q_SLOTS:
    void init();
    void searchFindsWhatIsThere();
    void secretsAreInMemoryAlone_data();
    void secretsAreInMemoryAlone();
};

void TestSecrets::init()
{
    TestCase::init();
    m_secret = "s3cr3t-" + QByteArray::number(QRandomGenerator::system()->generate64(), 36) + "-0123456789";
    LogRecorder::forbid(m_secret);
}

void TestSecrets::begin(const char *kind, Care care, Memory memory)
{
    QVERIFY(QDir().mkpath("/run/home"_s));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *place :
         {"TMPDIR", "HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"})
        environment.insert(QLatin1String(place), "/run/home"_s);
    environment.insert("QT_LOGGING_RULES"_s, "*=true"_s);
    environment.insert("QDBUS_DEBUG"_s, "1"_s);
    environment.remove("MALLOC_PERTURB_"_s);
    // What is freed is overwritten at once.
    if (memory == InUse)
        environment.insert("GLIBC_TUNABLES"_s, "glibc.malloc.perturb=165:glibc.malloc.tcache_count=0"_s);
    environment.insert("ASAN_OPTIONS"_s, environment.value("ASAN_OPTIONS"_s) + ":detect_leaks=0"_s);
    const QStringList command = QProcess::splitCommand(environment.value("AUTH_TEST_RUNNER"_s))
        + QStringList{QStringLiteral(SECRETS_HOST), QLatin1String(kind), care == Careful ? "careful"_s : "careless"_s};
    m_said.clear();
    m_host.setProcessEnvironment(environment);
    m_host.setProcessChannelMode(QProcess::SeparateChannels);
    m_host.start(command.first(), command.mid(1));
    await("ready");
}

void TestSecrets::order(const QByteArray &line)
{
    m_host.write(line + '\n');
    m_host.waitForBytesWritten(-1);
}

void TestSecrets::await(const QByteArray &word)
{
    m_host.setReadChannel(QProcess::StandardOutput);
    while (!m_host.canReadLine()) {
        if (!m_host.waitForReadyRead(300000))
            qFatal("The host does not say \"%s\": %s", word.constData(), m_host.readAllStandardError().constData());
    }
    const QByteArray line = m_host.readLine();
    m_said += line;
    if (line != word + '\n')
        qFatal("The host says \"%s\" instead of \"%s\"", line.constData(), word.constData());
}

Copies TestSecrets::count() const
{
    return isMeasured ? copiesIn(m_host.processId(), m_secret) : Copies();
}

/** The same; where Qt should have let go of the secret, its thread gets the time to do so. */
Copies TestSecrets::countWithout(Memory memory, bool isGone) const
{
    const QDeadlineTimer deadline(60000);
    Copies copies = count();
    while (memory == InUse && isGone && copies.qt > 0 && !deadline.hasExpired())
        copies = count();
    return copies;
}

/** Also as hexadecimal digits, and as QDBusMessage writes byte arrays to the log. */
bool TestSecrets::isTold(const QByteArray &text) const
{
    QByteArray numbers;
    for (const char byte : m_secret)
        numbers += QByteArray::number(byte) + ", ";
    numbers.chop(2);
    return text.contains(m_secret) || text.toLower().contains(m_secret.toHex()) || text.contains(m_secret.toBase64())
        || text.contains(numbers);
}

/** Ends the host. The secret has been in no place that outlives a process, or that others see. */
void TestSecrets::end()
{
    for (const char *name : {"environ", "cmdline"}) {
        QFile file("/proc/%1/%2"_s.arg(m_host.processId()).arg(QLatin1String(name)));
        QVERIFY(file.open(QFile::ReadOnly));
        const QByteArray content = file.readAll();
        QVERIFY(!content.isEmpty());
        QVERIFY2(!isTold(content), name);
    }
    m_host.closeWriteChannel();
    QVERIFY(m_host.waitForFinished(300000));
    QCOMPARE(m_host.exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_host.exitCode(), 0);
    m_said += m_host.readAllStandardError() + m_host.readAllStandardOutput();
    QVERIFY2(m_said.contains("AuthClientPrivate Connected to"), "There is no log");
    QVERIFY2(!isTold(m_said), m_said.constData());

    QDirIterator files("/run"_s, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        QFile file(files.next());
        // The machine's own.
        if (!file.fileName().startsWith("/run/user/"_s) && file.open(QFile::ReadOnly))
            QVERIFY2(!isTold(file.readAll()), qPrintable(file.fileName()));
    }
}

void TestSecrets::searchFindsWhatIsThere()
{
    QVERIFY2(isMeasured, "Only the allocator of glibc is looked through");
    begin("client", Careful, All);
    QCOMPARE(count().text(), Copies().text());
    order("keep " + m_secret);
    await("done");
    QCOMPARE(count().text(), (Copies{0, 2}).text());
    end();
}

void TestSecrets::secretsAreInMemoryAlone_data()
{
    QTest::addColumn<QByteArray>("method");  // Whose answer waits until the memory has been looked through.
    QTest::addColumn<QByteArray>("call");    // The order, with "S" for the secret.
    QTest::addColumn<QByteArray>("carrier"); // What else carries the secret: the token, a challenge, an answer.
    const auto row = [](const char *name, const char *method, const char *call, const char *carrier) {
        QTest::newRow(name) << QByteArray(method) << QByteArray(call) << QByteArray(carrier);
    };
    row("authenticate: the code", "Authenticate", "authenticate S", "");
    row("authenticate: the challenge", "Authenticate", "authenticate 0000", "challenge");
    row("changeAuthData: the old code", "ChangeAuthData", "change S 5678", "");
    row("changeAuthData: the new code", "ChangeAuthData", "change 1357 S", "");
    row("factorMethod: a parameter", "FactorMethod", "method S", "");
    row("factorMethodWait: a parameter", "FactorMethod", "wait S", "");
    row("factorMethod: the answer", "", "ask", "answer");
    row("factorMethod: the token", "FactorMethod", "ask", "token");
    row("setLocked: the token", "SetDevlockState", "lock", "token");
    row("setShowNotifications: the token", "SetUserOption", "write", "token");
    row("authenticatedChanged: the token", "", "", "token");
}

TestSecrets::Story TestSecrets::live(Care care, Memory memory)
{
    QFETCH(QByteArray, method);
    QFETCH(QByteArray, call);
    QFETCH(QByteArray, carrier);
    Story story;
    daemon.reset();
    if (carrier == "challenge")
        daemon.answer("RequestChallenge", byteTuple(m_secret));
    if (carrier == "answer")
        daemon.answer("FactorMethod", "(<'" + m_secret + "'>,)");
    begin(call == "write" ? "settings" : "client", care, memory);
    if (carrier == "token") {
        daemon.emitSignal("Authenticated", byteTuple(m_secret));
        await("authenticated");
    }
    if (!method.isEmpty())
        daemon.misbehave(method.constData(), "hold");
    const bool isWaitedFor = call == "lock" || call == "write" || call.startsWith("wait");
    if (!call.isEmpty())
        order(QByteArray(call).replace('S', m_secret));
    if (!call.isEmpty() && !isWaitedFor)
        await("started");
    if (!method.isEmpty()) {
        daemon.waitCalls(method.constData());
        story[UnderWay] = count();
        daemon.release();
    }
    if (!call.isEmpty())
        await("answered");
    const bool isKept = carrier == "token" || carrier == "challenge";
    story[Answered] = countWithout(memory, !isKept);
    order("drop");
    await("done");
    story[Dropped] = countWithout(memory, carrier != "challenge");
    order("delete");
    await("done");
    story[Deleted] = countWithout(memory, true);
    end();
    if (memory == InUse) {
        if (!isKept)
            [&] { QCOMPARE(story[Answered].qt, 0); }();
        if (carrier != "challenge")
            [&] { QCOMPARE(story[Dropped].qt, 0); }();
        [&] { QCOMPARE(story[Deleted].qt, 0); }();
    }
    return story;
}

/**
 * A line of the table: how often a secret is found, in buffers of libdbus and in values of Qt, in all memory of the
 * process and, in parentheses, in what is in use of it; and in the end how often where the host overwrites its own.
 */
void TestSecrets::secretsAreInMemoryAlone()
{
    QString line = "| %1 |"_s.arg(QLatin1String(QTest::currentDataTag()), -31);
    const Story all = live(Careless, All);
    const Story inUse = live(Careless, InUse);
    const Story careful = live(Careful, All);
    QFETCH(QByteArray, method);
    for (size_t moment = 0; moment < MomentCount; ++moment) {
        line += moment == UnderWay && method.isEmpty() ? " |"_s
                                                       : " %1 (%2) |"_s.arg(all[moment].text(), inUse[moment].text());
    }
    if (isMeasured)
        printf("%s %s |\n", qPrintable(line), qPrintable(careful[Deleted].text()));
}

QTEST_GUILESS_MAIN(TestSecrets)
#include "tst_secrets.moc"
