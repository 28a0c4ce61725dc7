// Takes every state for open that is not Locked.

#include "../screen.h"

namespace {

class TakesLockoutsForOpen : public Screen
{
    void handleState(int state) override
    {
        claim(state != AuthDevlockClient::Locked && state != AuthDevlockClient::Undefined);
    }
};

const Wrong<TakesLockoutsForOpen> takesLockoutsForOpen("takes-lockouts-for-open", "lockout-code-entry,lockout-manager",
                                                       "false-claim");

} // namespace
