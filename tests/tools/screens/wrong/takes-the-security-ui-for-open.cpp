// Takes SecurityUi for a page over a desk in use.

#include "../screen.h"

namespace {

class TakesTheSecurityUiForOpen : public Screen
{
    void handleState(int state) override
    {
        claim(state == AuthDevlockClient::Unlocked || (state == AuthDevlockClient::SecurityUi && claimsUnlocked()));
    }
};

const Wrong<TakesTheSecurityUiForOpen> takesTheSecurityUiForOpen("takes-the-security-ui-for-open",
                                                                 "announces-security-ui", "stale-claim");

} // namespace
