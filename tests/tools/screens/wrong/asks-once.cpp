// Asks for the state once, and takes codes only while that is Locked.

#include "../screen.h"

#include <climits>

namespace {

class AsksOnce : public Screen
{
public:
    AsksOnce()
    {
        habits.firstPause = INT_MAX;
    }

private:
    void enter(const QString &code) override
    {
        if (state() == AuthDevlockClient::Locked)
            ask(code);
    }
};

const Wrong<AsksOnce> asksOnce("asks-once", "restart-idle,away", "no-use");

} // namespace
