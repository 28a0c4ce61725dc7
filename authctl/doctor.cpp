#include "doctor.h"

#include "bus-link.h"
#include "request.h"
#include "table.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QVector>
#include <QtCore/QXmlStreamReader>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char SocketPath[] = "/var/run/authd/authd.socket";
const char DefaultBusAddress[] = "unix:path=/var/run/dbus/system_bus_socket";
const char Service[] = "vantora.AuthService";
const char BusName[] = "org.freedesktop.DBus";

const uid_t Nobody = 65534;
const int StepTime = 2000;
const int TotalTime = 9000;

// What becomes of a host.
const char Ends[] = "A host ends with status 1.";
const char EndsOrFreezes[] = "A host ends with status 1, or freezes for 50 s where the connection stays open.";
const char FreezesAtStart[] = "A host freezes for 50 s when it starts, and for 25 s at each call.";
const char GoesOn[] = "A host goes on to the next address.";
const char FreezesForEver[] = "A host freezes when it starts, for as long as this lasts.";

// What to do about it.
const char StartDaemon[] = "Start the daemon: systemctl start authd";
// It may run, and have lost its socket.
const char StartAfresh[] = "Start the daemon, or start it again: systemctl restart authd";
const char RestartDaemon[] = "See what it does, and restart it: journalctl -u authd; systemctl restart authd";
const char MatchVersions[] = "Install a daemon and a library that go together; see which are there: dpkg -l '*auth*'";
const char AllowCalls[] = "Have the bus and the daemon allow it to everybody: see the daemon's policy, "
                          "/usr/share/dbus-1/system.d/vantora.AuthService.conf";
const char StartBus[] = "Start the system bus: systemctl start dbus.socket";
const char RestartBus[] = "See what it does: journalctl -u dbus. Should it stay so, restart the machine";
const char CorrectAddress[] = "Correct the address of the bus, or do without: unset DBUS_SYSTEM_BUS_ADDRESS";

/** A method or signal that hosts rely on, with the types of its arguments. */
struct Member
{
    const char *name;
    const char *arguments;
    const char *answer; ///< nullptr: nobody looks at it
};

struct Interface
{
    const char *check;
    const char *path;
    const char *name;
    QVector<Member> methods;
    QVector<Member> signalList;
};

const Interface &mainInterface()
{
    static const Interface interface {
        "main-object", "/vantora/AuthService", "vantora.AuthService",
            {{"RequestChallenge", "", "ay"},  {"Authenticate", "sa{sv}", "b"}, {"ChangeAuthData", "sa{sv}", "b"},
             {"UnlockIfNeeded", "", nullptr}, {"SetDevlockState", "ayi", "b"}, {"FactorMethod", "aysa{sv}", "v"}},
            {{"Authenticated", "ay", nullptr},
             {"AuthenticationFailed", "", nullptr},
             {"AuthDataChanged", "", nullptr},
             {"ChangeAuthDataFailed", "", nullptr},
             {"UnlockIfNeededFinished", "b", nullptr}},
    };
    return interface;
}

const Interface &settingsInterface()
{
    static const Interface interface {
        "settings-object", "/vantora/AuthService/Settings", "vantora.AuthService.Settings",
            {{"GetOption", "s", "v"},
             {"GetUserOption", "us", "v"},
             {"GetUserOptions", "uas", "a{sv}"},
             {"SetUserOption", "uaysv", "b"}},
            {{"Factor", "sa{sv}", nullptr}, {"OptionChanged", "sv", nullptr}, {"UserOptionChanged", "usv", nullptr}},
    };
    return interface;
}

const Interface &devlockInterface()
{
    static const Interface interface {
        "devlock-object", "/vantora/AuthService/Devlock", "vantora.AuthService.Devlock",
            {{"GetState", "", "i"}, {"SetState", "i", nullptr}}, {{"StateChanged", "i", nullptr}},
    };
    return interface;
}

/** From the best to the worst. */
enum Level {
    Fine,
    Notice,
    Warning,
    Unknown, ///< what becomes of a host
    Freeze,
    Fault,
};

const struct
{
    const char *name;
    Status status;
} Levels[] = {{"ok", Done},         {"notice", Done},      {"warning", Refused},
              {"warning", Refused}, {"freeze", NoOutcome}, {"fault", Unreachable}};

QString latin(const char *text)
{
    return QString::fromLatin1(text);
}

