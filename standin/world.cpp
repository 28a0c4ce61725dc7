#include "world.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>

namespace {

enum LockState {
    Unlocked = 0,
    Locked = 1,
    ManagerLockout = 2,
    CodeEntryLockout = 3,
    LastLockState = 5,
};

bool isLockState(int state)
{
    return state >= Unlocked && state <= LastLockState;
}

Outcome replying(Variant value, Signals signals = {})
{
    Outcome outcome = {};
    outcome.reply = std::move(value);
    outcome.signals = std::move(signals);
    return outcome;
}

Outcome replying(bool value, Signals signals = {})
{
    return replying(tuple(g_variant_new_boolean(value)), std::move(signals));
}

/** The value of an option, or what a factor answers. */
Outcome replyingVariant(GVariant *value, Signals signals = {})
{
    return replying(tuple(g_variant_new_variant(value)), std::move(signals));
}

/** The bus error that a call is refused with. */
class Refusal : public std::runtime_error
{
public:
    Refusal(std::string errorName, const std::string &message)
        : runtime_error(message)
        , name(std::move(errorName))
    {
    }
    const std::string name;
};

const char accessDenied[] = "vantora.AuthService.Error.AccessDenied";
const char invalidArguments[] = "org.freedesktop.DBus.Error.InvalidArgs";

Outcome refusing(const std::string &name, const std::string &message)
{
    Outcome outcome = {};
    outcome.errorName = name;
    outcome.errorMessage = message;
    return outcome;
}

Variant nothing()
{
    return hold(g_variant_new("()"));
}

/** The bytes of a text or a byte array under @p key; empty for anything else. */
std::string bytesAt(GVariant *params, const char *key)
{
    g_autoptr(GVariant) value = g_variant_lookup_value(params, key, nullptr);
    if (!value)
        return {};
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING))
        return g_variant_get_string(value, nullptr);
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING))
        return {};
    gsize size = 0;
    const auto *bytes = static_cast<const char *>(g_variant_get_fixed_array(value, &size, 1));
    return std::string(bytes, size);
}

std::string bytesOf(GVariant *byteArrayValue)
{
    gsize size = 0;
    const auto *bytes = static_cast<const char *>(g_variant_get_fixed_array(byteArrayValue, &size, 1));
    return std::string(bytes, size);
}

/** The member @p name of a factor method's parameters, of any type for nullptr. Throws Refusal. */
Variant memberOf(GVariant *params, const char *name, const GVariantType *type)
{
    GVariant *value = g_variant_lookup_value(params, name, type);
    if (!value)
        throw Refusal(
            invalidArguments,
            std::string("There is no \"") + name + "\""
                + (type ? " of the type "
                           + std::string(g_variant_type_peek_string(type), g_variant_type_get_string_length(type))
                        : ""));
    return Variant(value, g_variant_unref);
}

/** A user id in any of the bus' types for numbers: a client in JavaScript cannot choose one. */
std::optional<uint32_t> userIdOf(GVariant *value)
{
    double number = -1;
    switch (g_variant_classify(value)) {
    case G_VARIANT_CLASS_BYTE:
        number = g_variant_get_byte(value);
        break;
    case G_VARIANT_CLASS_INT16:
        number = g_variant_get_int16(value);
        break;
    case G_VARIANT_CLASS_UINT16:
        number = g_variant_get_uint16(value);
        break;
    case G_VARIANT_CLASS_INT32:
        number = g_variant_get_int32(value);
        break;
    case G_VARIANT_CLASS_UINT32:
        number = g_variant_get_uint32(value);
        break;
    case G_VARIANT_CLASS_INT64:
        number = static_cast<double>(g_variant_get_int64(value));
        break;
    case G_VARIANT_CLASS_UINT64:
        number = static_cast<double>(g_variant_get_uint64(value));
        break;
    case G_VARIANT_CLASS_DOUBLE:
        number = g_variant_get_double(value);
        break;
    default:
        break;
    }
    // NaN compares false, so it is not in the range either.
    if (!(number >= 0 && number <= UINT32_MAX) || number != std::floor(number))
        return std::nullopt;
    return static_cast<uint32_t>(number);
}

uint32_t uidIn(GVariant *params)
{
    return g_variant_get_uint32(memberOf(params, "uid", G_VARIANT_TYPE_UINT32).get());
}

