// A client for the stand-in's own tests: clients that link libauth-client would not send what these need.
#include <cstdlib>
#include <cstring>
#include <gio/gio.h>
#include <gio/gunixsocketaddress.h>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace {

constexpr int patience = 120000; // milliseconds
const char socketAddress[] = "unix:path=/var/run/authd/authd.socket";
const char serviceName[] = "vantora.AuthService";

[[noreturn]] void fail(const std::string &message)
{
    std::cout << message << std::endl;
    exit(1);
}

/** Sends standard input to a socket and prints what comes until the other side closes the connection. */
void sendBytes(const char *path, bool end)
{
    const std::string bytes((std::istreambuf_iterator<char>(std::cin)), {});
    g_autoptr(GSocketClient) client = g_socket_client_new();
    g_socket_client_set_timeout(client, patience / 1000);
    g_autoptr(GSocketAddress) address = g_unix_socket_address_new(path);
    g_autoptr(GSocketConnection) connection =
        g_socket_client_connect(client, G_SOCKET_CONNECTABLE(address), nullptr, nullptr);
    if (!connection)
        fail("cannot connect");
    GSocket *socket = g_socket_connection_get_socket(connection);
    g_output_stream_write_all(g_io_stream_get_output_stream(G_IO_STREAM(connection)), bytes.data(), bytes.size(),
                              nullptr, nullptr, nullptr);
    if (end)
        g_socket_shutdown(socket, FALSE, TRUE, nullptr);
    char buffer[4096];
    g_autoptr(GError) error = nullptr;
    gssize size = 0;
    while ((size = g_socket_receive(socket, buffer, sizeof buffer, nullptr, &error)) > 0)
        std::cout.write(buffer, size);
    if (size < 0 && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
        fail("not closed");
    std::cout << "closed" << std::endl;
}

void replace(std::string &text, const std::string &word, const std::string &by)
{
    for (size_t at = 0; (at = text.find(word)) != std::string::npos;)
        text.replace(at, word.size(), by);
}

/** What has come on one connection. */
struct Arrivals
{
    GAsyncQueue *signals = g_async_queue_new_full(g_object_unref);
    std::mutex mutex;
    std::string order; ///< of replies and signals, since it was last asked for

    Arrivals() = default;
    ~Arrivals()
    {
        g_async_queue_unref(signals);
    }
    Arrivals(const Arrivals &) = delete;
    Arrivals &operator=(const Arrivals &) = delete;

    void take(GDBusMessage *message)
    {
        const bool isSignal = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_SIGNAL;
        {
            const std::lock_guard<std::mutex> guard(mutex);
            order += std::string(order.empty() ? "" : " ") + (isSignal ? g_dbus_message_get_member(message) : "reply");
        }
        if (isSignal)
            g_async_queue_push(signals, g_object_ref(message));
    }
    std::string takeOrder()
    {
        const std::lock_guard<std::mutex> guard(mutex);
        return std::exchange(order, {});
    }
};

GDBusConnection *connectTo(const char *address, int flags, const std::shared_ptr<Arrivals> &arrivals)
{
    g_autoptr(GError) error = nullptr;
    GDBusConnection *connection = g_dbus_connection_new_for_address_sync(
        address, static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | flags), nullptr,
        nullptr, &error);
    if (!connection)
        fail(std::string("cannot connect: ") + error->message);
    const auto filter = [](GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer taker) {
        if (incoming)
            static_cast<std::shared_ptr<Arrivals> *>(taker)->get()->take(message);
        return message;
    };
    const auto destroy = [](gpointer taker) { delete static_cast<std::shared_ptr<Arrivals> *>(taker); };
    g_dbus_connection_add_filter(connection, filter, new std::shared_ptr<Arrivals>(arrivals), destroy);
    return connection;
}

struct Object
{
    bool onBus;
    const char *path;
    const char *interface;
};

