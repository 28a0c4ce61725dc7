#include "peers.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

namespace {

const Bytes Bus = "org.freedesktop.DBus";
const Bytes BusPath = "/org/freedesktop/DBus";
const Bytes Daemon = "vantora.AuthService";
const Bytes DaemonPath = "/vantora/AuthService";

constexpr unsigned FloodBlock = 500;

/** What the host calls, and what the answer carries. */
struct Method
{
    const char *name;
    const char *signature;
};

constexpr Method methods[] = {
    {"Introspect", "s"},    {"RequestChallenge", "ay"},
    {"Authenticate", "b"},  {"ChangeAuthData", "b"},
    {"UnlockIfNeeded", ""}, {"SetDevlockState", "b"},
    {"FactorMethod", "v"},  {"GetOption", "v"},
    {"GetUserOption", "v"}, {"GetUserOptions", "a{sv}"},
    {"SetUserOption", "b"}, {"GetState", "i"},
    {"SetState", ""},       {"Hello", "s"},
    {"AddMatch", ""},       {"RemoveMatch", ""},
    {"GetNameOwner", "s"},  {"GetId", "s"},
    {"NameHasOwner", "b"},  {"StartServiceByName", "u"},
};

struct Signal
{
    const char *name;
    const char *object;
    const char *signature;
};

constexpr Signal signals[] = {
    {"Authenticated", "", "ay"},         {"AuthenticationFailed", "", ""},         {"AuthDataChanged", "", ""},
    {"ChangeAuthDataFailed", "", ""},    {"UnlockIfNeededFinished", "", "b"},      {"Factor", "Settings", "sa{sv}"},
    {"OptionChanged", "Settings", "sv"}, {"UserOptionChanged", "Settings", "usv"}, {"StateChanged", "Devlock", "i"},
};

const char *signatureOf(const Bytes &method)
{
    for (const Method &known : methods) {
        if (method == known.name)
            return known.signature;
    }
    return nullptr;
}

Bytes variantOfStrings(std::initializer_list<Bytes> texts, bool bigEndian)
{
    const Bytes elements = textBody(texts, bigEndian);
    Bytes length(4, '\0');
    for (size_t i = 0; i < 4; ++i)
        length[bigEndian ? 3 - i : i] = char(elements.size() >> 8 * i);
    return Bytes("\2as\0", 4) + length + elements;
}

Bytes variantOfBool(bool value, bool bigEndian)
{
    Bytes bytes("\1b\0\0\0\0\0\0", 8);
    bytes[bigEndian ? 7 : 4] = char(value);
    return bytes;
}

} // namespace

Peers::Peers(const Script &script, int daemonListener, int busListener, bool isTold)
    : m_reactions(script.reactions)
    , m_end(script.end)
    , m_listeners{daemonListener, busListener}
    , m_isTold(isTold)
{
}

Peers::~Peers()
{
    if (m_floodCalls > 0)
        printf("%lu calls of the host's side\n", m_floodCalls);
    for (const Connection &connection : m_connections) {
        if (connection.socket >= 0)
            ::close(connection.socket);
    }
    for (const int listener : m_listeners)
        ::close(listener);
}

void Peers::tell(const Connection &connection, const char *what, const Bytes &more) const
{
    if (m_isTold)
        fprintf(stderr, "%s %d %s %s\n", connection.isBus ? "bus   " : "daemon", connection.socket, what, more.c_str());
}

bool Peers::serve(int milliseconds, std::vector<pollfd> &others)
{
    std::vector<pollfd> all = others;
    for (const int listener : m_listeners)
        all.push_back({listener, POLLIN, 0});
    for (auto it = m_connections.begin(); it != m_connections.end();)
        it = it->socket < 0 ? m_connections.erase(it) : std::next(it);
    for (const Connection &connection : m_connections) {
        const bool isFlooding = !connection.flood.empty();
        const bool hasMore = isFlooding || !connection.out.empty();
        all.push_back({connection.socket, short((isFlooding ? 0 : POLLIN) | (hasMore ? POLLOUT : 0)), 0});
    }
    const bool hasEvents = poll(all.data(), all.size(), milliseconds) > 0;
    size_t i = 0;
    for (pollfd &other : others)
        other = all[i++];
    const size_t listeners = i;
    i += 2;
    for (auto it = m_connections.begin(); i < all.size(); ++it, ++i) {
        if (all[i].revents & POLLOUT && it->socket >= 0) {
            if (it->out.empty()) {
                it->out = it->flood;
                m_floodCalls += FloodBlock;
            }
            flush(*it);
        }
        if (all[i].revents & (POLLIN | POLLHUP | POLLERR) && it->socket >= 0)
            receive(*it);
    }
    for (const bool isBus : {false, true}) {
        if (all[listeners + (isBus ? 1 : 0)].revents & POLLIN)
            accept(m_listeners[isBus], isBus);
    }
    return hasEvents;
}

