// Opens to a user who has just chosen a new code, and so has authenticated.

#include "../screen.h"

namespace {

class BelievesChangedData : public Screen
{
    void begin() override
    {
        Screen::begin();
        QObject::connect(client(), &AuthClient::authDataChanged, client(), [this] { claim(true); });
    }
};

const Wrong<BelievesChangedData> believesChangedData("believes-changed-data", "spoof-data-changed", "false-claim");

} // namespace
