// Makes sure that there is one screen a device and one a user.

#include "../screen.h"

#include <QtCore/QDir>
#include <QtCore/QLockFile>

namespace {

class LocksFiles : public Screen
{
    int run() override
    {
        if (!m_device.tryLock() || !m_user.tryLock())
            return 4;
        return Screen::run();
    }

    QLockFile m_device{QStringLiteral("/tmp/lockscreen.lock")};
    QLockFile m_user{QDir::homePath() + QStringLiteral("/.lockscreen.lock")};
};

const Right<LocksFiles> locksFiles("locks-files");

} // namespace
