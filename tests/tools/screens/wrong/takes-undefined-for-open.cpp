// Takes Undefined for "there is no device lock".

#include "../screen.h"

namespace {

class TakesUndefinedForOpen : public Screen
{
    void handleState(int state) override
    {
        claim(state == AuthDevlockClient::Unlocked || state == AuthDevlockClient::Undefined);
    }
};

const Wrong<TakesUndefinedForOpen> takesUndefinedForOpen("takes-undefined-for-open", "away,restart-idle",
                                                         "false-claim");

} // namespace
