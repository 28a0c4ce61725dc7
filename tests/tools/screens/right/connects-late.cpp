// Makes its client when the first code is entered.

#include "../screen.h"

namespace {

class ConnectsLate : public Screen
{
    void begin() override
    {
        tell("locked\n");
        askAnew();
    }

    void enter(const QString &code) override
    {
        m_code = code;
        if (client() && state() != AuthDevlockClient::Undefined) {
            ask(code);
            return;
        }
        if (!client())
            makeClient();
        askAnew();
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Locked && client() && !m_code.isEmpty())
            ask(m_code);
        if (state != AuthDevlockClient::Undefined)
            m_code.clear();
    }

    QString m_code;
};

const Right<ConnectsLate> connectsLate("connects-late");

} // namespace
