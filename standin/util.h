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
