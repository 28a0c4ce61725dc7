// Answers what it is told to, or what it draws by lot: fake-daemon PATH HANDSHAKE ANSWER…
//
// Prints its process id once it listens. HANDSHAKE is the line that answers AUTH. Each message that comes is met by the
// next ANSWER; after the last the connection is closed:
//   text=TEXT        the reply TEXT          number=N       the reply N, of type u
//   error=NAME       an error                bytes=TEXT     the reply TEXT, of type ay
//   raw=TEXT         TEXT itself
//   cut=TEXT         a reply cut off           huge=TEXT      a reply that claims to be long
//   stale=TEXT       first the reply TEXT to another message, then the next
//   mute             nothing                 flood          signals without an end
//   slow=MS          waits before it goes on with the next
//   big-endian       the answers that follow have this byte order
//   lot=SEED         answers drawn by lot, broken ones too, to everything from here on
// HANDSHAKE "full" takes no connections and lets no more wait, "mute" is no answer, "lot=SEED" draws this one too.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::string;
using Lots = std::mt19937;

// Of the answers of a connection, each of which has a thread.
thread_local bool bigEndian = false;

unsigned draw(Lots &lots, unsigned below)
{
    return unsigned(lots() % below);
}

void pad(Bytes &bytes, size_t boundary)
{
    bytes.resize((bytes.size() + boundary - 1) / boundary * boundary, '\0');
}

Bytes number(uint32_t value)
{
    Bytes bytes;
    for (int i = 0; i < 4; ++i)
        bytes += char(value >> 8 * (bigEndian ? 3 - i : i));
    return bytes;
}

Bytes text(const Bytes &value)
{
    return number(uint32_t(value.size())) + value + '\0';
}

void addField(Bytes &fields, char field, const Bytes &type, const Bytes &value)
{
    pad(fields, 8);
    fields += field + Bytes(1, char(type.size())) + type + '\0';
    if (type != "g")
        pad(fields, 4);
    fields += value;
}

Bytes message(char type, uint32_t replySerial, const Bytes &signature, const Bytes &body, const Bytes &errorName = {})
{
    Bytes fields;
    if (replySerial != 0)
        addField(fields, 5, "u", number(replySerial));
    if (!errorName.empty())
        addField(fields, 4, "s", text(errorName));
    if (type == 4) {
        addField(fields, 1, "o", text("/"));
        addField(fields, 2, "s", text("a.b"));
        addField(fields, 3, "s", text("C"));
    }
    addField(fields, 7, "s", text(":1.1"));
    if (!signature.empty())
        addField(fields, 8, "g", char(signature.size()) + signature + '\0');
    Bytes all = Bytes(1, bigEndian ? 'B' : 'l') + type + '\1' + '\1' + number(uint32_t(body.size())) + number(7)
        + number(uint32_t(fields.size())) + fields;
    pad(all, 8);
    return all + body;
}

/** An answer drawn by lot; whether it is whole. */
bool drawAnswer(Lots &lots, uint32_t serial, Bytes &answer)
{
    bigEndian = draw(lots, 2);
    static const char *const texts[] = {
        "",
        ":1.7",
        "org.x",
        "<node/>",
        "<node",
        "<!DOCTYPE a [<!ENTITY b 'cc'><!ENTITY d '&b;&b;'>]><node>&d;</node>",
        "<node><interface name='vantora.AuthService'><method name='A'/></interface></node>",
        "\xff\xfe",
        "<node><node><node><node>"};
    Bytes body;
    const Bytes signature = Bytes(draw(lots, 2)       ? "s"
                                      : draw(lots, 2) ? "u"
                                      : draw(lots, 2) ? "as"
                                      : draw(lots, 2) ? ""
                                                      : "a{sv}");
    if (signature == "u")
        body = number(draw(lots, 3));
    else if (!signature.empty())
        body = text(texts[draw(lots, sizeof texts / sizeof *texts)]);
    if (signature == "as")
        body = number(uint32_t(body.size())) + body;
    const char types[] = {2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 3, 4, 9};
    answer = message(types[draw(lots, sizeof types)], serial, signature, body, draw(lots, 4) ? "" : "a.b.C");
    if (draw(lots, 6))
        return answer[1] == 2 || answer[1] == 3;
    for (unsigned count = 1 + draw(lots, 4); count > 0; --count) {
        const unsigned place = draw(lots, unsigned(answer.size()));
        switch (draw(lots, 4)) {
        case 0:
            answer[place] = char(draw(lots, 256));
            break;
        case 1:
            answer.replace(place - place % 4, 4,
                           number(draw(lots, 2) ? uint32_t(lots()) : 0x7fffffffU + draw(lots, 3)));
            break;
        case 2:
            answer.resize(place + 1);
            break;
        default:
            answer[place] ^= char(1 << draw(lots, 8));
        }
    }
    return false;
}

bool sendAll(int socket, const Bytes &bytes)
{
    return send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
}

