// Returns from its event loop when it is asked to end.

#include "../screen.h"

#include <QtCore/QCoreApplication>

namespace {

class EndsWhenAsked : public Screen
{
public:
    EndsWhenAsked()
    {
        atSigterm([] { QCoreApplication::quit(); });
    }
};

const Right<EndsWhenAsked> endsWhenAsked("ends-when-asked");

} // namespace
