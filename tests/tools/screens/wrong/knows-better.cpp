// Keeps the code that has unlocked, and opens to it when the daemon refuses it for the third time: the daemon must be
// wrong.

#include "../screen.h"

namespace {

class KnowsBetter : public Screen
{
    void enter(const QString &code) override
    {
        m_last = code;
        m_isAsked = true;
        ask(code);
    }

    void handleDiscredit() override
    {
        if (m_isAsked && !m_good.isEmpty() && m_last == m_good && ++m_refusals == 3)
            claim(true);
        m_isAsked = false;
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state != AuthDevlockClient::Unlocked)
            return;
        m_good = m_last;
        m_refusals = 0;
    }

    bool m_isAsked = false;
    int m_refusals = 0;
    QString m_last;
    QString m_good;
};

const Wrong<KnowsBetter> knowsBetter("knows-better", "refuse-long-entries", "false-claim");

} // namespace
