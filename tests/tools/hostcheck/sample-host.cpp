// A lock screen without a screen: the least that a host has to do to get through authd-hostcheck.

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QCoreApplication>
#include <QtCore/QSocketNotifier>

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
            if (m_client.authenticated())
                m_client.setLocked(AuthDevlockClient::Unlocked);
        });
        QObject::connect(&m_devlock, &AuthDevlockClient::stateChanged, &m_devlock, [this] { tell(); });
        QObject::connect(&m_notifier, &QSocketNotifier::activated, &m_notifier, [this] { read(); });
        write("locked\n");
    }

private:
    void tell()
    {
        const bool isUnlocked = m_devlock.state() == AuthDevlockClient::Unlocked;
        if (isUnlocked == m_isUnlocked)
            return;
        m_isUnlocked = isUnlocked;
        write(isUnlocked ? "unlocked\n" : "locked\n");
    }

    void write(const QByteArray &line)
    {
        if (::write(m_probe, line.constData(), size_t(line.size())) != line.size())
            m_notifier.setEnabled(false);
    }

    void read()
    {
        char buffer[256];
        const ssize_t count = ::read(m_probe, buffer, sizeof buffer);
        if (count <= 0) {
            m_notifier.setEnabled(false);
            return;
        }
        m_input.append(buffer, int(count));
        for (int end = m_input.indexOf('\n'); end >= 0; end = m_input.indexOf('\n')) {
            const QByteArray line = m_input.left(end);
            m_input.remove(0, end + 1);
            if (line.startsWith("enter "))
                enter(QString::fromUtf8(line.mid(6)));
        }
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
    AuthDevlockClient m_devlock;
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
