#pragma once

#include "misbehaviour.h"
#include "option.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/** The world that a daemon finds when it starts. */
struct Scenario
{
    struct User
    {
        std::map<std::string, std::string> secrets; ///< by factor
        Options options;
    };
    struct Factor
    {
        enum Behaviour {
            Regular,
            AlwaysFails,
            Slow,
        };
        Behaviour behaviour;
        unsigned delay;                                   ///< in milliseconds
        std::string secretOf;                             ///< the factor whose secrets it shares; itself as a rule
        size_t place;                                     ///< in the file's list
        std::optional<std::vector<std::string>> services; ///< all when absent
        Options options;                                  ///< of every user at the start
    };

    int lockState;
    uint32_t defaultUser;
    bool unlockIfNeeded;
    int64_t lockoutFailures; ///< 0: never
    double lockoutSeconds;
    std::vector<std::string> services;
    Options options;
    std::map<uint32_t, User> users;
    std::map<std::string, Factor> factors;
    MisbehaviourRules misbehave;

    static Scenario builtIn();
    /** Throws JsonError, whose message begins with the file's name. */
    static Scenario fromFile(const std::string &fileName);
};