void Peers::accept(int listener, bool isBus)
{
    const int socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0)
        return;
    m_connections.push_back({socket, isBus});
    handle(m_connections.back(), "accept", nullptr);
}

void Peers::receive(Connection &connection)
{
    for (;;) {
        char buffer[65536];
        const ssize_t count = recv(connection.socket, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EAGAIN)
            break;
        if (count <= 0) {
            tell(connection, "is left", "");
            // The host has ended it.
            ::close(connection.socket);
            connection.socket = -1;
            return;
        }
        connection.in.append(buffer, size_t(count));
    }
    while (connection.socket >= 0) {
        if (!connection.isTalking) {
            const size_t length = connection.in.find("\r\n");
            if (length == Bytes::npos)
                return;
            const Bytes line = connection.in.substr(0, length);
            connection.in.erase(0, length + 2);
            handleLine(connection, line);
            continue;
        }
        Message call;
        const size_t length = call.read(connection.in);
        if (length == 0)
            return;
        connection.in.erase(0, length);
        if (call.type == Message::Call)
            handle(connection, call.member, &call);
    }
}

void Peers::handleLine(Connection &connection, const Bytes &line)
{
    if (line.find("AUTH") != Bytes::npos)
        handle(connection, "AUTH", nullptr);
    else if (line == "NEGOTIATE_UNIX_FD")
        handle(connection, line, nullptr);
    else if (line == "BEGIN")
        connection.isTalking = true;
    else
        sendBytes(connection, "ERROR\r\n");
}

void Peers::handle(Connection &connection, const Bytes &event, const Message *call)
{
    const Action rightly{event, 0};
    for (Reaction &reaction : m_reactions) {
        const bool isSelf = event == "round" || event == "accept";
        if (reaction.event != event && (reaction.event != "any" || isSelf))
            continue;
        if (reaction.after > 0) {
            --reaction.after;
            continue;
        }
        tell(connection, "meets", event);
        reaction.isMet = true;
        if (!reaction.always)
            reaction.after = ~0U;
        // What is wrong there, the host may take for no bus.
        if (event == "accept" || event == "AUTH" || event == "NEGOTIATE_UNIX_FD" || event == "Hello") {
            m_haveBroken = true;
            connection.isKeptWaiting = true;
        }
        if (call)
            ++connection.unanswered;
        unsigned count = 1;
        bool isThere = false;
        const std::vector<Action> actions = reaction.actions;
        for (const Action &action : actions) {
            if (action.name == "repeat") {
                count = 1 + action.number % 20000;
                continue;
            }
            if (action.name == "there") {
                isThere = true;
                continue;
            }
            for (; count > 0; --count) {
                Connection *target = &connection;
                if (isThere) {
                    for (Connection &other : m_connections) {
                        if (other.isBus != connection.isBus && other.socket >= 0 && other.isTalking)
                            target = &other;
                    }
                }
                if (target->socket < 0 || m_messagesLeft == 0)
                    break;
                act(*target, action.name == "answer" && !call ? rightly : action,
                    target == &connection ? call : nullptr);
            }
            count = 1;
            isThere = false;
        }
        return;
    }
    if (call)
        answer(connection, *call);
    else
        act(connection, rightly, nullptr);
}

void Peers::round()
{
    for (const bool isBus : {false, true}) {
        Connection *last = nullptr;
        for (Connection &connection : m_connections) {
            if (connection.isBus == isBus && connection.socket >= 0 && connection.isTalking)
                last = &connection;
        }
        if (last)
            handle(*last, "round", nullptr);
    }
}

Bytes Peers::unmet() const
{
    const auto found =
        std::find_if(m_reactions.begin(), m_reactions.end(), [](const Reaction &reaction) { return !reaction.isMet; });
    return found == m_reactions.end() ? Bytes() : found->event;
}

bool Peers::end()
{
    for (Connection &connection : m_connections) {
        if (connection.socket < 0 || connection.isBus != (m_end == End::Bus))
            continue;
        if (m_end == End::Alive)
            continue;
        m_haveBroken = true;
        // After half a message, no garbage is certain to be any.
        if (m_end == End::Garbage && connection.cutAt < 0 && !connection.isStalled)
            sendBytes(connection, Bytes(64, '\xfe'));
        else
            close(connection);
    }
    return m_end == End::Close || m_end == End::Garbage;
}

