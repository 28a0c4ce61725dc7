#include "core-oracle.h"

#include "model-test.h"

namespace {

constexpr int Locked = 1;
constexpr int Undefined = 4;

QString stateName(int state)
{
    static const QStringList names{"Unlocked"_s,         "Locked"_s,    "ManagerLockout"_s,
                                   "CodeEntryLockout"_s, "Undefined"_s, "SecurityUi"_s};
    return state >= 0 && state < names.size() ? names[state] : "LockState(%1)"_s.arg(state);
}

/** A map as the daemon logs it, with @p challenge unless it has one of its own. */
QString mapText(const Parameters &params, const QByteArray *challenge = nullptr)
{
    QMap<QString, QString> members;
    if (challenge)
        members["challenge"_s] = QString::fromUtf8(bytes(*challenge));
    for (const auto &[key, text] : params.texts)
        members[key] = text;
    QStringList texts;
    for (auto member = members.cbegin(); member != members.cend(); ++member)
        texts.append("'%1': <%2>"_s.arg(member.key(), member.value()));
    return texts.isEmpty() ? "@a{sv} {}"_s : "{%1}"_s.arg(texts.join(", "_s));
}

QString bytesText(const QByteArray &value)
{
    return QString::fromUtf8(bytes(value));
}

QString messageText(const QVariant &message)
{
    return message.isValid() ? "\"%1\""_s.arg(message.toString()) : "\"*"_s;
}

} // namespace

CoreOracle::CoreOracle(int instance)
    : m_clients(Clients)
    , m_devlocks(Devlocks + Clients)
    , m_instance(instance)
    , m_lastInstance(instance)
{
}

// What may be done

bool CoreOracle::can(const Step &step) const
{
    const bool isDevlocks = step.what == Do::DeleteDevlock || step.what == Do::SetState || step.what == Do::ArmDevlock;
    const bool isClients =
        !isDevlocks && step.what < Do::Misbehave && step.what != Do::MakeClient && step.what != Do::MakeDevlock;
    if ((isDevlocks && !m_devlocks[step.who].isThere) || (isClients && !m_clients[step.who].isThere))
        return false;

    const bool stateIsAwaited =
        std::any_of(m_pending.begin(), m_pending.end(), [](const Call &call) { return call.connection == SystemBus; });
    const bool breaksReturn = m_rules.value("RequestChallenge"_s).closesConnection();
    switch (step.what) {
    case Do::MakeClient:
        // Where it cannot connect it ends the process; and whose connection it shares has to be known.
        return !m_clients[step.who].isThere && m_isRunning
            && (m_named < 0 || (m_connections[m_named].isOpen && !m_isNamedByAny));
    case Do::MakeDevlock:
        return !m_devlocks[step.who].isThere;
    case Do::Emit:
    case Do::SetLock:
    case Do::DropPeers:
        return m_isRunning;
    case Do::EmitFromOld:
        return !m_old.isEmpty();
    case Do::Leave:
        return m_isRunning && (m_hasName || !stateIsAwaited);
    case Do::Come:
        return !m_isRunning && !breaksReturn;
    case Do::Handover:
        return m_isRunning && m_hasName && !stateIsAwaited && !breaksReturn;
    case Do::HandoverKeepingOld:
        // A handler's call on an old connection would end the old instance.
        return m_isRunning && m_hasName && !stateIsAwaited && !breaksReturn && m_old.isEmpty()
            && (step.name.isEmpty() || !anyRule(&Step::closesConnection));
    case Do::DropOld:
        return !m_old.isEmpty();
    // Nobody hears of the end of an instance that has no name, and so of when the calls that it owes an answer fail.
    case Do::Misbehave:
        return m_hasName || !stateIsAwaited || !step.endsInstance();
    case Do::ReleaseName:
        return m_isRunning && m_hasName && (!stateIsAwaited || !anyRule(&Step::endsInstance));
    case Do::OwnName:
        return m_isRunning && !m_hasName && !breaksReturn;
    default:
        return true;
    }
}

