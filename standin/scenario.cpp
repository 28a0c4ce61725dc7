#include "scenario.h"

#include "embedded.h"

#include <algorithm>
#include <iterator>

namespace {

std::map<std::string, Scenario::Factor> readFactors(const std::vector<Json> &list)
{
    static const std::vector<std::string> behaviours = {"regular", "always-fails", "slow"};
    std::map<std::string, Scenario::Factor> factors;
    for (size_t i = 0; i < list.size(); ++i) {
        JsonMembers members(list[i], elementPath("factors", i));
        const std::string name = members.required("name", members.text("name"));
        Scenario::Factor factor = {};
        factor.behaviour =
            static_cast<Scenario::Factor::Behaviour>(members.choice("behaviour", behaviours).value_or(0));
        if (factor.behaviour == Scenario::Factor::Slow)
            factor.delay = static_cast<unsigned>(members.required("delay", members.integer("delay", 0, INT32_MAX)));
        factor.secretOf = members.text("same-secret-as").value_or(name);
        factor.place = i;
        if (const Json node = members.node("services"))
            factor.services = readTexts(node, members.pathOf("services"));
        if (const Json node = members.node("options"))
            factor.options = readOptions(node, members.pathOf("options"));
        members.done();
        if (name == workerFactor)
            failJson(members.pathOf("name"), "the daemon's own settings have the name \"" + name + "\"");
        if (!factors.emplace(name, factor).second)
            failJson(members.pathOf("name"), "there is another factor \"" + name + "\"");
    }
    for (size_t i = 0; i < list.size(); ++i) {
        JsonMembers members(list[i], elementPath("factors", i));
        const auto other = members.text("same-secret-as");
        if (other && (!factors.count(*other) || factors[*other].secretOf != *other))
            failJson(members.pathOf("same-secret-as"), "expected the name of a factor with secrets of its own");
    }
    return factors;
}

std::map<uint32_t, Scenario::User> readUsers(const std::vector<Json> &list,
                                             const std::map<std::string, Scenario::Factor> &factors)
{
    std::map<uint32_t, Scenario::User> users;
    for (size_t i = 0; i < list.size(); ++i) {
        JsonMembers members(list[i], elementPath("users", i));
        const auto uid = static_cast<uint32_t>(members.required("uid", members.integer("uid", 0, UINT32_MAX)));
        members.text("name");
        Scenario::User user;
        if (const Json node = members.node("secrets")) {
            JsonMembers secrets(node, members.pathOf("secrets"));
            for (const std::string &factor : secrets.names()) {
                if (!factors.count(factor))
                    failJson(secrets.pathOf(factor), "there is no such factor");
                user.secrets[factor] = *secrets.text(factor.c_str());
            }
        }
        if (const Json node = members.node("options"))
            user.options = readOptions(node, members.pathOf("options"));
        members.done();
        if (!users.emplace(uid, user).second)
            failJson(members.pathOf("uid"), "there is another user " + std::to_string(uid));
    }
    return users;
}

/** What @p text leaves out stays as it is in @p scenario. */
void readScenario(const std::string &text, Scenario &scenario)
{
    static const std::vector<std::string> lockStates = {"Unlocked",         "Locked",    "ManagerLockout",
                                                        "CodeEntryLockout", "Undefined", "SecurityUi"};
    JsonMembers members(parseJson(text));
    if (const auto state = members.choice("lock-state", lockStates))
        scenario.lockState = static_cast<int>(*state);
    scenario.unlockIfNeeded = members.boolean("unlock-if-needed").value_or(scenario.unlockIfNeeded);
    if (const Json node = members.node("lockout")) {
        JsonMembers lockout(node, members.pathOf("lockout"));
        scenario.lockoutFailures = lockout.integer("failures", 0, INT32_MAX).value_or(scenario.lockoutFailures);
        scenario.lockoutSeconds = lockout.number("seconds").value_or(scenario.lockoutSeconds);
        lockout.done();
    }
    if (const Json node = members.node("services"))
        scenario.services = readTexts(node, members.pathOf("services"));
    if (const Json node = members.node("options"))
        scenario.options = readOptions(node, members.pathOf("options"));
    if (const auto factors = members.array("factors"))
        scenario.factors = readFactors(*factors);
    if (const auto users = members.array("users")) {
        scenario.users = readUsers(*users, scenario.factors);
        if (!scenario.users.empty())
            scenario.defaultUser = scenario.users.begin()->first;
    }
    if (const auto user = members.integer("default-user", 0, UINT32_MAX)) {
        scenario.defaultUser = static_cast<uint32_t>(*user);
        if (!scenario.users.count(scenario.defaultUser))
            failJson(members.pathOf("default-user"), "expected the uid of one of the users");
    }
    const auto rules = members.array("misbehave").value_or(std::vector<Json>());
    for (size_t i = 0; i < rules.size(); ++i) {
        JsonMembers rule(rules[i], elementPath("misbehave", i));
        scenario.misbehave.add(rule);
    }
    members.done();
}

/** The built-in scenario with nothing but what is written there. */
Scenario writtenBuiltIn()
{
    Scenario scenario = {};
    readScenario(Embedded::scenario, scenario);
    return scenario;
}

Variant flag(bool value)
{
    return hold(g_variant_new_boolean(value));
}

/** Adds the options that a daemon always has and that are left out. */
void complete(Scenario &scenario)
{
    std::vector<std::string> names(scenario.factors.size());
    for (const auto &[name, factor] : scenario.factors)
        names[factor.place] = name;

    scenario.options.emplace("worker/can-switch-to-user", flag(true));
    scenario.options.emplace("worker/available-services", listOption(scenario.services));
    for (const std::string &service : scenario.services) {
        std::vector<std::string> available;
        std::copy_if(names.begin(), names.end(), std::back_inserter(available), [&](const std::string &name) {
            const auto &services = scenario.factors.at(name).services;
            return !services || std::find(services->begin(), services->end(), service) != services->end();
        });
        scenario.options.emplace("worker/available-service-factors/" + service, listOption(available));
    }

    for (auto &[uid, user] : scenario.users) {
        for (const std::string &service : scenario.services)
            user.options.emplace("worker/service-factors/" + service, listOption({}));
        user.options.emplace("worker/disabled-factors", listOption({}));
        user.options.emplace("worker/is-multi-factorable", flag(false));
        user.options.emplace("worker/is-user-settable", flag(true));
        user.options.emplace("worker/last-login-date", hold(g_variant_new_string("")));
        user.options.emplace("worker/show-last-login", flag(false));
        user.options.emplace("devlock/show-notifications", flag(false));
    }
}

} // namespace

Scenario Scenario::builtIn()
{
    Scenario scenario = writtenBuiltIn();
    complete(scenario);
    return scenario;
}

Scenario Scenario::fromFile(const std::string &fileName)
{
    g_autofree char *text = nullptr;
    gsize size = 0;
    g_autoptr(GError) error = nullptr;
    if (!g_file_get_contents(fileName.c_str(), &text, &size, &error))
        throw JsonError(fileName + ": " + error->message);
    Scenario scenario = writtenBuiltIn();
    try {
        readScenario(std::string(text, size), scenario);
    } catch (const JsonError &jsonError) {
        const std::string message = jsonError.what();
        // A position in the text is set off as compilers do it, a member's path as a sentence.
        throw JsonError(fileName + (g_ascii_isdigit(message.front()) ? ":" : ": ") + message);
    }
    complete(scenario);
    return scenario;
}
