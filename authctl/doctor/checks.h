#pragma once

#include "address.h"
#include "bus-link.h"

#include <QtCore/QVector>

#include <memory>
#include <optional>

/** From the best to the worst. */
enum class Level {
    Fine,
    Notice,
    Warning,
    Unknown, ///< what becomes of a host
    Freeze,
    Fault,
};

/** Something that a check has found. */
struct Finding
{
    Level level;
    const char *check;
    QString text;
    const char *consequence = ""; ///< what becomes of a host
    QString remedy = {};
};
using Findings = QVector<Finding>;

/** How long one answer is waited for, and all of them, in milliseconds. */
const int StepTime = 2000;
const int TotalTime = 9000;

/** What the checks share: the time, the connections, and what one check has learnt for those after it. */
struct Machine
{
    /** Whether there is time for another step; once there is none, the examination is over. */
    bool timeIsLeft();

    const QDeadlineTimer end{TotalTime};
    bool late = false;

    std::unique_ptr<BusLink> daemon; ///< the conversation on the daemon's socket, as long as it works
    std::optional<ucred> listener;   ///< of the daemon's socket

    std::unique_ptr<BusLink> bus; ///< the conversation with the bus, as long as it works
    BusAddress busAddress;
    const char *restartBus = nullptr; ///< what to do about a bus that does not work
    QString busName;                  ///< of the conversation with the bus

    bool nameIsOwned = false; ///< the daemon's, on the bus; for the state: by a daemon that answers there
    quint32 ownerProcess = 0;
    std::optional<quint32> ownerUser;
};

QString latin(const char *text);

/** What is told when the examination is over before everything was examined. */
Finding tooLate();

/** A call of a method of the bus itself. */
BusMessage busCall(const char *method, const QString &argument = {});

// Each check examines what those before it have left to be examined.
Findings checkDirectory(Machine &machine);
Findings checkSocket(Machine &machine);
Findings checkHandshake(Machine &machine);
Findings checkMainObject(Machine &machine);
Findings checkSettingsObject(Machine &machine);
Findings checkChallenge(Machine &machine);
Findings checkBusAddress(Machine &machine);
Findings checkBusHandshake(Machine &machine);
Findings checkName(Machine &machine);
Findings checkProcess(Machine &machine);
Findings checkDevlockObject(Machine &machine);
Findings checkState(Machine &machine);
Findings checkPolicy(Machine &machine);
