#pragma once

#include "days.h"
#include "outcome.h"

#include <QtCore/QList>
#include <QtCore/QStringList>

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

/** Plays each day in a world of its own, several side by side, and calls @p tell with each result as it comes. */
void playDays(const Check &check, const std::function<void(const Result &)> &tell);

/** What runs inside of a day's world: plays the day and writes its outcome to standard output. */
int playInside(const Day &day, const QString &code, const QStringList &host);

QString logFile(const Check &check, const Day &day);
