// The factor method calls of calls.cpp, made on the daemon's socket by clients of other D-Bus libraries.

#include "measure.h"

#include <dbus/dbus.h>
#include <gio/gio.h>
#ifdef WITH_SD_BUS
#include <systemd/sd-bus.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char *const Address = "unix:path=/var/run/authd/authd.socket";
const char *const Path = "/vantora/AuthService";
const char *const Interface = "vantora.AuthService";
const char *const Date = "2026-11-21";
const unsigned char Token[32] = {};

void check(bool condition, const char *expectation)
{
    if (condition)
        return;
    std::fprintf(stderr, "not so: %s\n", expectation);
    std::exit(1);
}

void checkText(const char *text)
{
    check(text && std::strcmp(text, Date) == 0, "the daemon echoes");
}

namespace LibDBus {

DBusConnection *connection;

void append(DBusMessageIter *map, const char *key, int type, const char *signature, const void *value)
{
    DBusMessageIter entry;
    DBusMessageIter variant;
    dbus_message_iter_open_container(map, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key);
    dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, signature, &variant);
    dbus_message_iter_append_basic(&variant, type, value);
    dbus_message_iter_close_container(&entry, &variant);
    dbus_message_iter_close_container(map, &entry);
}

DBusMessage *request()
{
    DBusMessage *message = dbus_message_new_method_call(nullptr, Path, Interface, "FactorMethod");
    DBusMessageIter iter;
    DBusMessageIter map;
    dbus_message_iter_init_append(message, &iter);
    const unsigned char *token = Token;
    DBusMessageIter bytes;
    dbus_message_iter_open_container(&iter, DBUS_TYPE_ARRAY, "y", &bytes);
    dbus_message_iter_append_fixed_array(&bytes, DBUS_TYPE_BYTE, &token, sizeof Token);
    dbus_message_iter_close_container(&iter, &bytes);
    const char *text = "code";
    dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &text);
    dbus_message_iter_open_container(&iter, DBUS_TYPE_ARRAY, "{sv}", &map);
    text = "echo";
    append(&map, "type", DBUS_TYPE_STRING, "s", &text);
    const dbus_uint32_t uid = 1000;
    append(&map, "uid", DBUS_TYPE_UINT32, "u", &uid);
    text = "last-login-date";
    append(&map, "name", DBUS_TYPE_STRING, "s", &text);
    append(&map, "value", DBUS_TYPE_STRING, "s", &Date);
    dbus_message_iter_close_container(&iter, &map);
    return message;
}

void finish(DBusMessage *reply)
{
    check(reply, "libdbus gets an answer");
    DBusMessageIter iter;
    DBusMessageIter variant;
    dbus_message_iter_init(reply, &iter);
    check(dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_VARIANT, "libdbus gets a variant");
    dbus_message_iter_recurse(&iter, &variant);
    const char *text = nullptr;
    dbus_message_iter_get_basic(&variant, &text);
    checkText(text);
    dbus_message_unref(reply);
}

void wait()
{
    DBusMessage *message = request();
    finish(dbus_connection_send_with_reply_and_block(connection, message, -1, nullptr));
    dbus_message_unref(message);
}

void watch()
{
    DBusMessage *message = request();
    DBusPendingCall *pending = nullptr;
    bool finished = false;
    dbus_connection_send_with_reply(connection, message, &pending, -1);
    dbus_message_unref(message);
    dbus_pending_call_set_notify(
        pending,
        [](DBusPendingCall *call, void *data) {
            finish(dbus_pending_call_steal_reply(call));
            *static_cast<bool *>(data) = true;
        },
        &finished, nullptr);
    while (!finished)
        dbus_connection_read_write_dispatch(connection, -1);
    dbus_pending_call_unref(pending);
}

} // namespace LibDBus

