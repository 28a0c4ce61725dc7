// Takes an end that it was asked for to be a failure.

#include "../screen.h"

#include <QtCore/QCoreApplication>

namespace {

class EndsWith1WhenAsked : public Screen
{
public:
    EndsWith1WhenAsked()
    {
        atSigterm([] { QCoreApplication::exit(1); });
    }
};

const Wrong<EndsWith1WhenAsked> endsWith1WhenAsked("ends-with-1-when-asked", "ordinary", "no-end");

} // namespace
