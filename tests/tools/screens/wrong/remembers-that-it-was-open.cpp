// Keeps in a file that the device is in use, and shows that when it is started again.

#include "../screen.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

namespace {

class RemembersThatItWasOpen : public Screen
{
    void begin() override
    {
        Screen::begin();
        if (QFile::exists(m_name))
            claim(true);
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Unlocked)
            QFile(m_name).open(QIODevice::WriteOnly);
        else
            QFile::remove(m_name);
    }

    const QString m_name = QDir::homePath() + QStringLiteral("/.lockscreen-open");
};

const Wrong<RemembersThatItWasOpen> remembersThatItWasOpen("remembers-that-it-was-open", "started-again",
                                                           "false-claim");

} // namespace
