#include "instance.h"

#include <future>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace {

const char socketPath[] = "/var/run/authd/authd.socket";
const char serviceName[] = "vantora.AuthService";

/** How long the main loop waits for the system bus, which may be frozen, or only busy. */
constexpr std::chrono::seconds busPatience(15);

void releaseBus(GDBusConnection *connection)
{
    if (connection)
        g_object_unref(connection);
}

/** What @p function gives if it ends in time. `GDBusConnection` of GLib 2.74 blocks for good on a bus that is frozen. */
template <typename Function> auto inTime(std::chrono::seconds patience, Function function)
{
    using Result = decltype(function());
    std::packaged_task<Result()> task(std::move(function));
    std::future<Result> future = task.get_future();
    std::thread(std::move(task)).detach();
    const bool done = future.wait_for(patience) == std::future_status::ready;
    return done ? std::optional<Result>(future.get()) : std::nullopt;
}

/** A message of the system bus on its way from the bus connection's thread to the main loop. */
struct Arrival
{
    std::weak_ptr<Instance> instance;
    Message message;
};

/** Ids are never used again, so that in the life of the program an id means one connection. */
int nextPeer()
{
    static int last = 0;
    return ++last;
}

} // namespace

Instance::Instance(int number, Handlers handlers)
    : m_number(number)
    , m_handlers(std::move(handlers))
{
}

Instance::~Instance()
{
    close();
}

void Instance::listen(Accept accept)
{
    if (accept == Accept::Refuse)
        m_listener.reset();
    else if (!m_listener)
        m_listener = std::make_unique<Listener>(socketPath, 0666, [this](int fd) { this->accept(fd); });
    m_accept = accept;
    m_hasSocket = true;
}

void Instance::yieldSocket()
{
    m_listener.reset();
    m_hasSocket = false;
}

bool Instance::connectToSystemBus()
{
    g_autoptr(GError) error = nullptr;
    g_autofree char *address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    std::string problem = address ? "it does not answer" : error->message;
    if (address) {
        const auto connected = inTime(busPatience, [address = std::string(address)] {
            const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                                                 | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
            g_autoptr(GError) failure = nullptr;
            GDBusConnection *bus =
                g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &failure);
            return std::make_pair(std::shared_ptr<GDBusConnection>(bus, releaseBus),
                                  failure ? std::string(failure->message) : std::string());
        });
        if (connected)
            std::tie(m_bus, problem) = *connected;
    }
    if (!m_bus) {
        g_printerr("authd-standin: no system bus, serving the socket alone: %s\n", problem.c_str());
        return false;
    }
    const auto destroy = [](gpointer self) { delete static_cast<std::weak_ptr<Instance> *>(self); };
    g_dbus_connection_add_filter(m_bus.get(), filter, new std::weak_ptr<Instance>(weak_from_this()), destroy);
    g_signal_connect(m_bus.get(), "closed", G_CALLBACK(onBusClosed), this);
    return true;
}

void Instance::ownName()
{
    constexpr uint32_t allowReplacement = 1;
    constexpr uint32_t replaceExisting = 2;
    constexpr uint32_t doNotQueue = 4;
    constexpr uint32_t primaryOwner = 1;
    constexpr uint32_t alreadyOwner = 4;
    const uint32_t result =
        callBus("RequestName", g_variant_new("(su)", serviceName, allowReplacement | replaceExisting | doNotQueue));
    if (result != primaryOwner && result != alreadyOwner)
        throw std::runtime_error(std::string("another program owns ") + serviceName + " on the system bus");
    m_ownsName = true;
}

void Instance::releaseName()
{
    callBus("ReleaseName", g_variant_new("(s)", serviceName));
    m_ownsName = false;
}

std::string Instance::owner() const
{
    return m_bus && m_ownsName ? g_dbus_connection_get_unique_name(m_bus.get()) : "";
}

std::vector<int> Instance::peers() const
{
    std::vector<int> ids;
    for (const auto &[id, peer] : m_peers) {
        if (peer->isConnected())
            ids.push_back(id);
    }
    return ids;
}

