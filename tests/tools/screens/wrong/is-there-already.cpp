// Refuses to start while the file is there that tells of another, and removes that file when it is asked to end.

#include "../screen.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>

namespace {

class IsThereAlready : public Screen
{
public:
    IsThereAlready()
    {
        atSigterm([this] {
            QFile::remove(m_name);
            QCoreApplication::quit();
        });
    }

private:
    int run() override
    {
        if (QFile::exists(m_name))
            return 1;
        QFile(m_name).open(QIODevice::WriteOnly);
        return Screen::run();
    }

    const QString m_name = QStringLiteral("/tmp/lockscreen.pid");
};

const Wrong<IsThereAlready> isThereAlready("is-there-already", "killed", "ends");

} // namespace
