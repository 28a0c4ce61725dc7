#include "control.h"

#include "objects.h"

#include <algorithm>

namespace {

JsonObject *toJson(const LoggedCall &call)
{
    JsonObject *object = json_object_new();
    json_object_set_int_member(object, "n", call.n);
    json_object_set_int_member(object, "instance", call.instance);
    json_object_set_string_member(object, "bus", nameOf(call.bus));
    json_object_set_int_member(object, "peer", call.peer);
    if (!call.sender.empty())
        json_object_set_string_member(object, "sender", call.sender.c_str());
    json_object_set_string_member(object, "path", call.path.c_str());
    json_object_set_string_member(object, "interface", call.interface.c_str());
    json_object_set_string_member(object, "method", call.method.c_str());
    json_object_set_string_member(object, "signature", call.signature.c_str());
    json_object_set_string_member(object, "args", call.arguments.c_str());
    return object;
}

/** Adds the calls from entry @p since on, of one method if any is named. */
void addCalls(JsonObject *answer, const CallLog &log, int64_t since, const std::string &method = {})
{
    JsonArray *array = json_array_new();
    for (const LoggedCall &call : log.calls) {
        if (call.n >= since && (method.empty() || call.method == method))
            json_array_add_object_element(array, toJson(call));
    }
    json_object_set_array_member(answer, "calls", array);
    json_object_set_int_member(answer, "next", log.next);
}

/** A misspelt name would wait for ever, or find that nobody has called. */
std::optional<std::string> readMethod(JsonMembers &members)
{
    std::optional<std::string> method = members.text("method");
    if (method && !objectWithMethod(*method))
        failJson(members.pathOf("method"), "the daemon has no method \"" + *method + "\"");
    return method;
}

int64_t readSince(JsonMembers &members)
{
    return members.integer("since", 0, INT64_MAX).value_or(0);
}

std::optional<int> readId(JsonMembers &members, const char *name)
{
    const auto id = members.integer(name, 1, INT32_MAX);
    return id ? std::optional<int>(static_cast<int>(*id)) : std::nullopt;
}

} // namespace

Control::Control(const std::string &path, Service &service, std::function<void()> quit)
    : m_service(service)
    , m_quit(std::move(quit))
    , m_path(path)
    , m_listener(path, 0600, [this](int fd) { accept(fd); })
{
    m_service.setCallHandler([this] { handleCalls(); });
}

Control::~Control()
{
    Listener::removeFile(m_path);
    for (Client &client : m_clients)
        client.stream->close();
}

void Control::accept(int fd)
{
    Client &client = m_clients.emplace_back();
    const auto onInput = [this, &client](std::string &input) {
        for (size_t end = 0; (end = input.find('\n')) != std::string::npos; input.erase(0, end + 1))
            client.requests.push_back(input.substr(0, end));
        serve(client);
    };
    const auto onEnd = [this, &client](const std::string &rest) {
        if (!rest.empty())
            client.requests.push_back(rest);
        client.ended = true;
        serve(client);
    };
    // What clients of the daemon have sent before a request is dealt with before it.
    client.stream = Stream::create(
        fd, onInput, [this, &client] { remove(client); }, G_PRIORITY_DEFAULT_IDLE, onEnd);
}

void Control::remove(Client &client)
{
    if (client.wait)
        g_source_remove(client.wait->timer);
    m_clients.remove_if([&](const Client &other) { return &other == &client; });
}

/** Takes up the client's requests one after the other; a request that waits holds up the rest. */
void Control::serve(Client &client)
{
    while (!client.wait && !client.requests.empty()) {
        const std::string line = client.requests.front();
        client.requests.pop_front();
        request(client, line);
    }
    if (client.ended && !client.wait)
        client.stream->finish();
}

void Control::request(Client &client, const std::string &line)
{
    static const std::map<std::string, Handler> handlers = {
        {"ping", &Control::ping},
        {"state", &Control::state},
        {"calls", &Control::calls},
        {"standard-calls", &Control::standardCalls},
        {"clear-calls", &Control::clearCalls},
        {"misbehave", &Control::misbehave},
        {"behave", &Control::behave},
        {"release", &Control::release},
        {"emit", &Control::emitSignal},
        {"set-lock", &Control::setLock},
        {"lockout", &Control::lockout},
        {"options", &Control::options},
        {"set-option", &Control::setOption},
        {"remove-option", &Control::removeOption},
        {"reset-options", &Control::resetOptions},
        {"reset-secrets", &Control::resetSecrets},
        {"stop", &Control::stop},
        {"start", &Control::start},
        {"restart", &Control::restart},
        {"handover", &Control::handover},
        {"drop-old", &Control::dropOld},
        {"release-name", &Control::releaseName},
        {"own-name", &Control::ownName},
        {"drop-peers", &Control::dropPeers},
        {"accept", &Control::accept},
        {"quit", &Control::quit},
    };
    try {
        JsonMembers members(parseJson(line));
        const std::string name = members.required("do", members.text("do"));
        if (name == "wait-calls") {
            startWaiting(client, members);
            return;
        }
        const auto handler = handlers.find(name);
        if (handler == handlers.end())
            failJson("do", "there is no request \"" + name + "\"");
        g_autoptr(JsonObject) answerObject = json_object_new();
        (this->*handler->second)(members, answerObject);
        answer(client, answerObject);
    } catch (const std::runtime_error &error) {
        answerError(client, error.what());
    }
}

