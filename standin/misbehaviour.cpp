#include "misbehaviour.h"

#include "objects.h"

#include <algorithm>

void MisbehaviourRules::add(JsonMembers &members)
{
    // In the order of the enumerators.
    static const std::vector<std::string> hows = {"mute",  "hold",       "delay",        "error",
                                                  "reply", "lose-reply", "lose-signals", "signal-first",
                                                  "drop",  "crash",      "restart"};
    Rule rule = {};
    rule.method = members.required("method", members.text("method"));
    if (rule.method != "*" && rule.method != "Introspect" && !objectWithMethod(rule.method))
        failJson(members.pathOf("method"), "expected the name of one of the daemon's methods, \"Introspect\" or \"*\"");
    rule.times = members.integer("times", 1, INT64_MAX);

    Misbehaviour &misbehaviour = rule.misbehaviour;
    misbehaviour.how = static_cast<Misbehaviour::How>(members.required("how", members.choice("how", hows)));
    switch (misbehaviour.how) {
    case Misbehaviour::Delay:
        misbehaviour.milliseconds = static_cast<unsigned>(members.required("ms", members.integer("ms", 0, INT32_MAX)));
        break;
    case Misbehaviour::Error:
        misbehaviour.errorName = members.text("name").value_or("vantora.AuthService.Error.Failed");
        misbehaviour.errorMessage = members.text("message").value_or("The call has failed");
        if (!g_dbus_is_interface_name(misbehaviour.errorName.c_str()))
            failJson(members.pathOf("name"), "expected a D-Bus error name");
        break;
    case Misbehaviour::Reply:
        try {
            misbehaviour.value = parseTuple(members.required("value", members.text("value")));
        } catch (const std::invalid_argument &error) {
            failJson(members.pathOf("value"), error.what());
        }
        break;
    default:
        break;
    }
    members.done();
    m_newestFirst.push_front(std::move(rule));
}

void MisbehaviourRules::clear()
{
    m_newestFirst.clear();
}

std::optional<Misbehaviour> MisbehaviourRules::take(const std::string &method)
{
    const auto rule = std::find_if(m_newestFirst.begin(), m_newestFirst.end(), [&](const Rule &candidate) {
        return candidate.method == method || (candidate.method == "*" && method != "Introspect");
    });
    if (rule == m_newestFirst.end())
        return std::nullopt;
    Misbehaviour misbehaviour = rule->misbehaviour;
    if (rule->times && --*rule->times == 0)
        m_newestFirst.erase(rule);
    return misbehaviour;
}
