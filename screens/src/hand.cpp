#include "hand.h"

#include <QtCore/QPointer>

namespace AuthScreens {

namespace {

/** Milliseconds until a thing that has begun ends without an answer: what comes late must not unlock. */
constexpr int Longest = 60000;
/** Milliseconds until an agent that cannot get ready is killed: doubled each time, up to the second. */
constexpr int FirstSilence = 10000;
constexpr int LongestSilence = 80000;
/** Milliseconds until an agent that has ended is replaced: doubled each time, up to the second. */
constexpr int FirstPause = 100;
constexpr int LongestPause = 6400;

} // namespace

Hand::Hand(QObject *parent)
    : QObject(parent)
    , m_pause(FirstPause)
{
    m_limit.setSingleShot(true);
    m_limit.setInterval(Longest);
    connect(&m_limit, &QTimer::timeout, this, [this] { finish(NoAnswer); });
    m_silence.setSingleShot(true);
    m_silence.setInterval(FirstSilence);
    connect(&m_silence, &QTimer::timeout, this, &Hand::handleSilence);
    m_restart.setSingleShot(true);
    connect(&m_restart, &QTimer::timeout, this, &Hand::arrange);
}

bool Hand::isBusy() const
{
    return m_task > Waiting;
}

void Hand::setPrepared(bool isPrepared)
{
    m_isPrepared = isPrepared;
    if (!isPrepared)
        m_pause = FirstPause;
    if (!isBusy())
        arrange();
}

void Hand::attempt(const Wire::Attempt &attempt)
{
    if (m_task != Waiting)
        begin(Waiting);
    m_task = Attempting;
    m_silence.stop();
    m_limit.start();
    m_agent->send(attempt);
}

void Hand::lock()
{
    begin(Locking);
    m_limit.start();
    m_agent->send(Wire::Lock());
}

void Hand::read(quint32 uid)
{
    begin(Reading);
    m_limit.start();
    m_agent->send(Wire::Read{uid});
}

// The daemon may answer what has ended: nobody hears it.
void Hand::end()
{
    m_agent.reset();
    m_task = Nothing;
    m_limit.stop();
    m_silence.stop();
    arrange();
}

void Hand::arrange()
{
    m_restart.stop();
    if (m_isPrepared && m_task == Nothing) {
        begin(Waiting);
        m_silence.start();
    } else if (!m_isPrepared && m_task == Waiting) {
        end();
    }
}

void Hand::begin(Task task)
{
    m_restart.stop();
    m_silence.stop();
    m_limit.stop();
    m_task = task;
    m_isReady = false;
    m_isGone = false;
    m_agent = std::make_unique<Agent>();
    connect(m_agent.get(), &Agent::received, this, &Hand::handleFrame);
    connect(m_agent.get(), &Agent::lost, this, &Hand::handleLost);
    if (task == Waiting)
        m_agent->send(Wire::Prepare());
}

void Hand::handleFrame(const Wire::Frame &frame)
{
    Wire::Ready ready;
    Wire::Gone gone;
    Wire::Outcome outcome;
    Wire::Choice choice;
    if (decode(frame, ready) && !m_isReady && (m_task == Waiting || m_task == Attempting)) {
        m_isReady = true;
        m_silence.stop();
        m_silence.setInterval(FirstSilence);
        m_pause = FirstPause;
    } else if (decode(frame, gone)) {
        m_isGone = true;
    } else if (decode(frame, choice) && m_task == Reading) {
        const QPointer<Hand> self(this);
        emit told(choice);
        if (self && m_task == Reading)
            finish(Done);
    } else if (decode(frame, outcome)
               && ((m_task == Attempting && m_isReady) || m_task == Locking
                   || (m_task == Reading && outcome.result != Wire::Result::Done))) {
        finish(End(outcome.result));
    } else {
        m_agent->distrust();
    }
}

void Hand::handleLost()
{
    m_agent.release()->deleteLater();
    if (isBusy()) {
        finish(m_isGone ? Unavailable : Interrupted);
        return;
    }
    m_task = Nothing;
    m_silence.stop();
    m_restart.start(m_pause);
    m_pause = qMin(2 * m_pause, LongestPause);
}

void Hand::handleSilence()
{
    m_silence.setInterval(qMin(2 * m_silence.interval(), LongestSilence));
    m_agent.reset();
    m_task = Nothing;
    arrange();
}

void Hand::finish(End how)
{
    // This may be called from a signal of the agent.
    if (m_agent) {
        m_agent->disconnect(this);
        m_agent->distrust();
        m_agent.release()->deleteLater();
    }
    end();
    emit finished(how);
}

} // namespace AuthScreens
