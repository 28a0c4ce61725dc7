// Counts wrong codes by itself: after the fifth it takes none for an hour.

#include "../screen.h"

namespace {

class BarsForAnHour : public Screen
{
    void enter(const QString &code) override
    {
        if (m_isBarred)
            return;
        m_isAsked = true;
        ask(code);
    }

    void handleDiscredit() override
    {
        if (!m_isAsked)
            return;
        m_isAsked = false;
        if (++m_failures < 5)
            return;
        m_isBarred = true;
        after(3600000, [this] {
            m_failures = 0;
            m_isBarred = false;
        });
    }

    void unlock() override
    {
        m_isAsked = false;
        m_failures = 0;
        Screen::unlock();
    }

    bool m_isAsked = false;
    bool m_isBarred = false;
    int m_failures = 0;
};

const Wrong<BarsForAnHour> barsForAnHour("bars-for-an-hour", "wrong-codes-many", "no-use");

} // namespace
