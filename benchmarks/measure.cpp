#include "measure.h"

#include <valgrind/callgrind.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

std::atomic<long> allocations;

/** Enough for an odd turn not to be the middle one. */
constexpr int CountedTurns = 5;
constexpr int TimedTurns = 41;
constexpr int CallsInATurn = 20;

/** What is said of it, of each call or each turn. */
struct Costs
{
    std::vector<double> allocations;
    std::vector<double> microseconds;
};

void make(const Subject &subject, int calls, Costs &costs)
{
    const std::string phase = std::string(subject.name) + "/" + std::to_string(calls);
    costs.allocations.reserve(costs.allocations.size() + size_t(calls));
    CALLGRIND_ZERO_STATS;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i) {
        const long before = allocations;
        subject.call();
        costs.allocations.push_back(double(allocations - before));
    }
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
    CALLGRIND_DUMP_STATS_AT(phase.c_str());
    costs.microseconds.push_back(time.count() / calls);
}

double middle(std::vector<double> &values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void print(const Subject &subject, Costs &costs)
{
    if (RUNNING_ON_VALGRIND)
        printFigure(subject.name, "allocations", middle(costs.allocations));
    else
        printFigure(subject.name, "µs", middle(costs.microseconds));
}

} // namespace

// Qt 5.15 allocates with malloc() and operator new alike, and operator new calls malloc().
// NOLINTBEGIN(bugprone-reserved-identifier): these names are glibc's.
extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_realloc(void *memory, size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);
// NOLINTEND(bugprone-reserved-identifier)

extern "C" void *malloc(size_t size)
{
    ++allocations;
    return __libc_malloc(size);
}

extern "C" void *calloc(size_t count, size_t size)
{
    ++allocations;
    return __libc_calloc(count, size);
}

extern "C" void *realloc(void *memory, size_t size)
{
    ++allocations;
    return __libc_realloc(memory, size);
}

void measureInTurns(std::initializer_list<Subject> subjects)
{
    // What is made at a first call, and grows at the next ones.
    for (const Subject &subject : subjects) {
        for (int i = 0; i < CallsInATurn; ++i)
            subject.call();
    }
    std::vector<Costs> costs(subjects.size());
    const int turns = RUNNING_ON_VALGRIND ? CountedTurns : TimedTurns;
    for (int turn = 0; turn < turns; ++turn) {
        auto own = costs.begin();
        for (const Subject &subject : subjects)
            make(subject, CallsInATurn, *own++);
    }
    auto own = costs.begin();
    for (const Subject &subject : subjects)
        print(subject, *own++);
}

void measureOnce(const char *name, const std::function<void()> &call)
{
    const Subject subject{name, call};
    Costs costs;
    make(subject, 1, costs);
    print(subject, costs);
}

void printFigure(const char *name, const char *unit, double value)
{
    std::printf("%s %s %.10g\n", name, unit, value);
    std::fflush(stdout);
}
