// A host that makes one call, or waits for one signal, while something goes wrong: faults-host CALL ACT
//
// Once it is prepared it writes "ready", and then each thing that it hears: signals, what calls return, what callbacks
// get, warnings. Its orders come on standard input, a line each:
//     go    make the call: "calling" is written before it, and "called" when it is on its way or has returned
//     loop  run the event loop; until then nothing is delivered
//     act   ACT: delete the client ("deleted"), quit the event loop, or call exit()
//     end   write what is shown, once all that has been sent is delivered, and end
// "reconnected" is written when the client has followed the daemon to another instance.

#include "bus-round-trip.h"
#include "host.h"

#include <AuthDevlockClient>
#include <AuthSettingsClient>

#include <QtCore/QDebug>
#include <QtCore/QEventLoop>
#include <QtCore/QMetaEnum>
#include <QtCore/QMetaMethod>
#include <QtCore/QSocketNotifier>
#include <QtDBus/QDBusArgument>

#include <algorithm>
#include <cstdlib>

namespace {

const QVariantMap rightCode{{QStringLiteral("factor"), QStringLiteral("code")},
                            {QStringLiteral("data"), QStringLiteral("1234")},
                            {QStringLiteral("uid"), 1000U}};
const QVariantMap otherCode{{QStringLiteral("uid"), 1000U},
                            {QStringLiteral("old"), QStringLiteral("1234")},
                            {QStringLiteral("new"), QStringLiteral("4321")}};
const QVariantMap echo{{QStringLiteral("type"), QStringLiteral("echo")}, {QStringLiteral("value"), 5}};
const QVariantMap notice{{QStringLiteral("type"), QStringLiteral("notify")}, {QStringLiteral("params"), QVariantMap()}};
const QString code = QStringLiteral("code");
const QString login = QStringLiteral("login");

void say(const QString &line)
{
    puts(qPrintable(line));
    fflush(stdout);
}

/** The next order; waits while the event loop stands. */
QByteArray order()
{
    QByteArray line;
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) == 1 && byte != '\n')
        line += byte;
    return line;
}

QString written(const QVariant &value)
{
    if (!value.isValid())
        return QStringLiteral("invalid");
    if (value.userType() == QMetaType::QByteArray)
        return value.toByteArray().isEmpty() ? QString() : QStringLiteral("token");
    if (value.userType() == QMetaType::QVariantMap)
        return QLatin1Char('{') + QStringList(value.toMap().keys()).join(QLatin1Char(' ')) + QLatin1Char('}');
    return value.toString();
}

/** Writes every signal that an object's class and the bases of that declare. */
class Listener : public QObject
{
public:
    explicit Listener(const QObject *object)
    {
        const QMetaObject *type = object->metaObject();
        for (int i = QObject::staticMetaObject.methodCount(); i < type->methodCount(); ++i) {
            if (type->method(i).methodType() == QMetaMethod::Signal)
                QMetaObject::connect(object, i, this, i, Qt::DirectConnection);
        }
    }

    int qt_metacall(QMetaObject::Call call, int method, void **arguments) override
    {
        if (call != QMetaObject::InvokeMetaMethod)
            return QObject::qt_metacall(call, method, arguments);
        const QMetaMethod signal = sender()->metaObject()->method(method);
        QStringList texts;
        for (int i = 0; i < signal.parameterCount(); ++i) {
            const int type = signal.parameterType(i);
            const void *const value = arguments[i + 1];
            texts.append(
                written(type == QMetaType::QVariant ? *static_cast<const QVariant *>(value) : QVariant(type, value)));
        }
        say(QStringLiteral("%1(%2)").arg(QString::fromLatin1(signal.name()), texts.join(QStringLiteral(", "))));
        return -1;
    }
};

void sayComplaint(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    fprintf(stderr, "%s\n", qPrintable(qFormatLogMessage(type, context, text)));
    if (type != QtDebugMsg)
        say(QLatin1String(type == QtWarningMsg ? "warning " : "critical ") + text);
    static bool isReset = false;
    isReset = isReset || text.startsWith(QLatin1String("authd reset \":"));
    // Said from inside the handler that reconnects.
    if (isReset && text.startsWith(QLatin1String("AuthdConnection")))
        QMetaObject::invokeMethod(
            qApp, [] { say(QStringLiteral("reconnected")); }, Qt::QueuedConnection);
}

