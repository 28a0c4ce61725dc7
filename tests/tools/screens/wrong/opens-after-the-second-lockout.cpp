// Goes back a page at the end of each lockout: from the field for codes to the clock, and from the clock to the desk.

#include "../screen.h"

namespace {

class OpensAfterTheSecondLockout : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        if (m_isLockedOut && state == AuthDevlockClient::Locked && --m_pages == 0)
            claim(true);
        m_isLockedOut = state == AuthDevlockClient::CodeEntryLockout;
    }

    bool m_isLockedOut = false;
    int m_pages = 2;
};

const Wrong<OpensAfterTheSecondLockout> opensAfterTheSecondLockout("opens-after-the-second-lockout", "wrong-codes-many",
                                                                   "false-claim");

} // namespace
