// Shuts at once, and then plays a picture of the desk that fades for two seconds, which the desk itself is.

#include "../screen.h"

namespace {

class ComesBack : public Screen
{
    void handleState(int state) override
    {
        const bool wasOpen = claimsUnlocked();
        Screen::handleState(state);
        if (!wasOpen || state == AuthDevlockClient::Unlocked)
            return;
        after(200, [this] { claim(true); });
        after(2200, [this] { claim(this->state() == AuthDevlockClient::Unlocked); });
    }
};

const Wrong<ComesBack> comesBack("comes-back", "locked-long,ordinary", "false-claim");

} // namespace
