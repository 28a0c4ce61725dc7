// Takes its page away when it is asked to end.

#include "../screen.h"

#include <QtCore/QCoreApplication>

namespace {

class OpensAtItsEnd : public Screen
{
public:
    OpensAtItsEnd()
    {
        atSigterm([this] {
            claim(true);
            after(100, [] { QCoreApplication::quit(); });
        });
    }
};

const Wrong<OpensAtItsEnd> opensAtItsEnd("opens-at-its-end", "wrong-codes-started-again,ordinary", "false-claim");

} // namespace
