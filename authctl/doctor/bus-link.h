#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QDeadlineTimer>
#include <QtCore/QString>

#include <memory>
#include <sys/socket.h>

struct DBusMessage;

/** What may come of a step of a conversation. */
enum class Outcome {
    Fine,
    Unreachable, ///< BusLink::systemError() says why.
    Full,        ///< Those that wait to be accepted are too many already.
    Mute,
    Closed,
    Rejected,
    Garbage,
    ErrorReply,
};

/** A call, or a signal; it has one argument, a string, or none. */
struct BusMessage
{
    QString destination; ///< empty on a daemon's own socket
    QString path;
    QString interface;
    QString member;
    QString argument = {}; ///< null: none
};

/** What was answered to a call. */
struct BusReply
{
    QString text;       ///< the argument, if it is a string; the strings, a line each, if it is a list of them
    quint32 number = 0; ///< the argument, if it is of type u
    QString signature;
    QString errorName;
};

/**
 * A conversation with a bus, or with a daemon on its own socket, that keeps its deadlines whatever the other side does
 * and believes nothing that the other side says about lengths.
 *
 * libdbus puts the messages together and takes them apart. The handshake is made by hand: `QDBusConnection` of Qt 5.15
 * and `dbus_connection_open` of libdbus wait for 25 seconds, in places for ever, so they are of no use for a search
 * after faults.
 */
class BusLink
{
public:
    BusLink() = default;
    ~BusLink();
    Q_DISABLE_COPY(BusLink)

    /** Connects to a socket, once; a name that begins with a zero byte is an abstract one. */
    Outcome connectTo(const QByteArray &name, const QDeadlineTimer &deadline);
    /** Shakes hands, with the mechanism EXTERNAL. */
    Outcome authenticate(const QDeadlineTimer &deadline);
    /** Calls a method, but has no daemon started for the call. */
    Outcome call(const BusMessage &message, BusReply &reply, const QDeadlineTimer &deadline);
    /** Sends a signal; where the destination is no name of a bus, it is garbage and not sent. */
    Outcome sendSignal(const BusMessage &message, const QDeadlineTimer &deadline);

    /** The longest name of a socket that libdbus takes. */
    static const int LongestName = 99;
    /** What the other side called itself in the handshake. */
    QByteArray guid() const;

    /** Makes call() look out for a signal that comes while it waits. */
    void expectSignalFrom(const QString &sender);
    bool hasSeenSignal() const;

    int systemError() const;
    /** What the other side said that was wrong. */
    QString words() const;
    /** The process that listens on the socket. */
    ucred listener() const;

private:
    using Message = std::unique_ptr<DBusMessage, void (*)(DBusMessage *)>;

    Outcome send(QByteArray data, const QDeadlineTimer &deadline);
    Outcome send(const Message &message, const QString &argument, const QDeadlineTimer &deadline);
    Outcome receive(const QDeadlineTimer &deadline);
    Outcome receive(Message &message, const QDeadlineTimer &deadline);
    Outcome garbage(const QString &words);

    int m_socket = -1;
    int m_error = 0;
    uid_t m_user = 0;
    quint32 m_serial = 0;
    QByteArray m_received;
    QByteArray m_guid;
    QString m_words;
    QString m_expectedSender;
    bool m_signalSeen = false;
};
