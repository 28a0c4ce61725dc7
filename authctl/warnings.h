#pragma once

#include <QtCore/QStringList>

#include <functional>

/**
 * Takes over, while it lives, the library's warnings about calls that failed: of some calls nothing else tells the
 * daemon's words, or that they failed at all.
 */
class Warnings
{
public:
    Warnings();
    ~Warnings();
    Q_DISABLE_COPY(Warnings)

    /** Whether a message of the library is such a warning and taken over. */
    static bool take(const QString &message);

    /** What the daemon said to each call, in order, once. */
    const QStringList &words() const;
    /** Calls the function at each warning. */
    void setHandler(const std::function<void()> &handler);

private:
    Warnings *const m_outer;
    QStringList m_words;
    std::function<void()> m_handler;
};
