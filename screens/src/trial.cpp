#include "trial.h"

#include <QtCore/QPointer>

#include <utility>

namespace AuthScreens {

namespace {

/** Milliseconds until a screen offers to give an attempt up. */
constexpr int Patience = 10000;
constexpr int LongestName = 1024;

} // namespace

Reason Trial::reasonOf(Hand::End end)
{
    switch (end) {
    case Hand::NotAccepted:
        return NotAccepted;
    case Hand::NotSendable:
        return NotSendable;
    case Hand::Unavailable:
        return Unavailable;
    case Hand::LockedOut:
        return LockedOut;
    case Hand::NoAnswer:
        return NoAnswer;
    case Hand::Interrupted:
        return Interrupted;
    case Hand::NotAllowed:
        return NotAllowed;
    case Hand::NotAuthenticated:
        return NotAuthenticated;
    case Hand::Done:
    case Hand::NotGranted:
        break;
    }
    return NotGranted;
}

Trial::Trial(Hand *hand)
    : Trial([hand](const Wire::Attempt &attempt) { hand->attempt(attempt); }, [hand] { hand->end(); })
{
}

Trial::Trial(std::function<void(const Wire::Attempt &)> start, std::function<void()> stop)
    : m_start(std::move(start))
    , m_stop(std::move(stop))
{
    m_refusal.setSingleShot(true);
    connect(&m_refusal, &QTimer::timeout, this, [this] { end(m_obstacle); });
    m_patience.setSingleShot(true);
    m_patience.setInterval(Patience);
    connect(&m_patience, &QTimer::timeout, this, [this] {
        m_isOverdue = true;
        emit overdueChanged();
    });
}

bool Trial::isBusy() const
{
    return m_isBusy;
}

bool Trial::isOverdue() const
{
    return m_isOverdue;
}

bool Trial::begin(Wire::Attempt request, const QString &data, int obstacle)
{
    if (m_isBusy)
        return false;
    request.secret = data.toUtf8();
    request.isText = !data.contains(QChar(0));
    return start(&request, data.isValidUtf16(), obstacle);
}

// The host's own bytes are not to be overwritten.
bool Trial::begin(Wire::Attempt request, const QByteArray &data, int obstacle)
{
    if (m_isBusy)
        return false;
    request.secret = QByteArray(data.constData(), data.size());
    request.isText = false;
    return start(&request, true, obstacle);
}

bool Trial::start(Wire::Attempt *request, bool isSendable, int obstacle)
{
    m_isBusy = true;
    const int size = request->secret.size();
    m_obstacle = obstacle;
    if (!isSendable || size == 0 || size > Wire::MaxSecret || request->factor.size() > LongestName)
        m_obstacle = NotSendable;
    if (m_obstacle == Silently) {
        m_start(*request);
        m_patience.start();
    } else {
        m_refusal.start(0);
    }
    Wire::wipe(request->secret);
    emit busyChanged();
    return true;
}

void Trial::tell(Hand::End how)
{
    if (how == Hand::Done)
        emit accepted();
    else
        end(reasonOf(how));
}

void Trial::end(int reason)
{
    if (!m_isBusy)
        return;
    const QPointer<Trial> self(this);
    m_refusal.stop();
    m_patience.stop();
    const bool wasOverdue = m_isOverdue;
    m_isBusy = false;
    m_isOverdue = false;
    m_stop();
    if (!self)
        return;
    emit busyChanged();
    if (self && wasOverdue)
        emit overdueChanged();
    if (self && reason != Silently)
        emit refused(Reason(reason));
}

} // namespace AuthScreens
