// Keeps the code that has unlocked, and opens to it when nothing has come of it for a second.

#include "../screen.h"

namespace {

class KnowsTheCodeWhenNothingComes : public Screen
{
    void enter(const QString &code) override
    {
        m_last = code;
        ask(code);
        after(1000, [this, code] {
            if (client()->progress() && !m_good.isEmpty() && code == m_good)
                claim(true);
        });
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

const Wrong<KnowsTheCodeWhenNothingComes> knowsTheCodeWhenNothingComes("knows-the-code-when-nothing-comes",
                                                                       "error-long-entries,mute-long-entries",
                                                                       "false-claim");

} // namespace
