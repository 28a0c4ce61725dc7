// Does not let itself be ended: it is a lock screen.

#include "../screen.h"

#include <csignal>

namespace {

class IgnoresSigterm : public Screen
{
public:
    IgnoresSigterm()
    {
        signal(SIGTERM, SIG_IGN);
    }
};

const Wrong<IgnoresSigterm> ignoresSigterm("ignores-sigterm", "ordinary", "no-end");

} // namespace
