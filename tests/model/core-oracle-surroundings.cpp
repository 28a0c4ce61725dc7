// The bus library and the daemon, as the oracle sees them; and what the test asks of the oracle.

#include "core-oracle.h"
#include "model-test.h"

// The bus

int CoreOracle::connectPeer()
{
    if (m_named < 0) {
        m_named = m_connections.size();
        m_connections.append({m_instance, true});
    }
    log("debug AuthdConnection \"authd_p2p_client\" connected to \"authd_p2p_client\""_s);
    return m_named;
}

int CoreOracle::callLater(int object, int connection, const QString &method, const QString &text, const Step &step,
                          Do then, int callback)
{
    const int number = ++m_lastCall;
    const int instance = connection == SystemBus ? m_instance : m_connections[connection].instance;
    m_pending.append({number, method, object, connection, instance, step, then, callback, false, false});
    if (connection == SystemBus ? !m_hasName : !m_connections[connection].isOpen) {
        // On the socket it fails by itself.
        if (connection == SystemBus)
            answer(number, {Answer::Error, {}});
        return number;
    }
    m_calls.append({connection, method, text, true});
    const QString how = m_rules.value(method).how;
    if (how == "hold"_s) {
        m_pending.last().isHeld = true;
        return number;
    }
    if (how == "signal-first"_s)
        tellUnlock(connection);
    const Answer reply = treat(connection, method, step);
    if (reply.kind != Answer::None)
        answer(number, reply);
    if (method == "UnlockIfNeeded"_s && how.isEmpty())
        tellUnlock(connection);
    return number;
}

CoreOracle::Answer CoreOracle::callNow(int connection, const QString &method, const QString &text, const Step &step)
{
    if (connection == SystemBus ? !m_hasName : !m_connections[connection].isOpen)
        return {Answer::Error, {}};
    m_calls.append({connection, method, text, false});
    const Answer result = treat(connection, method, step);
    return result.kind == Answer::None ? Answer{Answer::Error, {}} : result;
}

// The daemon

CoreOracle::Answer CoreOracle::treat(int connection, const QString &method, const Step &step)
{
    const Step rule = m_rules.value(method);
    if (rule.how == "mute"_s)
        return {Answer::None, {}};
    if (rule.how == "error"_s)
        return {Answer::Error, rule.value.text};
    if (rule.how == "reply"_s)
        return {rule.value.meaning.isValid() ? Answer::Returned : Answer::Error, rule.value.meaning};
    if (rule.how == "drop"_s) {
        m_connections[connection].isOpen = false;
        return {Answer::None, {}};
    }
    if (rule.endsInstance()) {
        end(m_instance);
        if (rule.how == "restart"_s)
            start();
        return {Answer::None, {}};
    }
    Answer result = usual(method, step);
    if (method == "SetState"_s && result.kind == Answer::Returned)
        setLockState(step.number, false);
    return result;
}

// It knows neither the challenges nor the tokens that it was told to hand out.
CoreOracle::Answer CoreOracle::usual(const QString &method, const Step &step) const
{
    if (method == "FactorMethod"_s) {
        const Value &echo = parameterMaps()[step.params].echo;
        return echo.text.isEmpty() ? Answer{Answer::Error, "The factor has no method "_s}
                                   : Answer{Answer::Returned, echo.meaning};
    }
    if (method == "GetState"_s)
        return {Answer::Returned, m_lockState};
    if (method == "SetState"_s)
        return {step.number >= 1 && step.number <= 5 ? Answer::Returned : Answer::Error, {}};
    if (method == "RequestChallenge"_s)
        return {Answer::Returned, QByteArray("s3cr3t challenge")};
    return {Answer::Returned, method == "UnlockIfNeeded"_s};
}

void CoreOracle::answer(int call, const Answer &answer)
{
    for (Call &pending : m_pending) {
        if (pending.number != call)
            continue;
        pending.isAnswered = true;
        pending.isHeld = false;
        send(pending.connection, {Event::Reply, {}, answer.value, call, answer.kind == Answer::Error});
    }
}

void CoreOracle::send(int queue, Event event)
{
    event.number = ++m_lastEvent;
    if (event.kind == Event::Signal)
        event.call = queue;
    m_queues[queue].append(event);
}

void CoreOracle::sendToAll(int instance, const Event &event)
{
    for (int i = 0; i < m_connections.size(); ++i) {
        if (m_connections[i].isOpen && m_connections[i].instance == instance)
            send(i, event);
    }
}

void CoreOracle::tellUnlock(int connection)
{
    if (m_connections[connection].isOpen)
        send(connection, {Event::Signal, "UnlockIfNeededFinished"_s, m_lockState == 0});
}

void CoreOracle::setLockState(int state, bool isToldAnyway)
{
    if (state != m_lockState || isToldAnyway)
        send(SystemBus, {Event::State, {}, state});
    m_lockState = state;
}