// What is on its way when its connection breaks may be lost, and an object that is made meanwhile may hear it.
bool CoreOracle::needsSilence(const Step &step) const
{
    switch (step.what) {
    case Do::MakeClient:
    case Do::MakeDevlock:
    case Do::Leave:
    case Do::Come:
    case Do::Handover:
    case Do::HandoverKeepingOld:
    case Do::DropOld:
    case Do::ReleaseName:
    case Do::OwnName:
    case Do::DropPeers:
        return true;
    case Do::Misbehave:
        return step.closesConnection();
    default:
        return false;
    }
}

bool CoreOracle::anyRule(bool (Step::*does)() const) const
{
    return std::any_of(m_rules.begin(), m_rules.end(), [does](const Step &rule) { return (rule.*does)(); });
}

bool CoreOracle::needsDelivery() const
{
    return needsSilence(m_step) || anyRule(&Step::closesConnection);
}

bool CoreOracle::mayLeave(const Step &step) const
{
    return needsSilence(step) || anyRule(&Step::endsInstance);
}

bool CoreOracle::mayWait() const
{
    const QString how = m_rules.value("FactorMethod"_s).how;
    return how != "hold"_s && how != "mute"_s;
}

void CoreOracle::take(const Step &step)
{
    m_mayLeave = mayLeave(step);
    m_step = step;
    const bool isRight = step.value.meaning.isValid();
    switch (step.what) {
    case Do::Arm:
        m_clients[step.who].handlers[step.name] = step;
        break;
    case Do::ArmDevlock:
        m_devlocks[step.who].handlers[step.name] = step;
        break;
    case Do::Misbehave:
        m_rules[step.name] = step;
        break;
    case Do::Behave:
        m_rules.clear();
        break;
    case Do::Release:
        release();
        break;
    case Do::Emit:
        if (isRight && step.name == "StateChanged"_s)
            send(SystemBus, {Event::State, {}, step.value.meaning});
        else if (isRight)
            sendToAll(m_instance, {Event::Signal, step.name, step.value.meaning});
        break;
    case Do::EmitFromOld:
        if (isRight)
            sendToAll(oldInstance(), {Event::Signal, step.name, step.value.meaning});
        break;
    case Do::SetLock:
        setLockState(step.number, true);
        break;
    case Do::Leave:
        end(m_instance);
        break;
    case Do::Come:
        start();
        break;
    case Do::Handover:
    case Do::HandoverKeepingOld: {
        const int old = m_instance;
        m_old.append(old);
        m_instance = ++m_lastInstance;
        send(SystemBus, {Event::Owner, {}, true});
        if (step.what == Do::Handover)
            end(old);
        else if (isRight)
            sendToAll(old, {Event::Signal, step.name, step.value.meaning});
        break;
    }
    case Do::DropOld:
        while (!m_old.isEmpty())
            end(m_old.last());
        break;
    case Do::ReleaseName:
    case Do::OwnName:
        m_hasName = step.what == Do::OwnName;
        send(SystemBus, {Event::Owner, {}, m_hasName});
        break;
    case Do::DropPeers:
        for (Connection &connection : m_connections)
            connection.isOpen = connection.isOpen && connection.instance != m_instance;
        break;
    case Do::Spoof:
        if (isRight)
            send(Stranger, {Event::State, {}, step.value.meaning});
        break;
    default:
        perform(step.what, step, step.number);
        break;
    }
}

// The host's side

void CoreOracle::say(const QString &what)
{
    m_said.append(what);
}

void CoreOracle::log(const QString &line)
{
    m_said.append(line);
}

void CoreOracle::emitSignal(int client, const QString &signal, const QString &arguments)
{
    Client &from = m_clients[client];
    say("client %1 %2(%3) when authenticated %4, progress %5"_s.arg(client).arg(
        signal, arguments, boolText(from.authenticated), boolText(from.progress)));
    if (from.handlers.contains(signal))
        react(from.handlers.take(signal));
}

void CoreOracle::emitStateChanged(int devlock)
{
    if (devlock >= Devlocks) {
        if (m_devlocks[devlock].state == Locked)
            drop(devlock - Devlocks);
        return;
    }
    say("device-lock client %1 stateChanged() when %2"_s.arg(devlock).arg(m_devlocks[devlock].state));
    if (m_devlocks[devlock].handlers.contains("stateChanged"_s))
        react(m_devlocks[devlock].handlers.take("stateChanged"_s));
}

