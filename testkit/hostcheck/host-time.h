#pragma once

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>

/**
 * The time that a host had for itself, in milliseconds.
 *
 * On a busy machine processes wait for a processor. What the processes of this world, the host's, the daemon's and
 * the check's, have waited does not count, and neither does what the machine itself has been held up by others: then
 * a limit means the same on every machine. The time does not stand still altogether, for the sake of hosts that keep
 * more threads busy than there are processors.
 */
class HostTime
{
public:
    HostTime();

    /** Since this was made. Not less than it is: waits of the last moment may not have been taken off yet. */
    qint64 elapsed();
    /** The same with all waits up to now taken off. */
    qint64 measured();
    /** What a clock shows. */
    qint64 wall() const
    {
        return m_clock.elapsed();
    }

private:
    void sample();
    qint64 waited();

    QElapsedTimer m_clock;
    qint64 m_sampledAt = 0;
    double m_hostTime = 0;
    QHash<int, qint64> m_waits; ///< nanoseconds by thread
    qint64 m_stolen = 0;        ///< milliseconds
};
