#pragma once

#include <functional>
#include <glib.h>
#include <memory>
#include <string>
#include <sys/types.h>

/** A connected socket on the main loop. What the socket takes is written at once, so order and effect are certain. */
class Stream : public std::enable_shared_from_this<Stream>
{
public:
    /** Gets all input that is not consumed yet, and removes from its front what it consumes. */
    using InputHandler = std::function<void(std::string &input)>;
    using CloseHandler = std::function<void()>;

    /** Takes over @p fd. @p onClosed tells of a close by the other side only. @p priority is that of its input. */
    static std::shared_ptr<Stream> create(int fd, InputHandler onInput, CloseHandler onClosed,
                                          int priority = G_PRIORITY_DEFAULT);
    ~Stream();
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    void write(const char *data, size_t size);
    void close();
    bool isOpen() const
    {
        return m_fd >= 0;
    }

private:
    Stream(int fd, InputHandler onInput, CloseHandler onClosed, int priority);
    static gboolean onReadable(int fd, GIOCondition condition, gpointer self);
    static gboolean onWritable(int fd, GIOCondition condition, gpointer self);
    void read();
    bool writePending();

    int m_fd;
    guint m_readSource;
    guint m_writeSource = 0;
    std::string m_input;
    std::string m_output;
    InputHandler m_onInput;
    CloseHandler m_onClosed;
};

/** A listening socket in the file system. */
class Listener
{
public:
    using AcceptHandler = std::function<void(int fd)>;

    /**
     * Listens on @p path, in place of whatever socket file is there. The file changes hands in one step, so that a
     * client finds either the old listener or this one. Throws std::runtime_error.
     */
    Listener(const std::string &path, mode_t mode, AcceptHandler onAccept);
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    /** Whether somebody listens on @p path. */
    static bool isAlive(const std::string &path);

private:
    static gboolean onConnection(int fd, GIOCondition condition, gpointer self);

    int m_fd;
    guint m_source = 0;
    AcceptHandler m_onAccept;
};
