#include "address.h"

#include "bus-link.h"

#include <QtCore/QStringList>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dbus/dbus.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** The directories on the way to a file, and the file. */
QStringList steps(const QString &path)
{
    QStringList found;
    for (int slash = path.indexOf(QLatin1Char('/'), 1); slash > 0; slash = path.indexOf(QLatin1Char('/'), slash + 1))
        found.append(path.left(slash));
    found.append(path);
    return found;
}

QString rights(const struct stat &file)
{
    return QStringLiteral("mode %1, user %2, group %3")
        .arg(file.st_mode & 07777, 4, 8, QLatin1Char('0'))
        .arg(file.st_uid)
        .arg(file.st_gid);
}

} // namespace

QString describe(int error)
{
    return QString::fromLocal8Bit(strerror(error));
}

Explanation explain(const QString &path, int error, const QString &start)
{
    const QString user = QStringLiteral("user %1").arg(geteuid());
    const QStringList way = steps(path);
    const auto moveAway = [&start](const QString &step) {
        return QStringLiteral("Move it away: mv -n %1 %1.old. %2").arg(step, start);
    };
    const QString look = QStringLiteral("See who may do what on the way to it: namei -l %1").arg(path);
    for (const QString &step : way) {
        const QByteArray name = step.toLocal8Bit();
        const bool last = step == path;
        struct stat file = {};
        const bool there = stat(name, &file) == 0;
        if (!there && errno == ENOENT) {
            if (lstat(name, &file) == 0) {
                return {QStringLiteral("%1 is a symbolic link to nothing").arg(step),
                        QStringLiteral("See where it leads: ls -l %1").arg(step)};
            }
            return {last ? QStringLiteral("there is no socket %1, though its directory is there").arg(step)
                         : QStringLiteral("there is no socket %1: its directory %2 is missing").arg(path, step),
                    start};
        }
        if (!there)
            break;
        // What is further up is the system's, and what a link leads to may be anybody's: nobody is told to change it.
        struct stat itself = {};
        const bool own = way.indexOf(step) >= way.size() - 2 && lstat(name, &itself) == 0 && !S_ISLNK(itself.st_mode);
        if (!last && !S_ISDIR(file.st_mode)) {
            return {QStringLiteral("%1 is no directory").arg(step), own ? moveAway(step) : look};
        }
        if (!last && faccessat(AT_FDCWD, name, X_OK, AT_EACCESS) != 0) {
            return {QStringLiteral("%1 may not enter the directory %2 (%3)").arg(user, step, rights(file)),
                    own ? QStringLiteral("Let everybody enter it: chmod a+x %1").arg(step) : look};
        }
        if (last && !S_ISSOCK(file.st_mode)) {
            return {QStringLiteral("%1 is no socket but %2")
                        .arg(step, S_ISDIR(file.st_mode) ? QStringLiteral("a directory") : QStringLiteral("a file")),
                    own ? moveAway(step) : look};
        }
        if (last && error == EACCES && faccessat(AT_FDCWD, name, W_OK, AT_EACCESS) != 0) {
            return {QStringLiteral("%1 may not connect to %2 (%3)").arg(user, step, rights(file)),
                    own ? QStringLiteral("Let everybody connect: chmod a+rw %1").arg(step) : look};
        }
    }
    if (error == ECONNREFUSED)
        return {QStringLiteral("nobody listens on %1").arg(path), start};
    return {QStringLiteral("%1 cannot be connected to: %2").arg(path, describe(error)),
            error == EACCES ? QStringLiteral("Look for what forbids it: journalctl --boot --grep=denied") : start};
}

QString openDirectory(const QString &path)
{
    const QStringList way = steps(path);
    for (const QString &step : way) {
        struct stat file = {};
        if (step != path && stat(step.toLocal8Bit(), &file) == 0 && (file.st_mode & S_IWOTH)
            && !(file.st_mode & S_ISVTX))
            return step;
    }
    return {};
}

std::optional<QVector<BusAddress>> parseAddress(const QByteArray &text)
{
    DBusAddressEntry **entries = nullptr;
    int count = 0;
    if (!dbus_parse_address(text, &entries, &count, nullptr))
        return std::nullopt;
    QVector<BusAddress> addresses;
    const QList<QByteArray> parts = text.split(';');
    for (int i = 0; i < count; ++i) {
        const auto value = [entry = entries[i]](const char *key) {
            return QByteArray(dbus_address_entry_get_value(entry, key));
        };
        const QByteArray path = value("path");
        const QByteArray abstract = value("abstract");
        BusAddress address{QString::fromLocal8Bit(parts.at(i)),
                           QString::fromLocal8Bit(dbus_address_entry_get_method(entries[i])),
                           {},
                           value("guid")};
        if (address.transport == QLatin1String("unix") && path.isNull() != abstract.isNull()
            && value("tmpdir").isNull())
            address.socket = abstract.isNull() ? path : '\0' + abstract;
        addresses.append(address);
    }
    dbus_address_entries_free(entries);
    return addresses;
}

bool isOtherTransport(const BusAddress &address)
{
    const char *const transports[] = {"tcp", "nonce-tcp", "unixexec", "autolaunch"};
    return std::any_of(std::begin(transports), std::end(transports),
                       [&address](const char *transport) { return address.transport == QLatin1String(transport); });
}

Explanation explain(const BusAddress &address, int error, const QString &start)
{
    if (address.transport != QLatin1String("unix"))
        return {QStringLiteral("hosts know no transport such as that of the address \"%1\"").arg(address.text), {}};
    if (address.socket.isEmpty())
        return {QStringLiteral("the address %1 does not name one socket to connect to").arg(address.text), {}};
    if (error == ENAMETOOLONG) {
        return {QStringLiteral("the socket of the address %1 has a name of more than %2 bytes, which hosts do not take")
                    .arg(address.text)
                    .arg(BusLink::LongestName),
                {}};
    }
    if (!address.socket.startsWith('\0'))
        return explain(QString::fromLocal8Bit(address.socket), error, start);
    return {error == ECONNREFUSED ? QStringLiteral("nobody listens at %1").arg(address.text)
                                  : QStringLiteral("%1 cannot be connected to: %2").arg(address.text, describe(error)),
            {}};
}
