// Sleeps for two minutes after a wrong code, lest somebody guesses.

#include "../screen.h"

#include <QtCore/QThread>

namespace {

class SleepsAfterAWrongCode : public Screen
{
    void handleDiscredit() override
    {
        if (m_isAsked)
            QThread::sleep(120);
        m_isAsked = false;
    }

    void ask(const QString &code) override
    {
        m_isAsked = true;
        Screen::ask(code);
    }

    bool m_isAsked = false;
};

const Wrong<SleepsAfterAWrongCode> sleepsAfterAWrongCode("sleeps-after-a-wrong-code", "ordinary", "no-use");

} // namespace
