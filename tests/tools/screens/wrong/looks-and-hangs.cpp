// Looks, and does not notice that the look hangs.

#include "../screen.h"

#include <csignal>

namespace {

class LooksAndHangs : public Screen
{
public:
    LooksAndHangs()
    {
        signal(SIGALRM, SIG_IGN);
    }
};

const Wrong<LooksAndHangs> looksAndHangs("looks-and-hangs", "locks-unheard-deaf", "stale-claim");

} // namespace