QString describe(int error)
{
    return QString::fromLocal8Bit(strerror(error));
}

/** What is wrong and what to do about it. */
struct Explanation
{
    QString finding;
    QString remedy;
};

/** The directories on the way to a file, and the file. */
QStringList steps(const QString &path)
{
    QStringList found;
    for (int slash = path.indexOf(QLatin1Char('/'), 1); slash > 0; slash = path.indexOf(QLatin1Char('/'), slash + 1))
        found.append(path.left(slash));
    found.append(path);
    return found;
}

QString rights(const struct stat &file)
{
    return QStringLiteral("mode %1, user %2, group %3")
        .arg(file.st_mode & 07777, 4, 8, QLatin1Char('0'))
        .arg(file.st_uid)
        .arg(file.st_gid);
}

/** Why a socket cannot be connected to. */
Explanation explain(const QString &path, int error, const QString &start)
{
    const QString user = QStringLiteral("user %1").arg(geteuid());
    const QStringList way = steps(path);
    const auto moveAway = [&start](const QString &step) {
        return QStringLiteral("Move it away: mv -n %1 %1.old. %2").arg(step, start);
    };
    const QString look = QStringLiteral("See who may do what on the way to it: namei -l %1").arg(path);
    for (const QString &step : way) {
        const QByteArray name = step.toLocal8Bit();
        const bool last = step == path;
        struct stat file = {};
        const bool there = stat(name, &file) == 0;
        if (!there && errno == ENOENT) {
            if (lstat(name, &file) == 0) {
                return {QStringLiteral("%1 is a symbolic link to nothing").arg(step),
                        QStringLiteral("See where it leads: ls -l %1").arg(step)};
            }
            return {last ? QStringLiteral("there is no socket %1, though its directory is there").arg(step)
                         : QStringLiteral("there is no socket %1: its directory %2 is missing").arg(path, step),
                    start};
        }
        if (!there)
            break;
        // What is further up is the system's, and what a link leads to may be anybody's: nobody is told to change it.
        struct stat itself = {};
        const bool own = way.indexOf(step) >= way.size() - 2 && lstat(name, &itself) == 0 && !S_ISLNK(itself.st_mode);
        if (!last && !S_ISDIR(file.st_mode)) {
            return {QStringLiteral("%1 is no directory").arg(step), own ? moveAway(step) : look};
        }
        if (!last && faccessat(AT_FDCWD, name, X_OK, AT_EACCESS) != 0) {
            return {QStringLiteral("%1 may not enter the directory %2 (%3)").arg(user, step, rights(file)),
                    own ? QStringLiteral("Let everybody enter it: chmod a+x %1").arg(step) : look};
        }
        if (last && !S_ISSOCK(file.st_mode)) {
            return {QStringLiteral("%1 is no socket but %2")
                        .arg(step, S_ISDIR(file.st_mode) ? QStringLiteral("a directory") : QStringLiteral("a file")),
                    own ? moveAway(step) : look};
        }
        if (last && error == EACCES && faccessat(AT_FDCWD, name, W_OK, AT_EACCESS) != 0) {
            return {QStringLiteral("%1 may not connect to %2 (%3)").arg(user, step, rights(file)),
                    own ? QStringLiteral("Let everybody connect: chmod a+rw %1").arg(step) : look};
        }
    }
    if (error == ECONNREFUSED)
        return {QStringLiteral("nobody listens on %1").arg(path), start};
    return {QStringLiteral("%1 cannot be connected to: %2").arg(path, describe(error)),
            error == EACCES ? QStringLiteral("Look for what forbids it: journalctl --boot --grep=denied") : start};
}

/** A directory on the way to a file in which everybody may put another in its place. */
QString openDirectory(const QString &path)
{
    const QStringList way = steps(path);
    for (const QString &step : way) {
        struct stat file = {};
        if (step != path && stat(step.toLocal8Bit(), &file) == 0 && (file.st_mode & S_IWOTH)
            && !(file.st_mode & S_ISVTX))
            return step;
    }
    return {};
}

struct BusAddress
{
    QString text;
    QString transport;
    QByteArray socket; ///< as BusLink wants it; empty: there is none, or more than one
    QByteArray guid;   ///< null: none is named
};

