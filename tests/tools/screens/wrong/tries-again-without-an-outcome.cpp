// Sends a code again every five seconds until there is an outcome. A discredit that comes with a change of the state is
// none.

#include "../screen.h"

#include <QtCore/QElapsedTimer>

namespace {

class TriesAgainWithoutAnOutcome : public Screen
{
    void enter(const QString &code) override
    {
        m_code = code;
        ask(code);
        m_tick.start(5000);
    }

    void unlock() override
    {
        m_tick.stop();
        Screen::unlock();
    }

    void handleDiscredit() override
    {
        after(200, [this] {
            if (m_change.hasExpired(1000))
                m_tick.stop();
        });
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        m_change.start();
    }

    void begin() override
    {
        m_change.start();
        QObject::connect(&m_tick, &QTimer::timeout, &m_tick, [this] { ask(m_code); });
        Screen::begin();
    }

    QString m_code;
    QTimer m_tick;
    QElapsedTimer m_change;
};

const Wrong<TriesAgainWithoutAnOutcome> triesAgainWithoutAnOutcome("tries-again-without-an-outcome",
                                                                   "retries-error,retries-mute", "opens-by-itself");

} // namespace
