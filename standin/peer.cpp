#include "peer.h"

namespace {

/** The fixed part of a message's header, from which its length can be told. */
constexpr size_t headerSize = 16;
constexpr size_t longestHandshake = 16384;

std::string guid()
{
    g_autofree char *text = g_dbus_generate_guid();
    return text;
}

} // namespace

Peer::Peer(int fd, MessageHandler onMessage, CloseHandler onClosed)
    : m_onMessage(std::move(onMessage))
    , m_onClosed(std::move(onClosed))
    , m_stream(Stream::create(
          fd,
          [this](std::string &input) {
              if (m_connected || handshake(input))
                  readMessages(input);
          },
          [this] { m_onClosed(); }))
{
}

void Peer::close()
{
    m_stream->close();
}

void Peer::send(GDBusMessage *message)
{
    g_dbus_message_set_serial(message, ++m_serial);
    gsize size = 0;
    g_autoptr(GError) error = nullptr;
    g_autofree guchar *blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, &error);
    if (blob)
        m_stream->write(reinterpret_cast<const char *>(blob), size);
    else
        g_printerr("authd-standin: a message cannot be sent: %s\n", error ? error->message : "it is not valid");
}

/** Returns true when the handshake is done. */
bool Peer::handshake(std::string &input)
{
    if (!m_greeted) {
        if (input.front() != '\0') {
            m_stream->close();
            m_onClosed();
            return false;
        }
        m_greeted = true;
        input.erase(0, 1);
    }
    for (size_t end = 0;
         !m_connected && m_handshakeSize <= longestHandshake && (end = input.find("\r\n")) != std::string::npos;) {
        const std::string line = input.substr(0, end);
        input.erase(0, end + 2);
        m_handshakeSize += end + 2;
        handshakeLine(line);
    }
    if (!m_connected && m_handshakeSize + input.size() > longestHandshake) {
        m_stream->close();
        m_onClosed();
    }
    return m_connected;
}

/**
 * Whom the socket's permissions let in is let in, whatever identity is claimed. The rest of the exchange is as the
 * clients in use expect it; they may send all of their lines at once.
 */
void Peer::handshakeLine(const std::string &line)
{
    static const std::string id = guid();
    std::string answer;
    if (line == "AUTH EXTERNAL") {
        answer = "DATA\r\n";
    } else if (g_str_has_prefix(line.c_str(), "AUTH EXTERNAL ") || g_str_has_prefix(line.c_str(), "DATA")) {
        m_authenticated = true;
        answer = "OK " + id + "\r\n";
    } else if (g_str_has_prefix(line.c_str(), "AUTH")) {
        answer = "REJECTED EXTERNAL\r\n";
    } else if (line == "BEGIN" && m_authenticated) {
        m_connected = true;
    } else {
        answer = "ERROR\r\n";
    }
    m_stream->write(answer.data(), answer.size());
}

void Peer::readMessages(std::string &input)
{
    size_t done = 0;
    while (m_stream->isOpen() && input.size() - done >= headerSize) {
        auto *blob = reinterpret_cast<guchar *>(input.data() + done);
        g_autoptr(GError) error = nullptr;
        const gssize size = g_dbus_message_bytes_needed(blob, input.size() - done, &error);
        if (size > 0 && input.size() - done < static_cast<size_t>(size))
            break;
        GDBusMessage *message = nullptr;
        if (size > 0)
            message =
                g_dbus_message_new_from_blob(blob, static_cast<gsize>(size), G_DBUS_CAPABILITY_FLAGS_NONE, &error);
        // A call without a number cannot be answered.
        if (message && g_dbus_message_get_serial(message) == 0)
            g_clear_object(&message);
        if (!message) {
            g_printerr("authd-standin: a client sent no D-Bus message: %s\n",
                       error ? error->message : "it has no serial number");
            m_stream->close();
            m_onClosed();
            return;
        }
        done += static_cast<size_t>(size);
        m_onMessage(adopt(message));
    }
    if (m_stream->isOpen())
        input.erase(0, done);
}
