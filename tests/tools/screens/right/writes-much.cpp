// Writes megabytes on standard output, without lines.

#include "../screen.h"

#include <cstdio>

namespace {

class WritesMuch : public Screen
{
    void begin() override
    {
        write(4 << 20);
        Screen::begin();
    }

    void handleState(int state) override
    {
        Screen::handleState(state);
        write(1 << 16);
    }

    static void write(int size)
    {
        const QByteArray text(size, '\0');
        fwrite(text.constData(), size_t(size), 1, stdout);
        fflush(stdout);
    }
};

const Right<WritesMuch> writesMuch("writes-much");

} // namespace
