// Changes sides at each discredit() that is not about a code, since the client says that when the device locks.

#include "../screen.h"

namespace {

class Toggles : public Screen
{
    void enter(const QString &code) override
    {
        m_isAsked = true;
        ask(code);
    }

    void handleDiscredit() override
    {
        if (!m_isAsked)
            claim(!claimsUnlocked());
        m_isAsked = false;
    }

    bool m_isAsked = false;
};

const Wrong<Toggles> toggles("toggles", "ordinary", "false-claim");

} // namespace