void Control::answer(Client &client, JsonObject *answer)
{
    if (!json_object_has_member(answer, "ok"))
        json_object_set_boolean_member(answer, "ok", TRUE);
    m_service.flush();
    const std::string line = printedJson(answer) + "\n";
    client.stream->write(line.data(), line.size());
}

void Control::answerError(Client &client, const std::string &message)
{
    g_autoptr(JsonObject) object = json_object_new();
    json_object_set_boolean_member(object, "ok", FALSE);
    json_object_set_string_member(object, "error", message.c_str());
    answer(client, object);
}

void Control::startWaiting(Client &client, JsonMembers &members)
{
    Wait wait = {};
    wait.method = members.required("method", readMethod(members));
    wait.count = members.required("count", members.integer("count", 1, INT32_MAX));
    wait.since = readSince(members);
    const int64_t timeout = members.integer("timeout", 0, INT32_MAX).value_or(10000);
    members.done();
    wait.timer = after(static_cast<unsigned>(timeout), [this, &client] {
        const std::string method = client.wait->method;
        client.wait.reset();
        answerError(client, "the calls of " + method + " have not come in time");
        serve(client);
    });
    client.wait = wait;
    answerWait(client);
}

/** Answers a client if the calls that it waits for are there. */
bool Control::answerWait(Client &client)
{
    const Wait wait = *client.wait;
    const auto &log = m_service.calls().calls;
    const auto count = std::count_if(log.begin(), log.end(), [&](const LoggedCall &call) {
        return call.n >= wait.since && call.method == wait.method;
    });
    if (count < wait.count)
        return false;
    g_source_remove(wait.timer);
    client.wait.reset();
    g_autoptr(JsonObject) object = json_object_new();
    addCalls(object, m_service.calls(), wait.since, wait.method);
    answer(client, object);
    return true;
}

void Control::handleCalls()
{
    const bool someoneWaits =
        std::any_of(m_clients.begin(), m_clients.end(), [](const Client &client) { return client.wait.has_value(); });
    if (!someoneWaits)
        return;
    // Not before the call is dealt with: the next request must not get ahead of that.
    after(0, [this] {
        for (Client &client : m_clients) {
            if (client.wait && answerWait(client))
                serve(client);
        }
    });
}

void Control::ping(JsonMembers &members, JsonObject *)
{
    members.done();
}

void Control::state(JsonMembers &members, JsonObject *answer)
{
    members.done();
    const Instance *instance = m_service.current();
    JsonArray *peers = json_array_new();
    for (const int peer : instance ? instance->peers() : std::vector<int>())
        json_array_add_int_element(peers, peer);
    json_object_set_boolean_member(answer, "running", instance != nullptr);
    json_object_set_int_member(answer, "instance", m_service.instanceNumber());
    json_object_set_string_member(answer, "owner", instance ? instance->owner().c_str() : "");
    json_object_set_int_member(answer, "lock-state", m_service.world().lockState());
    json_object_set_array_member(answer, "peers", peers);
    json_object_set_int_member(answer, "tokens", instance ? m_service.world().tokenCount(instance->number()) : 0);
}

void Control::calls(JsonMembers &members, JsonObject *answer)
{
    const int64_t since = readSince(members);
    const std::string method = readMethod(members).value_or("");
    members.done();
    addCalls(answer, m_service.calls(), since, method);
}

void Control::standardCalls(JsonMembers &members, JsonObject *answer)
{
    const int64_t since = readSince(members);
    members.done();
    addCalls(answer, m_service.standardCalls(), since);
}

void Control::clearCalls(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.clearCalls();
}

void Control::misbehave(JsonMembers &members, JsonObject *)
{
    m_service.rules().add(members);
}

void Control::behave(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.rules().clear();
}

void Control::release(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.release();
}

void Control::emitSignal(JsonMembers &members, JsonObject *)
{
    const std::string signal = members.required("signal", members.text("signal"));
    const std::string arguments = members.text("args").value_or("()");
    const auto path = members.text("path");
    const auto interface = members.text("interface");
    const auto bus = members.choice("bus", {"peer", "system"});
    const auto peer = readId(members, "peer");
    const auto instance = readId(members, "instance");
    members.done();

    if (!g_dbus_is_member_name(signal.c_str()))
        failJson("signal", "expected a signal's name");
    if (path && !g_variant_is_object_path(path->c_str()))
        failJson("path", "expected an object path");
    if (interface && !g_dbus_is_interface_name(interface->c_str()))
        failJson("interface", "expected an interface name");
    const Object *object = interface ? objectOfInterface(*interface) : objectWithSignal(signal);
    if (!object && !(path && interface && bus))
        failJson("signal", "the daemon has no such signal: path, interface and bus are wanted");
    Variant value;
    try {
        value = parseTuple(arguments);
    } catch (const std::invalid_argument &error) {
        failJson("args", error.what());
    }
    m_service.emitSignal(bus ? static_cast<Bus>(*bus) : object->bus, path ? *path : object->path,
                         interface ? *interface : object->interface->name, signal, value, peer, instance);
}

