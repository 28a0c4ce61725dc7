// Lets the desk fade for three seconds.

#include "../screen.h"

namespace {

class FadesOut : public Screen
{
    void handleState(int state) override
    {
        if (state == AuthDevlockClient::Unlocked)
            claim(true);
        else
            after(3000, [this] { claim(this->state() == AuthDevlockClient::Unlocked); });
    }
};

const Wrong<FadesOut> fadesOut("fades-out", "ordinary,announces-*", "stale-claim");

} // namespace