std::string textIn(GVariant *params, const char *name)
{
    return g_variant_get_string(memberOf(params, name, G_VARIANT_TYPE_STRING).get(), nullptr);
}

void announce(const OptionOwner &owner, const std::string &name, const Variant &value, Signals &signals)
{
    const auto add = [&](const char *signal, GVariant *arguments) {
        signals.push_back({Signal::Everybody, signal, hold(arguments)});
    };
    const auto addNotice = [&](const std::string &factor, const std::string &option) {
        GVariantBuilder notice;
        g_variant_builder_init(&notice, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&notice, "{sv}", "type", g_variant_new_string("option-changed"));
        g_variant_builder_add(&notice, "{sv}", "uid", g_variant_new_uint32(*owner.uid));
        g_variant_builder_add(&notice, "{sv}", "name", g_variant_new_string(option.c_str()));
        g_variant_builder_add(&notice, "{sv}", "value", value.get());
        add("Factor", g_variant_new("(sa{sv})", factor.c_str(), &notice));
    };

    if (!owner.uid) {
        add("OptionChanged", g_variant_new("(sv)", name.c_str(), value.get()));
    } else if (owner.factor && owner.factor != workerFactor) {
        addNotice(*owner.factor, name);
    } else {
        const std::string key = owner.factor ? workerPrefix + name : name;
        add("UserOptionChanged", g_variant_new("(usv)", *owner.uid, key.c_str(), value.get()));
        if (g_str_has_prefix(key.c_str(), workerPrefix.c_str()))
            addNotice(workerFactor, key.substr(workerPrefix.size()));
    }
}

} // namespace

World::World(const Scenario &scenario, std::function<void(const Signals &)> announce)
    : m_scenario(scenario)
    , m_users(scenario.users)
    , m_announce(std::move(announce))
    , m_options(scenario)
{
    Signals nobodyListensYet;
    m_lockState = -1;
    setLockState(scenario.lockState, nobodyListensYet);
}

World::~World()
{
    if (m_lockoutTimer)
        g_source_remove(m_lockoutTimer);
}

Outcome World::call(const Caller &caller, const std::string &method, GVariant *arguments)
{
    using Handler = Outcome (World::*)(const Caller &, GVariant *);
    static const std::map<std::string, Handler> handlers = {
        {"RequestChallenge", &World::requestChallenge},
        {"Authenticate", &World::authenticate},
        {"ChangeAuthData", &World::changeAuthData},
        {"UnlockIfNeeded", &World::unlockIfNeeded},
        {"SetDevlockState", &World::setDevlockState},
        {"FactorMethod", &World::factorMethod},
        {"GetOption", &World::getOption},
        {"GetUserOption", &World::getUserOption},
        {"GetUserOptions", &World::getUserOptions},
        {"SetUserOption", &World::setUserOption},
        {"GetState", &World::getState},
        {"SetState", &World::setState},
    };
    try {
        return (this->*handlers.at(method))(caller, arguments);
    } catch (const Refusal &refusal) {
        return refusing(refusal.name, refusal.what());
    }
}

void World::announceLockState(int state)
{
    Signals signals;
    setLockState(state, signals);
    if (signals.empty())
        signals.push_back({Signal::Everybody, "StateChanged", tuple(g_variant_new_int32(state))});
    m_announce(signals);
}

void World::changeLockState(int state)
{
    Signals untold;
    setLockState(state, untold);
}

int World::tokenCount(int instance) const
{
    return static_cast<int>(std::count_if(m_tokens.begin(), m_tokens.end(),
                                          [=](const auto &token) { return token.second.instance == instance; }));
}

void World::forgetInstance(int instance)
{
    for (auto token = m_tokens.begin(); token != m_tokens.end();)
        token = token->second.instance == instance ? m_tokens.erase(token) : std::next(token);
}

void World::forgetPeer(int peer)
{
    m_challenges.erase(peer);
}

void World::resetSecrets()
{
    m_users = m_scenario.users;
    m_failures = 0;
}

void World::announceOption(const OptionOwner &owner, const std::string &name)
{
    Signals signals;
    announce(owner, name, m_options.value(owner, name), signals);
    m_announce(signals);
}

Outcome World::requestChallenge(const Caller &caller, GVariant *)
{
    std::string &challenge = m_challenges[caller.peer];
    if (challenge.empty())
        challenge = randomBytes(16);
    return replying(tuple(byteArray(challenge)));
}