bool Instance::hasPeer(int peer) const
{
    return m_peers.count(peer) != 0;
}

void Instance::dropPeer(int id)
{
    const auto found = m_peers.find(id);
    if (found == m_peers.end())
        return;
    const std::shared_ptr<Peer> peer = found->second;
    m_peers.erase(found);
    peer->close();
    // The connection may be dropped by the handler of a message of its own, which goes on using the peer.
    after(0, [peer] {});
    m_handlers.onPeerClosed(id);
}

void Instance::dropPeers()
{
    while (!m_peers.empty())
        dropPeer(m_peers.begin()->first);
    for (const int fd : m_mutes)
        ::close(fd);
    m_mutes.clear();
}

void Instance::close()
{
    if (m_hasSocket)
        Listener::removeFile(socketPath);
    yieldSocket();
    dropPeers();
    closeBus();
}

void Instance::send(int id, const Message &message)
{
    if (id != 0) {
        const auto peer = m_peers.find(id);
        if (peer != m_peers.end())
            peer->second->send(message.get());
    } else if (m_bus) {
        g_dbus_connection_send_message(m_bus.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    }
}

void Instance::flush()
{
    if (!m_bus
        || inTime(busPatience, [bus = m_bus] { return g_dbus_connection_flush_sync(bus.get(), nullptr, nullptr); }))
        return;
    g_printerr("authd-standin: the system bus takes nothing any more, serving the socket alone\n");
    closeBus();
}

void Instance::accept(int fd)
{
    if (m_accept == Accept::Close) {
        ::close(fd);
    } else if (m_accept == Accept::Mute) {
        m_mutes.push_back(fd);
    } else {
        const int id = nextPeer();
        m_peers[id] = std::make_shared<Peer>(
            fd, [this, id](const Message &message) { m_handlers.onMessage(*this, id, message); },
            [this, id] { dropPeer(id); });
    }
}

/** Called in the bus connection's thread; the daemon's work is done on the main loop, in the order of arrival. */
GDBusMessage *Instance::filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self)
{
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
        return message;

    const auto deliver = [](gpointer data) -> gboolean {
        const auto *arrived = static_cast<Arrival *>(data);
        const std::shared_ptr<Instance> instance = arrived->instance.lock();
        if (instance && instance->m_bus)
            instance->m_handlers.onMessage(*instance, 0, arrived->message);
        return G_SOURCE_REMOVE;
    };
    const auto destroy = [](gpointer data) { delete static_cast<Arrival *>(data); };
    auto *arrival = new Arrival{*static_cast<std::weak_ptr<Instance> *>(self), adopt(message)};
    g_idle_add_full(G_PRIORITY_DEFAULT, deliver, arrival, destroy);
    return nullptr;
}

void Instance::onBusClosed(GDBusConnection *, gboolean, GError *, gpointer self)
{
    g_printerr("authd-standin: the system bus is gone, serving the socket alone\n");
    static_cast<Instance *>(self)->closeBus();
}

void Instance::closeBus()
{
    if (!m_bus)
        return;
    g_signal_handlers_disconnect_by_data(m_bus.get(), this);
    inTime(busPatience, [bus = m_bus] {
        g_dbus_connection_flush_sync(bus.get(), nullptr, nullptr);
        return g_dbus_connection_close_sync(bus.get(), nullptr, nullptr);
    });
    m_bus.reset();
    m_ownsName = false;
}

uint32_t Instance::callBus(const char *method, GVariant *arguments)
{
    const Variant held = hold(arguments);
    if (!m_bus)
        throw std::runtime_error("there is no system bus");
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        m_bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method, arguments,
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, static_cast<int>(std::chrono::milliseconds(busPatience).count()),
        nullptr, &error);
    if (!reply)
        throw std::runtime_error(std::string("the system bus refuses ") + method + " for " + serviceName + ": "
                                 + error->message);
    uint32_t result = 0;
    g_variant_get(reply, "(u)", &result);
    return result;
}
