#pragma once

#include "objects.h"
#include "peer.h"
#include "stream.h"
#include "util.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/** How new connections to the daemon's socket are met. */
enum class Accept {
    Normal,
    Mute,   ///< accepted and never answered
    Close,  ///< accepted and closed
    Refuse, ///< nobody listens
};

/** One life of the daemon on the buses: its socket with the connections to it, and its connection to the system bus. */
class Instance : public std::enable_shared_from_this<Instance>
{
public:
    struct Handlers
    {
        std::function<void(Instance &instance, int peer, const Message &message)> onMessage; ///< peer 0: the system bus
        std::function<void(int peer)> onPeerClosed;
    };

    Instance(int number, Handlers handlers);
    ~Instance();
    Instance(const Instance &) = delete;
    Instance &operator=(const Instance &) = delete;

    int number() const
    {
        return m_number;
    }

    /** Serves the socket from now on. Throws std::runtime_error when it cannot listen. */
    void listen(Accept accept);
    /** Leaves the socket to another instance that has taken it over. */
    void yieldSocket();
    bool hasSocket() const
    {
        return m_hasSocket;
    }

    /** Returns false, after a message, when there is no system bus. */
    bool connectToSystemBus();
    /** Takes the name over from an owner that allows it. Throws std::runtime_error when it cannot have it. */
    void ownName();
    void releaseName();
    /** The unique name under which the instance owns the daemon's name; empty when it does not. */
    std::string owner() const;

    std::vector<int> peers() const;
    bool hasPeer(int peer) const;
    void dropPeer(int peer);
    void dropPeers();
    /** Closes everything. */
    void close();

    /** Sends to a peer, or on the system bus for 0; to nobody when that is gone. */
    void send(int peer, const Message &message);
    /** Returns when what was sent has left for the system bus. */
    void flush();

private:
    void accept(int fd);
    static GDBusMessage *filter(GDBusConnection *connection, GDBusMessage *message, gboolean incoming, gpointer self);
    static void onBusClosed(GDBusConnection *connection, gboolean vanished, GError *error, gpointer self);
    void closeBus();
    uint32_t callBus(const char *method, GVariant *arguments);

    const int m_number;
    Handlers m_handlers;
    Accept m_accept = Accept::Normal;
    bool m_hasSocket = false;
    std::unique_ptr<Listener> m_listener;
    std::map<int, std::shared_ptr<Peer>> m_peers;
    std::vector<int> m_mutes; ///< descriptors of connections that are never answered
    std::shared_ptr<GDBusConnection> m_bus;
    bool m_ownsName = false;
};
