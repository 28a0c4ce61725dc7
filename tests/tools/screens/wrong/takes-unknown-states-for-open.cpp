// Shuts in each state that has a name but one, and opens in all others.

#include "../screen.h"

namespace {

class TakesUnknownStatesForOpen : public Screen
{
    void handleState(int state) override
    {
        switch (state) {
        case AuthDevlockClient::Locked:
        case AuthDevlockClient::ManagerLockout:
        case AuthDevlockClient::CodeEntryLockout:
        case AuthDevlockClient::Undefined:
        case AuthDevlockClient::SecurityUi:
            claim(false);
            break;
        default:
            claim(true);
        }
    }
};

const Wrong<TakesUnknownStatesForOpen> takesUnknownStatesForOpen("takes-unknown-states-for-open",
                                                                 "announces-6,announces-minus-1", "stale-claim");

} // namespace
