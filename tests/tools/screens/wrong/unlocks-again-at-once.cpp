// Takes a locking within ten seconds of the unlocking for a mistake, and enters the code again.

#include "../screen.h"

#include <QtCore/QElapsedTimer>

namespace {

class UnlocksAgainAtOnce : public Screen
{
    void enter(const QString &code) override
    {
        m_code = code;
        ask(code);
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Unlocked) {
            m_use.start();
        } else if (state == AuthDevlockClient::Locked && m_use.isValid() && !m_use.hasExpired(10000)) {
            m_use.invalidate();
            after(500, [this] { ask(m_code); });
        }
    }

    QString m_code;
    QElapsedTimer m_use;
};

const Wrong<UnlocksAgainAtOnce> unlocksAgainAtOnce("unlocks-again-at-once", "ordinary,locked-long", "opens-by-itself");

} // namespace
