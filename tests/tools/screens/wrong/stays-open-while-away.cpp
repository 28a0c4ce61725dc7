// Does not let its picture flicker while the daemon restarts.

#include "../screen.h"

namespace {

class StaysOpenWhileAway : public Screen
{
    void handleState(int state) override
    {
        if (state != AuthDevlockClient::Undefined)
            claim(state == AuthDevlockClient::Unlocked);
    }
};

const Wrong<StaysOpenWhileAway> staysOpenWhileAway("stays-open-while-away", "away-long-unlocked,restart-unlocked",
                                                   "stale-claim");

} // namespace
