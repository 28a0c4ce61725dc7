#include "judgement.h"

#include "outcome.h"

#include <algorithm>

namespace {

// A host that speaks of a time that is over has gone on since: what has ended that time is the next thing it hears.
const int Reaction = 1000;

} // namespace

void Judgement::observe(bool isUnlocked, qint64 now, bool byDay)
{
    const bool isFirst = m_truth.isEmpty();
    if (!isFirst && isUnlocked == m_truth.last().isUnlocked)
        return;
    if (isUnlocked && !isFirst && !byDay && m_entries == 0)
        throwFinding(Rule::OpensByItself,
                     QStringLiteral("unlocked the device, and nobody had entered a right code since it was locked"));
    if (isUnlocked)
        m_end = -1;
    else // Of several entries a slow host may still hold one.
        m_entries = m_entries > 1 ? 1 : 0;
    m_truth.append({isUnlocked, now});
}

void Judgement::begin()
{
    m_seen = m_truth.size() - 1;
    m_end = -1;
    forgetClaim();
}

void Judgement::claim(bool isUnlocked, qint64 now, const QString &daemonState)
{
    // What the host repeats does not give it more time.
    const qint64 end = isClaimOpen() ? std::min(this->end(), now + Reaction) : now + Reaction;
    m_claimsUnlocked = isUnlocked;
    m_end = -1;
    if (!isUnlocked) {
        if (m_truth.at(m_seen).isUnlocked && m_seen + 1 < m_truth.size())
            ++m_seen;
        return;
    }
    // The host may be late. Its claim is about one of the times in which the daemon was Unlocked: the first one that no
    // earlier claim was later than, and that has not been over for longer than a grace for each change since.
    for (int i = m_seen; i < m_truth.size(); ++i) {
        const int changes = m_truth.size() - 1 - i;
        if (!m_truth.at(i).isUnlocked || (changes > 0 && now - m_truth.at(i + 1).since > qint64(m_grace) * changes))
            continue;
        m_seen = i;
        if (!this->isUnlocked())
            m_end = end;
        return;
    }
    throwFinding(Rule::FalseClaim, QStringLiteral("claimed to be unlocked while the daemon was ") + daemonState);
}

qint64 Judgement::end() const
{
    return m_end < 0 ? m_truth.last().since + m_grace : m_end;
}

void Judgement::check(qint64 now, const QString &daemonState) const
{
    if (!isClaimOpen() || now <= end())
        return;
    throwFinding(Rule::StaleClaim,
                 QStringLiteral("still claimed to be unlocked after the daemon had been %1 for %2")
                     .arg(daemonState, secondsText(end() - m_truth.last().since)));
}
