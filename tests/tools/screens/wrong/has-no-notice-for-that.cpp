// Looks up a notice for each state in a table that does not have all.

#include "../screen.h"

#include <map>

namespace {

class HasNoNoticeForThat : public Screen
{
    void handleState(int state) override
    {
        Screen::handleState(state);
        qInfo("%s", m_notices.at(state));
    }

    const std::map<int, const char *> m_notices = {
        {AuthDevlockClient::Unlocked, "Welcome"},
        {AuthDevlockClient::Locked, "Please enter your code"},
        {AuthDevlockClient::ManagerLockout, "This device has been locked by its manager"},
        {AuthDevlockClient::CodeEntryLockout, "Too many wrong codes"},
    };
};

const Wrong<HasNoNoticeForThat> hasNoNoticeForThat("has-no-notice-for-that", "restart-idle,announces-6", "ends");

} // namespace