void Peers::endWaiting()
{
    for (Connection &connection : m_connections) {
        if (connection.socket >= 0
            && (connection.isStalled || connection.unanswered > 0
                || (connection.isKeptWaiting && !connection.isTalking))) {
            tell(connection, "has waited enough", "");
            close(connection);
        }
    }
}

void Peers::close(Connection &connection)
{
    tell(connection, "is closed", "");
    m_haveBroken = true;
    ::close(connection.socket);
    connection.socket = -1;
}

void Peers::sendBytes(Connection &connection, Bytes bytes)
{
    if (connection.isStalled || connection.isEnding || connection.socket < 0)
        return;
    if (connection.flipAt >= 0 && size_t(connection.flipAt) < bytes.size()) {
        bytes[size_t(connection.flipAt)] = char(bytes[size_t(connection.flipAt)] ^ (1 + connection.flipAt % 255));
        connection.flipAt = -1;
        m_haveBroken = true;
        // The host may wait for what these bytes no longer are.
        ++connection.unanswered;
    }
    if (connection.cutAt >= 0) {
        bytes.resize(std::min(bytes.size(), size_t(connection.cutAt)));
        connection.isStalled = connection.cutStalls;
        connection.isEnding = !connection.cutStalls;
        m_haveBroken = true;
    }
    connection.out += bytes;
    flush(connection);
}

void Peers::flush(Connection &connection)
{
    size_t sent = 0;
    while (sent < connection.out.size()) {
        const ssize_t count =
            ::send(connection.socket, connection.out.data() + sent, connection.out.size() - sent, MSG_NOSIGNAL);
        if (count < 0)
            break;
        sent += size_t(count);
    }
    connection.out.erase(0, sent);
    if (connection.isEnding && connection.out.empty())
        close(connection);
}

void Peers::send(Connection &connection, Message message)
{
    const size_t size = message.body.size();
    if (m_messagesLeft == 0 || m_bytesLeft < size) {
        // Whoever waits for it is not to wait for long.
        connection.isStalled = true;
        return;
    }
    --m_messagesLeft;
    m_bytesLeft -= size;
    message.serial = ++connection.serial;
    if (connection.isBus) {
        if (message.sender.empty())
            message.sender = message.path == BusPath ? Bus : ":1.5";
        if (message.destination.empty())
            message.destination = ":1.7";
    }
    sendBytes(connection, message.marshalled(connection.isBigEndian));
}

void Peers::reply(Connection &connection, const Message &call, const Bytes &signature, const Bytes &body)
{
    Message answer;
    answer.type = Message::Return;
    answer.replySerial = call.serial;
    answer.signature = signature;
    answer.body = body;
    answer.sender = call.destination == Bus ? Bus : "";
    send(connection, answer);
}

void Peers::answer(Connection &connection, const Message &call)
{
    const bool big = connection.isBigEndian;
    const Bytes &name = call.member;
    const char *const signature = signatureOf(name);
    if (!signature) {
        Message error;
        error.type = Message::Error;
        error.errorName = "org.freedesktop.DBus.Error.UnknownMethod";
        error.replySerial = call.serial;
        send(connection, error);
        return;
    }
    Bytes body;
    if (name == "Introspect")
        body = textBody(
            {"<node><interface name='vantora.AuthService'><method name='Authenticate'/></interface></node>"}, big);
    else if (name == "Hello")
        body = textBody({":1.7"}, big);
    else if (name == "GetNameOwner")
        body = textBody({m_owner}, big);
    else if (name == "GetOption" && call.body.find("available-services") != Bytes::npos)
        body = variantOfStrings({"login", "unlock"}, big);
    else if (name == "GetOption" && call.body.find("factors") != Bytes::npos)
        body = variantOfStrings({"code", "sudis", "smartcard"}, big);
    else if (*signature == 'v')
        body = variantOfBool(true, big);
    else if (Bytes(signature) == "ay")
        body = textBody({"0123456789abcde"}, big).substr(0, 19);
    else if (Bytes(signature) == "a{sv}")
        body = Bytes(8, '\0');
    else if (*signature == 's')
        body = textBody({"0123456789abcdef0123456789abcdef"}, big);
    else if (*signature != '\0')
        body = variantOfBool(*signature == 'b', big).substr(4);
    reply(connection, call, signature, body);
    if (name == "Hello") {
        Message told;
        told.path = BusPath;
        told.interface = Bus;
        told.member = "NameAcquired";
        told.signature = "s";
        told.body = textBody({":1.7"}, big);
        send(connection, told);
    }
}

