// Has done what it is there for when the device is unlocked.

#include "../screen.h"

#include <QtCore/QCoreApplication>

namespace {

class EndsWhenUnlocked : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Unlocked)
            QCoreApplication::quit();
    }
};

const Wrong<EndsWhenUnlocked> endsWhenUnlocked("ends-when-unlocked", "ordinary", "ends");

} // namespace
