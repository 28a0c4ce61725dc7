// Preloaded into a program, it makes its threads stop for a moment, now and then, where they take or give back memory: what
// happens between two threads once in thousands of calls happens once in a few.

#define _GNU_SOURCE
#include <stdlib.h>
#include <unistd.h>

extern void *__libc_malloc(size_t size);
extern void __libc_free(void *memory);

static void pauseAtTimes(void)
{
    static __thread unsigned seed;
    if (rand_r(&seed) % 16 == 0)
        usleep((useconds_t)rand_r(&seed) % 128);
}

void *malloc(size_t size)
{
    pauseAtTimes();
    return __libc_malloc(size);
}

void free(void *memory)
{
    pauseAtTimes();
    __libc_free(memory);
}
