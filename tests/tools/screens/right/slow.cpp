// Takes half a second for everything, and three seconds to start.

#include "../screen.h"

namespace {

class Slow : public Screen
{
    void begin() override
    {
        tell("locked\n");
        after(3000, [this] {
            makeClient();
            askAnew();
        });
    }

    void enter(const QString &code) override
    {
        after(500, [this, code] {
            if (client())
                ask(code);
        });
    }

    void handleState(int state) override
    {
        after(500, [this, state] { claim(state == AuthDevlockClient::Unlocked); });
    }

    void handleLook(int state) override
    {
        if (state == AuthDevlockClient::Unlocked)
            return;
        after(500, [this] {
            claim(false);
            askAnew();
        });
    }
};

const Right<Slow> slow("slow");

} // namespace
