#pragma once

#include <AuthClient>

#include <QtCore/QCoreApplication>

#include <csignal>
#include <cstdio>
#include <memory>

#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

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

inline void writeStack(int)
{
    void *frames[64];
    backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
}

inline void writeStacks(int signal)
{
    writeStack(signal);
    // Of the thread of Qt D-Bus, which is made soon after the first one.
    for (pid_t thread = getpid(); thread < getpid() + 16; ++thread) {
        if (thread != gettid() && syscall(SYS_tgkill, getpid(), thread, SIGUSR1) == 0)
            usleep(100000);
    }
    raise(signal);
}

/** Has a host that crashes write where its threads are. */
inline void tellOfCrashes()
{
    // The first call loads a library.
    void *frame;
    backtrace(&frame, 1);
    std::signal(SIGUSR1, writeStack);
    for (int number : {SIGSEGV, SIGBUS, SIGABRT}) {
        struct sigaction action;
        sigaction(number, nullptr, &action);
        // A sanitizer tells more.
        if (action.sa_handler != SIG_DFL)
            continue;
        action.sa_handler = writeStacks;
        action.sa_flags = int(SA_RESETHAND);
        sigaction(number, &action, nullptr);
    }
}

/** The main function of a host that does its work in @p obey. */
template <class Obey> int runHost(int argc, char **argv, Obey obey)
{
    tellOfCrashes();
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
