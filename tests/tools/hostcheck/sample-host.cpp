// A lock screen without a screen: the least that a host has to do to get through authd-hostcheck.

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QCoreApplication>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <memory>
#include <unistd.h>

namespace {

class Host
{
public:
    explicit Host(int probe)
        : m_probe(probe)
        , m_notifier(probe, QSocketNotifier::Read)
    {
        // A token is good for one thing here: to unlock. Whether it has, the device-lock state tells, and nothing else.
        QObject::connect(&m_client, &AuthClient::authenticatedChanged, &m_client, [this] {
            if (m_client.authenticated() && m_client.progress())
                m_client.setLocked(AuthDevlockClient::Unlocked);
        });
        QObject::connect(&m_retry, &QTimer::timeout, &m_retry, [this] { follow(); });
        QObject::connect(&m_look, &QTimer::timeout, &m_look, [this] { look(); });
        QObject::connect(&m_verdict, &QTimer::timeout, &m_verdict, [this] { endLook(); });
        QObject::connect(&m_notifier, &QSocketNotifier::activated, &m_notifier, [this] { read(); });
        m_retry.setSingleShot(true);
        m_verdict.setSingleShot(true);
        follow();
        write("locked\n");
    }

private:
    void follow()
    {
        m_devlock = std::make_unique<AuthDevlockClient>();
        QObject::connect(m_devlock.get(), &AuthDevlockClient::stateChanged, &m_retry, [this] { handleState(); });
        handleState();
    }

    // A daemon that has come back need not announce anything. A client that knows no state is replaced, less and less
    // often.
    void handleState()
    {
        const bool isKnown = m_devlock->state() != AuthDevlockClient::Undefined;
        if (isKnown) {
            m_retry.stop();
            m_pause = 1000;
        } else if (!m_retry.isActive()) {
            m_pause = qMin(2 * m_pause, 30000);
            m_retry.start(m_pause);
        }
        tell(m_devlock->state() == AuthDevlockClient::Unlocked);
    }

    void tell(bool isUnlocked)
    {
        if (isUnlocked == m_isUnlocked)
            return;
        m_isUnlocked = isUnlocked;
        write(isUnlocked ? "unlocked\n" : "locked\n");
        if (isUnlocked)
            m_look.start(30000);
        else
            m_look.stop();
    }

    void write(const QByteArray &line)
    {
        if (::write(m_probe, line.constData(), size_t(line.size())) != line.size())
            m_notifier.setEnabled(false);
    }

    // A locking may go unheard. No answer within ten seconds counts as locked.
    void look()
    {
        if (m_witness)
            return;
        m_verdict.start(10000);
        m_witness = std::make_unique<AuthDevlockClient>();
        QObject::connect(m_witness.get(), &AuthDevlockClient::stateChanged, &m_verdict, [this] { m_verdict.start(0); });
    }

    void endLook()
    {
        const bool isStillUnlocked = m_witness->state() == AuthDevlockClient::Unlocked;
        m_witness.reset();
        if (isStillUnlocked)
            return;
        // Before another client is made: a stuck bus holds that up.
        tell(false);
        follow();
    }

    void read()
    {
        char buffer[4096];
        const ssize_t count = ::read(m_probe, buffer, sizeof buffer);
        if (count <= 0) {
            m_notifier.setEnabled(false);
            return;
        }
        m_input.append(buffer, int(count));
        QList<QByteArray> lines = m_input.split('\n');
        m_input = lines.takeLast();
        // Of the codes that were entered while the host was held up only the last counts.
        if (!lines.isEmpty() && lines.last().startsWith("enter "))
            enter(QString::fromUtf8(lines.last().mid(6)));
    }

    void enter(const QString &code)
    {
        m_client.authenticate(QStringLiteral("unlock"),
                              {{QStringLiteral("factor"), QStringLiteral("code")}, {QStringLiteral("data"), code}});
    }

    const int m_probe;
    QSocketNotifier m_notifier;
    QByteArray m_input;
    AuthClient m_client;
    std::unique_ptr<AuthDevlockClient> m_devlock;
    std::unique_ptr<AuthDevlockClient> m_witness;
    int m_pause = 1000; ///< in milliseconds, doubled before it is waited for
    QTimer m_retry;
    QTimer m_look;
    QTimer m_verdict;
    bool m_isUnlocked = false;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    bool isProbed = false;
    const int probe = qEnvironmentVariableIntValue("AUTHD_HOSTCHECK_FD", &isProbed);
    if (!isProbed)
        return 2;
    const Host host(probe);
    return QCoreApplication::exec();
}
