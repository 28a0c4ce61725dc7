#pragma once

#include <functional>
#include <gio/gio.h>
#include <memory>
#include <string>

using Message = std::shared_ptr<GDBusMessage>;
using Variant = std::shared_ptr<GVariant>;

/** Takes over a message that the caller owns. */
Message adopt(GDBusMessage *message);

/** Takes over a new value, or shares one that somebody else holds. */
Variant hold(GVariant *value);

/** Whether @p type is one type that D-Bus has and whose values can be sent: no descriptors. */
bool isSendableType(const std::string &type);

/** The same for a value with all that its variants hold, which has at most @p deepest levels. */
bool isSendable(GVariant *value, int deepest);

/** Reads a value of @p type in GVariant text format. Throws std::invalid_argument. */
Variant parseValue(const std::string &type, const std::string &text);

/** Reads a tuple in GVariant text format, of types that D-Bus has. Throws std::invalid_argument. */
Variant parseTuple(const std::string &text);

/** A tuple of one value. */
Variant tuple(GVariant *value);

std::string printed(GVariant *value);

/** @p size bytes from the kernel. */
std::string randomBytes(size_t size);

/** A byte array value. */
GVariant *byteArray(const std::string &bytes);

/** Calls @p function once from the main loop, and returns the id of the source that does it. */
guint after(unsigned milliseconds, std::function<void()> function);
