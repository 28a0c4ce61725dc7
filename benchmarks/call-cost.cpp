// Makes factor method calls through AuthClient and, on the same connection, through a bare QDBusInterface. Prints the
// allocations of each; under callgrind, each phase's instructions are dumped under its name. With the argument
// `construct` it constructs a client and ends, for the round trips to be counted at the other side.

#include <AuthClient>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QTextStream>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusInterface>
#include <QtDBus/QDBusPendingCallWatcher>
#include <QtDBus/QDBusPendingReply>
#include <QtDBus/QDBusReply>
#include <QtDBus/QDBusVariant>

#include <valgrind/callgrind.h>

#include <atomic>
#include <cstdlib>
#include <functional>

namespace {

std::atomic<qint64> allocations;

constexpr int Calls = 200;

void check(const QVariant &value)
{
    if (value != QStringLiteral("2026-11-21"))
        qFatal("the stand-in did not echo the value");
}

qint64 measure(const char *phase, const std::function<void()> &call)
{
    for (int i = 0; i < 20; ++i)
        call();
    CALLGRIND_ZERO_STATS;
    const qint64 before = allocations;
    for (int i = 0; i < Calls; ++i)
        call();
    const qint64 after = allocations;
    CALLGRIND_DUMP_STATS_AT(phase);
    return after - before;
}

} // namespace

// Qt 5.15 allocates with malloc() and operator new alike, and operator new calls malloc().
// NOLINTBEGIN(bugprone-reserved-identifier): these names are glibc's.
extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_realloc(void *memory, size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);
// NOLINTEND(bugprone-reserved-identifier)

extern "C" void *malloc(size_t size)
{
    ++allocations;
    return __libc_malloc(size);
}

extern "C" void *calloc(size_t count, size_t size)
{
    ++allocations;
    return __libc_calloc(count, size);
}

extern "C" void *realloc(void *memory, size_t size)
{
    ++allocations;
    return __libc_realloc(memory, size);
}

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);

    AuthClient client;
    if (argc > 1 && qstrcmp(argv[1], "construct") == 0)
        return 0;

    const QByteArray token;
    const QString method = QStringLiteral("code");
    const QVariantMap params{{QStringLiteral("type"), QStringLiteral("echo")},
                             {QStringLiteral("uid"), 1000U},
                             {QStringLiteral("name"), QStringLiteral("last-login-date")},
                             {QStringLiteral("value"), QStringLiteral("2026-11-21")}};
    QDBusInterface bare(QStringLiteral("vantora.AuthService"), QStringLiteral("/vantora/AuthService"),
                        QStringLiteral("vantora.AuthService"), QDBusConnection(QStringLiteral("authd_p2p_client")));

    const qint64 bareBlocking = measure("blocking-bare", [&] {
        const QDBusReply<QDBusVariant> reply =
            bare.call(QDBus::Block, QStringLiteral("FactorMethod"), token, method, params);
        check(reply.value().variant());
    });
    const qint64 clientBlocking = measure("blocking-client", [&] { check(client.factorMethodWait(params, method)); });

    QEventLoop loop;
    const qint64 bareAsync = measure("async-bare", [&] {
        auto *watcher =
            new QDBusPendingCallWatcher(bare.asyncCall(QStringLiteral("FactorMethod"), token, method, params), &client);
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, &loop, [&](QDBusPendingCallWatcher *finished) {
            finished->deleteLater();
            const QDBusPendingReply<QDBusVariant> reply = *finished;
            check(reply.value().variant());
            loop.quit();
        });
        loop.exec();
    });
    const qint64 clientAsync = measure("async-client", [&] {
        client.factorMethod(params, method, [&](const QVariant &value) {
            check(value);
            loop.quit();
        });
        loop.exec();
    });

    QTextStream(stdout) << "blocking-bare " << double(bareBlocking) / Calls << "\nblocking-client "
                        << double(clientBlocking) / Calls << "\nasync-bare " << double(bareAsync) / Calls
                        << "\nasync-client " << double(clientAsync) / Calls << '\n';
    return 0;
}