Outcome World::authenticate(const Caller &caller, GVariant *arguments)
{
    const char *service = nullptr;
    g_autoptr(GVariant) params = nullptr;
    g_variant_get(arguments, "(&s@a{sv})", &service, &params);
    const char *factorName = "";
    g_variant_lookup(params, "factor", "&s", &factorName);
    uint32_t uid = 0;
    const auto &services = m_scenario.services;
    if (std::find(services.begin(), services.end(), service) == services.end() || !findSubject(factorName, params, uid)
        || !isChallengeGood(caller, params) || m_lockState == ManagerLockout || m_lockState == CodeEntryLockout)
        return replying(false);

    const Scenario::Factor &factor = m_scenario.factors.at(factorName);
    Outcome outcome = replying(true);
    outcome.delay = factor.delay;
    outcome.later = [=, secret = bytesAt(params, "data")] { return finishAuthenticate(caller, factor, uid, secret); };
    return outcome;
}

Outcome World::changeAuthData(const Caller &caller, GVariant *arguments)
{
    const char *factorName = nullptr;
    g_autoptr(GVariant) params = nullptr;
    g_variant_get(arguments, "(&s@a{sv})", &factorName, &params);
    uint32_t uid = 0;
    if (!findSubject(factorName, params, uid) || !isChallengeGood(caller, params))
        return replying(false);

    const Scenario::Factor &factor = m_scenario.factors.at(factorName);
    Outcome outcome = replying(true);
    outcome.delay = factor.delay;
    outcome.later = [=, oldSecret = bytesAt(params, "old"), newSecret = bytesAt(params, "new")] {
        return finishChangeAuthData(factor, uid, oldSecret, newSecret);
    };
    return outcome;
}

Outcome World::unlockIfNeeded(const Caller &, GVariant *)
{
    const bool success = m_lockState == Unlocked || (m_lockState == Locked && m_scenario.unlockIfNeeded);
    Signals signals = {{Signal::Caller, "UnlockIfNeededFinished", tuple(g_variant_new_boolean(success))}};
    if (success)
        setLockState(Unlocked, signals);
    return replying(nothing(), signals);
}

Outcome World::setDevlockState(const Caller &caller, GVariant *arguments)
{
    g_autoptr(GVariant) token = nullptr;
    int state = 0;
    g_variant_get(arguments, "(@ayi)", &token, &state);
    const auto found = m_tokens.find(bytesOf(token));
    if (found == m_tokens.end() || found->second.instance != caller.instance || !isLockState(state))
        return replying(false);
    Signals signals;
    setLockState(state, signals);
    return replying(true, signals);
}

Outcome World::factorMethod(const Caller &caller, GVariant *arguments)
{
    using Handler = Outcome (World::*)(const FactorCall &);
    static const std::map<std::string, Handler> handlers = {
        {"get-option", &World::getFactorOption},
        {"set-option", &World::setFactorOption},
        {"action", &World::doAction},
        {"echo", &World::echo},
        {"notify", &World::notify},
    };
    g_autoptr(GVariant) token = nullptr;
    const char *factor = nullptr;
    g_autoptr(GVariant) params = nullptr;
    g_variant_get(arguments, "(@ay&s@a{sv})", &token, &factor, &params);
    if (factor != workerFactor && !m_scenario.factors.count(factor))
        throw Refusal("vantora.AuthService.Error.UnknownFactor", std::string("There is no factor ") + factor);
    const char *type = "";
    g_variant_lookup(params, "type", "&s", &type);
    const auto handler = handlers.find(type);
    if (handler == handlers.end())
        throw Refusal("vantora.AuthService.Error.UnknownMethod", std::string("The factor has no method ") + type);
    return (this->*handler->second)({caller, bytesOf(token), factor, params});
}

Outcome World::getFactorOption(const FactorCall &call)
{
    const uint32_t uid = uidIn(call.params);
    const std::string name = textIn(call.params, "name");
    wantUser(uid);
    return replyingVariant(optionValue({uid, call.factor}, name).get());
}

Outcome World::setFactorOption(const FactorCall &call)
{
    const uint32_t uid = uidIn(call.params);
    const std::string name = textIn(call.params, "name");
    const Variant value = memberOf(call.params, "value", nullptr);
    wantUser(uid);
    const Signals signals = changeOption(call.caller, call.token, {uid, call.factor}, name, value);
    return replyingVariant(g_variant_new_boolean(TRUE), signals);
}

