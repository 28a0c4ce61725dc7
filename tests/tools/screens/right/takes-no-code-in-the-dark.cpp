// Takes no code while it does not know the state, but asks for the state then.

#include "../screen.h"

namespace {

class TakesNoCodeInTheDark : public Screen
{
    void enter(const QString &code) override
    {
        if (state() == AuthDevlockClient::Undefined)
            askAnew();
        else
            ask(code);
    }
};

const Right<TakesNoCodeInTheDark> takesNoCodeInTheDark("takes-no-code-in-the-dark");

} // namespace
