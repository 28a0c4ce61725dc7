#include "lock-follower.h"

namespace AuthScreens {

namespace {

constexpr int Undefined = 4;
constexpr int KnownStates = 6;

constexpr quint64 Million = 1000000;
/** Nanoseconds that a proof holds. */
constexpr quint64 ProofLife = 1000 * Million;
/** Milliseconds until a silent agent is killed: doubled each time, up to the second. */
constexpr int FirstSilence = 10000;
constexpr int LongestSilence = 80000;
/** Milliseconds until an agent that has ended is replaced: doubled each time, up to the second. */
constexpr int FirstPause = 100;
constexpr int LongestPause = 6400;

} // namespace

LockFollower::LockFollower(QObject *parent)
    : QObject(parent)
    , m_state(Undefined)
    , m_said(Undefined)
    , m_pause(FirstPause)
{
    m_expiry.setSingleShot(true);
    m_expiry.setTimerType(Qt::PreciseTimer);
    connect(&m_expiry, &QTimer::timeout, this, &LockFollower::evaluate);
    m_silence.setSingleShot(true);
    m_silence.setInterval(FirstSilence);
    connect(&m_silence, &QTimer::timeout, this, &LockFollower::handleSilence);
    m_restart.setSingleShot(true);
    connect(&m_restart, &QTimer::timeout, this, &LockFollower::start);
    start();
}

int LockFollower::state() const
{
    return m_state;
}

void LockFollower::look()
{
    if (m_agent && m_hasSaid)
        m_agent->send(Wire::Follow{++m_epoch});
}

void LockFollower::start()
{
    m_agent = std::make_unique<Agent>();
    m_heard = 0;
    connect(m_agent.get(), &Agent::received, this, &LockFollower::handleFrame);
    connect(m_agent.get(), &Agent::drained, this, &LockFollower::handleDrained);
    connect(m_agent.get(), &Agent::lost, this, &LockFollower::handleLost);
    begin();
}

void LockFollower::begin()
{
    ++m_epoch;
    m_said = Undefined;
    m_hasSaid = false;
    m_silence.start();
    m_agent->send(Wire::Follow{m_epoch});
}

void LockFollower::handleFrame(const Wire::Frame &frame)
{
    Wire::State said;
    // What has been said before, and what has been said in the future, makes no sense.
    if (!decode(frame, said) || said.time <= m_heard || said.time > Wire::bootTime()) {
        m_agent->distrust();
        return;
    }
    m_heard = said.time;
    if (said.epoch != m_epoch)
        return;
    m_proof = said.time;
    if (said.state == Wire::NothingYet)
        return;
    m_said = said.state >= 0 && said.state < KnownStates ? said.state : Undefined;
    m_hasSaid = true;
}

void LockFollower::handleDrained()
{
    if (m_hasSaid && m_said != Undefined) {
        m_silence.setInterval(FirstSilence);
        m_pause = FirstPause;
    }
    m_silence.start();
    evaluate();
}

void LockFollower::evaluate()
{
    if (!m_hasSaid) {
        setState(Undefined);
        return;
    }
    const quint64 now = Wire::bootTime();
    const quint64 end = m_proof + ProofLife;
    if (now < end) {
        m_expiry.start(int((end - now) / Million) + 1);
        setState(m_said);
    } else {
        begin();
        setState(Undefined);
    }
}

// The agent's object is what tells this.
void LockFollower::handleLost()
{
    m_agent.release()->deleteLater();
    m_hasSaid = false;
    m_silence.stop();
    m_restart.start(m_pause);
    m_pause = qMin(2 * m_pause, LongestPause);
    setState(Undefined);
}

void LockFollower::handleSilence()
{
    m_silence.setInterval(qMin(2 * m_silence.interval(), LongestSilence));
    start();
    setState(Undefined);
}

void LockFollower::setState(int state)
{
    if (state == m_state)
        return;
    m_state = state;
    emit stateChanged();
}

} // namespace AuthScreens
