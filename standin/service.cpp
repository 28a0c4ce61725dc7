#include "service.h"

#include <algorithm>
#include <stdexcept>

namespace {

const char introspectable[] = "org.freedesktop.DBus.Introspectable";
const char peerInterface[] = "org.freedesktop.DBus.Peer";
const char properties[] = "org.freedesktop.DBus.Properties";

std::string text(const char *string)
{
    return string ? string : "";
}

Outcome error(const char *name, const std::string &message)
{
    Outcome outcome = {};
    outcome.errorName = std::string("org.freedesktop.DBus.Error.") + name;
    outcome.errorMessage = message;
    return outcome;
}

Outcome replying(Variant value)
{
    Outcome outcome = {};
    outcome.reply = std::move(value);
    return outcome;
}

Variant argumentsOf(GDBusMessage *message)
{
    GVariant *body = g_dbus_message_get_body(message);
    return hold(body ? body : g_variant_new("()"));
}

bool isStandard(const std::string &interface)
{
    return g_str_has_prefix(interface.c_str(), "org.freedesktop.DBus");
}

void append(CallLog &log, LoggedCall call)
{
    call.n = log.next++;
    log.calls.push_back(std::move(call));
}

} // namespace

Service::Service(const Scenario &scenario)
    : m_world(scenario, [this](const Signals &signals) { sendSignals(signals, m_current, 0); })
    , m_rules(scenario.misbehave)
{
}

Service::~Service()
{
    dropOld();
    stop();
}

void Service::start(bool withSocket, bool withName)
{
    if (m_current)
        throw std::runtime_error("the daemon is running already");
    const std::shared_ptr<Instance> instance = newInstance();
    // Clients come to the socket as soon as the name has an owner.
    if (withSocket)
        instance->listen(m_accept);
    if (instance->connectToSystemBus() && withName)
        instance->ownName();
    m_current = instance;
}

void Service::stop()
{
    if (m_current)
        end(m_current);
}

void Service::handover(bool keepOld)
{
    if (!m_current)
        throw std::runtime_error("the daemon is not running");
    const std::shared_ptr<Instance> old = m_current;
    const std::shared_ptr<Instance> instance = newInstance();
    instance->listen(m_accept);
    old->yieldSocket();
    if (instance->connectToSystemBus())
        instance->ownName();
    m_current = instance;
    m_old.push_back(old);
    if (!keepOld)
        end(old);
}

void Service::dropOld()
{
    while (!m_old.empty())
        end(m_old.back());
}

void Service::ownName()
{
    if (!m_current)
        throw std::runtime_error("the daemon is not running");
    m_current->ownName();
}

void Service::releaseName()
{
    if (!m_current)
        throw std::runtime_error("the daemon is not running");
    m_current->releaseName();
}

void Service::setAccept(Accept accept)
{
    if (m_current && m_current->hasSocket())
        m_current->listen(accept);
    m_accept = accept;
}

void Service::dropPeers(std::optional<int> peer)
{
    if (!peer) {
        if (m_current)
            m_current->dropPeers();
        return;
    }
    std::vector<std::shared_ptr<Instance>> all = m_old;
    if (m_current)
        all.push_back(m_current);
    for (const auto &instance : all) {
        if (instance->hasPeer(*peer)) {
            instance->dropPeer(*peer);
            return;
        }
    }
    throw std::runtime_error("there is no connection " + std::to_string(*peer));
}

void Service::emitSignal(Bus bus, const std::string &path, const std::string &interface, const std::string &signal,
                         const Variant &arguments, std::optional<int> peer, std::optional<int> instanceNumber)
{
    const std::shared_ptr<Instance> instance = instanceNumber ? findInstance(*instanceNumber) : m_current;
    if (!instance)
        throw std::runtime_error(instanceNumber ? "there is no such instance" : "the daemon is not running");
    if (peer && (bus != Bus::Peer || !instance->hasPeer(*peer)))
        throw std::runtime_error("there is no connection " + std::to_string(*peer));

    std::vector<int> addressees = {0};
    if (bus == Bus::Peer)
        addressees = peer ? std::vector<int>{*peer} : instance->peers();
    for (const int addressee : addressees) {
        const Message message = adopt(g_dbus_message_new_signal(path.c_str(), interface.c_str(), signal.c_str()));
        g_dbus_message_set_body(message.get(), arguments.get());
        instance->send(addressee, message);
    }
}

