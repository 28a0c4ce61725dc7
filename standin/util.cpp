#include "util.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/random.h>

namespace {

// The limits of dbus-daemon; a receiver of more closes the connection.
constexpr int deepestArrays = 32;
constexpr int deepestStructures = 32;
constexpr int deepestMessage = 64;
constexpr gsize longestSignature = 255;

/** Whether D-Bus has the type: no maybe, no empty structure, no entry outside a map, and no descriptor to send. */
bool isCarried(const GVariantType *type, int arrays = 0, int structures = 0)
{
    if (g_variant_type_is_maybe(type) || g_variant_type_equal(type, G_VARIANT_TYPE_HANDLE)
        || g_variant_type_is_dict_entry(type) || g_variant_type_equal(type, G_VARIANT_TYPE_UNIT))
        return false;
    if (g_variant_type_is_array(type)) {
        const GVariantType *element = g_variant_type_element(type);
        if (g_variant_type_is_dict_entry(element))
            element = g_variant_type_value(element);
        return arrays < deepestArrays && isCarried(element, arrays + 1, structures);
    }
    if (!g_variant_type_is_tuple(type))
        return true;
    for (const GVariantType *item = g_variant_type_first(type); item; item = g_variant_type_next(item)) {
        if (structures == deepestStructures || !isCarried(item, arrays, structures + 1))
            return false;
    }
    return true;
}

int depthOf(const GVariantType *type)
{
    if (!g_variant_type_is_container(type))
        return 0;
    if (g_variant_type_is_variant(type))
        return 1;
    if (g_variant_type_is_array(type))
        return 1 + depthOf(g_variant_type_element(type));
    const GVariantType *item = nullptr;
    if (g_variant_type_is_dict_entry(type))
        item = g_variant_type_key(type);
    else if (g_variant_type_is_tuple(type))
        item = g_variant_type_first(type);
    int deepest = 0;
    for (; item; item = g_variant_type_next(item))
        deepest = std::max(deepest, depthOf(item));
    return 1 + deepest;
}

/** Whether what is in the variants of @p value is carried, and nothing lies deeper than @p deepest levels. */
bool areVariantsCarried(GVariant *value, int deepest)
{
    if (depthOf(g_variant_get_type(value)) > deepest)
        return false;
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT)) {
        g_autoptr(GVariant) content = g_variant_get_variant(value);
        return isSendable(content, deepest - 1);
    }
    if (!std::strchr(g_variant_get_type_string(value), 'v'))
        return true;
    for (gsize i = 0; g_variant_is_container(value) && i < g_variant_n_children(value); ++i) {
        g_autoptr(GVariant) child = g_variant_get_child_value(value, i);
        if (!areVariantsCarried(child, deepest - 1))
            return false;
    }
    return true;
}

/** GVariant's own parser goes on with no value at all after an escape such as \ud800. */
bool areEscapesCharacters(const std::string &text)
{
    for (size_t i = text.find('\\'); i < text.size(); i = text.find('\\', i + 2)) {
        const char kind = i + 1 < text.size() ? text[i + 1] : '\0';
        const size_t digits = kind == 'u' ? 4 : kind == 'U' ? 8 : 0;
        if (digits == 0)
            continue;
        const auto character = std::strtoul(text.substr(i + 2, digits).c_str(), nullptr, 16);
        if (character == 0 || !g_unichar_validate(static_cast<gunichar>(character)))
            return false;
    }
    return true;
}

/** @p expected says in words what is wanted, @p type is what it has to be if anything. Throws std::invalid_argument. */
Variant parse(const GVariantType *type, const std::string &text, const std::string &expected)
{
    if (!areEscapesCharacters(text))
        throw std::invalid_argument("expected escapes to give characters");
    g_autoptr(GError) error = nullptr;
    GVariant *value = g_variant_parse(type, text.c_str(), nullptr, nullptr, &error);
    if (!value)
        throw std::invalid_argument("expected " + expected + " in GVariant text format (" + error->message + ")");
    // `g_variant_parse` of GLib gives a full reference, unlike the constructors, which give a floating one.
    return Variant(value, g_variant_unref);
}

} // namespace

Message adopt(GDBusMessage *message)
{
    return Message(message, g_object_unref);
}

Variant hold(GVariant *value)
{
    return Variant(g_variant_ref_sink(value), g_variant_unref);
}

bool isSendableType(const std::string &type)
{
    if (!g_variant_type_string_is_valid(type.c_str()) || type.size() > longestSignature)
        return false;
    const auto *variantType = G_VARIANT_TYPE(type.c_str());
    return g_variant_type_is_definite(variantType) && isCarried(variantType);
}

bool isSendable(GVariant *value, int deepest)
{
    return isSendableType(g_variant_get_type_string(value)) && areVariantsCarried(value, deepest);
}

Variant parseValue(const std::string &type, const std::string &text)
{
    return parse(G_VARIANT_TYPE(type.c_str()), text, "a value of type " + type);
}

Variant parseTuple(const std::string &text)
{
    Variant result = parse(nullptr, text, "a tuple");
    GVariant *value = result.get();
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_TUPLE))
        throw std::invalid_argument("expected a tuple in GVariant text format, such as \"(true,)\"");
    gsize signature = 0;
    bool sendable = true;
    for (gsize i = 0; sendable && i < g_variant_n_children(value); ++i) {
        g_autoptr(GVariant) argument = g_variant_get_child_value(value, i);
        signature += std::strlen(g_variant_get_type_string(argument));
        sendable = signature <= longestSignature && isSendable(argument, deepestMessage);
    }
    if (!sendable)
        throw std::invalid_argument("expected a value that D-Bus can carry");
    return result;
}

Variant tuple(GVariant *value)
{
    return hold(g_variant_new_tuple(&value, 1));
}

std::string printed(GVariant *value)
{
    g_autofree char *text = g_variant_print(value, TRUE);
    return text;
}

std::string randomBytes(size_t size)
{
    std::string bytes(size, '\0');
    if (getrandom(bytes.data(), size, 0) != static_cast<ssize_t>(size))
        g_error("getrandom: %s", g_strerror(errno));
    // The text format writes an array that ends in a zero byte as a string, a rare surprise in the call log.
    if (bytes.back() == '\0')
        bytes.back() = '\1';
    return bytes;
}

GVariant *byteArray(const std::string &bytes)
{
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
}

guint after(unsigned milliseconds, std::function<void()> function)
{
    const auto call = [](gpointer data) -> gboolean {
        (*static_cast<std::function<void()> *>(data))();
        return G_SOURCE_REMOVE;
    };
    const auto destroy = [](gpointer data) { delete static_cast<std::function<void()> *>(data); };
    return g_timeout_add_full(G_PRIORITY_DEFAULT, milliseconds, call, new std::function<void()>(std::move(function)),
                              destroy);
}
