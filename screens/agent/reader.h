#pragma once

#include "messages.h"

/** Reads from the daemon what a user can use. False when it does not answer. Blocks for as long as the daemon does. */
bool readChoice(uint uid, AuthScreens::Wire::Choice *choice);
