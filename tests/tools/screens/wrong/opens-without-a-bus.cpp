// Takes a device without a system bus for one without a lock.

#include "../screen.h"

#include <climits>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

class OpensWithoutABus : public Screen
{
public:
    OpensWithoutABus()
    {
        habits.firstPause = INT_MAX;
    }

private:
    void handleState(int state) override
    {
        Screen::handleState(state);
        // What has died may take a moment to be gone.
        if (state == AuthDevlockClient::Undefined)
            after(300, [this] { claim(!isBusThere()); });
    }

    static bool isBusThere()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray given = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
        const QByteArray path = given.startsWith("unix:path=") ? given.mid(10).split(',').first()
                                                               : QByteArray("/run/dbus/system_bus_socket");
        qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
        const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool isThere = connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        close(descriptor);
        return isThere;
    }
};

const Wrong<OpensWithoutABus> opensWithoutABus("opens-without-a-bus", "bus-dies", "false-claim");

} // namespace
