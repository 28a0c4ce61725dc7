// Opens when a code is entered, and takes that back when it was wrong.

#include "../screen.h"

namespace {

class OpensAhead : public Screen
{
    void enter(const QString &code) override
    {
        claim(true);
        ask(code);
    }

    void handleDiscredit() override
    {
        claim(false);
    }
};

const Wrong<OpensAhead> opensAhead("opens-ahead", "ordinary", "false-claim");

} // namespace
