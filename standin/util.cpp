#include "util.h"

#include <cstring>
#include <stdexcept>
#include <sys/random.h>

namespace {

/** Whether D-Bus has the type: no maybe, no empty structure, no entry outside a map, and no descriptor to send. */
bool isCarried(const GVariantType *type)
{
    if (g_variant_type_is_maybe(type) || g_variant_type_equal(type, G_VARIANT_TYPE_HANDLE)
        || g_variant_type_is_dict_entry(type) || g_variant_type_equal(type, G_VARIANT_TYPE_UNIT))
        return false;
    if (g_variant_type_is_array(type)) {
        const GVariantType *element = g_variant_type_element(type);
        return g_variant_type_is_dict_entry(element) ? isCarried(g_variant_type_value(element)) : isCarried(element);
    }
    if (!g_variant_type_is_tuple(type))
        return true;
    for (const GVariantType *item = g_variant_type_first(type); item; item = g_variant_type_next(item)) {
        if (!isCarried(item))
            return false;
    }
    return true;
}

/** The same for what is in the variants of @p value. */
bool areVariantsCarried(GVariant *value)
{
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT)) {
        g_autoptr(GVariant) content = g_variant_get_variant(value);
        return isCarried(g_variant_get_type(content)) && areVariantsCarried(content);
    }
    if (!std::strchr(g_variant_get_type_string(value), 'v'))
        return true;
    for (gsize i = 0; g_variant_is_container(value) && i < g_variant_n_children(value); ++i) {
        g_autoptr(GVariant) child = g_variant_get_child_value(value, i);
        if (!areVariantsCarried(child))
            return false;
    }
    return true;
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

Variant parseTuple(const std::string &text)
{
    g_autoptr(GError) error = nullptr;
    GVariant *value = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, &error);
    if (!value)
        throw std::invalid_argument("expected a tuple in GVariant text format (" + std::string(error->message) + ")");
    // The parser gives a full reference, unlike the constructors.
    Variant result(value, g_variant_unref);
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_TUPLE))
        throw std::invalid_argument("expected a tuple in GVariant text format, such as \"(true,)\"");
    const bool isEmpty = g_variant_n_children(value) == 0;
    if (!(isEmpty || isCarried(g_variant_get_type(value))) || !areVariantsCarried(value))
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
