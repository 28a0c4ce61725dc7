#include "stand-in.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
const char socketPath[] = "/run/authd/standin.socket";

QByteArray quoted(const QByteArray &text)
{
    const QByteArray array = QJsonDocument(QJsonArray{QString::fromUtf8(text)}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

QByteArray with(const QByteArray &more)
{
    return more.isEmpty() ? QByteArray() : ',' + more;
}

// The members that say which option is meant.
QByteArray place(const QByteArray &key, uint uid)
{
    return "\"key\":" + quoted(key) + (uid ? ",\"uid\":" + QByteArray::number(uid) : QByteArray());
}

QString written(const QJsonObject &call)
{
    const auto text = [&call](const char *member) { return call.value(QLatin1String(member)).toString(); };
    return QStringLiteral("%1 %2 %3.%4 %5 %6")
        .arg(text("bus"), text("path"), text("interface"), text("method"), text("signature"), text("args"));
}

QStringList written(const QJsonArray &calls)
{
    QStringList result;
    for (const QJsonValue &call : calls)
        result.append(written(call.toObject()));
    return result;
}

// Whatever this process sent to the bus before is dealt with there when this returns.
void flushSystemBus()
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (bus.isConnected()) {
        bus.call(QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/"),
                                                QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")));
    }
}
} // namespace

void StandIn::connect()
{
    m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    static_assert(sizeof socketPath <= sizeof address.sun_path, "the path fits");
    memcpy(address.sun_path, socketPath, sizeof socketPath);
    const timeval timeout = {180, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (::connect(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        qFatal("No stand-in at %s: %s", socketPath, strerror(errno));
}

StandIn::~StandIn()
{
    if (m_socket >= 0)
        close(m_socket);
}

QJsonObject StandIn::request(const QByteArray &json)
{
    if (m_socket < 0)
        connect();
    const QByteArray line = json + '\n';
    for (int sent = 0; sent < line.size();) {
        const ssize_t count = send(m_socket, line.constData() + sent, size_t(line.size() - sent), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR)
            qFatal("The stand-in does not take %s: %s", json.constData(), strerror(errno));
        sent += count < 0 ? 0 : int(count);
    }

    int end = -1;
    for (int searched = 0; (end = m_input.indexOf('\n', searched)) < 0;) {
        searched = m_input.size();
        char buffer[65536];
        const ssize_t count = recv(m_socket, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            qFatal("The stand-in does not answer %s: %s", json.constData(), count ? strerror(errno) : "closed");
        m_input.append(buffer, int(count));
    }

    const QByteArray text = m_input.left(end);
    m_input.remove(0, end + 1);
    const QJsonObject answer = QJsonDocument::fromJson(text).object();
    if (!answer.value(QLatin1String("ok")).toBool())
        qFatal("The stand-in refuses %s: %s", json.constData(), text.constData());
    return answer;
}

void StandIn::reset()
{
    // The match rules of clients that are gone must not bring their successors news of the restart.
    flushSystemBus();
    request(R"({"do":"behave"})");
    request(R"({"do":"release"})");
    request(R"({"do":"accept","how":"normal"})");
    request(R"({"do":"drop-old"})");
    request(R"({"do":"reset-options"})");
    request(R"({"do":"restart"})");
    request(R"({"do":"set-lock","state":0})");
    flushSystemBus();
    clearCalls();
}

void StandIn::misbehave(const char *method, const char *how, const QByteArray &more)
{
    request(R"({"do":"misbehave","method":")" + QByteArray(method) + R"(","how":")" + how + '"' + with(more) + '}');
}

void StandIn::answer(const char *method, const QByteArray &value)
{
    misbehave(method, "reply", "\"value\":" + quoted(value));
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
    const QByteArray user = uid ? ",\"uid\":" + QByteArray::number(uid) : QByteArray();
    const QJsonObject answer = request(R"({"do":"options")" + user + '}');
    return answer.value(QLatin1String("options")).toObject().value(QString::fromUtf8(key)).toString();
}

void StandIn::emitSignal(const char *name, const QByteArray &args, const QByteArray &more)
{
    request(R"({"do":"emit","signal":")" + QByteArray(name) + R"(","args":)" + quoted(args) + with(more) + '}');
}

QStringList StandIn::calls()
{
    return written(request(R"({"do":"calls"})").value(QLatin1String("calls")).toArray());
}

QStringList StandIn::waitCalls(const char *method, int count)
{
    return written(request(R"({"do":"wait-calls","method":")" + QByteArray(method) + R"(","count":)"
                           + QByteArray::number(count) + R"(,"timeout":120000})")
                       .value(QLatin1String("calls"))
                       .toArray());
}

void StandIn::clearCalls()
{
    request(R"({"do":"clear-calls"})");
}

QList<int> StandIn::instancesOf(const char *method)
{
    QList<int> result;
    const QJsonArray calls = request(R"({"do":"calls"})").value(QLatin1String("calls")).toArray();
    for (const QJsonValue &call : calls) {
        if (call.toObject().value(QLatin1String("method")).toString() == QLatin1String(method))
            result.append(call.toObject().value(QLatin1String("instance")).toInt());
    }
    return result;
}

int StandIn::peerCount()
{
    return request(R"({"do":"state"})").value(QLatin1String("peers")).toArray().size();
}

QString StandIn::owner()
{
    return request(R"({"do":"state"})").value(QLatin1String("owner")).toString();
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
