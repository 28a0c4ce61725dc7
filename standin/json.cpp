#include "json.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string_view>

namespace {

constexpr int deepestNesting = 100;
constexpr std::string_view zeroCharacter = "\\u0000";

[[noreturn]] void failAt(const std::string &text, size_t offset, const std::string &message)
{
    const size_t lineStart = offset == 0 ? 0 : text.rfind('\n', offset - 1) + 1;
    const auto line = std::count(text.begin(), text.begin() + static_cast<ptrdiff_t>(offset), '\n') + 1;
    throw JsonError(std::to_string(line) + ":" + std::to_string(offset - lineStart + 1) + ": " + message);
}

/** Refuses what the parser takes though it is not one JSON object, and what its recursion does not survive. */
void checkForm(const std::string &text)
{
    int depth = 0;
    bool begun = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c != '\0' && std::strchr(" \t\r\n", c))
            continue;
        if (depth == 0 && (begun || c != '{'))
            failAt(text, i, begun ? "expected nothing after the JSON object" : "expected a JSON object");
        begun = true;
        if (c == '"') {
            for (++i; i < text.size() && text[i] != '"'; ++i) {
                // Texts would end there without a word.
                if (text.compare(i, zeroCharacter.size(), zeroCharacter) == 0)
                    failAt(text, i, "expected no zero characters");
                i += text[i] == '\\' ? 1 : 0;
            }
        } else if (c == '{' || c == '[') {
            if (++depth > deepestNesting)
                failAt(text, i, "expected no more than " + std::to_string(deepestNesting) + " levels");
        } else if (c == '}' || c == ']') {
            --depth;
        } else if (!g_ascii_isalnum(c) && (c == '\0' || !std::strchr(":,+-.", c))) {
            failAt(text, i, "unexpected character");
        }
    }
    if (!begun)
        failAt(text, 0, "expected a JSON object");
}

struct MemberWatch
{
    std::map<JsonObject *, std::set<std::string>> seen;
    std::string problem;

    static void onMember(JsonParser *parser, JsonObject *object, const char *name, gpointer self)
    {
        auto *watch = static_cast<MemberWatch *>(self);
        if (!watch->seen[object].insert(name).second && watch->problem.empty())
            watch->problem = std::to_string(json_parser_get_current_line(parser)) + ":"
                + std::to_string(json_parser_get_current_pos(parser)) + ": there is another member \"" + name + "\"";
    }
};

std::vector<Json> elementsOf(const Json &node, const std::string &path)
{
    if (!JSON_NODE_HOLDS_ARRAY(node.get()))
        failJson(path, "expected a list");
    JsonArray *array = json_node_get_array(node.get());
    std::vector<Json> elements;
    for (guint i = 0; i < json_array_get_length(array); ++i)
        elements.emplace_back(json_node_ref(json_array_get_element(array, i)), json_node_unref);
    return elements;
}

} // namespace

Json parseJson(const std::string &text)
{
    const gchar *end = nullptr;
    if (!g_utf8_validate(text.c_str(), static_cast<gssize>(text.size()), &end))
        failAt(text, static_cast<size_t>(end - text.c_str()), "expected UTF-8");
    checkForm(text);
    g_autoptr(JsonParser) parser = json_parser_new_immutable();
    MemberWatch watch;
    g_signal_connect(parser, "object-member", G_CALLBACK(MemberWatch::onMember), &watch);
    g_autoptr(GError) error = nullptr;
    if (!json_parser_load_from_data(parser, text.c_str(), static_cast<gssize>(text.size()), &error)) {
        // The message begins with line and column, after a file name that is none.
        // It quotes what it cannot read.
        g_autofree char *readable = g_utf8_make_valid(error->message, -1);
        const std::string message = readable;
        const std::string noName = "<data>:";
        throw JsonError(message.compare(0, noName.size(), noName) == 0 ? message.substr(noName.size()) : message);
    }
    if (!watch.problem.empty())
        throw JsonError(watch.problem);
    JsonNode *root = json_parser_get_root(parser);
    return Json(json_node_ref(root), json_node_unref);
}

std::string printedJson(JsonObject *object)
{
    g_autoptr(JsonNode) node = json_node_init_object(json_node_alloc(), object);
    g_autofree char *text = json_to_string(node, FALSE);
    return text;
}

