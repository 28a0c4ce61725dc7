#include "proc.h"

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

// Not with QFile and QDir: all threads of a world are looked at several times a second.
QByteArray contents(const QByteArray &path)
{
    char buffer[4096];
    const int file = open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return QByteArray();
    const ssize_t count = read(file, buffer, sizeof buffer);
    close(file);
    return count > 0 ? QByteArray(buffer, int(count)) : QByteArray();
}

void forEachNumber(const QByteArray &directory, const std::function<void(int number)> &function)
{
    DIR *entries = opendir(directory.constData());
    if (!entries)
        return;
    while (const dirent *entry = readdir(entries)) {
        if (const int number = atoi(entry->d_name))
            function(number);
    }
    closedir(entries);
}
