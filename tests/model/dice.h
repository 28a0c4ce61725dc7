#pragma once

#include <QtCore/QRandomGenerator>
#include <QtCore/QStringList>
#include <QtCore/QVector>

/** What the authors of random scripts decide by. */
class Dice
{
protected:
    explicit Dice(quint32 seed)
        : m_random(seed)
    {
    }

    bool chance(int percent)
    {
        return int(m_random.bounded(100)) < percent;
    }
    template <typename T> T one(const QVector<T> &of)
    {
        return of[int(m_random.bounded(of.size()))];
    }
    QString one(const QStringList &of)
    {
        return of[int(m_random.bounded(of.size()))];
    }

    QRandomGenerator m_random;
};