void Service::release()
{
    std::vector<Call> held;
    held.swap(m_held);
    for (const Call &call : held)
        treat(call);
}

void Service::flush()
{
    if (m_current)
        m_current->flush();
    for (const auto &instance : m_old)
        instance->flush();
}

void Service::clearCalls()
{
    m_calls.calls.clear();
    m_standardCalls.calls.clear();
}

std::shared_ptr<Instance> Service::newInstance()
{
    Instance::Handlers handlers;
    handlers.onMessage = [this](Instance &instance, int peer, const Message &message) {
        handleMessage(instance, peer, message);
    };
    handlers.onPeerClosed = [this](int peer) { m_world.forgetPeer(peer); };
    return std::make_shared<Instance>(++m_lastInstance, std::move(handlers));
}

std::shared_ptr<Instance> Service::findInstance(int number) const
{
    if (m_current && m_current->number() == number)
        return m_current;
    const auto found =
        std::find_if(m_old.begin(), m_old.end(), [=](const auto &instance) { return instance->number() == number; });
    return found == m_old.end() ? nullptr : *found;
}

void Service::end(const std::shared_ptr<Instance> &instance)
{
    // The parameter may refer to the member that is reset below.
    const std::shared_ptr<Instance> ended = instance; // NOLINT(performance-unnecessary-copy-initialization)
    if (m_current == ended)
        m_current.reset();
    else
        m_old.erase(std::remove(m_old.begin(), m_old.end(), ended), m_old.end());
    ended->close();
    m_world.forgetInstance(ended->number());
    // The instance may be ended by the handler of a call of its own, which goes on using the instance.
    after(0, [ended] {});
}

