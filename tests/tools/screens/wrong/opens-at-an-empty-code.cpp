// Takes an empty code for that of a user who has none.

#include "../screen.h"

namespace {

class OpensAtAnEmptyCode : public Screen
{
    void enter(const QString &code) override
    {
        if (code.isEmpty())
            claim(true);
        else
            ask(code);
    }
};

const Wrong<OpensAtAnEmptyCode> opensAtAnEmptyCode("opens-at-an-empty-code", "wrong-codes-many", "false-claim");

} // namespace
