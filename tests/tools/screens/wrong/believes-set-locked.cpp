// Takes what setLocked() returns for the state.

#include "../screen.h"

namespace {

class BelievesSetLocked : public Screen
{
    void unlock() override
    {
        claim(client()->setLocked(AuthDevlockClient::Unlocked));
    }
};

const Wrong<BelievesSetLocked> believesSetLocked("believes-set-locked", "true-SetDevlockState", "false-claim");

} // namespace