/** Takes an address of D-Bus apart, as strictly as the toolkit; nothing if it is none. */
std::optional<QVector<BusAddress>> parseAddress(const QString &text)
{
    static const QRegularExpression form(
        QStringLiteral("^([^:,;=]+):((?:[^:,;=]+=(?:[-0-9A-Za-z_/.\\\\*]|%[0-9A-Fa-f]{2})+"
                       "(?:,(?!\\z)|\\z))*)\\z"));
    QStringList parts = text.split(QLatin1Char(';'));
    if (parts.size() > 1 && parts.last().isEmpty())
        parts.removeLast();
    QVector<BusAddress> addresses;
    for (const QString &part : qAsConst(parts)) {
        const QRegularExpressionMatch match = form.match(part);
        if (!match.hasMatch())
            return std::nullopt;
        QHash<QString, QByteArray> values;
        const QStringList pairs = match.captured(2).split(QLatin1Char(','), Qt::SkipEmptyParts);
        for (const QString &pair : pairs) {
            const QString key = pair.section(QLatin1Char('='), 0, 0);
            const QByteArray value = QByteArray::fromPercentEncoding(pair.section(QLatin1Char('='), 1).toLatin1());
            // The first of a key counts, up to a zero byte.
            if (!values.contains(key))
                values.insert(key, value.constData());
        }
        const QByteArray path = values.value(QStringLiteral("path"));
        const QByteArray abstract = values.value(QStringLiteral("abstract"));
        BusAddress address{part, match.captured(1), {}, values.value(QStringLiteral("guid"))};
        if (address.transport == QLatin1String("unix") && path.isNull() != abstract.isNull()
            && !values.contains(QStringLiteral("tmpdir")))
            address.socket = abstract.isNull() ? path : '\0' + abstract;
        addresses.append(address);
    }
    return addresses;
}

/** The transports that hosts know, and authctl does not. */
const QStringList &otherTransports()
{
    static const QStringList transports{QStringLiteral("tcp"), QStringLiteral("nonce-tcp"), QStringLiteral("unixexec"),
                                        QStringLiteral("autolaunch")};
    return transports;
}

/** Why a bus cannot be connected to; a remedy only for what may be wrong with the machine's own address. */
Explanation explain(const BusAddress &address, int error)
{
    if (address.transport != QLatin1String("unix"))
        return {QStringLiteral("hosts know no transport such as that of the address \"%1\"").arg(address.text), {}};
    if (address.socket.isEmpty())
        return {QStringLiteral("the address %1 does not name one socket to connect to").arg(address.text), {}};
    if (error == ENAMETOOLONG) {
        return {QStringLiteral("the socket of the address %1 has a name of more than %2 bytes, which hosts do not take")
                    .arg(address.text)
                    .arg(BusLink::LongestName),
                {}};
    }
    if (!address.socket.startsWith('\0'))
        return explain(QString::fromLocal8Bit(address.socket), error, latin(StartBus));
    return {error == ECONNREFUSED ? QStringLiteral("nobody listens at %1").arg(address.text)
                                  : QStringLiteral("%1 cannot be connected to: %2").arg(address.text, describe(error)),
            {}};
}

/** What a description lacks of what hosts rely on. */
QStringList missing(const Interface &expected, const QString &description)
{
    QStringList offered;
    bool hasInterface = false;
    QXmlStreamReader xml(description);
    QString interface, kind, name, in, out;
    while (!xml.atEnd()) {
        const auto token = xml.readNext();
        const QXmlStreamAttributes attributes = xml.attributes();
        if (token == QXmlStreamReader::StartElement && xml.name() == QLatin1String("interface")) {
            interface = attributes.value(QLatin1String("name")).toString();
            hasInterface = hasInterface || interface == latin(expected.name);
        } else if (interface != latin(expected.name)) {
            continue;
        } else if (token == QXmlStreamReader::StartElement
                   && (xml.name() == QLatin1String("method") || xml.name() == QLatin1String("signal"))) {
            kind = xml.name().toString();
            name = attributes.value(QLatin1String("name")).toString();
            in.clear();
            out.clear();
        } else if (token == QXmlStreamReader::StartElement && xml.name() == QLatin1String("arg")) {
            const bool toHost =
                kind == QLatin1String("method") && attributes.value(QLatin1String("direction")) == QLatin1String("out");
            (toHost ? out : in) += attributes.value(QLatin1String("type"));
        } else if (token == QXmlStreamReader::EndElement && xml.name() == kind) {
            offered.append(QStringLiteral("%1 %2(%3)").arg(kind, name, in));
            offered.append(offered.last() + out);
        } else if (token == QXmlStreamReader::EndElement && xml.name() == QLatin1String("interface")) {
            interface.clear();
        }
    }
    if (!hasInterface)
        return {QStringLiteral("the interface %1").arg(latin(expected.name))};
    QStringList lacking;
    const auto look = [&](const char *what, const QVector<Member> &members) {
        for (const Member &member : members) {
            const QString wanted =
                QStringLiteral("%1 %2(%3)%4")
                    .arg(latin(what), latin(member.name), latin(member.arguments), latin(member.answer));
            if (!offered.contains(wanted))
                lacking.append(wanted);
        }
    };
    look("method", expected.methods);
    look("signal", expected.signalList);
    return lacking;
}

