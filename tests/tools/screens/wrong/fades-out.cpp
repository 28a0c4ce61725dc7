// Lets the desk fade for two seconds.

#include "../screen.h"

namespace {

class FadesOut : public Screen
{
    void handleState(int state) override
    {
        if (state == AuthDevlockClient::Unlocked)
            claim(true);
        else
            after(2000, [this] { claim(this->state() == AuthDevlockClient::Unlocked); });
    }
};

const Wrong<FadesOut> fadesOut("fades-out", "locked-long,ordinary", "stale-claim");

} // namespace
