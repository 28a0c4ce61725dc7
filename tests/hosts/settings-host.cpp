// A host of the settings part of the library, whose life and end the tests watch from outside:
//     settings-host app|staticapp|noapp CLASS STORAGE idle|flight END
// with CLASS singleton, late (the same, after another client was made and deleted; STORAGE means nothing for these
// two), client (an AuthSettingsClient beside the singleton), only (one without it), factor (FactorSettingsBase) or user
// (AuthSettings), STORAGE stack, heap, static, namespace or child (of a static object: the application if that is one),
// and END
//     return   the main function returns
//     exit     exit() is called
//     loop     the event loop runs until the daemon sends the factor signal "quit"
//     deleted  another client is made and deleted, then the main function returns
//     second   another client is made once a line has come on standard input
// It writes "ready" when it waits for something.

#include "host.h"

#include <AuthSettings>
#include <AuthSettingsClient>
#include <FactorSettingsBase>

#include <cstdlib>

namespace {
AuthSettingsClient *lastMade = nullptr;

struct Client : AuthSettingsClient
{
    explicit Client(QObject *parent)
        : AuthSettingsClient(parent)
    {
        lastMade = this;
    }
};

struct Factor : FactorSettingsBase
{
    explicit Factor(QObject *parent)
        : FactorSettingsBase(parent, QStringLiteral("code"))
    {
        lastMade = AuthSettingsClient::get();
    }
};

struct User : AuthSettings
{
    explicit User(QObject *parent)
        : AuthSettings(parent)
    {
        setUid(1000);
        lastMade = AuthSettingsClient::get();
    }
};

int live(AuthSettingsClient *client, const Orders &orders)
{
    client->setUid(1000);
    if (client->factors()->rowCount() != 5)
        return 3;
    if (orders.flight)
        startCalls(client);
    if (orders.end == "exit")
        std::exit(0);
    if (orders.end == "loop") {
        quitOnSignal(client);
        sayReady();
        return QCoreApplication::exec();
    }
    if (orders.end == "deleted")
        delete new AuthSettingsClient(nullptr);
    if (orders.end == "second") {
        sayReady();
        getchar();
        delete new AuthSettingsClient(nullptr);
    }
    return 0;
}

template <class Class> int run(const Orders &orders)
{
    return store<Class>(orders, [&orders](Class *) { return live(lastMade, orders); });
}

int obey(const Orders &orders)
{
    if (orders.kind == "late")
        delete new AuthSettingsClient(nullptr);
    if (orders.kind == "singleton" || orders.kind == "late")
        return live(AuthSettingsClient::get(), orders);
    if (orders.kind == "factor")
        return run<Factor>(orders);
    if (orders.kind == "user")
        return run<User>(orders);
    if (orders.kind == "client")
        AuthSettingsClient::get();
    return run<Client>(orders);
}
} // namespace

int main(int argc, char **argv)
{
    return runHost(argc, argv, obey);
}
