#pragma once

#include "option-store.h"
#include "scenario.h"
#include "util.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

/** A signal of the daemon's and whom it goes to: the client that caused it, or every client on the signal's bus. */
struct Signal
{
    enum Audience {
        Caller,
        Everybody,
    };
    Audience audience;
    std::string name;
    Variant arguments;
};
using Signals = std::vector<Signal>;

/** What comes of a call: a reply or an error, and signals after it. */
struct Outcome
{
    Variant reply;
    std::string errorName; ///< empty for a reply
    std::string errorMessage;
    Signals signals;
    unsigned delay;                 ///< in milliseconds, until later is called
    std::function<Signals()> later; ///< gives the signals that follow after the delay; may be empty
};

/**
 * The device and its users as the daemon knows them, and the daemon's rules: what a call does and what is answered.
 *
 * It outlives the daemon's instances. Tokens and challenges are an instance's and are forgotten with it.
 */
class World
{
public:
    struct Caller
    {
        int instance;
        int peer; ///< 0 on the system bus
    };

    /** @p announce is called with the signals that no call has caused. */
    World(const Scenario &scenario, std::function<void(const Signals &)> announce);
    ~World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    /** Carries out a method of the daemon's interfaces, whose arguments have the right types. */
    Outcome call(const Caller &caller, const std::string &method, GVariant *arguments);

    int lockState() const
    {
        return m_lockState;
    }
    /** Changes the state and announces it, also when it was the same before. */
    void announceLockState(int state);
    /** The same, and nobody is told. */
    void changeLockState(int state);
    int tokenCount(int instance) const;
    void forgetInstance(int instance);
    void forgetPeer(int peer);
    /** All secrets are what they were at the start, and no wrong one has been counted. */
    void resetSecrets();

    OptionStore &options()
    {
        return m_options;
    }
    /** Tells everybody what the option's value is. */
    void announceOption(const OptionOwner &owner, const std::string &name);

private:
    struct Token
    {
        int instance;
        uint32_t uid;
    };
    struct FactorCall
    {
        Caller caller;
        std::string token;
        std::string factor;
        GVariant *params;
    };

    Outcome requestChallenge(const Caller &caller, GVariant *arguments);
    Outcome authenticate(const Caller &caller, GVariant *arguments);
    Outcome changeAuthData(const Caller &caller, GVariant *arguments);
    Outcome unlockIfNeeded(const Caller &caller, GVariant *arguments);
    Outcome setDevlockState(const Caller &caller, GVariant *arguments);
    Outcome factorMethod(const Caller &caller, GVariant *arguments);
    Outcome getFactorOption(const FactorCall &call);
    Outcome setFactorOption(const FactorCall &call);
    Outcome doAction(const FactorCall &call);
    Outcome echo(const FactorCall &call);
    Outcome notify(const FactorCall &call);
    Outcome getOption(const Caller &caller, GVariant *arguments);
    Outcome getUserOption(const Caller &caller, GVariant *arguments);
    Outcome getUserOptions(const Caller &caller, GVariant *arguments);
    Outcome setUserOption(const Caller &caller, GVariant *arguments);
    Outcome getState(const Caller &caller, GVariant *arguments);
    Outcome setState(const Caller &caller, GVariant *arguments);

    Signals finishAuthenticate(const Caller &caller, const Scenario::Factor &factor, uint32_t uid,
                               const std::string &secret);
    Signals finishChangeAuthData(const Scenario::Factor &factor, uint32_t uid, const std::string &oldSecret,
                                 const std::string &newSecret);
    bool isChallengeGood(const Caller &caller, GVariant *params) const;
    bool findSubject(const char *factor, GVariant *params, uint32_t &uid) const;
    bool isSecret(const Scenario::Factor &factor, uint32_t uid, const std::string &secret) const;
    void setLockState(int state, Signals &signals);

    /** The following throw what the call is refused with. */
    Variant optionValue(const OptionOwner &owner, const std::string &name) const;
    Signals changeOption(const Caller &caller, const std::string &token, const OptionOwner &owner,
                         const std::string &name, const Variant &value);
    void wantUser(uint32_t uid) const;
    void wantToken(const Caller &caller, const std::string &token, uint32_t uid) const;

    const Scenario m_scenario;
    std::map<uint32_t, Scenario::User> m_users; ///< their secrets change
    std::function<void(const Signals &)> m_announce;
    int m_lockState;
    int64_t m_failures = 0;
    guint m_lockoutTimer = 0;
    std::map<int, std::string> m_challenges; ///< by peer
    std::map<std::string, Token> m_tokens;
    OptionStore m_options;
};
