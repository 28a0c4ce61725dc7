#include "bus-link.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QStringList>
#include <QtCore/QtEndian>

#include <cerrno>
#include <cstddef>
#include <poll.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

enum MessageType : uchar {
    MethodCall = 1,
    MethodReturn = 2,
    Error = 3,
    Signal = 4,
};

enum MessageFlag : uchar {
    NoReplyExpected = 1,
    NoAutoStart = 2,
};

enum Field : uchar {
    Path = 1,
    Interface = 2,
    Member = 3,
    ErrorName = 4,
    ReplySerial = 5,
    Destination = 6,
    Sender = 7,
    Signature = 8,
};

// No line of a handshake and no answer to what is asked here comes anywhere near these.
const int LongestLine = 16 * 1024;
const quint32 LongestMessage = 1024 * 1024;
const int PrologueLength = 16;

void align(QByteArray &data, int boundary)
{
    while (data.size() % boundary != 0)
        data.append('\0');
}

void appendNumber(QByteArray &data, quint32 number)
{
    align(data, 4);
    char bytes[4];
    qToLittleEndian(number, bytes);
    data.append(bytes, 4);
}

void appendString(QByteArray &data, const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    appendNumber(data, quint32(bytes.size()));
    data.append(bytes).append('\0');
}

void appendSignature(QByteArray &data, const char *signature)
{
    data.append(char(qstrlen(signature))).append(signature).append('\0');
}

void appendField(QByteArray &data, Field field, const char *type, const QString &text)
{
    if (text.isEmpty())
        return;
    align(data, 8);
    data.append(char(field));
    appendSignature(data, type);
    if (*type == 'g')
        appendSignature(data, text.toLatin1().constData());
    else
        appendString(data, text);
}

/** Reads values from a message; what would lie beyond its end is zero or empty, and is told by ok(). */
class Reader
{
public:
    Reader(const QByteArray &data, bool bigEndian)
        : m_data(data)
        , m_bigEndian(bigEndian)
    {
    }

    bool ok() const
    {
        return m_ok;
    }

    bool atEnd() const
    {
        return !m_ok || m_position >= m_data.size();
    }

    int position() const
    {
        return m_position;
    }

    void align(int boundary)
    {
        const int rest = m_position % boundary;
        if (rest != 0)
            take(quint32(boundary - rest));
    }

    uchar byte()
    {
        const QByteArray bytes = take(1);
        return bytes.isEmpty() ? uchar(0) : uchar(bytes.at(0));
    }

    quint32 number()
    {
        align(4);
        const QByteArray bytes = take(4);
        if (bytes.isEmpty())
            return 0;
        return m_bigEndian ? qFromBigEndian<quint32>(bytes.constData()) : qFromLittleEndian<quint32>(bytes.constData());
    }

    QString string()
    {
        return terminated(number());
    }

    QString signature()
    {
        return terminated(byte());
    }

private:
    QByteArray take(quint32 count)
    {
        if (!m_ok || count > quint32(m_data.size() - m_position)) {
            m_ok = false;
            return {};
        }
        const QByteArray bytes = m_data.mid(m_position, int(count));
        m_position += int(count);
        return bytes;
    }

    QString terminated(quint32 length)
    {
        const QByteArray bytes = take(length);
        if (byte() != 0)
            m_ok = false;
        return QString::fromUtf8(bytes);
    }

    const QByteArray m_data;
    const bool m_bigEndian;
    int m_position = 0;
    bool m_ok = true;
};

/** Reads the first argument of a message. */
bool readArgument(const QString &signature, Reader body, BusReply &reply)
{
    if (signature.startsWith(QLatin1String("as"))) {
        const quint32 length = body.number();
        const int begin = body.position();
        QStringList strings;
        while (body.ok() && quint32(body.position() - begin) < length)
            strings.append(body.string());
        reply.text = strings.join(QLatin1Char('\n'));
        return body.ok() && quint32(body.position() - begin) == length;
    }
    if (signature.startsWith(QLatin1Char('s')))
        reply.text = body.string();
    else if (signature.startsWith(QLatin1Char('u')))
        reply.number = body.number();
    return body.ok();
}

} // namespace

struct BusLink::Header
{
    uchar type = 0;
    bool bigEndian = false;
    quint32 replySerial = 0;
    QString errorName;
    QString sender;
    QString signature;
};

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

    if (m_socket >= 0)
        close(m_socket);
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

