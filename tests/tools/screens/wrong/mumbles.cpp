// Tells the state by its name.

#include "../screen.h"

namespace {

class Mumbles : public Screen
{
    void begin() override
    {
        makeClient();
        askAnew();
        tell("Locked\n");
    }
};

const Wrong<Mumbles> mumbles("mumbles", "ordinary", "bad-probe");

} // namespace
