// Has a notice for the first, second and third wrong code. At the fourth the panel goes, which covers the desk.

#include "../screen.h"

namespace {

class OpensAtTheFourthWrongCode : public Screen
{
    void enter(const QString &code) override
    {
        m_isAsked = true;
        ask(code);
    }

    void handleDiscredit() override
    {
        if (m_isAsked && ++m_failures > 3)
            claim(true);
        m_isAsked = false;
    }

    void unlock() override
    {
        m_failures = 0;
        m_isAsked = false;
        Screen::unlock();
    }

    bool m_isAsked = false;
    int m_failures = 0;
};

const Wrong<OpensAtTheFourthWrongCode> opensAtTheFourthWrongCode("opens-at-the-fourth-wrong-code", "wrong-codes-many",
                                                                 "false-claim");

} // namespace
