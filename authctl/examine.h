#pragma once

#include "output.h"
#include "request.h"

/**
 * Looks for what would end, hold up or deceive a host on this machine, and tells it together with what is all right.
 *
 * The checks are in doctor/. They make no object of the library, which would end the process or wait. They ask the
 * daemon for introspection data, for a challenge (on a connection that is closed afterwards) and for the device-lock
 * state, and for nothing else. Nothing that they send reaches another process than the daemon and the bus.
 *
 * @returns the exit status
 */
int examine(Output &output, const Request &request);
