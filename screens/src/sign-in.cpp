#include "sign-in_p.h"

#include "DeviceLock"

#include <QtCore/QPointer>

namespace AuthScreens {

namespace {

/** Milliseconds until the daemon is asked again for what it has not told. */
constexpr int ReadPause = 5000;

} // namespace

SignIn::SignIn(QObject *parent)
    : QObject(parent)
    , d(new SignInPrivate(this))
{
}

SignIn::~SignIn() = default;

uint SignIn::uid() const
{
    return d->uid;
}

bool SignIn::available() const
{
    return d->isAvailable();
}

bool SignIn::lockedOut() const
{
    return d->isLockedOut();
}

bool SignIn::ready() const
{
    return d->view.isReady;
}

QStringList SignIn::factors() const
{
    return d->view.factors;
}

int SignIn::step() const
{
    return d->view.step;
}

QString SignIn::factor() const
{
    return d->factor();
}

QString SignIn::lastLogin() const
{
    return d->view.lastLogin;
}

bool SignIn::signedIn() const
{
    return d->isSignedIn();
}

bool SignIn::busy() const
{
    return d->trial.isBusy();
}

bool SignIn::overdue() const
{
    return d->trial.isOverdue();
}

void SignIn::setUid(uint uid)
{
    d->setUid(uid);
}

bool SignIn::attempt(const QString &data)
{
    return d->attempt(data);
}

bool SignIn::attempt(const QByteArray &data)
{
    return d->attempt(data);
}

void SignIn::giveUp()
{
    d->trial.end(GivenUp);
}

void SignIn::signOut()
{
    const QPointer<SignIn> self(this);
    d->trial.end(Trial::Silently);
    if (self)
        d->startOver();
}

void SignIn::reload()
{
    d->reload();
}

SignInPrivate::SignInPrivate(SignIn *publicObject)
    : trial(&hand)
    , q(publicObject)
    , m_state(DeviceLock::Undefined)
{
    connect(&m_follower, &LockFollower::stateChanged, this, &SignInPrivate::handleState);
    connect(&hand, &Hand::finished, this, &SignInPrivate::handleFinished);
    connect(&hand, &Hand::told, this, [this](const Wire::Choice &choice) {
        View next;
        next.isReady = true;
        next.factors = choice.login;
        next.lastLogin = choice.lastLogin;
        show(next);
    });
    connect(&trial, &Trial::busyChanged, q, &SignIn::busyChanged);
    connect(&trial, &Trial::overdueChanged, q, &SignIn::overdueChanged);
    connect(&trial, &Trial::accepted, this, &SignInPrivate::handleAccepted);
    connect(&trial, &Trial::refused, this, [this](Reason reason) {
        const QPointer<SignInPrivate> self(this);
        startOver();
        if (self)
            emit q->refused(reason);
    });
    m_readAgain.setSingleShot(true);
    connect(&m_readAgain, &QTimer::timeout, this, &SignInPrivate::read);
}

bool SignInPrivate::isAvailable() const
{
    return m_state != DeviceLock::Undefined;
}

bool SignInPrivate::isLockedOut() const
{
    return m_state == DeviceLock::ManagerLockout || m_state == DeviceLock::CodeEntryLockout;
}

bool SignInPrivate::isSignedIn() const
{
    return view.step > 0 && view.step == view.factors.size();
}

QString SignInPrivate::factor() const
{
    return view.factors.value(view.step);
}

template <typename Data> bool SignInPrivate::attempt(const Data &data)
{
    if (isSignedIn())
        return false;
    int obstacle = Trial::Silently;
    if (!isAvailable() || factor().isEmpty())
        obstacle = Unavailable;
    else if (isLockedOut())
        obstacle = LockedOut;
    Wire::Attempt request;
    request.service = QStringLiteral("login");
    request.factor = factor();
    request.uid = uid;
    return trial.begin(request, data, obstacle);
}

void SignInPrivate::setUid(uint newUid)
{
    if (newUid == uid)
        return;
    const QPointer<SignInPrivate> self(this);
    trial.end(Trial::Silently);
    if (!self)
        return;
    uid = newUid;
    reload();
    if (self)
        emit q->uidChanged();
}

void SignInPrivate::reload()
{
    const QPointer<SignInPrivate> self(this);
    trial.end(Trial::Silently);
    if (self)
        show(View());
    if (!self)
        return;
    if (m_isReading) {
        m_isReading = false;
        hand.end();
    }
    read();
}

void SignInPrivate::startOver()
{
    View next = view;
    next.step = 0;
    show(next);
}

void SignInPrivate::show(const View &next)
{
    const QPointer<SignInPrivate> self(this);
    const View before = view;
    const bool wasSignedIn = isSignedIn();
    const QString factorBefore = factor();
    view = next;
    const bool isStep = before.step != view.step || factorBefore != factor();
    const bool isSigned = wasSignedIn != isSignedIn();
    arrange();
    if (before.factors != next.factors)
        emit q->factorsChanged();
    if (self && isStep)
        emit q->stepChanged();
    if (self && before.lastLogin != next.lastLogin)
        emit q->lastLoginChanged();
    if (self && before.isReady != next.isReady)
        emit q->readyChanged();
    if (self && isSigned)
        emit q->signedInChanged();
}

void SignInPrivate::arrange()
{
    hand.setPrepared(isAvailable() && !isLockedOut() && !factor().isEmpty());
}

// A locking takes back what has been granted; the daemon's loss does, too, and what it tells next may differ.
void SignInPrivate::handleState()
{
    const QPointer<SignInPrivate> self(this);
    const bool wasAvailable = isAvailable();
    const bool wasLockedOut = isLockedOut();
    m_state = m_follower.state();
    if (wasAvailable != isAvailable())
        emit q->availableChanged();
    if (self && wasLockedOut != isLockedOut())
        emit q->lockedOutChanged();
    if (self && !isAvailable())
        trial.end(Unavailable);
    if (self && isLockedOut())
        trial.end(LockedOut);
    if (self && m_state == DeviceLock::Locked && wasAvailable && !wasLockedOut)
        trial.end(Interrupted);
    if (self && (m_state == DeviceLock::Locked || !isAvailable()))
        startOver();
    if (self)
        arrange();
    if (self && !wasAvailable && isAvailable() && !isSignedIn())
        reload();
}

void SignInPrivate::handleFinished(Hand::End end)
{
    if (m_isReading) {
        m_isReading = false;
        if (!view.isReady)
            m_readAgain.start(ReadPause);
    } else {
        trial.tell(end);
    }
}

void SignInPrivate::handleAccepted()
{
    const QPointer<SignInPrivate> self(this);
    trial.end(Trial::Silently);
    if (!self)
        return;
    View next = view;
    ++next.step;
    show(next);
    if (self && isSignedIn())
        emit q->passed();
}

void SignInPrivate::read()
{
    m_readAgain.stop();
    if (m_isReading || view.isReady || trial.isBusy() || !isAvailable() || uid == 0)
        return;
    m_isReading = true;
    hand.read(uid);
}

} // namespace AuthScreens
