// Doubles its pause with each wrong code that it hears of, without a limit.

#include "../screen.h"

namespace {

class PausesWithoutLimit : public Screen
{
    void enter(const QString &code) override
    {
        if (m_isPausing)
            return;
        m_isAsked = true;
        ask(code);
    }

    void handleDiscredit() override
    {
        if (!m_isAsked)
            return;
        m_isAsked = false;
        m_isPausing = true;
        after(m_pause, [this] { m_isPausing = false; });
        m_pause *= 2;
    }

    bool m_isAsked = false;
    bool m_isPausing = false;
    int m_pause = 1000;
};

const Wrong<PausesWithoutLimit> pausesWithoutLimit("pauses-without-limit", "wrong-codes-many", "no-use");

} // namespace
