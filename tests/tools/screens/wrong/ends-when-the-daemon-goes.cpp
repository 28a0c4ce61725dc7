// Ends when the daemon goes, so that somebody starts it again.

#include "../screen.h"

#include <QtCore/QCoreApplication>

namespace {

class EndsWhenTheDaemonGoes : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Undefined)
            QCoreApplication::quit();
    }
};

const Wrong<EndsWhenTheDaemonGoes> endsWhenTheDaemonGoes("ends-when-the-daemon-goes", "away", "ends");

} // namespace
