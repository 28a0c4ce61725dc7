// Reads the state as flags, of which the lowest is "locked".

#include "../screen.h"

namespace {

class LooksAtOneBit : public Screen
{
    void handleState(int state) override
    {
        claim((state & 1) == 0 && state != AuthDevlockClient::Undefined);
    }
};

const Wrong<LooksAtOneBit> looksAtOneBit("looks-at-one-bit", "lockout-manager", "false-claim");

} // namespace
