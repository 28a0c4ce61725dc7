#pragma once

#include <functional>
#include <initializer_list>

/** Something done, and what it is called in the figures: words with points between them. */
struct Subject
{
    const char *name;
    std::function<void()> call;
};

/**
 * Makes calls of each subject in turns and prints what one call of each takes: a line of name, unit and value. Run
 * alone it prints microseconds. Run by callgrind it prints allocations, and callgrind dumps what each subject executes in
 * each turn under its name, a slash and the number of calls.
 */
void measureInTurns(std::initializer_list<Subject> subjects);

/** The same for something that is done once. */
void measureOnce(const char *name, const std::function<void()> &call);

/** A line of the figures. */
void printFigure(const char *name, const char *unit, double value);
