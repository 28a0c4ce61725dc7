#pragma once

#include <QtCore/QString>
#include <QtCore/QVector>

/**
 * Holds what a host claims against what is true. Times are in milliseconds of the host's own time.
 *
 * Every function throws an Outcome as soon as a rule is broken.
 */
class Judgement
{
public:
    /** A host may know of a change for @p grace before it says so. */
    explicit Judgement(int grace)
        : m_grace(grace)
    {
    }

    void setGrace(int grace)
    {
        m_grace = grace;
    }
    int grace() const
    {
        return m_grace;
    }

    /** What is true from now on, and who has made it so: the day itself, or the host. */
    void observe(bool isUnlocked, qint64 now, bool byDay);
    /** A host has been started: what it claims is about what is true from now on. */
    void begin();
    /** The user has entered a right code. */
    void enter()
    {
        ++m_entries;
    }
    /** The user's codes so far are done with, as if the device had been locked. */
    void forgetEntries()
    {
        m_entries = 0;
    }
    /** The host says what it claims; @p daemonState is what the daemon is. */
    void claim(bool isUnlocked, qint64 now, const QString &daemonState);
    /** A host that has ended claims nothing. */
    void forgetClaim()
    {
        m_claimsUnlocked = false;
    }
    /** Whether a claim stands that is not true. It may be within its time. */
    bool isClaimOpen() const
    {
        return m_claimsUnlocked && !isUnlocked();
    }
    /** When the claim that stands, and is not true, has to have been taken back. */
    qint64 end() const;
    /** Throws when it is over. */
    void check(qint64 now, const QString &daemonState) const;

    bool claimsUnlocked() const
    {
        return m_claimsUnlocked;
    }
    bool isUnlocked() const
    {
        return m_truth.last().isUnlocked;
    }

private:
    struct Truth
    {
        bool isUnlocked;
        qint64 since;
    };

    int m_grace;
    QVector<Truth> m_truth;
    int m_seen = 0; ///< the earliest time in m_truth that the host may still speak of
    bool m_claimsUnlocked = false;
    qint64 m_end = -1; ///< when the claim that stands has to have been taken back, if it is about a time that is over
    int m_entries = 0; ///< of right codes, since the device was locked
};
