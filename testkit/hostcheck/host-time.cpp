#include "host-time.h"

#include "proc.h"

#include <QtCore/QList>

#include <algorithm>
#include <unistd.h>

namespace {

// Reading what all threads have waited takes a millisecond.
const qint64 SamplePause = 500;
const double LeastShare = 1.0 / 16;

/** The time that other machines have taken away from each processor of this one. */
qint64 stolen()
{
    const QList<QByteArray> fields = contents("/proc/stat").split('\n').value(0).simplified().split(' ');
    return fields.value(8).toLongLong() * 1000 / sysconf(_SC_CLK_TCK) / sysconf(_SC_NPROCESSORS_ONLN);
}

} // namespace

HostTime::HostTime()
{
    m_clock.start();
    m_stolen = stolen();
    waited();
}

qint64 HostTime::elapsed()
{
    if (m_clock.elapsed() - m_sampledAt >= SamplePause)
        sample();
    return qint64(m_hostTime) + m_clock.elapsed() - m_sampledAt;
}

qint64 HostTime::measured()
{
    sample();
    return qint64(m_hostTime);
}

void HostTime::sample()
{
    const qint64 waits = waited();
    const qint64 stolenNow = stolen();
    const qint64 now = m_clock.elapsed();
    const double passed = double(now - m_sampledAt);
    const double held = double(waits) / 1e6 + double(stolenNow - m_stolen);
    m_hostTime += std::max(passed - held, passed * LeastShare);
    m_stolen = stolenNow;
    m_sampledAt = now;
}

/**
 * The nanoseconds that the processes of this world, which has a /proc of its own, have waited since the last call: what
 * happens goes from one process to the next, while the threads of one wait side by side.
 */
qint64 HostTime::waited()
{
    QHash<int, qint64> waits;
    qint64 sum = 0;
    forEachNumber("/proc", [&](int process) {
        const QByteArray tasks = "/proc/" + QByteArray::number(process) + "/task";
        qint64 longest = 0;
        forEachNumber(tasks, [&](int thread) {
            const QByteArray file = tasks + '/' + QByteArray::number(thread) + "/schedstat";
            const qint64 wait = contents(file).split(' ').value(1).toLongLong();
            waits.insert(thread, wait);
            longest = std::max(longest, wait - m_waits.value(thread));
        });
        sum += longest;
    });
    m_waits = waits;
    return sum;
}
