// Whatever is done over and over leaves nothing behind: each row of deeds() does one thing often, and what the process
// and its daemons hold is the same after a quarter of the times as at the end. AUTH_GROWTH_ALL does it as often as a
// host would in years.

#include "deeds.h"
#include "figures.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtDBus/QDBusConnection>

#include <deque>
#include <future>
#include <thread>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// By so many blocks the memory in use differs from one mark to the next: those of a message or two.
constexpr qint64 BlockSlack = 32;

} // namespace

class TestGrowth : public Doer
{
    Q_OBJECT

private:
    static void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &text);
    void repeat(const Deed &deed, int from, int to);
    QStringList grown(const Deed &deed, int patience);

    QString m_warning;
    /** Things of which a deed of leaksAreReported() makes ever more. */
    std::deque<std::shared_ptr<void>> m_kept;
    static TestGrowth *current;
    static QtMessageHandler previousHandler;

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void nothingGrows_data();
    void nothingGrows();
    void leaksAreReported_data();
    void leaksAreReported();
};

namespace {

/** A deed that leaves something behind, and the figure that tells. */
struct Leak
{
    const char *name;
    Figure figure;
    /** What is left behind goes with the pointer. Each time has a name of its own. */
    std::function<std::shared_ptr<void>(const QString &name)> make;
};

const QVector<Leak> &leaks()
{
    static const QVector<Leak> all{
        {"a byte", IS_SANITIZED ? Bytes : Blocks, [](const QString &) { return std::make_shared<char>(); }},
        {"a kilobyte at each call of a kind", IS_SANITIZED ? Bytes : Blocks,
         [](const QString &name) {
             // There are not as many kinds.
             return name.endsWith("0"_s) && name.at(name.size() - 2).digitValue() % 2
                 ? std::make_shared<std::array<char, 1024>>()
                 : nullptr;
         }},
        {"a byte array", Bytes, [](const QString &) { return std::make_shared<QByteArray>(1, 'x'); }},
        {"an object", Objects, [](const QString &) { return std::make_shared<QObject>(); }},
        {"a thread", Threads,
         [](const QString &) {
             const auto end = std::make_shared<std::promise<void>>();
             return std::shared_ptr<std::thread>(new std::thread([end = end->get_future()]() mutable { end.wait(); }),
                                                 [end](std::thread *thread) {
                                                     end->set_value();
                                                     thread->join();
                                                     delete thread;
                                                 });
         }},
        {"a file", Files,
         [](const QString &name) {
             const QString path = "/run/"_s + name;
             QFile(path).open(QFile::WriteOnly);
             return std::shared_ptr<void>(nullptr, [path](void *) { QFile::remove(path); });
         }},
        {"a descriptor", Descriptors,
         [](const QString &) {
             auto file = std::make_shared<QFile>("/dev/null"_s);
             file->open(QFile::ReadOnly);
             return file;
         }},
        {"a child that nobody waits for", Processes,
         [](const QString &) {
             pid_t child = 0;
             char name[] = "true";
             char *const arguments[] = {name, nullptr};
             posix_spawnp(&child, name, nullptr, nullptr, arguments, environ);
             return std::shared_ptr<void>(nullptr, [child](void *) { waitpid(child, nullptr, 0); });
         }},
        {"a connection to the daemon", Peers,
         [](const QString &name) {
             QDBusConnection::connectToPeer("unix:path=/var/run/authd/authd.socket"_s, name);
             return std::shared_ptr<void>(nullptr, [name](void *) { QDBusConnection::disconnectFromPeer(name); });
         }},
        {"a connection to the bus", BusClients,
         [](const QString &name) {
             QDBusConnection::connectToBus(QDBusConnection::SystemBus, name);
             return std::shared_ptr<void>(nullptr, [name](void *) { QDBusConnection::disconnectFromBus(name); });
         }},
        {"a subscription", MatchRules,
         [](const QString &name) {
             auto receiver = std::make_shared<QObject>();
             QDBusConnection::systemBus().connect(QString(), QLatin1Char('/') + name, "test.Growth"_s, "Grown"_s,
                                                  receiver.get(), SLOT(deleteLater()));
             return receiver;
         }},
    };
    return all;
}

} // namespace

TestGrowth *TestGrowth::current = nullptr;
QtMessageHandler TestGrowth::previousHandler = nullptr;

void TestGrowth::handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (type == QtWarningMsg && current->warningsAreAwaited)
        current->done();
    else if (type == QtWarningMsg && current->m_warning.isEmpty())
        current->m_warning = text;
    else if (type == QtCriticalMsg || type == QtFatalMsg)
        previousHandler(type, context, text);
}

void TestGrowth::initTestCase()
{
    // Hosts that leave files behind do so in this world.
    QVERIFY(QDir().mkpath("/run/tmp"_s));
    for (const char *place :
         {"TMPDIR", "HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"})
        qputenv(place, "/run/tmp");
}

void TestGrowth::cleanup()
{
    letGo();
    m_kept.clear();
    HostTestCase::cleanup();
}

