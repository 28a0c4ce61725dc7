// Gives an attempt without an outcome up after ten seconds, and takes no other code before.

#include "../screen.h"

namespace {

class GivesUpAfter10S : public Screen
{
    void begin() override
    {
        m_patience.setSingleShot(true);
        QObject::connect(&m_patience, &QTimer::timeout, &m_patience, [this] { client()->dropAuthentication(); });
        Screen::begin();
    }

    void enter(const QString &code) override
    {
        if (!client()->progress())
            ask(code);
    }

    void handleProgress() override
    {
        if (client()->progress())
            m_patience.start(10000);
        else
            m_patience.stop();
    }

    QTimer m_patience;
};

const Right<GivesUpAfter10S> givesUpAfter10S("gives-up-after-10-s");

} // namespace