void Control::setLock(JsonMembers &members, JsonObject *)
{
    const int64_t state = members.required("state", members.integer("state", INT32_MIN, INT32_MAX));
    const bool announce = members.boolean("announce").value_or(true);
    members.done();
    if (announce)
        m_service.world().announceLockState(static_cast<int>(state));
    else
        m_service.world().changeLockState(static_cast<int>(state));
}

void Control::lockout(JsonMembers &members, JsonObject *)
{
    // What ends a lockout leaves the device locked.
    static const std::vector<std::string> kinds = {"none", "manager", "code-entry"};
    static const int states[] = {1, 2, 3};
    const size_t kind = members.required("kind", members.choice("kind", kinds));
    members.done();
    m_service.world().announceLockState(states[kind]);
}

OptionOwner Control::readOwner(JsonMembers &members)
{
    OptionOwner owner;
    if (const auto uid = members.integer("uid", 0, UINT32_MAX))
        owner.uid = static_cast<uint32_t>(*uid);
    owner.factor = members.text("factor");
    if (owner.factor)
        members.required("uid", owner.uid);
    const OptionStore &options = m_service.world().options();
    if (!options.has({owner.uid, std::nullopt}))
        failJson(members.pathOf("uid"), "there is no user " + std::to_string(*owner.uid));
    if (!options.has(owner))
        failJson(members.pathOf("factor"), "there is no factor \"" + *owner.factor + "\"");
    return owner;
}

/** A factor's option has a name, any other one a key. */
std::pair<OptionOwner, std::string> Control::readOptionName(JsonMembers &members)
{
    const OptionOwner owner = readOwner(members);
    const char *member = owner.factor ? "name" : "key";
    const std::string name = members.required(member, members.text(member));
    if (name.empty())
        failJson(members.pathOf(member), "expected a text that is not empty");
    return {owner, name};
}

void Control::options(JsonMembers &members, JsonObject *answer)
{
    const OptionOwner owner = readOwner(members);
    members.done();
    JsonObject *object = json_object_new();
    for (const auto &[name, value] : m_service.world().options().all(owner))
        json_object_set_string_member(object, name.c_str(), printed(value.get()).c_str());
    json_object_set_object_member(answer, "options", object);
}

void Control::setOption(JsonMembers &members, JsonObject *)
{
    const auto [owner, name] = readOptionName(members);
    const Json node = members.node("value");
    if (!node)
        failJson(members.pathOf("value"), "missing");
    const Variant value = readOption(node, members.pathOf("value"));
    const bool announce = members.boolean("announce").value_or(true);
    members.done();
    m_service.world().options().set(owner, name, value);
    if (announce)
        m_service.world().announceOption(owner, name);
}

void Control::removeOption(JsonMembers &members, JsonObject *)
{
    const auto [owner, name] = readOptionName(members);
    members.done();
    if (!m_service.world().options().remove(owner, name))
        throw std::runtime_error("there is no option \"" + name + "\"");
}

void Control::resetOptions(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.world().options().reset();
}

void Control::resetSecrets(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.world().resetSecrets();
}

void Control::stop(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.stop();
}

void Control::start(JsonMembers &members, JsonObject *)
{
    const bool withSocket = members.boolean("socket").value_or(true);
    const bool withName = members.boolean("name").value_or(true);
    members.done();
    m_service.start(withSocket, withName);
}

void Control::restart(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.stop();
    m_service.start(true, true);
}

void Control::handover(JsonMembers &members, JsonObject *)
{
    const bool keepOld = members.boolean("keep-old").value_or(false);
    members.done();
    m_service.handover(keepOld);
}

void Control::dropOld(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.dropOld();
}

void Control::releaseName(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.releaseName();
}

void Control::ownName(JsonMembers &members, JsonObject *)
{
    members.done();
    m_service.ownName();
}

void Control::dropPeers(JsonMembers &members, JsonObject *)
{
    const auto peer = readId(members, "peer");
    members.done();
    m_service.dropPeers(peer);
}

void Control::accept(JsonMembers &members, JsonObject *)
{
    const size_t how = members.required("how", members.choice("how", {"normal", "mute", "close", "refuse"}));
    members.done();
    m_service.setAccept(static_cast<Accept>(how));
}

void Control::quit(JsonMembers &members, JsonObject *)
{
    members.done();
    m_quit();
}
