// Takes no code while it waits for the outcome of another.

#include "../screen.h"

namespace {

class WaitsForTheOutcome : public Screen
{
    void enter(const QString &code) override
    {
        if (!client()->progress())
            ask(code);
    }
};

const Wrong<WaitsForTheOutcome> waitsForTheOutcome("waits-for-the-outcome", "lose-signals-Authenticate", "no-use");

} // namespace
