// Takes setLocked() for done, whatever that returns.

#include "../screen.h"

namespace {

class BelievesErrors : public Screen
{
    void unlock() override
    {
        client()->setLocked(AuthDevlockClient::Unlocked);
        claim(true);
    }
};

const Wrong<BelievesErrors> believesErrors("believes-errors", "error-SetDevlockState", "false-claim");

} // namespace