Outcome World::doAction(const FactorCall &call)
{
    const uint32_t uid = uidIn(call.params);
    const std::string name = textIn(call.params, "name");
    g_autoptr(GVariant) given = g_variant_lookup_value(call.params, "params", nullptr);
    const Variant params =
        given ? memberOf(call.params, "params", G_VARIANT_TYPE_VARDICT) : hold(g_variant_new_parsed("@a{sv} {}"));
    wantUser(uid);
    if (name != "reset" && name != "echo")
        throw Refusal("vantora.AuthService.Error.UnknownMethod", "The factor has no action " + name);
    wantToken(call.caller, call.token, uid);
    if (name == "echo")
        return replyingVariant(params.get());

    const OptionOwner owner = {uid, call.factor};
    Signals signals;
    for (const auto &[option, value] : m_options.atStart(owner)) {
        m_options.set(owner, option, value);
        announce(owner, option, value, signals);
    }
    return replyingVariant(g_variant_new_boolean(TRUE), signals);
}

Outcome World::echo(const FactorCall &call)
{
    return replyingVariant(memberOf(call.params, "value", nullptr).get());
}

Outcome World::notify(const FactorCall &call)
{
    const Variant notice = memberOf(call.params, "params", G_VARIANT_TYPE_VARDICT);
    return replyingVariant(
        g_variant_new_boolean(TRUE),
        {{Signal::Everybody, "Factor", hold(g_variant_new("(s@a{sv})", call.factor.c_str(), notice.get()))}});
}

Outcome World::getOption(const Caller &, GVariant *arguments)
{
    const char *key = nullptr;
    g_variant_get(arguments, "(&s)", &key);
    return replyingVariant(optionValue({}, key).get());
}

Outcome World::getUserOption(const Caller &, GVariant *arguments)
{
    uint32_t uid = 0;
    const char *key = nullptr;
    g_variant_get(arguments, "(u&s)", &uid, &key);
    wantUser(uid);
    return replyingVariant(optionValue({uid, std::nullopt}, key).get());
}

Outcome World::getUserOptions(const Caller &, GVariant *arguments)
{
    uint32_t uid = 0;
    g_autoptr(GVariantIter) keys = nullptr;
    g_variant_get(arguments, "(uas)", &uid, &keys);
    wantUser(uid);
    Options found;
    const char *key = nullptr;
    while (g_variant_iter_next(keys, "&s", &key)) {
        if (const Variant value = m_options.value({uid, std::nullopt}, key))
            found[key] = value;
    }
    GVariantBuilder values;
    g_variant_builder_init(&values, G_VARIANT_TYPE_VARDICT);
    for (const auto &[name, value] : found)
        g_variant_builder_add(&values, "{sv}", name.c_str(), value.get());
    return replying(tuple(g_variant_builder_end(&values)));
}

Outcome World::setUserOption(const Caller &caller, GVariant *arguments)
{
    uint32_t uid = 0;
    g_autoptr(GVariant) token = nullptr;
    const char *key = nullptr;
    g_autoptr(GVariant) value = nullptr;
    g_variant_get(arguments, "(u@ay&sv)", &uid, &token, &key, &value);
    wantUser(uid);
    return replying(true, changeOption(caller, bytesOf(token), {uid, std::nullopt}, key, hold(value)));
}

Outcome World::getState(const Caller &, GVariant *)
{
    return replying(tuple(g_variant_new_int32(m_lockState)));
}

Outcome World::setState(const Caller &caller, GVariant *arguments)
{
    int state = 0;
    g_variant_get(arguments, "(i)", &state);
    if (!isLockState(state))
        return refusing("vantora.AuthService.Error.InvalidState", "There is no state " + std::to_string(state));
    if (state == Unlocked && tokenCount(caller.instance) == 0)
        return refusing(accessDenied, "Nobody is authenticated");
    Signals signals;
    setLockState(state, signals);
    return replying(nothing(), signals);
}

