#pragma once

#include "rules.h"

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
    Rule rule = Rule::None; ///< the one that is broken, where the day failed

    /** With the rule's name. */
    QString fullText() const
    {
        return rule == Rule::None ? text : QStringLiteral("%1 [%2]").arg(text, QLatin1String(nameOf(rule)));
    }
};

[[noreturn]] inline void throwFinding(Rule rule, const QString &what)
{
    throw Outcome{Outcome::Failed, what, rule};
}

/** As 5 s or 1.5 s. */
inline QString secondsText(qint64 milliseconds)
{
    return QStringLiteral("%1 s").arg(double(milliseconds) / 1000);
}
