#pragma once

#include "tables.h"

#include <QtCore/QStringList>
#include <QtCore/QVector>

/** One way in which a promise may come true. */
struct Story
{
    QVector<QStringList> strands; ///< each in its order, whatever comes of the others meanwhile
    QStringList end;              ///< what comes after them all
    int late = -1;                ///< how many lines come before the late reply, where one comes
};

/** What a cell of the matrix promises. */
class Expectation
{
public:
    Expectation(const Call &call, const Fault &fault, const Act &act);

    /** The promise; nullptr where the tables have none, which is a fault of theirs. */
    const Promise *promise() const
    {
        return m_promise;
    }
    bool isLived() const
    {
        return m_promise && m_promise->status != Impossible;
    }
    /** Where no such case is: why. Else what is heard, as the table has it. */
    QString text() const;

    /** Whether the host has heard all that is to come before it shows anything. */
    bool isHeard(const QStringList &lines) const;
    /** How many lines come before the late reply. */
    int late() const;
    /** Whether these are all lines of the host. */
    bool fits(const QStringList &lines) const;
    /** Whether these are the calls that the daemon has got. */
    bool fitsCalls(const QStringList &got) const;
    QString callsText() const
    {
        return m_sends.join(QStringLiteral("; "));
    }

private:
    QVector<Story> stories(const Promise &promise) const;

    const Call &m_call;
    const Fault &m_fault;
    const Promise *m_promise;
    QVector<Story> m_stories;
    bool m_isPartial = false;
    QStringList m_sends;
};

bool isNothing(const Act &act);
/** Whether @p list, names parted by '|', has one of @p names, which are written alike. */
bool overlap(const char *list, const char *names);
/** The parts of @p text, without what is empty. */
QStringList split(const QString &text, const char *separator = ";");