void failJson(const std::string &path, const std::string &message)
{
    throw JsonError(path.empty() ? message : path + ": " + message);
}

std::string elementPath(const std::string &list, size_t index)
{
    return list + "[" + std::to_string(index) + "]";
}

std::vector<std::string> readTexts(const Json &node, const std::string &path)
{
    const std::vector<Json> list = elementsOf(node, path);
    std::vector<std::string> texts;
    for (size_t i = 0; i < list.size(); ++i) {
        if (json_node_get_value_type(list[i].get()) != G_TYPE_STRING)
            failJson(elementPath(path, i), "expected a text");
        texts.emplace_back(json_node_get_string(list[i].get()));
    }
    return texts;
}

JsonMembers::JsonMembers(const Json &node, const std::string &path)
    : m_node(node)
    , m_path(path)
{
    if (!JSON_NODE_HOLDS_OBJECT(node.get()))
        failJson(path, "expected a JSON object");
}

std::optional<int64_t> JsonMembers::integer(const char *name, int64_t least, int64_t most)
{
    const Json value = node(name);
    if (!value)
        return std::nullopt;
    if (json_node_get_value_type(value.get()) == G_TYPE_INT64) {
        const int64_t number = json_node_get_int(value.get());
        if (number >= least && number <= most)
            return number;
    }
    failJson(pathOf(name), "expected a whole number from " + std::to_string(least) + " to " + std::to_string(most));
}

std::optional<double> JsonMembers::number(const char *name)
{
    const Json value = node(name);
    if (!value)
        return std::nullopt;
    const GType type = json_node_get_value_type(value.get());
    if (type == G_TYPE_INT64 || type == G_TYPE_DOUBLE) {
        const double number = json_node_get_double(value.get());
        if (number >= 0 && number <= 1e6)
            return number;
    }
    failJson(pathOf(name), "expected a number from 0 to 1000000");
}

std::optional<bool> JsonMembers::boolean(const char *name)
{
    const Json value = node(name);
    if (!value)
        return std::nullopt;
    if (json_node_get_value_type(value.get()) != G_TYPE_BOOLEAN)
        failJson(pathOf(name), "expected true or false");
    return json_node_get_boolean(value.get());
}

std::optional<std::string> JsonMembers::text(const char *name)
{
    const Json value = node(name);
    if (!value)
        return std::nullopt;
    if (json_node_get_value_type(value.get()) != G_TYPE_STRING)
        failJson(pathOf(name), "expected a text");
    return json_node_get_string(value.get());
}

std::optional<size_t> JsonMembers::choice(const char *name, const std::vector<std::string> &choices)
{
    const std::optional<std::string> value = text(name);
    if (!value)
        return std::nullopt;
    const auto found = std::find(choices.begin(), choices.end(), *value);
    if (found != choices.end())
        return static_cast<size_t>(found - choices.begin());
    std::string message = "expected one of";
    for (const std::string &choice : choices)
        message += (choice == choices.front() ? " \"" : ", \"") + choice + "\"";
    failJson(pathOf(name), message);
}

std::optional<std::vector<Json>> JsonMembers::array(const char *name)
{
    const Json value = node(name);
    if (!value)
        return std::nullopt;
    return elementsOf(value, pathOf(name));
}

Json JsonMembers::node(const char *name)
{
    m_asked.insert(name);
    JsonNode *member = json_object_get_member(json_node_get_object(m_node.get()), name);
    return member ? Json(json_node_ref(member), json_node_unref) : nullptr;
}

std::vector<std::string> JsonMembers::names() const
{
    g_autoptr(GList) members = json_object_get_members(json_node_get_object(m_node.get()));
    std::vector<std::string> names;
    for (const GList *member = members; member; member = member->next)
        names.emplace_back(static_cast<const char *>(member->data));
    return names;
}

std::string JsonMembers::pathOf(const std::string &name) const
{
    return m_path.empty() ? name : m_path + "." + name;
}

void JsonMembers::done() const
{
    for (const std::string &name : names()) {
        if (!m_asked.count(name))
            failJson(pathOf(name), "unknown member");
    }
}
