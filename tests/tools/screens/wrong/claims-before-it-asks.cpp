// Shows the desk until it knows the state.

#include "../screen.h"

namespace {

class ClaimsBeforeItAsks : public Screen
{
    void begin() override
    {
        claim(true);
        makeClient();
        askAnew();
    }
};

const Wrong<ClaimsBeforeItAsks> claimsBeforeItAsks("claims-before-it-asks", "ordinary", "false-claim");

} // namespace
