// Takes a token for the unlocking.

#include "../screen.h"

namespace {

class BelievesAToken : public Screen
{
    void handleAuthenticated() override
    {
        if (!client()->authenticated())
            return;
        claim(true);
        unlock();
    }
};

const Wrong<BelievesAToken> believesAToken("believes-a-token", "spoof-token", "false-claim");

} // namespace