Outcome BusLink::call(const BusMessage &message, BusReply &reply, const QDeadlineTimer &deadline)
{
    reply = {};
    Outcome outcome = send(marshal(MethodCall, NoAutoStart, message), deadline);
    while (outcome == Outcome::Fine) {
        Header header;
        QByteArray body;
        outcome = receiveMessage(header, body, deadline);
        if (outcome != Outcome::Fine)
            break;
        if (header.type == Signal && !m_expectedSender.isEmpty() && header.sender == m_expectedSender)
            m_signalSeen = true;
        if ((header.type != MethodReturn && header.type != Error) || header.replySerial != m_serial)
            continue;
        if (!readArgument(header.signature, Reader(body, header.bigEndian), reply))
            return garbage(QStringLiteral("an answer that is cut off"));
        reply.signature = header.signature;
        if (header.type == MethodReturn)
            return Outcome::Fine;
        reply.errorName = header.errorName.left(255);
        m_words = reply.text.isEmpty() ? reply.errorName : reply.text.left(200);
        return Outcome::ErrorReply;
    }
    return outcome;
}

Outcome BusLink::sendSignal(const BusMessage &message, const QDeadlineTimer &deadline)
{
    return send(marshal(Signal, NoReplyExpected | NoAutoStart, message), deadline);
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

Outcome BusLink::receiveMessage(Header &header, QByteArray &body, const QDeadlineTimer &deadline)
{
    while (m_received.size() < PrologueLength) {
        const Outcome outcome = receive(deadline);
        if (outcome != Outcome::Fine)
            return outcome;
    }
    header.bigEndian = m_received.at(0) == 'B';
    header.type = uchar(m_received.at(1));
    if ((!header.bigEndian && m_received.at(0) != 'l') || m_received.at(3) != 1)
        return garbage(QStringLiteral("what is no message"));
    Reader prologue(m_received.left(PrologueLength), header.bigEndian);
    prologue.number();
    const quint32 bodyLength = prologue.number();
    prologue.number();
    const quint32 fieldsLength = prologue.number();
    if (bodyLength > LongestMessage || fieldsLength > LongestMessage)
        return garbage(QStringLiteral("a message that is too long"));
    const int bodyStart = PrologueLength + int((fieldsLength + 7) / 8 * 8);
    const int end = bodyStart + int(bodyLength);
    while (m_received.size() < end) {
        const Outcome outcome = receive(deadline);
        if (outcome != Outcome::Fine)
            return outcome;
    }

    Reader fields(m_received.left(PrologueLength + int(fieldsLength)), header.bigEndian);
    while (fields.position() < PrologueLength)
        fields.number();
    while (!fields.atEnd()) {
        fields.align(8);
        const uchar field = fields.byte();
        const QString type = fields.signature();
        QString text;
        quint32 number = 0;
        if (type == QLatin1String("s") || type == QLatin1String("o"))
            text = fields.string();
        else if (type == QLatin1String("g"))
            text = fields.signature();
        else if (type == QLatin1String("u"))
            number = fields.number();
        else
            return garbage(QStringLiteral("a message with a strange header"));
        if (field == ErrorName)
            header.errorName = text;
        else if (field == ReplySerial)
            header.replySerial = number;
        else if (field == Sender)
            header.sender = text;
        else if (field == Signature)
            header.signature = text;
    }
    if (!fields.ok())
        return garbage(QStringLiteral("a message with a header that is cut off"));
    body = m_received.mid(bodyStart, int(bodyLength));
    m_received.remove(0, end);
    return Outcome::Fine;
}

Outcome BusLink::garbage(const QString &words)
{
    m_words = words;
    return Outcome::Garbage;
}

QByteArray BusLink::marshal(uchar type, uchar flags, const BusMessage &message)
{
    QByteArray body;
    if (!message.argument.isNull())
        appendString(body, message.argument);

    // The fields come after a prologue of a multiple of eight bytes: aligned apart they are aligned in the message.
    QByteArray fields;
    appendField(fields, Path, "o", message.path);
    appendField(fields, Interface, "s", message.interface);
    appendField(fields, Member, "s", message.member);
    appendField(fields, Destination, "s", message.destination);
    if (!body.isEmpty())
        appendField(fields, Signature, "g", QStringLiteral("s"));

    QByteArray data;
    data.append('l').append(char(type)).append(char(flags)).append('\1');
    appendNumber(data, quint32(body.size()));
    appendNumber(data, ++m_serial);
    appendNumber(data, quint32(fields.size()));
    data.append(fields);
    align(data, 8);
    return data + body;
}
