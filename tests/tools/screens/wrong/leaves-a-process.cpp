// Starts a process that draws the clock, and lets that be.

#include "../screen.h"

#include <QtCore/QProcess>

namespace {

class LeavesAProcess : public Screen
{
    void begin() override
    {
        QProcess::startDetached(QStringLiteral("sleep"), {QStringLiteral("3600")});
        Screen::begin();
    }
};

const Wrong<LeavesAProcess> leavesAProcess("leaves-a-process", "ordinary", "left-processes");

} // namespace
