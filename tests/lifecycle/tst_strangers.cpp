// Before the headers whose keywords it uses as names.
#include <gio/gio.h>
#include <gio/gunixfdlist.h>

#include "host-test-case.h"

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/** Where a signal comes from, as far as its sender can say so. */
struct Origin
{
    const char *path;
    const char *interface;
    const char *sender;
};

constexpr Origin authd = {"/vantora/AuthService", "vantora.AuthService", nullptr};
constexpr Origin settings = {"/vantora/AuthService/Settings", "vantora.AuthService.Settings", nullptr};
constexpr Origin devlock = {"/vantora/AuthService/Devlock", "vantora.AuthService.Devlock", nullptr};
constexpr Origin theBus = {"/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus"};
// What a bus library tells itself.
constexpr Origin local = {"/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local", theBus.sender};

struct Signal
{
    const char *name;
    Origin origin;
    const char *rightArgs = nullptr;
};

constexpr Signal theNine[] = {
    {"Authenticated", authd, "([byte 0x01],)"},
    {"AuthenticationFailed", authd, "()"},
    {"AuthDataChanged", authd, "()"},
    {"ChangeAuthDataFailed", authd, "()"},
    {"UnlockIfNeededFinished", authd, "(true,)"},
    {"Factor", settings, "('code', {'a': <1>})"},
    {"OptionChanged", settings, "('worker/can-switch-to-user', <false>)"},
    {"UserOptionChanged", settings, "(uint32 1000, 'worker/is-user-settable', <false>)"},
    {"StateChanged", devlock, "(4,)"},
};

constexpr Signal ofTheBus[] = {
    {"NameOwnerChanged", theBus},
    {"NameAcquired", theBus},
    {"NameLost", theBus},
    {"Disconnected", local},
    {"Disconnected", {local.path, theBus.interface, theBus.sender}},
    {"Disconnected", {theBus.path, local.interface, theBus.sender}},
};

constexpr const char *argsOfTheBus[] = {
    "()",
    "('vantora.AuthService', '%owner', '')",
    "('vantora.AuthService', '', ':9.9')",
    "('vantora.AuthService', '%owner', ':9.9')",
    "('vantora.AuthService',)",
    "((4,),)",
    "({'a': 'b'},)",
    "(['vantora.AuthService'], ['%owner'], [''])",
    "('vantora.AuthService', ('%owner',), {'a': 'b'})",
};

// Each of another signature; what is right for one signal is wrong for the other eight.
// clang-format off
constexpr const char *allArgs[] = {
    "()",
    // basic types
    "('x',)", "(uint32 4,)", "(int64 4,)", "(uint64 4,)", "(int16 4,)", "(uint16 4,)", "(byte 0x04,)", "(4.0,)",
    "(objectpath '/a',)", "(signature 's',)", "(true,)", "(4,)", "(handle 0,)",
    // variants
    "(<4>,)", "(<(4,)>, <[byte 0x01]>)",
    // arrays
    "([byte 0x01],)", "(['a'],)", "([4],)", "([true],)", "([<4>],)", "([[byte 0x01]],)", "([[4]],)", "([[[[4]]]],)",
    "([handle 0],)", "(@a(iiii) [],)",
    // dictionaries
    "({'a': 'b'},)", "({'a': <4>},)", "({'a': 4},)", "({objectpath '/a': {'a': <4>}},)", "({'a': (4, true)},)",
    "({4: [byte 0x01]},)",
    // structures
    "((4,),)", "(([byte 0x01],),)", "((true,),)", "(('a', 4),)", "(((4,),),)", "([(4, 4)],)", "([('a', <4>)],)",
    "(({'a': <4>},),)", "((<4>,),)",
    // one argument more
    "([byte 0x01], 4)", "(true, true)", "(4, 4)",
    // Factor's: right, then with a part of another type, another order, another number
    "('code', {'a': <1>})", "('code', {'a': 'b'})", "('code', 4)", "('code', {1: <1>})", "('code', [<1>])",
    "('code', ('a', <1>))", "('code', <{'a': <1>}>, {'a': <1>})", "(['code'], {'a': <1>})", "({'a': <1>}, 'code')",
    "('code', {'a': <1>}, 4)", "(('code', {'a': <1>}),)",
    // OptionChanged's
    "('worker/can-switch-to-user', <false>)", "('worker/can-switch-to-user', false)",
    "('worker/can-switch-to-user', (<false>,))", "(('worker/can-switch-to-user',), <false>)",
    "(<'worker/can-switch-to-user'>, <false>)", "(<false>, 'worker/can-switch-to-user')",
    "('worker/can-switch-to-user', <false>, <false>)",
    // UserOptionChanged's
    "(uint32 1000, 'worker/is-user-settable', <false>)", "(1000, 'worker/is-user-settable', <false>)",
    "([uint32 1000], 'worker/is-user-settable', <false>)", "((uint32 1000,), 'worker/is-user-settable', <false>)",
    "(<uint32 1000>, 'worker/is-user-settable', <false>)", "(uint32 1000, ['worker/is-user-settable'], <false>)",
    "(uint32 1000, 'worker/is-user-settable', {'a': <false>})", "(uint32 1000, 'worker/is-user-settable', [false])",
    "('worker/is-user-settable', uint32 1000, <false>)", "(uint32 1000, 'worker/is-user-settable', <false>, 4)",
};
// clang-format on

