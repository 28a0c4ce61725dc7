#pragma once

#include "script.h"

#include <atomic>
#include <cstddef>

/** What the host tells from its process, also when it ends. */
struct Ledger
{
    enum Phase : int {
        Starting,
        Constructing,
        Running,
    };
    std::atomic<int> phase;
    /** Whether the library has said that there is no daemon, or no bus. */
    std::atomic<bool> saidGoodbye;
    char complaint[400];
};

/** The process of the host: plays the script's steps, checks what it can see, and ends. */
[[noreturn]] void playHost(const Script &script, int control, Ledger &ledger);

// What the host says over the control socket, and is answered by a byte.
constexpr char RoundWord = 'r';
constexpr char EndWord = 'e';
constexpr char AllEnded = 'y';
constexpr char SomeLive = 'n';

/** What a host has needed, and what the script has not. */
struct Effort
{
    long peakKilobytes = 0;
    long milliseconds = 0;
    Bytes words;
    Bytes unmet; ///< see Peers::unmet()
};

/**
 * Plays a case between the two peers and a host, a process of its own, in which @p prepareHost is called first. Returns
 * what was wrong with the host, with its last words; nothing when all was well. @p isTold has everything told on stderr.
 */
Bytes playCase(const Bytes &text, bool isTold, void (*prepareHost)() = nullptr, Effort *effort = nullptr);
