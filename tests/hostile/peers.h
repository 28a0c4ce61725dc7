#pragma once

#include "script.h"

#include <list>
#include <vector>

#include <poll.h>

/** A hostile daemon and a hostile bus, which do what a script says and otherwise what is right. */
class Peers
{
public:
    /** The listening sockets are closed at the end. @p isTold has everything that happens told on stderr. */
    Peers(const Script &script, int daemonListener, int busListener, bool isTold);
    ~Peers();
    Peers(const Peers &) = delete;
    Peers &operator=(const Peers &) = delete;

    /**
     * Does what there is to do on the sockets, when it has waited for @p milliseconds at the most; @p others are waited
     * for, too. Whether there was anything.
     */
    bool serve(int milliseconds, std::vector<pollfd> &others);

    /** The host says that nothing is under way any more: signals sent by themselves go out. */
    void round();

    /** The script's end; returns whether it ends all connections to the daemon. */
    bool end();

    /** Nothing happens any more: what is kept waiting is ended. */
    void endWaiting();

    /** The event of the first reaction that it has not come to, if there is one. */
    Bytes unmet() const;

    /** Whether a connection was ended, spoilt or not made as it should be: the host may have found no daemon, or no bus. */
    bool haveBroken() const
    {
        return m_haveBroken;
    }

    /** Whether the bus has told of a new daemon: the host makes another connection from its event loop. */
    bool haveReturned() const
    {
        return m_haveReturned;
    }

private:
    struct Connection
    {
        int socket;
        bool isBus;
        bool isTalking = false;
        /** Does not get what it should during the handshake. */
        bool isKeptWaiting = false;
        bool isStalled = false;
        /** To be closed when all has been sent. */
        bool isEnding = false;
        bool isBigEndian = false;
        uint32_t serial = 0;
        unsigned unanswered = 0;
        /** Calls the host all the time, and does not read. */
        Bytes flood = {};
        long cutAt = -1;
        bool cutStalls = false;
        long flipAt = -1;
        std::vector<Bytes> held = {};
        Bytes in = {};
        Bytes out = {};
    };
    using Connections = std::list<Connection>;

    void accept(int listener, bool isBus);
    void receive(Connection &connection);
    void handleLine(Connection &connection, const Bytes &line);
    /** @p call is null where nothing was called. */
    void handle(Connection &connection, const Bytes &event, const Message *call);
    void act(Connection &connection, const Action &action, const Message *call);
    void answer(Connection &connection, const Message &call);
    void reply(Connection &connection, const Message &call, const Bytes &signature, const Bytes &body);
    void changeOwner(bool isThere);
    void sendSignal(Connection &connection, unsigned number, bool isRight);
    void send(Connection &connection, Message message);
    void sendBytes(Connection &connection, Bytes bytes);
    void flush(Connection &connection);
    void close(Connection &connection);
    void tell(const Connection &connection, const char *what, const Bytes &more) const;

    std::vector<Reaction> m_reactions;
    const End m_end;
    const int m_listeners[2];
    const bool m_isTold;
    Connections m_connections;
    bool m_haveBroken = false;
    bool m_haveReturned = false;
    unsigned long m_floodCalls = 0;
    // What a script can have sent at all.
    unsigned m_messagesLeft = 100000;
    size_t m_bytesLeft = size_t(300) << 20;
    /** Of the daemon's name, as the bus tells. */
    Bytes m_owner = ":1.5";
    unsigned m_instances = 5;
    unsigned m_returnsLeft = 10001;
};