void CoreOracle::react(const Step &handler)
{
    ++m_reactions;
    ++m_depth;
    perform(handler.then, handler, handler.thenNumber);
    --m_depth;
}

void CoreOracle::perform(Do what, const Step &step, int number)
{
    const int who = step.who;
    // QDBusServiceWatcher of Qt 5.15 does not survive that who it tells of the daemon's end is deleted meanwhile.
    const bool mayDelete = !m_depth || !m_mayLeave;
    switch (what) {
    case Do::MakeClient:
        makeClient(who);
        break;
    case Do::DeleteClient:
        if (mayDelete)
            deleteClient(who);
        else
            deleteLater(who);
        break;
    case Do::DeleteClientLater:
        deleteLater(who);
        break;
    case Do::Authenticate:
        request(who, "Authenticate"_s, step);
        break;
    case Do::ChangeAuthData:
        request(who, "ChangeAuthData"_s, step);
        break;
    case Do::UnlockIfNeeded:
        callLater(who, m_clients[who].connection, "UnlockIfNeeded"_s, peerCall("UnlockIfNeeded", "", "()"));
        break;
    case Do::SetLocked:
        setLocked(who, number);
        break;
    case Do::DropAuthentication:
        drop(who);
        break;
    case Do::FactorMethod:
        factorMethod(who, step);
        break;
    case Do::FactorMethodWait:
        factorMethodWait(who, step);
        break;
    case Do::MakeDevlock:
        makeDevlock(who);
        break;
    case Do::DeleteDevlock:
        if (mayDelete)
            deleteDevlock(who);
        else
            deleteLater(-1 - who);
        break;
    case Do::SetState:
        setState(number);
        break;
    default:
        // cancel() and requestChallenge() do nothing.
        break;
    }
}

void CoreOracle::makeDevlock(int devlock)
{
    m_devlocks[devlock] = {};
    m_devlocks[devlock].isThere = true;
    callLater(devlock, SystemBus, "GetState"_s, systemCall("GetState", "", "()"));
    log("debug AuthDevlockClientPrivate Connected to \"vantora.AuthService\""_s);
}

void CoreOracle::makeClient(int client)
{
    makeDevlock(Devlocks + client);
    m_clients[client] = {};
    m_clients[client].isThere = true;
    m_clients[client].connection = connectPeer();
    log("debug AuthClientPrivate Connected to \"unix:path=/var/run/authd/authd.socket\""_s);
}

void CoreOracle::deleteClient(int client)
{
    deleteDevlock(Devlocks + client);
    forgetCalls(client, false);
    m_clients[client] = {};
    m_named = -1;
    log("debug ~AuthdConnection \"authd_p2p_client\" disconnected from \"authd_p2p_client\""_s);
}

void CoreOracle::deleteDevlock(int devlock)
{
    forgetCalls(devlock, true);
    m_devlocks[devlock] = {};
}

void CoreOracle::deleteLater(int object)
{
    m_floating.append({Event::Deletion, {}, {}, object, false, ++m_lastEvent});
}

void CoreOracle::forgetCalls(int object, bool ofDevlock)
{
    // The daemon treats those that it holds nevertheless.
    for (Call &call : m_pending) {
        if (call.object == object && (call.connection == SystemBus) == ofDevlock)
            call.object = Nobody;
    }
    const auto isForgotten = [](const Call &call) { return call.object == Nobody && !call.isHeld; };
    m_pending.erase(std::remove_if(m_pending.begin(), m_pending.end(), isForgotten), m_pending.end());
}

