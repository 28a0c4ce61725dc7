// Tells when it shuts, and not when it opens.

#include "../screen.h"

namespace {

class NeverTellsUnlocked : public Screen
{
    void handleState(int state) override
    {
        if (state != AuthDevlockClient::Unlocked)
            claim(false);
    }
};

const Wrong<NeverTellsUnlocked> neverTellsUnlocked("never-tells-unlocked", "ordinary", "not-told");

} // namespace
