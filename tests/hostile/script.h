#pragma once

// What a case is: what the host does, and what the two peers do to it. Written in words, of which unknown ones are passed
// over, so that a script with faults is a script, too; README.md of tests/ says what they mean.

#include "wire.h"

#include <vector>

/** What a peer may react to: a connection, a line of the handshake, a call, the host's word "round". */
extern const char *const eventNames[];
extern const char *const actionNames[];
extern const char *const stepNames[];
extern const char *const endNames[];
/** What takes long or much, or does harm that is known; never drawn by lot. */
extern const char *const heavyActionNames[];
extern const char *const heavyStepNames[];

enum class End {
    Close,
    Garbage,
    Alive,
    Bus,
};

struct Action
{
    Bytes name;
    unsigned number;
};

struct Reaction
{
    Bytes event;
    /** How many such events pass before. */
    unsigned after;
    bool always;
    std::vector<Action> actions;
    /** Whether it has come to that. */
    bool isMet = false;
};

struct Script
{
    explicit Script(const Bytes &text);

    /** On one processor alone. */
    bool isPinned = false;
    /** The host has used the bus before, and not run its event loop since. */
    bool hasUsedBus = false;
    End end = End::Close;
    std::vector<Bytes> steps;
    std::vector<Reaction> reactions;
    /** The first word that means nothing. */
    Bytes unknown;
};

/** A script, drawn by lot. */
Bytes drawScript(Lots &lots);

/** The script with a word more, less or another. */
Bytes drawChange(const Bytes &text, Lots &lots);