/** What makes the calls. Static, and so still there when exit() is called. */
std::unique_ptr<QObject> object;

AuthClient &client()
{
    return *static_cast<AuthClient *>(object.get());
}

AuthSettingsClient &settings()
{
    return *static_cast<AuthSettingsClient *>(object.get());
}

AuthDevlockClient &devlock()
{
    return *static_cast<AuthDevlockClient *>(object.get());
}

void awaitState(const AuthDevlockClient &follower)
{
    QEventLoop loop;
    QObject::connect(&follower, &AuthDevlockClient::stateChanged, &loop, &QEventLoop::quit);
    loop.exec();
}

void makeNothing()
{
}

void makeDevlock()
{
    object = std::make_unique<AuthDevlockClient>();
    awaitState(devlock());
}

void makeClient()
{
    object = std::make_unique<AuthClient>();
    // The client has heard the state when one that is younger has.
    awaitState(AuthDevlockClient());
}

void makeSettings()
{
    object = std::make_unique<AuthSettingsClient>(nullptr);
    awaitState(AuthDevlockClient());
}

void makeSettingsOfUser()
{
    makeSettings();
    settings().setUid(1000);
}

void fetchChallenge()
{
    makeClient();
    client().factorMethodWait(echo, code);
}

void authenticate()
{
    QEventLoop loop;
    QObject::connect(&client(), &AuthClient::authenticatedChanged, &loop, &QEventLoop::quit);
    client().authenticate(login, rightCode);
    loop.exec();
}

/** Writes that the client is there, and whether it serves its purpose. */
template <class Client> void makeAndTry()
{
    auto made = std::make_unique<Client>(nullptr);
    say(QStringLiteral("made"));
    if (made->factorMethodWait(echo, code) == QVariant(5))
        say(QStringLiteral("works"));
    object = std::move(made);
}

void setState()
{
    devlock().setState(AuthDevlockClient::SecurityUi);
    say(QStringLiteral("returned"));
}

struct Call
{
    const char *name;
    void (*prepare)();
    void (*make)();
};

const Call calls[] = {
    {"Authenticate", fetchChallenge, [] { client().authenticate(login, rightCode); }},
    {"ChangeAuthData", fetchChallenge, [] { client().changeAuthData(code, otherCode); }},
    {"UnlockIfNeeded", makeClient, [] { client().unlockIfNeeded(); }},
    {"SetDevlockState",
     [] {
         makeClient();
         authenticate();
     },
     [] { say(QStringLiteral("returned ") + written(client().setLocked(AuthDevlockClient::Locked))); }},
    {"RequestChallenge", makeClient, [] { client().authenticate(login, rightCode); }},
    {"FactorMethod", fetchChallenge,
     [] {
         client().factorMethod(notice, code,
                               [](const QVariant &value) { say(QStringLiteral("callback ") + written(value)); });
     }},
    {"FactorMethod waiting", fetchChallenge,
     [] { say(QStringLiteral("returned ") + written(client().factorMethodWait(notice, code))); }},
    {"GetOption", makeNothing,
     [] {
         object = std::make_unique<AuthSettingsClient>(nullptr);
         say(QStringLiteral("made"));
     }},
    {"GetUserOption", makeSettings,
     [] {
         const QString date = settings().lastLoginDate(1000);
         say(QStringLiteral("returned ") + (date.isEmpty() ? QStringLiteral("nothing") : date));
     }},
    {"GetUserOptions", makeSettings,
     [] {
         settings().setUid(1000);
         say(QStringLiteral("returned"));
     }},
    {"SetUserOption",
     [] {
         makeSettingsOfUser();
         authenticate();
     },
     [] {
         settings().setShowNotifications(false);
         say(QStringLiteral("returned"));
     }},
    {"GetState",
     [] {
         makeDevlock();
         object.reset();
     },
     [] { object = std::make_unique<AuthDevlockClient>(); }},
    {"SetState", makeDevlock, setState},
    {"SetState at start", makeNothing,
     [] {
         object = std::make_unique<AuthDevlockClient>();
         setState();
     }},
    {"new AuthClient", makeNothing, makeAndTry<AuthClient>},
    {"new AuthSettingsClient", makeNothing, makeAndTry<AuthSettingsClient>},
    {"new AuthDevlockClient", makeNothing,
     [] {
         object = std::make_unique<AuthDevlockClient>();
         say(QStringLiteral("made"));
     }},
    {"on Authenticated", makeClient, makeNothing},
    {"on AuthenticationFailed", makeClient, makeNothing},
    {"on AuthDataChanged", makeClient, makeNothing},
    {"on ChangeAuthDataFailed", makeClient, makeNothing},
    {"on UnlockIfNeededFinished", makeClient, makeNothing},
    {"on Factor", makeClient, makeNothing},
    {"on OptionChanged", makeSettings, makeNothing},
    {"on UserOptionChanged", makeSettingsOfUser, makeNothing},
    {"on StateChanged", makeDevlock, makeNothing},
};