void Service::handleMessage(Instance &instance, int peer, const Message &message)
{
    if (g_dbus_message_get_message_type(message.get()) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
        return;
    logCall(instance, peer, message.get());
    const auto misbehaviour = m_rules.take(g_dbus_message_get_member(message.get()));
    const Call call = {instance.weak_from_this(), peer, message};
    if (misbehaviour)
        misbehave(call, *misbehaviour);
    else
        treat(call);
}

void Service::logCall(const Instance &instance, int peer, GDBusMessage *message)
{
    LoggedCall call = {};
    call.instance = instance.number();
    call.bus = peer ? Bus::Peer : Bus::System;
    call.peer = peer;
    call.sender = peer ? "" : text(g_dbus_message_get_sender(message));
    call.path = text(g_dbus_message_get_path(message));
    call.interface = text(g_dbus_message_get_interface(message));
    call.method = text(g_dbus_message_get_member(message));
    call.signature = text(g_dbus_message_get_signature(message));
    call.arguments = printed(argumentsOf(message).get());
    const bool standard = isStandard(call.interface);
    append(standard ? m_standardCalls : m_calls, std::move(call));
    if (!standard && m_onCall)
        m_onCall();
}

void Service::misbehave(const Call &call, const Misbehaviour &misbehaviour)
{
    const std::shared_ptr<Instance> instance = call.instance.lock();
    Outcome outcome = {};
    switch (misbehaviour.how) {
    case Misbehaviour::Mute:
        break;
    case Misbehaviour::Hold:
        m_held.push_back(call);
        break;
    case Misbehaviour::Delay:
        after(misbehaviour.milliseconds, [this, call] { treat(call); });
        break;
    case Misbehaviour::Error:
        outcome.errorName = misbehaviour.errorName;
        outcome.errorMessage = misbehaviour.errorMessage;
        reply(call, outcome);
        break;
    case Misbehaviour::Reply:
        outcome.reply = misbehaviour.value;
        reply(call, outcome);
        break;
    case Misbehaviour::LoseReply:
        treat(call, Order::SignalsOnly);
        break;
    case Misbehaviour::LoseSignals:
        treat(call, Order::ReplyOnly);
        break;
    case Misbehaviour::SignalFirst:
        treat(call, Order::SignalsFirst);
        break;
    case Misbehaviour::Drop:
        instance->dropPeer(call.peer);
        break;
    case Misbehaviour::Crash:
        end(instance);
        break;
    case Misbehaviour::Restart:
        const bool replace = instance == m_current;
        end(instance);
        try {
            if (replace)
                start(true, true);
        } catch (const std::runtime_error &failure) {
            g_printerr("authd-standin: cannot restart: %s\n", failure.what());
        }
        break;
    }
}

void Service::treat(const Call &call, Order order)
{
    const std::shared_ptr<Instance> instance = call.instance.lock();
    // The caller may have gone while the call was held.
    if (!instance || (call.peer && !instance->hasPeer(call.peer)))
        return;

    Outcome outcome = outcomeOf(call);
    if (outcome.later && outcome.delay == 0) {
        outcome.signals = outcome.later();
        outcome.later = nullptr;
    }
    if (order == Order::ReplyFirst || order == Order::ReplyOnly)
        reply(call, outcome);
    if (order != Order::ReplyOnly)
        sendSignals(outcome.signals, instance, call.peer);
    if (order == Order::SignalsFirst)
        reply(call, outcome);
    if (outcome.later) {
        after(outcome.delay, [this, call, order, later = std::move(outcome.later)] {
            const std::shared_ptr<Instance> stillThere = call.instance.lock();
            if (!stillThere || !stillThere->hasPeer(call.peer))
                return;
            const Signals signals = later();
            if (order != Order::ReplyOnly)
                sendSignals(signals, stillThere, call.peer);
        });
    }
}

Outcome Service::outcomeOf(const Call &call)
{
    GDBusMessage *message = call.message.get();
    const Bus bus = call.peer ? Bus::Peer : Bus::System;
    const std::string path = text(g_dbus_message_get_path(message));
    const std::string interface = text(g_dbus_message_get_interface(message));
    const std::string method = text(g_dbus_message_get_member(message));

    if (introspect(bus, path).empty())
        return error("UnknownObject", "There is no object " + path);
    if (isStandard(interface))
        return standardOutcomeOf(bus, message);
    const Object *object = objectAt(bus, path);
    if (!object || (!interface.empty() && interface != object->interface->name))
        return error("UnknownInterface", "The object " + path + " has no interface " + interface);
    const GDBusMethodInfo *info = g_dbus_interface_info_lookup_method(object->interface.get(), method.c_str());
    if (!info)
        return error("UnknownMethod", "There is no method " + method);
    const std::string expected = signatureOf(info);
    const Variant arguments = argumentsOf(message);
    if (g_variant_get_type_string(arguments.get()) != expected)
        return error("InvalidArgs", method + " wants arguments of the types " + expected);
    return m_world.call({call.instance.lock()->number(), call.peer}, method, arguments.get());
}

Outcome Service::standardOutcomeOf(Bus bus, GDBusMessage *message) const
{
    const std::string interface = g_dbus_message_get_interface(message);
    const std::string method = g_dbus_message_get_member(message);
    if (interface == introspectable && method == "Introspect") {
        const std::string xml = introspect(bus, g_dbus_message_get_path(message));
        return replying(tuple(g_variant_new_string(xml.c_str())));
    }
    if (interface == peerInterface && method == "Ping")
        return replying(hold(g_variant_new("()")));
    if (interface == properties && method == "GetAll")
        return replying(hold(g_variant_new_parsed("(@a{sv} {},)")));
    if (interface == properties && (method == "Get" || method == "Set"))
        return error("UnknownProperty", "The object has no properties");
    return error("UnknownMethod", "There is no method " + method);
}

void Service::reply(const Call &call, const Outcome &outcome)
{
    const std::shared_ptr<Instance> instance = call.instance.lock();
    if (g_dbus_message_get_flags(call.message.get()) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED)
        return;
    Message message;
    if (outcome.errorName.empty()) {
        message = adopt(g_dbus_message_new_method_reply(call.message.get()));
        g_dbus_message_set_body(message.get(), outcome.reply.get());
    } else {
        message = adopt(g_dbus_message_new_method_error_literal(call.message.get(), outcome.errorName.c_str(),
                                                                outcome.errorMessage.c_str()));
        if (outcome.errorMessage.empty())
            g_dbus_message_set_body(message.get(), nullptr);
    }
    instance->send(call.peer, message);
}

void Service::sendSignals(const Signals &signals, const std::shared_ptr<Instance> &instance, int caller)
{
    for (const Signal &signal : signals) {
        const Object *object = objectWithSignal(signal.name);
        // Signals to everybody are sent by the present instance, whichever instance has taken the call.
        const std::shared_ptr<Instance> sender = signal.audience == Signal::Caller ? instance : m_current;
        if (sender)
            emitSignal(object->bus, object->path, object->interface->name, signal.name, signal.arguments,
                       signal.audience == Signal::Caller ? std::optional<int>(caller) : std::nullopt, sender->number());
    }
}
