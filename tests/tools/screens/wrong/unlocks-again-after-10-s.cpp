// Enters the last good code again ten seconds after a locking, and forgets it only then.

#include "../screen.h"

namespace {

class UnlocksAgainAfter10S : public Screen
{
    void enter(const QString &code) override
    {
        m_code = code;
        ask(code);
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Unlocked)
            m_good = m_code;
        else if (state == AuthDevlockClient::Locked && !m_good.isEmpty())
            after(10000, [this] { useUp(); });
    }

    void useUp()
    {
        if (state() == AuthDevlockClient::Locked && !m_good.isEmpty())
            ask(m_good);
        m_good.clear();
    }

    QString m_code;
    QString m_good;
};

const Wrong<UnlocksAgainAfter10S> unlocksAgainAfter10S("unlocks-again-after-10-s", "locked-long", "opens-by-itself");

} // namespace
