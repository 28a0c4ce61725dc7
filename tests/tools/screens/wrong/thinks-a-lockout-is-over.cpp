// Takes the page of a lockout away after forty seconds, as that is over by then, and shows nothing in its place.

#include "../screen.h"

namespace {

class ThinksALockoutIsOver : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state != AuthDevlockClient::CodeEntryLockout)
            return;
        after(40000, [this] {
            if (this->state() == AuthDevlockClient::CodeEntryLockout)
                claim(true);
        });
    }
};

const Wrong<ThinksALockoutIsOver> thinksALockoutIsOver("thinks-a-lockout-is-over", "lockout-long-entries",
                                                       "false-claim");

} // namespace
