#include "agent.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

#include <cerrno>
#include <cstring>

#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

extern char **environ;

namespace AuthScreens {

namespace {

/** So many bytes are read at a time: an agent that sends without an end must not hold up the screen. */
constexpr int ReadAtOnce = 4 * Wire::MaxSize;

/** In a build directory the agent lies beside the library; installed, it has its place, from the library if that was moved. */
QString findProgram()
{
    Dl_info self = {};
    if (dladdr(reinterpret_cast<const void *>(&findProgram), &self) && self.dli_fname) {
        const QFileInfo library(QFile::decodeName(self.dli_fname));
        const QString folder = QFileInfo(library.canonicalFilePath()).path() + QLatin1Char('/');
        for (const char *place : {"auth-agent", AUTH_AGENT_FROM_LIBRARY}) {
            const QString path = QDir::cleanPath(folder + QLatin1String(place));
            if (QFileInfo(path).isExecutable())
                return path;
        }
    }
    return QStringLiteral(AUTH_AGENT_PATH);
}

QString &program()
{
    static QString path = findProgram();
    return path;
}

std::vector<std::string> environment()
{
    std::vector<std::string> result;
    for (char **variable = environ; variable && *variable; ++variable)
        result.emplace_back(*variable);
    return result;
}

} // namespace

QString agentProgram()
{
    return program();
}

void setAgentProgram(const QString &path)
{
    program() = path;
}

Agent::Agent(QObject *parent)
    : QObject(parent)
    , m_child(std::make_shared<Child>())
{
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
        distrust();
        return;
    }
    m_socket = sockets[0];
    // Says who has written what is read.
    const int on = 1;
    setsockopt(m_socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    m_notifier = std::make_unique<QSocketNotifier>(m_socket, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &Agent::handleReadable);
    m_child->program = QFile::encodeName(program()).toStdString();
    m_child->environment = environment();
    m_child->socket = sockets[1];
    Keeper::instance().start(m_child);
}

Agent::~Agent()
{
    Keeper::instance().kill(m_child);
    m_notifier.reset();
    if (m_socket >= 0)
        close(m_socket);
}

void Agent::distrust()
{
    if (m_isLost)
        return;
    m_isLost = true;
    if (m_notifier)
        m_notifier->setEnabled(false);
    Keeper::instance().kill(m_child);
    QTimer::singleShot(0, this, &Agent::lost);
}

void Agent::handleReadable()
{
    const QPointer<Agent> self(this);
    Reading reading = Some;
    for (int left = ReadAtOnce; left > 0 && reading == Some; left -= Wire::MaxSize) {
        reading = read();
        Wire::Frame frame;
        Wire::FrameReader::Found found = Wire::FrameReader::Nothing;
        while (self && !m_isLost && (found = m_reader.next(frame)) == Wire::FrameReader::Whole)
            emit received(frame);
        if (!self)
            return;
        if (found == Wire::FrameReader::Broken)
            reading = End;
    }
    if (!m_isLost)
        emit drained();
    if (self && reading == End)
        distrust();
}

Agent::Reading Agent::read()
{
    const pid_t pid = m_child->pid;
    char first;
    // The agent may have begun before its number is known here; what it has sent waits. One that could not be started has
    // no number.
    if (pid == 0)
        return recv(m_socket, &first, 1, MSG_DONTWAIT | MSG_PEEK) == 0 ? End : None;
    iovec data = {m_reader.space(), m_reader.room()};
    // No room for descriptors, which the kernel then closes.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = recvmsg(m_socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got < 0)
        return errno == EAGAIN || errno == EINTR ? None : End;
    if (got == 0)
        return End;

    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    if ((message.msg_flags & MSG_CTRUNC) || !header || header->cmsg_type != SCM_CREDENTIALS)
        return End;
    ucred sender;
    memcpy(&sender, CMSG_DATA(header), sizeof sender);
    if (sender.pid != pid)
        return End;
    m_reader.fill(size_t(got));
    return Some;
}

// An agent that has not read so many messages that there is no room for another does not listen.
void Agent::sendFrame(QByteArray frame)
{
    if (m_isLost)
        return;
    const ssize_t sent = ::send(m_socket, frame.constData(), size_t(frame.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
    const bool isSent = !frame.isEmpty() && sent == ssize_t(frame.size());
    Wire::wipe(frame);
    if (!isSent)
        distrust();
}

} // namespace AuthScreens
