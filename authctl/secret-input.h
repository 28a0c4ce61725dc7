#pragma once

#include <QtCore/QByteArray>

#include <optional>

/** Makes sure that secrets do not end up in a core, and that no other process of the user's can read them. */
void keepSecretsFromDumps();

/**
 * Makes SIGINT, SIGTERM, SIGHUP and SIGQUIT end the process at once, with the echo of the terminal as it was.
 *
 * At once, because the library waits for the daemon with these signals unheeded.
 *
 * @param status the exit status
 */
void endOnSignals(int status);

/**
 * Asks for a secret on the controlling terminal, without echo; nothing when there is no terminal.
 *
 * When the process is stopped meanwhile, the terminal is as it was until it goes on; then it asks anew.
 */
std::optional<QByteArray> readSecretFromTerminal(const char *prompt);

/** Reads a secret up to the end of a file, less one newline at its end; nothing when it cannot be read. */
std::optional<QByteArray> readSecretFromDescriptor(int descriptor);
