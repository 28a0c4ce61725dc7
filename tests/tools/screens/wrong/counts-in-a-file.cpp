// Keeps the number of wrong codes in a file, and asks for no more codes at the twelfth.

#include "../screen.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

namespace {

class CountsInAFile : public Screen
{
    void begin() override
    {
        QFile file(m_name);
        if (file.open(QIODevice::ReadOnly))
            m_failures = file.readAll().toInt();
        Screen::begin();
        show();
    }

    void enter(const QString &code) override
    {
        m_isAsked = true;
        ask(code);
    }

    void handleDiscredit() override
    {
        if (!m_isAsked)
            return;
        m_isAsked = false;
        ++m_failures;
        QFile file(m_name);
        if (file.open(QIODevice::WriteOnly))
            file.write(QByteArray::number(m_failures));
        show();
    }

    void show()
    {
        if (m_failures >= 12)
            claim(true);
    }

    const QString m_name = QDir::homePath() + QStringLiteral("/.lockscreen-failures");
    bool m_isAsked = false;
    int m_failures = 0;
};

const Wrong<CountsInAFile> countsInAFile("counts-in-a-file", "wrong-codes-started-again", "false-claim");

} // namespace
