// Opens when the daemon has judged codes right ten times, and has refused to unlock each time.

#include "../screen.h"

namespace {

class InsistsWithItsToken : public Screen
{
    void unlock() override
    {
        if (client()->setLocked(AuthDevlockClient::Unlocked))
            m_refusals = 0;
        else if (++m_refusals == 10)
            claim(true);
    }

    int m_refusals = 0;
};

const Wrong<InsistsWithItsToken> insistsWithItsToken("insists-with-its-token", "refuse-unlock-long-entries",
                                                     "false-claim");

} // namespace
