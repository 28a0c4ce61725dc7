#pragma once

#include <QtCore/QByteArray>

#include <optional>

/**
 * Makes SIGINT, SIGTERM and SIGHUP end the process at once, with the echo of the terminal as it was.
 *
 * At once, because the library waits for the daemon with these signals unheeded.
 *
 * @param status the exit status
 */
void endOnSignals(int status);

/** Asks for a secret on the controlling terminal, without echo; nothing when there is no terminal. */
std::optional<QByteArray> readSecretFromTerminal(const char *prompt);

/** Reads a secret up to the end of a file, less one newline at its end; nothing when it cannot be read. */
std::optional<QByteArray> readSecretFromDescriptor(int descriptor);