void CoreOracle::request(int client, const QString &method, const Step &step)
{
    const bool isChange = method == "ChangeAuthData"_s;
    const Parameters &params = parameterMaps()[step.params];
    if (!params.isSendable) {
        log("warning %1 failed: \"*"_s.arg(isChange ? "changeAuthData"_s : "authenticate"_s));
        return;
    }
    QByteArray held;
    if (isChange || !params.map.contains("challenge"_s))
        held = challenge(client);
    const QString args = "('%1', %2)"_s.arg(isChange ? "code"_s : "login"_s, mapText(params, &held));
    const int number = callLater(client, m_clients[client].connection, method,
                                 peerCall(isChange ? "ChangeAuthData" : "Authenticate", "sa{sv}", args.toUtf8()));
    const int reactions = m_reactions;
    setProgress(client, true);
    if (m_reactions == reactions)
        return;
    // The reply is waited for only now that a handler has run: what arrived meanwhile may come first.
    for (QVector<Event> &queue : m_queues) {
        for (int i = 0; i < queue.size(); ++i) {
            if (queue[i].kind == Event::Reply && queue[i].call == number)
                m_floating.append(queue.takeAt(i));
        }
    }
}

void CoreOracle::factorMethod(int client, const Step &step)
{
    const Parameters &params = parameterMaps()[step.params];
    const int callback = step.flag ? ++m_callbacks : 0;
    // Else there would be no end of callbacks.
    const Do then = m_depth ? Do::Nothing : step.then;
    if (!params.isSendable) {
        const Call refused{++m_lastCall, "FactorMethod"_s, client, Local, 0, step, then, callback, false, true};
        m_pending.append(refused);
        send(Local, {Event::Reply, {}, {}, refused.number, true});
        return;
    }
    challenge(client);
    const QString args = "(%1, 'code', %2)"_s.arg(bytesText(m_clients[client].token), mapText(params));
    callLater(client, m_clients[client].connection, "FactorMethod"_s,
              peerCall("FactorMethod", "aysa{sv}", args.toUtf8()), step, then, callback);
}

void CoreOracle::factorMethodWait(int client, const Step &step)
{
    const QString result = "client %1 factorMethodWait: %2"_s.arg(client);
    // Nobody waits 25 seconds here.
    if (!mayWait())
        return;
    const Parameters &params = parameterMaps()[step.params];
    if (!params.isSendable) {
        log("warning factorMethodWait failed: \"*"_s);
        say(result.arg("invalid"_s));
        return;
    }
    challenge(client);
    const QString args = "(%1, 'code', %2)"_s.arg(bytesText(m_clients[client].token), mapText(params));
    const Answer answer = callNow(m_clients[client].connection, "FactorMethod"_s,
                                  peerCall("FactorMethod", "aysa{sv}", args.toUtf8()), step);
    if (answer.kind == Answer::Error)
        log("warning factorMethodWait failed: "_s + messageText(answer.value));
    say(result.arg(answer.kind == Answer::Error ? "invalid"_s : answer.value.toString()));
}

void CoreOracle::setLocked(int client, int state)
{
    const QString result = "client %1 setLocked: %2"_s.arg(client);
    const QByteArray token = m_clients[client].token;
    if (token.isEmpty()) {
        log("warning setLocked m_authToken is empty, not authenticated request"_s);
        say(result.arg("false"_s));
        return;
    }
    const QString args = "(%1, %2)"_s.arg(bytesText(token)).arg(state);
    const Answer answer =
        callNow(m_clients[client].connection, "SetDevlockState"_s, peerCall("SetDevlockState", "ayi", args.toUtf8()));
    if (answer.kind == Answer::Error)
        log("warning setLocked failed: "_s + messageText(answer.value));
    say(result.arg(boolText(answer.kind == Answer::Returned && answer.value.toBool())));
}

void CoreOracle::setState(int state)
{
    Step step;
    step.number = state;
    callNow(SystemBus, "SetState"_s, systemCall("SetState", "i", '(' + QByteArray::number(state) + ",)"), step);
}

void CoreOracle::drop(int client)
{
    setProgress(client, false);
    if (!m_clients[client].isThere)
        return;
    m_clients[client].token.clear();
    setAuthenticated(client, false);
    if (m_clients[client].isThere)
        emitSignal(client, "discredit"_s);
}

void CoreOracle::setProgress(int client, bool value)
{
    if (m_clients[client].progress == value)
        return;
    m_clients[client].progress = value;
    emitSignal(client, "progressChanged"_s);
}