/** Makes the process another user than root, as far as a bus can tell, while it lives. */
class OrdinaryUser
{
public:
    OrdinaryUser()
        : m_wasRoot(geteuid() == 0)
        , m_group(getegid())
        , m_groups(getgroups(0, nullptr))
    {
        if (!m_wasRoot)
            return;
        if (getgroups(m_groups.size(), m_groups.data()) < 0 || setgroups(0, nullptr) != 0 || setegid(Nobody) != 0
            || seteuid(Nobody) != 0)
            m_error = errno;
    }

    ~OrdinaryUser()
    {
        if (!m_wasRoot)
            return;
        // What comes after needs no rights, should one not be given back.
        const bool given =
            seteuid(0) == 0 && setegid(m_group) == 0 && setgroups(size_t(m_groups.size()), m_groups.data()) == 0;
        Q_UNUSED(given)
    }

    Q_DISABLE_COPY(OrdinaryUser)

    /** An errno when it could not be done. */
    int error() const
    {
        return m_error;
    }

private:
    const bool m_wasRoot;
    const gid_t m_group;
    QVector<gid_t> m_groups;
    int m_error = 0;
};

BusMessage busCall(const char *method, const QString &argument = {})
{
    return {latin(BusName), QStringLiteral("/org/freedesktop/DBus"), latin(BusName), latin(method), argument};
}

class Doctor
{
public:
    Doctor(Output &output, bool json)
        : m_output(output)
        , m_json(json)
        , m_end(TotalTime)
    {
    }

    int examineAll();

private:
    void examineSocket();
    void examineBus();
    bool connectToBus(BusLink &bus);
    bool enterBus(BusLink &bus, const BusAddress &address, const QDeadlineTimer &deadline);
    void compareProcesses(uint process, uint user);
    void examinePolicy(BusLink &bus);
    bool examineObject(BusLink &link, const QString &destination, const Interface &expected);
    /** A call without arguments that does no harm, and what becomes of a host otherwise. */
    struct Question
    {
        const char *check;
        const char *method;
        const char *answer; ///< its type
        Level muteLevel;
        const char *mute;
        const char *broken;
    };
    void examineAnswer(BusLink &link, const QString &destination, const Interface &interface, const Question &question);
    bool ask(BusLink &bus, const char *method, const QString &argument, BusReply &reply);

    /** What a connection that does not work is told with. */
    struct Side
    {
        const char *check;
        const char *who;
        Level muteLevel;
        const char *mute; ///< what becomes of a host
        const char *remedy;
        Level brokenLevel = Fault;
        const char *broken = nullptr; ///< what becomes of a host; nullptr: what becomes of it when it starts
    };
    /** Whether the outcome is fine; tells it otherwise. */
    bool judge(Outcome outcome, const BusLink &link, const QString &request, const Side &side);
    bool timeIsLeft();
    void tell(Level level, const char *check, const QString &finding, const char *consequence = "",
              const QString &remedy = {});

    Output &m_output;
    const bool m_json;
    const QDeadlineTimer m_end;
    bool m_late = false;
    Level m_worst = Fine;
    std::optional<ucred> m_listener; ///< of the daemon's socket
    std::optional<uint> m_daemonUser;
    const char *m_restartBus = RestartBus;
    QByteArray m_busSocket;
    QString m_busName; ///< authctl's own
};

