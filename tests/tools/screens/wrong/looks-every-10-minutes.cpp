// Looks every ten minutes, for the sake of the battery.

#include "../screen.h"

namespace {

class LooksEvery10Minutes : public Screen
{
public:
    LooksEvery10Minutes()
    {
        habits.lookPause = 600000;
    }
};

const Wrong<LooksEvery10Minutes> looksEvery10Minutes("looks-every-10-minutes", "locks-unheard", "stale-claim");

} // namespace
