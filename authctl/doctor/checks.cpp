#include "checks.h"

#include "interface.h"

#include <unistd.h>

namespace {

const char SocketPath[] = "/var/run/authd/authd.socket";
const char DefaultBusAddress[] = "unix:path=/var/run/dbus/system_bus_socket";
const char Service[] = "vantora.AuthService";
const char BusName[] = "org.freedesktop.DBus";

// What becomes of a host.
const char Ends[] = "A host ends with status 1.";
const char EndsOrFreezes[] = "A host ends with status 1, or freezes for 50 s where the connection stays open.";
const char FreezesAtStart[] = "A host freezes for 50 s when it starts, and for 25 s at each call.";
const char Undefined[] = "A host runs, but for it the device-lock state is Undefined until the daemon announces it.";
const char FreezesForEver[] = "A host freezes when it starts, for as long as this lasts.";

// What to do about it.
const char StartDaemon[] = "Start the daemon: systemctl start authd";
// The daemon may run, and have lost its socket.
const char StartAfresh[] = "Start the daemon, or start it again: systemctl restart authd";
const char RestartDaemon[] = "See what it does, and restart it: journalctl -u authd; systemctl restart authd";
const char MatchVersions[] = "Install a daemon and a library that go together; see which are there: dpkg -l '*auth*'";
const char AllowCalls[] = "Have the bus and the daemon allow it to everybody: see the daemon's policy, "
                          "/usr/share/dbus-1/system.d/vantora.AuthService.conf";
const char StartBus[] = "Start the system bus: systemctl start dbus.socket";
const char RestartBus[] = "See what it does: journalctl -u dbus. Should it stay so, restart the machine";
const char CorrectAddress[] = "Correct the address of the bus, or do without: unset DBUS_SYSTEM_BUS_ADDRESS";

/** What a conversation that does not work is told with. */
struct Side
{
    const char *check;
    const char *who;
    Level muteLevel;
    const char *mute; ///< what becomes of a host that is not answered
    const char *remedy;
    Level brokenLevel = Level::Fault;
    const char *broken = nullptr;  ///< what becomes of a host otherwise; nullptr: what becomes of it when it starts
    const char *refusal = nullptr; ///< what to do about a refusal; nullptr: the remedy
};

/** What the outcome of a request means; nothing where the outcome is fine. */
Findings judge(Outcome outcome, const BusLink &link, const QString &request, const Side &side)
{
    const QString who = latin(side.who);
    const bool isRefused = outcome == Outcome::ErrorReply && side.refusal;
    const QString remedy = latin(isRefused ? side.refusal : side.remedy);
    const auto broken = [&](const char *consequence, const QString &text) {
        return Findings{{side.brokenLevel, side.check, text, side.broken ? side.broken : consequence, remedy}};
    };
    switch (outcome) {
    case Outcome::Fine:
        return {};
    case Outcome::Mute:
        return {{side.muteLevel, side.check,
                 QStringLiteral("%1 does not answer %2 within %3 s").arg(who, request).arg(StepTime / 1000), side.mute,
                 remedy}};
    case Outcome::Rejected:
        return broken(EndsOrFreezes,
                      QStringLiteral("%1 refuses user %2 the handshake EXTERNAL (it offers: %3)")
                          .arg(who)
                          .arg(geteuid())
                          .arg(link.words()));
    case Outcome::Garbage:
        return broken(EndsOrFreezes, QStringLiteral("%1 answers %2 with garbage: %3").arg(who, request, link.words()));
    case Outcome::ErrorReply:
        return broken(Ends, QStringLiteral("%1 refuses %2: %3").arg(who, request, link.words()));
    default:
        return broken(Ends, QStringLiteral("%1 closes the connection instead of answering %2").arg(who, request));
    }
}

/** Whether an object has what hosts use. @param goesOn whether more can be asked there */
Findings examineObject(BusLink &link, const char *check, const Interface &expected, bool onBus, bool &goesOn)
{
    const QString path = latin(expected.path);
    BusReply description;
    const Outcome outcome =
        link.call({onBus ? latin(Service) : QString(), path, QStringLiteral("org.freedesktop.DBus.Introspectable"),
                   QStringLiteral("Introspect")},
                  description, QDeadlineTimer(StepTime));
    goesOn = outcome == Outcome::Fine || outcome == Outcome::ErrorReply;
    if (outcome == Outcome::ErrorReply) {
        return {{Level::Warning, check, QStringLiteral("Introspect of %1 is refused: %2").arg(path, link.words()),
                 "A host runs, but its calls of this object may be refused as well.",
                 latin(onBus ? AllowCalls : RestartDaemon)}};
    }
    if (!goesOn) {
        return judge(outcome, link, QStringLiteral("Introspect of %1").arg(path),
                     {check, onBus ? "the daemon, on the bus," : "the daemon", Level::Freeze,
                      onBus ? "A host freezes for 25 s when it starts, and does not learn the device-lock state."
                            : FreezesAtStart,
                      RestartDaemon});
    }
    const QStringList lacking = missing(expected, description.text);
    if (lacking.isEmpty())
        return {{Level::Fine, check, QStringLiteral("%1 has the methods and signals that hosts use").arg(path)}};
    return {{Level::Warning, check, QStringLiteral("%1 lacks %2").arg(path, lacking.join(QStringLiteral(", "))),
             "A host runs, but what it wants of these fails.", latin(MatchVersions)}};
}

/** Whether a call without arguments, one that does no harm, is answered with the type that hosts expect. */
Findings examineAnswer(BusLink &link, const BusMessage &call, const char *type, const Side &side)
{
    BusReply reply;
    const Outcome outcome = link.call(call, reply, QDeadlineTimer(StepTime));
    if (outcome != Outcome::Fine)
        return judge(outcome, link, call.member, side);
    if (reply.signature == latin(type))
        return {{Level::Fine, side.check, QStringLiteral("the daemon answers %1").arg(call.member)}};
    return {{Level::Warning, side.check,
             QStringLiteral("the daemon answers %1 with the type \"%2\" instead of \"%3\"")
                 .arg(call.member, reply.signature, latin(type)),
             side.broken, latin(MatchVersions)}};
}

/** Asks the bus; when it does not answer, and be it with an error, there is a finding and no more conversation. */
bool ask(Machine &machine, const char *method, const QString &argument, BusReply &reply, Findings &findings)
{
    if (!machine.timeIsLeft())
        return false;
    const Outcome outcome = machine.bus->call(busCall(method, argument), reply, QDeadlineTimer(StepTime));
    if (outcome == Outcome::Fine || outcome == Outcome::ErrorReply)
        return true;
    findings = judge(outcome, *machine.bus, latin(method),
                     {"bus", "the bus", Level::Freeze, "A host freezes for 25 s at each call.", machine.restartBus});
    machine.bus.reset();
    return false;
}

} // namespace

