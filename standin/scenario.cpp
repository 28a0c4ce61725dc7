#include "scenario.h"

#include "embedded.h"

namespace {

std::string element(const std::string &list, size_t index)
{
    return list + "[" + std::to_string(index) + "]";
}

std::set<std::string> readServices(const std::vector<Json> &list)
{
    std::set<std::string> services;
    for (size_t i = 0; i < list.size(); ++i) {
        if (json_node_get_value_type(list[i].get()) != G_TYPE_STRING)
            failJson(element("services", i), "expected a text");
        services.insert(json_node_get_string(list[i].get()));
    }
    return services;
}

std::map<std::string, Scenario::Factor> readFactors(const std::vector<Json> &list)
{
    static const std::vector<std::string> behaviours = {"regular", "always-fails", "slow"};
    std::map<std::string, Scenario::Factor> factors;
    for (size_t i = 0; i < list.size(); ++i) {
        JsonMembers members(list[i], element("factors", i));
        const std::string name = members.required("name", members.text("name"));
        Scenario::Factor factor = {};
        factor.behaviour =
            static_cast<Scenario::Factor::Behaviour>(members.choice("behaviour", behaviours).value_or(0));
        if (factor.behaviour == Scenario::Factor::Slow)
            factor.delay = static_cast<unsigned>(members.required("delay", members.integer("delay", 0, INT32_MAX)));
        factor.secretOf = members.text("same-secret-as").value_or(name);
        members.done();
        if (!factors.emplace(name, factor).second)
            failJson(members.pathOf("name"), "there is another factor \"" + name + "\"");
    }
    for (size_t i = 0; i < list.size(); ++i) {
        JsonMembers members(list[i], element("factors", i));
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
        JsonMembers members(list[i], element("users", i));
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
    if (const auto services = members.array("services"))
        scenario.services = readServices(*services);
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
        JsonMembers rule(rules[i], element("misbehave", i));
        scenario.misbehave.add(rule);
    }
    members.done();
}

} // namespace

Scenario Scenario::builtIn()
{
    Scenario scenario = {};
    readScenario(Embedded::scenario, scenario);
    return scenario;
}

Scenario Scenario::fromFile(const std::string &fileName)
{
    g_autofree char *text = nullptr;
    gsize size = 0;
    g_autoptr(GError) error = nullptr;
    if (!g_file_get_contents(fileName.c_str(), &text, &size, &error))
        throw JsonError(fileName + ": " + error->message);
    Scenario scenario = builtIn();
    try {
        readScenario(std::string(text, size), scenario);
    } catch (const JsonError &jsonError) {
        const std::string message = jsonError.what();
        // A position in the text is set off as compilers do it, a member's path as a sentence.
        throw JsonError(fileName + (g_ascii_isdigit(message.front()) ? ":" : ": ") + message);
    }
    return scenario;
}
