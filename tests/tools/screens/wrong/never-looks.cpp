// Relies on announcements alone.

#include "../screen.h"

namespace {

class NeverLooks : public Screen
{
    void look() override
    {
    }
};

const Wrong<NeverLooks> neverLooks("never-looks", "locks-unheard", "stale-claim");

} // namespace