QString latin(const char *text)
{
    return QString::fromLatin1(text);
}

bool Machine::timeIsLeft()
{
    late = late || end.remainingTime() < StepTime;
    return !late;
}

Finding tooLate()
{
    return {Level::Freeze, "time",
            QStringLiteral("answers came so late that not everything was examined in %1 s").arg(TotalTime / 1000),
            "A host freezes at each of its calls for as long.", latin(RestartDaemon)};
}

BusMessage busCall(const char *method, const QString &argument)
{
    return {latin(BusName), QStringLiteral("/org/freedesktop/DBus"), latin(BusName), latin(method), argument};
}

Findings checkDirectory(Machine &)
{
    const QString open = openDirectory(latin(SocketPath));
    if (open.isEmpty())
        return {};
    return {{Level::Warning, "directory",
             QStringLiteral("everybody may put another socket in place of the daemon's in %1").arg(open),
             "A host can be deceived: what a user types goes to whoever has put a socket there.",
             QStringLiteral("Forbid it: chmod o-w %1").arg(open)}};
}

Findings checkSocket(Machine &machine)
{
    const QString path = latin(SocketPath);
    auto link = std::make_unique<BusLink>();
    const Outcome outcome = link->connectTo(SocketPath, QDeadlineTimer(StepTime));
    if (outcome == Outcome::Full) {
        return {{Level::Freeze, "socket",
                 QStringLiteral("nobody accepts the connections to %1, and no more may wait").arg(path), FreezesForEver,
                 latin(RestartDaemon)}};
    }
    if (outcome != Outcome::Fine) {
        const Explanation why = explain(path, link->systemError(), latin(StartAfresh));
        return {{Level::Fault, "socket", why.finding, Ends, why.remedy}};
    }
    machine.listener = link->listener();
    machine.daemon = std::move(link);
    return {{Level::Fine, "socket",
             QStringLiteral("process %1 of user %2 listens on %3, and user %4 may connect")
                 .arg(machine.listener->pid)
                 .arg(machine.listener->uid)
                 .arg(path)
                 .arg(geteuid())}};
}

