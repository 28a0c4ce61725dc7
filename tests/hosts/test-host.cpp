// A host whose life and end the tests watch from outside:
//     test-host app|staticapp|noapp CLASS STORAGE idle|flight END
// with CLASS client or devlock, STORAGE stack, heap, static, namespace or child (of a static object: the application if
// that is one), and END
//     return   the main function returns
//     exit     exit() is called
//     _exit    _exit() is called
//     loop     the event loop runs until the daemon sends the factor signal "quit"; a devlock locks the device and quits
//     second   another client is made once a line has come on standard input
// It writes "ready" when it waits for something.

#include "host.h"

#include <AuthDevlockClient>

#include <cstdlib>

namespace {
void startCalls(AuthDevlockClient *)
{
    // Its only call is the one that it makes by itself.
}

void quitOnSignal(AuthDevlockClient *client)
{
    // It hears none.
    const auto lockAndQuit = [client] {
        client->setState(AuthDevlockClient::Locked);
        QCoreApplication::quit();
    };
    QMetaObject::invokeMethod(client, lockAndQuit, Qt::QueuedConnection);
}

template <class Client> int live(Client *client, const Orders &orders)
{
    if (orders.flight)
        startCalls(client);
    if (orders.end == "exit")
        std::exit(0);
    if (orders.end == "_exit")
        _exit(0);
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
    return store<Client>(orders, [&orders](Client *client) { return live(client, orders); });
}
} // namespace

int main(int argc, char **argv)
{
    return runHost(argc, argv, [](const Orders &orders) {
        return orders.kind == "client" ? run<AuthClient>(orders) : run<AuthDevlockClient>(orders);
    });
}