/** What all signals of the daemon are heard as, and what is shown then. */
const char heardOnTheSocket[] = R"(client authenticatedChanged(01)
client authenticatedChanged()
client discredit()
client authDataChanged()
client changeAuthDataFailed()
client unlockIfNeededFinished(true)
client factorSignal(code, QVariant(QVariantMap, QMap(("a", QVariant(int, 1)))))
settings authenticatedChanged(01)
settings authenticatedChanged()
settings discredit()
settings authDataChanged()
settings changeAuthDataFailed()
settings unlockIfNeededFinished(true)
settings factorSignal(code, QVariant(QVariantMap, QMap(("a", QVariant(int, 1)))))
settings canSwitchToUserChanged()
settings model resets
settings model reset
settings model loginFactorsCountChanged()
settings isUserSettableChanged()
client authenticated 0, progress 0
settings can switch 0, settable 0, multi 0, notifications 1, code chosen, smartcard chosen unlock
devlock state 5, enabled 1
)";
/** The same where nothing came over the socket. */
const char heardOnTheBusAlone[] = R"(client authenticated 0, progress 0
settings can switch 1, settable 1, multi 0, notifications 1, code chosen, smartcard, sudis, broken, slow
devlock state 5, enabled 1
)";

void require(bool done, const char *what)
{
    if (!done)
        qFatal("%s: %s", what, strerror(errno));
}

GVariant *variant(const QByteArray &args)
{
    g_autoptr(GError) error = nullptr;
    GVariant *const value = g_variant_parse(nullptr, args.constData(), nullptr, nullptr, &error);
    if (!value)
        qFatal("%s: %s", args.constData(), error->message);
    return value;
}

QByteArray signatureOf(const QByteArray &args)
{
    g_autoptr(GVariant) value = variant(args);
    const QByteArray tuple = g_variant_get_type_string(value);
    return tuple.mid(1, tuple.size() - 2);
}

GDBusMessage *message(const Origin &origin, const QByteArray &name, const QByteArray &args, const QByteArray &receiver)
{
    GDBusMessage *const result = g_dbus_message_new_signal(origin.path, origin.interface, name.constData());
    g_dbus_message_set_sender(result, origin.sender);
    if (!receiver.isEmpty())
        g_dbus_message_set_destination(result, receiver.constData());
    g_autoptr(GVariant) body = variant(args);
    g_dbus_message_set_body(result, body);
    return result;
}