void CoreOracle::setAuthenticated(int client, bool value)
{
    m_clients[client].authenticated = value;
    emitSignal(client, "authenticatedChanged"_s, QString::fromLatin1(m_clients[client].token.toHex()));
}

void CoreOracle::requestChallenge(int client)
{
    const Answer answer =
        callNow(m_clients[client].connection, "RequestChallenge"_s, peerCall("RequestChallenge", "", "()"));
    if (answer.kind == Answer::Error) {
        log("warning request failed: "_s + messageText(answer.value));
        m_clients[client].challenge.clear();
    } else {
        m_clients[client].challenge = answer.value.toByteArray();
    }
}

QByteArray CoreOracle::challenge(int client)
{
    if (m_clients[client].challenge.isEmpty())
        requestChallenge(client);
    return m_clients[client].challenge;
}

// What arrives

QVector<Choice> CoreOracle::choices() const
{
    QVector<Choice> result;
    for (int i = 0; i < m_receivers.size(); ++i)
        result.append({Choice::Receiver, i});
    for (auto queue = m_queues.cbegin(); queue != m_queues.cend(); ++queue) {
        // QDBusPendingCallWatcher of Qt 5.15 tells of a call that ended before it was watched by two events, one after the
        // other. What the daemon sent after its reply may come between. (A client's making is not mixed with anything.)
        const bool mayCome = m_receivers.isEmpty() || queue.key() == Local;
        for (int i = 0; mayCome && i < queue->size(); ++i) {
            result.append({Choice::Next, queue.key(), i});
            if (queue.key() < 0 || queue->at(i).kind != Event::Reply)
                break;
        }
    }
    for (int i = 0; i < m_floating.size(); ++i)
        result.append({Choice::Floating, i});
    for (int i = 0; i < m_pending.size(); ++i) {
        const Call &call = m_pending[i];
        // Those that nobody can tell apart are taken in their order.
        const auto isLike = [&call](const Call &other) {
            return !call.callback && !other.callback && other.method == call.method && other.object == call.object
                && other.connection == call.connection && !other.isAnswered;
        };
        if (call.object != Nobody && !call.isAnswered && call.connection >= 0 && !m_connections[call.connection].isOpen
            && std::none_of(m_pending.begin(), m_pending.begin() + i, isLike))
            result.append({Choice::Failure, call.number});
    }
    return result;
}

void CoreOracle::choose(const Choice &choice)
{
    switch (choice.kind) {
    case Choice::Next:
        deliver(m_queues[choice.index].takeAt(choice.place));
        break;
    case Choice::Receiver:
        receive(m_delivered, m_receivers.takeAt(choice.index));
        break;
    case Choice::Floating:
        deliver(m_floating.takeAt(choice.index));
        break;
    case Choice::Failure:
        finish({Event::Reply, {}, {}, choice.index, true});
        break;
    }
}

// Who hears of the same thing at the same time does so in any order.
void CoreOracle::deliver(const Event &event)
{
    // What this process tells itself may come between two who hear of the same thing.
    if (event.kind != Event::Deletion && event.kind != Event::Reply)
        m_delivered = event;
    const int queue = event.call;
    switch (event.kind) {
    case Event::Signal:
        for (int i = 0; i < Clients; ++i) {
            if (m_clients[i].isThere && m_clients[i].connection == queue)
                m_receivers.append(i);
        }
        break;
    case Event::State:
        for (int i = 0; i < m_devlocks.size(); ++i) {
            if (m_devlocks[i].isThere && m_devlocks[i].state != event.value.toInt())
                m_receivers.append(Clients + i);
        }
        break;
    case Event::Owner:
        for (int i = 0; i < Clients; ++i) {
            if (m_clients[i].isThere)
                m_receivers.append(i);
        }
        for (int i = 0; i < m_devlocks.size(); ++i) {
            if (!event.value.toBool() && m_devlocks[i].isThere && m_devlocks[i].state != Undefined)
                m_receivers.append(Clients + i);
        }
        m_isNamedByAny = event.value.toBool() ? m_receivers.size() > 1 : m_isNamedByAny;
        break;
    case Event::Reply:
        finish(event);
        break;
    case Event::Deletion:
        if (event.call < 0)
            deleteDevlock(-1 - event.call);
        else if (m_clients[event.call].isThere)
            deleteClient(event.call);
        break;
    }
}

