// Tells changes alone.

#include "../screen.h"

namespace {

class IsSilent : public Screen
{
    void begin() override
    {
        makeClient();
        askAnew();
    }
};

const Wrong<IsSilent> isSilent("is-silent", "ordinary", "no-claim");

} // namespace