/** A signal as it goes over a socket. */
QByteArray blob(const Origin &origin, const QByteArray &name, const QByteArray &args, const QByteArray &receiver = {})
{
    // Bus libraries make no message in what is kept for themselves.
    const QByteArray path = QByteArray(origin.path).replace("Local", "Loca_");
    const QByteArray interface = QByteArray(origin.interface).replace("Local", "Loca_");
    g_autoptr(GDBusMessage) signal =
        message({path.constData(), interface.constData(), origin.sender}, name, args, receiver);
    g_dbus_message_set_serial(signal, 0x7fffffff);
    gsize size = 0;
    g_autoptr(GError) error = nullptr;
    g_autofree guchar *bytes = g_dbus_message_to_blob(signal, &size, G_DBUS_CAPABILITY_FLAGS_NONE, &error);
    if (!bytes)
        qFatal("%s", error->message);
    return QByteArray(reinterpret_cast<const char *>(bytes), int(size)).replace("Loca_", "Local");
}

/** Any process on the system bus; where the bus follows a policy, one that does not have the daemon's user id. */
class Stranger
{
public:
    Stranger();
    ~Stranger()
    {
        g_object_unref(m_bus);
    }
    Q_DISABLE_COPY(Stranger)

    /** Sends a signal to all, or to @p receiver alone. */
    void send(const Origin &origin, const QByteArray &name, const QByteArray &args, const QByteArray &receiver = {});
    void sendRaw(const QByteArray &bytes);
    /** What the bus answers: nothing if it does as it is asked. Until then it has passed on what was sent before. */
    QByteArray call(const char *method, const QByteArray &args);

private:
    static gboolean allowMechanism(GDBusAuthObserver *, const char *mechanism)
    {
        return g_str_equal(mechanism, "ANONYMOUS");
    }

    GDBusConnection *m_bus;
};

Stranger::Stranger()
{
    // Only a root that is not an ordinary user's can have other user ids; a client without an identity has none either
    // that a policy could name.
    const bool differs = qEnvironmentVariableIsSet("AUTHD_WORLD_BUS_POLICY");
    const bool hasOtherId = differs && seteuid(65534) == 0;
    g_autoptr(GDBusAuthObserver) anonymous = g_dbus_auth_observer_new();
    g_signal_connect(anonymous, "allow-mechanism", G_CALLBACK(allowMechanism), nullptr);
    const auto flags = GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                            | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    g_autoptr(GError) error = nullptr;
    m_bus = g_dbus_connection_new_for_address_sync(qgetenv("DBUS_SYSTEM_BUS_ADDRESS").constData(), flags,
                                                   differs && !hasOtherId ? anonymous : nullptr, nullptr, &error);
    if (!m_bus)
        qFatal("No system bus for a stranger: %s", error->message);
    if (hasOtherId)
        require(seteuid(0) == 0, "seteuid");
}

void Stranger::send(const Origin &origin, const QByteArray &name, const QByteArray &args, const QByteArray &receiver)
{
    g_autoptr(GDBusMessage) signal = message(origin, name, args, receiver);
    if (args.contains("handle")) {
        g_autoptr(GUnixFDList) descriptors = g_unix_fd_list_new();
        g_unix_fd_list_append(descriptors, STDERR_FILENO, nullptr);
        g_dbus_message_set_unix_fd_list(signal, descriptors);
    }
    g_autoptr(GError) error = nullptr;
    if (!g_dbus_connection_send_message(m_bus, signal, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, &error))
        qFatal("A stranger's signal cannot be sent: %s", error->message);
}

void Stranger::sendRaw(const QByteArray &bytes)
{
    require(g_output_stream_write_all(g_io_stream_get_output_stream(g_dbus_connection_get_stream(m_bus)),
                                      bytes.constData(), gsize(bytes.size()), nullptr, nullptr, nullptr),
            "A stranger's bytes cannot be sent");
}

QByteArray Stranger::call(const char *method, const QByteArray &args)
{
    g_autoptr(GVariant) arguments = variant(args);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_sync(m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    method, arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, 120000, nullptr, &error);
    return reply ? QByteArray() : QByteArray(error->message);
}

