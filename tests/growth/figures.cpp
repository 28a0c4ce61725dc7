#include "figures.h"

#include "bus-round-trip.h"

#include <AuthStandIn>

#include <QtCore/QCoreApplication>
#include <QtCore/QDeadlineTimer>
#include <QtCore/QDir>
#include <QtCore/QDirIterator>
#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusConnectionInterface>

#include <algorithm>
#include <atomic>
#include <functional>

#if IS_SANITIZED
// Not every compiler brings the header.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#else
#include "malloc-count.h"
#endif

// What QObject of Qt 5 calls when one is made and when one goes, at these places.
extern quintptr Q_DECL_IMPORT qtHookData[];

namespace {

std::atomic<qint64> objects(0);

const bool objectsAreCounted = [] {
    constexpr int addQObject = 3;
    constexpr int removeQObject = 4;
    qtHookData[addQObject] = quintptr(static_cast<void (*)(QObject *)>([](QObject *) { ++objects; }));
    qtHookData[removeQObject] = quintptr(static_cast<void (*)(QObject *)>([](QObject *) { --objects; }));
    return true;
}();

qint64 entries(const QString &directory)
{
    return QDir(directory).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size();
}

QStringList processes()
{
    return QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs);
}

QString standIn()
{
    const QStringList all = processes();
    for (const QString &process : all) {
        QFile name(QStringLiteral("/proc/%1/comm").arg(process));
        if (name.open(QFile::ReadOnly) && name.readAll() == "authd-standin\n")
            return process;
    }
    qFatal("There is no stand-in");
}

/** /run/user is the machine's own. */
qint64 filesOfTheWorld()
{
    qint64 count = 0;
    QDirIterator files(QStringLiteral("/run"), QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System | QDir::Hidden,
                       QDirIterator::Subdirectories);
    while (files.hasNext()) {
        if (!files.next().startsWith(QLatin1String("/run/user/")))
            ++count;
    }
    return count;
}

/** What the system bus says of itself, or of one of its clients. */
QVariantMap busStatistics(const QString &method, const QVariantList &arguments = {})
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                                       QStringLiteral("org.freedesktop.DBus.Debug.Stats"), method);
    call.setArguments(arguments);
    const QDBusMessage reply = QDBusConnection::systemBus().call(call);
    if (reply.type() != QDBusMessage::ReplyMessage)
        qFatal("The bus does not tell its figures: %s", qPrintable(reply.errorMessage()));
    return qdbus_cast<QVariantMap>(reply.arguments().value(0));
}

void settle(AuthStandIn &daemon)
{
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    // The thread of Qt D-Bus, where this object lives, closes connections in two steps.
    for (int i = 0; i < 2; ++i) {
        QMetaObject::invokeMethod(
            QDBusConnection::systemBus().interface(), [] {}, Qt::BlockingQueuedConnection);
        daemon.state();
        roundTripToSystemBus();
    }
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

Figures count(AuthStandIn &daemon)
{
    Figures figures{};
    figures[Peers] = daemon.state().value(QLatin1String("peers")).toArray().size();
    const QVariantMap bus = busStatistics(QStringLiteral("GetStats"));
    figures[BusClients] = bus.value(QStringLiteral("ActiveConnections")).toLongLong();
    figures[MatchRules] =
        busStatistics(QStringLiteral("GetConnectionStats"), {QDBusConnection::systemBus().baseService()})
            .value(QStringLiteral("MatchRules"))
            .toLongLong();
    figures[Descriptors] = entries(QStringLiteral("/proc/self/fd"));
    figures[Threads] = entries(QStringLiteral("/proc/self/task"));
    figures[DaemonDescriptors] = entries(QStringLiteral("/proc/%1/fd").arg(standIn()));
    figures[BusDescriptors] = entries(QStringLiteral("/proc/%1/fd").arg(qEnvironmentVariable("AUTHD_WORLD_BUS_PID")));
    figures[Processes] = processes().size();
    figures[Files] = filesOfTheWorld();
    figures[Objects] = objects;
#if IS_SANITIZED
    figures[Bytes] = qint64(__sanitizer_get_current_allocated_bytes());
#else
    figures[Bytes] = allocatedBytes();
    figures[Blocks] = allocatedBlocks();
#endif
    return figures;
}

} // namespace

const std::array<const char *, FigureCount> figureNames{"bytes",
                                                        "blocks",
                                                        "objects",
                                                        "descriptors",
                                                        "threads",
                                                        "peers",
                                                        "the daemon's descriptors",
                                                        "bus clients",
                                                        "match rules",
                                                        "the bus's descriptors",
                                                        "processes",
                                                        "files"};

bool isNoMore(const Figures &now, const Figures &before)
{
    return std::equal(now.begin() + Objects, now.end(), before.begin() + Objects, std::less_equal<>());
}

Figures takeFigures(AuthStandIn &daemon, const Figures *before, int patience)
{
    const QDeadlineTimer deadline(patience);
    Figures figures{};
    do {
        settle(daemon);
        figures = count(daemon);
    } while (before && !isNoMore(figures, *before) && !deadline.hasExpired());
    return figures;
}
