// Keeps in a file that the device is in use, and removes that when it is asked to end.

#include "../screen.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>

namespace {

class RemembersUntilItsEnd : public Screen
{
public:
    RemembersUntilItsEnd()
    {
        atSigterm([this] {
            QFile::remove(m_name);
            QCoreApplication::quit();
        });
    }

private:
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

    const QString m_name = QStringLiteral("/tmp/lockscreen-open");
};

const Wrong<RemembersUntilItsEnd> remembersUntilItsEnd("remembers-until-its-end", "killed", "false-claim");

} // namespace
