#include "stand-in.h"

#include "bus-round-trip.h"

namespace {

QByteArray with(const QByteArray &more)
{
    return more.isEmpty() ? QByteArray() : ',' + more;
}

// The members that say which option is meant.
QByteArray place(const QByteArray &key, uint uid)
{
    return "\"key\":" + AuthStandIn::quoted(QString::fromUtf8(key))
        + (uid ? ",\"uid\":" + QByteArray::number(uid) : QByteArray());
}

QStringList written(const QJsonArray &calls)
{
    QStringList result;
    for (const QJsonValue &call : calls) {
        const auto text = [&call](const char *member) { return call[QLatin1String(member)].toString(); };
        result.append(
            QStringLiteral("%1 %2 %3.%4 %5 %6")
                .arg(text("bus"), text("path"), text("interface"), text("method"), text("signature"), text("args")));
    }
    return result;
}

} // namespace

StandIn::StandIn()
    : AuthStandIn([](const QString &error) { qFatal("The stand-in: %s", qPrintable(error)); })
{
    // Under valgrind on a busy machine.
    setPatience(180000);
}

void StandIn::settleBus()
{
    roundTripToSystemBus();
}

void StandIn::reset()
{
    AuthStandIn::reset(0);
    // Clients that outlive the daemon hear of the state by its announcement alone.
    setLockState(0);
    settleBus();
    clearCalls();
}

void StandIn::misbehave(const char *method, const char *how, const QByteArray &more)
{
    request(R"({"do":"misbehave","method":")" + QByteArray(method) + R"(","how":")" + how + '"' + with(more) + '}');
}

void StandIn::answer(const char *method, const QByteArray &value)
{
    AuthStandIn::answer(QLatin1String(method), QString::fromUtf8(value));
}

void StandIn::arrangeOption(const QByteArray &key, const QByteArray &json, uint uid)
{
    request(R"({"do":"set-option","announce":false,"value":)" + json + ',' + place(key, uid) + '}');
}

void StandIn::changeOption(const QByteArray &key, const QByteArray &json, uint uid)
{
    request(R"({"do":"set-option","value":)" + json + ',' + place(key, uid) + '}');
}

void StandIn::removeOption(const QByteArray &key, uint uid)
{
    request(R"({"do":"remove-option",)" + place(key, uid) + '}');
}

QString StandIn::option(const QByteArray &key, uint uid)
{
    return options(uid).value(QString::fromUtf8(key)).toString();
}

void StandIn::emitSignal(const char *name, const QByteArray &args, const QByteArray &more)
{
    request(R"({"do":"emit","signal":")" + QByteArray(name) + R"(","args":)" + quoted(QString::fromUtf8(args))
            + with(more) + '}');
}

QStringList StandIn::calls()
{
    return written(AuthStandIn::calls());
}

QStringList StandIn::waitCalls(const char *method, int count)
{
    return written(AuthStandIn::waitCalls(QLatin1String(method), count, 120000));
}

QList<int> StandIn::instancesOf(const char *method)
{
    QList<int> result;
    const QJsonArray calls = AuthStandIn::calls(QLatin1String(method));
    for (const QJsonValue &call : calls)
        result.append(call[QLatin1String("instance")].toInt());
    return result;
}

int StandIn::peerCount()
{
    return state().value(QLatin1String("peers")).toArray().size();
}

QString StandIn::owner()
{
    return state().value(QLatin1String("owner")).toString();
}

QString peerCall(const char *method, const char *signature, const QByteArray &args)
{
    return QStringLiteral("peer /vantora/AuthService vantora.AuthService.%1 %2 %3")
        .arg(QLatin1String(method), QLatin1String(signature), QString::fromUtf8(args));
}

QString settingsCall(const char *method, const char *signature, const QByteArray &args)
{
    return QStringLiteral("peer /vantora/AuthService/Settings vantora.AuthService.Settings.%1 %2 %3")
        .arg(QLatin1String(method), QLatin1String(signature), QString::fromUtf8(args));
}

QString systemCall(const char *method, const char *signature, const QByteArray &args)
{
    return QStringLiteral("system /vantora/AuthService/Devlock vantora.AuthService.Devlock.%1 %2 %3")
        .arg(QLatin1String(method), QLatin1String(signature), QString::fromUtf8(args));
}

QByteArray bytes(const QByteArray &value)
{
    if (value.isEmpty())
        return "@ay []";
    return "[byte 0x" + value.toHex(',').replace(",", ", 0x") + ']';
}
