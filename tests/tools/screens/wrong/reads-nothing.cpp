// Tells what it claims, and takes no codes from the probe.

#include "../screen.h"

namespace {

class ReadsNothing : public Screen
{
    void begin() override
    {
        listen(false);
        Screen::begin();
    }
};

const Wrong<ReadsNothing> readsNothing("reads-nothing", "ordinary", "bad-probe");

} // namespace
