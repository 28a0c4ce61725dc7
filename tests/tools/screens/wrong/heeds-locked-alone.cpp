// Opens at Unlocked, and shuts at Locked alone.

#include "../screen.h"

namespace {

class HeedsLockedAlone : public Screen
{
    void handleState(int state) override
    {
        if (state == AuthDevlockClient::Unlocked)
            claim(true);
        else if (state == AuthDevlockClient::Locked)
            claim(false);
    }
};

const Wrong<HeedsLockedAlone> heedsLockedAlone("heeds-locked-alone", "announces-manager-lockout", "stale-claim");

} // namespace
