// Makes a client for each attempt, which hears of nothing else.

#include "../screen.h"

namespace {

class ClientForEachAttempt : public Screen
{
    void enter(const QString &code) override
    {
        if (claimsUnlocked())
            return;
        m_code = code;
        makeClient();
        // The new client says once that the device is locked, and the new follower follows it in that.
        askAnew();
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Undefined || m_code.isEmpty())
            return;
        ask(m_code);
        m_code.clear();
    }

    QString m_code;
};

const Right<ClientForEachAttempt> clientForEachAttempt("client-for-each-attempt");

} // namespace