int Doctor::examineAll()
{
    m_output.setWaiting(true);
    examineSocket();
    examineBus();
    m_output.setWaiting(false);

    static const char *const summaries[] = {
        "Nothing is wrong",
        "Nothing is wrong, but see the notices",
        "a host would run here, but see the warnings",
        "it is not known whether a host would run here: see the warnings",
        "a host would freeze here",
        "a host would end with status 1 here",
    };
    const Status status = Levels[m_worst].status;
    m_output.result(QStringLiteral("doctor"), status, {}, latin(summaries[m_worst]));
    return status;
}

void Doctor::examineSocket()
{
    const QString path = latin(SocketPath);
    const QString open = openDirectory(path);
    if (!open.isEmpty()) {
        tell(Warning, "directory",
             QStringLiteral("everybody may put another socket in place of the daemon's in %1").arg(open),
             "A host can be deceived: what a user types goes to whoever has put a socket there.",
             QStringLiteral("Forbid it: chmod o-w %1").arg(open));
    }

    BusLink link;
    const QDeadlineTimer deadline(StepTime);
    const Outcome outcome = link.connectTo(SocketPath, deadline);
    if (outcome == Outcome::Full) {
        tell(Freeze, "socket", QStringLiteral("nobody accepts the connections to %1, and no more may wait").arg(path),
             FreezesForEver, latin(RestartDaemon));
        return;
    }
    if (outcome != Outcome::Fine) {
        const Explanation why = explain(path, link.systemError(), latin(StartAfresh));
        tell(Fault, "socket", why.finding, Ends, why.remedy);
        return;
    }
    m_listener = link.listener();
    tell(Fine, "socket",
         QStringLiteral("process %1 of user %2 listens on %3, and user %4 may connect")
             .arg(m_listener->pid)
             .arg(m_listener->uid)
             .arg(path)
             .arg(geteuid()));

    if (!judge(link.authenticate(deadline), link, QStringLiteral("the handshake"),
               {"handshake", "the daemon", Freeze, FreezesAtStart, RestartDaemon}))
        return;
    tell(Fine, "handshake", QStringLiteral("the daemon takes user %1 for who it is").arg(geteuid()));
    if (examineObject(link, {}, mainInterface()) && examineObject(link, {}, settingsInterface())) {
        examineAnswer(link, {}, mainInterface(),
                      {"challenge", "RequestChallenge", "ay", Freeze,
                       "A host freezes for 25 s when a user authenticates, and the daemon refuses the user.",
                       "A host runs, but the daemon refuses every user."});
    }
}

void Doctor::examineBus()
{
    BusLink bus;
    BusReply owner;
    if (!connectToBus(bus) || !ask(bus, "GetNameOwner", latin(Service), owner))
        return;
    if (owner.errorName.isEmpty()) {
        BusReply process, user;
        if (!ask(bus, "GetConnectionUnixProcessID", owner.text, process)
            || !ask(bus, "GetConnectionUnixUser", owner.text, user))
            return;
        m_daemonUser = user.number;
        tell(Fine, "name",
             QStringLiteral("process %1 of user %2 owns %3 on the bus")
                 .arg(process.number)
                 .arg(user.number)
                 .arg(latin(Service)));
        compareProcesses(process.number, user.number);
        if (examineObject(bus, latin(Service), devlockInterface())) {
            const char undefined[] =
                "A host runs, but for it the device-lock state is Undefined until the daemon announces it.";
            examineAnswer(bus, latin(Service), devlockInterface(),
                          {"state", "GetState", "i", Warning, undefined, undefined});
        }
    } else {
        BusReply activatable;
        if (!ask(bus, "ListActivatableNames", {}, activatable))
            return;
        if (activatable.text.split(QLatin1Char('\n')).contains(latin(Service))) {
            tell(Notice, "name",
                 QStringLiteral("no daemon owns %1 on the bus, which starts one when it is called").arg(latin(Service)),
                 "A host waits for the daemon's start.");
        } else {
            tell(Warning, "name",
                 QStringLiteral("no daemon owns %1 on the bus, which knows none to start").arg(latin(Service)),
                 "A host runs, but for it the device-lock state is Undefined.", latin(StartDaemon));
        }
    }
    examinePolicy(bus);
}