Object objectOf(const std::string &method)
{
    if (method == "GetState" || method == "SetState")
        return {true, "/vantora/AuthService/Devlock", "vantora.AuthService.Devlock"};
    if (method == "GetOption" || method == "GetUserOption" || method == "GetUserOptions" || method == "SetUserOption")
        return {false, "/vantora/AuthService/Settings", "vantora.AuthService.Settings"};
    return {false, "/vantora/AuthService", "vantora.AuthService"};
}

} // namespace

/**
 * Steps: "METHOD ARGUMENTS" calls and prints the reply, with "!" in front it calls and goes on at once; "SIGNAL" in
 * angle brackets waits for that signal and prints its arguments; "order" prints in which order replies and signals have
 * come from the peer since the last "order". %challenge and %token stand for the last that came.
 */
int main(int argc, char *argv[])
{
    const std::string first = argc > 1 ? argv[1] : "";
    if (argc == 3 && (first == "bytes" || first == "last-bytes")) {
        sendBytes(argv[2], first == "last-bytes");
        return 0;
    }
    // What comes on different connections has no order.
    const auto peerArrivals = std::make_shared<Arrivals>();
    const auto busArrivals = std::make_shared<Arrivals>();
    g_autoptr(GDBusConnection) peer = connectTo(socketAddress, 0, peerArrivals);
    g_autoptr(GDBusConnection) bus =
        connectTo(g_getenv("DBUS_SYSTEM_BUS_ADDRESS"), G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION, busArrivals);
    g_autoptr(GVariant) matched =
        g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    "AddMatch", g_variant_new("(s)", "type='signal',member='StateChanged'"), nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, patience, nullptr, nullptr);
    if (!matched)
        fail("the bus does not take a match rule");
    std::string challenge;
    std::string token;
    for (int i = 1; i < argc; ++i) {
        std::string step = argv[i];
        if (step.front() == '<') {
            std::string name;
            GAsyncQueue *signals = step == "<StateChanged>" ? busArrivals->signals : peerArrivals->signals;
            do {
                g_autoptr(GDBusMessage) message =
                    G_DBUS_MESSAGE(g_async_queue_timeout_pop(signals, guint64(patience) * 1000));
                if (!message)
                    fail("no " + step);
                name = g_dbus_message_get_member(message);
                GVariant *body = g_dbus_message_get_body(message);
                g_autofree char *text = body ? g_variant_print(body, TRUE) : g_strdup("()");
                const std::string arguments = text;
                if (name == "Authenticated")
                    token = arguments.substr(1, arguments.size() - 3);
                if (step == "<" + name + ">")
                    std::cout << name << (name == "Authenticated" ? "" : arguments) << std::endl;
            } while (step != "<" + name + ">");
            continue;
        }
        if (step == "order") {
            std::cout << peerArrivals->takeOrder() << std::endl;
            continue;
        }
        const bool waits = step.front() != '!';
        if (!waits)
            step.erase(0, 1);
        replace(step, "%challenge", challenge);
        replace(step, "%token", token);
        const std::string method = step.substr(0, step.find(' '));
        const Object object = objectOf(method);
        GDBusConnection *connection = object.onBus ? bus : peer;
        const char *destination = object.onBus ? serviceName : nullptr;
        GVariant *arguments = g_variant_new_parsed(step.substr(method.size() + 1).c_str());
        if (!waits) {
            // Without a callback the call would ask for no reply.
            const auto ignore = [](GObject *, GAsyncResult *, gpointer) {};
            g_dbus_connection_call(connection, destination, object.path, object.interface, method.c_str(), arguments,
                                   nullptr, G_DBUS_CALL_FLAGS_NONE, patience, nullptr, ignore, nullptr);
            continue;
        }
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) reply =
            g_dbus_connection_call_sync(connection, destination, object.path, object.interface, method.c_str(),
                                        arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, patience, nullptr, &error);
        g_autofree char *text = reply ? g_variant_print(reply, TRUE) : nullptr;
        if (method == "RequestChallenge" && text)
            challenge = std::string(text + 1, strlen(text) - 3);
        else
            std::cout << (text ? text : error->message) << std::endl;
    }
    return 0;
}
