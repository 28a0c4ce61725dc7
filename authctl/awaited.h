#pragma once

#include <QtCore/QDeadlineTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QTimer>

#include <optional>

/** Something that is waited for in the event loop. It is the context of the connections that bring it about. */
template <typename Value> class Awaited : public QObject
{
public:
    void set(const Value &value)
    {
        m_value = value;
        m_loop.quit();
    }

    std::optional<Value> wait(const QDeadlineTimer &deadline)
    {
        if (!m_value) {
            QTimer timer;
            QObject::connect(&timer, &QTimer::timeout, &m_loop, &QEventLoop::quit);
            timer.start(int(deadline.remainingTime()));
            m_loop.exec();
        }
        return m_value;
    }

private:
    QEventLoop m_loop;
    std::optional<Value> m_value;
};
