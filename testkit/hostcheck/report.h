#pragma once

#include "runner.h"

#include <QtCore/QIODevice>

/** Tells people, and JUnit, how the days went. */
class Report
{
public:
    explicit Report(const Check &check);

    /** A line of the table. */
    void add(const Result &result);
    /** What the failing days have found and their logs, what was left out, the sums and the costs. */
    void finish(const Costs &costs);
    bool writeJUnit(QIODevice *file) const;
    int count(Outcome::Verdict verdict) const;

private:
    void explain(const Result &result) const;
    QByteArray endOfLog(const Day &day, int lines) const;

    const Check &m_check;
    const int m_nameWidth;
    QList<Result> m_results;
};

/** Prints the names of the days, with what happens on each. */
void listDays();
