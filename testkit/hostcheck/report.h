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
    /** The failing days' logs, and the sums. */
    void finish();
    bool writeJUnit(QIODevice *file) const;
    int count(Outcome::Verdict verdict) const;

private:
    QByteArray endOfLog(const Day &day, int lines) const;

    const Check &m_check;
    const int m_nameWidth;
    QList<Result> m_results;
};

/** Prints the names of the days, with what happens on each. */
void listDays();
