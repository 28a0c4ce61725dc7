// Fades for eight seconds when it is asked to end.

#include "../screen.h"

#include <QtCore/QCoreApplication>

namespace {

class TakesItsTimeAtTheEnd : public Screen
{
public:
    TakesItsTimeAtTheEnd()
    {
        atSigterm([this] { after(8000, [] { QCoreApplication::quit(); }); });
    }
};

const Wrong<TakesItsTimeAtTheEnd> takesItsTimeAtTheEnd("takes-its-time-at-the-end", "ordinary", "no-end");

} // namespace
