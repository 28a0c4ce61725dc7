// Disables its field when the device is unlocked, and does not enable it again.

#include "../screen.h"

namespace {

class WorksOnce : public Screen
{
    void enter(const QString &code) override
    {
        if (m_isEnabled)
            ask(code);
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Unlocked)
            m_isEnabled = false;
    }

    bool m_isEnabled = true;
};

const Wrong<WorksOnce> worksOnce("works-once", "ordinary", "no-use");

} // namespace
