#include "world.h"

#include <algorithm>

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

} // namespace

World::World(const Scenario &scenario, std::function<void(const Signals &)> announce)
    : m_scenario(scenario)
    , m_announce(std::move(announce))
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
        {"GetOption", &World::option},
        {"GetUserOption", &World::option},
        {"GetUserOptions", &World::option},
        {"SetUserOption", &World::option},
        {"GetState", &World::getState},
        {"SetState", &World::setState},
    };
    return (this->*handlers.at(method))(caller, arguments);
}

void World::announceLockState(int state)
{
    Signals signals;
    setLockState(state, signals);
    if (signals.empty())
        signals.push_back({Signal::Everybody, "StateChanged", tuple(g_variant_new_int32(state))});
    m_announce(signals);
}

int World::tokenCount(int instance) const
{
    return static_cast<int>(
        std::count_if(m_tokens.begin(), m_tokens.end(), [=](const auto &token) { return token.second == instance; }));
}

void World::forgetInstance(int instance)
{
    for (auto token = m_tokens.begin(); token != m_tokens.end();)
        token = token->second == instance ? m_tokens.erase(token) : std::next(token);
}

void World::forgetPeer(int peer)
{
    m_challenges.erase(peer);
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
    if (!m_scenario.services.count(service) || !findSubject(factorName, params, uid) || !isChallengeGood(caller, params)
        || m_lockState == ManagerLockout || m_lockState == CodeEntryLockout)
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
    if (found == m_tokens.end() || found->second != caller.instance || !isLockState(state))
        return replying(false);
    Signals signals;
    setLockState(state, signals);
    return replying(true, signals);
}

Outcome World::factorMethod(const Caller &, GVariant *arguments)
{
    const char *factor = nullptr;
    g_autoptr(GVariant) params = nullptr;
    g_variant_get(arguments, "(@ay&s@a{sv})", nullptr, &factor, &params);
    if (!m_scenario.factors.count(factor))
        return refusing("vantora.AuthService.Error.UnknownFactor", std::string("There is no factor ") + factor);

    const char *type = "";
    g_variant_lookup(params, "type", "&s", &type);
    if (g_str_equal(type, "echo")) {
        g_autoptr(GVariant) value = g_variant_lookup_value(params, "value", nullptr);
        if (!value)
            return refusing("org.freedesktop.DBus.Error.InvalidArgs", "There is no \"value\" to echo");
        return replying(tuple(g_variant_new_variant(value)));
    }
    if (g_str_equal(type, "notify")) {
        g_autoptr(GVariant) notice = g_variant_lookup_value(params, "params", G_VARIANT_TYPE_VARDICT);
        if (!notice)
            return refusing("org.freedesktop.DBus.Error.InvalidArgs", "There is no map \"params\" to notify of");
        return replying(tuple(g_variant_new_variant(g_variant_new_boolean(TRUE))),
                        {{Signal::Everybody, "Factor", hold(g_variant_new("(s@a{sv})", factor, notice))}});
    }
    return refusing("vantora.AuthService.Error.UnknownMethod", std::string("The factor has no method ") + type);
}

Outcome World::option(const Caller &, GVariant *)
{
    return refusing("vantora.AuthService.Error.UnknownOption", "There is no such option");
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
        return refusing("vantora.AuthService.Error.AccessDenied", "Nobody is authenticated");
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
            m_tokens.emplace(token, caller.instance);
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
    m_scenario.users.at(uid).secrets[factor.secretOf] = newSecret;
    return {{Signal::Caller, "AuthDataChanged", nothing()}};
}

bool World::isChallengeGood(const Caller &caller, GVariant *params) const
{
    g_autoptr(GVariant) challenge = g_variant_lookup_value(params, "challenge", G_VARIANT_TYPE_BYTESTRING);
    const auto expected = m_challenges.find(caller.peer);
    return challenge && expected != m_challenges.end() && bytesOf(challenge) == expected->second;
}

/** Whether there are such a factor and the user that @p params name. */
bool World::findSubject(const char *factor, GVariant *params, uint32_t &uid) const
{
    uid = m_scenario.defaultUser;
    g_autoptr(GVariant) given = g_variant_lookup_value(params, "uid", nullptr);
    if (given) {
        if (!g_variant_is_of_type(given, G_VARIANT_TYPE_UINT32))
            return false;
        uid = g_variant_get_uint32(given);
    }
    return m_scenario.factors.count(factor) && m_scenario.users.count(uid);
}

bool World::isSecret(const Scenario::Factor &factor, uint32_t uid, const std::string &secret) const
{
    const auto &secrets = m_scenario.users.at(uid).secrets;
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