bool Doctor::connectToBus(BusLink &bus)
{
    QString text = QString::fromLocal8Bit(qgetenv("DBUS_SYSTEM_BUS_ADDRESS"));
    const bool given = !text.isEmpty();
    if (given)
        m_restartBus = CorrectAddress;
    else
        text = latin(DefaultBusAddress);
    const auto addresses = parseAddress(text);
    if (!addresses) {
        tell(Fault, "bus", QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS is no address of D-Bus: %1").arg(text), Ends,
             latin(CorrectAddress));
        return false;
    }

    QVector<Explanation> failures;
    const auto tellFailures = [&](Level level, const char *consequence) {
        for (const Explanation &failure : qAsConst(failures))
            tell(level, "bus", failure.finding, consequence, failure.remedy);
    };
    for (const BusAddress &address : *addresses) {
        if (!timeIsLeft())
            return false;
        if (otherTransports().contains(address.transport)) {
            tellFailures(Notice, GoesOn);
            tell(Unknown, "bus",
                 QStringLiteral("authctl cannot examine the transport of the address %1").arg(address.text),
                 "What a host meets there is unknown.", latin(CorrectAddress));
            return false;
        }
        const QDeadlineTimer deadline(StepTime);
        const Outcome outcome =
            address.socket.isEmpty() ? Outcome::Unreachable : bus.connectTo(address.socket, deadline);
        if (outcome == Outcome::Full) {
            tell(Freeze, "bus",
                 QStringLiteral("nobody accepts the connections to %1, and no more may wait").arg(address.text),
                 FreezesForEver, latin(m_restartBus));
            return false;
        }
        if (outcome == Outcome::Fine) {
            m_busSocket = address.socket;
            tellFailures(Notice, GoesOn);
            if (!enterBus(bus, address, deadline))
                return false;
            tell(Fine, "bus", QStringLiteral("user %1 may use the bus at %2").arg(geteuid()).arg(address.text));
            return true;
        }
        Explanation why = explain(address, bus.systemError());
        if (given)
            why.remedy = latin(CorrectAddress);
        failures.append(why);
    }
    tellFailures(Fault, Ends);
    return false;
}

bool Doctor::enterBus(BusLink &bus, const BusAddress &address, const QDeadlineTimer &deadline)
{
    BusReply name;
    if (!judge(bus.authenticate(deadline), bus, QStringLiteral("the handshake"),
               {"bus", "the bus", Freeze, FreezesForEver, m_restartBus}))
        return false;
    if (!address.guid.isNull() && address.guid != bus.guid()) {
        tell(Fault, "bus",
             QStringLiteral("the bus at %1 has another guid: %2").arg(address.text, QString::fromLatin1(bus.guid())),
             Ends, latin(CorrectAddress));
        return false;
    }
    if (!judge(
            bus.call(busCall("Hello"), name, deadline), bus, QStringLiteral("Hello"),
            {"bus", "the bus", Fault, "A host freezes for 25 s when it starts, and ends with status 1.", m_restartBus}))
        return false;
    m_busName = name.text;
    return true;
}

void Doctor::compareProcesses(uint process, uint user)
{
    if (!m_listener)
        return;
    const auto listener = uint(m_listener->pid);
    const QString who =
        QStringLiteral("process %1 of user %2 listens on the socket, process %3 of user %4 owns the name")
            .arg(listener)
            .arg(m_listener->uid)
            .arg(process)
            .arg(user);
    if (listener != 0 && listener == process) {
        tell(Fine, "process", QStringLiteral("the process that listens on the socket owns the name"));
    } else if (m_listener->uid != user && m_listener->uid != 0) {
        tell(Warning, "process", who,
             "A host can be deceived: what a user types goes to a process that may not be the daemon.",
             QStringLiteral("See what it is: ps -fp %1").arg(listener));
    } else {
        tell(Notice, "process", who,
             "That is so during a handover, with a socket that a service manager opens, and across process namespaces.",
             QStringLiteral("If it is none of these, see what they are: ps -fp %1,%2").arg(listener).arg(process));
    }
}