namespace GDBus {

GDBusConnection *connection;

GVariant *request()
{
    GVariantBuilder map;
    g_variant_builder_init(&map, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&map, "{sv}", "type", g_variant_new_string("echo"));
    g_variant_builder_add(&map, "{sv}", "uid", g_variant_new_uint32(1000));
    g_variant_builder_add(&map, "{sv}", "name", g_variant_new_string("last-login-date"));
    g_variant_builder_add(&map, "{sv}", "value", g_variant_new_string(Date));
    return g_variant_new("(@aysa{sv})", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, Token, sizeof Token, 1), "code",
                         &map);
}

void finish(GVariant *reply)
{
    check(reply, "GDBus gets an answer");
    GVariant *value = nullptr;
    g_variant_get(reply, "(v)", &value);
    checkText(g_variant_get_string(value, nullptr));
    g_variant_unref(value);
    g_variant_unref(reply);
}

void wait()
{
    finish(g_dbus_connection_call_sync(connection, nullptr, Path, Interface, "FactorMethod", request(),
                                       G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
}

void watch()
{
    bool finished = false;
    g_dbus_connection_call(
        connection, nullptr, Path, Interface, "FactorMethod", request(), G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE,
        -1, nullptr,
        [](GObject *, GAsyncResult *result, void *data) {
            finish(g_dbus_connection_call_finish(connection, result, nullptr));
            *static_cast<bool *>(data) = true;
        },
        &finished);
    while (!finished)
        g_main_context_iteration(nullptr, TRUE);
}

} // namespace GDBus

#ifdef WITH_SD_BUS
namespace SdBus {

sd_bus *connection;

sd_bus_message *request()
{
    sd_bus_message *message = nullptr;
    sd_bus_message_new_method_call(connection, &message, nullptr, Path, Interface, "FactorMethod");
    sd_bus_message_append_array(message, 'y', Token, sizeof Token);
    sd_bus_message_append(message, "sa{sv}", "code", 4, "type", "s", "echo", "uid", "u", 1000U, "name", "s",
                          "last-login-date", "value", "s", Date);
    return message;
}

void finish(sd_bus_message *reply)
{
    check(reply && !sd_bus_message_is_method_error(reply, nullptr), "sd-bus gets an answer");
    const char *text = nullptr;
    sd_bus_message_read(reply, "v", "s", &text);
    checkText(text);
}

void wait()
{
    sd_bus_message *message = request();
    sd_bus_message *reply = nullptr;
    sd_bus_call(connection, message, 0, nullptr, &reply);
    finish(reply);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(message);
}

void watch()
{
    sd_bus_message *message = request();
    bool finished = false;
    sd_bus_call_async(
        connection, nullptr, message,
        [](sd_bus_message *reply, void *data, sd_bus_error *) {
            finish(reply);
            *static_cast<bool *>(data) = true;
            return 0;
        },
        &finished, 0);
    sd_bus_message_unref(message);
    while (!finished) {
        if (sd_bus_process(connection, nullptr) == 0)
            sd_bus_wait(connection, UINT64_MAX);
    }
}

} // namespace SdBus
#endif

} // namespace

int main()
{
    LibDBus::connection = dbus_connection_open_private(Address, nullptr);
    check(LibDBus::connection, "libdbus connects");
    measureInTurns({{"blocking.libdbus", LibDBus::wait}, {"asynchronous.libdbus", LibDBus::watch}});

    GDBus::connection = g_dbus_connection_new_for_address_sync(Address, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT,
                                                               nullptr, nullptr, nullptr);
    check(GDBus::connection, "GDBus connects");
    measureInTurns({{"blocking.GDBus", GDBus::wait}, {"asynchronous.GDBus", GDBus::watch}});

#ifdef WITH_SD_BUS
    check(sd_bus_new(&SdBus::connection) >= 0 && sd_bus_set_address(SdBus::connection, Address) >= 0
              && sd_bus_start(SdBus::connection) >= 0,
          "sd-bus connects");
    measureInTurns({{"blocking.sd-bus", SdBus::wait}, {"asynchronous.sd-bus", SdBus::watch}});
#endif
    return 0;
}
