#pragma once

#include <QtCore/QString>

/** How a day went. */
struct Outcome
{
    enum Verdict {
        Passed,
        Failed,
        NotReached, ///< The host made no such call: the day has shown nothing.
        NotMade,    ///< The day could not be played here.
    };

    Verdict verdict;
    QString text;
};
