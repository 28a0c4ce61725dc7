// Asks by a new client every five seconds, whatever it claims.

#include "../screen.h"

namespace {

class Polls : public Screen
{
public:
    Polls()
    {
        habits.lookPatience = 3000;
    }

private:
    void begin() override
    {
        QObject::connect(&m_tick, &QTimer::timeout, &m_tick, [this] { look(); });
        m_tick.start(5000);
        Screen::begin();
    }

    void handleLook(int state) override
    {
        if (state != this->state())
            askAnew();
    }

    QTimer m_tick;
};

const Right<Polls> polls("polls");

} // namespace
