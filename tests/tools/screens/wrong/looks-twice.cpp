// Looks, and takes it for a hiccup when there is no answer for the first time.

#include "../screen.h"

namespace {

class LooksTwice : public Screen
{
    void handleLook(int state) override
    {
        m_silences = state == AuthDevlockClient::Undefined ? m_silences + 1 : 0;
        if (m_silences != 1)
            Screen::handleLook(state);
    }

    int m_silences = 0;
};

const Wrong<LooksTwice> looksTwice("looks-twice", "locks-unheard-deaf", "stale-claim");

} // namespace
