#include "bus-link.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QStringList>

#include <cerrno>
#include <cstddef>
#include <dbus/dbus.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// No line of a handshake and no answer to what is asked here comes anywhere near these lengths.
const int LongestLine = 16 * 1024;
const int LongestMessage = 1024 * 1024;

/** A string of a message that libdbus has found right. */
QString string(DBusMessageIter &argument)
{
    const char *text = nullptr;
    dbus_message_iter_get_basic(&argument, &text);
    return QString::fromUtf8(text);
}

BusReply toReply(DBusMessage *message)
{
    BusReply reply;
    reply.signature = QString::fromLatin1(dbus_message_get_signature(message));
    reply.errorName = QString::fromLatin1(dbus_message_get_error_name(message));
    DBusMessageIter argument;
    dbus_message_iter_init(message, &argument);
    if (dbus_message_iter_get_arg_type(&argument) == DBUS_TYPE_STRING) {
        reply.text = string(argument);
    } else if (dbus_message_iter_get_arg_type(&argument) == DBUS_TYPE_UINT32) {
        dbus_message_iter_get_basic(&argument, &reply.number);
    } else if (reply.signature.startsWith(QLatin1String("as"))) {
        DBusMessageIter element;
        QStringList strings;
        for (dbus_message_iter_recurse(&argument, &element);
             dbus_message_iter_get_arg_type(&element) != DBUS_TYPE_INVALID; dbus_message_iter_next(&element))
            strings.append(string(element));
        reply.text = strings.join(QLatin1Char('\n'));
    }
    return reply;
}

} // namespace

BusLink::~BusLink()
{
    if (m_socket >= 0)
        close(m_socket);
}

Outcome BusLink::connectTo(const QByteArray &name, const QDeadlineTimer &deadline)
{
    m_error = 0;
    sockaddr_un address = {};
    static_assert(sizeof address.sun_path > LongestName);
    address.sun_family = AF_UNIX;
    if (name.size() > LongestName) {
        m_error = ENAMETOOLONG;
        return Outcome::Unreachable;
    }
    memcpy(address.sun_path, name.constData(), size_t(name.size()));
    const bool abstract = name.startsWith('\0');
    const auto length = offsetof(sockaddr_un, sun_path) + size_t(name.size()) + (abstract ? 0 : 1);

    m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    m_user = geteuid();
    // Connecting waits for a place in the queue of a socket that nobody accepts from.
    const qint64 remaining = qMax(qint64(1), deadline.remainingTime());
    const timeval limit = {time_t(remaining / 1000), suseconds_t(remaining % 1000 * 1000)};
    setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (connect(m_socket, reinterpret_cast<const sockaddr *>(&address), socklen_t(length)) == 0)
        return Outcome::Fine;
    m_error = errno;
    return m_error == EAGAIN ? Outcome::Full : Outcome::Unreachable;
}

Outcome BusLink::authenticate(const QDeadlineTimer &deadline)
{
    const QByteArray user = QByteArray::number(m_user).toHex();
    Outcome outcome = send(QByteArray(1, '\0') + "AUTH EXTERNAL " + user + "\r\n", deadline);
    int end = -1;
    while (outcome == Outcome::Fine && (end = m_received.indexOf("\r\n")) < 0) {
        if (m_received.size() > LongestLine)
            return garbage(QStringLiteral("a line without an end"));
        outcome = receive(deadline);
    }
    if (outcome != Outcome::Fine)
        return outcome;
    const QByteArray line = m_received.left(end);
    m_received.remove(0, end + 2);
    if (line == "REJECTED" || line.startsWith("REJECTED ")) {
        m_words = QString::fromUtf8(line.mid(9).left(80));
        return Outcome::Rejected;
    }
    static const QRegularExpression welcome(QStringLiteral("^OK[ \\t]+([0-9A-Fa-f]+)\\z"));
    const QRegularExpressionMatch match = welcome.match(QString::fromLatin1(line));
    if (!match.hasMatch())
        return garbage(QStringLiteral("\"%1\"").arg(QString::fromUtf8(line.left(80))));
    m_guid = match.captured(1).toLatin1();
    return send("BEGIN\r\n", deadline);
}

Outcome BusLink::call(const BusMessage &call, BusReply &reply, const QDeadlineTimer &deadline)
{
    reply = {};
    const QByteArray destination = call.destination.toUtf8();
    Message message(dbus_message_new_method_call(destination.isEmpty() ? nullptr : destination.constData(),
                                                 call.path.toUtf8(), call.interface.toUtf8(), call.member.toUtf8()),
                    dbus_message_unref);
    dbus_message_set_auto_start(message.get(), false);
    Outcome outcome = send(message, call.argument, deadline);
    while (outcome == Outcome::Fine && (outcome = receive(message, deadline)) == Outcome::Fine) {
        const int type = dbus_message_get_type(message.get());
        if (type == DBUS_MESSAGE_TYPE_SIGNAL && !m_expectedSender.isEmpty()
            && m_expectedSender == QLatin1String(dbus_message_get_sender(message.get())))
            m_signalSeen = true;
        if ((type != DBUS_MESSAGE_TYPE_METHOD_RETURN && type != DBUS_MESSAGE_TYPE_ERROR)
            || dbus_message_get_reply_serial(message.get()) != m_serial)
            continue;
        reply = toReply(message.get());
        if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN)
            return Outcome::Fine;
        m_words = reply.text.isEmpty() ? reply.errorName : reply.text.left(200);
        return Outcome::ErrorReply;
    }
    return outcome;
}

