#include "daemon.h"

#include "outcome.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
const char controlPath[] = "/run/authd/standin.socket";

[[noreturn]] void fail(const QString &what)
{
    throw Outcome{Outcome::NotMade, QStringLiteral("the stand-in ") + what};
}
} // namespace

Daemon::Daemon()
    : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    static_assert(sizeof controlPath <= sizeof address.sun_path, "the path fits");
    memcpy(address.sun_path, controlPath, sizeof controlPath);
    const timeval timeout = {30, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (connect(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(QStringLiteral("is not reached: ") + QString::fromLocal8Bit(strerror(errno)));
}

Daemon::~Daemon()
{
    close(m_socket);
}

QJsonObject Daemon::request(const QByteArray &json)
{
    const QByteArray line = json + '\n';
    for (int sent = 0; sent < line.size();) {
        const ssize_t count = send(m_socket, line.constData() + sent, size_t(line.size() - sent), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR)
            fail(QStringLiteral("has gone"));
        sent += count < 0 ? 0 : int(count);
    }
    while (!m_input.endsWith('\n')) {
        char buffer[65536];
        const ssize_t count = recv(m_socket, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            fail(QStringLiteral("does not answer ") + QString::fromUtf8(json));
        m_input.append(buffer, int(count));
    }
    QJsonObject answer = QJsonDocument::fromJson(m_input).object();
    m_input.clear();
    if (!answer.value(QLatin1String("ok")).toBool()) {
        fail(QStringLiteral("refuses %1: %2")
                 .arg(QString::fromUtf8(json), answer.value(QLatin1String("error")).toString()));
    }
    return answer;
}

int Daemon::callCount(const QByteArray &method)
{
    const char *log = method == "Introspect" ? "standard-calls" : "calls";
    const QJsonArray calls = request(R"({"do":")" + QByteArray(log) + R"("})").value(QLatin1String("calls")).toArray();
    int count = 0;
    for (const QJsonValue &call : calls)
        count += call.toObject().value(QLatin1String("method")).toString() == QLatin1String(method);
    return count;
}

QByteArray quoted(const QByteArray &text)
{
    QByteArray result = text;
    return '"' + result.replace('\\', "\\\\").replace('"', "\\\"") + '"';
}
