// Counts a manager's lockout down from thirty, as it does the daemon's own, and opens at zero.

#include "../screen.h"

namespace {

class CountsDownTheManagersLockout : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        m_left = 30;
        if (state == AuthDevlockClient::ManagerLockout)
            m_tick.start(1000);
        else
            m_tick.stop();
    }

    void begin() override
    {
        QObject::connect(&m_tick, &QTimer::timeout, &m_tick, [this] {
            if (--m_left == 0)
                claim(true);
        });
        Screen::begin();
    }

    QTimer m_tick;
    int m_left = 0;
};

const Wrong<CountsDownTheManagersLockout> countsDownTheManagersLockout("counts-down-the-managers-lockout",
                                                                       "manager-lockout-long-entries", "false-claim");

} // namespace