Signals World::finishAuthenticate(const Caller &caller, const Scenario::Factor &factor, uint32_t uid,
                                  const std::string &secret)
{
    if (factor.behaviour != Scenario::Factor::AlwaysFails) {
        if (isSecret(factor, uid, secret)) {
            m_failures = 0;
            const std::string token = randomBytes(32);
            m_tokens.emplace(token, Token{caller.instance, uid});
            return {{Signal::Caller, "Authenticated", tuple(byteArray(token))}};
        }
        ++m_failures;
    }
    Signals signals = {{Signal::Caller, "AuthenticationFailed", nothing()}};
    if (m_scenario.lockoutFailures > 0 && m_failures >= m_scenario.lockoutFailures)
        setLockState(CodeEntryLockout, signals);
    return signals;
}

Signals World::finishChangeAuthData(const Scenario::Factor &factor, uint32_t uid, const std::string &oldSecret,
                                    const std::string &newSecret)
{
    if (factor.behaviour == Scenario::Factor::AlwaysFails || newSecret.empty() || !isSecret(factor, uid, oldSecret))
        return {{Signal::Caller, "ChangeAuthDataFailed", nothing()}};
    m_users.at(uid).secrets[factor.secretOf] = newSecret;
    return {{Signal::Caller, "AuthDataChanged", nothing()}};
}

bool World::isChallengeGood(const Caller &caller, GVariant *params) const
{
    g_autoptr(GVariant) challenge = g_variant_lookup_value(params, "challenge", G_VARIANT_TYPE_BYTESTRING);
    const auto expected = m_challenges.find(caller.peer);
    return challenge && expected != m_challenges.end() && bytesOf(challenge) == expected->second;
}

/** Whether there are such a factor and the user that @p params name, whose id is given in @p uid. */
bool World::findSubject(const char *factor, GVariant *params, uint32_t &uid) const
{
    uid = m_scenario.defaultUser;
    g_autoptr(GVariant) given = g_variant_lookup_value(params, "uid", nullptr);
    if (given) {
        const std::optional<uint32_t> number = userIdOf(given);
        if (!number)
            return false;
        uid = *number;
    }
    return m_scenario.factors.count(factor) && m_scenario.users.count(uid);
}

bool World::isSecret(const Scenario::Factor &factor, uint32_t uid, const std::string &secret) const
{
    const auto &secrets = m_users.at(uid).secrets;
    const auto present = secrets.find(factor.secretOf);
    return present != secrets.end() && present->second == secret;
}

void World::setLockState(int state, Signals &signals)
{
    if (state == m_lockState)
        return;
    if (m_lockoutTimer) {
        g_source_remove(m_lockoutTimer);
        m_lockoutTimer = 0;
    }
    m_lockState = state;
    if (state == Locked)
        m_tokens.clear();
    if (state == CodeEntryLockout) {
        m_failures = 0;
        m_lockoutTimer = after(static_cast<unsigned>(m_scenario.lockoutSeconds * 1000), [this] {
            m_lockoutTimer = 0;
            announceLockState(Locked);
        });
    }
    signals.push_back({Signal::Everybody, "StateChanged", tuple(g_variant_new_int32(state))});
}

Variant World::optionValue(const OptionOwner &owner, const std::string &name) const
{
    Variant value = m_options.value(owner, name);
    if (!value)
        throw Refusal("vantora.AuthService.Error.UnknownOption", "There is no option " + name);
    return value;
}

/** Gives the signals that tell of the change. */
Signals World::changeOption(const Caller &caller, const std::string &token, const OptionOwner &owner,
                            const std::string &name, const Variant &value)
{
    const Variant old = optionValue(owner, name);
    wantToken(caller, token, *owner.uid);
    if (!g_variant_is_of_type(value.get(), g_variant_get_type(old.get())))
        throw Refusal(invalidArguments, "The option " + name + " is of type " + g_variant_get_type_string(old.get()));
    const std::string problem = problemOfOption(value.get());
    if (!problem.empty())
        throw Refusal(invalidArguments, problem);
    m_options.set(owner, name, value);
    Signals signals;
    announce(owner, name, value, signals);
    return signals;
}

void World::wantUser(uint32_t uid) const
{
    if (!m_scenario.users.count(uid))
        throw Refusal("vantora.AuthService.Error.UnknownUser", "There is no user " + std::to_string(uid));
}

void World::wantToken(const Caller &caller, const std::string &token, uint32_t uid) const
{
    const auto found = m_tokens.find(token);
    if (found == m_tokens.end() || found->second.instance != caller.instance || found->second.uid != uid)
        throw Refusal(accessDenied, "There is no good token of user " + std::to_string(uid));
}
