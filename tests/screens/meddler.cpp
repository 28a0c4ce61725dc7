// An agent that goes wrong once: it has the real one work for it, and does to one of its messages what MEDDLER_FAULT names.
// MEDDLER_KIND and MEDDLER_COUNT tell which message of which kind; MEDDLER_DONE is a file that is there once it has been.
// MEDDLER_FORGES is set when the serial numbers of what it sends are to be right all the same.

#include "messages.h"

#include <QtCore/QtEndian>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace AuthScreens;

namespace {

using Bytes = std::vector<char>;

constexpr size_t Header = 10;
quint32 sent = 0;

std::string variable(const char *name)
{
    const char *value = getenv(name);
    return value ? value : "";
}

bool isForging()
{
    return !variable("MEDDLER_FORGES").empty();
}

void write(const Bytes &bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = send(Wire::Descriptor, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (count < 0)
            _exit(0);
        done += size_t(count);
    }
}

void pass(Bytes frame)
{
    if (isForging())
        qToLittleEndian(sent, frame.data() + 6);
    ++sent;
    write(frame);
}

bool isFirst()
{
    const int file = open(variable("MEDDLER_DONE").c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (file < 0)
        return false;
    close(file);
    return true;
}

void meddle(const Bytes &frame, Bytes *kept)
{
    const std::string fault = variable("MEDDLER_FAULT");
    if (fault == "killed") {
        raise(SIGKILL);
    } else if (fault == "killed after it") {
        pass(frame);
        raise(SIGKILL);
    } else if (fault == "ended") {
        _exit(0);
    } else if (fault == "stopped") {
        raise(SIGSTOP);
    } else if (fault == "stopped after it") {
        pass(frame);
        raise(SIGSTOP);
    } else if (fault == "truncated") {
        write(Bytes(frame.begin(), frame.end() - 1));
        _exit(0);
    } else if (fault == "shortened") {
        Bytes shorter(frame.begin(), frame.end() - 1);
        qToLittleEndian(quint32(shorter.size() - 4), shorter.data());
        pass(shorter);
    } else if (fault == "doubled") {
        pass(frame);
        pass(frame);
    } else if (fault == "left out") {
    } else if (fault == "delayed") {
        *kept = frame;
    } else if (fault == "long") {
        Bytes large(frame);
        large.resize(1 << 20, 'x');
        qToLittleEndian(quint32(large.size() - 4), large.data());
        write(large);
    } else if (fault == "padded") {
        Bytes large(frame);
        large.resize(Wire::MaxSize + 4, 'x');
        qToLittleEndian(quint32(large.size() - 4), large.data());
        pass(large);
    } else if (fault == "of another version") {
        Bytes other(frame);
        other[4] = char(Wire::Version + 1);
        pass(other);
    } else if (fault == "of another kind") {
        Bytes other(frame);
        other[5] = char(0xff);
        pass(other);
    } else if (fault == "from the future") {
        Bytes other(frame);
        qToLittleEndian(Wire::bootTime() + Q_UINT64_C(3600000000000), other.data() + Header + 4);
        pass(other);
    } else if (fault == "from a second agent") {
        const pid_t second = fork();
        if (second == 0) {
            write(frame);
            _exit(0);
        }
        waitpid(second, nullptr, 0);
        ++sent;
    } else {
        _exit(99);
    }
}

class Relay
{
public:
    void take(const char *data, size_t size)
    {
        m_bytes.insert(m_bytes.end(), data, data + size);
        while (m_bytes.size() >= 4) {
            const size_t length = 4 + qFromLittleEndian<quint32>(m_bytes.data());
            if (m_bytes.size() < length)
                return;
            handle(Bytes(m_bytes.begin(), m_bytes.begin() + long(length)));
            m_bytes.erase(m_bytes.begin(), m_bytes.begin() + long(length));
        }
    }

private:
    void handle(const Bytes &frame)
    {
        const bool isMeant = quint8(frame.at(5)) == std::stoul(variable("MEDDLER_KIND"))
            && ++m_count == std::stoul(variable("MEDDLER_COUNT"));
        if (isMeant && isFirst()) {
            meddle(frame, &m_kept);
            return;
        }
        pass(frame);
        if (!m_kept.empty())
            pass(m_kept);
        m_kept.clear();
    }

    Bytes m_bytes;
    Bytes m_kept;
    size_t m_count = 0;
};

} // namespace

int main()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        return 98;
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(sockets[1], Wire::Descriptor);
        execl(AUTH_AGENT, "auth-agent", static_cast<char *>(nullptr));
        _exit(97);
    }
    close(sockets[1]);

    Relay relay;
    pollfd polled[] = {{Wire::Descriptor, POLLIN, 0}, {sockets[0], POLLIN, 0}};
    char buffer[65536];
    for (;;) {
        poll(polled, 2, -1);
        if (polled[0].revents) {
            const ssize_t got = recv(Wire::Descriptor, buffer, sizeof buffer, 0);
            if (got <= 0)
                return 0;
            send(sockets[0], buffer, size_t(got), MSG_NOSIGNAL);
        }
        if (polled[1].revents) {
            const ssize_t got = recv(sockets[0], buffer, sizeof buffer, 0);
            if (got <= 0)
                return 1;
            relay.take(buffer, size_t(got));
        }
    }
}