void Doctor::examinePolicy(BusLink &bus)
{
    const uid_t user = geteuid() == 0 ? Nobody : geteuid();
    const auto leave = [this](const QString &why) {
        tell(Notice, "policy", QStringLiteral("who may send device-lock signals was not measured: %1").arg(why));
    };
    if (m_daemonUser == user) {
        leave(QStringLiteral("user %1 is the daemon's own; run authctl doctor as another").arg(user));
        return;
    }
    if (!timeIsLeft())
        return;

    const QDeadlineTimer deadline(StepTime);
    BusLink stranger;
    Outcome outcome = Outcome::Unreachable;
    {
        const OrdinaryUser ordinary;
        if (ordinary.error() != 0) {
            leave(QStringLiteral("authctl cannot become user %1: %2").arg(user).arg(describe(ordinary.error())));
            return;
        }
        outcome = stranger.connectTo(m_busSocket, deadline);
    }
    BusReply name, seen, any;
    if (outcome == Outcome::Fine)
        outcome = stranger.authenticate(deadline);
    if (outcome == Outcome::Fine)
        outcome = stranger.call(busCall("Hello"), name, deadline);
    if (outcome == Outcome::Fine)
        outcome = bus.call(busCall("GetConnectionUnixUser", name.text), seen, deadline);
    if (outcome != Outcome::Fine || seen.number != user) {
        leave(QStringLiteral("user %1 got no connection to the bus").arg(user));
        return;
    }

    // The bus judges a signal by the process that would receive it, with or without a destination, so one that goes to
    // authctl alone tells what others could be sent, unless the policy has rules for broadcasts (send_broadcast). It
    // has no argument: a host would not take it, should it ever get there.
    bus.expectSignalFrom(name.text);
    outcome = stranger.sendSignal(
        {m_busName, latin(devlockInterface().path), latin(devlockInterface().name), QStringLiteral("StateChanged")},
        deadline);
    // What the bus has answered after the signal it has answered to whoever was to get it, too.
    if (outcome == Outcome::Fine)
        outcome = stranger.call(busCall("GetId"), any, deadline);
    if (outcome == Outcome::Fine || outcome == Outcome::ErrorReply)
        outcome = bus.call(busCall("GetId"), any, deadline);
    if (bus.hasSeenSignal()) {
        tell(Warning, "policy",
             QStringLiteral("user %1 may send device-lock signals: the bus delivered one that it directed at authctl")
                 .arg(user),
             "A host can be deceived, or kept from hearing the daemon: it listens to whoever announces the device-lock "
             "state, and believes it.",
             // A copy of the example would take the name from a daemon that is not run by root.
             QStringLiteral("Have the policy in /usr/share/dbus-1/system.d/%1.conf forbid them to all but the daemon's "
                            "user, as " EXAMPLES_DIR "/%1.conf does to all but root; then: systemctl reload dbus")
                 .arg(latin(Service)));
    } else if (outcome == Outcome::Fine) {
        tell(
            Fine, "policy",
            QStringLiteral("user %1 may not send device-lock signals: the bus withheld one that it directed at authctl")
                .arg(user));
    } else {
        leave(QStringLiteral("the bus stopped answering"));
    }
}

