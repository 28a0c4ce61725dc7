// Lock screens over which authd-hostcheck is tested: hostcheck-screens NAME is one of them, hostcheck-screens --list prints
// all.

#include "screen.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <cstdio>

namespace {

int list()
{
    for (const Entry &entry : collection()) {
        if (entry.rule.isEmpty())
            printf("right %s\n", entry.name.constData());
        else
            printf("wrong %s %s %s\n", entry.name.constData(), entry.days.constData(), entry.rule.constData());
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<Entry> &entries = collection();
    std::sort(entries.begin(), entries.end(),
              [](const Entry &left, const Entry &right) { return left.name < right.name; });
    const QByteArray name = argc == 2 ? argv[1] : "";
    if (name == "--list")
        return list();
    const auto entry =
        std::find_if(entries.begin(), entries.end(), [&name](const Entry &one) { return one.name == name; });
    if (entry == entries.end() || !qEnvironmentVariableIsSet("AUTHD_HOSTCHECK_FD")) {
        fputs("Usage: authd-hostcheck -- hostcheck-screens NAME\n       hostcheck-screens --list\n", stderr);
        return 2;
    }
    const QCoreApplication application(argc, argv);
    return entry->make()->run();
}