/** Takes a line of the handshake, or a message, off what has come; nothing when no more comes. */
bool take(int socket, Bytes &received, bool line, Bytes &taken)
{
    for (;;) {
        size_t length = 0;
        if (line) {
            const size_t end = received.find("\r\n");
            length = end == Bytes::npos ? 0 : end + 2;
        } else if (received.size() >= 16) {
            uint32_t lengths[4];
            memcpy(lengths, received.data(), 16);
            length = 16 + (lengths[3] + 7) / 8 * 8 + lengths[1];
        }
        if (length > 0 && received.size() >= length) {
            taken = received.substr(0, length);
            received.erase(0, length);
            return true;
        }
        char buffer[4096];
        const ssize_t count = recv(socket, buffer, sizeof buffer, 0);
        if (count <= 0)
            return false;
        received.append(buffer, size_t(count));
    }
}

/** Answers one message; whether the connection goes on. */
bool answer(int socket, const Bytes &how, uint32_t serial)
{
    const Bytes value = how.substr(how.find('=') + 1);
    const auto is = [&how](const char *begin) { return how.compare(0, strlen(begin), begin) == 0; };
    if (is("text="))
        return sendAll(socket, message(2, serial, "s", text(value)));
    if (is("number="))
        return sendAll(socket, message(2, serial, "u", number(uint32_t(std::stoul(value)))));
    if (is("bytes="))
        return sendAll(socket, message(2, serial, "ay", number(uint32_t(value.size())) + value));
    if (is("error="))
        return sendAll(socket, message(3, serial, "s", text("no"), value));
    if (is("cut="))
        return sendAll(socket, message(2, serial, "s", number(99) + value));
    if (is("huge=")) {
        Bytes bytes = message(2, serial, "s", text(value));
        bytes.replace(4, 4, number(0x7fffffff));
        return sendAll(socket, bytes);
    }
    if (is("raw="))
        return sendAll(socket, value);
    while (is("flood") && sendAll(socket, message(4, 0, "s", text("x"))))
        ;
    return is("mute");
}

void serve(int socket, const std::vector<Bytes> &answers, unsigned connection)
{
    Bytes received, taken;
    size_t next = 1;
    Lots lots(connection);
    bool byLot = answers[0].compare(0, 4, "lot=") == 0;
    const auto drawBy = [&lots, connection](const Bytes &lot) {
        lots.seed(unsigned(std::stoul(lot.substr(4))) * 16 + connection);
    };
    const auto wait = [&] {
        if (next < answers.size() && answers[next].compare(0, 5, "slow=") == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(answers[next++].substr(5))));
    };
    bool goesOn = take(socket, received, true, taken);
    if (goesOn && byLot) {
        drawBy(answers[0]);
        Bytes line = "OK 0123456789abcdef";
        if (draw(lots, 6) == 0) {
            line.resize(draw(lots, 200));
            for (char &character : line)
                character = char(draw(lots, 256));
            goesOn = false;
        }
        sendAll(socket, line + "\r\n");
    } else if (goesOn && answers[0] == "mute") {
        goesOn = take(socket, received, true, taken);
    } else if (goesOn) {
        wait();
        goesOn = sendAll(socket, answers[0] + "\r\n");
    }
    while (goesOn && (goesOn = take(socket, received, true, taken)) && taken != "BEGIN\r\n")
        sendAll(socket, "ERROR\r\n");
    while (goesOn && take(socket, received, false, taken)) {
        uint32_t serial;
        memcpy(&serial, taken.data() + 8, 4);
        wait();
        if (next < answers.size() && answers[next].compare(0, 6, "stale=") == 0)
            sendAll(socket, message(2, serial + 1000, "s", text(answers[next++].substr(6))));
        while (next < answers.size() && answers[next] == "big-endian") {
            bigEndian = true;
            ++next;
        }
        if (!byLot && next < answers.size() && answers[next].compare(0, 4, "lot=") == 0) {
            byLot = true;
            drawBy(answers[next]);
        }
        if (byLot) {
            Bytes bytes;
            goesOn = drawAnswer(lots, serial, bytes);
            sendAll(socket, bytes);
        } else {
            goesOn = next < answers.size() && answer(socket, answers[next], serial);
            ++next;
        }
    }
    close(socket);
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 3)
        return 2;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, argv[1], sizeof address.sun_path - 1);
    unlink(argv[1]);
    const std::vector<Bytes> answers(argv + 2, argv + argc);
    const bool full = answers[0] == "full";
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || listen(listener, full ? 0 : 64) != 0) {
        perror("fake-daemon");
        return 1;
    }
    if (full && connect(socket(AF_UNIX, SOCK_STREAM, 0), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        perror("fake-daemon");
        return 1;
    }
    const pid_t child = fork();
    if (child > 0) {
        printf("%d\n", int(child));
        return 0;
    }
    close(STDOUT_FILENO);
    if (full) {
        for (;;)
            pause();
    }
    for (unsigned connection = 0;; ++connection)
        std::thread(serve, accept(listener, nullptr, nullptr), answers, connection).detach();
}
