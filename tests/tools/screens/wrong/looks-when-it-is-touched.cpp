// Looks when the user enters something.

#include "../screen.h"

namespace {

class LooksWhenItIsTouched : public Screen
{
    void enter(const QString &code) override
    {
        if (claimsUnlocked())
            askAnew();
        ask(code);
    }

    void look() override
    {
    }
};

const Wrong<LooksWhenItIsTouched> looksWhenItIsTouched("looks-when-it-is-touched", "locks-unheard", "stale-claim");

} // namespace
