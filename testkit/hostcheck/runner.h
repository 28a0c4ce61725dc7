#pragma once

#include "days.h"
#include "outcome.h"

#include <QtCore/QList>
#include <QtCore/QStringList>

#include <csignal>
#include <functional>

/** What is to be checked, and how. */
struct Check
{
    QStringList host; ///< the command with its arguments
    QString code;
    QString scenario; ///< empty: the built-in one
    QString logs;     ///< the directory that takes a log of each day
    QString world;    ///< the program that makes worlds
    int jobs;
    std::vector<const Day *> days;
};

struct Result
{
    const Day *day;
    Outcome outcome;
    double seconds;
};

/** The signals that end the process wait while this lives. One that has come by then ends it. */
class SignalsHeld
{
public:
    SignalsHeld();
    ~SignalsHeld();
    Q_DISABLE_COPY(SignalsHeld)

    /** Is readable as soon as a signal waits. */
    int descriptor() const
    {
        return m_descriptor;
    }
    bool isAnyWaiting() const;

private:
    sigset_t m_before;
    int m_descriptor;
};

/**
 * Plays each day in a world of its own, several side by side, and calls @p tell with each result as it comes.
 *
 * False when a signal has broken it off; the worlds have ended then, too.
 */
bool playDays(const Check &check, const SignalsHeld &held, const std::function<void(const Result &)> &tell);

/** What runs inside of a day's world: plays the day and writes its outcome to standard output. */
int playInside(const Day &day, const QString &code, const QStringList &host);

QString logFile(const Check &check, const Day &day);
