// Asks for the state every five seconds while it does not know it, and opens after the ninth time.

#include "../screen.h"

#include <climits>

namespace {

class OpensAfter45S : public Screen
{
public:
    OpensAfter45S()
    {
        habits.firstPause = INT_MAX;
    }

private:
    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Undefined)
            m_tick.start(5000);
        else
            m_tick.stop();
        m_count = 0;
    }

    void begin() override
    {
        QObject::connect(&m_tick, &QTimer::timeout, &m_tick, [this] {
            if (++m_count < 9)
                askAnew();
            else
                claim(true);
        });
        Screen::begin();
    }

    QTimer m_tick;
    int m_count = 0;
};

const Wrong<OpensAfter45S> opensAfter45S("opens-after-45-s", "away-long", "false-claim");

} // namespace
