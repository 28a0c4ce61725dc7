// Shows nothing for three seconds.

#include "../screen.h"

namespace {

class BeginsLate : public Screen
{
    void begin() override
    {
        after(3000, [this] { Screen::begin(); });
    }

    void enter(const QString &code) override
    {
        if (client())
            ask(code);
    }
};

const Right<BeginsLate> beginsLate("begins-late");

} // namespace
