// Keeps a code that is entered while it does not know the state, and has it judged when it does.

#include "../screen.h"

namespace {

class KeepsACode : public Screen
{
    void enter(const QString &code) override
    {
        if (state() != AuthDevlockClient::Undefined) {
            ask(code);
            return;
        }
        m_code = code;
        askAnew();
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Locked && !m_code.isEmpty())
            ask(m_code);
        if (state != AuthDevlockClient::Undefined)
            m_code.clear();
    }

    QString m_code;
};

const Right<KeepsACode> keepsACode("keeps-a-code");

} // namespace