void CoreOracle::receive(const Event &event, int receiver)
{
    const int devlock = receiver - Clients;
    if (devlock >= 0)
        hearState(devlock, event.kind == Event::State ? event.value.toInt() : Undefined);
    else if (event.kind == Event::Owner)
        hearOwner(receiver, event.value.toBool());
    else
        hearSignal(receiver, event);
}

void CoreOracle::hearSignal(int client, const Event &event)
{
    // Its connection may have been replaced, or a handler may have deleted it.
    if (!m_clients[client].isThere || m_clients[client].connection != event.call)
        return;
    if (event.name == "Authenticated"_s) {
        m_clients[client].token = event.value.toByteArray();
        setAuthenticated(client, true);
        if (m_clients[client].isThere)
            setProgress(client, false);
    } else if (event.name == "AuthenticationFailed"_s) {
        drop(client);
    } else if (event.name == "AuthDataChanged"_s || event.name == "ChangeAuthDataFailed"_s) {
        setProgress(client, false);
        if (m_clients[client].isThere)
            emitSignal(client, event.name == "AuthDataChanged"_s ? "authDataChanged"_s : "changeAuthDataFailed"_s);
    } else if (event.name == "UnlockIfNeededFinished"_s) {
        emitSignal(client, "unlockIfNeededFinished"_s, boolText(event.value.toBool()));
    } else if (event.name == "Factor"_s) {
        emitSignal(client, "factorSignal"_s, event.value.toString());
    }
}

void CoreOracle::hearState(int devlock, int state)
{
    if (!m_devlocks[devlock].isThere || m_devlocks[devlock].state == state)
        return;
    log("debug handleStateChanged AuthDevlockClient::%1 -> %2"_s.arg(stateName(m_devlocks[devlock].state)).arg(state));
    m_devlocks[devlock].state = state;
    emitStateChanged(devlock);
}

void CoreOracle::hearOwner(int client, bool hasOwner)
{
    if (!m_clients[client].isThere)
        return;
    log("debug authd reset \"%1\" captured \"authd_p2p_client\""_s.arg(hasOwner ? "the daemon"_s : QString()));
    if (!hasOwner) {
        m_clients[client].challengeWasHeld = !m_clients[client].challenge.isEmpty();
        drop(client);
        return;
    }
    const bool wasHeld = m_clients[client].challengeWasHeld;
    m_clients[client].challengeWasHeld = false;
    log("debug ~AuthdConnection \"authd_p2p_client\" disconnected from \"authd_p2p_client\""_s);
    m_named = -1;
    m_clients[client].connection = connectPeer();
    if (wasHeld)
        requestChallenge(client);
}

void CoreOracle::finish(const Event &reply)
{
    for (int i = 0; i < m_pending.size(); ++i) {
        if (m_pending[i].number == reply.call) {
            call(m_pending.takeAt(i), reply);
            return;
        }
    }
}

void CoreOracle::call(const Call &call, const Event &reply)
{
    if (call.object == Nobody)
        return;
    const QString message = messageText(reply.value);
    if (call.method == "GetState"_s) {
        if (reply.isError)
            log("warning failed: "_s + message);
        hearState(call.object, reply.isError ? Undefined : reply.value.toInt());
    } else if (call.method == "UnlockIfNeeded"_s) {
        if (reply.isError)
            emitSignal(call.object, "unlockIfNeededFinished"_s, "false"_s);
    } else if (call.method == "FactorMethod"_s) {
        if (reply.isError)
            log("warning reply isError: "_s + message);
        if (!call.callback)
            return;
        say("callback %1: %2"_s.arg(call.callback).arg(reply.isError ? "invalid"_s : reply.value.toString()));
        Step reaction = call.step;
        reaction.then = call.then;
        react(reaction);
    } else if (reply.isError) {
        log("warning call%1Finished failed: %2"_s.arg(call.method, message));
    } else if (!reply.value.toBool()) {
        drop(call.object);
    }
}
