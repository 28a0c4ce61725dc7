// When a look has not found the device unlocked, it asks another client first, and shuts then.

#include "../screen.h"

namespace {

class AsksBeforeItShuts : public Screen
{
    void handleLook(int state) override
    {
        if (state == AuthDevlockClient::Unlocked)
            return;
        m_referee = std::make_unique<AuthDevlockClient>();
        after(1000, [this] {
            if (m_referee->state() != AuthDevlockClient::Unlocked)
                askAnew();
        });
    }

    std::unique_ptr<AuthDevlockClient> m_referee;
};

const Wrong<AsksBeforeItShuts> asksBeforeItShuts("asks-before-it-shuts", "locks-unheard-deaf", "stale-claim");

} // namespace
