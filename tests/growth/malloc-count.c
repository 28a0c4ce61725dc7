// In the place of malloc() and its like of glibc, for counting what they have given out. mallinfo2() of glibc 2.36 is
// no measure of that: its uordblks drifts by tens of kilobytes while the blocks in use stay the same.

#include "malloc-count.h"

#include <errno.h>
#include <malloc.h>
#include <stdatomic.h>
#include <stdlib.h>

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);

static atomic_long bytes;
static atomic_long blocks;

long allocatedBytes(void)
{
    return bytes;
}

long allocatedBlocks(void)
{
    return blocks;
}

static void *given(void *block)
{
    if (block) {
        bytes += (long)malloc_usable_size(block);
        ++blocks;
    }
    return block;
}

static void *taken(void *block)
{
    if (block) {
        bytes -= (long)malloc_usable_size(block);
        --blocks;
    }
    return block;
}

void *malloc(size_t size)
{
    return given(__libc_malloc(size));
}

void *calloc(size_t count, size_t size)
{
    return given(__libc_calloc(count, size));
}

void *realloc(void *block, size_t size)
{
    void *const moved = __libc_realloc(taken(block), size);
    // What could not be enlarged is still there.
    if (!moved && size > 0)
        given(block);
    return given(moved);
}

void *memalign(size_t alignment, size_t size)
{
    return given(__libc_memalign(alignment, size));
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return memalign(alignment, size);
}

int posix_memalign(void **block, size_t alignment, size_t size)
{
    void *const result = memalign(alignment, size);
    if (!result)
        return ENOMEM;
    *block = result;
    return 0;
}

void free(void *block)
{
    __libc_free(taken(block));
}
