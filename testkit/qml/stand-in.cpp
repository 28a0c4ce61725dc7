#include "stand-in.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QJsonDocument>
#include <QtCore/QTimer>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>
#include <QtNetwork/QLocalSocket>
#include <QtQml/QJSEngine>

#include <climits>

namespace {

/** How long an answer may take that the stand-in does not delay by itself. */
constexpr int patience = 10000;

QJsonObject doing(const char *what, QJsonObject more = QJsonObject())
{
    more.insert(QLatin1String("do"), QLatin1String(what));
    return more;
}

QByteArray written(const QJsonObject &request)
{
    return QJsonDocument(request).toJson(QJsonDocument::Compact);
}

/** How long the answer to @p request may take. */
int timeoutOf(const QJsonObject &request)
{
    return patience + qBound(0, request.value(QLatin1String("timeout")).toInt(), INT_MAX - patience);
}

void throwError(QJSEngine *engine, const QString &reason, const QJsonObject &request)
{
    engine->throwError(QStringLiteral("StandIn: %1 (%2)").arg(reason, QString::fromUtf8(written(request))));
}

/** A connection is made for every request: a late answer to one can never be taken for the answer to another. */
bool send(const QJsonObject &request, QLocalSocket &socket, QJSEngine *engine)
{
    const QString path = QStringLiteral("/run/authd/standin.socket");
    socket.connectToServer(path);
    if (!socket.waitForConnected(patience)) {
        throwError(engine,
                   QStringLiteral("there is no stand-in daemon at %1; run the tests where there is one: "
                                  "authd-standin run -- qmltestrunner -input FILE")
                       .arg(path),
                   request);
        return false;
    }
    socket.write(written(request) + '\n');
    return true;
}

/** The answer that has come; an error is thrown, and the object is empty, when none has or it is a refusal. */
QJsonObject receive(const QJsonObject &request, QLocalSocket &socket, QJSEngine *engine)
{
    if (!socket.canReadLine()) {
        throwError(engine, QStringLiteral("the stand-in daemon does not answer"), request);
        return {};
    }
    QJsonObject answer = QJsonDocument::fromJson(socket.readLine()).object();
    if (answer.value(QLatin1String("ok")).toBool())
        return answer;
    throwError(engine, answer.value(QLatin1String("error")).toString(), request);
    return {};
}

/** What the bus has sent is on its way to the objects there are, and to none that is made later. */
void flushSystemBus()
{
    const QDBusConnection bus = QDBusConnection::systemBus();
    if (bus.isConnected()) {
        bus.call(QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/"),
                                                QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")),
                 QDBus::Block, patience);
    }
}

QJsonObject owner(double uid)
{
    return uid == 0 ? QJsonObject() : QJsonObject{{QStringLiteral("uid"), uid}};
}

} // namespace

QJsonObject StandIn::request(const QJsonObject &request)
{
    QLocalSocket socket;
    if (!send(request, socket, qjsEngine(this)))
        return {};
    const QDeadlineTimer deadline(timeoutOf(request));
    while (!socket.canReadLine() && socket.waitForReadyRead(int(deadline.remainingTime()))) { }
    return receive(request, socket, qjsEngine(this));
}

void StandIn::reset()
{
    // Held calls go with the daemon that has them.
    const bool isReset = tell("stop") && tell("drop-old") && tell("behave")
        && tell("accept", {{QStringLiteral("how"), QStringLiteral("normal")}}) && tell("reset-options")
        && tell("reset-secrets") && tell("set-lock", {{QStringLiteral("state"), 1}}) && tell("start");
    if (!isReset)
        return;
    flushSystemBus();
    tell("clear-calls");
}

QJsonObject StandIn::state()
{
    return request(doing("state"));
}

int StandIn::lockState()
{
    return state().value(QLatin1String("lock-state")).toInt();
}

void StandIn::setLockState(double state)
{
    tell("set-lock", {{QStringLiteral("state"), state}});
}

