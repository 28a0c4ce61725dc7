#pragma once

#include "stream.h"
#include "util.h"

#include <functional>

/** The serving end of one client's peer-to-peer D-Bus connection. */
class Peer
{
public:
    using MessageHandler = std::function<void(const Message &message)>;
    using CloseHandler = std::function<void()>;

    /** Takes over @p fd. */
    Peer(int fd, MessageHandler onMessage, CloseHandler onClosed);
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    /** Whether the client has got through the handshake. */
    bool isConnected() const
    {
        return m_connected;
    }
    void send(GDBusMessage *message);
    void close();

private:
    bool handshake(std::string &input);
    void handshakeLine(const std::string &line);
    void readMessages(std::string &input);

    MessageHandler m_onMessage;
    CloseHandler m_onClosed;
    size_t m_handshakeSize = 0; ///< what is consumed of it
    bool m_greeted = false;
    bool m_authenticated = false;
    bool m_connected = false;
    guint32 m_serial = 0;
    std::shared_ptr<Stream> m_stream;
};
