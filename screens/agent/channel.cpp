#include "channel.h"

#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

using namespace AuthScreens;

Channel::Channel(int descriptor)
    : m_descriptor(descriptor)
    , m_notifier(descriptor, QSocketNotifier::Read)
{
    connect(&m_notifier, &QSocketNotifier::activated, this, &Channel::handleReadable);
}

void Channel::refuse()
{
    _exit(3);
}

void Channel::handleReadable()
{
    const ssize_t got = recv(m_descriptor, m_reader.space(), m_reader.room(), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    // Static objects are left to the kernel: nothing here outlives the process.
    if (got <= 0)
        _exit(0);
    m_reader.fill(size_t(got));

    Wire::Frame frame;
    Wire::FrameReader::Found found;
    while ((found = m_reader.next(frame)) == Wire::FrameReader::Whole) {
        emit received(frame);
        Wire::wipe(frame.fields);
    }
    if (found == Wire::FrameReader::Broken)
        refuse();
}

// A screen that does not read for minutes stops the agent here, which is then taken for what it is: an agent that does
// not listen.
void Channel::sendFrame(QByteArray frame)
{
    const char *data = frame.constData();
    auto left = size_t(frame.size());
    while (left > 0) {
        const ssize_t sent = ::send(m_descriptor, data, left, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
            _exit(0);
        if (sent > 0) {
            data += sent;
            left -= size_t(sent);
        }
    }
}
