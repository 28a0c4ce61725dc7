// Enters the code again when the daemon is back that has gone while the device was in use.

#include "../screen.h"

namespace {

class UnlocksAgainWhenTheDaemonReturns : public Screen
{
    void enter(const QString &code) override
    {
        m_code = code;
        ask(code);
    }

    void handleState(int state) override
    {
        const bool wasOpen = claimsUnlocked();
        Screen::handleState(state);
        if (state == AuthDevlockClient::Undefined) {
            m_wasInUse = m_wasInUse || wasOpen;
            return;
        }
        if (m_wasInUse && state == AuthDevlockClient::Locked)
            ask(m_code);
        m_wasInUse = false;
    }

    bool m_wasInUse = false;
    QString m_code;
};

const Wrong<UnlocksAgainWhenTheDaemonReturns> unlocksAgainWhenTheDaemonReturns("unlocks-again-when-the-daemon-returns",
                                                                               "away-locked-long", "opens-by-itself");

} // namespace