Findings checkHandshake(Machine &machine)
{
    if (!machine.daemon || !machine.timeIsLeft())
        return {};
    const Outcome outcome = machine.daemon->authenticate(QDeadlineTimer(StepTime));
    if (outcome == Outcome::Fine)
        return {{Level::Fine, "handshake", QStringLiteral("the daemon takes user %1 for who it is").arg(geteuid())}};
    const Findings findings = judge(outcome, *machine.daemon, QStringLiteral("the handshake"),
                                    {"handshake", "the daemon", Level::Freeze, FreezesAtStart, RestartDaemon});
    machine.daemon.reset();
    return findings;
}

static Findings checkObject(Machine &machine, const char *check, const Interface &expected)
{
    if (!machine.daemon || !machine.timeIsLeft())
        return {};
    bool goesOn = false;
    const Findings findings = examineObject(*machine.daemon, check, expected, false, goesOn);
    if (!goesOn)
        machine.daemon.reset();
    return findings;
}

Findings checkMainObject(Machine &machine)
{
    return checkObject(machine, "main-object", MainInterface);
}

Findings checkSettingsObject(Machine &machine)
{
    return checkObject(machine, "settings-object", SettingsInterface);
}

Findings checkChallenge(Machine &machine)
{
    if (!machine.daemon || !machine.timeIsLeft())
        return {};
    return examineAnswer(
        *machine.daemon,
        {QString(), latin(MainInterface.path), latin(MainInterface.name), QStringLiteral("RequestChallenge")}, "ay",
        {"challenge", "the daemon", Level::Freeze,
         "A host freezes for 25 s when a user authenticates, and the daemon refuses the user.", RestartDaemon,
         Level::Warning, "A host runs, but the daemon refuses every user."});
}

Findings checkBusAddress(Machine &machine)
{
    const QByteArray given = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
    machine.restartBus = given.isEmpty() ? RestartBus : CorrectAddress;
    const auto addresses = parseAddress(given.isEmpty() ? QByteArray(DefaultBusAddress) : given);
    if (!addresses) {
        return {
            {Level::Fault, "bus",
             QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS is no address of D-Bus: %1").arg(QString::fromLocal8Bit(given)),
             Ends, latin(CorrectAddress)}};
    }

    Findings failures;
    const auto goingOn = [&failures] {
        for (Finding &failure : failures) {
            failure.level = Level::Notice;
            failure.consequence = "A host goes on to the next address.";
        }
        return failures;
    };
    for (const BusAddress &address : *addresses) {
        if (!machine.timeIsLeft())
            return {};
        if (isOtherTransport(address)) {
            return goingOn() << Finding{
                       Level::Unknown, "bus",
                       QStringLiteral("authctl cannot examine the transport of the address %1").arg(address.text),
                       "What a host meets there is unknown.", latin(CorrectAddress)};
        }
        auto link = std::make_unique<BusLink>();
        const Outcome outcome =
            address.socket.isEmpty() ? Outcome::Unreachable : link->connectTo(address.socket, QDeadlineTimer(StepTime));
        if (outcome == Outcome::Full) {
            return {{Level::Freeze, "bus",
                     QStringLiteral("nobody accepts the connections to %1, and no more may wait").arg(address.text),
                     FreezesForEver, latin(machine.restartBus)}};
        }
        if (outcome == Outcome::Fine) {
            machine.bus = std::move(link);
            machine.busAddress = address;
            return goingOn();
        }
        const Explanation why = explain(address, link->systemError(), latin(StartBus));
        failures.append({Level::Fault, "bus", why.finding, Ends, given.isEmpty() ? why.remedy : latin(CorrectAddress)});
    }
    return failures;
}

Findings checkBusHandshake(Machine &machine)
{
    const BusAddress &address = machine.busAddress;
    BusReply name;
    const auto examine = [&]() -> Findings {
        Outcome outcome = machine.bus->authenticate(QDeadlineTimer(StepTime));
        if (outcome != Outcome::Fine)
            return judge(outcome, *machine.bus, QStringLiteral("the handshake"),
                         {"bus", "the bus", Level::Freeze, FreezesForEver, machine.restartBus});
        if (!address.guid.isNull() && address.guid != machine.bus->guid()) {
            return {{Level::Fault, "bus",
                     QStringLiteral("the bus at %1 has another guid: %2")
                         .arg(address.text, QString::fromLatin1(machine.bus->guid())),
                     Ends, latin(CorrectAddress)}};
        }
        if (!machine.timeIsLeft())
            return {};
        outcome = machine.bus->call(busCall("Hello"), name, QDeadlineTimer(StepTime));
        return judge(outcome, *machine.bus, QStringLiteral("Hello"),
                     {"bus", "the bus", Level::Fault, "A host freezes for 25 s when it starts, and ends with status 1.",
                      machine.restartBus});
    };
    if (!machine.bus || !machine.timeIsLeft())
        return {};
    const Findings findings = examine();
    if (!findings.isEmpty()) {
        machine.bus.reset();
        return findings;
    }
    // Without the time for it, Hello was not said, and nothing is known yet.
    if (machine.late)
        return {};
    machine.busName = name.text;
    return {{Level::Fine, "bus", QStringLiteral("user %1 may use the bus at %2").arg(geteuid()).arg(address.text)}};
}

