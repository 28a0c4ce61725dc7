#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QStringList>

#include <memory>
#include <type_traits>

#include <sys/types.h>

/**
 * What a screen's process and its agents say to each other; docs/screens.md describes it for readers.
 *
 * A frame is a size (32 bits, of what follows), a version, a kind (8 bits each), a serial number (32 bits, from 0 on in
 * each direction) and the fields of its kind, all numbers with the lowest byte first. Whatever differs from that is
 * refused, and the side that sent it is not listened to any more.
 */
namespace AuthScreens::Wire {

constexpr quint8 Version = 1;
/** The descriptor that an agent finds its screen at. */
constexpr int Descriptor = 3;
/** The most that a size may say. */
constexpr int MaxSize = 65536;
/** The most that a secret may take, with room for the other fields. */
constexpr int MaxSecret = 32768;
/** How often an agent says what it knows, in milliseconds, though nothing has changed. */
constexpr int BeatInterval = 400;
/** In place of a state: the agent listens, and has nothing to say in this epoch yet. */
constexpr qint32 NothingYet = -1;

enum class Kind : quint8 {
    // From the screen.
    Follow = 1,
    Prepare = 2,
    Attempt = 3,
    Lock = 4,
    Read = 5,
    Mirror = 6,
    Write = 7,
    Drop = 8,
    // From the agent.
    State = 32,
    Ready = 33,
    Outcome = 34,
    Gone = 35,
    Choice = 36,
    Settings = 37,
    Written = 38,
};

/** How an attempt, or a locking, has ended in the agent. */
enum class Result : quint8 {
    Done = 0,
    NotAccepted = 1,
    NotGranted = 2,
    NotSendable = 3,
    Unavailable = 4,
    LockedOut = 5,
    NotAllowed = 6,
    NotAuthenticated = 7,
    Last = NotAuthenticated,
};

/** Follow the device lock. Sent again, it begins anew: nothing that was known before counts. */
struct Follow
{
    static constexpr Kind kind = Kind::Follow;
    quint32 epoch = 0;

    template <typename Visitor> void visit(Visitor &fields)
    {
        fields(epoch);
    }
};

/** Connect to the daemon, and wait for an Attempt. */
struct Prepare
{
    static constexpr Kind kind = Kind::Prepare;

    template <typename Visitor> void visit(Visitor &)
    {
    }
};

/** Have a secret judged, and unlock the device with what comes of it if that is wanted. */
struct Attempt
{
    static constexpr Kind kind = Kind::Attempt;
    QString service;
    QString factor;
    QByteArray secret;
    bool isText = true; ///< The secret goes to the daemon as a text, else as bytes.
    quint32 uid = 0;    ///< 0 leaves the choice to the daemon.
    bool unlocks = false;

    template <typename Visitor> void visit(Visitor &fields)
    {
        fields(service);
        fields(factor);
        fields(secret);
        fields(isText);
        fields(uid);
        fields(unlocks);
    }
};

/** Lock the device. */
struct Lock
{
    static constexpr Kind kind = Kind::Lock;

    template <typename Visitor> void visit(Visitor &)
    {
    }
};

/** Say what a user can use. */
struct Read
{
    static constexpr Kind kind = Kind::Read;
    quint32 uid = 0;

    template <typename Visitor> void visit(Visitor &fields)
    {
        fields(uid);
    }
};

/** The answer to Read, if the daemon has given one. */
struct Choice
{
    static constexpr Kind kind = Kind::Choice;
    QStringList login;  ///< The factors chosen for signing in that are not disabled, in the daemon's order.
    QStringList unlock; ///< The same for unlocking.
    QString lastLogin;  ///< In the daemon's words; empty when the user does not want to see it.

    template <typename Visitor> void visit(Visitor &fields)
    {
        fields(login);
        fields(unlock);
        fields(lastLogin);
    }
};

/** Tell the settings of a user, now and at each change. */
struct Mirror
{
    static constexpr Kind kind = Kind::Mirror;
    quint32 uid = 0;

    template <typename Visitor> void visit(Visitor &fields)
    {
        fields(uid);
    }
};

/** What a Write is about. */
enum class Setting : quint8 {
    LoginFactor = 0,
    UnlockFactor = 1,
    MultiFactor = 2,
    Notifications = 3,
    Last = Notifications,
};

/** Change one of the user's settings. */
struct Write
{
    static constexpr Kind kind = Kind::Write;
    quint32 number = 0;
    Setting setting = Setting::LoginFactor;
    QString factor;
    bool value = false;

    template <typename Visitor> void visit(Visitor &fields)
    {
        fields(number);
        fields(setting);
        fields(factor);
        fields(value);
    }
};

/** Forget the token. */
struct Drop
{
    static constexpr Kind kind = Kind::Drop;

    template <typename Visitor> void visit(Visitor &)
    {
    }
};

/** The answer to Mirror, and each change of it. */
struct Settings
{
    static constexpr Kind kind = Kind::Settings;
    bool isRead = false;          ///< Whether the daemon has told what follows.
    bool isAuthenticated = false; ///< Whether a token is held.
    bool canSwitch = false;
    bool isMultiFactor = false;
    bool isSettable = false;
    bool notifies = false;
    bool warns = false;
    QStringList offered; ///< The factors that the daemon offers for signing in.
    QStringList login;   ///< Those that are chosen for it.
    QStringList unlock;  ///< Those that are chosen for unlocking.
    QStringList disabled;