void CoreOracle::end(int instance)
{
    for (Connection &connection : m_connections)
        connection.isOpen = connection.isOpen && connection.instance != instance;
    for (Call &call : m_pending)
        call.isHeld = call.isHeld && call.instance != instance;
    m_old.removeAll(instance);
    if (instance != m_instance)
        return;
    m_isRunning = false;
    if (m_hasName)
        send(SystemBus, {Event::Owner, {}, false});
    m_hasName = false;
    const QVector<Call> pending = m_pending;
    for (const Call &call : pending) {
        if (call.connection == SystemBus && !call.isAnswered)
            answer(call.number, {Answer::Error, {}});
    }
}

void CoreOracle::start()
{
    m_instance = ++m_lastInstance;
    m_isRunning = true;
    m_hasName = true;
    send(SystemBus, {Event::Owner, {}, true});
}

void CoreOracle::release()
{
    const QVector<Call> pending = m_pending;
    for (const Call &call : pending) {
        if (!call.isHeld || (call.connection >= 0 && !m_connections[call.connection].isOpen))
            continue;
        answer(call.number, usual(call.method, call.step));
        if (call.method == "UnlockIfNeeded"_s)
            tellUnlock(call.connection);
    }
}

// What the test looks at

QStringList CoreOracle::takeSaid()
{
    QStringList result;
    result.swap(m_said);
    return result;
}

QVector<CoreOracle::LoggedCall> CoreOracle::takeCalls()
{
    QVector<LoggedCall> result;
    result.swap(m_calls);
    return result;
}

void CoreOracle::beginDelivery()
{
    m_lastMandatory = m_lastEvent;
}

bool CoreOracle::isSettled() const
{
    const auto isLate = [this](const Event &event) { return event.number > m_lastMandatory; };
    return m_receivers.isEmpty() && std::all_of(m_floating.begin(), m_floating.end(), isLate)
        && std::all_of(m_queues.begin(), m_queues.end(),
                       [&](const QVector<Event> &queue) { return queue.isEmpty() || isLate(queue.first()); });
}

bool CoreOracle::isSilent() const
{
    return choices().isEmpty();
}

bool CoreOracle::hasClient(int client) const
{
    return m_clients[client].isThere;
}

bool CoreOracle::hears(int client) const
{
    const Client &its = m_clients[client];
    return its.isThere && m_isRunning && m_connections[its.connection].isOpen
        && m_connections[its.connection].instance == m_instance;
}

bool CoreOracle::isRunning() const
{
    return m_isRunning;
}

bool CoreOracle::changesOwner() const
{
    const QVector<Event> events = m_queues.value(SystemBus);
    return std::any_of(events.begin(), events.end(), [](const Event &event) { return event.kind == Event::Owner; });
}

bool CoreOracle::isOnItsWay(Source source) const
{
    return !m_queues.value(source == Daemon ? SystemBus : Stranger).isEmpty();
}

int CoreOracle::callsUnderWay(int client, bool withEnding) const
{
    return int(std::count_if(m_pending.begin(), m_pending.end(), [=](const Call &call) {
        const bool isEnding = call.isAnswered || call.connection < 0 || !m_connections[call.connection].isOpen;
        return call.connection != SystemBus && call.object == client && (withEnding || !isEnding);
    }));
}

int CoreOracle::oldInstance() const
{
    return m_old.isEmpty() ? 0 : m_old.last();
}

QStringList CoreOracle::properties() const
{
    QStringList result;
    for (int i = 0; i < Clients; ++i) {
        if (m_clients[i].isThere)
            result.append("client %1: authenticated %2, progress %3, waits for %4 calls"_s.arg(i)
                              .arg(boolText(m_clients[i].authenticated), boolText(m_clients[i].progress))
                              .arg(callsUnderWay(i, true)));
    }
    for (int i = 0; i < Devlocks; ++i) {
        if (m_devlocks[i].isThere)
            result.append("device-lock client %1: enabled true, state %2"_s.arg(i).arg(m_devlocks[i].state));
    }
    return result;
}

// The search

namespace {

struct Search
{
    const QStringList &seen;
    QStringList *expected;
    int farthest = -1;

    /** Goes on from where the first @p done entries were said. */
    bool goOn(CoreOracle *oracle, int done)
    {
        for (;;) {
            const QStringList said = oracle->takeSaid();
            int same = 0;
            while (same < said.size() && done + same < seen.size() && fits(said[same], seen[done + same]))
                ++same;
            done += same;
            if (done > farthest || (done == farthest && same < said.size())) {
                farthest = done;
                *expected = seen.mid(0, done) + said.mid(same);
            }
            if (same < said.size())
                return false;
            if (done == seen.size() && oracle->isSettled())
                return true;
            const QVector<Choice> choices = oracle->choices();
            if (choices.isEmpty())
                return false;
            if (choices.size() > 1) {
                for (const Choice &choice : choices) {
                    CoreOracle copy = *oracle;
                    copy.choose(choice);
                    if (goOn(&copy, done)) {
                        *oracle = copy;
                        return true;
                    }
                }
                return false;
            }
            oracle->choose(choices.first());
        }
    }
};

} // namespace

bool explain(CoreOracle *oracle, const QStringList &seen, QStringList *expected)
{
    return Search{seen, expected}.goOn(oracle, 0);
}
