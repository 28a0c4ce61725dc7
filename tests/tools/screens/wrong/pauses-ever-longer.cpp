// Pauses after wrong codes, for five seconds first and an hour at last, and begins anew when the device is unlocked.

#include "../screen.h"

namespace {

class PausesEverLonger : public Screen
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
        static const int pauses[] = {5, 30, 300, 3600};
        after(1000 * pauses[m_failures], [this] { m_isPausing = false; });
        m_failures = qMin(m_failures + 1, 3);
    }

    void unlock() override
    {
        m_isAsked = false;
        m_failures = 0;
        Screen::unlock();
    }

    bool m_isAsked = false;
    bool m_isPausing = false;
    int m_failures = 0;
};

const Wrong<PausesEverLonger> pausesEverLonger("pauses-ever-longer", "wrong-codes-many", "no-use");

} // namespace
