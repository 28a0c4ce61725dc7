// Looks, and takes no answer for "as before".

#include "../screen.h"

namespace {

class LooksAndTakesSilenceForYes : public Screen
{
    void handleLook(int state) override
    {
        if (state != AuthDevlockClient::Undefined)
            Screen::handleLook(state);
    }
};

const Wrong<LooksAndTakesSilenceForYes> looksAndTakesSilenceForYes("looks-and-takes-silence-for-yes",
                                                                   "locks-unheard-mute", "stale-claim");

} // namespace
