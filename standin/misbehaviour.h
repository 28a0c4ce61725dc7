#pragma once

#include "json.h"
#include "util.h"

#include <list>
#include <optional>
#include <string>

/** How a call is to be met other than by the book. */
struct Misbehaviour
{
    enum How {
        Mute,
        Hold,
        Delay,
        Error,
        Reply,
        LoseReply,
        LoseSignals,
        SignalFirst,
        Drop,
        Crash,
        Restart,
    };
    How how;
    unsigned milliseconds;
    std::string errorName;
    std::string errorMessage;
    Variant value;
};

/** The rules that say which calls are met how. */
class MisbehaviourRules
{
public:
    /** Adds the rule that the members describe. Throws JsonError. */
    void add(JsonMembers &members);
    void clear();

    /** What the newest rule for @p method says, which counts as one use of it. */
    std::optional<Misbehaviour> take(const std::string &method);

private:
    struct Rule
    {
        std::string method;
        std::optional<int64_t> times;
        Misbehaviour misbehaviour;
    };
    std::list<Rule> m_newestFirst;
};