void Peers::changeOwner(bool isThere)
{
    if (isThere) {
        if (m_returnsLeft == 0)
            return;
        --m_returnsLeft;
    }
    const Bytes from = m_owner;
    m_owner = isThere ? ":1." + std::to_string(++m_instances) : "";
    m_haveReturned = m_haveReturned || isThere;
    for (Connection &connection : m_connections) {
        if (!connection.isBus || connection.socket < 0 || !connection.isTalking)
            continue;
        Message told;
        told.path = BusPath;
        told.interface = Bus;
        told.member = "NameOwnerChanged";
        told.signature = "sss";
        told.body = textBody({Daemon, from, m_owner}, connection.isBigEndian);
        send(connection, told);
    }
}

void Peers::sendSignal(Connection &connection, unsigned number, bool isRight)
{
    const Signal &which = signals[number % (sizeof signals / sizeof *signals)];
    Lots lots(number);
    Message signal;
    const Bytes object = which.object;
    signal.path = DaemonPath + (object.empty() ? "" : '/' + object);
    signal.interface = Daemon + (object.empty() ? "" : '.' + object);
    signal.member = which.name;
    signal.signature = which.signature;
    if (!isRight) {
        signal.signature.clear();
        for (unsigned count = draw(lots, 4); count > 0; --count)
            signal.signature += drawSignature(lots);
    }
    signal.body = drawBody(signal.signature, lots, connection.isBigEndian);
    send(connection, signal);
}

