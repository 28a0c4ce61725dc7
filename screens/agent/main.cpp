#include "channel.h"
#include "follower.h"
#include "judge.h"
#include "reader.h"
#include "settings.h"

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

/** Does what the screen wants. */
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
    // What the screen may want depends on what it has wanted first.
    void handle(const Wire::Frame &frame)
    {
        bool isKnown;
        if (m_follower)
            isKnown = handleFollower(frame);
        else if (m_judge)
            isKnown = handleJudge(frame);
        else if (m_settings)
            isKnown = handleSettings(frame);
        else
            isKnown = handleFirst(frame);
        if (!isKnown)
            m_channel->refuse();
    }

    bool handleFirst(const Wire::Frame &frame)
    {
        Wire::Follow follow;
        Wire::Prepare prepare;
        Wire::Lock lock;
        Wire::Read read;
        Wire::Mirror mirror;
        if (decode(frame, follow)) {
            m_follower = std::make_unique<Follower>(m_channel);
            return handleFollower(frame);
        } else if (decode(frame, prepare)) {
            m_client = std::make_unique<AuthClient>();
            m_judge = new Judge(m_channel, m_client.get());
        } else if (decode(frame, lock)) {
            AuthDevlockClient().setState(AuthDevlockClient::Locked);
            m_channel->send(Wire::Outcome());
        } else if (decode(frame, read)) {
            Wire::Choice choice;
            if (readChoice(read.uid, &choice))
                m_channel->send(choice);
            else
                m_channel->send(Wire::Outcome{Wire::Result::Unavailable});
        } else if (decode(frame, mirror)) {
            m_settings = std::make_unique<Settings>(m_channel);
            return handleSettings(frame);
        } else {
            return false;
        }
        return true;
    }

    bool handleFollower(const Wire::Frame &frame)
    {
        Wire::Follow follow;
        if (!decode(frame, follow))
            return false;
        m_follower->follow(follow.epoch);
        return true;
    }

    bool handleJudge(const Wire::Frame &frame)
    {
        Wire::Attempt attempt;
        if (!decode(frame, attempt))
            return false;
        m_judge->ask(&attempt);
        return true;
    }

    bool handleSettings(const Wire::Frame &frame)
    {
        Wire::Mirror mirror;
        Wire::Write write;
        Wire::Attempt attempt;
        Wire::Drop drop;
        if (decode(frame, mirror))
            m_settings->mirror(mirror.uid);
        else if (decode(frame, write))
            m_settings->write(write);
        else if (decode(frame, attempt) && !attempt.unlocks)
            m_settings->ask(&attempt);
        else if (decode(frame, drop))
            m_settings->drop();
        else
            return false;
        return true;
    }

    Channel *const m_channel;
    std::unique_ptr<Follower> m_follower;
    std::unique_ptr<AuthClient> m_client;
    Judge *m_judge = nullptr;
    std::unique_ptr<Settings> m_settings;
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