/** Stands between the daemon's socket and those who connect to it meanwhile, and says what the daemon would not. */
class SocketTap
{
public:
    SocketTap();
    ~SocketTap();
    Q_DISABLE_COPY(SocketTap)

    /** Writes to all that are connected; they are, once they have heard anything. */
    void write(const QByteArray &bytes);
    /** Waits until those that are connected have closed their connections. */
    void waitClosed();

private:
    void run();

    int m_listener;
    int m_stop[2];
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    QVector<QPair<int, int>> m_pairs; ///< the descriptors of a connection: towards the host, towards the daemon
};

const char socketPath[] = "/run/authd/authd.socket";
const char movedPath[] = "/run/authd/tapped.socket";

int openSocket(const char *path, int (*use)(int, const sockaddr *, socklen_t))
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path, sizeof address.sun_path);
    require(use(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, path);
    return fd;
}

/** Passes on what there is; false when there will be no more. */
bool passOn(int from, int to)
{
    char buffer[65536];
    const ssize_t size = recv(from, buffer, sizeof buffer, 0);
    return size > 0 && send(to, buffer, size_t(size), MSG_NOSIGNAL) == size;
}

SocketTap::SocketTap()
{
    require(rename(socketPath, movedPath) == 0, "rename");
    m_listener = openSocket(socketPath, bind);
    require(listen(m_listener, 10) == 0 && pipe2(m_stop, O_CLOEXEC) == 0, "listen");
    m_thread = std::thread([this] { run(); });
}

SocketTap::~SocketTap()
{
    close(m_stop[1]);
    m_thread.join();
    close(m_stop[0]);
    close(m_listener);
    for (const auto &[host, daemon] : qAsConst(m_pairs)) {
        close(host);
        close(daemon);
    }
    require(rename(movedPath, socketPath) == 0, "rename");
}

void SocketTap::run()
{
    for (;;) {
        std::vector<pollfd> polled{{m_stop[0], POLLIN, 0}, {m_listener, POLLIN, 0}};
        for (const auto &[host, daemon] : qAsConst(m_pairs)) {
            polled.push_back({host, POLLIN, 0});
            polled.push_back({daemon, POLLIN, 0});
        }
        if (poll(polled.data(), polled.size(), -1) < 0) {
            require(errno == EINTR, "poll");
            continue;
        }
        if (polled[0].revents)
            return;
        const std::lock_guard<std::mutex> guard(m_mutex);
        for (int i = m_pairs.size() - 1; i >= 0; --i) {
            const auto [host, daemon] = m_pairs.at(i);
            if ((polled[2 * size_t(i) + 2].revents && !passOn(host, daemon))
                || (polled[2 * size_t(i) + 3].revents && !passOn(daemon, host))) {
                close(host);
                close(daemon);
                m_pairs.removeAt(i);
                m_changed.notify_all();
            }
        }
        if (polled[1].revents)
            m_pairs.append({accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC), openSocket(movedPath, connect)});
    }
}

void SocketTap::write(const QByteArray &bytes)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    for (const auto &[host, daemon] : qAsConst(m_pairs))
        require(::send(host, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL) == bytes.size(), "send");
}

void SocketTap::waitClosed()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, std::chrono::minutes(2), [this] { return m_pairs.isEmpty(); }))
        qFatal("The hosts do not close their connections");
}

} // namespace

/**
 * Signals that the library must not take for the daemon's: those whose arguments are not the daemon's, from the daemon
 * itself and from any process on the system bus, and those that play the bus. A host that has met one lives, says
 * nothing, shows nothing new and hears everything that comes after it.
 */
class TestStrangers : public HostTestCase
{
    Q_OBJECT

private:
    void startHost(QProcess &host);
    QStringList linesUntil(QProcess &host, const QStringList &last);
    void checkUntouched(QProcess &host, bool hasSocket = true);