QString shown()
{
    if (const auto *const follower = qobject_cast<AuthDevlockClient *>(object.get()))
        return QStringLiteral("is ")
            + QLatin1String(QMetaEnum::fromType<AuthDevlockClient::LockState>().valueToKey(follower->state()));
    if (const auto *const page = qobject_cast<AuthSettingsClient *>(object.get()))
        return QStringLiteral("shows user %1, %2 rows%3%4%5")
            .arg(page->uid())
            .arg(page->factors()->rowCount())
            .arg(QLatin1String(page->canSwitchToUser() ? ", switching" : ""),
                 QLatin1String(page->showNotifications() ? ", notifications" : ""),
                 QLatin1String(page->token().isEmpty() ? "" : ", token"));
    const QString request = QLatin1String(client().progress() ? " asking" : "");
    const QString state = QLatin1String(client().authenticated() ? " authenticated" : "");
    return QStringLiteral("is") + (request.isEmpty() && state.isEmpty() ? QStringLiteral(" idle") : state + request);
}

void obey(const QByteArray &what, const QByteArray &act)
{
    if (what == "act" && act == "delete") {
        object.reset();
        say(QStringLiteral("deleted"));
    } else if (what == "act" && act == "quit") {
        QCoreApplication::quit();
    } else if (what == "act" && act == "exit") {
        std::exit(0);
    } else if (what == "end") {
        roundTripToSystemBus();
        QCoreApplication::processEvents();
        if (object)
            say(shown());
        QCoreApplication::quit();
    } else if (what.isEmpty()) {
        // Whoever gave the orders has gone.
        std::exit(3);
    }
}

} // namespace

int main(int argc, char **argv)
{
    tellOfCrashes();
    QCoreApplication application(argc, argv);
    const auto *const call = std::find_if(std::begin(calls), std::end(calls), [&](const Call &known) {
        return argc == 3 && argv[1] == QByteArray(known.name);
    });
    if (call == std::end(calls))
        return 2;
    const QByteArray act = argv[2];
    qInstallMessageHandler(sayComplaint);

    call->prepare();
    std::unique_ptr<Listener> listener;
    const auto listen = [&listener] { listener = std::make_unique<Listener>(object.get()); };
    if (object)
        listen();
    // Not looked at before the event loop is to run: a notifier that was ready once reads where nothing is left.
    QSocketNotifier orders(STDIN_FILENO, QSocketNotifier::Read);
    orders.setEnabled(false);
    QObject::connect(&orders, &QSocketNotifier::activated, &application, [&act] { obey(order(), act); });
    const auto begin = [&] {
        order();
        say(QStringLiteral("calling"));
        call->make();
        if (!listener)
            listen();
        // What has been called is on its way now.
        roundTripToSystemBus();
        say(QStringLiteral("called"));
        obey(order(), act);
        orders.setEnabled(true);
    };
    QMetaObject::invokeMethod(&application, begin, Qt::QueuedConnection);
    // What comes from now on is delivered later.
    say(QStringLiteral("ready"));
    const int status = QCoreApplication::exec();
    object.reset();
    return status;
}
