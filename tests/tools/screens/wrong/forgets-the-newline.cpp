// Ends no line.

#include "../screen.h"

namespace {

class ForgetsTheNewline : public Screen
{
    void begin() override
    {
        makeClient();
        askAnew();
        tell("locked");
    }

    void handleState(int state) override
    {
        tell(state == AuthDevlockClient::Unlocked ? "unlocked" : "locked");
    }
};

const Wrong<ForgetsTheNewline> forgetsTheNewline("forgets-the-newline", "ordinary", "bad-probe");

} // namespace