// One action; tests/README.md tells of each.
void Peers::act(Connection &connection, const Action &action, const Message *call)
{
    const Bytes &name = action.name;
    const unsigned number = action.number;
    Lots lots(number);
    const bool big = connection.isBigEndian;
    const auto isAnswered = [&] {
        if (connection.unanswered > 0)
            --connection.unanswered;
    };
    if (name == "AUTH") {
        sendBytes(connection, "OK 0123456789abcdef0123456789abcdef\r\n");
    } else if (name == "NEGOTIATE_UNIX_FD") {
        sendBytes(connection, "AGREE_UNIX_FD\r\n");
    } else if (name == "answer" && call) {
        answer(connection, *call);
        isAnswered();
    } else if ((name == "reply" || name == "anyreply") && call) {
        const char *right = signatureOf(call->member);
        const Bytes signature = name == "reply" && right ? right : drawSignature(lots);
        // A new name for one's own connection is no connection.
        reply(connection, *call, signature, drawBody(signature, lots, big));
        isAnswered();
    } else if (name == "error" && call) {
        const char *const names[] = {"org.freedesktop.DBus.Error.Failed", "a.b", "org.freedesktop.DBus.Error.NoReply",
                                     "org.freedesktop.DBus.Error.UnknownMethod",
                                     "org.freedesktop.DBus.Error.Disconnected"};
        Message error;
        error.type = Message::Error;
        error.errorName = names[number % 5];
        error.replySerial = call->serial;
        error.signature = number % 3 == 0 ? "" : number % 3 == 1 ? "s" : drawSignature(lots);
        error.body = drawBody(error.signature, lots, big);
        send(connection, error);
        isAnswered();
    } else if (name == "error") {
        // Of a word of the handshake; after it, no message.
        m_haveBroken = true;
        sendBytes(connection, "ERROR\r\n");
    } else if (name == "foreign" || name == "typed") {
        Message odd;
        const bool isTyped = name == "typed";
        const uint8_t types[] = {Message::Call, Message::Signal, Message::Error, 0};
        odd.type = isTyped ? types[number % 4] : uint8_t(Message::Return);
        m_haveBroken = m_haveBroken || odd.type == 0;
        odd.replySerial = (call ? call->serial : 1) + (isTyped ? 0 : 1 + number % 40);
        odd.path = DaemonPath;
        odd.interface = Daemon;
        odd.member = "Authenticated";
        odd.errorName = "a.b";
        odd.signature = drawSignature(lots);
        odd.body = drawBody(odd.signature, lots, big);
        send(connection, odd);
        if (isTyped)
            isAnswered();
    } else if (name == "signal" || name == "anysignal") {
        sendSignal(connection, number, name == "signal");
    } else if (name == "bus" || name == "spoof") {
        const char *const names[] = {"NameOwnerChanged", "NameAcquired", "NameLost", "Disconnected"};
        Message told;
        told.path = number % 5 == 4 ? DaemonPath : BusPath;
        told.interface = Bus;
        told.member = names[number % 4];
        told.sender = name == "bus" ? Bus : ":1.99";
        told.signature = number % 4 == 0 ? "sss" : number % 4 < 3 ? "s" : "";
        // Of the other two, QDBusConnection of Qt 5.15 takes any type, and may end the process.
        if (name == "bus" && number % 7 == 6 && number % 4 % 3 == 0)
            told.signature = drawSignature(lots);
        told.body = drawBody(told.signature, lots, big);
        // A name drawn by lot may be the daemon's, and the host connect anew.
        m_haveReturned = m_haveReturned || connection.isBus;
        send(connection, told);
    } else if (name == "leave" || name == "return") {
        for (unsigned i = 0; i <= number % 20000 && m_messagesLeft > 0; ++i)
            changeOwner(name == "return");
    } else if (name == "call") {
        const char *const members[] = {"Ping", "GetMachineId", "Introspect", "GetAll", "Authenticated", "x"};
        const char *const interfaces[] = {"org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Introspectable",
                                          "org.freedesktop.DBus.Properties", "vantora.AuthService", ""};
        Message odd;
        odd.type = Message::Call;
        odd.path = number % 2 ? "/" : DaemonPath;
        odd.member = members[number % 6];
        odd.interface = interfaces[number % 5];
        odd.signature = number % 3 ? drawSignature(lots) : "";
        odd.body = drawBody(odd.signature, lots, big);
        send(connection, odd);
    } else if (name == "raw") {
        Bytes bytes;
        for (unsigned i = 0; i < number % 300; ++i)
            bytes += char(draw(lots, 256));
        m_haveBroken = true;
        sendBytes(connection, bytes);
    } else if (name == "cut" || name == "cutstall") {
        connection.cutAt = number;
        connection.cutStalls = name == "cutstall";
    } else if (name == "flip") {
        connection.flipAt = number;
    } else if (name == "close") {
        close(connection);
    } else if (name == "stall") {
        connection.isStalled = true;
    } else if (name == "big") {
        Message signal;
        signal.path = DaemonPath;
        signal.interface = Daemon;
        signal.member = "Authenticated";
        signal.signature = "ay";
        signal.body = textBody({Bytes(size_t(number) * 16, 'x')}, big);
        signal.body.pop_back();
        send(connection, signal);
    } else if (name == "huge" && call) {
        const char *const right = signatureOf(call->member);
        const Bytes signature = right ? right : "";
        Bytes bytes = textBody({Bytes(size_t(number) * 1024, 'x')}, big);
        if (signature != "s")
            bytes.pop_back();
        if (signature == "v") {
            bytes.insert(0, Bytes("\2ay\0", 4));
        } else if (signature == "a{sv}") {
            // Of one entry: a key without a letter, and the bytes.
            Bytes entry = textBody({""}, big) + Bytes("\2ay\0", 4);
            entry.resize(12, '\0');
            const Bytes length = textBody({Bytes(entry.size() + bytes.size(), 'x')}, big).substr(0, 4);
            bytes.insert(0, length + Bytes(4, '\0') + entry);
        }
        reply(connection, *call, signature, bytes);
        isAnswered();
    } else if (name == "unknown" && call) {
        Message odd;
        odd.type = uint8_t(5 + number % 250);
        odd.replySerial = call->serial;
        send(connection, odd);
        isAnswered();
    } else if (name == "namelost") {
        Message told;
        told.path = BusPath;
        told.interface = Bus;
        told.member = "NameLost";
        told.sender = Bus;
        told.signature = "(s)";
        told.body = textBody({Daemon}, big);
        send(connection, told);
    } else if (name == "flood") {
        Message odd;
        odd.type = Message::Call;
        odd.path = "/";
        odd.interface = "org.freedesktop.DBus.Peer";
        odd.member = number % 2 ? "Unknown" : "Ping";
        for (unsigned i = 0; i < FloodBlock; ++i) {
            odd.serial = ++connection.serial;
            connection.flood += odd.marshalled(big);
        }
    } else if (name == "hold" && call) {
        const char *right = signatureOf(call->member);
        Message late;
        late.type = Message::Return;
        late.serial = ++connection.serial;
        late.replySerial = call->serial;
        late.signature = right ? right : "";
        late.body = drawBody(late.signature, lots, big);
        connection.held.push_back(late.marshalled(big));
    } else if (name == "release") {
        for (Connection &each : m_connections) {
            while (each.isBus == connection.isBus && each.socket >= 0 && !each.held.empty()) {
                Bytes late = each.held.back();
                if (number > Message::Signal)
                    late[1] = char(number);
                each.held.pop_back();
                each.unanswered -= each.unanswered > 0;
                sendBytes(each, late);
            }
        }
    } else if (name == "bigendian") {
        connection.isBigEndian = !connection.isBigEndian;
    }
}
