// A host, built twice: with the library, and with Qt D-Bus alone (without WITH_LIBRARY) and what the library connects to
// for it. Without an argument it has linked its libraries and ends. With the name of a class it makes an object of the
// class, or what stands for it, and waits until the device-lock state is known.

#include "measure.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusInterface>
#include <QtDBus/QDBusPendingCallWatcher>
#include <QtDBus/QDBusPendingReply>
#include <QtDBus/QDBusServiceWatcher>
#include <QtDBus/QDBusVariant>

#include <cstdlib>

#ifdef WITH_LIBRARY
#include <AuthClient>
#include <AuthDevlockClient>
#include <AuthSettingsClient>

#define SIDE "library"
#else
#define SIDE "bare"
#endif

namespace {

#ifdef WITH_LIBRARY

void make(const QByteArray &what)
{
    QEventLoop loop;
    // The device is locked.
    if (what == "AuthDevlockClient") {
        auto *client = new AuthDevlockClient;
        QObject::connect(client, &AuthDevlockClient::stateChanged, &loop, &QEventLoop::quit);
    } else {
        AuthClient *client = what == "AuthClient" ? new AuthClient : new AuthSettingsClient(nullptr);
        QObject::connect(client, &AuthClient::discredit, &loop, &QEventLoop::quit);
    }
    loop.exec();
}

#else

const QString Service = QStringLiteral("vantora.AuthService");

/** One of the daemon's objects; takes signals, with what they carry, to slots of a receiver. */
class Object : public QDBusInterface
{
public:
    Object(const QDBusConnection &bus, const QString &path, const QString &interface)
        : QDBusInterface(Service, path, interface, bus)
    {
    }

    void subscribe(QObject *receiver, const char *signal, const char *signature, const char *slot)
    {
        connection().connect(QString(), path(), interface(), QLatin1String(signal), QLatin1String(signature), receiver,
                             slot);
    }
};

/** What a host without the library needs to follow the device-lock state. */
class BareDevlock : public QObject
{
    Q_OBJECT

public:
    BareDevlock()
        : m_object(QDBusConnection::systemBus(), QStringLiteral("/vantora/AuthService/Devlock"),
                   QStringLiteral("vantora.AuthService.Devlock"))
        , m_watcher(Service, QDBusConnection::systemBus(), QDBusServiceWatcher::WatchForOwnerChange)
    {
        m_object.subscribe(this, "StateChanged", "i", SLOT(handleState(int)));
        connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &BareDevlock::handleOwner);
        auto *watcher = new QDBusPendingCallWatcher(m_object.asyncCall(QStringLiteral("GetState")), this);
        connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *call) {
            call->deleteLater();
            const QDBusPendingReply<int> reply = *call;
            handleState(reply.value());
        });
    }

Q_SIGNALS:
    void stateKnown();

private Q_SLOTS:
    void handleState(int)
    {
        emit stateKnown();
    }
    void handleOwner(const QString &, const QString &, const QString &)
    {
    }

private:
    Object m_object;
    QDBusServiceWatcher m_watcher;
};

/** What a host without the library needs to authenticate. */
class BareClient : public QObject
{
    Q_OBJECT

public:
    BareDevlock devlock;

    BareClient()
        : m_bus(QDBusConnection::connectToPeer(QStringLiteral("unix:path=/var/run/authd/authd.socket"),
                                               QStringLiteral("bare")))
        , m_main(m_bus, QStringLiteral("/vantora/AuthService"), Service)
        , m_settings(m_bus, QStringLiteral("/vantora/AuthService/Settings"),
                     QStringLiteral("vantora.AuthService.Settings"))
        , m_watcher(Service, QDBusConnection::systemBus(), QDBusServiceWatcher::WatchForOwnerChange)
    {
        m_main.subscribe(this, "Authenticated", "ay", SLOT(handleToken(QByteArray)));
        m_main.subscribe(this, "AuthenticationFailed", "", SLOT(handleNothing()));
        m_main.subscribe(this, "AuthDataChanged", "", SLOT(handleNothing()));
        m_main.subscribe(this, "ChangeAuthDataFailed", "", SLOT(handleNothing()));
        m_main.subscribe(this, "UnlockIfNeededFinished", "b", SLOT(handleBool(bool)));
        m_settings.subscribe(this, "Factor", "sa{sv}", SLOT(handleFactor(QString, QVariantMap)));
        connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &BareClient::handleOwner);
    }

private Q_SLOTS:
    void handleToken(const QByteArray &)
    {
    }
    void handleNothing()
    {
    }
    void handleBool(bool)
    {
    }
    void handleFactor(const QString &, const QVariantMap &)
    {
    }
    void handleOwner(const QString &, const QString &, const QString &)
    {
    }

private:
    QDBusConnection m_bus;
    Object m_main;
    Object m_settings;
    QDBusServiceWatcher m_watcher;
};

void make(const QByteArray &what)
{
    QEventLoop loop;
    const BareDevlock *devlock = what == "AuthDevlockClient" ? new BareDevlock : &(new BareClient)->devlock;
    QObject::connect(devlock, &BareDevlock::stateKnown, &loop, &QEventLoop::quit);
    loop.exec();
}

#endif

/** What this process has written to since it began, in KiB. */
double ownMemory()
{
    QFile file(QStringLiteral("/proc/self/smaps_rollup"));
    if (file.open(QIODevice::ReadOnly)) {
        const QList<QByteArray> lines = file.readAll().split('\n');
        for (const QByteArray &line : lines) {
            if (line.startsWith("Private_Dirty:"))
                return line.simplified().split(' ').value(1).toDouble();
        }
    }
    qFatal("the system does not tell of memory");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 1) {
        printFigure("linked." SIDE, "KiB", ownMemory());
        return 0;
    }
    const QByteArray what = argv[1];
    const QCoreApplication application(argc, argv);
    measureOnce((what + "." SIDE).constData(), [&] { make(what); });
    printFigure((what + "." SIDE).constData(), "KiB", ownMemory());
    std::quick_exit(0);
}

#ifndef WITH_LIBRARY
#include "host.moc"
#endif
