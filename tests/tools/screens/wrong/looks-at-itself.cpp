// Looks at the state that it knows already.

#include "../screen.h"

namespace {

class LooksAtItself : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        if (claimsUnlocked())
            m_tick.start(30000);
        else
            m_tick.stop();
    }

    void begin() override
    {
        QObject::connect(&m_tick, &QTimer::timeout, &m_tick, [this] { claim(state() == AuthDevlockClient::Unlocked); });
        Screen::begin();
    }

    void look() override
    {
    }

    QTimer m_tick;
};

const Wrong<LooksAtItself> looksAtItself("looks-at-itself", "locks-unheard", "stale-claim");

} // namespace