    const bool m_hasPolicy = qEnvironmentVariableIsSet("AUTHD_WORLD_BUS_POLICY");
    QByteArray m_busName; ///< the host's

private Q_SLOTS:
    void otherSignaturesAreNotHeard_data();
    void otherSignaturesAreNotHeard();
    void nobodyElseIsTakenForTheBus_data();
    void nobodyElseIsTakenForTheBus();
    void policyKeepsTheNameForTheDaemon();
};

void TestStrangers::startHost(QProcess &host)
{
    start(host, QStringLiteral(LISTENING_HOST), {});
    const QStringList ready = linesUntil(host, {"ready"_s});
    if (ready.size() != 1)
        qFatal("The host does not get ready: %s", host.readAllStandardError().constData());
    m_busName = ready.first().mid(6).toLatin1();
}

/** What the host says until it has said all of @p last, or has ended. */
QStringList TestStrangers::linesUntil(QProcess &host, const QStringList &last)
{
    QStringList lines;
    const auto isSaid = [&](const QString &text) { return !lines.filter(QRegularExpression("^"_s + text)).isEmpty(); };
    while (!std::all_of(last.begin(), last.end(), isSaid)) {
        if (!host.canReadLine() && !host.waitForReadyRead(300000))
            break;
        while (host.canReadLine())
            lines.append(QString::fromUtf8(host.readLine()).trimmed());
    }
    return lines;
}

/** Checks that the host hears what it should and has heard nothing else, and ends it. */
void TestStrangers::checkUntouched(QProcess &host, bool hasSocket)
{
    // A state that anybody but the daemon announces is heard where no policy forbids that.
    Stranger stranger;
    stranger.send(devlock, "StateChanged", "(2,)");
    stranger.send(devlock, "StateChanged", "(3,)", m_busName);
    stranger.call("GetId", "()");
    daemon.emitSignal("StateChanged", "(5,)");
    const QStringList states = linesUntil(host, {"state 5"_s});

    if (hasSocket) {
        for (const Signal &signal : theNine) {
            if (signal.origin.path != devlock.path)
                daemon.emitSignal(signal.name, signal.rightArgs);
        }
        daemon.emitSignal("Factor", "('drain-', @a{sv} {})");
        linesUntil(host, {"client drain-"_s, "settings drain-"_s});
    }
    host.closeWriteChannel();
    checkEnd(host, 0);
    if (QTest::currentTestFailed())
        return;
    const QStringList expected =
        m_hasPolicy ? QStringList{"state 5"_s} : QStringList{"state 2"_s, "state 3"_s, "state 5"_s};
    QCOMPARE(states, expected);
    QCOMPARE(QString::fromUtf8(host.readAllStandardOutput()),
             QString::fromLatin1(hasSocket ? heardOnTheSocket : heardOnTheBusAlone));

    // Besides what is told of connections: each of the three followers of the state tells of each.
    QStringList changes;
    for (const char *change : {"Undefined -> 0", "Unlocked -> 2", "ManagerLockout -> 3", "CodeEntryLockout -> 5"})
        changes.append(QLatin1String(change));
    if (m_hasPolicy)
        changes = QStringList{"Undefined -> 0"_s, "Unlocked -> 5"_s};
    QStringList told;
    for (const QString &change : qAsConst(changes)) {
        for (int follower = 0; follower < 3; ++follower)
            told.append("handleStateChanged AuthDevlockClient::"_s + change);
    }
    said.remove(QRegularExpression("^debug \\S+ "_s, QRegularExpression::MultilineOption));
    const QRegularExpression ofNoConnection("^(?!~?AuthdConnection |\\w+Private Connected )"_s);
    QCOMPARE(said.split(QLatin1Char('\n'), Qt::SkipEmptyParts).filter(ofNoConnection), told);
}

