#pragma once

#include <vector>

// The matrix is the product of the first three tables; the fourth says what each of its cells promises.

/** Something that a host asks of the library, or a signal that it is to hear. */
struct Call
{
    const char *name;   ///< faults-host knows it by this
    const char *kinds;  ///< asynchronous, blocking, construction or signal; and bus where it travels on the system bus
    const char *method; ///< the method that the daemon meets with the fault, or the signal that the daemon sends
    const char *other;  ///< what is answered, or sent, in other types
    const char *extra;  ///< … and with too many arguments
    const char *sends;  ///< the calls that the daemon gets, with their D-Bus types; those of the system bus come last
    const char *begins = "";      ///< what is heard before the event loop runs
    bool holdsChallenge = false;  ///< before; a daemon that has been away is asked for a new one
    int skip = 0;                 ///< the first calls of the method, which are for another object
    const char *beside = nullptr; ///< a signal for beside the reply, where the stand-in sends none of its own
    const char *right = nullptr;  ///< a signal's arguments
    const char *heard = nullptr;  ///< what is heard of the signal
    const char *before = nullptr; ///< what the host shows when it has not heard the signal
    const char *after = nullptr;  ///< … and when it has
};

/** Something that goes wrong, as steps of the daemon and the host (see Cell::take()). */
struct Fault
{
    const char *name;
    const char *kinds;    ///< by which the promises call it, too
    const char *ofCall;   ///< the steps where the host calls
    const char *ofSignal; ///< the steps where the daemon sends a signal
    const char *text;     ///< what the daemon says, in the library's warning
    bool reaches = true;  ///< whether the daemon gets the call
    int lasts = 0;        ///< seconds, at least, until the library gives up
    bool isApart = false; ///< each cell has a world of its own: it waits for long, or the bus goes
};

/** What the host does while the call is under way. */
struct Act
{
    const char *name;
};

/**
 * What the library promises where the columns fit: names or kinds, parted by '|', or "*". The first that fits holds.
 *
 * "heard" holds what the host hears, in its order: signals, what calls return, what callbacks get, warnings.
 *
 *     a; b                            a, and then b
 *     a; b | c                        the same, and c at any time
 *     a or b                          one of the two
 *     a; ~; b                         after a the late reply comes
 *     a . b                           b is what the host shows at its end
 *     …                               any text
 *     %text                           the text of the fault's warning
 *     {begins} {heard} {before} {after}   those of the call
 *     {all}                           what is heard when the host does nothing meanwhile
 *     {part}                          as much of that as has come
 */
struct Promise
{
    const char *calls;
    const char *faults;
    const char *acts;
    const char *name;
    const char *heard;           ///< where the status is Impossible, why there is no such case
    const char *sends = nullptr; ///< where they are not the call's; one with '?' may be missing
    int status = 0;              ///< with which the host ends
};

constexpr int Impossible = -1;

extern const std::vector<Call> calls;
extern const std::vector<Fault> faults;
extern const std::vector<Act> acts;
extern const std::vector<Promise> promises;
