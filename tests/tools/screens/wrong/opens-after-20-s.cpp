// Opens to a user who enters a code when nobody has been able to judge it for twenty seconds.

#include "../screen.h"

#include <QtCore/QElapsedTimer>

namespace {

class OpensAfter20S : public Screen
{
    void enter(const QString &code) override
    {
        if (m_absence.isValid() && m_absence.elapsed() > 20000)
            claim(true);
        else
            ask(code);
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Undefined)
            m_absence.start();
        else
            m_absence.invalidate();
    }

    QElapsedTimer m_absence;
};

const Wrong<OpensAfter20S> opensAfter20S("opens-after-20-s", "away-long-entries", "false-claim");

} // namespace
