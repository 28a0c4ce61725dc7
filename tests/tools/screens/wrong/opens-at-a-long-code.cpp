// Leaves its page for codes at any exception, and under it is the desk.

#include "../screen.h"

#include <stdexcept>

namespace {

class OpensAtALongCode : public Screen
{
    void enter(const QString &code) override
    {
        try {
            ask(checked(code));
        } catch (const std::length_error &) {
            claim(true);
        }
    }

    static QString checked(const QString &code)
    {
        if (code.size() > 64)
            throw std::length_error("the code is too long");
        return code;
    }
};

const Wrong<OpensAtALongCode> opensAtALongCode("opens-at-a-long-code", "wrong-codes-many", "false-claim");

} // namespace
