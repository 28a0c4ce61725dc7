#include "screen.h"

#include <QtCore/QCoreApplication>

#include <csignal>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

std::vector<Entry> &collection()
{
    static std::vector<Entry> entries;
    return entries;
}

Screen::Screen()
    : m_probe(qEnvironmentVariableIntValue("AUTHD_HOSTCHECK_FD"))
    , m_notifier(m_probe, QSocketNotifier::Read)
{
    QObject::connect(&m_notifier, &QSocketNotifier::activated, &m_context, [this] { read(); });
    m_retry.setSingleShot(true);
    QObject::connect(&m_retry, &QTimer::timeout, &m_context, [this] { askAnew(); });
    m_look.setSingleShot(true);
    QObject::connect(&m_look, &QTimer::timeout, &m_context, [this] { look(); });
    m_verdict.setSingleShot(true);
    QObject::connect(&m_verdict, &QTimer::timeout, &m_context, [this] { endLook(AuthDevlockClient::Undefined); });
}

Screen::~Screen() = default;

int Screen::run()
{
    begin();
    return QCoreApplication::exec();
}

void Screen::begin()
{
    makeClient();
    askAnew();
    tell("locked\n");
}

void Screen::enter(const QString &code)
{
    ask(code);
}

void Screen::ask(const QString &code)
{
    client()->authenticate(QStringLiteral("unlock"),
                           {{QStringLiteral("factor"), QStringLiteral("code")}, {QStringLiteral("data"), code}});
}

// A token that comes when nobody waits for one is not asked for.
void Screen::handleAuthenticated()
{
    if (client()->authenticated() && client()->progress())
        unlock();
}

void Screen::handleProgress()
{
}

void Screen::handleDiscredit()
{
}

void Screen::unlock()
{
    client()->setLocked(AuthDevlockClient::Unlocked);
}

void Screen::handleState(int state)
{
    claim(state == AuthDevlockClient::Unlocked);
}

void Screen::handleLook(int state)
{
    if (state != AuthDevlockClient::Unlocked)
        askAnew();
}

// The time that a stuck bus takes to make the client counts.
void Screen::look()
{
    if (m_witness)
        return;
    m_verdict.start(habits.lookPatience);
    m_witness = new AuthDevlockClient(&m_context);
    QObject::connect(m_witness, &AuthDevlockClient::stateChanged, &m_context, [this] { endLook(m_witness->state()); });
}

void Screen::endLook(int state)
{
    m_verdict.stop();
    m_witness->disconnect(&m_context);
    m_witness->deleteLater();
    m_witness = nullptr;
    if (claimsUnlocked())
        m_look.start(habits.lookPause);
    handleLook(state);
}

void Screen::makeClient()
{
    // Clients that are there at the same time share a connection.
    m_client.reset();
    m_client = std::make_unique<AuthClient>();
    QObject::connect(client(), &AuthClient::authenticatedChanged, client(), [this] { handleAuthenticated(); });
    QObject::connect(client(), &AuthClient::progressChanged, client(), [this] { handleProgress(); });
    QObject::connect(client(), &AuthClient::discredit, client(), [this] { handleDiscredit(); });
}

// A stuck bus holds up who makes a client: what is not known any more is told before.
void Screen::askAnew()
{
    if (m_follower) {
        m_follower->disconnect(&m_context);
        m_follower->deleteLater();
    }
    change(AuthDevlockClient::Undefined);
    m_follower = new AuthDevlockClient(&m_context);
    QObject::connect(m_follower, &AuthDevlockClient::stateChanged, &m_context, [this] { follow(); });
    follow();
}

void Screen::follow()
{
    const int told = m_follower->state();
    if (told != AuthDevlockClient::Undefined) {
        m_retry.stop();
        m_pause = 0;
    } else if (!m_retry.isActive()) {
        m_pause = m_pause ? qMin(2 * m_pause, habits.longestPause) : habits.firstPause;
        m_retry.start(m_pause);
    }
    change(told);
}

void Screen::change(int state)
{
    if (state == m_state)
        return;
    m_state = state;
    handleState(state);
}

int Screen::state() const
{
    return m_state;
}

AuthClient *Screen::client() const
{
    return m_client.get();
}

void Screen::claim(bool isUnlocked)
{
    if (isUnlocked != m_claimsUnlocked)
        tell(isUnlocked ? "unlocked\n" : "locked\n");
    m_claimsUnlocked = isUnlocked;
    if (!isUnlocked)
        m_look.stop();
    else if (!m_look.isActive() && !m_witness)
        m_look.start(habits.lookPause);
}

bool Screen::claimsUnlocked() const
{
    return m_claimsUnlocked;
}

void Screen::tell(const QByteArray &text)
{
    send(m_probe, text.constData(), size_t(text.size()), MSG_NOSIGNAL);
}

void Screen::listen(bool isListening)
{
    m_notifier.setEnabled(isListening);
}

void Screen::after(int milliseconds, const std::function<void()> &action)
{
    QTimer::singleShot(milliseconds, &m_context, action);
}

void Screen::atSigterm(const std::function<void()> &action)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    // The threads of D-Bus begin later, and hold the signal, too.
    sigprocmask(SIG_BLOCK, &set, nullptr);
    const int descriptor = signalfd(-1, &set, SFD_CLOEXEC);
    m_sigterm = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    QObject::connect(m_sigterm.get(), &QSocketNotifier::activated, &m_context, [this, action] {
        m_sigterm->setEnabled(false);
        action();
    });
}

// Of the codes that were entered while the screen could not look only the last counts.
void Screen::read()
{
    char buffer[4096];
    const ssize_t count = recv(m_probe, buffer, sizeof buffer, 0);
    if (count <= 0) {
        m_notifier.setEnabled(false);
        return;
    }
    m_input.append(buffer, int(count));
    QList<QByteArray> lines = m_input.split('\n');
    m_input = lines.takeLast();
    for (int i = lines.size() - 1; i >= 0; --i) {
        if (lines.at(i).startsWith("enter ")) {
            enter(QString::fromUtf8(lines.at(i).mid(6)));
            break;
        }
    }
}
