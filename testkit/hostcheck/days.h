#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

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
        Lasts,   ///< For a minute or more nothing comes that would help the host.
    };

    QByteArray name;
    QByteArray description;
    std::function<void(Play &play)> play;
    Pace pace = Quick;
    World world = WithBus;
    bool isThorough = false; ///< played on demand alone
};

/** Those that a host of ordinary days does not meet: absences, silence and refusals that last, and many wrong codes. */
std::vector<Day> lastingDays();

const std::vector<Day> &allDays();
/** nullptr when there is none of this name. */
const Day *findDay(const QByteArray &name);
/** Those whose names fit, where an asterisk stands for any text. */
std::vector<const Day *> matchingDays(const QString &pattern);