void StandIn::lock()
{
    setLockState(1);
}

void StandIn::unlock()
{
    setLockState(0);
}

void StandIn::lockout(const QString &kind)
{
    tell("lockout", {{QStringLiteral("kind"), kind}});
}

void StandIn::answer(const QString &method, const QString &value, double times)
{
    addRule(QStringLiteral("reply"), method, times, {{QStringLiteral("value"), value}});
}

void StandIn::fail(const QString &method, const QString &error, double times)
{
    addRule(QStringLiteral("error"), method, times,
            error.isEmpty() ? QJsonObject() : QJsonObject{{QStringLiteral("name"), error}});
}

void StandIn::delay(const QString &method, double milliseconds, double times)
{
    addRule(QStringLiteral("delay"), method, times, {{QStringLiteral("ms"), milliseconds}});
}

void StandIn::mute(const QString &method, double times)
{
    addRule(QStringLiteral("mute"), method, times);
}

void StandIn::hold(const QString &method, double times)
{
    addRule(QStringLiteral("hold"), method, times);
}

void StandIn::release()
{
    tell("release");
}

void StandIn::misbehave(const QString &method, const QString &how, double times)
{
    addRule(how, method, times);
}

void StandIn::behave()
{
    tell("behave");
}

void StandIn::stop()
{
    tell("stop");
}

void StandIn::start()
{
    tell("start");
}

void StandIn::restart()
{
    tell("restart");
}

void StandIn::handover()
{
    tell("handover");
}

void StandIn::dropPeers()
{
    tell("drop-peers");
}

void StandIn::emitSignal(const QString &name, const QString &arguments, const QJsonObject &more)
{
    QJsonObject message = more;
    message.insert(QLatin1String("signal"), name);
    message.insert(QLatin1String("args"), arguments);
    tell("emit", message);
}

QJsonArray StandIn::calls(const QString &method)
{
    const QJsonObject which = method.isEmpty() ? QJsonObject() : QJsonObject{{QStringLiteral("method"), method}};
    return request(doing("calls", which)).value(QLatin1String("calls")).toArray();
}

QJsonArray StandIn::waitForCalls(const QString &method, double count, double timeout)
{
    const QJsonObject message = doing(
        "wait-calls",
        {{QStringLiteral("method"), method}, {QStringLiteral("count"), count}, {QStringLiteral("timeout"), timeout}});
    // What the event loop delivers may delete this object.
    QJSEngine *const engine = qjsEngine(this);
    QLocalSocket socket;
    if (!send(message, socket, engine))
        return {};
    QEventLoop loop;
    connect(&socket, &QLocalSocket::readyRead, &loop, [&] {
        if (socket.canReadLine())
            loop.quit();
    });
    connect(&socket, &QLocalSocket::disconnected, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeoutOf(message), &loop, &QEventLoop::quit);
    loop.exec();
    return receive(message, socket, engine).value(QLatin1String("calls")).toArray();
}

void StandIn::clearCalls()
{
    tell("clear-calls");
}

QJsonObject StandIn::options(double uid)
{
    return request(doing("options", owner(uid))).value(QLatin1String("options")).toObject();
}

void StandIn::setOption(const QString &key, const QJsonValue &value, double uid)
{
    QJsonObject message = owner(uid);
    message.insert(QLatin1String("key"), key);
    message.insert(QLatin1String("value"), value);
    tell("set-option", message);
}

/** Whether the stand-in has done it; an error is thrown otherwise. */
bool StandIn::tell(const char *what, QJsonObject more)
{
    return !request(doing(what, more)).isEmpty();
}

bool StandIn::addRule(const QString &how, const QString &method, double times, QJsonObject more)
{
    more.insert(QLatin1String("method"), method);
    more.insert(QLatin1String("how"), how);
    if (times != 0)
        more.insert(QLatin1String("times"), times);
    return tell("misbehave", more);
}
