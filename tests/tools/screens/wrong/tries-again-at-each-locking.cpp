// Sends a code that has not unlocked yet again when the state becomes Locked, as that ends what is under way.

#include "../screen.h"

namespace {

class TriesAgainAtEachLocking : public Screen
{
    void enter(const QString &code) override
    {
        m_code = code;
        ask(code);
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Unlocked)
            m_code.clear();
        else if (state == AuthDevlockClient::Locked)
            after(300, [this] { askAgain(); });
    }

    // The locking has ended what was under way by now.
    void askAgain()
    {
        if (state() == AuthDevlockClient::Locked && !m_code.isEmpty())
            ask(m_code);
    }

    QString m_code;
};

const Wrong<TriesAgainAtEachLocking> triesAgainAtEachLocking("tries-again-at-each-locking", "retries-mute",
                                                             "opens-by-itself");

} // namespace