Outcome BusLink::sendSignal(const BusMessage &signal, const QDeadlineTimer &deadline)
{
    const QByteArray destination = signal.destination.toUtf8();
    // libdbus ends a process that wants a message with another destination.
    if (!dbus_validate_bus_name(destination, nullptr))
        return garbage(signal.destination);
    const Message message(
        dbus_message_new_signal(signal.path.toUtf8(), signal.interface.toUtf8(), signal.member.toUtf8()),
        dbus_message_unref);
    dbus_message_set_destination(message.get(), destination);
    dbus_message_set_auto_start(message.get(), false);
    return send(message, signal.argument, deadline);
}

void BusLink::expectSignalFrom(const QString &sender)
{
    m_expectedSender = sender;
}

bool BusLink::hasSeenSignal() const
{
    return m_signalSeen;
}

QByteArray BusLink::guid() const
{
    return m_guid;
}

int BusLink::systemError() const
{
    return m_error;
}

QString BusLink::words() const
{
    return m_words;
}

ucred BusLink::listener() const
{
    ucred credentials = {};
    socklen_t length = sizeof credentials;
    getsockopt(m_socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length);
    return credentials;
}

Outcome BusLink::send(QByteArray data, const QDeadlineTimer &deadline)
{
    while (!data.isEmpty()) {
        const ssize_t count = ::send(m_socket, data.constData(), size_t(data.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            data.remove(0, int(count));
        } else if (errno == EAGAIN || errno == EINTR) {
            pollfd ready = {m_socket, POLLOUT, 0};
            if (poll(&ready, 1, int(deadline.remainingTime())) == 0)
                return Outcome::Mute;
        } else {
            return Outcome::Closed;
        }
    }
    return Outcome::Fine;
}

Outcome BusLink::send(const Message &message, const QString &argument, const QDeadlineTimer &deadline)
{
    const QByteArray text = argument.toUtf8();
    const char *bytes = text.constData();
    if (!argument.isNull())
        dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &bytes, DBUS_TYPE_INVALID);
    dbus_message_set_serial(message.get(), ++m_serial);
    char *data = nullptr;
    int length = 0;
    dbus_message_marshal(message.get(), &data, &length);
    const QByteArray marshalled(data, length);
    dbus_free(data);
    return send(marshalled, deadline);
}

Outcome BusLink::receive(const QDeadlineTimer &deadline)
{
    while (!deadline.hasExpired()) {
        pollfd ready = {m_socket, POLLIN, 0};
        if (poll(&ready, 1, int(deadline.remainingTime())) <= 0)
            continue;
        char buffer[8192];
        const ssize_t count = recv(m_socket, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count > 0) {
            m_received.append(buffer, int(count));
            return Outcome::Fine;
        }
        if (count == 0 || (errno != EAGAIN && errno != EINTR))
            return Outcome::Closed;
    }
    return Outcome::Mute;
}

Outcome BusLink::receive(Message &message, const QDeadlineTimer &deadline)
{
    const auto receiveUpTo = [&](int length) {
        Outcome outcome = Outcome::Fine;
        while (outcome == Outcome::Fine && m_received.size() < length)
            outcome = receive(deadline);
        return outcome;
    };
    Outcome outcome = receiveUpTo(DBUS_MINIMUM_HEADER_SIZE);
    if (outcome != Outcome::Fine)
        return outcome;
    const char order = m_received.at(0);
    if ((order != DBUS_LITTLE_ENDIAN && order != DBUS_BIG_ENDIAN) || m_received.at(3) != DBUS_MAJOR_PROTOCOL_VERSION)
        return garbage(QStringLiteral("what is no message"));
    const int length = dbus_message_demarshal_bytes_needed(m_received, m_received.size());
    if (length < 0 || length > LongestMessage)
        return garbage(QStringLiteral("a message that is too long"));
    outcome = receiveUpTo(length);
    if (outcome != Outcome::Fine)
        return outcome;
    message.reset(dbus_message_demarshal(m_received, length, nullptr));
    m_received.remove(0, length);
    return message ? Outcome::Fine : garbage(QStringLiteral("a message that is cut off or otherwise wrong"));
}

Outcome BusLink::garbage(const QString &words)
{
    m_words = words;
    return Outcome::Garbage;
}
