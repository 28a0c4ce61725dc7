// A host in which subscriptions fail: deaf-host client|settings|devlock. It takes the place of the functions of Qt that
// subscribe, makes an object and ends.

#include <AuthClient>
#include <AuthDevlockClient>
#include <AuthSettingsClient>

#include <QtCore/QCoreApplication>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusServiceWatcher>

#include <cstring>

#include <dlfcn.h>

bool QDBusConnection::connect(const QString &, const QString &, const QString &, const QString &, const QString &,
                              QObject *, const char *)
{
    return false;
}

bool QDBusConnection::connect(const QString &, const QString &, const QString &, const QString &, QObject *,
                              const char *)
{
    return false;
}

QMetaObject::Connection QObject::connectImpl(const QObject *sender, void **signal, const QObject *receiver, void **slot,
                                             QtPrivate::QSlotObjectBase *slotObject, Qt::ConnectionType type,
                                             const int *types, const QMetaObject *senderMetaObject)
{
    using ConnectImpl = decltype(&QObject::connectImpl);
    static const auto original = [] {
        void *function = dlsym(RTLD_NEXT,
                               "_ZN7QObject11connectImplEPKS_PPvS1_S3_"
                               "PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPKiPK11QMetaObject");
        ConnectImpl typed;
        static_assert(sizeof typed == sizeof function);
        memcpy(&typed, &function, sizeof typed);
        return typed;
    }();
    if (qobject_cast<const QDBusServiceWatcher *>(sender)
        && qstrcmp(receiver->metaObject()->className(), "AuthDevlockClientPrivate") == 0) {
        slotObject->destroyIfLastRef();
        return {};
    }
    return original(sender, signal, receiver, slot, slotObject, type, types, senderMetaObject);
}

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QByteArray kind = application.arguments().value(1).toLatin1();
    if (kind == "client")
        delete new AuthClient;
    else if (kind == "settings")
        AuthSettingsClient::get();
    else if (kind == "devlock")
        delete new AuthDevlockClient;
    else
        return 2;
    return 0;
}
