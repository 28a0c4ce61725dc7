// Opens when nothing has come of the user's codes for eight seconds.

#include "../screen.h"

namespace {

class OpensAfter8S : public Screen
{
    void handleProgress() override
    {
        if (client()->progress())
            m_patience.start(8000);
        else
            m_patience.stop();
    }

    void begin() override
    {
        m_patience.setSingleShot(true);
        QObject::connect(&m_patience, &QTimer::timeout, &m_patience, [this] { claim(true); });
        Screen::begin();
    }

    QTimer m_patience;
};

const Wrong<OpensAfter8S> opensAfter8S("opens-after-8-s", "error-long-entries", "false-claim");

} // namespace
