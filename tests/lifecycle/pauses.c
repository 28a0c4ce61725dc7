// Preloaded into a program, it makes its threads stop for a moment, now and then, where they take or give back memory, and
// where Qt 5.15 has a list grow or looks through it: what happens between two threads once in thousands of calls happens
// once in a few.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

extern void *__libc_malloc(size_t size);
extern void __libc_free(void *memory);

static void pauseOnceIn(int times, useconds_t longest)
{
    static __thread unsigned seed;
    // Each thread of each process stops at other places.
    if (seed == 0) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        seed = (unsigned)now.tv_nsec ^ (unsigned)(uintptr_t)&seed;
    }
    if (rand_r(&seed) % times == 0)
        usleep((useconds_t)rand_r(&seed) % longest);
}

void *malloc(size_t size)
{
    pauseOnceIn(16, 128);
    return __libc_malloc(size);
}

void free(void *memory)
{
    pauseOnceIn(16, 128);
    __libc_free(memory);
}

// QListData::detach_grow(): there is room for an element, which has not been written yet.
void *_ZN9QListData11detach_growEPii(void *list, int *index, int count)
{
    typedef void *DetachGrow(void *, int *, int);
    DetachGrow *const detachGrow = (DetachGrow *)(uintptr_t)dlsym(RTLD_NEXT, __func__);
    void *const old = detachGrow(list, index, count);
    pauseOnceIn(1, 1024);
    return old;
}

struct ListData
{
    int references, room, begin, end;
};

// QStringList::contains(): an empty list may be about to grow.
bool _ZN9QtPrivate20QStringList_containsEPK11QStringListRK7QStringN2Qt15CaseSensitivityE(struct ListData *const *list,
                                                                                         const void *text,
                                                                                         int caseSensitivity)
{
    typedef bool Contains(struct ListData *const *, const void *, int);
    Contains *const contains = (Contains *)(uintptr_t)dlsym(RTLD_NEXT, __func__);
    for (int looks = 0; looks < 16; ++looks) {
        const struct ListData *const data = __atomic_load_n(list, __ATOMIC_ACQUIRE);
        if (data->begin != data->end)
            break;
        usleep(16);
    }
    return contains(list, text, caseSensitivity);
}
