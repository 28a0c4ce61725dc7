// Has another process draw the clock, which ends with it.

#include "../screen.h"

#include <QtCore/QProcess>

#include <csignal>
#include <sys/prctl.h>

namespace {

class HasAChild : public Screen
{
    void begin() override
    {
        m_clock.start(QStringLiteral("sh"), {QStringLiteral("-c"), QStringLiteral("exec cat")});
        Screen::begin();
    }

    class Clock : public QProcess
    {
        void setupChildProcess() override
        {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
        }
    };

    Clock m_clock;
};

const Right<HasAChild> hasAChild("has-a-child");

} // namespace