void TestStrangers::otherSignaturesAreNotHeard_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QByteArrayList>("wrong");
    const bool isSlow = IS_SANITIZED || !qEnvironmentVariableIsEmpty("AUTH_TEST_RUNNER");
    for (int i = 0; i < int(std::size(theNine)); ++i) {
        const Signal &signal = theNine[i];
        QByteArrayList wrong;
        for (const char *args : allArgs) {
            if (signatureOf(args) == signatureOf(signal.rightArgs))
                continue;
            wrong.append(args);
            if (!isSlow)
                QTest::newRow((signal.name + wrong.last()).constData()) << i << QByteArrayList{wrong.last()};
        }
        QVERIFY(wrong.size() == int(std::size(allArgs)) - 1);
        if (isSlow)
            QTest::newRow(signal.name) << i << wrong;
    }
}

void TestStrangers::otherSignaturesAreNotHeard()
{
    QFETCH(int, number);
    QFETCH(QByteArrayList, wrong);
    const Signal &signal = theNine[number];
    QProcess host;
    startHost(host);
    Stranger stranger;
    for (const QByteArray &args : qAsConst(wrong)) {
        // The daemon's own connections carry no descriptors.
        if (!args.contains("handle")) {
            daemon.emitSignal(signal.name, args, R"("bus":"peer")");
            daemon.emitSignal(signal.name, args, R"("bus":"system")");
        }
        stranger.send(signal.origin, signal.name, args);
        stranger.send(signal.origin, signal.name, args, m_busName);
    }
    QCOMPARE(stranger.call("GetId", "()"), QByteArray());
    checkUntouched(host);
}

void TestStrangers::nobodyElseIsTakenForTheBus_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<bool>("isOverTheSocket");
    for (int i = 0; i < int(std::size(ofTheBus)); ++i) {
        const QByteArray name =
            QByteArray(ofTheBus[i].origin.path) + ' ' + ofTheBus[i].origin.interface + '.' + ofTheBus[i].name;
        QTest::newRow(("bus " + name).constData()) << i << false;
        QTest::newRow(("socket " + name).constData()) << i << true;
    }
}

void TestStrangers::nobodyElseIsTakenForTheBus()
{
    QFETCH(int, number);
    QFETCH(bool, isOverTheSocket);
    const Signal &signal = ofTheBus[number];
    // Who sends what is kept for the bus libraries themselves loses the connection.
    const bool isClosed = signal.name == QByteArray("Disconnected");
    std::unique_ptr<SocketTap> tap;
    if (isOverTheSocket)
        tap = std::make_unique<SocketTap>();
    QProcess host;
    startHost(host);
    for (const char *pattern : argsOfTheBus) {
        const QByteArray args = QByteArray(pattern).replace("%owner", daemon.owner().toLatin1());
        if (tap) {
            tap->write(blob(signal.origin, signal.name, args));
        } else {
            for (const QByteArray &receiver : {QByteArray(), m_busName}) {
                Stranger stranger;
                stranger.sendRaw(blob(signal.origin, signal.name, args, receiver));
                QCOMPARE(!stranger.call("GetId", "()").isEmpty(), isClosed);
            }
        }
        if (tap && isClosed) {
            tap->waitClosed();
            break;
        }
    }
    // That anybody may say.
    if (tap && !isClosed) {
        tap->write(blob({settings.path, settings.interface, theBus.sender}, "Factor", "('drain-tap', @a{sv} {})"));
        QCOMPARE(linesUntil(host, {"client drain-tap"_s, "settings drain-tap"_s}).size(), 2);
    }
    checkUntouched(host, !(tap && isClosed));
}

void TestStrangers::policyKeepsTheNameForTheDaemon()
{
    Stranger stranger;
    const QByteArray problem = stranger.call("RequestName", "('vantora.AuthService', uint32 6)");
    QCOMPARE(!problem.isEmpty(), m_hasPolicy);
    QCOMPARE(problem.contains("AccessDenied"), m_hasPolicy);
}

QTEST_GUILESS_MAIN(TestStrangers)
#include "tst_strangers.moc"
