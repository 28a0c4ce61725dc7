// A host whose life and end the tests watch from outside:
//     test-host app|staticapp|noapp CLASS STORAGE idle|flight END
// with CLASS client or devlock, STORAGE stack, heap, static, namespace or child (of a static object: the application if
// that is one), and END
//     return   the main function returns
//     exit     exit() is called
//     loop     the event loop runs until the daemon sends the factor signal "quit"
//     second   another client is made once a line has come on standard input
// It writes "ready" when it waits for something.

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {
std::unique_ptr<QObject> ofNamespace;
QObject *leaked = nullptr;

struct Orders
{
    QByteArray storage;
    bool flight;
    QByteArray end;
    QObject *parent;
};

void sayReady()
{
    puts("ready");
    fflush(stdout);
}

void startCalls(AuthClient *client)
{
    const QVariantMap params{{QStringLiteral("challenge"), 1}};
    client->authenticate(QStringLiteral("login"), params);
    client->changeAuthData(QStringLiteral("code"), params);
    client->unlockIfNeeded();
    client->factorMethod(params, QStringLiteral("code"), [](const QVariant &) {});
}

void startCalls(AuthDevlockClient *)
{
    // Its only call is the one that it makes by itself.
}

void quitOnSignal(AuthClient *client)
{
    QObject::connect(client, &AuthClient::factorSignal, [](const QString &factor) {
        if (factor == QLatin1String("quit"))
            QCoreApplication::quit();
    });
}

void quitOnSignal(AuthDevlockClient *)
{
}

template <class Client> int live(Client *client, const Orders &orders)
{
    if (orders.flight)
        startCalls(client);
    if (orders.end == "exit")
        std::exit(0);
    if (orders.end == "loop") {
        quitOnSignal(client);
        sayReady();
        return QCoreApplication::exec();
    }
    if (orders.end == "second") {
        sayReady();
        getchar();
        delete new AuthClient;
    }
    return 0;
}

template <class Client> int run(const Orders &orders)
{
    if (orders.storage == "stack") {
        Client client;
        return live(&client, orders);
    }
    if (orders.storage == "static") {
        static Client client;
        return live(&client, orders);
    }
    if (orders.storage == "child") {
        static QObject owner;
        return live(new Client(orders.parent ? orders.parent : &owner), orders);
    }
    auto *client = new Client;
    if (orders.storage == "namespace")
        ofNamespace.reset(client);
    else
        leaked = client;
    return live(client, orders);
}
} // namespace

int main(int argc, char **argv)
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
    const Orders orders{argv[3], QByteArray(argv[4]) == "flight", argv[5], parent};
    return QByteArray(argv[2]) == "client" ? run<AuthClient>(orders) : run<AuthDevlockClient>(orders);
}
