// Shows on the probe that it is alive.

#include "../screen.h"

namespace {

class DrawsALine : public Screen
{
    void begin() override
    {
        Screen::begin();
        QObject::connect(&m_tick, &QTimer::timeout, &m_tick, [this] { tell(QByteArray(64, '.')); });
        m_tick.start(20);
    }

    QTimer m_tick;
};

const Wrong<DrawsALine> drawsALine("draws-a-line", "ordinary", "bad-probe");

} // namespace
