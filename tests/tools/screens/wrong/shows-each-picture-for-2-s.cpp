// Shows each picture for two seconds at least, and then the next that was due.

#include "../screen.h"

#include <deque>

namespace {

class ShowsEachPictureFor2S : public Screen
{
    void handleState(int state) override
    {
        m_due.push_back(state == AuthDevlockClient::Unlocked);
        if (!m_isShowing)
            showNext();
    }

    void showNext()
    {
        m_isShowing = !m_due.empty();
        if (!m_isShowing)
            return;
        const bool wasOpen = claimsUnlocked();
        claim(m_due.front());
        m_due.pop_front();
        after(wasOpen == claimsUnlocked() ? 0 : 2000, [this] { showNext(); });
    }

    std::deque<bool> m_due;
    bool m_isShowing = false;
};

const Wrong<ShowsEachPictureFor2S> showsEachPictureFor2S("shows-each-picture-for-2-s", "locked-again-at-once,flickers",
                                                         "stale-claim");

} // namespace
