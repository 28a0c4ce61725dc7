#pragma once

#include <cstdint>
#include <json-glib/json-glib.h>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

using Json = std::shared_ptr<JsonNode>;

/** What is wrong with a JSON text, in words for its author. */
class JsonError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** Throws JsonError, with line and column. */
Json parseJson(const std::string &text);

/** One line. */
std::string printedJson(JsonObject *object);

/** Throws a JsonError about the value at @p path, which may be empty for the whole text. */
[[noreturn]] void failJson(const std::string &path, const std::string &message);

std::string elementPath(const std::string &list, size_t index);

/** A list of texts at @p path. Throws JsonError. */
std::vector<std::string> readTexts(const Json &node, const std::string &path);

/**
 * Reads the members of a JSON object, each by name and type. An absent member gives no value, a member of another type
 * throws JsonError. done() throws for members that nobody asked for.
 */
class JsonMembers
{
public:
    explicit JsonMembers(const Json &node, const std::string &path = {});

    std::optional<int64_t> integer(const char *name, int64_t least, int64_t most);
    std::optional<double> number(const char *name);
    std::optional<bool> boolean(const char *name);
    std::optional<std::string> text(const char *name);
    /** A text that is one of @p choices; gives its index. */
    std::optional<size_t> choice(const char *name, const std::vector<std::string> &choices);
    std::optional<std::vector<Json>> array(const char *name);
    Json node(const char *name);
    std::vector<std::string> names() const;

    std::string pathOf(const std::string &name) const;
    void done() const;

    template <typename T> T required(const char *name, std::optional<T> value) const
    {
        if (!value)
            failJson(pathOf(name), "missing");
        return *std::move(value);
    }

private:
    Json m_node;
    std::string m_path;
    std::set<std::string> m_asked;
};
