// Nothing but the common ground.

#include "../screen.h"

namespace {

class Plain : public Screen
{
};

const Right<Plain> plain("plain");

} // namespace
