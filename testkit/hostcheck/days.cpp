#include "days.h"

#include "play.h"

#include <QtCore/QJsonArray>
#include <QtCore/QRegularExpression>

#include <algorithm>
#include <initializer_list>

namespace {

using Action = std::function<void(Play &play)>;
using Names = std::initializer_list<QByteArray>;

// A token that the daemon has not given out.
constexpr char foreignToken[] = "([byte 0x01, 0x02, 0x03],)";
constexpr char once[] = R"("times":1)";
// Longer than calls wait for an answer, and than a host should wait for an outcome.
const int Alone = 65000;

bool isPeerCall(const QByteArray &method)
{
    return method != "GetState" && method != "Introspect";
}

/** The daemon treats the nth call of a method by a rule, and those before as usual. */
void misbehaveAt(Play &play, const QByteArray &method, int nth, const QByteArray &how)
{
    play.misbehave(method, how, once);
    if (nth > 1)
        play.misbehave(method, "delay", R"("ms":0,"times":)" + QByteArray::number(nth - 1));
}

/** The daemon goes at the nth call of a method, or closes the connection that it came on, and is there again later. */
Action goesAt(const QByteArray &method, int nth, const QByteArray &how)
{
    return [=](Play &play) {
        misbehaveAt(play, method, nth, how);
        // A client that is being made ends the process when the socket goes, and only while it is being made it calls
        // GetState and Introspect. A host may make a claim before it makes its client.
        play.mayEnd(
            [&play, method, nth] { return (!play.isUp() || !isPeerCall(method)) && play.wasCalled(method, nth); });
        play.start();
        play.reach(method, nth);
        if (how == "crash")
            play.daemon(R"({"do":"start"})");
        // A host whose connection was closed connects again only when the daemon comes anew.
        if (how == "drop")
            play.daemon(R"({"do":"restart"})");
        play.usable();
    };
}

/** One call of the method goes wrong, but all others are as they should be. */
Action slipsAt(const QByteArray &method, const QByteArray &how)
{
    return [=](Play &play) {
        play.misbehave(method, how, once);
        play.start();
        play.reach(method);
        // The host learns nothing of an unlocking that nobody announces.
        if (how == "lose-signals" && method == "SetDevlockState")
            play.quiet();
        else if (how != "mute")
            play.unlock();
        play.usable();
    };
}

/** Calls of the method are not carried out, but answered with the value. */
Action answersAt(
    const QByteArray &method, const QByteArray &value, const Action &next = [](Play &) {})
{
    return [=](Play &play) {
        if (value.isEmpty())
            play.misbehave(method, "error");
        else
            play.answer(method, value);
        play.start();
        play.reach(method);
        play.quiet();
        play.daemon(R"({"do":"behave"})");
        next(play);
        play.usable();
    };
}

/** Something happens while a host stands idle before a locked device, and nothing may come of it. */
Action idles(const Action &happening)
{
    return [=](Play &play) {
        play.startIdle();
        happening(play);
        play.quiet();
        play.usable();
    };
}

/** The same while the device is in use: the host has to take its claim back. */
Action loses(
    const Action &happening, const Action &next = [](Play &) {})
{
    return [=](Play &play) {
        play.start();
        play.unlock();
        happening(play);
        play.awaitLocked();
        next(play);
        play.usable();
    };
}

/** The host is started without what it needs; what it needs comes later, should the host stay up. */
Action startsWithout(const Action &arrangement)
{
    return [=](Play &play) {
        arrangement(play);
        play.mayEnd();
        play.start();
        play.enter(play.rightCode());
        play.quiet();
        play.daemon(R"({"do":"accept","how":"normal"})");
        play.daemon(R"({"do":"restart"})");
        play.usable();
    };
}

/** Something happens while a call is under way. */
Action during(
    const QByteArray &method, const Action &happening, const Action &next = [](Play &) {})
{
    return [=](Play &play) {
        play.misbehave(method, "hold", once);
        play.start();
        play.reach(method);
        happening(play);
        play.daemon(R"({"do":"release"})");
        play.quiet();
        next(play);
        play.usable();
    };
}

Action asks(const QByteArray &request)
{
    return [=](Play &play) { play.daemon(request); };
}

Action announces(int state)
{
    return [=](Play &play) { play.setLock(state); };
}

Action returns(const QByteArray &without)
{
    return [=](Play &play) {
        play.daemon(R"({"do":"stop"})");
        play.awaitLocked();
        play.mayEnd();
        if (without == "socket") {
            play.daemon(R"({"do":"start","socket":false})");
        } else {
            play.daemon(R"({"do":"accept","how":")" + without + R"("})");
            play.daemon(R"({"do":"start"})");
        }
        play.awaitEnd();
        // The day of a host that has ended is over; every other host has to be usable.
        play.daemon(R"({"do":"accept","how":"normal"})");
        play.daemon(R"({"do":"restart"})");
    };
}

void ordinary(Play &play)
{
    play.start();
    play.enterUntil(play.wrongCode(), [&play] { return play.wasCalled("Authenticate"); });
    play.quiet();
    play.unlock();
    play.usable();
    // What the host says when it ends is said before a locked device.
    play.lock();
}

void wrongCodesLockOut(Play &play)
{
    play.start();
    const auto lockedOut = [&play] { return play.lockState() == CodeEntryLockout; };
    for (int i = 1; i < 10 && !lockedOut(); ++i)
        play.enterUntil(play.wrongCode(), [&] { return lockedOut() || play.wasCalled("Authenticate", i); });
    if (!lockedOut())
        throw Outcome{Outcome::NotReached, QStringLiteral("the host has not passed on enough wrong codes")};
    play.enter(play.rightCode());
    play.quiet();
    play.setLock(Locked);
    play.usable();
}

Action lockedOut(int state)
{
    return [=](Play &play) {
        play.startIdle();
        play.setLock(state);
        play.enter(play.rightCode());
        play.quiet();
        play.setLock(Locked);
        play.usable();
    };
}

void lockedAgainAtOnce(Play &play)
{
    play.start();
    play.enterUntil(play.rightCode(), [&play] { return play.isDaemonUnlocked(); });
    play.lock();
    play.quiet();
    play.awaitLocked();
    play.usable();
}

void flickers(Play &play)
{
    for (const int state : {Locked, Unlocked, Locked, Unlocked, Locked})
        play.setLock(state);
    play.quiet();
    play.awaitLocked();
}

void tokenAfterFailure(Play &play)
{
    play.enterUntil(play.wrongCode(), [&play] { return play.wasCalled("Authenticate"); });
    play.emitSignal("Authenticated", foreignToken);
}

void tokenToEachConnection(Play &play)
{
    const QJsonArray peers = play.daemon(R"({"do":"state"})").value(QLatin1String("peers")).toArray();
    for (const QJsonValue &peer : peers)
        play.emitSignal("Authenticated", foreignToken, "\"peer\":" + QByteArray::number(peer.toInt()));
}

void otherTypes(Play &play)
{
    for (const char *args : {"(uint32 0,)", "(false,)", "('Unlocked',)", "(<0>,)", "()"})
        play.emitSignal("StateChanged", args);
}

void otherPlaces(Play &play)
{
    play.emitSignal("StateChanged", "(0,)", R"("path":"/vantora/AuthService")");
    play.emitSignal("StateChanged", "(0,)", R"("interface":"vantora.AuthService")");
    play.emitSignal("StateChanged", "(0,)", R"("bus":"peer")");
}

void busDies(Play &play)
{
    play.startIdle();
    // The host cannot connect to the bus again: its supervisor may have to start it anew.
    play.mayEnd();
    play.killBus();
    play.enter(play.rightCode());
    play.quiet();
}

void busDiesUnlocked(Play &play)
{
    play.start();
    play.unlock();
    play.mayEnd();
    play.killBus();
    play.awaitLocked();
    play.setLock(Locked);
    play.enter(play.rightCode());
    play.quiet();
}

std::vector<Day> makeDays()
{
    struct Call
    {
        QByteArray name;
        QByteArray method;
        int nth;
    };
    const std::vector<Call> calls = {
        {"Introspect-1", "Introspect", 1},           {"Introspect-2", "Introspect", 2},
        {"Introspect-3", "Introspect", 3},           {"GetState", "GetState", 1},
        {"RequestChallenge", "RequestChallenge", 1}, {"Authenticate", "Authenticate", 1},
        {"SetDevlockState", "SetDevlockState", 1},   {"GetOption", "GetOption", 1},
        {"GetUserOption", "GetUserOption", 1},       {"GetUserOptions", "GetUserOptions", 1},
    };
    const auto title = [](const Call &call) {
        static const char *const ordinals[] = {"first", "second", "third"};
        return call.method == "Introspect" ? "the " + QByteArray(ordinals[call.nth - 1]) + " Introspect" : call.name;
    };

    std::vector<Day> days;
    const auto add = [&days](const QByteArray &name, const QByteArray &description, const Action &play,
                             Day::Pace pace = Day::Quick, Day::World world = Day::WithBus) {
        days.push_back({name, description, play, pace, world});
    };

    const QByteArray stop = R"({"do":"stop"})";
    const QByteArray start = R"({"do":"start"})";
    const QByteArray restart = R"({"do":"restart"})";
    const QByteArray handover = R"({"do":"handover"})";
    const QByteArray handoverKeepingOld = R"({"do":"handover","keep-old":true})";

    add("ordinary", "a wrong code, the right one, a locking, the right one", ordinary);
    for (const Call &call : calls)
        add("crash-" + call.name, "dies at " + title(call) + ", returns later", goesAt(call.method, call.nth, "crash"));
    for (const Call &call : calls)
        add("restart-" + call.name, "restarts at " + title(call), goesAt(call.method, call.nth, "restart"));
    for (const Call &call : calls) {
        if (isPeerCall(call.method))
            add("drop-" + call.name, "closes the connection at " + title(call), goesAt(call.method, 1, "drop"));
    }
    for (const Call &call : calls) {
        if (call.nth == 1)
            add("mute-" + call.name, "leaves one " + call.method + " unanswered", slipsAt(call.method, "mute"),
                call.method == "Authenticate" ? Day::GivesUp : Day::Freezes);
    }
    for (const QByteArray &method : Names{"RequestChallenge", "Authenticate", "SetDevlockState"}) {
        add("lose-reply-" + method, "does what " + method + " asks, and loses the reply", slipsAt(method, "lose-reply"),
            method == "Authenticate" ? Day::Quick : Day::Freezes);
    }
    for (const QByteArray &method : Names{"Authenticate", "SetDevlockState"}) {
        add("lose-signals-" + method, "does what " + method + " asks, and loses the signal",
            slipsAt(method, "lose-signals"), Day::GivesUp);
        add("signal-first-" + method, "sends the signal of " + method + " before its reply",
            slipsAt(method, "signal-first"));
    }

    struct Answer
    {
        QByteArray name;
        QByteArray value;
    };
    // Only a plain "no" is an outcome; and "yes" is none if nothing follows.
    const auto leavesOpen = [](const QByteArray &method, const Answer &answer) {
        return (method == "Authenticate" && answer.name != "false")
            || (method == "SetDevlockState" && answer.name == "true");
    };
    const auto addAnswers = [&](const QByteArray &method, const std::vector<Answer> &answers) {
        for (const Answer &answer : answers) {
            add(answer.name + '-' + method,
                "answers " + method + ' ' + (answer.value.isEmpty() ? "with an error" : "only " + answer.value),
                answersAt(method, answer.value), leavesOpen(method, answer) ? Day::GivesUp : Day::Quick);
        }
    };
    addAnswers("GetState",
               {{"error", ""},
                {"text", "('Unlocked',)"},
                {"unsigned", "(uint32 0,)"},
                {"bool", "(false,)"},
                {"variant", "(<0>,)"},
                {"empty", "()"}});
    addAnswers("RequestChallenge",
               {{"error", ""},
                {"text", "('challenge',)"},
                {"number", "(1,)"},
                {"variant", "(<[byte 0x01]>,)"},
                {"empty", "()"}});
    // A host keeps its challenge until the daemon leaves the bus, also a challenge that is refused or a former instance's.
    const Action restarts = asks(restart);
    add("stale-RequestChallenge", "gives a challenge that it does not take; restarts later",
        answersAt("RequestChallenge", "([byte 0x01],)", restarts));
    for (const QByteArray &method : Names{"Authenticate", "SetDevlockState"}) {
        addAnswers(method,
                   {{"error", ""},
                    {"false", "(false,)"},
                    {"true", "(true,)"},
                    {"text", "('true',)"},
                    {"number", "(1,)"},
                    {"variant", "(<true>,)"},
                    {"empty", "()"}});
    }
    for (const QByteArray &method : Names{"GetOption", "GetUserOption", "GetUserOptions"})
        addAnswers(method, {{"error", ""}, {"text", "('code',)"}, {"number", "(1,)"}, {"empty", "()"}});

    add("restart-idle", "restarts while the device is locked", idles(asks(restart)));
    add("restart-in-use", "restarts while the device is in use", loses(asks(restart)));
    add("restart-announced", "restarts while the device is locked, and announces the state, which it need not",
        idles([=](Play &play) {
            play.daemon(restart);
            play.setLock(Locked);
        }));
    add("restart-unlocked", "goes while the device is in use, returns later", loses(asks(stop), asks(start)));
    add("restart-during-challenge", "restarts while a challenge is asked for",
        during("RequestChallenge", asks(restart)));
    add("restart-during-attempt", "restarts while a code is looked at", during("Authenticate", asks(restart)));
    add("dies-after-Authenticate", "dies between its reply to Authenticate and the signal, returns later",
        [=](Play &play) {
            play.misbehave("Authenticate", "lose-signals", once);
            play.start();
            play.reach("Authenticate");
            play.daemon(stop);
            play.quiet();
            play.daemon(start);
            play.usable();
        });
    for (const QByteArray &how : Names{"mute", "lose-signals", "error"}) {
        add(
            "left-alone-" + how, "does not tell what came of a code (" + how + "), and the user has gone",
            [=](Play &play) {
                play.misbehave("Authenticate", how);
                play.start();
                play.reach("Authenticate");
                play.leaveAlone(Alone);
                play.usable();
            },
            Day::Lasts);
    }
    add("restart-with-token", "restarts while the token is being used", during("SetDevlockState", asks(restart)));
    add("away", "is away when the code is entered, returns later", idles([=](Play &play) {
            play.daemon(stop);
            play.enter(play.rightCode());
            play.quiet();
            play.daemon(start);
        }));
    add("handover-idle", "hands its name to another instance", idles(asks(handover)));
    add("handover-keeping-old", "hands over, and goes on serving the old connections", idles(asks(handoverKeepingOld)));
    add("handover-during-attempt", "hands over while a code is looked at; restarts later",
        during("Authenticate", asks(handover), restarts));
    add("handover-with-token",
        "hands over while the token is being used, and serves the old connections; restarts later",
        during("SetDevlockState", asks(handoverKeepingOld), restarts));
    add("handover-unlocked", "hands over while the device is in use, and locks it; restarts later",
        loses(
            [=](Play &play) {
                play.daemon(handover);
                play.setLock(Locked);
            },
            restarts));
    add("name-lost", "loses its name while the device is in use, regains it later",
        loses(asks(R"({"do":"release-name"})"), asks(R"({"do":"own-name"})")));
    add("connections-lost", "closes all connections; restarts later", idles([=](Play &play) {
            play.daemon(R"({"do":"drop-peers"})");
            play.enter(play.rightCode());
            play.quiet();
            play.daemon(restart);
        }));

    add("returns-without-socket", "returns to the bus without its socket", [](Play &play) {
        play.startIdle();
        returns("socket")(play);
        play.usable();
    });
    add("returns-without-socket-unlocked", "the same after the device was in use", [](Play &play) {
        play.start();
        play.unlock();
        returns("socket")(play);
        play.usable();
    });
    add("returns-closing", "returns with a socket that closes every connection", [](Play &play) {
        play.startIdle();
        returns("close")(play);
        play.usable();
    });
    add(
        "start-without-bus", "the system bus is missing when the host starts",
        [](Play &play) {
            play.mayEnd();
            play.start();
            play.enter(play.rightCode());
            play.quiet();
        },
        Day::Quick, Day::WithoutBus);
    add("start-without-daemon", "is not there when the host starts", startsWithout(asks(stop)));
    add("start-without-socket", "has no socket when the host starts", startsWithout([=](Play &play) {
            play.daemon(stop);
            play.daemon(R"({"do":"start","socket":false})");
        }));
    add("start-refused", "refuses connections when the host starts",
        startsWithout(asks(R"({"do":"accept","how":"refuse"})")));
    add("start-closed", "closes connections when the host starts",
        startsWithout(asks(R"({"do":"accept","how":"close"})")));
    add("bus-dies", "the system bus dies while the device is locked", busDies);
    add("bus-dies-unlocked", "the system bus dies while the device is in use", busDiesUnlocked);

    add("lockout-by-wrong-codes", "locks code entry after wrong codes; the right one is entered", wrongCodesLockOut);
    add("lockout-code-entry", "has locked code entry when the right code is entered", lockedOut(CodeEntryLockout));
    add("lockout-manager", "the manager has locked the user out when the right code is entered",
        lockedOut(ManagerLockout));
    add("announces-manager-lockout", "the manager locks the user out while the device is in use",
        loses(announces(ManagerLockout)));
    add("announces-undefined", "announces Undefined while the device is in use", loses(announces(Undefined)));
    add("announces-security-ui", "announces SecurityUi while the device is in use", loses(announces(SecurityUi)));
    add("announces-6", "announces a state that there is not, 6", loses(announces(6)));
    add("announces-minus-1", "announces a state that there is not, -1", loses(announces(-1)));
    add("locked-again-at-once", "locks right after the unlocking", lockedAgainAtOnce);
    add("locks-during-attempt", "locks, and drops the token, while the token is being used",
        during("SetDevlockState", [](Play &play) {
            // Tokens end when the state becomes Locked, and the state is Locked already.
            play.setLock(ManagerLockout);
            play.setLock(Locked);
        }));
    add("flickers", "announces Locked, Unlocked and Locked in a row", idles(flickers));

    add("spoof-token", "sends a token that nobody asked for",
        idles([](Play &play) { play.emitSignal("Authenticated", foreignToken); }));
    add("spoof-token-each-connection", "sends such a token on one connection after another",
        idles(tokenToEachConnection));
    add("spoof-empty-token", "sends an empty token",
        idles([](Play &play) { play.emitSignal("Authenticated", "(@ay [],)"); }));
    add("spoof-token-type", "sends tokens of other types", idles([](Play &play) {
            for (const char *args : {"('token',)", "(1,)", "(true,)", "()"})
                play.emitSignal("Authenticated", args);
        }));
    add("spoof-token-after-failure", "sends a token after a wrong code", idles(tokenAfterFailure));
    add("spoof-token-after-locking", "sends a token after the device was locked",
        loses(announces(Locked), [](Play &play) {
            play.emitSignal("Authenticated", foreignToken);
            play.quiet();
        }));
    add("spoof-unlock-finished", "says unasked that UnlockIfNeeded has unlocked",
        idles([](Play &play) { play.emitSignal("UnlockIfNeededFinished", "(true,)"); }));
    add("spoof-data-changed", "says unasked that authentication data were changed",
        idles([](Play &play) { play.emitSignal("AuthDataChanged", "()"); }));
    add("spoof-state-type", "announces states of other types", idles(otherTypes));
    add("spoof-state-place", "announces Unlocked from other objects, and on the socket", idles(otherPlaces));

    const std::vector<Day> lasting = lastingDays();
    days.insert(days.end(), lasting.begin(), lasting.end());
    return days;
}

} // namespace

const std::vector<Day> &allDays()
{
    static const std::vector<Day> days = makeDays();
    return days;
}

const Day *findDay(const QByteArray &name)
{
    const auto &days = allDays();
    const auto found = std::find_if(days.begin(), days.end(), [&](const Day &day) { return day.name == name; });
    return found == days.end() ? nullptr : &*found;
}

std::vector<const Day *> matchingDays(const QString &pattern)
{
    const QRegularExpression expression(QRegularExpression::wildcardToRegularExpression(pattern));
    std::vector<const Day *> found;
    for (const Day &day : allDays()) {
        if (expression.match(QString::fromUtf8(day.name)).hasMatch())
            found.push_back(&day);
    }
    return found;
}
