#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace AuthScreens {

/** A process that the Keeper starts, or has started. */
struct Child
{
    std::string program;
    std::vector<std::string> environment;
    /** The descriptor that it gets as Wire::Descriptor; closed here once it has it. */
    int socket = -1;
    /** 0 until it runs. */
    std::atomic<pid_t> pid{0};
    /** It is killed, or not started at all. */
    std::atomic<bool> isUnwanted{false};
    /** For the Keeper alone. */
    int descriptor = -1;
};

/**
 * Starts processes, kills them and waits for their ends, in a thread of its own: none of these may hold up a screen, and
 * the kernel kills a process that wants to die with its parent when the thread that has started it ends. So this thread
 * ends with the process.
 */
class Keeper
{
public:
    static Keeper &instance();

    void start(const std::shared_ptr<Child> &child);
    void kill(const std::shared_ptr<Child> &child);

private:
    Keeper();
    void run();
    void launch(Child &child);
    void wake() const;

    const int m_bell;
    std::mutex m_mutex;
    std::vector<std::shared_ptr<Child>> m_new;
};

} // namespace AuthScreens
