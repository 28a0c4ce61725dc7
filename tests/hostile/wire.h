#pragma once

// D-Bus messages made by hand: what the hostile peers send need not be what a D-Bus library would let through.

#include <cstdint>
#include <random>
#include <string>

using Bytes = std::string;
using Lots = std::mt19937;

/** A number below @p below. */
unsigned draw(Lots &lots, unsigned below);

struct Message
{
    enum Type : uint8_t {
        Call = 1,
        Return = 2,
        Error = 3,
        Signal = 4,
    };

    uint8_t type = Signal;
    uint32_t serial = 1;
    uint32_t replySerial = 0;
    Bytes path;
    Bytes interface;
    Bytes member;
    Bytes errorName;
    Bytes destination;
    Bytes sender;
    Bytes signature;
    Bytes body;

    Bytes marshalled(bool bigEndian) const;

    /** Reads a message of a D-Bus library on this machine; returns its length, 0 when it has not come whole. */
    size_t read(const Bytes &bytes);
};

/** A complete type, drawn by lot. */
Bytes drawSignature(Lots &lots);

/** Values of the types that @p signature names, drawn by lot, as a message's body. */
Bytes drawBody(const Bytes &signature, Lots &lots, bool bigEndian);

/** The body of a message that carries texts alone. */
Bytes textBody(std::initializer_list<Bytes> values, bool bigEndian);