Findings checkName(Machine &machine)
{
    Findings findings;
    BusReply owner, process, user, activatable;
    if (!machine.bus || !ask(machine, "GetNameOwner", latin(Service), owner, findings))
        return findings;
    if (owner.errorName.isEmpty()) {
        if (!ask(machine, "GetConnectionUnixProcessID", owner.text, process, findings)
            || !ask(machine, "GetConnectionUnixUser", owner.text, user, findings))
            return findings;
        if (!process.errorName.isEmpty() || !user.errorName.isEmpty()) {
            return {
                {Level::Warning, "name",
                 QStringLiteral("the bus does not tell who owns %1: the daemon may just have gone").arg(latin(Service)),
                 "A host runs, but while no daemon owns the name the device-lock state is Undefined.",
                 latin(RestartDaemon)}};
        }
        machine.nameIsOwned = true;
        machine.ownerProcess = process.number;
        machine.ownerUser = user.number;
        return {{Level::Fine, "name",
                 QStringLiteral("process %1 of user %2 owns %3 on the bus")
                     .arg(process.number)
                     .arg(user.number)
                     .arg(latin(Service))}};
    }
    if (!ask(machine, "ListActivatableNames", {}, activatable, findings))
        return findings;
    if (activatable.text.split(QLatin1Char('\n')).contains(latin(Service))) {
        return {{Level::Notice, "name",
                 QStringLiteral("no daemon owns %1 on the bus, which starts one when it is called").arg(latin(Service)),
                 "A host waits for the daemon's start."}};
    }
    return {{Level::Warning, "name",
             QStringLiteral("no daemon owns %1 on the bus, which knows none to start").arg(latin(Service)),
             "A host runs, but for it the device-lock state is Undefined.", latin(StartDaemon)}};
}

Findings checkProcess(Machine &machine)
{
    if (!machine.listener || !machine.nameIsOwned)
        return {};
    const auto listener = uint(machine.listener->pid);
    const QString who =
        QStringLiteral("process %1 of user %2 listens on the socket, process %3 of user %4 owns the name")
            .arg(listener)
            .arg(machine.listener->uid)
            .arg(machine.ownerProcess)
            .arg(*machine.ownerUser);
    if (listener != 0 && listener == machine.ownerProcess) {
        return {{Level::Fine, "process", QStringLiteral("the process that listens on the socket owns the name")}};
    }
    if (machine.listener->uid != *machine.ownerUser && machine.listener->uid != 0) {
        return {{Level::Warning, "process", who,
                 "A host can be deceived: what a user types goes to a process that may not be the daemon.",
                 QStringLiteral("See what it is: ps -fp %1").arg(listener)}};
    }
    return {{Level::Notice, "process", who,
             "That is so during a handover, with a socket that a service manager opens, and across process namespaces.",
             QStringLiteral("If it is none of these, see what they are: ps -fp %1,%2")
                 .arg(listener)
                 .arg(machine.ownerProcess)}};
}

Findings checkDevlockObject(Machine &machine)
{
    if (!machine.bus || !machine.nameIsOwned || !machine.timeIsLeft())
        return {};
    return examineObject(*machine.bus, "devlock-object", DevlockInterface, true, machine.nameIsOwned);
}

Findings checkState(Machine &machine)
{
    if (!machine.bus || !machine.nameIsOwned || !machine.timeIsLeft())
        return {};
    return examineAnswer(
        *machine.bus,
        {latin(Service), latin(DevlockInterface.path), latin(DevlockInterface.name), QStringLiteral("GetState")}, "i",
        {"state", "the daemon, on the bus,", Level::Warning, Undefined, RestartDaemon, Level::Warning, Undefined,
         AllowCalls});
}
