#include "option.h"

#include <stdexcept>

namespace {

/** Of the 64 levels that a message may have, the signals that tell of a changed option need up to three. */
constexpr int deepestOption = 60;

Variant readTypedOption(const Json &node, const std::string &path)
{
    JsonMembers members(node, path);
    const std::string type = members.required("type", members.text("type"));
    const std::string text = members.required("value", members.text("value"));
    members.done();
    if (!isSendableType(type))
        failJson(members.pathOf("type"), "expected one D-Bus type (no descriptors), such as \"u\" or \"a{sv}\"");
    Variant value;
    try {
        value = parseValue(type, text);
    } catch (const std::invalid_argument &error) {
        failJson(members.pathOf("value"), error.what());
    }
    const std::string problem = problemOfOption(value.get());
    if (!problem.empty())
        failJson(members.pathOf("value"), problem);
    return value;
}

} // namespace

std::string problemOfOption(GVariant *value)
{
    if (isSendable(value, deepestOption))
        return {};
    return "expected a value that D-Bus can carry, of no more than " + std::to_string(deepestOption) + " levels";
}

Variant readOption(const Json &node, const std::string &path)
{
    if (JSON_NODE_HOLDS_OBJECT(node.get()))
        return readTypedOption(node, path);
    const GType type = json_node_get_value_type(node.get());
    if (type == G_TYPE_BOOLEAN)
        return hold(g_variant_new_boolean(json_node_get_boolean(node.get())));
    if (type == G_TYPE_STRING)
        return hold(g_variant_new_string(json_node_get_string(node.get())));
    if (!JSON_NODE_HOLDS_ARRAY(node.get()))
        failJson(path, "expected true, false, a text, a list of texts, or an object with \"type\" and \"value\"");
    return listOption(readTexts(node, path));
}

Options readOptions(const Json &node, const std::string &path)
{
    JsonMembers members(node, path);
    Options options;
    for (const std::string &key : members.names()) {
        if (key.empty())
            failJson(path, "expected keys that are not empty");
        options[key] = readOption(members.node(key.c_str()), members.pathOf(key));
    }
    return options;
}

Variant listOption(const std::vector<std::string> &texts)
{
    std::vector<const char *> strings;
    strings.reserve(texts.size());
    for (const std::string &text : texts)
        strings.push_back(text.c_str());
    return hold(g_variant_new_strv(strings.data(), static_cast<gssize>(strings.size())));
}