    template <typename Visitor> void visit(Visitor &fields)
    {
        for (bool *value : {&isRead, &isAuthenticated, &canSwitch, &isMultiFactor, &isSettable, &notifies, &warns})
            fields(*value);
        for (QStringList *names : {&offered, &login, &unlock, &disabled})
            fields(*names);
    }
};

/** The end of a Write; Settings with what has become of it comes first. */
struct Written
{
    static constexpr Kind kind = Kind::Written;
    quint32 number = 0;
    Result result = Result::Done;

    template <typename Visitor> void visit(Visitor &fields)
    {
        fields(number);
        fields(result);
    }
};

/**
 * At this time of bootTime(), which is later than any before, the agent listens and knows that the device-lock state is
 * this one. It is said at each change and every BeatInterval. Unlocked is said by the daemon's own answer alone.
 */
struct State
{
    static constexpr Kind kind = Kind::State;
    quint32 epoch = 0;
    quint64 time = 0;
    qint32 state = NothingYet;

    template <typename Visitor> void visit(Visitor &fields)
    {
        fields(epoch);
        fields(time);
        fields(state);
    }
};

/** An Attempt can begin at once. */
struct Ready
{
    static constexpr Kind kind = Kind::Ready;

    template <typename Visitor> void visit(Visitor &)
    {
    }
};

/** The end of an Attempt, a Lock, or a Read that has failed. */
struct Outcome
{
    static constexpr Kind kind = Kind::Outcome;
    Result result = Result::Done;

    template <typename Visitor> void visit(Visitor &fields)
    {
        fields(result);
    }
};

/** The agent ends because the daemon, or the system bus, cannot be reached. */
struct Gone
{
    static constexpr Kind kind = Kind::Gone;

    template <typename Visitor> void visit(Visitor &)
    {
    }
};

/** Nanoseconds of CLOCK_BOOTTIME, which is the same for all processes and goes on while the device sleeps. */
quint64 bootTime();

/** Overwrites what @p data holds, in all copies that share it, and empties it. */
void wipe(QByteArray &data);
/** The same for a text. */
void wipe(QString &text);

struct Frame
{
    Kind kind = Kind::Gone;
    QByteArray fields;
};

/** Writes the fields of a message. */
class Encoder
{
public:
    explicit Encoder(Kind kind);
    ~Encoder();
    Q_DISABLE_COPY(Encoder)

    void operator()(quint8 value);
    void operator()(bool value);
    void operator()(quint32 value);
    void operator()(qint32 value);
    void operator()(quint64 value);
    void operator()(Result value);
    void operator()(Setting value);
    void operator()(const QByteArray &value);
    void operator()(const QString &value);
    void operator()(const QStringList &value);

    /** The whole frame; empty when it would be too large. */
    QByteArray frame(quint32 serial);

private:
    QByteArray m_data;
};

/** Reads the fields of a message. Once something has been wrong, everything that follows is. */
class Decoder
{
public:
    explicit Decoder(const QByteArray &fields);

    void operator()(quint8 &value);
    void operator()(bool &value);
    void operator()(quint32 &value);
    void operator()(qint32 &value);
    void operator()(quint64 &value);
    void operator()(Result &value);
    void operator()(Setting &value);
    void operator()(QByteArray &value);
    void operator()(QString &value);
    void operator()(QStringList &value);

    /** Nothing was wrong, and nothing is left over. */
    bool isComplete() const;

private:
    quint64 number(int bytes);
    template <typename Enumeration> void choice(Enumeration &value);

    const QByteArray &m_data;
    int m_position = 0;
    bool m_isGood = true;
};

template <typename Message> QByteArray encode(Message message, quint32 serial)
{
    Encoder encoder(Message::kind);
    message.visit(encoder);
    return encoder.frame(serial);
}

/** False when @p frame is of another kind or malformed; @p message is undefined then. */
template <typename Message> bool decode(const Frame &frame, Message &message)
{
    Decoder decoder(frame.fields);
    message.visit(decoder);
    return frame.kind == Message::kind && decoder.isComplete();
}

/** Takes frames out of a stream of bytes, in a buffer of a fixed size that is overwritten as it is emptied. */
class FrameReader
{
public:
    enum Found {
        Nothing,
        Whole,
        Broken,
    };

    FrameReader();
    ~FrameReader();
    Q_DISABLE_COPY(FrameReader)

    /** Where the next bytes go, and how many there is room for: always some unless next() has to be called. */
    char *space();
    size_t room() const;
    void fill(size_t bytes);

    /** Once Broken it stays so. */
    Found next(Frame &frame);

private:
    void drop(size_t bytes);

    static constexpr size_t Capacity = MaxSize + 4;
    const std::unique_ptr<char[]> m_buffer;
    size_t m_size = 0;
    quint32 m_serial = 0;
    bool m_isBroken = false;
};

} // namespace AuthScreens::Wire
