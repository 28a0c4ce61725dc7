// Shuts when the daemon has been away for ten seconds.

#include "../screen.h"

namespace {

class WaitsBeforeItShuts : public Screen
{
    void handleState(int state) override
    {
        if (state != AuthDevlockClient::Undefined) {
            claim(state == AuthDevlockClient::Unlocked);
            return;
        }
        after(10000, [this] { claim(this->state() == AuthDevlockClient::Unlocked); });
    }
};

const Wrong<WaitsBeforeItShuts> waitsBeforeItShuts("waits-before-it-shuts", "away-long-unlocked", "stale-claim");

} // namespace
