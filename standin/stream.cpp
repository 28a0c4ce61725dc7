#include "stream.h"

#include "util.h"

#include <cerrno>
#include <glib-unix.h>
#include <glib/gstdio.h>
#include <map>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

sockaddr_un addressOf(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        throw std::runtime_error(path + ": the path is too long for a socket");
    path.copy(address.sun_path, path.size());
    return address;
}

/** A peer with more than this unread is not listened to until it has read. */
constexpr size_t mostOutput = 16 << 20;

using FileId = std::pair<dev_t, ino_t>;

/** Which socket files this program has made, by path. */
std::map<std::string, FileId> &ownFiles()
{
    static std::map<std::string, FileId> files;
    return files;
}

/** Throws for a file that somebody may want to keep. */
void refuseOtherFile(const std::string &path)
{
    struct stat file = {};
    if (lstat(path.c_str(), &file) == 0 && !S_ISSOCK(file.st_mode))
        throw std::runtime_error("cannot listen on " + path + ": the file that is there is no socket");
}

int newSocket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

} // namespace

std::shared_ptr<Stream> Stream::create(int fd, InputHandler onInput, CloseHandler onClosed, int priority,
                                       InputHandler onEnd)
{
    return std::shared_ptr<Stream>(new Stream(fd, std::move(onInput), std::move(onClosed), priority, std::move(onEnd)));
}

Stream::Stream(int fd, InputHandler onInput, CloseHandler onClosed, int priority, InputHandler onEnd)
    : m_fd(fd)
    , m_priority(priority)
    , m_onInput(std::move(onInput))
    , m_onClosed(std::move(onClosed))
    , m_onEnd(std::move(onEnd))
{
    watchInput();
}

Stream::~Stream()
{
    close();
}

void Stream::write(const char *data, size_t size)
{
    if (!isOpen())
        return;
    m_output.append(data, size);
    if (!m_writeSource && !writePending())
        m_writeSource = g_unix_fd_add(m_fd, G_IO_OUT, onWritable, this);
    if (m_readSource && !m_ended && m_output.size() > mostOutput) {
        g_source_remove(m_readSource);
        m_readSource = 0;
    }
}

void Stream::finish()
{
    m_finishing = true;
    if (isOpen() && m_output.empty())
        shutdown(m_fd, SHUT_WR);
}

void Stream::close()
{
    if (!isOpen())
        return;
    if (m_readSource)
        g_source_remove(m_readSource);
    if (m_writeSource)
        g_source_remove(m_writeSource);
    ::close(m_fd);
    m_fd = -1;
}

gboolean Stream::onReadable(int, GIOCondition, gpointer self)
{
    // A handler may give up the last reference to the stream.
    const std::shared_ptr<Stream> stream = static_cast<Stream *>(self)->shared_from_this();
    stream->read();
    return G_SOURCE_CONTINUE;
}

gboolean Stream::onHungUp(int, GIOCondition, gpointer self)
{
    const std::shared_ptr<Stream> stream = static_cast<Stream *>(self)->shared_from_this();
    stream->close();
    stream->m_onClosed();
    return G_SOURCE_CONTINUE;
}

void Stream::watchInput()
{
    m_readSource = m_ended ? g_unix_fd_add_full(m_priority, m_fd, G_IO_HUP, onHungUp, this, nullptr)
                           : g_unix_fd_add_full(m_priority, m_fd, G_IO_IN, onReadable, this, nullptr);
}

gboolean Stream::onWritable(int, GIOCondition, gpointer self)
{
    auto *stream = static_cast<Stream *>(self);
    if (!stream->writePending())
        return G_SOURCE_CONTINUE;
    stream->m_writeSource = 0;
    if (!stream->m_readSource)
        stream->watchInput();
    if (stream->m_finishing)
        stream->finish();
    return G_SOURCE_REMOVE;
}

void Stream::read()
{
    char buffer[65536];
    const ssize_t size = recv(m_fd, buffer, sizeof buffer, 0);
    if (size > 0) {
        m_input.append(buffer, static_cast<size_t>(size));
        m_onInput(m_input);
    } else if (size == 0 && m_onEnd) {
        m_ended = true;
        g_source_remove(m_readSource);
        watchInput();
        m_onEnd(m_input);
    } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
        close();
        m_onClosed();
    }
}

/** Returns false when the socket is full. A broken connection is left to read(), which hears of it too. */
bool Stream::writePending()
{
    size_t done = 0;
    while (done < m_output.size()) {
        const ssize_t size = send(m_fd, m_output.data() + done, m_output.size() - done, MSG_NOSIGNAL);
        if (size >= 0) {
            done += static_cast<size_t>(size);
        } else if (errno == EAGAIN) {
            m_output.erase(0, done);
            return false;
        } else if (errno != EINTR) {
            break;
        }
    }
    m_output.clear();
    return true;
}

Listener::Listener(const std::string &path, mode_t mode, AcceptHandler onAccept)
    : m_fd(newSocket())
    , m_onAccept(std::move(onAccept))
{
    g_autofree char *directory = g_path_get_dirname(path.c_str());
    const std::string newPath = path + ".new";
    bool bound = false;
    try {
        const sockaddr_un address = addressOf(newPath);
        refuseOtherFile(path);
        refuseOtherFile(newPath);
        g_unlink(newPath.c_str());
        struct stat file = {};
        bound = m_fd >= 0 && g_mkdir_with_parents(directory, 0755) == 0
            && bind(m_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        if (!bound || g_chmod(newPath.c_str(), mode) != 0 || ::listen(m_fd, SOMAXCONN) != 0
            || lstat(newPath.c_str(), &file) != 0 || g_rename(newPath.c_str(), path.c_str()) != 0)
            throw std::runtime_error("cannot listen on " + path + ": " + g_strerror(errno));
        ownFiles()[path] = {file.st_dev, file.st_ino};
    } catch (...) {
        if (bound)
            g_unlink(newPath.c_str());
        ::close(m_fd);
        throw;
    }
    watch();
}

Listener::~Listener()
{
    g_source_remove(m_source);
    ::close(m_fd);
}

bool Listener::isAlive(const std::string &path)
{
    const sockaddr_un address = addressOf(path);
    const int fd = newSocket();
    // EAGAIN: the socket's owner listens, but is slow to accept.
    const bool alive =
        connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 || errno == EAGAIN;
    ::close(fd);
    return alive;
}

void Listener::removeFile(const std::string &path)
{
    const auto own = ownFiles().find(path);
    struct stat file = {};
    if (own != ownFiles().end() && lstat(path.c_str(), &file) == 0 && own->second == FileId(file.st_dev, file.st_ino))
        g_unlink(path.c_str());
}

gboolean Listener::onConnection(int listeningFd, GIOCondition, gpointer self)
{
    auto *listener = static_cast<Listener *>(self);
    const int fd = accept4(listeningFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
        listener->m_onAccept(fd);
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // Nothing tells when a descriptor is free again, and the connection would wake the loop all the time.
        listener->m_source = after(100, [listener] { listener->watch(); });
        return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
}

void Listener::watch()
{
    m_source = g_unix_fd_add(m_fd, G_IO_IN, onConnection, this);
}
