#pragma once

#include <QtCore/QByteArray>

#include <functional>
#include <vector>

class Play;

/** A bad day, which a host has to get through. */
struct Day
{
    enum World {
        WithBus,
        WithoutBus,
    };

    enum Pace {
        Quick,
        GivesUp, ///< A request has no outcome, and the host has to get over it.
        Freezes, ///< The host may be held up by a call that is not answered.
    };

    QByteArray name;
    QByteArray description;
    std::function<void(Play &play)> play;
    Pace pace = Quick;
    World world = WithBus;
};

const std::vector<Day> &allDays();
/** nullptr when there is none of this name. */
const Day *findDay(const QByteArray &name);
