// Asks whether it is needed at all, and takes the answer for the state.

#include "../screen.h"

namespace {

class BelievesUnlockIfNeeded : public Screen
{
    void begin() override
    {
        Screen::begin();
        QObject::connect(client(), &AuthClient::unlockIfNeededFinished, client(), [this](bool isDone) {
            if (isDone)
                claim(true);
        });
        client()->unlockIfNeeded();
    }
};

const Wrong<BelievesUnlockIfNeeded> believesUnlockIfNeeded("believes-unlock-if-needed", "spoof-unlock-finished",
                                                           "false-claim");

} // namespace
