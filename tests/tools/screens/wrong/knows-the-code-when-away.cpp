// Keeps the code that has unlocked, and judges codes by itself while the daemon is away.

#include "../screen.h"

namespace {

class KnowsTheCodeWhenAway : public Screen
{
    void enter(const QString &code) override
    {
        if (state() == AuthDevlockClient::Undefined && !m_good.isEmpty() && code == m_good)
            claim(true);
        m_last = code;
        ask(code);
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Unlocked)
            m_good = m_last;
    }

    QString m_last;
    QString m_good;
};

const Wrong<KnowsTheCodeWhenAway> knowsTheCodeWhenAway("knows-the-code-when-away", "away-long-entries", "false-claim");

} // namespace
