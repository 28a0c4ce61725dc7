#pragma once

#include <AuthClient>

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <memory>

/** What a host is told by "app|staticapp|noapp CLASS STORAGE idle|flight END". */
struct Orders
{
    QByteArray kind;
    QByteArray storage;
    bool flight;
    QByteArray end;
    /** For storage "child": of a static object, the application if that is one. */
    QObject *parent;
};

inline std::unique_ptr<QObject> ofNamespace;
inline QObject *leaked = nullptr;

inline void sayReady()
{
    puts("ready");
    fflush(stdout);
}

inline void startCalls(AuthClient *client)
{
    const QVariantMap params{{QStringLiteral("challenge"), 1}};
    client->authenticate(QStringLiteral("login"), params);
    client->changeAuthData(QStringLiteral("code"), params);
    client->unlockIfNeeded();
    client->factorMethod(params, QStringLiteral("code"), [](const QVariant &) {});
}

inline void quitOnSignal(AuthClient *client)
{
    QObject::connect(client, &AuthClient::factorSignal, [](const QString &factor) {
        if (factor == QLatin1String("quit"))
            QCoreApplication::quit();
    });
}

/** Makes an object in the storage that the orders name, and returns what @p live returns for it. */
template <class Class, class Live> int store(const Orders &orders, Live live)
{
    if (orders.storage == "stack") {
        Class object(nullptr);
        return live(&object);
    }
    if (orders.storage == "static") {
        static Class object(nullptr);
        return live(&object);
    }
    if (orders.storage == "child") {
        static QObject owner;
        return live(new Class(orders.parent ? orders.parent : &owner));
    }
    auto *const object = new Class(nullptr);
    if (orders.storage == "namespace")
        ofNamespace.reset(object);
    else
        leaked = object;
    return live(object);
}

/** The main function of a host that does its work in @p obey. */
template <class Obey> int runHost(int argc, char **argv, Obey obey)
{
    if (argc != 6)
        return 2;
    std::unique_ptr<QCoreApplication> application;
    QObject *parent = nullptr;
    if (QByteArray(argv[1]) == "app") {
        application = std::make_unique<QCoreApplication>(argc, argv);
    } else if (QByteArray(argv[1]) == "staticapp") {
        static QCoreApplication staticApplication(argc, argv);
        parent = &staticApplication;
    }
    return obey(Orders{argv[2], argv[3], QByteArray(argv[4]) == "flight", argv[5], parent});
}
