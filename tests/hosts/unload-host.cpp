// A host that does not link the library:
//     unload-host app|noapp idle|flight PLUGIN
// Three times it loads the plugin, and with it the library, uses it, turns its event loop if it has one, and unloads
// the plugin. The status is 5 when the library does not stay, and 6 when the plugin does.

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {
struct Range
{
    quintptr begin = 0;
    quintptr end = 0;
};

// Where a library is.
Range mapped(const char *name)
{
    QFile maps(QStringLiteral("/proc/self/maps"));
    if (!maps.open(QIODevice::ReadOnly))
        abort();
    Range result;
    for (QByteArray line = maps.readLine(); !line.isEmpty(); line = maps.readLine()) {
        if (!line.contains(name))
            continue;
        const QByteArray range = line.left(line.indexOf(' '));
        const int dash = range.indexOf('-');
        if (!result.begin)
            result.begin = quintptr(range.left(dash).toULongLong(nullptr, 16));
        result.end = quintptr(range.mid(dash + 1).toULongLong(nullptr, 16));
    }
    return result;
}

// Whoever still uses what was there is found out, and nothing is loaded there again. By now the D-Bus thread may have got
// memory there.
void block(const Range &range)
{
    const auto size = size_t(sysconf(_SC_PAGESIZE));
    for (quintptr page = range.begin; page < range.end; page += size) {
        const auto begin = reinterpret_cast<void *>(page); // NOLINT(performance-no-int-to-ptr)
        if (mmap(begin, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0) != begin
            && errno != EEXIST) {
            perror("mmap");
            exit(4);
        }
    }
}
} // namespace

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    std::unique_ptr<QCoreApplication> application;
    if (QByteArray(argv[1]) == "app")
        application = std::make_unique<QCoreApplication>(argc, argv);
    for (int round = 0; round < 3; ++round) {
        void *plugin = dlopen(argv[3], RTLD_NOW | RTLD_LOCAL);
        if (!plugin) {
            fprintf(stderr, "%s\n", dlerror());
            return 4;
        }
        const auto use = reinterpret_cast<int (*)(bool)>(dlsym(plugin, "useLibrary"));
        if (!use)
            return 4;
        if (const int status = use(QByteArray(argv[2]) == "flight"))
            return status;
        QCoreApplication::processEvents();

        const Range place = mapped("settings-plugin");
        if (!place.begin)
            return 4;
        dlclose(plugin);
        if (!mapped("libauth-client").begin)
            return 5;
        if (mapped("settings-plugin").begin)
            return 6;
        block(place);
        QCoreApplication::processEvents();
    }
    return 0;
}