/** The times from the one number up to the other. */
void TestGrowth::repeat(const Deed &deed, int from, int to)
{
    for (int number = from; number < to && !QTest::currentTestFailed();) {
        for (int i = 0; i < deed.atOnce && number < to; ++i)
            deed.act(this, number++);
        if (!requests.isEmpty()) {
            const QVector<QJsonObject> answers = daemon.requests(requests);
            for (const QJsonObject &answer : answers)
                QVERIFY2(answer.value("ok"_s).toBool(), qPrintable(answer.value("error"_s).toString()));
            requests.clear();
        }
        if (!waitFor([&] { return m_done >= number || QTest::currentTestFailed(); }))
            QFAIL(qPrintable("%1 of %2 are done"_s.arg(m_done).arg(number)));
        // What the daemon has sent besides.
        for (AuthClient *listener : {client.get(), static_cast<AuthClient *>(settings.get())}) {
            if (listener)
                drain(listener);
        }
        drainSystemBus();
        QCOMPARE(m_done, number);
        daemon.release();
        daemon.clearCalls();
    }
}

/** Does it four times as often as between two marks, after a while of getting used to it; what has grown meanwhile. */
QStringList TestGrowth::grown(const Deed &deed, int patience)
{
    // What takes a second costs three under a sanitizer.
    const int usually = IS_SANITIZED ? deed.usually / 2 : deed.usually;
    const int all = qEnvironmentVariableIsSet("AUTH_GROWTH_ALL") ? deed.inAll : usually;
    const int warmUp = qMax(deed.atOnce * 4, all / 8);
    const int quarter = qMax(deed.atOnce, all / 4);
    m_done = 0;
    m_warning.clear();
    deed.prepare(this);
    m_done = 0;

    std::array<Figures, 4> marks{};
    current = this;
    previousHandler = qInstallMessageHandler(handleMessage);
    repeat(deed, 0, warmUp);
    // For the first time that takes memory of its own.
    takeFigures(daemon);
    for (int i = 0; i < 4; ++i) {
        repeat(deed, warmUp + i * quarter, warmUp + (i + 1) * quarter);
        marks[size_t(i)] = takeFigures(daemon, i ? &marks[0] : nullptr, patience);
        // Whoever has waited in vain need not wait again.
        if (i && !isNoMore(marks[size_t(i)], marks[0]))
            patience = 0;
    }
    qInstallMessageHandler(previousHandler);

    QStringList complaints;
    if (!m_warning.isEmpty())
        complaints.append("warning: "_s + m_warning);
    printf("%s, %d times\n", deed.name, 4 * quarter);
    for (size_t figure = 0; figure < FigureCount; ++figure) {
        printf("  %-26s", figureNames[figure]);
        for (const Figures &mark : marks)
            printf(" %10lld", mark[figure]);
        // Memory is looked at when all other things have long come to rest.
        const bool isMemory = figure == Bytes || figure == Blocks;
        const qint64 growth = marks[3][figure] - marks[isMemory ? 1 : 0][figure];
        // No byte a time, where an allocation takes 24, and no block in 64 times: there are deeds of 20 kinds.
        const qint64 slack = figure == Bytes ? deed.slack + qint64(2) * quarter
            : figure == Blocks               ? BlockSlack + quarter / 32
                                             : 0;
        const bool grows = growth > slack;
        printf(grows ? "  grows\n" : "\n");
        if (grows)
            complaints.append("%1 by %2 in %3 times"_s.arg(QLatin1String(figureNames[figure]))
                                  .arg(growth)
                                  .arg((isMemory ? 2 : 3) * quarter));
    }
    return complaints;
}

void TestGrowth::nothingGrows_data()
{
    QTest::addColumn<int>("row");
    for (int row = 0; row < deeds().size(); ++row)
        QTest::newRow(deeds().at(row).name) << row;
}

void TestGrowth::nothingGrows()
{
    QFETCH(int, row);
    QCOMPARE(grown(deeds().at(row), 120000), QStringList());
}

void TestGrowth::leaksAreReported_data()
{
    QTest::addColumn<int>("row");
    for (int row = 0; row < leaks().size(); ++row)
        QTest::newRow(leaks().at(row).name) << row;
}

void TestGrowth::leaksAreReported()
{
    QFETCH(int, row);
    const Leak &leak = leaks().at(row);
    const bool isSmall = leak.figure <= Blocks;
    // Under valgrind malloc() is another.
    QVERIFY2(IS_SANITIZED || !isSmall || qEnvironmentVariableIsEmpty("AUTH_TEST_RUNNER"),
             "What valgrind allocates is not counted");
    const int times = isSmall ? 3000 : 80;
    const auto leaveBehind = [&leak](Doer *doer, int number) {
        const std::shared_ptr<void> left = leak.make("leak%1"_s.arg(number));
        // What is undone at the end may have no object.
        if (left.use_count() > 0)
            static_cast<TestGrowth *>(doer)->m_kept.push_back(left);
        doer->done();
    };
    const QStringList complaints = grown({leak.name, times, times, 10, [](Doer *) {}, leaveBehind, ByteSlack}, 0);
    const QString figure = QLatin1String(figureNames[leak.figure]) + QLatin1Char(' ');
    QVERIFY2(!complaints.filter(QRegularExpression(QLatin1Char('^') + figure)).isEmpty(),
             qPrintable(complaints.join("; "_s)));
}

QTEST_GUILESS_MAIN(TestGrowth)
#include "tst_growth.moc"
