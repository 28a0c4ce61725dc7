// After ten seconds without an outcome it says that the service is not available, and leaves it at that.

#include "../screen.h"

namespace {

class GivesUpForGood : public Screen
{
    void enter(const QString &code) override
    {
        if (m_isUnavailable)
            return;
        ask(code);
        after(10000, [this] { m_isUnavailable = m_isUnavailable || client()->progress(); });
    }

    bool m_isUnavailable = false;
};

const Wrong<GivesUpForGood> givesUpForGood("gives-up-for-good", "left-alone-error", "no-use");

} // namespace
