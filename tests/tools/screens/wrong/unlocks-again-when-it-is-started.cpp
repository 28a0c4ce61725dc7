// Keeps the code in a file while the device is in use, and enters that when it is started again.

#include "../screen.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

namespace {

class UnlocksAgainWhenItIsStarted : public Screen
{
    void begin() override
    {
        QFile file(m_name);
        if (file.open(QIODevice::ReadOnly))
            m_kept = QString::fromUtf8(file.readAll());
        Screen::begin();
    }

    void enter(const QString &code) override
    {
        m_code = code;
        ask(code);
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        if (state == AuthDevlockClient::Locked && !m_kept.isEmpty())
            ask(m_kept);
        m_kept.clear();
        QFile file(m_name);
        if (state != AuthDevlockClient::Unlocked)
            file.remove();
        else if (file.open(QIODevice::WriteOnly))
            file.write(m_code.toUtf8());
    }

    const QString m_name = QDir::homePath() + QStringLiteral("/.lockscreen-session");
    QString m_kept;
    QString m_code;
};

const Wrong<UnlocksAgainWhenItIsStarted> unlocksAgainWhenItIsStarted("unlocks-again-when-it-is-started",
                                                                     "started-again,killed", "opens-by-itself");

} // namespace
