// Opens when the daemon has been away for three seconds, rather than shut the user out.

#include "../screen.h"

namespace {

class OpensAfter3S : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state != AuthDevlockClient::Undefined)
            return;
        after(3000, [this] {
            if (this->state() == AuthDevlockClient::Undefined)
                claim(true);
        });
    }
};

const Wrong<OpensAfter3S> opensAfter3S("opens-after-3-s", "away-long", "false-claim");

} // namespace
