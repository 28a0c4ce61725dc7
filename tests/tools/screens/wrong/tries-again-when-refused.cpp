// Sends a code again every three seconds until that unlocks: the daemon may just have been busy.

#include "../screen.h"

namespace {

class TriesAgainWhenRefused : public Screen
{
    void enter(const QString &code) override
    {
        m_code = code;
        ask(code);
    }

    void handleDiscredit() override
    {
        after(3000, [this] {
            if (!m_code.isEmpty() && !client()->progress())
                ask(m_code);
        });
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Unlocked)
            m_code.clear();
    }

    QString m_code;
};

const Wrong<TriesAgainWhenRefused> triesAgainWhenRefused("tries-again-when-refused", "retries-false",
                                                         "opens-by-itself");

} // namespace
