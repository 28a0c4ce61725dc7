#include "channel.h"
#include "follower.h"
#include "judge.h"
#include "reader.h"

#include <QtCore/QCoreApplication>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace AuthScreens;

namespace {

Channel *theChannel = nullptr;

bool isSocket(int descriptor)
{
    int type = 0;
    socklen_t size = sizeof type;
    return getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM;
}

// The screen may have opened descriptors that are not closed by exec().
void closeOthers()
{
    constexpr unsigned first = Wire::Descriptor + 1;
#ifdef SYS_close_range
    if (syscall(SYS_close_range, first, ~0U, 0) == 0)
        return;
#endif
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    for (unsigned descriptor = first; descriptor < limit.rlim_cur; ++descriptor)
        close(int(descriptor));
}

// Secrets pass through here: no other process of the user's may look, and no file may keep them.
void shutOff()
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    prctl(PR_SET_DUMPABLE, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

// The classes of libauth-client end the process where the daemon cannot be reached.
void tellEnd()
{
    if (theChannel)
        theChannel->send(Wire::Gone());
    _exit(EXIT_FAILURE);
}

/** Does what the screen wants; what it wants first decides what it may want later. */
class Task : public QObject
{
    Q_OBJECT

public:
    explicit Task(Channel *channel)
        : m_channel(channel)
    {
        connect(channel, &Channel::received, this, &Task::handle);
    }

private:
    void handle(const Wire::Frame &frame)
    {
        Wire::Follow follow;
        Wire::Prepare prepare;
        Wire::Attempt attempt;
        Wire::Lock lock;
        Wire::Read read;
        if (decode(frame, follow) && !m_judge) {
            if (!m_follower)
                m_follower = std::make_unique<Follower>(m_channel);
            m_follower->follow(follow.epoch);
        } else if (decode(frame, prepare) && !m_follower && !m_judge) {
            m_judge = std::make_unique<Judge>(m_channel);
        } else if (decode(frame, attempt) && m_judge) {
            m_judge->ask(&attempt);
        } else if (decode(frame, lock) && !m_follower && !m_judge) {
            AuthDevlockClient().setState(AuthDevlockClient::Locked);
            m_channel->send(Wire::Outcome());
        } else if (decode(frame, read) && !m_follower && !m_judge) {
            Wire::Choice choice;
            if (readChoice(read.uid, &choice))
                m_channel->send(choice);
            else
                m_channel->send(Wire::Outcome{Wire::Result::Unavailable});
        } else {
            m_channel->refuse();
        }
    }

    Channel *const m_channel;
    std::unique_ptr<Follower> m_follower;
    std::unique_ptr<Judge> m_judge;
};

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 1 || !isSocket(Wire::Descriptor)) {
        fputs("auth-agent works for a screen that is made with libauth-screens, which starts it.\n", stderr);
        return 2;
    }
    shutOff();
    closeOthers();
    QCoreApplication application(argc, argv);
    Channel channel(Wire::Descriptor);
    theChannel = &channel;
    std::atexit(tellEnd);
    Task task(&channel);
    return QCoreApplication::exec();
}

#include "main.moc"
