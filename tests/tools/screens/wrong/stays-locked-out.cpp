// Disables its field during a lockout, and enables it again when the device is unlocked.

#include "../screen.h"

namespace {

class StaysLockedOut : public Screen
{
    void enter(const QString &code) override
    {
        if (!m_isLockedOut)
            ask(code);
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::ManagerLockout || state == AuthDevlockClient::CodeEntryLockout)
            m_isLockedOut = true;
        else if (state == AuthDevlockClient::Unlocked)
            m_isLockedOut = false;
    }

    bool m_isLockedOut = false;
};

const Wrong<StaysLockedOut> staysLockedOut("stays-locked-out", "lockout-manager,lockout-code-entry", "no-use");

} // namespace
