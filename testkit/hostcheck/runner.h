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
    int jobs;         ///< so many days side by side; 0: as many as the machine carries
    int grace;        ///< in milliseconds
    std::vector<const Day *> days;
    int leftOut = 0; ///< days that are played on demand alone
};

struct Result
{
    const Day *day;
    Outcome outcome;
    double seconds;
};

/** What a check has taken. */
struct Costs
{
    double seconds;
    double processorSeconds;
    long largestProcess; ///< in MiB
    int mostAtOnce;      ///< days
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
 * The first day is played alone: where it shows that there is nothing to be checked, the others are not played, and
 * *@p problem says why. It breaks off when a signal waits in @p held; the worlds have ended then, too.
 */
Costs playDays(const Check &check, const SignalsHeld &held, const std::function<void(const Result &)> &tell,
               QString *problem);

/** What runs inside of a day's world: plays the day and writes its outcome to standard output. */
int playInside(const Day &day, int grace, const QString &code, const QStringList &host);

QString logFile(const Check &check, const Day &day);
