#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

/** What a host must not break, or None. */
enum class Rule {
    None,
    FalseClaim,
    StaleClaim,
    OpensByItself,
    Ends,
    NoUse,
    NotTold,
    NoClaim,
    BadProbe,
    NoEnd,
    LeftProcesses,
};

/** As in the documentation and on the command line. */
const char *nameOf(Rule rule);
/** What the rule says, in a sentence. */
QString sentenceOf(Rule rule);
/** What the host's author most likely did, seen on the day of this name. */
QString mistakeOf(Rule rule, const QByteArray &day);
/** The place in the documentation that shows the cure, as FILE:LINE. */
QString cureOf(Rule rule);
