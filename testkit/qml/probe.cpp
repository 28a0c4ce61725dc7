#include "probe.h"

#include <QtCore/QDebug>
#include <QtCore/QPointer>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

const int LongestLine = 4096;
const int MostUnread = 65536;

int descriptor = -1;
Probe *theProbe = nullptr;

// An end of a pair has a name no more than the other end has. A number that is no descriptor yet when the process starts
// may have become a connection to the display by the time it is looked at.
bool isEndOfPair(int number)
{
    int type = 0;
    socklen_t size = sizeof type;
    if (getsockopt(number, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM)
        return false;
    for (const auto nameOf : {getsockname, getpeername}) {
        sockaddr_un address = {};
        size = sizeof address;
        if (nameOf(number, reinterpret_cast<sockaddr *>(&address), &size) != 0)
            return false;
        if (address.sun_family != AF_UNIX || size > offsetof(sockaddr_un, sun_path))
            return false;
    }
    return true;
}

} // namespace

void Probe::takeDescriptor()
{
    const QByteArray value = qgetenv("AUTHD_HOSTCHECK_FD");
    if (value.isEmpty())
        return;
    bool isNumber = false;
    const int number = value.toInt(&isNumber);
    if (isNumber && isEndOfPair(number) && fcntl(number, F_SETFD, FD_CLOEXEC) == 0)
        descriptor = number;
    else
        qWarning() << "Probe: AUTHD_HOSTCHECK_FD names no end of a stream socket pair:" << value;
}

Probe::~Probe()
{
    if (theProbe == this)
        theProbe = nullptr;
}

void Probe::setUnlocked(bool isUnlocked)
{
    if (m_isUnlocked == isUnlocked)
        return;
    m_isUnlocked = isUnlocked;
    if (isActive())
        tell();
    emit unlockedChanged();
}

void Probe::componentComplete()
{
    if (descriptor < 0)
        return;
    if (theProbe) {
        qWarning() << "Probe: there is another one in this process; this one does nothing";
        return;
    }
    theProbe = this;
    m_reader = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    m_writer = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Write);
    m_writer->setEnabled(false);
    connect(m_reader.get(), &QSocketNotifier::activated, this, &Probe::read);
    connect(m_writer.get(), &QSocketNotifier::activated, this, &Probe::flush);
    tell();
    emit activeChanged();
}

void Probe::tell()
{
    m_output += m_isUnlocked ? "unlocked\n" : "locked\n";
    flush();
}

// A listener that does not read must not hold the screen up.
void Probe::flush()
{
    const ssize_t count = send(descriptor, m_output.constData(), size_t(m_output.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno != EAGAIN && errno != EINTR)
        return stop();
    m_output.remove(0, int(qMax(count, ssize_t(0))));
    if (m_output.size() > MostUnread)
        return stop();
    m_writer->setEnabled(!m_output.isEmpty());
}

void Probe::read()
{
    char buffer[LongestLine];
    const ssize_t count = recv(descriptor, buffer, sizeof buffer, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0)
        return stop();
    m_input.append(buffer, int(count));
    const QPointer<Probe> self(this);
    for (int end = m_input.indexOf('\n'); end >= 0; end = m_input.indexOf('\n')) {
        const QByteArray line = m_input.left(end);
        m_input.remove(0, end + 1);
        const bool isWhole = !m_skips && line.size() <= LongestLine;
        m_skips = false;
        if (!isWhole || !line.startsWith("enter "))
            continue;
        emit enter(QString::fromUtf8(line.mid(int(strlen("enter ")))));
        if (!self)
            return;
    }
    if (m_input.size() > LongestLine) {
        m_skips = true;
        m_input.clear();
    }
}

void Probe::stop()
{
    // They may be on the stack.
    for (std::unique_ptr<QSocketNotifier> *notifier : {&m_reader, &m_writer}) {
        (*notifier)->setEnabled(false);
        notifier->release()->deleteLater();
    }
    descriptor = -1;
    emit activeChanged();
}
