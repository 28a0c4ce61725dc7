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

    /**
     * Takes over @p fd. @p onClosed tells of a close by the other side only. @p priority is that of its input. With
     * @p onEnd, which gets the input that is left over, a side that sends no more may still read: until finish().
     */
    static std::shared_ptr<Stream> create(int fd, InputHandler onInput, CloseHandler onClosed,
                                          int priority = G_PRIORITY_DEFAULT, InputHandler onEnd = nullptr);
    ~Stream();
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    void write(const char *data, size_t size);
    /** Has the stream closed when all is written, which @p onClosed tells, after the other side's end. */
    void finish();
    void close();
    bool isOpen() const
    {
        return m_fd >= 0;
    }

private:
    Stream(int fd, InputHandler onInput, CloseHandler onClosed, int priority, InputHandler onEnd);
    static gboolean onReadable(int fd, GIOCondition condition, gpointer self);
    static gboolean onWritable(int fd, GIOCondition condition, gpointer self);
    static gboolean onHungUp(int fd, GIOCondition condition, gpointer self);
    void watchInput();
    void read();
    bool writePending();

    int m_fd;
    const int m_priority;
    guint m_readSource = 0; ///< 0 while too much output waits
    guint m_writeSource = 0;
    bool m_ended = false;
    bool m_finishing = false;
    std::string m_input;
    std::string m_output;
    InputHandler m_onInput;
    CloseHandler m_onClosed;
    InputHandler m_onEnd;
};

/** A listening socket in the file system. */
class Listener
{
public:
    using AcceptHandler = std::function<void(int fd)>;

    /**
     * Listens on @p path, in place of whatever socket file is there. The file changes hands in one step, so that a
     * client finds either the old listener or this one. Throws std::runtime_error, also when a file is no socket.
     */
    Listener(const std::string &path, mode_t mode, AcceptHandler onAccept);
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    /** Whether somebody listens on @p path. */
    static bool isAlive(const std::string &path);

    /** Removes the socket file @p path if it is the one that this program has put there last. */
    static void removeFile(const std::string &path);

private:
    static gboolean onConnection(int fd, GIOCondition condition, gpointer self);
    void watch();

    int m_fd;
    guint m_source = 0;
    AcceptHandler m_onAccept;
};
