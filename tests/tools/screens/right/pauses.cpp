// Takes no code for a while after a wrong one: 1, 2, 4 and at most 8 seconds.

#include "../screen.h"

namespace {

class Pauses : public Screen
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
        m_pause = qMin(2 * m_pause, 8000);
    }

    void unlock() override
    {
        m_isAsked = false;
        m_pause = 1000;
        Screen::unlock();
    }

    bool m_isAsked = false;
    bool m_isPausing = false;
    int m_pause = 1000;
};

const Right<Pauses> pauses("pauses");

} // namespace
