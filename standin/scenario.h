#pragma once

#include "misbehaviour.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>

/** The world that a daemon finds when it starts. */
struct Scenario
{
    struct User
    {
        std::map<std::string, std::string> secrets; ///< by factor
    };
    struct Factor
    {
        enum Behaviour {
            Regular,
            AlwaysFails,
            Slow,
        };
        Behaviour behaviour;
        unsigned delay;       ///< in milliseconds
        std::string secretOf; ///< the factor whose secrets it shares; itself as a rule
    };

    int lockState;
    uint32_t defaultUser;
    bool unlockIfNeeded;
    int64_t lockoutFailures; ///< 0: never
    double lockoutSeconds;
    std::set<std::string> services;
    std::map<uint32_t, User> users;
    std::map<std::string, Factor> factors;
    MisbehaviourRules misbehave;

    static Scenario builtIn();
    /** Throws JsonError, whose message begins with the file's name. */
    static Scenario fromFile(const std::string &fileName);
};
