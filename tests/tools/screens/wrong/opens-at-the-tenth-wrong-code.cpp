// Counts the tries that are left in an unsigned byte, and takes a number above the first for "no limit, no code".

#include "../screen.h"

namespace {

class OpensAtTheTenthWrongCode : public Screen
{
    void enter(const QString &code) override
    {
        m_isAsked = true;
        ask(code);
    }

    void handleDiscredit() override
    {
        if (!m_isAsked)
            return;
        m_isAsked = false;
        --m_left;
        if (m_left > 9)
            claim(true);
    }

    bool m_isAsked = false;
    quint8 m_left = 9;
};

const Wrong<OpensAtTheTenthWrongCode> opensAtTheTenthWrongCode("opens-at-the-tenth-wrong-code", "wrong-codes-many",
                                                               "false-claim");

} // namespace
