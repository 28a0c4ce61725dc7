#include "checks.h"

#include "interface.h"

#include <cerrno>
#include <grp.h>
#include <unistd.h>

namespace {

const uid_t Nobody = 65534;

/** Makes the process another user than root, as far as a bus can tell, while it lives. */
class OrdinaryUser
{
public:
    OrdinaryUser()
        : m_wasRoot(geteuid() == 0)
        , m_group(getegid())
        , m_groups(getgroups(0, nullptr))
    {
        if (!m_wasRoot)
            return;
        if (getgroups(m_groups.size(), m_groups.data()) < 0 || setgroups(0, nullptr) != 0 || setegid(Nobody) != 0
            || seteuid(Nobody) != 0)
            m_error = errno;
    }

    ~OrdinaryUser()
    {
        if (!m_wasRoot)
            return;
        // The checks after this one need no rights, should one not be given back.
        const bool given =
            seteuid(0) == 0 && setegid(m_group) == 0 && setgroups(size_t(m_groups.size()), m_groups.data()) == 0;
        Q_UNUSED(given)
    }

    Q_DISABLE_COPY(OrdinaryUser)

    /** An errno when the process could not be made another user. */
    int error() const
    {
        return m_error;
    }

private:
    const bool m_wasRoot;
    const gid_t m_group;
    QVector<gid_t> m_groups;
    int m_error = 0;
};

} // namespace

Findings checkPolicy(Machine &machine)
{
    const uid_t user = geteuid() == 0 ? Nobody : geteuid();
    const auto unmeasured = [](const QString &why) {
        return Findings{{Level::Notice, "policy",
                         QStringLiteral("who may send device-lock signals was not measured: %1").arg(why)}};
    };
    if (!machine.bus)
        return {};
    if (machine.ownerUser == user)
        return unmeasured(QStringLiteral("user %1 is the daemon's own; run authctl doctor as another").arg(user));
    if (!machine.timeIsLeft())
        return {};

    const QDeadlineTimer deadline(StepTime);
    BusLink stranger;
    Outcome outcome = Outcome::Unreachable;
    {
        const OrdinaryUser ordinary;
        if (ordinary.error() != 0) {
            return unmeasured(
                QStringLiteral("authctl cannot become user %1: %2").arg(user).arg(describe(ordinary.error())));
        }
        outcome = stranger.connectTo(machine.busAddress.socket, deadline);
    }
    BusReply name, seen, any;
    if (outcome == Outcome::Fine)
        outcome = stranger.authenticate(deadline);
    if (outcome == Outcome::Fine)
        outcome = stranger.call(busCall("Hello"), name, deadline);
    if (outcome == Outcome::Fine)
        outcome = machine.bus->call(busCall("GetConnectionUnixUser", name.text), seen, deadline);
    if (outcome != Outcome::Fine || seen.number != user)
        return unmeasured(QStringLiteral("user %1 got no connection to the bus").arg(user));

    // The bus judges a signal by the process that would receive it, with or without a destination, so a signal that
    // goes to authctl alone tells what others could be sent, unless the policy has rules for broadcasts
    // (send_broadcast). The signal has no argument: a host would not take it, should it ever get there.
    machine.bus->expectSignalFrom(name.text);
    outcome = stranger.sendSignal({machine.busName, QString::fromLatin1(DevlockInterface.path),
                                   QString::fromLatin1(DevlockInterface.name), QStringLiteral("StateChanged")},
                                  deadline);
    // The bus answers the stranger's next call when it has dealt with the signal, and authctl's next call after it has
    // delivered the signal, if it does that.
    if (outcome == Outcome::Fine)
        outcome = stranger.call(busCall("GetId"), any, deadline);
    if (outcome == Outcome::Fine || outcome == Outcome::ErrorReply)
        outcome = machine.bus->call(busCall("GetId"), any, deadline);
    if (machine.bus->hasSeenSignal()) {
        return {
            {Level::Warning, "policy",
             QStringLiteral("user %1 may send device-lock signals: the bus delivered one that it directed at authctl")
                 .arg(user),
             "A host can be deceived, or kept from hearing the daemon: it listens to whoever announces the "
             "device-lock state, and believes it.",
             // A copy of the example would take the name from a daemon that is not run by root.
             QStringLiteral("Have the policy in /usr/share/dbus-1/system.d/%1.conf forbid them to all but the "
                            "daemon's user, as " EXAMPLES_DIR "/%1.conf does to all but root; then: systemctl "
                            "reload dbus")
                 .arg(QLatin1String(MainInterface.name))}};
    }
    if (outcome != Outcome::Fine)
        return unmeasured(QStringLiteral("the bus stopped answering"));
    return {
        {Level::Fine, "policy",
         QStringLiteral("user %1 may not send device-lock signals: the bus withheld one that it directed at authctl")
             .arg(user)}};
}
