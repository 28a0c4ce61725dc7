// Shuts when it does not know the state, and half a second later shows again what it knew last.

#include "../screen.h"

#include <climits>

namespace {

class ShowsTheLastPicture : public Screen
{
public:
    ShowsTheLastPicture()
    {
        habits.firstPause = INT_MAX;
    }

private:
    void handleState(int state) override
    {
        const bool wasOpen = claimsUnlocked();
        Screen::handleState(state);
        if (state == AuthDevlockClient::Undefined && wasOpen)
            after(500, [this] { claim(this->state() == AuthDevlockClient::Undefined); });
    }
};

const Wrong<ShowsTheLastPicture> showsTheLastPicture("shows-the-last-picture", "bus-dies-unlocked,away-long-unlocked",
                                                     "false-claim");

} // namespace
