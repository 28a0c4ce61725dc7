// Ends with status 1 when nobody can enter a code.

#include "../screen.h"

#include <QtCore/QCoreApplication>

namespace {

class EndsWhenLockedOut : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::CodeEntryLockout || state == AuthDevlockClient::ManagerLockout)
            QCoreApplication::exit(1);
    }
};

const Wrong<EndsWhenLockedOut> endsWhenLockedOut("ends-when-locked-out", "lockout-code-entry,lockout-manager", "ends");

} // namespace
