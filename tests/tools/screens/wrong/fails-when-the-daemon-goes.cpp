// Ends with a status of its own when the daemon goes.

#include "../screen.h"

#include <cstdlib>

namespace {

class FailsWhenTheDaemonGoes : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Undefined)
            exit(3);
    }
};

const Wrong<FailsWhenTheDaemonGoes> failsWhenTheDaemonGoes("fails-when-the-daemon-goes", "restart-idle", "ends");

} // namespace
