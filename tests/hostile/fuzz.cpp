// The cases under libFuzzer, which changes the scripts and keeps those with which the library does something new. The
// host is a process for each case, as it may rightly end: what it has covered comes back over shared memory.

#include "case.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

// Made by clang's -fsanitize=fuzzer, an eight-bit counter for each branch; without it both are null.
extern "C" __attribute__((weak)) uint8_t __start___sancov_cntrs[]; // NOLINT(bugprone-reserved-identifier)
extern "C" __attribute__((weak)) uint8_t __stop___sancov_cntrs[];  // NOLINT(bugprone-reserved-identifier)

namespace {

size_t counterCount()
{
    return size_t(__stop___sancov_cntrs - __start___sancov_cntrs);
}

uint8_t *sharedCounters()
{
    static void *const counters =
        mmap(nullptr, counterCount() + 1, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<uint8_t *>(counters);
}

// Called before what libFuzzer has registered, which takes the end of its process for a fault.
void endHost(int status, void *)
{
    memcpy(sharedCounters(), __start___sancov_cntrs, counterCount());
    fflush(nullptr);
    _exit(status);
}

void prepareHost()
{
    on_exit(endHost, nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t maximum, unsigned seed);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    memset(sharedCounters(), 0, counterCount());
    const Bytes problem = playCase(Bytes(data, data + size), false, prepareHost);
    const uint8_t *const counters = sharedCounters();
    for (size_t i = 0; i < counterCount(); ++i) {
        uint8_t &counter = __start___sancov_cntrs[i];
        counter = uint8_t(counter | counters[i]);
    }
    if (!problem.empty()) {
        fprintf(stderr, "%s\n", problem.c_str());
        abort();
    }
    return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t maximum, unsigned seed)
{
    Lots lots(seed);
    const Bytes before(data, data + size);
    const Bytes changed = draw(lots, 20) == 0 ? drawScript(lots) : drawChange(before, lots);
    if (changed.size() > maximum)
        return size;
    std::copy(changed.begin(), changed.end(), data);
    return changed.size();
}