bool Doctor::examineObject(BusLink &link, const QString &destination, const Interface &expected)
{
    if (!timeIsLeft())
        return false;
    const bool onBus = !destination.isEmpty();
    const QString path = latin(expected.path);
    BusReply description;
    const Outcome outcome = link.call(
        {destination, path, QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect")},
        description, QDeadlineTimer(StepTime));
    if (outcome == Outcome::ErrorReply) {
        tell(Warning, expected.check, QStringLiteral("Introspect of %1 is refused: %2").arg(path, link.words()),
             "A host runs, but its calls of this object may be refused as well.",
             latin(onBus ? AllowCalls : RestartDaemon));
        return true;
    }
    const Side side{expected.check, onBus ? "the daemon, on the bus," : "the daemon", Freeze,
                    onBus ? "A host freezes for 25 s when it starts, and does not learn the device-lock state."
                          : FreezesAtStart,
                    RestartDaemon};
    if (!judge(outcome, link, QStringLiteral("Introspect of %1").arg(path), side))
        return false;
    const QStringList lacking = missing(expected, description.text);
    if (lacking.isEmpty()) {
        tell(Fine, expected.check, QStringLiteral("%1 has the methods and signals that hosts use").arg(path));
    } else {
        tell(Warning, expected.check, QStringLiteral("%1 lacks %2").arg(path, lacking.join(QStringLiteral(", "))),
             "A host runs, but what it wants of these fails.", latin(MatchVersions));
    }
    return true;
}

void Doctor::examineAnswer(BusLink &link, const QString &destination, const Interface &interface,
                           const Question &question)
{
    if (!timeIsLeft())
        return;
    const bool onBus = !destination.isEmpty();
    const QString method = latin(question.method);
    BusReply reply;
    const Outcome outcome =
        link.call({destination, latin(interface.path), latin(interface.name), method}, reply, QDeadlineTimer(StepTime));
    if (!judge(outcome, link, method,
               {question.check, onBus ? "the daemon, on the bus," : "the daemon", question.muteLevel, question.mute,
                onBus && outcome == Outcome::ErrorReply ? AllowCalls : RestartDaemon, Warning, question.broken}))
        return;
    if (reply.signature == latin(question.answer)) {
        tell(Fine, question.check, QStringLiteral("the daemon answers %1").arg(method));
    } else {
        tell(Warning, question.check,
             QStringLiteral("the daemon answers %1 with the type \"%2\" instead of \"%3\"")
                 .arg(method, reply.signature, latin(question.answer)),
             question.broken, latin(MatchVersions));
    }
}

bool Doctor::ask(BusLink &bus, const char *method, const QString &argument, BusReply &reply)
{
    if (!timeIsLeft())
        return false;
    const Outcome outcome = bus.call(busCall(method, argument), reply, QDeadlineTimer(StepTime));
    return outcome == Outcome::ErrorReply
        || judge(outcome, bus, latin(method),
                 {"bus", "the bus", Freeze, "A host freezes for 25 s at each call.", m_restartBus});
}

bool Doctor::judge(Outcome outcome, const BusLink &link, const QString &request, const Side &side)
{
    const QString who = latin(side.who);
    const QString remedy = latin(side.remedy);
    switch (outcome) {
    case Outcome::Fine:
        return true;
    case Outcome::Mute:
        tell(side.muteLevel, side.check,
             QStringLiteral("%1 does not answer %2 within %3 s").arg(who, request).arg(StepTime / 1000), side.mute,
             remedy);
        break;
    case Outcome::Rejected:
        tell(Fault, side.check,
             QStringLiteral("%1 refuses user %2 the handshake EXTERNAL (it offers: %3)")
                 .arg(who)
                 .arg(geteuid())
                 .arg(link.words()),
             EndsOrFreezes, remedy);
        break;
    case Outcome::Garbage:
        tell(side.brokenLevel, side.check,
             QStringLiteral("%1 answers %2 with garbage: %3").arg(who, request, link.words()),
             side.broken ? side.broken : EndsOrFreezes, remedy);
        break;
    case Outcome::ErrorReply:
        tell(side.brokenLevel, side.check, QStringLiteral("%1 refuses %2: %3").arg(who, request, link.words()),
             side.broken ? side.broken : Ends, remedy);
        break;
    default:
        tell(side.brokenLevel, side.check,
             QStringLiteral("%1 closes the connection instead of answering %2").arg(who, request),
             side.broken ? side.broken : Ends, remedy);
    }
    return false;
}

bool Doctor::timeIsLeft()
{
    if (m_end.remainingTime() >= StepTime)
        return true;
    if (!m_late) {
        tell(Freeze, "time",
             QStringLiteral("answers came so late that not everything was examined in %1 s").arg(TotalTime / 1000),
             "A host freezes at each of its calls for as long.", latin(RestartDaemon));
    }
    m_late = true;
    return false;
}

void Doctor::tell(Level level, const char *check, const QString &finding, const char *consequence,
                  const QString &remedy)
{
    m_worst = qMax(m_worst, level);
    if (m_json) {
        QJsonObject details{{QStringLiteral("check"), latin(check)},
                            {QStringLiteral("level"), latin(Levels[level].name)},
                            {QStringLiteral("status"), Levels[level].status},
                            {QStringLiteral("finding"), finding}};
        if (*consequence)
            details.insert(QStringLiteral("consequence"), latin(consequence));
        if (!remedy.isEmpty())
            details.insert(QStringLiteral("remedy"), remedy);
        m_output.event(QStringLiteral("check"), details, {});
        return;
    }
    QVector<QStringList> rows{{latin(Levels[level].name).leftJustified(7), latin(check).leftJustified(15), finding}};
    for (const QString &line : {latin(consequence), remedy}) {
        if (!line.isEmpty())
            rows.append({QString(), QString(), line});
    }
    m_output.print(stdout, toTable(rows));
}

} // namespace

int examine(Output &output, bool json)
{
    return Doctor(output, json).examineAll();
}
